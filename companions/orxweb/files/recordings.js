// Recordings of a day: one after the other, along a time line.
"use strict";

const kSpeeds = [0.5, 1, 2, 4, 8, 16];
const picture = document.getElementById("picture");
const controls = document.getElementById("controls");
const line = document.getElementById("line");
const rows = [...document.querySelectorAll("#rows tr[data-mp4]")].map((row) => ({
  row, start: seconds(row.dataset.start), length: Number(row.dataset.seconds), mp4: row.dataset.mp4, text: row.dataset.start,
  grows: row.dataset.state === "writing",
}));

// Local time of the server, never of this machine.
function seconds(text) {
  return Date.parse(text + "Z") / 1000;
}

function timeText(at) {
  return new Date(at * 1000).toISOString().slice(0, 19);
}

function rowAt(at) {
  return rows.find((row) => at < row.start + row.length);
}

const dayBegin = line ? seconds(line.dataset.day + "T00:00:00") : 0;
let current = picture ? rows.find((row) => row.text === picture.dataset.start) : null;
let speed = 1, choice = null, asked = 0;

// --- loading ---

// A recording that is opened for the first time is prepared for a moment; the server says so by 503. Returns its
// address with the tag of its bytes, which stay the same while it is played, even if it grows; "" for none.
async function ready(mp4) {
  const mine = ++asked;
  for (;;) {
    try {
      const answer = await fetch(mp4, {method: "HEAD", credentials: "same-origin"});
      if (mine !== asked) return "";
      if (answer.status === 401) location.reload();
      if (answer.ok) return mp4 + "?tag=" + encodeURIComponent((answer.headers.get("ETag") || "").replaceAll('"', ""));
      if (answer.status !== 503) return report(say("broken")), "";
      report(say("making"));
    } catch (error) {
      report(say("away"));
    }
    await new Promise((resolve) => setTimeout(resolve, 1000));
  }
}

async function load(row, offset, play) {
  current = row;
  rows.forEach((other) => other.row.classList.toggle("here", other === row));
  picture.pause();
  const address = await ready(row.mp4);
  if (!address) return;
  report("");
  picture.preload = "auto";
  picture.src = address;
  picture.addEventListener("loadedmetadata", () => {
    if (offset > 0) picture.currentTime = offset;
    if (play) picture.play().catch(() => {});
  }, {once: true});
}

function playAt(at) {
  const row = rowAt(at);
  if (!row) return;
  if (!picture) return location.assign("?at=" + timeText(Math.max(at, row.start)));
  const offset = Math.max(0, at - row.start);
  if (row === current && picture.readyState > 0) picture.currentTime = offset;
  else load(row, offset, true);
}

function now() {
  return current ? current.start + picture.currentTime : 0;
}

// --- controls ---

function setSpeed(next) {
  speed = next;
  picture.defaultPlaybackRate = picture.playbackRate = speed;  // also of the next recording
  choice.value = String(speed);
}

function stepSpeed(step) {
  setSpeed(kSpeeds[Math.min(kSpeeds.length - 1, Math.max(0, kSpeeds.indexOf(speed) + step))]);
}

function neighbour(step) {
  const next = rows[rows.indexOf(current) + step];
  if (next) load(next, 0, true);
}

function toggle() {
  if (picture.paused) picture.play().catch(() => {});
  else picture.pause();
}

function addSpeeds() {
  const label = document.createElement("label");
  choice = document.createElement("select");
  for (const one of kSpeeds) choice.add(new Option(one + "×", String(one)));
  choice.value = "1";
  choice.addEventListener("change", () => setSpeed(Number(choice.value)));
  label.append(texts.speed + " ", choice);
  controls.append(label);
}

function addControls() {
  addButton(controls, texts.previous, () => neighbour(-1));
  addButton(controls, say("back", 10), () => playAt(now() - 10));
  const button = addButton(controls, texts.play, toggle);
  picture.addEventListener("play", () => { button.textContent = texts.pause; });
  picture.addEventListener("pause", () => { button.textContent = texts.play; });
  addButton(controls, say("forward", 10), () => playAt(now() + 10));
  addButton(controls, texts.next, () => neighbour(1));
  addSpeeds();
  const keys = document.createElement("small");
  keys.textContent = texts.keys;
  controls.append(keys);
}

function onKey(event) {
  const free = !/^(INPUT|SELECT|TEXTAREA|BUTTON|A|VIDEO)$/i.test(event.target.nodeName);
  if (!free || event.ctrlKey || event.altKey || event.metaKey) return;
  const action = {
    " ": toggle,
    ArrowLeft: () => playAt(now() - 10),
    ArrowRight: () => playAt(now() + 10),
    "+": () => stepSpeed(1),
    "-": () => stepSpeed(-1),
  }[event.key];
  if (!action) return;
  action();
  event.preventDefault();
}

// --- the time line ---

function moveMark() {
  const mark = document.getElementById("now");
  const at = now() - dayBegin;
  mark.setAttribute("x1", at);
  mark.setAttribute("x2", at);
  if (!picture.readyState) return;
  report(timeText(now()).replace("T", " "));
}

// The part of the day that the line shows: all of it, or some hours around the mark.
const shown = {from: 0, seconds: 86400};

function clock(second) {
  const hours = Math.floor(second / 3600), minutes = (second % 3600) / 60;
  return shown.seconds > 21600 ? String(hours) : hours + ":" + String(minutes).padStart(2, "0");
}

function zoom(hours) {
  const middle = current ? now() - dayBegin : rows.length ? rows[0].start - dayBegin : 43200;
  shown.seconds = hours * 3600;
  const step = shown.seconds / 12;  // between two labels
  shown.from = step * Math.round(Math.min(86400 - shown.seconds, Math.max(0, middle - shown.seconds / 2)) / step);
  line.setAttribute("viewBox", [shown.from, 0, shown.seconds, 40].join(" "));
  [...document.querySelector(".hours").children].forEach((label, i) => {
    label.textContent = clock(shown.from + step * i);
  });
}

function addZoom() {
  const row = document.createElement("div"), label = document.createElement("label"), select = document.createElement("select");
  for (const hours of [24, 6, 1]) select.add(new Option(hours + " h", String(hours)));
  select.addEventListener("change", () => zoom(Number(select.value)));
  label.append(texts.shown + " ", select);
  row.className = "controls zoom";
  row.append(label);
  document.querySelector(".hours").after(row);
}

function onLine(event) {
  const box = line.getBoundingClientRect();
  event.preventDefault();
  if (event.detail === 0) return location.assign(event.target.closest("a").href.baseVal);  // by the keyboard
  playAt(dayBegin + shown.from + ((event.clientX - box.left) / box.width) * shown.seconds);
}

// What still grows has more in a while.
function goOn() {
  const at = picture.currentTime;
  if (!current.grows) return neighbour(1);
  setTimeout(() => picture.ended && load(current, at, true), 10000);
}

function start() {
  const offset = Number(picture.dataset.offset);
  addControls();
  picture.addEventListener("timeupdate", moveMark);
  picture.addEventListener("ended", goOn);
  picture.addEventListener("ratechange", () => {
    if (kSpeeds.includes(picture.playbackRate)) setSpeed(picture.playbackRate);
  });
  document.addEventListener("keydown", onKey);
  picture.removeAttribute("src");
  if (current) load(current, offset, true);
}

if (line) {
  line.addEventListener("click", onLine);
  addZoom();
}
if (picture) start();

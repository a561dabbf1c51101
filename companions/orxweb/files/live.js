// One program live, by Media Source Extensions: stays near the newest picture, whatever the network does.
"use strict";

const kPauses = [1, 2, 5, 10];  // seconds until the next try
const kLeast = 0.12;            // seconds behind the newest that it stays at least, so that it does not run dry
const kMore = 0.15;             // so much further behind: plays faster
const kMuch = 2;                // so much further behind: jumps
const kKept = 20;               // seconds that stay behind the picture
const kSilent = 15000;          // ms without a byte after which it is opened anew

const picture = document.getElementById("picture");
const controls = document.getElementById("controls");
const address = picture.getAttribute("src");
const state = {tries: 0, stalls: 0, playing: false, wanted: true, begunAt: 0, abort: null};
const pace = {end: 0, at: 0, gap: 0};  // when the newest picture came, and how long pictures keep waiting for each other
let dry = 0;                           // timer of a stall

function show(text) {
  report(text);
  picture.dataset.stalls = state.stalls;
}

function newest() {
  const ranges = picture.buffered;
  return ranges.length ? ranges.end(ranges.length - 1) : 0;
}

function behind() {
  return newest() - picture.currentTime;
}

// Seconds behind the newest at which it plays without running dry, as pictures come now.
function wantedBehind() {
  return Math.min(1.5, Math.max(kLeast, pace.gap * 1.2 + 0.03));
}

function notePace() {
  const now = performance.now() / 1000, end = newest();
  if (end <= pace.end) return;
  if (pace.end) pace.gap = Math.max(pace.gap * 0.98, Math.min(2, now - pace.at));
  pace.end = end;
  pace.at = now;
}

function toNewest() {
  const ranges = picture.buffered;
  if (ranges.length) picture.currentTime = Math.max(ranges.start(ranges.length - 1), newest() - wantedBehind());
}

// Called often while it plays: slower where it would run dry, faster or with a jump where it is late.
function keepNear() {
  const ranges = picture.buffered;
  if (picture.paused || picture.seeking || !ranges.length) return;
  const late = behind(), wanted = wantedBehind();
  picture.dataset.behind = late.toFixed(3);
  if (late > wanted + kMuch || picture.currentTime < ranges.start(ranges.length - 1)) toNewest();
  else if (late > wanted + kMore) picture.playbackRate = late > wanted + 1 ? 1.3 : 1.1;
  else if (late < wanted * 0.6) picture.playbackRate = 0.94;
  else if (picture.playbackRate > 1 ? late < wanted + 0.05 : late > wanted) picture.playbackRate = 1;
}

// A stall is what a visitor can see: no picture for a moment, though there should be one.
function noteDry() {
  if (!state.playing || picture.seeking || dry || performance.now() - state.begunAt < 1500) return;
  dry = setTimeout(() => {
    state.stalls++;
    pace.gap = Math.min(2, pace.gap + 0.05);
  }, 150);
}

function noteFlow() {
  clearTimeout(dry);
  dry = 0;
}

function tell() {
  if (!state.playing) return;
  if (!state.wanted && behind() > kKept) return state.abort.abort();  // nobody looks: neither memory nor line for it
  show([say("live"), say("delay", numberText(behind())), say("stalls", state.stalls)].join(" · "));
}

// --- one connection ---

// Appends pieces one after the other, and drops what was shown long ago.
function makeFeed(source, type) {
  const buffer = source.addSourceBuffer(type);
  const queue = [];
  const next = () => {
    if (buffer.updating || source.readyState !== "open") return;
    const ranges = buffer.buffered;
    if (ranges.length && picture.currentTime - ranges.start(0) > kKept * 2)
      return buffer.remove(0, picture.currentTime - kKept);
    if (queue.length) buffer.appendBuffer(queue.shift());
  };
  buffer.addEventListener("updateend", () => {
    next();
    notePace();
    keepNear();
    if (picture.paused && state.wanted) picture.play().catch(() => {});
  });
  return (bytes) => {
    queue.push(bytes);
    next();
  };
}

function opened(source) {
  return new Promise((resolve) => source.addEventListener("sourceopen", resolve, {once: true}));
}

// What comes first is everything since the last key frame: shown from its end on.
function begin() {
  state.playing = true;
  state.tries = pace.end = pace.gap = 0;
  state.begunAt = performance.now();
  picture.addEventListener("loadeddata", toNewest, {once: true});
  if (state.wanted) picture.play().catch(() => {});
}

// Until the end of the stream. Returns why it ended: a text for good, nothing for another try.
async function play() {
  state.abort = new AbortController();
  const answer = await fetch(address, {cache: "no-store", credentials: "same-origin", signal: state.abort.signal});
  if (answer.status === 401) return location.reload();
  if (answer.status === 415) return say("noCodec", picture.dataset.codec);
  if (!answer.ok) return "";
  const type = answer.headers.get("Content-Type");
  if (!MediaSource.isTypeSupported(type)) {
    state.abort.abort();
    return say("noCodec", (type.match(/codecs="([^"]*)"/) || ["", type])[1]);
  }
  const source = new MediaSource();
  picture.src = URL.createObjectURL(source);
  await opened(source);
  URL.revokeObjectURL(picture.src);
  const feed = makeFeed(source, type);
  const reader = answer.body.getReader();
  let timer = 0;
  for (;;) {
    timer = setTimeout(() => state.abort.abort(), kSilent);
    const {value, done} = await reader.read();
    clearTimeout(timer);
    if (done || picture.error) return "";
    feed(value);
    if (!state.playing) begin();
  }
}

async function playForEver() {
  for (;;) {
    let why = "";
    if (!state.tries) show(say("connecting"));
    try {
      why = await play();
    } catch (error) {
      why = "";
    }
    if (state.abort) state.abort.abort();
    state.playing = false;
    if (why) return show(why);
    if (!state.wanted) {  // a visitor's pause lasts until he ends it
      show(say("paused"));
      await new Promise((resolve) => picture.addEventListener("play", resolve, {once: true}));
      continue;
    }
    const pause = kPauses[Math.min(state.tries++, kPauses.length - 1)];
    show(say("ended", pause));
    await new Promise((resolve) => setTimeout(resolve, pause * 1000));
  }
}

// --- controls ---

function addControls() {
  const sound = addButton(controls, say("sound"), () => {
    picture.muted = !picture.muted;
  });
  picture.addEventListener("volumechange", () => {
    sound.textContent = picture.muted ? say("sound") : say("mute");
  });
  addButton(controls, say("newest"), () => {
    toNewest();
    state.wanted = true;
    picture.play().catch(() => {});
  });
  addButton(controls, say("fullScreen"), () => picture.requestFullscreen().catch(() => {}));
  const keys = document.createElement("small");
  keys.textContent = texts.keysLive;
  controls.append(keys);
  const [, newest, full] = controls.querySelectorAll("button");
  document.addEventListener("keydown", (event) => {
    const button = {m: sound, n: newest, f: full}[event.key.toLowerCase()];
    if (!button || event.ctrlKey || event.altKey || event.metaKey || /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.nodeName)) return;
    button.click();
    event.preventDefault();
  });
}

function startVideo() {
  addControls();
  if (!("MediaSource" in window)) {
    picture.play().catch(() => {});
    return show(texts.noMse);
  }
  picture.removeAttribute("src");
  picture.addEventListener("waiting", noteDry);
  for (const name of ["playing", "timeupdate", "seeking", "pause"]) picture.addEventListener(name, noteFlow);
  picture.addEventListener("error", () => state.abort && state.abort.abort());
  picture.addEventListener("pause", () => {
    if (!document.hidden) state.wanted = false;  // a browser may pause what is not seen
  });
  picture.addEventListener("play", () => {
    state.wanted = true;
    if (behind() > wantedBehind() + kMore) toNewest();
  });
  document.addEventListener("visibilitychange", () => document.hidden || toNewest());
  setInterval(keepNear, 100);
  setInterval(tell, 1000);
  playForEver();
}

// A stream of still pictures ends without a word: the next is asked for after a while, or when the program is back.
function startImages() {
  const again = () => {
    picture.src = address.split("?")[0] + "?" + Date.now();
  };
  const isLive = () => document.querySelector("#fresh .badge.live") !== null;
  let wasLive = isLive();
  document.addEventListener("refreshed", () => {
    if (isLive() && !wasLive) again();
    wasLive = isLive();
  });
  picture.addEventListener("error", () => {
    const pause = kPauses[Math.min(state.tries++, kPauses.length - 1)];
    show(say("ended", pause));
    setTimeout(again, pause * 1000);
  });
  picture.addEventListener("load", () => {
    state.tries = 0;
    show(say("live"));
  });
}

if (picture.nodeName === "VIDEO") startVideo();
else startImages();

// What all pages share: texts of the page's language, and parts that stay fresh.
"use strict";

const texts = JSON.parse(document.body.dataset.texts);

function say(name, value) {
  return texts[name].replace("{0}", value);
}

function numberText(number) {
  return number.toLocaleString(document.documentElement.lang, {minimumFractionDigits: 1, maximumFractionDigits: 1});
}

function addButton(parent, text, action) {
  const button = document.createElement("button");
  button.type = "button";
  button.textContent = text;
  button.addEventListener("click", action);
  parent.append(button);
  return button;
}

function report(text) {
  const place = document.getElementById("report");
  if (place && place.textContent !== text) place.textContent = text;
}

// Takes the text, the attributes and the children of another element, and leaves alone what is the same: focus,
// pictures that were loaded and selected text stay.
function adopt(old, fresh) {
  if (old.isEqualNode(fresh)) return;
  if (old.nodeName !== fresh.nodeName || old.nodeType !== Node.ELEMENT_NODE) {
    old.replaceWith(document.importNode(fresh, true));
    return;
  }
  const still = old.dataset && old.dataset.still && fresh.dataset.still;
  for (const name of fresh.getAttributeNames())
    if (!(still && name === "src") && old.getAttribute(name) !== fresh.getAttribute(name))
      old.setAttribute(name, fresh.getAttribute(name));
  for (const name of old.getAttributeNames())
    if (!fresh.hasAttribute(name) && !["hidden"].includes(name)) old.removeAttribute(name);
  const olds = [...old.childNodes], freshs = [...fresh.childNodes];
  olds.slice(freshs.length).forEach((node) => node.remove());
  freshs.forEach((node, i) => (olds[i] ? adopt(olds[i], node) : old.append(document.importNode(node, true))));
}

// The page has become one sentence: it takes the place of each state until there is more to tell.
function tellAway(place, page) {
  const sentence = page.querySelector("main [role=alert]");
  if (!sentence) return;
  place.querySelectorAll(".badge.rec").forEach((badge) => badge.remove());
  for (const badge of place.querySelectorAll(".badge")) {
    badge.className = "badge";
    badge.textContent = sentence.textContent;
  }
  document.dispatchEvent(new Event("refreshed"));
}

// The element "fresh" is fetched again with its page every so many seconds; its visitor sees no flicker.
async function refresh() {
  const place = document.getElementById("fresh");
  if (!place) return;
  let seconds = Number(place.dataset.fresh) || 5;
  try {
    if (!document.hidden) {
      const answer = await fetch(location.href, {cache: "no-store", credentials: "same-origin"});
      if (answer.redirected && new URL(answer.url).pathname === "/login") return location.assign(answer.url);
      const page = new DOMParser().parseFromString(await answer.text(), "text/html");
      const fresh = page.getElementById("fresh");
      if (answer.ok && fresh) {
        adopt(place, fresh);
        document.dispatchEvent(new Event("refreshed"));
      } else {
        tellAway(place, page);
      }
    }
  } catch (error) {
    seconds = 5;
  }
  setTimeout(refresh, seconds * 1000);
}

if (document.getElementById("fresh")) setTimeout(refresh, 2000);

// A page that tells that the server, or a program, is away comes back by itself.
async function comeBack() {
  try {
    const answer = await fetch(location.href, {cache: "no-store", credentials: "same-origin"});
    if (answer.ok) return location.reload();
  } catch (error) {
    // the next try tells
  }
  setTimeout(comeBack, 5000);
}

if (document.body.dataset.page === "away") setTimeout(comeBack, 5000);

// Tiles: new still pictures for those that are seen, and a filter by name where there are many.
"use strict";

const kStillMs = 10000;
const kMostWithoutFilter = 8;
const seen = new Set();

const watcher = new IntersectionObserver((entries) => {
  for (const entry of entries) entry.isIntersecting ? seen.add(entry.target) : seen.delete(entry.target);
});

function watchPictures() {
  document.querySelectorAll("img[data-still]").forEach((image) => watcher.observe(image));
}

// The next picture is loaded beside the tile, so that none shows an empty one.
function renew(image) {
  const next = new Image();
  next.addEventListener("load", () => {
    if (image.isConnected && image.dataset.still) image.src = next.src;
  });
  next.src = image.src.split("?")[0] + "?" + Date.now();
}

function renewAll() {
  if (document.hidden) return;
  for (const image of seen) image.isConnected ? renew(image) : seen.delete(image);
}

function filterTiles(text) {
  for (const tile of document.querySelectorAll(".tiles > li"))
    tile.hidden = !tile.dataset.program.toLowerCase().includes(text.toLowerCase());
}

function addFilter() {
  const tiles = document.querySelector(".tiles");
  if (!tiles || tiles.children.length <= kMostWithoutFilter) return;
  const row = document.createElement("div"), label = document.createElement("label"), input = document.createElement("input");
  row.className = "filter";
  label.textContent = tiles.dataset.filter;
  label.htmlFor = input.id = "filter";
  input.type = "search";
  input.addEventListener("input", () => filterTiles(input.value));
  row.append(label, input);
  document.getElementById("fresh").before(row);
  document.addEventListener("refreshed", () => filterTiles(input.value));
}

addFilter();
watchPictures();
document.addEventListener("refreshed", watchPictures);
setInterval(renewAll, kStillMs);

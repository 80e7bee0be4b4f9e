// The search, the contents on small screens, and the place of the page in the contents. Everything comes from files
// beside this one, so that the pages also work without a server.
"use strict";

const input = document.getElementById("search");
const list = document.getElementById("results");
const nav = document.getElementById("nav");
const most = 30;

// Contents.

function showPlace() {
  const page = location.pathname.split("/").pop() || "index.html";
  for (const link of nav.querySelectorAll("a")) {
    if (link.getAttribute("href") !== page) continue;
    link.setAttribute("aria-current", "page");
    const place = link.offsetTop - nav.clientHeight / 2;
    if (place > 0) nav.scrollTop = place;
  }
}

document.getElementById("menu").addEventListener("click", (event) => {
  event.currentTarget.setAttribute("aria-expanded", nav.classList.toggle("open"));
});

// Search. The index is a list of [title, address, kind, text].

let loading = null;

function load() {
  loading ??= new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.src = "search-index.js";
    script.onload = () => resolve(searchIndex.map(([title, address, kind, text]) => (
      {title, address, kind, text, low: title.toLowerCase(), lowText: text.toLowerCase()})));
    script.onerror = reject;
    document.head.append(script);
  });
  return loading;
}

const weightOfKind = {function: 4, class: 4, module: 3, guide: 2, code: 1};

function rate(entry, terms, whole) {
  let points = weightOfKind[entry.kind] ?? 0;
  if (entry.low === whole) points += 1000;
  if (entry.low.includes(whole)) points += 100;
  for (const term of terms) {
    const inTitle = entry.low.indexOf(term);
    const inText = inTitle < 0 ? entry.lowText.indexOf(term) : 0;
    if (inTitle < 0 && inText < 0) return 0;
    if (inTitle >= 0) points += inTitle === 0 || /\W/.test(entry.low[inTitle - 1]) ? 60 : 40;
    else points += 10 - Math.min(inText / 400, 8);
  }
  return points - entry.title.length / 100;
}

function find(entries, query) {
  const whole = query.trim().toLowerCase();
  const terms = whole.split(/\s+/);
  return entries.map((entry) => ({entry, points: rate(entry, terms, whole)}))
    .filter(({points}) => points > 0)
    .sort((a, b) => b.points - a.points)
    .slice(0, most)
    .map(({entry}) => ({...entry, excerpt: excerptOf(entry, terms)}));
}

function excerptOf(entry, terms) {
  const places = terms.map((term) => entry.lowText.indexOf(term)).filter((place) => place >= 0);
  const begin = places.length === 0 ? 0 : Math.max(0, Math.min(...places) - 40);
  return (begin > 0 ? "\u2026 " : "") + entry.text.slice(begin, begin + 150);
}

// Marks the terms in a text, as elements: nothing of the index is taken for markup.
function marked(text, terms) {
  const parts = document.createDocumentFragment();
  let rest = text;
  while (rest !== "") {
    const low = rest.toLowerCase();
    let place = -1, length = 0;
    for (const term of terms) {
      const found = low.indexOf(term);
      if (found >= 0 && (place < 0 || found < place)) [place, length] = [found, term.length];
    }
    if (place < 0) break;
    const mark = document.createElement("mark");
    mark.textContent = rest.slice(place, place + length);
    parts.append(rest.slice(0, place), mark);
    rest = rest.slice(place + length);
  }
  parts.append(rest);
  return parts;
}

function show(found, query) {
  const terms = query.trim().toLowerCase().split(/\s+/);
  list.replaceChildren(...found.map((entry) => {
    const item = document.createElement("li");
    const link = document.createElement("a");
    link.href = entry.address;
    const kind = document.createElement("i");
    kind.textContent = entry.kind;
    const title = document.createElement("b");
    title.append(marked(entry.title, terms));
    const excerpt = document.createElement("span");
    excerpt.append(marked(entry.excerpt, terms));
    link.append(kind, title, excerpt);
    item.append(link);
    return item;
  }));
  if (found.length === 0) {
    const nothing = document.createElement("p");
    nothing.textContent = "Nothing has all of these words.";
    list.append(nothing);
  }
  list.hidden = false;
  choose(0);
}

function choose(number) {
  const links = [...list.querySelectorAll("a")];
  if (links.length === 0) return;
  for (const link of links) link.removeAttribute("aria-current");
  const link = links[(number + links.length) % links.length];
  link.setAttribute("aria-current", "true");
  link.scrollIntoView({block: "nearest"});
}

async function search() {
  const query = input.value;
  if (query.trim().length < 2) {
    list.hidden = true;
    return;
  }
  const entries = await load();
  // Another letter may have come while the index was loaded.
  if (query === input.value) show(find(entries, query), query);
}

input.addEventListener("input", search);
input.addEventListener("focus", () => { load(); if (input.value) search(); });
input.addEventListener("keydown", (event) => {
  const links = [...list.querySelectorAll("a")];
  const chosen = links.findIndex((link) => link.hasAttribute("aria-current"));
  if (event.key === "ArrowDown") choose(chosen + 1);
  else if (event.key === "ArrowUp") choose(chosen - 1);
  else if (event.key === "Enter") links[chosen]?.click();
  else if (event.key === "Escape") list.hidden = true;
  else return;
  event.preventDefault();
});
list.addEventListener("click", () => { list.hidden = true; });
document.addEventListener("click", (event) => {
  if (!event.target.closest(".search")) list.hidden = true;
});
document.addEventListener("keydown", (event) => {
  if (event.key !== "/" || event.target.closest("input, textarea")) return;
  input.focus();
  event.preventDefault();
});

showPlace();

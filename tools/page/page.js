const $ = (id) => document.getElementById(id);
const make = (tag, text, name) => {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  if (name) element.className = name;
  return element;
};
const whole = new Intl.NumberFormat("en");
const counted = (number, what) => `${whole.format(number)} ${what}${number === 1 ? "" : "s"}`;

// A time in nanoseconds, in the unit that suits it or that of `scale`, so that times that
// differ by `step` look different.
function duration(time, scale = time, step = scale / 1000) {
  for (const [unit, size] of [["s", 1e9], ["ms", 1e6], ["µs", 1e3]])
    if (Math.abs(scale) >= size) {
      const digits = Math.min(9, Math.max(0, Math.ceil(-Math.log10(step / size) - 1e-9)));
      return `${Number((time / size).toFixed(digits))} ${unit}`;
    }
  return `${Math.round(time)} ns`;
}

const fullName = (node) => node.name === node.id ? node.name : `${node.name} (${node.id})`;

// The transitions by time spent, and the colours of the first; the others are grey.
const byBusy = data.transitions.map((_, i) => i)
  .sort((l, r) => data.transitions[r].busy - data.transitions[l].busy);
const hues = ["#4c78d8", "#f28e2b", "#3aa76d", "#e15759", "#9c6ade", "#15a3b8", "#d6a100",
              "#e377a8", "#8a6d5a", "#6f9c1d"];
const colours = data.transitions.map(() => "#98a2b3");
byBusy.slice(0, hues.length).forEach((transition, rank) => { colours[transition] = hues[rank]; });

let filter = "";
const matches = (node) => filter === "" || node.name.toLowerCase().includes(filter) ||
  node.id.toLowerCase().includes(filter);

// What the user has picked out, a transition's index or null.
let chosen = null;

// ---- Head ----

$("title").textContent = data.net.name;
$("outcome").textContent = {
  dead: "at rest: dead", full: "at rest: only room is missing", stopped: "stopped before it rested",
}[data.outcome];
$("outcome").classList.add(data.outcome);
for (const [what, value] of [
  ["firings", whole.format(data.firings)],
  ["run for", duration(data.seconds * 1e9)],
  ["firings a second", data.seconds > 0 ? whole.format(Math.round(data.firings / data.seconds)) : "–"],
  [data.threads === 1 ? "thread" : "threads", whole.format(data.threads)],
  ["places", whole.format(data.net.places)],
  ["transitions", whole.format(data.net.transitions)],
  ["arcs", whole.format(data.net.arcs)],
]) {
  const box = $("figures").appendChild(make("div"));
  box.append(make("b", value), make("span", what));
}

const dark = matchMedia("(prefers-color-scheme: dark)");
function setTheme(name) {
  document.documentElement.dataset.theme = name;
  drawAll();
}
$("theme").onclick = () =>
  setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark");
dark.onchange = () => setTheme(dark.matches ? "dark" : "light");

function showTip(text, event) {
  const tip = $("tip");
  tip.hidden = text === "";
  if (tip.hidden) return;
  tip.textContent = text;
  const box = tip.getBoundingClientRect();
  tip.style.left = `${Math.max(4, Math.min(event.clientX + 14, innerWidth - box.width - 8))}px`;
  tip.style.top = `${Math.max(4, Math.min(event.clientY + 14, innerHeight - box.height - 8))}px`;
}
const hideTip = () => { $("tip").hidden = true; };

// ---- The net ----

const svg = $("picture").querySelector("svg");
const nodes = new Map();  // from "p0" or "t0" to its group
const edges = [];         // [group, from, to]
let frame = [0, 0, 1, 1];
let view = frame;         // x, y, width, height of what is shown

if (svg) {
  svg.removeAttribute("width");
  svg.removeAttribute("height");
  frame = svg.getAttribute("viewBox").split(/[ ,]+/).map(Number);
  view = [...frame];
  for (const group of svg.querySelectorAll(".node, .edge")) {
    const title = group.querySelector("title");
    const name = title.textContent;
    title.remove();
    for (const link of group.querySelectorAll("a")) link.removeAttribute("xlink:title");
    if (group.classList.contains("node")) nodes.set(name, group);
    else edges.push([group, ...name.split("->")]);
  }
  const over = (group, text) => {
    group.onmousemove = (event) => showTip(text, event);
    group.onmouseleave = hideTip;
  };
  data.places.forEach((place, i) => {
    const group = nodes.get(`p${i}`);
    if (place.final > 0) group.classList.add("marked");
    if (place.full) group.classList.add("full");
    over(group, `${fullName(place)}\n${counted(place.final, "token")}, at first ` +
      `${whole.format(place.initial)}; room for ${whole.format(place.capacity)}`);
    group.onclick = () => moved || toggle(i);
  });
  data.transitions.forEach((transition, i) => {
    const group = nodes.get(`t${i}`);
    if (transition.firings > 0) group.classList.add("fired");
    over(group, `${fullName(transition)}\n${counted(transition.firings, "firing")}, ` +
      duration(transition.busy));
    group.onclick = () => moved || choose(i);
  });
}

// A large net takes long to paint: while it moves, its last painting does.
const large = nodes.size > 1000;
let painted = view;
let repaint = 0;
function paintNet() {
  painted = view;
  svg.setAttribute("viewBox", view.join(" "));
  svg.style.transform = "";
}
function showView() {
  if (!svg) return;
  if (!large) return paintNet();
  const box = $("picture").getBoundingClientRect();
  const scale = Math.min(box.width / view[2], box.height / view[3]);
  const middle = (of, i) => of[i] + of[i + 2] / 2;
  svg.style.transform = `translate(${[0, 1].map((i) =>
    `${(middle(painted, i) - middle(view, i)) * scale}px`)}) scale(${painted[2] / view[2]})`;
  clearTimeout(repaint);
  repaint = setTimeout(paintNet, 200);
}
// About a point of the picture, given in parts of what is shown.
function zoomNet(by, x = 0.5, y = 0.5) {
  const width = Math.min(frame[2] * 2, Math.max(frame[2] / 200, view[2] * by));
  const height = view[3] * width / view[2];
  view = [view[0] + (view[2] - width) * x, view[1] + (view[3] - height) * y, width, height];
  showView();
}
$("larger").onclick = () => zoomNet(1 / 1.4);
$("smaller").onclick = () => zoomNet(1.4);
$("fit").onclick = () => { view = [...frame]; showView(); };
$("picture").addEventListener("wheel", (event) => {
  event.preventDefault();
  const box = $("picture").getBoundingClientRect();
  zoomNet(Math.exp(event.deltaY / 500), (event.clientX - box.left) / box.width,
          (event.clientY - box.top) / box.height);
}, { passive: false });
// Whether the press that just ended moved the picture, and was no click.
let moved = false;
drag($("picture"), (dx, dy, box) => {
  const scale = Math.max(view[2] / box.width, view[3] / box.height);
  view = [view[0] - dx * scale, view[1] - dy * scale, view[2], view[3]];
  showView();
});

// Calls `move` with the way that the pressed pointer went. A small one is a click.
function drag(element, move) {
  let last = null;
  element.addEventListener("pointerdown", (event) => {
    last = [event.clientX, event.clientY];
    moved = false;
  });
  addEventListener("pointermove", (event) => {
    if (last === null) return;
    const [dx, dy] = [event.clientX - last[0], event.clientY - last[1]];
    if (!moved && Math.hypot(dx, dy) < 4) return;
    moved = true;
    last = [event.clientX, event.clientY];
    move(dx, dy, element.getBoundingClientRect());
  });
  for (const ended of ["pointerup", "pointercancel"])
    addEventListener(ended, () => { last = null; });
}

function markNet() {
  const shown = new Set();
  data.places.forEach((place, i) => {
    if (filter !== "" && matches(place)) shown.add(`p${i}`);
  });
  data.transitions.forEach((transition, i) => {
    if (filter !== "" ? matches(transition) : i === chosen) shown.add(`t${i}`);
  });
  const all = filter === "" && chosen === null;
  const near = new Set(shown);
  for (const [group, from, to] of edges) {
    const visible = all || shown.has(from) || shown.has(to);
    group.classList.toggle("faded", !visible);
    if (visible) near.add(from).add(to);
  }
  for (const [name, group] of nodes) {
    group.classList.toggle("faded", !all && !near.has(name));
    group.classList.toggle("chosen", !all && shown.has(name));
  }
}

// ---- Transitions ----

let order = "busy";
const rows = data.transitions.map((transition, i) => {
  const row = make("tr");
  const name = make("td");
  const dot = make("span", "", "dot");
  dot.style.background = colours[i];
  const bar = make("div", "", "bar");
  bar.style.background = colours[i];
  const most = data.transitions[byBusy[0]].busy;
  bar.style.width = `${most > 0 ? 100 * transition.busy / most : 0}%`;
  const text = make("span", fullName(transition), "name");
  text.title = fullName(transition);
  name.append(dot, text, bar);
  row.append(name, make("td", whole.format(transition.firings)),
    make("td", transition.timed > 0 ? duration(transition.busy) : "–"),
    make("td", transition.timed > 0 ? duration(mean(transition)) : "–"));
  row.onclick = () => choose(i);
  return row;
});
function mean(transition) {
  return transition.timed > 0 ? transition.busy / transition.timed : 0;
}
function listTransitions() {
  const value = { busy: (t) => t.busy, firings: (t) => t.firings, mean }[order];
  const sorted = data.transitions.map((transition, i) => [transition, i])
    .filter(([transition]) => matches(transition))
    .sort(([l, i], [r, j]) =>
      (value ? value(r) - value(l) : l.name.localeCompare(r.name)) || i - j);
  $("transitions").replaceChildren(...sorted.map(([, i]) => rows[i]));
  $("transitions-note").textContent =
    (sorted.length === rows.length ? "" : `${sorted.length} of ${rows.length}. `) +
    (data.recorded < data.firings
      ? `Times of the first ${counted(data.recorded, "firing")}.` : "");
  for (const head of document.querySelectorAll("th[data-sort]"))
    if (head.dataset.sort === order) head.setAttribute("aria-sort", "descending");
    else head.removeAttribute("aria-sort");
}
for (const head of document.querySelectorAll("th[data-sort]"))
  head.onclick = () => { order = head.dataset.sort; listTransitions(); };

function choose(transition) {
  chosen = chosen === transition ? null : transition;
  rows.forEach((row, i) => row.classList.toggle("chosen", i === chosen));
  markNet();
  drawAll();
}

// ---- All ----

function drawAll() {
  drawLanes();
  drawCurves();
}
$("filter").oninput = () => {
  filter = $("filter").value.trim().toLowerCase();
  listTransitions();
  listPlaces();
  markNet();
  drawLanes();
};
addEventListener("resize", drawAll);
// Called by the page once it has all scripts.
function start() {
  listTransitions();
  listPlaces();
  pickMost();
  setTheme(dark.matches ? "dark" : "light");
}

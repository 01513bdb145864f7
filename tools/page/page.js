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

// ---- Time ----

// What both charts show of the run.
const end = Math.max(data.length, 1);
let span = [0, end];
function setSpan(from, to) {
  const width = Math.min(end, Math.max(100, to - from));
  const begin = Math.min(Math.max(0, from), end - width);
  span = [begin, begin + width];
  drawAll();
}
$("whole").onclick = () => setSpan(0, end);

const margin = { left: 84, right: 12, bottom: 22 };
const style = (name) => getComputedStyle(document.documentElement).getPropertyValue(name);

// The canvas cleared, with its size in the page's pixels.
function prepare(canvas, height) {
  const ratio = devicePixelRatio || 1;
  const width = canvas.clientWidth;
  canvas.style.height = `${height}px`;
  canvas.width = width * ratio;
  canvas.height = height * ratio;
  const pen = canvas.getContext("2d");
  pen.scale(ratio, ratio);
  pen.font = "12px system-ui, sans-serif";
  pen.textBaseline = "middle";
  canvas.dataset.from = span[0];
  canvas.dataset.to = span[1];
  return [pen, width];
}
const xOf = (time, width) =>
  margin.left + (time - span[0]) / (span[1] - span[0]) * (width - margin.left - margin.right);
const timeAt = (x, width) =>
  span[0] + (x - margin.left) / (width - margin.left - margin.right) * (span[1] - span[0]);

// A time in the charts, as exactly as the mouse can point at it.
const moment = (time) => duration(time, span[1], (span[1] - span[0]) / 1000);

// 1, 2 or 5 times a power of ten, at least `least`.
function roundStep(least) {
  const power = 10 ** Math.floor(Math.log10(least));
  return [1, 2, 5, 10].map((n) => n * power).find((step) => step >= least);
}
function drawTimes(pen, width, height) {
  const step = roundStep((span[1] - span[0]) * 90 / width);
  pen.textAlign = "center";
  for (let time = Math.ceil(span[0] / step) * step; time <= span[1]; time += step) {
    const x = xOf(time, width);
    pen.fillStyle = style("--grid");
    pen.fillRect(x, 0, 1, height - margin.bottom);
    pen.fillStyle = style("--soft");
    const text = duration(time, span[1], step);
    pen.fillText(text, Math.min(x, width - pen.measureText(text).width / 2), height - 8);
  }
}

function hear(canvas, describe) {
  canvas.addEventListener("wheel", (event) => {
    event.preventDefault();
    const at = timeAt(event.offsetX, canvas.clientWidth);
    const by = Math.exp(event.deltaY / 400);
    const width = Math.min(end, (span[1] - span[0]) * by);
    const part = (at - span[0]) / (span[1] - span[0]);
    setSpan(at - width * part, at + width * (1 - part));
  }, { passive: false });
  canvas.ondblclick = () => setSpan(0, end);
  canvas.onkeydown = (event) => {
    const width = span[1] - span[0];
    const change = { ArrowLeft: [-.2, -.2], ArrowRight: [.2, .2], "+": [.2, -.2], "-": [-.3, .3] }[event.key];
    if (change) setSpan(span[0] + width * change[0], span[1] + width * change[1]);
  };
  canvas.onmousemove = (event) => {
    const time = timeAt(event.offsetX, canvas.clientWidth);
    showTip(time < span[0] || time > span[1] ? "" : describe(time, event.offsetY), event);
  };
  canvas.onmouseleave = hideTip;
  drag(canvas, (dx) => {
    const by = -dx / (canvas.clientWidth - margin.left - margin.right) * (span[1] - span[0]);
    setSpan(span[0] + by, span[1] + by);
  });
}

// The number of the first record of a sorted flat list whose value is not below `wanted`.
function lowerBound(flat, size, wanted, value) {
  let from = 0;
  let to = flat.length / size;
  while (from < to) {
    const middle = (from + to) >> 1;
    if (value(flat, middle * size) < wanted) from = middle + 1;
    else to = middle;
  }
  return from * size;
}
const spanEnd = (spans, at) => spans[at] + spans[at + 1];

// ---- Firings ----

const lane = { height: Math.max(10, Math.min(30, 480 / Math.max(data.lanes.length, 1))), gap: 4 };

function drawLanes() {
  const height = data.lanes.length * (lane.height + lane.gap) + margin.bottom + 4;
  const [pen, width] = prepare($("lanes"), Math.max(height, 60));
  drawTimes(pen, width, Math.max(height, 60));
  if (data.lanes.length === 0) {
    pen.textAlign = "center";
    pen.fillText("No transition fired.", (width + margin.left) / 2, 20);
  }
  const fade = (transition) =>
    (chosen === null || chosen === transition) && matches(data.transitions[transition]) ? 1 : 0.15;
  data.lanes.forEach((each, i) => {
    const top = i * (lane.height + lane.gap);
    pen.globalAlpha = 1;
    pen.fillStyle = style("--soft");
    pen.textAlign = "right";
    if (lane.height >= 12 || i % 2 === 0)
      pen.fillText(`thread ${i + 1}`, margin.left - 10, top + lane.height / 2);
    pen.fillStyle = style("--grid");
    pen.fillRect(margin.left, top, width - margin.left - margin.right, lane.height);
    pen.save();
    pen.beginPath();
    pen.rect(margin.left, top, width - margin.left - margin.right, lane.height);
    pen.clip();
    if (each.spans) {
      // Many firings in one pixel are drawn once.
      let drawn = -1;
      for (let at = lowerBound(each.spans, 3, span[0], spanEnd);
           at < each.spans.length && each.spans[at] <= span[1]; at += 3) {
        const x = xOf(each.spans[at], width);
        const right = Math.max(xOf(spanEnd(each.spans, at), width), x + 0.7);
        if (right <= drawn + 0.3) continue;
        drawn = right;
        const transition = each.spans[at + 2];
        pen.globalAlpha = fade(transition);
        pen.fillStyle = colours[transition];
        pen.fillRect(x, top, right - x, lane.height);
        if (right - x > 40 && lane.height >= 14) {
          pen.save();
          pen.beginPath();
          pen.rect(x, top, right - x, lane.height);
          pen.clip();
          pen.fillStyle = "#fff";
          pen.textAlign = "left";
          pen.fillText(data.transitions[transition].name, Math.max(x, margin.left) + 6,
                       top + lane.height / 2);
          pen.restore();
        }
      }
    } else {
      for (let at = lowerBound(each.slices, 4, span[0] / data.slice - 1, (flat, k) => flat[k]);
           at < each.slices.length && each.slices[at] * data.slice <= span[1]; at += 4) {
        const x = xOf(each.slices[at] * data.slice, width);
        const right = xOf((each.slices[at] + 1) * data.slice, width);
        const part = Math.max(1, lane.height * each.slices[at + 1] / 1000);
        pen.globalAlpha = fade(each.slices[at + 3]);
        pen.fillStyle = colours[each.slices[at + 3]];
        pen.fillRect(x, top + lane.height - part, right - x + 0.3, part);
      }
    }
    pen.restore();
  });
}
$("timeline-note").textContent =
  (data.recorded < data.firings
    ? `The first ${whole.format(data.recorded)} of ${whole.format(data.firings)} firings. ` : "") +
  (data.lanes.some((each) => each.slices)
    ? "So many that each bar's height is the part of the time that its thread was firing." : "");

hear($("lanes"), (time, y) => {
  const i = Math.floor(y / (lane.height + lane.gap));
  const each = data.lanes[i];
  if (!each) return moment(time);
  const head = `thread ${i + 1} at ${moment(time)}\n`;
  if (each.slices) {
    const slice = Math.floor(time / data.slice);
    const at = lowerBound(each.slices, 4, slice, (flat, k) => flat[k]);
    if (each.slices[at] !== slice) return head + "waits";
    return head + `busy ${each.slices[at + 1] / 10} % of ${duration(data.slice)}, ` +
      `${counted(each.slices[at + 2], "firing")}, most in\n` +
      fullName(data.transitions[each.slices[at + 3]]);
  }
  // A firing may be too short to point at: within two pixels will do.
  const near = 2 * (span[1] - span[0]) / $("lanes").clientWidth;
  const at = lowerBound(each.spans, 3, time - near, spanEnd);
  if (at >= each.spans.length || each.spans[at] > time + near) return head + "waits";
  return head + `${fullName(data.transitions[each.spans[at + 2]])}\n` +
    `for ${duration(each.spans[at + 1])}`;
});

// ---- Tokens ----

const changes = (i) => data.tokens[i] ? data.tokens[i].length : 0;
const byChange = data.places.map((_, i) => i).sort((l, r) => changes(r) - changes(l));
const picked = new Map();  // from a place's index to its colour's number
const boxes = data.places.map((place, i) => {
  const item = make("li");
  const label = item.appendChild(make("label"));
  const box = make("input");
  box.type = "checkbox";
  box.onchange = () => toggle(i);
  const name = make("span", fullName(place), "name");
  name.title = fullName(place);
  label.append(box, name, make("span", `${whole.format(place.initial)} → ${whole.format(place.final)}`, "count"));
  item.classList.toggle("still", !data.tokens[i]);
  return { item, box };
});

function toggle(place) {
  if (!picked.delete(place)) {
    const used = new Set(picked.values());
    const free = hues.findIndex((_, k) => !used.has(k));
    picked.set(place, free === -1 ? place % hues.length : free);
  }
  showPicked();
}
function pickMost() {
  picked.clear();
  byChange.slice(0, 5).filter((i) => changes(i) > 0).forEach((i, k) => picked.set(i, k));
  showPicked();
}
function showPicked() {
  boxes.forEach(({ box }, i) => {
    box.checked = picked.has(i);
    box.style.accentColor = picked.has(i) ? hues[picked.get(i)] : "";
  });
  drawCurves();
}
$("none").onclick = () => { picked.clear(); showPicked(); };
$("most").onclick = pickMost;
function listPlaces() {
  $("places").replaceChildren(
    ...byChange.filter((i) => matches(data.places[i])).map((i) => boxes[i].item));
}

const tokensOf = (place) => data.tokens[place] || [0, data.places[place].initial];
// The tokens at a time: those of the last change before it.
function tokensAt(place, time) {
  const points = tokensOf(place);
  const at = lowerBound(points, 2, time + 0.5, (flat, k) => flat[k]);
  return points[Math.max(1, at - 1)];
}

function drawCurves() {
  const height = 320;
  const [pen, width] = prepare($("curves"), height);
  drawTimes(pen, width, height);
  const bottom = height - margin.bottom;
  let most = 1;
  for (const place of picked.keys()) {
    const points = tokensOf(place);
    for (let at = 1; at < points.length; at += 2) most = Math.max(most, points[at]);
  }
  const step = Math.max(1, roundStep(most / 6));
  const top = Math.ceil(most / step) * step;
  const y = (tokens) => bottom - tokens / top * (bottom - 10);
  pen.textAlign = "right";
  for (let tokens = 0; tokens <= top; tokens += step) {
    pen.fillStyle = style("--grid");
    pen.fillRect(margin.left, y(tokens), width - margin.left - margin.right, 1);
    pen.fillStyle = style("--soft");
    pen.fillText(whole.format(tokens), margin.left - 10, y(tokens));
  }
  pen.save();
  pen.beginPath();
  pen.rect(margin.left, 0, width - margin.left - margin.right, height);
  pen.clip();
  pen.lineWidth = 1.75;
  pen.lineJoin = "round";
  for (const [place, colour] of picked) {
    const points = tokensOf(place);
    const from = Math.max(0, lowerBound(points, 2, span[0], (flat, k) => flat[k]) - 2);
    pen.strokeStyle = hues[colour];
    pen.beginPath();
    pen.moveTo(xOf(points[from], width), y(points[from + 1]));
    let at = from + 2;
    for (; at < points.length && points[at - 2] <= span[1]; at += 2) {
      pen.lineTo(xOf(points[at], width), y(points[at - 1]));
      pen.lineTo(xOf(points[at], width), y(points[at + 1]));
    }
    pen.lineTo(Math.max(xOf(points[at - 2], width), width - margin.right), y(points[at - 1]));
    pen.stroke();
  }
  pen.restore();
  $("curves").dataset.places = [...picked.keys()].map((i) => data.places[i].id).join(" ");
  if (picked.size === 0) {
    pen.textAlign = "center";
    pen.fillText("Choose places in the list, or in the net.", (width + margin.left) / 2, 60);
  }
}
hear($("curves"), (time) => [`at ${moment(time)}`,
  ...[...picked.keys()].map((place) =>
    `${data.places[place].name}: ${whole.format(tokensAt(place, time))}`)].join("\n"));

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
listTransitions();
listPlaces();
pickMost();
setTheme(dark.matches ? "dark" : "light");

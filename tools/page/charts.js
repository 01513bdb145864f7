// What the run did over time: the firings of each thread, and the tokens of the chosen places.
// It uses the names of page.js, which comes before it.

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

// Draws the stretch in view: lifelines, bands, arrows with their words, the axis of time.
const GUTTER = 158; // pixels of the axis of time
const RIGHT_EDGE = 14;
const STUB = 30; // length of the arrow of what a host typed
const TEXT_GAP = 13; // pixels between two lines of text at least
const MOST_ARROWS = 1500; // with more in view, density is drawn instead
const MONO = '"DejaVu Sans Mono", "Liberation Mono", Menlo, Consolas, monospace';
const SANS = 'system-ui, "DejaVu Sans", "Liberation Sans", sans-serif';
const ESCAPE = /(\\(?:[rnt\\]|x[0-9A-F]{2}))/;

const scene = {
  canvas: document.getElementById("chart"),
  pen: document.getElementById("chart").getContext("2d"),
  width: 800,
  height: 600,
  hover: -1, // index of an event
  chosen: -1,
  drawn: { events: 0, arrows: 0, labels: 0, bands: 0, isDensity: false },
  hatch: null,
  frames: 0, // how often it was drawn
};
let colors = {};
let charWidth = 7;

function readColors() {
  const style = getComputedStyle(document.documentElement);
  const names = ["paper", "raised", "edge", "ink", "soft", "faint", "lifeline", "stripe", "hover",
    "chosen", "hit", "hit-mark", "host", "client", "cp", "platform", "daemon", "kernel", "bench",
    "log", "other", "fault", "fault-soft", "mode-sms", "mode-ppp", "mode-data", "mode-mux",
    "mode-hex", "mode-other"];
  colors = Object.fromEntries(names.map((n) => [n, style.getPropertyValue("--" + n).trim()]));
  scene.hatch = makeHatch(scene.pen, colors.fault);
}

function makeHatch(pen, color) {
  const tile = document.createElement("canvas");
  tile.width = tile.height = 8;
  const ink = tile.getContext("2d");
  ink.strokeStyle = color;
  ink.globalAlpha = 0.55;
  ink.lineWidth = 1.5;
  ink.beginPath();
  for (const x of [-8, 0, 8]) { ink.moveTo(x, 8); ink.lineTo(x + 8, 0); }
  ink.stroke();
  return pen.createPattern(tile, "repeat");
}

function fitCanvas(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth, height = canvas.clientHeight;
  canvas.width = Math.max(1, Math.round(width * ratio));
  canvas.height = Math.max(1, Math.round(height * ratio));
  canvas.getContext("2d").setTransform(ratio, 0, 0, ratio, 0, 0);
  return [width, height];
}

const lanesOn = () => model.lanes.map((_, k) => k).filter((k) => laneIsOn[k]);
const laneColor = (lane) => colors[model.lanes[lane].group] ?? colors.other;

// The x of each lane, NaN of one that is off, and their distance.
let laneX = [];
let laneStep = 100;
function placeLanes() {
  const on = lanesOn();
  laneStep = (scene.width - GUTTER - RIGHT_EDGE) / Math.max(1, on.length);
  laneX = model.lanes.map((_, lane) => {
    const place = on.indexOf(lane);
    return place < 0 ? NaN : Math.round(GUTTER + laneStep * (place + 0.5)) + 0.5;
  });
}

// Both ends of an event's arrow; a note has one point. With the daemon's lane off, the left edge.
function endsOf(i) {
  const lane = laneX[model.lane[i]];
  // The QMI service is no part of the daemon; it relays to the UDP server.
  const partner = model.lane[i] === model.qmiLane && laneX[model.udpLane] ? model.udpLane : model.daemonLane;
  const daemon = laneX[partner] || GUTTER + 0.5;
  const kind = model.kind[i];
  if (kind === TYPED) return [lane - Math.min(STUB, laneStep * 0.4), lane];
  if (kind === TO_DAEMON) return [lane, daemon];
  if (kind === FROM_DAEMON) return [daemon, lane];
  return [lane, lane];
}

function drawScene() {
  const { pen, width, height } = scene;
  const [from, to] = inView();
  scene.drawn = { events: to - from, arrows: 0, labels: 0, bands: 0, isDensity: to - from > MOST_ARROWS };
  placeLanes();
  pen.fillStyle = colors.paper;
  pen.fillRect(0, 0, width, height);
  pen.save();
  pen.beginPath();
  pen.rect(0, HEAD, width, height - HEAD);
  pen.clip();
  if (!layout.toScale) drawGaps(from, to);
  drawRows(from, to);
  drawBands();
  drawLifelines();
  if (scene.drawn.isDensity) drawDensity(from, to);
  else drawArrows(from, to);
  if (layout.toScale || scene.drawn.isDensity) drawTicks();
  pen.restore();
  drawHead();
  scene.frames++;
}

function drawLifelines() {
  const { pen } = scene;
  pen.lineWidth = 1;
  for (const lane of lanesOn()) {
    pen.strokeStyle = lane === model.daemonLane ? colors.daemon : colors.lifeline;
    pen.lineWidth = lane === model.daemonLane ? 1.5 : 1;
    pen.beginPath();
    pen.moveTo(laneX[lane], HEAD);
    pen.lineTo(laneX[lane], scene.height);
    pen.stroke();
  }
}

function drawRow(i, color) {
  if (i < 0 || !isShown(i)) return;
  const y = yOfEvent(i), size = layout.toScale ? 18 : Math.max(3, Math.min(layout.pixels, 40));
  scene.pen.fillStyle = color;
  scene.pen.fillRect(0, y - size * 0.68, scene.width, size);
}

function drawRows(from, to) {
  for (let k = from; k < to; k++) if (hits.isHit[layout.shown[k]]) drawRow(layout.shown[k], colors.hit);
  drawRow(scene.hover, colors.hover);
  drawRow(scene.chosen, colors.chosen);
}

// Where nothing happened for long, even rows leave a gap that tells how long.
function drawGaps(from, to) {
  const { pen } = scene;
  if (layout.pixels < TEXT_GAP) return;
  for (let k = Math.max(1, from); k < Math.min(to + 1, layout.shown.length); k++) {
    const before = layout.shown[k - 1], after = layout.shown[k];
    const us = model.t[after] - model.t[before];
    if (us < QUIET) continue;
    const low = yOfEvent(before) + layout.pixels * 0.32, high = yOfEvent(after) - layout.pixels * 0.68;
    pen.fillStyle = colors.stripe;
    pen.fillRect(0, low, scene.width, high - low);
    pen.fillStyle = colors.soft;
    pen.font = `11px ${SANS}`;
    pen.textAlign = "left";
    pen.fillText(`⋮  ${data.fromLog ? "about " : ""}${duration(us)}`, 62, (low + high) / 2 + 4);
  }
}

function bandColor(band) {
  if (band.kind === "fault") return colors.fault;
  return colors[`mode-${band.name}`] ?? colors["mode-other"];
}

function bandEdges(band) {
  const low = yOfEvent(band.begin);
  const high = band.end === null ? scene.height + 1e3 : yOfEvent(band.end);
  return [low, Math.max(high, low + 3)];
}

function drawBands() {
  for (const band of model.bands) {
    if (!laneIsOn[band.lane]) continue;
    const [low, high] = bandEdges(band);
    if (high < HEAD || low > scene.height) continue;
    drawBand(band, Math.max(low, HEAD - 20), Math.min(high, scene.height + 20));
    scene.drawn.bands++;
  }
}

function drawBand(band, low, high) {
  const { pen } = scene;
  const isFault = band.kind === "fault";
  const wide = Math.min(laneStep * 0.9, 74) * (isFault ? 0.6 : 1);
  const left = laneX[band.lane] - wide / 2;
  pen.globalAlpha = isFault ? 1 : 0.16;
  pen.fillStyle = isFault ? colors["fault-soft"] : bandColor(band);
  pen.fillRect(left, low, wide, high - low);
  pen.globalAlpha = 1;
  if (isFault) {
    pen.fillStyle = scene.hatch;
    pen.fillRect(left, low, wide, high - low);
  }
  pen.fillStyle = bandColor(band);
  pen.fillRect(left, low, 3, high - low);
  nameBand(band, left, Math.max(low, HEAD), Math.min(high, scene.height));
}

// Upwards along the band's edge, where no arrow's words are in its way.
function nameBand(band, left, low, high) {
  const { pen } = scene;
  pen.font = `600 11px ${SANS}`;
  const long = pen.measureText(band.name).width;
  if (high - low < long + 14) return;
  pen.save();
  pen.translate(left - 4, low + long + 10);
  pen.rotate(-Math.PI / 2);
  pen.textAlign = "left";
  pen.fillStyle = colors.paper;
  pen.fillRect(-3, -10, long + 6, 13);
  pen.fillStyle = bandColor(band);
  pen.fillText(band.name, 0, 0);
  pen.restore();
}

function drawArrows(from, to) {
  let lastText = -Infinity;
  for (let k = from; k < to; k++) {
    const i = layout.shown[k], y = Math.round(yOfEvent(i)) + 0.5;
    drawArrow(i, y);
    if (y - lastText < TEXT_GAP && i !== scene.chosen && i !== scene.hover) continue;
    lastText = y;
    drawLabel(i, y);
    drawTime(i, y, k > 0 ? layout.shown[k - 1] : -1);
  }
}

function drawArrow(i, y) {
  const { pen } = scene;
  const [from, to] = endsOf(i);
  const color = model.fault[i] ? colors.fault : laneColor(model.lane[i]);
  pen.strokeStyle = pen.fillStyle = color;
  pen.lineWidth = i === scene.chosen || i === scene.hover ? 2.2 : 1.4;
  scene.drawn.arrows++;
  if (from === to) {
    dot(from, y, model.fault[i] ? 4.5 : 3.5);
    return;
  }
  const isRefused = model.fault[i] && model.kind[i] === FROM_DAEMON;
  const end = isRefused ? from + (to - from) * 0.8 : to;
  pen.setLineDash(model.kind[i] === TYPED ? [4, 3] : []);
  pen.beginPath();
  pen.moveTo(from, y);
  pen.lineTo(end, y);
  pen.stroke();
  pen.setLineDash([]);
  if (isRefused) cross(end, y);
  else arrowHead(end, y, Math.sign(to - from));
}

function dot(x, y, size) {
  scene.pen.beginPath();
  scene.pen.arc(x, y, size, 0, 7);
  scene.pen.fill();
}

function arrowHead(x, y, way) {
  const { pen } = scene;
  const size = Math.min(6, Math.max(3, layout.toScale ? 6 : layout.pixels * 0.3));
  pen.beginPath();
  pen.moveTo(x, y);
  pen.lineTo(x - way * size * 1.5, y - size * 0.7);
  pen.lineTo(x - way * size * 1.5, y + size * 0.7);
  pen.fill();
}

function cross(x, y) {
  const { pen } = scene;
  pen.lineWidth = 2.4;
  pen.beginPath();
  pen.moveTo(x - 4, y - 4); pen.lineTo(x + 4, y + 4);
  pen.moveTo(x - 4, y + 4); pen.lineTo(x + 4, y - 4);
  pen.stroke();
}

// Words begin at the arrow's left end and may run on to the right: the row is theirs.
function drawLabel(i, y) {
  const { pen } = scene;
  const [a, b] = endsOf(i);
  const isPoint = a === b || model.kind[i] === TYPED;
  const left = isPoint ? Math.max(a, b) + 9 : Math.min(a, b) + 10;
  const span = Math.abs(b - a) - 26;
  let text = labelOf(i);
  if (text === "") return;
  let width = text.length * charWidth;
  let x = left;
  if (!isPoint && width <= span) x = (a + b) / 2 - width / 2;
  else if (left + width > scene.width - 6 && isPoint && left > scene.width / 2) x = Math.max(GUTTER, Math.min(a, b) - 9 - width);
  const room = Math.floor(((x < left - 1 && isPoint ? Math.min(a, b) - 9 : scene.width - 6) - x) / charWidth);
  if (text.length > room) text = text.slice(0, Math.max(1, room - 1)) + "…";
  width = text.length * charWidth;
  const base = isPoint ? y + 4 : y - 5;
  pen.font = `12px ${MONO}`;
  pen.textAlign = "left";
  pen.fillStyle = rowColor(i);
  pen.globalAlpha = 0.92;
  pen.fillRect(x - 2, base - 11, width + 4, 14);
  pen.globalAlpha = 1;
  drawText(text, x, base, model.fault[i] ? colors.fault : hasBytes(i) ? colors.ink : colors.soft);
  scene.drawn.labels++;
}

function rowColor(i) {
  if (i === scene.chosen) return colors.chosen;
  if (i === scene.hover) return colors.hover;
  return hits.isHit[i] ? colors.hit : colors.paper;
}

// What is no character of the bytes themselves stands back.
function drawText(text, x, y, color) {
  const { pen } = scene;
  for (const piece of text.split(ESCAPE)) {
    if (piece === "") continue;
    pen.fillStyle = ESCAPE.test(piece) ? colors.faint : color;
    pen.fillText(piece, x, y);
    x += piece.length * charWidth;
  }
}

const timeText = (us) => (data.fromLog ? `${Math.round(us / 1e6)} s` : seconds(us));

function drawTime(i, y, before) {
  const { pen } = scene;
  pen.font = `11px ${MONO}`;
  pen.textAlign = "right";
  pen.fillStyle = colors.soft;
  pen.fillText(timeText(model.t[i]), 84, y + 3);
  if (before < 0 || data.fromLog) return;
  const us = model.t[i] - model.t[before];
  pen.fillStyle = colors.faint;
  pen.font = `10px ${SANS}`;
  if (us < QUIET || layout.toScale) pen.fillText(`+${duration(us)}`, GUTTER - 10, y + 3);
}

// Far out, each line of pixels tells how much passed at each lane: to the left what went to the
// daemon or was typed, to the right what came from it.
function drawDensity(from, to) {
  const { pen } = scene;
  const rows = Math.ceil(scene.height), sides = model.lanes.length * 2;
  const counts = new Uint32Array(rows * sides);
  for (let k = from; k < to; k++) {
    const i = layout.shown[k], row = Math.floor(yOfEvent(i));
    if (row < HEAD || row >= rows || !hasBytes(i)) continue;
    counts[row * sides + model.lane[i] * 2 + (model.kind[i] === FROM_DAEMON ? 1 : 0)]++;
  }
  const most = counts.reduce((a, b) => Math.max(a, b), 1);
  for (let cell = 0; cell < counts.length; cell++) {
    if (counts[cell] !== 0) drawLoad(cell % sides, Math.floor(cell / sides), counts[cell] / most);
  }
  pen.globalAlpha = 1;
  pen.fillStyle = colors.fault;
  for (let k = from; k < to; k++) {
    const i = layout.shown[k];
    if (model.fault[i]) pen.fillRect(laneX[model.lane[i]] + laneStep * 0.4, yOfEvent(i) - 1, 5, 2);
  }
}

function drawLoad(side, row, share) {
  const { pen } = scene;
  const x = laneX[side >> 1], isRight = side & 1;
  const wide = Math.max(2, laneStep * 0.36 * Math.sqrt(share));
  pen.fillStyle = laneColor(side >> 1);
  pen.globalAlpha = isRight ? 0.55 : 0.9;
  pen.fillRect(isRight ? x + 1 : x - wide - 1, row, wide, 1);
  scene.drawn.arrows++;
}

// Round times along the axis, where rows have none of their own.
function drawTicks() {
  const { pen } = scene;
  pen.font = `11px ${MONO}`;
  pen.textAlign = "right";
  for (const [y, us] of layout.toScale ? roundTimes() : sampledTimes()) {
    pen.fillStyle = colors.edge;
    pen.fillRect(GUTTER - 8, y, 8, 1);
    if (!scene.drawn.isDensity) continue;
    pen.fillStyle = colors.soft;
    pen.fillText(timeText(us), GUTTER - 14, y + 4);
  }
}

function roundTimes() {
  const least = 60 / layout.pixels, power = 10 ** Math.floor(Math.log10(least));
  const step = [1, 2, 5, 10].map((n) => n * power).find((n) => n >= least);
  const first = Math.ceil(positionAt(HEAD) / step) * step;
  const times = [];
  for (let n = 0; n < 100; n++) {
    const position = first + n * step, y = yOf(position);
    if (y > scene.height) break;
    times.push([y, position * 1e6 + model.t[0]]);
  }
  return times;
}

function sampledTimes() {
  const times = [];
  for (let y = HEAD + LEAD; y < scene.height; y += 60) {
    const k = firstShownFrom(positionAt(y));
    if (k < layout.shown.length) times.push([y, model.t[layout.shown[k]]]);
  }
  return times;
}

const GROUPS = { client: "clients", host: "host ports", daemon: "", cp: "modem",
  platform: "platform", kernel: "kernel", bench: "bench", log: "output", other: "other" };

function drawHead() {
  const { pen } = scene;
  pen.fillStyle = colors.raised;
  pen.fillRect(0, 0, scene.width, HEAD);
  pen.fillStyle = colors.edge;
  pen.fillRect(0, HEAD - 1, scene.width, 1);
  pen.font = `11px ${SANS}`;
  pen.textAlign = "right";
  pen.fillStyle = colors.faint;
  pen.fillText("seconds", 84, 32);
  pen.fillText("since last", GUTTER - 10, 32);
  drawGroups();
  pen.textAlign = "center";
  for (const lane of lanesOn()) {
    pen.font = `600 12px ${SANS}`;
    pen.fillStyle = laneColor(lane);
    pen.fillText(model.lanes[lane].title, laneX[lane], 35, laneStep - 4);
    pen.fillRect(laneX[lane] - 11, HEAD - 4, 22, 3);
  }
}

function drawGroups() {
  const { pen } = scene;
  const on = lanesOn();
  let begin = 0;
  pen.textAlign = "center";
  pen.font = `10px ${SANS}`;
  for (let k = 1; k <= on.length; k++) {
    const group = model.lanes[on[begin]].group;
    if (k < on.length && model.lanes[on[k]].group === group) continue;
    const left = laneX[on[begin]] - laneStep / 2 + 6, right = laneX[on[k - 1]] + laneStep / 2 - 6;
    if (GROUPS[group] !== "") {
      pen.fillStyle = colors.edge;
      pen.fillRect(left, 17, right - left, 1);
    }
    pen.fillStyle = colors.soft;
    pen.fillText(GROUPS[group] ?? "", (left + right) / 2, 13, right - left);
    begin = k;
  }
}

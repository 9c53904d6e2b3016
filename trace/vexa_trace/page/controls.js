// Pointer, keys, search and lanes.
const hits = { isHit: new Uint8Array(model.count), list: [], query: "" };

let isDrawWanted = false;
function redraw() {
  if (isDrawWanted) return;
  isDrawWanted = true;
  requestAnimationFrame(drawAll);
}

function drawAll() {
  isDrawWanted = false;
  drawScene();
  drawOverview();
  updatePanel();
  updateStatus();
}

function renew() {
  placeEvents();
  clampView();
  findHits();
  renewOverview();
  redraw();
}

function updateStatus() {
  const [from, to] = inView();
  const some = to > from;
  byId("range").textContent = some
    ? `${timeText(model.t[layout.shown[from]])} to ${timeText(model.t[layout.shown[to - 1]])}${data.fromLog ? "" : " s"}`
    : "nothing in view";
  byId("drawn").textContent = `${(to - from).toLocaleString("en")} of ${layout.shown.length.toLocaleString("en")} events in view`;
}

// Pairs of hex digits are looked for as bytes, and as text all the same.
function queryBytes(query) {
  if (!/^(?:[0-9a-f]{2}\s+)+[0-9a-f]{2}\s*$|^0x[0-9a-f]{2}$/i.test(query)) return null;
  return query.replace(/^0x/i, "").trim().split(/\s+/).map((pair) => String.fromCharCode(parseInt(pair, 16))).join("");
}

function matcher(query) {
  const lower = query.toLowerCase(), bytes = queryBytes(query);
  const known = new Int8Array(data.events.dataTexts.length); // 0: not looked at yet
  const inBytes = (number) => {
    if (known[number] === 0) {
      const text = data.events.dataTexts[number];
      const found = escapeBytes(text, Infinity).toLowerCase().includes(lower) || (bytes !== null && text.includes(bytes));
      known[number] = found ? 1 : -1;
    }
    return known[number] === 1;
  };
  const labels = data.events.labelTexts.map((text) => text.toLowerCase().includes(lower));
  const fields = data.events.fieldTexts.map((text) => text.toLowerCase().includes(lower));
  const { data: dataAt, label: labelAt, fields: fieldsAt } = data.events;
  return (i) => labels[labelAt[i]] || fields[fieldsAt[i]] || inBytes(dataAt[i]);
}

function findHits() {
  hits.query = byId("search").value;
  hits.isHit.fill(0);
  hits.list = [];
  if (hits.query !== "") {
    const isMatch = matcher(hits.query);
    for (const i of layout.shown) {
      if (!isMatch(i)) continue;
      hits.isHit[i] = 1;
      hits.list.push(i);
    }
  }
  showHitCount();
}

function hitText(count, place) {
  const number = count.toLocaleString("en");
  if (hits.query === "") return "";
  if (count === 0) return "none";
  if (place > 0) return `${place.toLocaleString("en")}/${number}`;
  return count === 1 ? "1 hit" : `${number} hits`;
}

function showHitCount() {
  const place = hits.list.indexOf(scene.chosen);
  byId("hits").textContent = hitText(hits.list.length, place + 1);
  byId("next-hit").disabled = byId("previous-hit").disabled = hits.list.length === 0;
}

function choose(i) {
  scene.chosen = i;
  panel.shown = -2;
  if (i >= 0) {
    scene.hover = -1;
    bringIntoView(i);
  }
  showHitCount();
  redraw();
}

// Where the walk goes on from: the chosen event, or what is at the top of the view.
function walkPlace() {
  return scene.chosen >= 0 ? scene.chosen : (layout.shown[inView()[0]] ?? 0) - 0.5;
}

// The next event after the present place, or before it, that fits; at an end, from the other one.
function goTo(list, way) {
  if (list.length === 0) return;
  const place = walkPlace();
  const after = list.find((i) => i > place) ?? list[0];
  const before = list.findLast((i) => i < place) ?? list[list.length - 1];
  choose(way > 0 ? after : before);
}

function step(way, sameLane) {
  const { shown } = layout;
  if (shown.length === 0) return;
  if (scene.chosen < 0) {
    choose(shown[Math.min(inView()[0], shown.length - 1)]);
    return;
  }
  let k = firstIndexFrom(scene.chosen) + way;
  while (sameLane && k >= 0 && k < shown.length && model.lane[shown[k]] !== model.lane[scene.chosen]) k += way;
  if (k >= 0 && k < shown.length) choose(shown[k]);
}

function firstIndexFrom(i) {
  let low = 0, high = layout.shown.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (layout.shown[middle] < i) low = middle + 1;
    else high = middle;
  }
  return low;
}

function scrollBy(units) {
  layout.top += units;
  clampView();
  redraw();
}

function zoomBy(factor, y = HEAD + layout.height / 2) {
  zoomTo(layout.pixels * factor, y);
  redraw();
}

function zoomFit() {
  layout.pixels = smallestPixels();
  layout.top = 0;
  clampView();
  redraw();
}

// A row for each event; on a scale of time, so near that the events in view can be told apart.
function zoomRows() {
  const held = scene.chosen >= 0 ? scene.chosen : layout.shown[Math.max(0, inView()[0])] ?? 0;
  layout.pixels = layout.toScale ? pixelsForRows(held) : ROW;
  clampView();
  layout.top = (layout.at[held] ?? 0) - unitsInView() * (scene.chosen >= 0 ? 0.4 : 0);
  clampView();
  redraw();
}

function pixelsForRows(i) {
  const k = firstIndexFrom(i);
  const last = layout.shown[Math.min(layout.shown.length - 1, k + Math.floor(layout.height / ROW))] ?? i;
  const span = layout.at[last] - layout.at[i];
  return span > 0 ? layout.height / span : layout.pixels;
}

function toggleScale() {
  const held = scene.chosen >= 0 ? scene.chosen : layout.shown[inView()[0]] ?? 0;
  layout.toScale = !layout.toScale;
  byId("scale").textContent = layout.toScale ? "Time to scale" : "Even rows";
  placeEvents();
  layout.pixels = layout.toScale ? pixelsForRows(held) : ROW;
  layout.top = layout.at[held] ?? 0;
  clampView();
  renewOverview();
  redraw();
}

function toggleScheme() {
  document.documentElement.classList.toggle("dark");
  readColors();
  paintChips();
  renewOverview();
  redraw();
}

// The event nearest to the pointer, within reach.
function eventAt(x, y) {
  if (y < HEAD) return -1;
  const reach = Math.max(6, layout.toScale ? 9 : Math.min(layout.pixels * 0.75, 14));
  const from = firstShownFrom(positionAt(y - reach)), to = firstShownFrom(positionAt(y + reach));
  let best = -1, least = Infinity;
  for (let k = from; k < Math.min(to, from + 5000); k++) {
    const i = layout.shown[k], [a, b] = endsOf(i);
    const aside = Math.max(0, Math.min(a, b) - x, x - Math.max(a, b));
    const far = Math.abs(yOfEvent(i) - (y + 3)) + aside * 0.01;
    if (far < least) { best = i; least = far; }
  }
  return best;
}

function placeIn(canvas, event) {
  const box = canvas.getBoundingClientRect();
  return [event.clientX - box.left, event.clientY - box.top];
}

function watchChart() {
  const { canvas } = scene;
  let drag = null;
  canvas.addEventListener("pointerdown", (event) => {
    canvas.focus();
    canvas.setPointerCapture(event.pointerId);
    drag = { y: event.clientY, top: layout.top, isMove: false };
  });
  canvas.addEventListener("pointermove", (event) => {
    if (drag && Math.abs(event.clientY - drag.y) > 3) drag.isMove = true;
    if (drag?.isMove) {
      layout.top = drag.top - (event.clientY - drag.y) / layout.pixels;
      clampView();
      redraw();
      return;
    }
    const found = eventAt(...placeIn(canvas, event));
    if (found === scene.hover) return;
    scene.hover = found;
    redraw();
  });
  canvas.addEventListener("pointerup", (event) => {
    if (drag && !drag.isMove) {
      const found = eventAt(...placeIn(canvas, event));
      choose(found === scene.chosen ? -1 : found);
    }
    drag = null;
  });
  canvas.addEventListener("pointerleave", () => { scene.hover = -1; redraw(); });
  canvas.addEventListener("wheel", (event) => {
    event.preventDefault();
    const lines = event.deltaMode === 1 ? event.deltaY * 18 : event.deltaMode === 2 ? event.deltaY * layout.height : event.deltaY;
    if (event.ctrlKey) zoomBy(Math.exp(-lines * 0.0025), placeIn(canvas, event)[1]);
    else scrollBy(lines / layout.pixels);
  }, { passive: false });
}

function watchOverview() {
  const { canvas } = overview;
  const move = (event) => {
    layout.top = overviewPosition(placeIn(canvas, event)[1]) - unitsInView() / 2;
    clampView();
    redraw();
  };
  canvas.addEventListener("pointerdown", (event) => { canvas.setPointerCapture(event.pointerId); move(event); });
  canvas.addEventListener("pointermove", (event) => { if (event.buttons & 1) move(event); });
}

const faultList = () => Array.from(layout.shown).filter((i) => model.fault[i]);
const page = () => unitsInView() * 0.9;
const KEYS = {
  ArrowDown: () => step(1, false), ArrowUp: () => step(-1, false),
  ArrowRight: () => step(1, true), ArrowLeft: () => step(-1, true),
  PageDown: () => scrollBy(page()), PageUp: () => scrollBy(-page()), " ": () => scrollBy(page()),
  Home: () => scrollBy(-Infinity), End: () => scrollBy(layout.length),
  "+": () => zoomBy(1.5), "=": () => zoomBy(1.5), "-": () => zoomBy(1 / 1.5),
  0: zoomFit, 1: zoomRows, t: toggleScale, d: toggleScheme,
  "/": () => { byId("search").focus(); byId("search").select(); },
  n: () => goTo(hits.list, 1), N: () => goTo(hits.list, -1),
  f: () => goTo(faultList(), 1), F: () => goTo(faultList(), -1),
  Escape: () => choose(-1), "?": showKeys,
};

function watchKeys() {
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || byId("dialog").open) return;
    const isInField = event.target instanceof HTMLInputElement && event.target.type === "search";
    if (isInField) {
      searchKey(event);
      return;
    }
    const isOnButton = event.target instanceof HTMLElement && event.target.closest("button, label, summary");
    if (isOnButton && (event.key === " " || event.key === "Enter")) return;
    const act = KEYS[event.key];
    if (!act) return;
    event.preventDefault();
    act();
  });
}

function searchKey(event) {
  if (event.key === "Enter") {
    event.preventDefault();
    goTo(hits.list, event.shiftKey ? -1 : 1);
  } else if (event.key === "Escape") {
    event.preventDefault();
    byId("search").value = "";
    search();
    scene.canvas.focus();
  }
}

function search() {
  findHits();
  renewOverview();
  redraw();
}

function showDialog(title, parts) {
  byId("dialog-title").textContent = title;
  byId("dialog-body").replaceChildren(...parts);
  byId("dialog").showModal();
}

function showKeys() {
  const list = document.createElement("dl");
  const rows = [["↑ ↓", "event before, event after"], ["← →", "the same on this lane"],
    ["Page ↑ ↓, wheel, drag", "move"], ["+ −, Ctrl wheel", "zoom"], ["0", "the whole recording"],
    ["1", "a row for each event"], ["t", "even rows, or time to scale"], ["/", "search; Enter, Shift+Enter: next, previous hit"],
    ["n N", "next, previous hit"], ["f F", "next, previous fault"], ["d", "light or dark"], ["Esc", "unpin; in the search: clear it"]];
  for (const [key, text] of rows) addFact(list, key, text);
  showDialog("Keys", [list]);
}

function showWarning() {
  const texts = isComplete() ? [] : ["The recording has no last line: it was cut off, or is still being written."];
  if (data.faultCount > 0) texts.push(`${data.faultCount} broken lines were passed over:`, ...data.faults);
  showDialog("What is missing", texts.map((text) => {
    const part = document.createElement("p");
    part.textContent = text;
    return part;
  }));
}

function addChip(parent, name, color, count, isOn, onChange) {
  const label = document.createElement("label"), box = document.createElement("input");
  const dotMark = document.createElement("i"), text = document.createElement("span"), number = document.createElement("small");
  box.type = "checkbox";
  box.checked = isOn;
  label.classList.toggle("on", isOn);
  label.dataset.name = name;
  dotMark.dataset.color = color;
  text.textContent = name;
  number.textContent = count.toLocaleString("en");
  box.addEventListener("change", () => {
    label.classList.toggle("on", box.checked);
    onChange(box.checked);
    renew();
  });
  label.append(box, dotMark, text, number);
  parent.append(label);
}

function paintChips() {
  for (const mark of document.querySelectorAll("#lanes i")) mark.style.background = colors[mark.dataset.color] ?? colors.other;
}

function makeChips() {
  const counts = new Uint32Array(model.lanes.length), kinds = new Uint32Array(5);
  for (let i = 0; i < model.count; i++) { counts[model.lane[i]]++; kinds[model.kind[i]]++; }
  const parent = byId("lanes");
  model.lanes.forEach((lane, k) => {
    if (k !== model.daemonLane || counts[k] > 0) addChip(parent, lane.title, lane.group, counts[k], laneIsOn[k], (on) => { laneIsOn[k] = on; });
  });
  const gap = document.createElement("span");
  gap.className = "gap";
  parent.append(gap);
  for (const [kind, name] of [[TYPED, "typed"], [NOTE, "modes and lines"], [DETAIL, "intents"]]) {
    if (kinds[kind] > 0) addChip(parent, name, "soft", kinds[kind], kindIsOn[kind], (on) => { kindIsOn[kind] = on; });
  }
  paintChips();
}

// Puts the page together.
function fitAll() {
  [scene.width, scene.height] = fitCanvas(scene.canvas);
  [overview.width, overview.height] = fitCanvas(overview.canvas);
  layout.height = Math.max(60, scene.height - HEAD);
  clampView();
  renewOverview();
  drawAll();  // fitting has emptied the canvases: no frame is to show them so
}

// A log has no last line of its own.
const isComplete = () => data.isWhole || data.fromLog;

function describe() {
  const wall = (data.start.wall ?? "").replace("T", " ").replace(/\.\d+Z$/, " UTC");
  const length = model.count === 0 ? 0 : model.t[model.count - 1] - model.t[0];
  const parts = [wall, duration(length), `${model.count.toLocaleString("en")} events`];
  if (data.fromLog) parts.push("from the log, to the second");
  byId("summary").textContent = parts.filter((part) => part !== "").join("  ·  ");
  const warnings = isComplete() ? [] : ["cut off"];
  if (data.faultCount > 0) warnings.push(`${data.faultCount} broken line${data.faultCount === 1 ? "" : "s"}`);
  byId("warning").hidden = warnings.length === 0;
  byId("warning").textContent = warnings.join(", ");
}

function watchButtons() {
  const acts = { "previous-hit": () => goTo(hits.list, -1), "next-hit": () => goTo(hits.list, 1),
    "next-fault": () => goTo(faultList(), 1), "zoom-out": () => zoomBy(1 / 1.5), "zoom-in": () => zoomBy(1.5),
    "zoom-fit": zoomFit, "zoom-rows": zoomRows, scale: toggleScale, scheme: toggleScheme, help: showKeys, warning: showWarning };
  for (const [id, act] of Object.entries(acts)) byId(id).addEventListener("click", act);
  byId("search").addEventListener("input", search);
  byId("next-fault").disabled = !model.fault.includes(1);
}

// page.html#line=49 pins what stands on that line of the recording.
function followFragment() {
  const line = /^#line=(\d+)$/.exec(location.hash)?.[1];
  const i = line === undefined ? -1 : model.line.indexOf(Number(line));
  if (i >= 0) choose(i);
}

function start() {
  if (matchMedia("(prefers-color-scheme: dark)").matches) document.documentElement.classList.add("dark");
  readColors();
  scene.pen.font = `12px ${MONO}`;
  charWidth = scene.pen.measureText("0".repeat(100)).width / 100;
  byId("scale").textContent = "Even rows";
  describe();
  makeChips();
  watchButtons();
  watchChart();
  watchOverview();
  watchKeys();
  placeEvents();
  showHitCount();
  new ResizeObserver(fitAll).observe(byId("main"));
  fitAll();
  window.addEventListener("hashchange", followFragment);
  followFragment();
  scene.canvas.focus();
}

start();

// For whoever scripts the page: where an event is drawn, and what is drawn at all.
window.trace = Object.freeze({
  count: model.count,
  yOf: (i) => yOfEvent(i),
  endsOf: (i) => endsOf(i),
  state: () => ({ ...scene.drawn, frames: scene.frames, pixels: layout.pixels, top: layout.top, length: layout.length,
    inView: inView(), shown: layout.shown.length, chosen: scene.chosen, hits: hits.list.length,
    lanes: lanesOn().map((k) => model.lanes[k].name), bandsInAll: model.bands.length }),
  show: (i) => { choose(i); },
});

// The whole recording in one strip: how much happened where, bands, faults, hits, what is in view.
const overview = {
  canvas: document.getElementById("overview"),
  pen: document.getElementById("overview").getContext("2d"),
  width: 76,
  height: 600,
  still: null, // the strip without what moves
};

const overviewY = (position) => 4 + (position / layout.length) * (overview.height - 8);
const overviewPosition = (y) => ((y - 4) / (overview.height - 8)) * layout.length;

// Drawn again only when the events shown, their places, the hits or the colours change.
function renewOverview() {
  const ratio = window.devicePixelRatio || 1;
  const still = document.createElement("canvas");
  still.width = overview.canvas.width;
  still.height = overview.canvas.height;
  const pen = still.getContext("2d");
  pen.setTransform(ratio, 0, 0, ratio, 0, 0);
  pen.fillStyle = colors.raised;
  pen.fillRect(0, 0, overview.width, overview.height);
  const on = lanesOn(), step = (overview.width - 20) / Math.max(1, on.length);
  const xOf = model.lanes.map((_, lane) => 4 + on.indexOf(lane) * step);
  paintLoad(pen, xOf, step);
  paintBands(pen, xOf, step);
  paintMarks(pen);
  overview.still = still;
}

function paintLoad(pen, xOf, step) {
  const rows = Math.ceil(overview.height), lanes = model.lanes.length;
  const counts = new Uint32Array(rows * lanes);
  for (const i of layout.shown) {
    const row = Math.min(rows - 1, Math.floor(overviewY(layout.at[i])));
    counts[row * lanes + model.lane[i]]++;
  }
  for (let cell = 0; cell < counts.length; cell++) {
    if (counts[cell] === 0) continue;
    const lane = cell % lanes;
    pen.fillStyle = laneColor(lane);
    pen.globalAlpha = Math.min(1, 0.25 + 0.15 * Math.log2(1 + counts[cell]));
    pen.fillRect(xOf[lane], Math.floor(cell / lanes), Math.max(1, step - 1), 1);
  }
  pen.globalAlpha = 1;
}

function paintBands(pen, xOf, step) {
  for (const band of model.bands) {
    if (!laneIsOn[band.lane]) continue;
    const low = overviewY(layout.at[band.begin]);
    const high = band.end === null ? overview.height : overviewY(layout.at[band.end]);
    pen.fillStyle = bandColor(band);
    pen.globalAlpha = 0.4;
    pen.fillRect(xOf[band.lane], low, Math.max(2, step - 1), Math.max(1.5, high - low));
  }
  pen.globalAlpha = 1;
}

function paintMarks(pen) {
  for (const i of layout.shown) {
    if (!model.fault[i] && !hits.isHit[i]) continue;
    const y = overviewY(layout.at[i]);
    pen.fillStyle = hits.isHit[i] ? colors["hit-mark"] : colors.fault;
    pen.fillRect(hits.isHit[i] ? overview.width - 7 : overview.width - 14, y - 1, 6, 2);
  }
}

function drawOverview() {
  const { pen, width, height } = overview;
  pen.clearRect(0, 0, width, height);
  pen.save();
  pen.setTransform(1, 0, 0, 1, 0, 0);
  if (overview.still) pen.drawImage(overview.still, 0, 0);
  pen.restore();
  const low = overviewY(layout.top);
  const high = overviewY(Math.min(layout.length, layout.top + unitsInView()));
  const size = Math.max(6, high - low);
  pen.fillStyle = colors.host;
  pen.globalAlpha = 0.13;
  pen.fillRect(0, low, width, size);
  pen.globalAlpha = 1;
  pen.strokeStyle = colors.host;
  pen.lineWidth = 1.5;
  pen.strokeRect(1, low, width - 2, size);
}

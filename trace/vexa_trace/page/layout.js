// Where events stand on the axis of time, and which stretch of it is in view.
const ROW = 26; // pixels of a row at the usual zoom
const LARGEST_ROW = 80;
const HEAD = 46; // pixels of the lanes' names
const QUIET = 50_000; // µs between two events from which on even rows leave a gap

const layout = {
  toScale: false,
  shown: new Uint32Array(0), // indices of the events shown
  at: new Float64Array(0), // position of each event, shown or not, in rows or in seconds
  length: 0, // of the whole axis
  pixels: ROW, // a unit of it
  top: 0, // position at the upper edge
  height: 600, // pixels of the view below the names
};

// Rows that a quiet time takes: enough to be seen, never enough to scroll through.
function quietRows(us) {
  return us < QUIET ? 0 : Math.min(2.5, 0.5 + Math.log10(us / QUIET) * 0.5);
}

// Hidden events stand where the next one shown stands, so that bands keep their place.
function placeEvents() {
  const { count, t } = model;
  const shown = new Uint32Array(count);
  const at = new Float64Array(count);
  let rows = 0, found = 0, before = -1;
  for (let i = 0; i < count; i++) {
    const isOn = isShown(i);
    if (isOn && before >= 0) rows += 1 + quietRows(t[i] - t[before]);
    at[i] = layout.toScale ? (t[i] - t[0]) / 1e6 : rows + (isOn || before < 0 ? 0 : 1);
    if (!isOn) continue;
    shown[found++] = i;
    before = i;
  }
  layout.shown = shown.slice(0, found);
  layout.at = at;
  layout.length = count === 0 ? 1 : at[count - 1] || 1e-6;
}

// First of the shown whose position is not below this one.
function firstShownFrom(position) {
  let low = 0, high = layout.shown.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (layout.at[layout.shown[middle]] < position) low = middle + 1;
    else high = middle;
  }
  return low;
}

const LEAD = ROW * 0.9; // pixels above the first event
const yOf = (position) => HEAD + LEAD + (position - layout.top) * layout.pixels;
const positionAt = (y) => layout.top + (y - HEAD - LEAD) / layout.pixels;
const yOfEvent = (i) => yOf(layout.at[i]);
const unitsInView = () => (layout.height - LEAD * 2) / layout.pixels;

function smallestPixels() {
  const fit = (layout.height - LEAD * 2) / layout.length;
  return layout.toScale ? fit : Math.min(fit, ROW);
}

function largestPixels() {
  return layout.toScale ? 2e7 : LARGEST_ROW;
}

function clampView() {
  const least = smallestPixels();
  layout.pixels = Math.min(Math.max(layout.pixels, least), Math.max(least, largestPixels()));
  const most = Math.max(0, layout.length - unitsInView());
  layout.top = Math.min(Math.max(layout.top, 0), most);
}

function zoomTo(pixels, y) {
  const held = positionAt(y);
  layout.pixels = pixels;
  clampView();
  layout.top = held - (y - HEAD - LEAD) / layout.pixels;
  clampView();
}

// The part of the shown events that is in view: [from, to) of layout.shown.
function inView() {
  const margin = LEAD / layout.pixels + 1e-9;
  const from = firstShownFrom(layout.top - margin);
  const to = firstShownFrom(layout.top + unitsInView() + 2 * margin);
  return [from, to];
}

function bringIntoView(i) {
  const y = yOfEvent(i), low = HEAD + LEAD, high = HEAD + layout.height - LEAD;
  if (y >= low && y <= high) return;
  layout.top = layout.at[i] - unitsInView() / 3;
  clampView();
}

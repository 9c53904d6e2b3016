// The recording as columns, and what is shown of it.
const NOTE = 0, TYPED = 1, TO_DAEMON = 2, FROM_DAEMON = 3, DETAIL = 4;

const data = JSON.parse(document.getElementById("data").textContent);
const model = {
  lanes: data.lanes,
  bands: data.bands,
  count: data.events.t.length,
  t: Float64Array.from(data.events.t),
  lane: Uint8Array.from(data.events.lane),
  kind: Uint8Array.from(data.events.kind),
  fault: Uint8Array.from(data.events.fault),
  line: data.events.line,
  qmiLane: data.lanes.findIndex((lane) => lane.name === "qmi"),
  udpLane: data.lanes.findIndex((lane) => lane.name === "udp"),
  daemonLane: data.lanes.findIndex((lane) => lane.name === "daemon"),
};

// Which lanes are on; the daemon's log would drown the rest, so it is off until it is wanted.
const laneIsOn = model.lanes.map((lane) => lane.name !== "log");
const kindIsOn = [true, true, true, true, false];
const hasBytes = (i) => model.kind[i] !== NOTE && model.kind[i] !== DETAIL;

const bytesOf = (i) => data.events.dataTexts[data.events.data[i]];
const fieldsOf = (i) => JSON.parse(data.events.fieldTexts[data.events.fields[i]]);

function escapeByte(code) {
  if (code === 13) return "\\r";
  if (code === 10) return "\\n";
  if (code === 9) return "\\t";
  if (code === 92) return "\\\\";
  if (code >= 32 && code < 127) return String.fromCharCode(code);
  return "\\x" + code.toString(16).toUpperCase().padStart(2, "0");
}

function escapeBytes(bytes, most) {
  let text = "";
  const end = Math.min(bytes.length, most);
  for (let i = 0; i < end; i++) text += escapeByte(bytes.charCodeAt(i));
  return end < bytes.length ? text + "…" : text;
}

// What stands at an arrow, each text made once and when it is first needed.
const LONGEST_LABEL = 240;
const dataLabels = new Array(data.events.dataTexts.length);
function labelOf(i) {
  const label = data.events.labelTexts[data.events.label[i]];
  if (label !== "") return label;
  const number = data.events.data[i];
  dataLabels[number] ??= escapeBytes(data.events.dataTexts[number], LONGEST_LABEL);
  return dataLabels[number];
}

function isShown(i) {
  if (!laneIsOn[model.lane[i]]) return false;
  return kindIsOn[model.kind[i]] || (model.fault[i] === 1 && !hasBytes(i));
}

function duration(us) {
  const size = Math.abs(us);
  if (size < 1000) return `${us} µs`;
  if (size < 1e6) return `${(us / 1e3).toFixed(size < 1e4 ? 2 : 1)} ms`;
  if (size < 6e7) return `${(us / 1e6).toFixed(2)} s`;
  const minutes = Math.floor(size / 6e7);
  return `${us < 0 ? "-" : ""}${minutes} min ${((size % 6e7) / 1e6).toFixed(0)} s`;
}

const seconds = (us) => (us / 1e6).toFixed(6);

function placeOf(i) {
  const place = model.lanes[model.lane[i]].title;
  if (model.lane[i] === model.qmiLane && hasBytes(i)) {
    return model.kind[i] === TO_DAEMON ? "QMI client → service" : "QMI service → client";
  }
  if (model.kind[i] === TYPED) return `typed → ${place}`;
  if (model.kind[i] === TO_DAEMON) return `${place} → daemon`;
  if (model.kind[i] === FROM_DAEMON) return `daemon → ${place}`;
  return place;
}

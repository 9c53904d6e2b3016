// Tells one event in full. Everything is set as text: the bytes are anybody's.
const LONGEST_SHOWN = 2048; // bytes, until all are asked for
const byId = (id) => document.getElementById(id);
const panel = { shown: -2, isPinned: false };

function addFact(list, name, value) {
  const term = document.createElement("dt"), text = document.createElement("dd");
  term.textContent = name;
  text.textContent = value;
  list.append(term, text);
}

function hexDump(bytes, most) {
  const lines = [];
  const end = Math.min(bytes.length, most);
  for (let row = 0; row < end; row += 8) {
    let hex = "", text = "";
    for (let i = row; i < row + 8; i++) {
      const code = i < end ? bytes.charCodeAt(i) : -1;
      hex += code < 0 ? "   " : code.toString(16).padStart(2, "0") + " ";
      if (code >= 0) text += code >= 32 && code < 127 ? String.fromCharCode(code) : "·";
    }
    lines.push(`${row.toString(16).padStart(4, "0")}  ${hex} ${text}`);
  }
  return lines.join("\n");
}

// The escapes stand back, and a line end also begins a new line, as it would at the host.
function setText(pre, text) {
  pre.replaceChildren();
  for (const piece of text.split(ESCAPE)) {
    if (piece === "") continue;
    const isEscape = ESCAPE.test(piece);
    const part = isEscape ? document.createElement("i") : document.createTextNode(piece);
    if (isEscape) part.textContent = piece;
    pre.append(part);
    if (piece === "\\n") pre.append("\n");
  }
}

function showBytes(i, most) {
  const bytes = bytesOf(i);
  const isEmpty = bytes.length === 0;
  for (const id of ["text-title", "panel-text", "hex-title", "panel-hex"]) byId(id).hidden = isEmpty;
  setText(byId("panel-text"), escapeBytes(bytes, most));
  byId("panel-hex").textContent = hexDump(bytes, most);
  const more = byId("panel-more");
  more.hidden = bytes.length <= most;
  more.textContent = `Show all ${bytes.length} bytes`;
}

function showFacts(i) {
  const list = byId("panel-facts");
  list.replaceChildren();
  addFact(list, "Time", data.fromLog ? `${timeText(model.t[i])}, to the second` : `${seconds(model.t[i])} s`);
  if (i > 0) addFact(list, "Since last", duration(model.t[i] - model.t[i - 1]));
  if (scene.chosen >= 0 && scene.chosen !== i) addFact(list, "Since pinned", duration(model.t[i] - model.t[scene.chosen]));
  addFact(list, "Place", model.lanes[model.lane[i]].title);
  const label = data.events.labelTexts[data.events.label[i]];
  if (label !== "" && hasBytes(i)) addFact(list, "Means", label);
  if (hasBytes(i)) addFact(list, "Direction", placeOf(i));
  const fields = fieldsOf(i);
  if (hasBytes(i)) addFact(list, "Bytes", fields.n ?? String(bytesOf(i).length));
  for (const [name, value] of Object.entries(fields)) if (name !== "n") addFact(list, name, value);
  addFact(list, "Line", `${model.line[i]} of the file`);
}

function showNothing() {
  byId("panel-title").textContent = "Nothing pointed at";
  const list = byId("panel-facts");
  list.replaceChildren();
  for (const [name, value] of Object.entries(data.start)) {
    if (["daemon", "target", "pcie", "wall"].includes(name)) addFact(list, name, value);
  }
  addFact(list, "Point", "at an arrow for its bytes, click to pin it");
  for (const id of ["text-title", "panel-text", "hex-title", "panel-hex", "panel-more"]) byId(id).hidden = true;
}

function updatePanel() {
  const i = scene.hover >= 0 ? scene.hover : scene.chosen;
  byId("panel-pin").hidden = i < 0 || i !== scene.chosen;
  if (i === panel.shown) return;
  panel.shown = i;
  if (i < 0) {
    showNothing();
    return;
  }
  byId("panel-title").textContent = !hasBytes(i) ? labelOf(i) : placeOf(i);
  showFacts(i);
  showBytes(i, LONGEST_SHOWN);
}

byId("panel-more").addEventListener("click", () => showBytes(panel.shown, Infinity));

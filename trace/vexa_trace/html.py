"""Writes the picture of a recording: one page that needs nothing beside itself."""

from __future__ import annotations

import base64
import hashlib
import json
from pathlib import Path
from typing import Any

from .picture import LARGEST_TIME, SHOWN_ELSEWHERE, Picture, Shown, field_text, make_picture
from .recording import Recording
from .whole_file import whole_file

PAGE_FOLDER = Path(__file__).parent / "page"
# In the order in which one uses what stands before it.
SCRIPTS = (
    "model.js", "layout.js", "scene.js", "overview.js", "panel.js", "controls.js", "start.js",
)
MOST_FAULTS_SHOWN = 200


class _Table:
    """Texts, each once; a recording says the same thing many times."""

    def __init__(self) -> None:
        self.texts: list[str] = []
        self._places: dict[str, int] = {}

    def place(self, text: str) -> int:
        """Where the text stands; it is added when it is new."""
        place = self._places.setdefault(text, len(self.texts))
        if place == len(self.texts):
            self.texts.append(text)
        return place


def _time(value: int) -> int:
    return max(-LARGEST_TIME, min(LARGEST_TIME, value))


def _fields(one: Shown) -> dict[str, str]:
    event = one.event
    fields = {"what": event.what} if event.what else {}
    if event.at != one.lane:
        fields["by"] = event.at
    for name, value in event.fields.items():
        if name not in SHOWN_ELSEWHERE or event.fields["n"] != len(event.data):
            fields[name] = field_text(value)
    return fields


def _columns(picture: Picture) -> dict[str, Any]:
    """The events by column: far smaller than an object each."""
    lane_numbers = {lane[0]: number for number, lane in enumerate(picture.lanes)}
    data, labels, fields = _Table(), _Table(), _Table()
    shown = picture.shown
    return {
        "t": [_time(one.event.t) for one in shown],
        "lane": [lane_numbers[one.lane] for one in shown],
        "kind": [one.kind for one in shown],
        "fault": [int(one.is_fault) for one in shown],
        "line": [one.event.line for one in shown],
        "data": [data.place(one.event.data.decode("latin-1")) for one in shown],
        "label": [labels.place(one.label) for one in shown],
        "fields": [fields.place(json.dumps(_fields(one))) for one in shown],
        "dataTexts": data.texts,
        "labelTexts": labels.texts,
        "fieldTexts": fields.texts,
    }


def page_data(recording: Recording) -> dict[str, Any]:
    """What the page is given, as plain values for JSON."""
    picture = make_picture(recording)
    faults = recording.faults[:MOST_FAULTS_SHOWN]
    if len(recording.faults) > len(faults):
        faults.append(f"and {len(recording.faults) - len(faults)} more")
    return {
        "start": {name: field_text(value) for name, value in recording.start.items()},
        "isWhole": recording.is_whole,
        "fromLog": recording.start.get("source") == "log",
        "faultCount": len(recording.faults),
        "faults": [field_text(fault) for fault in faults],
        "lanes": [{"name": n, "title": field_text(t), "group": g} for n, t, g in picture.lanes],
        "bands": [
            {
                "lane": [lane[0] for lane in picture.lanes].index(band.lane),
                "kind": band.kind,
                "name": band.name,
                "begin": band.begin,
                "end": band.end,
            }
            for band in picture.bands
        ],
        "events": _columns(picture),
    }


def embedded(value: Any) -> str:
    """JSON that may stand in a script element: whatever it holds, it cannot end the element."""
    text = json.dumps(value, ensure_ascii=True, allow_nan=False, separators=(",", ":"))
    return text.replace("<", "\\u003c").replace(">", "\\u003e").replace("&", "\\u0026")


def _source(name: str) -> str:
    return (PAGE_FOLDER / name).read_text(encoding="utf-8")


def _hash(text: str) -> str:
    """For the content security policy: only these scripts and styles are carried out."""
    digest = hashlib.sha256(text.encode("utf-8")).digest()
    return f"'sha256-{base64.b64encode(digest).decode('ascii')}'"


def make_page(recording: Recording) -> str:
    """The whole page."""
    style = _source("page.css")
    body = "\n".join(_source(name) for name in SCRIPTS)
    script = f'(() => {{\n"use strict";\n{body}\n}})();\n'
    policy = f"default-src 'none'; script-src {_hash(script)}; style-src {_hash(style)}"
    parts = {
        "@POLICY@": policy,
        "@STYLE@": style,
        "@DATA@": embedded(page_data(recording)),
        "@SCRIPT@": script,
    }
    page = _source("page.html")
    pieces: list[str] = []
    for mark, text in parts.items():  # one pass from front to back: no part is searched for marks
        before, found, page = page.partition(mark)
        if not found:
            raise ValueError(f"page.html has no {mark}, or not in this order")
        pieces += [before, text]
    return "".join([*pieces, page])


def write_page(recording: Recording, path: str) -> None:
    """Writes the page; raises OSError."""
    page = make_page(recording)
    with whole_file(path) as file:
        file.write(page.encode("utf-8"))

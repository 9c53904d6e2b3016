"""Reads recordings: JSON Lines as docs/recording.md describes them. Hostile until checked."""

from __future__ import annotations

import json
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from typing import Any

from .progress import Progress

HOST_PORTS = ("modem", "at", "uart", "pcie")
CP_CHANNELS = ("cp-modem", "cp-at", "cp-uart")
DIRECTIONS = ("typed", "in", "out")


class RecordingError(Exception):
    """A file that is no recording; the text says where and why."""


@dataclass(frozen=True)
class Event:
    """One line of a recording."""

    t: int  # microseconds since the recording began
    at: str
    dir: str = ""  # "typed", "in", "out", or empty: an event without bytes
    what: str = ""  # of an event without bytes
    data: bytes = b""
    fields: dict[str, Any] = field(default_factory=dict)  # whatever else stood in the line
    line: int = 0  # of the file, from 1

    def number(self, name: str) -> int | None:
        """A field when it is a whole number; files are not to be trusted."""
        value = self.fields.get(name)
        return value if isinstance(value, int) and not isinstance(value, bool) else None

    def text(self, name: str) -> str:
        """A field when it is text, else nothing."""
        value = self.fields.get(name)
        return value if isinstance(value, str) else ""


@dataclass
class Recording:
    """A whole file. Events are in the order of time."""

    start: dict[str, Any]  # the first line's fields
    events: list[Event]
    faults: list[str]  # lines passed over, for the user
    is_whole: bool  # has its last line


def _parse_json(text: str) -> Any:
    try:
        return json.loads(text)
    except RecursionError as error:
        raise ValueError("nested too deep") from error


def _is_time(value: Any) -> bool:
    return isinstance(value, int) and not isinstance(value, bool) and 0 <= value < 1 << 63


def _parse_line(text: str, number: int, begin: int) -> Event:
    value = _parse_json(text)
    if not isinstance(value, dict) or not _is_time(value.get("t")):
        raise ValueError("no time")
    place = value.get("at")
    if not isinstance(place, str):
        raise ValueError("no place")
    data = value.get("data", "")
    direction = value.get("dir", "")
    what = value.get("what", "")
    if not all(isinstance(item, str) for item in (data, direction, what)):
        raise ValueError("a field of the wrong kind")
    if direction and direction not in DIRECTIONS:
        raise ValueError(f"no such direction: {direction}")
    rest = {k: v for k, v in value.items() if k not in ("t", "at", "dir", "what", "data")}
    return Event(value["t"] - begin, place, direction, what, data.encode("latin-1"), rest, number)


def _parse_start(text: str) -> dict[str, Any]:
    try:
        start = _parse_json(text)
    except ValueError as error:
        raise RecordingError(f"line 1: no JSON ({error}); a log needs --from-log") from error
    if not isinstance(start, dict) or start.get("what") != "start":
        raise RecordingError("line 1: no start of a recording; is this one of --record?")
    if start.get("version") != 1:
        raise RecordingError(f"line 1: version {start.get('version')} of the format; this knows 1")
    if not _is_time(start.get("t")):
        raise RecordingError("line 1: no time")
    return start


def read_lines(lines: Iterable[str]) -> Recording:
    """A recording from its lines. A broken line is told of and passed over."""
    numbered: Iterator[tuple[int, str]] = enumerate(lines, 1)
    first = next(numbered, None)
    if first is None:
        raise RecordingError("empty; is this a recording?")
    start = _parse_start(first[1])
    events: list[Event] = []
    faults: list[str] = []
    for number, text in numbered:
        try:
            events.append(_parse_line(text, number, start["t"]))
        except (ValueError, UnicodeError) as error:
            cut = "" if text.endswith("\n") else " (cut off)"
            faults.append(f"line {number}{cut}: {error}")
    is_whole = any(event.at == "bench" and event.what == "end" for event in events[-8:])
    events.sort(key=lambda event: event.t)
    return Recording(start, events, faults, is_whole)


def read_file(path: str, progress: Progress | None = None) -> Recording:
    """A recording from a file; raises RecordingError or OSError."""
    with open(path, encoding="utf-8", errors="surrogateescape") as file:
        return read_lines((progress or Progress()).reading(file))

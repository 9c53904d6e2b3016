"""What the picture of a recording shows: lanes, arrows with their words, and bands.

The page draws this and adds no meaning of its own.
"""

from __future__ import annotations

import json
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any

from . import packs, wording
from .decode import MuxFrames
from .frames import Frame
from .recording import CP_CHANNELS, HOST_PORTS, Event, Recording

# Lanes from left to right: name, title, group. Only those that have something to show are drawn.
LANES = (
    ("qmi", "QMI", "client"),
    ("udp", "UDP", "client"),
    ("modem", "modem", "host"),
    ("at", "at", "host"),
    ("uart", "uart", "host"),
    ("pcie", "pcie", "host"),
    ("daemon", "daemon", "daemon"),
    ("cp-modem", "cp-modem", "cp"),
    ("cp-at", "cp-at", "cp"),
    ("cp-uart", "cp-uart", "cp"),
    ("platform", "platform", "platform"),
    ("uevent", "uevents", "kernel"),
    ("bench", "bench", "bench"),
    ("log", "log", "log"),
)
KNOWN_LANES = {name for name, _, _ in LANES}
# A reader passes over places that it does not know; it shows this many of them, so that a broken
# file cannot fill the picture with lanes.
MOST_OTHER_LANES = 4
OTHER_LANE = "other"

# Kinds of event, as the page knows them.
NOTE, TYPED, TO_DAEMON, FROM_DAEMON, DETAIL = range(5)
# Events that a modem channel has at every read; they are off until they are wanted.
DETAILS = {"intent"}
KINDS = {"typed": TYPED, "in": TO_DAEMON, "out": FROM_DAEMON}

LONGEST_LABEL = 400  # characters; the panel beside the picture shows all
LONGEST_FIELD = 2000
LARGEST_TIME = 2**52  # what the page's numbers hold exactly
SHOWN_ELSEWHERE = {"n"}


@dataclass
class Shown:
    """An event as it is drawn."""

    event: Event
    lane: str
    kind: int
    label: str  # instead of the bytes' own text; "" leaves it at that
    is_fault: bool


@dataclass
class Band:
    """A state of a lane from one event on until another, by their indices; None: to the end."""

    lane: str
    kind: str  # "mode" or "fault"
    name: str
    begin: int
    end: int | None = None


@dataclass
class Picture:
    """All that the page draws."""

    lanes: list[tuple[str, str, str]]
    shown: list[Shown]
    bands: list[Band] = field(default_factory=list)


def escaped(data: bytes) -> str:
    """Bytes as the text of a label."""
    return wording.escaped(data[: LONGEST_LABEL + 1], full=True)


def short(text: str) -> str:
    """A label of bounded length."""
    return text if len(text) <= LONGEST_LABEL else text[: LONGEST_LABEL - 1] + "…"


def field_text(value: Any) -> str:
    """A field of a line, whatever it holds, as bounded text."""
    if isinstance(value, str):
        text = value
    else:
        try:
            text = json.dumps(value)
        except (TypeError, ValueError, RecursionError):
            text = "(cannot be shown)"
    return text if len(text) <= LONGEST_FIELD else text[: LONGEST_FIELD - 1] + "…"


def passed(event: Event) -> int:
    """Bytes that really passed; a log may know their count and not the bytes."""
    number = event.number("n")
    return len(event.data) if number is None else number


def failed_to_write(event: Event) -> bool:
    """A write that was refused, or that took fewer bytes than it was given."""
    if event.dir != "out":
        return False
    asked = event.number("asked")
    return bool(event.fields.get("err")) or (asked is not None and asked > passed(event))


def is_fault(event: Event) -> bool:
    """Something that the reader of a picture looks for first."""
    return wording.is_fault(event) or failed_to_write(event)


class Labels:
    """Words for arrows: payloads of packs, frames of the multiplexer, what events say."""

    def __init__(self, events: list[Event]) -> None:
        self._ports = packs.connection_ports(events)
        self._mux = MuxFrames()

    def label(self, event: Event) -> str:
        """The label of the next event, in order; "" when its bytes speak for themselves."""
        self._mux.follow(event)
        if not event.dir:
            return short(self._words(event))
        text = self._bytes(event)
        trouble = self._trouble(event)
        if not trouble:
            return short(text)
        return short(f"{trouble}: {text or escaped(event.data)}".removesuffix(": "))

    def _bytes(self, event: Event) -> str:
        if not event.data:
            return self._no_bytes(event)
        if event.at == "platform":
            return self._packs(event)
        if self._mux.carries(event):
            return self._frames(event)
        return ""

    def _no_bytes(self, event: Event) -> str:
        if passed(event) > 0:
            return f"{passed(event)} bytes, not known"
        if event.dir == "in" and not event.fields.get("err"):
            return "end of file" if event.at != "udp" else "empty datagram"
        return ""

    def _packs(self, event: Event) -> str:
        connection = event.number("conn")
        port = self._ports.get(connection, "?") if connection is not None else "?"
        return " ".join(_pack_text(pack, port) for pack in packs.split_packs(event.data))

    def _frames(self, event: Event) -> str:
        found = [_frame_text(frame) for frame in self._mux.feed(event)]
        return "  ".join(found) or "… of a frame"

    def _trouble(self, event: Event) -> str:
        error = event.fields.get("err")
        asked = event.number("asked")
        of = f"{passed(event)} of {asked} bytes" if asked is not None else ""
        return " ".join(part for part in (field_text(error) if error else "", of) if part)

    def _words(self, event: Event) -> str:
        parts = [event.what or "?"]
        for name, value in event.fields.items():
            if name in ("err", "port", "text", "unknown"):
                continue
            text = field_text(value) or "none"
            parts += [text] if name in BARE_FIELDS else [name, text]
        if event.fields.get("err"):
            parts.append(f"failed: {field_text(event.fields['err'])}")
        return " ".join(part for part in parts if part)


# Fields whose value tells what it is.
BARE_FIELDS = {"mode", "lines", "name", "change"}


def _pack_text(pack: packs.Pack, port: str) -> str:
    if pack.fault:
        return f"{port} · ({pack.fault}) {escaped(pack.payload)}"
    if pack.reported_port:
        return f"{port} · port report: {pack.reported_port}"
    kind = "" if pack.kind == "command" else f"({pack.kind}) "
    return f"{port} · {kind}{escaped(pack.payload)}"


def _frame_text(frame: Frame) -> str:
    if not frame.is_frame:
        return f"(no frame) {escaped(frame.information)}"
    check = "" if frame.fcs_fits else " bad FCS"
    return f"DLCI {frame.dlci} {frame.kind}{check} {escaped(frame.information)}".rstrip()


class Bands:
    """States of lanes, from the events that begin and end them."""

    def __init__(self) -> None:
        self.bands: list[Band] = []
        self._open: dict[tuple[str, str], Band] = {}

    def take(self, index: int, event: Event) -> None:
        """The next event, in order."""
        for lane, kind, name, begins in _changes(event):
            key = (lane, kind)
            before = self._open.get(key)
            if begins and before is not None and before.name == name:
                continue
            if before is not None:
                before.end = index
                del self._open[key]
            if begins:
                band = Band(lane, "mode" if kind == "mode" else "fault", name, index)
                self._open[key] = band
                self.bands.append(band)


def _changes(event: Event) -> Iterator[tuple[str, str, str, bool]]:
    """Which states this event begins (True) or ends: lane, kind of state, its name."""
    port = field_text(event.fields.get("port", ""))
    if event.at in HOST_PORTS and event.what == "mode":
        mode = field_text(event.fields.get("mode", "?"))
        yield event.at, "mode", mode, mode != "command"
    if event.at == "bench" and event.what in ("unplug", "plug") and port in HOST_PORTS:
        yield port, "plug", "unplugged", event.what == "unplug"
    if event.at == "bench" and event.what in ("platform-stop", "platform-start"):
        yield "platform", "stop", "stopped", event.what == "platform-stop"
    if event.at == "bench" and event.what == "daemon-ended":
        yield "daemon", "end", "ended", True
    if event.at in HOST_PORTS + CP_CHANNELS:
        if event.what in ("open", "close") and not event.fields.get("err"):
            yield event.at, "open", "closed", event.what == "close"
        if event.dir == "out":
            yield event.at, "write", "writes fail", failed_to_write(event)


def _lane_of(event: Event, others: list[str]) -> str:
    port = event.fields.get("port")
    if event.at == "bench" and isinstance(port, str) and port in KNOWN_LANES:
        return port
    if event.at == "bench" and event.what == "daemon-ended":
        return "daemon"
    if event.at == "bench" and event.what in ("platform-stop", "platform-start"):
        return "platform"
    if event.at in KNOWN_LANES or event.at in others:
        return event.at
    if len(others) < MOST_OTHER_LANES:
        others.append(event.at)
        return event.at
    return OTHER_LANE


def _kind_of(event: Event) -> int:
    if event.at == "qmi" and "kind" in event.fields:
        return TO_DAEMON if event.fields["kind"] == "request" else FROM_DAEMON
    if event.what in DETAILS and not event.fields.get("err"):
        return DETAIL
    return KINDS.get(event.dir, NOTE)


def make_picture(recording: Recording) -> Picture:
    """What the page draws of a recording."""
    labels, bands = Labels(recording.events), Bands()
    others: list[str] = []
    shown: list[Shown] = []
    for index, event in enumerate(recording.events):
        lane = _lane_of(event, others)
        shown.append(Shown(event, lane, _kind_of(event), labels.label(event), is_fault(event)))
        bands.take(index, event)
    used = {one.lane for one in shown} | {band.lane for band in bands.bands} | {"daemon"}
    lanes = [row for row in LANES if row[0] in used]
    lanes += [(name, name, "other") for name in [*others, OTHER_LANE] if name in used]
    return Picture(lanes, shown, bands.bands)

"""Writes a recording as a capture file that Wireshark shows (docs/trace-pcap.md).

The file is pcapng: every place of the recording is an interface of its own, and each has its own
link type. Bytes are RTAC serial packets, the UART's multiplexer frames MUX27010 packets.
"""

from __future__ import annotations

import struct
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import Any, BinaryIO

from .decode import MuxFrames
from .recording import CP_CHANNELS, HOST_PORTS, Event, Recording
from .whole_file import whole_file

LINKTYPE_RTAC_SERIAL = 250
LINKTYPE_MUX27010 = 236
FRAMES = "uart frames"  # the interface of the multiplexer's frames

_PLACES = (*HOST_PORTS, *CP_CHANNELS, "platform", "udp", "qmi")

# RTAC event types: a change without bytes, the two directions, bytes that are not there.
_STATUS_CHANGE, _TRANSMITTED, _RECEIVED, _BYTES_LOST = 0, 1, 2, 5

# Bits of the RTAC control-line byte, by the names of the terminal interface.
_LINES = {
    "CTS": 0x01,
    "CD": 0x02,
    "DCD": 0x02,
    "DSR": 0x04,
    "RTS": 0x08,
    "DTR": 0x10,
    "RI": 0x20,
    "RNG": 0x20,
}

_SECTION, _INTERFACE, _PACKET = 0x0A0D0D0A, 1, 6  # block types
_COMMENT, _INTERFACE_NAME, _PACKET_FLAGS = 1, 2, 2  # option codes
_INBOUND, _OUTBOUND = 1, 2  # in the packet's flags
_LONGEST_PACKET = 65_000  # of bytes in one packet; more go into the next one
_LONGEST_COMMENT = 1000
_MOST_SECONDS = 0xFFFFFFFF


@dataclass
class Summary:
    """What was written."""

    packets: int = 0  # of serial bytes and changes
    frames: int = 0  # of the multiplexer
    bytes_outside_frames: int = 0  # on the multiplexed UART, kept as serial bytes


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def _block(kind: int, body: bytes) -> bytes:
    size = len(body) + 12
    return struct.pack("<II", kind, size) + body + struct.pack("<I", size)


def _option(code: int, value: bytes) -> bytes:
    return struct.pack("<HH", code, len(value)) + _padded(value)


def _begin_of(start: dict[str, Any]) -> int:
    """Microseconds since 1970 at which the recording began; 0 when it does not say."""
    try:
        wall = datetime.fromisoformat(str(start.get("wall")).replace("Z", "+00:00"))
        if wall.tzinfo is None:
            wall = wall.replace(tzinfo=timezone.utc)
        return max(0, round(wall.timestamp() * 1_000_000))
    except (ValueError, OverflowError):
        return 0


def _line_bits(names: object) -> int:
    bits = 0
    for name in str(names).split():
        bits |= _LINES.get(name, 0)
    return bits


class _File:
    """The blocks of the file; an interface is described before its first packet."""

    def __init__(self, file: BinaryIO) -> None:
        self._file = file
        self._interfaces: dict[str, int] = {}
        file.write(_block(_SECTION, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)))

    def packet(self, name: str, time: int, flags: int, data: bytes, comment: str) -> None:
        link = LINKTYPE_MUX27010 if name == FRAMES else LINKTYPE_RTAC_SERIAL
        head = struct.pack("<II", self._interface(name, link), time >> 32)
        head += struct.pack("<III", time & 0xFFFFFFFF, len(data), len(data))
        options = _option(_PACKET_FLAGS, struct.pack("<I", flags)) if flags else b""
        if comment:
            text = comment[:_LONGEST_COMMENT].encode("utf-8", "backslashreplace")
            options += _option(_COMMENT, text)
        if options:
            options += _option(0, b"")
        self._file.write(_block(_PACKET, head + _padded(data) + options))

    def _interface(self, name: str, link: int) -> int:
        if name not in self._interfaces:
            self._interfaces[name] = len(self._interfaces)
            options = _option(_INTERFACE_NAME, name.encode()) + _option(0, b"")
            self._file.write(_block(_INTERFACE, struct.pack("<HHI", link, 0, 0) + options))
        return self._interfaces[name]


class _Capture:
    """Turns events into packets."""

    def __init__(self, file: _File, begin: int) -> None:
        self.summary = Summary()
        self._file = file
        self._begin = begin
        self._lines: dict[str, int] = {}  # by place; as last read, set or changed
        self._mux = MuxFrames()

    def take(self, event: Event) -> None:
        if event.at == "bench":
            self._take_bench(event)
        elif event.at not in _PLACES:
            return
        elif not event.dir:
            self._take_change(event)
        elif event.dir in ("in", "out"):  # what was typed passes again when the daemon reads it
            self._take_bytes(event)

    def end(self, last: Event) -> None:
        """The recording ended with this event."""
        self._give_up(last, self._mux.rest())

    def _give_up(self, event: Event, held: dict[str, bytes]) -> None:
        """Frames that were begun and never become whole."""
        for direction, data in held.items():
            self._stray(Event(event.t, "uart", direction), data)

    def _take_bench(self, event: Event) -> None:
        port = event.fields.get("port")
        place = port if isinstance(port, str) and port in _PLACES else ""
        if event.what in ("platform-stop", "platform-start"):
            place = "platform"
        if not place:
            return
        if event.what == "lines":
            self._lines[place] = _line_bits(event.fields.get("lines", ""))
        self._change(event, place, _describe(event))

    def _take_change(self, event: Event) -> None:
        if event.what == "intent" and not event.fields.get("err"):
            return  # one before every read of a channel
        if event.what in ("lines-read", "lines-set"):
            self._lines[event.at] = _line_bits(event.fields.get("lines", ""))
        self._give_up(event, self._mux.follow(event))
        self._change(event, event.at, _describe(event))

    def _take_bytes(self, event: Event) -> None:
        if self._mux.carries(event):
            for frame in self._mux.feed(event):
                if frame.is_frame:
                    self._frame(event, frame.raw)
                else:
                    self._stray(event, frame.raw)
            return
        if event.data:
            self._bytes(event, event.data, _describe(event))
        elif event.fields.get("n") in (0, None):
            self._change(event, event.at, f"{event.dir}: {_nothing(event)}")
        else:
            comment = f"{event.dir}: {event.fields['n']} bytes that are not known"
            self._serial(event, event.at, _BYTES_LOST, b"", comment)

    def _stray(self, event: Event, data: bytes) -> None:
        self.summary.bytes_outside_frames += len(data)
        self._bytes(event, data, "outside the multiplexer's frames")

    def _frame(self, event: Event, raw: bytes) -> None:
        self.summary.frames += 1
        to_host = event.dir == "out"
        head = bytes((0, to_host))  # no extended header; the direction
        flags = _OUTBOUND if to_host else _INBOUND
        self._file.packet(FRAMES, self._time(event), flags, head + raw, "")

    def _bytes(self, event: Event, data: bytes, comment: str) -> None:
        kind = _TRANSMITTED if event.dir == "out" else _RECEIVED
        for begin in range(0, len(data), _LONGEST_PACKET):
            self._serial(event, event.at, kind, data[begin : begin + _LONGEST_PACKET], comment)

    def _change(self, event: Event, place: str, comment: str) -> None:
        self._serial(event, place, _STATUS_CHANGE, b"", comment)

    def _serial(self, event: Event, place: str, kind: int, data: bytes, comment: str) -> None:
        self.summary.packets += 1
        time = self._time(event)
        seconds = min(time // 1_000_000, _MOST_SECONDS)
        lines = self._lines.get(place, 0)
        # Big endian: the relay's time stamp, the event, the lines, and a footer that says nothing.
        head = struct.pack(">IIBBH", seconds, time % 1_000_000, kind, lines, 0)
        flags = {"in": _INBOUND, "out": _OUTBOUND}.get(event.dir, 0)
        self._file.packet(place, time, flags, head + data, comment)

    def _time(self, event: Event) -> int:
        return min(max(0, self._begin + event.t), 2**64 - 1)


def _nothing(event: Event) -> str:
    """Why a read or a write passed no byte."""
    if event.fields.get("err"):
        return f"{event.fields['err']}"
    return "end of file" if event.dir == "in" else "nothing"


def _describe(event: Event) -> str:
    """What the packet's own fields do not say."""
    words = [event.what] if event.what else []
    words += [f"{key}={value}" for key, value in event.fields.items() if key not in ("n", "text")]
    return " ".join(words)


def write_pcap(recording: Recording, path: str) -> Summary:
    """Writes the recording as a pcapng file; raises OSError."""
    with whole_file(path) as file:
        capture = _Capture(_File(file), _begin_of(recording.start))
        for event in recording.events:
            capture.take(event)
        if recording.events:
            capture.end(recording.events[-1])
    return capture.summary

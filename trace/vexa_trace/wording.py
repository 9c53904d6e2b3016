"""Bytes, times and events in words, for a terminal."""

from __future__ import annotations

import os
import sys

from .recording import Event

SHORT = 64  # bytes of long data that are shown

_ESCAPES = {0x0D: "\\r", 0x0A: "\\n", 0x09: "\\t", 0x5C: "\\\\"}
_BYTES = [
    _ESCAPES.get(byte) or (chr(byte) if 0x20 <= byte < 0x7F else f"\\x{byte:02X}")
    for byte in range(256)
]
_COLOURS = {
    "host": "36", "cp": "32", "platform": "35", "peer": "34", "event": "33", "fault": "31",
    "dim": "2", "strong": "1",
}


def escaped(data: bytes, full: bool = False) -> str:
    """Text with escapes; long data as its beginning and its size."""
    shown = data if full else data[:SHORT]
    text = "".join(_BYTES[byte] for byte in shown)
    return text if len(shown) == len(data) else f"{text}… ({len(data)} bytes)"


def printable(text: str) -> str:
    """Text out of a file, without what a terminal would obey."""
    return "".join(c if c.isprintable() else f"\\x{ord(c):02X}" for c in text)


def span(microseconds: int) -> str:
    """A time that something took, such as "47 µs", "2.04 ms" or "5.001 s"."""
    if abs(microseconds) < 1000:
        return f"{microseconds} µs"
    if abs(microseconds) < 1_000_000:
        return f"{microseconds / 1000:.2f} ms"
    return f"{microseconds / 1_000_000:.3f} s"


class Paint:
    """Colours, or none."""

    def __init__(self, is_on: bool) -> None:
        self._is_on = is_on

    @classmethod
    def of_stdout(cls) -> Paint:
        """Colours on a terminal only, and not where NO_COLOR is set."""
        is_dumb = os.environ.get("TERM") == "dumb"
        return cls(sys.stdout.isatty() and not os.environ.get("NO_COLOR") and not is_dumb)

    def __call__(self, colour: str, text: str) -> str:
        code = _COLOURS.get(colour)
        return f"\033[{code}m{text}\033[0m" if self._is_on and code and text else text


def _connection(event: Event) -> str:
    number = event.number("conn")
    return f"connection {number}" if number is not None else "connection"


def _named(event: Event) -> str:
    fields = {k: v for k, v in event.fields.items() if k not in ("text", "unknown")}
    return " ".join([event.what, *(f"{name}={value}" for name, value in fields.items())])


def _what_words(event: Event) -> str:
    error = event.text("err")
    failed = f" failed: {error}" if error else ""
    lines = event.text("lines") or "none"
    size = event.number("size")
    room = "" if size is None else f" of {size} bytes"
    words = {
        "open": f"open{failed}" if failed else "opened",
        "close": "closed",
        "lines-changed": "modem-control lines changed",
        "lines-read": f"modem-control lines read: {lines}",
        "lines-set": f"modem-control lines set: {lines}",
        "settings": f"set to {event.number('speed')} bit/s",
        "intent": f"receive intent{room}{failed}",
        "mode": f"mode is now {event.text('mode')}",
        "unplug": f"{event.text('port')} unplugged",
        "plug": f"{event.text('port')} plugged",
        "lines": f"modem-control lines of {event.text('port')} set: {lines}",
        "platform-stop": "platform stopped",
        "platform-start": "platform started",
        "mhi": f"MHI channel {event.number('channel') or '32 and 33'}: {event.text('change')}",
        "scenario": f"scenario {event.text('name')} from now on",
        "daemon-ended": f"the daemon ended with status {event.number('status')}",
        "end": "end of the recording",
    }
    if event.at == "platform":
        name = _connection(event)
        words |= {"connect": f"{name}{failed}" if failed else f"{name} made",
                  "close": f"{name} closed", "hangup": f"{name} hung up"}
    if event.what == "hangup" and event.at != "platform":
        return "hung up"
    return words.get(event.what) or _named(event)


def event_words(event: Event) -> str:
    """One line for an event without bytes."""
    return printable(_what_words(event))


def is_fault(event: Event) -> bool:
    """Something went wrong, or away."""
    if event.what == "daemon-ended":
        return event.fields.get("status") != 0
    return bool(event.fields.get("err")) or event.what in ("hangup", "unplug", "platform-stop")

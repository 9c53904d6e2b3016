"""Small recordings made by hand."""

from __future__ import annotations

import json
import struct
from typing import Any

from vexa_trace.recording import Recording, read_lines

START = {"t": 1000, "at": "bench", "what": "start", "version": 1}
END = {"t": 9_000_000_000, "at": "bench", "what": "end", "status": 0}
PORT_NUMBERS = {"modem": 0, "at": 1, "uart": 4}


def said(t: int, at: str, way: str, data: bytes, **more: Any) -> dict[str, Any]:
    """Bytes, `t` microseconds after the start."""
    text = data.decode("latin-1")
    return {"t": 1000 + t, "at": at, "dir": way, "n": len(data), "data": text, **more}


def happened(t: int, at: str, what: str, **more: Any) -> dict[str, Any]:
    """An event without bytes."""
    return {"t": 1000 + t, "at": at, "what": what, **more}


def pack(payload: bytes, kind: int = 1) -> bytes:
    """A pack of the platform link, heads and payload."""
    heads = struct.pack("<IIIiIiiiIIBBxx", 0x7061636B, 44 + len(payload), 0, 0, 0, kind, 0, 0, 0,
                        len(payload), 0, 0)
    return heads + payload


def report(t: int, connection: int, port: str) -> dict[str, Any]:
    """The first pack of a connection."""
    return said(t, "platform", "out", pack(struct.pack("<i", PORT_NUMBERS[port]), 4),
                conn=connection)


def recording(*lines: dict[str, Any], whole: bool = True) -> Recording:
    """Start, these lines, end."""
    everything = [START, *lines, *([END] if whole else [])]
    return read_lines(json.dumps(line) + "\n" for line in everything)

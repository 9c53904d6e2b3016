"""Recordings for the tests of the page, line by line as the bench writes them."""

from __future__ import annotations

import json
import struct
from typing import Any

from vexa_trace.recording import Recording, read_lines

BEGIN = 81_200_000
HOSTILE = (
    b"</script><script>window.broken=1</script>",
    b'<img src=x onerror="window.broken=1">',
    b"<!--<script>",
    b"\x00\xff\x1b[31m\x7f\x80",
    b"]]>&lt;&#60;${window.broken=1}`\\u003c",
)


class Lines:
    """A recording that grows line by line; the time goes on by `after` µs before each."""

    def __init__(self) -> None:
        self.t = BEGIN
        self.lines: list[str] = []
        self.add(0, "bench", what="start", version=1, wall="2026-11-21T15:40:00.123456Z",
                 daemon="build/host/vexa_at_client", target=35, pcie=False, platform=True)

    def add(self, after: int, at: str, **fields: Any) -> None:
        """A line with any fields."""
        self.t += after
        self.lines.append(json.dumps({"t": self.t, "at": at, **fields}) + "\n")

    def octets(self, after: int, at: str, way: str, data: bytes, **fields: Any) -> None:
        """A line of bytes."""
        text = data.decode("latin-1")
        self.add(after, at, dir=way, n=len(data), data=text, **fields)

    def command(self, port: str, line: bytes, answer: bytes) -> None:
        """A command that CP answers: five lines."""
        self.octets(1000, port, "typed", line)
        self.octets(80, port, "in", line)
        self.octets(60, f"cp-{port}", "out", line)
        self.octets(5000, f"cp-{port}", "in", answer)
        self.octets(70, port, "out", answer)

    def end(self) -> list[str]:
        """All lines of a whole recording."""
        self.add(100, "bench", what="end")
        return self.lines

    def recording(self) -> Recording:
        """The recording of them, whole."""
        return read_lines(self.end())


def pack(kind: int, payload: bytes) -> bytes:
    """One pack of the platform link."""
    heads = struct.pack("<II", 0x7061636B, 44 + len(payload)) + struct.pack("<IiI", 1, 0, 0)
    return heads + struct.pack("<iiiIIBBxx", kind, 0, 0, 0, len(payload), 1, 1) + payload


def port_report(number: int) -> bytes:
    """The pack that tells which port a connection serves."""
    return pack(4, struct.pack("<i", number))


def usual() -> Lines:
    """A short session with a bit of everything."""
    lines = Lines()
    for place in ("modem", "at", "uart", "cp-modem", "cp-at", "cp-uart"):
        lines.add(10, place, what="open")
    lines.add(10, "platform", what="connect", conn=1)
    lines.octets(10, "platform", "out", port_report(1), conn=1)
    lines.command("at", b"AT+CFUN?\r", b"\r\n+CFUN: 1\r\n\r\nOK\r\n")
    lines.octets(2_000_000, "at", "in", b"AT+CGMR\r")
    lines.octets(60, "platform", "out", pack(1, b"AT+CGMR\r"), conn=1)
    lines.octets(60, "platform", "in", pack(1, b"\r\n12.4\r\n\r\nOK\r\n"), conn=1)
    lines.add(500, "modem", what="mode", mode="sms")
    lines.octets(500, "modem", "in", b"Hello\x1a")
    lines.add(500, "modem", what="mode", mode="command")
    lines.add(500, "cp-modem", dir="out", n=0, asked=4, data="", err="EAGAIN")
    lines.octets(500, "cp-modem", "out", b"ATI\r")
    lines.add(500, "bench", what="unplug", port="modem")
    lines.add(90_000, "bench", what="plug", port="modem")
    lines.octets(500, "udp", "in", b"ATI", peer="127.0.0.1:40000")
    return lines


def long(commands: int) -> Lines:
    """Many commands, five lines each; every thousandth is told apart by its text."""
    lines = Lines()
    for number in range(commands):
        line = b"AT+MARK=%d\r" % number if number % 1000 == 0 else b"AT+CSQ\r"
        lines.command(("modem", "at", "uart")[number % 3], line, b"\r\n+CSQ: 20,99\r\n\r\nOK\r\n")
    return lines

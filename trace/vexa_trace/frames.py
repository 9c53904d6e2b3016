"""Frames of the basic option of 3GPP TS 27.010 (5.2.1), out of bytes cut anywhere."""

from __future__ import annotations

from dataclasses import dataclass

FLAG = 0xF9
_POLL_FINAL = 0x10
_KINDS = {0x2F: "SABM", 0x63: "UA", 0x0F: "DM", 0x43: "DISC", 0xEF: "UIH", 0x03: "UI"}


@dataclass(frozen=True)
class Frame:
    """One frame, or bytes that are none: then `kind` is "" and `information` holds them."""

    kind: str
    dlci: int
    command: bool  # the C/R bit
    information: bytes
    fcs_fits: bool
    raw: bytes

    @property
    def is_frame(self) -> bool:
        return bool(self.kind)


def _make_table() -> list[int]:
    table = []
    for value in range(256):
        for _ in range(8):
            value = (value >> 1) ^ 0xE0 if value & 1 else value >> 1
        table.append(value)
    return table


_TABLE = _make_table()


def check_sequence(data: bytes) -> int:
    """The FCS of these bytes (5.2.1.6)."""
    fcs = 0xFF
    for byte in data:
        fcs = _TABLE[fcs ^ byte]
    return 0xFF - fcs


def _junk(data: bytes) -> Frame:
    return Frame("", 0, False, data, False, data)


def _read_frame(raw: bytes, head: int) -> Frame:
    address, control = raw[1], raw[2]
    information = raw[head:-2]
    kind = _KINDS[control & ~_POLL_FINAL]
    # UIH: the check covers address to length (5.2.1.6); the others' information as well.
    covered = raw[1:head] if kind == "UIH" else raw[1:-2]
    fits = check_sequence(covered) == raw[-2]
    return Frame(kind, address >> 2, bool(address & 2), information, fits, raw)


class FrameReader:
    """Takes the bytes of one direction as they come; gives whole frames and the junk between."""

    def __init__(self) -> None:
        self._held = b""
        self._has_closed = False  # the first held flag has closed a frame already

    def feed(self, data: bytes) -> list[Frame]:
        """The frames that these bytes complete."""
        self._held += data
        found: list[Frame] = []
        while frame := self._next():
            found.append(frame)
        return found

    def rest(self) -> bytes:
        """What was held for a frame that never became whole; it is forgotten."""
        held, self._held = self._held, b""
        return b"" if self._has_closed and len(held) == 1 else held

    def _next(self) -> Frame | None:
        start = self._held.find(FLAG)
        if start != 0:
            return self._take_junk(len(self._held) if start < 0 else start)
        self._held = bytes((FLAG,)) + self._held.lstrip(bytes((FLAG,)))
        if not self._may_begin():
            return self._take_junk(self._next_flag())
        size, head = self._size()
        if size == 0 or size > len(self._held):
            return None
        if self._held[size - 1] != FLAG:
            return self._take_junk(self._next_flag())
        raw = self._held[:size]
        self._held = self._held[size - 1 :]
        self._has_closed = True
        return _read_frame(raw, head)

    def _next_flag(self) -> int:
        place = self._held.find(FLAG, 1)
        return place if place > 0 else len(self._held)

    def _may_begin(self) -> bool:
        """False as soon as the head is none: this daemon also says plain text between frames."""
        if len(self._held) > 1 and not self._held[1] & 1:
            return False  # one address byte (5.2.1.2)
        return len(self._held) < 3 or self._held[2] & ~_POLL_FINAL in _KINDS

    def _take_junk(self, size: int) -> Frame | None:
        first = 1 if self._has_closed and self._held[:1] == bytes((FLAG,)) else 0
        junk, self._held = self._held[first:size], self._held[size:]
        self._has_closed = False
        return _junk(junk) if junk else None

    def _size(self) -> tuple[int, int]:
        """Bytes of the frame and of its head; 0 while the length is not there yet."""
        if len(self._held) < 4:
            return 0, 0
        low = self._held[3]
        if low & 1:
            return 4 + (low >> 1) + 2, 4
        if len(self._held) < 5:
            return 0, 0
        return 5 + ((low >> 1) | self._held[4] << 7) + 2, 5

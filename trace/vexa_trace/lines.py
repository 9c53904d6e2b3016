"""Command lines out of the chunks that the daemon read, by the daemon's own rules."""

from __future__ import annotations

import re
from collections import deque
from dataclasses import dataclass

_REPEATS = (b"A/", b"a/")
_CTRL_Z = 0x1A
_SET_S3 = re.compile(rb"(?i)ats3=(\d{1,3})\r?\n?$")
_LONGEST = 16384


@dataclass(frozen=True)
class Line:
    """A line that a chunk completed, or text that the daemon dropped."""

    text: bytes
    is_command: bool


def bare(text: bytes) -> bytes:
    """A command line without what the daemon may take away or add: blanks and line ends."""
    return text.translate(None, b" \r\n\0")


def is_repeat(text: bytes) -> bool:
    """ITU-T V.250 5.2.4: A/ repeats the last line."""
    return bare(text) in _REPEATS


def split_pieces(text: bytes) -> list[bytes]:
    """What the daemon makes of a line like ATE0V1: AT and two characters each."""
    line = bare(text)
    if len(line) < 6 or len(line) % 2 != 0 or line[:2].upper() != b"AT":
        return []
    return [line[:4], *(b"AT" + line[i : i + 2] for i in range(4, len(line), 2))]


def is_legal(text: bytes) -> bool:
    """Whether it may be the beginning of a command line."""
    return text in (b"A", b"a") or text[:2].upper() == b"AT"


class LineAssembly:
    """The text gathered from one source."""

    def __init__(self) -> None:
        self.s3 = 13  # all ports share it; a line that sets it is seen on its own source only
        self._text = b""
        self._dropped = b""

    def feed(self, chunk: bytes) -> list[Line]:
        """At most one line, and before it what was dropped; a chunk's end ends a line."""
        if chunk == b"\b":
            self._text = self._text[:-1]
            return []
        self._text += chunk.split(b"\0")[0]
        if len(self._text) > _LONGEST:
            return self._drop(ends=True)
        if self._is_finished():
            return self._finish()
        if not is_legal(self._text):
            return self._drop(ends=False)
        return []

    def _is_finished(self) -> bool:
        text = self._text
        if not text:
            return False
        ends = (13, self.s3, _CTRL_Z)
        return text[-1] in ends or text in _REPEATS or (text[-1] == 10 and text[-2:-1] in
                                                        (b"\r", bytes((self.s3,))))

    def _finish(self) -> list[Line]:
        if not (is_legal(self._text) or is_repeat(self._text)):
            return self._drop(ends=True)
        text, self._text = self._text, b""
        if setting := _SET_S3.match(text):
            self.s3 = int(setting[1]) if int(setting[1]) < 128 else self.s3
        return [*self._told(), Line(text, True)]

    def _drop(self, ends: bool) -> list[Line]:
        self._dropped = (self._dropped + self._text)[:_LONGEST]
        self._text = b""
        return self._told() if ends else []

    def _told(self) -> list[Line]:
        """What was dropped; line ends on their own are not worth a word."""
        dropped, self._dropped = self._dropped, b""
        return [Line(dropped, False)] if bare(dropped) else []


class Typed:
    """The bytes that a host sent and the daemon has not read, with their times."""

    def __init__(self) -> None:
        self._chunks: deque[tuple[int, bytes]] = deque()

    def add(self, t: int, data: bytes) -> None:
        """A host sent them."""
        self._chunks.append((t, data))

    def take(self, data: bytes) -> int | None:
        """The daemon read these: when the last of them was sent; None when nobody is known to."""
        last = None
        while data and self._chunks:
            t, sent = self._chunks.popleft()
            if sent[: len(data)] != data[: len(sent)]:
                continue  # lost on the way, as with a port that was unplugged
            last = t
            if len(sent) > len(data):
                self._chunks.appendleft((t, sent[len(data) :]))
            data = data[len(sent) :]
        return last

    def rest(self) -> list[tuple[int, bytes]]:
        """What the daemon never read."""
        return list(self._chunks)

"""Cuts the daemon's log into time stamps and messages, whatever the threads made of its lines.

A message is written in three pieces without a lock: time stamp, function and line, text. Pieces of
threads mix, each piece stays whole. So texts are found by their formats, not by lines.
"""

from __future__ import annotations

import itertools
import re
from collections.abc import Callable, Iterable, Iterator, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .log_story import Story

Groups = Sequence[bytes]

STAMP = re.compile(rb"(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d) ")
_FUNCTION = re.compile(rb"[A-Za-z_]\w{0,80}\(\d{1,6}\):")
# In a chunk that is not counted this tells of a cut: other messages follow.
_HEAD = re.compile(STAMP.pattern + _FUNCTION.pattern)
# Where a piece may begin behind text that is none of the daemon's.
_NEXT_PIECE = re.compile(
    rb"\n|\d{4}-\d\d-\d\d \d\d:\d\d:\d\d |(?<![A-Za-z_])[A-Za-z_]\w{0,80}\(\d{1,6}\):"
)
# What the daemon received from the platform; a terminal program adds CR to a line feed.
_DUMP = re.compile(rb"(?:\((?:\r\n|.)\) )+", re.DOTALL)
_LINE_ENDS = re.compile(rb"[\r\n]+")
_CONVERSION = re.compile(r"%0?(zu|[sdiuxpc])")
# A chunk with its echo, and what a terminal program added to its line ends.
_LONGEST_CHUNK = 50_000
_MOST_ENDS = 8  # of a counted chunk that are looked at

_PATTERNS = {
    "d": rb"(-?\d{1,11})",
    "i": rb"(-?\d{1,11})",
    "u": rb"(\d{1,11})",
    "zu": rb"(\d{1,20})",
    "x": rb"([0-9a-f]{1,16})",
    "p": rb"(0x[0-9a-f]{1,16}|\(nil\))",
    "c": rb"(.)",
    "s": rb"([^\r\n]{0,512}?)",
}
# A word at the very end stops where a line or the next stamp begins.
_LAST_WORD = rb"([^\r\n]{0,512}?)(?=[\r\n]|\d{4}-\d\d-\d\d |\Z)"


@dataclass(frozen=True)
class Row:
    """One message of the daemon."""

    format: str  # as it stands in the daemon's source
    tell: Callable[[Story, Groups], None] | None = None  # None: other lines say the same
    raw: tuple[int, ...] = ()  # which of its conversions hold a chunk's bytes, from 0
    length: int = -1  # which of its conversions counts those bytes
    texts: tuple[str, ...] = ()  # what its first %s may be


@dataclass(frozen=True)
class Piece:
    """A message, a time stamp or text of somebody else."""

    line: int  # of the file, from 1
    text: bytes
    row: Row | None = None
    groups: Groups = ()
    stamp: Groups = ()


def _literal(text: str) -> bytes:
    escaped = re.escape(text.encode("latin-1"))
    return escaped.replace(rb"\\r\\n", b"\r\n").replace(b"\\\r\\\n", rb"\r*\n")


class _Matcher:
    """A row's format as patterns: one, and one more behind each chunk."""

    def __init__(self, row: Row) -> None:
        self.row = row
        parts = _CONVERSION.split(row.format.strip("\r\n"))
        pattern, self._patterns = _literal(parts[0]), []
        for index, (kind, text) in enumerate(zip(parts[1::2], parts[2::2], strict=True)):
            if index in row.raw:
                self._patterns.append(re.compile(pattern, re.DOTALL))
                pattern = b""
            elif row.texts and index == 0:
                pattern += b"(" + b"|".join(_literal(one) for one in row.texts) + b")"
            elif kind == "s" and not text and index == len(parts) // 2 - 1:
                pattern += _LAST_WORD
            else:
                pattern += _PATTERNS[kind]
            pattern += _literal(text)
        self._patterns.append(re.compile(pattern + rb"\r*\n?", re.DOTALL))

    def first_bytes(self) -> set[int]:
        """What the message may begin with."""
        begin = self.row.format.strip("\r\n")
        texts = self.row.texts if begin.startswith("%") else (begin,)
        return {text.encode("latin-1")[0] for text in texts}

    def match(self, log: bytes, at: int) -> tuple[list[bytes], int] | None:
        """The conversions' texts and the message's end."""
        found = self._patterns[0].match(log, at)
        if not found:
            return None
        groups, end = list(found.groups()), found.end()
        for pattern in self._patterns[1:]:
            behind = self._behind_chunk(pattern, log, end, len(groups))
            if not behind:
                return None
            groups += [log[end : behind.start()], *behind.groups()]
            end = behind.end()
        return groups, end

    def _behind_chunk(
        self, pattern: re.Pattern[bytes], log: bytes, begin: int, before: int
    ) -> re.Match[bytes] | None:
        """The end of a chunk: where its length says, else the first that could be it."""
        cut_at_nul = None
        found_ends = pattern.finditer(log, begin, begin + _LONGEST_CHUNK)
        for found in itertools.islice(found_ends, _MOST_ENDS):
            chunk = log[begin : found.start()]
            if self.row.length < 0:
                return None if _HEAD.search(chunk) else found
            counted = int(found.groups()[self.row.length - before - 1])
            if counted in (len(chunk), len(chunk.replace(b"\r\n", b"\n"))):
                return found
            if cut_at_nul is None and len(chunk) < counted and not _HEAD.search(chunk):
                cut_at_nul = found
        return cut_at_nul


class Scanner:
    """Knows every row; cuts logs."""

    def __init__(self, rows: Iterable[Row]) -> None:
        self._by_byte: dict[int, list[_Matcher]] = {}
        for row in rows:
            matcher = _Matcher(row)
            for byte in matcher.first_bytes():
                self._by_byte.setdefault(byte, []).append(matcher)

    def pieces(self, log: bytes) -> Iterator[Piece]:
        """Every byte of the log belongs to a piece, but function names and line ends."""
        at, line = 0, 1
        while at < len(log):
            piece, end = self._piece(log, at, line)
            if piece:
                yield piece
            line += log.count(b"\n", at, end)
            at = end

    def _piece(self, log: bytes, at: int, line: int) -> tuple[Piece | None, int]:
        if found := _LINE_ENDS.match(log, at) or _FUNCTION.match(log, at):
            return None, found.end()
        if found := STAMP.match(log, at):
            return Piece(line, found.group(), stamp=found.groups()), found.end()
        best: tuple[Piece, int] | None = None
        for matcher in self._by_byte.get(log[at], ()):
            matched = matcher.match(log, at)
            if matched and (best is None or matched[1] > best[1]):
                groups, end = matched
                best = Piece(line, log[at:end].rstrip(b"\r\n"), matcher.row, groups), end
        if best:
            return best
        if found := _DUMP.match(log, at):
            return Piece(line, found.group()), found.end()
        found = _NEXT_PIECE.search(log, at + 1)
        end = found.start() if found else len(log)
        return Piece(line, log[at:end].rstrip(b"\r\n")), end

"""One command and what is known of its road."""

from __future__ import annotations

import re
from dataclasses import dataclass, field

from .lines import bare, split_pieces

# ITU-T V.250 6.1 and 3GPP TS 27.007 9: what ends an answer. A digit alone is one after ATV0.
_FINAL = re.compile(
    rb"(?:^|[\r\n])(OK|ERROR|\+CM[ES] ERROR:[^\r\n]*|CONNECT[^\r\n]*|NO CARRIER|NO ANSWER"
    rb"|NO DIALTONE|NO DIAL TONE|BUSY)\r"
)
_FINAL_DIGIT = re.compile(rb"(?:^|[\r\n])([0-46-8])\r$")
_TAIL = 512  # bytes of an answer in which its final result is looked for

_LINE_END = 2  # bytes at most
PLATFORM = "platform"
CP_DEADLINE = 10_000_000  # microseconds that the daemon waits for CP
PLATFORM_DEADLINE = 5_000_000


def deadline_of(target: str) -> int:
    """How long the daemon waits for an answer of this target."""
    return PLATFORM_DEADLINE if target.startswith(PLATFORM) else CP_DEADLINE


def names_in(text: bytes) -> set[bytes]:
    """The extended command names in a text, such as +CREG."""
    return set(re.findall(rb"[+^$*][A-Z][A-Z0-9]*", text.upper()))


def _final_in(text: bytes) -> re.Match[bytes] | None:
    return _FINAL.search(text) or _FINAL_DIGIT.search(text)


def has_final(text: bytes) -> bool:
    """Whether a text ends an answer by itself."""
    return _final_in(text) is not None


@dataclass
class Leg:
    """One step of a command's road."""

    t: int
    kind: str  # typed, read, written, refused, answer, delivered, own, note
    place: str = ""
    text: bytes = b""
    remark: str = ""


@dataclass
class Command:
    """A line that the daemon took, or text that it did not take."""

    source: str  # a host port, "udp" or "qmi"
    text: bytes
    begun: int  # when it was typed or, where that is unknown, read
    roads: tuple[str, ...] = ()  # host ports whose channel and connection it may take
    legs: list[Leg] = field(default_factory=list)
    peer: str = ""
    is_dropped: bool = False
    mode: str = "command"  # of its port, when it was read
    closed_channel: str = ""  # its modem channel, when that was closed as the line was read
    ended: int | None = None  # when its reader read on
    wanted: list[list[bytes]] = field(default_factory=list)  # forms in which it may be written
    finals: dict[str, str] = field(default_factory=dict)  # target: its final result
    written: dict[str, int] = field(default_factory=dict)  # target: when last
    strays: list[Leg] = field(default_factory=list)  # perhaps unsolicited, while it waited
    _progress: dict[str, tuple[int, bytes]] = field(default_factory=dict)
    _tails: dict[str, bytes] = field(default_factory=dict)

    def expect(self, line: bytes) -> None:
        """The daemon may write this line, or the pieces that it splits it into."""
        pieces = split_pieces(line)
        self.wanted = [[bare(line)], *([pieces] if pieces else [])]

    def accepts(self, target: str, text: bytes, is_part: bool) -> bool:
        """Takes a write to a target when its text is this command's, or the part due next."""
        index, got = self._progress.get(target, (0, b""))
        text = got + bare(text)
        for form in self.wanted:
            if index >= len(form) or not text:
                continue
            if form[index] == text:
                self._progress[target] = (index + 1, b"")
            elif is_part and form[index].startswith(text):
                self._progress[target] = (index, text)
            else:
                continue
            self.wanted = [form]
            return True
        return False

    def due_of_size(self, target: str, size: int) -> bytes:
        """What is due at a target when it would have this size with its line end; else nothing."""
        index = self._progress.get(target, (0, b""))[0]
        for form in self.wanted:
            if index < len(form) and 0 <= size - len(form[index]) <= _LINE_END:
                return form[index]
        return b""

    def add(self, t: int, kind: str, place: str = "", text: bytes = b"", remark: str = "") -> Leg:
        """One more leg."""
        leg = Leg(t, kind, place, text, remark)
        self.legs.append(leg)
        return leg

    def hears(self, target: str, text: bytes) -> bool:
        """Keeps what a target said; true when that ends the answer."""
        tail = (self._tails.get(target, b"") + text)[-_TAIL:]
        self._tails[target] = tail
        found = _final_in(tail)
        if found:
            before = f"{self.finals[target]}, " if target in self.finals else ""
            self.finals[target] = before + found[1].decode("latin-1")
            self._tails[target] = b""
        return found is not None

    def names_its_own(self, text: bytes) -> bool:
        """Whether an answer holds an extended name that this command asked for."""
        asked = [self.text, *(one for form in self.wanted for one in form)]
        return bool(names_in(text) & names_in(b" ".join(asked)))

    def legs_of(self, *kinds: str) -> list[Leg]:
        """Those of these kinds."""
        return [leg for leg in self.legs if leg.kind in kinds]

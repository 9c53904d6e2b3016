"""What the daemon's messages tell, as the events of a recording."""

from __future__ import annotations

import re
from dataclasses import dataclass, field
from typing import Any

from .frames import FLAG
from .log_scan import Groups
from .recording import Event

PLACES = {
    b"/dev/at_usb0": "modem",
    b"/dev/at_usb1": "at",
    b"/dev/ttyMSM1": "uart",
    b"/dev/mhi_pipe_32": "pcie",
    b"/dev/at_mdm0": "cp-modem",
    b"/dev/smd7": "cp-at",
    b"/dev/smd8": "cp-uart",
}
# How messages name ports, channels and their readers.
PORTS = {
    b"mport": "modem",
    b"atport": "at",
    b"uartport": "uart",
    b"modem port": "modem",
    b"at port": "at",
    b"uart port": "uart",
    b"modem_to_usb_bridge_glink": "modem",
    b"modem_to_usb_bridge_smd": "modem",
    b"modem_to_usb_bridge_mhi": "modem",
    b"modem_to_usb_bridge_glink_atport": "at",
    b"modem_to_usb_bridge_glink_uartport": "uart",
    b"mdm_fd": "modem",
    b"mdm_atport_fd": "at",
    b"mdm_uartport_fd": "uart",
}
_MODES = ("command", "hex", "sms", "ppp", "data", "mux")
_LINES = {0x002: "DTR", 0x004: "RTS", 0x020: "CTS", 0x100: "DSR", 0x040: "CD", 0x080: "RI"}
_FLAG = bytes((FLAG,))
# One byte of a received pack between parentheses; a terminal program adds CR to a line feed.
_DUMPED = re.compile(rb"\((\r\n|.)\) ", re.DOTALL)
_MOST_CANDIDATES = 16


@dataclass
class _Draft:
    """An event that later lines may complete."""

    t: int
    line: int
    at: str
    dir: str = ""
    what: str = ""
    data: bytes = b""
    fields: dict[str, Any] = field(default_factory=dict)

    def unknown(self, *names: str) -> None:
        self.fields.setdefault("unknown", []).extend(names)

    def is_unknown(self, name: str) -> bool:
        return name in self.fields.get("unknown", [])

    def learn(self, name: str, is_guess: bool) -> None:
        """What was unknown was told by another line."""
        unknown = [one for one in self.fields.pop("unknown", []) if one != name]
        if unknown:
            self.fields["unknown"] = unknown
        if is_guess:
            self.fields.setdefault("guessed", []).append(name)

    def fill(self, data: bytes, is_guess: bool) -> None:
        """Bytes that another line told."""
        self.data = data
        self.learn("data", is_guess)
        if len(data) < self.fields.get("n", 0):
            self.unknown("data after its first NUL")

    def name_port(self, port: str, is_guess: bool) -> None:
        """The port that this platform traffic is for."""
        if self.is_unknown("port"):
            self.learn("port", is_guess)
            self.fields["port"] = port


class Story:
    """Takes the messages in their order. `t` and `line` are of the message being taken."""

    def __init__(self) -> None:
        self.t = 0
        self.line = 0
        self.text = b""  # of the whole message
        self._drafts: list[_Draft] = []
        self._forget()

    def _forget(self) -> None:
        """Begins anew but for the events."""
        self._open_reads: dict[str, _Draft] = {}  # by place: without its bytes so far
        self._open_writes: dict[str, _Draft] = {}
        # Bytes that may be what is written next, and the pack of the platform that they came in.
        self._candidates: list[tuple[bytes, _Draft | None]] = []
        self._last_pack: _Draft | None = None
        self._opening: dict[str, _Draft] = {}  # channels whose open has not been told of
        self._modes: dict[str, str] = {}
        self._last_read = ""  # the host port that was read last
        self._last_channel = ""  # the host port whose modem channel was read last
        self._is_udp_served = False
        self._udp_answer = b""
        self._udp_peer = ""
        self._mux_bytes = bytearray()

    def events(self) -> list[Event]:
        """All events so far."""
        return [Event(d.t, d.at, d.dir, d.what, d.data, d.fields, d.line) for d in self._drafts]

    def _add(self, at: str, way: str = "", what: str = "", **fields: Any) -> _Draft:
        draft = _Draft(self.t, self.line, at, way, what, fields=fields)
        self._drafts.append(draft)
        return draft

    def note(self, _: Groups = ()) -> None:
        """The daemon's own words, where no field says it better."""
        self._add("log", "out", noted=True).data = self.text

    def foreign(self) -> None:
        """Text that is none of the daemon's messages, or a piece of one."""
        self._add("log", "out").data = self.text

    def started(self, _: Groups = ()) -> None:
        """A daemon began; what the one before it had in hand is over."""
        self._forget()
        self.note()

    # Opening, closing, modem-control lines.

    def host_opened(self, groups: Groups) -> None:
        """open() of a host port returned."""
        draft = self._add(_place(groups[0]), what="open")
        if int(groups[1]) < 0:
            _failed(draft)

    def opening(self, groups: Groups) -> None:
        """A second attempt on a channel tells that the first one failed. Host ports say it."""
        port = PORTS.get(groups[0])
        if not port:
            return
        before = self._opening.get(port)
        if before:
            _failed(before)
            self._drafts.append(before)
        self._opening[port] = _Draft(self.t, self.line, _place(groups[1]), what="open")

    def channel_opened(self, groups: Groups) -> None:
        """Which device the main pair's channel is, only the attempt tells."""
        port = _port(groups[0])
        attempt = self._opening.pop(port, None)
        self._add(attempt.at if attempt else f"cp-{port}", what="open")

    def closed(self, groups: Groups) -> None:
        """A port or channel was closed."""
        self._add(_place(groups[0]), what="close")

    def lines_read(self, groups: Groups) -> None:
        """TIOCMGET."""
        self._lines(groups, "lines-read")

    def lines_set(self, groups: Groups) -> None:
        """TIOCMSET."""
        self._lines(groups, "lines-set")

    def _lines(self, groups: Groups, what: str) -> None:
        word = int(groups[2], 16)
        names = " ".join(name for bit, name in _LINES.items() if word & bit)
        draft = self._add(_place(groups[0]), what=what, lines=names)
        if int(groups[1]) < 0:
            _failed(draft)

    def settings(self, groups: Groups) -> None:
        """The UART's speed."""
        self._add("uart", what="settings", speed=int(groups[1]))

    def intent(self, groups: Groups) -> None:
        """Room for one packet was offered."""
        self._add(_place(groups[0]), what="intent").unknown("size")

    # Host ports.

    def host_read(self, groups: Groups) -> None:
        """The daemon read from a host port."""
        place = _place(groups[0])
        self._last_read = place
        self._open_reads[place] = self._read(place, int(groups[1]))

    def _read(self, place: str, length: int) -> _Draft:
        draft = self._add(place, "in", n=max(0, length))
        if length < 0:
            _failed(draft)
        if length > 0:
            draft.unknown("data")
        return draft

    def command_text(self, groups: Groups) -> None:
        """The line of the port whose channel was read last, seen when its answer came."""
        self._reveal(self._last_channel, groups[0])

    def refused_text(self, groups: Groups) -> None:
        """A line that the daemon keeps to itself."""
        self._reveal(_served(self._last_read), groups[0])
        self.note()

    def _reveal(self, port: str, text: bytes) -> None:
        """Completes what was read from a port and sent to its channel, where the lengths agree."""
        if not text:
            return
        for drafts, place in (
            (self._open_reads, port),
            (self._open_reads, "pcie" if port == "at" else ""),
            (self._open_writes, f"cp-{port}"),
        ):
            draft = drafts.get(place)
            if draft and draft.fields["n"] == len(text):
                del drafts[place]
                draft.fill(text, is_guess=True)

    def mode_left(self, groups: Groups) -> None:
        """The escape out of PPP; the message names no port."""
        draft = self._open_reads.pop(self._last_read, None)
        if draft and draft.fields["n"] == int(groups[1]):
            draft.fill(groups[0], is_guess=True)
        self._set_mode(self._last_read, 0, is_guess=True)

    def dropped(self, groups: Groups) -> None:
        """A chunk in a mode that takes none."""
        self._set_mode(self._last_read, int(groups[0]), is_guess=True)
        self.note()

    def _set_mode(self, port: str, number: int, is_guess: bool = False) -> None:
        port = _served(port)
        mode = _MODES[number] if 0 <= number < len(_MODES) else str(number)
        if not port or self._modes.get(port, "command") == mode:
            return
        self._modes[port] = mode
        draft = self._add(port, what="mode", mode=mode)
        if is_guess:
            draft.fields["guessed"] = ["port"]

    # Modem channels.

    def channel_read(self, groups: Groups) -> None:
        """The daemon read from a modem channel; the next message holds the bytes."""
        place = _place(groups[0])
        self._open_reads[place] = self._read(place, int(groups[1]))

    def channel_bytes(self, groups: Groups) -> None:
        """Those bytes, up to a NUL, and the port's mode at that time."""
        port, length = _port(groups[0]), int(groups[2])
        self._last_channel = port
        draft = self._open_reads.pop("cp-" + port, None) or self._add("cp-" + port, "in")
        draft.fields["n"] = length
        draft.fill(_as_counted(groups[1], length), is_guess=False)
        self._set_mode(port, int(groups[3]))
        self._offer(draft.data)

    def plain_bytes(self, groups: Groups) -> None:
        """A channel whose reads are not counted: at least these bytes."""
        draft = self._add("cp-modem", "in", n=len(groups[0]))
        draft.data = groups[0]
        draft.unknown("port", "data after its first NUL")
        self._offer(groups[0])

    def sms_prompt(self, _: Groups) -> None:
        """Only the modem port's reader says so."""
        self._set_mode("modem", 2)

    # Writes.

    def _offer(self, data: bytes, pack: _Draft | None = None) -> None:
        """What may be written next."""
        self._candidates = [*self._candidates[1 - _MOST_CANDIDATES :], (data, pack)]

    def written(self, groups: Groups) -> None:
        """write() returned more than 0."""
        place, length, left = _place(groups[0]), int(groups[1]), int(groups[2])
        self._flush_mux_bytes()
        draft = self._add(place, "out", n=length)
        if left:
            draft.fields["asked"] = length + left
        draft.unknown("data")
        if place.startswith("cp-"):
            self._open_writes[place] = draft
        is_framed = place == "uart" and self._modes.get("uart") == "mux"
        for data, pack in reversed(self._candidates):
            if len(data) != length or (is_framed and data[:1] != _FLAG):
                continue
            draft.fill(data, is_guess=True)
            self._candidates.remove((data, pack))
            if pack:
                pack.name_port(place, is_guess=True)
            break

    def write_failed(self, groups: Groups) -> None:
        """write() passed nothing."""
        self._add(_place(groups[0]), "out", n=0, err=_word(groups[1])).unknown("asked")

    def write_retried(self, groups: Groups) -> None:
        """write() passed nothing, and will be tried again."""
        self._add(_place(groups[0]), "out", n=0, err=_word(groups[2])).unknown("asked")

    # The app platform.

    def connected(self, _: Groups) -> None:
        """The message names no port."""
        self._add("platform", what="connect").unknown("port")

    def connect_failed(self, groups: Groups) -> None:
        """The message names no port."""
        self._add("platform", what="connect", err=_word(groups[0])).unknown("port")

    def connection_named(self, groups: Groups) -> None:
        """Names the port of the attempt just made."""
        for draft in reversed(self._drafts[-20:]):
            if draft.what == "connect" and "port" not in draft.fields:
                draft.name_port(_port(groups[0]), is_guess=False)
                return

    def platform_hung_up(self, groups: Groups) -> None:
        """The platform closed a connection."""
        self._add("platform", what="hangup", port=_port(groups[0]))

    def platform_refused(self, groups: Groups) -> None:
        """The platform's sign that it goes down."""
        self.platform_port(groups)
        self.note()

    def platform_sent(self, groups: Groups) -> None:
        """A pack went to the platform, most likely for the port that was read last."""
        draft = self._add("platform", "out", n=int(groups[1]))
        draft.unknown("data")
        if self._last_read:
            draft.fields |= {"port": _served(self._last_read), "guessed": ["port"]}

    def platform_mode(self, groups: Groups) -> None:
        """The mode of the port that the pack was for."""
        self._set_mode(self._last_read, int(groups[2]), is_guess=True)

    def platform_send_failed(self, groups: Groups) -> None:
        """send() returned -1."""
        self._add("platform", "out", n=0, err=_word(groups[2])).unknown("asked", "port")

    def platform_received(self, groups: Groups) -> None:
        """The bytes follow in the next message, each between parentheses."""
        draft = self._add("platform", "in", n=int(groups[0]))
        draft.unknown("data", "port")
        self._open_reads["platform"] = self._last_pack = draft

    def dumped(self, text: bytes) -> bool:
        """Takes the dump of a received pack; False when this is none."""
        draft = self._open_reads.get("platform")
        found = _DUMPED.findall(text) if draft else []
        if not draft or not found:
            return False
        data = b"".join(b"\n" if one == b"\r\n" else one for one in found)
        draft.data += data[: draft.fields["n"] - len(draft.data)]
        if len(draft.data) >= draft.fields["n"]:
            draft.learn("data", is_guess=False)
            del self._open_reads["platform"]
        return True

    def platform_text(self, groups: Groups) -> None:
        """What has been put together of an answer; its last one is written to the host."""
        self._offer(_as_counted(groups[3], int(groups[5])), self._last_pack)

    def platform_port(self, groups: Groups) -> None:
        """Names the port of the pack received last."""
        self._name_pack_port(_port(groups[0]))

    def _name_pack_port(self, port: str) -> None:
        if self._last_pack:
            self._last_pack.name_port(port, is_guess=False)

    def answer_with_echo(self, groups: Groups) -> None:
        """The command and its answer, as they are written to the host now."""
        port = _port(groups[0])
        self._name_pack_port(port)
        self._reveal(port, groups[1])
        self._offer(_as_counted(groups[1] + groups[2], int(groups[3])))

    # UDP.

    def udp_received(self, groups: Groups) -> None:
        """A client's datagram."""
        length = int(groups[0])
        peer = f"{_word(groups[1])}:{_word(groups[2])}"
        self._last_read = "at"
        draft = self._add("udp", "in", n=length, peer=peer)
        draft.fill(_as_counted(groups[3], length), is_guess=False)
        self._offer(draft.data)

    def udp_answer(self, groups: Groups) -> None:
        """What will be sent."""
        self._udp_answer, self._udp_peer = groups[0], f"{_word(groups[1])}:{_word(groups[2])}"

    def udp_sent(self, groups: Groups) -> None:
        """sendto() returned."""
        draft = self._add("udp", "out", n=int(groups[1]), peer=self._udp_peer)
        draft.fill(_as_counted(self._udp_answer, int(groups[1])), is_guess=False)

    def udp_send_failed(self, groups: Groups) -> None:
        """sendto() sent nothing."""
        self._add("udp", "out", n=0, err=_word(groups[1]), peer=self._udp_peer)

    def udp_served(self, _: Groups) -> None:
        """The AT port's answers go to the UDP client from now on."""
        if not self._is_udp_served:
            self._add("udp", what="served")
        self._is_udp_served = True

    def udp_released(self, _: Groups) -> None:
        """The AT port's answers go to the AT port again."""
        if self._is_udp_served:
            self._add("udp", what="released")
        self._is_udp_served = False

    # The multiplexer and the kernel.

    def mux_answer(self, groups: Groups) -> None:
        """An answer was put into a frame: its address, length and check sequence."""
        self._set_mode("uart", 5)
        address, length, fcs = int(groups[0]) & 0xFF, int(groups[1]) - 6, int(groups[2], 16) & 0xFF
        for data, pack in reversed(self._candidates):
            if len(data) == length:
                head = bytes((FLAG, address, 0xEF, (length * 2 + 1) & 0xFF))
                self._offer(head + data + bytes((fcs, FLAG)), pack)
                return

    def mux_fault(self, _: Groups) -> None:
        """A frame that the session does not take."""
        self._set_mode("uart", 5)
        self.note()

    def mux_byte(self, groups: Groups) -> None:
        """One byte of what a frame held, or of what answers it."""
        self._set_mode("uart", 5)
        self._mux_bytes.append(int(groups[0], 16) & 0xFF)

    def _flush_mux_bytes(self) -> None:
        if self._mux_bytes:
            self._offer(bytes(self._mux_bytes))
            self._mux_bytes.clear()

    def uevent(self, groups: Groups) -> None:
        """One key of a uevent: a channel's new state."""
        key, _, change = _word(groups[0]).partition("=")
        channel = key.removeprefix("MHI_CHANNEL_STATE_")
        draft = self._add("uevent", what="mhi", change=change.lower())
        if channel.isascii() and channel.isdigit():
            draft.fields["channel"] = int(channel)
        draft.unknown("data")


def _place(path: bytes) -> str:
    return PLACES.get(path, _word(path))


def _port(name: bytes) -> str:
    return PORTS.get(name, _word(name))


def _served(place: str) -> str:
    """The PCIe pipe is the AT port's second way in."""
    return "at" if place == "pcie" else place


def _word(text: bytes) -> str:
    return text.decode("utf-8", "backslashreplace")


def _failed(draft: _Draft) -> None:
    draft.fields["err"] = "failed"
    draft.unknown("err")


def _as_counted(text: bytes, length: int) -> bytes:
    """The text without what a terminal program added to its line ends."""
    if len(text) > length:
        text = text.replace(b"\r\n", b"\n")
    return text[: max(0, length)]

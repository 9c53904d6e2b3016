"""Follows each command through a recording. docs/trace.md states the rules of matching."""

from __future__ import annotations

from dataclasses import dataclass

from .command import PLATFORM, Command, Leg, deadline_of, has_final, names_in
from .decode import Decoder, Message
from .lines import LineAssembly, Typed, bare, is_repeat
from .packs import HEADS
from .recording import CP_CHANNELS, Event, Recording
from .wording import escaped

# Sources of lines, and the host ports whose channel and connection their lines take.
_ROADS = {"modem": ("modem",), "at": ("at",), "pcie": ("at", "modem"), "udp": ("at",),
          "uart": ("uart",)}
_MUX_ROADS = ("uart", "modem")
_MODE_PORTS = {"pcie": "at", "udp": "at"}  # they have the AT port's mode
# Where the answers of a road's channel and connection are written.
_OUTLETS = {"modem": ("modem", "pcie", "uart"), "at": ("at", "pcie", "udp"), "uart": ("uart",)}
_MOST_WAITING = 32  # commands without an answer that are remembered at a target
_HANG_UP_SIZE = 255  # bytes "+" with which the platform asks for a hang-up


@dataclass
class _Delivery:
    """What a reader of the daemon read and has not yet written to a host."""

    t: int
    road: str
    rest: bytes
    command: Command | None


def _is_stray(command: Command, text: bytes) -> bool:
    """Names extended commands, none of them the command's own, and ends nothing."""
    names = names_in(text) - {b"+CME", b"+CMS"}
    return bool(names) and not command.names_its_own(text) and not has_final(text)


def _doubt(command: Command, others: list[Command], text: bytes, is_late: bool) -> str:
    """Why it is a guess that this text answers this command; empty when it is none."""
    if is_late:
        return "after the deadline"
    if others and not command.names_its_own(text):
        return f"{escaped(others[-1].text)} had no final result there either"
    return ""


class Tracker:
    """Events go through it in the order of time; `commands` holds what was made of them."""

    def __init__(self, recording: Recording) -> None:
        self.commands: list[Command] = []
        self.end = recording.events[-1].t if recording.events else 0
        self._decoder = Decoder(recording)
        self._lines = {source: LineAssembly() for source in _ROADS}
        self._typed: dict[tuple[str, str], Typed] = {}
        self._current: dict[str, list[Command]] = {source: [] for source in _ROADS}
        self._waiting: dict[str, list[Command]] = {}
        self._last_lines: dict[str, bytes] = {}
        self._reads: dict[str, _Delivery] = {}
        self._last_bytes: dict[str, bytes] = {}
        self._closed: set[str] = set()
        self._asked: list[Command] = []  # QMI requests without an answer
        for event in recording.events:
            self._take(event)
        self._never_read()

    def _take(self, event: Event) -> None:
        messages = self._decoder.messages(event)
        if not event.dir:
            self._happened(event)
        elif event.at == "qmi":
            self._qmi(event)
        elif event.at in _ROADS:
            self._host(event, messages)
        elif event.at in CP_CHANNELS:
            road = self._decoder.port_of(event)
            self._module(event, event.at, road, messages)
        elif event.at == PLATFORM:
            road = self._decoder.port_of(event)
            self._module(event, f"{PLATFORM} {road}", road, messages)

    # What hosts and clients say.

    def _host(self, event: Event, messages: list[Message]) -> None:
        key = (event.at, event.text("peer"))
        if event.dir == "typed":
            self._typed.setdefault(key, Typed()).add(event.t, event.data)
        elif event.dir == "out":
            self._to_host(event, messages)
        elif event.data:
            self._reads_on(event)
            self._from_host(event, messages, self._typed.setdefault(key, Typed()))
        elif event.number("n"):  # a log tells of reads whose bytes it does not know
            self._reads_on(event)

    def _reads_on(self, event: Event) -> None:
        for command in self._current[event.at]:
            command.ended = event.t
        self._current[event.at] = []

    def _from_host(self, event: Event, messages: list[Message], typed: Typed) -> None:
        source = event.at
        self._last_bytes[source] = event.data
        sent = typed.take(event.data)
        mode = self._decoder.modes[_MODE_PORTS.get(source, source)]
        if mode == "mux" and source == "uart":
            self._frames(event, messages, sent)
        elif mode != "command":
            self._passed_on(event, sent, mode)
        else:
            for line in self._lines[source].feed(event.data):
                command = self._begin(event, line.text, sent)
                command.is_dropped = not line.is_command

    def _frames(self, event: Event, messages: list[Message], sent: int | None) -> None:
        for message in messages:
            if b"at" in message.text.lower() and message.frame:
                command = self._begin(event, message.text, sent)
                command.roads = _MUX_ROADS
                command.peer = f"DLCI {message.frame.dlci}"
                command.mode = "mux"

    def _passed_on(self, event: Event, sent: int | None, mode: str) -> None:
        """Data, as the port's mode has it; worth a word when they look like a command."""
        if event.data == b"+++" or (event.data[:2].upper() == b"AT" and event.data[-1:] == b"\r"):
            self._begin(event, event.data, sent).mode = mode

    def _begin(self, event: Event, text: bytes, sent: int | None) -> Command:
        source = event.at
        command = self._asked_by_qmi(text) if source == "udp" and sent is None else None
        if command is None:
            command = Command(source, text, event.t if sent is None else sent)
            command.peer = event.text("peer")
            self.commands.append(command)
            if sent is not None:
                command.add(sent, "typed", source)
        command.roads = _ROADS[source]
        channel = f"cp-{command.roads[0]}"
        command.closed_channel = channel if channel in self._closed else ""
        command.add(event.t, "read", source)
        last = self._last_lines.get(command.roads[0], b"") if is_repeat(text) else b""
        command.expect(last or text)
        self._current[source].append(command)
        return command

    def _asked_by_qmi(self, text: bytes) -> Command | None:
        for command in self._asked:
            if not command.roads and bare(command.text) == bare(text):
                return command
        return None

    def _qmi(self, event: Event) -> None:
        kind = event.text("kind")
        if kind == "request":
            command = Command("qmi", event.data, event.t)
            command.add(event.t, "typed", "qmi")
            self.commands.append(command)
            self._asked.append(command)
        elif kind == "answer" and self._asked:
            command = self._asked.pop(0)
            result, error = event.number("result"), event.number("error")
            remark = f"result {result}, error {error}" if result or error else ""
            command.add(event.t, "delivered", "qmi", event.data, remark)

    # What passes between the daemon and the module.

    def _module(self, event: Event, target: str, road: str, messages: list[Message]) -> None:
        if event.dir == "in" and event.data:
            self._answer(event, target, road, messages)
        elif event.dir == "out" and event.text("err") and not event.data:
            for command in self._handled(road)[-1:]:
                command.add(event.t, "refused", target, remark=event.text("err"))
        elif event.dir == "out" and "unknown" in event.fields and not event.data:
            self._written_unseen(event, target, road)
        elif event.dir == "out":
            for message in messages:
                self._written(event, target, road, message)

    def _handled(self, road: str) -> list[Command]:
        """Commands whose reader is at work on them and that may take this road; oldest first."""
        found = [one for many in self._current.values() for one in many if road in one.roads]
        return sorted(found, key=lambda command: command.begun)

    def _written(self, event: Event, target: str, road: str, message: Message) -> None:
        asked = event.number("asked")
        is_part = asked is not None and asked > len(event.data)
        for command in self._handled(road):
            if command.is_dropped or not command.accepts(target, message.text, is_part):
                continue
            remark = f"{len(event.data)} of {asked} bytes" if is_part else ""
            command.add(event.t, "written", target, message.text, remark)
            self._waits(event, target, road, command, message.text)
            return

    def _written_unseen(self, event: Event, target: str, road: str) -> None:
        """A log tells the size of a write, not always its bytes."""
        heads = HEADS.size if event.at == PLATFORM else 0
        for command in self._handled(road):
            text = command.due_of_size(target, (event.number("n") or 0) - heads)
            if text and not command.is_dropped and command.accepts(target, text, False):
                command.add(event.t, "written", target, remark="a guess by its size")
                self._waits(event, target, road, command, text)
                return

    def _waits(self, event: Event, target: str, road: str, command: Command, text: bytes) -> None:
        command.written[target] = event.t
        self._last_lines[road] = bare(text)
        waiting = self._waiting.get(target, [])
        kept = [one for one in waiting[-_MOST_WAITING:] if one is not command]
        self._waiting[target] = [*kept, command]

    def _answer(self, event: Event, target: str, road: str, messages: list[Message]) -> None:
        reader = PLATFORM if event.at == PLATFORM else target
        text = b"".join(message.text for message in messages)
        self._undelivered(reader)
        if reader == PLATFORM and text == b"+" * _HANG_UP_SIZE:
            for waiting in self._waiting.get(target, []):
                self._note(waiting, event.t, "the platform asked for a hang-up")
            return
        is_answer = any(message.label != "indication" for message in messages)
        command = self._owner(event, target, text) if is_answer else None
        self._reads[reader] = _Delivery(event.t, road, text, command)

    def _owner(self, event: Event, target: str, text: bytes) -> Command | None:
        """Whose answer this is: the last command written there that has no final result yet."""
        waiting = self._waiting.get(target, [])
        if not waiting:
            return None
        # Frames are sent on while answers are under way: there the first has the first answer.
        is_mux = self._decoder.modes["uart"] == "mux" and target in ("cp-uart", "cp-modem")
        command = waiting[0 if is_mux else -1]
        is_late = event.t - command.written[target] > deadline_of(target)
        if is_late and not has_final(text):
            return None
        if _is_stray(command, text):
            command.strays.append(Leg(event.t, "answer", target, text))
            return None
        others = [one for one in waiting if one is not command and
                  event.t - one.written[target] <= deadline_of(target)]
        command.add(event.t, "answer", target, text, _doubt(command, others, text, is_late))
        if command.hears(target, text):
            # Answers come in order: whoever waited longer is not answered any more.
            self._waiting[target] = [one for one in waiting if is_mux and one is not command]
        return command

    # What the daemon writes to hosts and clients.

    def _to_host(self, event: Event, messages: list[Message]) -> None:
        text = b"".join(message.text for message in messages)
        due = [one for one in self._reads.values() if event.at in _OUTLETS.get(one.road, ())]
        due.sort(key=lambda one: one.t)
        if event.text("err") and not event.data:
            for one in due[:1]:
                self._note(one.command, event.t, f"writing to {event.at}: {event.text('err')}")
            return
        if text and not any(self._deliver(one, event, text) for one in due):
            self._own_words(event, text)

    def _deliver(self, one: _Delivery, event: Event, text: bytes) -> bool:
        if one.rest in text:
            one.rest = b""
        elif one.rest.startswith(text):
            one.rest = one.rest[len(text) :]
            return True
        else:
            return False
        self._reads = {reader: other for reader, other in self._reads.items() if other is not one}
        if one.command:
            peer = event.text("peer")
            is_other = peer and one.command.peer and peer != one.command.peer
            remark = f"{peer}, not the one who asked" if is_other else ""
            one.command.add(event.t, "delivered", event.at, remark=remark)
        return True

    def _own_words(self, event: Event, text: bytes) -> None:
        """Nothing of the module's: the daemon's own answer, or the echo of a character."""
        if text == self._last_bytes.get(event.at) and len(text) == 1:
            return
        for command in self._current[event.at][-1:]:
            command.add(event.t, "own", event.at, text)

    def _undelivered(self, reader: str) -> None:
        """A reader reads on: what it read before went no further."""
        one = self._reads.pop(reader, None)
        if one and one.command and one.rest:
            place = one.road
            why = f": {place} was closed" if place in self._closed else ""
            self._note(one.command, one.t, f"that answer was not written to {place}{why}")

    # What else happens.

    def _happened(self, event: Event) -> None:
        if event.what == "open" and not event.text("err"):
            self._closed.discard(event.at)
        elif event.what == "close" and event.at != PLATFORM:
            self._closed.add(event.at)
        road = self._decoder.port_of(event)
        if event.what == "mode":
            for command in self._handled(event.at)[-1:]:
                self._note(command, event.t, f"{event.at}: mode is now {event.text('mode')}")
        elif event.at == PLATFORM and event.what in ("hangup", "close"):
            for command in self._waiting.pop(f"{PLATFORM} {road}", []):
                self._note(command, event.t, "the platform's connection hung up")
        elif event.at in CP_CHANNELS and event.what in ("hangup", "close"):
            words = "hung up" if event.what == "hangup" else "was closed"
            for command in self._waiting.get(event.at, []):
                self._note(command, event.t, f"{event.at} {words}")
        elif event.what in ("unplug", "daemon-ended"):
            self._cut_short(event)

    def _cut_short(self, event: Event) -> None:
        port = event.text("port")
        words = f"{port} was unplugged" if port else "the daemon ended"
        for source, commands in self._current.items():
            for command in commands if port in ("", source) else ():
                if not command.finals:
                    self._note(command, event.t, words)

    def _note(self, command: Command | None, t: int, words: str) -> None:
        if command and not (command.legs and command.legs[-1].remark == words):
            command.add(t, "note", remark=words)

    def _never_read(self) -> None:
        for one in self._reads.values():
            self._note(one.command, self.end, "the recording ends before that was written")
        for (source, peer), typed in self._typed.items():
            for t, data in typed.rest():
                if bare(data):
                    command = Command(source, data, t, peer=peer)
                    command.add(t, "typed", source)
                    self.commands.append(command)
        self.commands.sort(key=lambda command: command.begun)

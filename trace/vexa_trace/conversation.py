"""A recording as a conversation: one line for each thing said, and for each thing that changed."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

from .decode import Decoder, Message
from .recording import CP_CHANNELS, HOST_PORTS, Event, Recording
from .wording import Paint, escaped, event_words, is_fault, printable

_COUNTERPARTS = {"udp": "client", "qmi": "client", "uevent": "kernel"}


@dataclass(frozen=True)
class View:
    """Which events are wanted."""

    places: frozenset[str] = frozenset()  # none: all, of the log only what is noted
    begin: int | None = None  # microseconds, both included
    end: int | None = None
    full: bool = False

    def takes_time(self, t: int) -> bool:
        """Whether a time is within the limits."""
        return (self.begin is None or t >= self.begin) and (self.end is None or t <= self.end)

    def takes(self, event: Event, port: str) -> bool:
        """A host port stands for its whole road; any other place for itself."""
        if not self.takes_time(event.t):
            return False
        if event.what == "intent" and not event.fields.get("err") and not self.full:
            return False
        if not self.places:
            return event.at != "log" or bool(event.fields.get("noted"))
        return event.at in self.places or (port in HOST_PORTS and port in self.places)


def colour_of(place: str) -> str:
    """The colour's name of a place."""
    if place in HOST_PORTS:
        return "host"
    if place in CP_CHANNELS:
        return "cp"
    return {"platform": "platform", "udp": "peer", "qmi": "peer", "log": "dim"}.get(place, "event")


def time_text(t: int, is_log: bool) -> str:
    """Seconds since the beginning: to the microsecond, or as exact as a log is."""
    return f"{t // 1_000_000:5d}       " if is_log else f"{t / 1_000_000:12.6f}"


def _ends(event: Event) -> tuple[str, str]:
    """Who speaks to whom."""
    if event.at == "qmi":
        return ("client", "qmi") if event.text("kind") == "request" else ("qmi", "client")
    if event.at == "log":
        return "daemon", "log"
    if event.dir == "typed":
        return _COUNTERPARTS.get(event.at, "host"), event.at
    return (event.at, "daemon") if event.dir == "in" else ("daemon", event.at)


class Conversation:
    """Lines of text for a recording."""

    def __init__(self, recording: Recording, view: View, paint: Paint) -> None:
        self._recording = recording
        self._view = view
        self._paint = paint
        self._decoder = Decoder(recording)
        self._is_log = recording.start.get("source") == "log"

    def lines(self) -> Iterator[str]:
        """All of them, as they are made."""
        for event in self._recording.events:
            messages = self._decoder.messages(event)
            if not self._view.takes(event, self._decoder.port_of(event)):
                continue
            if event.dir:
                yield from self._said(event, messages)
            else:
                yield self._happened(event)

    def _happened(self, event: Event) -> str:
        text = self._paint("fault" if is_fault(event) else "event", event_words(event))
        if event.at == "platform" and (event.what == "connect" or event.text("port")):
            port = self._decoder.port_of(event)
            text += f" (serves {printable(port)})" if port else ""
        place = printable(event.at)
        return f"{time_text(event.t, self._is_log)}  {'--':>8}   {place:<8}         {text}"

    def _said(self, event: Event, messages: list[Message]) -> Iterator[str]:
        if event.at == "log":
            for line in event.data.splitlines():
                yield self._line(event, len(line), self._paint("dim", self._text(line)))
            return
        note = self._note(event)
        if not messages:
            part = f"(part of a frame) {self._text(event.data)}" if event.data else ""
            size = len(event.data) or event.number("n") or 0  # a log may count what it hides
            yield self._line(event, size, " ".join(filter(None, (part, note))))
        for number, message in enumerate(messages):
            words = (self._carrier(event, message), self._text(message.text),
                     self._fault(message.fault), note if number == 0 else "")
            yield self._line(event, len(message.text), " ".join(filter(None, words)))

    def _text(self, data: bytes) -> str:
        return escaped(data, self._view.full)

    def _fault(self, text: str) -> str:
        return self._paint("fault", f"({printable(text)})") if text else ""

    def _carrier(self, event: Event, message: Message) -> str:
        if event.at != "platform":
            return f"[{message.label}]" if message.label else ""
        port = self._decoder.port_of(event) or "?"
        return f"[{printable(' '.join(filter(None, (port, message.label))))}]"

    def _note(self, event: Event) -> str:
        """What stands beside the bytes: refusals, short writes, the peer, what a log hides."""
        error = event.text("err")
        asked = event.number("asked")
        unknown = event.fields.get("unknown")
        passed = len(event.data) or event.number("n") or 0
        notes = []
        if error:
            notes.append(error)
        if asked is not None and asked != passed:
            notes.append(f"{passed} of {asked} bytes passed")
        if event.dir == "in" and not event.data and not error and not unknown:
            notes.append("end of file")
        if event.fields.get("result") or event.fields.get("error"):
            notes.append(f"result {event.number('result')}, error {event.number('error')}")
        note = self._fault("; ".join(notes))
        hidden = self._list("unknown", unknown)
        guessed = self._list("a guess", event.fields.get("guessed"))
        peer = printable(event.text("peer"))
        peer = self._paint("dim", f"<{peer}>" if peer else "")
        return " ".join(filter(None, (note, hidden, guessed, peer)))

    def _list(self, title: str, names: object) -> str:
        """What the log does not tell, or not for certain."""
        if not names:
            return ""
        words = printable(", ".join(map(str, names if isinstance(names, list) else [names])))
        return self._paint("dim", f"({title}: {words})")

    def _line(self, event: Event, size: int, text: str) -> str:
        source, target = map(printable, _ends(event))
        ends = self._paint(colour_of(event.at), f"{source:>8} > {target:<8}")
        return f"{time_text(event.t, self._is_log)}  {ends} {size:6d}  {text}".rstrip()

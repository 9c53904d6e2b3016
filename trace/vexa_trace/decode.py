"""What the bytes of an event say: packs of the platform and frames of the multiplexer opened."""

from __future__ import annotations

from dataclasses import dataclass

from .frames import Frame, FrameReader
from .packs import connection_ports, split_packs
from .recording import CP_CHANNELS, HOST_PORTS, Event, Recording

PORT_REPORT = "port report"


@dataclass(frozen=True)
class Message:
    """One thing said: plain text, the payload of one pack, the information of one frame."""

    text: bytes
    label: str = ""  # what carried it, such as "command" or "DLCI 2 UIH"; "" for plain text
    fault: str = ""  # why it is not what it should be
    frame: Frame | None = None


def _pack_messages(data: bytes) -> list[Message]:
    found = []
    for pack in split_packs(data):
        if pack.reported_port:
            found.append(Message(b"", f"{PORT_REPORT}: {pack.reported_port}"))
        else:
            found.append(Message(pack.payload, pack.kind, pack.fault))
    return found


def _frame_message(frame: Frame) -> Message:
    if not frame.is_frame:
        return Message(frame.information)
    label = f"DLCI {frame.dlci} {frame.kind}"
    return Message(frame.information, label, "" if frame.fcs_fits else "FCS does not fit", frame)


class MuxFrames:
    """The frames on the UART, both ways, while it is a multiplexer."""

    def __init__(self) -> None:
        self._is_on = False
        self._readers: dict[str, FrameReader] = {}

    def follow(self, event: Event) -> dict[str, bytes]:
        """Every event, in order. Gives up what was held, by direction, when the mode is told or the
        port opened: the daemon forgets it, too."""
        if event.at != "uart" or event.what not in ("mode", "open"):
            return {}
        if event.what == "mode":
            self._is_on = event.text("mode") == "mux"
        return self.rest()

    def rest(self) -> dict[str, bytes]:
        """What was held for frames that never became whole, by direction; it is forgotten."""
        held = {way: reader.rest() for way, reader in sorted(self._readers.items())}
        self._readers.clear()
        return {way: data for way, data in held.items() if data}

    def carries(self, event: Event) -> bool:
        """Whether the bytes of this event are frames."""
        return self._is_on and event.at == "uart" and bool(event.data)

    def feed(self, event: Event) -> list[Frame]:
        """The frames that its bytes complete, and the junk between."""
        return self._readers.setdefault(event.dir, FrameReader()).feed(event.data)


class Decoder:
    """Events go through it once, in the order of time: frames and modes reach over many."""

    def __init__(self, recording: Recording) -> None:
        self.connections = connection_ports(recording.events)
        self.modes = {port: "command" for port in HOST_PORTS}
        self._frames = MuxFrames()

    def port_of(self, event: Event) -> str:
        """The host port whose road the event is on, "udp", "qmi", or "" for none."""
        if event.at in CP_CHANNELS:
            return event.at.removeprefix("cp-")
        if event.at == "platform":
            return self.connections.get(event.number("conn") or 0, event.text("port"))
        if event.at in (*HOST_PORTS, "udp", "qmi"):
            return event.at
        return event.text("port")

    def messages(self, event: Event) -> list[Message]:
        """What an event with bytes says; empty while it is but a part of a frame."""
        if event.what == "mode" and event.at in HOST_PORTS:
            self.modes[event.at] = event.text("mode")
        self._frames.follow(event)
        if not event.data:
            return []
        if event.at == "platform" and "unknown" not in event.fields:
            return _pack_messages(event.data)
        if self._frames.carries(event):
            return [_frame_message(frame) for frame in self._frames.feed(event)]
        return [Message(event.data)]

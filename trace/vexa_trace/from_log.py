"""A recording made of the daemon's own log (docs/trace-log.md)."""

from __future__ import annotations

from datetime import datetime
from typing import Any

from .log_rows import ROWS
from .log_scan import Groups, Piece, Scanner
from .log_story import Story
from .recording import Recording, RecordingError

# A module's clock is set while the daemon runs: such a leap is no time that passed.
_LONGEST_PAUSE = 24 * 3600
_RECORDING = b'{"t":'


class _Clock:
    """Seconds since the log's first stamp, never backwards."""

    def __init__(self) -> None:
        self.first: datetime | None = None
        self.faults: list[str] = []
        self._last: datetime | None = None
        self._t = 0

    def read(self, stamp: Groups, line: int) -> int:
        """Microseconds; a stamp that no clock shows changes nothing."""
        try:
            now = datetime(*(int(part) for part in stamp))  # type: ignore[arg-type]
        except ValueError:
            self.faults.append(f"line {line}: a stamp that no clock shows")
            return self._t
        passed = round((now - (self._last or now)).total_seconds())
        if passed == -1:  # a thread may stop between taking its stamp and writing it
            return self._t
        if 0 <= passed <= _LONGEST_PAUSE:
            self._t += passed * 1_000_000
        else:
            self.faults.append(f"line {line}: a leap of the clock by {passed} seconds")
        self.first, self._last = self.first or now, now
        return self._t


def _tell(story: Story, piece: Piece) -> None:
    if piece.row and piece.row.tell:
        piece.row.tell(story, piece.groups)
    elif not piece.row and not story.dumped(piece.text) and piece.text.strip():
        story.foreign()


def read_log_bytes(log: bytes) -> Recording:
    """The recording that a log makes, whatever its bytes are."""
    clock, story = _Clock(), Story()
    for piece in Scanner(ROWS).pieces(log):
        if piece.stamp:
            story.t = clock.read(piece.stamp, piece.line)
            continue
        story.line, story.text = piece.line, piece.text
        _tell(story, piece)
    start: dict[str, Any] = {
        "t": 0,
        "at": "bench",
        "what": "start",
        "version": 1,
        "source": "log",
        "unknown": ["time within the second", "time zone"],
    }
    if clock.first:
        start["wall"] = clock.first.isoformat()
    return Recording(start, story.events(), clock.faults, log.endswith(b"\n"))


def read_log(path: str) -> Recording:
    """The recording that a log makes; raises RecordingError or OSError."""
    with open(path, "rb") as file:
        log = file.read()
    if log.startswith(_RECORDING):
        raise RecordingError("a recording, not a log; leave --from-log out")
    recording = read_log_bytes(log)
    if not any(event.at != "log" or "noted" in event.fields for event in recording.events):
        raise RecordingError("holds no message of the daemon; is this its log?")
    return recording

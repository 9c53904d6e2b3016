"""What happened to each command, in words."""

from __future__ import annotations

from collections.abc import Iterator

from .command import PLATFORM, Command, Leg, deadline_of
from .commands import Tracker
from .conversation import View, colour_of, time_text
from .recording import Recording
from .wording import Paint, escaped, printable, span

_SLACK = 100_000  # microseconds by which a deadline may be missed
_SENT = {"udp": "sent", "qmi": "asked"}


def _who(target: str) -> str:
    return "the platform" if target.startswith(PLATFORM) else "CP"


def _where(target: str) -> str:
    return "the platform" if target.startswith(PLATFORM) else f"CP ({target})"


def _result(command: Command, target: str, end: int) -> str:
    """What one target made of it."""
    if target in command.finals:
        return f"{_who(target)} answered {command.finals[target]}"
    answers = [leg for leg in command.legs_of("answer") if leg.place == target]
    if answers:
        return f"{_who(target)} spoke without a final result"
    return f"{_who(target)} said nothing{_silence(command, target, end)}"


def _silence(command: Command, target: str, end: int) -> str:
    """How long, and until what, a target without an answer was waited for."""
    if command.mode == "mux":
        return " (on the multiplexer nobody waits)"
    if command.finals and not target.startswith(PLATFORM):
        return " and was not waited for"
    strays = [leg.t for leg in command.strays if leg.place == target]
    if strays:
        waited = span(strays[0] - command.written[target])
        return f" to it; other text came after {waited}, and that ends the daemon's wait"
    waited_for = (end if command.ended is None else command.ended) - command.written[target]
    limit = deadline_of(target)
    if waited_for >= limit - _SLACK:
        return f": waited until the deadline of {limit // 1_000_000} s"
    until = "the recording ends" if command.ended is None else "the next input"
    return f" in the {span(waited_for)} until {until}"


def _nowhere(command: Command) -> str:
    """Why a command was written to nobody."""
    if command.is_dropped:
        return "dropped: it does not begin with AT, or is too long"
    if command.legs_of("refused"):
        refused = command.legs_of("refused")[-1]
        return f"refused by {_who(refused.place)}: {refused.remark}"
    if not command.legs_of("read"):
        return "never read by the daemon"
    if command.mode not in ("command", "mux"):
        return f"read in {command.mode} mode: passed on as data, or dropped"
    closed = f": {command.closed_channel} was closed" if command.closed_channel else ""
    return f"no write to CP or the platform{closed}"


def _total(command: Command, is_log: bool) -> str:
    last = max((leg.t for leg in command.legs_of("delivered", "own")), default=None)
    if last is None or not is_answered(command):
        return ""
    start = "typed" if command.legs_of("typed") else "read"
    if is_log:  # both times are cut to whole seconds
        return f"less than {(last - command.begun) // 1_000_000 + 1} s from {start} to answered"
    return f"{span(last - command.begun)} from {start} to answered"


def verdict(command: Command, end: int, is_log: bool = False) -> str:
    """One sentence: where it went, who answered, how long it took."""
    parts = []
    if command.written:
        parts.append("went to " + " and ".join(_where(target) for target in command.written))
        parts += [_result(command, target, end) for target in command.written]
        parts += [f"{_who(leg.place)} refused it: {leg.remark}"
                  for leg in command.legs_of("refused") if leg.place not in command.written]
    elif not command.legs_of("own"):
        parts.append(_nowhere(command))
    elif command.legs_of("refused"):
        parts.append(_nowhere(command))
    if command.legs_of("own"):
        parts.append("the daemon answered by itself")
    parts += [leg.remark for leg in command.legs_of("note") if not command.finals]
    return printable("; ".join(filter(None, (*parts, _total(command, is_log)))))


def is_answered(command: Command) -> bool:
    """Somebody gave a final result, or the daemon itself an answer."""
    return bool(command.finals) or bool(command.legs_of("own"))


class Report:
    """Lines of text for the commands of a recording."""

    def __init__(self, recording: Recording, view: View, paint: Paint) -> None:
        self._tracker = Tracker(recording)
        self._view = view
        self._paint = paint
        self._is_log = recording.start.get("source") == "log"

    def lines(self, pattern: str) -> Iterator[str]:
        """Those of the commands that hold the pattern."""
        wanted = [one for one in self._tracker.commands if self._takes(one, pattern)]
        if self._is_log:
            yield "from a log: times to the second; the conversation tells which bytes are guesses"
            yield ""
        if not wanted:
            yield "no such command" if pattern else "no command"
        for number, command in enumerate(wanted):
            if number:
                yield ""
            yield from self._command(command)

    def _takes(self, command: Command, pattern: str) -> bool:
        if not self._view.takes_time(command.begun):
            return False
        touched = {command.source} | {leg.place.split(" ")[0] for leg in command.legs}
        if self._view.places and not self._view.places & touched:
            return False
        return pattern.lower() in command.text.decode("latin-1").lower()

    def _command(self, command: Command) -> Iterator[str]:
        where = " ".join(filter(None, (command.source, printable(command.peer))))
        text = self._paint("strong", escaped(command.text, self._view.full))
        yield f"{text}  on {self._paint(colour_of(command.source), where)}"
        words = verdict(command, self._tracker.end, self._is_log)
        yield "  " + (words if is_answered(command) else self._paint("fault", words))
        last = command.begun
        for leg in sorted(command.legs, key=lambda leg: leg.t):
            since = f"+{span(leg.t - last)}" if leg.t > last and not self._is_log else ""
            yield f"  {time_text(leg.t, self._is_log)} {since:>11}  {self._leg(leg)}"
            last = leg.t
        yield from self._strays(command)

    def _strays(self, command: Command) -> Iterator[str]:
        seen: dict[tuple[str, bytes], list[int]] = {}
        for leg in command.strays:
            seen.setdefault((leg.place, leg.text), []).append(leg.t)
        for (place, text), times in seen.items():
            count = f"{len(times)} times, first" if len(times) > 1 else "once,"
            first = time_text(times[0], self._is_log).strip()
            yield (f"  meanwhile {_who(place)} said {escaped(text, self._view.full)}"
                   f" {count} at {first}: perhaps unsolicited (a guess)")

    def _leg(self, leg: Leg) -> str:
        place = self._paint(colour_of(leg.place.split(" ")[0]), leg.place.split(" ")[0])
        text = escaped(leg.text, self._view.full)
        remark = printable(leg.remark)
        guess = f"  (a guess: {remark})" if leg.kind == "answer" and remark else ""
        words = {
            "typed": f"{_SENT.get(leg.place, 'typed')} on {place}",
            "read": f"read by the daemon on {place}",
            "written": f"written to {place}  {text}".rstrip(),
            "refused": f"not taken by {place}: {remark}",
            "answer": f"read from {place}  {text}{guess}",
            "delivered": f"written to {place}" + (f"  {text}" if text else ""),
            "own": f"written to {place} by the daemon itself  {text}",
        }
        more = f" ({remark})" if remark and leg.kind in ("written", "delivered") else ""
        return words.get(leg.kind, remark) + more

"""The command line of script/trace."""

from __future__ import annotations

import argparse
import io
import os
import sys
from collections.abc import Sequence

from .conversation import Conversation, View
from .recording import CP_CHANNELS, HOST_PORTS, Recording, RecordingError, read_file
from .report import Report
from .wording import Paint, printable

PORTS = (*HOST_PORTS, *CP_CHANNELS, "platform", "udp", "qmi", "uevent", "log", "bench")

_EPILOG = """\
FILE is a recording (script/run --record FILE), or with --from-log what the daemon wrote to its
standard output. Times are seconds since the recording began.
docs/trace.md tells how to read what is printed."""


def _seconds(text: str) -> float:
    value = float(text)
    if not 0 <= value < 1e12:
        raise ValueError("no such time")
    return value


def _called() -> str:
    """The name it was started by: installed it has one of its own."""
    name = os.path.basename(sys.argv[0])
    return "script/trace" if name == "__main__.py" else name


def make_parser() -> argparse.ArgumentParser:
    """The options; also what the manual page is held against."""
    parser = argparse.ArgumentParser(
        prog=_called(),
        description="Shows what passed the daemon's boundaries, and what became of each command.",
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("file", metavar="FILE", help="the recording or log; - reads standard input")
    add("--port", action="append", choices=PORTS, metavar="P",
        help="only this place; again for more. Of: " + ", ".join(PORTS))
    add("--from", dest="begin", type=_seconds, metavar="T", help="from this second on")
    add("--to", dest="end", type=_seconds, metavar="T", help="up to this second")
    add("--what-happened", nargs="?", const="", metavar="PATTERN",
        help="the road of each command instead; with PATTERN, of those that hold that text"
        " (upper and lower case alike)")
    add("--full", action="store_true", help="long data whole instead of its beginning")
    add("--html", metavar="OUT", help="draws it as a page that any browser shows")
    add("--pcap", metavar="OUT", help="writes it for Wireshark and tshark")
    add("--from-log", action="store_true", help="FILE is the daemon's log")
    return parser


def _warn(text: str) -> None:
    print(f"trace: {printable(text)}", file=sys.stderr)


def _read(options: argparse.Namespace) -> Recording:
    path = "/dev/stdin" if options.file == "-" else options.file
    if not options.from_log:
        return read_file(path)
    from .from_log import read_log  # here and below: what only some options need

    return read_log(path)


def _tell_faults(recording: Recording, path: str) -> None:
    for fault in recording.faults[:10]:
        _warn(f"{path}: {fault}; passed over")
    if len(recording.faults) > 10:
        _warn(f"{path}: {len(recording.faults) - 10} more lines passed over")
    if not recording.is_whole and recording.start.get("source") != "log":
        _warn(f"{path}: has no end line (still running, or stopped): shown as far as it goes")


def _write_files(options: argparse.Namespace, recording: Recording) -> None:
    if options.html:
        from .html import write_page

        write_page(recording, options.html)
    if options.pcap:
        from .pcap import write_pcap

        write_pcap(recording, options.pcap)


def _view(options: argparse.Namespace) -> View:
    def microseconds(seconds: float | None) -> int | None:
        return None if seconds is None else round(seconds * 1_000_000)

    places = frozenset(options.port or ())
    return View(places, microseconds(options.begin), microseconds(options.end), options.full)


def _show(options: argparse.Namespace, recording: Recording) -> None:
    view, paint = _view(options), Paint.of_stdout()
    if options.what_happened is None:
        lines = Conversation(recording, view, paint).lines()
    else:
        lines = Report(recording, view, paint).lines(options.what_happened)
    for line in lines:
        print(line)


def run(options: argparse.Namespace) -> int:
    """0, or 1 after a sentence on standard error."""
    try:
        recording = _read(options)
        _tell_faults(recording, options.file)
        _write_files(options, recording)
    except BrokenPipeError:
        raise
    except RecordingError as error:
        _warn(f"{options.file}: {error}")
        return 1
    except OSError as error:
        _warn(f"{error.filename or options.file}: {error.strerror}")
        return 1
    if not options.html and not options.pcap:
        _show(options, recording)
    return 0


def _parse(arguments: Sequence[str] | None) -> argparse.Namespace:
    parser = make_parser()
    options = parser.parse_args(arguments)
    for out in (options.html, options.pcap):
        if out and os.path.isfile(out) and _is_same(out, options.file):
            parser.error(f"{out} would overwrite what is read")
    return options


def _is_same(one: str, other: str) -> bool:
    return os.path.exists(other) and os.path.samefile(one, other)


def main(arguments: Sequence[str] | None = None) -> int:
    """The exit status: 0 shown, 1 could not, 2 wrong usage."""
    options = _parse(arguments)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")
    try:
        status = run(options)
        sys.stdout.flush()
    except BrokenPipeError:
        # Whoever read has seen enough; Python's own flush at exit must not fail once more.
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        return 0
    except KeyboardInterrupt:
        return 130
    return status

"""The command line of script/trace."""

from __future__ import annotations

import argparse
import io
import os
import sys
from collections.abc import Callable, Sequence
from typing import NoReturn

from .conversation import Conversation, View
from .progress import Progress
from .recording import CP_CHANNELS, HOST_PORTS, Recording, RecordingError, read_file
from .report import Report
from .wording import Paint, printable

PORTS = (*HOST_PORTS, *CP_CHANNELS, "platform", "udp", "qmi", "uevent", "log", "bench")

_EPILOG = """\
FILE is a recording (script/run --record FILE), or with --from-log what the daemon wrote to its
standard output. Times are seconds since the recording began.
docs/trace.md tells how to read what is printed."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        if message.endswith("required: FILE"):
            message += " (a word right after --what-happened is its PATTERN)"
        super().error(message)


def _seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        value = -1
    if not 0 <= value < 1e12:
        raise argparse.ArgumentTypeError(f"a number of seconds is wanted, such as 1.5, not {text}")
    return value


def _out(text: str) -> str:
    if text in ("", "-"):
        raise argparse.ArgumentTypeError("a file's name is wanted; /dev/stdout is one, too")
    return text


def _called() -> str:
    """The name it was started by: installed it has one of its own."""
    name = os.path.basename(sys.argv[0])
    return "script/trace" if name == "__main__.py" else name


def make_parser() -> argparse.ArgumentParser:
    """The options; also what the manual page is held against."""
    parser = _Parser(
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
    add("--html", type=_out, metavar="OUT", help="draws it as a page that any browser shows")
    add("--pcap", type=_out, metavar="OUT", help="writes it for Wireshark and tshark")
    add("--from-log", action="store_true", help="FILE is the daemon's log")
    return parser


def _is_same_file(one: str, other: str) -> bool:
    try:
        return os.path.samefile(one, other)
    except OSError:  # one of them is not there yet
        return os.path.abspath(one) == os.path.abspath(other)


def _check(parser: argparse.ArgumentParser, options: argparse.Namespace) -> None:
    """What no single option can tell; does not return when it is wrong."""
    if None not in (options.begin, options.end) and options.begin > options.end:
        parser.error("--from is later than --to")
    for name in ("html", "pcap"):
        out = getattr(options, name)
        if out is not None and os.path.isfile(out) and _is_same_file(out, options.file):
            parser.error(f"--{name} would overwrite FILE itself; give another name")
    if options.html and options.pcap and _is_same_file(options.html, options.pcap):
        parser.error("--html and --pcap name the same file")


def _warn(text: str) -> None:
    print(f"trace: {printable(text)}", file=sys.stderr)


def _read(options: argparse.Namespace, progress: Progress) -> Recording:
    path = "/dev/stdin" if options.file == "-" else options.file
    if not options.from_log:
        return read_file(path, progress)
    from .from_log import read_log  # here and below: what only some options need

    return read_log(path)


def _tell_faults(recording: Recording, path: str) -> None:
    for fault in recording.faults[:10]:
        _warn(f"{path}: {fault}; passed over")
    if len(recording.faults) > 10:
        _warn(f"{path}: {len(recording.faults) - 10} more lines passed over")
    if not recording.is_whole and recording.start.get("source") != "log":
        _warn(f"{path}: has no end line (still running, or stopped): shown as far as it goes")


def _written(write: Callable[[Recording, str], object], recording: Recording, out: str,
             progress: Progress) -> bool:
    progress.begin(f"writing {printable(out)}")
    try:
        write(recording, out)
    except BrokenPipeError:
        raise
    except OSError as error:
        _warn(f"{out}: {error.strerror}")
        return False
    finally:
        progress.end()
    return True


def _write_files(options: argparse.Namespace, recording: Recording, progress: Progress) -> int:
    is_done = True
    if options.html:
        from .html import write_page

        is_done = _written(write_page, recording, options.html, progress)
    if options.pcap:
        from .pcap import write_pcap

        is_done = _written(write_pcap, recording, options.pcap, progress) and is_done
    return 0 if is_done else 1


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
    is_empty = True
    for line in lines:
        print(line)
        is_empty = False
    if is_empty:
        _warn(f"{options.file}: nothing passed at these places and times")


def run(options: argparse.Namespace) -> int:
    """0, or 1 after a sentence on standard error."""
    progress = Progress()
    try:
        recording = _read(options, progress)
    except RecordingError as error:
        _warn(f"{options.file}: {error}")
        return 1
    except OSError as error:
        _warn(f"{error.filename or options.file}: {error.strerror}")
        return 1
    finally:
        progress.end()
    _tell_faults(recording, options.file)
    if options.html or options.pcap:
        return _write_files(options, recording, progress)
    _show(options, recording)
    return 0


def _silence_output() -> None:
    """What is still held back must not fail once more in Python's own flush at exit."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), 1)


def main(arguments: Sequence[str] | None = None) -> int:
    """The exit status: 0 shown, 1 could not, 2 wrong usage."""
    parser = make_parser()
    options = parser.parse_args(arguments)
    _check(parser, options)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")
    try:
        status = run(options)
        sys.stdout.flush()
    except BrokenPipeError:
        _silence_output()  # whoever read has seen enough
        return 0
    except OSError as error:
        _warn(f"standard output: {error.strerror}")
        _silence_output()
        return 1
    except KeyboardInterrupt:
        return 130
    return status

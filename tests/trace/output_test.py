"""How files come about: whole or not at all, and on a terminal with a word of how far they are."""

import io
import tempfile
import unittest
from collections.abc import Iterator
from pathlib import Path

from vexa_trace.html import write_page
from vexa_trace.pcap import write_pcap
from vexa_trace.progress import Progress
from vexa_trace.recording import Event, Recording, read_file
from vexa_trace.whole_file import whole_file

_GOOD = Event(1, "at", "in", "", b"AT\r")


class _Interrupted(list[Event]):
    """Events of which the first one is taken and then Ctrl-C is pressed."""

    def __iter__(self) -> Iterator[Event]:
        yield _GOOD
        raise KeyboardInterrupt


class WholeFiles(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.out = self.folder / "out"

    def test_an_interruption_leaves_what_was_there(self) -> None:
        for write in (write_pcap, write_page):
            for before in (None, b"of before"):
                with self.subTest(write=write.__name__, before=before):
                    self.out.unlink(missing_ok=True)
                    if before is not None:
                        self.out.write_bytes(before)
                    recording = Recording({}, _Interrupted([_GOOD]), [], True)
                    with self.assertRaises(KeyboardInterrupt):
                        write(recording, str(self.out))
                    names = [path.name for path in self.folder.iterdir()]
                    self.assertEqual([] if before is None else ["out"], names)
                    if before is not None:
                        self.assertEqual(before, self.out.read_bytes())

    def test_a_device_is_written_as_it_stands(self) -> None:
        with whole_file("/dev/null") as file:
            file.write(b"gone")
        self.assertTrue(Path("/dev/null").is_char_device())


class _Terminal(io.StringIO):
    def isatty(self) -> bool:
        return True


class Words(unittest.TestCase):
    def setUp(self) -> None:
        self.now = 0.0

    def progress(self, stream: io.StringIO) -> Progress:
        return Progress(stream, lambda: self.now)

    def test_what_is_soon_done_needs_no_word(self) -> None:
        stream = _Terminal()
        progress = self.progress(stream)
        progress.tell("1 %")
        progress.end()
        self.assertEqual("", stream.getvalue())

    def test_a_line_is_rewritten_not_too_often_and_removed(self) -> None:
        stream = _Terminal()
        progress = self.progress(stream)
        for self.now, text in ((1.5, "50 %"), (1.6, "51 %"), (2.0, "9")):
            progress.tell(text)
        progress.end()
        self.assertEqual("\r50 %\r9   \r    \r", stream.getvalue())

    def test_without_a_terminal_there_is_none(self) -> None:
        stream = io.StringIO()
        progress = self.progress(stream)
        self.now = 5
        progress.tell("50 %")
        progress.begin("writing")
        progress.end()
        self.assertEqual("", stream.getvalue())

    def test_reading_a_file_tells_how_much_is_read(self) -> None:
        stream = _Terminal()
        progress = self.progress(stream)
        self.now = 5
        with tempfile.NamedTemporaryFile("w") as file:
            file.write('{"t":0,"at":"bench","what":"start","version":1}\n')
            file.write('{"t":1,"at":"at","dir":"in","data":"AT"}\n' * 5000)
            file.flush()
            self.assertEqual(5000, len(read_file(file.name, progress).events))
        self.assertRegex(stream.getvalue(), r"^\rreading, \d+ %$")


if __name__ == "__main__":
    unittest.main()

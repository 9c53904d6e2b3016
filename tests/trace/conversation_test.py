"""The lines that script/trace prints, and how it behaves as a program."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from made import END, START, happened, pack, recording, report, said
from vexa_trace.conversation import Conversation, View
from vexa_trace.recording import Recording
from vexa_trace.wording import Paint, escaped, span

SESSION = [
    report(10, 2, "at"),
    said(100, "at", "typed", b"AT+CGMR\r"),
    said(150, "at", "in", b"AT+CGMR\r"),
    said(200, "platform", "out", pack(b"AT+CGMR\r"), conn=2),
    said(900, "platform", "in", pack(b"\r\nV1\r\n") + pack(b"\r\nOK\r\n"), conn=2),
    said(950, "at", "out", b"\r\nV1\r\n\r\nOK\r\n"),
    said(1000, "cp-modem", "in", b"\r\n+CREG: 1\r\n"),
    happened(1100, "at", "mode", mode="ppp"),
    said(1200, "cp-at", "out", b"", asked=9, err="EAGAIN"),
    said(1300, "log", "out", b"a line\n"),
    happened(1400, "cp-at", "intent", size=16384),
]


def lines(made: Recording, view: View = View(), paint: Paint = Paint(False)) -> list[str]:
    return list(Conversation(made, view, paint).lines())


class Lines(unittest.TestCase):
    def test_aligned(self) -> None:
        shown = lines(recording(*SESSION))
        self.assertIn("    0.000150        at > daemon        8  AT+CGMR\\r", shown)
        self.assertIn("    0.000200    daemon > platform      8  [at command] AT+CGMR\\r", shown)
        self.assertIn("    0.000900  platform > daemon        6  [at command] \\r\\nOK\\r\\n",
                      shown)
        self.assertIn("    0.001100        --   at               mode is now ppp", shown)
        self.assertIn("    0.001200    daemon > cp-at         0  (EAGAIN; 0 of 9 bytes passed)",
                      shown)

    def test_a_port_stands_for_its_road(self) -> None:
        made = recording(*SESSION)
        for places, wanted, why in [
            ({"at"}, 9, "typed, read, its pack, the two answers, written, mode, refusal, report"),
            ({"cp-modem"}, 1, "a channel stands for itself"),
            ({"modem"}, 1, "its channel's text"),
            ({"log"}, 1, "the log only when asked for"),
            ({"uart"}, 0, "nothing passed there"),
        ]:
            with self.subTest(why):
                self.assertEqual(len(lines(made, View(frozenset(places)))), wanted)

    def test_times_are_inclusive(self) -> None:
        self.assertEqual(len(lines(recording(*SESSION), View(begin=150, end=200))), 2)

    def test_granted_intents_only_in_full(self) -> None:
        made = recording(*SESSION)
        self.assertFalse([line for line in lines(made) if "intent" in line])
        self.assertTrue([line for line in lines(made, View(full=True)) if "intent" in line])

    def test_refused_intents_always(self) -> None:
        made = recording(happened(1, "cp-at", "intent", size=16384, err="EINVAL"))
        self.assertTrue(lines(made)[0].endswith("receive intent of 16384 bytes failed: EINVAL"))

    def test_a_cut_frame_does_not_reach_over_a_change_of_mode(self) -> None:
        made = recording(happened(1, "uart", "mode", mode="mux"),
                         said(2, "uart", "out", b"\xf9\x09"),
                         happened(3, "uart", "mode", mode="command"),
                         happened(4, "uart", "mode", mode="mux"),
                         said(5, "uart", "out", b"\xef\x05OK"))
        self.assertNotIn("part of a frame", lines(made)[4])

    def test_a_cut_frame_does_not_reach_over_a_port_that_opens_anew(self) -> None:
        made = recording(happened(1, "uart", "mode", mode="mux"),
                         said(2, "uart", "in", bytes.fromhex("f909ef05")),
                         happened(3, "uart", "close"), happened(4, "uart", "open"),
                         said(5, "uart", "in", b"OK" + bytes.fromhex("d6f9")))
        self.assertNotIn("DLCI", lines(made)[4])

    def test_a_frame_reaches_over_another_ports_change_of_mode(self) -> None:
        made = recording(happened(1, "uart", "mode", mode="mux"),
                         said(2, "uart", "out", bytes.fromhex("f909ef05")),
                         happened(3, "modem", "mode", mode="ppp"),
                         said(4, "uart", "out", b"OK" + bytes.fromhex("d6f9")))
        self.assertIn("[DLCI 2 UIH] OK", lines(made)[3])

    def test_frames_are_opened_while_the_mode_is_mux(self) -> None:
        frame = bytes.fromhex("f909ef05") + b"OK" + bytes.fromhex("d6f9")
        made = recording(said(1, "uart", "out", frame), happened(2, "uart", "mode", mode="mux"),
                         said(3, "uart", "out", frame[:4]), said(4, "uart", "out", frame[4:]),
                         said(5, "uart", "out", b"\r\nOK\r\n"))
        texts = [line[42:] for line in lines(made)]
        self.assertEqual(texts[0], "\\xF9\\t\\xEF\\x05OK\\xD6\\xF9")
        self.assertEqual(texts[2:5], ["(part of a frame) \\xF9\\t\\xEF\\x05", "[DLCI 2 UIH] OK",
                                      "\\r\\nOK\\r\\n"])

    def test_unknown_places_and_events_are_shown(self) -> None:
        shown = lines(recording(happened(1, "moon", "rise", height=7, name="\x1b[2J")))
        self.assertTrue(shown[0].endswith("rise height=7 name=\\x1B[2J"), shown[0])

    def test_colours(self) -> None:
        self.assertFalse([line for line in lines(recording(*SESSION)) if "\033" in line])
        self.assertTrue("\033[36m" in "".join(lines(recording(*SESSION), paint=Paint(True))))

    def test_what_went_wrong_or_away_is_told_as_a_fault(self) -> None:
        for event, is_fault in [
            (happened(1, "bench", "platform-stop"), True),
            (happened(1, "bench", "platform-start"), False),
            (happened(1, "bench", "unplug", port="at"), True),
            (happened(1, "bench", "plug", port="at"), False),
            (happened(1, "bench", "daemon-ended", status=1), True),
            (happened(1, "bench", "daemon-ended", status=0), False),  # as it was asked to
            (happened(1, "platform", "hangup", conn=1), True),
            (happened(1, "platform", "connect", conn=1, err="ENOENT"), True),
            (happened(1, "cp-at", "open"), False),
        ]:
            with self.subTest(event=event):
                shown = lines(recording(event), paint=Paint(True))
                self.assertEqual("\033[31m" in shown[0], is_fault)


class Words(unittest.TestCase):
    def test_escapes(self) -> None:
        self.assertEqual(escaped(b"A\r\n\t\\\x00\x1b\xff~"), "A\\r\\n\\t\\\\\\x00\\x1B\\xFF~")

    def test_long_data_are_cut(self) -> None:
        self.assertEqual(escaped(b"x" * 64), "x" * 64)
        self.assertEqual(escaped(b"x" * 65), "x" * 64 + "… (65 bytes)")
        self.assertEqual(escaped(b"x" * 65, full=True), "x" * 65)

    def test_spans(self) -> None:
        for microseconds, text in [(999, "999 µs"), (1000, "1.00 ms"), (999_999, "1000.00 ms"),
                                   (1_000_000, "1.000 s")]:
            self.assertEqual(span(microseconds), text)


class Program(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "session.jsonl"
        self.write([START, *SESSION, END])

    def write(self, made: list[dict[str, object]], tail: str = "") -> None:
        self.path.write_text("".join(json.dumps(line) + "\n" for line in made) + tail)

    def run_trace(self, *options: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run([sys.executable, "-B", "-m", "vexa_trace", *options],
                              capture_output=True, text=True, check=False)

    def test_whole(self) -> None:
        done = self.run_trace(str(self.path))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertNotIn("\033", done.stdout)

    def test_cut_off(self) -> None:
        self.write([START, *SESSION], '{"t":5,"at":"a')
        done = self.run_trace(str(self.path))
        self.assertEqual(done.returncode, 0)
        self.assertIn("line 13 (cut off)", done.stderr)
        self.assertIn("no end line", done.stderr)

    def test_no_recording(self) -> None:
        self.path.write_text("hello\n")
        for path in (str(self.path), "/nonexistent", "/"):
            with self.subTest(path):
                done = self.run_trace(path)
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertEqual(len(done.stderr.splitlines()), 1)

    def test_wrong_usage(self) -> None:
        for options in (["--port", "moon"], ["--from", "nan"], ["--to", "-1"], []):
            with self.subTest(options):
                wanted = [str(self.path), *options] if options else []
                self.assertEqual(self.run_trace(*wanted).returncode, 2)

    def test_what_is_read_is_not_overwritten(self) -> None:
        before = self.path.read_bytes()
        for option in ("--html", "--pcap"):
            with self.subTest(option):
                done = self.run_trace(str(self.path), option, f"{self.path.parent}/./session.jsonl")
                self.assertEqual(done.returncode, 2)
                self.assertIn("would overwrite", done.stderr)
                self.assertEqual(self.path.read_bytes(), before)

    def test_a_reader_that_goes_is_no_fault(self) -> None:
        self.write([START, *(SESSION * 5000), END])
        with subprocess.Popen([sys.executable, "-B", "-m", "vexa_trace", str(self.path)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as trace:
            assert trace.stdout and trace.stderr
            trace.stdout.readline()
            trace.stdout.close()
            self.assertEqual(trace.stderr.read(), b"")
            self.assertEqual(trace.wait(), 0)

    def test_output_that_cannot_hold_every_character(self) -> None:
        self.write([START, said(1, "at", "in", b"x" * 99), END])
        done = subprocess.run([sys.executable, "-B", "-m", "vexa_trace", str(self.path)],
                              env=os.environ | {"PYTHONIOENCODING": "ascii"},
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0)
        self.assertIn("\\u2026 (99 bytes)", done.stdout)


if __name__ == "__main__":
    unittest.main()

"""The reader of recordings against good, broken and hostile files."""

import json
import unittest

from made import END, START, happened, recording, said
from vexa_trace.recording import RecordingError, read_lines

GOOD = json.dumps(said(5, "at", "in", b"\x00\xff")) + "\n"


class BrokenLines(unittest.TestCase):
    ROWS = [
        ('{"t":1,"at":"at","dir":"in","data":"A', "cut off in the middle"),
        ("[" * 100_000 + "\n", "nested without end"),
        ('{"t":true,"at":"at"}\n', "a time that is none"),
        ('{"t":-1,"at":"at"}\n', "before all time"),
        ('{"t":' + "9" * 5000 + ',"at":"at"}\n', "a number without end"),
        ('{"t":1.5,"at":"at"}\n', "a time with a fraction"),
        ('{"t":1,"at":7}\n', "a place that is no text"),
        ('{"t":1,"at":"at","dir":"up"}\n', "no such direction"),
        ('{"t":1,"at":"at","dir":"in","data":"\\u2026"}\n', "a character that is no byte"),
        ('{"t":1,"at":"at","dir":"in","data":["A"]}\n', "data that are no text"),
        ("\n", "an empty line"),
        ("7\n", "no object"),
    ]

    def test_each_is_told_and_passed_over(self) -> None:
        for line, why in self.ROWS:
            with self.subTest(why):
                read = read_lines([json.dumps(START) + "\n", line, GOOD])
                self.assertEqual([event.data for event in read.events], [b"\x00\xff"])
                self.assertEqual(len(read.faults), 1)
                self.assertIn("line 2", read.faults[0])
                self.assertFalse(read.is_whole)

    def test_no_recording(self) -> None:
        for first, why in [("", "empty"), ("hello\n", "text"), ("{}\n", "no start"),
                           (json.dumps(START | {"version": 2}) + "\n", "another version"),
                           (json.dumps(START | {"t": None}) + "\n", "no time")]:
            with self.subTest(why), self.assertRaises(RecordingError):
                read_lines([first] if first else [])


class Order(unittest.TestCase):
    def test_two_writers_are_sorted_and_times_begin_at_the_start(self) -> None:
        read = recording(said(20, "at", "in", b"B"), said(10, "at", "typed", b"A"))
        self.assertEqual([event.t for event in read.events[:2]], [10, 20])
        self.assertTrue(read.is_whole)

    def test_lines_after_the_end_do_not_unmake_it(self) -> None:
        late = happened(9_000_000_001, "cp-at", "hangup")
        lines = [json.dumps(line) + "\n" for line in (START, END, late)]
        self.assertTrue(read_lines(lines).is_whole)

    def test_fields_of_the_wrong_kind_are_none(self) -> None:
        event = recording(happened(1, "at", "mode", mode=7, n="x", conn=True)).events[0]
        self.assertEqual((event.text("mode"), event.number("n"), event.number("conn")),
                         ("", None, None))


if __name__ == "__main__":
    unittest.main()

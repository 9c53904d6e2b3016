#!/usr/bin/env python3
"""Holds docs/recording.md against a recording: every line's place, event and fields are told there.
usage: recording_page_test.py VEXA_BENCH"""

from __future__ import annotations

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from typing import Any

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BENCH = sys.argv.pop()
PAGE = (ROOT / "docs/recording.md").read_text(encoding="utf-8")
HOST_PORTS = {"modem", "at", "uart", "pcie"}
CHANNELS = {"cp-modem", "cp-at", "cp-uart"}
GROUPS = {"host ports": HOST_PORTS, "modem channels": CHANNELS,
          "host ports but `pcie`": HOST_PORTS - {"pcie"}}

# What is done to the module in each recording, so that nearly every row of the page comes up.
SESSIONS = [
    (["--port", "modem"], ["AT+CFUN?", "AT+CGMR", "/signal DTR off", "/unplug modem", "/unplug at",
                           "/plug at", "/plug modem", "AT", "/platform stop", "/platform start",
                           "AT", "/scenario MODEM", 'AT+CMGS="+15550100"', "See you"]),
    (["--port", "udp"], ["AT", "AT+CGMR"]),
    (["--port", "qmi"], ["AT"]),
    # Answers go to the pipe while it is live: the last step is the one that ends that.
    (["--port", "pcie"], ["AT", "/mhi connect", "AT", "/mhi disconnect 32"]),
    (["--port", "mux"], ["AT"]),
]


def table(title: str) -> list[list[str]]:
    """The cells of the rows below the first table behind the title."""
    text = PAGE.split(f"\n### {title}\n", 1)[1]
    rows = [line.strip("|").split(" | ") for line in text.splitlines() if line.startswith("|")]
    return [[cell.strip(" |") for cell in row] for row in rows[2:]]


def named(cell: str) -> set[str]:
    return set(re.findall(r"`([^`]+)`", cell))


def places(cell: str) -> set[str]:
    if cell in GROUPS:
        return GROUPS[cell]
    parts = [GROUPS.get(part, named(part)) for part in cell.split(", ")]
    return set().union(*parts)


def recorded(options: list[str], typed: list[str]) -> list[dict[str, Any]]:
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "session.jsonl"
        script = "\n".join(typed).replace("MODEM", f"{ROOT}/bench/scenarios/modem-default.txt")
        done = subprocess.run([BENCH, "--time-out", "60", "--record", str(file), *options],
                              input=script + "\n", capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise AssertionError(done.stdout + done.stderr)
        return [json.loads(line) for line in file.read_text(encoding="utf-8").splitlines()]


class RecordingPage(unittest.TestCase):
    lines: list[dict[str, Any]]

    @classmethod
    def setUpClass(cls) -> None:
        cls.lines = [line for session in SESSIONS for line in recorded(*session)]

    def test_every_event_has_its_row(self) -> None:
        rows = [(places(row[0]), named(row[1]), row[2]) for row in table("Events")]
        self.assertGreater(len(rows), 10)
        events = {(line["at"], line["what"], *sorted(line.keys() - {"t", "at", "what"}))
                  for line in self.lines if "what" in line}
        for at, what, *fields in sorted(events):
            with self.subTest(at=at, what=what):
                told = [words for where, names, words in rows if at in where and what in names]
                self.assertEqual(len(told), 1)
                if what != "start":  # the page shows its line
                    self.assertLessEqual(set(fields), named(told[0]))
        self.assertGreater(len({event[1] for event in events}), 12)

    def test_the_first_line_has_the_fields_of_the_page(self) -> None:
        shown = re.search(r'^    \{"t":81200000.*?\}\}$', PAGE, re.M | re.S)
        assert shown is not None
        self.assertEqual(set(json.loads(shown.group(0))), set(self.lines[0]))

    def test_every_field_of_bytes_is_told(self) -> None:
        told = {"at", "t"}.union(*(named(row[0]) for row in table("Bytes")),
                                 *(named(row[1]) for row in table("Bytes") if "`kind`" in row[0]))
        seen = set().union(*(line.keys() for line in self.lines if "dir" in line))
        self.assertLessEqual(seen, told)
        self.assertIn("kind", seen)

    def test_every_place_is_listed(self) -> None:
        listed = PAGE.split("| Place | What it is |", 1)[1].split("###", 1)[0]
        rows = [row for row in listed.splitlines() if row.startswith("| `")]
        told = set().union(*(named(row.split("|")[1]) for row in rows))
        seen = {line["at"] for line in self.lines}
        self.assertLessEqual(seen, told)
        self.assertLessEqual(told - {"cp-uart"}, seen)


if __name__ == "__main__":
    unittest.main()

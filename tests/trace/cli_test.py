"""The command line: what it refuses, with which status, and what it says then."""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from made import END, START, said

_LINES = [START, said(5, "at", "in", b"AT\r"), END]
_SESSION = "".join(json.dumps(line, separators=(",", ":")) + "\n" for line in _LINES)
_LOG = "2026-11-21 16:26:40 main(10):main enter. 201909191715.0.0.\r\n"


class CommandLine(unittest.TestCase):
    def setUp(self) -> None:
        self._folder = tempfile.TemporaryDirectory()
        self.folder = Path(self._folder.name)
        self.session = self.folder / "session.jsonl"
        self.session.write_text(_SESSION)
        (self.folder / "log").write_text(_LOG)
        (self.folder / "empty").touch()

    def tearDown(self) -> None:
        self._folder.cleanup()

    def trace(self, arguments: str, output: str = "") -> tuple[int, str]:
        """The status, and what stood on standard error."""
        command = [sys.executable, "-B", "-m", "vexa_trace", *arguments.split()]
        with open(output or self.folder / "shown", "w", encoding="utf-8") as out:
            done = subprocess.run(command, cwd=self.folder, text=True, stdout=out, check=False,
                                  stderr=subprocess.PIPE)
        return done.returncode, done.stderr

    def expect(self, rows: list[tuple[str, str]], status: int) -> None:
        for arguments, message in rows:
            with self.subTest(arguments):
                found, said_then = self.trace(arguments)
                self.assertEqual(found, status, said_then)
                self.assertIn(message, said_then)
                self.assertNotIn("Traceback", said_then)
                self.assertEqual(self.session.read_text(), _SESSION)

    def test_wrong_usage(self) -> None:
        self.expect([
            ("", "required: FILE"),
            ("--what-happened session.jsonl", "right after --what-happened is its PATTERN"),
            ("session.jsonl --port moon", "invalid choice: 'moon'"),
            ("session.jsonl --from soon", "a number of seconds is wanted"),
            ("session.jsonl --to nan", "a number of seconds is wanted"),
            ("session.jsonl --from 2 --to 1", "--from is later than --to"),
            ("session.jsonl --html session.jsonl", "would overwrite FILE itself"),
            ("session.jsonl --pcap ./session.jsonl", "would overwrite FILE itself"),
            ("session.jsonl --html out --pcap out", "the same file"),
            ("session.jsonl --html -", "a file's name is wanted"),
        ], 2)

    def test_what_cannot_be_done(self) -> None:
        self.expect([
            ("nowhere", "nowhere: No such file or directory"),
            (".", ".: Is a directory"),
            ("empty", "empty: empty; is this a recording?"),
            ("log", "needs --from-log"),
            ("--from-log session.jsonl", "leave --from-log out"),
            ("--from-log empty", "no message of the daemon"),
            ("session.jsonl --html nowhere/page", "nowhere/page: No such file or directory"),
            ("session.jsonl --pcap nowhere/page", "nowhere/page: No such file or directory"),
            ("session.jsonl --html /dev/full", "/dev/full: No space left on device"),
            ("session.jsonl --pcap /dev/full", "/dev/full: No space left on device"),
        ], 1)

    def test_output_that_takes_nothing(self) -> None:
        status, said_then = self.trace("session.jsonl", "/dev/full")
        self.assertEqual((status, said_then),
                         (1, "trace: standard output: No space left on device\n"))

    def test_shown(self) -> None:
        self.expect([
            ("session.jsonl", ""),
            ("session.jsonl --port qmi", "nothing passed at these places and times"),
            ("session.jsonl --html page --pcap packets", ""),
            ("--from-log log", ""),
        ], 0)

    def test_a_link_stays_and_what_it_leads_to_is_written(self) -> None:
        for option in ("--html", "--pcap"):
            page = self.folder / f"of{option}"
            page.write_text("old")
            link = self.folder / f"link{option}"
            link.symlink_to(page.name)
            self.assertEqual(self.trace(f"session.jsonl {option} {link.name}"), (0, ""))
            self.assertTrue(link.is_symlink())
            self.assertGreater(len(page.read_bytes()), 100)

    def test_standard_output_by_its_name(self) -> None:
        self.assertEqual(self.trace("session.jsonl --html /dev/stdout"), (0, ""))
        self.assertIn("<!DOCTYPE html>", (self.folder / "shown").read_text())
        self.assertTrue(Path("/dev/stdout").is_symlink())


if __name__ == "__main__":
    unittest.main()

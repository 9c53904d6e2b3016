"""The log of a real daemon on the simulated module, read again."""

from __future__ import annotations

import os
import subprocess
import tempfile
import unittest

from vexa_trace.from_log import read_log
from vexa_trace.recording import Event

_BENCH = os.environ["VEXA_BENCH"]


def _log_of(script: str, *options: str) -> list[Event]:
    """What the daemon's log tells of a script that was typed at the console."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "log")
        command = [_BENCH, "--log", path, "--time-out", "60", *options]
        done = subprocess.run(command, input=script, text=True, capture_output=True, check=False)
        if done.returncode != 0:
            raise AssertionError(f"{command} ended with {done.returncode}: {done.stderr}")
        return read_log(path).events


class Daemon(unittest.TestCase):
    def assert_in_order(self, events: list[Event], expected: list[tuple[str, str, bytes]]) -> None:
        rest = iter(events)
        for at, way, data in expected:
            found = any(
                (event.at, event.dir or event.what, event.data) == (at, way, data)
                for event in rest
            )
            self.assertTrue(found, f"no {(at, way, data)} in its place in {events}")

    def test_command_that_the_modem_answers(self) -> None:
        events = _log_of("AT+CFUN?\n")
        self.assert_in_order(events, [("at", "open", b""), ("at", "in", b"AT+CFUN?\r")])
        self.assert_in_order(events, [("cp-at", "open", b""), ("cp-at", "out", b"AT+CFUN?\r"),
                                      ("at", "out", b"\r\n+CFUN: 1\r\n")])  # fmt: skip
        self.assert_in_order(events, [("cp-at", "in", b"\r\n+CFUN: 1\r\n"),
                                      ("cp-at", "in", b"\r\nOK\r\n")])  # fmt: skip

    def test_command_that_the_platform_answers(self) -> None:
        events = _log_of("AT+CGMR\nAT+CFUN?\n", "--port", "modem")
        packs = [event for event in events if event.at == "platform" and event.dir == "in"]
        self.assertEqual([event.fields.get("port") for event in packs[:1]], ["modem"])
        self.assertEqual(b"".join(event.data for event in packs)[:4], b"kcap")
        answers = [event for event in events if event.at == "modem" and event.dir == "out"]
        self.assertTrue(answers[0].data.startswith(b"AT+CGMR\r\r\n"), answers)
        self.assert_in_order(events, [("modem", "in", b"AT+CGMR\r"),
                                      ("cp-modem", "out", b"AT+CFUN?\r")])  # fmt: skip

    def test_udp_client(self) -> None:
        events = _log_of("AT+CFUN?\n", "--port", "udp")
        self.assert_in_order(events, [("udp", "in", b"AT+CFUN?\r"), ("udp", "served", b""),
                                      ("cp-at", "out", b"AT+CFUN?\r"),
                                      ("udp", "out", b"\r\n+CFUN: 1\r\n")])  # fmt: skip

    def test_every_line_of_the_log_is_known(self) -> None:
        events = _log_of("mux open\nAT+CFUN?\nAT+CGMR\n", "--port", "mux")
        self.assert_in_order(events, [("uart", "mode", b""), ("cp-uart", "out", b"AT+CFUN?\r"),
                                      ("cp-uart", "in", b"\r\n+CFUN: 1\r\n")])  # fmt: skip
        noted = {event.data for event in events if event.at == "log"}
        noted = {text for text in noted if not text.startswith((b"cat: ", b"main enter."))}
        self.assertEqual(noted, set())


if __name__ == "__main__":
    unittest.main()

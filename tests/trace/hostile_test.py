"""Recordings that somebody made up: whatever stands in them, they are shown."""

import json
import random
import unittest
from typing import Any

from made import START
from vexa_trace.conversation import Conversation, View
from vexa_trace.recording import CP_CHANNELS, HOST_PORTS, Recording, read_lines
from vexa_trace.report import Report
from vexa_trace.wording import Paint

PLACES = (*HOST_PORTS, *CP_CHANNELS, "platform", "udp", "qmi", "uevent", "log", "bench",
          "moon", "", "\x1bplace")
WHATS = ("open", "close", "mode", "hangup", "connect", "unplug", "plug", "lines", "lines-read",
         "mhi", "scenario", "daemon-ended", "settings", "intent", "end", "start", "rise")
VALUES: tuple[Any, ...] = (
    None, True, -1, 0, 2, 1 << 70, 1.5, "mux", "command", "ppp", "at", "moon", "request", "answer",
    "EPIPE", [], ["a\x1b", 1], {}, {"a": []}, "\ud800\x1b[2J")
PIECES = ("AT", "AT+CFUN?\r", "A/", "\r\nOK\r\n", "kcap", "\u00f9", "\u00f9\u0009\u00ef\u0005OK",
          "\x00", "\b", "\x1a", ">", "+++", "ATE0V1\r", "\u00ff" * 50)
FIELDS = ("conn", "peer", "kind", "result", "error", "asked", "err", "port", "mode", "speed",
          "size", "lines", "unknown", "channel", "change", "status", "name", "n")


def made_up(source: random.Random) -> Recording:
    """Forty lines of the right shape and with anything in them."""
    lines: list[dict[str, Any]] = [START]
    for _ in range(40):
        line: dict[str, Any] = {"t": source.randrange(1000, 1 << 40), "at": source.choice(PLACES)}
        if source.random() < 0.7:
            line["dir"] = source.choice(("typed", "in", "out"))
            line["data"] = "".join(source.choices(PIECES, k=source.randrange(4)))
        else:
            line["what"] = source.choice(WHATS)
        for name in source.sample(FIELDS, source.randrange(4)):
            line[name] = source.choice(VALUES)
        lines.append(line)
    return read_lines(json.dumps(line) + "\n" for line in lines)


class Hostile(unittest.TestCase):
    def test_shown(self) -> None:
        source = random.Random(51)
        for number in range(400):
            with self.subTest(number):
                recording = made_up(source)
                self.assertEqual(len(recording.events), 40)
                paint = Paint(False)
                told = [*Conversation(recording, View(full=True), paint).lines(),
                        *Report(recording, View(), paint).lines("")]
                self.assertFalse([line for line in told if "\x1b" in line or "\n" in line])


if __name__ == "__main__":
    unittest.main()

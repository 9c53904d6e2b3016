"""The rig measures everybody, and its work under callgrind can be told apart by its amount."""

from __future__ import annotations

import json
import subprocess
import sys
import unittest
from pathlib import Path
from typing import Any

RIG = Path(sys.argv.pop())
COMMANDED = {"pty pair", "plain bridge", "socat", "daemon", "daemon, log off"}
EVERYBODY = COMMANDED | {"resting bridge"}  # of streams alone: commands do not wait for its rests


def run(*arguments: str) -> list[dict[str, Any]]:
    done = subprocess.run([RIG, *arguments], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"status {done.returncode}: {done.stderr}")
    return [json.loads(line) for line in done.stdout.splitlines()]


class Rig(unittest.TestCase):
    def test_everybody_is_measured_in_every_way(self) -> None:
        records = run("rounds", "--rounds", "1", "--latency-commands", "3",
                      "--rate-seconds", "0.05", "--to-modem-seconds", "0.05",
                      "--to-host-seconds", "0.05")
        for by in EVERYBODY:
            of_one = [record for record in records if record["by"] == by]
            streams = {(record["direction"], record["chunk"]) for record in of_one
                       if record["figure"] == "stream"}
            self.assertEqual(len(streams), 4, by)
            rates = {record["ports"] for record in of_one if record["figure"] == "rate"}
            self.assertEqual(rates, {1, 3} if by in COMMANDED else set(), by)
            samples = [record["samples_ns"] for record in of_one if record["figure"] == "latency"]
            self.assertEqual([len(times) for times in samples], [3] if by in COMMANDED else [], by)
        self.assertEqual({record["by"] for record in records}, EVERYBODY)

    def test_every_kind_of_work_is_done(self) -> None:
        for kind in ("modem", "modem_three_ports", "modem_log_off", "platform", "udp", "mux",
                     "typed", "ppp_to_modem", "ppp_to_host", "line_16000"):
            with self.subTest(kind):
                self.assertGreater(run("work", kind, "3")[0]["cpu_us_each"], 0)

    def test_unknown_work_is_wrong_usage(self) -> None:
        done = subprocess.run([RIG, "work", "nonsense", "3"], capture_output=True, check=False)
        self.assertEqual(done.returncode, 2)


if __name__ == "__main__":
    unittest.main()

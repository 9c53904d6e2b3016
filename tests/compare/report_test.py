"""What script/bench-compare makes of the rig's objects."""

from __future__ import annotations

import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree
from pathlib import Path
from typing import Any

from report import page, svg
from report.figures import judge, percentile, sum_up


def latency(by: str, *microseconds: float) -> dict[str, Any]:
    return {"by": by, "figure": "latency", "samples_ns": [time * 1e3 for time in microseconds]}


def rate(by: str, a_second: float, ports: int = 1, command: str = "modem") -> dict[str, Any]:
    return {"by": by, "figure": "rate", "command": command, "ports": ports,
            "commands_a_second": a_second, "cpu_us_a_command": 5.0, "taken_ns": [1e6, 3e6, 2e6]}


def stream(by: str, speed: float, direction: str = "to modem", chunks: int = 0) -> dict[str, Any]:
    return {"by": by, "figure": "stream", "direction": direction, "chunk": 1500, "seconds": 0.5,
            "mib_a_second": speed, "cpu_ms_a_mib": 4.0, "chunks_read": chunks}


class Sums(unittest.TestCase):
    def test_a_figure_is_the_median_of_its_rounds(self) -> None:
        summed = sum_up([rate("socat", 10), rate("socat", 1000), rate("socat", 20)])
        self.assertEqual(summed["socat"]["rate_1"], 20)
        self.assertEqual(summed["socat"]["taken_us"], 2000)

    def test_answers_are_pooled_over_the_rounds(self) -> None:
        summed = sum_up([latency("daemon", 1, 2), latency("daemon", 3, 100, 200)])
        self.assertEqual(summed["daemon"]["answer_us_median"], 3)
        self.assertEqual(summed["daemon"]["answer_us_p99"], 200)

    def test_a_percentile_of_many(self) -> None:
        self.assertEqual(percentile([float(value) for value in range(1, 10001)], 0.99), 9901)
        self.assertEqual(percentile([7.0], 0.99), 7)

    def test_the_platforms_commands_are_figures_of_their_own(self) -> None:
        summed = sum_up([rate("daemon", 500), rate("daemon", 900, 3, "platform")])
        self.assertEqual(summed["daemon"]["rate_1"], 500)
        self.assertEqual(summed["daemon"]["platform_rate_3"], 900)

    def test_a_rest_is_the_machines_not_a_contestants_answer(self) -> None:
        summed = sum_up([{"by": "pty pair", "figure": "rest", "samples_ns": [1e6, 1.1e6, 9e6]}])
        self.assertEqual(summed["pty pair"], {"rest_ms": 1.1, "rests_a_second": 1e3 / 1.1})

    def test_a_chunk_to_the_host_is_timed_where_chunks_were_counted(self) -> None:
        summed = sum_up([stream("daemon", 3, "to host", 250), stream("socat", 50, "to host")])
        self.assertEqual(summed["daemon"]["chunk_ms_1500"], 2)
        self.assertNotIn("chunk_ms_1500", summed["socat"])


class Verdicts(unittest.TestCase):
    def verdict(self, daemon: float, socat: float) -> bool:
        summed = sum_up([latency("daemon", daemon), latency("socat", socat)])
        return judge(summed)[0].met

    def test_both_sides_of_a_ratio(self) -> None:
        self.assertTrue(self.verdict(125, 100))
        self.assertFalse(self.verdict(126, 100))

    def test_both_sides_of_a_rate(self) -> None:
        self.assertTrue(judge(sum_up([rate("daemon", 450)]))[0].met)
        self.assertFalse(judge(sum_up([rate("daemon", 449)]))[0].met)

    def test_a_stream_is_held_against_a_bridge_that_rests_too(self) -> None:
        for daemon, met in ((95, True), (94, False)):
            summed = sum_up([stream("resting bridge", 100, "to host"),
                             stream("daemon", daemon, "to host")])
            self.assertEqual([verdict.met for verdict in judge(summed)], [met], daemon)

    def test_the_platforms_rate_is_held_against_the_rests_of_this_machine(self) -> None:
        rest = {"by": "pty pair", "figure": "rest", "samples_ns": [1.25e6]}  # 800 a second
        for daemon, met in ((720, True), (719, False)):
            verdicts = judge(sum_up([rest, rate("daemon", daemon, 1, "platform")]))
            self.assertEqual([verdict.met for verdict in verdicts], [False, met], daemon)

    def test_a_ratio_is_told_with_how_far_it_is_to_be_trusted(self) -> None:
        # Two that lie 2 apart around 10: 1.2533 * 1.414 / sqrt(2) / 10 = 0.125 of it.
        summed = sum_up([stream(by, speed) for by in ("daemon", "socat") for speed in (9, 11)])
        ratio = judge(summed)[0]
        self.assertAlmostEqual(ratio.error or 0, 0.125 * 2 ** 0.5, places=3)
        self.assertIn("1.00 ± 0.18", page.verdict_rows([ratio])[1])
        self.assertIsNone(judge(sum_up([stream("daemon", 9), stream("socat", 9)]))[0].error)

    def test_what_was_not_measured_is_not_judged(self) -> None:
        self.assertEqual(judge(sum_up([latency("daemon", 1)])), [])


class Pages(unittest.TestCase):
    OUTCOME: dict[str, Any] = {
        "date": "2026-01-01", "rounds": 1, "load_before": 0.0, "load_after": 0.5,
        "machine": {"cpu": "a CPU", "cores": "2", "kernel": "6.1", "system": "a system"},
        "figures": sum_up([latency("socat", 100), latency("daemon", 110)]),
        "cpu_us": {"modem": 50.0}}

    def test_only_what_stands_between_the_marks_is_replaced(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "page.md"
            file.write_text(f"before\n{page.BEGIN}\nold\n{page.END}\nbehind\n", encoding="utf-8")
            for _ in range(2):
                page.update(file, self.OUTCOME, judge(self.OUTCOME["figures"]), "picture.svg")
            text = file.read_text(encoding="utf-8")
        self.assertTrue(text.startswith("before\n") and text.endswith("behind\n"))
        self.assertNotIn("old", text)
        self.assertEqual(text.count("| answer, median | µs | 100 | 110 |"), 1)
        self.assertIn("met", text)

    def test_a_page_without_marks_is_left_alone(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "page.md"
            file.write_text("words", encoding="utf-8")
            with self.assertRaises(SystemExit):
                page.update(file, self.OUTCOME, [], "picture.svg")
            self.assertEqual(file.read_text(encoding="utf-8"), "words")

    def test_the_picture_is_well_formed_and_names_everybody(self) -> None:
        picture = svg.draw(self.OUTCOME["figures"], "a < b & c")
        xml.etree.ElementTree.fromstring(picture)
        for name in ("socat", "daemon", "110"):
            self.assertIn(f">{name}<", picture)

    def test_every_row_of_the_table_is_as_wide_as_its_head(self) -> None:
        rows = page.rows_of(sum_up([latency("socat", 1), rate("daemon", 2)]))
        self.assertEqual({len(row) for row in rows}, {4})


class Places(unittest.TestCase):
    """The rig is a program that cannot be started: nothing may come to it."""

    def told(self, *arguments: str) -> tuple[int, str]:
        done = subprocess.run([sys.executable, "-B", "-m", "report", "--rig", "/dev/null",
                               *arguments], capture_output=True, text=True, check=False)
        return done.returncode, done.stderr

    def test_a_place_that_cannot_be_written_is_told_before_anything_is_measured(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "file"
            file.write_text("words", encoding="utf-8")
            good = str(Path(folder) / "good")
            for arguments, said in [
                    (("--json", f"{file}/below", "--svg", good), f"{file}: File exists"),
                    (("--json", good, "--svg", folder), f"{folder}: Is a directory"),
                    (("--json", good, "--update", f"{folder}/none.md"), "No such file"),
                    (("--json", good, "--update", str(file)), "the marks for the figures")]:
                with self.subTest(arguments=arguments):
                    status, words = self.told(*arguments)
                    self.assertIn(status, (1, 2))
                    self.assertIn(said, words)
                    self.assertNotIn("Traceback", words)


if __name__ == "__main__":
    unittest.main()

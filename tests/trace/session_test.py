"""A session on the simulated module, recorded by the bench and told by script/trace."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

BENCH = os.environ["VEXA_BENCH"]
DEADLINE = 120  # seconds, generous: only a bench that hangs takes as long
TYPED = "AT+CFUN?\nAT+CGMR\nATE0\nAT+CFUN?\n"  # the last keeps the bench until ATE0 is answered


class Session(unittest.TestCase):
    folder: "tempfile.TemporaryDirectory[str]"
    told: dict[str, list[str]] = {}

    @classmethod
    def setUpClass(cls) -> None:
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        path = str(pathlib.Path(cls.folder.name) / "session.jsonl")
        subprocess.run([BENCH, "--record", path], input=TYPED, text=True, timeout=DEADLINE,
                       capture_output=True, check=True)
        done = subprocess.run([sys.executable, "-B", "-m", "vexa_trace", path, "--what-happened"],
                              text=True, timeout=DEADLINE, capture_output=True, check=True)
        assert done.stderr == "", done.stderr
        cls.told = {}
        for block in done.stdout.split("\n\n"):
            head, *rest = block.splitlines()
            cls.told.setdefault(head.split("\\r")[0], rest)

    def legs(self, command: str) -> list[str]:
        """The legs without their times."""
        return [line[28:].strip() for line in self.told[command][1:]]

    def test_cp_command(self) -> None:
        self.assertIn("went to CP (cp-at); CP answered OK; ", self.told["AT+CFUN?"][0])
        legs = self.legs("AT+CFUN?")
        self.assertEqual(legs[:3], ["typed on at", "read by the daemon on at",
                                    "written to cp-at  AT+CFUN?\\r"])
        self.assertIn("read from cp-at  \\r\\n+CFUN: 1\\r\\n", legs)
        self.assertEqual(legs[-1], "written to at")

    def test_platform_command(self) -> None:
        self.assertIn("went to the platform; the platform answered OK; ", self.told["AT+CGMR"][0])
        self.assertIn("written to platform  AT+CGMR\\r", self.legs("AT+CGMR"))
        self.assertEqual(self.legs("AT+CGMR")[-1], "written to at")

    def test_command_of_both(self) -> None:
        self.assertIn("went to CP (cp-at) and the platform; ", self.told["ATE0"][0])
        self.assertIn("the platform answered OK", self.told["ATE0"][0])
        for leg in ("written to cp-at  ATE0\\r", "written to platform  ATE0\\r"):
            self.assertIn(leg, self.legs("ATE0"))


if __name__ == "__main__":
    unittest.main()

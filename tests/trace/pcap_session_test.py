"""A multiplexed session on the simulated module, recorded and read by tshark."""

from __future__ import annotations

import os
import subprocess
import tempfile
import unittest

from vexa_trace.pcap import write_pcap
from vexa_trace.recording import read_file

_BENCH = os.environ["VEXA_BENCH"]
_DEADLINE = 120  # seconds, generous: only a bench that hangs takes as long
_TYPED = """\
mux open
AT+CFUN?
AT+CGMR
ATD*99#
hello
mux send 2 AT+COPS?\\r
mux expect 2 OK
mux expect 4 hello
"""


class Session(unittest.TestCase):
    folder: "tempfile.TemporaryDirectory[str]"
    path: str

    @classmethod
    def setUpClass(cls) -> None:
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        recording = os.path.join(cls.folder.name, "session.jsonl")
        command = [_BENCH, "--port", "mux", "--record", recording, "--time-out", "60"]
        subprocess.run(command, input=_TYPED, text=True, timeout=_DEADLINE, capture_output=True,
                       check=True)  # fmt: skip
        cls.path = os.path.join(cls.folder.name, "session.pcapng")
        write_pcap(read_file(recording), cls.path)

    def fields(self, only: str, *names: str) -> list[list[str]]:
        command = ["tshark", "-r", self.path, "-Y", only, "-T", "fields", "-E", "occurrence=f"]
        for name in names:
            command += ["-e", name]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, f"is tshark there (script/bootstrap)? {done.stderr}")
        return [line.split("\t") for line in done.stdout.splitlines()]

    def test_set_up_of_the_channels(self) -> None:
        found = self.fields("mux27010", "mux27010.direction", "mux27010.address.dlciaddress",
                            "mux27010.control.frametype", "mux27010.checksum_correct")  # fmt: skip
        sabm, agreed = "0x2f", "0x63"
        expected = []
        for dlci in ("0", "1", "2"):
            expected += [["0x00", dlci, sabm, "1"], ["0x01", dlci, agreed, "1"]]
        # The fourth acknowledgement has SABM's type and a UA's check sequence.
        expected += [["0x00", "4", sabm, "1"], ["0x01", "4", sabm, ""]]
        self.assertEqual(found[:8], expected)
        self.assertEqual({tuple(row[2:]) for row in found[8:]}, {("0xef", "1")})

    def test_every_command_and_answer_is_in_a_frame(self) -> None:
        for direction, dlci, text in (
            (0, 2, "AT+CFUN?"), (1, 2, "+CFUN: 1"), (0, 2, "AT+CGMR"), (1, 2, "VEXA"),
            (0, 4, "ATD*99#"), (1, 4, "CONNECT"), (0, 4, "hello"), (1, 4, "hello"),
            (0, 2, "AT+COPS?"), (1, 2, "+COPS:"),
        ):  # fmt: skip
            only = f"mux27010.direction == {direction} && mux27010.address.dlciaddress == {dlci}"
            self.assertTrue(self.fields(f'{only} && frame contains "{text}"', "frame.number"),
                            f"{text} on DLCI {dlci}")  # fmt: skip

    def test_what_is_outside_frames_is_the_beginning(self) -> None:
        found = self.fields('frame.interface_name == "uart" && data', "data.data")
        self.assertEqual([bytes.fromhex(row[0]) for row in found],
                         [b"AT+CMUX=0\r", b"\r\nOK\r\n"])  # fmt: skip

    def test_modem_channel_beside_it(self) -> None:
        found = self.fields('frame.interface_name == "cp-uart" && data', "rtacser.eventtype",
                            "data.data")  # fmt: skip
        self.assertIn(["0x01", b"AT+CFUN?\r".hex()], found)
        self.assertIn(["0x02", b"\r\n+CFUN: 1\r\n".hex()], found)


if __name__ == "__main__":
    unittest.main()

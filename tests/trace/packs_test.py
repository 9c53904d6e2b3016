"""Packs of the platform link: whole, cut, glued and false."""

import struct
import unittest

from made import pack, recording, report, said
from vexa_trace.packs import connection_ports, split_packs

GOLDEN_REPORT_OF_AT = bytes.fromhex(
    "6b636170 30000000 00000000 00000000 00000000"
    "04000000 00000000 00000000 00000000 00000000 00000000 01000000")


class Packs(unittest.TestCase):
    def test_port_report(self) -> None:
        self.assertEqual(split_packs(GOLDEN_REPORT_OF_AT)[0].reported_port, "at")

    def test_kinds(self) -> None:
        names = {0: "indication", 1: "command", 2: "data", 3: "online command", 9: "kind 9"}
        for kind, name in names.items():
            with self.subTest(kind):
                self.assertEqual(split_packs(pack(b"x", kind))[0].kind, name)

    def test_glued(self) -> None:
        found = split_packs(pack(b"\r\nA\r\n") + pack(b"") + pack(b"\r\nOK\r\n", 2))
        self.assertEqual([one.payload for one in found], [b"\r\nA\r\n", b"", b"\r\nOK\r\n"])

    def test_every_cut_is_told(self) -> None:
        whole = pack(b"\r\nOK\r\n")
        for size in range(1, len(whole)):
            with self.subTest(size):
                (found,) = split_packs(whole[:size])
                self.assertTrue(found.fault)
                self.assertEqual(found.payload, whole[:size])

    def test_false_lengths(self) -> None:
        for size in (0, 43, 51, 2**32 - 1):  # 50 is right
            with self.subTest(size):
                data = bytearray(pack(b"\r\nOK\r\n"))
                struct.pack_into("<I", data, 4, size)
                self.assertTrue(split_packs(bytes(data))[0].fault)

    def test_text_without_a_frame(self) -> None:
        self.assertTrue(split_packs(b"x" * 60)[0].fault)

    def test_first_report_counts(self) -> None:
        made = recording(report(1, 3, "uart"), report(2, 1, "at"), report(3, 3, "modem"),
                         said(4, "platform", "out", pack(b"AT\r"), conn=2))
        self.assertEqual(connection_ports(made.events), {3: "uart", 1: "at"})


if __name__ == "__main__":
    unittest.main()

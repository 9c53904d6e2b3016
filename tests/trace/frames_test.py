"""Multiplexer frames: golden ones, cut and glued at every byte, and junk."""

import random
import unittest

from vexa_trace.frames import Frame, FrameReader, check_sequence

SABM_0 = bytes.fromhex("f9033f011cf9")
UA_0 = bytes.fromhex("f9037301d7f9")
UIH_2 = bytes.fromhex("f909ef05") + b"OK" + bytes.fromhex("d6f9")


def frames_of(*chunks: bytes) -> list[Frame]:
    reader = FrameReader()
    return [frame for chunk in chunks for frame in reader.feed(chunk)]


def uih(address: int, information: bytes) -> bytes:
    size = len(information)
    length = bytes((size * 2 + 1,)) if size < 128 else bytes((size * 2 & 0xFE, size >> 7))
    head = bytes((address, 0xEF)) + length
    return b"\xf9" + head + information + bytes((check_sequence(head), 0xF9))


class Golden(unittest.TestCase):
    ROWS = [
        (SABM_0, "SABM", 0, True, b""),
        (UA_0, "UA", 0, True, b""),
        (UIH_2, "UIH", 2, False, b"OK"),
        (uih(0x13, b"x" * 127), "UIH", 4, True, b"x" * 127),
        (uih(0x13, b"x" * 128), "UIH", 4, True, b"x" * 128),  # two length bytes
        (uih(0x09, b"\xf9\xf9"), "UIH", 2, False, b"\xf9\xf9"),  # flags within
    ]

    def test_rows(self) -> None:
        for raw, kind, dlci, command, information in self.ROWS:
            with self.subTest(raw=raw[:12]):
                (frame,) = frames_of(raw)
                self.assertEqual((frame.kind, frame.dlci, frame.command, frame.information),
                                 (kind, dlci, command, information))
                self.assertTrue(frame.fcs_fits)

    def test_the_check_of_ui_covers_its_information(self) -> None:
        body = b"\x09\x03\x05OK"
        (frame,) = frames_of(b"\xf9" + body + bytes((check_sequence(body), 0xF9)))
        self.assertEqual((frame.kind, frame.fcs_fits), ("UI", True))
        (frame,) = frames_of(b"\xf9" + body + bytes((check_sequence(body[:3]), 0xF9)))
        self.assertFalse(frame.fcs_fits)

    def test_wrong_check(self) -> None:
        (frame,) = frames_of(bytes.fromhex("f9133f015df9"))
        self.assertEqual((frame.kind, frame.fcs_fits), ("SABM", False))


class Stream(unittest.TestCase):
    def test_cut_anywhere(self) -> None:
        stream = SABM_0 + b"\xf9\xf9" + UIH_2 + UIH_2[1:] + UA_0
        for step in range(1, len(stream) + 1):
            with self.subTest(step):
                chunks = [stream[i : i + step] for i in range(0, len(stream), step)]
                kinds = [frame.kind for frame in frames_of(*chunks)]
                self.assertEqual(kinds, ["SABM", "UIH", "UIH", "UA"])

    def test_text_around_frames(self) -> None:
        found = frames_of(b"\r\nOK\r\n" + SABM_0 + b"huh" + UA_0)
        self.assertEqual([frame.kind for frame in found], ["", "SABM", "", "UA"])
        self.assertEqual([frame.information for frame in found], [b"\r\nOK\r\n", b"", b"huh", b""])

    def test_a_frame_that_does_not_end_gives_way_to_the_next(self) -> None:
        found = frames_of(b"\xf9\x09\xef\x05OKxx" + UA_0)
        self.assertEqual(found[-1].kind, "UA")

    def test_rest(self) -> None:
        reader = FrameReader()
        reader.feed(UA_0 + UIH_2[:4])
        self.assertEqual(reader.rest(), UIH_2[:4])
        reader.feed(UA_0)
        self.assertEqual(reader.rest(), b"")

    def test_no_byte_is_lost_or_made_up(self) -> None:
        source = random.Random(27010)
        for _ in range(300):
            made = bytes(source.choice(b"\xf9\x09\xef\x05\x03A") for _ in range(60))
            reader = FrameReader()
            found = reader.feed(made)
            raw = b"".join(frame.raw for frame in found) + reader.rest()
            # Flags may be shared or repeated; every other byte stays, in its order.
            self.assertEqual(raw.replace(b"\xf9", b""), made.replace(b"\xf9", b""))


if __name__ == "__main__":
    unittest.main()

"""What the page is given to draw."""

from __future__ import annotations

import unittest
from typing import Any

from recordings import Lines, pack, port_report, usual
from vexa_trace.picture import FROM_DAEMON, NOTE, TO_DAEMON, TYPED, Picture, make_picture


def picture(lines: Lines) -> Picture:
    return make_picture(lines.recording())


def labels(lines: Lines) -> list[str]:
    return [one.label for one in picture(lines).shown][:-1]


def bands(lines: Lines) -> list[tuple[str, str, str, int, int | None]]:
    return [(b.lane, b.kind, b.name, b.begin, b.end) for b in picture(lines).bands]


class LanesTest(unittest.TestCase):
    def test_only_lanes_that_occur_and_the_daemon(self) -> None:
        lines = Lines()
        lines.octets(1, "at", "in", b"AT\r")
        self.assertEqual(["at", "daemon", "bench"], [n for n, _, _ in picture(lines).lanes])

    def test_what_the_bench_does_to_a_port_stands_on_its_lane(self) -> None:
        lines = Lines()
        lines.add(1, "bench", what="unplug", port="at")
        lines.add(1, "bench", what="platform-stop")
        lines.add(1, "bench", what="daemon-ended", status=0)
        lines.add(1, "bench", what="unplug", port=7)
        found = [one.lane for one in picture(lines).shown]
        self.assertEqual(["at", "platform", "daemon", "bench", "bench"], found)

    def test_unknown_places_cannot_fill_the_picture(self) -> None:
        lines = Lines()
        for number in range(1000):
            lines.add(1, f"place {number}", what="x")
        found = [name for name, _, _ in picture(lines).lanes]
        self.assertEqual(["daemon", "bench", "place 0", "place 1", "place 2", "place 3", "other"],
                         found)

    def test_kinds(self) -> None:
        lines = Lines()
        lines.octets(1, "at", "typed", b"A")
        lines.octets(1, "at", "in", b"A")
        lines.octets(1, "at", "out", b"A")
        lines.add(1, "at", what="open")
        lines.add(1, "qmi", dir="in", kind="request", data="AT")
        lines.add(1, "qmi", dir="in", kind="answer", data="OK")
        kinds = [one.kind for one in picture(lines).shown][:-1]
        self.assertEqual([TYPED, TO_DAEMON, FROM_DAEMON, NOTE, TO_DAEMON, FROM_DAEMON], kinds)


class LabelsTest(unittest.TestCase):
    def test_packs_are_shown_by_payload_and_port(self) -> None:
        lines = Lines()
        lines.octets(1, "platform", "out", port_report(4), conn=3)
        lines.octets(1, "platform", "out", pack(1, b"ATI\r"), conn=3)
        lines.octets(1, "platform", "in", pack(0, b"up") + pack(1, b"OK"), conn=3)
        lines.octets(1, "platform", "in", b"junk", conn=9)
        wanted = ["uart · port report: uart", "uart · ATI\\r", "uart · (indication) up uart · OK",
                  "? · (4 bytes, less than the heads of a pack) junk"]
        self.assertEqual(wanted, labels(lines))

    def test_frames_of_the_multiplexer_while_it_runs(self) -> None:
        sabm = b"\xf9\x07\x3f\x01\xde\xf9"  # DLCI 1
        lines = Lines()
        lines.octets(1, "uart", "in", sabm)
        lines.add(1, "uart", what="mode", mode="mux")
        lines.octets(1, "uart", "in", sabm[:3])
        lines.octets(1, "uart", "in", sabm[3:])
        lines.add(1, "uart", what="mode", mode="command")
        lines.octets(1, "uart", "in", sabm)
        wanted = ["", "mode mux", "… of a frame", "DLCI 1 SABM", "mode command", ""]
        self.assertEqual(wanted, labels(lines))

    def test_what_failed_says_so(self) -> None:
        rows: list[tuple[dict[str, Any], str]] = [
            ({"dir": "out", "n": 0, "asked": 4, "err": "EAGAIN"}, "EAGAIN 0 of 4 bytes"),
            ({"dir": "out", "n": 2, "asked": 4, "data": "AT"}, "2 of 4 bytes: AT"),
            ({"dir": "in", "n": 0, "data": "", "err": "EIO"}, "EIO"),
            ({"dir": "in", "n": 0, "data": ""}, "end of file"),
            ({"dir": "in", "n": 12, "unknown": ["data"]}, "12 bytes, not known"),
            ({"what": "open", "err": "ENOENT"}, "open failed: ENOENT"),
            ({"what": "lines-read", "lines": "DTR RTS"}, "lines-read DTR RTS"),
            ({"what": "lines-set", "lines": ""}, "lines-set none"),
            ({"what": "settings", "speed": 115200}, "settings speed 115200"),
        ]
        for fields, wanted in rows:
            lines = Lines()
            lines.add(1, "at", **fields)
            with self.subTest(wanted):
                self.assertEqual([wanted], labels(lines))

    def test_labels_have_a_limit(self) -> None:
        lines = Lines()
        lines.add(1, "at", what="x" * 100_000)
        lines.octets(1, "platform", "in", pack(1, b"y" * 16_000), conn=1)
        self.assertTrue(all(len(label) <= 400 for label in labels(lines)))


class BandsTest(unittest.TestCase):
    def test_modes_last_until_the_next(self) -> None:
        lines = Lines()
        for mode in ("command", "sms", "sms", "ppp", "command", "data"):
            lines.add(1, "modem", what="mode", mode=mode)
        wanted = [("modem", "mode", "sms", 1, 3), ("modem", "mode", "ppp", 3, 4),
                  ("modem", "mode", "data", 5, None)]
        self.assertEqual(wanted, bands(lines))

    def test_faults(self) -> None:
        lines = Lines()
        lines.add(1, "bench", what="unplug", port="uart")
        lines.add(1, "uart", what="close")
        lines.add(1, "uart", what="open", err="EIO")
        lines.add(1, "bench", what="plug", port="uart")
        lines.add(1, "uart", what="open")
        lines.add(1, "bench", what="platform-stop")
        lines.add(1, "cp-uart", dir="out", n=0, asked=3, data="", err="EAGAIN")
        lines.add(1, "cp-uart", dir="out", n=1, asked=3, data="A")
        lines.octets(1, "cp-uart", "out", b"AT\r")
        lines.add(1, "bench", what="platform-start")
        lines.add(1, "bench", what="daemon-ended", status=1)
        wanted = [
            ("uart", "fault", "unplugged", 0, 3), ("uart", "fault", "closed", 1, 4),
            ("platform", "fault", "stopped", 5, 9), ("cp-uart", "fault", "writes fail", 6, 8),
            ("daemon", "fault", "ended", 10, None),
        ]
        self.assertEqual(wanted, bands(lines))

    def test_faults_are_marked(self) -> None:
        marked = [one.event.what or one.event.at for one in picture(usual()).shown if one.is_fault]
        self.assertEqual(["cp-modem", "unplug"], marked)


if __name__ == "__main__":
    unittest.main()

"""Captures as Wireshark's command-line sister reads them."""

from __future__ import annotations

import os
import subprocess
import tempfile
import unittest
from typing import Any

from vexa_trace.frames import check_sequence
from vexa_trace.pcap import Summary, write_pcap
from vexa_trace.recording import Event, Recording

_START = {"wall": "2026-11-21T15:40:00.123456Z"}
_SABM, _UA, _DM, _DISC, _UIH = 0x3F, 0x73, 0x1F, 0x53, 0xEF


def _frame(dlci: int, command: bool, control: int, information: bytes = b"") -> bytes:
    head = bytes((dlci << 2 | (2 if command else 0) | 1, control, len(information) << 1 | 1))
    return b"\xf9" + head + information + bytes((check_sequence(head),)) + b"\xf9"


def _mux_events(*rows: tuple[str, bytes]) -> list[Event]:
    events = [Event(0, "uart", "", "mode", b"", {"mode": "mux"})]
    return events + [Event(i, "uart", way, "", data) for i, (way, data) in enumerate(rows, 1)]


class Capture(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "out.pcap")

    def write(self, events: list[Event], start: dict[str, Any] | None = None) -> Summary:
        recording = Recording(_START if start is None else start, events, [], True)
        return write_pcap(recording, self.path)

    def fields(self, *names: str, only: str = "") -> list[str]:
        """One text for each packet: the fields with commas between them."""
        command = ["tshark", "-r", self.path, "-T", "fields", "-E", "separator=,"]
        command += ["-E", "occurrence=f"]
        command += ["-Y", only] if only else []
        for name in names:
            command += ["-e", name]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, f"is tshark there (script/bootstrap)? {done.stderr}")
        return done.stdout.splitlines()


class Serial(Capture):
    def test_direction_lines_and_bytes_of_every_packet(self) -> None:
        rows = (  # event, expected: interface, event type, cts, dcd, dsr, rts, dtr, ring, bytes
            (Event(1, "at", "in", "", b"AT\r"), "at,0x02,0,0,0,0,0,0,41540d"),
            (Event(2, "cp-at", "out", "", b"AT\r"), "cp-at,0x01,0,0,0,0,0,0,41540d"),
            (Event(3, "at", "", "lines-read", b"", {"lines": "DTR RTS"}), "at,0x00,0,0,0,1,1,0,"),
            (Event(4, "at", "out", "", b"OK"), "at,0x01,0,0,0,1,1,0,4f4b"),
            (Event(5, "cp-at", "in", "", b"OK"), "cp-at,0x02,0,0,0,0,0,0,4f4b"),
            (Event(6, "at", "", "lines-set", b"", {"lines": "CTS CD DSR RI"}),
             "at,0x00,1,1,1,0,0,1,"),
            (Event(7, "at", "in", "", b"\x00\xff"), "at,0x02,1,1,1,0,0,1,00ff"),
            (Event(8, "bench", "", "lines", b"", {"port": "uart", "lines": "DTR"}),
             "uart,0x00,0,0,0,0,1,0,"),
            (Event(9, "uart", "in", "", b"a"), "uart,0x02,0,0,0,0,1,0,61"),
            (Event(10, "pcie", "in", "", b"b"), "pcie,0x02,0,0,0,0,0,0,62"),
            (Event(11, "modem", "out", "", b"c"), "modem,0x01,0,0,0,0,0,0,63"),
            (Event(12, "platform", "out", "", b"kcap"), "platform,0x01,0,0,0,0,0,0,6b636170"),
            (Event(13, "udp", "in", "", b"AT"), "udp,0x02,0,0,0,0,0,0,4154"),
        )  # fmt: skip
        summary = self.write([event for event, _ in rows])
        self.assertEqual(summary, Summary(packets=len(rows)))
        names = ("cts", "dcd", "dsr", "rts", "dtr", "ring")
        found = self.fields("frame.interface_name", "rtacser.eventtype",
                            *(f"rtacser.{name}" for name in names), "data.data")  # fmt: skip
        self.assertEqual(found, [expected for _, expected in rows])

    def test_times_are_of_the_day_in_both_heads(self) -> None:
        self.write([Event(0, "at", "in", "", b"a"), Event(1_900_000, "at", "in", "", b"b")])
        found = self.fields("frame.time_epoch", "rtacser.timestamp")
        expected = ["1795275600.123456000", "1795275602.023456000"]
        self.assertEqual(found, [f"{time},{time}" for time in expected])

    def test_recording_without_a_date_begins_in_1970(self) -> None:
        starts: list[dict[str, Any]] = [{}, {"wall": "yesterday"}, {"wall": 5}]
        starts.append({"wall": "0001-01-01T00:00:00Z"})
        for start in starts:
            self.write([Event(1_000_000, "at", "in", "", b"a")], start)
            self.assertEqual(self.fields("frame.time_epoch"), ["1.000000000"], start)

    def test_what_the_format_has_no_field_for_is_a_comment(self) -> None:
        rows = (
            (Event(1, "modem", "", "mode", b"", {"mode": "ppp"}), "mode mode=ppp"),
            (Event(2, "at", "", "open", b"", {"err": "ENOENT"}), "open err=ENOENT"),
            (Event(3, "at", "out", "", b"", {"n": 0, "asked": 4, "err": "EAGAIN"}), "out: EAGAIN"),
            (Event(4, "at", "in", "", b"", {"n": 0}), "in: end of file"),
            (Event(5, "udp", "in", "", b"AT", {"peer": "127.0.0.1:9"}), "peer=127.0.0.1:9"),
            (Event(6, "bench", "", "unplug", b"", {"port": "at"}), "unplug port=at"),
            (Event(7, "bench", "", "platform-stop"), "platform-stop"),
            (Event(8, "cp-at", "", "intent", b"", {"err": "EIO"}), "intent err=EIO"),
        )
        self.write([event for event, _ in rows])
        self.assertEqual(self.fields("frame.comment"), [expected for _, expected in rows])

    def test_bytes_that_are_not_known_are_marked_as_lost(self) -> None:
        self.write([Event(1, "at", "in", "", b"", {"n": 9, "unknown": ["data"]})])
        self.assertEqual(
            self.fields("rtacser.eventtype", "frame.comment"),
            ["0x05,in: 9 bytes that are not known"],
        )

    def test_other_places_and_what_was_typed_are_left_out(self) -> None:
        summary = self.write(
            [
                Event(1, "at", "typed", "", b"AT"),
                Event(2, "log", "out", "", b"text"),
                Event(3, "uevent", "in", "", b"change@"),
                Event(3, "cp-at", "", "intent", b"", {"size": 16384}),
                Event(4, "bench", "", "unplug", b"", {"port": ["at"]}),
                Event(5, "elsewhere", "in", "", b"x"),
            ]
        )
        self.assertEqual(summary, Summary())
        self.assertEqual(self.fields("frame.number"), [])

    def test_long_chunk_becomes_several_packets(self) -> None:
        self.write([Event(1, "at", "in", "", bytes(70_000))])
        self.assertEqual(self.fields("frame.len"), ["65012", "5012"])

    def test_times_no_clock_can_show(self) -> None:
        self.write([Event(time, "at", "in", "", b"a") for time in (-(2**80), 2**80)])
        self.assertEqual(len(self.fields("frame.number")), 2)

    def test_file_that_cannot_be_written(self) -> None:
        with self.assertRaises(OSError):
            write_pcap(Recording({}, [], [], True), self.path + "/not/there")


class Multiplexer(Capture):
    def test_every_frame_is_named(self) -> None:
        rows = (  # direction; DLCI, C/R, type, check sequence good
            ("in", _frame(0, True, _SABM), "0x00,0,1,0x2f,1"),
            ("out", _frame(0, True, _UA), "0x01,0,1,0x63,1"),
            ("in", _frame(2, True, _UIH, b"AT+CFUN?\r"), "0x00,2,1,0xef,1"),
            ("out", _frame(2, False, _UIH, b"\r\nOK\r\n"), "0x01,2,0,0xef,1"),
            ("in", _frame(4, True, _UIH, b"ATD*99#\r"), "0x00,4,1,0xef,1"),
            ("out", _frame(4, False, _UIH, b"\r\nCONNECT\r\n"), "0x01,4,0,0xef,1"),
            ("out", _frame(4, False, _UIH, b"\xf9" * 127), "0x01,4,0,0xef,1"),
            ("in", _frame(4, True, _DISC), "0x00,4,1,0x43,1"),
            ("out", _frame(4, True, _DM), "0x01,4,1,0x0f,1"),
        )
        for size in (1, 2, 3, 200):  # cut anywhere, the directions' pieces in turn
            pieces = [(way, data[i : i + size]) for way, data, _ in rows
                      for i in range(0, len(data), size)]  # fmt: skip
            summary = self.write(_mux_events(*pieces))
            self.assertEqual((summary.frames, summary.bytes_outside_frames), (len(rows), 0))
            found = self.fields(
                "mux27010.direction", "mux27010.address.dlciaddress", "mux27010.address.craddress",
                "mux27010.control.frametype", "mux27010.checksum_correct", only="mux27010",
            )  # fmt: skip
            self.assertEqual(found, [expected for _, _, expected in rows])

    def test_frames_stand_beside_the_bytes_of_other_ports(self) -> None:
        sabm = _frame(0, True, _SABM)
        events = _mux_events(("in", sabm[:3])) + [Event(5, "cp-at", "in", "", b"RING")]
        self.write(events + [Event(6, "uart", "in", "", sabm[3:])])
        self.assertEqual(
            self.fields("frame.interface_name", "frame.time_relative", "data.data"),
            ["uart,0.000000000,", "cp-at,0.000005000,52494e47", "uart frames,0.000006000,"],
        )

    def test_bytes_outside_frames_are_kept_as_serial_bytes(self) -> None:
        before = [Event(-2, "uart", "in", "", b"AT+CMUX=0\r")]
        after = _mux_events(("in", b"junk" + _frame(0, True, _SABM)), ("in", b"\xf9\x03"))
        summary = self.write(before + after)
        self.assertEqual(summary.frames, 1)
        self.assertEqual(summary.bytes_outside_frames, len(b"junk") + 2)
        self.assertEqual(
            self.fields("frame.interface_name", "data.data", only="data"),
            ["uart,41542b434d55583d300d", "uart,6a756e6b", "uart,f903"],
        )

    def test_frame_that_was_begun_ends_with_the_session(self) -> None:
        events = _mux_events(("in", _frame(0, True, _SABM)[:4]))
        events += [Event(7, "uart", "", "open"), Event(8, "uart", "in", "", _frame(1, True, _SABM))]
        summary = self.write(events)
        self.assertEqual((summary.frames, summary.bytes_outside_frames), (1, 4))


if __name__ == "__main__":
    unittest.main()

"""What a log tells, and that no bytes of a log are too odd."""

from __future__ import annotations

import random
import tempfile
import unittest
from typing import Any

from vexa_trace.from_log import read_log, read_log_bytes
from vexa_trace.recording import Event, RecordingError

_T = "2026-11-21 15:13:44 "
_LATER = "2026-11-21 15:13:46 "

# A command of the AT port, as two threads wrote it: their stamps and functions mix.
_COMMAND = (
    "POLLIN is set.\n"
    f"{_T}read_chunk(283):read from '/dev/at_usb1' num_read 9.\r\n"
    f"{_T}write_all(43):write to '/dev/smd7' returned 9, bytes_remaining: 0.\n"
    f"{_T}pass(196):read from '/dev/smd7' num_read: 12.\r\n"
    f"{_LATER}{_LATER}pass(202):wake_waiting_command(174):"
    "buf contains(modem_to_usb_bridge_glink_atport) '\r\n+CFUN: 1\r\n'.buf_len:12.0.\r\n"
    "!!!!!<<<<<<<<<<<<<<<<<<<< mport app-plat<<<<<<<<<<<<<<<<<<<!!!!!\r\n"
    f"{_LATER}track_modes(254):after recv data clean g_at_buf_cache(at CP) :<AT+CFUN?\r>.\r\n"
    f"{_LATER}write_all(43):write to '/dev/at_usb1' returned 12, bytes_remaining: 0.\n"
)


def _told(log: str | bytes) -> list[Event]:
    data = log if isinstance(log, bytes) else log.encode("latin-1")
    return read_log_bytes(data).events


def _short(event: Event) -> tuple[str, str, bytes, dict[str, Any]]:
    return event.at, event.dir or event.what, event.data, event.fields


class Conversation(unittest.TestCase):
    maxDiff = None

    def test_command_its_road_and_its_answer(self) -> None:
        guess = ["data"]
        self.assertEqual(
            [(event.t, event.line, *_short(event)) for event in _told(_COMMAND)],
            [
                (0, 2, "at", "in", b"AT+CFUN?\r", {"n": 9, "guessed": guess}),
                (0, 3, "cp-at", "out", b"AT+CFUN?\r", {"n": 9, "guessed": guess}),
                (0, 4, "cp-at", "in", b"\r\n+CFUN: 1\r\n", {"n": 12}),
                (2_000_000, 10, "at", "out", b"\r\n+CFUN: 1\r\n", {"n": 12, "guessed": guess}),
            ],
        )

    def test_log_of_a_terminal_program_that_adds_carriage_returns(self) -> None:
        self.assertEqual(
            [_short(event) for event in _told(_COMMAND.replace("\n", "\r\n"))],
            [_short(event) for event in _told(_COMMAND)],
        )

    def test_start_says_what_no_log_tells(self) -> None:
        recording = read_log_bytes(_COMMAND.encode())
        self.assertEqual(recording.start["source"], "log")
        self.assertEqual(recording.start["wall"], "2026-11-21T15:13:44")
        self.assertEqual(recording.start["unknown"], ["time within the second", "time zone"])

    def test_length_decides_where_a_chunk_ends(self) -> None:
        end = "'.buf_len:5.0.\r\n"
        reader = "buf contains(modem_to_usb_bridge_glink) '"
        chunk = f"a{end}read from '/dev/at_usb1' num_read 9.\r\nb"
        events = _told(f"{_T}pass(202):{reader}{chunk}'.buf_len:{len(chunk)}.0.\r\n")
        self.assertEqual([event.data for event in events], [chunk.encode()])

    def test_lengths_that_differ_are_not_guessed_from(self) -> None:
        log = _COMMAND.replace("num_read 9", "num_read 7").replace("returned 12", "returned 11")
        events = _told(log)
        self.assertEqual(_short(events[0]), ("at", "in", b"", {"n": 7, "unknown": ["data"]}))
        self.assertEqual(_short(events[3]), ("at", "out", b"", {"n": 11, "unknown": ["data"]}))

    def test_platform_answer_is_known_to_the_byte(self) -> None:
        pack = b"kcap\x2e\x00\x00\x00" + bytes(36) + b"OK"
        dump = b"".join(b"(%c) " % byte for byte in pack)
        log = b"\r\n======= iret:46==========>>>\r\n" + dump + b"\r\n<<<=================\r\n"
        named = "!!!!!<<<<<<<<<<<<<<<<<<<< uartport app-plat<<<<<<<<<<<<<<<<<<<!!!!!\r\n".encode()
        self.assertEqual(
            [_short(event) for event in _told(log + named)],
            [("platform", "in", pack, {"n": 46, "port": "uart"})],
        )
        cut = _told(log[:100])[0]
        self.assertEqual(cut.fields, {"n": 46, "unknown": ["data", "port"]})
        self.assertTrue(pack.startswith(cut.data))

    def test_answer_with_echo_tells_the_command(self) -> None:
        log = (
            "read from '/dev/at_usb1' num_read 8.\r\n"
            "send data sucess. sock:18,:iret:52.\r\n"
            "\r\n======= iret:1==========>>>\r\n(k) \r\n<<<=================\r\n"
            "atcmd response(atport). open ate1 <AT+CGMR\r>...<\r\nOK\r\n>,14.\r\n"
            "write to '/dev/at_usb1' returned 14, bytes_remaining: 0.\n"
        )
        self.assertEqual(
            [_short(event) for event in _told(log)],
            [
                ("at", "in", b"AT+CGMR\r", {"n": 8, "guessed": ["data"]}),
                ("platform", "out", b"",
                 {"n": 52, "unknown": ["data"], "port": "at", "guessed": ["port"]}),
                ("platform", "in", b"k", {"n": 1, "port": "at"}),
                ("at", "out", b"AT+CGMR\r\r\nOK\r\n", {"n": 14, "guessed": ["data"]}),
            ],
        )  # fmt: skip

    def test_frames_are_made_of_their_head_and_the_answer(self) -> None:
        log = (
            "buf contains(modem_to_usb_bridge_glink_uartport) '\r\nOK\r\n'.buf_len:6.5.\r\n"
            "assemble_uih_respone_packet input exit. 9, out_len:12, crc:0xd8.\r\n"
            "write to '/dev/ttyMSM1' returned 12, bytes_remaining: 0.\n"
        )
        last = _told(log)[-1]
        self.assertEqual(last.data, b"\xf9\x09\xef\x0d\r\nOK\r\n\xd8\xf9")


class Rows(unittest.TestCase):
    maxDiff = None

    ROWS: tuple[tuple[str, list[tuple[str, str, bytes, dict[str, Any]]]], ...] = (
        ("====>:Blocking open on '/dev/at_usb0' fd:14.\r\n", [("modem", "open", b"", {})]),
        ("====>:Blocking open on '/dev/ttyMSM1' fd:-1.\r\n",
         [("uart", "open", b"", {"err": "failed", "unknown": ["err"]})]),
        ("modem_to_usb_bridge_glink Attempting to open '/dev/at_mdm0'...\r\n" * 2
         + "OPEN THE FILE mdm_fd.\r\n",
         [("cp-modem", "open", b"", {"err": "failed", "unknown": ["err"]}),
          ("cp-modem", "open", b"", {})]),
        ("usb_to_modem_bridge Attempting to open '/dev/at_usb0'...\r\n", []),
        ("OPEN THE FILE mdm_uartport_fd.\r\n", [("cp-uart", "open", b"", {})]),
        ("close_fd_mutexed file_path enter:/dev/smd7, fd:4.0\r\n"
         "close_fd_Mutexed file_path close:/dev/smd7, fd:-1.\r\n"
         "close_fd_mutexed file_path close:/dev/smd7, fd:-1.0.\r\n", [("cp-at", "close", b"", {})]),
        ("TIOCMGET on '/dev/at_usb0' returned 0, signals=0x6 (0x0 | DTR | RTS)\r\n",
         [("modem", "lines-read", b"", {"lines": "DTR RTS"})]),
        ("TIOCMSET on '/dev/at_mdm0' returned -1, signals=0x1c0 (0x100 | CD | RI)\r\n",
         [("cp-modem", "lines-set", b"",
           {"lines": "DSR CD RI", "err": "failed", "unknown": ["err"]})]),
        ("set_uart_attr fd:25, nspeed:115200, nBits:8, event:N, stop:1.\r\n",
         [("uart", "settings", b"", {"speed": 115200})]),
        ("Queuing RX Intent for '/dev/smd7'.\r\n",
         [("cp-at", "intent", b"", {"unknown": ["size"]})]),
        ("read from '/dev/at_usb0' num_read -1.\r\n",
         [("modem", "in", b"", {"n": 0, "err": "failed", "unknown": ["err"]})]),
        ("read from '/dev/smd7' num_read: 0.\r\n", [("cp-at", "in", b"", {"n": 0})]),
        ("write to '/dev/at_usb0' returned 3, bytes_remaining: 4.\n",
         [("modem", "out", b"", {"n": 3, "asked": 7, "unknown": ["data"]})]),
        ("Failed to write to '/dev/at_usb0' due to err [Input/output error]\n",
         [("modem", "out", b"", {"n": 0, "err": "Input/output error", "unknown": ["asked"]})]),
        ("retrying now... Failed to write to '/dev/smd7'[4] due to err [Try again] or num_written "
         "[-1], retry_count:0.\n",
         [("cp-at", "out", b"", {"n": 0, "err": "Try again", "unknown": ["asked"]})]),
        ("buf contains(modem_to_usb_bridge_glink) 'ab'.buf_len:5.3.\r\n",
         [("cp-modem", "in", b"ab", {"n": 5, "unknown": ["data after its first NUL"]}),
          ("modem", "mode", b"", {"mode": "ppp"})]),
        ("buf contains 'RING'\r\n",
         [("cp-modem", "in", b"RING", {"n": 4, "unknown": ["port", "data after its first NUL"]})]),
        ("we got > enter sms mode '\r\n> '.buf_len:4.2.\r\n",
         [("modem", "mode", b"", {"mode": "sms"})]),
        ("buf contains(modem_to_usb_bridge_glink) 'x'.buf_len:1.3.\r\n"
         "read from '/dev/at_usb0' num_read 3.\r\nwe got +++, exit ppp mode. 3.0.\n",
         [("cp-modem", "in", b"x", {"n": 1}), ("modem", "mode", b"", {"mode": "ppp"}),
          ("modem", "in", b"+++", {"n": 3, "guessed": ["data"]}),
          ("modem", "mode", b"", {"mode": "command", "guessed": ["port"]})]),
        ("client conenct local OK.\r\n", [("platform", "connect", b"", {"unknown": ["port"]})]),
        ("client conenct failed, info:No such file or directory,\r\n"
         "new connection uart port is failed.(m_fd:-1,at_fd:-1, uart_fd:4)sleep 3s...\r\n",
         [("platform", "connect", b"", {"err": "No such file or directory", "port": "uart"})]),
        ("client conenct local OK.\r\nnew connection is at port OK again.\r\n",
         [("platform", "connect", b"", {"port": "at"})]),
        ("POLLHUP is hang up(mport), close socket it.\r\n",
         [("platform", "hangup", b"", {"port": "modem"})]),
        ("send data failed,fd:4, iret:-1, err_info:Broken pipe.\r\n",
         [("platform", "out", b"", {"n": 0, "err": "Broken pipe", "unknown": ["asked", "port"]})]),
        ("recv_udp_cmd_from_client(read_len:9):> 10.0.0.2 5001 says >: AT+CFUN?\r, len:9.\r\n"
         "set g_at_over_sokcet_enable in udp.1,0,0.\r\n"
         "send_udp_result_to_client in. send_buf:<\r\nOK\r\n>, ip:<10.0.0.2>, port:<5001>.\r\n"
         "send_udp_result_to_client sendto succesfully. send_buf_len:6, send_len:6.\r\n"
         "set g_at_over_sokcet_enable in atport.\r\n",
         [("udp", "in", b"AT+CFUN?\r", {"n": 9, "peer": "10.0.0.2:5001"}),
          ("udp", "served", b"", {}),
          ("udp", "out", b"\r\nOK\r\n", {"n": 6, "peer": "10.0.0.2:5001"}),
          ("udp", "released", b"", {})]),
        ("send_udp_result_to_client sendto error.send_len:-1, error info:Message too long.\r\n",
         [("udp", "out", b"", {"n": 0, "err": "Message too long", "peer": ""})]),
        ("MUX package format error.\r\n",
         [("uart", "mode", b"", {"mode": "mux"}),
          ("log", "out", b"MUX package format error.", {"noted": True})]),
        ("Received MHI uevent with MHI_CHANNEL_STATE_32=CONNECTED state: 0,0,0\r\n",
         [("uevent", "mhi", b"",
           {"change": "connected", "channel": 32, "unknown": ["data"]})]),
        ("recv_with_timeout failed or timeout.\r\n",
         [("log", "out", b"recv_with_timeout failed or timeout.", {"noted": True})]),
        ("bash: no daemon's words\n", [("log", "out", b"bash: no daemon's words", {})]),
        ("read from '/dev/elsewhere' num_read 1.\r\n",
         [("/dev/elsewhere", "in", b"", {"n": 1, "unknown": ["data"]})]),
    )  # fmt: skip

    def test_what_each_message_becomes(self) -> None:
        for log, expected in self.ROWS:
            with self.subTest(log=log):
                self.assertEqual([_short(event) for event in _told(_T + "f(1):" + log)], expected)

    def test_daemon_that_starts_again_begins_anew(self) -> None:
        log = (
            "buf contains(modem_to_usb_bridge_glink) 'x'.buf_len:1.3.\r\n"
            "read from '/dev/at_usb0' num_read 3.\r\n"
            "main enter. 201909191715.0.0.\r\n"
            "buf contains(modem_to_usb_bridge_glink) 'x'.buf_len:1.3.\r\n"
        )
        modes = [event.fields["mode"] for event in _told(log) if event.what == "mode"]
        self.assertEqual(modes, ["ppp", "ppp"])


class Times(unittest.TestCase):
    def times(self, *stamps: str) -> tuple[list[int], int]:
        log = "".join(f"2026-11-21 15:13:{stamp} POLLHUP is set.\r\n" for stamp in stamps)
        recording = read_log_bytes(log.encode())
        return [event.t // 1_000_000 for event in recording.events], len(recording.faults)

    def test_a_stamp_taken_before_another_and_written_after_it(self) -> None:
        self.assertEqual(self.times("10", "11", "10", "12"), ([0, 1, 1, 2], 0))

    def test_clock_that_is_set_is_no_time_that_passed(self) -> None:
        self.assertEqual(self.times("30", "10", "11"), ([0, 0, 1], 1))
        log = f"1980-01-06 00:00:05 POLLHUP is set.\n{_T}POLLHUP is set.\n"
        recording = read_log_bytes(log.encode())
        self.assertEqual([event.t for event in recording.events], [0, 0])
        self.assertIn("line 2: a leap of the clock", recording.faults[0])

    def test_stamp_that_no_clock_shows(self) -> None:
        self.assertEqual(self.times("10", "99", "11"), ([0, 0, 1], 1))


class Hostile(unittest.TestCase):
    ODD = ("", "\n", "\0", "(", "2026-11-21", _T, "f(1):", "buf contains(", "\xff" * 100,
           "buf contains(modem_to_usb_bridge_glink) '" * 50, "(a) " * 50, " 0xfffff " * 3,
           "write to '/dev/smd7' returned 99999999999, bytes_remaining: -5.\n",
           "assemble_uih_respone_packet input exit. -5, out_len:6, crc:0xffffffff.\r\n" * 2,
           "buf contains(modem_to_usb_bridge_glink) ''.buf_len:-1.99.\r\n")  # fmt: skip

    def test_no_bytes_are_too_odd(self) -> None:
        for log in self.ODD:
            with self.subTest(log=log):
                read_log_bytes(log.encode("latin-1"))
                read_log_bytes((_COMMAND + log + _COMMAND).encode("latin-1"))

    def test_a_cut_anywhere_leaves_what_follows(self) -> None:
        log = _COMMAND.encode()
        whole = [_short(event) for event in _told(log)]
        for cut in range(len(log)):
            events = _told(log[:cut] + b"\n" + log)
            self.assertEqual([_short(event) for event in events][-4:], whole, cut)

    def test_file_that_is_no_log_of_the_daemon(self) -> None:
        with tempfile.NamedTemporaryFile() as file:
            file.write(_T.encode() + b"hello\n")
            file.flush()
            with self.assertRaisesRegex(RecordingError, "is this its log"):
                read_log(file.name)

    def test_changed_logs(self) -> None:
        chance = random.Random(7)
        base = (_COMMAND + "".join(log for log, _ in Rows.ROWS)).encode("latin-1")
        for _ in range(300):
            log = bytearray(base)
            for _ in range(chance.choice((1, 20, 200))):
                at = chance.randrange(len(log))
                if chance.random() < 0.5:
                    log[at] = chance.randrange(256)
                else:
                    del log[at : at + chance.randrange(40)]
            read_log_bytes(bytes(log))


if __name__ == "__main__":
    unittest.main()

"""What happened to a command: rows of small sessions and the sentence that sums each up."""

import unittest
from typing import Any

from made import happened, pack, recording, report, said
from vexa_trace.command import Command
from vexa_trace.commands import Tracker
from vexa_trace.conversation import View
from vexa_trace.frames import check_sequence
from vexa_trace.lines import LineAssembly, split_pieces
from vexa_trace.report import Report, is_answered, verdict
from vexa_trace.wording import Paint

OK = b"\r\nOK\r\n"
Rows = list[dict[str, Any]]


def host(t: int, text: bytes, port: str = "at") -> Rows:
    return [said(t, port, "typed", text), said(t + 10, port, "in", text)]


def cp_command(t: int, text: bytes, answer: bytes = OK) -> Rows:
    return [*host(t, text), said(t + 20, "cp-at", "out", text),
            said(t + 30, "cp-at", "in", answer), said(t + 40, "at", "out", answer)]


def to_platform(t: int, text: bytes, connection: int = 2) -> dict[str, Any]:
    return said(t, "platform", "out", pack(text), conn=connection)


def from_platform(t: int, *texts: bytes, kind: int = 1, connection: int = 2) -> dict[str, Any]:
    return said(t, "platform", "in", b"".join(pack(text, kind) for text in texts), conn=connection)


def uih(address: int, information: bytes) -> bytes:
    head = bytes((address, 0xEF, len(information) * 2 + 1))
    return b"\xf9" + head + information + bytes((check_sequence(head), 0xF9))


def tracked(*lines: dict[str, Any]) -> tuple[list[Command], int]:
    tracker = Tracker(recording(report(1, 1, "modem"), report(2, 2, "at"), report(3, 3, "uart"),
                                *lines, happened(60_000_000, "bench", "end"), whole=False))
    return tracker.commands, tracker.end


class Sums(unittest.TestCase):
    """Rows: why, session, number of the command, what its sentence holds, is it answered."""

    ROWS: list[tuple[str, Rows, int, list[str], bool]] = [
        ("CP answers", cp_command(100, b"AT+CFUN?\r"), 0,
         ["went to CP (cp-at); CP answered OK; 40 µs from typed to answered"], True),
        ("CP refuses", cp_command(100, b"AT+X\r", b"\r\n+CME ERROR: 3\r\n"), 0,
         ["CP answered +CME ERROR: 3"], True),
        ("the platform answers, echo before it",
         [*host(100, b"AT+CGMR\r"), to_platform(120, b"AT+CGMR\r"),
          from_platform(130, b"\r\nV1\r\n", OK),
          said(170, "at", "out", b"AT+CGMR\r\r\nV1\r\n" + OK)],
         0, ["went to the platform; the platform answered OK; 70 µs"], True),
        ("both; CP says nothing and nobody waits for it",
         [*host(100, b"ATE0\r"), said(120, "cp-at", "out", b"ATE0\r"), to_platform(121, b"ATE0\r"),
          from_platform(130, OK), said(140, "at", "out", OK)], 0,
         ["went to CP (cp-at) and the platform", "CP said nothing and was not waited for",
          "the platform answered OK"], True),
        ("split in pieces", [*host(100, b"ATE0V1\r"), said(120, "cp-at", "out", b"ATE0\r\n"),
                             to_platform(121, b"ATE0\r\n"), from_platform(130, OK),
                             said(131, "at", "out", OK), said(140, "cp-at", "out", b"ATV1\r\n"),
                             to_platform(141, b"ATV1\r\n"), from_platform(150, OK),
                             said(151, "at", "out", OK)], 0,
         ["went to CP (cp-at) and the platform", "the platform answered OK, OK; 51 µs"], True),
        ("not split, though it could be", cp_command(100, b"ATX4S0\r"), 0,
         ["CP answered OK"], True),
        ("blanks are taken out", [*host(100, b"AT + CFUN ?\r"),
                                  said(120, "cp-at", "out", b"AT+CFUN?\r"),
                                  said(130, "cp-at", "in", OK), said(131, "at", "out", OK)], 0,
         ["CP answered OK; 31 µs"], True),
        ("A/ repeats", [*cp_command(100, b"AT+CFUN?\r"), *host(200, b"A/"),
                        said(220, "cp-at", "out", b"AT+CFUN?\r"), said(230, "cp-at", "in", OK),
                        said(240, "at", "out", OK)], 1, ["CP answered OK; 40 µs"], True),
        ("the platform is refused, CP gets it",
         [*host(100, b"AT+CSQ\r"), said(120, "platform", "out", b"", asked=51, err="EPIPE", conn=2),
          said(130, "cp-at", "out", b"AT+CSQ\r"), said(140, "cp-at", "in", OK),
          said(150, "at", "out", OK)], 0,
         ["went to CP (cp-at); CP answered OK; the platform refused it: EPIPE"], True),
        ("CP refuses the write",
         [*host(100, b"AT\r"), said(120, "cp-at", "out", b"", asked=3, err="EAGAIN")], 0,
         ["refused by CP: EAGAIN"], False),
        ("a write in two parts",
         [*host(100, b"AT+CFUN?\r"), said(120, "cp-at", "out", b"AT+C", asked=9),
          said(121, "cp-at", "out", b"FUN?\r", asked=5), said(130, "cp-at", "in", OK),
          said(140, "at", "out", OK)], 0, ["CP answered OK; 40 µs"], True),
        ("CP's deadline", [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r")], 0,
         ["CP said nothing: waited until the deadline of 10 s"], False),
        ("the platform's deadline, seen by the next line",
         [*host(100, b"AT+CSQ\r"), to_platform(120, b"AT+CSQ\r"),
          said(5_000_130, "at", "in", b"AT\r")], 0,
         ["the platform said nothing: waited until the deadline of 5 s"], False),
        ("no answer until the next line",
         [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"), *host(2_000_110, b"AT\r")], 0,
         ["CP said nothing in the 2.000 s until the next input"], False),
        ("a hang-up", [*host(100, b"AT+CSQ\r"), to_platform(120, b"AT+CSQ\r"),
                       happened(130, "platform", "hangup", conn=2)], 0,
         ["the platform's connection hung up"], False),
        ("dropped", host(100, b"hello\r"), 0, ["dropped"], False),
        ("a closed channel", [happened(50, "cp-at", "close"), *host(100, b"AT\r")], 0,
         ["no write to CP or the platform: cp-at was closed"], False),
        ("never read", [said(100, "at", "typed", b"AT\r")], 0, ["never read by the daemon"], False),
        ("unplugged", [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                       happened(130, "bench", "unplug", port="at")], 0,
         ["at was unplugged"], False),
        ("the daemon's own answer", [*host(100, b"AT+CMUX=0\r", "uart"),
                                     happened(120, "uart", "mode", mode="mux"),
                                     said(121, "uart", "out", OK)], 0,
         ["the daemon answered by itself", "21 µs from typed to answered"], True),
        ("data mode", [happened(50, "at", "mode", mode="ppp"), *host(100, b"ATH\r")], 0,
         ["read in ppp mode"], False),
        ("the UDP client", [said(100, "udp", "typed", b"AT\r", peer="127.0.0.1:7"),
                            said(110, "udp", "in", b"AT\r", peer="127.0.0.1:7"),
                            said(120, "cp-at", "out", b"AT\r"), said(130, "cp-at", "in", OK),
                            said(140, "udp", "out", OK, peer="127.0.0.1:7")], 0,
         ["CP answered OK; 40 µs from typed to answered"], True),
        ("QMI", [said(90, "qmi", "in", b"AT\r", kind="request"),
                 said(110, "udp", "in", b"AT\r", peer="127.0.0.1:9"),
                 said(120, "cp-at", "out", b"AT\r"), said(130, "cp-at", "in", OK),
                 said(140, "udp", "out", OK, peer="127.0.0.1:9"),
                 said(150, "qmi", "out", OK, kind="answer")], 0,
         ["CP answered OK; 60 µs from typed to answered"], True),
        ("PCIe", [said(110, "pcie", "in", b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                  said(130, "cp-at", "in", OK), said(140, "pcie", "out", OK)], 0,
         ["CP answered OK; 30 µs from read to answered"], True),
    ]

    def test_rows(self) -> None:
        for why, session, number, held, answered in self.ROWS:
            with self.subTest(why):
                commands, end = tracked(*session)
                words = verdict(commands[number], end)
                for text in held:
                    self.assertIn(text, words)
                self.assertEqual(is_answered(commands[number]), answered, words)


class Doubts(unittest.TestCase):
    def remarks(self, *lines: dict[str, Any], number: int = 0) -> list[str]:
        commands, _ = tracked(*lines)
        return [leg.remark for leg in commands[number].legs_of("answer")]

    def test_names_of_others(self) -> None:
        foreign = b"\r\n+CREG: 1\r\n"
        commands, end = tracked(
            *host(100, b"AT+CFUN?\r"), said(120, "cp-at", "out", b"AT+CFUN?\r"),
            said(130, "cp-at", "in", b"\r\n+CFUN: 1\r\n"), said(140, "cp-at", "in", foreign),
            said(141, "at", "out", foreign))
        self.assertEqual([leg.text for leg in commands[0].strays], [foreign])
        self.assertEqual(len(commands[0].legs_of("answer")), 1)
        self.assertIn("CP spoke without a final result", verdict(commands[0], end))

    def test_foreign_names_alone_are_no_answer(self) -> None:
        commands, end = tracked(*host(100, b"AT+CFUN?\r"),
                                said(120, "cp-at", "out", b"AT+CFUN?\r"),
                                said(140, "cp-at", "in", b"\r\n+CREG: 1\r\n"))
        self.assertIn("CP said nothing to it; other text came after 20 µs",
                      verdict(commands[0], end))

    def test_a_final_result_beside_foreign_names_is_an_answer(self) -> None:
        self.assertEqual(self.remarks(*cp_command(100, b"ATI\r", b"\r\n+GCAP: 1\r\n" + OK)),
                         [""])

    def test_two_wait(self) -> None:
        start = [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                 *host(200, b"AT+CFUN?\r"), said(220, "cp-at", "out", b"AT+CFUN?\r")]
        self.assertEqual(self.remarks(*start, said(230, "cp-at", "in", OK), number=1),
                         ["AT\\r had no final result there either"])
        known = said(230, "cp-at", "in", b"\r\n+CFUN: 1\r\n" + OK)
        self.assertEqual(self.remarks(*start, known, number=1), [""])

    def test_late(self) -> None:
        start = [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r")]
        self.assertEqual(self.remarks(*start, said(10_000_121, "cp-at", "in", OK)),
                         ["after the deadline"])
        self.assertEqual(self.remarks(*start, said(10_000_121, "cp-at", "in", b"\r\nRING\r\n")), [])

    def test_after_the_final_result_nothing_is_an_answer(self) -> None:
        self.assertEqual(self.remarks(*cp_command(100, b"AT\r"),
                                      said(200, "cp-at", "in", b"\r\nRING\r\n")), [""])

    def test_indications_answer_nothing(self) -> None:
        start = [*host(100, b"AT+CSQ\r"), to_platform(120, b"AT+CSQ\r")]
        self.assertEqual(self.remarks(*start, from_platform(130, b"\r\nRING\r\n", kind=0)), [])

    def test_another_ports_text_is_not_the_answer(self) -> None:
        start = [*host(100, b"AT+CSQ\r"), to_platform(120, b"AT+CSQ\r")]
        self.assertEqual(self.remarks(*start, from_platform(130, OK, connection=1)), [])


    def test_the_platforms_wish_to_hang_up_is_no_text(self) -> None:
        commands, end = tracked(*host(100, b"AT+CSQ\r"), to_platform(120, b"AT+CSQ\r"),
                                from_platform(130, b"+" * 255))
        self.assertEqual(commands[0].legs_of("answer"), [])
        self.assertNotIn("recording ends", verdict(commands[0], end))

    def test_whoever_waited_longer_is_not_answered_any_more(self) -> None:
        start = [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                 *host(200, b"ATI\r"), said(220, "cp-at", "out", b"ATI\r"),
                 said(230, "cp-at", "in", OK), said(240, "cp-at", "in", OK)]
        self.assertEqual(self.remarks(*start, number=0), [])
        self.assertEqual(len(self.remarks(*start, number=1)), 1)

    def test_past_its_deadline_nobody_is_a_rival(self) -> None:
        start = [*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                 *host(20_000_000, b"ATI\r"), said(20_000_020, "cp-at", "out", b"ATI\r")]
        self.assertEqual(self.remarks(*start, said(20_000_030, "cp-at", "in", OK), number=1), [""])

    def test_a_command_is_not_its_own_rival(self) -> None:
        commands, _ = tracked(*host(100, b"ATE0V1\r"), said(120, "cp-at", "out", b"ATE0\r\n"),
                              said(130, "cp-at", "out", b"ATV1\r\n"),
                              said(140, "cp-at", "in", OK))
        self.assertEqual(commands[0].legs_of("answer")[0].remark, "")


class Silence(unittest.TestCase):
    def test_the_platform_is_waited_for_although_cp_answered(self) -> None:
        commands, end = tracked(*host(100, b"ATE0\r"), said(120, "cp-at", "out", b"ATE0\r"),
                                to_platform(121, b"ATE0\r"), said(130, "cp-at", "in", OK))
        self.assertIn("CP answered OK; the platform said nothing: waited until the deadline of 5 s",
                      verdict(commands[0], end))

    def test_nobody_waits_on_the_multiplexer(self) -> None:
        commands, end = tracked(happened(50, "uart", "mode", mode="mux"),
                                said(110, "uart", "in", uih(0x0B, b"AT\r")),
                                said(120, "cp-uart", "out", b"AT\r"))
        self.assertIn("CP said nothing (on the multiplexer", verdict(commands[0], end))


class Legs(unittest.TestCase):
    def kinds(self, *lines: dict[str, Any], number: int = 0) -> list[str]:
        commands, _ = tracked(*lines)
        return [leg.kind for leg in sorted(commands[number].legs, key=lambda leg: leg.t)]

    def test_a_final_result_cut_in_two(self) -> None:
        commands, _ = tracked(*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                              said(130, "cp-at", "in", b"\r\nO"), said(131, "at", "out", b"\r\nO"),
                              said(140, "cp-at", "in", b"K\r\n"), said(141, "at", "out", b"K\r\n"))
        self.assertEqual(commands[0].finals, {"cp-at": "OK"})

    def test_typed_by_characters_with_echo(self) -> None:
        lines: Rows = []
        for number, byte in enumerate(b"AT\r"):
            lines += [*host(100 * number + 100, bytes((byte,))),
                      said(100 * number + 120, "at", "out", bytes((byte,)))]
        lines += [said(330, "cp-at", "out", b"AT\r"), said(340, "cp-at", "in", OK),
                  said(350, "at", "out", OK)]
        self.assertEqual(self.kinds(*lines), ["typed", "read", "written", "answer", "delivered"])
        self.assertEqual(tracked(*lines)[0][0].begun, 300)

    def test_an_answer_that_went_no_further(self) -> None:
        lines = [happened(125, "at", "close"), *host(100, b"AT\r"),
                 said(120, "cp-at", "out", b"AT\r"), said(130, "cp-at", "in", OK),
                 said(140, "cp-at", "in", b"\r\nRING\r\n")]
        commands, _ = tracked(*lines)
        self.assertEqual(commands[0].legs_of("note")[0].remark,
                         "that answer was not written to at: at was closed")

    def test_unsolicited_text_is_not_the_daemons_own(self) -> None:
        lines = [*host(100, b"AT\r"), from_platform(115, b"\r\n+X: 1\r\n", kind=0),
                 said(116, "at", "out", b"\r\n+X: 1\r\n")]
        self.assertEqual(self.kinds(*lines), ["typed", "read"])

    def test_an_answer_to_another_client(self) -> None:
        commands, _ = tracked(said(110, "udp", "in", b"AT\r", peer="1.2.3.4:5"),
                              said(120, "cp-at", "out", b"AT\r"), said(130, "cp-at", "in", OK),
                              said(140, "udp", "out", OK, peer="1.2.3.4:6"))
        self.assertEqual(commands[0].legs_of("delivered")[0].remark,
                         "1.2.3.4:6, not the one who asked")

    def test_a_host_that_does_not_take_its_answer(self) -> None:
        commands, _ = tracked(*host(100, b"AT\r"), said(120, "cp-at", "out", b"AT\r"),
                              said(130, "cp-at", "in", OK),
                              said(140, "at", "out", b"", asked=6, err="EIO"))
        self.assertEqual(commands[0].legs_of("note")[0].remark, "writing to at: EIO")

    def test_a_client_with_the_text_of_a_qmi_request_stays_a_client(self) -> None:
        commands, _ = tracked(said(90, "qmi", "in", b"AT\r", kind="request"),
                              said(100, "udp", "typed", b"AT\r", peer="127.0.0.1:7"),
                              said(110, "udp", "in", b"AT\r", peer="127.0.0.1:7"))
        self.assertEqual([command.source for command in commands], ["qmi", "udp"])

    def test_udp_and_pcie_have_the_at_ports_mode(self) -> None:
        commands, _ = tracked(happened(50, "at", "mode", mode="ppp"),
                              said(100, "udp", "in", b"AT\r", peer="127.0.0.1:7"),
                              said(110, "pcie", "in", b"AT\r"))
        self.assertEqual([command.mode for command in commands], ["ppp", "ppp"])

    def test_a_channel_that_was_opened_again_is_open(self) -> None:
        commands, _ = tracked(happened(50, "cp-at", "close"), happened(60, "cp-at", "open"),
                              *host(100, b"AT\r"))
        self.assertEqual(commands[0].closed_channel, "")

    def test_a_channel_that_failed_to_open_is_closed(self) -> None:
        commands, _ = tracked(happened(50, "cp-at", "close"),
                              happened(60, "cp-at", "open", err="ENOENT"), *host(100, b"AT\r"))
        self.assertEqual(commands[0].closed_channel, "cp-at")

    def test_typed_bytes_that_were_lost_do_not_shift_the_rest(self) -> None:
        commands, _ = tracked(said(50, "at", "typed", b"ATI\r"), *host(100, b"AT\r"))
        self.assertEqual([(one.text, one.begun) for one in commands], [(b"AT\r", 100)])

    def test_a_write_of_which_a_log_tells_the_size(self) -> None:
        for size, kinds in [(52, ["read", "written"]), (53, ["read", "written"]),
                            (50, ["read"]), (54, ["read"])]:
            with self.subTest(size):
                unseen = {"t": 1120, "at": "platform", "dir": "out", "n": size, "port": "at",
                          "unknown": ["data"]}
                commands, _ = tracked(said(100, "at", "in", b"AT+CGMR\r"), unseen)
                self.assertEqual([leg.kind for leg in commands[0].legs], kinds)

    def test_a_read_of_which_a_log_tells_the_size_ends_the_command_before_it(self) -> None:
        unseen = {"n": 8, "unknown": ["data"]}
        commands, _ = tracked(
            said(100, "modem", "in", b"AT+CGMR\r"),
            {"t": 1120, "at": "modem", "dir": "in", **unseen},
            {"t": 1130, "at": "cp-modem", "dir": "out", **unseen},
            said(140, "cp-modem", "in", b"\r\nCONNECT\r\n"))
        self.assertEqual([leg.kind for leg in commands[0].legs], ["read"])

    def test_two_ports_at_once(self) -> None:
        commands, _ = tracked(*host(100, b"AT\r", "modem"), *host(101, b"AT\r"),
                              said(120, "cp-at", "out", b"AT\r"),
                              said(121, "cp-modem", "out", b"AT\r"),
                              said(130, "cp-modem", "in", b"\r\nERROR\r\n"),
                              said(131, "cp-at", "in", OK), said(132, "at", "out", OK),
                              said(133, "modem", "out", b"\r\nERROR\r\n"))
        self.assertEqual([command.finals for command in commands],
                         [{"cp-modem": "ERROR"}, {"cp-at": "OK"}])
        for command in commands:
            self.assertEqual(len(command.legs_of("delivered")), 1)

    def test_multiplexed_lines_are_answered_in_their_order(self) -> None:
        both = uih(0x0B, b"AT+A\r") + uih(0x0B, b"AT+B\r")
        answer = b"\r\nERROR\r\n"
        commands, _ = tracked(
            happened(50, "uart", "mode", mode="mux"), said(100, "uart", "typed", both),
            said(110, "uart", "in", both), said(120, "cp-uart", "out", b"AT+A\r"),
            said(121, "cp-uart", "out", b"AT+B\r"), said(130, "cp-uart", "in", answer),
            said(131, "uart", "out", uih(0x09, answer[:4]) + uih(0x09, answer[4:])),
            said(140, "cp-uart", "in", OK), said(141, "uart", "out", uih(0x09, OK)))
        self.assertEqual([(command.text, command.finals) for command in commands],
                         [(b"AT+A\r", {"cp-uart": "ERROR"}), (b"AT+B\r", {"cp-uart": "OK"})])
        self.assertEqual([len(command.legs_of("delivered")) for command in commands], [1, 1])

    def test_a_multiplexed_dial_takes_the_modem_ports_channel(self) -> None:
        dial = uih(0x13, b"ATD*99#\r")
        commands, _ = tracked(happened(50, "uart", "mode", mode="mux"),
                              said(110, "uart", "in", dial),
                              said(120, "cp-modem", "out", b"ATD*99#\r"),
                              said(130, "cp-modem", "in", b"\r\nCONNECT 150\r\n"),
                              said(140, "uart", "out", uih(0x11, b"\r\nCONNECT 150\r\n")))
        self.assertEqual(commands[0].finals, {"cp-modem": "CONNECT 150"})
        self.assertTrue(commands[0].legs_of("delivered"))


class Lines(unittest.TestCase):
    ROWS: list[tuple[str, list[bytes], list[tuple[bytes, bool]]]] = [
        ("whole", [b"AT\r"], [(b"AT\r", True)]),
        ("in pieces", [b"A", b"T", b"\r"], [(b"AT\r", True)]),
        ("backspace", [b"ATX", b"\b", b"\r"], [(b"AT\r", True)]),
        ("a chunk's end ends it", [b"AT\rAT+A\r"], [(b"AT\rAT+A\r", True)]),
        ("line feed behind", [b"AT\r\n"], [(b"AT\r\n", True)]),
        ("line feed later", [b"AT\r", b"\n", b"AT\r"], [(b"AT\r", True), (b"AT\r", True)]),
        ("repeat without an end", [b"A/"], [(b"A/", True)]),
        ("ends alone are no word", [b"\r", b"\n", b"\r\n"], []),
        ("dropped in pieces, told once", [b"h", b"i", b"\r", b"AT\r"],
         [(b"hi\r", False), (b"AT\r", True)]),
        ("S3 changed", [b"ATS3=59\r", b"AT;"], [(b"ATS3=59\r", True), (b"AT;", True)]),
        ("S3 of 128 is refused", [b"ATS3=128\r", b"AT\x80"], [(b"ATS3=128\r", True)]),
        ("Ctrl-Z ends it", [b"AT\x1a"], [(b"AT\x1a", True)]),
        ("what follows a NUL is lost", [b"AT\0X", b"\r"], [(b"AT\r", True)]),
    ]

    def test_rows(self) -> None:
        for why, chunks, wanted in self.ROWS:
            with self.subTest(why):
                assembly = LineAssembly()
                found = [line for chunk in chunks for line in assembly.feed(chunk)]
                self.assertEqual([(line.text, line.is_command) for line in found], wanted)

    def test_a_line_that_is_too_long(self) -> None:
        assembly = LineAssembly()
        self.assertEqual(assembly.feed(b"AT" + b"x" * 16382), [])
        self.assertFalse(assembly.feed(b"x")[0].is_command)
        self.assertEqual([line.is_command for line in assembly.feed(b"AT\r")], [True])

    def test_pieces(self) -> None:
        for line, pieces in [(b"ATE0V1\r", [b"ATE0", b"ATV1"]), (b"ATE0\r", []), (b"ATE0V\r", []),
                             (b"atE0V1Q0\r\n", [b"atE0", b"ATV1", b"ATQ0"]), (b"A/\r", [])]:
            self.assertEqual(split_pieces(line), pieces, line)


class Text(unittest.TestCase):
    MADE = [*cp_command(100, b"AT+CFUN?\r"), *cp_command(1000, b"AT+CGMR\r"),
            *host(2000, b"AT\r", "modem")]

    def lines(self, pattern: str = "", view: View = View()) -> list[str]:
        return list(Report(recording(*self.MADE), view, Paint(False)).lines(pattern))

    def test_layout(self) -> None:
        self.assertEqual(self.lines("cfun"), [
            "AT+CFUN?\\r  on at",
            "  went to CP (cp-at); CP answered OK; 40 µs from typed to answered",
            "      0.000100              typed on at",
            "      0.000110      +10 µs  read by the daemon on at",
            "      0.000120      +10 µs  written to cp-at  AT+CFUN?\\r",
            "      0.000130      +10 µs  read from cp-at  \\r\\nOK\\r\\n",
            "      0.000140      +10 µs  written to at",
        ])

    def test_filters(self) -> None:
        for pattern, view, count in [("", View(), 3), ("", View(frozenset({"modem"})), 1),
                                     ("", View(frozenset({"cp-at"})), 2),
                                     ("", View(begin=1000, end=1500), 1)]:
            heads = [line for line in self.lines(pattern, view) if line and line[0] != " "]
            self.assertEqual(len(heads), count, (pattern, view))

    def test_strays_are_counted(self) -> None:
        stray = b"\r\n+CREG: 1\r\n"
        made = recording(*host(100, b"AT+CFUN?\r"), said(120, "cp-at", "out", b"AT+CFUN?\r"),
                         said(130, "cp-at", "in", stray), said(140, "cp-at", "in", stray),
                         said(150, "cp-at", "in", b"\r\n+CSQ: 1\r\n"))
        told = list(Report(made, View(), Paint(False)).lines(""))
        self.assertEqual(told[-2:], [
            "  meanwhile CP said \\r\\n+CREG: 1\\r\\n 2 times, first at 0.000130:"
            " perhaps unsolicited (a guess)",
            "  meanwhile CP said \\r\\n+CSQ: 1\\r\\n once, at 0.000150:"
            " perhaps unsolicited (a guess)"])

    def test_a_log_has_seconds_only(self) -> None:
        made = recording(*host(1_500_000, b"AT\r"))
        made.start["source"] = "log"
        told = list(Report(made, View(), Paint(False)).lines(""))
        done, end = tracked(*cp_command(1_999_990, b"AT\r"))
        self.assertIn("less than 1 s from typed to answered", verdict(done[0], end, is_log=True))
        self.assertIn("from a log", told[0])
        self.assertEqual(told[4:], ["      1                     typed on at",
                                    "      1                     read by the daemon on at"])

    def test_none(self) -> None:
        self.assertEqual(self.lines("nothing"), ["no such command"])


if __name__ == "__main__":
    unittest.main()

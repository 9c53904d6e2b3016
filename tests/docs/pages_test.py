#!/usr/bin/env python3
"""Holds the figures and functions that the documentation names against the sources."""
import ast
import pathlib
import re
import unittest
from typing import NamedTuple

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


class Figure(NamedTuple):
    """A number that a page names, and the constant that it is."""

    page: str
    words: str  # {} stands for the number
    source: str
    constant: str
    divisor: int = 1


PROTOCOL = "docs/platform-protocol.md"
LIMITS = "docs/limits.md"
HEADS = "include/vexa_common_def.h"
PACK = "socket/src/platform_pack.h"
LINK = "port_bridge/src/platform_link.cpp"
DISPATCH = "port_bridge/src/dispatch.cpp"
RECEIVER = "port_bridge/src/platform_receiver.cpp"
UDP = "socket/src/vexa_socket_server.h"
SECURITY = "docs/security.md"
ROADS = "docs/architecture.md"
MANUAL = "docs/man/vexa_at_client.8"

FIGURES = [
    Figure(PROTOCOL, "| payload of a pack to the daemon | {} bytes", PACK, "kReceivedPayloadMax"),
    Figure(PROTOCOL, "one read of the daemon | {} bytes", HEADS, "kDeviceReadSize"),
    Figure(PROTOCOL, "at most\n{} bytes", HEADS, "kDeviceReadSize"),
    Figure(PROTOCOL, "Answer within {} s", DISPATCH, "kPlatformWaitSeconds"),
    Figure(PROTOCOL, "the wait for an answer | {} s", DISPATCH, "kPlatformWaitSeconds"),
    Figure(PROTOCOL, "tries {} more times", LINK, "kRetries"),
    Figure(PROTOCOL, "more times, {} ms apart", LINK, "kRetryPauseUs", 1000),
    Figure(PROTOCOL, "exactly {} `+` characters", RECEIVER, "kShutDownLength"),
    Figure(PROTOCOL, "one attempt every {} s", RECEIVER, "kRetryPauseMs", 1000),
    Figure(PROTOCOL, "for: {} the USB modem port", HEADS, "PORT_AT0"),
    Figure(PROTOCOL, "{} the USB AT port (with", HEADS, "PORT_AT1"),
    Figure(PROTOCOL, "{} the UART.", HEADS, "PORT_UART"),
    Figure(PROTOCOL, "| indication | {} |", HEADS, "CMD_IND"),
    Figure(PROTOCOL, "| command | {} |", HEADS, "CMD_AT_CMD"),
    Figure(PROTOCOL, "| data | {} |", HEADS, "CMD_AT_DATA"),
    Figure(PROTOCOL, "| online command | {} |", HEADS, "CMD_AT_ONLINE_CMD"),
    Figure(PROTOCOL, "| port report | {} |", HEADS, "CMD_PORT_REPORT"),
    Figure(LIMITS, "A line past {} characters", HEADS, "kDeviceReadSize"),
    Figure(LIMITS, "at most {} s (modem)", DISPATCH, "kCpWaitSeconds"),
    Figure(LIMITS, "or {} s (app platform)", DISPATCH, "kPlatformWaitSeconds"),
    Figure(LIMITS, "payload of more than {} bytes", PACK, "kReceivedPayloadMax"),
    Figure(LIMITS, "is held for up to {} s", RECEIVER, "kCpWaitSeconds"),
    Figure(LIMITS, "the command's own {} s", DISPATCH, "kCpWaitSeconds"),
    Figure(LIMITS, "Port {} is bound", UDP, "kUdpAtServerPort"),
    Figure(SECURITY, "UDP port {}", UDP, "kUdpAtServerPort"),
    Figure(SECURITY, "{} bytes in a read", HEADS, "kDeviceReadSize"),
    Figure(SECURITY, "past {} bytes is cut off", HEADS, "kDeviceReadSize"),
    Figure(SECURITY, "above {} bytes", PACK, "kReceivedPayloadMax"),
    Figure(ROADS, "waits up to {} s for the modem", DISPATCH, "kCpWaitSeconds"),
    Figure(ROADS, "up to {} s for the platform", DISPATCH, "kPlatformWaitSeconds"),
    Figure(MANUAL, "waited for {} s (modem)", DISPATCH, "kCpWaitSeconds"),
    Figure(MANUAL, "or {} s (app platform)", DISPATCH, "kPlatformWaitSeconds"),
    Figure(MANUAL, "A line past {} characters", HEADS, "kDeviceReadSize"),
    Figure(MANUAL, "datagram to port {}", UDP, "kUdpAtServerPort"),
    Figure(ROADS, "port {}", UDP, "kUdpAtServerPort"),
]


def value_of(figure: Figure) -> int:
    """The number behind `NAME = 1'234` in the figure's source."""
    text = (ROOT / figure.source).read_text()
    found = re.search(rf"\b{figure.constant} = ([0-9']+)\s*[;,]", text)
    if found is None:
        raise AssertionError(f"{figure.source} has no constant {figure.constant}")
    return int(ast.literal_eval(found.group(1).replace("'", "_"))) // figure.divisor


def spelled(value: int, words: str) -> str:
    """As the pages write numbers; a name of a port on the network has no comma."""
    return f"{value}" if "ort {}" in words else f"{value:,}"


class Figures(unittest.TestCase):
    def test_pages_say_what_the_sources_say(self) -> None:
        for figure in FIGURES:
            with self.subTest(page=figure.page, words=figure.words):
                expected = figure.words.replace("{}", spelled(value_of(figure), figure.words))
                if expected not in (ROOT / figure.page).read_text():
                    self.fail(f"{figure.page} does not say '{expected}'")


def steps(page: str) -> list[str]:
    """The numbered steps of a page, each as one text."""
    found = re.findall(r"^\d+\. (.*?)(?=^\d+\. |^$)", page, re.M | re.S)
    return [str(step) for step in found]


class Roads(unittest.TestCase):
    def test_each_step_names_functions_of_its_files(self) -> None:
        page = (ROOT / ROADS).read_text()
        named = 0
        for step in steps(page):
            words = re.findall(r"`([^`]+)`", step)
            files = [word for word in words if re.fullmatch(r"[a-z_]+/src/\w+\.(cpp|h)", word)]
            text = "".join((ROOT / file).read_text() for file in files)
            for function in (word for word in words if re.fullmatch(r"[a-z_]+", word)):
                named += 1
                with self.subTest(function=function, files=files):
                    if not re.search(rf"\b{function}\(", text):
                        self.fail(f"{function} is not in {files}")
        self.assertGreater(named, 20)


class Packages(unittest.TestCase):
    def setUp(self) -> None:
        self.bootstrap = (ROOT / "script/bootstrap").read_text()

    def test_the_page_lists_what_bootstrap_installs(self) -> None:
        installed = set()
        for words in re.findall(r"^\w+_packages=\((.*?)\)", self.bootstrap, re.M | re.S):
            installed |= {word for word in words.split() if "$" not in word}
        listed = set()
        for row in (ROOT / "docs/dependencies.md").read_text().splitlines():
            if row.startswith("| `") and "comes with" not in row and "is skipped" not in row:
                listed |= set(re.findall(r"`([^`]+)`", row.split("|")[1]))
        self.assertGreater(len(listed), 20)
        self.assertEqual(installed, listed)

    def test_every_level_is_asked_for_by_a_script(self) -> None:
        levels = re.findall(r"^    ([a-z-]+)\) wanted=", self.bootstrap, re.M)
        scripts = "".join(path.read_text() for path in (ROOT / "script").iterdir()
                          if path.is_file())
        for level in levels:
            with self.subTest(level=level):
                self.assertIn(f'script/bootstrap" {level}\n', scripts.replace(" ;;", ""))
        self.assertGreater(len(levels), 10)


if __name__ == "__main__":
    unittest.main()

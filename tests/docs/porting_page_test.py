#!/usr/bin/env python3
"""Holds docs/porting.md against the headers and the symbols that the daemon needs.

usage: porting_page_test.py DAEMON
"""
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs" / "porting.md"


def declared() -> dict[str, str]:
    """Function to library, of what the headers declare with C linkage."""
    found: dict[str, str] = {}
    for header in sorted((ROOT / "platform" / "include").glob("*.h")):
        for block in re.findall(r'^extern "C" \{$(.*?)^\}', header.read_text(), re.M | re.S):
            code = re.sub(r"//.*", "", block)
            names = re.findall(r"\b(\w+)\([^;]*\);", code)
            library = "qmiservices" if header.stem == "qmi_idl" else header.stem
            found.update({name: library for name in names})
    return found


def rows() -> dict[str, tuple[str, str]]:
    """Function to library and who needs it, as the page says."""
    pattern = r"^\| `(\w+)` \| (\w+) \| (daemon|beside it) \|"
    return {name: (library, user)
            for name, library, user in re.findall(pattern, PAGE.read_text(), re.M)}


class PortingPage(unittest.TestCase):
    daemon = ""

    def test_every_function_has_its_row(self) -> None:
        self.assertEqual({name: row[0] for name, row in rows().items()}, declared())

    def test_the_daemon_needs_what_the_page_says(self) -> None:
        symbols = subprocess.run(["nm", "-D", "--undefined-only", self.daemon],
                                 capture_output=True, text=True, check=True).stdout
        needed = {line.split()[-1].split("@")[0] for line in symbols.splitlines()}
        self.assertEqual({name for name, row in rows().items() if row[1] == "daemon"},
                         needed & declared().keys())


if __name__ == "__main__":
    PortingPage.daemon = sys.argv[1]
    unittest.main(argv=sys.argv[:1])

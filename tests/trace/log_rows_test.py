"""Holds the table of the daemon's messages against the daemon's sources, both ways."""

from __future__ import annotations

import ast
import re
import unittest
from pathlib import Path

from vexa_trace.log_rows import ROWS
from vexa_trace.log_story import PLACES, PORTS

_ROOT = Path(__file__).resolve().parents[2]
_FOLDERS = ("port_bridge/src", "atcmd_fwd/src", "cmux/src", "socket/src", "main")
_CALL = re.compile(
    r"\b(VEXA_LOG\(|VEXA_PRINT\(|printf\(|puts\(|print_log_line\(__func__, __LINE__,)")
_LITERAL = re.compile(r'\s*("(?:[^"\\\n]|\\.)*")')


def _sources() -> list[str]:
    return [path.read_text() for folder in _FOLDERS for path in (_ROOT / folder).glob("*.cpp")]


def _literal_at(source: str, begin: int) -> str:
    """The string there, its pieces joined; empty when none begins there."""
    text = ""
    while found := _LITERAL.match(source, begin):
        text += ast.literal_eval(found[1])
        begin = found.end()
    return text


def _formats(source: str) -> set[str]:
    found = set()
    for call in _CALL.finditer(source):
        text = _literal_at(source, call.end())
        if text:
            found.add(text + "\n" if call[1] == "puts(" else text)
    return found


class Table(unittest.TestCase):
    # puts() of a name has no literal.
    WITHOUT_LITERAL = {"%s\n"}

    def test_every_row_is_a_message_of_the_daemon_and_every_message_has_its_row(self) -> None:
        formats = set().union(*map(_formats, _sources()))
        rows = {row.format for row in ROWS}
        self.assertGreater(len(formats), 150)
        self.assertEqual(rows - formats, self.WITHOUT_LITERAL, "the daemon does not say this")
        self.assertEqual(formats - rows, set(), "no row of log_rows.py knows this")

    def test_no_message_has_two_rows(self) -> None:
        self.assertEqual(len({row.format for row in ROWS}), len(ROWS))

    def test_every_name_in_the_table_is_a_literal_of_the_daemon(self) -> None:
        sources = "\n".join(_sources())
        headers = (_ROOT / "port_bridge/src").glob("*.h")
        sources += "\n".join(path.read_text() for path in headers)
        names = {text for row in ROWS for text in row.texts}
        names |= {name.decode() for name in (*PLACES, *PORTS)}
        missing = {name for name in names if f'"{name}"' not in sources}
        self.assertEqual(missing, set())


if __name__ == "__main__":
    unittest.main()

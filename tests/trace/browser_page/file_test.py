"""The page as a file."""

from __future__ import annotations

import io
import json
import os
import re
import stat
import tempfile
import unittest
from contextlib import redirect_stderr
from html.parser import HTMLParser
from pathlib import Path

from recordings import HOSTILE, Lines, usual
from vexa_trace import cli
from vexa_trace.html import embedded, make_page, page_data, write_page


class Elements(HTMLParser):
    """The elements of a page, and what its first script element holds."""

    def __init__(self, page: str) -> None:
        super().__init__()
        self.names: list[str] = []
        self.data = ""
        self.feed(page)

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        self.names.append(tag)

    def handle_data(self, data: str) -> None:
        if self.names[-1:] == ["script"] and not self.data:
            self.data = data


def hostile() -> Lines:
    lines = usual()
    for data in HOSTILE:
        lines.octets(1, "at", "in", data)
        lines.add(1, data.decode("latin-1"), what=data.decode("latin-1"))
    lines.octets(1, "at", "in", b"@SCRIPT@ @DATA@ @STYLE@")
    return lines


class PageFileTest(unittest.TestCase):
    def test_it_needs_nothing_beside_itself(self) -> None:
        page = make_page(usual().recording())
        self.assertIsNone(re.search(r"https?:|//[a-z]+\.|\bsrc=|\bhref=|@import|url\(", page))
        self.assertIn("default-src 'none'", page)

    def test_every_byte_comes_through_and_no_element_with_it(self) -> None:
        lines = hostile()
        lines.octets(1, "at", "in", bytes(range(256)))
        page = Elements(make_page(lines.recording()))
        self.assertEqual(Elements(make_page(usual().recording())).names, page.names)
        texts = json.loads(page.data)["events"]["dataTexts"]
        for data in (*HOSTILE, bytes(range(256)), b"@SCRIPT@ @DATA@ @STYLE@"):
            self.assertIn(data.decode("latin-1"), texts)

    def test_embedded_json_holds_no_markup(self) -> None:
        text = embedded(["<!-- </script> & \u2028 \ud800"])
        self.assertTrue(text.isascii())
        self.assertIsNone(re.search("[<>&]", text))

    def test_odd_fields_are_shown_as_text(self) -> None:
        lines = Lines()
        lines.add(1, "at", what="x", speed=float("nan"), lines=[1, {"a": None}], n="x" * 9000)
        fields = json.loads(page_data(lines.recording())["events"]["fieldTexts"][0])
        self.assertEqual(("NaN", '[1, {"a": null}]', 2000),
                         (fields["speed"], fields["lines"], len(fields["n"])))

    def test_a_page_is_written_whole_with_the_usual_rights(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder) / "out.html"
            path.write_text("old", encoding="utf-8")
            mask = os.umask(0o027)
            try:
                write_page(usual().recording(), str(path))
            finally:
                os.umask(mask)
            self.assertTrue(path.read_text(encoding="utf-8").endswith("</html>\n"))
            self.assertEqual(0o640, stat.S_IMODE(path.stat().st_mode))
            self.assertEqual([path], list(Path(folder).iterdir()))

    def test_script_trace_writes_it(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            source, out = Path(folder) / "session.jsonl", Path(folder) / "out.html"
            source.write_text("".join(usual().end()), encoding="utf-8")
            self.assertEqual(0, cli.main([str(source), "--html", str(out)]))
            self.assertIn("<canvas", out.read_text(encoding="utf-8"))

    def test_a_folder_that_is_not_there_is_told(self) -> None:
        with tempfile.TemporaryDirectory() as folder, redirect_stderr(io.StringIO()) as told:
            source = Path(folder) / "session.jsonl"
            source.write_text("".join(usual().end()), encoding="utf-8")
            self.assertEqual(1, cli.main([str(source), "--html", f"{folder}/none/out.html"]))
            self.assertIn("No such file or directory", told.getvalue())


if __name__ == "__main__":
    unittest.main()

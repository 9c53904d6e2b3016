#!/usr/bin/env python3
"""Holds the manual pages against the programs: format, and every option of --help.

usage: man_pages_test.py PAGE=PROGRAM...    (PAGE= for a program without options)
"""
import pathlib
import re
import subprocess
import sys
import unittest

PAGES = pathlib.Path(__file__).resolve().parent.parent.parent / "docs" / "man"
OPTION = re.compile(r"(?:^|[\s,|])(--?[A-Za-z][\w-]*)")


def run(*command: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, capture_output=True, text=True, check=False)


def options_of_help(program: str) -> set[str]:
    """What stands at the start of the help's indented lines, before the explanation."""
    found: set[str] = set()
    for line in run(program, "--help").stdout.splitlines():
        if re.match(r" {1,4}-", line):
            found.update(OPTION.findall(re.split(r"\s{2,}", line.strip())[0]))
    return found


def options_of_page(page: str) -> set[str]:
    """The options that have an item of their own."""
    found: set[str] = set()
    for line in (PAGES / page).read_text().splitlines():
        if line.startswith(".It Fl "):
            found.update("-" + word for word in re.findall(r"Fl ([\w-]+)", line))
    return found


class ManPages(unittest.TestCase):
    programs: dict[str, str] = {}

    def test_every_page_is_held_against_a_program(self) -> None:
        self.assertEqual(sorted(page.name for page in PAGES.iterdir()), sorted(self.programs))

    def test_options_are_those_of_the_help(self) -> None:
        for page, program in self.programs.items():
            with self.subTest(page=page):
                expected = options_of_help(program) if program else set()
                self.assertEqual(bool(expected), bool(program))
                self.assertEqual(options_of_page(page), expected)

    def test_formatters_have_no_warning(self) -> None:
        for page in self.programs:
            path = str(PAGES / page)
            with self.subTest(page=page):
                lint = run("mandoc", "-Tlint", "-Wwarning", path)
                self.assertEqual(lint.stdout + lint.stderr, "")
                man = run("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path)
                self.assertEqual((man.stderr, man.returncode), ("", 0))

    def test_console_commands_are_those_of_its_help(self) -> None:
        source = (PAGES.parent.parent / "bench" / "console" / "console.cpp").read_text()
        found = re.search(r'kHelp =\n(.*?)";\n', source, re.S)
        commands = set(re.findall(r"(?<=[ ,])/[a-z]+", found.group(1) if found else ""))
        page = set(re.findall(r"Li (/[a-z]+)", (PAGES / "vexa-bench.1").read_text()))
        self.assertGreater(len(commands), 5)
        self.assertEqual(page, commands | {"/help"})

    def test_titles_are_those_of_the_files(self) -> None:
        for page in self.programs:
            name, section = page.rsplit(".", 1)
            with self.subTest(page=page):
                text = (PAGES / page).read_text()
                self.assertIn(f".Dt {name.upper()} {section}\n", text)
                self.assertIn(f".Nm {name}\n", text)


if __name__ == "__main__":
    ManPages.programs = dict(pair.split("=", 1) for pair in sys.argv[1:])
    unittest.main(argv=sys.argv[:1])

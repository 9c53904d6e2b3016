"""Finds where the daemon's sources can be changed, and how.

The text alone is read, not its meaning: the sources are laid out by clang-format, so an operator
stands between blanks and a unary `!` before its operand.
"""

import re
from dataclasses import dataclass
from pathlib import Path

ROOMS = ("main", "port_bridge/src", "atcmd_fwd/src", "cmux/src", "socket/src", "qmi_service/src",
         "include")
KINDS = ("table", "constant", "message", "comparison")

NEIGHBOUR = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISON = re.compile(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)")
JUNCTION = re.compile(r"(?<=\s)(&&|\|\|)(?=\s)")
NOT = re.compile(r"!(?=[\w(:*])")
LOG = re.compile(r"\b(VEXA_LOG|VEXA_PRINT|VEXA_DIAG|START_TRACE_INFO|START_TRACE_ERROR)\(\s*(?=\")")
STRING = re.compile(r'"(?:[^"\\\n]|\\.)*"')
TOKEN = re.compile(r"//[^\n]*|/\*.*?\*/|" + STRING.pattern + r"|'(?:[^'\\\n]|\\.)+'", re.DOTALL)
NUMBER = re.compile(r"(?<![\w.'\"])(0[xX][0-9A-Fa-f']+|\d[\d']*)(?![\w.\"])")
CONSTEXPR = re.compile(r"\b(?:constexpr|consteval)\b")
STATIC_ASSERT = re.compile(r"\bstatic_assert\(")
BODY = re.compile(r"\)(?:\s*(?:const|noexcept|override))*\s*\{")


@dataclass(frozen=True)
class Site:
    number: int
    kind: str
    file: str
    line: int
    start: int
    end: int
    before: str
    after: str
    switched: bool  # one program holds it, and a number turns it on; else it is compiled by itself
    name: str  # of the constant or table; empty elsewhere

    def where(self) -> str:
        return f"{self.file}:{self.line}"


@dataclass(frozen=True)
class Body:
    """A function: its probe's number and its part of the text."""

    number: int
    file: str
    start: int
    end: int


def blank(text: str) -> str:
    """The same text, as long, without comments, strings, characters and preprocessor lines."""

    def blanked(found: re.Match[str]) -> str:
        part = found[0]
        if part.startswith("'") and len(part) > 1 and found.start() > 0:
            before = text[found.start() - 1]
            if before.isalnum():  # 1'000'000
                return part
        fill = "_" if part[0] in "\"'" else " "
        return "".join("\n" if c == "\n" else fill for c in part)

    out = TOKEN.sub(blanked, text)
    lines = out.split("\n")
    inside = False
    for index, line in enumerate(lines):
        if inside or line.startswith("#"):
            inside = line.endswith("\\")
            lines[index] = " " * len(line)
    return "\n".join(lines)


def closing(code: str, start: int) -> int:
    """Behind the bracket that closes the one at `start`."""
    depth = 0
    for index in range(start, len(code)):
        if code[index] in "([{":
            depth += 1
        elif code[index] in ")]}":
            depth -= 1
            if depth == 0:
                return index + 1
    return len(code)


@dataclass(frozen=True)
class Part:
    start: int
    end: int
    name: str


def constant_parts(code: str) -> tuple[list[Part], list[Part]]:
    """Constant definitions, and functions that may run in the compiler."""
    constants, functions = [], []
    for found in CONSTEXPR.finditer(code):
        stop = re.search(r"[=({;]", code[found.end():])
        if stop is None:
            continue
        at = found.end() + stop.start()
        declared = code[found.end():at].strip()
        names = re.findall(r"\w+", re.sub(r"\[[^]]*\]|<[^;]*>", "", declared))
        name = names[-1] if names else ""
        if code[at] in "={":
            end = at
            while end < len(code) and code[end] != ";":
                end = closing(code, end) if code[end] in "([{" else end + 1
            constants.append(Part(at, end, name))
        elif code[at] == "(" and declared != "if" and not declared.endswith("if"):
            brace = code.find("{", at)
            semicolon = code.find(";", at)
            if brace != -1 and (semicolon == -1 or brace < semicolon):
                functions.append(Part(found.start(), closing(code, brace), name))
        else:
            functions.append(Part(found.start(), closing(code, at), ""))
    return constants, functions


def function_bodies(code: str) -> list[Part]:
    bodies: list[Part] = []
    for found in BODY.finditer(code):
        depth, at = 0, found.start()
        while at >= 0:
            if code[at] == ")":
                depth += 1
            elif code[at] == "(":
                depth -= 1
                if depth == 0:
                    break
            at -= 1
        word = re.search(r"([\w~:]+)\s*$", code[:at])
        if word is None or word[1] in ("if", "for", "while", "switch", "constexpr"):
            continue
        bodies.append(Part(found.end(), closing(code, found.end() - 1), word[1]))
    return bodies


def one_letter_more(literal: str) -> str | None:
    """A string literal with its last letter changed, escapes and conversions kept."""
    last = None
    index = 1
    while index < len(literal) - 1:
        character = literal[index]
        if character == "\\":
            index += 4 if literal[index + 1] == "x" else 2
            continue
        if character == "%":
            index += 1
            while literal[index] in "0z.":
                index += 1
            index += 1
            continue
        if character.isalnum() and character.isascii():
            last = index
        index += 1
    if last is None:
        return None
    old = literal[last]
    new = chr(ord(old) - 1) if old in "zZ9" else chr(ord(old) + 1)
    return literal[:last] + new + literal[last + 1:]


class Reader:
    """All sites of the daemon, numbered in the order of the files."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.sites: list[Site] = []
        self.bodies: list[Body] = []
        self.texts: dict[str, str] = {}
        self.codes: dict[str, str] = {}
        self.count = 0
        for room in ROOMS:
            for path in sorted((root / room).iterdir()):
                if path.suffix in (".cpp", ".h"):
                    self.read(path.relative_to(root).as_posix())

    def number(self) -> int:
        self.count += 1
        return self.count

    def add(self, kind: str, file: str, start: int, end: int, after: str, switched: bool,
            name: str = "") -> None:
        text = self.texts[file]
        line = text.count("\n", 0, start) + 1
        self.sites.append(Site(self.number(), kind, file, line, start, end, text[start:end], after,
                               switched, name))

    def read(self, file: str) -> None:
        text = (self.root / file).read_text(encoding="utf-8")
        code = blank(text)
        self.texts[file], self.codes[file] = text, code
        constants, functions = constant_parts(code)
        is_source = file.endswith(".cpp")
        asserts = [Part(f.start(), closing(code, f.end() - 1), "")
                   for f in STATIC_ASSERT.finditer(code)]

        def inside(parts: list[Part], at: int) -> Part | None:
            return next((part for part in parts if part.start <= at < part.end), None)

        def switched(at: int) -> bool:
            return is_source and not inside(constants, at) and not inside(functions, at)

        for found in COMPARISON.finditer(code):
            if not inside(asserts, found.start()) and "operator" not in code[
                    max(0, found.start() - 10):found.start()]:
                self.add("comparison", file, found.start(), found.end(), NEIGHBOUR[found[1]],
                         switched(found.start()))
        for found in JUNCTION.finditer(code):
            if not inside(asserts, found.start()):
                self.add("comparison", file, found.start(), found.end(),
                         "||" if found[1] == "&&" else "&&", False)
        for found in NOT.finditer(code):
            if not inside(asserts, found.start()):
                self.add("comparison", file, found.start(), found.end(), "",
                         switched(found.start()))
        self.read_constants(file, constants)
        self.read_strings(file, constants, asserts)
        if is_source:
            for body in function_bodies(code):
                if not inside(functions, body.start):
                    self.bodies.append(Body(self.number(), file, body.start, body.end))

    def read_constants(self, file: str, constants: list[Part]) -> None:
        code = self.codes[file]
        for part in constants:
            value = code[part.start:part.end]
            if "{" not in value:
                truth = re.search(r"\b(true|false)\b", value)
                if truth:
                    self.add("constant", file, part.start + truth.start(), part.start + truth.end(),
                             "false" if truth[1] == "true" else "true", False, part.name)
                found = NUMBER.search(value)
                if found:
                    for sign in "+-":
                        self.add("constant", file, part.start + found.start(),
                                 part.start + found.end(), f"({found[1]} {sign} 1)", False,
                                 part.name)
                continue
            if "[] {" in value or "[]{" in value:
                continue  # a table that the compiler computes
            for found in NUMBER.finditer(value):
                self.add("table", file, part.start + found.start(), part.start + found.end(),
                         f"({found[1]} + 1)", False, part.name)

    def read_strings(self, file: str, constants: list[Part], asserts: list[Part]) -> None:
        text, code = self.texts[file], self.codes[file]
        formats: set[int] = set()
        for found in LOG.finditer(text):
            if code[found.start()] != text[found.start()]:
                continue  # in a comment
            at = found.end()
            part = re.match(r'("(?:[^"\\\n]|\\.)*"\s*)+', text[at:])
            assert part is not None
            formats.update(range(at, at + part.end()))
            switched = file.endswith(".cpp")
            literal = part[0].rstrip()
            if switched and one_letter_more(literal) is not None:
                self.add("message", file, at, at + len(literal), "its last letter", True)
        for token in TOKEN.finditer(text):
            at = token.start()
            if token[0][0] not in "\"'" or at in formats or code[at] != "_":
                continue
            if any(part.start <= at < part.end for part in asserts):
                continue
            row = next((part for part in constants if part.start <= at < part.end), None)
            after = one_letter_more(token[0])
            if after is None:
                continue
            if token[0][0] == "'":
                if row is not None:
                    self.add("constant", file, at, token.end(), after, False, row.name)
                continue
            self.add("table" if row else "message", file, at, token.end(), after, False,
                     row.name if row else "")

    def switched_text(self, file: str) -> str:
        """The file with every switched mutant and every probe in it."""
        edits: list[tuple[int, int, str]] = []
        for site in self.sites:
            if site.file != file or not site.switched:
                continue
            if site.kind == "message":
                at = self.texts[file].rfind("(", 0, site.start)
                edits.append((at, at + 1, f"_AT({site.number}, "))
            elif site.before == "!":
                edits.append((site.start, site.end, f"mutation::Not{{{site.number}}}->*"))
            else:
                edits.append((site.start, site.end,
                              f"{site.before} mutation::At{{{site.number}}} {site.before}"))
        for body in self.bodies:
            if body.file == file:
                edits.append((body.start, body.start, f" mutation::come_by({body.number});"))
        text = self.texts[file]
        for start, end, new in sorted(edits, reverse=True):
            text = text[:start] + new + text[end:]
        return text

    def body_of(self, site: Site) -> list[Body]:
        """The functions that hold it, the innermost last."""
        return [body for body in self.bodies
                if body.file == site.file and body.start <= site.start < body.end]

    def names_of(self, site: Site) -> re.Pattern[str]:
        """The constant or table, and others that are made of it."""
        names = {site.name}
        definitions: list[tuple[str, str]] = []
        for file, code in self.codes.items():
            constants, functions = constant_parts(code)
            definitions += [(part.name, code[part.start:part.end])
                            for part in constants + functions]
        grown = True
        while grown:
            grown = False
            for name, text in definitions:
                if name and name not in names and any(
                        re.search(rf"\b{known}\b", text) for known in names):
                    names.add(name)
                    grown = True
        return re.compile(r"\b(" + "|".join(sorted(names)) + r")\b")

    def users_of(self, site: Site) -> list[Body]:
        """The functions whose text names the constant or table."""
        pattern = self.names_of(site)
        return [body for body in self.bodies
                if pattern.search(self.codes[body.file][body.start:body.end])]

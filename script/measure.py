"""Holds measured figures against the budgets in a page's table.

A row of the table: | text | `name` | budget | slack | measured |. The budget is a number and a
unit, the slack a percentage that a busy machine may go over it; a dash in both places makes the row
a figure without a budget.
"""

import argparse
import re
import sys
from dataclasses import dataclass
from pathlib import Path

ROW = re.compile(
    r"^\|[^|]+\| `(?P<name>\w+)` \| (?:(?P<budget>[\d.,]+) (?P<unit>[^|]*?)|-) *"
    r"\| (?:(?P<slack>\d+) %|-) \| (?P<measured>[^|]*?) \|$"
)
# What means to be a row, so that a slip in one does not drop its budget.
NAMED = re.compile(r"^\|[^|]*\|\s*`\w+`\s*\|")
# The line of the page that tells when and where.
MEASURED = "Last written by the script: "


@dataclass(frozen=True)
class Row:
    name: str
    most: float | None
    unit: str
    slack_percent: int
    measured: str

    def verdict(self, value: float, exact: bool) -> str:
        if self.most is None:
            return ""
        allowed = self.most if exact else self.most * (100 + self.slack_percent) / 100
        if value > allowed:
            return "OVER"
        return "ok" if value <= self.most else "ok, within the slack"


def row_of(page: Path, line: str) -> Row | None:
    found = ROW.match(line)
    if found is None or (found["budget"] is None) != (found["slack"] is None):
        if NAMED.match(line):
            sys.exit(f"{page}: a row that cannot be read: {line}")
        return None
    most = None if found["budget"] is None else float(found["budget"].replace(",", ""))
    slack = int(found["slack"] or 0)
    return Row(found["name"], most, found["unit"] or "", slack, found["measured"])


def read_rows(page: Path) -> list[Row]:
    lines = page.read_text(encoding="utf-8").splitlines()
    return [row for row in (row_of(page, line) for line in lines) if row is not None]


def read_figures(file: Path) -> dict[str, float]:
    pairs = (line.split() for line in file.read_text(encoding="ascii").splitlines())
    return {name: float(value) for name, value in pairs}


def shown(value: float) -> str:
    return f"{value:,.1f}".removesuffix(".0")


def report(rows: list[Row], figures: dict[str, float], exact: bool) -> bool:
    """Prints every figure; False when one is over its budget, not measured or not on the page."""
    good = True
    for row in rows:
        value = figures.get(row.name)
        verdict = "NOT MEASURED" if value is None else row.verdict(value, exact)
        good = good and (verdict == "" or verdict.startswith("ok"))
        limit = "" if row.most is None else f"of {row.most:g} {row.unit}"
        text = "-" if value is None else shown(value)
        print(f"{row.name:34} {text:>9}  {limit:16} {verdict:22} page: {row.measured}")
    for name in sorted(figures.keys() - {row.name for row in rows}):
        print(f"{name:34} {shown(figures[name]):>9}  {'':16} HAS NO ROW ON THE PAGE")
        good = False
    return good


def update(page: Path, figures: dict[str, float], machine: str) -> None:
    lines = page.read_text(encoding="utf-8").splitlines()
    for index, line in enumerate(lines):
        if line.startswith(MEASURED):
            lines[index] = f"{MEASURED}{machine}."
        row = row_of(page, line)
        if row is not None and row.name in figures:
            cells = line.split("|")
            cells[-2] = f" {shown(figures[row.name])} "
            lines[index] = "|".join(cells)
    page.write_text("\n".join(lines) + "\n", encoding="utf-8")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--exact", action="store_true", help="allow no slack")
    parser.add_argument("--update", action="store_true", help="write the figures into the page")
    parser.add_argument("--machine", default="", help="when and where they were measured")
    parser.add_argument("page", type=Path)
    parser.add_argument("figures", type=Path)
    arguments = parser.parse_args()
    rows = read_rows(arguments.page)
    if not any(row.most is not None for row in rows):
        print(f"{arguments.page}: no budget in it", file=sys.stderr)
        return 1
    figures = read_figures(arguments.figures)
    good = report(rows, figures, arguments.exact)
    if arguments.update:
        update(arguments.page, figures, arguments.machine)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())

"""Holds measured figures against the budgets in a page's table.

A row of the table: | text | `key` | budget | slack | measured |. The budget is a number and a unit;
the slack is a percentage that a busy machine may go over it.
"""

import argparse
import re
import sys
from dataclasses import dataclass
from pathlib import Path

ROW = re.compile(
    r"^\|[^|]+\| `(?P<key>\w+)` \| (?P<budget>[\d.,]+) (?P<unit>[^|]*?) *\| (?P<slack>\d+) % \|"
)
# What means to be a row, so that a slip in one does not drop its budget.
NAMED = re.compile(r"^\|[^|]*\|\s*`\w+`\s*\|")


@dataclass(frozen=True)
class Budget:
    key: str
    most: float
    unit: str
    slack_percent: int

    def allowed(self, exact: bool) -> float:
        return self.most if exact else self.most * (100 + self.slack_percent) / 100


def read_budgets(page: Path) -> list[Budget]:
    budgets = []
    for line in page.read_text(encoding="utf-8").splitlines():
        row = ROW.match(line)
        if row is not None:
            most = float(row["budget"].replace(",", ""))
            budgets.append(Budget(row["key"], most, row["unit"], int(row["slack"])))
        elif NAMED.match(line):
            sys.exit(f"{page}: a budget that cannot be read: {line}")
    return budgets


def read_figures(file: Path) -> dict[str, float]:
    pairs = (line.split() for line in file.read_text(encoding="ascii").splitlines())
    return {key: float(value) for key, value in pairs}


def report(budgets: list[Budget], figures: dict[str, float], exact: bool) -> bool:
    """Prints every figure; False when one is over its budget or was not measured."""
    good = True
    for budget in budgets:
        value = figures.pop(budget.key, None)
        if value is None:
            verdict = "NOT MEASURED"
        elif value > budget.allowed(exact):
            verdict = "OVER"
        else:
            verdict = "ok" if value <= budget.most else "ok, within the slack"
        good = good and verdict.startswith("ok")
        shown = "-" if value is None else f"{value:g}"
        print(f"{budget.key:36} {shown:>10}  of {budget.most:g} {budget.unit:12} {verdict}")
    for key, value in figures.items():
        print(f"{key:36} {value:>10g}")
    return good


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--exact", action="store_true", help="allow no slack")
    parser.add_argument("page", type=Path)
    parser.add_argument("figures", type=Path)
    arguments = parser.parse_args()
    budgets = read_budgets(arguments.page)
    if not budgets:
        print(f"{arguments.page}: no budget in it", file=sys.stderr)
        return 1
    return 0 if report(budgets, read_figures(arguments.figures), arguments.exact) else 1


if __name__ == "__main__":
    sys.exit(main())

"""The table, as text for a terminal and as Markdown for the page."""

import re
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Any

from .figures import FIGURES, Values, Verdict

BEGIN = "<!-- script/bench-compare --update writes what follows -->"
END = "<!-- up to here -->"


def rows_of(summed: Mapping[str, Values]) -> list[list[str]]:
    rows = [["Figure", "Unit", *summed]]
    for figure in FIGURES:
        if any(figure.key in values for values in summed.values()):
            cells = [f"{values[figure.key]:,.{figure.digits}f}" if figure.key in values else ""
                     for values in summed.values()]
            rows.append([figure.title, figure.unit, *cells])
    return rows


def as_text(rows: Sequence[Sequence[str]]) -> str:
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = []
    for row in rows:
        cells = [cell.ljust(width) if column < 2 else cell.rjust(width)
                 for column, (cell, width) in enumerate(zip(row, widths))]
        lines.append("  ".join(cells).rstrip())
    return "\n".join(lines)


def as_markdown(rows: Sequence[Sequence[str]], text_columns: int = 2) -> str:
    rule = ["---"] * text_columns + ["---:"] * (len(rows[0]) - text_columns)
    return "\n".join("| " + " | ".join(row) + " |" for row in [rows[0], rule, *rows[1:]])


def verdict_rows(verdicts: Sequence[Verdict]) -> list[list[str]]:
    rows = [["Target", "", "Measured", "Limit"]]
    for verdict in verdicts:
        error = "" if verdict.error is None else f" ± {verdict.error:,.2f}"
        rows.append([verdict.text, "met" if verdict.met else "MISSED",
                     f"{verdict.value:,.2f}{error}", f"{verdict.limit:,.2f}"])
    return rows


def cpu_rows(work: Mapping[str, float]) -> list[list[str]]:
    return [["CPU of the daemon", "Unit", "Value"],
            *([text.replace("_", " "), "µs a command", f"{value:.1f}"]
              for text, value in work.items())]


def machine_text(outcome: Mapping[str, Any]) -> str:
    machine = outcome["machine"]
    return (f"Measured on {outcome['date']} with `script/bench-compare`, "
            f"{outcome['rounds']} rounds, on {machine['cpu']}, {machine['cores']} cores, "
            f"kernel {machine['kernel']}, {machine['system']}; "
            f"load {outcome['load_before']:.1f} before, {outcome['load_after']:.1f} after, "
            "the comparison's own included.")


MARKED = re.compile(re.escape(BEGIN) + ".*?" + re.escape(END), re.S)


def check(page: Path) -> None:
    """Raises when the page cannot take an outcome."""
    with page.open("r+", encoding="utf-8") as file:
        if not MARKED.search(file.read()):
            raise SystemExit(f"{page}: the marks for the figures are not there: {BEGIN} ... {END}")


def update(page: Path, outcome: Mapping[str, Any], verdicts: Sequence[Verdict],
           picture: str) -> None:
    """Puts the outcome between the page's two marks."""
    parts = [machine_text(outcome), f"![Bars: the figures of the table]({picture})",
             as_markdown(rows_of(outcome["figures"])), as_markdown(verdict_rows(verdicts)),
             as_markdown(cpu_rows(outcome["cpu_us"]))]
    check(page)
    text = page.read_text(encoding="utf-8")
    inside = "\n\n".join([BEGIN, *parts, END])
    page.write_text(MARKED.sub(lambda _: inside, text), encoding="utf-8")

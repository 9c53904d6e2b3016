"""A small picture of bars: one panel for each figure, one bar for each contestant."""

import textwrap
from collections.abc import Mapping, Sequence
from html import escape

from .figures import FIGURES, Figure, Values

PANELS = ("answer_us_median", "answer_us_p99", "rate_1", "rate_3", "to_modem_1500",
          "cpu_to_modem_1500", "to_host_1500", "taken_us")
COLOURS = ("#9aa5b1", "#7aa6c2", "#a3c9a8", "#4f81bd", "#c0504d", "#e6a09e")
COLUMNS = 2
PANEL_WIDTH = 460
NAME_WIDTH = 110
BAR_HEIGHT = 16
HEAD = 26
GAP = 18
CAPTION_WIDTH = 140  # characters


def panel(figure: Figure, names: Sequence[str], summed: Mapping[str, Values]) -> list[str]:
    values = {name: summed[name][figure.key] for name in names if figure.key in summed[name]}
    longest = max(values.values(), default=1.0) or 1.0
    better = "more is better" if figure.more_is_better else "less is better"
    parts = [f'<text class="head" y="14">{escape(figure.title)}, {escape(figure.unit)}'
             f' <tspan class="note">({better})</tspan></text>']
    for row, name in enumerate(values):
        top = HEAD + row * BAR_HEIGHT
        parts.append(f'<text x="{NAME_WIDTH - 6}" y="{top + 12}" text-anchor="end">'
                     f"{escape(name)}</text>")
        width = max(1.0, (PANEL_WIDTH - NAME_WIDTH - 80) * values[name] / longest)
        colour = COLOURS[names.index(name) % len(COLOURS)]
        parts.append(f'<rect x="{NAME_WIDTH}" y="{top + 1}" width="{width:.1f}" '
                     f'height="{BAR_HEIGHT - 3}" fill="{colour}"/>')
        parts.append(f'<text x="{NAME_WIDTH + width + 4:.1f}" y="{top + 12}">'
                     f"{values[name]:,.{figure.digits}f}</text>")
    return parts


def draw(summed: Mapping[str, Values], caption: str) -> str:
    names = list(summed)
    figures = {figure.key: figure for figure in FIGURES}
    shown = [figures[key] for key in PANELS if any(key in values for values in summed.values())]
    height = HEAD + len(names) * BAR_HEIGHT + GAP
    rows = (len(shown) + COLUMNS - 1) // COLUMNS
    width = COLUMNS * PANEL_WIDTH + 20
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" '
             f'height="{rows * height + 54}" role="img">',
             f"<title>{escape(caption)}</title>",
             "<style>text{font:11px sans-serif;fill:#222}.head{font-weight:bold}"
             ".note{font-weight:normal;fill:#777}</style>",
             '<rect width="100%" height="100%" fill="#fff"/>']
    for at, figure in enumerate(shown):
        left = 10 + at % COLUMNS * PANEL_WIDTH
        top = 10 + at // COLUMNS * height
        parts.append(f'<g transform="translate({left},{top})">')
        parts += panel(figure, names, summed)
        parts.append("</g>")
    for at, line in enumerate(textwrap.wrap(caption, CAPTION_WIDTH)):
        parts.append(f'<text class="note" x="10" y="{rows * height + 28 + at * 14}">'
                     f"{escape(line)}</text>")
    parts.append("</svg>")
    return "\n".join(parts) + "\n"

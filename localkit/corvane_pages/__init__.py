"""Pages for people that consist of one file each: a browser that shows one loads nothing else.

A page has one style and one script, and a policy that allows these two by their digests and nothing else. Whatever is
put into a page is escaped by the template; only what this package draws itself is markup.
"""

import base64
import hashlib
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from functools import cache
from importlib.resources import files
from itertools import accumulate, pairwise

from jinja2 import Environment, PackageLoader, StrictUndefined
from markupsafe import Markup

_WIDTH, _HEIGHT = 240, 60  # of a drawing, in its own units
_WIDE = {"*": 19, "~": 19}  # columns, in characters, whose cells have a line to themselves on a card
_LONGEST = 24  # characters that any other column is widened for

Cell = str | int | Markup


@dataclass(frozen=True)
class Table:
    """A table that can be sorted.

    A title begins with # above numbers, with * above texts that may be folded, and with ~ above drawings.
    """

    name: str
    titles: Sequence[str]
    rows: Sequence[Sequence[Cell]]

    @property
    def columns(self) -> list[tuple[str, str]]:
        """The titles to show, and how they begin, if that says something about what stands below."""
        return [(title.lstrip("#*~"), title[0] if title[0] in "#*~" else "") for title in self.titles]


@dataclass(frozen=True)
class Page:
    """The text of a page, and the policy that it has, for a server to send as a header as well."""

    text: str
    policy: str


def render(template: str, tables: Iterable[Table] = (), **values: object) -> Page:
    """A page made of one of the templates of this package."""
    listed = {table.name: table for table in tables}
    style = _source("page.css") + "".join(map(_style, listed.values()))
    script = _source("page.js")
    policy = f"default-src 'none'; style-src {_digest(style)}; script-src {_digest(script)}; base-uri 'none'"
    shown = {"style": Markup(style), "script": Markup(script), "policy": Markup(policy), "tables": listed, **values}
    return Page(_environment().get_template(template).render(shown), policy)


def curve(values: Sequence[float], mark: float) -> Markup:
    """Values at equal distances as a line, from the least at the bottom to the greatest at the top.

    Args:
        values: From two to 241 of them.
        mark: Where to draw a line from top to bottom, as a share of the width.
    """
    steps = len(values) - 1
    width, low, high = _WIDTH // steps, min(values), max(values)
    scale = (_HEIGHT - 4) / ((high - low) or 1)
    heights = [round(scale * (high - value)) + 2 for value in values]
    # Relative, and with signs for separators: a step takes three or four bytes.
    moves = "".join(f"{' ' * (i > 0)}{width}{b - a:+d}" for i, (a, b) in enumerate(pairwise(heights)))
    moves = moves.replace("+", " ")
    marked = f'<path d="M{round(mark * width * steps)} 0v{_HEIGHT}"/>'
    box = f"0 0 {width * steps} {_HEIGHT}"
    return Markup(f'<svg viewBox="{box}" preserveAspectRatio="none"><path d="M0 {heights[0]}l{moves}"/>{marked}</svg>')


def growth(moments: Sequence[float], amounts: Sequence[float]) -> Markup:
    """How a sum has grown: at each of the moments, in order, by an amount."""
    begin, end, total = moments[0], moments[-1], sum(amounts)
    points = [f"0 {_HEIGHT}"]
    for moment, reached in zip(moments, accumulate(amounts), strict=True):
        x = round(_WIDTH * (moment - begin) / ((end - begin) or 1))
        y = round(_HEIGHT - (_HEIGHT - 2) * reached / (total or 1))
        if (point := f"{x} {y}") != points[-1]:
            points.append(point)
    path = f"M{'L'.join(points)}"
    return Markup(f'<svg viewBox="0 0 {_WIDTH} {_HEIGHT}" preserveAspectRatio="none"><path d="{path}"/></svg>')


def _style(table: Table) -> str:
    """What only this table has: how wide its columns are, and what its cells are called where each row is a card.

    Widths are computed here, not by the browser, which would have to look at all rows: so it looks at those in sight.
    """
    rules, cards, widths, narrowest = "", "", list[str](), 0
    for number, (title, kind) in enumerate(table.columns, 1):
        cell = f"#{table.name} td:nth-child({number})"
        rules += f"#{table.name} :is(td,th):nth-child({number}){{text-align:right}}\n" * (kind == "#")
        cards += f'{cell}::before{{content:"{title}"}}\n'
        if kind in _WIDE:
            width, cards = _WIDE[kind], f"{cards}{cell}{{grid-column:1/-1}}\n"
        else:
            cells = (row[number - 1] for row in table.rows)
            longest = max((len(str(one)) for one in cells if not isinstance(one, Markup)), default=0)
            width = max(max(map(len, title.split())) + 3, min(longest, _LONGEST) + 2)
        widths.append(f"{width}ch" if kind == "#" else f"minmax({width}ch,{width}fr)")
        narrowest += width
    wide = f"#{table.name}{{min-width:{narrowest}ch}}\n#{table.name} tr{{grid-template-columns:{' '.join(widths)}}}\n"
    return f"{rules}@media screen and (max-width:60em){{\n{cards}}}\n@media screen and (min-width:60em){{\n{wide}}}\n"


def _digest(text: str) -> str:
    return f"'sha256-{base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()}'"


@cache
def _source(name: str) -> str:
    return (files(__name__) / name).read_text(encoding="utf-8")


@cache
def _environment() -> Environment:
    # No other kind of template is here: everything is escaped, whatever a template is called.
    return Environment(
        loader=PackageLoader(__name__, "."), autoescape=True, undefined=StrictUndefined, trim_blocks=True,
        keep_trailing_newline=True,
    )  # fmt: skip

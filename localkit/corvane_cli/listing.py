"""Lists: in columns for people, whatever the width of the terminal, and as CSV for other programs."""

from collections.abc import Sequence

import click
from click.core import ParameterSource

from corvane_cli.display import one_line

_INDENT = "    "
_FORMULA = ("=", "+", "-", "@", "\t", "\r")  # what a spreadsheet would take for the beginning of a formula

csv_option = click.option("--csv", "as_csv", is_flag=True, help="Print the result as CSV on stdout.")


def columns(titles: Sequence[str], rows: Sequence[Sequence[object]]) -> list[str]:
    """The rows below their titles. Columns whose title begins with # hold numbers, the last one holds long texts.

    Where a row is too long for the terminal, its last text has lines of its own; where the others are still too long,
    they are folded, in all rows alike.
    """
    import shutil
    import textwrap

    width = shutil.get_terminal_size((10_000, 24)).columns
    shown = [[title.removeprefix("#") for title in titles], *([one_line(cell) for cell in row] for row in rows)]
    sizes = [max(map(len, column)) for column in zip(*shown, strict=True)]
    folded = list[list[int]]([[]])
    for number, size in enumerate(sizes):
        if sum(sizes[other] + 2 for other in folded[-1]) + size > width:
            folded.append([])
        folded[-1].append(number)
    if apart := len(folded[-1]) == 1:  # the last one does not fit beside the others
        folded.pop()
    lines = []
    for row in shown:
        for part in folded:
            cells = [f"{row[n]:{'>' if titles[n].startswith('#') else '<'}{sizes[n]}}" for n in part]
            lines.append("  ".join(cells).rstrip())
        if apart:
            lines += textwrap.wrap(row[-1], max(width, 20), initial_indent=_INDENT, subsequent_indent=_INDENT)
    return lines


def csv_lines(titles: Sequence[str], rows: Sequence[Sequence[object]]) -> list[str]:
    """The rows below their titles, as CSV.

    A text that a spreadsheet would compute gets an apostrophe in front, as spreadsheets write such texts themselves.
    """
    import csv
    import io

    def cell(value: object) -> object:
        if value is None or isinstance(value, int | float):
            return value
        text = one_line(value)
        return f"'{text}" if text.startswith(_FORMULA) else text

    file = io.StringIO()
    csv.writer(file, lineterminator="\n").writerows([titles, *([cell(value) for value in row] for row in rows)])
    return file.getvalue().splitlines()


def refuse_json_with_csv(as_csv: bool) -> None:
    """One result is printed in one form."""
    ctx: click.Context | None = click.get_current_context()
    while as_csv and ctx is not None:
        if ctx.get_parameter_source("json") == ParameterSource.COMMANDLINE:
            raise click.UsageError("--csv and --json cannot be combined.")
        ctx = ctx.parent

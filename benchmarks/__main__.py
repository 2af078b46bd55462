"""The command: prints one table of ratios and draws it.

A ratio is the native module's time over that of its plain Python twin, or over that of a floor: what the operation
would cost if there were nothing but the interpreter, the digest or the JSON decoder. Both are timed in the same run,
in alternating batches; the spread is the middle half of the rounds. Times are of the machine that ran it.
"""

import os
import tempfile
from pathlib import Path

import click
import matplotlib
from matplotlib.backends.backend_svg import FigureCanvasSVG
from matplotlib.figure import Figure

from benchmarks.measure import Row, readable
from benchmarks.operations import all_rows, shares_of_bootstrap
from benchmarks.startup import LIMIT, startup_rows


def draw(rows: list[Row], path: Path) -> None:
    """The ratios as points with their spread, on a logarithmic axis."""
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "corvane"})  # text as text, the same ids
    figure = Figure(figsize=(9, 0.24 * len(rows) + 1.2), layout="constrained")
    axes = figure.add_subplot()
    for place, row in enumerate(reversed(rows)):
        colour = "#1f5fa8" if row.against == "twin" else "#b0662a"
        axes.plot(row.spread, (place, place), color=colour, linewidth=3, alpha=0.45)
        axes.plot(row.ratio, place, "o", color=colour, markersize=4)
    axes.set_yticks(range(len(rows)), [f"{row.what} / {row.against}" for row in reversed(rows)], fontsize=7)
    axes.set_xscale("log")
    axes.axvline(1.0, color="0.5", linewidth=0.8)
    axes.set_xlabel("time of the native module over that of the other; left of the line is faster")
    axes.grid(axis="x", alpha=0.3)
    FigureCanvasSVG(figure).print_svg(str(path), metadata={"Date": None})


@click.command()
@click.option("--picture", type=click.Path(path_type=Path), help="Draw the table into this SVG file.")
def main(picture: Path | None) -> None:
    """Time every operation beside its twin and its floor."""
    rows = []
    click.echo(f"{'operation':<46}{'time':>9}  {'against':<20}{'ratio':>7}   middle half")
    with tempfile.TemporaryDirectory(prefix="corvane-bench-") as temporary:
        picture = picture and picture.resolve()
        os.environ["HOME"] = temporary
        os.chdir(temporary)
        for row in all_rows(Path(temporary)):
            low, high = row.spread
            beginning = f"{row.what:<46}{readable(row.native):>9}  {row.against:<20}"
            mark = "  slower" if row.against.startswith("twin") and low > 1.0 else ""
            click.echo(f"{beginning}{row.ratio:7.2f}   {low:.2f}-{high:.2f}{mark}")
            rows.append(row)
        click.echo("\nShare of each step of the local bootstrap, modules loaded before:")
        for name, share in shares_of_bootstrap().items():
            click.echo(f"   {name:<46}{share:6.1%}")
        click.echo(f"\nProcessor time of a command over that of a bare interpreter (at most {LIMIT:g} s):")
        for name, over in startup_rows(Path(temporary)):
            click.echo(f"   {name:<46}{over:6.3f} s{'  slower' if over > LIMIT else ''}")
        os.chdir("/")
    if picture:
        draw(rows, picture)
        click.echo(f"drawn: {picture.name}")


if __name__ == "__main__":
    main()

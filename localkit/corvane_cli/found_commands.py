"""What was searched and found: lists of it, and a page about one agent or a fleet. Nothing is sent unless asked for."""

from dataclasses import asdict
from pathlib import Path
from typing import TYPE_CHECKING

import click

from corvane_cli.command import Exit, Failure, Result, table
from corvane_cli.identity import Agent
from corvane_cli.listing import columns, csv_lines, csv_option, refuse_json_with_csv
from corvane_cli.shared import command, dry_run_option, iso_time, minute, plan

if TYPE_CHECKING:
    from corvane.search_tracking import FoundSignal, Record

# By what signals can be sorted, and the field for it: measures and times from the greatest, the others from the least.
_ORDERS = {
    "found": "found_at", "correlation": "correlation", "information": "mutual_information", "sharpe-in": "sharpe",
    "sharpe-out": "rest_sharpe", "number": "id", "era": "era_id", "traded": "instrument", "expression": "expression",
}  # fmt: skip
_RISING = ("number", "era", "traded", "expression")

_limit = click.option("--limit", type=click.IntRange(1), metavar="N", help="Show the first N only.")


@command("signals", "signals --sort sharpe-out --limit 10", "signals --csv > signals.csv")
@click.option("--sort", "order", default="found", type=click.Choice(list(_ORDERS)), help="Best or newest first.")
@_limit
@csv_option
def signals(agent: Agent, order: str, limit: int | None, as_csv: bool) -> Result:
    """List the signals that were found in the data directory. Nothing is sent.

    The Sharpe ratios are annualised and after costs: "in" on the days that were searched, "out" on those after them.
    """
    from corvane_cli.report import read_era

    refuse_json_with_csv(as_csv)
    record, era = _record(agent), read_era(agent.data_dir)

    def universe(signal: "FoundSignal") -> str | None:
        return era.universe if signal.era_id == era.number else None

    found = sorted(record.signals, key=lambda one: getattr(one, _ORDERS[order]), reverse=order not in _RISING)[:limit]
    if as_csv:
        names = (
            "number", "era", "universe", "pool", "traded", "expression", "correlation", "mutual information (bits)",
            "sharpe in sample (annualised)", "correlation out of sample", "sharpe out of sample (annualised)",
            "evaluation", "found at (UTC)",
        )  # fmt: skip
        listed = [
            (s.id, s.era_id, universe(s), s.pool, s.instrument, s.expression, s.correlation, s.mutual_information,
             s.sharpe, s.rest_correlation, s.rest_sharpe, s.evaluation, iso_time(s.found_at))
            for s in found
        ]  # fmt: skip
        return Result({}, csv_lines(names, listed))
    data = {"signals": [{**asdict(s), "named_universe": universe(s)} for s in found], "found": len(record.signals)}
    if not found:
        return Result(data, ["No signals have been found yet.", "Next: `corvane search` looks for some."])
    titles = ("#number", "#era", "universe", "traded", "#corr.", "#bits", "#Sharpe in", "#out", "found", "expression")
    rows = [
        (s.id, s.era_id, universe(s) or "", s.instrument, f"{s.correlation:.3f}", f"{s.mutual_information:.3f}",
         f"{s.sharpe:.2f}", f"{s.rest_sharpe:.2f}", minute(s.found_at), s.expression)
        for s in found
    ]  # fmt: skip
    note = f"{len(found)} of {len(record.signals)} signals. " * (len(found) < len(record.signals))
    note += "A found signal is a reason to look closer, never a reason to trade."
    return Result(data, columns(titles, rows) + table([(note,)]))


@command("searches", "searches", "searches --json")
@_limit
@csv_option
def searches(agent: Agent, limit: int | None, as_csv: bool) -> Result:
    """List the searches of the data directory, the newest first, with their velocity. Nothing is sent."""
    refuse_json_with_csv(as_csv)
    record = _record(agent)
    counts, runs = record.found_by(), record.runs[::-1][:limit]
    listed = [
        (run.id, iso_time(run.started_at), round(run.seconds, 1), run.seed, run.evaluations, run.candidates,
         counts[run.id], *(None if rate is None else round(rate, 1) for rate in (run.rate(run.evaluations),
         run.rate(counts[run.id], 3600))), record.outcome(run))
        for run in runs
    ]  # fmt: skip
    if as_csv:
        names = ("number", "started at (UTC)", "seconds", "seed", "evaluations", "candidates", "signals")
        return Result({}, csv_lines([*names, "evaluations per second", "signals per hour", "outcome"], listed))
    fields = ("evaluations_per_second", "signals_per_hour", "outcome")
    data = {
        "searches": [
            asdict(run) | {"signals": row[6]} | dict(zip(fields, row[7:], strict=True))
            for run, row in zip(runs, listed, strict=True)
        ],
        "signals_per_hour": round(record.per_hour(), 3),
        "trend": record.trend(),
        "running": record.running,
    }
    if not runs:
        return Result(data, ["There have been no searches yet.", "Next: `corvane search` starts one."])
    titles = ("#number", "started", "#seconds", "#seed", "#tried", "#cand.", "#found", "#per s", "#per h", "outcome")
    rows = [[("" if v is None else v) for v in row] for row in listed]
    for row, run in zip(rows, runs, strict=True):
        row[1] = minute(run.started_at)
    total = f"{len(record.signals)} signals, {record.per_hour():.1f} per hour of searching; trend: {record.trend()}."
    return Result(data, columns(titles, rows) + table([(total,)]))


def _record(agent: Agent) -> "Record":
    from corvane_cli.report import is_identity, read

    if not is_identity(agent.data_dir):
        raise Failure(f"There is no identity in {agent.data_dir}.", Exit.NOT_LOGGED_IN, agent.next_step())
    return read(agent)


@command("report", "report --out report.html", "report ~/agents --out fleet.html    # all agents below ~/agents")
@click.argument("directories", nargs=-1, metavar="[DIR]...", type=click.Path(path_type=Path))
@click.option("--out", required=True, type=click.Path(dir_okay=False, path_type=Path), help="Where: FILE.html.")
@click.option("--online", is_flag=True, help="Ask the service whether it accepts each wallet.")
@dry_run_option
def report(agent: Agent, directories: tuple[Path, ...], out: Path, online: bool, dry_run: bool) -> Result:
    """Write a page about agents: health, downloads, searches, and found signals with their curves.

    DIR is the directory of an identity, or one that holds such directories; by default it is --data-dir. The page is a
    single file that loads nothing from elsewhere. It replaces nothing but an earlier report. Without --online, nothing
    is sent. A key in the environment is used only without DIR.
    """
    from corvane_cli import report as reporting

    agents = reporting.identities(directories, agent)
    reporting.check_out(out, agents)
    if dry_run:
        asks = [f"sign {len(agents)} wallets in at their services"] * online
        return plan([f"examine {one.data_dir}" for one in agents] + asks + [f"write {out}"])
    page = reporting.write(agents, directories or (agent.data_dir,), out, online)
    lines = [f"{out}: {page.totals()}"]
    if page.errors or page.warnings:
        lines.append("Next: see the page's section Health; `corvane doctor --data-dir DIR` says the same.")
    return Result({"report": out, **asdict(page)}, lines)

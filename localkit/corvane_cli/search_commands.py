"""Downloading the era, searching it, and what a signal would have earned."""

from dataclasses import asdict
from typing import TYPE_CHECKING, Any

import click

from corvane_cli.command import Exit, Failure, Result, Seconds, table
from corvane_cli.identity import Agent
from corvane_cli.listing import csv_lines, csv_option, refuse_json_with_csv
from corvane_cli.shared import (
    bootstrap_runtime,
    command,
    download_step,
    dry_run_option,
    heartbeat_file,
    heartbeat_option,
    paragraphs,
    plan,
    progress_option,
    sign_in,
    sync_files,
    value_lines,
)

if TYPE_CHECKING:
    from corvane.simulate_signal import Simulation

_SERIES = (
    "date (YYYY-MM-DD)",
    "profit (share of the capital)",
    "capital (begins with 1)",
    "days of the search (1 or 0)",
)


@command("sync", "sync", "sync --check    # compares what is there with the manifest; nothing is sent")
@click.option("--check", is_flag=True, help="Only verify what was downloaded.")
@click.option("--wait", default=0.0, type=Seconds(0), metavar="SECONDS", help="Wait for another sync.")
@progress_option
@dry_run_option
def sync(agent: Agent, check: bool, wait: float, progress: bool | None, dry_run: bool) -> Result:
    """Download what has changed of the active era, and replace what is damaged."""
    from corvane_cli.doctor_directory import check_copies, check_files
    from corvane_cli.doctor_findings import examine, kind_of

    changed: list[str] = []
    manifest = agent.data_dir / "manifest.json"
    if check and (kind := kind_of(manifest)):
        raise Failure(f"{manifest} is {kind}.", Exit.DAMAGED, "`corvane doctor` says how to get it out of the way.")
    if check and not manifest.exists():
        raise Failure(f"Nothing was downloaded to {agent.data_dir}.", Exit.DAMAGED, "`corvane sync` downloads the era.")
    if not check:
        sign_in(agent, dry_run)
        if dry_run:
            damaged = [f"repair: {f.problem}" for f in examine(agent, check_files)]
            return plan([*damaged, download_step(agent)])
        changed = sync_files(agent, progress, wait)
    # A sync has verified the files, and does not repair the copies of native modules.
    files = [check_files] if check else []
    findings = examine(agent, *files, check_copies)
    lines = [*changed, *paragraphs(findings)] or ["All files are what the manifest says."]
    data = {"changed_files": changed, "intact": not findings, "findings": [asdict(finding) for finding in findings]}
    return Result(data, lines, Exit.DAMAGED if findings else Exit.OK)


@command("search", "search --max-evaluations 5000", "search --seconds 60 --jobs 2 --json")
@click.option("--seed", type=click.IntRange(0), show_default="the number of searches so far")
@click.option("--max-evaluations", default=2000, type=click.IntRange(1), help="How many to try.")
@click.option("--seconds", type=Seconds(0, min_open=True), help="How long at most.")
@click.option("--jobs", "n_jobs", default=1, type=click.IntRange(1), help="How many threads.")
@heartbeat_option
@progress_option
@dry_run_option
def search(
    agent: Agent, seed: int | None, heartbeat: bool, progress: bool | None, dry_run: bool, **limits: Any
) -> Result:
    """Search the active era for signals. Whatever is found is kept, even after Ctrl-C."""
    sign_in(agent, dry_run)
    if dry_run:
        file = heartbeat_file(agent.onboarding(), heartbeat)
        steps = [download_step(agent), f"try {limits['max_evaluations']} expressions"]
        return plan(steps + [f"make sure that the checklist is in {file}"] * bool(file))
    from corvane.search_templates import search_status, start_search

    before = search_status()
    if before.running:
        raise Failure("A search is running in this directory.", Exit.TRY_AGAIN, "Wait until it ends.")
    if seed is None:
        seed = before.run.id if before.run else 0
    bootstrap_runtime(agent, progress)
    agent.onboarding(heartbeat)
    found = start_search(seed=seed, progress=progress, **limits)
    counts = f"{len(found.signals)} signals of {found.candidates} candidates in {found.evaluations} expressions"
    rows = [(s.id, s.instrument, s.pool, f"{s.rest_sharpe:.2f}", s.expression) for s in found.signals]
    signals = table([("number", "traded", "pool", "Sharpe", "expression"), *rows]) if rows else []
    lines = [f"{counts}, seed {seed}", *signals, "A found signal is a reason to look closer, never a reason to trade."]
    return Result({**asdict(found), "seed": seed}, lines)


@command(
    "simulate",
    "simulate 4 --picture signal-4.png",
    "simulate 4 --csv > signal-4.csv",
    'simulate "zscore(IBM, 20)" --instrument MSFT',
)
@click.argument("signal")
@click.option("--instrument", help="What is traded.", show_default="the signal's own")
@click.option("--picture", type=click.Path(dir_okay=False), help="Draw the growth of the capital: FILE.png or .svg.")
@csv_option
@progress_option
@dry_run_option
def simulate(
    agent: Agent,
    signal: str,
    instrument: str | None,
    picture: str | None,
    as_csv: bool,
    progress: bool | None,
    dry_run: bool,
) -> Result:
    """Say what trading a found signal (its number) or an expression would have earned, after costs.

    With --csv, print what it would have earned on each day.
    """
    from corvane.simulate_signal import _simulate_signal_export, check_picture

    refuse_json_with_csv(as_csv)
    if picture:
        check_picture(picture, agent.data_dir)
    sign_in(agent, dry_run)
    if dry_run:
        return plan([download_step(agent), f"simulate {signal}"] + [f"draw {picture}"] * bool(picture))
    bootstrap_runtime(agent, progress)
    number_or_text = int(signal) if signal.isdecimal() else signal
    simulation = _simulate_signal_export(number_or_text, instrument=instrument, picture=picture)
    if as_csv:
        return Result({}, csv_lines(_SERIES, _series(simulation)))
    names = ("expression", "instrument", "sharpe", "train_sharpe", "rest_sharpe", "max_drawdown", "total_return")
    values = {name: getattr(simulation, name) for name in names}
    data = {name: None if value != value else value for name, value in values.items()}  # JSON has no NaN
    return Result({**data, "picture": picture}, value_lines(values))


def _series(simulation: "Simulation") -> list[tuple[object, ...]]:
    capital, rows = 1.0, list[tuple[object, ...]]()
    for number, (day, profit) in enumerate(zip(simulation.days, simulation.profit.tolist(), strict=True)):
        capital *= 1 + profit
        date = f"{day // 10000:04}-{day // 100 % 100:02}-{day % 100:02}"
        rows.append((date, round(profit, 8), round(capital, 8), int(number < simulation.train_days)))
    return rows

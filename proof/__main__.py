"""The command: runs the methods named (all of them by default) and prints the table."""

import importlib
import time
from pathlib import Path

import click

from proof.workshop import Missing, Result, Workshop

METHODS = (
    "sanitizers",
    "leaks",
    "allocations",
    "system_calls",
    "races",
    "users",
    "processes",
    "fuzzing",
    "coverage",
    "planted_faults",
    "mutations",
)


@click.command()
@click.argument("methods", nargs=-1, type=click.Choice(METHODS))
@click.option("--quick", is_flag=True, help="Only what takes seconds.")
def main(methods: tuple[str, ...], quick: bool) -> None:
    """Run the proofs named METHODS, or all of them. Exit status: 1 for findings, 2 if something could not be run."""
    workshop = Workshop(Path(__file__).parents[1], quick)
    results: list[Result] = []
    for name in methods or METHODS:
        started = time.monotonic()
        click.echo(f"proof: {name}")
        try:
            found = list(importlib.import_module(f"proof.{name}").run(workshop))
        except Missing as exc:
            found = [Result(name, 0, [f"INCOMPLETE: {exc}"], complete=False)]
        except Exception as exc:
            found = [Result(name, 0, [f"the proof itself failed: {type(exc).__name__}: {exc}"])]
        for result in found:
            for finding in result.findings:
                click.echo(f"   {result.what}: {finding}")
        results += found
        click.echo(f"   {time.monotonic() - started:.0f} s")
    click.echo(f"\nThe extension under test: {workshop.identity()}\n")
    click.echo(f"{'what':<58}{'points':>10}  findings")
    for result in results:
        verdict = str(len(result.findings)) if result.complete else "INCOMPLETE"
        click.echo(f"{result.what:<58}{result.points:>10,}  {verdict}")
    if any(result.findings for result in results if result.complete):
        raise SystemExit(1)
    if not all(result.complete for result in results):
        raise SystemExit(2)


if __name__ == "__main__":
    main()

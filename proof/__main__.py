"""The command: runs the methods named (all of them by default) and prints the table."""

import hashlib
import importlib
import time
from pathlib import Path

import click

from corvane import agent_onboarding
from proof.workshop import Missing, Workshop

# A file of this package each, with a function `run(workshop)` that yields results.
BUILT = ["sanitizers", "fuzzing", "coverage", "planted_faults", "mutations", "twin_faults"]  # with builds of their own
METHODS = ["leaks", "allocations", "system_calls", "key_file", "processes", "attacks", *BUILT, "kit_mutations"]


@click.command()
@click.argument("methods", nargs=-1, type=click.Choice(METHODS))
@click.option("--quick", is_flag=True, help="Only what takes seconds.")
def main(methods: tuple[str, ...], quick: bool) -> None:
    """Run the proofs named METHODS, or all of them. Exit status: 1 for findings, 2 if something could not be run."""
    workshop = Workshop(quick)
    table, status = ["", f"{'points':>10}  findings  what"], 0
    for name in methods or METHODS:
        click.echo(f"{time.strftime('%X')} {name}")
        try:
            for result in importlib.import_module(f"proof.{name}").run(workshop):
                findings = [*result.findings, *["nothing was looked at"] * (result.points == 0)]
                table.append(f"{result.points:>10,}{len(findings):>10}  {result.what}")
                table += [
                    f"{points:>10,}{'':12}   of these: {what}" for what, points in result.of_these.items() if points
                ]
                for finding in findings:
                    click.echo(f"   {result.what}: {finding}")
                    status = 1
        except Exception as exc:
            missing = isinstance(exc, Missing)  # which is never a pass
            verdict = "INCOMPLETE" if missing else f"the proof itself failed: {type(exc).__name__}"
            table.append(f"{0:>10}            {name}: {verdict}: {exc}")
            status = status or 2 if missing else 1
    extension = Path(str(agent_onboarding.__file__))
    digest, installed = hashlib.sha256(extension.read_bytes()).hexdigest(), time.ctime(extension.stat().st_mtime)
    click.echo("\n".join([*table, "", f"The extension under test: sha256 {digest}, installed {installed}"]))
    raise SystemExit(status)


if __name__ == "__main__":
    main()

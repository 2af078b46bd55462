"""The command: runs the methods named (all of them by default) and prints the table."""

import importlib
import time

import click

from proof.workshop import Missing, Workshop

# Functions that yield results, by the file of this package that they are in.
FILES = {
    "memory": "leaks allocations",
    "system": "system_calls key_file processes",
    "attacks": "attacks",
    "sanitizers": "sanitizers",
    "fuzzing": "fuzzing",
    "coverage": "coverage",
    "faults": "planted_faults twin_faults",
    "mutations": "mutations kit_mutations",
}
METHODS = {method: f"proof.{file}" for file, methods in FILES.items() for method in methods.split()}


@click.command()
@click.argument("methods", nargs=-1, type=click.Choice(list(METHODS)))
@click.option("--quick", is_flag=True, help="Only what takes seconds.")
def main(methods: tuple[str, ...], quick: bool) -> None:
    """Run the proofs named METHODS, or all of them. Exit status: 1 for findings, 2 if something could not be run."""
    workshop = Workshop(quick)
    table, status = ["", f"{'points':>10}  findings  what"], 0
    for name in methods or METHODS:
        click.echo(f"{time.strftime('%X')} {name}")
        try:
            for result in getattr(importlib.import_module(METHODS[name]), name)(workshop):
                findings = [*result.findings, *["nothing was looked at"] * (result.points == 0)]
                table.append(f"{result.points:>10,}{len(findings):>10}  {result.what}")
                table += [f"{n:>10,}{'':12}   of these: {what}" for what, n in result.of_these.items() if n]
                for finding in findings:
                    click.echo(f"   {result.what}: {finding}")
                    status = 1
        except Exception as exc:
            missing = isinstance(exc, Missing)  # which is never a pass
            verdict = "INCOMPLETE" if missing else f"the proof itself failed: {type(exc).__name__}"
            table.append(f"{0:>10}            {name}: {verdict}: {exc}")
            status = status or 2 if missing else 1
    click.echo("\n".join(table))
    raise SystemExit(status)


if __name__ == "__main__":
    main()

"""The command: runs all steps in one directory."""

import itertools
import os
import signal
import sys
from contextlib import nullcontext
from pathlib import Path
from tempfile import TemporaryDirectory

import click

from corvane_local.cli import Prints
from corvane_local.demo.checks import CheckFailed, steps_of
from corvane_local.demo.runtime import RuntimeSteps
from corvane_local.demo.service import Service
from corvane_local.demo.wallet import WalletSteps

SABOTAGE = click.Choice(["key-file", "invite", "heartbeat", "module", "picture"])


@click.command(cls=Prints)
@click.option("--sabotage", type=SABOTAGE, help="Spoil what a step has done, to see that it is noticed.")
@click.option("--keep", metavar="DIR", type=click.Path(path_type=Path, resolve_path=True), help="Keep everything here.")
def main(sabotage: str | None, keep: Path | None) -> None:
    """Show an agent's first day against a real service on this machine."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the service does not outlive the demo
    if keep is not None:
        try:
            keep.mkdir(mode=0o700, parents=True)  # a new one, so that nothing of anybody else is in it
        except OSError as exc:
            raise click.BadParameter(f"This directory cannot be made: {exc}", param_hint="--keep") from None
    click.echo("An agent's first day, with a real service on this machine. Every step is checked from outside.")
    failed = False
    with TemporaryDirectory(prefix="corvane-demo-") if keep is None else nullcontext(keep) as directory:
        root = Path(directory)
        service, home, workspace = Service(root / "service"), root / "agent", root / "workspace"
        workspace.mkdir()
        os.chdir(workspace)
        os.environ["MPLCONFIGDIR"] = str(root / "matplotlib")  # what the plotting library keeps, it keeps in the home
        parts = [part(service, home, workspace, sabotage) for part in (WalletSteps, RuntimeSteps)]
        try:
            for number, step in enumerate(itertools.chain(*map(steps_of, parts)), 1):
                click.echo(f"\n{number}. {step.__doc__}")
                step()
        except Exception as exc:
            failed = True
            if not isinstance(exc, CheckFailed):
                click.echo(f"   NOT TRUE: nothing is raised here. {type(exc).__name__}: {exc}")
        finally:
            service.stop()
            os.chdir("/")
        picture = workspace / "best.png"
        drawn = f"the picture is {picture}" if picture.exists() else "there is no picture yet"
    removed = "Everything was removed; --keep DIR keeps it in a new directory, the picture as workspace/best.png."
    click.echo(f"\n{removed}" if keep is None else f"\nEverything was kept in {keep}; {drawn}")
    click.echo(f"demo: FAILED in step {number}" if failed else f"demo: all {number} steps hold")
    sys.exit(failed)


if __name__ == "__main__":
    main()

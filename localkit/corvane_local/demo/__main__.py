"""The command: runs all steps in one temporary directory."""

import os
import signal
import sys
import tempfile
from pathlib import Path

import click

from corvane_local.demo.checks import CheckFailed
from corvane_local.demo.runtime import RuntimeSteps
from corvane_local.demo.service import Service
from corvane_local.demo.wallet import WalletSteps

SABOTAGE = click.Choice(["service", "key-file", "invite", "module", "database"])


@click.command()
@click.option("--sabotage", type=SABOTAGE, help="Break a step on purpose.")
def main(sabotage: str | None) -> None:
    """Show an agent's first day against a real service on this machine."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the service does not outlive the demo
    click.echo("An agent's first day, with a real service on this machine. Every step is checked from outside.")
    with tempfile.TemporaryDirectory(prefix="corvane-demo-") as temporary:
        root = Path(temporary)
        service, home, workspace = Service(root / "service"), root / "agent", root / "workspace"
        workspace.mkdir()
        os.chdir(workspace)
        os.environ["MPLCONFIGDIR"] = str(root / "matplotlib")  # what the plotting library keeps, it keeps in the home
        wallet_steps = WalletSteps(service, home, workspace, sabotage).steps()
        runtime_steps = RuntimeSteps(service, home, workspace, sabotage).steps()
        try:
            for number, step in enumerate([*wallet_steps, *runtime_steps], 1):
                click.echo(f"\n{number}. {step.__doc__}")
                step()
        except Exception as exc:
            if not isinstance(exc, CheckFailed):
                click.echo(f"   {type(exc).__name__}: {exc}")
            click.echo("\ndemo: FAILED in this step")
            raise SystemExit(1) from None
        finally:
            service.stop()
            os.chdir("/")
    click.echo(f"\ndemo: all {number} steps hold")


if __name__ == "__main__":
    main()

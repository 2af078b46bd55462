"""What commands share: how one is declared, its usual options, and the steps that several of them take."""

from collections.abc import Callable, Iterable
from types import ModuleType
from typing import TYPE_CHECKING, Any

import click

from corvane import auth
from corvane_cli import interrupts
from corvane_cli.command import SECONDS, Command, Exit, Failure, Result, table
from corvane_cli.display import one_line
from corvane_cli.identity import Agent, KeyFile

if TYPE_CHECKING:
    from corvane_cli.doctor_findings import Finding

progress_option = click.option(
    "--progress/--no-progress", default=None, help="Progress bars; by default on a terminal only."
)
dry_run_option = click.option("--dry-run", is_flag=True, help="Say what would be done, and do nothing.")
heartbeat_option = click.option("--heartbeat/--no-heartbeat", default=True, help="Whether HEARTBEAT.md may be edited.")


def command(name: str, *examples: str) -> Callable[[Callable[..., Result]], click.Command]:
    """Declares a command; `main.py` lists them all."""
    text = "\b\nExamples:\n" + "\n".join(f"  corvane {example}" for example in examples)
    return click.command(name, cls=Command, epilog=text)


def who(agent: Agent, address: str | None, *notes: str, **more: Any) -> Result:
    """Which wallet it is, which service, where the key is, and what else there is to say."""
    data = {"address": address, "server_url": agent.server_url, "key": agent.key_source, **more}
    return Result(data, [*value_lines(data), *notes])


def value_lines(values: dict[str, Any]) -> list[str]:
    """The values as a table with their names; those that are None are left out."""
    shown = {name: f"{value:.4f}" if isinstance(value, float) else value for name, value in values.items()}
    shown = {name: " ".join(value) if isinstance(value, list) else value for name, value in shown.items()}
    return table([(name, value) for name, value in shown.items() if value is not None])


def paragraphs(findings: "Iterable[Finding]") -> list[str]:
    """The findings for people."""
    return [line for finding in findings for line in finding.lines()]


def iso_time(seconds: float) -> str:
    """A time in seconds since 1970 as text."""
    from datetime import UTC, datetime

    return f"{datetime.fromtimestamp(seconds, UTC):%Y-%m-%dT%H:%M:%SZ}"


def minute(seconds: float) -> str:
    """A moment for people, in UTC: `2026-01-31 09:30`."""
    return iso_time(seconds)[:16].replace("T", " ")


def plan(steps: list[str]) -> Result:
    """The result of a dry run."""
    return Result({"dry_run": True, "would": steps}, ["Nothing was done. It would:", *(f"- {step}" for step in steps)])


def download_step(agent: Agent) -> str:
    """What a download would do, as a step of a dry run."""
    return f"download what has changed at {agent.server_url} to {agent.data_dir}"


def heartbeat_file(onboarding: ModuleType, wanted: bool) -> str | None:
    """The HEARTBEAT.md that the onboarding module would edit, if it may."""
    return vars(onboarding)["_find_heartbeat"]() if wanted else None


def usable_key_file(agent: Agent, *refused: str) -> KeyFile:
    """The key file, if the key is there, or may be put there."""
    key = agent.key_file()
    if not agent.env_key and key.state in (refused or ("empty", "malformed", "unsafe", "unreadable")):
        from corvane_cli.doctor_wallet import key_findings

        [finding, *_] = key_findings(key)
        raise Failure(f"{finding.problem} Reason: {finding.reason}.", Exit.MACHINE, finding.next_step)
    return key


def sign_in(agent: Agent, dry_run: bool = False) -> auth.AuthManager:
    """Signs in with the key that was accepted before; a dry run only makes sure that there is one."""
    key = usable_key_file(agent)
    if not agent.is_logged_in():
        raise Failure(f"Not logged in at {agent.server_url} with {key.path}.", Exit.NOT_LOGGED_IN, agent.next_step())
    return agent.manager() if dry_run else agent.sign_in(agent.manager())


def sync_files(agent: Agent, progress: bool | None, wait: float = 0.0) -> list[str]:
    """Downloads what has changed, and waits so many seconds for another sync to end; the files that have changed."""
    from corvane.sync import SyncManager
    from corvane.sync_backoff import SyncBackoff

    manager = auth.get_active_auth_manager() or agent.manager()

    def sync(wait: float) -> list[str]:
        syncs = SyncManager(manager, str(agent.data_dir), agent.server_url, progress, wait)
        return SyncBackoff(attempts=3, cap=2.0).run(syncs.request_for_sync)

    try:
        return sync(0.0)
    except BlockingIOError as exc:
        if not wait:
            raise
        click.echo(one_line(f"{exc} Waiting for it, {wait:g} s at most."), err=True)
        return sync(wait)


def bootstrap_runtime(agent: Agent, progress: bool | None) -> list[str]:
    """Builds the search runtime of this process; what was downloaded for it."""
    changed = sync_files(agent, progress)  # before the kit does, which takes no word about progress bars
    endless = not interrupts.has_deadline()
    if endless:  # but a request of the onboarding module, which may last while a byte arrives now and then
        interrupts.arm(SECONDS)
    agent.onboarding().ensure_runtime_bootstrapped()
    if endless:
        interrupts.arm(None)
    return changed

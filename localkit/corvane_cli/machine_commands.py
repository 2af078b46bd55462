"""The workspace of the agent host, the doctor and the demo."""

import os
import sys
from pathlib import Path
from shlex import quote

import click

from corvane_cli.command import Exit, Failure, Result
from corvane_cli.identity import Agent
from corvane_cli.shared import command, dry_run_option

_CHECKLIST_TITLE = "## [Corvane]"  # by it the onboarding module tells whether a file has the checklist


@command("heartbeat", "heartbeat --dry-run", "heartbeat --print > checklist.md    # for a host without the file")
@click.option("--workspace", default=".", type=click.Path(exists=True, file_okay=False, resolve_path=True))
@click.option("--print", "only_print", is_flag=True, help="Print the checklist instead.")
@dry_run_option
def heartbeat(agent: Agent, workspace: str, only_print: bool, dry_run: bool) -> Result:
    """Add the checklist to the nearest HEARTBEAT.md (the workspace or one of three parents), once.

    The file is never made. With the checklist in it, a host that calls its model at each heartbeat (every 30 minutes,
    say) does so about 48 times a day.
    """
    onboarding = agent.onboarding(True)
    checklist = vars(onboarding)["_HEARTBEAT_STATIC_SECTION"].strip()
    if only_print:
        return Result({"checklist": checklist}, checklist.splitlines())
    found = vars(onboarding)["_find_heartbeat"](workspace)
    if found is None:
        next_step = "Make the file in the root of the workspace: touch HEARTBEAT.md"
        raise Failure("There is no HEARTBEAT.md here or in three parents.", Exit.MACHINE, next_step)
    try:
        missing = _CHECKLIST_TITLE not in Path(found).read_text(encoding="utf-8")
    except UnicodeDecodeError:
        raise Failure(f"{found} is not UTF-8.", Exit.MACHINE, "Convert it to UTF-8, for example with iconv.") from None
    if missing and not dry_run:
        onboarding.inject_heartbeat(workspace)
        if _CHECKLIST_TITLE not in Path(found).read_text(encoding="utf-8"):
            next_step = f"The line above says why: `chmod u+w {quote(found)}` makes it writable, or free some space."
            raise Failure(f"{found} cannot be written.", Exit.MACHINE, next_step)
    lines = [f"{found}: {'to be added' if dry_run else 'added'}", *checklist.splitlines()]
    lines = lines if missing else [f"{found} has the checklist."]
    return Result({"path": found, "added": checklist if missing else "", "dry_run": dry_run}, lines)


@command("agents-md", "agents-md >> AGENTS.md")
def agents_md() -> Result:
    """Print the section for AGENTS.md."""
    from corvane.agent_onboarding import get_agents_md_fragment

    fragment = get_agents_md_fragment()
    return Result({"fragment": fragment}, fragment.splitlines())


@command("doctor", "doctor", "doctor --offline --json")
@click.option("--offline", is_flag=True, help="Do not ask the service.")
def doctor(agent: Agent, offline: bool) -> Result:
    """Examine the wallet, what was downloaded, the service, the clock and the agent host. Nothing is changed."""
    from corvane_cli.doctor import diagnose

    report = diagnose(agent, not offline)
    code = Exit.ERRORS if report.errors() else Exit.WARNINGS if report.findings else Exit.OK
    return Result(report.data(), report.lines(), code)


@command("demo", "demo")
def demo() -> Result:
    """Show an agent's first day, with a real service on this machine. Your wallet is not touched."""
    import subprocess

    environment = {name: value for name, value in os.environ.items() if not name.startswith("CORVANE_")}
    command = [sys.executable, "-P", "-m", "corvane_local.demo"]
    # In a group of its own, so that Ctrl-C is ours alone; the demo takes the other signal for a wish to tidy up.
    with subprocess.Popen(command, env=environment, stdout=sys.stderr, process_group=0) as process:
        try:
            process.wait()
        except KeyboardInterrupt:
            process.terminate()
            process.wait()
            raise
    if process.returncode:
        raise Failure("The demo has failed.", Exit.FAILED, "The last lines above say at which step, and why.")
    return Result({"passed": True}, ["The demo has passed."])

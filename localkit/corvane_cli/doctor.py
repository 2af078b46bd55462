"""What can be wrong around a wallet, and what to do about it. Nothing is changed."""

import os
import re
import shutil
from collections.abc import Iterable, Iterator

from corvane_cli import interrupts
from corvane_cli.doctor_directory import (
    check_copies,
    check_directory,
    check_extension,
    check_files,
    check_names,
    check_searches,
)
from corvane_cli.doctor_findings import ERROR, TIMEOUT, WARNING, Check, Finding, Looked, Report, command_line, note
from corvane_cli.doctor_service import check_service, check_sign_in, check_trust
from corvane_cli.doctor_wallet import check_key_file, check_session
from corvane_cli.identity import KEY_VARIABLE, Agent

_TRIED_IN = (2026, 7, 2)  # whose later betas did not read HEARTBEAT.md either
_NO_HEARTBEAT = (2026, 8, 1)  # the first version of the agent host that does not read HEARTBEAT.md


def check_agent_host(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the agent host still reads HEARTBEAT.md."""
    import subprocess

    if (command := shutil.which("openclaw")) is None:
        yield Looked("host", "no agent host on the path")
        return
    env = {name: value for name, value in os.environ.items() if name != KEY_VARIABLE}
    try:
        said = subprocess.run([command, "--version"], input=b"", capture_output=True, env=env, timeout=TIMEOUT).stdout
    except (OSError, subprocess.TimeoutExpired):
        said = b""
    version = re.search(rb"\b(20\d\d)\.(\d{1,2})\.(\d{1,3})\b(-beta\.[567]\b)?", said)
    if version is None:
        problem, reason = f"{command} does not report its version.", "newer versions do not read HEARTBEAT.md"
        yield Finding("host", WARNING, problem, reason, "Run `openclaw --version` yourself.")
    elif (release := tuple(map(int, version.groups()[:3]))) >= _NO_HEARTBEAT or (version[4] and release == _TRIED_IN):
        reason = "with this version, the checklist and the nudges in that file reach nobody"
        next_step = (
            "`corvane heartbeat --print > checklist.md`. `openclaw cron list --all --json` lists the job whose "
            "declarationKey is heartbeat:AGENT. `openclaw cron scratch JOB_ID --json` shows its text, which you add to "
            "that file, and its currentRevision, which is N in `openclaw cron scratch JOB_ID --file checklist.md "
            "--expected-revision N`."
        )
        yield Finding("host", WARNING, f"openclaw {version[0].decode()} does not read HEARTBEAT.md.", reason, next_step)
    else:
        yield Looked("host", f"{command}, {version[0].decode()}")


CHECKS: tuple[Check, ...] = (
    check_extension, check_directory, check_names, check_key_file, check_session, check_files, check_copies,
    check_searches, check_agent_host, check_trust,
)  # fmt: skip
OF_THE_MACHINE: tuple[Check, ...] = (check_extension, check_agent_host, check_trust)  # the same for all its identities


def examine_identity(agent: Agent) -> list[Finding]:
    """What there is to find offline in a directory itself. Of causes and effects the cause alone is told."""
    report = Report()
    for check in _due(agent, (check for check in CHECKS if check not in OF_THE_MACHINE), False, report):
        note(agent, check, report)
    return report.findings


def diagnose(agent: Agent, online: bool) -> Report:
    """All that there is to find until the command's time is up. Of causes and effects the cause alone is told."""
    report, check = Report(), CHECKS[0]
    try:
        for check in _due(agent, CHECKS, online, report):
            note(agent, check, report)
    except interrupts.OutOfTime:
        interrupts.disarm()  # it would come again
        name = check.__name__.removeprefix("check_").replace("_", " ")
        problem = f"Not everything was examined in time; the check that was running: {name}."
        again = command_line("corvane doctor --timeout 300", agent)
        next_step = f"`{again}` waits longer; with --offline, nothing is sent to the service."
        report.findings.append(Finding("time", ERROR, problem, "what was not examined may be wrong, too", next_step))
    return report


def _due(agent: Agent, checks: Iterable[Check], online: bool, report: Report) -> Iterator[Check]:
    """The checks that make sense after what the report holds so far."""
    root = agent.data_dir
    for check in checks:
        known = len(report.findings)
        yield check
        is_last = len(report.findings) > known and check is check_directory and os.path.lexists(root)
        if is_last and not (root.is_dir() and os.access(root, os.R_OK | os.X_OK)):
            return
    if online and not any(finding.check == "trust" for finding in report.findings):
        known = len(report.findings)
        yield check_service
        if len(report.findings) == known:
            yield check_sign_in

"""What the doctor's checks have in common: findings, and the steps that put things right.

The first thing between backquotes in a next step is what to type. Words in capitals stand for what only the reader has:
FILE for a copy of the key, CODE for an invite code, URL for the service's address, CA for the certificate authority's
file. Everything else is an alternative, or says when not to.
"""

import os
import stat
from collections.abc import Callable, Iterator
from dataclasses import asdict, dataclass, field
from pathlib import Path
from shlex import quote
from typing import Any

from corvane_cli.display import one_line
from corvane_cli.identity import Agent

ERROR, WARNING = "error", "warning"
TIMEOUT = 10.0  # seconds


@dataclass(frozen=True)
class Finding:
    """One thing that is wrong: how bad it is, what it is, why it matters, and what to do."""

    check: str
    severity: str
    problem: str
    reason: str
    next_step: str

    def lines(self) -> list[str]:
        """The finding for people; each of its texts on one line, whatever names of files and the like it holds."""
        problem, reason, next_step = map(one_line, (self.problem, self.reason, self.next_step))
        return [f"{self.severity}: {problem}", f"  why: {reason}", f"  next: {next_step}"]


@dataclass(frozen=True)
class Looked:
    """Something that was looked at and is as it should be."""

    check: str
    what: str


@dataclass
class Report:
    """What the doctor found, and what else it looked at."""

    findings: list[Finding] = field(default_factory=list)
    looked_at: list[Looked] = field(default_factory=list)

    def errors(self) -> int:
        """How many findings are errors."""
        return sum(finding.severity == ERROR for finding in self.findings)

    def data(self) -> dict[str, Any]:
        """The report for programs."""
        return {**asdict(self), "errors": self.errors()}

    def lines(self) -> list[str]:
        """The report for people."""
        lines = [f"ok: {one_line(looked.what)}" for looked in self.looked_at]
        lines += [line for finding in self.findings for line in finding.lines()]
        return [*lines, f"errors: {self.errors()}, warnings: {len(self.findings) - self.errors()}"]


Check = Callable[[Agent], Iterator[Finding | Looked]]


def command_line(words: str, agent: Agent) -> str:
    """A command for this identity, with the options that the environment does not give."""
    url = os.environ.get("CORVANE_SERVER_URL")
    plain = Agent(os.environ.get("CORVANE_DATA_DIR", ""), url)
    if plain.data_dir != agent.data_dir:
        words += f" --data-dir {quote(str(agent.data_dir))}"
        plain = Agent(str(agent.data_dir), url)
    if plain.server_url != agent.server_url:
        words += f" --server-url {quote(agent.server_url)}"
    return words


def set_step(variable: str, option: str, value: str) -> str:
    """What gives a command another address or directory, in the way in which it has got the present one."""
    return f"export {variable}={value}" if os.environ.get(variable) else f"corvane doctor {option} {value}"


def aside(path: Path) -> str:
    """What moves a file out of the way, and loses nothing."""
    target, number = f"{path}.aside", 1
    while os.path.lexists(target):
        target, number = f"{path}.aside-{number}", number + 1
    return f"mv {quote(str(path))} {quote(target)}"


def kind_of(path: Path) -> str | None:
    """What stands at a path, if that is anything but a regular file."""
    try:
        mode = path.lstat().st_mode
    except FileNotFoundError:
        return None
    kinds = {stat.S_IFREG: None, stat.S_IFLNK: "a symbolic link", stat.S_IFDIR: "a directory"}
    return kinds.get(stat.S_IFMT(mode), "not a regular file")


def examine(agent: Agent, *checks: Check) -> list[Finding]:
    """What the checks find."""
    report = Report()
    for check in checks:
        note(agent, check, report)
    return report.findings


def note(agent: Agent, check: Check, report: Report) -> None:
    """Notes what one check finds, even if it comes to no end; what it cannot read is a finding, too."""
    found, looked = list[Finding](), list[Looked]()
    try:
        for one in check(agent):
            found.append(one) if isinstance(one, Finding) else looked.append(one)
    except OSError as exc:
        reason = "what cannot be read cannot be examined"
        next_step = f"`chmod u+rwX {quote(str(exc.filename))}`, or remove it."
        found.append(Finding("files", ERROR, f"{exc.filename}: {exc.strerror}.", reason, next_step))
    finally:
        report.findings += found
        report.looked_at += [] if found else looked

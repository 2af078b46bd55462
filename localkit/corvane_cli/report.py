"""The page about one agent or a fleet: who and where, health, searches, and found signals with their curves.

Everything on it is foreign: names of directories, what a service or a manifest said, expressions from a database. It is
made printable and rid of secrets here, and escaped by the template.
"""

import json
import re
import socket
import time
from collections.abc import Iterable, Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

from markupsafe import Markup

from corvane.auth import InvalidKeyError
from corvane.output_file import check_target, replacing
from corvane.search_tracking import FoundSignal, Record, read_record
from corvane.sync import _checked_manifest, _opened
from corvane_cli.command import Exit, Failure
from corvane_cli.display import HIDDEN, one_line
from corvane_cli.doctor import OF_THE_MACHINE, examine_identity
from corvane_cli.doctor_findings import ERROR, Finding, examine
from corvane_cli.doctor_service import check_service, check_sign_in
from corvane_cli.identity import Agent
from corvane_cli.shared import minute
from corvane_pages import Cell, Table, curve, growth, render

_OURS = b'<!doctype html>\n<html lang="en">\n<meta charset="utf-8">\n<meta name="generator" content="corvane report">\n'
_SIGNS = ("wallet.key", "session.json", "manifest.json", "search.db")  # one of them makes a directory an identity
_CONFIG_SIZE = 1 << 20  # bytes; more than any era's configuration
_AT_ONCE = 4  # directories; to examine one takes waiting for the disk
_FEW = 500  # signals, whose curves can be drawn finely
_FINE, _COARSE = 240, 60  # pieces of a curve

_ADDRESS = re.compile(r"[a-zA-Z][a-zA-Z0-9+.-]*://[^\s'\"`]+")
_LONGEST_SEGMENT = 24  # characters of a part of a path; what is longer may well be a token
_INVITE = re.compile(r"CORV(?:-[0-9A-Z]{4}){3}", re.IGNORECASE)


def is_identity(directory: Path) -> bool:
    """Whether something of an agent lies in the directory."""
    return any((directory / name).exists() or (directory / name).is_symlink() for name in _SIGNS)


def identities(directories: Sequence[Path], agent: Agent) -> list[Agent]:
    """The agents in, or directly below, the directories; without any, those of the given agent's data directory."""
    if not directories and is_identity(agent.data_dir):
        return [agent]
    found = dict[Path, Agent]()
    for directory in directories or (agent.data_dir,):
        below = [directory] if is_identity(directory) else []
        if not below and directory.is_dir():
            children = sorted(child for child in directory.iterdir() if not child.name.startswith("."))
            below = [child for child in children if child.is_dir() and is_identity(child)]
        if not below:
            problem = f"{directory} is neither the directory of an identity nor one that holds such directories."
            next_step = (
                "Name the directory of a wallet.key, or the base directory of a fleet; `corvane register` makes one."
            )
            raise Failure(problem, Exit.USAGE, next_step)
        for one in (agent.elsewhere(str(child)) for child in below):
            found.setdefault(one.data_dir, one)
    return list(found.values())


def check_out(out: Path, agents: Iterable[Agent]) -> None:
    """Sees to it that a page at this path replaces nothing but an earlier one; raises ValueError or OSError."""
    check_target(out, {".html": re.escape(_OURS)}, "Corvane report", [agent.data_dir for agent in agents])


def read(agent: Agent) -> Record:
    """What was searched and found in the directory of an agent."""
    try:
        return read_record(agent.data_dir)
    except ValueError as exc:
        next_step = f"`corvane doctor --data-dir {agent.data_dir}` says more; found signals stay in the file."
        raise Failure(str(exc), Exit.MACHINE, next_step) from exc


@dataclass(frozen=True)
class Era:
    """The era of what was downloaded: its number and its named universe, or None where the file does not say."""

    number: int | None = None
    universe: str | None = None


def read_era(data_dir: Path) -> Era:
    """The era that era_config.json says."""
    try:
        with _opened(data_dir / "era_config.json") as file:
            config = json.loads(file.read(_CONFIG_SIZE))
        number, universe = config["era_id"], config["named_universe"]
    except (OSError, ValueError, RecursionError, TypeError, KeyError):
        return Era()
    return Era(number, universe) if isinstance(number, int) and isinstance(universe, str) else Era()


@dataclass(frozen=True)
class Written:
    """What is on a page that was written."""

    agents: int
    searches: int
    signals: int
    curves: int
    errors: int
    warnings: int
    bytes: int

    def totals(self) -> str:
        """The counts, for people."""
        counted = {name: value for name, value in vars(self).items() if name != "bytes"}
        return ", ".join(f"{name} {value}" for name, value in counted.items()) + f"; {self.bytes / 1e6:.1f} MB"


@dataclass
class _Seen:
    """An agent as it is on the page."""

    agent: Agent
    name: str
    findings: list[Finding]
    record: Record
    era: Era
    version: int | None = None
    size: int = 0  # bytes
    answer: str = ""
    signals: list[FoundSignal] = field(default_factory=list)


def write(agents: Sequence[Agent], sources: Sequence[Path], out: Path, online: bool) -> Written:
    """Writes the page. Of the agents' directories nothing is changed."""
    machine = examine(agents[0], *OF_THE_MACHINE)
    names = [agent.data_dir.name for agent in agents]
    if len(set(names)) < len(names):
        names = [str(agent.data_dir) for agent in agents]
    with ThreadPoolExecutor(_AT_ONCE) as pool:
        seen = list(pool.map(_look, agents, names))
    if online:
        _ask(seen, machine)
    signals = [(one, signal) for one in seen for signal in one.record.signals]
    drawn = _curves(seen, _FINE if len(signals) <= _FEW else _COARSE) if signals else {}
    findings = [("this machine", finding) for finding in machine]
    findings += [(one.name, finding) for one in seen for finding in one.findings]
    errors = sum(finding.severity == ERROR for _, finding in findings)
    runs = sum(len(one.record.runs) for one in seen)
    counts = {
        "agents": len(seen), "searches": runs, "signals": len(signals), "curves": len(drawn), "errors": errors,
        "warnings": len(findings) - errors,
    }  # fmt: skip
    notes = []
    if len(drawn) < len(signals):
        notes.append(
            f"{len(signals) - len(drawn)} signals have no curve: they are of another era, or the era's native modules "
            "in their directory are missing, damaged or too old, or other users can write to them."
        )
    page = render(
        "report.html",
        [
            _agents(seen, online),
            Table("findings", ("severity", "agent", "*problem", "*why", "*next step"), list(_findings(findings))),
            _searches(seen),
            _signals(signals, drawn),
        ],
        generator="corvane report",
        title=f"Corvane: {_text(seen[0].name)}" if len(seen) == 1 else f"Corvane: {len(seen)} agents",
        made_at=minute(time.time()),
        source=f"{_text(' '.join(map(str, sources)))} on {_text(socket.gethostname())}",
        online=online,
        totals={name: value for name, value in counts.items() if name != "curves"},
        charts=list(_charts(seen)),
        notes=notes,
    )
    content = page.text.encode()
    assert content.startswith(_OURS)
    check_out(out, agents)  # once more: all that came before can take a minute
    with replacing(out, 0o600) as file:  # what is wrong with a machine is not for everybody
        file.write(content)
    return Written(**counts, bytes=len(content))


# -- What is looked at ------------------------------------------------------------------------------------------------


def _look(agent: Agent, name: str) -> _Seen:
    findings, record = examine_identity(agent), Record([], [])
    try:
        record = read_record(agent.data_dir)
    except (ValueError, OSError) as exc:
        if not any(f"{agent.data_dir / 'search.db'} is " in finding.problem for finding in findings):
            reason, next_step = "what it holds is not on this page", "`corvane doctor` on this directory says more."
            findings.append(Finding("searches", ERROR, str(exc), reason, next_step))
    one = _Seen(agent, name, findings, record, read_era(agent.data_dir))
    try:
        with _opened(agent.data_dir / "manifest.json") as file:
            manifest = _checked_manifest(file.read())
    except (OSError, ValueError):
        return one  # there is none, or the findings say it
    one.version = manifest["version"]
    one.size = sum(entry["size"] for entry in manifest["files"].values())
    return one


def _ask(seen: Iterable[_Seen], machine: Sequence[Finding]) -> None:
    """Asks each service once whether it is there, and where it is, whether it accepts its wallets."""
    services = dict[str, list[Finding]]()
    for one in seen:
        url = one.agent.server_url
        if not one.agent.is_logged_in() or any(finding.check == "trust" for finding in machine):
            one.answer = "not asked"
            continue
        if url not in services:
            services[url] = examine(one.agent, check_service)
        found = services[url] or examine(one.agent, check_sign_in)
        one.findings += found
        one.answer = "see Health" if found else "accepted"


def _curves(seen: Iterable[_Seen], pieces: int) -> dict[tuple[str, int | None], tuple[Cell, Cell]]:
    """The growth and the drawing of each signal, by the name of its agent and its number.

    The native modules of an era are loaded once, from bytes with the digests that the manifest names, and only out of
    directories with which nothing is wrong.
    """
    from corvane_cli.capital import EraModules

    loaded, drawn = EraModules(), {}
    known = dict[tuple[Any, ...], tuple[Cell, Cell] | None]()
    for one in seen:
        if not one.record.signals or any(
            finding.severity == ERROR for finding in one.findings if _is_about_files(finding)
        ):
            continue
        if (era := loaded.of(one.agent.data_dir)) is None:
            continue
        for signal in one.record.signals:
            key = (id(era), signal.era_id, signal.expression, signal.instrument, signal.pool)
            if key not in known:
                capital = era.capital(signal, pieces)
                line: tuple[Cell, Cell] | None = (
                    (f"{capital[-1]:.2f}", curve(capital, era.train_share)) if capital else None
                )
                known[key] = line
            if (shown := known[key]) is not None:
                drawn[one.name, signal.id] = shown
    return drawn


def _is_about_files(finding: Finding) -> bool:
    return finding.check in ("directory", "names", "manifest", "files")


# -- How it is shown --------------------------------------------------------------------------------------------------


def _text(value: object) -> str:
    """A foreign text: on one line, and without anything that is or may be a secret."""
    text = one_line(value)
    if "://" in text:
        text = _ADDRESS.sub(lambda match: _plain_address(match[0]), text)
    return _INVITE.sub(HIDDEN, text)


def _plain_address(address: str) -> str:
    """An address without what does not belong into one, such as a token."""
    try:
        parts = urlsplit(address)
    except ValueError:
        return HIDDEN
    host = parts.netloc.rpartition("@")[2]
    segments = [part if len(part) <= _LONGEST_SEGMENT else HIDDEN for part in parts.path.split("/")]
    rest = f"?{HIDDEN}" if parts.query or parts.fragment else ""
    return f"{parts.scheme}://{HIDDEN + '@' if '@' in parts.netloc else ''}{host}{'/'.join(segments)}{rest}"


def _agents(seen: Iterable[_Seen], online: bool) -> Table:
    titles = ["agent", "*address", "*service", "signed in", "era", "#manifest", "#kB"]
    titles += ["#searches", "#tried", "#signals", "#errors", "#warnings", *["service says"] * online]
    rows = []
    for one in seen:
        agent, session, address = one.agent, one.agent.session(), _address(one.agent)
        signed_in = session.signed_in_at if session and session.address == address else None
        errors = sum(finding.severity == ERROR for finding in one.findings)
        answer = [Markup('<span class="{}">{}</span>').format("good" * (one.answer == "accepted"), _text(one.answer))]
        rows.append(
            [
                _text(one.name), address, _text(agent.server_url), minute(signed_in) if signed_in else "",
                _era(one.era.number, one.era), "" if one.version is None else one.version,
                f"{one.size / 1000:.0f}" if one.version else "", len(one.record.runs),
                sum(run.evaluations for run in one.record.runs), len(one.record.signals), errors,
                len(one.findings) - errors, *answer * online,
            ]
        )  # fmt: skip
    return Table("agents", titles, rows)


def _address(agent: Agent) -> str:
    if not agent.env_key:
        return agent.key_file().address or ""
    try:
        return agent.manager().get_wallet_address()
    except InvalidKeyError:
        return ""  # which a finding says


def _era(number: int | None, known: Era) -> str:
    """An era with its named universe, if that is known."""
    universe = known.universe if number == known.number else None
    return _text(" ".join(str(part) for part in (number, universe) if part is not None))


def _findings(findings: Iterable[tuple[str, Finding]]) -> Iterator[list[Cell]]:
    for name, finding in sorted(findings, key=lambda one: one[1].severity != ERROR):
        severity = Markup('<span class="{0}">{0}</span>').format(finding.severity)
        yield [severity, *map(_text, (name, finding.problem, finding.reason, finding.next_step))]


def _searches(seen: Iterable[_Seen]) -> Table:
    titles = ("agent", "#number", "started", "#seconds", "#seed", "#tried", "#candidates", "#signals", "#tried per s",
              "#signals per h", "*outcome")  # fmt: skip
    rows: list[list[Cell]] = []
    for one in seen:
        counts = one.record.found_by()
        for run in reversed(one.record.runs):
            per_second, per_hour = run.rate(run.evaluations), run.rate(counts[run.id], 3600)
            rates = ["" if per_second is None else f"{per_second:.0f}", "" if per_hour is None else f"{per_hour:.1f}"]
            row: list[Cell] = [
                run.seed,
                run.evaluations,
                run.candidates,
                counts[run.id],
                *rates,
                _text(one.record.outcome(run)),
            ]
            rows.append([_text(one.name), run.id, minute(run.started_at), f"{run.seconds:.1f}", *row])
    return Table("searches", titles, rows)


def _charts(seen: Sequence[_Seen]) -> Iterator[tuple[str, int, Markup, str, str]]:
    """What was tried and what was found, as both have grown."""
    runs = [run for one in seen for run in one.record.runs]
    begins = [(run.started_at, 0) for run in runs]
    tried = sorted([*begins, *((run.noted_at, run.evaluations) for run in runs)])
    found = sorted([*begins, *((signal.found_at, 1) for one in seen for signal in one.record.signals)])
    for what, steps in (("expressions tried", tried), ("signals found", found)):
        if steps:
            moments, amounts = [moment for moment, _ in steps], [amount for _, amount in steps]
            yield what, sum(amounts), growth(moments, amounts), minute(moments[0]), minute(moments[-1])


def _signals(
    signals: Iterable[tuple[_Seen, FoundSignal]], drawn: dict[tuple[str, int | None], tuple[Cell, Cell]]
) -> Table:
    titles = ("agent", "#number", "era", "traded", "*expression", "~curve", "#growth", "#corr.",
              "#bits", "#Sharpe in", "#Sharpe out", "found")  # fmt: skip
    rows: list[list[Cell]] = []
    for one, signal in sorted(signals, key=lambda pair: pair[1].found_at, reverse=True):
        grown, line = drawn.get((one.name, signal.id), ("", ""))
        rows.append(
            [
                _text(one.name), signal.id or 0, _era(signal.era_id, one.era), _text(signal.instrument),
                _text(signal.expression), line, grown, f"{signal.correlation:.3f}", f"{signal.mutual_information:.3f}",
                f"{signal.sharpe:.2f}", f"{signal.rest_sharpe:.2f}", minute(signal.found_at),
            ]
        )  # fmt: skip
    return Table("signals", titles, rows)

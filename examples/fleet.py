"""Onboards many agents with Ray: each in a process of its own, with a data directory and a wallet of its own.

Ray gets batches of agents, one for each machine, and fleet_nursery.py forks a process for each agent of a batch. What
is on disk and what the service knows is all the state there is: the same command again does what is missing.
"""

import contextlib
import csv
import fcntl
import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Generator, Iterator
from pathlib import Path
from typing import IO, Any, NamedTuple

import click
from tqdm import tqdm

from corvane.auth import _validate_server_url
from corvane_cli.display import as_json, one_line

LOCKS = ".locks"  # beside the data directories, in which nothing but the agents' own files belongs
REPLACEMENTS = 3  # how often in a row Ray's processes may end without an outcome of any agent
NURSERY = Path(__file__).with_name("fleet_nursery.py")
INTERRUPTED = 130


class Agent(NamedTuple):
    """An agent to onboard."""

    name: str
    invite_code: str


class Outcome(NamedTuple):
    """What became of an agent: the address of its wallet, or an error."""

    onboarded: bool
    text: str


def read_agents(lines: IO[str]) -> list[Agent]:
    """The agents of a list with an invite code or `name,code` on each line; blank lines and # comments are skipped.

    Without a name, the agent is called after a digest of its code, so that lines can be moved, added and removed.

    Raises:
        click.BadParameter: The list is not text; a name is not a plain file name, or a name or a code occurs twice.
    """
    agents, codes, number = dict[str, Agent](), dict[str, int](), 0
    try:
        for number, line in enumerate(lines, 1):
            if not (line := line.partition("#")[0].strip()):
                continue
            name, _, code = (part.strip() for part in line.rpartition(","))
            code = code.upper()
            name = name or f"agent-{hashlib.sha256(code.encode()).hexdigest()[:12]}"
            if not re.fullmatch(r"[A-Za-z0-9][A-Za-z0-9._-]{0,99}", name):
                raise click.BadParameter(f"line {number}: {name!r} cannot be the name of a directory.")
            if not code:
                raise click.BadParameter(f"line {number}: there is no invite code after {name!r}.")
            if code in codes:
                raise click.BadParameter(f"line {number}: this invite code is also on line {codes[code]}.")
            if name in agents:
                raise click.BadParameter(f"line {number}: an earlier line has an agent {name!r}, too.")
            agents[name], codes[code] = Agent(name, code), number
    except UnicodeDecodeError as exc:
        raise click.BadParameter(f"line {number + 1} or a later one is not UTF-8 text: {exc.reason}.") from exc
    return list(agents.values())


def check_url(url: str) -> str:
    """The address of the service without a slash at its end; click.BadParameter if it is not one."""
    try:
        return _validate_server_url(url)
    except ValueError as exc:
        raise click.BadParameter(one_line(exc)) from exc


# -- What is on disk --------------------------------------------------------------------------------------------------


def make_locks(agents: list[Agent], base: Path) -> None:
    """Makes the base directory and the lock files, on which the processes of two fleets wait for each other.

    Raises:
        click.ClickException: The directory cannot be used, or is open to others.
    """
    os.umask(0o077)  # for Ray's own files, too: its token, its logs
    try:
        (base / LOCKS).mkdir(parents=True, exist_ok=True)
        if base.stat().st_mode & 0o077:
            raise click.ClickException(f"{base} is open to other users; choose another directory, or chmod 700 it.")
        for agent in agents:
            open(base / LOCKS / agent.name, "a").close()  # whose time stays: an old note must not look like a new one
    except OSError as exc:
        raise click.ClickException(f"{base} cannot be used: {exc.strerror}: {exc.filename}") from exc


def noted(agents: list[Agent], base: Path, server_url: str) -> dict[str, Outcome]:
    """The agents whose lock file notes an address for this service, without those whose key is missing or newer."""
    found = {}
    for agent in agents:
        lock, key = base / LOCKS / agent.name, base / agent.name / "wallet.key"
        with contextlib.suppress(OSError, ValueError):  # whatever is wrong there, the agent's process says it
            kept = key.stat()
            if kept.st_size and kept.st_ctime <= lock.stat().st_mtime:
                url, _, address = lock.read_text().rstrip("\n").partition(" ")
                if url == server_url and address:
                    found[agent.name] = Outcome(True, address)
    return found


def wait_for_processes(agents: list[Agent], base: Path, seconds: float = 10.0) -> None:
    """Returns when no process holds the lock of any of the agents, or after so many seconds."""
    end = time.monotonic() + seconds
    for agent in agents:
        with open(base / LOCKS / agent.name, "r+b") as lock:
            while time.monotonic() < end:
                try:
                    fcntl.lockf(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    break
                except BlockingIOError:
                    time.sleep(0.02)


# -- What Ray does ----------------------------------------------------------------------------------------------------


def batch(program: str, job: dict[str, Any]) -> Iterator[tuple[str, bool, str]]:
    """The names and outcomes of a batch, as its agents are done.

    Ray's own process has threads, and so must not fork: another one does.
    """
    command = [sys.executable, "-P", "-c", program]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as nursery:
        assert nursery.stdin is not None and nursery.stdout is not None
        json.dump({**job, "parent": os.getpid()}, nursery.stdin)
        nursery.stdin.close()
        for line in nursery.stdout:
            yield json.loads(line)
    if nursery.returncode:
        raise RuntimeError(f"The process that forks the agents' processes has ended with status {nursery.returncode}.")


def run(agents: list[Agent], at_once: int, start: Callable[[list[Agent], int], Any]) -> Iterator[tuple[str, Outcome]]:
    """Names and outcomes, as Ray hands them on. `start` starts a batch, of which so many agents are at work at once."""
    import ray

    fruitless = 0
    while agents:
        count = min(at_once, len(agents), sum(node["Alive"] for node in ray.nodes()))
        batches = [start(agents[n::count], at_once // count + (n < at_once % count)) for n in range(count)]
        done, failure = set[str](), "Ray has lost the agent."
        while batches:
            [stream], _ = ray.wait(batches, num_returns=1)
            try:
                name, onboarded, text = ray.get(next(stream))
            except StopIteration:
                batches.remove(stream)
            except ray.exceptions.RayError as exc:  # its stream ends; other processes get what it has left
                failure = " ".join(f"{type(exc).__name__}: {exc}".split())
                click.echo(f"A batch has ended before its time: {one_line(failure)}", err=True)
            else:
                done.add(name)
                yield name, Outcome(onboarded, text)
        agents = [agent for agent in agents if agent.name not in done]
        fruitless = 0 if done else fruitless + 1
        if fruitless > REPLACEMENTS:
            yield from ((agent.name, Outcome(False, failure)) for agent in agents)
            return


def onboard(agents: list[Agent], at_once: int, ray_address: str, job: dict[str, Any]) -> Generator[tuple[str, Outcome]]:
    """Names and outcomes, as the agents are done, of a Ray that is started for this if need be."""
    os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")
    os.environ.setdefault("RAY_worker_niceness", "0")  # with Ray's own 15, a busy machine starves the agents
    import ray

    # One process of Ray's is enough for a machine. The last is in bytes.
    of_its_own = {"num_cpus": 1, "include_dashboard": False, "object_store_memory": 80_000_000}
    options: dict[str, Any] = of_its_own if ray_address == "local" else {}
    # Standard output is for the table; Ray prints there, for example, that a process was killed.
    with (
        contextlib.redirect_stdout(sys.stderr),
        ray.init(ray_address, logging_level="error", log_to_driver=False, **options),
    ):
        signal.signal(signal.SIGTERM, signal.default_int_handler)  # as Ctrl-C; Ray's handler would abort
        # Not tried again by Ray, which would start the whole batch again.
        task = ray.remote(num_returns="streaming", max_retries=0, num_cpus=1, scheduling_strategy="SPREAD")(batch)
        program = NURSERY.read_text()  # goes with the batch: other machines need not have it

        def start(some: list[Agent], share: int) -> Any:
            return task.remote(program, {**job, "agents": some, "at_once": share})

        yield from run(agents, at_once, start)


# -- The command ------------------------------------------------------------------------------------------------------


def show(agents: list[Agent], outcomes: dict[str, Outcome], form: str | None) -> None:
    """Prints the table, as text, JSON or CSV. What a service says is foreign."""
    columns = "name", "address", "error"
    rows = [(name, text if done else "", "" if done else text) for name, (done, text) in outcomes.items()]
    if form == "json":
        click.echo(as_json([{k: v or None for k, v in zip(columns, row, strict=True)} for row in rows], 1))
    elif form == "csv":
        csv.writer(sys.stdout, lineterminator="\n").writerows([columns, *(map(one_line, row) for row in rows)])
    else:
        width = max((len(agent.name) for agent in agents), default=0)
        for name, address, error in rows:
            click.echo(f"{name:<{width}}  {one_line(address or error)}")


@click.command()
@click.argument("agents", type=click.File(), callback=lambda context, parameter, lines: read_agents(lines))
@click.argument("base", type=click.Path(file_okay=False, path_type=Path))
@click.option("--server-url", required=True, callback=lambda c, p, url: check_url(url), help="Address of the service.")
@click.option("--at-once", default=8, show_default=True, type=click.IntRange(1), help="Most agents to run at once.")
@click.option("--attempts", default=10, show_default=True, type=click.IntRange(1), help="For a service that is away.")
@click.option(
    "--time-limit", default=300.0, show_default=True, type=click.FloatRange(0.1, 86400), help="Seconds for each agent."
)
@click.option("--json", "form", flag_value="json", help="Print the table as JSON.")
@click.option("--csv", "form", flag_value="csv", help="Print the table as CSV.")
@click.option("--ray-address", default="local", show_default=True, help="A cluster to use; local: this machine alone.")
def main(
    agents: list[Agent],
    base: Path,
    server_url: str,
    at_once: int,
    attempts: int,
    time_limit: float,
    form: str | None,
    ray_address: str,
) -> None:
    """Onboard the AGENTS of a file (on each line an invite code or NAME,CODE), each in its directory BASE/NAME."""
    base = base.resolve()
    make_locks(agents, base)
    outcomes = noted(agents, base, server_url)
    missing = [agent for agent in agents if agent.name not in outcomes]
    common = {"base": str(base), "locks": LOCKS, "server_url": server_url, "attempts": attempts}
    job = {**common, "time_limit": time_limit, "certificates": os.environ.get("SSL_CERT_FILE")}
    interrupted = False
    try:
        if missing:
            with contextlib.closing(onboard(missing, at_once, ray_address, job)) as results:
                for name, outcome in tqdm(
                    results, initial=len(outcomes), total=len(agents), unit="agent", disable=None
                ):
                    outcomes[name] = outcome
    except KeyboardInterrupt:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # what is left to do takes seconds
        interrupted = True
        wait_for_processes(missing, base)
        unfinished = {agent.name: Outcome(False, "not done: interrupted") for agent in missing}
        outcomes = unfinished | outcomes | noted(missing, base, server_url)
    show(agents, {agent.name: outcomes[agent.name] for agent in agents}, form)
    failed = sum(not outcome.onboarded for outcome in outcomes.values())
    if interrupted:
        click.echo(f"Interrupted: {failed} of {len(agents)} agents are not onboarded; run it again.", err=True)
        sys.exit(INTERRUPTED)
    if failed:
        raise click.ClickException(f"{failed} of {len(agents)} agents are not onboarded; fix the cause and run again.")


if __name__ == "__main__":
    main()

"""Onboards many agents with Ray: each in a process of its own, with a data directory and a wallet of its own.

What is on disk and what the service knows is all the state there is: the same command again does what is missing.
"""

import contextlib
import fcntl
import hashlib
import itertools
import os
import re
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import IO, Any, NamedTuple

import click
import ray
from tqdm import tqdm

from corvane_cli.display import one_line

LOCKS = ".locks"  # beside the data directories, in which nothing but the agents' own files belongs
REPLACEMENTS = 3  # how often Ray starts another process for an agent whose process was killed


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
        click.BadParameter: A name is no plain file name, or a name or a code occurs twice.
    """
    agents, codes = dict[str, Agent](), set[str]()
    for number, line in enumerate(lines, 1):
        if not (line := line.partition("#")[0].strip()):
            continue
        name, _, code = (part.strip() for part in line.rpartition(","))
        code = code.upper()
        name = name or f"agent-{hashlib.sha256(code.encode()).hexdigest()[:12]}"
        if not re.fullmatch(r"[A-Za-z0-9][A-Za-z0-9._-]{0,99}", name):
            raise click.BadParameter(f"line {number}: {name!r} cannot be the name of a directory.")
        if name in agents or code in codes:
            raise click.BadParameter(f"line {number}: this name or invite code is on an earlier line, too.")
        agents[name] = Agent(name, code)
        codes.add(code)
    return list(agents.values())


def take_lock(path: Path) -> int:
    """The descriptor of a lock file, once no other process holds its lock; the lock ends with the descriptor."""
    descriptor = os.open(path, os.O_RDWR)
    fcntl.lockf(descriptor, fcntl.LOCK_EX)
    return descriptor


def onboard(agent: Agent, base: Path, server_url: str, attempts: int, certificates: str | None) -> Outcome:
    """Onboards one agent in this process, which must not have onboarded another and must end afterwards."""
    try:
        # Held until the process ends: no two processes ever work in one directory, even if Ray loses sight of one. Not
        # made here: where the file is missing, this machine does not share the base directory.
        take_lock(base / LOCKS / agent.name)
        if "corvane.agent_onboarding" in sys.modules:
            raise RuntimeError("This process has onboarded an agent before.")
        os.umask(0o077)
        if certificates is not None:
            os.environ["SSL_CERT_FILE"] = certificates

        from corvane.agent_onboarding import configure, register
        from corvane.auth import AuthError, RegistrationError, _normalize_invite_code
        from corvane.key_file import make_key
        from corvane.sync_backoff import ServiceBusy, SyncBackoff

        data_dir = base / agent.name
        # Where this process runs says nothing about where the agent will have its HEARTBEAT.md.
        configure(server_url=server_url, data_dir=str(data_dir), auto_heartbeat=False)

        def attempt() -> str:
            try:
                if (data_dir / "wallet.key").exists():
                    try:
                        return register().address
                    except AuthError:
                        pass  # a key that was stored, but never signed up, needs the code
                elif _normalize_invite_code(agent.invite_code):
                    make_key(data_dir)  # whole on disk, whatever happens, before the service hears of it
                return register(agent.invite_code).address
            except RegistrationError:
                raise
            except AuthError as exc:  # too many failures, a busy database, a proxy's answer: not about the code
                raise ServiceBusy(str(exc)) from exc

        return Outcome(True, SyncBackoff(attempts=attempts).run(attempt))
    except Exception as exc:
        return Outcome(False, f"{type(exc).__name__}: {exc}")


def noted_address(agent: Agent, base: Path, server_url: str) -> str | None:
    """The address that the lock file notes for this service, unless the key is missing or was touched since."""
    lock, key = base / LOCKS / agent.name, base / agent.name / "wallet.key"
    if not (lock.exists() and key.exists() and key.stat().st_size and key.stat().st_ctime <= lock.stat().st_mtime):
        return None
    noted = re.fullmatch(f"{re.escape(server_url)} (\\S+)\n", lock.read_text())
    return noted[1] if noted else None


def run(
    agents: list[Agent], at_once: int, base: Path, server_url: str, start: Callable[[Agent], Any]
) -> Iterator[tuple[str, Outcome]]:
    """Names and outcomes: first of the agents that are done already, then as at most `at_once` processes end."""
    addresses = {agent: noted_address(agent, base, server_url) for agent in agents}
    yield from ((agent.name, Outcome(True, address)) for agent, address in addresses.items() if address)
    waiting, running = (agent for agent, address in addresses.items() if not address), dict[Any, Agent]()
    while True:
        for agent in itertools.islice(waiting, at_once - len(running)):
            (base / LOCKS / agent.name).write_text("")  # an old note would hide that this attempt has failed
            running[start(agent)] = agent
        if not running:
            return
        [done], _ = ray.wait(list(running))
        name = running.pop(done).name
        try:
            outcome = ray.get(done)
            lock = take_lock(base / LOCKS / name)  # when the lock is free, the process has ended
            if outcome.onboarded:
                os.write(lock, f"{server_url} {outcome.text}\n".encode())
            os.close(lock)
        except ray.exceptions.RayError as exc:
            outcome = Outcome(False, " ".join(f"{type(exc).__name__}: {exc}".split()))
        yield name, outcome


@click.command()
@click.argument("agents", type=click.File(), callback=lambda context, parameter, lines: read_agents(lines))
@click.argument("base", type=click.Path(file_okay=False, path_type=Path))
@click.option("--server-url", required=True, help="Address of the service.")
@click.option("--at-once", default=8, show_default=True, type=click.IntRange(1), help="Most processes alive at once.")
@click.option("--attempts", default=10, show_default=True, type=click.IntRange(1), help="For a service that is away.")
@click.option("--ray-address", default="local", show_default=True, help="A cluster to use; local: this machine alone.")
def main(agents: list[Agent], base: Path, server_url: str, at_once: int, attempts: int, ray_address: str) -> None:
    """Onboard the AGENTS of a file (an invite code or NAME,CODE a line), each in its directory BASE/NAME."""
    base = base.resolve()
    os.umask(0o077)  # for Ray's own files, too: its token, its logs
    (base / LOCKS).mkdir(parents=True, exist_ok=True)
    if base.stat().st_mode & 0o077:
        raise click.ClickException(f"{base} is open to other users; choose another directory, or chmod 700 it.")
    os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")
    of_its_own = {"num_cpus": at_once, "include_dashboard": False, "object_store_memory": 80_000_000}  # the last: bytes
    options: dict[str, Any] = of_its_own if ray_address == "local" else {}
    # Standard output is for the table; Ray prints there, for example, that a process was killed.
    with (
        contextlib.redirect_stdout(sys.stderr),
        ray.init(ray_address, logging_level="error", log_to_driver=False, **options),
    ):
        # Ray uses its processes again unless told not to; the module holds one wallet a process.
        task = ray.remote(max_calls=1, max_retries=REPLACEMENTS)(onboard)
        common = (base, server_url, attempts, os.environ.get("SSL_CERT_FILE"))
        results = run(agents, at_once, base, server_url, lambda agent: task.remote(agent, *common))
        outcomes = dict(tqdm(results, total=len(agents), unit="agent", disable=None))
    width = max((len(agent.name) for agent in agents), default=0)
    for agent in agents:
        click.echo(f"{agent.name:<{width}}  {one_line(outcomes[agent.name].text)}")  # what a service says is foreign
    failed = sum(not outcome.onboarded for outcome in outcomes.values())
    if failed:
        raise click.ClickException(f"{failed} of {len(agents)} agents are not onboarded; mend the cause and run again.")


if __name__ == "__main__":
    main()

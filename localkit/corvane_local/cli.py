"""The command `corvane-local`: runs the local service, and is what its operator works with."""

import contextlib
import json
import resource
import shlex
import signal
import socket
import sqlite3
import sys
from collections.abc import Iterator
from dataclasses import asdict
from datetime import UTC, datetime
from pathlib import Path
from types import FrameType
from typing import Any

import click

from corvane import __version__
from corvane_local.store import CHALLENGE_SECONDS, TOKEN_SECONDS, Store

FILES = "files"  # the directory of what is published, below the state

STATE = click.option(
    "--state", required=True, type=click.Path(file_okay=False, path_type=Path), help="Directory of the service's files."
)


def _open_store(state: Path, **seconds: float) -> Store:
    state.mkdir(mode=0o700, parents=True, exist_ok=True)
    if state.stat().st_mode & 0o077:  # not changed here: it may be a directory that others need
        raise click.ClickException(f"{state} is open to other users; choose another directory, or chmod 700 it.")
    return Store(state / "service.db", **seconds)


@contextlib.contextmanager
def _one_line() -> Iterator[None]:
    if sys.stdout is None:
        raise click.ClickException("Standard output is closed.")
    try:
        yield
    except OSError as exc:
        raise click.ClickException(f"{exc.filename}: {exc.strerror}." if exc.filename else str(exc)) from exc
    except sqlite3.DatabaseError as exc:
        raise click.ClickException(f"The database cannot be used: {exc}.") from exc


class Prints(click.Command):
    """What ends in one line where a file, its output or the database lets it down."""

    def make_context(self, *args: Any, **options: Any) -> click.Context:
        """Parses the arguments, and may print help."""
        with _one_line():
            return super().make_context(*args, **options)

    def invoke(self, ctx: click.Context) -> Any:
        """Runs it."""
        with _one_line():
            return super().invoke(ctx)


class Group(Prints, click.Group):
    """The commands."""

    command_class = Prints


@click.group(cls=Group, context_settings={"help_option_names": ["-h", "--help"]})
@click.version_option(__version__)
def main() -> None:
    """A Corvane service for this machine only, for trying things out and for tests. It is not the real service."""


@main.command()
@STATE
@click.option("--port", default=8443, show_default=True, type=click.IntRange(0, 65535), help="0: any free port.")
@click.option(
    "--challenge-seconds", default=CHALLENGE_SECONDS, show_default=True, help="How long a challenge is valid."
)
@click.option("--token-seconds", default=TOKEN_SECONDS, show_default=True, help="How long a token is valid.")
@click.option("--failure-seconds", default=60.0, show_default=True, help="When failed sign-ins are forgotten.")
@click.option("--exchange-seconds", default=20.0, show_default=True, help="How long a request and its answer may take.")
def serve(
    state: Path,
    port: int,
    challenge_seconds: float,
    token_seconds: float,
    failure_seconds: float,
    exchange_seconds: float,
) -> None:
    """Serve HTTPS on 127.0.0.1 until SIGTERM or Ctrl-C.

    The first line printed is the address, once it can be reached; the second says which certificate authority clients
    must trust. The third says where the operator's token is, which opens the page at that address; a new token is
    itself printed, once.
    """
    import uvicorn  # here, like what needs it: the other commands would wait for it

    from corvane_local.app import create_app
    from corvane_local.certificates import ensure_certificates
    from corvane_local.connections import MAX_HEAD, Connection
    from corvane_local.operator_page import TOKEN_FILE, ensure_token
    from corvane_local.releases import publish

    store = _open_store(state, challenge_seconds=challenge_seconds, token_seconds=token_seconds)
    publish(store, state / FILES)
    authority, certificate, key = ensure_certificates(state)
    try:
        token, is_new = ensure_token(state)
    except ValueError as exc:
        raise click.ClickException(str(exc)) from exc
    listener = socket.socket(proto=socket.IPPROTO_TCP)  # asyncio turns Nagle's algorithm off only where it sees TCP
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listener.bind(("127.0.0.1", port))
    except OSError as exc:
        raise click.ClickException(f"cannot listen on 127.0.0.1:{port}: {exc.strerror}. Try --port 0.") from exc

    unannounced = list[OSError]()

    class AnnouncingServer(uvicorn.Server):
        async def startup(self, sockets: list[socket.socket] | None = None) -> None:
            await super().startup(sockets)
            try:
                click.echo(f"https://127.0.0.1:{listener.getsockname()[1]}")
                click.echo(f"export SSL_CERT_FILE={shlex.quote(str(authority.resolve()))}")
                shown = f"; shown only this once: {token}" * is_new
                click.echo(f"operator's token: in {state.resolve() / TOKEN_FILE}{shown}")
            except OSError as exc:  # raised from here, it would be logged as a broken application
                unannounced.append(exc)
                self.should_exit = True

    def stop(number: int, frame: FrameType | None) -> None:
        sys.exit(0)

    # The server ends its work on these signals and then raises them once more, for us.
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, stop)
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))  # an unfinished TLS handshake keeps a descriptor, too
    Connection.exchange_seconds = exchange_seconds
    config = uvicorn.Config(
        create_app(store, state / FILES, failure_seconds, token),
        loop="corvane_local.connections:Loop",
        http=Connection,
        ws="none",
        h11_max_incomplete_event_size=MAX_HEAD,
        proxy_headers=False,  # a client could name any address as its own, and so evade the limit on failures
        ssl_certfile=certificate,
        ssl_keyfile=key,
        log_level="error",  # what broken clients send must not fill a log
        access_log=False,
        timeout_graceful_shutdown=1,  # seconds; idle connections do not close by themselves
    )
    with contextlib.closing(listener):
        AnnouncingServer(config).run(sockets=[listener])
    if unannounced:
        raise unannounced[0]


@main.command()
@STATE
@click.option("--count", default=1, show_default=True, type=click.IntRange(1), help="How many.")
def invite(state: Path, count: int) -> None:
    """Print new invite codes, one per line; each is good for one wallet. The service may be running or not."""
    store = _open_store(state)
    for _ in range(count):
        click.echo(store.make_invite())


@main.command(name="publish")
@STATE
@click.option("--backtester", required=True, type=click.Choice(["1", "2"]), help="The build that agents get.")
def publish_command(state: Path, backtester: str) -> None:
    """Publish a build of the backtester and print the version. The service may be running or not."""
    from corvane_local.releases import publish

    click.echo(publish(_open_store(state), state / FILES, backtester))


@main.command(name="list")
@STATE
@click.option("--json", "as_json", is_flag=True, help="Print JSON.")
def list_command(state: Path, as_json: bool) -> None:
    """List invites, wallets and published builds, oldest first. The service may be running or not.

    No secret is shown: only the last group of an invite code that is still good.
    """
    if not (state / "service.db").exists():
        raise click.ClickException(f"There is no service in {state}.")
    contents = _open_store(state).contents()
    if as_json:
        click.echo(json.dumps(asdict(contents), indent=1))
        return
    unused = sum(invite.used_by is None for invite in contents.invites)
    click.echo(f"Invites: {len(contents.invites)}, {unused} unused")
    for invite in contents.invites:
        use = f"used by {invite.used_by}" if invite.used_by else "unused"
        click.echo(f"  {invite.code}  made {_time(invite.made_at)}  {use}")
    click.echo(f"Wallets: {len(contents.wallets)}")
    for wallet in contents.wallets:
        click.echo(f"  {wallet.address}  registered {_time(wallet.registered_at)}")
    click.echo(f"Published builds: {len(contents.builds)}")
    for build in contents.builds:
        click.echo(f"  version {build.version}  backtester {build.backtester}")


def _time(seconds: float) -> str:
    return f"{datetime.fromtimestamp(seconds, UTC):%Y-%m-%dT%H:%M:%SZ}"

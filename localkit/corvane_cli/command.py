"""What all commands have in common: options, output, and what becomes of an error."""

import inspect
import json
import logging
import re
import traceback
from collections.abc import Iterator
from dataclasses import dataclass
from enum import IntEnum
from functools import partial
from typing import Any, Self
from urllib.error import URLError

import click

from corvane.auth import AuthBusyError, AuthError, InvalidKeyError, RegistrationError
from corvane.errors import RuntimeModuleError
from corvane.sync_backoff import SyncBackoffCancelled
from corvane_cli.identity import Agent


class Exit(IntEnum):
    """The exit statuses and their meanings."""

    meaning: str

    def __new__(cls, value: int, meaning: str) -> Self:
        """The status with its meaning."""
        status = int.__new__(cls, value)
        status._value_, status.meaning = value, meaning
        return status

    OK = 0, "done"
    FAILED = 1, "something unforeseen went wrong; --verbose says more"
    USAGE = 2, "the command or its input makes no sense"
    NOT_LOGGED_IN = 3, "not logged in: no key, or no session"
    REFUSED = 4, "the service refuses the key or the invite code, or the key is malformed"
    TRY_AGAIN = 5, "the service is away or busy, or another command is at work: try again later"
    MACHINE = 6, "something on this machine must be put right first: a file, a permission, a certificate"
    SPOILT = 7, "downloaded files are not what the manifest says"
    WARNINGS = 8, "`corvane doctor` has found warnings and no errors"
    ERRORS = 9, "`corvane doctor` has found errors"
    INTERRUPTED = 130, "interrupted with Ctrl-C"


_ADDRESS = "Check the address that `corvane status` shows (--server-url sets it), then run it again; nothing is lost."
_SIGN_UP = "Check key and address (`corvane status`); a new wallet needs `corvane register --invite-code CODE` first."

# What an exception means. The first line counts that fits anything in the chain of causes: what is behind an error says
# more than what it was wrapped in.
_CAUSES: list[tuple[tuple[type[BaseException], ...], Exit, str]] = [
    ((AuthBusyError, BlockingIOError), Exit.TRY_AGAIN, "Wait a minute, then run the command again."),
    ((ConnectionError, TimeoutError, URLError, SyncBackoffCancelled), Exit.TRY_AGAIN, _ADDRESS),
    ((RuntimeModuleError,), Exit.SPOILT, "`corvane sync` downloads what is spoilt; `corvane doctor` says more."),
    ((RegistrationError,), Exit.REFUSED, "Ask the operator for another invite code. Keep wallet.key for it."),
    ((InvalidKeyError,), Exit.REFUSED, "Pass the key as 64 hexadecimal digits, with or without 0x in front."),
    ((AuthError,), Exit.REFUSED, _SIGN_UP),
    ((ImportError,), Exit.MACHINE, "`corvane doctor` says what cannot be loaded, and why."),
    ((OSError,), Exit.MACHINE, "Put the file or its permissions right; `corvane doctor` says more."),
    ((KeyboardInterrupt, click.Abort), Exit.INTERRUPTED, "Run it again; what was found or downloaded before is kept."),
]


@dataclass
class Result:
    """What a command answers: for programs, for people, and as its exit status."""

    data: dict[str, Any]
    text: str
    status: Exit = Exit.OK


class Failure(Exception):
    """An error with its exit status and the next step to take."""

    def __init__(self, message: str, status: Exit, next_step: str) -> None:
        super().__init__(message)
        self.status, self.next_step = status, next_step


class Command(click.Command):
    """A command whose function answers a Result; one that has a parameter `agent` gets an Agent, and options for it."""

    def __init__(self, *args: Any, **options: Any) -> None:
        super().__init__(*args, **options)
        assert self.callback is not None
        self._for_agent = "agent" in inspect.signature(self.callback).parameters
        self.params += [*(_LOCATIONS if self._for_agent else []), *_OUTPUT]

    def invoke(self, ctx: click.Context) -> Any:
        """Runs the command."""
        if self._for_agent:
            ctx.params["agent"] = Agent(ctx.params.pop("data_dir"), ctx.params.pop("server_url"))
        return super().invoke(ctx)


class Group(click.Group):
    """The commands: prints their results, and of each error what to do about it."""

    def make_context(self, info_name: str | None, args: list[str], *more: Any, **extra: Any) -> click.Context:
        """Parses what stands before the command."""
        as_json = "--json" in args
        try:
            return super().make_context(info_name, args, *more, **extra)
        except (click.NoSuchOption, click.BadOptionUsage) as exc:
            raise click.exceptions.Exit(_report(exc, as_json)) from None

    def invoke(self, ctx: click.Context) -> None:
        """Runs one of them."""
        # Seen in the arguments themselves, which may be the very thing that makes no sense.
        as_json, verbose = "--json" in ctx.args, "--verbose" in ctx.args
        if verbose:  # of ours only: what libraries log is not ours to vouch for
            logging.basicConfig(format="%(levelname)s %(name)s %(message)s")
            logging.getLogger("corvane").setLevel(logging.DEBUG)
        try:
            result: Result = super().invoke(ctx)
        except click.exceptions.Exit:
            raise
        except (Exception, KeyboardInterrupt) as exc:
            if verbose and not isinstance(exc, click.UsageError):
                click.echo("".join(traceback.format_exception(exc)), err=True)
            ctx.exit(_report(exc, as_json))
        click.echo(json.dumps(result.data, indent=1, default=str, allow_nan=False) if as_json else result.text)
        ctx.exit(result.status)


_option = partial(click.Option, show_envvar=True)
_LOCATIONS = [
    _option(["--data-dir"], default="~/.corvane", envvar="CORVANE_DATA_DIR", help="One for each identity."),
    _option(
        ["--server-url"], envvar="CORVANE_SERVER_URL", help="The service; by default the session's, else the kit's."
    ),
]
_OUTPUT = [
    _option(["--json"], is_flag=True, expose_value=False, help="Print the result as JSON on stdout."),
    _option(["--verbose"], is_flag=True, expose_value=False, help="Log to stderr; show where an error came from."),
]


def _report(exc: BaseException, as_json: bool) -> Exit:
    failure = _explain(exc)
    fields = {"error": str(failure), "next_step": failure.next_step, "exit_status": failure.status}
    click.echo(json.dumps(fields) if as_json else f"Error: {failure}\nNext: {failure.next_step}", err=True)
    return failure.status


def _explain(exc: BaseException) -> Failure:
    if isinstance(exc, Failure):
        return exc
    if isinstance(exc, click.UsageError):
        # A key that somebody passes as an argument all the same is not repeated.
        text = re.sub(r"\b(0[xX])?[0-9a-fA-F]{64}\b", "(a key)", exc.format_message())
        command = exc.ctx.command_path if exc.ctx else "corvane"
        return Failure(text, Exit.USAGE, f"`{command} --help` shows what there is, with examples.")
    text, chain = str(exc) or type(exc).__name__, list(_chain(exc))
    if any("CERTIFICATE_VERIFY_FAILED" in str(link) for link in chain):  # to try again would not help
        return Failure(text, Exit.MACHINE, "Set SSL_CERT_FILE to the service's certificate authority, and the clock.")
    for kinds, status, next_step in _CAUSES:
        if any(isinstance(link, kinds) for link in chain):
            return Failure(text, status, next_step)
    if type(exc) in (ValueError, LookupError):
        return Failure(text, Exit.USAGE, "Correct the input; --help shows examples.")
    return Failure(f"{type(exc).__name__}: {text}", Exit.FAILED, "Run it again with --verbose.")


def _chain(exc: BaseException | None) -> Iterator[BaseException]:
    while exc is not None:
        yield exc
        exc = exc.__cause__ or (None if exc.__suppress_context__ else exc.__context__)

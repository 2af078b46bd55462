"""What all commands have in common: options, output, and what becomes of an error."""

import inspect
import json
import logging
import re
import traceback
from collections.abc import Iterator
from dataclasses import dataclass
from enum import IntEnum
from typing import Any
from urllib.error import URLError

import click

from corvane.auth import AuthBusyError, AuthError, InvalidKeyError, RegistrationError
from corvane.errors import RuntimeModuleError
from corvane.sync_backoff import SyncBackoffCancelled
from corvane_cli.identity import Agent


class Exit(IntEnum):
    """The exit statuses."""

    OK = 0
    FAILED = 1
    USAGE = 2
    NOT_LOGGED_IN = 3
    REFUSED = 4
    TRY_AGAIN = 5
    MACHINE = 6
    SPOILT = 7
    WARNINGS = 8
    ERRORS = 9
    INTERRUPTED = 130


MEANINGS = {
    Exit.OK: "done",
    Exit.FAILED: "something unforeseen went wrong; --verbose says more",
    Exit.USAGE: "the command or its input makes no sense",
    Exit.NOT_LOGGED_IN: "not logged in: no key, or no session",
    Exit.REFUSED: "the service refuses the key or the invite code, or the key is malformed",
    Exit.TRY_AGAIN: "the service is away or busy, or another command is at work: try again later",
    Exit.MACHINE: "something on this machine must be put right first: a file, a permission, a certificate",
    Exit.SPOILT: "downloaded files are not what the manifest says",
    Exit.WARNINGS: "`corvane doctor` has found warnings and no errors",
    Exit.ERRORS: "`corvane doctor` has found errors",
    Exit.INTERRUPTED: "interrupted with Ctrl-C",
}

# What an exception of the kit means. The first line counts that fits anything in the chain of causes: what is behind an
# error says more than what it was wrapped in.
_CAUSES: list[tuple[tuple[type[BaseException], ...], Exit, str]] = [
    ((AuthBusyError, BlockingIOError), Exit.TRY_AGAIN, "Wait a minute, then run the command again."),
    (
        (ConnectionError, TimeoutError, URLError, SyncBackoffCancelled),
        Exit.TRY_AGAIN,
        "Check the address (`corvane status`), then run the command again; nothing is lost.",
    ),
    ((RuntimeModuleError,), Exit.SPOILT, "`corvane sync` downloads what is spoilt; `corvane doctor` says more."),
    ((RegistrationError,), Exit.REFUSED, "Ask the operator for another invite code. Keep wallet.key for it."),
    ((InvalidKeyError,), Exit.REFUSED, "Pass the key as 64 hexadecimal digits, with or without 0x in front."),
    (
        (AuthError,),
        Exit.REFUSED,
        "Check key and address (`corvane status`); a new wallet needs `corvane register --invite-code CODE` first.",
    ),
    ((KeyboardInterrupt,), Exit.INTERRUPTED, "Run it again; what was found or downloaded before is kept."),
]


@dataclass
class Result:
    """What a command answers: for programs, for people, and as its exit status."""

    data: dict[str, Any]
    text: str
    status: Exit = Exit.OK


class Failure(click.ClickException):
    """An error with the next step to take.

    Args:
        message: What happened.
        status: The exit status.
        next_step: What to do about it.
    """

    as_json = False

    def __init__(self, message: str, status: Exit, next_step: str) -> None:
        super().__init__(message)
        vars(self).update(exit_code=int(status))  # which click declares as one of the class
        self.next_step = next_step

    def show(self, file: Any = None) -> None:
        """Prints it to stderr."""
        if self.as_json:
            fields = {"error": self.message, "next_step": self.next_step, "exit_status": self.exit_code}
            click.echo(json.dumps(fields), err=True)
        else:
            click.echo(f"Error: {self.message}\nNext: {self.next_step}", err=True)


class Command(click.Command):
    """A command whose function answers a Result; one that has a parameter `agent` gets an Agent, and options for it."""

    def __init__(self, *args: Any, **options: Any) -> None:
        super().__init__(*args, **options)
        assert self.callback is not None
        self._for_agent = "agent" in inspect.signature(self.callback).parameters
        self.params += [*(_LOCATIONS if self._for_agent else []), *_OUTPUT]

    def invoke(self, ctx: click.Context) -> None:
        """Runs the command and prints its result; every error becomes a Failure."""
        as_json, verbose = ctx.params.pop("as_json"), ctx.params.pop("verbose")
        if verbose:  # of ours only: what libraries log is not ours to vouch for
            logging.basicConfig(format="%(levelname)s %(name)s %(message)s")
            logging.getLogger("corvane").setLevel(logging.DEBUG)
        try:
            if self._for_agent:
                ctx.params["agent"] = Agent(ctx.params.pop("data_dir"), ctx.params.pop("server_url"))
            result = super().invoke(ctx)
        except (click.exceptions.Exit, click.UsageError):
            raise
        except (Exception, KeyboardInterrupt) as exc:
            if verbose:
                click.echo("".join(traceback.format_exception(exc)), err=True)
            failure = exc if isinstance(exc, Failure) else _explain(exc)
            failure.as_json = as_json
            raise failure from None
        click.echo(json.dumps(result.data, indent=1, default=str, allow_nan=False) if as_json else result.text)
        ctx.exit(result.status)


class Group(click.Group):
    """The commands; a key that somebody passes as an argument all the same is not repeated in the error."""

    def invoke(self, ctx: click.Context) -> Any:
        """Runs one of them."""
        try:
            return super().invoke(ctx)
        except click.UsageError as exc:
            message = re.sub(r"\b(0[xX])?[0-9a-fA-F]{64}\b", "(a key)", exc.message)
            raise click.UsageError(message, exc.ctx) from None


_LOCATIONS = [
    click.Option(
        ["--data-dir"],
        default="~/.corvane",
        envvar="CORVANE_DATA_DIR",
        show_default=True,
        show_envvar=True,
        help="Directory of wallet.key and of what is downloaded; one for each identity.",
    ),
    click.Option(
        ["--server-url"],
        envvar="CORVANE_SERVER_URL",
        show_envvar=True,
        help="Address of the service.  [default: the one of the session, else the kit's]",
    ),
]
_OUTPUT = [
    click.Option(["--json", "as_json"], is_flag=True, help="Print the result as JSON on stdout."),
    click.Option(["--verbose"], is_flag=True, help="Log to stderr, and show where an error came from."),
]


def _explain(exc: BaseException) -> Failure:
    text, chain = str(exc) or type(exc).__name__, list(_chain(exc))
    if any("CERTIFICATE_VERIFY_FAILED" in str(link) for link in chain):  # to try again would not help
        return Failure(text, Exit.MACHINE, "Set SSL_CERT_FILE to the service's certificate authority, and the clock.")
    for kinds, status, next_step in _CAUSES:
        if any(isinstance(link, kinds) for link in chain):
            return Failure(text, status, next_step)
    if isinstance(exc, OSError):
        return Failure(text, Exit.MACHINE, "Put the file or its permissions right; `corvane doctor` says more.")
    if type(exc) in (ValueError, LookupError):
        return Failure(text, Exit.USAGE, "Correct the input; --help shows examples.")
    return Failure(f"{type(exc).__name__}: {text}", Exit.FAILED, "Run it again with --verbose.")


def _chain(exc: BaseException | None) -> Iterator[BaseException]:
    while exc is not None:
        yield exc
        exc = exc.__cause__ or (None if exc.__suppress_context__ else exc.__context__)

"""What all commands have in common: options, output, and what becomes of an error."""

import errno
import inspect
import math
import os
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from enum import IntEnum
from functools import partial
from typing import Any, Self

import click
from click.core import ParameterSource
from click.shell_completion import shell_complete

from corvane import __version__
from corvane.auth import (
    AuthBusyError,
    AuthError,
    InvalidKeyError,
    NotTheServiceError,
    PortalError,
    RegistrationError,
    RequestRefusedError,
)
from corvane.errors import RuntimeModuleError
from corvane_cli import display, interrupts
from corvane_cli.identity import Agent

COMPLETION_VARIABLE = "_CORVANE_COMPLETE"
SECONDS = 60.0  # for a command that downloads nothing


class Exit(IntEnum):
    """The exit statuses and their meanings."""

    meaning: str

    def __new__(cls, value: int, meaning: str) -> Self:
        """The status with its meaning."""
        status = int.__new__(cls, value)
        status._value_, status.meaning = value, meaning
        return status

    OK = 0, "done"
    FAILED = 1, "something unexpected went wrong; --verbose says more"
    USAGE = 2, "the command or its input is not valid"
    NOT_LOGGED_IN = 3, "not logged in: no key, or no session"
    REFUSED = 4, "the service refuses the key or the invite code, or the key is malformed"
    TRY_AGAIN = 5, "the service is away or busy, or another command is running: try again later"
    MACHINE = (
        6,
        "something on this machine must be fixed first: a file, a permission, a certificate, an address",
    )
    DAMAGED = 7, "downloaded files are not what the manifest says"
    WARNINGS = 8, "`corvane doctor` has found warnings and no errors"
    ERRORS = 9, "`corvane doctor` has found errors"
    INTERRUPTED = interrupts.STATUS, "interrupted with Ctrl-C"


_ADDRESS = "Check the address that `corvane status` shows (--server-url sets it), then run it again; nothing is lost."
_PORTAL = "Sign in to the network in a browser, or correct the address (--server-url); then run it again."
_NOT_CORVANE = (
    "Correct the address (--server-url); `corvane status` shows it. If it is right, ask the operator what stands in "
    "front of the service."
)
_UNKNOWN = "`corvane register --invite-code CODE` signs up a wallet that is new to the service; else check the address."
_REFUSED = "Run it again; if that changes nothing, ask the operator why. The wallet is signed in, and nothing is lost."
_DAMAGED = "`corvane sync` downloads damaged files again. If they arrive damaged again, tell the operator."
_NEW_CODE = "Ask the operator for another code: `corvane register --invite-code CODE` uses the stored key again."

# What an exception means. The first line counts that fits anything in the chain of causes: what is behind an error says
# more than what it was wrapped in.
_CAUSES: list[tuple[tuple[type[BaseException], ...], Exit, str]] = [
    ((AuthBusyError, BlockingIOError), Exit.TRY_AGAIN, "Wait a minute, then run the command again."),
    ((PortalError,), Exit.TRY_AGAIN, _PORTAL),
    ((NotTheServiceError,), Exit.MACHINE, _NOT_CORVANE),
    ((ConnectionError, TimeoutError), Exit.TRY_AGAIN, _ADDRESS),
    ((RuntimeModuleError,), Exit.DAMAGED, _DAMAGED),
    ((RegistrationError,), Exit.REFUSED, _NEW_CODE),
    ((InvalidKeyError,), Exit.REFUSED, "Pass the key as 64 hexadecimal digits, with or without 0x in front."),
    ((RequestRefusedError,), Exit.REFUSED, _REFUSED),
    ((AuthError,), Exit.REFUSED, _UNKNOWN),
    ((ImportError,), Exit.MACHINE, "`corvane doctor` says what cannot be loaded, and why."),
    ((OSError,), Exit.MACHINE, "Put the file, its permissions or the disk right; `corvane doctor` says more."),
]
_NO_SPACE = (errno.ENOSPC, errno.EDQUOT, errno.EFBIG)


@dataclass
class Result:
    """What a command returns: for programs, for people line by line, and as its exit status."""

    data: dict[str, Any]
    lines: list[str]
    status: Exit = Exit.OK


class Failure(Exception):
    """An error with its exit status and the next step to take."""

    def __init__(self, message: str, status: Exit, next_step: str) -> None:
        super().__init__(message)
        self.status, self.next_step = status, next_step


class _Formatter(click.HelpFormatter):
    def write_dl(self, rows: Any, col_max: int = 30, col_spacing: int = 2) -> None:
        """Writes a table; on a narrow terminal its second column gets most of the width, so that no word is broken."""
        super().write_dl(rows, col_max if self.width > 60 else 4, col_spacing)


class _Context(click.Context):
    formatter_class = _Formatter


class _Prints(click.Command):
    """What prints its help, or a version, while it parses."""

    context_class = _Context

    def make_context(self, *args: Any, **options: Any) -> click.Context:
        """Parses the arguments."""
        with _printing():
            return super().make_context(*args, **options)


class Command(_Prints):
    """A command whose function returns a Result; one that has a parameter `agent` gets an Agent, and options for it."""

    def __init__(self, *args: Any, **options: Any) -> None:
        super().__init__(*args, **options)
        assert self.callback is not None
        self._for_agent = "agent" in inspect.signature(self.callback).parameters
        self.params += [*(_LOCATIONS if self._for_agent else []), *_OUTPUT]

    def invoke(self, ctx: click.Context) -> Any:
        """Runs the command. Options of all commands may stand before its name, too."""
        if self._for_agent:
            shared = {option.name: ctx.params.pop(str(option.name)) for option in _LOCATIONS}
            for name in shared:
                sources = [context.get_parameter_source(str(name)) for context in (ctx, ctx.parent) if context]
                if ctx.parent and sources[0] != ParameterSource.COMMANDLINE == sources[1]:
                    shared[name] = ctx.parent.params[str(name)]
            ctx.params["agent"] = Agent(shared["data_dir"], shared["server_url"])
            downloads = "progress" in ctx.params and ctx.params.get("bootstrap", True)
            interrupts.arm(shared["timeout"] or (None if downloads else SECONDS))
        else:
            interrupts.arm(None)
        return super().invoke(ctx)


class Group(_Prints, click.Group):
    """The commands: prints their results, and of each error what to do about it."""

    def __init__(self, *args: Any, **options: Any) -> None:
        super().__init__(*args, **options)
        self.params += [*_LOCATIONS, *_OUTPUT]

    def format_epilog(self, ctx: click.Context, formatter: click.HelpFormatter) -> None:
        """Writes the examples, and the exit statuses as a table."""
        super().format_epilog(ctx, formatter)
        with formatter.section("Exit statuses"):
            formatter.write_dl([(str(int(status)), status.meaning) for status in Exit])

    def run(self, args: list[str]) -> int:
        """Runs one of the commands; its exit status."""
        display.remember_inputs(args)
        # Seen in the arguments themselves, which may be the very thing that makes no sense.
        options = args[: args.index("--")] if "--" in args else args
        as_json, verbose = "--json" in options, "--verbose" in options
        if verbose:  # of ours only: what libraries log is not ours to vouch for
            display.log_to_stderr("DEBUG", "%(levelname)s %(name)s %(message)s")
        try:
            if sys.stdout is None:
                raise Failure("Standard output is closed.", Exit.MACHINE, "Open it, for example with >/dev/null.")
            sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[union-attr]
            if instruction := os.environ.get(COMPLETION_VARIABLE):
                return shell_complete(self, {}, "corvane", COMPLETION_VARIABLE, instruction)
            with self.make_context("corvane", list(args)) as ctx:
                result: Result = self.invoke(ctx)
            interrupts.disarm()
            text = display.as_json(result.data, 1) if as_json else "\n".join(map(display.one_line, result.lines))
            with _printing():
                click.echo(text)
            return result.status
        except click.exceptions.Exit as exc:
            return exc.exit_code
        except (Exception, KeyboardInterrupt) as exc:
            interrupts.disarm()
            if interrupts.was_interrupted or isinstance(exc, click.Abort):
                interrupts.report()
                return Exit.INTERRUPTED
            if verbose and not isinstance(exc, click.UsageError):
                import traceback

                trace = "".join(traceback.format_exception(exc)).splitlines()
                _say("\n".join(f"  {display.one_line(line)}" for line in trace))
            failure = _explain(exc)
            fields = {"error": str(failure), "next_step": failure.next_step, "exit_status": failure.status}
            text = f"Error: {display.one_line(failure)}\nNext: {display.one_line(failure.next_step)}"
            _say(display.as_json(fields) if as_json else text)
            return failure.status


class Seconds(click.FloatRange):
    """How long. In click's own ranges, NaN lies in each."""

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> float:
        """The number."""
        number: float = super().convert(value, param, ctx)
        if math.isnan(number):
            self.fail(f"{value!r} is not a number of seconds.", param, ctx)
        return number


_option = partial(click.Option, show_envvar=True)
_LOCATIONS = [
    _option(["--data-dir"], default="~/.corvane", envvar="CORVANE_DATA_DIR", help="One for each identity."),
    _option(
        ["--server-url"], envvar="CORVANE_SERVER_URL", help="The service; by default the session's, else the kit's."
    ),
    _option(
        ["--timeout"],
        type=Seconds(0, min_open=True),
        metavar="SECONDS",
        show_default=f"{SECONDS:g}; none for downloads, which end when nothing arrives",
        help="How long the command may take.",
    ),
]


def _print_version(ctx: click.Context, parameter: click.Parameter, wanted: bool) -> None:
    if wanted and not ctx.resilient_parsing:
        in_json = "--json" in sys.argv
        click.echo(display.as_json({"version": __version__}, 1) if in_json else f"corvane, version {__version__}")
        ctx.exit()


_OUTPUT = [
    _option(
        ["--version"],
        is_flag=True,
        is_eager=True,
        expose_value=False,
        callback=_print_version,
        help="Show the version.",
    ),
    _option(["--json"], is_flag=True, expose_value=False, help="Print the result as JSON on stdout."),
    _option(["--verbose"], is_flag=True, expose_value=False, help="Log to stderr; show where an error came from."),
]


def table(rows: list[tuple[object, ...]]) -> list[str]:
    """The rows as lines, in columns. The last one is wrapped between words where the terminal is narrow."""
    import shutil
    import textwrap

    width = shutil.get_terminal_size((10_000, 24)).columns
    texts = [[display.one_line(cell) for cell in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*texts, strict=True)][:-1]
    lines = []
    for *cells, last in texts:
        first = "".join(f"{cell:<{size}}  " for cell, size in zip(cells, widths, strict=True))
        lines += textwrap.wrap(
            first + last,
            width,
            subsequent_indent=" " * min(len(first), width // 4),
            break_long_words=False,
            break_on_hyphens=False,
        )
    return lines


def _say(text: str) -> None:
    try:
        click.echo(text, err=True)
    except OSError:  # nobody can be told; the exit status still says it
        os.dup2(os.open(os.devnull, os.O_WRONLY), 2)


@contextmanager
def _printing() -> Iterator[None]:
    try:
        yield
    except FileNotFoundError:  # of an argument: a directory that is gone
        raise
    except OSError as exc:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # Python must not try again when it ends
        message = f"The result cannot be written to standard output: {exc.strerror}."
        raise Failure(message, Exit.MACHINE, "Print it elsewhere; `corvane status` shows what was done.") from None


def _explain(exc: BaseException) -> Failure:
    if isinstance(exc, Failure):
        return exc
    if isinstance(exc, click.UsageError):
        command = exc.ctx.command_path if exc.ctx else "corvane"
        return Failure(exc.format_message(), Exit.USAGE, f"`{command} --help` lists what is available, with examples.")
    text, chain = str(exc) or type(exc).__name__, list(_chain(exc))
    if any(isinstance(link, interrupts.OutOfTime) for link in chain):
        next_step = "Try again later, or with a longer --timeout SECONDS; nothing is lost."
        return Failure("The command has not finished in time.", Exit.TRY_AGAIN, next_step)
    if type(exc) is ConnectionError:  # the onboarding module's own text names no address and no reason
        text = [str(link) for link in chain if type(link) is ConnectionError][-1]
    if isinstance(exc, FileNotFoundError) and exc.filename is None:
        return Failure("The working directory no longer exists.", Exit.MACHINE, "Change to one that exists: cd.")
    if any("CERTIFICATE_VERIFY_FAILED" in str(link) for link in chain):  # to try again would not help
        return Failure(text, Exit.MACHINE, "Set SSL_CERT_FILE to the service's certificate authority, and the clock.")
    if any(isinstance(link, OSError) and link.errno in _NO_SPACE for link in chain):
        return Failure(f"No space is left: {text}", Exit.MACHINE, "Free some space, then run the command again.")
    import sqlite3
    from urllib.error import URLError  # of the onboarding module's requests; here, because it takes a while

    from corvane.sync_backoff import SyncBackoffCancelled

    late: dict[type[BaseException], tuple[type[BaseException], ...]] = {
        ConnectionError: (URLError, SyncBackoffCancelled),
        OSError: (sqlite3.DatabaseError,),
    }
    for kinds, status, next_step in _CAUSES:
        kinds = (*kinds, *late.get(kinds[0], ()))
        if any(isinstance(link, kinds) for link in chain):
            return Failure(text, status, next_step)
    if type(exc) in (ValueError, LookupError, OverflowError):
        return Failure(text, Exit.USAGE, "Correct the input; --help shows examples.")
    return Failure(f"{type(exc).__name__}: {text}", Exit.FAILED, "Run it again with --verbose.")


def _chain(exc: BaseException | None) -> Iterator[BaseException]:
    while exc is not None:
        yield exc
        exc = exc.__cause__ or (None if exc.__suppress_context__ else exc.__context__)

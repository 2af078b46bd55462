"""How the demo shows what it does, and how it checks it."""

import stat
from collections.abc import Callable
from pathlib import Path
from typing import Any

import click

from corvane import agent_onboarding as onboarding


class CheckFailed(Exception):
    """What the demo promised did not happen."""


def check(claim: str, holds: bool) -> None:
    """Prints the claim with its verdict; a claim that does not hold ends the demo."""
    click.echo(f"   {'ok' if holds else 'NOT TRUE'}: {claim}")
    if not holds:
        raise CheckFailed(claim)


def say(call: str, *lines: str) -> None:
    """Prints a call, and in plain words what came of it."""
    for line in (f">>> {call}", *lines):
        click.echo(f"   {line}")


def show(call: str, result: object) -> None:
    say(call, repr(result))


def refused(call: str, action: Callable[[], object], error: Exception, next_step: str) -> None:
    """The action must fail with just this error, which the agent sees."""
    try:
        result = action()
    except Exception as exc:
        say(call, f"{type(exc).__name__}: {exc}")
        check(f"the agent sees just this {type(error).__name__}", type(exc) is type(error) and str(exc) == str(error))
        click.echo(f"   Next step: {next_step}")
    else:
        show(call, result)
        check(f"the agent sees {type(error).__name__}", False)


def steps_of(part: object) -> list[Callable[[], None]]:
    """The steps of a part of the demo: its public methods, in the order in which they are written."""
    return [getattr(part, name) for name in vars(type(part)) if not name.startswith("_")]


def private(name: str) -> Any:
    """A name of the onboarding module that has no public way yet, or that the kit's modules share."""
    return vars(onboarding)[name]


def option(name: str) -> object:
    return private("_config")[name]


def mode(path: Path) -> int:
    return stat.S_IMODE(path.lstat().st_mode)

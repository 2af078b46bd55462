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
    click.echo(f"   {'ok' if holds else 'NOT SO'}: {claim}")
    if not holds:
        raise CheckFailed(claim)


def show(call: str, result: object) -> None:
    click.echo(f"   >>> {call}\n   {result!r}")


def refused(call: str, action: Callable[[], object], kind: type[Exception], message: str) -> None:
    """The action must fail with just this error and this message, which the agent sees."""
    try:
        result = action()
    except Exception as exc:
        click.echo(f"   >>> {call}\n   {type(exc).__name__}: {exc}")
        check(f"the agent sees just this {kind.__name__}", type(exc) is kind and str(exc) == message)
    else:
        show(call, result)
        check(f"the agent sees {kind.__name__}", False)


def private(name: str) -> Any:
    """A name of the onboarding module that has no public way yet, or that the kit's modules share."""
    return vars(onboarding)[name]


def option(name: str) -> object:
    return private("_config")[name]


def mode(path: Path) -> int:
    return stat.S_IMODE(path.lstat().st_mode)

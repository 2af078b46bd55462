"""Random calls under random attacks, for a bounded time: the module does as its Python twin, and never crashes."""

import asyncio
import contextlib
import functools
import importlib
import itertools
import os
import random
import time
import types
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

from proof.workshop import Result, Workshop, side_by_side
from support import scenarios
from support.scenarios import CALLS, patched

Act = Callable[[], Any]
comparison: Any = importlib.import_module("support.comparison")
greenlet: Any = importlib.import_module("greenlet").greenlet


def in_thread(act: Act) -> Any:
    with ThreadPoolExecutor(1) as pool:
        return pool.submit(act).result()


def in_task(act: Act) -> Any:
    """What is raised is described, since an event loop has its own way with some exceptions."""

    async def task() -> Any:
        return comparison.tried(act)

    return asyncio.run(task())


def entries_across_threads(act: Act) -> Any:
    """The module's own generator, each step on another thread, around the call."""
    entries = scenarios.m._runtime_module_manifest_entries({"files": scenarios.FILES[0]})
    first, came = in_thread(lambda: next(entries)), act()
    return first, came, in_thread(lambda: list(entries))


class Lying(str):
    """A keyword that is like none."""

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        scenarios.say(f"{self} == {other}")
        return False


def with_hostile_keyword(act: Act) -> Any:
    for word in "trigger", "working_dir":
        scenarios.say(str(comparison.tried(lambda: scenarios.m.update_nudge(**{Lying(word): "era_change"}))))  # noqa: B023
    return act()


WAYS: tuple[Callable[[Act], Any], ...] = (
    lambda act: act(),
    lambda act: greenlet(act).switch(),
    in_thread,
    in_task,
    entries_across_threads,
    with_hostile_keyword,
)
# What stands in the place of a function: decorated ones, and another function of the same code.
INSTEAD: tuple[Callable[[types.FunctionType], Any], ...] = (
    functools.partial,
    staticmethod,
    lambda f: functools.wraps(f)(lambda *args, **kwargs: f(*args, **kwargs)),
    lambda f: types.FunctionType(f.__code__, f.__globals__, f.__name__, f.__defaults__, f.__closure__),
)


def drawn(seed: int) -> str:
    """One attack, on both; says where they part."""
    draw = random.Random(seed)
    name, way, strike = draw.choice(list(CALLS)), draw.choice(WAYS), draw.choice(list(comparison.STRIKES))
    at = draw.choice((None, *range(1, 12)))
    replaced, instead = draw.randrange(6), draw.choice(INSTEAD)

    def attacked(undo: Any) -> None:
        """Some functions of the namespace are replaced, through another object that shares it."""
        module: Any = scenarios.m
        sharing: Any = type("Sharing", (), {})()
        functions = {name: f for name, f in vars(module).items() if isinstance(f, types.FunctionType)}
        ours = sorted(name for name, function in functions.items() if function.__module__ == module.__name__)
        sharing.__dict__ = vars(module)
        chosen = random.Random(seed).sample(ours, replaced)
        patched(sharing, **{name: instead(functions[name]) for name in chosen})(undo)

    call = CALLS[name]
    try:
        comparison.same(lambda: way(call.act), *call.prepare, attacked, strike_at=at, strike=comparison.STRIKES[strike])
    except AssertionError as exc:
        return f"attack {seed}, {name}, {strike} at {at}: {exc}"
    return ""


def made(seconds: float, first: int) -> list[str]:
    """Makes every so many of them, from this one on; says for each where the two part, if they do."""
    end, seeds, said = time.monotonic() + seconds, itertools.count(first, os.cpu_count() or 1), list[str]()
    frames = comparison.frames
    with contextlib.ExitStack() as undo:
        # Another function of the same code has a frame beside that of the native body.
        patched(comparison, frames=lambda exc: [name for name, _ in itertools.groupby(frames(exc))])(undo)
        while time.monotonic() < end:
            said.append(drawn(next(seeds)))
    return said


def attacks(workshop: Workshop) -> Iterator[Result]:
    seconds, crashes = 5.0 if workshop.quick else 60.0, {"PYTHONFAULTHANDLER": "1"}
    ask = functools.partial(workshop.answer, "attacks.made", seconds, variables=crashes)
    said = list(itertools.chain.from_iterable(side_by_side(ask, range(os.cpu_count() or 1))))
    yield Result(f"attacks: random ones in {seconds:.0f} s, as in plain Python", len(said), list(filter(None, said)))

"""Random calls under random attacks, for a bounded time: the module does as its Python twin, and never crashes."""

import asyncio
import functools
import importlib
import itertools
import os
import random
import threading
import time
import types
from collections.abc import Callable, Iterator
from typing import Any

from proof.workshop import Result, Workshop, in_children
from support import scenarios
from support.scenarios import CALLS, patched

Act = Callable[[], Any]
greenlet: Any = importlib.import_module("greenlet").greenlet


def kept(act: Act) -> Act:
    """Makes the call; the result gives what came of it."""
    try:
        came = act()
    except BaseException as exc:
        return functools.partial(fail, exc)
    return lambda: came


def fail(exc: BaseException) -> None:
    raise exc


def in_thread(act: Act) -> Any:
    done: list[Act] = []
    thread = threading.Thread(target=lambda: done.append(kept(act)))
    thread.start()
    thread.join()
    return done[0]()


def in_task(act: Act) -> Any:
    """Beside another task; it keeps what is raised, since an event loop has its own way with some exceptions."""

    async def task() -> Act:
        return kept(act)

    async def both() -> Any:
        return (await asyncio.gather(task(), asyncio.sleep(0)))[0]

    return asyncio.run(both())()


def in_generator(act: Act) -> Any:
    """Begun while an exception is handled here, ended on another thread."""

    def generator() -> Iterator[Any]:
        try:
            raise KeyError("in the generator")
        except KeyError:
            yield
            yield act()

    running = generator()
    next(running)
    return in_thread(lambda: next(running))


def entries_across_threads(act: Act) -> Any:
    """The module's own generator, each step on another thread, around the call."""
    entries = scenarios.m._runtime_module_manifest_entries({"files": scenarios.FILES[0]})
    first, came = in_thread(lambda: next(entries)), act()
    return first, came, in_thread(lambda: list(entries))


class Lying(str):
    """A keyword that is not what it says, the first time."""

    __hash__ = str.__hash__
    answers = 0

    def __eq__(self, other: object) -> bool:
        self.answers += 1
        scenarios.say(f"{self} == {other}")
        return self.answers > 1 and str.__eq__(self, other)


def with_hostile_keyword(act: Act) -> Any:
    for name, word in itertools.product(("update_nudge", "inject_heartbeat", "login"), ("working_dir", "n", "trigger")):
        with_word = functools.partial(getattr(scenarios.m, name), **{Lying(word): "era_change"})
        try:
            with_word()
        except TypeError as exc:
            scenarios.say(str(exc))
    return act()


WAYS: tuple[Callable[[Act], Any], ...] = (
    *(lambda act: act(), in_thread, lambda act: greenlet(act).switch(), in_task, in_generator),
    *(entries_across_threads, with_hostile_keyword),
)


def ours() -> dict[str, types.FunctionType]:
    module = scenarios.m
    functions = {n: f for n, f in vars(module).items() if isinstance(f, types.FunctionType)}
    return {name: f for name, f in functions.items() if f.__module__ == module.__name__}


def copied(function: types.FunctionType) -> types.FunctionType:
    """Another function of the same code, in the same namespace."""
    made = types.FunctionType(
        function.__code__, function.__globals__, function.__name__, function.__defaults__, function.__closure__
    )
    made.__kwdefaults__ = function.__kwdefaults__
    made.__module__ = function.__module__
    return made


# What takes the place of the module's functions in their namespace.
INSTEAD: tuple[Callable[[types.FunctionType], Any], ...] = (
    *(functools.partial, staticmethod, copied),
    lambda function: functools.wraps(function)(lambda *args, **kwargs: function(*args, **kwargs)),
)


class Sharing:
    """Has no attributes of its own: it shares those of a module."""


def drawn(seed: int) -> str:
    """One attack, on both; says where they part."""
    comparison: Any = importlib.import_module("support.comparison")
    draw = random.Random(seed)
    name, way, strike = draw.choice(list(CALLS)), draw.choice(WAYS), draw.choice(list(comparison.STRIKES))
    replaced, instead = draw.randrange(6), draw.choice(INSTEAD)

    def attacked(undo: Any) -> None:
        functions = sorted(ours().items())
        chosen = random.Random(seed).sample(functions, replaced)
        sharing = Sharing()
        sharing.__dict__ = vars(scenarios.m)
        patched(sharing, **{name: instead(function) for name, function in chosen})(undo)

    call = CALLS[name]
    try:
        at = draw.choice((None, *range(1, 12)))
        comparison.same(lambda: way(call.act), *call.prepare, attacked, strike_at=at, strike=comparison.STRIKES[strike])
    except AssertionError as exc:
        return f"attack {seed}, {name}, {strike} at {at}: {exc}"
    return ""


def attacks(seconds: float, first: int) -> Iterator[str]:
    end = time.monotonic() + seconds
    for seed in itertools.count(first, os.cpu_count() or 1):
        if time.monotonic() > end:
            return
        yield drawn(seed)


def run(workshop: Workshop) -> Iterator[Result]:
    seconds = 5.0 if workshop.quick else 60.0
    said = in_children([functools.partial(attacks, seconds, first) for first in range(os.cpu_count() or 1)])
    made = [text for child in said for text in child]
    yield Result(
        f"attacks: random ones in {seconds:.0f} s, as in plain Python", len(made), [text for text in made if text]
    )

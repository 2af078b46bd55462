"""Random calls under random attacks, for a bounded time: the module does as its Python twin, and never crashes."""

import asyncio
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

from proof.workshop import Result, Workshop, kept, side_by_side
from support import scenarios
from support.scenarios import CALLS, patched

Act = Callable[[], Any]
greenlet: Any = importlib.import_module("greenlet").greenlet


def in_thread(act: Act) -> Any:
    with ThreadPoolExecutor(1) as pool:
        return pool.submit(act).result()


def in_task(act: Act) -> Any:
    """Beside another task; it keeps what is raised, since an event loop has its own way with some exceptions."""

    async def both() -> Any:
        return (await asyncio.gather(task(), asyncio.sleep(0)))[0]

    async def task() -> Any:
        return kept(act)

    return asyncio.run(both()).result()


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
        try:
            getattr(scenarios.m, name)(**{Lying(word): "era_change"})
        except TypeError as exc:
            scenarios.say(str(exc))
    return act()


WAYS: tuple[Callable[[Act], Any], ...] = (
    *(lambda act: act(), in_thread, lambda act: greenlet(act).switch(), in_task, in_generator),
    *(entries_across_threads, with_hostile_keyword),
)


def copied(function: types.FunctionType) -> types.FunctionType:
    """Another function of the same code, in the same namespace."""
    given = function.__globals__, function.__name__, function.__defaults__, function.__closure__
    made = types.FunctionType(function.__code__, *given)
    made.__kwdefaults__, made.__module__ = function.__kwdefaults__, function.__module__
    return made


def wrapped(function: types.FunctionType) -> Any:
    return functools.wraps(function)(lambda *args, **kwargs: function(*args, **kwargs))


INSTEAD: tuple[Callable[[Any], Any], ...] = functools.partial, staticmethod, copied, wrapped


class Sharing:
    """Has no attributes of its own: it shares those of a module."""


def drawn(seed: int) -> str:
    """One attack, on both; says where they part."""
    comparison: Any = importlib.import_module("support.comparison")
    draw = random.Random(seed)
    name, way, strike = draw.choice(list(CALLS)), draw.choice(WAYS), draw.choice(list(comparison.STRIKES))
    at = draw.choice((None, *range(1, 12)))
    replaced, instead = draw.randrange(6), draw.choice(INSTEAD)

    def attacked(undo: Any) -> None:
        """Some functions of the namespace are replaced, through another object that shares it."""
        module, sharing = scenarios.m, Sharing()
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


def attacks(seconds: float, first: int) -> list[str]:
    """Makes every so many of them, from this one on; says for each where the two part, if they do."""
    end, seeds, said = time.monotonic() + seconds, itertools.count(first, os.cpu_count() or 1), list[str]()
    while time.monotonic() < end:
        said.append(drawn(next(seeds)))
    return said


def run(workshop: Workshop) -> Iterator[Result]:
    seconds, crashes = 5.0 if workshop.quick else 60.0, {"PYTHONFAULTHANDLER": "1"}
    ask = functools.partial(workshop.answer, "attacks.attacks", seconds, variables=crashes)
    made = list(itertools.chain.from_iterable(side_by_side(ask, range(os.cpu_count() or 1))))
    yield Result(f"attacks: random ones in {seconds:.0f} s, as in plain Python", len(made), list(filter(None, made)))

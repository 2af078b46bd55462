"""Memory: none left at each allocation of each call, and none lost by the call of every scenario over and over.

The allocations are the interpreter's: the C++ asks for memory where it throws, and nowhere else, and the C++ library
keeps a reserve for that (`coverage` looks whether it is still so).
"""

import gc
import importlib
import importlib.util
import itertools
import os
import re
import sys
import sysconfig
import traceback
import types
from collections.abc import Callable, Iterator
from concurrent.futures import Future
from typing import Any

from proof.workshop import IN_MEMORY, Missing, Result, Workshop, descriptors, in_children
from support.scenarios import CALLS, Call, files, m, outcome

METERS = "allocated blocks", "tracked objects", "descriptors"  # what malloc gave, LeakSanitizer sees
SIZE = 15  # calls of a batch


def measured(call: Call) -> tuple[int, ...]:
    """The meters after a batch."""
    for _ in range(SIZE):
        call()
    for _ in range(3):
        gc.collect()
    return sys.getallocatedblocks(), len(gc.get_objects()), descriptors()


def grown(*names: str) -> list[str]:
    """The meters that grow in every batch by one or more for each call, also when caches had time to fill."""
    found = []
    for name in names:
        for batches in 3, 3, 6, 10, 10:
            series = zip(*[measured(CALLS[name]) for _ in range(batches + 1)], strict=True)
            steps = [[after - before for before, after in itertools.pairwise(one)] for one in series]
            growth = [(meter, seen) for meter, seen in zip(METERS, steps, strict=True) if min(seen) >= SIZE]
            if not growth:
                break
        found += [f"{name}: {meter} grew by {seen} in batches of {SIZE}" for meter, seen in growth]
    return found


def leaks(workshop: Workshop) -> Iterator[Result]:
    """Blocks, objects and descriptors must stay as they are."""
    names = workshop.sample(CALLS, 20)
    found = workshop.shared_out("memory.grown", names)
    yield Result(f"leaks: calls of the scenarios, {4 * SIZE} times and more", len(names), found)


LENGTHS, BATCH = (1, 3, 200), 50  # so many in a row fail, beginning at each, at each, at each 66th; tries in a child
LIBRARY = sysconfig.get_path("stdlib")
KEPT: list[types.CodeType] = []
# CPython loses an error whose traceback finds no memory, in its own Python functions. It names those that were called
# from C, and from 3.13 on the class whose __init__ was; a generator ends.
LOSING = re.compile(
    r"error return without exception set|<(?:function (\S+) at \w+|class '(?!corvane)\S+')> returned NULL without .*"
)


def attempt(act: Callable[[], Any], first: int, length: int) -> Future[Any] | None:
    """What comes of a call when memory ends; None if it never gets to number `first`, told only where but one fails."""
    came, reached, testcapi = Future[Any](), True, importlib.import_module("_testcapi")
    result = raised = None
    testcapi.set_nomemory(first, first + length)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    try:
        for _ in range(first + 10) if length == 1 else ():
            object()  # one of these fails where the call was done before
    except MemoryError:
        reached = False
    testcapi.remove_mem_hooks()
    came.set_exception(raised) if raised else came.set_result(result)
    return came if reached else None


def judged(told: list[Any]) -> str:
    """What is wrong if nobody is told that memory ran out."""
    links: list[BaseException] = []
    for exc in told:
        while isinstance(exc, BaseException) and exc not in links:
            links.append(exc)
            exc = exc.__cause__ or exc.__context__
    # The interpreter's own words for it where a file gets no lock.
    good = any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links)
    return "" if good or any(map(is_lost, links)) else f"bad: {told}"


def is_lost(exc: BaseException) -> bool:
    """Whether a function lost its error: none of ours, unless in its import statement, which is the interpreter's."""
    if isinstance(exc, StopIteration):  # so that a generator just ends
        *_, last = [None, *traceback.walk_tb(exc.__traceback__)]
        return last is not None and last[0].f_code.co_filename.startswith(LIBRARY)
    lost = LOSING.fullmatch(str(exc))
    return lost is not None and (lost[1] or "").partition(".")[0] not in vars(m)


def spare_the_interpreter() -> None:
    """What CPython itself does not survive is left out."""
    # 3.12 gives a code object up twice where it cannot make the function of it; one more reference helps.
    codes = [function.__code__ for function in gc.get_objects() if isinstance(function, types.FunctionType)]
    for code in codes:  # with those that this loop adds
        nested = [constant for constant in code.co_consts if isinstance(constant, types.CodeType)]
        codes += nested
        KEPT.extend(nested)
    # 3.14 crashes where a text in a local variable grows by `+=` and finds no memory; os.path.join does so.
    if sys.version_info >= (3, 14):
        setattr(os.path, "join", lambda *parts: "/".join(map(os.fspath, parts)))  # noqa: B010


def points(name: str, length: int) -> Callable[[int], str]:
    """Says for a number what is wrong, if anything; "end" if the call never gets there."""
    call = CALLS[name]
    call()
    spare_the_interpreter()
    with call.situation() as logged:
        usual = outcome(call.act, logged), files()

    def one(number: int) -> str:
        with call.situation() as logged:
            before = descriptors()
            came = attempt(call.act, number, length)
            if came is None:
                return "end"
            told = [came.exception(), *(argument for record in logged for argument in record.args or ())]
            verdict = judged(told)
            if verdict:
                seen = outcome(came.result, logged), files()
                verdict = "" if seen == usual else f"{verdict} {seen}"
            del came, told
            logged.clear()
            if descriptors() != before:
                return "a descriptor stays open"
        call()
        return verdict

    return one


def tried(*names: str) -> list[str]:
    """What is wrong, if anything, at each point of each call."""
    seen = list[str]()
    for name in names:
        end = 100_000
        for length in LENGTHS:
            numbers, said, one = range(0, end, max(1, length // 3)), list[str](), points(name, length)
            while said.count("end") < 3 and len(said) < len(numbers):  # how many there are differs a little
                said += in_children([lambda: map(one, numbers[len(said) :][:BATCH])], 5)[0]  # noqa: B023
            end = numbers[len(said) - 1] + 1
            reached = [(number, came) for number, came in zip(numbers, said, strict=False) if came != "end"]
            seen += [came and f"{name}, {length} from {number} on: {came[:600]}" for number, came in reached]
    return seen


def allocations(workshop: Workshop) -> Iterator[Result]:
    """MemoryError or the usual, and the next call works."""
    if importlib.util.find_spec("_testcapi") is None:
        raise Missing("this interpreter comes without its test modules (_testcapi)")
    names = workshop.sample(CALLS, 60)
    seen = workshop.shared_out("memory.tried", names, variables=IN_MEMORY)
    yield Result(f"no memory: each allocation of {len(names)} calls", len(seen), list(filter(None, seen)))

"""No memory at each allocation of each call and of the import: MemoryError or the usual, and the next call works.

All of it is the interpreter's: the C++ asks for memory where it throws, and nowhere else, and the C++ library keeps a
reserve for that (`coverage` looks whether it is still so).
"""

import contextlib
import dataclasses
import gc
import importlib
import importlib.util
import operator
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

LENGTHS = 1, 3, 200  # so many in a row fail, beginning at each, at each, at each 66th
OURS = "corvane.agent_onboarding"
IMPORT = "the import"
KEPT: list[types.CodeType] = []
LIBRARY = sysconfig.get_path("stdlib")
# CPython loses an error whose traceback finds no memory, in its own Python functions. It names those that were called
# from C, and from 3.13 on the class whose __init__ was; a generator ends.
LOST = "good, but a Python function lost its error"
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
    """Whether somebody is told that memory ran out."""
    links: list[BaseException] = []
    for exc in told:
        while isinstance(exc, BaseException) and exc not in links:
            links.append(exc)
            exc = exc.__cause__ or exc.__context__
    if any(map(is_lost, links)):
        return LOST
    # The interpreter's own words for it where a file gets no lock.
    good = any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links)
    return "good" if good else f"bad: {told}"


def is_lost(exc: BaseException) -> bool:
    """Whether a function lost its error: none of ours, unless in its import statement, which is the interpreter's."""
    if isinstance(exc, StopIteration):  # so that a generator just ends
        *_, last = [None, *traceback.walk_tb(exc.__traceback__)]
        return last is not None and last[0].f_code.co_filename.startswith(LIBRARY)
    ours = object()
    if lost := LOSING.fullmatch(str(exc)):
        with contextlib.suppress(AttributeError):
            ours = operator.attrgetter(lost[1] or "nothing")(importlib.import_module(OURS))
    return bool(lost) and f" at {id(ours):#x}>" not in str(exc)


def keep_nested_codes() -> None:
    """CPython 3.12 gives a code object up twice where it cannot make the function of it; one more reference helps."""
    codes = [function.__code__ for function in gc.get_objects() if isinstance(function, types.FunctionType)]
    for code in codes:  # with those that this loop adds
        nested = [constant for constant in code.co_consts if isinstance(constant, types.CodeType)]
        codes += nested
        KEPT.extend(nested)


def spare_join() -> None:
    """CPython 3.14 crashes where a text in a local variable grows by `+=` and finds no memory; os.path.join does so."""
    if sys.version_info >= (3, 14):
        setattr(os.path, "join", lambda *parts: "/".join(map(os.fspath, parts)))  # noqa: B010


def points_of_call(name: str, length: int) -> Callable[[int], str]:
    """Says for a number: "end" if the call never gets there, else "good" or what is bad."""
    scenarios = importlib.import_module("support.scenarios")
    call = scenarios.CALLS[name]
    call()
    keep_nested_codes()
    spare_join()
    with call.situation() as logged:
        usual = scenarios.outcome(call.act, logged), scenarios.files()

    def one(number: int) -> str:
        with call.situation() as logged:
            before = descriptors()
            came = attempt(call.act, number, length)
            if came is None:
                return "end"
            told = [came.exception(), *(argument for record in logged for argument in record.args or ())]
            verdict = judged(told)
            if verdict.startswith("bad"):
                seen = scenarios.outcome(came.result, logged), scenarios.files()
                verdict = "good" if seen == usual else f"{verdict} {seen}"
            del came, told
            logged.clear()
            if descriptors() != before:
                return "bad: a descriptor stays open"
        call()
        return verdict

    return one


def points_of_import(name: str, length: int) -> Callable[[int], str]:
    """The import into a process where all that it imports is there already."""

    def imported() -> list[str]:
        module = importlib.import_module(OURS)
        assert module._normalize_key("a") == "0xa"
        return sorted(vars(module))

    [[usual, others]] = in_children([lambda: (imported(), list(sys.modules))])
    for other in set(others) - {OURS}:
        with contextlib.suppress(ImportError):  # some entries of the table are no modules
            importlib.import_module(other)
    # When memory runs out in the real one, the interpreter destroys its own heap, and anything can follow.
    setattr(dataclasses, "dataclass", lambda made: object() and made)  # noqa: B010 -- object() fails, too

    def one(number: int) -> str:
        came = attempt(lambda: importlib.import_module(OURS), number, length)
        if came is None:
            return "end"
        verdict = judged([came.exception()]) if came.exception() else "good"
        return verdict if imported() == usual else "bad: the next import differs"

    return one


def tried(*names: str) -> tuple[int, int, list[str]]:
    """How many points there were, at how many the interpreter lost an error, and what is bad."""
    total, lost, bad = 0, 0, list[str]()
    for name in names:
        points, batch = (points_of_import, 1) if name == IMPORT else (points_of_call, 50)
        end = 100_000
        for length in LENGTHS:
            numbers, seen, one = range(0, end, max(1, length // 3)), list[str](), points(name, length)
            while seen.count("end") < 3 and len(seen) < len(numbers):  # how many there are differs a little
                some = numbers[len(seen) :][:batch]
                [said] = in_children([lambda: map(one, some)], 5)  # noqa: B023
                seen += said
            end = numbers[len(seen) - 1] + 1
            total += len(seen) - seen.count("end")
            lost += seen.count(LOST)
            wrong = [pair for pair in zip(numbers, seen, strict=False) if pair[1][:4] not in ("good", "end")]
            bad += [f"{name}, {length} from {number} on: {said[:600]}" for number, said in wrong]
    return total, lost, bad


def run(workshop: Workshop) -> Iterator[Result]:
    if importlib.util.find_spec("_testcapi") is None:
        raise Missing("this interpreter comes without its test modules (_testcapi)")
    calls = workshop.sample(importlib.import_module("support.scenarios").CALLS, 60)
    for names in [calls] if workshop.quick else [calls, [IMPORT]]:
        seen = workshop.shared_out("allocations.tried", names, variables=IN_MEMORY)
        points, lost, found = zip(*seen, strict=True)
        what = IMPORT if names == [IMPORT] else f"{len(names)} calls"
        figures = {"the interpreter lost the error of a Python function": sum(lost)}
        bad = [text for texts in found for text in texts]
        yield Result(f"no memory: each allocation of {what}", sum(points), bad, figures)

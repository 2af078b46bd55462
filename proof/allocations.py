"""No memory at each allocation of each call and of the import: MemoryError or the usual, and the next call works."""

import contextlib
import ctypes
import dataclasses
import gc
import importlib
import importlib.util
import operator
import os
import re
import subprocess
import sys
import sysconfig
import tempfile
import traceback
import types
from collections.abc import Callable, Iterator
from concurrent.futures import Future
from typing import Any

from proof.workshop import IN_MEMORY, Missing, Result, Workshop, descriptors, in_children

# By kind: so many in a row fail, beginning at each, at each, at each 66th.
OBJECTS, EXCEPTIONS = "object", "C++ exception"
LENGTHS = {OBJECTS: (1, 3, 200), EXCEPTIONS: (1,)}
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
# The extension itself asks the C library for memory where it throws, and nowhere else.
FAILING_MALLOC = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>
#include <string.h>
extern void* __libc_malloc(size_t);
static long made, failing = -1;
long made_before(long number) { long before = made; made = 0; failing = number; return before; }
void* malloc(size_t size) {
    Dl_info caller;
    if (failing >= 0 && dladdr(__builtin_return_address(0), &caller) && strstr(caller.dli_fname, "agent_onboarding"))
        if (made++ == failing)
            return NULL;
    return __libc_malloc(size);
}
"""


def attempt(kind: str, act: Callable[[], Any], first: int, length: int) -> Future[Any] | None:
    """What comes of a call when memory ends; None if it never gets to number `first`, told only where but one fails."""
    came, reached = Future[Any](), True
    testcapi, library = importlib.import_module("_testcapi"), ctypes.CDLL(None)
    result = raised = None
    if kind == OBJECTS:
        testcapi.set_nomemory(first, first + length)
    else:
        library.made_before(first)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    try:
        if kind == EXCEPTIONS:
            reached = library.made_before(-1) > first
        elif length == 1:
            for _ in range(first + 10):
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
    if any(is_lost(str(link)) or has_ended_a_generator(link) for link in links):
        return LOST
    # The interpreter's own words for it where a file gets no lock.
    good = any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links)
    return "good" if good else f"bad: {told}"


def is_lost(text: str) -> bool:
    """Whether a function lost its error: none of ours, unless in its import statement, which is the interpreter's."""
    ours = object()
    if lost := LOSING.fullmatch(text):
        with contextlib.suppress(AttributeError):
            ours = operator.attrgetter(lost[1] or "nothing")(importlib.import_module(OURS))
    return bool(lost) and f" at {id(ours):#x}>" not in text


def has_ended_a_generator(exc: BaseException) -> bool:
    """Whether a generator of the interpreter's own library lost its error, so that it just ends."""
    *_, last = [None, *traceback.walk_tb(exc.__traceback__)]
    return isinstance(exc, StopIteration) and last is not None and last[0].f_code.co_filename.startswith(LIBRARY)


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


def points_of_call(name: str, kind: str, length: int) -> Callable[[int], str]:
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
            came = attempt(kind, call.act, number, length)
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


def points_of_import(name: str, kind: str, length: int) -> Callable[[int], str]:
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
        came = attempt(kind, lambda: importlib.import_module(OURS), number, length)
        if came is None:
            return "end"
        verdict = judged([came.exception()]) if came.exception() else "good"
        return verdict if imported() == usual else "bad: the next import differs"

    return one


def tried(kind: str, *names: str) -> tuple[int, int, list[str]]:
    """How many points there were, at how many the interpreter lost an error, and what is bad."""
    total, lost, bad = 0, 0, list[str]()
    for name in names:
        points, batch = (points_of_import, 1) if name == IMPORT else (points_of_call, 50)
        end = 100_000
        for length in LENGTHS[kind]:
            numbers, seen, one = range(0, end, max(1, length // 3)), list[str](), points(name, kind, length)
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
    calls = list(importlib.import_module("support.scenarios").CALLS)
    with tempfile.TemporaryDirectory() as folder:  # LD_PRELOAD ends a path at a blank, which the checkout's can have
        library, compiler = f"{folder}/failing_malloc.so", [workshop.tool("cc"), "-shared", "-fPIC", "-xc", "-", "-o"]
        subprocess.run([*compiler, library], input=FAILING_MALLOC, text=True, check=True)
        for what, kind, names, variables in (
            ("object of calls", OBJECTS, workshop.sample(calls, 60), IN_MEMORY),
            ("C++ exception of calls", EXCEPTIONS, workshop.sample(calls, 10), {**IN_MEMORY, "LD_PRELOAD": library}),
            ("object of the import", OBJECTS, [IMPORT], IN_MEMORY),
        )[: 2 if workshop.quick else 3]:
            seen = workshop.shared_out("allocations.tried", names, kind, variables=variables)
            lost = {"the interpreter lost the error of a Python function": sum(lost for _, lost, _ in seen)}
            bad = [text for *_, texts in seen for text in texts]
            yield Result(f"no memory: each {what}, {len(names)}", sum(points for points, *_ in seen), bad, lost)

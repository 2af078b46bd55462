"""No memory at each allocation of each call and of the import: MemoryError or what is stated, and the next call works.

As a script it tries the calls named, in an interpreter that the proof starts.
"""

import contextlib
import ctypes
import dataclasses
import functools
import gc
import importlib
import importlib.util
import json
import operator
import os
import re
import subprocess
import sys
import types
from collections.abc import Callable, Iterator
from typing import Any

from proof.workshop import Missing, Result, Workshop, descriptors, in_children, side_by_side

LENGTHS = 1, 3, 200  # so many allocations in a row fail, beginning at each, at each, at each 66th
AT_MOST = 5  # seconds for one point
testcapi: Any = importlib.import_module("_testcapi") if importlib.util.find_spec("_testcapi") else None
OURS = "corvane.agent_onboarding"
IMPORT = "the import"
# CPython 3.12 loses an error whose traceback finds no memory, in its own Python functions. It names those that were
# called from C; a generator ends.
LOST = "good, but a Python function lost its error"
LOSING = re.compile(r"error return without exception set|<function (\S+) at \w+> returned NULL without .*")
# Replaces operator new for the whole process; only the extension has C++ in it.
FAILING_NEW = """
#include <atomic>
#include <cstdlib>
#include <new>
static std::atomic<long> made{0}, failing{-1};
extern "C" long news_before(long number) { failing = number; return made.exchange(0); }
void* operator new(std::size_t size) {
    void* memory = made++ == failing ? nullptr : std::malloc(size);
    return memory ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
"""


def memory_ends(first: int, length: int) -> None:
    testcapi.set_nomemory(first, first + length)


def memory_is_back(first: int, length: int) -> bool:
    """Whether so many allocations were made; where the call was done before, one of these fails."""
    try:
        if length == 1:
            for _ in range(first + 10):
                object()
        return True
    except MemoryError:
        return False
    finally:
        testcapi.remove_mem_hooks()


# By kind: what lets allocations fail, what ends that, how many fail in a row. The library's function answers how many
# there were before.
KINDS: dict[str, tuple[Callable[[int, int], object], Callable[[int, int], bool], tuple[int, ...]]] = {
    "allocation": (memory_ends, memory_is_back, LENGTHS),
    "operator new": (
        lambda first, length: ctypes.CDLL(None).news_before(first),
        lambda first, length: bool(ctypes.CDLL(None).news_before(-1) > first),
        (1,),
    ),
}


def attempt(kind: str, act: Callable[[], Any], first: int, length: int) -> tuple[bool, Any, BaseException | None]:
    """Whether allocation number `first` was reached (if but one fails), and what came of the call."""
    begin, end, _ = KINDS[kind]
    result, raised = None, None
    begin(first, length)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    return end(first, length), result, raised


def judged(told: list[Any], as_usual: bool) -> str:
    """Whether it is as if nothing had happened, or somebody is told that memory ran out."""
    links: list[BaseException] = []
    for exc in told:
        while isinstance(exc, BaseException) and exc not in links:
            links.append(exc)
            exc = exc.__cause__ or exc.__context__
    for link in links:
        lost = LOSING.fullmatch(str(link))
        if isinstance(link, StopIteration) or (lost and not is_ours(lost[1], lost[0])):
            return LOST
    # The interpreter's own words for it where a file gets no lock.
    if any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links) or as_usual:
        return "good"
    return f"bad: {told}"


def is_ours(name: str | None, message: str) -> bool:
    """Whether the function is ours, and not an import statement in it, which the interpreter executes."""
    with contextlib.suppress(AttributeError):
        function = operator.attrgetter(name or "nothing")(importlib.import_module(OURS))
        return f" at {id(function):#x}>" in message
    return False


def keep_nested_codes() -> None:
    """CPython 3.12 gives a code object up twice where it cannot make the function of it; one more reference helps."""
    functions = [one for one in gc.get_objects() if isinstance(one, types.FunctionType)]
    codes = [function.__code__ for function in functions]
    for code in codes:
        nested = [constant for constant in code.co_consts if isinstance(constant, types.CodeType)]
        codes += nested  # whose own come later in this loop
        for one in nested:
            ctypes.pythonapi.Py_IncRef(ctypes.py_object(one))


Point = Callable[[int], str]  # "end" if the call never gets to this number, else "good" or what is bad


def points_of_call(name: str, kind: str, length: int) -> Point:
    exercise = importlib.import_module("proof.exercise")
    call = exercise.CALLS[name]
    call()
    keep_nested_codes()
    with call.situation() as logged:
        usual = exercise.outcome(call.act, logged), exercise.files()

    def came_of(result: Any, raised: BaseException | None, logged: list[Any]) -> str:
        def again() -> object:
            if raised:
                raise raised.with_traceback(raised.__traceback__)
            return result

        told = [raised, *(argument for record in logged for argument in record.args or ())]
        verdict = judged(told, False)
        if verdict.startswith("bad"):
            seen = exercise.outcome(again, logged), exercise.files()
            verdict = judged(told, seen == usual) + f" {seen}"
        return verdict

    def one(number: int) -> str:
        with call.situation() as logged:
            before = descriptors()
            reached, *came = attempt(kind, call.act, number, length)
            if not reached:
                return "end"
            verdict = came_of(came[0], came[1], logged)
            came.clear()
            logged.clear()
            if descriptors() != before:
                return "bad: a descriptor stays open"
        call()
        return verdict

    return one


def points_of_import(name: str, kind: str, length: int) -> Point:
    """The import into a process where all that it imports is there already.

    But for dataclass(): when memory runs out in it, the interpreter destroys its own heap, and anything can follow.
    """

    def imported() -> list[list[str]]:
        module = importlib.import_module(OURS)
        assert module._normalize_key("a") == "0xa"
        return [sorted(vars(module)), list(sys.modules)]

    [[[usual, others]]] = in_children([lambda: [imported()]])
    for other in set(others) - {OURS}:
        with contextlib.suppress(ImportError):  # some entries of the table are no modules
            importlib.import_module(other)

    def dataclass(made: type) -> type:
        object()  # which fails, too
        return made

    setattr(dataclasses, "dataclass", dataclass)  # noqa: B010

    def one(number: int) -> str:
        reached, module, raised = attempt(kind, lambda: importlib.import_module(OURS), number, length)
        if not reached:
            return "end"
        verdict = judged([raised], module is not None)
        return verdict if imported()[0] == usual else "bad: the next import differs"

    return one


def every_point(one: Point, batch: int, numbers: range) -> tuple[int, list[tuple[int, str]]]:
    """The end of the call or of the numbers, and what is said of each number before."""
    seen, ended = list[tuple[int, str]](), 0
    while ended < 3 and len(seen) < len(numbers):  # the number of allocations differs a little from run to run
        some = numbers[len(seen) : len(seen) + batch]
        [said] = in_children([lambda: map(one, some)], AT_MOST)  # noqa: B023
        seen += zip(some, said, strict=False)
        ended += said.count("end")
    return seen[-1][0] + 1, [(number, said) for number, said in seen if said != "end"]


def main(kind: str, names: list[str]) -> None:
    """Prints how many points there were, at how many the interpreter lost an error, and what is bad."""
    total, lost, bad = 0, 0, []
    for name in names:
        points, batch = (points_of_import, 1) if name == IMPORT else (points_of_call, 50)
        end = 100_000
        for length in KINDS[kind][-1]:
            numbers = range(0, end, max(1, length // 3))
            end, seen = every_point(points(name, kind, length), batch, numbers)
            total += len(seen)
            lost += sum(said == LOST for _, said in seen)
            bad += [f"{name}, {length} from {number} on: {said[:600]}" for number, said in seen if said[:4] != "good"]
    print(json.dumps([total, lost, bad]))


# -- The proof


def run(workshop: Workshop) -> Iterator[Result]:
    if testcapi is None:
        raise Missing("this interpreter comes without its test modules (_testcapi)")
    source, library = workshop.folder / "failing_new.cpp", workshop.folder / "failing_new.so"
    source.write_text(FAILING_NEW)
    subprocess.run([workshop.tool("c++", "g++"), "-O1", "-shared", "-fPIC", source, "-o", library], check=True)
    memory = {"TMPDIR": "/dev/shm"} if os.access("/dev/shm", os.W_OK) else {}  # faster where a million files are made

    calls = list(importlib.import_module("proof.exercise").CALLS)[:: 60 if workshop.quick else 1]
    imports = [] if workshop.quick else [(kind, [IMPORT]) for kind in KINDS]
    for kind, names in (*((kind, calls) for kind in KINDS), *imports):
        variables = {**memory, **({"LD_PRELOAD": str(library)} if kind == "operator new" else {})}
        ask = functools.partial(workshop.answer, "allocations", kind, variables=variables)
        answers = side_by_side(lambda part: ask(*part), [part for n in range(20) if (part := names[n::20])])  # noqa: B023
        what = IMPORT if names == [IMPORT] else f"{len(names)} calls"
        bad = [one for _, _, found in answers for one in found]
        yield Result(f"no memory: each {kind} of {what}", sum(points for points, *_ in answers), bad)
        if lost := sum(lost for _, lost, _ in answers):
            yield Result("   of these, the interpreter lost the error of a Python function", lost)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])

"""No memory at each allocation of each call and of the import: MemoryError or what is stated, and the next call works.

As a script it tries the calls named, in an interpreter that the proof starts.
"""

import contextlib
import ctypes
import dataclasses
import importlib
import importlib.util
import json
import os
import re
import subprocess
import sys
from collections.abc import Callable, Iterator
from typing import Any

from proof.workshop import Missing, Result, Workshop, descriptors, in_children, side_by_side

LENGTHS = 1, 3, 200  # so many allocations in a row fail, beginning at each, at each, at each 66th
AT_MOST = 5  # seconds for one point
OURS = "corvane.agent_onboarding"
IMPORT = "the import"
DATACLASS = "dataclass() alone"
LOST = "the interpreter lost the error of a Python function"
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

Outcome = tuple[bool, Any, BaseException | None]


def without_memory(act: Callable[[], Any], first: int, length: int) -> Outcome:
    """Whether allocation number `first` was reached (if but one fails), and what came of the call."""
    testcapi, result, raised, reached = importlib.import_module("_testcapi"), None, None, True
    repeated = range(first + 10 if length == 1 else 0)
    testcapi.set_nomemory(first, first + length)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    try:
        for _ in repeated:
            object()  # fails where the call was done before
    except MemoryError:
        reached = False
    finally:
        testcapi.remove_mem_hooks()
    return reached, result, raised


def without_new(act: Callable[[], Any], first: int, length: int) -> Outcome:
    """The same for operator new."""
    news_before, result, raised = ctypes.CDLL(None).news_before, None, None
    news_before(first)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    return news_before(-1) > first, result, raised


KINDS: dict[str, tuple[Callable[..., Outcome], tuple[int, ...]]] = {
    "allocation": (without_memory, LENGTHS),
    "operator new": (without_new, (1,)),
}


def judged(told: list[Any], as_usual: bool) -> str | None:
    """None if all is well: as if nothing had happened, or somebody is told that memory ran out."""
    links: list[BaseException] = []
    for exc in told:
        while isinstance(exc, BaseException) and exc not in links:
            links.append(exc)
            exc = exc.__cause__ or exc.__context__
    for link in links:
        if isinstance(link, SystemError):  # an error was swallowed
            return f"SystemError: {link}"
    # The interpreter's own words for it where a file gets no lock.
    out = any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links)
    return None if out or as_usual else ""


Point = Callable[[int], str]  # "end" if the call never gets to this number, else "good" or what is bad


def points_of_call(name: str, fail: Callable[..., Outcome], length: int) -> Point:
    exercise = importlib.import_module("proof.exercise")
    call = exercise.CALLS[name]
    call()
    with call.situation() as logged:
        usual = exercise.outcome(call.act, logged), exercise.files()

    def wrong(result: Any, raised: BaseException | None, logged: list[Any]) -> str | None:
        def again() -> object:
            if raised:
                raise raised.with_traceback(None)
            return result

        seen = exercise.outcome(again, logged), exercise.files()
        told = [raised] if raised else [argument for record in logged for argument in record.args or ()]
        bad = judged(told, seen == usual)
        return None if bad is None else bad or str(seen)

    def one(number: int) -> str:
        with call.situation() as logged:
            before = descriptors()
            reached, *came = fail(call.act, number, length)
            if not reached:
                return "end"
            if bad := wrong(came[0], came[1], logged):
                return f"bad: {bad}"
            came.clear()
            logged.clear()
            if descriptors() != before:
                return "bad: a descriptor stays open"
            call()
            return "good"

    return one


def points_of_import(name: str, fail: Callable[..., Outcome], length: int) -> Point:
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
        reached, module, raised = fail(lambda: importlib.import_module(OURS), number, length)
        if not reached:
            return "end"
        if (bad := judged([raised], module is not None)) is not None:
            return f"bad: {bad or raised!r}"
        return "good" if imported()[0] == usual else "bad: the next import differs"

    return one


def points_of_dataclass(name: str, fail: Callable[..., Outcome], length: int) -> Point:
    """What the interpreter does by itself."""

    def one(number: int) -> str:
        reached, _, _ = fail(lambda: dataclasses.make_dataclass("Registration", ["address"]), number, length)
        return "good" if reached else "end"

    return one


def every_point(one: Point, batch: int, numbers: range) -> tuple[int, int, list[tuple[int, str]]]:
    """The end of the call or of the numbers, how many points were tried, and what is bad at which."""
    found, place, ended = [], 0, 0
    while ended < 3 and place < len(numbers):  # the number of allocations differs a little from run to run
        some = numbers[place : place + batch]
        for said in in_children([lambda: map(one, some)], AT_MOST)[0]:  # noqa: B023
            ended += said == "end"
            if said not in ("end", "good"):
                found.append((numbers[place], said))
            place += 1
    return numbers[place - 1] + 1, place - ended, found


def main(kind: str, names: list[str]) -> None:
    total, found = 0, []
    fail, lengths = KINDS[kind]
    for name in names:
        points, batch = {IMPORT: (points_of_import, 1), DATACLASS: (points_of_dataclass, 1)}.get(
            name, (points_of_call, 50)
        )
        end = 100_000
        for length in lengths if name != DATACLASS else (1,):
            step = 5 if name == DATACLASS else max(1, length // 3)
            end, tried, bad = every_point(points(name, fail, length), batch, range(0, end, step))
            total += tried
            found += [(name, length, *where) for where in bad]
    print(json.dumps([total, found]))


# -- The proof


def signature(said: str) -> str:
    """What is bad, without where."""
    lost = re.search(r"<function (\S+) at \w+> returned NULL without setting an exception", said)
    if lost and not hasattr(importlib.import_module(OURS), lost[1]):
        return LOST
    return re.sub(r"0x[0-9a-f]+|\d+|\n.*", "", said, flags=re.S)


def tried(workshop: Workshop, kind: str, names: list[str], **variables: str) -> tuple[int, list[Any]]:
    """Points and what is bad, from interpreters on all processors."""
    if os.access("/dev/shm", os.W_OK):  # much faster where a million files are made
        variables["TMPDIR"] = "/dev/shm"
    parts = [part for n in range(20) if (part := names[n::20])]
    done = side_by_side(lambda part: workshop.answer("allocations", kind, *part, variables=variables), parts)
    return sum(points for points, _ in done), [bad for _, found in done for bad in found]


def run(workshop: Workshop) -> Iterator[Result]:
    if importlib.util.find_spec("_testcapi") is None:
        raise Missing("this interpreter comes without its test modules (_testcapi)")
    source, library = workshop.folder / "failing_new.cpp", workshop.folder / "failing_new.so"
    source.write_text(FAILING_NEW)
    subprocess.run([workshop.tool("c++", "g++"), "-O1", "-shared", "-fPIC", source, "-o", library], check=True)

    calls = list(importlib.import_module("proof.exercise").CALLS)[:: 40 if workshop.quick else 1]
    imports = [] if workshop.quick else [(kind, [IMPORT]) for kind in KINDS]
    for kind, names in (*((kind, calls) for kind in KINDS), *imports):
        points, bad = tried(workshop, kind, names, LD_PRELOAD=str(library) if kind == "operator new" else "")
        # What plain Python does as well in the same call is the interpreter's own; a crash is never excused.
        suspects = sorted({name for name, *_ in bad}) if (kind, names) == ("allocation", calls) else []
        control = tried(workshop, kind, suspects, EXERCISED="twin")[1]
        known = {(name, signature(said)) for name, _, _, said in control if "ended with" not in said}
        known |= {(name, LOST) for name in names}
        found = [
            f"{name}, {length} from {first} on: {said[:300]}"
            for name, length, first, said in bad
            if (name, signature(said)) not in known
        ]
        what = IMPORT if names == [IMPORT] else f"{len(names)} calls"
        yield Result(f"no memory: each {kind} of {what}", points, found)
        if suspects:
            yield Result("   of these, as plain Python has it, or a Python function lost its error", len(bad) - len(found))
    if imports:
        _, crashes = tried(workshop, "allocation", [DATACLASS])
        yield Result("   beside these, crashes of dataclass() alone, without a line of ours", len(crashes))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])

"""No memory at each allocation of each call and of the import: MemoryError or what is stated, and the next call works.

As a script it tries the calls named, in an interpreter that the proof starts.
"""

import contextlib
import ctypes
import importlib
import importlib.util
import json
import os
import re
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from proof.workshop import Missing, Result, Workshop

LENGTHS = 1, 3, 200  # so many allocations in a row fail, beginning at each, at each, at each 66th
AT_MOST = 5  # seconds for one point
IMPORT, OWN_IMPORT = "the import", "the import without dataclass()"
OURS = "corvane.agent_onboarding"
LOST = "bad: SystemError: error return without exception set"

# For what dataclass() itself does when memory runs out.
PLAIN_RECORDS = """
from dataclasses import dataclass, field

@dataclass
class Registration:
    address: str

@dataclass
class Token:
    token: str = field(repr=False)
    expires_at: float

def _normalize_key(key):
    return "0x" + key
"""
# Replaces operator new for the whole process; only the extension has C++ in it.
FAILING_NEW = """
#include <atomic>
#include <cstdlib>
#include <new>
static std::atomic<long> made{0}, failing{-1};
extern "C" long news_before(long number) { failing = number; return made.exchange(0); }
void* operator new(std::size_t size) {
    if (made++ == failing)
        throw std::bad_alloc();
    if (void* memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
"""


def in_child(numbers: range, act: Callable[[int], str]) -> list[str]:
    """What act says of each number in a forked child; if the child dies of one, how, and nothing of the rest."""
    read, write = os.pipe()
    if (pid := os.fork()) == 0:
        importlib.import_module("faulthandler").enable(write)
        for number in numbers:
            signal.alarm(AT_MOST)
            try:
                text = act(number)
            except BaseException as exc:
                text = f"bad: afterwards {type(exc).__name__}: {exc}"
            os.write(write, text.replace("\0", "").encode(errors="replace") + b"\0")
        os._exit(0)
    os.close(write)
    with open(read, "rb") as pipe:
        said = pipe.read().decode(errors="replace").split("\0")
    last, status = said.pop(), os.waitpid(pid, 0)[1]
    return [*said, f"bad: ended by signal {status}: {last}"] if status else said


def chain(exc: object) -> Iterator[BaseException]:
    while isinstance(exc, BaseException):
        yield exc
        exc = exc.__cause__ or exc.__context__


def without_memory(act: Callable[[], Any], first: int, length: int) -> tuple[bool, Any, BaseException | None]:
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


def without_new(act: Callable[[], Any], first: int, length: int) -> tuple[bool, Any, BaseException | None]:
    """The same for operator new."""
    news_before, result, raised = ctypes.CDLL(None).news_before, None, None
    news_before(first)
    try:
        result = act()
    except BaseException as exc:
        raised = exc
    return news_before(-1) > first, result, raised


def probe(call: Any, fail: Callable[..., Any], first: int, length: int, usual: str, logged: list[Any]) -> str:
    """One point: "end" if the call never gets there, else "good" or what is bad about it."""
    exercise = importlib.import_module("proof.exercise")
    descriptors = len(os.listdir("/proc/self/fd"))
    reached, result, raised = fail(call.act, first, length)
    if not reached:
        return "end"

    def again() -> object:
        if raised:
            raise raised.with_traceback(None)
        return result

    seen = f"{exercise.outcome(again, logged)}\n{exercise.files()}"
    told = [raised] if raised else [argument for record in logged for argument in record.args or ()]
    if (bad := judged(told, seen == usual)) is not None:
        return f"bad: {bad or seen}"
    result = raised = None
    told.clear()
    if len(os.listdir("/proc/self/fd")) != descriptors:
        return "bad: a descriptor stays open"
    call()
    return "good"


def judged(told: list[Any], as_usual: bool) -> str | None:
    """None if all is well: as if nothing had happened, or somebody is told that memory ran out."""
    links = [link for exc in told for link in chain(exc)]
    swallowed = [str(link) for link in links if isinstance(link, SystemError)]
    if swallowed:
        return f"SystemError: {swallowed[0]}"
    # The interpreter's own words for it where a file gets no lock.
    out = any(isinstance(link, MemoryError) or str(link).startswith("can't allocate ") for link in links)
    return None if out or as_usual else ""


def every_point(one: Callable[[int], str], batch: int, numbers: range) -> tuple[int, int, list[tuple[int, str]]]:
    """The end of the call or of the numbers, how many points were tried, and what is bad at which."""
    found, place, ended = [], 0, 0
    while ended < 3 and place < len(numbers):  # the number of allocations differs a little from run to run
        for said in in_child(numbers[place : place + batch], one):
            ended += said == "end"
            if said not in ("end", "good"):
                found.append((numbers[place], said))
            place += 1
    return numbers[place - 1] + 1, place - ended, found


def points_of_call(name: str, fail: Callable[..., Any], length: int) -> Callable[[int], str]:
    exercise = importlib.import_module("proof.exercise")
    call = exercise.CALLS[name]
    call()
    with call.situation() as logged:
        usual = f"{exercise.outcome(call.act, logged)}\n{exercise.files()}"

    def one(number: int) -> str:
        with call.situation() as logged:
            return probe(call, fail, number, length, usual, logged)

    return one


def points_of_import(which: str, fail: Callable[..., Any], length: int) -> Callable[[int], str]:
    """The import of the module under test into a process where all that it imports is there already."""
    name = os.environ["EXERCISED"]

    def imported(_: int = 0) -> str:
        module = importlib.import_module(name)
        assert module._normalize_key("a") == "0xa"
        return "\n".join([*sorted(vars(module)), "", *sys.modules])

    usual, _, others = in_child(range(1), imported)[0].partition("\n\n")
    for other in set(others.split()) - {name}:
        with contextlib.suppress(ImportError):  # some entries of the table are no modules
            importlib.import_module(other)
    if which == OWN_IMPORT:
        setattr(importlib.import_module("dataclasses"), "dataclass", lambda made: made)  # noqa: B010

    def one(number: int) -> str:
        reached, module, raised = fail(lambda: importlib.import_module(name), number, length)
        if not reached:
            return "end"
        if (bad := judged([raised], module is not None)) is not None:
            return f"bad: {bad or raised!r}"
        return "good" if imported().startswith(usual + "\n\n") else "bad: the next import differs"

    return one


def main(kind: str, names: list[str]) -> None:
    total, found = 0, []
    fail = without_new if kind == "new" else without_memory
    for name in names:
        end = 100_000
        for length in (1,) if kind == "new" else LENGTHS:
            step = {IMPORT: 5 * length}.get(name, max(1, length // 3))
            importing = name.startswith(IMPORT)
            one = points_of_import(name, fail, length) if importing else points_of_call(name, fail, length)
            end, points, bad = every_point(one, 1 if importing else 50, range(0, end, step))  # an import is done once
            total += points
            found += [(name, length, *where) for where in bad]
    print(json.dumps([total, found]))


# -- The proof


def signature(said: str) -> str:
    """What is bad, without where."""
    lost = re.search(r"<function (\S+) at \w+> returned NULL without setting an exception", said)
    if lost and not hasattr(importlib.import_module(OURS), lost[1]):  # the words for a call from C, which plain Python
        return LOST  # makes without
    return re.sub(r"0x[0-9a-f]+|\d+|\n.*", "", said, flags=re.S)


def tried(workshop: Workshop, kind: str, names: list[str], **environment: str) -> tuple[int, list[Any]]:
    """Points and what is bad, from interpreters on all processors."""

    def some(part: list[str]) -> Any:
        done = workshop.python(
            str(Path(__file__)), kind, *part, site=workshop.folder, timeout=1200, variables=environment
        )
        if done.returncode != 0:
            raise RuntimeError(f"{part} {done.stderr[-1000:]}")
        return json.loads(done.stdout)

    if os.access("/dev/shm", os.W_OK):  # much faster where a million files are made
        environment["TMPDIR"] = "/dev/shm"
    parts = [part for n in range(20) if (part := names[n::20])]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        done = list(pool.map(some, parts))
    return sum(points for points, _ in done), [bad for _, found in done for bad in found]


def failing_new(workshop: Workshop) -> str:
    source, library = workshop.folder / "failing_new.cpp", workshop.folder / "failing_new.so"
    source.write_text(FAILING_NEW)
    subprocess.run([workshop.tool("c++", "g++"), "-O1", "-shared", "-fPIC", source, "-o", library], check=True)
    return str(library)


def run(workshop: Workshop) -> Iterator[Result]:
    if importlib.util.find_spec("_testcapi") is None:
        raise Missing("this interpreter comes without its test modules (_testcapi)")
    (workshop.folder / "plain_records.py").write_text(PLAIN_RECORDS)
    calls = list(importlib.import_module("proof.exercise").CALLS)[:: 40 if workshop.quick else 1]
    preload = {"LD_PRELOAD": failing_new(workshop)}
    imports = [] if workshop.quick else [OWN_IMPORT, IMPORT]
    for kind, names, plain, extra in (
        ("memory", calls, "twin", {}),
        *(("memory", [name], "plain_records", {}) for name in imports),
        ("new", calls, "", preload),
        ("new", [OWN_IMPORT], "", preload),
    ):
        points, bad = tried(workshop, kind, names, EXERCISED=OURS, **extra)
        suspects = sorted({name for name, *_ in bad}) if plain and names != [OWN_IMPORT] else []
        control = tried(workshop, kind, suspects, EXERCISED=plain)[1] if suspects else []
        # What plain Python does as well in the same call is the interpreter's own; a crash is never excused. Where in a
        # call a Python function loses its error depends on what the interpreter has kept for reuse.
        known = {(name, signature(said)) for name, _, _, said in control if "ended by signal" not in said}
        known |= {(name, LOST) for name in names if any(sign == LOST for _, sign in known)}
        found = [
            f"{name}, {length} from {first} on: {said[:300]}"
            for name, length, first, said in bad
            if (name, signature(said)) not in known
        ]
        if names == [IMPORT] and any("ended by signal" in said for *_, said in control):
            # dataclass() alone destroys the heap where memory runs out inside it, and anything can follow. The same
            # import without it is looked at allocation by allocation and has no such excuse.
            found = []
        what = names[0] if names[0].startswith(IMPORT) else f"{len(names)} calls"
        yield Result(f"no memory: each {'allocation' if kind == 'memory' else 'operator new'} of {what}", points, found)
        if len(bad) > len(found):
            yield Result("   of these, as plain Python has it in the same place", len(bad) - len(found))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])

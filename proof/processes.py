"""Many processes, forks, interrupts at every point."""

import collections
import functools
import itertools
import os
import re
import signal
import sys
from collections.abc import Callable, Iterable, Iterator
from typing import Any

from proof.workshop import Result, Workshop, descriptors, in_children
from support.scenarios import CALLS, Call, base, m, manager, native, outcome, patched

LOST = "SameFileError", "ImportError", "FileNotFoundError"  # the copy came, or went, while it was made or loaded
KILLED = f"ended with status {signal.SIGBUS}: Fatal Python error: Bus error"  # it was written over while it was in use


def loading(builds: int, processes: int, loads: int) -> tuple[list[str], int]:
    """Findings, and loads lost to the pruning or the copying of others."""

    def worker(number: int) -> Iterator[str]:
        for i in range(loads):
            sys.modules.pop("backtester", None)
            manifest = {"files": {f"{(number + i) % builds}.so": {"kind": "runtime_module:backtester"}}}
            try:
                loaded = m._load_manifest_runtime_module("d", "backtester", manifest=manifest)
                assert loaded is sys.modules["backtester"] and loaded._corvane_module_sha256
                yield ""
            except m.RuntimeModuleReloadFailed as exc:
                yield type(exc.__cause__).__name__

    library = (base() / "native" / "backtester-1.so").read_bytes()
    digests = native(**{str(build): {"source": library + bytes(build)} for build in range(builds)})
    with Call(lambda: None, "", (digests,)).situation():
        answers = in_children(functools.partial(worker, number) for number in range(processes))
    seen = collections.Counter(itertools.chain.from_iterable(answers))
    loaded = seen.pop("", 0)
    lost = (*LOST, KILLED) if builds > 1 else LOST
    return [f"{why} {n} times" for why, n in seen.items() if not why.startswith(lost)], processes * loads - loaded


def forked_in_the_middle() -> Iterator[str]:
    """The child of a fork inside a call goes on with it, and so does the parent."""
    children, usual = list[int](), CALLS["register"]
    forking = manager(authenticate=lambda: children.append(os.fork()))
    call = Call(usual.act, "", (patched(sys.modules["corvane.auth"], AuthManager=lambda *a, **k: forking),))
    for _ in range(20):
        with call.situation() as logged:
            good = usual.expected in outcome(call.act, logged)
            if children[-1] == 0:
                os._exit(not good)
            if (status := os.waitpid(children[-1], 0)[1]) or not good:
                yield f"parent {'good' if good else 'bad'}, child {status}"


# What is raised instead, with the interrupt as its context, as stated: a descriptor is closed again after the file
# object could not be made, which closed it; an except clause needs what could not be imported.
STATED = re.compile("Bad file descriptor|'sync_backoff' referenced before assignment")
EVENTS = list(itertools.accumulate(range(1000), lambda n, _: n + n // 100 + 1, initial=1))  # ever fewer after 100
Strike = Callable[[], None]


def at_event(number: int, strike: Strike) -> None:
    """Strikes at this of the traced events from now on."""
    events = itertools.count(1)

    def trace(frame: Any, event: str, argument: object) -> Any:
        if next(events) == number:
            strike()
        return trace

    sys.settrace(trace)


def after(microseconds: int, strike: Strike) -> None:
    signal.signal(signal.SIGALRM, lambda number, frame: strike())
    signal.setitimer(signal.ITIMER_REAL, microseconds / 1e6)


def struck(call: Call, arm: Callable[[Strike], object]) -> tuple[bool, str]:
    """Whether KeyboardInterrupt came during the call, and what is wrong with what came of it."""
    came = False
    ignored: list[Any] = []  # what hits a generator that is being thrown away is reported by the interpreter itself

    def strike() -> None:
        nonlocal came
        came = True
        raise KeyboardInterrupt

    with call.situation():
        before, wrong, sys.unraisablehook = descriptors(), "", ignored.append
        try:
            try:
                arm(strike)
                call.act()
                wrong = "swallowed"
            except Exception as exc:
                stated = isinstance(exc.__context__, KeyboardInterrupt) and STATED.search(str(exc))
                wrong = "" if stated else f"became {exc!r}"
            finally:
                sys.settrace(None)
                signal.setitimer(signal.ITIMER_REAL, 0)
        except KeyboardInterrupt:
            wrong = ""
        sys.unraisablehook = sys.__unraisablehook__
        wrong = wrong if came and not ignored else ""
        ignored.clear()
        return came, wrong or ("" if descriptors() == before else "a descriptor stays open")


def interrupts(names: list[str], arm: Callable[[int, Strike], None], places: Iterable[int]) -> tuple[int, list[str]]:
    """At each place until the call is over before; how many places there were, and findings."""
    points, found = 0, []
    for name in names:
        for place in places:
            came, wrong = struck(CALLS[name], functools.partial(arm, place))
            points += came
            found += [f"{name} at {place}: {wrong}"] if wrong else []
            if not came:
                break
        CALLS[name]()
    return points, found


def run(workshop: Workshop) -> Iterator[Result]:
    quick = workshop.quick
    processes, loads = (4, 5) if quick else (16, 40)
    for what, builds in (("the same build", 1), ("five builds and pruning", 5)):
        found, lost = loading(builds, processes, loads)
        yield Result(f"processes: {processes} load {what}", processes * loads, found)
        yield Result("   of these, as documented, lost to one another", lost)
    yield Result("processes: forks in the middle of a call", 20, list(forked_in_the_middle()))
    names = list(CALLS)[:: 30 if quick else 1]
    yield Result("interrupts: KeyboardInterrupt at each traced event", *interrupts(names, at_event, EVENTS))
    stormy = ["write", "read loose", "load", "inject", "register bootstrap"] * (1 if quick else 10)
    yield Result("interrupts: signals every 10 us", *interrupts(stormy, after, range(20, 400, 10)))

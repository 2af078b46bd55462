"""Many processes, forks, interrupts at every point."""

import functools
import itertools
import os
import re
import signal
import sys
from collections import Counter
from collections.abc import Callable, Iterator
from typing import Any

from proof.workshop import Result, Workshop, descriptors, in_children
from support.scenarios import CALLS, Call, base, m, manager, native, outcome, patched

LOST = "SameFileError", "ImportError", "FileNotFoundError"  # the copy came, or went, while it was made or loaded
REPORTED = "reported by the interpreter, in a generator thrown away"
STORMY = ["write", "read loose", "load", "inject", "register bootstrap"]
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
    seen = Counter(itertools.chain.from_iterable(answers))
    lost = processes * loads - seen.pop("", 0)
    stated = (*LOST, KILLED) if builds > 1 else LOST
    found = [f"{why} {n} times" for why, n in seen.items() if not why.startswith(stated)]
    return found + ["more than half of the loads are lost"] * (2 * lost > processes * loads), lost


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
Strike = Callable[[], None]


def at_event(number: int, strike: Strike) -> None:
    """Strikes at this of the traced events from now on."""
    events = itertools.count(1)

    def trace(frame: Any, event: str, argument: object) -> Any:
        # What stands in for os.close() has closed nothing yet.
        if frame.f_code.co_name != "<lambda>" and next(events) == number:
            strike()
        return trace

    sys.settrace(trace)


def after(microseconds: int, strike: Strike) -> None:
    signal.signal(signal.SIGALRM, lambda number, frame: strike())
    signal.setitimer(signal.ITIMER_REAL, microseconds / 1e6)


def struck(call: Call, arm: Callable[[Strike], object]) -> str:
    """What comes of a KeyboardInterrupt in the middle of a call: "missed" if it was over before."""
    came, ignored, context = False, list[str](), None

    def strike() -> None:
        nonlocal came
        came = True
        raise KeyboardInterrupt

    def act() -> object:
        nonlocal context
        arm(strike)
        try:
            return call.act()
        except Exception as exc:
            context = exc.__context__
            raise
        finally:
            sys.settrace(None)
            signal.setitimer(signal.ITIMER_REAL, 0)

    with call.situation() as logged:
        before = descriptors()
        sys.unraisablehook = lambda what: ignored.append(f"{what.exc_type.__name__} {what.err_msg} {what.object!r}")
        try:
            said = outcome(act, logged)
        except KeyboardInterrupt:
            said = "raised"
        sys.unraisablehook = sys.__unraisablehook__
        if descriptors() != before:
            return "a descriptor stays open"
    if not came:
        return "missed"
    # From 3.13 on a file whose descriptor was closed for it says so in the end; the same as in Python.
    ignored = [text for text in ignored if not re.match("OSError .*_io.TextIOWrapper", text)]
    # What hits a generator that is being thrown away is reported by the interpreter itself, and goes no further.
    if len(ignored) == 1 and re.match("KeyboardInterrupt .*generator", ignored[0]) and call.expected in said:
        return REPORTED
    stated = isinstance(context, KeyboardInterrupt) and STATED.search(said)
    return "raised" if not ignored and (said == "raised" or stated) else f"came to {said}, ignored: {ignored}"


# What arms the strike, and at which places of a call it strikes.
ARMS: dict[str, tuple[Callable[[int, Strike], None], range]] = {
    "event": (at_event, range(1, 1_000_000)),
    "signal": (after, range(20, 400, 10)),
}


def interrupts(kind: str, *names: str) -> Counter[str]:
    """What comes of an interrupt at each place, until the call is over before."""
    seen, (arm, places) = Counter[str](), ARMS[kind]
    for name in names:
        for place in places:
            came = struck(CALLS[name], functools.partial(arm, place))
            if came == "missed":
                break
            seen[came if came in ("raised", REPORTED) else f"{name} at {place}: {came}"] += 1
        CALLS[name]()
    return seen


def run(workshop: Workshop) -> Iterator[Result]:
    processes, loads, rounds = (4, 5, 1) if workshop.quick else (16, 40, 10)
    for what, builds in ("the same build", 1), ("five builds and pruning", 5):
        found, lost = loading(builds, processes, loads)
        figures = {"lost to one another, as documented": lost}
        yield Result(f"processes: {processes} load {what}", processes * loads, found, figures)
    yield Result("processes: forks in the middle of a call", 20, list(forked_in_the_middle()))
    names = workshop.sample(CALLS, 30)
    by_event = map(Counter[str], workshop.shared_out("processes.interrupts", names, "event"))
    for what, seen in (
        (f"at each traced event of {len(names)} calls", sum(by_event, Counter[str]())),
        ("by a signal every 10 us", interrupts("signal", *STORMY * rounds)),
    ):
        wrong = [f"{came} ({times} times)" for came, times in seen.items() if came not in ("raised", REPORTED)]
        yield Result(f"interrupts: {what}", seen.total(), wrong, {REPORTED: seen[REPORTED]})

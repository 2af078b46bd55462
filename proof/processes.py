"""Many processes, forks, interrupts at every point, the end of the interpreter, other interpreters, many imports."""

import collections
import functools
import itertools
import os
import re
import signal
import sys
from collections.abc import Callable, Iterable, Iterator
from typing import Any

from proof.exercise import CALLS, Call, base, m, manager, native, outcome, patched
from proof.workshop import Result, Workshop, descriptors, in_children, side_by_side

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


IMPORT = "import atexit, gc, sys, threading, time; import corvane.agent_onboarding as m; gc.disable()\n"
POOLS = {
    method: f"import multiprocessing as p\nwith p.get_context({method!r}).Pool(2) as pool:\n"
    "    assert pool.map(m._normalize_key, ['ab', '0xcd']) == ['0xab', '0xcd']"
    for method in ("fork", "spawn", "forkserver")
}
ENDS = {
    "alive in globals": "a, b = m.AuthToken('t', 1.0), m.register",
    "in a cycle": "a = [m.register, m._LocalRuntimeSyncManager(1)]; a.append(a); del a",
    "in a generator": "g = m._runtime_module_manifest_entries({'files': {'a': {'kind': 'runtime_module:x'}}}); next(g)",
    "at exit": "atexit.register(m._normalize_key, 'ab'); atexit.register(lambda: m.configure(data_dir='d'))",
    "by a daemon thread": "threading.Thread(target=lambda: [m._normalize_key('ab') for _ in iter(int, 1)], daemon=True)"
    ".start(); time.sleep(0.05)",
    "by a finaliser": "class C:\n    def __del__(self, f=m._normalize_key): f('ab')\nsys.kept = C(); kept = C()",
    "after the module is gone": "f = m._normalize_key; del sys.modules[m.__name__], m; gc.collect(); f('ab')",
    "after its namespace was emptied": "f = m._find_heartbeat; vars(m).clear()\ntry: f()\nexcept NameError: pass",
    "with an exception": "try: m.login(None)\nexcept ValueError as exc: sys.kept = exc",
    "after reloading": "import importlib\ntry: importlib.reload(m)\nexcept ImportError: pass",
}
TEXT = """
try:
    import corvane.agent_onboarding
    raise SystemExit("a second interpreter got it")
except ImportError as exc:
    assert str(exc) == "corvane.agent_onboarding can be loaded into only one interpreter per process", str(exc)
"""
OTHERS = {
    f"own lock {own}, strict {strict}": "import _testcapi; assert _testcapi.run_in_subinterp_with_config("
    f"{TEXT!r}, use_main_obmalloc={not own}, allow_fork=True, allow_exec=True, allow_threads=True,"
    f" allow_daemon_threads=True, check_multi_interp_extensions={strict}, gil={2 if own else 1}) == 0"
    for own, strict in ((False, False), (False, True), (True, True))
}
AGAIN = """
import importlib
for _ in range(50):
    del sys.modules[m.__name__]
    again = importlib.import_module(m.__name__)
    assert again is m and m._normalize_key("a") == "0xa"
"""


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
    for what, points, texts in (
        ("processes: multiprocessing by fork, spawn, forkserver", 3, POOLS),
        ("the end of the interpreter", len(ENDS), ENDS),
        ("other interpreters are refused", len(OTHERS), OTHERS),
        ("50 imports give the same module", 50, {"again": AGAIN}),
    ):
        done = side_by_side(lambda text: workshop.python("-X", "dev", "-c", IMPORT + text), texts.values())
        said = {name: f"{one.returncode}, {one.stderr[-300:]}" for name, one in zip(texts, done, strict=True)}
        yield Result(what, points, [f"{name}: exit status {how}" for name, how in said.items() if how != "0, "])

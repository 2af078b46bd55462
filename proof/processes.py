"""Many processes, forks, interrupts at every point, the end of the interpreter, other interpreters, many imports."""

import collections
import functools
import itertools
import multiprocessing
import os
import re
import shutil
import signal
import sys
from collections.abc import Callable, Iterator
from typing import Any

from proof.exercise import CALLS, KEY, Call, base, m, manager, patched
from proof.workshop import Result, Workshop, descriptors, in_children, side_by_side

LOADERS, LOADS = 16, 40
LOST = "SameFileError", "ImportError", "FileNotFoundError"  # the copy came, or went, while it was made or loaded


# -- Loading


def load(manifest: dict[str, Any]) -> str:
    """Loads the module anew, as another process would; answers why not."""
    sys.modules.pop("backtester", None)
    try:
        loaded = m._load_manifest_runtime_module("d", "backtester", manifest=manifest)
        assert loaded is sys.modules["backtester"] and loaded._corvane_module_sha256
        return ""
    except m.RuntimeModuleReloadFailed as exc:
        return type(exc.__cause__).__name__


def loading(builds: int, processes: int, loads: int) -> tuple[list[str], int]:
    """Findings, and loads lost to the pruning or the copying of others."""
    with Call(lambda: None, "", ()).situation():
        os.mkdir("d")
        kind = {"kind": "runtime_module:backtester"}
        for build in range(builds):
            shutil.copy(base() / "native" / f"backtester-{build % 2 + 1}.so", f"d/{build}.so")
            with open(f"d/{build}.so", "ab") as file:
                file.write(bytes(build))  # another digest

        def worker(number: int) -> Iterator[str]:
            for i in range(loads):
                yield load({"files": {f"{(number + i) % builds}.so": kind}})

        answers = in_children(functools.partial(worker, number) for number in range(processes))
    seen = collections.Counter(itertools.chain.from_iterable(answers))
    loaded = seen.pop("", 0)
    return [f"{why} {n} times" for why, n in seen.items() if why not in LOST], processes * loads - loaded


# -- Forks


def forked_in_the_middle() -> list[str]:
    """The child of a fork inside a call goes on with it, and so does the parent."""
    children: list[int] = []

    def authenticate() -> None:
        children.append(os.fork())

    usual = CALLS["register"]
    forking = patched(sys.modules["corvane.auth"], AuthManager=lambda *a, **k: manager(authenticate=authenticate))
    call, found = Call(usual.act, usual.expected, (*usual.prepare, forking)), []
    for _ in range(20):
        with call.situation():
            good = repr(call.act()).startswith("WalletRegistration") and m._normalize_key(KEY) == "0x" + KEY
            if children[-1] == 0:
                os._exit(not good)
            if (status := os.waitpid(children[-1], 0)[1]) or not good:
                found.append(f"parent {'good' if good else 'bad'}, child {status}")
    return found


def pools() -> list[str]:
    found = []
    for method in ("fork", "spawn", "forkserver"):
        with multiprocessing.get_context(method).Pool(2) as pool:
            if (seen := pool.map(m._normalize_key, ["ab", "0xcd"])) != ["0xab", "0xcd"]:
                found.append(f"{method}: {seen}")
    return found


# -- Interrupts

# What is raised instead, with the interrupt as its context, as stated: a descriptor is closed again after the file
# object could not be made, which closed it; an except clause needs what could not be imported.
STATED = re.compile("Bad file descriptor|'sync_backoff' referenced before assignment")


def struck(call: Call, arm: Callable[[Callable[[], None]], object], disarm: Callable[[], object]) -> tuple[bool, str]:
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
            arm(strike)
            call.act()
            disarm()
            wrong = "swallowed" if came and not ignored else ""
        except KeyboardInterrupt:
            pass
        except Exception as exc:
            disarm()
            stated = isinstance(exc.__context__, KeyboardInterrupt) and STATED.search(str(exc))
            wrong = f"became {exc!r}" if came and not stated and not ignored else ""
        finally:
            disarm()
            sys.unraisablehook = sys.__unraisablehook__
        ignored.clear()
        return came, wrong or ("" if descriptors() == before else "a descriptor stays open")


def at_event(number: int, strike: Callable[[], None]) -> None:
    """Strikes at this of the traced events from now on."""
    events = itertools.count(1)

    def trace(frame: Any, event: str, argument: object) -> Any:
        if next(events) == number:
            strike()
        return trace

    sys.settrace(trace)


def interrupts(calls: dict[str, Call]) -> tuple[int, list[str]]:
    """At each of the first 100 events of a call, and at ever fewer after them."""
    points, found = 0, []
    for name, call in calls.items():
        number, came = 1, True
        while came:
            came, wrong = struck(call, functools.partial(at_event, number), functools.partial(sys.settrace, None))
            points += came
            found += [f"{name}, event {number}: {wrong}"] if wrong else []
            number += number // 100 + 1
        call()
    return points, found


def storm(names: tuple[str, ...], rounds: int) -> tuple[int, list[str]]:
    """A signal after 20 to 400 microseconds whose handler raises."""
    points, found = 0, []

    def arm(seconds: float, strike: Callable[[], None]) -> None:
        signal.signal(signal.SIGALRM, lambda number, frame: strike())
        signal.setitimer(signal.ITIMER_REAL, seconds)

    for name, microseconds, _ in itertools.product(names, range(20, 400, 10), range(rounds)):
        arms = functools.partial(arm, microseconds / 1e6)
        came, wrong = struck(CALLS[name], arms, functools.partial(signal.setitimer, signal.ITIMER_REAL, 0))
        points += came
        found += [f"{name} after {microseconds} us: {wrong}"] if wrong else []
    for name in names:
        CALLS[name]()
    signal.signal(signal.SIGALRM, signal.SIG_DFL)
    return points, found


# -- Ends and beginnings of interpreters

IMPORT = "import atexit, gc, sys, threading, time; import corvane.agent_onboarding as m; gc.disable()\n"
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
REFUSED = "corvane.agent_onboarding can be loaded into only one interpreter per process"
TEXT = f"""
try:
    import corvane.agent_onboarding
except ImportError as exc:
    assert str(exc) == {REFUSED!r}, str(exc)
else:
    raise SystemExit("a second interpreter got it")
"""
OTHERS = {
    "isolated": f"import _xxsubinterpreters as i; i.run_string(i.create(isolated=True), {TEXT!r})",
    "legacy": f"import _xxsubinterpreters as i; i.run_string(i.create(isolated=False), {TEXT!r})",
    **{
        f"own lock {own}, strict {strict}": "import _testcapi; assert _testcapi.run_in_subinterp_with_config("
        f"{TEXT!r}, use_main_obmalloc={not own}, allow_fork=True, allow_exec=True, allow_threads=True,"
        f" allow_daemon_threads=True, check_multi_interp_extensions={strict}, gil={2 if own else 1}) == 0"
        for own, strict in ((False, False), (False, True), (True, True))
    },
}
AGAIN = """
import importlib
for _ in range(50):
    del sys.modules[m.__name__]
    again = importlib.import_module(m.__name__)
    assert again is m and m._normalize_key("a") == "0xa"
"""


def scripts(workshop: Workshop, texts: dict[str, str]) -> list[str]:
    done = side_by_side(lambda text: workshop.python("-X", "dev", "-c", IMPORT + text, timeout=60), texts.values())
    return [
        f"{name}: exit status {one.returncode}, {one.stderr[-300:]}"
        for name, one in zip(texts, done, strict=True)
        if one.returncode or one.stderr
    ]


def run(workshop: Workshop) -> Iterator[Result]:
    quick = workshop.quick
    processes, loads = (4, 5) if quick else (LOADERS, LOADS)
    for what, builds in (("the same build", 1), ("two builds", 2), ("five builds and pruning", 5)):
        found, lost = loading(builds, processes, loads)
        yield Result(f"processes: {processes} load {what}", processes * loads, found)
        yield Result("   of these, as documented, lost to one another", lost)
    yield Result("processes: forks in the middle of a call", 20, forked_in_the_middle())
    yield Result("processes: multiprocessing by fork, spawn, forkserver", 3, pools())
    points, found = interrupts(dict(list(CALLS.items())[:: 30 if quick else 1]))
    yield Result("interrupts: KeyboardInterrupt at each traced event", points, found)
    struck, found = storm(("write", "read loose", "load", "inject", "register bootstrap"), 1 if quick else 10)
    yield Result("interrupts: signals every 20 to 400 us", struck, found)
    yield Result("the end of the interpreter", len(ENDS), scripts(workshop, ENDS))
    yield Result("other interpreters are refused", len(OTHERS), scripts(workshop, OTHERS))
    yield Result("50 imports give the same module", 50, scripts(workshop, {"again": AGAIN}))

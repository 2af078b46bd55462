"""Many processes, forks, interrupts at every point, the end of the interpreter, other interpreters, many imports."""

import collections
import functools
import itertools
import json
import multiprocessing
import os
import re
import shutil
import signal
import sys
from collections.abc import Callable, Iterator
from typing import Any

from proof.exercise import CALLS, KEY, Call, base, m, manager, patched
from proof.workshop import Result, Workshop

LOADERS, LOADS = 16, 40
LOST = "SameFileError", "ImportError", "FileNotFoundError"  # the copy came, or went, while it was made or loaded


def descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def in_children(acts: list[Callable[[], Any]]) -> list[Any]:
    """What each act answers in a forked child of its own, all at once; or how the child ended."""
    running = []
    for act in acts:
        read, write = os.pipe()
        if (pid := os.fork()) == 0:
            signal.alarm(60)
            try:
                os.write(write, json.dumps(act()).encode())
            except BaseException as exc:
                os.write(write, json.dumps(f"{type(exc).__name__}: {exc}").encode())
            os._exit(0)
        os.close(write)
        running.append((pid, read))
    answers = []
    for pid, read in running:
        with open(read, "rb") as pipe:
            said = pipe.read()
        status = os.waitpid(pid, 0)[1]
        answers.append(f"ended by signal {status}" if status else json.loads(said))
    return answers


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

        def worker(number: int) -> list[str]:
            return [load({"files": {f"{(number + i) % builds}.so": kind}}) for i in range(loads)]

        answers = in_children([functools.partial(worker, n) for n in range(processes)])
    found = [answer for answer in answers if isinstance(answer, str)]
    seen = collections.Counter(itertools.chain.from_iterable(a for a in answers if isinstance(a, list)))
    lost = {kind: count for kind, count in seen.items() if kind}
    found += [f"{kind} {n} times" for kind, n in lost.items() if kind not in LOST]
    return found, sum(lost.values())


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
            seen = repr(call.act())
            if children[-1] == 0:
                os._exit(0 if seen.startswith("WalletRegistration") and m._normalize_key(KEY) == "0x" + KEY else 1)
            status = os.waitpid(children[-1], 0)[1]
            if status or not seen.startswith("WalletRegistration"):
                found.append(f"parent {seen}, child {status}")
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


def interrupted_at(call: Call, number: int) -> tuple[int, str]:
    """The number of traced events of the call, and what is wrong when KeyboardInterrupt comes at one of them."""
    events = 0

    def trace(frame: Any, event: str, argument: object) -> Any:
        nonlocal events
        events += 1
        if events == number:
            raise KeyboardInterrupt
        return trace

    ignored: list[Any] = []  # what hits a generator that is being thrown away is reported by the interpreter itself
    with call.situation():
        before, seen, sys.unraisablehook = descriptors(), "swallowed", ignored.append
        sys.settrace(trace)
        try:
            call.act()
        except KeyboardInterrupt:
            seen = ""
        except (OSError, UnboundLocalError) as exc:
            seen = (
                "" if isinstance(exc.__context__, KeyboardInterrupt) and STATED.search(str(exc)) else f"became {exc!r}"
            )
        except Exception as exc:
            seen = f"became {exc!r}"
        finally:
            sys.settrace(None)
            sys.unraisablehook = sys.__unraisablehook__
        if ignored:
            seen = ""
            ignored.clear()
        return events, seen or ("" if descriptors() == before else "a descriptor stays open")


def interrupts(calls: dict[str, Call]) -> tuple[int, list[str]]:
    """At each event of a call, of a long one at 100 of them, evenly spread."""
    points, found = 0, []
    for name, call in calls.items():
        events, _ = interrupted_at(call, -1)
        for number in range(1, events + 1, events // 100 + 1):
            seen, wrong = interrupted_at(call, number)
            points += 1
            if wrong and seen >= number:
                found.append(f"{name}, event {number}: {wrong}")
        call()
    return points, found


def storm(names: tuple[str, ...], rounds: int) -> tuple[int, list[str]]:
    """Signals every 20 to 400 microseconds whose handler raises."""

    class Struck(BaseException):
        pass

    def handler(number: int, frame: object) -> None:
        signal.setitimer(signal.ITIMER_REAL, 0)
        raise Struck

    struck, found = 0, []
    before = signal.signal(signal.SIGALRM, handler)
    for name, microseconds, _ in itertools.product(names, range(20, 400, 10), range(rounds)):
        with CALLS[name].situation():
            held = descriptors()
            try:
                signal.setitimer(signal.ITIMER_REAL, microseconds / 1e6)
                CALLS[name].act()
                signal.setitimer(signal.ITIMER_REAL, 0)
            except Struck:
                struck += 1
            except (OSError, UnboundLocalError) as exc:
                struck += 1
                if not isinstance(exc.__context__, Struck) or not STATED.search(str(exc)):
                    found.append(f"{name} after {microseconds} us: {exc!r}")
            if descriptors() != held:
                found.append(f"{name} after {microseconds} us: a descriptor stays open")
        CALLS[name]()
    signal.signal(signal.SIGALRM, before)
    return struck, found


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
    found = []
    for name, text in texts.items():
        done = workshop.python("-X", "dev", "-c", IMPORT + text, timeout=60)
        if done.returncode != 0 or done.stderr:
            found.append(f"{name}: exit status {done.returncode}, {done.stderr[-300:]}")
    return found


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

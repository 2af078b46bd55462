"""What fails around files: system calls, users, modes and links in between; many processes, and interrupts."""

import ctypes
import functools
import itertools
import os
import re
import signal
import stat
import sys
import time
from collections import Counter
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from proof.workshop import Missing, Result, Workshop, descriptors, in_children, side_by_side
from support.scenarios import CALLS, KEY, KEY_FILE, Call, base, file, files, m, native, other_os, outcome

# Memory, signals and what cannot fail.
LEFT_OUT = re.compile(r"brk|munmap|mprotect|madvise|futex|rt_sig|getp?[pu]id|clock_|mmap\(.*-1, 0\)|exit|---|\+\+\+")
HIT = re.compile(r"\(INJECTED\)$|= \?$")  # failed, killed
ERRORS = "EIO", "EACCES", "EMFILE", "EINTR", "ENOSPC"
MODULE, TWIN = "corvane.agent_onboarding", "support.twin"
# What is called, and wallet.key before.
SCENARIOS = {
    "save": (Call(CALLS["write"].act, "", (file("d/wallet.key", "old"),)), "old"),
    "read": (CALLS["read loose"], KEY),
    "load": (CALLS["load"], None),
    "heartbeat": (CALLS["inject"], None),
}


Try = dict[str, Any]  # which call of the system failed, and how; the outcome, and wallet.key afterwards


def traced(call: Call, *options: str) -> tuple[str, list[tuple[str, int, str]], str | None]:
    """Outcome of a call in a child under strace; name, number and line of each call of the system; wallet.key after."""
    log = base() / "trace"

    def child() -> Iterator[str]:
        ctypes.CDLL(None).prctl(0x59616D61, -1, 0, 0, 0)  # PR_SET_PTRACER: a child may trace us
        status, text = os.open("/proc/self/status", os.O_RDONLY), bytearray(4096)
        command = ["strace", "-qq", "-o", str(log), "-p", str(os.getpid()), *options]
        strace = os.posix_spawnp("strace", command, os.environ)  # makes no call of the system after this one
        while os.preadv(status, [text], 0) and b"TracerPid:\t0\n" in text:  # by calls that the scenarios do not make
            time.sleep(0.001)
        before = descriptors()
        os.getppid()  # a mark
        said = outcome(call.act, logged)
        os.getppid()
        left = descriptors() - before
        os.kill(strace, signal.SIGTERM)
        os.waitpid(strace, 0)
        yield f"{said}; {left} descriptors left; {files()}"

    with call.situation() as logged:
        [[said]] = in_children([child], 10)
        key = Path("d/wallet.key")
        after = key.read_text() if key.is_file() else None
    numbers, points = Counter[str](), list[tuple[str, int, str]]()
    for line in log.read_text().splitlines():
        name = line.partition("(")[0]
        numbers[name] += 1
        if numbers["getppid"] == 1 and not LEFT_OUT.match(line):
            points.append((name, numbers[name], line))
    return said, points, after


def failing(scenario: str, *errors: str) -> list[Try]:
    """What comes of it when each call of the system fails, by each error; the first without an error."""
    call, _ = SCENARIOS[scenario]
    usual, points, key = traced(call)
    seen = [{"call": "", "line": "", "said": usual, "key": key}]
    for (place, (name, number, line)), error in itertools.product(enumerate(points), errors):
        for _ in range(9):
            said, failed, key = traced(call, "-e", f"inject={name}:error={error}:when={number}")
            if [n for n, point in enumerate(failed) if HIT.search(point[2])] == [place]:
                break
            # strace counts from where it took hold of the process, and memory takes calls of its own, now and then.
            _, others, _ = traced(call)
            number = others[place][1] if len(others) == len(points) else number
        else:
            raise RuntimeError(f"{name} {number} of {scenario} could not be made to fail")
        seen.append({"call": name, "line": line, "error": error, "said": said, "key": key})
    return seen


def unlike_python(tries: list[Try], twins: list[Try]) -> Iterator[str]:
    """What is not as in plain Python, or leaves a descriptor, to itself or to a child."""
    for one, twin in itertools.zip_longest(tries, twins, fillvalue=dict.fromkeys(("call", "line", "said"), "")):
        # A close that did not happen, since strace itself answers it, leaves the descriptor open.
        left = "; [01] descriptors left" if one["call"] == "close" else "; 0 descriptors left"
        if (one["call"], one["said"]) != (twin["call"], twin["said"]) or not re.search(left, one["said"]):
            yield f"{one}, in plain Python {twin}"
        if one["call"] == "openat" and "CLOEXEC" not in one["line"]:
            yield f"{one}: a child would inherit the descriptor"


def lost_keys(before: str | None, killed: list[Try]) -> Iterator[str]:
    """Where killing leaves a key that is neither the old nor the new one."""
    truncated, after = False, killed[0]["key"]
    for one in killed[1:]:
        # From the truncation to the write there is an empty file, as documented.
        good = one["key"] in ([""] if truncated else [before, after])
        if not good or not one["said"].startswith("ended with status 9:"):
            yield str(one)
        truncated = truncated or ("wallet.key" in one["line"] and "O_TRUNC" in one["line"])
        if one["call"] == "write":
            truncated, before = False, after


def system_calls(workshop: Workshop) -> Iterator[Result]:
    workshop.tool("strace")
    names = ["read"] if workshop.quick else list(SCENARIOS)

    def tries(job: tuple[str, str, tuple[str, ...]]) -> Any:
        name, of, errors = job
        return workshop.answer("system.failing", name, *errors, variables={"MODULE_CALLED": of})

    ways = (MODULE, ERRORS), (TWIN, ERRORS), (MODULE, ("EIO:signal=SIGKILL",))
    seen = side_by_side(tries, [(name, *way) for name in names for way in ways])
    for name, failed, twins, killed in zip(names, seen[::3], seen[1::3], seen[2::3], strict=True):
        # The first of each is the run without a failure.
        found, lost = list(unlike_python(failed, twins)), list(lost_keys(SCENARIOS[name][1], killed))
        empty = {"between truncation and write, with an empty wallet.key": sum(one["key"] == "" for one in killed)}
        yield Result(f"system calls: {name}, each fails in {len(ERRORS)} ways", len(failed) - 1, found)
        yield Result(f"system calls: {name}, killed at each of them", len(killed) - 1, lost, empty)


NOBODY, NEW = 65534, "0x" + KEY
REFUSED = {"read": "raised OSError: Unsafe wallet key at", "write": "raised OSError: Cannot write wallet to"}
# What takes the place of the file.
KINDS: dict[str, Callable[[Path], object]] = {
    "a link": lambda path: path.symlink_to("../victim"),
    "a FIFO": os.mkfifo,
    "a device": lambda path: os.mknod(path, 0o20600, os.makedev(1, 3)),
    "somebody else's file": lambda path: os.chown(Path("foreign").rename(path), NOBODY, NOBODY),
}


def wrong_when_tried(name: str, user: int, owner: int, mode: int) -> Iterator[str]:
    """What may be opened works, and is the owner's alone afterwards."""
    key = base() / "wallet.key"
    key.unlink(missing_ok=True)
    key.write_text(KEY)
    os.chown(key, owner, owner)
    key.chmod(mode)
    os.setresuid(user, user, 0)  # the last is the way back
    said = outcome(lambda: getattr(m, f"_{name}_wallet_key")(base(), *[NEW] * (name == "write")), [])
    os.setresuid(0, 0, 0)
    seen = said.partition(f" {key}")[0], stat.S_IMODE(key.stat().st_mode), key.read_text()
    if user != owner:
        wanted = REFUSED["read"], mode, KEY
    elif user and not mode & (0o400 if name == "read" else 0o200):
        wanted = REFUSED[name], mode, KEY
    elif name == "read":
        wanted = f"returned '{KEY}'", 0o600 if mode & 0o077 else mode, KEY
    else:
        wanted = "returned None", 0o600, NEW
    if seen != wanted:
        yield f"{name} as {user}, of {owner}, mode {mode:o}: {seen}, expected {wanted}"


def wrong_when_swapped(name: str, kind: str) -> Iterator[str]:
    def swapping(path: str, *args: Any) -> int:
        os.unlink(path)
        KINDS[kind](Path(path))
        _end = open(path, "r+b", buffering=0) if kind == "a FIFO" else None  # or the opening waits for it  # noqa: SIM115
        return os.open(path, *args)

    given = KEY_FILE, file("victim", "victim"), file("foreign", "victim"), other_os(open=swapping)
    call, before = Call(CALLS[name].act, "", given), descriptors()
    with call.situation() as logged:
        said, left, after = outcome(call.act, logged), files(), descriptors()
    # The opening for writing truncates, and root may open anything; the check of the owner comes after it.
    victims = 1 if (name, kind) == ("write", "somebody else's file") else 2
    if not said.startswith(f"{REFUSED[name]} ./d") or str(left).count("b'victim'") != victims or after != before:
        yield f"{name}, {kind}: {said} {left}, {after - before} descriptors left"


def key_file(workshop: Workshop) -> Iterator[Result]:
    if os.geteuid() != 0:
        raise Missing("only root can become somebody else and make devices")
    base().chmod(0o777)
    modes = range(0, 0o10000, 0o111 if workshop.quick else 1)
    tried = [(name, user, user, mode) for name, user, mode in itertools.product(REFUSED, (0, NOBODY), modes)]
    tried += [(name, user, NOBODY - user, mode) for name in REFUSED for user in (0, NOBODY) for mode in (0o600, 0o666)]
    found = [wrong for row in tried for wrong in wrong_when_tried(*row)]
    yield Result("key file: of every mode, as root and as nobody, and another user's", len(tried), found)
    races = list(itertools.product(REFUSED, KINDS))
    found = [wrong for race in races for wrong in wrong_when_swapped(*race)]
    yield Result("key file: swapped between examination and opening", len(races), found)


LOST = "SameFileError", "ImportError", "FileNotFoundError"  # the copy came, or went, while it was made or loaded
KILLED = f"ended with status {signal.SIGBUS}: Fatal Python error: Bus error"  # it was written over while it was in use


def loading(what: str, builds: int, count: int, loads: int) -> Result:
    """So many processes load builds, which are lost at times to the pruning or the copying of others."""

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
        answers = in_children(functools.partial(worker, number) for number in range(count))
    seen = Counter(itertools.chain.from_iterable(answers))
    lost = count * loads - seen.pop("", 0)
    stated = (*LOST, KILLED) if builds > 1 else LOST
    found = [f"{why} {n} times" for why, n in seen.items() if not why.startswith(stated)]
    found += ["more than half of the loads are lost"] * (2 * lost > count * loads)
    return Result(f"processes: {count} load {what}", count * loads, found, {"lost to one another, as documented": lost})


def struck(call: Call, number: int) -> str:
    """What is wrong after a KeyboardInterrupt at this traced event of a call: "missed" if it was over before."""
    events, told = itertools.count(1), list[object]()

    def trace(frame: Any, event: str, argument: object) -> Any:
        # What stands in for os.close() has closed nothing yet.
        if frame.f_code.co_name != "<lambda>" and next(events) == number:
            raise KeyboardInterrupt
        return trace

    with call.situation():
        before = descriptors()
        # What hits a generator that is being thrown away is reported by the interpreter itself, and goes no further.
        sys.unraisablehook = lambda what: told.append(what.exc_type)
        sys.settrace(trace)
        try:
            call.act()
        except BaseException as exc:
            told += [type(exc), type(exc.__context__)]  # an error from cleaning up can take its place
        finally:
            sys.settrace(None)
            sys.unraisablehook = sys.__unraisablehook__
        left = descriptors() - before
    if next(events) <= number:
        return "missed"
    return "" if KeyboardInterrupt in told and not left else f"{left} descriptors left, told {told}"


def interrupted(*names: str) -> list[str]:
    """What is wrong, if anything, after an interrupt at each event of each call."""
    seen = list[str]()
    for name in names:
        came = (struck(CALLS[name], number) for number in itertools.count(1))
        reached = itertools.takewhile(lambda one: one != "missed", came)
        seen += [one and f"{name} at {number}: {one}" for number, one in enumerate(reached, 1)]
        CALLS[name]()
    return seen


def processes(workshop: Workshop) -> Iterator[Result]:
    count, loads = (4, 5) if workshop.quick else (16, 40)
    yield loading("the same build", 1, count, loads)
    yield loading("five builds and pruning", 5, count, loads)
    names = workshop.sample(CALLS, 30)
    seen = workshop.shared_out("system.interrupted", names)
    yield Result(f"interrupts: at each traced event of {len(names)} calls", len(seen), list(filter(None, seen)))

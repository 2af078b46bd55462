"""Each system call of five scenarios fails once, to the same effect as in plain Python, and once kills the process."""

import ctypes
import itertools
import os
import re
import signal
import socketserver
import threading
import time
from collections import Counter
from collections.abc import Iterator
from pathlib import Path
from typing import Any, NamedTuple

from proof.workshop import Result, Workshop, descriptors, in_children, kept, side_by_side
from support import scenarios as e

# Memory, signals and what cannot fail.
LEFT_OUT = re.compile(r"brk|munmap|mprotect|madvise|futex|rt_sig|getp?[pu]id|clock_|mmap\(.*-1, 0\)|exit|---|\+\+\+")
HIT = re.compile(r"\(INJECTED\)$|= \?$")  # failed, killed
ERRORS = "EIO", "EACCES", "EMFILE", "EINTR", "ENOSPC"
KEYS = {"save": "old", "read": "5a" * 32, "load": None, "heartbeat": None, "journey": None}  # wallet.key before


class Try(NamedTuple):
    """Which call of the system failed, and how; the outcome, and wallet.key afterwards."""

    call: str
    number: int
    line: str
    error: str
    said: str
    key: str | None


class Eras(socketserver.BaseRequestHandler):
    def handle(self) -> None:
        body = b'{"eras": [{"state": "active", "named_universe": "us"}]}'
        self.request.recv(65536)
        # At once, so that the client reads it by the same calls each time.
        self.request.sendall(b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body))


def scenarios() -> dict[str, Any]:
    eras = socketserver.TCPServer(("127.0.0.1", 0), Eras)
    threading.Thread(target=eras.serve_forever, daemon=True).start()
    address = e.config(server_url=f"http://127.0.0.1:{eras.server_address[1]}")
    kit = e.kit(_runtime=e.runtime(bootstrap_runtime=lambda am, config, load: e.Anything(loaded=load("d"))))
    return {
        "save": e.Call(e.CALLS["write"].act, "", (e.file("d/wallet.key", "old"),)),
        "read": e.CALLS["read loose"],
        "load": e.CALLS["load"],
        "heartbeat": e.CALLS["inject"],
        "journey": e.Call(e.register(bootstrap_runtime=True), "", (kit, e.BOTH, address, e.file("HEARTBEAT.md"))),
    }


def traced(call: Any, *options: str) -> tuple[str, list[tuple[str, int, str]], str | None]:
    """Outcome of a call in a child under strace; name, number and line of each call of the system; wallet.key after."""
    log = e.base() / "trace"

    def child() -> Iterator[str]:
        ctypes.CDLL(None).prctl(0x59616D61, -1, 0, 0, 0)  # PR_SET_PTRACER: a child may trace us
        status, text = os.open("/proc/self/status", os.O_RDONLY), bytearray(4096)
        command = ["strace", "-qq", "-o", str(log), "-p", str(os.getpid()), *options]
        strace = os.posix_spawnp("strace", command, os.environ)  # makes no call of the system after this one
        while os.preadv(status, [text], 0) and b"TracerPid:\t0\n" in text:  # by calls that the scenarios do not make
            time.sleep(0.001)
        before = descriptors()
        os.getppid()  # a mark
        came = kept(call.act)
        os.getppid()
        left = descriptors() - before
        os.kill(strace, signal.SIGTERM)
        os.waitpid(strace, 0)
        yield f"{e.outcome(came.result, logged)}; {left} descriptors left; {e.files()}"

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


def failing(scenario: str, fatal: bool) -> list[Try]:
    """What comes of it when each call of the system fails, by each error; the first without an error."""
    call = scenarios()[scenario]
    usual, points, key = traced(call)
    seen = [Try("", 0, "", "", usual, key)]
    for place, (name, number, line) in enumerate(points):
        for error in ("EIO:signal=SIGKILL",) if fatal else ERRORS:
            for _ in range(9):
                said, failed, key = traced(call, "-e", f"inject={name}:error={error}:when={number}")
                if [n for n, point in enumerate(failed) if HIT.search(point[2])] == [place]:
                    break
                # strace counts from where it took hold of the process, and memory takes calls of its own, now and then.
                _, others, _ = traced(call)
                number = others[place][1] if len(others) == len(points) else number
            else:
                raise RuntimeError(f"{name} {number} of {scenario} could not be made to fail")
            seen.append(Try(name, number, line, error, said, key))
    return seen


def unlike_python(tries: list[Try], twins: list[Try]) -> Iterator[str]:
    """What is not as in plain Python, or leaves a descriptor, to itself or to a child."""
    for one, twin in itertools.zip_longest(tries, twins, fillvalue=Try("", 0, "", "", "", None)):
        # A close that did not happen, since strace itself answers it, leaves the descriptor open.
        left = "; [01] descriptors left" if one.call == "close" else "; 0 descriptors left"
        if (one.call, one.said) != (twin.call, twin.said) or not re.search(left, one.said):
            yield f"{one}, in plain Python {twin}"
        # OpenSSL opens its list of authorities, for a moment, so that a child would inherit it.
        if re.match(r"openat|socket\(|pipe|memfd", one.line) and not re.search("CLOEXEC|/etc/ssl", one.line):
            yield f"{one}: a child would inherit the descriptor"


def lost_keys(before: str | None, killed: list[Try]) -> Iterator[str]:
    """Where killing leaves a key that is neither the old nor the new one."""
    truncated, after = False, killed[0].key
    for one in killed[1:]:
        # From the truncation to the write there is an empty file, as documented.
        if one.key not in ([""] if truncated else [before, after]) or not one.said.startswith("ended with status 9:"):
            yield str(one)
        truncated = truncated or ("wallet.key" in one.line and "O_TRUNC" in one.line)
        if one.call == "write":
            truncated, before = False, after


def run(workshop: Workshop) -> Iterator[Result]:
    workshop.tool("strace")
    names = ["read"] if workshop.quick else list(KEYS)

    def tries(job: tuple[str, bool, str]) -> list[Try]:
        name, fatal, of = job
        rows = workshop.answer("system_calls.failing", name, fatal, variables={"MODULE_CALLED": of})
        return [Try(*row) for row in rows]

    ways = (False, "corvane.agent_onboarding"), (False, "support.twin"), (True, "corvane.agent_onboarding")
    seen = side_by_side(tries, [(name, *way) for name in names for way in ways])
    for name, failed, twins, killed in zip(names, seen[::3], seen[1::3], seen[2::3], strict=True):
        # The first of each is the run without a failure.
        found, lost = list(unlike_python(failed, twins)), list(lost_keys(KEYS[name], killed))
        empty = {"between truncation and write, with an empty wallet.key": sum(one.key == "" for one in killed)}
        yield Result(f"system calls: {name}, each fails in {len(ERRORS)} ways", len(failed) - 1, found)
        yield Result(f"system calls: {name}, killed at each of them", len(killed) - 1, lost, empty)

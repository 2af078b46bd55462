"""The tests and the scenarios under AddressSanitizer, UBSan, LeakSanitizer, valgrind and ThreadSanitizer."""

import ctypes
import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from proof.workshop import Result, Variables, Workshop, descriptors
from support.scenarios import CALLS, m

HEADLINE = r"^(?:==\d+==)?\s*(?:ERROR|WARNING): .*|^(?:Direct|Indirect) leak .*"
BUILDS = {"libasan.so": "-DSANITIZE=address,undefined", "libtsan.so": "-DSANITIZE=thread"}


def under(library: str, site: Variables, leaks: bool = True) -> Variables:
    """What a process with this sanitizer needs."""
    # Without libstdc++ the first C++ throw ends the process.
    paths = [subprocess.getoutput(f"gcc -print-file-name={name}") for name in (library, "libstdc++.so")]
    leaking = "detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=60" if leaks else "detect_leaks=0"
    return {
        **site,
        "LD_PRELOAD": " ".join(paths),
        "PYTHONMALLOC": "malloc",  # or errors in Python objects are not seen
        "ASAN_OPTIONS": f"detect_stack_use_after_return=1:strict_string_checks=1:{leaking}",
        "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        "TSAN_OPTIONS": "exitcode=0",
    }


def watched(workshop: Workshop, call: str, variables: Variables, *wrapper: str) -> tuple[int, list[str]]:
    """What a call of a function below prints, and what a tool says of it; what the interpreter loses is left out."""
    code = f"from proof.sanitizers import *; {call}"
    done = workshop.python("-c", code, wrapper=wrapper, variables=variables)
    blocks = re.split(rf"(?={HEADLINE})", done.stderr, flags=re.M)[1:]
    interpreters = re.compile(r"(?!.*agent_onboarding).*(?:leak|ThreadSanitizer)", re.S)
    found = [block[:2000] for block in blocks if not interpreters.match(block)]
    return int(done.stdout or 0), found + [f"{done.returncode}: {done.stderr[:3000]}"] * (done.returncode != 0)


def leaks(workshop: Workshop, site: Variables, *names: str) -> tuple[int, list[str]]:
    """How many calls of these scenarios, or all, ASan, UBSan and LeakSanitizer look at, and what they say."""
    return watched(workshop, f"scenarios(2, *{names})", under("libasan.so", site))


def valgrind(workshop: Workshop, site: Variables, *names: str) -> tuple[int, list[str]]:
    wrapper, variables = (workshop.tool("valgrind"), "-q", "--error-exitcode=99"), {**site, "PYTHONMALLOC": "malloc"}
    return watched(workshop, f"scenarios(1, *{names})", variables, *wrapper)


def races(workshop: Workshop, site: Variables, rounds: int) -> tuple[int, list[str]]:
    """ThreadSanitizer does not cope with addresses that are drawn by lot."""
    return watched(workshop, f"threads({rounds})", under("libtsan.so", site), workshop.tool("setarch"), "-R")


def sanitizers(workshop: Workshop) -> Iterator[Result]:
    site = workshop.build("asan", BUILDS["libasan.so"])
    yield Result("sanitizers: tests under ASan and UBSan", *workshop.tests(under("libasan.so", site, leaks=False)))
    yield Result("sanitizers: scenarios twice, with LeakSanitizer", *leaks(workshop, site))
    yield Result("sanitizers: scenarios under valgrind", *valgrind(workshop, {}, *workshop.sample(CALLS, 60)))
    site, rounds = workshop.build("tsan", BUILDS["libtsan.so"]), 5 if workshop.quick else 100
    yield Result(f"sanitizers: 8 threads, {rounds} rounds under ThreadSanitizer", *races(workshop, site, rounds))


def scenarios(times: int, *names: str) -> None:
    """What nobody can reach any more after the scenarios is reported by the sanitizer."""
    names = times * (names or tuple(CALLS))
    for name in names:
        CALLS[name]()
    print(len(names), flush=True)
    if "libasan" in os.environ.get("LD_PRELOAD", ""):
        ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
    os._exit(0)  # at the end the interpreter gives up much that is still known to be reachable


def threads(rounds: int) -> None:
    """Calls of all kinds from many threads; each must come to what it comes to alone."""
    sys.setswitchinterval(1e-6)

    def work(number: int) -> None:
        home, key = Path(folder, str(number)), f"{number}" * 64
        home.mkdir()
        (home / "manifest.json").write_text('{"files": {"a.so": {"kind": "runtime_module:a", "sha256": "1"}}}')
        for _ in range(rounds):
            (heartbeat := home / "HEARTBEAT.md").write_text("x")
            m.inject_heartbeat(home)
            m._write_wallet_key(home, key)
            m.configure(named_universe=key, auto_heartbeat=True)
            assert heartbeat.read_text().endswith(m._HEARTBEAT_STATIC_SECTION)
            assert m._normalize_key(m._read_wallet_key(home)) == "0x" + key
            assert [name for name, *_ in m._runtime_module_manifest_entries(m._read_manifest(home))] == ["a"]
            assert m._active_era_named_universe_candidates({"universes": [{"id": key}, "b"]}) == [key, "b"]
            assert m.create_runtime_freshness_guard(home) and len(m._sha256_file(str(heartbeat))) == 64

    with tempfile.TemporaryDirectory() as folder, ThreadPoolExecutor(8) as pool:
        before = descriptors()
        list(pool.map(work, range(8)))
        assert descriptors() == before, "a descriptor is left open"
    print(10 * rounds * 8)

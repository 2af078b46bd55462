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
from typing import Any

from proof.workshop import Result, Variables, Workshop, descriptors
from support.scenarios import CALLS, m

HEADLINE = r"^(?:==\d+==)?\s*(?:ERROR|WARNING): .*|^(?:Direct|Indirect) leak .*"


def under(workshop: Workshop, library: str, site: Variables, leaks: bool = True) -> Variables:
    """What a process with this sanitizer needs; each process that has something to say writes a file of its own."""
    log = f"log_path='{workshop.folder}/report'"
    leaking = "detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=60" if leaks else "detect_leaks=0"
    # Without libstdc++ the first C++ throw ends the process.
    paths = [subprocess.getoutput(f"gcc -print-file-name={name}") for name in (library, "libstdc++.so")]
    return {
        **site,
        "LD_PRELOAD": " ".join(paths),
        "PYTHONMALLOC": "malloc",  # or errors in Python objects are not seen
        "ASAN_OPTIONS": f"{log}:detect_stack_use_after_return=1:strict_string_checks=1:{leaking}",
        "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        "TSAN_OPTIONS": f"{log}:exitcode=0",
    }


def reports(workshop: Workshop) -> list[str]:
    """Takes them away, and gives the beginning of each; what the interpreter loses is left out."""
    found = []
    for path in workshop.folder.glob("report.*"):
        for block in re.split(rf"(?={HEADLINE})", path.read_text(errors="replace"), flags=re.M)[1:]:
            if "agent_onboarding" in block or not re.search("leak|ThreadSanitizer", block.partition("\n")[0]):
                found.append(block[:2000])
        path.unlink()
    return found


def counted(workshop: Workshop, function: str, *arguments: Any, **how: Any) -> tuple[int, list[str]]:
    """How many calls a function of this file makes in a process with a sanitizer, and what is wrong."""
    try:
        points = workshop.answer(f"sanitizers.{function}", *arguments, **how)
    except RuntimeError as exc:
        return 0, [*reports(workshop), str(exc)]  # which holds what UBSan says
    return points, reports(workshop)


def leaks(workshop: Workshop, site: Variables, *names: str) -> tuple[int, list[str]]:
    """What ASan, UBSan and LeakSanitizer say about these scenarios, or all."""
    return counted(workshop, "leaking", *names, variables=under(workshop, "libasan.so", site))


def races(workshop: Workshop, site: Variables, rounds: int) -> tuple[int, list[str]]:
    """What ThreadSanitizer, which does not cope with addresses that are drawn by lot, says about threads."""
    wrapper = workshop.tool("setarch"), "-R"
    return counted(workshop, "in_threads", rounds, wrapper=wrapper, variables=under(workshop, "libtsan.so", site))


def valgrind(workshop: Workshop, site: Variables, *names: str) -> tuple[int, list[str]]:
    """What valgrind says about these scenarios."""
    wrapper, variables = (workshop.tool("valgrind"), "-q", "--error-exitcode=99"), {**site, "PYTHONMALLOC": "malloc"}
    done = workshop.python("-m", "support.scenarios", *names, wrapper=wrapper, variables=variables)
    return len(names), done.stderr.splitlines()[:10] or [f"ended with {done.returncode}"] * bool(done.returncode)


def run(workshop: Workshop) -> Iterator[Result]:
    reports(workshop)  # of an earlier run
    site = workshop.build("asan", "-DSANITIZE=address,undefined")
    passed, wrong = workshop.tests(under(workshop, "libasan.so", site, leaks=False))
    yield Result("sanitizers: tests under ASan and UBSan", passed, wrong + reports(workshop))
    yield Result("sanitizers: scenarios twice, with LeakSanitizer", *leaks(workshop, site))
    yield Result("sanitizers: scenarios under valgrind", *valgrind(workshop, {}, *workshop.sample(CALLS, 60)))
    site, rounds = workshop.build("tsan", "-DSANITIZE=thread"), 5 if workshop.quick else 100
    yield Result(f"sanitizers: 8 threads, {rounds} rounds under ThreadSanitizer", *races(workshop, site, rounds))


def leaking(*names: str) -> None:
    """What nobody can reach any more after the scenarios is reported by the sanitizer."""
    names = 2 * (names or tuple(CALLS))
    for name in names:
        CALLS[name]()
    print(len(names), flush=True)
    ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
    os._exit(0)  # at the end the interpreter gives up much that is still known to be reachable


def in_threads(rounds: int) -> int:
    """Calls of all kinds from many threads; each must come to what it comes to alone."""
    sys.setswitchinterval(1e-6)

    def work(home: Path) -> None:
        (home / "manifest.json").write_text('{"files": {"a.so": {"kind": "runtime_module:a", "sha256": "1"}}}')
        for _ in range(rounds):
            key = os.urandom(32).hex()
            (heartbeat := home / "HEARTBEAT.md").write_text("x")
            m.inject_heartbeat(home)
            m._write_wallet_key(home, key)
            m.configure(named_universe=key, auto_heartbeat=True)
            assert heartbeat.read_text().endswith(m._HEARTBEAT_STATIC_SECTION)
            assert m._read_wallet_key(home) == key and m._normalize_key(key) == "0x" + key
            assert m._exception_chain_detail(ValueError(key)) == f"ValueError: {key}"
            assert [name for name, *_ in m._runtime_module_manifest_entries(m._read_manifest(home))] == ["a"]
            assert m._active_era_named_universe_candidates({"universes": [{"id": key}, "b"]}) == [key, "b"]
            assert m.create_runtime_freshness_guard(home) and len(m._sha256_file(str(heartbeat))) == 64
            assert m._LocalRuntimeSyncManager(key).get_manifest() == key

    with tempfile.TemporaryDirectory() as folder, ThreadPoolExecutor(8) as pool:
        before = descriptors()
        list(pool.map(work, [Path(tempfile.mkdtemp(dir=folder)) for _ in range(8)]))
        assert descriptors() == before, "a descriptor is left open"
    return 12 * rounds * 8

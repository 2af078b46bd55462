"""The tests and the exercise under AddressSanitizer, UBSan, LeakSanitizer, valgrind and ThreadSanitizer.

As a script it makes the calls that one sanitizer looks at.
"""

import ctypes
import importlib
import os
import re
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from proof.workshop import Result, Workshop, descriptors

THREADS, ROUNDS = 8, 100
HEADLINE = r"^(?:==\d+==)?\s*(?:ERROR|WARNING): .*|^.*runtime error: .*|^(?:Direct|Indirect) leak .*"


def environment(workshop: Workshop, library: str, asan: str = "detect_leaks=0") -> dict[str, str]:
    """What a process with this sanitizer needs; each process that has something to say writes a file of its own."""
    reports = workshop.folder / "reports"
    reports.mkdir(exist_ok=True)
    log = f"log_path={reports}/report"
    # Without libstdc++ the first C++ throw ends the process.
    paths = [
        subprocess.run(["gcc", f"-print-file-name={name}"], capture_output=True, text=True, check=True).stdout.strip()
        for name in (library, "libstdc++.so")
    ]
    return {
        "LD_PRELOAD": " ".join(paths),
        "PYTHONMALLOC": "malloc",  # or errors in Python objects are not seen
        "ASAN_OPTIONS": f"{log}:detect_stack_use_after_return=1:strict_string_checks=1:{asan}",
        "UBSAN_OPTIONS": f"{log}:print_stacktrace=1:halt_on_error=1",
        "TSAN_OPTIONS": f"{log}:exitcode=0",
    }


def take_reports(workshop: Workshop) -> list[str]:
    """The first line of each report, with the innermost frames of ours; what the interpreter loses is left out."""
    found = []
    for path in sorted((workshop.folder / "reports").iterdir()):
        text = path.read_text(errors="replace")
        for block in re.split(rf"(?={HEADLINE})", text, flags=re.M)[1:]:
            headline = block.partition("\n")[0].strip()
            frames = re.findall(r"#\d+ .* in (.*(?:src/agent_onboarding|proof)/\S+)", block)
            if "agent_onboarding" in block or not re.search("leak|ThreadSanitizer", headline):
                found.append(f"{headline} {' < '.join(frames[:3])}")
        path.unlink()
    return found


def under(workshop: Workshop, library: str, site: Path, *arguments: str, **variables: str) -> tuple[int, list[str]]:
    """The calls that `main` made in a process with a sanitizer, and what is wrong."""
    # The sanitizer of threads does not cope with addresses that are drawn by lot.
    threads, every_leak = library == "libtsan.so", "detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=60"
    wrapper = (workshop.tool("setarch", "util-linux"), "-R") if threads else ()
    plain = environment(workshop, library, every_leak) | variables
    done = workshop.python("-m", "proof.sanitizers", *arguments, site=site, wrapper=wrapper, variables=plain)
    wrong = [] if done.returncode == 0 else [f"ended with {done.returncode}: {done.stderr[-500:]}"]
    undefined = re.findall("^.*runtime error: .*", done.stderr, re.M)  # which UBSan writes there
    return int(done.stdout or 0), take_reports(workshop) + undefined + wrong


def valgrind(workshop: Workshop, *names: str, site: Path | None = None, **variables: str) -> list[str]:
    """What valgrind says about these calls of the exercise."""
    wrapper = workshop.tool("valgrind", "valgrind"), "-q", "--error-exitcode=99", "--trace-children=no"
    plain = {"PYTHONMALLOC": "malloc", **variables}
    done = workshop.python("-m", "proof.exercise", *names, site=site, wrapper=wrapper, variables=plain)
    return done.stderr.splitlines()[:10] or ([f"ended with {done.returncode}"] if done.returncode else [])


def run(workshop: Workshop) -> Iterator[Result]:
    shutil.rmtree(workshop.folder / "reports", ignore_errors=True)
    site = workshop.build("asan", "-DSANITIZE=address,undefined")
    variables = environment(workshop, "libasan.so")
    how = {"site": site, "variables": variables}
    failed = workshop.tests(["key_file"], **how) if workshop.quick else workshop.all_tests(**how)
    tests = "".join(path.read_text() for path in (workshop.root / "tests").glob("test_*.py"))
    count = len(re.findall(r"^def test_", tests, re.M))
    yield Result("sanitizers: tests under ASan and UBSan", count, failed + take_reports(workshop))
    yield Result("sanitizers: exercise twice, with LeakSanitizer", *under(workshop, "libasan.so", site, "calls"))
    if not workshop.quick:
        calls = importlib.import_module("proof.exercise").CALLS
        yield Result("sanitizers: exercise under valgrind", len(calls), valgrind(workshop))
    rounds = 5 if workshop.quick else ROUNDS
    name = f"sanitizers: {THREADS} threads, {rounds} rounds under ThreadSanitizer"
    site = workshop.build("tsan", "-DSANITIZE=thread")
    yield Result(name, *under(workshop, "libtsan.so", site, "threads", str(rounds)))


# -- The children, beside one sanitizer each


def make_calls(names: list[str]) -> None:
    """What nobody can reach any more after the calls of the exercise is reported by the sanitizer."""
    calls = importlib.import_module("proof.exercise").CALLS
    for name in (*(names or calls), *(names or calls)):
        calls[name]()
    print(2 * len(names or calls), flush=True)
    ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
    os._exit(0)  # at the end the interpreter gives up much that is still known to be reachable


def in_threads(rounds: int) -> None:
    """Calls of all kinds from many threads; each must come to what it comes to alone."""
    m = importlib.import_module("corvane.agent_onboarding")
    sys.setswitchinterval(1e-6)

    def turn(home: Path, key: str) -> Iterator[bool]:
        heartbeat = home / "HEARTBEAT.md"
        heartbeat.write_text("x")
        m.inject_heartbeat(home)
        yield heartbeat.read_text().endswith(m._HEARTBEAT_STATIC_SECTION)
        yield len(m._sha256_file(str(heartbeat))) == 64
        m._write_wallet_key(home, key)
        yield m._read_wallet_key(home) == key
        yield m.configure(named_universe=key, auto_heartbeat=True) is None
        try:
            m.configure(colour=1)
        except ValueError as exc:
            yield m._exception_chain_detail(exc).startswith("ValueError: Unknown configuration option: 'colour'")
        yield [name for name, *_ in m._runtime_module_manifest_entries(m._read_manifest(home))] == ["a"]
        yield m._active_era_named_universe_candidates({"universes": [{"id": key}, "b"]}) == [key, "b"]
        yield m.create_runtime_freshness_guard(home) is not None
        yield m._normalize_key(key) == "0x" + key
        yield m._LocalRuntimeSyncManager(key).get_manifest() == key

    def work(home: Path) -> list[bool]:
        (home / "manifest.json").write_text('{"files": {"a.so": {"kind": "runtime_module:a", "sha256": "1"}}}')
        return [good for _ in range(rounds) for good in turn(home, os.urandom(32).hex())]

    with tempfile.TemporaryDirectory() as folder, ThreadPoolExecutor(THREADS) as pool:
        before = descriptors()
        done = list(pool.map(work, [Path(tempfile.mkdtemp(dir=folder)) for _ in range(THREADS)]))
        assert done == [[True] * 10 * rounds] * THREADS, [goods.index(False) for goods in done if not all(goods)]
        assert descriptors() == before, "a descriptor is left open"
    print(10 * rounds * THREADS, flush=True)


if __name__ == "__main__":
    make_calls(sys.argv[2:]) if sys.argv[1] == "calls" else in_threads(int(sys.argv[2]))

"""The tests and the exercise under AddressSanitizer, UBSan, LeakSanitizer, valgrind and ThreadSanitizer."""

import ctypes
import importlib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
from collections.abc import Iterator, Mapping
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from proof.workshop import Result, Workshop

THREADS, ROUNDS = 8, 100
SUMMARY = re.compile(r"^(?:==\d+==)?\s*(?:ERROR|WARNING): .*|^.*runtime error: .*", re.M)


def preload(*names: str) -> str:
    """The sanitizer's library, and libstdc++, without which the first C++ throw ends the process."""
    libraries = (*names, "libstdc++.so")
    return " ".join(
        subprocess.run(["gcc", f"-print-file-name={name}"], capture_output=True, text=True, check=True).stdout.strip()
        for name in libraries
    )


def environment(library: str, reports: Path, **options: str) -> dict[str, str]:
    """What a process with this sanitizer needs; each process that has something to say writes a file of its own."""
    shutil.rmtree(reports, ignore_errors=True)
    reports.mkdir(parents=True)
    log = f"log_path={reports}/report"
    return {
        "LD_PRELOAD": preload(library),
        "PYTHONMALLOC": "malloc",  # or errors in Python objects are not seen
        "ASAN_OPTIONS": f"{log}:detect_stack_use_after_return=1:strict_string_checks=1:{options.get('asan', '')}",
        "UBSAN_OPTIONS": f"{log}:print_stacktrace=1:halt_on_error=1",
        "TSAN_OPTIONS": f"{log}:exitcode=0",
    }


def read_reports(folder: Path) -> list[str]:
    """The first line of each report, with the innermost frames of ours."""
    found = []
    for path in sorted(folder.iterdir()):
        for text in re.split(r"(?=^=+\n)", path.read_text(errors="replace"), flags=re.M):
            if summary := SUMMARY.search(text):
                ours = re.findall(r"#\d+ .* in (.*src/agent_onboarding/\S+)", text)
                found.append(f"{summary[0].strip()} {' < '.join(ours[:3])}")
    return found


def pytest(
    workshop: Workshop, site: Path | None, *options: str, variables: Mapping[str, str] | None = None
) -> list[str]:
    """Runs tests against a build and answers what pytest has to complain about."""
    command = ("-m", "pytest", "-c", str(workshop.root / "pyproject.toml"), "--rootdir", str(workshop.root))
    done = workshop.python(
        *command, "-p", "no:cacheprovider", "--tb=line", *options, site=site, variables=variables, timeout=900
    )
    failed = re.findall(r"^(?:FAILED|ERROR) .*", done.stdout, re.M)
    if done.returncode != 0 and not failed:
        failed = [f"pytest ended with {done.returncode}: {done.stdout[-500:]}{done.stderr[-500:]}"]
    return failed


def halves(workshop: Workshop) -> list[list[str]]:
    """The test files in two parts of about the same duration."""
    without = "test_docs", "test_wheel"  # have builds of their own, or none
    found = (workshop.root / "tests").glob("test_*.py")
    files = sorted(str(path) for path in found if path.stem not in without)
    slow = ("test_demo", "test_surface", "test_eras", "test_key_file")
    parts: list[list[str]] = [[], []]
    for name in files:
        parts[Path(name).stem in slow].append(name)
    return parts


def suite(workshop: Workshop, site: Path, variables: Mapping[str, str] | None = None) -> list[str]:
    """The whole suite, two processes at once."""
    with ThreadPoolExecutor(2) as pool:
        runs = [pool.submit(pytest, workshop, site, *files, variables=variables) for files in halves(workshop)]
        return [line for run in runs for line in run.result()]


def address(workshop: Workshop) -> Iterator[Result]:
    site, reports = workshop.build("asan", "-DSANITIZE=address,undefined"), workshop.folder / "asan-reports"
    plain = environment("libasan.so", reports, asan="detect_leaks=0")
    if workshop.quick:
        failed = pytest(workshop, site, str(workshop.root / "tests" / "test_key_file.py"), variables=plain)
    else:
        failed = suite(workshop, site, variables=plain)
    exercise = workshop.python(str(workshop.root / "proof" / "exercise.py"), site=site, variables=plain)
    complaints = exercise.stderr.splitlines()[-3:] if exercise.returncode or exercise.stderr else []
    count = len(re.findall(r"^def test_", "".join(map(Path.read_text, (workshop.root / "tests").glob("*.py"))), re.M))
    yield Result("sanitizers: tests under ASan and UBSan", count, failed + complaints + read_reports(reports))

    leaks = environment("libasan.so", reports, asan="detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=60")
    done = workshop.python(__file__, "leaks", site=site, variables=leaks)
    missing = [] if done.returncode == 0 else [f"ended with {done.returncode}: {done.stderr[-500:]}"]
    ours = [line for line in leaked(reports) if "agent_onboarding" in line]
    yield Result("sanitizers: exercise twice under LeakSanitizer", int(done.stdout or 0), missing + ours)


def leaked(reports: Path) -> list[str]:
    """Each leaked block with its stack, on one line."""
    text = "".join(path.read_text(errors="replace") for path in reports.iterdir())
    return [" ".join(block.split()) for block in re.findall(r"^(?:Direct|Indirect) leak .*(?:\n    #.*)+", text, re.M)]


def memory(workshop: Workshop) -> Iterator[Result]:
    valgrind = workshop.tool("valgrind", "valgrind")
    wrapper = (valgrind, "-q", "--error-exitcode=99", "--trace-children=no")
    done = workshop.python(str(workshop.root / "proof" / "exercise.py"), wrapper=wrapper, PYTHONMALLOC="malloc")
    findings = done.stderr.splitlines()[:10] or ([f"ended with {done.returncode}"] if done.returncode else [])
    from proof.exercise import CALLS

    yield Result("sanitizers: exercise under valgrind", len(CALLS), findings)


def race(workshop: Workshop) -> Iterator[Result]:
    workshop.tool("setarch", "util-linux")
    site, reports = workshop.build("tsan", "-DSANITIZE=thread"), workshop.folder / "tsan-reports"
    plain = environment("libtsan.so", reports)
    rounds = 5 if workshop.quick else ROUNDS
    done = workshop.python(__file__, "threads", str(rounds), site=site, wrapper=("setarch", "-R"), variables=plain)
    wrong = [] if done.returncode == 0 else [f"ended with {done.returncode}: {done.stderr[-500:]}"]
    name = f"sanitizers: {THREADS} threads, {rounds} rounds under ThreadSanitizer"
    yield Result(name, int(done.stdout or 0), wrong + [r for r in read_reports(reports) if "agent_onboarding" in r])


def run(workshop: Workshop) -> Iterator[Result]:
    for method in (address, memory, race):
        yield from method(workshop)


# -- The children, beside one sanitizer each


def check_leaks() -> None:
    """What nobody can reach any more after the calls of the exercise is reported by the sanitizer."""
    from proof.exercise import CALLS

    for call in (*CALLS.values(), *CALLS.values()):
        call()
    print(2 * len(CALLS), flush=True)
    ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
    os._exit(0)  # at the end the interpreter gives up much that is still known to be reachable


def in_threads(rounds: int) -> None:
    """Calls of all kinds from many threads; each must come to what it comes to alone."""
    m = importlib.import_module("corvane.agent_onboarding")
    sys.setswitchinterval(1e-6)
    wrong: list[str] = []
    done = [0] * THREADS

    def work(number: int, home: str) -> None:
        heartbeat = Path(home, "HEARTBEAT.md")
        Path(home, "manifest.json").write_text('{"files": {"a.so": {"kind": "runtime_module:a", "sha256": "1"}}}')
        for turn in range(rounds):
            key = f"{number:02x}{turn % 256:02x}" * 16
            m._write_wallet_key(home, key)
            heartbeat.write_text("x")
            m.inject_heartbeat(home)
            m.configure(named_universe=f"u{number}", auto_heartbeat=True)
            try:
                m.configure(colour=number)
            except ValueError as exc:
                text = m._exception_chain_detail(exc)
            seen = (
                m._read_wallet_key(home) == key,
                heartbeat.read_text().endswith(m._HEARTBEAT_STATIC_SECTION),
                text.startswith("ValueError: Unknown configuration option: 'colour'"),
                [name for name, *_ in m._runtime_module_manifest_entries(m._read_manifest(home))] == ["a"],
                len(m._sha256_file(str(heartbeat))) == 64,
                m._active_era_named_universe_candidates({"universes": [{"id": key}, "b"]}) == [key, "b"],
                m.create_runtime_freshness_guard(home) is not None,
                m._normalize_key(key) == "0x" + key,
                m._LocalRuntimeSyncManager(key).get_manifest() == key,
            )
            wrong.extend(f"thread {number}, turn {turn}: {i}" for i, good in enumerate(seen) if not good)
            done[number] += len(seen) + 5

    with tempfile.TemporaryDirectory() as folder:
        homes = [tempfile.mkdtemp(dir=folder) for _ in range(THREADS)]
        before = len(os.listdir("/proc/self/fd"))
        threads = [threading.Thread(target=work, args=pair) for pair in enumerate(homes)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if len(os.listdir("/proc/self/fd")) != before:
            wrong.append("a descriptor is left open")
    if any(turns != done[0] or not turns for turns in done):
        wrong.append("a thread has ended early")
    print(sum(done), flush=True)
    if wrong:
        raise SystemExit("\n".join(wrong[:5]))


if __name__ == "__main__":
    check_leaks() if sys.argv[1] == "leaks" else in_threads(int(sys.argv[2]))

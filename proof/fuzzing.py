"""Coverage-guided fuzzing of files and answers from outside: only stated errors, and the same as the Python twin."""

import contextlib
import importlib
import json
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import types
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from proof.coverage import build, measured
from proof.workshop import Missing, Result, Workshop

RUNS, QUICK_RUNS, SECONDS = 100_000, 2_000, 300
ENTRY = {"kind": "runtime_module:backtester", "sha256": "0" * 64, "platform": ""}
ERA = {"state": "active", "named_universe": "us", "signal_pools": [{"allowed_named_universes": ["us"]}]}
# By target: the functions whose lines are counted, inputs to begin with, words to build others from.
TARGETS: dict[str, tuple[str, list[str], str]] = {
    "manifest": (
        "read_manifest manifest_files sorted_manifest_pairs next_manifest_entry select_runtime_module_manifest_entry",
        [
            json.dumps({"era_id": 1, "files": {"b": ENTRY, "a": {"kind": "runtime_module:vault"}, "c": 5}}),
            json.dumps({"files": {"b": {**ENTRY, "platform": "else"}, "a": {"kind": 7}}}),
            *('{"files": []}', "[]"),
        ],
        '"files" "kind" "runtime_module:" "vault" "platform" null [] {} , : 1e999',
    ),
    "eras": (
        "fetch_eras_payload safe_named_universe append_unique_named_universe append_allowed_named_universes "
        "active_era_named_universe_candidates resolve_active_named_universe append_universe is_active only_one",
        [
            json.dumps({"eras": [ERA]}),
            json.dumps({"eras": [{"state": "active", "universes": {"b": 1}}, {"state": 1}, 5]}),
            json.dumps(
                {"eras": [{"state": "active", "universes": [{"id": "x"}, "y"], "allowed_named_universes": ["z"]}]}
            ),
            *('{"eras": 1}', "[]"),
        ],
        '"eras" "state" "active" "universes" "named_universe" "id" "name" "signal_pools" ".." null [] {} ,',
    ),
    "key": (
        "read_wallet_key normalize_key",
        ["5a" * 32 + "\n", "0x" + "5A" * 32, ""],
        "0x 0X \\x0a \\xff \\xef\\xbb\\xbf",
    ),
    "heartbeat": (
        "inject_heartbeat update_nudge append_nudge read_text rewrite_text",
        ["", "# Mine\n", "a\r\nb\rc", "x\n## [Corvane] Search Monitoring\n"],
        "## [Corvane] \\x0d\\x0a \\x0a \\xff First signal found!",
    ),
    "configure": (
        "configure configure_option checked_named_universe",
        ["auto_heartbeat=b1", "data_dir=sd\ncolour=i1", "server_url=shttps://x/", "named_universe=s us ", "data_dir=s"],
        "auto_heartbeat=b data_dir=s server_url=shttp://127.0.0.1 named_universe=s .. / \\x5c \\x00 \\x0a",
    ),
}
STATED: dict[str, tuple[type[Exception], ...]] = {
    # ValueError: no JSON, no UTF-8, a number of more than 4,300 digits; AttributeError: JSON, but no object
    "manifest": (ValueError, AttributeError, RecursionError),
    "eras": (RuntimeError, RecursionError, ValueError),
    "key": (UnicodeDecodeError,),
    "heartbeat": (),
    "configure": (ValueError,),
}


# -- In the interpreter inside the fuzzer


def outcome(act: Callable[[], object], stated: tuple[type[Exception], ...]) -> str:
    try:
        return repr(act())
    except stated as exc:
        return f"{type(exc).__name__}: {exc} from {exc.__cause__!r}"


def given(data: bytes) -> dict[str, Any]:
    """Lines of an option, `=`, a letter for the type, and the value."""
    lines = [line.partition("=") for line in data.decode("utf-8", "surrogateescape").split("\n")]
    kinds: dict[str, Callable[[str], object]] = {"b": bool, "i": len, "n": lambda text: None, "l": list}
    return {key: kinds.get(value[:1], str)(value[1:]) for key, _, value in lines}


def checker(target: str, folder: str) -> Callable[[bytes], None]:
    """The function that holds the extension beside its twin on one input."""
    native: Any = importlib.import_module("corvane.agent_onboarding")
    twin: Any = importlib.import_module("twin")
    for name in ("_HEARTBEAT_STATIC_SECTION", "_NUDGE_TEXTS"):
        setattr(twin, name, getattr(native, name))
    native.logger.disabled = True
    os.chdir(folder)
    manager = types.SimpleNamespace(get_token=lambda: "token")
    defaults = dict(native._config)

    def manifest(m: Any, data: bytes) -> object:
        Path("manifest.json").write_bytes(data)
        read = m._read_manifest(".")
        entries = list(m._runtime_module_manifest_entries(read))
        return read, entries, m._select_runtime_module_manifest_entry(read, "era_data")

    def eras(m: Any, data: bytes) -> object:
        response = types.SimpleNamespace(status=200, read=lambda: data)
        m.urllib.request.urlopen = lambda *args, **kwargs: contextlib.nullcontext(response)
        return m._resolve_active_named_universe(manager), m._config

    def key(m: Any, data: bytes) -> object:
        Path("wallet.key").write_bytes(data)
        return m._normalize_key(m._read_wallet_key("."))

    def heartbeat(m: Any, data: bytes) -> object:
        path = Path("HEARTBEAT.md")
        path.write_bytes(data)
        m.inject_heartbeat(".")
        m.update_nudge("first_signal")
        after = path.read_bytes()
        with contextlib.suppress(UnicodeDecodeError):
            text = data.decode().replace("\r\n", "\n").replace("\r", "\n")
            assert after.decode().startswith(text), "text of the file was lost"
        return after

    def configure(m: Any, data: bytes) -> object:
        try:
            return m.configure(**given(data))
        finally:
            states.append(dict(m._config))

    act = locals()[target]
    states: list[object] = []

    def check(data: bytes) -> None:
        seen = []
        for m in (twin, native):
            m._config = dict(defaults)
            seen.append(outcome(lambda m=m: act(m, data), STATED[target]))  # type: ignore[misc]
        assert seen[0] == seen[1], seen
        assert len(states) == 0 or states[0] == states[1], states
        states.clear()

    return check


def replay(target: str, corpus: str) -> None:
    """The inputs that the fuzzer kept, once more, in an interpreter whose extension counts its lines."""
    with tempfile.TemporaryDirectory() as folder:
        check = checker(target, folder)
        for path in sorted(Path(corpus).iterdir()):
            check(path.read_bytes())


# -- Outside


def fuzzer(workshop: Workshop) -> tuple[Path, Path]:
    """The program and the extension for it."""
    compiler = workshop.tool("clang++-16", "clang-16 libclang-rt-16-dev")
    # Its warnings differ from those of the compiler that the extension is written for.
    site = workshop.build(
        "fuzz", f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_CXX_FLAGS=-w", "-DSANITIZE=fuzzer-no-link,address"
    )
    program = workshop.folder / "fuzz" / "fuzz_target"
    library = Path(sysconfig.get_config_var("LIBDIR"))
    command = [compiler, "-std=c++20", "-O1", "-g", "-fsanitize=fuzzer,address", "-Wl,--export-dynamic"]
    command += [f"-I{sysconfig.get_path('include')}", f"-L{library}", f"-Wl,-rpath,{library}", "-o", str(program)]
    command += [str(workshop.root / "proof" / "fuzz_target.cpp"), f"-lpython{sysconfig.get_python_version()}"]
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise Missing(f"the fuzzer cannot be linked: {done.stderr[-1000:]}")
    return program, site


def reason(text: str) -> str:
    """The line of Python's or the sanitizer's report that says what is wrong, and where the input lies."""
    return " ".join(re.findall(r"^(?:\w*(?:Error|Exception|Interrupt)\b.*|SUMMARY.*|artifact_prefix.*)", text, re.M))[
        -1500:
    ]


def fuzz(workshop: Workshop, program: Path, site: Path, target: str) -> tuple[int, list[str], Path]:
    """Executions, findings and the folder of the inputs that found something new."""
    _, seeds, words = TARGETS[target]
    work, corpus = workshop.folder / "fuzz" / target, workshop.folder / "fuzz" / f"{target}-corpus"
    for folder in (work, corpus):
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
    for number, seed in enumerate(seeds):
        (corpus / f"seed-{number}").write_text(seed)
    quoted = [word.replace('"', '\\"') for word in words.split(" ")]
    (work / "words").write_text("".join(f'"{word}"\n' for word in quoted))
    runs = QUICK_RUNS if workshop.quick else RUNS
    options = [
        f"-runs={runs}",
        f"-max_total_time={SECONDS}",
        "-max_len=2048",
        "-timeout=20",
        "-seed=1",
        "-detect_leaks=0",
    ]
    command = [
        str(program),
        *options,
        "-print_final_stats=1",
        f"-dict={work}/words",
        f"-artifact_prefix={work}/",
        str(corpus),
    ]
    path = ":".join(map(str, (site, workshop.root, workshop.root / "tests")))
    with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as folder_:
        environment = {**os.environ, "PYTHONPATH": path, "FUZZ_PYTHON": sys.executable, "FUZZ_TARGET": target}
        environment |= {
            "FUZZ_DIR": folder_,
            "PYTHONMALLOC": "malloc",
            "PYTHONSAFEPATH": "1",
            "ASAN_OPTIONS": "detect_leaks=0:malloc_context_size=1",
        }
        done = subprocess.run(command, env=environment, capture_output=True, text=True, errors="replace")
    found = re.search(r"number_of_executed_units: (\d+)", done.stderr)
    executed = int(found[1]) if found else 0
    findings = [] if done.returncode == 0 else [f"{target}: {reason(done.stderr)}"]
    if executed < runs and not findings:
        findings = [f"{target}: only {executed:,} executions in {SECONDS} s, {runs:,} wanted"]
    return executed, findings, corpus


def share_of_lines(workshop: Workshop, site: Path, target: str, corpus: Path) -> float:
    """Per cent of the lines of the target's functions that the kept inputs reach."""
    counts = workshop.folder / "fuzz" / f"{target}-counts"
    shutil.rmtree(counts, ignore_errors=True)
    done = workshop.python(__file__, target, str(corpus), site=site, GCOV_PREFIX=str(counts))
    if done.returncode != 0:
        raise RuntimeError(done.stderr[-1000:])
    built = workshop.folder / "coverage"
    beside = counts / built.relative_to("/")
    for path in built.rglob("agent_onboarding.dir/**/*.gcno"):  # which gcov looks for beside the counts
        shutil.copy(path, beside / path.relative_to(built))
    names = [f"::{name}(" for name in TARGETS[target][0].split()]
    lines = [line for line in measured(workshop, beside) if any(name in line["function"] for name in names)]
    return 100 * sum(int(line["count"] > 0) for line in lines) / len(lines)


def run(workshop: Workshop) -> Iterator[Result]:
    program, site = fuzzer(workshop)
    with ThreadPoolExecutor(2) as pool:
        runs = {target: pool.submit(fuzz, workshop, program, site, target) for target in TARGETS}
    counting = build(workshop)
    for target, ended in runs.items():
        executed, findings, corpus = ended.result()
        share = share_of_lines(workshop, counting, target, corpus)
        yield Result(f"fuzzing: {target}, executions; {share:.0f} % of its lines", executed, findings)


if __name__ == "__main__":
    replay(*sys.argv[1:])

"""Coverage-guided fuzzing of files and answers from outside: only stated errors, and the same as the Python twin.

As a script it is the fuzzer of one target: libFuzzer, which the proof preloads, calls back for each input.
"""

import contextlib
import ctypes
import importlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import traceback
import types
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from proof.workshop import Missing, Result, Workshop, side_by_side

RUNS, QUICK_RUNS, SECONDS, FEWEST_EDGES = 100_000, 2_000, 600, 100
# By target: what may be raised, and inputs to begin with; their words are what others are built from.
TARGETS: dict[str, tuple[tuple[type[Exception], ...], tuple[str, ...]]] = {
    # ValueError: no JSON, no UTF-8, a number of more than 4,300 digits; AttributeError: JSON, but no object
    "manifest": (
        (ValueError, AttributeError, RecursionError),
        (
            '{"era_id": 1e999, "files": {"b": {"kind": "runtime_module:era_data", "sha256": "00", "platform": ""}}}',
            '{"files": {"a": {"kind": "runtime_module:vault"}, "c": 5, "d": {"kind": 7}, "e": {"platform": "else"}}}',
            '{"files": []}',
        ),
    ),
    "eras": (
        (RuntimeError, RecursionError, ValueError),
        (
            '{"eras": [{"state": "active", "named_universe": "u", "signal_pools": [{"allowed_named_universes": []}]}]}',
            '{"eras": [{"state": "active", "universes": {"b": 1}}, {"state": 1}, 5]}',
            '{"eras": [{"state": "active", "universes": [{"id": "x"}, {"name": "y"}], "named_universe": null}]}',
        ),
    ),
    "key": ((UnicodeDecodeError,), ("5a" * 32 + "\n", "0x" + "5A" * 32, "0X\ufeff", "")),
    "heartbeat": ((), ("", "# Mine\n", "a\r\nb\rc", "x\n## [Corvane] Search Monitoring\n", "First signal found!")),
    "configure": (
        (ValueError,),
        (
            '{"auto_heartbeat": true, "data_dir": "e", "colour": 1}',
            '{"server_url": "https://x/", "named_universe": " us "}',
            '{"server_url": "http://127.0.0.1", "named_universe": "..", "data_dir": "\\u0000"}',
        ),
    ),
}


# -- In the interpreter inside the fuzzer


def checker(target: str) -> Callable[[bytes], None]:
    """The function that holds the extension beside its twin on one input."""
    native: Any = importlib.import_module("corvane.agent_onboarding")
    twin: Any = importlib.import_module("twin")
    for name in ("_HEARTBEAT_STATIC_SECTION", "_NUDGE_TEXTS"):
        setattr(twin, name, getattr(native, name))
    native.logger.disabled = True
    defaults = dict(native._config)

    def manifest(m: Any, data: bytes) -> object:
        Path("manifest.json").write_bytes(data)
        read = m._read_manifest(".")
        entries = list(m._runtime_module_manifest_entries(read))
        return read, entries, m._select_runtime_module_manifest_entry(read, "era_data")

    def eras(m: Any, data: bytes) -> object:
        response = types.SimpleNamespace(status=200, read=lambda: data)
        m.urllib.request.urlopen = lambda *args, **kwargs: contextlib.nullcontext(response)
        return m._resolve_active_named_universe(types.SimpleNamespace(get_token=lambda: "token"))

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
        options = json.loads(data)
        return m.configure(**options) if isinstance(options, dict) else None

    act, stated = locals()[target], TARGETS[target][0]

    def outcome(m: Any, data: bytes) -> tuple[str, object]:
        m._config = dict(defaults)
        try:
            return repr(act(m, data)), m._config
        except stated as exc:
            return f"{type(exc).__name__}: {exc} from {exc.__cause__!r}", m._config

    def check(data: bytes) -> None:
        expected, seen = outcome(twin, data), outcome(native, data)
        assert seen == expected, f"{seen}, but in plain Python {expected}"

    return check


def main(target: str, *options: str) -> None:
    """Fuzzes; any exception of the checker ends the process, and libFuzzer keeps the input."""
    arguments = [b"fuzzer", *map(os.fsencode, options)]
    array = (ctypes.c_char_p * (len(arguments) + 1))(*arguments)
    with tempfile.TemporaryDirectory() as folder, contextlib.chdir(folder):
        check = checker(target)

        def one(data: int, size: int) -> int:
            try:
                check(ctypes.string_at(data, size) if size else b"")
            except BaseException:
                traceback.print_exc()
                os.abort()
            return 0

        called = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t)(one)
        count, pointer = ctypes.c_int(len(arguments)), ctypes.cast(array, ctypes.POINTER(ctypes.c_char_p))
        ctypes.CDLL(None).LLVMFuzzerRunDriver(ctypes.byref(count), ctypes.byref(pointer), called)


# -- Outside


def fuzzer(workshop: Workshop) -> tuple[Path, str]:
    """The build of the extension, and the libraries to preload."""
    compiler = workshop.tool("clang++-16", "clang-16 libclang-rt-16-dev")
    # Its warnings differ from those of the compiler that the extension is written for.
    options = f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_CXX_FLAGS=-w", "-DSANITIZE=fuzzer-no-link,address"
    site = workshop.build("fuzz", *options)
    done = subprocess.run([compiler, "--print-runtime-dir"], capture_output=True, text=True, check=True)
    parts, library = Path(done.stdout.strip()), workshop.folder / "fuzz" / "libfuzzer.so"
    whole = ["-Wl,--whole-archive", f"{parts}/libclang_rt.fuzzer_no_main-x86_64.a", "-Wl,--no-whole-archive"]
    done = subprocess.run([compiler, "-shared", "-o", library, *whole], capture_output=True, text=True)
    if done.returncode != 0:
        raise Missing(f"the fuzzer cannot be linked: {done.stderr[-1000:]}")
    return site, f"{library} {parts}/libclang_rt.asan-x86_64.so"  # whose empty counters would come first


def fuzz(workshop: Workshop, site: Path, preload: str, target: str) -> Result:
    seeds = TARGETS[target][1]
    work, corpus = workshop.folder / "fuzz" / target, workshop.folder / "fuzz" / target / "corpus"
    shutil.rmtree(work, ignore_errors=True)
    corpus.mkdir(parents=True)
    for number, seed in enumerate(seeds):
        (corpus / f"seed-{number}").write_text(seed)
    words = dict.fromkeys(re.findall(r"\w+|\W", " ".join(seeds)))
    escaped = ("".join(f"\\x{byte:02x}" for byte in word.encode()) for word in words)
    (work / "words").write_text("".join(f'"{word}"\n' for word in escaped))
    runs = QUICK_RUNS if workshop.quick else RUNS
    options = [f"-runs={runs}", f"-max_total_time={SECONDS}", "-max_len=2048", "-timeout=20", "-seed=1"]
    options += ["-detect_leaks=0", "-print_final_stats=1", f"-dict={work}/words", f"-artifact_prefix={work}/"]
    variables = {
        "LD_PRELOAD": preload,
        "PYTHONMALLOC": "malloc",
        "ASAN_OPTIONS": "detect_leaks=0:malloc_context_size=1:verify_asan_link_order=0",
        **({"TMPDIR": "/dev/shm"} if os.access("/dev/shm", os.W_OK) else {}),
    }
    done = workshop.python("-m", "proof.fuzzing", target, *options, str(corpus), site=site, variables=variables)
    # The lines of Python's or the sanitizer's report that say what is wrong, and where the input lies.
    said = re.findall(r"^(?:\w*(?:Error|Exception|Interrupt)\b.*|SUMMARY.*|artifact_prefix.*)", done.stderr, re.M)
    findings = [] if done.returncode == 0 else [f"ended with {done.returncode}: {' '.join(said)[-1500:]}"]
    executed = max(map(int, re.findall(r"number_of_executed_units: (\d+)", done.stderr)), default=0)
    edges = max(map(int, re.findall(r" cov: (\d+)", done.stderr)), default=0)
    if executed < runs and not findings:
        findings = [f"only {executed:,} executions in {SECONDS} s, {runs:,} wanted"]
    if edges < FEWEST_EDGES:
        findings.append(f"only {edges} edges of the extension reached")
    return Result(f"fuzzing: {target}, executions; {edges:,} edges reached", executed, findings)


def run(workshop: Workshop) -> Iterator[Result]:
    site, preload = fuzzer(workshop)
    yield from side_by_side(lambda target: fuzz(workshop, site, preload, target), TARGETS)


if __name__ == "__main__":
    main(*sys.argv[1:])

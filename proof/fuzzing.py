"""libFuzzer on files and answers from outside: only stated errors, and the same as the plain Python twin."""

import contextlib
import ctypes
import importlib
import os
import re
import shutil
import subprocess
import tempfile
import traceback
import types
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from proof.workshop import IN_MEMORY, Missing, Result, Variables, Workshop, side_by_side


def manifest(m: Any, data: bytes) -> object:
    Path("manifest.json").write_bytes(data)
    read = m._read_manifest(".")
    entries = list(m._runtime_module_manifest_entries(read))
    return read, entries, m._select_runtime_module_manifest_entry(read, "era_data")


def eras(m: Any, data: bytes) -> object:
    response = types.SimpleNamespace(status=200, read=lambda: data)
    m.urllib.request.urlopen = lambda *args, **kwargs: contextlib.nullcontext(response)
    return m._resolve_active_named_universe(types.SimpleNamespace(get_token=lambda: "token"))


def heartbeat(m: Any, data: bytes) -> object:
    (path := Path("HEARTBEAT.md")).write_bytes(data)
    m.inject_heartbeat(".")
    m.update_nudge("first_signal")
    after = path.read_bytes()
    with contextlib.suppress(UnicodeDecodeError):
        text = data.decode().replace("\r\n", "\n").replace("\r", "\n")
        assert after.decode().startswith(text), "text of the file was lost"
    return after


# What reads it; what it may raise; what fuzzing begins with. ValueError: not JSON, not UTF-8, a number of more than
# 4,300 digits; AttributeError: JSON, but not an object.
TARGETS: dict[Callable[[Any, bytes], object], tuple[tuple[type[Exception], ...], str]] = {
    manifest: (
        (ValueError, AttributeError, RecursionError),
        '{"era_id": 1e999, "files": {"b": {"kind": "runtime_module:era_data", "sha256": "0", "platform": ""}}}',
    ),
    eras: (
        (RuntimeError, ValueError),
        '{"eras": [{"state": "active", "universes": [{"id": "x", "name": 1}], "named_universe": "u",'
        '"signal_pools": [{"allowed_named_universes": []}]}]}',
    ),
    heartbeat: ((), "# Mine\r\nb\rc\n## [Corvane] Search Monitoring\nFirst signal found!"),
}


def execute(target: str, *options: str) -> None:
    """libFuzzer, which is preloaded, keeps the input on which the extension does not come to the same as its twin."""
    native: Any = importlib.import_module("corvane.agent_onboarding")
    twin: Any = importlib.import_module("support.twin")
    native.logger.disabled = True
    act, defaults = globals()[target], dict(native._config)

    def outcome(m: Any, data: bytes) -> tuple[str, object]:
        m._config = dict(defaults)
        try:
            return repr(act(m, data)), m._config
        except TARGETS[act][0] as exc:
            return f"{type(exc).__name__}: {exc} from {exc.__cause__!r}", m._config

    def check(data: int, size: int) -> int:
        try:
            text = ctypes.string_at(data, size) if size else b""
            expected, seen = outcome(twin, text), outcome(native, text)
            assert seen == expected, f"{seen}, but in plain Python {expected}"
        except BaseException:
            traceback.print_exc()
            os.abort()
        return 0

    arguments = (ctypes.c_char_p * (len(options) + 2))(b"fuzzer", *map(os.fsencode, options))
    called = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t)(check)
    count, pointer = ctypes.c_int(len(options) + 1), ctypes.cast(arguments, ctypes.POINTER(ctypes.c_char_p))
    with tempfile.TemporaryDirectory() as folder, contextlib.chdir(folder):
        ctypes.CDLL(None).LLVMFuzzerRunDriver(ctypes.byref(count), ctypes.byref(pointer), called)


def clang(folder: str) -> tuple[str, str]:
    """The newest clang that comes with all that is needed, and what to preload of it."""
    library = f"{folder}/libfuzzer.so"
    for command in filter(shutil.which, (f"clang++-{version}" for version in range(30, 14, -1))):
        parts = subprocess.getoutput(f"{command} --print-runtime-dir")
        whole = ["-Wl,--whole-archive", f"{parts}/libclang_rt.fuzzer_no_main-x86_64.a", "-Wl,--no-whole-archive"]
        linked = subprocess.run([command, "-shared", "-o", library, *whole], capture_output=True)
        if linked.returncode == 0 and Path(asan := f"{parts}/libclang_rt.asan-x86_64.so").exists():
            return command, f"{library} {asan}"  # the sanitizer's empty counters would come first
    raise Missing("no clang++-15 or newer links with its fuzzer: sudo apt-get install clang-16 libclang-rt-16-dev")


def fuzz(workshop: Workshop, site: Variables, target: str, seed: str) -> Result:
    """Begins with the seed, and its words; what the inputs of the last run were is forgotten."""
    work, runs = workshop.folder / "fuzz" / target, 2_000 if workshop.quick else 100_000
    shutil.rmtree(work, ignore_errors=True)
    (corpus := work / "corpus").mkdir(parents=True)
    (corpus / "seed").write_text(seed)
    (work / "words").write_text("".join(f'"{word}"\n' for word in re.findall(r"\w+", seed)))
    fixed = f"-runs={runs} -max_total_time=600 -max_len=2048 -timeout=20 -seed=1 -detect_leaks=0 -print_final_stats=1"
    options = [target, *fixed.split(), f"-dict={work}/words", f"-artifact_prefix={work}/", str(corpus)]
    done = workshop.python("-c", f"from proof.fuzzing import execute; execute(*{options})", variables=site)
    executed = max(map(int, re.findall(r"number_of_executed_units: (\d+)", done.stderr)), default=0)
    edges = [int(count) for count in re.findall(r" cov: (\d+)", done.stderr)] or [0]
    good = done.returncode == 0 and executed >= runs
    findings = [] if good else [f"ended with {done.returncode} after {executed:,} executions: {done.stderr[-3000:]}"]
    findings += ["what it makes up reaches nothing new"] if edges[-1] <= edges[0] else []
    return Result(f"fuzzing: {target}; {edges[0]} edges by its seed, {edges[-1]} in the end", executed, findings)


def fuzzing(workshop: Workshop) -> Iterator[Result]:
    with tempfile.TemporaryDirectory() as folder:  # LD_PRELOAD ends a path at a blank, which the checkout's can have
        compiler, preloaded = clang(folder)
        # Its warnings differ from those of the compiler that the extension is written for.
        options = f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_CXX_FLAGS=-w", "-DSANITIZE=fuzzer-no-link,address"
        sanitizer = {"ASAN_OPTIONS": "detect_leaks=0:malloc_context_size=1:verify_asan_link_order=0", **IN_MEMORY}
        site = workshop.build(f"fuzz-{compiler}", *options)
        site = {**site, **sanitizer, "LD_PRELOAD": preloaded, "PYTHONMALLOC": "malloc"}
        yield from side_by_side(lambda one: fuzz(workshop, site, one[0].__name__, one[1][1]), TARGETS.items())

"""What the methods of proof share: results, tools, builds, interpreters, forked children."""

import faulthandler
import json
import os
import re
import shutil
import signal
import subprocess
import sys
from collections.abc import Callable, Iterable, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, NamedTuple

import corvane

PACKAGES = {"c++": "g++", "setarch": "util-linux"}  # where the command is not their name
# Where a million files are made faster.
IN_MEMORY = {"TMPDIR": "/dev/shm"} if os.access("/dev/shm", os.W_OK) else {}


class Missing(Exception):
    """A tool that a proof needs is not there."""


class Result(NamedTuple):
    """What was looked at, in how many points, and what was found there."""

    what: str
    points: int
    findings: Sequence[str] = ()


class Workshop:
    """Builds and tools, kept below build/proof; `quick` if only what takes seconds is wanted."""

    def __init__(self, quick: bool) -> None:
        self.quick = quick
        self.root = Path(__file__).parents[1]
        self.folder = self.root / "build" / "proof"
        self.folder.mkdir(parents=True, exist_ok=True)

    def tool(self, command: str) -> str:
        """The path of a command."""
        if path := shutil.which(command):
            return path
        raise Missing(f"{command} is not installed: sudo apt-get install {PACKAGES.get(command, command)}")

    def build(self, name: str, *options: str, source: Path | None = None) -> dict[str, str]:
        """The variables with which the kit has another extension, built with these CMake options."""
        built, site = self.folder / name, self.folder / f"{name}-site"
        cmake = str(Path(sys.executable).with_name("cmake"))
        where = "-S", str(source or self.root), "-B", str(built), f"-DPython_EXECUTABLE={sys.executable}"
        for command in ((*where, *options), ("--build", str(built), "-j2")):
            done = subprocess.run([cmake, *command], capture_output=True, text=True)
            if done.returncode != 0:
                raise RuntimeError(f"build {name} failed: {done.stdout[-2000:]}{done.stderr[-8000:]}")
        shutil.rmtree(site, ignore_errors=True)
        ignored = shutil.ignore_patterns("agent_onboarding*.so", "__pycache__")
        shutil.copytree(Path(corvane.__path__[0]), site / "corvane", ignore=ignored)
        [extension] = built.glob("agent_onboarding*.so")
        shutil.copy(extension, site / "corvane")
        return {"PYTHONPATH": f"{site}:{self.root}:{self.root}/tests"}

    def python(
        self, *arguments: str, wrapper: Sequence[str] = (), **variables: str
    ) -> subprocess.CompletedProcess[str]:
        """Runs an interpreter, with more environment variables."""
        full = {**os.environ, "PYTHONPATH": f"{self.root}:{self.root}/tests", **variables}
        command = [*wrapper, sys.executable, "-P", *arguments]
        return subprocess.run(command, env=full, capture_output=True, text=True, timeout=1200, cwd=self.folder)

    def answer(self, function: str, *arguments: Any, **how: Any) -> Any:
        """What a function, such as "leaks.grown", returns in an interpreter of its own."""
        method, name = function.split(".")
        text = f"import json; from proof.{method} import {name}; print(json.dumps({name}(*{arguments!r})))"
        done = self.python("-c", text, **how)
        if done.returncode != 0:
            raise RuntimeError(f"{function}{arguments} ended with {done.returncode}: {done.stderr[-20000:]}")
        return json.loads(done.stdout)

    def groups(self) -> list[str]:
        """The test files that use the extension and have no builds of their own."""
        names = {path.stem.removeprefix("test_") for path in (self.root / "tests").glob("test_*.py")}
        return sorted(names - {"docs", "proof", "wheel"})

    def pytest(self, *groups: str) -> list[str]:
        """The command that runs these test files of the module until one fails."""
        options = "-c", f"{self.root}/pyproject.toml", "-p", "no:cacheprovider", "-x", "--tb=line"
        files = [f"{self.root}/tests/test_{name}.py" for name in groups]
        return [sys.executable, "-P", "-m", "pytest", *options, *files]

    def tests(self, *groups: str, **variables: str) -> tuple[int, list[str]]:
        """How many tests of these files pass, and what pytest has to complain about."""
        done = side_by_side(lambda group: self.python(*self.pytest(group)[2:], **variables), groups)
        passed = [int(found[1]) for one in done if (found := re.search(r"^(\d+) passed", one.stdout, re.M))]
        wrong = [one.stdout[-1500:] + one.stderr[-500:] for one in done if one.returncode]
        return sum(passed), wrong + ["some files have no tests"] * (len(passed) + len(wrong) < len(groups))


def side_by_side[Item, Answer](act: Callable[[Item], Answer], items: Iterable[Item]) -> list[Answer]:
    """What act returns for each item, on all processors."""
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(act, items))


def in_children(acts: Iterable[Callable[[], Iterable[Any]]], seconds: int = 60) -> list[list[Any]]:
    """What each act yields, fit for JSON, in a forked child of its own; last, as a text, how one ended too early."""
    running = []
    for act in acts:
        said = os.memfd_create("said")
        if (pid := os.fork()) == 0:
            faulthandler.enable(said)
            faulthandler.register(signal.SIGALRM, said, chain=True)
            try:
                signal.alarm(seconds)
                for item in act():
                    os.write(said, json.dumps(item).encode() + b"\0")
                    signal.alarm(seconds)
                os._exit(0)
            except BaseException as exc:
                os.write(said, f"{type(exc).__name__}: {exc}".encode(errors="replace"))
            os._exit(1)
        running.append((pid, said))
    answers = []
    for pid, said in running:
        status = os.waitpid(pid, 0)[1]
        with open(said, errors="replace") as text:
            text.seek(0)
            *items, last = text.read().split("\0")
        early = [f"ended with status {status}: {last}"] if status else []
        answers.append([json.loads(item) for item in items] + early)
    return answers


def descriptors() -> int:
    """How many are open."""
    return len(os.listdir("/proc/self/fd"))

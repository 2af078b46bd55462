"""What the methods of proof share: results, tools, builds, interpreters, forked children."""

import contextlib
import faulthandler
import itertools
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from types import MappingProxyType
from typing import Any, NamedTuple

import corvane

PACKAGES = {"setarch": "util-linux"}  # where the command is not their name
IN_MEMORY = {"TMPDIR": "/dev/shm"} if os.access("/dev/shm", os.W_OK) else {}  # where a million files are made faster
Variables = Mapping[str, str]  # of the environment
Done = subprocess.CompletedProcess[str]


class Missing(Exception):
    """A tool that a proof needs is not there."""


class Result(NamedTuple):
    """What was looked at, in how many points, what was found there, and how many of the points were special."""

    what: str
    points: int
    findings: Sequence[str] = ()
    of_these: Mapping[str, int] = MappingProxyType({})


class Workshop:
    """Builds and tools, kept below build/proof; `quick` if only what takes seconds is wanted."""

    def __init__(self, quick: bool) -> None:
        self.quick = quick
        self.root = Path(__file__).parents[1]
        self.folder = self.root / "build" / "proof"
        self.folder.mkdir(parents=True, exist_ok=True)

    def sample[Item](self, items: Iterable[Item], step: int) -> list[Item]:
        """All of them, or one in so many if only what takes seconds is wanted."""
        return list(items)[:: step if self.quick else 1]

    def tool(self, command: str) -> str:
        """The path of a command."""
        if path := shutil.which(command):
            return path
        raise Missing(f"{command} is not installed: sudo apt-get install {PACKAGES.get(command, command)}")

    def build(self, name: str, *options: str, root: Path | None = None) -> Variables:
        """Those with which the kit has another extension, built with these CMake options."""
        built, site, root = self.folder / name, self.folder / f"{name}-site", root or self.root
        cmake = str(Path(sys.executable).with_name("cmake"))
        where = "-S", str(root), "-B", str(built), f"-DPython_EXECUTABLE={sys.executable}"
        for command in (*where, *options), ("--build", str(built), "-j2"):
            done = subprocess.run([cmake, *command], capture_output=True, text=True)
            if done.returncode != 0:
                raise RuntimeError(f"build {name} failed: {done.stdout[-2000:]}{done.stderr[-8000:]}")
        shutil.rmtree(site, ignore_errors=True)
        ignored = shutil.ignore_patterns("agent_onboarding*.so", "__pycache__")
        shutil.copytree(Path(corvane.__path__[0]), site / "corvane", ignore=ignored)
        [extension] = built.glob("agent_onboarding*.so")
        shutil.copy(extension, site / "corvane")
        return {"PYTHONPATH": f"{site}:{root}:{root}/tests"}

    def python(
        self,
        *arguments: str,
        variables: Variables = MappingProxyType({}),
        wrapper: Sequence[str] = (),
        interpreter: str = sys.executable,
        seconds: float = 1200,
    ) -> Done:
        """Runs an interpreter, with more environment variables; nothing that it starts is left behind."""
        environment = {**os.environ, "PYTHONPATH": f"{self.root}:{self.root}/tests", **variables}
        command = [*wrapper, interpreter, "-P", *arguments]
        # Files, since whoever inherits a pipe can hold it open for longer.
        with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
            how: Any = {"cwd": self.folder, "stdin": subprocess.DEVNULL, "stdout": out, "stderr": err}
            with subprocess.Popen(command, env=environment, start_new_session=True, **how) as process:
                try:
                    status = process.wait(seconds)
                finally:
                    with contextlib.suppress(ProcessLookupError):
                        os.killpg(process.pid, signal.SIGKILL)
            out.seek(0)
            err.seek(0)
            return Done(command, status, out.read(), err.read())

    def answer(self, function: str, *arguments: Any, **how: Any) -> Any:
        """What a function, such as "memory.grown", returns in an interpreter of its own."""
        method, name = function.split(".")
        text = f"import json; from proof.{method} import {name}; print(json.dumps({name}(*{arguments!r})))"
        done = self.python("-c", text, **how)
        if done.returncode != 0:
            raise RuntimeError(f"{function}{arguments} ended with {done.returncode}: {done.stderr[-20000:]}")
        return json.loads(done.stdout)

    def shared_out(self, function: str, names: Sequence[str], **how: Any) -> list[str]:
        """The texts that a function returns for names, a part of them in each interpreter."""
        parts = [part for n in range(20) if (part := names[n::20])]
        return list(itertools.chain(*side_by_side(lambda part: self.answer(function, *part, **how), parts)))

    def pytest(self, root: Path, names: str, which: str, *options: str, **how: Any) -> Done:
        """Runs test files, such as "eras surface", of a checkout, or which of their tests, until one fails."""
        # A file that is gone must not go unnoticed.
        files = [str(file) for name in names.split() for [file] in [[*root.glob(f"[lt]*/**/test_{name}.py")]]]
        fixed = "-c", f"{root}/pyproject.toml", "-p", "no:cacheprovider", "-x", "--tb=line", "-k", which
        return self.python("-m", "pytest", *fixed, *options, *files, **how)

    def tests(self, variables: Variables) -> tuple[int, list[str]]:
        """How many tests of the module pass, without those that have builds of their own, and what fails."""
        names = {path.stem.removeprefix("test_") for path in (self.root / "tests").glob("test_*.py")}
        chosen = "key_file" if self.quick else " ".join(names - {"docs", "platforms", "proof", "wheel"})
        done = self.pytest(self.root, chosen, "", "-nauto", "--dist=loadfile", variables=variables)
        passed = re.search(r"^(\d+) passed", done.stdout, re.M)
        return int(passed[1]) if passed else 0, [done.stdout[-3000:] + done.stderr[-500:]] * (done.returncode != 0)


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

"""What the methods of proof share: results, tools, builds, interpreters, forked children."""

import faulthandler
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any


class Missing(Exception):
    """A tool that a proof needs is not there."""


@dataclass
class Result:
    """What was looked at, in how many points, and what was found there."""

    what: str
    points: int
    findings: list[str] = field(default_factory=list)
    complete: bool = True


class Workshop:
    """Builds and tools, kept below build/proof.

    Args:
        root: The checkout.
        quick: Whether only what takes seconds is wanted.
    """

    def __init__(self, root: Path, quick: bool) -> None:
        self.root = root
        self.quick = quick
        self.folder = root / "build" / "proof"
        self.folder.mkdir(parents=True, exist_ok=True)

    def tool(self, command: str, package: str) -> str:
        """The path of a command; a missing one is installed from its Debian package where that is allowed."""
        if shutil.which(command) is None and os.geteuid() == 0 and shutil.which("apt-get"):
            subprocess.run(
                ["apt-get", "install", "-qq", "-y", *package.split()], stdout=subprocess.DEVNULL, check=False
            )
        path = shutil.which(command)
        if path is None:
            raise Missing(f"{command} is not installed: sudo apt-get install {package}")
        return path

    def build(self, name: str, *options: str, source: Path | None = None) -> Path:
        """A folder to put first on PYTHONPATH: the kit with an extension of its own, built with these CMake options."""
        built, site = self.folder / name, self.folder / f"{name}-site"
        cmake = str(Path(sys.executable).with_name("cmake"))
        configure = [cmake, "-S", str(source or self.root), "-B", str(built), *options]
        configure.append(f"-DPython_EXECUTABLE={sys.executable}")
        for command in (configure, [cmake, "--build", str(built), "-j2"]):
            done = subprocess.run(command, capture_output=True, text=True)
            if done.returncode != 0:
                raise RuntimeError(f"build {name} failed: {done.stdout[-2000:]}{done.stderr[-8000:]}")
        import corvane

        shutil.rmtree(site, ignore_errors=True)
        ignored = shutil.ignore_patterns("agent_onboarding*.so", "__pycache__")
        shutil.copytree(Path(corvane.__path__[0]), site / "corvane", ignore=ignored)
        [extension] = built.glob("agent_onboarding*.so")
        shutil.copy(extension, site / "corvane")
        return site

    def python(
        self,
        *arguments: str,
        site: Path | None = None,
        wrapper: Sequence[str] = (),
        timeout: float = 1200,
        variables: Mapping[str, str] | None = None,
    ) -> subprocess.CompletedProcess[str]:
        """Runs an interpreter with more environment variables; `site` puts another build before the installed one."""
        path = [*([str(site)] if site else []), str(self.root), str(self.root / "tests")]
        full = {**os.environ, "PYTHONPATH": ":".join(path), **(variables or {})}
        command = [*wrapper, sys.executable, "-P", *arguments]
        return subprocess.run(command, env=full, capture_output=True, text=True, timeout=timeout, cwd=self.folder)

    def answer(self, method: str, *arguments: str, **how: Any) -> Any:
        """What a method of proof prints as a script, in an interpreter of its own."""
        done = self.python("-m", f"proof.{method}", *arguments, **how)
        if done.returncode != 0:
            raise RuntimeError(f"{method} {arguments} ended with {done.returncode}: {done.stderr[-2000:]}")
        return json.loads(done.stdout)

    def tests(self, names: Iterable[str], *options: str, **how: Any) -> list[str]:
        """What pytest has to complain about in these test files."""
        files = [str(self.root / "tests" / f"test_{name}.py") for name in names]
        settings = "-c", str(self.root / "pyproject.toml"), "--rootdir", str(self.root), "-p", "no:cacheprovider"
        done = self.python("-m", "pytest", *settings, "--tb=line", *options, *files, **how)
        failed = re.findall(r"^(?:FAILED|ERROR) .*", done.stdout, re.M)
        if done.returncode != 0 and not failed:
            failed = [f"pytest {names} ended with {done.returncode}: {done.stdout[-500:]}{done.stderr[-500:]}"]
        return failed

    def all_tests(self, **how: Any) -> list[str]:
        """The same of all test files but those that have builds of their own, or none."""
        names = {path.stem.removeprefix("test_") for path in (self.root / "tests").glob("test_*.py")}
        names -= {"docs", "proof", "wheel"}
        return [line for found in side_by_side(lambda name: self.tests([name], **how), sorted(names)) for line in found]

    def identity(self) -> str:
        """Digest and time of the installed extension, so that nobody proves an old build."""
        from corvane import agent_onboarding

        path = Path(str(agent_onboarding.__file__))
        built = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(path.stat().st_mtime))
        return f"sha256 {hashlib.sha256(path.read_bytes()).hexdigest()[:16]}, built {built}"


def side_by_side[Item, Answer](act: Callable[[Item], Answer], items: Iterable[Item]) -> list[Answer]:
    """What act answers for each item, on all processors."""
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(act, items))


def in_children(acts: Iterable[Callable[[], Iterable[Any]]], seconds: int = 60) -> list[list[Any]]:
    """What each act yields in a forked child of its own, all at once; last, as a text, how a child ended too early.

    Args:
        acts: What they yield must be fit for JSON.
        seconds: The longest time until an act yields its next.
    """
    running = []
    for act in acts:
        read, write = os.pipe()
        if (pid := os.fork()) == 0:
            faulthandler.enable(write)
            faulthandler.register(signal.SIGALRM, write, chain=True)
            try:
                signal.alarm(seconds)
                for item in act():
                    os.write(write, json.dumps(item).encode() + b"\0")
                    signal.alarm(seconds)
                os._exit(0)
            except BaseException as exc:
                os.write(write, f"{type(exc).__name__}: {exc}".encode(errors="replace"))
            os._exit(1)
        os.close(write)
        running.append((pid, read))
    answers = []
    for pid, read in running:
        with open(read, "rb") as pipe:
            *said, last = pipe.read().split(b"\0")
        answers.append([json.loads(item) for item in said])
        if status := os.waitpid(pid, 0)[1]:
            answers[-1].append(f"ended with status {status}: {last.decode(errors='replace')}")
    return answers


def descriptors() -> int:
    """How many are open."""
    return len(os.listdir("/proc/self/fd"))

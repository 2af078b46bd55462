"""What the methods of proof share: results, tools, instrumented builds, child processes."""

import hashlib
import os
import shutil
import subprocess
import sys
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path


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
        timeout: float = 600,
        wrapper: Sequence[str] = (),
        variables: Mapping[str, str] | None = None,
        **environment: str,
    ) -> subprocess.CompletedProcess[str]:
        """Runs an interpreter with more environment `variables`; `site` puts another build before the installed one."""
        path = [str(site)] if site else []
        full = {**os.environ, "PYTHONPATH": ":".join([*path, str(self.root), str(self.root / "tests")])}
        full |= {**(variables or {}), **environment}
        command = [*wrapper, sys.executable, "-P", *arguments]
        return subprocess.run(command, env=full, capture_output=True, text=True, timeout=timeout, cwd=self.folder)

    def identity(self) -> str:
        """Digest and time of the installed extension, so that nobody proves an old build."""
        from corvane import agent_onboarding

        path = Path(str(agent_onboarding.__file__))
        built = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(path.stat().st_mtime))
        return f"sha256 {hashlib.sha256(path.read_bytes()).hexdigest()[:16]}, built {built}"

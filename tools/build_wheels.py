"""Builds the sdist, and from it a wheel for each interpreter and processor, into dist/.

Usage: build_wheels.py [INTERPRETER]...; without one: the newest that is found of each supported version.
"""

import os
import platform
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).parents[1]
WORK, DIST = ROOT / "build" / "wheels", ROOT / "dist"
PROCESSORS = ("x86_64", "aarch64")


def run(*command: str | Path, **environment: str) -> str:
    done = subprocess.run(command, cwd=ROOT, env=os.environ | environment, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"{done.stdout}{done.stderr}make wheels: FAILED in {' '.join(map(str, command))}")
    return done.stdout.strip()


def other_processor(processor: str, compiler: str) -> dict[str, str]:
    """What makes a build that of another processor; its wheel is named by the second."""
    settings = f"-DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR={processor} -DCMAKE_CXX_COMPILER={compiler}"
    arguments = f"{os.environ.get('CMAKE_ARGS', '')} {settings}"
    return {"CMAKE_ARGS": arguments, "_PYTHON_HOST_PLATFORM": f"linux-{processor}", "CXX": compiler}


def main(interpreters: list[str]) -> None:
    for folder in (WORK, DIST):
        shutil.rmtree(folder, ignore_errors=True)
    run(sys.executable, "-m", "build", "--no-isolation", "--sdist", "--outdir", DIST, ".")
    [sdist] = DIST.iterdir()
    missing = []
    if not interpreters:
        found = subprocess.run([ROOT / "tools" / "find-python", "--all"], capture_output=True, text=True)
        interpreters, missing = found.stdout.splitlines(), found.stderr.splitlines()
    builders: dict[str, dict[str, str]] = {}
    for processor in PROCESSORS:
        compiler = f"{processor}-linux-gnu-g++"
        if processor == platform.machine():
            builders[processor] = {"CXX": run(ROOT / "tools" / "check-compiler")}
        elif shutil.which(compiler):
            builders[processor] = other_processor(processor, compiler)
        else:
            package = f"g++-{processor.replace('_', '-')}-linux-gnu"
            missing.append(f"No wheels for {processor}: there is no {compiler}; apt-get install {package}")
    for python in interpreters:
        version = run(python, ROOT / "tools" / "check_python.py", "version")
        environment = ROOT / ".venvs" / version
        run("make", "--no-print-directory", f"VENV=.venvs/{version}", f"PYTHON={python}", "build-tools")
        path = f"{environment / 'bin'}:{os.environ['PATH']}"
        for processor, settings in builders.items():
            print(f"Building for CPython {version} on {processor}.", flush=True)
            pip = (environment / "bin" / "python", "-m", "pip", "--disable-pip-version-check", "wheel")
            options = ("--no-index", "--no-build-isolation", "--no-deps")
            run(*pip, *options, "-w", WORK, sdist, PATH=path, **settings)
    for wheel in sorted(WORK.iterdir()):
        run(sys.executable, "-m", "auditwheel", "repair", "--plat", "auto", "--wheel-dir", DIST, wheel)
    for file in sorted(DIST.iterdir()):
        print(f"{file.stat().st_size:>9,} {file.name}")
    print("\n".join(missing))


if __name__ == "__main__":
    main(sys.argv[1:])

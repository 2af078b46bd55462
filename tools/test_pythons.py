"""Runs the module's tests on several interpreters, each in an environment of its own, and prints one table.

Usage: test_pythons.py [INTERPRETER]...; without one: the newest that is found of each supported version.
"""

import os
import re
import shlex
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).parents[1]
TOOLS = Path(__file__).parent
COUNT = re.compile(r"(\d+) (passed|failed|errors?|skipped|xfailed)\b")


def output(*command: str) -> tuple[str, str]:
    """What the command prints, and what it says of failures."""
    try:
        done = subprocess.run(command, capture_output=True, text=True)
    except OSError as wrong:
        return "", f"{command[0]}: {wrong.strerror}"
    return done.stdout.strip() if done.returncode == 0 else "", done.stderr.strip()


def tested(python: str, version: str) -> tuple[bool, dict[str, int], str]:
    """Whether all tests passed, how many did what, and where to read on."""
    log = ROOT / "build" / "test-pythons" / f"{version}.log"
    log.parent.mkdir(parents=True, exist_ok=True)
    environment = f".venvs/{version}"
    options = ["tests", *shlex.split(os.environ.get("TEST_OPTIONS", ""))]
    with log.open("w", encoding="utf-8") as file:
        for command in (
            ["make", "--no-print-directory", f"VENV={environment}", f"PYTHON={python}", "install", "test-tools"],
            [f"{environment}/bin/python", "-P", "-m", "pytest", *options],
        ):
            failed = subprocess.run(command, cwd=ROOT, stdout=file, stderr=file).returncode != 0
            if failed:
                break
    lines = log.read_text(encoding="utf-8").splitlines()
    counts = {name: int(number) for number, name in COUNT.findall(lines[-1] if lines else "")}
    return not failed and counts.get("passed", 0) > 0, counts, f"see {log.relative_to(ROOT)}" if failed else ""


def main(named: list[str]) -> None:
    rows = [("interpreter", "result", "passed", "failed", "skipped", "seconds", "")]
    found, missing = output(str(TOOLS / "find-python"), "--all")
    good = True
    for python in named or found.splitlines():
        said, refusal = output(python, str(TOOLS / "check_python.py"), "version")
        if not said:
            rows.append((python, "refused", "", "", "", "", refusal))
            good = False
            continue
        print(f"Testing on CPython {said} ({python}).", flush=True)
        begun = time.monotonic()
        passed, counts, hint = tested(python, said)
        failures = sum(counts.get(name, 0) for name in ("failed", "error", "errors"))
        seconds = f"{time.monotonic() - begun:.0f}"
        numbers = (str(counts.get("passed", 0)), str(failures), str(counts.get("skipped", 0)), seconds)
        rows.append((f"CPython {said}", "passed" if passed else "FAILED", *numbers, hint))
        good = good and passed
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths, strict=True)).rstrip())
    if not named and missing:
        print(missing)
    if len(rows) == 1 or not good:
        raise SystemExit("make test-pythons: FAILED")
    print("make test-pythons: passed")


if __name__ == "__main__":
    main(sys.argv[1:])

"""Which lines and branches the tests reach; those that they do not reach are listed."""

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from proof.workshop import Result, Workshop

WANTED = {"lines": ("L", 98), "branches": ("BR", 90)}  # per cent; the rest matters where memory runs out


def coverage(workshop: Workshop) -> Iterator[Result]:
    built = workshop.folder / "coverage"
    shutil.rmtree(built, ignore_errors=True)  # counts of an earlier run would be added
    site = workshop.build("coverage", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=--coverage")
    [extension] = built.glob("agent_onboarding*.so")
    asks = ["operator new is linked in"] * (b"_Znw" in extension.read_bytes())  # the names are in a debug build
    yield Result("coverage: no memory is asked for by `new`", 1, asks)
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    yield Result("coverage: tests in the build that counts", *workshop.tests({**site, "LD_PRELOAD": ""}))
    # Any call can throw, so the compiler puts a branch behind each; those are no decisions of the source.
    options = "--filter", ".*/src/agent_onboarding/", "--exclude-throw-branches", "--merge-lines"
    command = [str(Path(sys.executable).with_name("gcovr")), "--root", str(workshop.root), *options]
    subprocess.run([*command, "--txt", "-", "--lcov", "report", "."], cwd=built, check=True)
    report = (built / "report").read_text()
    by = " by one file of tests, so no share is wanted" if workshop.quick else ""
    for what, (field, wanted) in WANTED.items():
        part, whole = (sum(map(int, re.findall(rf"^{field}{end}:(\d+)", report, re.M))) for end in "HF")
        low = [f"{wanted} % wanted"] if 100 * part < wanted * whole and not workshop.quick else []
        yield Result(f"coverage: {what} reached{by}, {100 * part / whole:.1f} % of {whole:,}", part, low)

"""Which lines and branches the tests and the scenarios reach; every line that they do not reach has a reason."""

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from proof.workshop import Result, Workshop

# Unreached lines by what their source says, one regular expression for each reason.
REASONS = (
    (r"^\}$", "a closing brace stands for the unwinding after an allocation that failed"),
    (r"bad_alloc|NoMemory|PyErr_Clear|outcome::failed", "memory has run out, which the method `allocations` tries"),
    (r"^(throw_error\((line|where::current\(\))\)|return|return nullptr);", "a look-up of an interned text has failed"),
    (r"return outcome::impossible", "the interpreter refuses a keyword that is no text before it calls"),
    (r"PyExc_SystemError, \"", "sources that contradict one another; no test would pass"),
    (r"what\(\) const noexcept", "the interface of std::exception wants it"),
    (r"^\"- \[ \] \[Corvane\]", "the middle of a statement that gcov counts on its last line"),
)


def run(workshop: Workshop) -> Iterator[Result]:
    built = workshop.folder / "coverage"
    shutil.rmtree(built, ignore_errors=True)  # counts of an earlier run would be added
    site = workshop.build("coverage", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=--coverage")
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    failed = [] if workshop.quick else workshop.tests(*workshop.groups(), LD_PRELOAD="", **site)
    done = workshop.python("-m", "support.scenarios", **site)
    yield Result("coverage: the tests pass in the build that counts", 1, failed + done.stderr.splitlines()[-3:])
    # Any call can throw, so the compiler puts a branch behind each; those are no decisions of the source.
    options = "--filter", ".*/src/agent_onboarding/", "--exclude-throw-branches", "--merge-lines", "--lcov", "-"
    command = [str(Path(sys.executable).with_name("gcovr")), "--root", str(workshop.root), *options, "."]
    report = subprocess.run(command, cwd=built, stdout=subprocess.PIPE, text=True, check=True).stdout
    for what, field, wanted in (("lines", "L", 95), ("branches", "BR", 90)):
        reached, whole = (sum(map(int, re.findall(rf"^{field}{end}:(\d+)", report, re.M))) for end in "HF")
        low = [f"{wanted} % wanted"] if 100 * reached < wanted * whole and not workshop.quick else []
        yield Result(f"coverage: {what} reached, {100 * reached / whole:.1f} % of {whole:,}", reached, low)
    missed, source = list[tuple[str, str]](), list[str]()
    for kind, value in re.findall(r"^(SF|DA):(.*)", report, re.M):
        if kind == "SF":
            file, source = value, (workshop.root / value).read_text().splitlines()
        elif re.search(r"^\d+,0\b", value):
            number = int(value.partition(",")[0])
            missed.append((f"{file}:{number}", source[number - 1].strip()))
    reasons = {at: next((why for regular, why in REASONS if re.search(regular, text)), "") for at, text in missed}
    print("\n".join(f"   {at} is not reached: {why}" for at, why in reasons.items() if not workshop.quick))
    found = [f"{at}: {text}" for at, text in missed if not reasons[at]]
    yield Result("coverage: unreached lines, each with a reason", len(missed), [] if workshop.quick else found)

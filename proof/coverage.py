"""Which lines and branches the tests and the exercise reach; every line that they do not reach has a reason."""

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from proof.workshop import Result, Workshop

WANTED = {"lines": 95.0, "branches": 90.0}  # per cent that must be reached

# Unreached lines by what their source says, one regular expression for each reason.
REASONS = (
    (r"^\}$", "a closing brace stands for the unwinding after an allocation that failed"),
    (r"bad_alloc|NoMemory|PyErr_Clear|outcome::failed", "memory has run out, which the method `allocations` tries"),
    (r"^(throw_error\((line|where::current\(\))\)|return|return nullptr);", "a look-up of an interned text has failed"),
    (r"return outcome::impossible", "the interpreter refuses a keyword that is no text before it calls"),
    (r"PyExc_SystemError, \"", "sources that contradict one another; no test would pass"),
    (r"PyExc_RuntimeError, \"dictionary changed", "a plain dict does not change while its own texts are sorted"),
    (r"what\(\) const noexcept", "the interface of std::exception wants it"),
    (r"^\"- \[ \] \[Corvane\]", "the middle of a statement that gcov counts on its last line"),
)


def measured(workshop: Workshop, built: Path) -> tuple[dict[str, tuple[int, int]], dict[str, str]]:
    """How many lines and branches there are and were reached; the lines that were not."""
    # Any call can throw, so the compiler puts a branch behind each; those are no decisions of the source.
    options = ["--filter", ".*/src/agent_onboarding/", "--exclude-throw-branches", "--merge-lines", "--lcov"]
    command = [str(Path(sys.executable).with_name("gcovr")), "--root", str(workshop.root), *options, "-"]
    done = subprocess.run([*command, "--object-directory", ".", "."], cwd=built, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"gcovr failed: {done.stderr[-1000:]}")

    def total(field: str) -> int:
        return sum(map(int, re.findall(rf"^{field}:(\d+)", done.stdout, re.M)))

    missed = {}
    for file, counts in re.findall(r"^SF:(.*)\n((?:(?!end_of_record).*\n)*)", done.stdout, re.M):
        source = (workshop.root / file).read_text().splitlines()
        for number in re.findall(r"^DA:(\d+),0\b", counts, re.M):
            missed[f"{file}:{number}"] = source[int(number) - 1].strip()
    return {"lines": (total("LH"), total("LF")), "branches": (total("BRH"), total("BRF"))}, missed


def run(workshop: Workshop) -> Iterator[Result]:
    built = workshop.folder / "coverage"
    shutil.rmtree(built, ignore_errors=True)  # counts of an earlier run would be added
    site = workshop.build("coverage", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=--coverage")
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    failed = [] if workshop.quick else workshop.all_tests(site=site, variables={"LD_PRELOAD": ""})
    done = workshop.python("-m", "proof.exercise", site=site)
    yield Result("coverage: the tests pass in the build that counts", 1, failed + done.stderr.splitlines()[-3:])
    shares, missed = measured(workshop, built)
    for what, (part, whole) in shares.items():
        share = 100 * part / whole
        low = [f"only {share:.1f} %, {WANTED[what]} wanted"] if share < WANTED[what] and not workshop.quick else []
        yield Result(f"coverage: {what} reached, {share:.1f} % of {whole:,}", part, low)
    if not workshop.quick:
        patterns = [pattern for pattern, _ in REASONS]
        unexplained = {at: text for at, text in missed.items() if not any(re.search(p, text) for p in patterns)}
        stale = [why for pattern, why in REASONS if not any(re.search(pattern, text) for text in missed.values())]
        findings = [f"{at} is not reached: {text}" for at, text in unexplained.items()]
        findings += [f"nothing is unreached any more because {reason}" for reason in stale]
        yield Result("coverage: unreached lines, each with a reason", len(missed), findings)

"""Which lines and branches the tests and the exercise reach; every line that they do not reach has a reason."""

import json
import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from proof.sanitizers import suite
from proof.workshop import Result, Workshop

LINES, BRANCHES = 95.0, 90.0  # per cent that must be reached

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


def build(workshop: Workshop) -> Path:
    """A build that counts."""
    return workshop.build("coverage", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=--coverage")


def measured(workshop: Workshop, built: Path) -> list[dict[str, Any]]:
    """Each source line with its counts, instances of templates taken together, without the branches of C++ throws."""
    output = workshop.folder / "coverage.json"
    command = [str(Path(sys.executable).with_name("gcovr")), "--root", str(workshop.root), "--object-directory", "."]
    # Any call can throw, so the compiler puts a branch behind each; those are no decisions of the source.
    options = ["--filter", ".*/src/agent_onboarding/", "--exclude-throw-branches", "--json", str(output), "."]
    done = subprocess.run([*command, *options], cwd=built, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"gcovr failed: {done.stderr[-1000:]}")
    lines: dict[tuple[str, int], dict[str, Any]] = {}
    for file in json.loads(output.read_text())["files"]:
        source = (workshop.root / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            key = file["file"], line["line_number"]
            text, name = source[key[1] - 1].strip(), line.get("function_name", "")
            whole = lines.setdefault(key, {"at": "{}:{}".format(*key), "text": text, "function": name, "count": 0})
            whole["count"] += line["count"]
            branches = whole.setdefault("branches", {})
            for place, branch in enumerate(line["branches"]):
                branches[place] = branches.get(place, 0) + branch["count"]
    return list(lines.values())


def run(workshop: Workshop) -> Iterator[Result]:
    built = workshop.folder / "coverage"
    shutil.rmtree(built, ignore_errors=True)  # counts of an earlier run would be added
    site = build(workshop)
    failed = (
        [] if workshop.quick else suite(workshop, site, variables={"LD_PRELOAD": ""})
    )  # tells them of larger frames
    done = workshop.python(str(workshop.root / "proof" / "exercise.py"), site=site)
    failed += done.stderr.splitlines()[-3:]
    lines = measured(workshop, built)

    reached = sum(line["count"] > 0 for line in lines)
    counts = [count for line in lines for count in line["branches"].values()]
    taken = sum(count > 0 for count in counts)
    for what, part, whole, wanted in (
        ("lines", reached, len(lines), LINES),
        ("branches", taken, len(counts), BRANCHES),
    ):
        share = 100 * part / whole
        low = [f"only {share:.1f} %, {wanted} wanted"] if share < wanted and not workshop.quick else []
        yield Result(f"coverage: {what} reached, {share:.1f} % of {whole:,}", part, failed + low)
        failed = []
    if workshop.quick:
        return
    missed = [line for line in lines if not line["count"]]
    unexplained = [line for line in missed if not any(re.search(pattern, line["text"]) for pattern, _ in REASONS)]
    stale = [reason for pattern, reason in REASONS if not any(re.search(pattern, line["text"]) for line in missed)]
    findings = [f"{line['at']} is not reached: {line['text']}" for line in unexplained]
    findings += [f"nothing is unreached any more because {reason}" for reason in stale]
    yield Result("coverage: unreached lines, each with a reason", len(missed), findings)

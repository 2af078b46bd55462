"""Faults planted in copies of the sources, and which of them the tests notice.

What is planted: `mutations` and `kit_mutations`, small changes by rule; `twin_faults`, the same in the module and its
twin; `planted_faults`, what the meters of the other proofs must see.
"""

import math
import random
import re
import shlex
import shutil
import subprocess
import time
from collections import Counter
from collections.abc import Callable, Sequence
from typing import Any, NamedTuple

from proof.workshop import Done, Result, Variables, Workshop, side_by_side

SEED = 20  # of the draw
PATIENCE, AT_LEAST = 4, 60.0  # how often the time of the tests without a fault, and seconds, until they have hung
SELECTED = """#pragma once
#include <cstdlib>
inline bool faulty(int number) { return number == std::atoi(std::getenv("FAULT")); }
"""


class Fault(NamedTuple):
    """What goes wrong on which line, and what stands at its place instead."""

    rule: str
    file: str
    line: int
    source: str
    start: int = 0
    end: int = 0
    instead: str = ""


# How the path of a file begins; the test files that see to it, such as "eras surface"; for pytest's -k which of their
# tests. The first row that fits is the one.
Row = tuple[str, str, str]
Trial = Callable[[Fault | None, Row, float], Done]  # runs tests with a fault, or without, for so many seconds


def row_of(file: str, rows: Sequence[Row]) -> Row:
    """The row of a file."""
    return next(row for row in rows if file.startswith(row[0]))


def fault_at(rule: str, file: str, text: str, start: int, end: int = 0, instead: str = "") -> Fault:
    """A fault at this place of the text of a file."""
    line = text.count("\n", 0, start)
    return Fault(rule, file, line + 1, text.splitlines()[line], start, end, instead)


def draw(candidates: list[Fault], most: int) -> list[Fault]:
    """The same each time: one of each rule, then another of each; at most one on a line, the last place first."""
    random.Random(f"{SEED} {candidates[0].file if candidates else ''}").shuffle(candidates)
    seen = Counter[str]()
    turns = {fault: seen.update([fault.rule]) or seen[fault.rule] for fault in candidates}
    chosen, taken = list[Fault](), set[int]()
    for fault in sorted(candidates, key=lambda fault: turns[fault]):
        both = {fault.line, fault.line + fault.instead.count("\n")}
        if len(chosen) < most and not both & taken:
            chosen.append(fault)
            taken |= both
    return sorted(chosen, key=lambda fault: -fault.start)


class Copy:
    """A copy of the module's sources, tests and twin, in which the variable FAULT selects one of many faults."""

    def __init__(self, workshop: Workshop, name: str) -> None:
        self._workshop, self.root = workshop, workshop.folder / name
        self._numbers = dict[Fault, int]()
        self._site: Variables = {}
        shutil.rmtree(self.root, ignore_errors=True)
        for folder in "src", "tools", "tests", "proof":
            shutil.copytree(workshop.root / folder, self.root / folder, ignore=shutil.ignore_patterns("__pycache__"))
        for file in "CMakeLists.txt", "pyproject.toml", "conftest.py":
            shutil.copy(workshop.root / file, self.root)
        (self.root / "fault.hpp").write_text(SELECTED)

    def selecting(self, fault: Fault, instead: str) -> str:
        """What stands instead, where M stands for whether this fault is the one."""
        number = self._numbers.setdefault(fault, len(self._numbers) + 1)
        return re.sub(r"\bM\b", f"faulty({number})", instead)

    def replace(self, file: str, old: str, instead: str) -> None:
        """Plants a fault at each place of this text; @ stands for the text."""
        if old not in (text := (path := self.root / file).read_text()):
            raise RuntimeError(f"the place of this fault is gone from {file}: {old}")
        path.write_text(text.replace(old, instead.replace("@", old)))

    def build(self, option: str = "-DCMAKE_BUILD_TYPE=Debug") -> None:
        """Builds the extension from the sources as they are now."""
        flags = f"-DCMAKE_CXX_FLAGS=-w -include {shlex.quote(str(self.root / 'fault.hpp'))}"
        name = f"{self.root.name}-{option.rpartition('=')[2]}"
        self._site = self._workshop.build(name, option, flags, root=self.root)

    def variables(self, fault: Fault | None) -> Variables:
        """Those of a process that has the last build and this fault."""
        return {**self._site, "FAULT": str(self._numbers[fault] if fault else 0)}

    def trial(self, fault: Fault | None, row: Row, seconds: float) -> Done:
        """Runs tests of the copy with a fault, or without."""
        # LD_PRELOAD tells the tests that frames are larger than those of a release.
        how: Any = {"variables": {**self.variables(fault), "LD_PRELOAD": ""}, "seconds": seconds}
        return self._workshop.pytest(self.root, row[1], "-k", row[2], **how)


def noticed(
    what: str,
    trial: Trial,
    rows: Sequence[Row],
    faults: Sequence[Fault],
    wanted: float,
    all_of: int,
    explained: Sequence[tuple[str, str, str]] = (),
) -> Result:
    """At how many of these faults the tests fail; of all there are, so many per cent must be noticed.

    Explained: file, what stands on the line, why the tests cannot notice. A fault at which the tests hang is not
    noticed: nobody has been told of it.
    """

    def without(row: Row) -> float:
        began = time.monotonic()
        if (done := trial(None, row, 1200)).returncode:
            raise RuntimeError(f"without a fault these tests fail: {row}: {done.stdout[-2000:]}{done.stderr[-2000:]}")
        return time.monotonic() - began

    def ended(fault: Fault) -> str:
        row = row_of(fault.file, rows)
        try:
            return "failed" if trial(fault, row, max(AT_LEAST, PATIENCE * times[row])).returncode else "passed"
        except subprocess.TimeoutExpired:
            return "hung"

    needed = sorted({row_of(fault.file, rows) for fault in faults})
    times = dict(zip(needed, side_by_side(without, needed), strict=True))
    ends = dict(zip(faults, side_by_side(ended, faults), strict=True))
    count, known = Counter(ends.values()), 0
    for fault, end in ends.items():
        if end != "failed":
            reasons = [why for file, text, why in explained if file == fault.file and text in fault.source]
            known += bool(reasons)
            why = "; ".join(reasons) or "NOT NOTICED"
            print(f"   {fault.file}:{fault.line}, {fault.rule}, {end}: {fault.source.strip()}: {why}")
    # What a sample shows varies: less than three standard errors below what is wanted, it shows nothing.
    possible = max(1, len(faults) - known)
    error = math.sqrt(wanted * (100 - wanted) / possible) if len(faults) < all_of else 0
    share, least = 100 - 100 * (len(faults) - known - count["failed"]) / possible, wanted - 3 * error
    said = f"{share:.1f} % of what can be noticed is; wanted: {least:.1f} %" + " of a sample" * bool(error)
    figures = {"noticed": count["failed"], "cannot be noticed, for a known reason": known, "tests hang": count["hung"]}
    return Result(f"{what}; {said}", len(faults), [said] if share < least else [], figures)

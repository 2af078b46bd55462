"""Small changes of sources, made by rule: which are tried, and what the tests say of each. The rules: `mutations` for
the module, `kit_mutations` for the kit."""

import contextlib
import os
import random
import signal
import subprocess
from collections import Counter
from collections.abc import Iterable, Iterator
from pathlib import Path
from typing import NamedTuple

from proof.workshop import Result

SEED = 20  # of the draw
PATIENCE, AT_LEAST = 4, 60.0  # how often the time of the tests without a change, and seconds, until a mutant has hung


class Mutant(NamedTuple):
    """A place of a source and what stands there instead."""

    file: str
    line: int
    rule: str
    start: int
    end: int
    instead: str
    source: str


def draw(candidates: list[Mutant], most: int) -> list[Mutant]:
    """The same each time: one of each rule, then another of each; at most one on a line, the last place first."""
    random.Random(f"{SEED} {candidates[0].file if candidates else ''}").shuffle(candidates)
    seen = Counter[str]()
    turns = {mutant: seen.update([mutant.rule]) or seen[mutant.rule] for mutant in candidates}
    chosen, taken = list[Mutant](), set[int]()
    for mutant in sorted(candidates, key=lambda mutant: turns[mutant]):
        both = {mutant.line, mutant.line + mutant.instead.count("\n")}
        if len(chosen) < most and not both & taken:
            chosen.append(mutant)
            taken |= both
    return sorted(chosen, key=lambda mutant: -mutant.start)


def ends(command: list[str], seconds: float | None, cwd: Path, env: dict[str, str] | None = None) -> str:
    """How a run of tests ends: "passed", "failed" or "hung"; nothing that it has started is left behind."""
    nothing = subprocess.DEVNULL
    with subprocess.Popen(
        command, cwd=cwd, env=env, start_new_session=True, stdin=nothing, stdout=nothing, stderr=nothing
    ) as process:
        try:
            return "failed" if process.wait(seconds) else "passed"
        except subprocess.TimeoutExpired:
            return "hung"
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)


def results(
    what: str,
    tried: dict[Mutant, str],
    wanted: float,
    explained: Iterable[tuple[str, str, str]],
    unused: Iterable[object],
) -> Iterator[Result]:
    """How many of the mutants the tests noticed by failing. Explained: file, what stands on the line, why not.

    One at which the tests hang is not noticed: nobody has been told of a fault.
    """
    count = Counter(tried.values())
    reasons = {
        one: "; ".join(why for file, text, why in explained if one.file == file and text in one.source)
        for one, end in tried.items()
        if end != "failed"
    }
    known = sum(map(bool, reasons.values()))
    share = 100 * count["failed"] / (len(tried) - known)
    found = [f"{rule}: fits nothing" for rule in unused]
    found += [f"only {share:.1f} % of what could be noticed is, {wanted} wanted"] if share < wanted else []
    for one, why in reasons.items():
        print(f"   {one.file}:{one.line}, {one.rule}, {tried[one]}: {one.source.strip()}: {why or 'NOT NOTICED'}")
    yield Result(f"{what}: {count['failed']} noticed, at {count['hung']} the tests hang", len(tried), found)
    yield Result("   of the others, cannot be noticed for a known reason", known)

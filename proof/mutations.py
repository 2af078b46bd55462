"""Small changes of the sources, made by rule: the tests of each file must notice them.

All changes are built at once; the environment variable MUTANT selects the one that is made.
"""

import random
import re
import shutil
import subprocess
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from proof.workshop import Result, Workshop, side_by_side

EACH, SEED, WANTED = 8, 20, 95.0  # mutants of a file, seed of the draw, per cent that must be noticed
HANG = 300  # seconds; without a change the tests take a tenth of them
TESTS = {
    "bootstrap.cpp": "differential",
    "entry_points.cpp": "differential surface",
    "eras.cpp": "differential eras",
    "module.cpp": "surface",
    "runtime_loading.cpp": "differential runtime",
    "runtime_manifest.cpp": "differential runtime",
    "wallet_store.cpp": "differential key_file",
    "workspace.cpp": "differential surface",
}
OTHER_TESTS = "differential surface runtime eras"  # of the layer over the interpreter

SELECTED = """#pragma once
#include <cstdlib>
inline bool mutant(int number) {
    static const int selected = std::atoi(std::getenv("MUTANT") == nullptr ? "0" : std::getenv("MUTANT"));
    return number == selected;
}
"""
STEP = r"[a-z_]+(?:(?:\.|->)[a-z_]+)?\((?:(?!raise|throw|return|delete).)*\);"
RULES = (
    # rule, what it looks for, what stands there instead; M is the selection
    ("message", r'(?<![\w"])("(?:[^"\\\n]|\\.)* (?:[^"\\\n]|\\.)*[^"\\ ])"(_n)?(?=[,)\]])', r'(M ? \1!"\2 : \1"\2)'),
    ("except class", r'(?<=matches\(global\()("\w+"_n)', r'(M ? "KeyError"_n : \1)'),
    ("except class", r'(?<=matches\(auth\()("\w+"_n)', r'(M ? "AuthManager"_n : \1)'),
    ("condition", r"(?<=\bif \()((?:(?! = ).)+)(?=\)(?: \[\[\w+\]\])?(?: \{)?(?: //.*)?$)", r"M != bool(\1)"),
    ("condition", r"(?<=\bwhile \()([^=\n]+)(?=\)$)", r"!M && (\1)"),
    ("comparison", r"\bPy_(EQ|NE)\b", r"(Py_\1 ^ (M ? 1 : 0))"),  # Py_EQ is 2, Py_NE 3; Py_LT 0, Py_LE 1
    ("comparison", r"\bPy_(LE|GE)\b", r"(Py_\1 - (M ? 1 : 0))"),  # Py_GT 4, Py_GE 5
    ("boolean", r"\btrue_value\(\)(?! noexcept)", "(M ? handle(Py_False) : true_value())"),
    ("boolean", r"(?<= = )(true|false)(?=;)", r"(M != \1)"),
    ("order", r"\b(\w+)\.ptr\(\), (?!\1)(\w+)\.ptr\(\)", r"(M ? \2 : \1).ptr(), (M ? \1 : \2).ptr()"),
    ("number", r"(?<=integer\()(\w+)(?=\))", r"\1 + (M ? 1 : 0)"),
    ("statement", r"(?<=[;{}]\n)( +)((?!return|throw|raise|delete)[\w.:>-]+\(.*\));$", r"\1M ? (void)0 : (void)(\2);"),
    ("swap", rf"(?<=[;{{}}]\n)( +)({STEP})\n\1(?!\2)({STEP})$", r"\1if (M) { \3 \2 } else { \2\n\3 }"),
)
# Lines that declare, which cannot select.
DECLARED = re.compile(
    r"constexpr|consteval|static_assert|= default|^\s*(?://|#|\[\[|template|using|: )"
    r"|^(?!\s*return\b)\s*\w[\w:<>*&]* (?:[\w:<>*& ]+ )?[*&]?\w+\("
)

# File, what stands on the line, why the tests cannot notice.
EXPLAINED = (
    ("module.cpp", "set_item(interpreter_dict(), kept_as()", "matters where memory runs out in between: allocations"),
    ("py/function.cpp", "takes no more exit functions", "an interpreter with 32 other extensions that want to know"),
    ("py/function.cpp", "forgets_at_exit = true", "what is forgotten twice is forgotten"),
    ("py/object.hpp", "Py_REFCNT(owned) > 1", "told only from a thread that outlives the interpreter: processes"),
    ("runtime_manifest.cpp", "bool ascending = true", "what is sorted is sorted once more"),
)


@dataclass(frozen=True)
class Mutant:
    """A place of a source and what stands there instead."""

    file: str
    line: int
    rule: str
    start: int
    end: int
    instead: str


def mutants_of(file: str, text: str) -> Iterator[Mutant]:
    lines = text.splitlines()
    for rule, pattern, template in RULES:
        for match in re.finditer(pattern, text, re.M):
            number = text.count("\n", 0, match.start())
            if not DECLARED.search(lines[number]) or re.search(r"\bif \(", lines[number]):
                yield Mutant(file, number + 1, rule, *match.span(), match.expand(template))


def draw(file: str, text: str, refused: set[tuple[str, int]]) -> list[Mutant]:
    """The same each time, at most one on a line; a line that did not compile is not drawn again."""
    candidates = list(mutants_of(file, text))
    random.Random(f"{SEED} {file}").shuffle(candidates)
    seen = Counter[str]()
    turns = {mutant: seen.update([mutant.rule]) or seen[mutant.rule] for mutant in candidates}
    chosen: list[Mutant] = []
    taken = {line for where, line in refused if where == file}
    for mutant in sorted(candidates, key=lambda mutant: turns[mutant]):  # one of each rule, then another of each
        lines = {mutant.line, mutant.line + mutant.instead.count("\n")}
        if len(chosen) < EACH and not lines & taken:
            chosen.append(mutant)
            taken |= lines
    return chosen


def build(workshop: Workshop) -> tuple[Path, list[Mutant]]:
    """One build with all mutants, number 1 the first of the list."""
    copy, refused = workshop.folder / "mutated", set[tuple[str, int]]()
    flags = f"-DCMAKE_CXX_FLAGS=-w -fmax-errors=0 -include {copy / 'mutant.hpp'}"
    for _ in range(6):
        shutil.rmtree(copy, ignore_errors=True)
        shutil.copytree(workshop.root / "src", copy / "src", ignore=shutil.ignore_patterns("__pycache__"))
        shutil.copy(workshop.root / "CMakeLists.txt", copy)
        (copy / "mutant.hpp").write_text(SELECTED)
        source, mutants = copy / "src" / "agent_onboarding", list[Mutant]()
        for path in sorted([*source.glob("*.cpp"), *source.glob("py/*.[ch]pp")]):
            text = path.read_text()
            numbered = list(enumerate(draw(str(path.relative_to(source)), text, refused), len(mutants) + 1))
            mutants += [mutant for _, mutant in numbered]
            for number, mutant in sorted(numbered, key=lambda pair: -pair[1].start):
                instead = re.sub(r"\bM\b", f"mutant({number})", mutant.instead)
                text = text[: mutant.start] + instead + text[mutant.end :]
            path.write_text(text)
        try:
            return workshop.build("mutants", "-DCMAKE_BUILD_TYPE=Debug", flags, source=copy), mutants
        except RuntimeError as exc:
            wrong = re.findall(r"agent_onboarding/([\w/]+\.[ch]pp):(\d+):\d+: (?:error|  required)", str(exc))
            known = {(mutant.file, mutant.line) for mutant in mutants}
            found = {(file, int(line) - back) for file, line in wrong for back in (0, 1)} & known
            if not found:
                raise
            refused |= found
    raise RuntimeError(f"too many of the mutants do not compile: {refused}")


def noticed(workshop: Workshop, site: Path, number: int, tests: str) -> bool:
    """Whether the tests fail, or hang."""
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    variables = {"MUTANT": str(number), "LD_PRELOAD": ""}
    try:
        return workshop.tests(tests.split(), "-x", site=site, timeout=HANG, variables=variables) != []
    except subprocess.TimeoutExpired:
        return True


def explained(mutant: Mutant, line: str) -> bool:
    return any(mutant.file == file and text in line for file, text, _ in EXPLAINED)


def run(workshop: Workshop) -> Iterator[Result]:
    site, mutants = build(workshop)
    tried = [(n, mutant, TESTS.get(mutant.file, OTHER_TESTS)) for n, mutant in enumerate(mutants, 1)]
    tried = tried[:: 12 if workshop.quick else 1]
    rooms = list(dict.fromkeys(tests for _, _, tests in tried))
    failing = side_by_side(lambda tests: noticed(workshop, site, 0, tests), rooms)
    broken = [f"without any change the tests fail: {tests}" for tests, bad in zip(rooms, failing, strict=True) if bad]
    caught = side_by_side(lambda one: noticed(workshop, site, one[0], one[2]), tried)
    survivors = [mutant for (_, mutant, _), seen in zip(tried, caught, strict=True) if not seen]
    share = 100 * sum(caught) / len(caught)
    low = [f"only {share:.1f} % are caught, {WANTED} wanted"] if share < WANTED else []
    source = workshop.root / "src" / "agent_onboarding"
    known = [one for one in survivors if explained(one, (source / one.file).read_text().splitlines()[one.line - 1])]
    found = [f"{one.file}:{one.line}, {one.rule}" for one in survivors if one not in known]
    what = f"mutations: in {len({mutant.file for mutant in mutants})} files, {share:.0f} % noticed by the tests"
    yield Result(what, len(tried), broken + low + found)
    yield Result("   of the others, cannot be noticed for a known reason", len(known))

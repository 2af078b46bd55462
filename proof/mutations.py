"""Small changes of the sources, made by rule: the tests of each file must notice them."""

import random
import re
import shutil
from collections import Counter
from collections.abc import Iterator
from typing import NamedTuple

from proof.workshop import Result, Workshop, side_by_side

EACH, SEED, WANTED = 8, 20, 95.0  # mutants of a file, seed of the draw, per cent that must be noticed
TESTS = {"eras": "eras", "runtime_loading": "runtime", "runtime_manifest": "runtime", "wallet_store": "key_file"}

SELECTED = """#pragma once
#include <cstdlib>
inline bool mutant(int number) { return number == std::atoi(std::getenv("MUTANT")); }
"""
STEP = r"[a-z_]+(?:(?:\.|->)[a-z_]+)?\((?:(?!raise|throw|return|delete).)*\);"
RULES = (
    # rule, what it looks for, what stands there instead; M is the selection
    ("message", r'(?<![\w"])("(?:[^"\\\n]|\\.)* (?:[^"\\\n]|\\.)*[^"\\ ])"(_n)?(?=[,)\]])', r'(M ? \1!"\2 : \1"\2)'),
    ("except class", r'(?<=in, caught, )("\w+"_n)', r'(M ? "KeyError"_n : \1)'),
    ("except class", r'(?<=matches\(auth\()("\w+"_n)', r'(M ? "AuthManager"_n : \1)'),
    ("condition", r"(?<=\bif \()((?:(?! = ).)+)(?=\)(?: \[\[\w+\]\])?(?: \{)?(?: //.*)?$)", r"M != bool(\1)"),
    ("condition", r"(?<=\bwhile \()([^=\n]+)(?=\)$)", r"!M && (\1)"),
    ("comparison", r"\bPy_(EQ|NE)\b", r"(Py_\1 ^ (M ? 1 : 0))"),  # Py_EQ is 2, Py_NE 3; Py_LT 0, Py_LE 1
    ("comparison", r"\bPy_(LE|GE)\b", r"(Py_\1 - (M ? 1 : 0))"),  # Py_GT 4, Py_GE 5
    ("boolean", r"\btrue_value\(\)(?! noexcept)", "(M ? handle(Py_False) : true_value())"),
    ("boolean", r"(?<= = )(true|false)(?=;)", r"(M != \1)"),
    ("order", r"([\w:>-]+\.ptr\(\)), (?!\1)([\w:>-]+\.ptr\(\))", r"(M ? \2 : \1), (M ? \1 : \2)"),
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
    ("py/call.hpp", "round_++ % rounds_between_checks", "signals are asked for in other rounds"),
    ("py/function.hpp", "PyErr_NoMemory()", "matters where memory runs out: allocations"),
    ("py/object.hpp", "Py_REFCNT(owned) > 1", "told only from a thread that outlives the interpreter: processes"),
    ("runtime_manifest.cpp", "bool ascending = true", "what is sorted is sorted once more"),
)


class Mutant(NamedTuple):
    """A place of a source and what stands there instead."""

    file: str
    line: int
    rule: str
    start: int
    end: int
    instead: str
    source: str


def draw(file: str, text: str) -> list[Mutant]:
    """The same each time, at most one on a line, the last place first."""
    candidates, lines = list[Mutant](), text.splitlines()
    for rule, pattern, template in RULES:
        for match in re.finditer(pattern, text, re.M):
            line = lines[number := text.count("\n", 0, match.start())]
            if not DECLARED.search(line) or re.search(r"\bif \(", line):
                candidates.append(Mutant(file, number + 1, rule, *match.span(), match.expand(template), line))
    random.Random(f"{SEED} {file}").shuffle(candidates)
    seen = Counter[str]()
    turns = {mutant: seen.update([mutant.rule]) or seen[mutant.rule] for mutant in candidates}
    chosen, taken = list[Mutant](), set[int]()
    for mutant in sorted(candidates, key=lambda mutant: turns[mutant]):  # one of each rule, then another of each
        both = {mutant.line, mutant.line + mutant.instead.count("\n")}
        if len(chosen) < EACH and not both & taken:
            chosen.append(mutant)
            taken |= both
    return sorted(chosen, key=lambda mutant: -mutant.start)


def build(workshop: Workshop) -> tuple[dict[str, str], list[Mutant]]:
    """One build with all mutants; the environment variable MUTANT selects one, number 1 the first of the list."""
    copy, mutants = workshop.folder / "mutated", list[Mutant]()
    source = copy / "src" / "agent_onboarding"
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(workshop.root / "src", copy / "src", ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copytree(workshop.root / "tools", copy / "tools")
    shutil.copy(workshop.root / "CMakeLists.txt", copy)
    (copy / "mutant.hpp").write_text(SELECTED)
    for path in sorted([*source.glob("*.cpp"), *source.glob("py/*.[ch]pp")]):
        text = path.read_text()
        for mutant in draw(str(path.relative_to(source)), text):
            mutants.append(mutant)
            instead = re.sub(r"\bM\b", f"mutant({len(mutants)})", mutant.instead)
            text = text[: mutant.start] + instead + text[mutant.end :]
        path.write_text(text)
    flags = f"-DCMAKE_CXX_FLAGS=-w -include {copy / 'mutant.hpp'}"
    return workshop.build("mutants", "-DCMAKE_BUILD_TYPE=Debug", flags, source=copy), mutants


def run(workshop: Workshop) -> Iterator[Result]:
    site, mutants = build(workshop)

    def noticed(number: int, file: str) -> bool:
        """Whether the tests fail, or hang for five times what they take without a change."""
        # LD_PRELOAD tells the tests that frames are larger than those of a release.
        variables = {"MUTANT": str(number), "LD_PRELOAD": "", **site}
        tests = f"promises differential {TESTS.get(file.removesuffix('.cpp'), 'surface runtime eras')}"
        return workshop.tests(tests, wrapper=("timeout", "150"), **variables) != []

    files = sorted({mutant.file for mutant in mutants})
    broken = side_by_side(lambda file: noticed(0, file), ["wallet_store", "any other"])
    found = ["without any change the tests fail"] if any(broken) else []
    tried = list(enumerate(mutants, 1))[:: 12 if workshop.quick else 1]
    caught = side_by_side(lambda one: noticed(one[0], one[1].file), tried)
    share = 100 * sum(caught) / len(caught)
    found += [f"only {share:.1f} % are caught, {WANTED} wanted"] if share < WANTED else []
    missed = [mutant for (_, mutant), seen in zip(tried, caught, strict=True) if not seen]
    reasons = {one: [why for file, text, why in EXPLAINED if one.file == file and text in one.source] for one in missed}
    for one, why in reasons.items():
        print(f"   {one.file}:{one.line}, {one.rule}: {one.source.strip()}: {'; '.join(why) or 'not noticed'}")
    found += [f"{one.file}:{one.line}, {one.rule}" for one, why in reasons.items() if not why]
    yield Result(f"mutations: in {len(files)} files, {share:.0f} % noticed by the tests", len(tried), found)
    yield Result("   of the others, cannot be noticed for a known reason", sum(map(bool, reasons.values())))

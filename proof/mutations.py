"""The module's tests must notice small changes of its C++ sources."""

import os
import re
import shlex
import shutil
from collections.abc import Iterator
from pathlib import Path

from proof.mutants import Mutant, draw, ends, results
from proof.workshop import Result, Workshop, side_by_side

EACH, WANTED = 8, 95.0  # mutants of a file, per cent that must be noticed
SECONDS = 300.0  # many times what the tests take, until a mutant has hung
TESTS = {"eras": "eras", "runtime_loading": "runtime", "runtime_manifest": "runtime", "wallet_store": "key_file"}

SELECTED = """#pragma once
#include <cstdlib>
inline bool mutant(int number) { return number == std::atoi(std::getenv("MUTANT")); }
"""
STEP = r"[a-z_]+(?:(?:\.|->)[a-z_]+)?\((?:(?!raise|throw|return|delete).)*\);"
RULES = (
    # rule, what it looks for, what stands there instead; M is the selection
    (
        "message",
        r'(?:(?<=[(\[{])|(?<=, ))("(?:[^"\\\n]|\\.)* (?:[^"\\\n]|\\.)*[^"\\ ])"(_n)?(?=[,)\]])',
        r'(M ? \1!"\2 : \1"\2)',
    ),
    ("except class", r'(?<=in, caught, )("\w+"_n)', r'(M ? "KeyError"_n : \1)'),
    ("except class", r'(?<=matches\(auth\()("\w+"_n)', r'(M ? "AuthManager"_n : \1)'),
    ("except class", r'(?<=matches\(global\()("\w+"_n)', r'(M ? "KeyError"_n : \1)'),
    ("condition", r"(?<=\bif \()((?:(?! = ).)+)(?=\)(?: \[\[\w+\]\])?(?: \{)?(?: //.*)?$)", r"M != bool(\1)"),
    ("condition", r"(?<=\bwhile \()([^=\n]+)(?=\)$)", r"!M && (\1)"),
    ("comparison", r"\bPy_(EQ|NE)\b", r"(Py_\1 ^ (M ? 1 : 0))"),  # Py_EQ is 2, Py_NE 3; Py_LT 0, Py_LE 1
    ("comparison", r"\bPy_(LE|GE)\b", r"(Py_\1 - (M ? 1 : 0))"),  # Py_GT 4, Py_GE 5
    ("boolean", r"\btrue_value\(\)(?! noexcept)", "(M ? handle(Py_False) : true_value())"),
    ("boolean", r"(?<= = )(true|false)(?=;)", r"(M != \1)"),
    ("order", r"(?<![\w\"])([\w:>-]+\.ptr\(\)), (?!\1)([\w:>-]+\.ptr\(\))", r"(M ? \2 : \1), (M ? \1 : \2)"),
    ("number", r"(?<=integer\()(\w+)(?=\))", r"\1 + (M ? 1 : 0)"),
    (
        "statement",
        # Py_SETREF is a block, not an expression.
        r"(?<=[;{}]\n)( +)((?!return|throw|raise|delete|Py_SETREF)[\w.:>-]+\(.*\));$",
        r"\1M ? (void)0 : (void)(\2);",
    ),
    ("swap", rf"(?<=[;{{}}]\n)( +)({STEP})\n\1(?!\2)({STEP})$", r"\1if (M) { \3 \2 } else { \2\n\3 }"),
)
# Lines that declare, which cannot select.
DECLARED = re.compile(
    r"constexpr|consteval|static_assert|__asm__|= default|^\s*(?://|#|\[\[|template|using|: )"
    r"|^(?!\s*(?:return|except_scope)\b)\s*\w[\w:<>*&]* (?:[\w:<>*& ]+ )?[*&]?\w+\("
)

# File, what stands on the line, why the tests cannot notice.
EXPLAINED = (
    ("module.cpp", "set_item(interpreter_dict(), kept_as()", "matters where memory runs out in between: allocations"),
    ("py/call.hpp", "round_++ % rounds_between_checks", "signals are asked for in other rounds"),
    ("py/function.hpp", "PyErr_NoMemory()", "matters where memory runs out: allocations"),
    ("py/object.hpp", "Py_REFCNT(owned) > 1", "told only from a thread that outlives the interpreter: processes"),
    ("runtime_manifest.cpp", "bool ascending = true", "what is sorted is sorted once more"),
)


def candidates(file: str, text: str) -> Iterator[tuple[str, Mutant]]:
    """The pattern, and what it makes of a place, wherever the rules fit."""
    lines = text.splitlines()
    for rule, pattern, template in RULES:
        for match in re.finditer(pattern, text, re.M):
            line = lines[number := text.count("\n", 0, match.start())]
            if not DECLARED.search(line) or re.search(r"\bif \(", line):
                yield pattern, Mutant(file, number + 1, rule, *match.span(), match.expand(template), line)


def copied_sources(workshop: Workshop, name: str, *folders: str) -> tuple[Path, str]:
    """A copy of what the module, and what else is named, is built from; and the option that lets it select faults."""
    copy = workshop.folder / name
    shutil.rmtree(copy, ignore_errors=True)
    for folder in ("src", "tools", *folders):
        shutil.copytree(workshop.root / folder, copy / folder, ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copy(workshop.root / "CMakeLists.txt", copy)
    (copy / "mutant.hpp").write_text(SELECTED)
    return copy, f"-DCMAKE_CXX_FLAGS=-w -include {shlex.quote(str(copy / 'mutant.hpp'))}"


def build(workshop: Workshop) -> tuple[dict[str, str], list[Mutant], list[object]]:
    """One build with all mutants; the environment variable MUTANT selects one, number 1 the first of the list.

    Last, the rules and reasons that fit nothing.
    """
    mutants, fitting, texts = list[Mutant](), set[str](), dict[str, str]()
    copy, flags = copied_sources(workshop, "mutated")
    source = copy / "src" / "agent_onboarding"
    for path in sorted([*source.glob("*.cpp"), *source.glob("py/*.[ch]pp")]):
        file = str(path.relative_to(source))
        texts[file] = text = path.read_text()
        found = list(candidates(file, text))
        fitting |= {pattern for pattern, _ in found}
        for mutant in draw([mutant for _, mutant in found], EACH):
            mutants.append(mutant)
            instead = re.sub(r"\bM\b", f"mutant({len(mutants)})", mutant.instead)
            text = text[: mutant.start] + instead + text[mutant.end :]
        path.write_text(text)
    unused: list[object] = [rule for rule in RULES if rule[1] not in fitting]
    unused += [row for row in EXPLAINED if row[1] not in texts.get(row[0], "")]
    return workshop.build("mutants", "-DCMAKE_BUILD_TYPE=Debug", flags, source=copy), mutants, unused


def run(workshop: Workshop) -> Iterator[Result]:
    site, mutants, unused = build(workshop)

    def ended(number: int, file: str) -> str:
        """How the tests that see to a file end with a mutant."""
        names = [
            "promises",
            "differential",
            *TESTS.get(file.removesuffix(".cpp"), "surface runtime eras attacks").split(),
        ]
        # LD_PRELOAD tells the tests that frames are larger than those of a release.
        variables = {**os.environ, **site, "LD_PRELOAD": "", "MUTANT": str(number)}
        return ends(workshop.pytest(*names), SECONDS, workshop.folder, variables)

    files = sorted({mutant.file for mutant in mutants})
    if set(side_by_side(lambda file: ended(0, file), ["eras.cpp", "wallet_store.cpp", "any other"])) != {"passed"}:
        raise RuntimeError("without any change the tests fail")
    tried = list(enumerate(mutants, 1))[:: 12 if workshop.quick else 1]
    seen = side_by_side(lambda one: ended(one[0], one[1].file), tried)
    outcomes = dict(zip([mutant for _, mutant in tried], seen, strict=True))
    yield from results(f"mutations in {len(files)} files", outcomes, WANTED, EXPLAINED, unused)

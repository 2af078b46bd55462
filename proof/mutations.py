"""Small changes of the sources, made by rule: the tests of each file must notice them.

All changes are built at once; the environment variable MUTANT selects the one that is made.
"""

import os
import random
import re
import shutil
import subprocess
import time
from collections import Counter
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

from proof.workshop import Result, Workshop

EACH, SEED, WANTED = 9, 20, 95.0  # mutants of a file, seed of the draw, per cent that must be noticed
LONGEST, SLOWER = 300, 5  # seconds for tests without a change; how many times longer is a hang
TESTS = {
    "bootstrap.cpp": "differential",
    "entry_points.cpp": "differential surface",
    "eras.cpp": "differential eras",
    "module.cpp": "surface",
    "runtime_loading.cpp": "differential runtime",
    "runtime_manifest.cpp": "differential runtime",
    "wallet_store.cpp": "differential key_file",
    "workspace.cpp": "differential surface",
    "": "differential surface runtime eras",  # the layer over the interpreter
}
# Survivors that no test can tell from the original, by their line.
EQUAL: tuple[tuple[str, str], ...] = ()

SELECTED = """#pragma once
#include <cstdlib>
inline bool mutant(int number) {
    static const int selected = std::atoi(std::getenv("MUTANT") == nullptr ? "0" : std::getenv("MUTANT"));
    return number == selected;
}
"""
OTHER = {"EQ": "Py_NE", "NE": "Py_EQ", "LE": "Py_LT", "GE": "Py_GT"}
CHANGES: tuple[tuple[str, str, str | Callable[[re.Match[str]], str]], ...] = (
    # rule, what it looks for in a line, what stands there instead; M is the selection
    ("message", r'(?<![\w"])("(?:[^"\\]|\\.)* (?:[^"\\]|\\.)*[^"\\ ])"(_n)?(?=[,)\]])', r'(M ? \1!"\2 : \1"\2)'),
    ("except class", r'(?<=matches\(global\()("\w+"_n)', r'(M ? "KeyError"_n : \1)'),
    ("except class", r'(?<=matches\(auth\()("\w+"_n)', r'(M ? "AuthManager"_n : \1)'),
    (
        "condition",
        r"(?<=\bif \()((?:(?! = ).)+)(?=\)(?: \[\[\w+\]\])?(?: \{)?(?: //.*)?$)",
        r"M != static_cast<bool>(\1)",
    ),
    ("condition", r"(?<=\bwhile \()([^=]+)(?=\)$)", r"!M && (\1)"),
    ("comparison", r"\bPy_(EQ|NE|LE|GE)\b", lambda m: f"(M ? {OTHER[m[1]]} : Py_{m[1]})"),
    ("boolean", r"\btrue_value\(\)(?! noexcept)", "(M ? handle(Py_False) : true_value())"),
    ("boolean", r"(?<= = )(true|false)(?=;)", r"(M != \1)"),
    ("order", r"\b(\w+)\.ptr\(\), (?!\1)(\w+)\.ptr\(\)", r"(M ? \2 : \1).ptr(), (M ? \1 : \2).ptr()"),
    ("number", r"(?<=integer\()(\w+)(?=\))", r"\1 + (M ? 1 : 0)"),
    ("statement", r"^(\s+)((?!return|throw|raise|delete)[\w.:>-]+\(.*\));$", r"\1M ? (void)0 : (void)(\2);"),
)
STATEMENT = re.compile(r"^(\s+)[a-z_]+(?:(?:\.|->)[a-z_]+)?\(.*\);$")
DECLARED = re.compile(
    r"constexpr|consteval|static_assert|= default|^\s*(?://|#|\[\[|template|using|: )"
    r"|^(?!\s*return\b)\s*\w[\w:<>*&]* (?:[\w:<>*& ]+ )?[*&]?\w+\("
)


@dataclass(frozen=True)
class Site:
    """A place of the sources and what stands there instead."""

    file: str
    line: int
    rule: str
    text: str
    more: str = ""  # for the line behind it


def sites_of(file: str, lines: list[str]) -> Iterator[Site]:
    for number, line in enumerate(lines):
        if DECLARED.search(line) and not re.search(r"\bif \(", line):
            continue
        for rule, pattern, changed in CHANGES:
            before = lines[number - 1].rstrip() if number else ""
            if rule == "statement" and not (
                before.endswith((";", "{", "}")) and before.count("(") == before.count(")")
            ):
                continue
            for match in re.finditer(pattern, line):
                instead = changed(match) if callable(changed) else match.expand(changed)
                yield Site(file, number, rule, line[: match.start()] + instead + line[match.end() :])
        following = lines[number + 1] if number + 1 < len(lines) else ""
        first, second = STATEMENT.match(line), STATEMENT.match(following)
        if first and second and first[1] == second[1] and lines[number - 1].rstrip().endswith((";", "{", "}")):
            a, b = line.strip(), following.strip()
            if a != b and not re.search(r"raise|throw|return|delete", a + b):
                yield Site(file, number, "swap", f"{first[1]}if (M) {{ {b} {a} }} else {{ {a}", f"{first[1]}{b} }}")


def draw(workshop: Workshop, refused: set[tuple[str, int]]) -> list[Site]:
    """The same sites each time, at most one on a line; a line that did not compile is not drawn again."""
    chosen: list[Site] = []
    source = workshop.root / "src" / "agent_onboarding"
    for path in sorted([*source.glob("*.cpp"), *source.glob("py/*.[ch]pp")]):
        file = str(path.relative_to(source))
        lines = path.read_text().splitlines()
        candidates = [site for site in sites_of(file, lines) if (file, site.line) not in refused]
        random.Random(f"{SEED} {file}").shuffle(candidates)
        seen = Counter[str]()
        turns = {site: seen.update([site.rule]) or seen[site.rule] for site in candidates}
        candidates.sort(key=lambda site: turns[site])  # one of each rule, then another of each
        taken: set[int] = set()
        for site in candidates:
            covered = {site.line, site.line + 1} if site.more else {site.line}
            if len([s for s in chosen if s.file == file]) < EACH and not covered & taken:
                chosen.append(site)
                taken |= covered
    return chosen


def build(workshop: Workshop) -> tuple[Path, list[Site]]:
    """One build with all mutants, number 1 the first of the list."""
    copy, refused = workshop.folder / "mutated", set[tuple[str, int]]()
    for _ in range(6):
        sites = draw(workshop, refused)
        shutil.rmtree(copy, ignore_errors=True)
        shutil.copytree(workshop.root / "src", copy / "src", ignore=shutil.ignore_patterns("__pycache__"))
        shutil.copy(workshop.root / "CMakeLists.txt", copy)
        (copy / "mutant.hpp").write_text(SELECTED)
        for number, site in enumerate(sites, 1):
            path = copy / "src" / "agent_onboarding" / site.file
            lines = path.read_text().splitlines()
            lines[site.line] = re.sub(r"\bM\b", f"mutant({number})", site.text)
            if site.more:
                lines[site.line + 1] = site.more
            path.write_text("\n".join(lines) + "\n")
        flags = f"-DCMAKE_CXX_FLAGS=-w -fmax-errors=0 -include {copy / 'mutant.hpp'}"
        try:
            return workshop.build("mutants", "-DCMAKE_BUILD_TYPE=Debug", flags, source=copy), sites
        except RuntimeError as exc:
            wrong = re.findall(r"agent_onboarding/([\w/]+\.[ch]pp):(\d+):\d+: (?:error|  required)", str(exc))
            lines_of = {(site.file, site.line + d) for site in sites for d in (0, 1)}
            found = {(file, int(line) - d) for file, line in wrong for d in (1, 2) if (file, int(line) - d) in lines_of}
            if not found - refused:
                raise
            refused |= found
    raise RuntimeError(f"{refused} too many of the mutants do not compile")


def noticed(workshop: Workshop, site: Path, number: int, file: str, limit: float) -> bool:
    """Whether the tests of the file fail, or take longer than `limit` seconds."""
    tests = [str(workshop.root / "tests" / f"test_{name}.py") for name in TESTS.get(file, TESTS[""]).split()]
    settings = ("-c", str(workshop.root / "pyproject.toml"), "--rootdir", str(workshop.root), "-p", "no:cacheprovider")
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    variables = {"MUTANT": str(number), "LD_PRELOAD": ""}
    arguments = ("-m", "pytest", "-x", "--tb=no", *settings, *tests)
    try:
        return workshop.python(*arguments, site=site, timeout=limit, variables=variables).returncode != 0
    except subprocess.TimeoutExpired:
        return True


def run(workshop: Workshop) -> Iterator[Result]:
    site, sites = build(workshop)
    numbered = list(enumerate(sites, 1))[:: 12 if workshop.quick else 1]
    limits: dict[str, float] = {}
    broken = []
    for file in {one.file if one.file in TESTS else "" for _, one in numbered}:
        started = time.monotonic()
        if noticed(workshop, site, 0, file, LONGEST):
            broken.append(f"the tests of {file or 'the layer'} fail without any change")
        limits[file] = 30 + SLOWER * (time.monotonic() - started)

    def tried(pair: tuple[int, Site]) -> bool:
        number, one = pair
        return noticed(workshop, site, number, one.file, limits[one.file if one.file in TESTS else ""])

    with ThreadPoolExecutor(os.cpu_count()) as pool:
        caught = list(pool.map(tried, numbered))
    survivors = [one for (_, one), seen in zip(numbered, caught, strict=True) if not seen]
    findings, equal = [], 0
    for one in survivors:
        text = (workshop.root / "src/agent_onboarding" / one.file).read_text().splitlines()[one.line].strip()
        if any(part in text for part, _ in EQUAL):
            equal += 1
        else:
            findings.append(f"{one.file}:{one.line + 1}, {one.rule}: {text}")
    share = 100 * sum(caught) / max(1, len(numbered) - equal)
    low = [f"only {share:.1f} % are caught, {WANTED} wanted"] if share < WANTED else []
    files = len({one.file for _, one in numbered})
    yield Result(f"mutations: in {files} files, {share:.0f} % noticed by the tests", len(numbered), broken + low)
    yield Result("mutations: survivors that a caller cannot tell apart, each with a reason", equal)
    yield Result("mutations: other survivors", len(findings), findings)

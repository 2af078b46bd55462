"""Small changes of the kit's Python sources, made by rule: the kit's tests must notice them.

The demo is left out: it is a check itself.
"""

import ast
import os
import random
import shutil
import subprocess
import sys
import time
from collections import Counter
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from queue import SimpleQueue
from typing import NamedTuple

import corvane
from proof.workshop import Result, Workshop

LINES, SEED, WANTED = 50, 20, 90.0  # of a file for each mutant, seed of the draw, per cent that must be noticed
PACKAGES = "corvane", "corvane_cli", "corvane_local", "corvane_pages"
PATIENCE, AT_LEAST = 4, 40.0  # how often the time of the tests without a change, and seconds, until a mutant has hung

# How the path of a file begins, the test files that see to it, which of their tests; the first line that fits.
TESTS = (
    ("corvane/auth.py", "http service", "not sync and not kill and not cut and not spoilt and not slow"),
    ("corvane/_http.py", "http doctor", ""),
    ("corvane/manifest.py", "service", "paths or spoilt or cut"),
    ("corvane/sync_backoff.py", "service", "back_off"),
    ("corvane/sync.py", "service http command", "paths or spoilt or cut or kill_at or back_off or sync"),
    ("corvane/runtime_module_freshness.py", "search journey", ""),
    ("corvane/key_file.py", "command cli", "key or kill or disk or login"),
    ("corvane/skills.py", "search", "skills"),
    ("corvane/_runtime.py", "search journey", ""),
    ("corvane/simulate_signal.py", "search command cli", "profit or takes or picture or a_day"),
    ("corvane/output_file.py", "report command", "refused or picture"),
    ("corvane/search_tracking.py", "search report", "not browser and not 200"),
    ("corvane/", "search", ""),
    ("corvane_cli/doctor", "doctor", ""),
    ("corvane_cli/display.py", "display", ""),
    ("corvane_cli/interrupts.py", "command", "ctrl or drips or output"),
    ("corvane_cli/identity.py", "cli command", "login or environment or planted or stored or refused or spends"),
    (
        "corvane_cli/command.py",
        "command cli",
        "answers or output or options or narrow or wrong or drips or refused or help",
    ),
    ("corvane_cli/report.py", "report", "not operator"),
    ("corvane_cli/capital.py", "report", "page or growth"),
    ("corvane_cli/listing.py", "report", "lists or form"),
    ("corvane_cli/found_commands.py", "report", "not operator and not 200"),
    ("corvane_cli/", "cli command", ""),
    ("corvane_local/certificates.py", "service", "certificates or keeps"),
    ("corvane_local/connections.py", "service", "slow or sign_up or connections"),
    ("corvane_local/failures.py", "service", "failures"),
    ("corvane_local/operator_page.py", "report", "operator or sessions"),
    ("corvane_pages/", "report", "page"),
    ("corvane_local/releases.py", "service journey", "published or journey or keeps"),
    ("corvane_local/eras.py", "service journey", "published or journey"),
    (
        "corvane_local/",
        "service",
        "not certificates and not spoilt and not sync and not cut and not kill_at and not back",
    ),
)
OPPOSITE: dict[type[ast.cmpop], type[ast.cmpop]] = {
    ast.Lt: ast.LtE, ast.LtE: ast.Lt, ast.Gt: ast.GtE, ast.GtE: ast.Gt, ast.Eq: ast.NotEq, ast.NotEq: ast.Eq,
    ast.In: ast.NotIn, ast.NotIn: ast.In, ast.Is: ast.IsNot, ast.IsNot: ast.Is,
}  # fmt: skip

# File, what stands on the line, why the tests cannot notice.
EXPLAINED = (
    ("corvane/_runtime.py", "slice(0, 1)", "any few days show whether an expression is well-formed"),
    ("corvane/sync.py", "LOCK_SECONDS = ", "a second more or less of patience"),
    ("corvane/errors.py", "super().__init__(message)", "BaseException.__new__ has noted the message"),
    ("corvane/_http.py", "timeout=None, trust_env=False", "with a transport of its own the environment is not asked"),
    ("corvane/_http.py", "if (left := ", "the very nanosecond"),
    ("corvane_cli/doctor_directory.py", "include_url=False", "what is left out is not shown either"),
    ("corvane_local/certificates.py", "os.fsync", "matters after a power cut"),
    ("corvane_local/certificates.py", "lasts = ", "the very microsecond"),
    (
        "corvane_local/connections.py",
        "self._deadline.cancel()",
        "a clock that runs out on a closed connection does nothing",
    ),
    ("corvane_local/failures.py", "get(name, 0.0)", "whatever lies in the past is long forgotten"),
    ("corvane_local/failures.py", "if at > now", "the very nanosecond"),
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


class Rules(ast.NodeVisitor):
    """Where the rules apply in one file."""

    def __init__(self, file: str, text: str) -> None:
        self.found = list[Mutant]()
        self._file, self._bytes, self._lines = file, text.encode(), text.splitlines()
        self._starts = [0]
        for line in self._bytes.splitlines(keepends=True):
            self._starts.append(self._starts[-1] + len(line))

    def _note(self, rule: str, node: ast.expr | ast.stmt, instead: str) -> None:
        start = self._starts[node.lineno - 1] + node.col_offset
        end = self._starts[(node.end_lineno or 0) - 1] + (node.end_col_offset or 0)
        source = self._lines[node.lineno - 1]
        self.found.append(Mutant(self._file, node.lineno, rule, start, end, instead, source))

    def _negate(self, test: ast.expr) -> None:
        if ast.unparse(test) not in ("TYPE_CHECKING", "True", "__name__ == '__main__'"):
            self._note("condition", test, f"(not ({ast.unparse(test)}))")

    def visit_If(self, node: ast.If) -> None:
        self._negate(node.test)
        if ast.unparse(node.test) != "TYPE_CHECKING":
            self.generic_visit(node)

    def visit_While(self, node: ast.While) -> None:
        self._negate(node.test)
        self.generic_visit(node)

    def visit_IfExp(self, node: ast.IfExp) -> None:
        self._negate(node.test)
        self.generic_visit(node)

    def visit_Compare(self, node: ast.Compare) -> None:
        if len(node.ops) == 1:
            other = ast.Compare(node.left, [OPPOSITE[type(node.ops[0])]()], node.comparators)
            self._note("comparison", node, f"({ast.unparse(other)})")
        self.generic_visit(node)

    def visit_BoolOp(self, node: ast.BoolOp) -> None:
        other = ast.BoolOp(ast.Or() if isinstance(node.op, ast.And) else ast.And(), node.values)
        self._note("and, or", node, f"({ast.unparse(other)})")
        self.generic_visit(node)

    def visit_Constant(self, node: ast.Constant) -> None:
        if isinstance(node.value, bool):
            self._note("boolean", node, str(not node.value))
        elif isinstance(node.value, int | float):
            self._note("number", node, f"({node.value!r} + 1)")

    def visit_Expr(self, node: ast.Expr) -> None:
        if isinstance(node.value, ast.Call):  # no docstrings, no yields
            self._note("statement", node, "pass")
        self.generic_visit(node)

    def visit_Raise(self, node: ast.Raise) -> None:
        self._note("raise", node, "pass")
        self.generic_visit(node)

    def visit_AugAssign(self, node: ast.AugAssign) -> None:
        self._note("statement", node, "pass")
        self.generic_visit(node)

    def visit_Return(self, node: ast.Return) -> None:
        if node.value is not None and not isinstance(node.value, ast.Constant):
            self._note("result", node, "return None")
        self.generic_visit(node)

    def visit_JoinedStr(self, node: ast.JoinedStr) -> None:
        """What is inside a message is its wording."""

    def visit_AnnAssign(self, node: ast.AnnAssign) -> None:
        if node.value is not None:
            self.visit(node.value)

    def _function(self, node: ast.FunctionDef | ast.AsyncFunctionDef) -> None:
        # Not the decorators, which are mostly texts and types of command lines, and not the annotations.
        for part in [*node.args.defaults, *(one for one in node.args.kw_defaults if one), *node.body]:
            self.visit(part)

    def visit_ClassDef(self, node: ast.ClassDef) -> None:
        for part in node.body:
            self.visit(part)

    def visit_FunctionDef(self, node: ast.FunctionDef) -> None:
        self._function(node)

    def visit_AsyncFunctionDef(self, node: ast.AsyncFunctionDef) -> None:
        self._function(node)


def draw(file: str, text: str) -> list[Mutant]:
    """The same each time: one of each rule, then another of each; at most one on a line."""
    rules = Rules(file, text)
    rules.visit(ast.parse(text))
    candidates = rules.found
    random.Random(f"{SEED} {file}").shuffle(candidates)
    seen = Counter[str]()
    turns = {mutant: seen.update([mutant.rule]) or seen[mutant.rule] for mutant in candidates}
    chosen = dict[int, Mutant]()
    for mutant in sorted(candidates, key=lambda mutant: turns[mutant]):
        if len(chosen) <= len(text.splitlines()) // LINES:
            chosen.setdefault(mutant.line, mutant)
    return [chosen[line] for line in sorted(chosen)]


class Place:
    """An interpreter of its own, with a copy of the installed kit that can be changed."""

    def __init__(self, workshop: Workshop, number: int) -> None:
        self.root, home = workshop.root, workshop.folder / f"kit-{number}"
        shutil.rmtree(home, ignore_errors=True)
        subprocess.run([sys.executable, "-m", "venv", "--without-pip", home], check=True)
        self._python = home / "bin" / "python"
        installed = Path(corvane.__path__[0]).parent
        [self._site] = home.glob("lib/python*/site-packages")
        (self._site / "installed.pth").write_text(f"{installed}\n")  # behind what is copied
        for package in PACKAGES:
            shutil.copytree(installed / package, self._site / package, ignore=shutil.ignore_patterns("__pycache__"))
        for name in ("corvane", "corvane-local"):
            script = installed.parents[2] / "bin" / name
            (home / "bin" / name).write_text(f"#!{self._python}\n{script.read_text().partition('\n')[2]}")
            (home / "bin" / name).chmod(0o755)

    def tests(self, names: str, which: str, seconds: float | None = None) -> str:
        """How these tests end: "passed", "failed" or "hung"."""
        options = "-m", "pytest", "-c", f"{self.root}/pyproject.toml", "-p", "no:cacheprovider", "-x", "-q", "--tb=no"
        files = [f"{self.root}/localkit/tests/test_{name}.py" for name in names.split()]
        command = [str(self._python), "-BP", *options, "-k", which, *files]
        nothing = subprocess.DEVNULL
        with subprocess.Popen(
            command, cwd=self._site, start_new_session=True, stdin=nothing, stdout=nothing, stderr=nothing
        ) as process:
            try:
                return "passed" if process.wait(seconds) == 0 else "failed"
            except subprocess.TimeoutExpired:
                return "hung"
            finally:
                _end_session(process.pid)

    def notices(self, mutant: Mutant, seconds: float) -> bool:
        """Whether the tests fail with the change, or hang."""
        path = self._site / mutant.file
        content = path.read_bytes()
        try:
            path.write_bytes(content[: mutant.start] + mutant.instead.encode() + content[mutant.end :])
            return self.tests(*tests_of(mutant.file), seconds) != "passed"
        finally:
            path.write_bytes(content)


def _end_session(leader: int) -> None:
    """Ends what the tests have left behind, such as services."""
    for entry in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = entry.read_text().rpartition(")")[2].split()
            if int(fields[3]) == leader:
                os.kill(int(entry.parent.name), 9)
        except (OSError, ValueError):
            continue  # gone already


def tests_of(file: str) -> tuple[str, str]:
    """The test files that see to a file of the kit, and which of their tests."""
    return next((names, which) for beginning, names, which in TESTS if file.startswith(beginning))


def run(workshop: Workshop, only: str = "") -> Iterator[Result]:
    site = Path(corvane.__path__[0]).parent
    paths = sorted(path for package in PACKAGES for path in (site / package).glob("*.py"))
    files = [str(path.relative_to(site)) for path in paths if only in str(path)]
    mutants = [mutant for file in files for mutant in draw(file, (site / file).read_text())]
    mutants = mutants[:: 12 if workshop.quick else 1]
    places = SimpleQueue[Place]()
    for number in range(workers := os.cpu_count() or 1):
        places.put(Place(workshop, number))

    def plain(tests: tuple[str, str]) -> float | None:
        began, place = time.monotonic(), places.get()
        try:
            return None if place.tests(*tests) != "passed" else time.monotonic() - began
        finally:
            places.put(place)

    def noticed(mutant: Mutant) -> bool:
        place, limit = places.get(), PATIENCE * (times[tests_of(mutant.file)] or 0.0)
        try:
            return place.notices(mutant, max(AT_LEAST, limit))
        finally:
            places.put(place)

    with ThreadPoolExecutor(workers) as pool:
        needed = sorted({tests_of(mutant.file) for mutant in mutants})
        times = dict(zip(needed, pool.map(plain, needed), strict=True))
        found = [f"without any change these tests fail: {tests}" for tests, took in times.items() if took is None]
        caught = [] if found else list(pool.map(noticed, mutants))
    if found:
        yield Result("kit mutations", 0, found)
        return
    share = 100 * sum(caught) / len(caught)
    found = [f"only {share:.1f} % are noticed, {WANTED} wanted"] if share < WANTED else []
    missed = [mutant for mutant, seen in zip(mutants, caught, strict=True) if not seen]
    reasons = {one: [why for file, text, why in EXPLAINED if one.file == file and text in one.source] for one in missed}
    for one, why in reasons.items():
        print(f"   {one.file}:{one.line}, {one.rule}: {one.source.strip()}: {'; '.join(why) or 'not noticed'}")
    yield Result(f"kit mutations: in {len(files)} files, {share:.0f} % noticed by the tests", len(mutants), found)
    yield Result("   of the others, cannot be noticed for a known reason", sum(map(bool, reasons.values())))

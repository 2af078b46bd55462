"""The kit's tests must notice small changes of its Python sources. The demo is left out: it is a check itself."""

import ast
import os
import shutil
import subprocess
import sys
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from queue import SimpleQueue

import corvane
from proof.mutants import AT_LEAST, PATIENCE, Mutant, draw, ends, results
from proof.workshop import Result, Workshop

LINES, WANTED = 50, 90.0  # of a file for each mutant, per cent that must be noticed
PACKAGES = "corvane", "corvane_cli", "corvane_local", "corvane_pages"

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
    ("corvane_cli/command.py", "command cli", "answers or output or options or narrow or wrong or drips or help"),
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
    ("corvane_local/", "service", "not certificates and not spoilt and not sync and not cut and not kill_at"),
)
EXPLAINED = (
    ("corvane/_runtime.py", "slice(0, 1)", "any few days show whether an expression is well-formed"),
    ("corvane/sync.py", "LOCK_SECONDS = ", "a second more or less of patience"),
    ("corvane/errors.py", "super().__init__(message)", "BaseException.__new__ has noted the message"),
    ("corvane/_http.py", "timeout=None, trust_env=False", "with a transport of its own the environment is not asked"),
    ("corvane/_http.py", "if (left := ", "the very nanosecond"),
    ("corvane_cli/doctor_directory.py", "include_url=False", "what is left out is not shown either"),
    ("corvane_local/certificates.py", "os.fsync", "matters after a power cut"),
    ("corvane_local/certificates.py", "lasts = ", "the very microsecond"),
    ("corvane_local/connections.py", "self._deadline.cancel()", "a late clock does nothing to a closed connection"),
    ("corvane_local/failures.py", "get(name, 0.0)", "whatever lies in the past is long forgotten"),
    ("corvane_local/failures.py", "if at > now", "the very nanosecond"),
)

OPPOSITE: dict[type[ast.cmpop], type[ast.cmpop]] = {
    ast.Lt: ast.LtE, ast.LtE: ast.Lt, ast.Gt: ast.GtE, ast.GtE: ast.Gt, ast.Eq: ast.NotEq, ast.NotEq: ast.Eq,
    ast.In: ast.NotIn, ast.NotIn: ast.In, ast.Is: ast.IsNot, ast.IsNot: ast.Is,
}  # fmt: skip
RULES = {"condition", "comparison", "and, or", "boolean", "number", "statement", "raise", "result"}
ALWAYS = "TYPE_CHECKING", "True", "__name__ == '__main__'"


def changed(node: ast.AST) -> Iterator[tuple[str, ast.expr | ast.stmt, str]]:
    """Rule, place and what stands there instead, for a node and all below it."""
    match node:
        case ast.If(test=ast.Name("TYPE_CHECKING")) | ast.JoinedStr():  # imports for types; the wording of a message
            return
        case ast.If(test=test) | ast.While(test=test) | ast.IfExp(test=test) if (
            text := ast.unparse(test)
        ) not in ALWAYS:
            yield "condition", test, f"(not ({text}))"
        case ast.Compare(left, [operator], compared):
            yield "comparison", node, f"({ast.unparse(ast.Compare(left, [OPPOSITE[type(operator)]()], compared))})"
        case ast.BoolOp(operator, values):
            other = ast.Or() if isinstance(operator, ast.And) else ast.And()
            yield "and, or", node, f"({ast.unparse(ast.BoolOp(other, values))})"
        case ast.Constant(bool(value)):
            yield "boolean", node, str(not value)
        case ast.Constant(int(value) | float(value)):
            yield "number", node, f"({value!r} + 1)"
        case ast.Expr(ast.Call()) | ast.AugAssign():  # no docstrings, no yields
            yield "statement", node, "pass"
        case ast.Raise():
            yield "raise", node, "pass"
        case ast.Return(value) if value is not None and not isinstance(value, ast.Constant):
            yield "result", node, "return None"
    for field, inside in ast.iter_fields(node):
        # Decorators are mostly texts and types of command lines.
        if field not in ("annotation", "returns", "decorator_list", "bases", "type_params"):
            for below in inside if isinstance(inside, list) else [inside]:
                if isinstance(below, ast.AST):
                    yield from changed(below)


def candidates(file: str, text: str) -> list[Mutant]:
    """Where the rules apply in one file."""
    lines = text.encode().splitlines(keepends=True)
    starts = [sum(map(len, lines[:number])) for number in range(len(lines))]
    return [
        Mutant(
            *(file, node.lineno, rule, starts[node.lineno - 1] + node.col_offset),
            *(starts[(node.end_lineno or 0) - 1] + (node.end_col_offset or 0), instead),
            lines[node.lineno - 1].decode(),
        )
        for rule, node, instead in changed(ast.parse(text))
    ]


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
        """How these tests end."""
        options = "-m", "pytest", "-c", f"{self.root}/pyproject.toml", "-p", "no:cacheprovider", "-x", "-k", which
        files = [f"{self.root}/localkit/tests/test_{name}.py" for name in names.split()]
        return ends([str(self._python), "-BP", *options, *files], seconds, self._site)

    def tests_of(self, mutant: Mutant, seconds: float) -> str:
        """How the tests of its file end with the change."""
        path = self._site / mutant.file
        content = path.read_bytes()
        try:
            path.write_bytes(content[: mutant.start] + mutant.instead.encode() + content[mutant.end :])
            return self.tests(*tests_of(mutant.file), seconds)
        finally:
            path.write_bytes(content)


def tests_of(file: str) -> tuple[str, str]:
    """The test files that see to a file of the kit, and which of their tests."""
    return next((names, which) for beginning, names, which in TESTS if file.startswith(beginning))


def run(workshop: Workshop, only: str = "") -> Iterator[Result]:
    site = Path(corvane.__path__[0]).parent
    paths = sorted(path for package in PACKAGES for path in (site / package).glob("*.py"))
    texts = {str(path.relative_to(site)): path.read_text() for path in paths}
    places, every = SimpleQueue[Place](), {file: candidates(file, text) for file, text in texts.items()}
    unused: list[object] = [*RULES - {mutant.rule for some in every.values() for mutant in some}]
    unused += [row for row in TESTS if row[1:] not in map(tests_of, texts)]
    unused += [row for row in EXPLAINED if row[1] not in texts.get(row[0], "")]
    mutants = [one for file in every if only in file for one in draw(every[file], texts[file].count("\n") // LINES + 1)]
    mutants = mutants[:: 12 if workshop.quick else 1]
    for number in range(workers := os.cpu_count() or 1):
        places.put(Place(workshop, number))

    def plain(tests: tuple[str, str]) -> float:
        began, place = time.monotonic(), places.get()
        try:
            if place.tests(*tests) != "passed":
                raise RuntimeError(f"without any change these tests fail: {tests}")
            return time.monotonic() - began
        finally:
            places.put(place)

    def tried(mutant: Mutant) -> str:
        place = places.get()
        try:
            return place.tests_of(mutant, max(AT_LEAST, PATIENCE * times[tests_of(mutant.file)]))
        finally:
            places.put(place)

    with ThreadPoolExecutor(workers) as pool:
        needed = sorted({tests_of(mutant.file) for mutant in mutants})
        times = dict(zip(needed, pool.map(plain, needed), strict=True))
        seen = dict(zip(mutants, pool.map(tried, mutants), strict=True))
    yield from results(f"kit mutations in {len(texts)} files", seen, WANTED, EXPLAINED, unused)

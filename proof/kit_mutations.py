"""The kit's tests must notice small changes of its Python sources. The demo is left out: it is a check itself."""

import ast
import itertools
import os
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from queue import SimpleQueue
from typing import Any

import corvane
from proof.faults import Fault, Row, draw, noticed, row_of
from proof.workshop import Result, Workshop

LINES, WANTED = 50, 90.0  # of a file for each fault, per cent that must be noticed
PACKAGES, INSTALLED = ("corvane", "corvane_cli", "corvane_local", "corvane_pages"), Path(corvane.__path__[0]).parent

# How the path of a file begins, the test files that see to it, which of their tests; the first line that fits.
TESTS = (
    ("corvane/auth.py", "http service", "not sync and not kill and not cut and not spoilt and not slow"),
    ("corvane/_http.py", "http doctor", ""),
    ("corvane/manifest.py", "service", "paths or spoilt or cut"),
    ("corvane/sync_backoff.py", "service", "back_off"),
    ("corvane/sync.py", "service http cli", "paths or spoilt or cut or kill_at or back_off or sync"),
    ("corvane/runtime_module_freshness.py", "search demo", "not sabotage"),
    ("corvane/key_file.py", "cli", "key or kill or disk or login"),
    ("corvane/skills.py", "search", "skills"),
    ("corvane/_runtime.py", "search demo", "not sabotage"),
    ("corvane/simulate_signal.py", "search cli", "profit or takes or picture or a_day"),
    ("corvane/output_file.py", "report cli", "refused or picture or a_day"),
    ("corvane/search_tracking.py", "search report", "not browser and not 200"),
    ("corvane/", "search", ""),
    ("corvane_cli/doctor_findings.py", "cli doctor", "a_day or doctor"),
    ("corvane_cli/doctor", "doctor", ""),
    ("corvane_cli/display.py", "display", ""),
    ("corvane_cli/interrupts.py", "cli", "ctrl or drips or output"),
    ("corvane_cli/identity.py", "cli", "login or environment or planted or stored or refused or spends"),
    ("corvane_cli/command.py", "cli", "answer or output or option or word or wrong or drip or help or picture"),
    ("corvane_cli/report.py", "report", "not operator"),
    ("corvane_cli/capital.py", "report", "page or growth"),
    ("corvane_cli/shared.py", "cli report", "a_day or login or planted or refused or sync or the_page_is_true"),
    ("corvane_cli/search_commands.py", "cli report", "a_day or sync or picture or every_form"),
    ("corvane_cli/listing.py", "report", "lists or form"),
    ("corvane_cli/found_commands.py", "report", "not operator and not 200"),
    ("corvane_cli/", "cli", ""),
    ("corvane_local/certificates.py", "service", "certificates or keeps"),
    ("corvane_local/connections.py", "service", "slow or sign_up or connections"),
    ("corvane_local/failures.py", "service", "failures"),
    ("corvane_local/operator_page.py", "report", "operator or sessions"),
    ("corvane_pages/", "report", "page"),
    ("corvane_local/releases.py", "service demo", "(published or keeps or demo) and not sabotage"),
    ("corvane_local/eras.py", "service demo", "(published or demo) and not sabotage"),
    ("corvane_local/", "service", "not certificates and not spoilt and not sync and not cut and not kill_at"),
)
EXPLAINED = (
    ("corvane/_batch.py", "if len(waiting) > ", "a batch more or less in advance"),
    ("corvane/_runtime.py", "slice(0, 1)", "any few days show whether an expression is well-formed"),
    ("corvane/search_templates.py", "strict=True", "there is a correlation for each instrument"),
    ("corvane/search_tracking.py", "_BUSY_TIMEOUT = ", "a second more or less of patience"),
    ("corvane/sync.py", "LOCK_SECONDS = ", "a second more or less of patience"),
    ("corvane/errors.py", "super().__init__(message)", "BaseException.__new__ has noted the message"),
    ("corvane/_http.py", "timeout=None, trust_env=False", "with a transport of its own the environment is not asked"),
    ("corvane/_http.py", "if (left := ", "the very nanosecond"),
    ("corvane_cli/capital.py", "init_reconstruction", "a manifest names modules that fit one another"),
    ("corvane_cli/identity.py", "1 < at < ", "the second second of 1970"),
    ("corvane_cli/doctor_directory.py", "os.fsync", "matters where a disk tells late that it is full, on a network"),
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
        # Decorators are mostly texts and types of command lines; a pattern cannot compute.
        if field not in ("annotation", "returns", "decorator_list", "bases", "type_params", "pattern"):
            for below in inside if isinstance(inside, list) else [inside]:
                if isinstance(below, ast.AST):
                    yield from changed(below)


def candidates(file: str, text: str) -> list[Fault]:
    """Where the rules apply in one file; places are counted in bytes."""
    lines = text.encode().splitlines(keepends=True)
    starts = [0, *itertools.accumulate(map(len, lines))]
    return [
        Fault(
            *(rule, file, node.lineno, lines[node.lineno - 1].decode(), starts[node.lineno - 1] + node.col_offset),
            *(starts[(node.end_lineno or 0) - 1] + (node.end_col_offset or 0), instead),
        )
        for rule, node, instead in changed(ast.parse(text))
    ]


class Kit:
    """An interpreter of its own, with a copy of the installed kit that can be changed."""

    def __init__(self, workshop: Workshop, number: int) -> None:
        self._workshop, home = workshop, workshop.folder / f"kit-{number}"
        shutil.rmtree(home, ignore_errors=True)
        subprocess.run([sys.executable, "-m", "venv", "--without-pip", home], check=True)
        [self._site], self._python = home.glob("lib/python*/site-packages"), str(home / "bin" / "python")
        (self._site / "installed.pth").write_text(f"{INSTALLED}\n")  # behind what is copied
        for package in PACKAGES:
            shutil.copytree(INSTALLED / package, self._site / package, ignore=shutil.ignore_patterns("__pycache__"))
        for name in ("corvane", "corvane-local"):
            script = (INSTALLED.parents[2] / "bin" / name).read_text().partition("\n")[2]
            (home / "bin" / name).write_text(f"#!{self._python}\n{script}")
            (home / "bin" / name).chmod(0o755)

    def trial(self, fault: Fault | None, row: Row, seconds: float) -> Any:
        """Runs tests with a fault in the copy, or without."""
        path = self._site / (fault.file if fault else "corvane/__init__.py")
        content = path.read_bytes()
        faulty = content[: fault.start] + fault.instead.encode() + content[fault.end :] if fault else content
        ast.parse(faulty)  # what is not even Python, any test would notice
        try:
            path.write_bytes(faulty)
            how = {"interpreter": self._python, "seconds": seconds}
            return self._workshop.pytest(self._workshop.root, row[1], "-k", row[2], **how)
        finally:
            path.write_bytes(content)


def run(workshop: Workshop, only: str = "") -> Iterator[Result]:
    paths = sorted(path for package in PACKAGES for path in (INSTALLED / package).glob("*.py"))
    texts = {str(path.relative_to(INSTALLED)): path.read_text() for path in paths}
    every = {file: candidates(file, text) for file, text in texts.items()}
    unused: list[object] = [*RULES - {fault.rule for faults in every.values() for fault in faults}]
    unused += [row for row in TESTS if row not in (row_of(file, TESTS) for file in texts)]
    unused += [row for row in EXPLAINED if row[1] not in texts.get(row[0], "")]
    rows = len(RULES) + len(TESTS) + len(EXPLAINED)
    yield Result("kit mutations: rules, tests and reasons, each fits a place", rows, list(map(str, unused)))
    faults = [one for file in every if only in file for one in draw(every[file], texts[file].count("\n") // LINES + 1)]
    kits = SimpleQueue[Kit]()
    for number in range(os.cpu_count() or 1):
        kits.put(Kit(workshop, number))

    def trial(*given: Any) -> Any:
        kit = kits.get()
        try:
            return kit.trial(*given)
        finally:
            kits.put(kit)

    what = f"kit mutations: in {len(texts)} files"
    yield noticed(what, trial, TESTS, workshop.sample(faults, 12), WANTED, len(faults), EXPLAINED)

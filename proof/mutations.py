"""The tests must notice small changes of what they test: of the module's C++, and of the kit's Python.

The kit's demo is left out: it is a check itself.
"""

import itertools
import random
import re
import shutil
import sys
import tempfile
import venv
from collections.abc import Iterable, Iterator, Mapping, Sequence
from pathlib import Path

import corvane
from proof.faults import HUNG, RELEASE, Copy, Fault, Tests, noticed
from proof.workshop import Done, Result, Workshop

SEED = 20  # of the draw
Rows = Sequence[tuple[str, str, str]]
# What the path of a file begins with; the test files that see to it, which of their tests. The first line that fits.
MODULE_TESTS = (
    ("eras", "promises differential eras", ""),
    ("wallet_store", "promises differential key_file", ""),
    ("", "promises differential surface eras attacks", ""),
)
SLOW = "sabotage _kill_ browser 200 failures connections slow run_out drip ctrl out_of_time"
QUICK = f"not ({SLOW.replace(' ', ' or ')})"
KIT_TESTS = (
    ("corvane/auth", "http service", QUICK),
    ("corvane/_http", "http doctor", ""),
    ("corvane/key_file", "cli", ""),
    ("corvane/(simulate|output_file)", "search report cli", QUICK),
    ("corvane/search_t", "search report", QUICK),
    ("corvane/sync.py", "service http cli", "paths or spoilt or cut or kill or back_off or sync or vocabulary"),
    ("corvane/(sync_|manifest)", "service", "back_off or spoilt or paths"),
    ("corvane/", "search demo", QUICK),
    ("corvane_cli/doctor", "doctor report", QUICK),
    ("corvane_cli/(identity|machine)", "doctor cli", QUICK),
    ("corvane_cli/interrupts", "cli", "ctrl or drip or output"),
    ("corvane_cli/(capital|report|found)|corvane_pages/", "report", QUICK),
    ("corvane_cli/", "display cli report", QUICK),
    ("corvane_local/operator", "report service", "operator or page"),
    ("corvane_local/(connections|failures)", "service", "slow or sign_up or connections or failures"),
    ("corvane_local/(app|cli)", "service", "not _kill_"),
    ("corvane_local/", "service demo", QUICK.replace(" or run_out", "")),
)

NO_CALL = "(?!return|throw|raise|delete|Py_)"
STEP = rf"{NO_CALL}[a-z_]+(?:(?:\.|->)[a-z_]+)?\((?:(?!raise|throw).)*\);"
# Rule, what it looks for, what stands there instead; M is whether the fault is selected.
MODULE_RULES = (
    ("message", r'(?:(?<=[(\[{])|(?<=, ))("(?:[^"\\\n]|\\.)* [^"\n]*[^"\\ ])"(_n)?(?=[,)\]])', r'(M ? \1!"\2 : \1"\2)'),
    ("except class", r'(in, caught, |matches\((?:auth|global)\()("\w+"_n)', r'\1(M ? "KeyError"_n : \2)'),
    ("condition", r"(?<=\bif \()((?:(?! = ).)+)(?=\)(?: \[\[\w+\]\])?(?: \{)?(?: //.*)?$)", r"M != bool(\1)"),
    ("comparison", r"\bPy_(EQ|NE)\b", r"(Py_\1 ^ (M ? 1 : 0))"),  # Py_EQ is 2, Py_NE 3
    ("boolean", r"\btrue_value\(\)(?! noexcept)", "(M ? handle(Py_False) : true_value())"),
    ("boolean", r"(?<= = )(true|false)(?=;)", r"(M != \1)"),
    ("number", r"(?<=integer\()(\w+)(?=\))", r"\1 + (M ? 1 : 0)"),
    ("statement", rf"(?<=[;{{}}]\n)( +)({NO_CALL}[\w.:>-]+\(.*\));$", r"\1M ? (void)0 : (void)(\2);"),
    ("swap", rf"(?<=[;{{}}]\n)( +)({STEP})\n\1(?!\2)({STEP})$", r"\1if (M) { \3 \2 } else { \2\n\3 }"),
)
# Lines that declare, which cannot select.
MODULE_DECLARED = (
    r"^(?!.*\bif \()(?:.*(?:constexpr|consteval|static_assert|__asm__|= default)|\s*(?://|#|\[\[|template|using|: )"
    r"|(?!\s*(?:return|except_scope)\b)\s*\w[\w:<>*&]* (?:[\w:<>*& ]+ )?[*&]?\w+\()"
)
# The same for the kit, where each fault has a copy of its own, and texts and comments are not shown.
KIT_RULES = (
    ("condition", r"\b(if|elif|while) (?!not |TYPE_CHECKING|True|__name__|\w+ :=)", r"\1 not "),
    ("condition", r"\b(if|elif|while) not ", r"\1 "),
    ("comparison", r" (<|>) ", r" \1= "),
    ("comparison", r" (<|>)= ", r" \1 "),
    ("comparison", " == ", " != "),
    ("comparison", " not in ", " in "),
    ("and, or", " and ", " or "),
    ("and, or", " or ", " and "),
    ("boolean", r"\bTrue\b", "False"),
    ("boolean", r"\bFalse\b", "True"),
    ("statement", r"^( +)(?!super|__|.* = )(\w[\w.]*\()", r"\1None and \2"),
    ("raise", r"^( +)raise\b", r"\1if False: raise"),
    ("result", r"\breturn (?! |__|None|True|False|lambda)", "return None and "),
)
# Lines that declare, and those that matter after a power cut, with many writers, or with what does not fit together.
KIT_DECLARED = r"^ *(?:@|def |async |class |from |import |case |type |[\w.]+: [^=]+$)|fsync|PRAGMA|strict=|trust_env"
# What of the draw changes nothing that anybody could see, with the reason.
MODULE_EXPLAINED = {
    '"too many arguments"': "no call of the module has that many",
    '"error return without exception set"': "no function of the interpreter fails so",
    '"a declaration is not code"': "what was compiled at build time is",
    "visit(reinterpret_cast<PyCodeObject*>": "code objects are found by their names, in whichever order they come",
    "    stop();": "nothing can happen between the two",
    "PyErr_NoMemory();": "nothing asks for memory by `new`, which the proof `coverage` sees to",
    "inline bool initialised = false": "no function exists before it becomes true",
    "bool ascending = true": "what is sorted already is sorted again, which is only slower",
    "watcher == no_watcher": "without a watcher names are looked up each time, which is only slower",
    "round_++ % rounds_between_checks": "then there are more checks for signals, not fewer",
    "set_item(interpreter_dict(), kept_as()": "the initialisation has succeeded either way",
}
KIT_EXPLAINED = {
    "expression_evaluator or evaluate_expression": "both evaluate alike",
    'config.get("named_universe") or': "both places name the same universe",
    'host, port_is_valid = "", False': "an address without a host is refused already",
    "> _GREATEST_LIKENESS": "no two profits are alike to the last bit of the limit",
    "1 < at < 1e11": "nobody signed in at these very seconds",
    "len(head) < _LONGEST_HEAD": "a head of exactly this length",
    "if at > now": "at that very moment",
    "return one  # there is none": "and then nothing is shown either way",
    "file.tell() > size": "a body of just this size ends there anyway",
    "hide_input=True, err=True": "where a line feed goes if the prompt is left by Ctrl-C",
    'AssertionError("unreachable")': "nothing gets there",
    "digital_signature=True": "what else the authority's key might be used for",
}
TEXTS = re.compile(r'"""[\s\S]*?"""|"(?:[^"\\\n]|\\.)*"|#.*')  # of Python


def drawn(folder: Path, paths: Iterable[Path], rules: Rows, declared: str, rows: Rows, each: int) -> Iterator[Fault]:
    """One for so many lines of a file, by each rule in turn, one on a line; always the same, the last place first."""
    unused = {pattern for _, pattern, _ in rules}
    for path in sorted(paths):
        file, text, candidates = str(path.relative_to(folder)), path.read_text(), list[Fault]()
        shown = TEXTS.sub(lambda one: re.sub(r"[^\n]", "_", one[0]), text) if path.suffix == ".py" else text
        lines, tests = text.splitlines(), next(row[1:] for row in rows if re.match(row[0], file))
        for rule, pattern, template in rules:
            for match in re.finditer(pattern, shown, re.M):
                line = text.count("\n", 0, match.start())
                if not re.search(declared, lines[line]):
                    unused.discard(pattern)
                    instead = match.expand(template)
                    candidates.append(Fault(rule, file, line + 1, lines[line], *match.span(), instead, tests))
        draw = random.Random(f"{SEED} {file}")
        draw.shuffle(candidates)
        by_rule = [[one for one in candidates if one.what == rule] for rule in dict.fromkeys(row[0] for row in rules)]
        draw.shuffle(by_rule)
        chosen, taken = list[Fault](), set[int]()
        for fault in (one for turn in itertools.zip_longest(*by_rule) for one in turn if one):
            both = {fault.line, fault.line + fault.instead.count("\n")}
            if len(chosen) <= len(lines) // each and not both & taken:
                chosen.append(fault)
                taken |= both
        yield from sorted(chosen, key=lambda fault: -fault.start)
    if unused:
        raise RuntimeError(f"these rules fit no place: {unused}")


def unexplained(faults: Sequence[Fault], reasons: Mapping[str, str], paths: Iterable[Path]) -> list[Fault]:
    """Those for which no reason is given. A reason for what is in no file any more is an error."""
    sources = "".join(path.read_text() for path in paths)
    if stale := [part for part in reasons if part not in sources]:
        raise RuntimeError(f"these explain no fault: {stale}")
    return [fault for fault in faults if not any(part in fault.source for part in reasons)]


def mutations(workshop: Workshop) -> Iterator[Result]:
    copy = Copy(workshop, "mutations")
    folder = copy.root / "src" / "agent_onboarding"
    paths = [*folder.glob("*.cpp"), *folder.glob("py/*.[ch]pp")]
    faults = list(drawn(folder, paths, MODULE_RULES, MODULE_DECLARED, MODULE_TESTS, 20))
    tried = unexplained(faults, MODULE_EXPLAINED, paths)
    for fault in faults:
        text = (path := folder / fault.file).read_text()
        path.write_text(text[: fault.start] + fault.selecting(fault.instead) + text[fault.end :])
    copy.build(RELEASE)
    what = f"mutations, without {len(faults) - len(tried)} explained"
    yield noticed(what, copy.trial, workshop.sample(tried, 12), 95, workshop)


def kit_mutations(workshop: Workshop) -> Iterator[Result]:
    installed = Path(corvane.__path__[0]).parent
    packages = "corvane", "corvane_cli", "corvane_local", "corvane_pages"
    paths = [path for package in packages for path in (installed / package).glob("*.py")]
    everything = list(drawn(installed, paths, KIT_RULES, KIT_DECLARED, KIT_TESTS, 50))
    faults = unexplained(everything, KIT_EXPLAINED, paths)

    def trial(fault: Fault | None, tests: Tests) -> Done:
        """Runs tests in an interpreter of its own, with a copy of the installed kit."""
        with tempfile.TemporaryDirectory() as home:
            venv.create(home, symlinks=True)
            [site] = Path(home).glob("lib/python*/site-packages")
            shutil.copy2(Path(sys.executable).with_name("corvane"), Path(home, "bin"))
            (site / "installed.pth").write_text(f"{installed}\n")  # behind what is copied
            for package in packages:
                shutil.copytree(installed / package, site / package, ignore=shutil.ignore_patterns("__pycache__"))
            if fault:
                text = (path := site / fault.file).read_text()
                path.write_text(faulty := text[: fault.start] + fault.instead + text[fault.end :])
                compile(faulty, fault.file, "exec")  # what is not even Python, any test would notice
            return workshop.pytest(workshop.root, *tests, interpreter=f"{home}/bin/python", seconds=HUNG)

    what = f"kit mutations, without {len(everything) - len(faults)} explained"
    yield noticed(what, trial, workshop.sample(faults, 12), 90, workshop)

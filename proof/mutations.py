"""The module's tests must notice small changes of its C++ sources."""

import re
from collections.abc import Iterator

from proof.faults import Copy, Fault, draw, fault_at, noticed
from proof.workshop import Result, Workshop

EACH, WANTED = 8, 95.0  # faults in a file, per cent that must be noticed
# How the path of a file begins, the test files that see to it.
TESTS = (
    ("eras", "promises differential eras", ""),
    ("wallet_store", "promises differential key_file", ""),
    ("", "promises differential surface eras attacks", ""),
)
STEP = r"[a-z_]+(?:(?:\.|->)[a-z_]+)?\((?:(?!raise|throw|return|delete).)*\);"
# Rule, what it looks for, what stands there instead; M is whether the fault is selected.
RULES = (
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
    ("py/function.cpp", "throw_error(PyExc_SystemError, ", "sources that contradict one another; no test would pass"),
    ("py/function.hpp", "PyErr_NoMemory()", "matters where memory runs out: allocations"),
    ("py/object.hpp", "Py_REFCNT(owned) > 1", "told only from a thread that outlives the interpreter: processes"),
    ("runtime_manifest.cpp", "bool ascending = true", "what is sorted is sorted once more"),
)


def candidates(file: str, text: str) -> Iterator[tuple[str, Fault]]:
    """The pattern, and what it makes of a place, wherever the rules fit."""
    for rule, pattern, template in RULES:
        for match in re.finditer(pattern, text, re.M):
            fault = fault_at(rule, file, text, *match.span(), match.expand(template))
            if not DECLARED.search(fault.source) or re.search(r"\bif \(", fault.source):
                yield pattern, fault


def run(workshop: Workshop) -> Iterator[Result]:
    copy, faults, fitting, texts = Copy(workshop, "mutations"), list[Fault](), set[str](), dict[str, str]()
    source = copy.root / "src" / "agent_onboarding"
    for path in sorted([*source.glob("*.cpp"), *source.glob("py/*.[ch]pp")]):
        file = str(path.relative_to(source))
        texts[file] = text = path.read_text()
        found = list(candidates(file, text))
        fitting |= {pattern for pattern, _ in found}
        for fault in draw([fault for _, fault in found], EACH):
            faults.append(fault)
            text = text[: fault.start] + copy.selecting(fault, fault.instead) + text[fault.end :]
        path.write_text(text)
    unused = [f"{rule}: {pattern}" for rule, pattern, _ in RULES if pattern not in fitting]
    unused += [f"{file}: {text}" for file, text, _ in EXPLAINED if text not in texts.get(file, "")]
    yield Result("mutations: rules and reasons, each fits a place", len(RULES) + len(EXPLAINED), unused)
    copy.build()
    what = f"mutations: in {len({fault.file for fault in faults})} files"
    yield noticed(what, copy.trial, TESTS, workshop.sample(faults, 12), WANTED, len(faults), EXPLAINED)

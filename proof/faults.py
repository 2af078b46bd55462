"""Faults planted in copies of the sources, and who notices them.

Here by hand: some for each meter of the other proofs, which their own runs show to be silent otherwise; and some in the
module and its Python twin at once, which then agree: the tests must notice them all the same. In `mutations` by rule.
"""

import math
import re
import shlex
import shutil
import subprocess
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from typing import NamedTuple

from proof import sanitizers
from proof.workshop import Done, Result, Variables, Workshop, side_by_side

HUNG = 300  # seconds, of which the tests without a fault need a small part even on a busy machine
SELECTED = """#pragma once
#include <cstdlib>
#include <string_view>
inline bool faulty(std::string_view name) { return name == std::getenv("FAULT"); }
"""
RELEASE = "-DCMAKE_BUILD_TYPE=Release"
Tests = tuple[str, str]  # files, such as "eras surface"; for pytest's -k which of their tests


class Fault(NamedTuple):
    """What goes wrong on which line, and what stands at its place instead; which tests see to it."""

    what: str
    file: str
    line: int = 0
    source: str = ""
    start: int = 0
    end: int = 0
    instead: str = ""
    tests: Tests = ("", "")

    def selecting(self, instead: str) -> str:
        """What stands instead, where M stands for whether this fault is the one."""
        return re.sub(r"\bM\b", f'faulty("{self.name()}")', instead)

    def name(self) -> str:
        return f"{self.file}:{self.line}, {self.what}"


Trial = Callable[[Fault | None, Tests], Done]  # runs tests with a fault, or without


class Copy:
    """A copy of the module's sources, tests and twin, in which the variable FAULT selects one of many faults."""

    def __init__(self, workshop: Workshop, name: str) -> None:
        self._workshop, self.root = workshop, workshop.folder / name
        self.site: Variables = {}
        shutil.rmtree(self.root, ignore_errors=True)
        others = shutil.ignore_patterns(".*", "build", "dist", "localkit", "__pycache__")
        shutil.copytree(workshop.root, self.root, ignore=others)
        (self.root / "fault.hpp").write_text(SELECTED)

    def replace(self, file: str, old: str, instead: str) -> None:
        """Plants a fault at each place of this text; @ stands for the text."""
        if old not in (text := (path := self.root / file).read_text()):
            raise RuntimeError(f"the place of this fault is gone from {file}: {old}")
        path.write_text(text.replace(old, instead.replace("@", old)))

    def build(self, option: str = "-DCMAKE_BUILD_TYPE=Debug") -> None:
        """Builds the extension from the sources as they are now."""
        flags = f"-DCMAKE_CXX_FLAGS=-w -include {shlex.quote(str(self.root / 'fault.hpp'))}"
        name = f"{self.root.name}-{option.rpartition('=')[2]}"
        larger = {} if option == RELEASE else {"LD_PRELOAD": ""}  # tells the tests that frames are
        self.site = {**self._workshop.build(name, option, flags, root=self.root), **larger}

    def trial(self, fault: Fault | None, tests: Tests) -> Done:
        """Runs tests of the copy with a fault, or without."""
        variables = {**self.site, "FAULT": fault.name() if fault else ""}
        return self._workshop.pytest(self.root, *tests, variables=variables, seconds=HUNG)


def noticed(what: str, trial: Trial, faults: Sequence[Fault], wanted: float, workshop: Workshop) -> Result:
    """At how many of these faults the tests fail; so many per cent must be noticed.

    A fault at which the tests hang is not noticed: nobody has been told of it.
    """

    def ended(fault: Fault) -> str:
        try:
            end = "noticed" if trial(fault, fault.tests).returncode else "not noticed"
        except subprocess.TimeoutExpired:
            end = "the tests hang"
        if end != "noticed":
            print(f"   {fault.name()}: {end}: {fault.source.strip()}", flush=True)
        return end

    needed = sorted({fault.tests for fault in faults})
    for done in side_by_side(lambda tests: trial(None, tests), needed):
        if done.returncode:
            raise RuntimeError(f"without a fault tests fail: {done.args}: {done.stdout[-2000:]}{done.stderr[-2000:]}")
    ends = Counter(side_by_side(ended, faults))
    # What a sample shows varies: less than three standard errors below what is wanted, it shows nothing.
    least = wanted - 3 * math.sqrt(wanted * (100 - wanted) / len(faults)) * workshop.quick
    share = 100 * ends["noticed"] / len(faults)
    said = f"{share:.1f} % noticed; wanted: {least:.1f} %" + " of a sample" * workshop.quick
    return Result(f"{what}; {said}", len(faults), [said] if share < least else [], ends)


# What goes wrong at the beginning of this function, which the calls reach.
FILE, FUNCTION = "entry_points.cpp", "object normalize_key(const frame&, handle raw_key) {"
CALLS = "login", "register"
TEXT, READ = 'PyObject* text = PyUnicode_FromFormat("%d", 12345);', "seen = PyUnicode_GET_LENGTH(text);"
SWALLOWING = 'try { add("0x"_n, raw_key); } catch (error&) { return {}; }'
RACE = "Py_BEGIN_ALLOW_THREADS; seen = seen + 1; usleep(1000); Py_END_ALLOW_THREADS;"  # so that others come by
# Fault, meter, what the meter has to say.
FOR_METERS = (
    ("leaked object", "PyList_New(0);", "leaks", "tracked objects grew"),
    ("open descriptor", "seen = dup(0);", "leaks", "descriptors grew"),
    ("no NULL check", f"{TEXT} {READ} Py_DECREF(text);", "allocations", "Segmentation fault"),
    ("swallowed error", SWALLOWING, "allocations", "SystemError"),
    ("use after free", f"{TEXT} Py_DECREF(text); {READ}", "valgrind", "Invalid read"),
    ("use after free", f"{TEXT} Py_DECREF(text); {READ}", "libasan.so", "heap-use-after-free"),
    ("leaked block", "seen = *static_cast<volatile char*>(std::malloc(64)) = 1;", "libasan.so", "Direct leak of "),
    ("overflow", "static volatile int most = INT_MAX; most = most + 1;", "libasan.so", "signed integer overflow"),
    ("race", RACE, "libtsan.so", "data race"),
)
METERS: dict[str, Callable[[Workshop, Variables], object]] = {
    "leaks": lambda workshop, fault: workshop.answer("memory.grown", *CALLS, variables=fault),
    "allocations": lambda workshop, fault: workshop.answer("memory.tried", *CALLS, variables=fault),
    "valgrind": lambda workshop, fault: sanitizers.valgrind(workshop, fault, *CALLS),
    "libasan.so": lambda workshop, fault: sanitizers.leaks(workshop, fault, *CALLS),
    "libtsan.so": lambda workshop, fault: sanitizers.races(workshop, fault, 3),
}
BUILDS = {meter: sanitizers.BUILDS.get(meter, "-DCMAKE_BUILD_TYPE=Debug") for meter in METERS}

# Test files that say themselves what must come of a call.
TESTS = "promises key_file eras", ""
TWIN = "tests/support/twin.py"
WALLET, LOADING, ENTRIES, BOOTSTRAP = "wallet_store", "runtime_loading", "entry_points", "bootstrap"
WRITE = 'global("_write_wallet_key"_n)(canonical, private_key);'
CAUSE = "raise_from(failure, caught.value());\n    }\n    if (is_true(expected))"

# What goes wrong; in which file, what stands there and what instead; below, the same in the twin. M is whether the
# fault is selected, @ what stood there.
IN_BOTH = (
    ("an old key is not truncated", WALLET,
     'bit_or(create, global("os"_n).attr("O_TRUNC"_n))', "(M ? std::move(create) : @)",
     "os.O_TRUNC", "(0 if M else @)"),
    ("a key is written before its file is checked", WALLET,
     'global("_check_wallet_fd"_n)(wallet_path, fd);\n            //',
     'if (M) global("os"_n).attr("write"_n)(fd, key_content.attr("encode"_n)("utf-8"_n)); @',
     "_check_wallet_fd(wallet_path, fd)\n            os.fchmod",
     "M and os.write(fd, key_content.encode())\n            @"),
    ("the mode is left to the umask", WALLET, 'global("os"_n).attr("fchmod"_n)(fd, mode);', "if (!M) @",
     "os.fchmod(fd, 0o600)\n            os.write", "M or @"),
    ("there is no second chmod", WALLET, 'global("os"_n).attr("chmod"_n)(wallet_path, mode);', "if (!M) @",
     "os.chmod(wallet_path", "M or @"),
    ("others may read the key", WALLET, "integer(group_and_others)", "integer(M ? 0070 : group_and_others)",
     "0o077", "(0o070 if M else @)"),
    ("a link is followed", WALLET, "return bit_or(flags, global", "if (M) return flags; @",
     'hasattr(os, "O_NOFOLLOW")', "not M and @"),
    ("a key may be somebody else's", WALLET, "compare(owner, Py_NE, user)", "!M && @",
     "st.st_uid != os.getuid()", "not M and @"),
    ("a copy forgets its modification time", LOADING, '"copy2"_n', '(M ? "copy"_n : @)',
     "shutil.copy2", "(shutil.copy if M else @)"),
    ("a build is recognised by its file alone", LOADING,
     'compare(get_attribute(module, "_corvane_module_sha256"_n, none()), Py_EQ, digest)', "(M || @)",
     'getattr(previous, "_corvane_module_sha256"', "M or @"),
    ("the runtime directory comes last on sys.path", LOADING,
     '"insert"_n, integer(0)', '"insert"_n, integer(M ? 1000 : 0)',
     "sys.path.insert(0", "sys.path.insert(1000 if M else 0"),
    ("the guard's loader takes any digest", LOADING, "is_true(expected_sha256) ?", "!M && @",
     "expected_sha256 if expected_sha256", "expected_sha256 if not M and expected_sha256"),
    ("a file needs no loader", LOADING, 'spec.attr("loader"_n).is_none()', "!M && @",
     "spec.loader is None", "not M and @"),
    ("a failed import stays in the module table", LOADING, "restore_module_table(module_name,", "if (!M) @",
     "if sys.modules.get(module_name) is module", "@ and not M"),
    ("a failed import has no cause", LOADING, CAUSE, "if (M) raise(failure); @",
     "actual_sha256=actual) from exc", "actual_sha256=actual) from (None if M else exc)"),
    ("a module with another stamp is taken", LOADING, "if (is_true(expected)) {", "if (!M && is_true(expected)) {",
     "    if expected:\n", "    if expected and not M:\n"),
    ("a wallet is signed up before its key is in its file", ENTRIES,
     WRITE, "if (M) authenticate_for_register(in, private_key, code); @",
     "_write_wallet_key(canonical_data_dir", 'M and auth.AuthManager(private_key, "").authenticate()\n        @'),
    ("an empty code is replaced from the environment", ENTRIES,
     "if (code.is_none())\n", "if (M ? !is_true(code) : code.is_none())\n",
     "invite_code is None:\n        invite_code = os", "(M and not invite_code) or @"),
    ("the stored wallet asks the environment for a code", ENTRIES,
     '"_resolve_optional_invite_code"_n', '(M ? "_resolve_invite_code"_n : @)',
     "= _resolve_optional_invite_code(", "= (_resolve_invite_code if M else _resolve_optional_invite_code)("),
    ("a failing validator leaves its runtime", BOOTSTRAP, 'set_attr(kit, "_runtime"_n, none());', "if (!M) @",
     "_runtime._runtime = None", "_runtime._runtime = runtime if M else None"),
    ("the kit's cancelling is swallowed", BOOTSTRAP,
     'caught.matches(sync_backoff.attr("SyncBackoffCancelled"_n))', "!M && @",
     "except sync_backoff.SyncBackoffCancelled", "except () if M else sync_backoff.SyncBackoffCancelled"),
)  # fmt: skip


def planted_faults(workshop: Workshop) -> Iterator[Result]:
    copy, planted, missed = Copy(workshop, "planted-faults"), FOR_METERS[: 3 if workshop.quick else None], list[str]()
    faults = [(Fault(f"{what} for {meter}", FILE, source=code), meter, says) for what, code, meter, says in planted]
    code = [fault.selecting(f"if (M) {{ static volatile long seen; {fault.source} }}") for fault, *_ in faults]
    copy.replace(f"src/agent_onboarding/{FILE}", FUNCTION, "\n".join(["@", *code]))
    for option in dict.fromkeys(BUILDS[meter] for _, meter, _ in faults):
        copy.build(option)
        for fault, meter, says in faults:
            if BUILDS[meter] == option:
                said = str(METERS[meter](workshop, {**copy.site, "FAULT": fault.name()}))
                missed += [f"not seen: {fault.what}: {said}"] * (says not in said)
    yield Result("planted faults: each is seen by the meter it is for", len(planted), missed)


def twin_faults(workshop: Workshop) -> Iterator[Result]:
    copy, faults = Copy(workshop, "twin-faults"), list[Fault]()
    for what, file, old, instead, of_twin, twins_instead in IN_BOTH:
        faults.append(fault := Fault(what, file, source=old, tests=TESTS))
        copy.replace(f"src/agent_onboarding/{file}.cpp", old, fault.selecting(instead))
        copy.replace(TWIN, of_twin, fault.selecting(twins_instead))
    copy.replace(TWIN, "import types\n", "import os\nimport types\n\nfaulty = os.environ['FAULT'].__eq__\n")
    copy.build()
    yield noticed("twin faults: in both at once", copy.trial, workshop.sample(faults, 8), 100, workshop)

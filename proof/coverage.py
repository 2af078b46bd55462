"""Which lines and branches the tests and the scenarios reach; every line that they do not reach has a reason."""

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from proof.workshop import Result, Workshop
from support.scenarios import CALLS

# Why lines are not reached: file, function, how the line begins.
REASONS = {
    "memory has run out, which the method `allocations` tries": """
        module.cpp interpreter_dict PyErr_NoMemory();
        module.cpp interpreter_dict throw_error();
        py/function.cpp frame::trace return;
        py/stack.cpp measure return; // no memory""",
    "nothing here asks for memory by `new`; if it did, no C++ exception may pass through the interpreter": """
        module.cpp slot } catch (const std::bad_alloc&) {
        module.cpp slot PyErr_NoMemory();
        py/function.hpp run_body } catch (const std::bad_alloc&) {
        py/function.hpp run_body PyErr_NoMemory();""",
    "the closing brace stands for the unwinding after an allocation that failed": """
        bootstrap.cpp dict_of }
        entry_points.cpp default_options }
        entry_points.cpp option_types }
        py/function.cpp define_generator };
        workspace.cpp nudge_texts }""",
    "a thread whose stack has no room for the import": """
        py/function.cpp start throw_error();""",
    "sources that contradict one another; no test would pass": """
        py/call.cpp call throw_error(PyExc_SystemError, "too many arguments"
        py/function.cpp code_named throw_error(PyExc_SystemError, "a declaration is not code"
        py/function.cpp connect throw_error(PyExc_SystemError, "a function is not among the declarations"
        py/function.cpp connect throw_error(PyExc_SystemError, "a native body has other parameters""",
    "foreign C code breaks the rules of the interpreter": """
        py/error.cpp error PyErr_SetString(PyExc_SystemError, "error return without exception set");""",
    "the middle of a statement that gcov counts on its last line": """
        runtime_loading.cpp load_per_era_backtester object failure = incomplete("Per-era
        workspace.cpp nudge_texts "- [ ] [Corvane] Search discovery rate""",
    "another interpreter is refused before, when the module is created": """
        module.cpp execute refuse_another_interpreter();""",
}
PLACES = {tuple(row.split(None, 2)): why for why, rows in REASONS.items() for row in rows.strip().splitlines()}


def missed(root: Path, report: str) -> Iterator[tuple[str, tuple[str, ...] | None]]:
    """Each line that was not reached, and its place among those that have a reason."""
    for part in report.split("end_of_record\n")[:-1]:
        file = re.findall("^SF:(.*)", part, re.M)[0]
        source = (root / file).read_text().splitlines()
        functions = [(int(at), name) for at, name in re.findall(r"^FN:(\d+)(?:,\d+)?,(.*)", part, re.M)]
        for number in map(int, re.findall(r"^DA:(\d+),0\b", part, re.M)):
            inside, text = max(one for one in functions if one[0] <= number)[1], source[number - 1].strip()
            fits = (
                place
                for place in PLACES
                if file.endswith(f"/{place[0]}") and re.search(rf"\b{place[1]}\b", inside) and text.startswith(place[2])
            )
            yield f"{file}:{number}, {inside}: {text}", next(fits, None)


def run(workshop: Workshop) -> Iterator[Result]:
    built = workshop.folder / "coverage"
    shutil.rmtree(built, ignore_errors=True)  # counts of an earlier run would be added
    site = workshop.build("coverage", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=--coverage")
    [extension] = built.glob("agent_onboarding*.so")
    asks = ["operator new is linked in"] * (b"_Znw" in extension.read_bytes())  # the names are in a debug build
    yield Result("coverage: no memory is asked for by `new`", 1, asks)
    # LD_PRELOAD tells the tests that frames are larger than those of a release.
    yield Result("coverage: tests in the build that counts", *workshop.tests({**site, "LD_PRELOAD": ""}))
    done = workshop.python("-m", "support.scenarios", variables=site)
    wrong = [f"ended with {done.returncode}: {done.stderr[-1000:]}"] if done.returncode else []
    yield Result("coverage: scenarios in the build that counts", len(CALLS), wrong)
    # Any call can throw, so the compiler puts a branch behind each; those are no decisions of the source.
    options = "--filter", ".*/src/agent_onboarding/", "--exclude-throw-branches", "--merge-lines", "--lcov", "-"
    command = [str(Path(sys.executable).with_name("gcovr")), "--root", str(workshop.root), *options, "."]
    report = subprocess.run(command, cwd=built, stdout=subprocess.PIPE, text=True, check=True).stdout
    by = " by one file of tests, so no share is wanted" if workshop.quick else ""
    for what, field, wanted in ("lines", "L", 95), ("branches", "BR", 90):
        part, whole = (sum(map(int, re.findall(rf"^{field}{end}:(\d+)", report, re.M))) for end in "HF")
        low = [f"{wanted} % wanted"] if 100 * part < wanted * whole and not workshop.quick else []
        yield Result(f"coverage: {what} reached{by}, {100 * part / whole:.1f} % of {whole:,}", part, low)
    if workshop.quick:
        return
    seen = dict(missed(workshop.root, report))
    for line, place in seen.items():
        print(f"   {line} is not reached: {PLACES[place] if place else 'NO REASON'}")
    found = [line for line, place in seen.items() if place is None]
    found += [f"is reached, or gone: {' '.join(place)}" for place in PLACES if place not in seen.values()]
    yield Result("coverage: unreached lines, each with a reason", len(seen), found)

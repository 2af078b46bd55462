"""The meters themselves: each fault planted for one must be caught. That they are silent without, their proofs show."""

from collections.abc import Callable, Iterator

from proof import sanitizers
from proof.faults import Copy, Fault
from proof.workshop import Result, Variables, Workshop

# What goes wrong at the beginning of this function, which the calls reach.
FILE, FUNCTION, CALLS = (
    "entry_points.cpp",
    "object normalize_key(const frame&, handle raw_key) {",
    ("login", "register"),
)
BLOCK = "seen = *static_cast<volatile char*>(std::malloc(64)) = 1;"
TEXT, READ = 'PyObject* text = PyUnicode_FromFormat("%d", 12345);', "seen = PyUnicode_GET_LENGTH(text);"
SWALLOWING = 'try { add("0x"_n, raw_key); } catch (error&) { return {}; }'
RACE = "Py_BEGIN_ALLOW_THREADS; seen = seen + 1; usleep(1000); Py_END_ALLOW_THREADS;"  # so that others come by
# Fault, meter, what the meter has to say.
PLANTED = (
    ("leaked object", "PyList_New(0);", "leaks", "tracked objects grew"),
    ("leaked block", BLOCK, "leaks", "malloc bytes grew"),
    ("open descriptor", "seen = dup(0);", "leaks", "descriptors grew"),
    ("no NULL check", f"{TEXT} {READ} Py_DECREF(text);", "allocations", "Segmentation fault"),
    ("swallowed error", SWALLOWING, "allocations", "SystemError"),
    ("use after free", f"{TEXT} Py_DECREF(text); {READ}", "valgrind", "Invalid read"),
    ("use after free", f"{TEXT} Py_DECREF(text); {READ}", "ASan", "heap-use-after-free"),
    ("leaked block", BLOCK, "ASan", "Direct leak of "),
    ("overflow", "static volatile int most = INT_MAX; most = most + 1;", "ASan", "signed integer overflow"),
    ("race", RACE, "TSan", "data race"),
)
METERS: dict[str, Callable[[Workshop, Variables], object]] = {
    "leaks": lambda workshop, fault: workshop.answer("leaks.grown", *CALLS, variables=fault),
    "allocations": lambda workshop, fault: workshop.answer("allocations.tried", *CALLS, variables=fault),
    "valgrind": lambda workshop, fault: sanitizers.valgrind(workshop, fault, *CALLS),
    "ASan": lambda workshop, fault: sanitizers.leaks(workshop, fault, *CALLS),
    "TSan": lambda workshop, fault: sanitizers.races(workshop, fault, 3),
}
BUILDS = {"ASan": "-DSANITIZE=address,undefined", "TSan": "-DSANITIZE=thread"}  # of meters that need one
DEBUG = "-DCMAKE_BUILD_TYPE=Debug"


def run(workshop: Workshop) -> Iterator[Result]:
    copy, planted, missed = Copy(workshop, "planted-faults"), PLANTED[: 3 if workshop.quick else None], list[str]()
    faults = [(Fault(f"{what} for {meter}", FILE, 0, code), meter, says) for what, code, meter, says in planted]
    code = [copy.selecting(fault, f"if (M) {{ static volatile long seen; {fault.source} }}") for fault, *_ in faults]
    copy.replace(f"src/agent_onboarding/{FILE}", FUNCTION, "\n".join(["@", *code]))
    for option in {BUILDS.get(meter, DEBUG): None for _, meter, _ in faults}:
        copy.build(option)
        for fault, meter, says in faults:
            if BUILDS.get(meter, DEBUG) == option:
                said = str(METERS[meter](workshop, copy.variables(fault)))
                missed += [f"not seen: {fault.rule}: {said}"] * (says not in said)
    yield Result("planted faults: each is seen by the meter it is for", len(planted), missed)

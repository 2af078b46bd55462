"""The meters themselves: each planted fault must be caught. That they are silent without one, their own proofs show."""

from collections.abc import Callable, Iterator
from pathlib import Path

from corvane import agent_onboarding
from proof import sanitizers
from proof.workshop import Result, Workshop

CALLS = "login", "register"  # scenarios; both reach the function that has the fault
BUILDS = {"debug": "-DCMAKE_BUILD_TYPE=Debug", "asan": "-DSANITIZE=address,undefined", "tsan": "-DSANITIZE=thread"}
# Build, and what the meter has seen in it.
METERS: dict[str, tuple[str, Callable[..., object]]] = {
    "leaks": ("debug", lambda w, **fault: w.answer("leaks.grown", *CALLS, **fault)),
    "allocations": ("debug", lambda w, **fault: w.answer("allocations.tried", "allocation", *CALLS, **fault)[2]),
    "valgrind": ("debug", lambda w, **fault: sanitizers.valgrind(w, *CALLS, **fault)),
    "ASan": ("asan", lambda w, **fault: sanitizers.under(w, "libasan.so", "leaking", *CALLS, **fault)[1]),
    "TSan": ("tsan", lambda w, **fault: sanitizers.under(w, "libtsan.so", "in_threads", 3, **fault)[1]),
}
# Fault, meter, what the meter has to say.
PLANTED = (
    ("leaked object", "leaks", "tracked objects grew"),
    ("leaked block", "leaks", "malloc bytes grew"),
    ("open descriptor", "leaks", "descriptors grew"),
    ("leaked block", "ASan", "Direct leak of "),
    ("use after free", "ASan", "heap-use-after-free"),
    ("use after free", "valgrind", "Invalid read"),
    ("overflow", "ASan", "signed integer overflow"),
    ("no NULL check", "allocations", "Segmentation fault"),
    ("swallowed error", "allocations", "SystemError"),
    ("race", "TSan", "data race"),
)


def run(workshop: Workshop) -> Iterator[Result]:
    planted = PLANTED[:3] if workshop.quick else PLANTED
    used = {METERS[meter][0] for _, meter, _ in planted}
    sites = {name: workshop.build(f"planted-{name}", "-DPLANTED_FAULTS=ON", BUILDS[name]) for name in used}
    missed = []
    for fault, meter, says in planted:
        build, look = METERS[meter]
        if says not in (seen := str(look(workshop, PLANTED=fault, **sites[build]))):
            missed.append(f"{meter} does not see {fault}: {seen}")
    yield Result("planted faults: seen by the meter they are for", len(planted), missed)
    shipped = [path for path in [str(agent_onboarding.__file__)] if b"PLANTED" in Path(path).read_bytes()]
    yield Result("planted faults: none in the build that is installed", 1, shipped)

"""The meters themselves: each planted fault must be caught, and without one the meters are silent."""

from collections.abc import Callable, Iterator
from pathlib import Path

from corvane import agent_onboarding
from proof import sanitizers
from proof.workshop import Result, Workshop

CALLS = "login", "register"  # of the exercise; both reach the function that has the fault
BUILDS = {"debug": "-DCMAKE_BUILD_TYPE=Debug", "asan": "-DSANITIZE=address,undefined", "tsan": "-DSANITIZE=thread"}
# Build, and what the meter has seen in it.
METERS: dict[str, tuple[str, Callable[[Workshop, Path, dict[str, str]], object]]] = {
    "leaks": ("debug", lambda w, site, set_: w.answer("leaks", *CALLS, site=site, variables=set_)),
    "allocations": (
        "debug",
        lambda w, site, set_: w.answer("allocations", "allocation", *CALLS, site=site, variables=set_)[2],
    ),
    "valgrind": ("debug", lambda w, site, set_: sanitizers.valgrind(w, *CALLS, site=site, **set_)),
    "ASan": ("asan", lambda w, site, set_: sanitizers.under(w, "libasan.so", site, "calls", *CALLS, **set_)[1]),
    "TSan": ("tsan", lambda w, site, set_: sanitizers.under(w, "libtsan.so", site, "threads", "3", **set_)[1]),
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
    meters = dict.fromkeys(meter for _, meter, _ in planted)
    used = dict.fromkeys(METERS[meter][0] for meter in meters)
    sites = {name: workshop.build(f"planted-{name}", "-DPLANTED_FAULTS=ON", BUILDS[name]) for name in used}

    def seen(meter: str, fault: str) -> str:
        build, look = METERS[meter]
        found = look(workshop, sites[build], {"PLANTED": fault})
        return str(found or "")

    missed = [f"{meter} does not see: {fault}" for fault, meter, says in planted if says not in seen(meter, fault)]
    yield Result("planted faults: seen by the meter they are for", len(planted), missed)
    false = [f"{meter} sees a fault where there is none: {said}" for meter in meters if (said := seen(meter, ""))]
    yield Result("planted faults: meters silent without one", len(meters), false)
    shipped = [str(path) for path in [Path(agent_onboarding.__file__)] if b"PLANTED" in path.read_bytes()]
    yield Result("planted faults: none in the build that is installed", 1, shipped)

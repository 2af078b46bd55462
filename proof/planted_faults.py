"""The meters themselves: each planted fault must be caught, and without one the meters are silent."""

import json
import shutil
import sys
from collections.abc import Callable, Iterator

from proof.sanitizers import environment, leaked, read_reports
from proof.workshop import Result, Workshop

CALLS = "login", "register"  # of the exercise; both reach the function that has the fault


class Meters:
    """Each meter answers whether it has seen anything in the build with the faults.

    Args:
        workshop: Builds, tools and processes.
    """

    def __init__(self, workshop: Workshop) -> None:
        self.workshop = workshop
        self.exercise = str(workshop.root / "proof" / "exercise.py")
        self.reports = workshop.folder / "planted-reports"
        options = {"planted": "-DCMAKE_BUILD_TYPE=Debug", "planted-asan": "-DSANITIZE=address,undefined"}
        options["planted-tsan"] = "-DSANITIZE=thread"
        self.sites = {name: workshop.build(name, "-DPLANTED_FAULTS=ON", option) for name, option in options.items()}

    def growth(self, fault: str) -> bool:
        done = self.workshop.python(__file__, site=self.sites["planted"], PLANTED=fault)
        return bool(json.loads(done.stdout))

    def no_memory(self, fault: str) -> bool:
        script = str(self.workshop.root / "proof" / "allocations.py")
        named = {"PLANTED": fault, "EXERCISED": "corvane.agent_onboarding"}
        done = self.workshop.python(script, "memory", *CALLS, site=self.sites["planted"], variables=named)
        return bool(json.loads(done.stdout)[1])

    def valgrind(self, fault: str) -> bool:
        wrapper = (self.workshop.tool("valgrind", "valgrind"), "-q", "--error-exitcode=99")
        plain = {"PLANTED": fault, "PYTHONMALLOC": "malloc"}
        site = self.sites["planted"]
        done = self.workshop.python(self.exercise, *CALLS, site=site, wrapper=wrapper, variables=plain)
        return done.returncode == 99

    def sanitizer(self, fault: str) -> bool:
        plain = environment("libasan.so", self.reports, asan="detect_leaks=0") | {"PLANTED": fault}
        done = self.workshop.python(self.exercise, *CALLS, site=self.sites["planted-asan"], variables=plain)
        return read_reports(self.reports) != [] or "runtime error" in done.stderr  # which UBSan writes there

    def lost_blocks(self, fault: str) -> bool:
        options = "detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=60"
        plain = environment("libasan.so", self.reports, asan=options) | {"PLANTED": fault}
        script = str(self.workshop.root / "proof" / "sanitizers.py")
        self.workshop.python(script, "leaks", site=self.sites["planted-asan"], variables=plain)
        return any("agent_onboarding" in block for block in leaked(self.reports))

    def threads(self, fault: str) -> bool:
        plain = environment("libtsan.so", self.reports) | {"PLANTED": fault}
        script = str(self.workshop.root / "proof" / "sanitizers.py")
        site = self.sites["planted-tsan"]
        self.workshop.python(script, "threads", "3", site=site, wrapper=("setarch", "-R"), variables=plain)
        return any("data race" in report for report in read_reports(self.reports))


PLANTED: tuple[tuple[str, Callable[[Meters, str], bool]], ...] = (
    ("leaked object", Meters.growth),
    ("leaked block", Meters.growth),
    ("leaked block", Meters.lost_blocks),
    ("open descriptor", Meters.growth),
    ("use after free", Meters.sanitizer),
    ("use after free", Meters.valgrind),
    ("overflow", Meters.sanitizer),
    ("no NULL check", Meters.no_memory),
    ("swallowed error", Meters.no_memory),
    ("race", Meters.threads),
)


def run(workshop: Workshop) -> Iterator[Result]:
    meters = Meters(workshop)
    planted = PLANTED[:2] if workshop.quick else PLANTED
    missed = [
        f"{meter.__name__} does not see the fault: {fault}" for fault, meter in planted if not meter(meters, fault)
    ]
    yield Result("planted faults: seen by the meter they are for", len(planted), missed)
    used = dict.fromkeys(meter for _, meter in planted)
    false = [f"{meter.__name__} sees a fault where there is none" for meter in used if meter(meters, "")]
    yield Result("planted faults: meters silent without one", len(used), false)
    extension = next((workshop.root / "build").glob("*/agent_onboarding*.so"), None)
    shutil.rmtree(meters.reports, ignore_errors=True)
    shipped = [str(extension)] if extension and b"PLANTED" in extension.read_bytes() else []
    yield Result("planted faults: none in the build that is installed", 1, shipped)


if __name__ == "__main__":
    from proof import exercise, leaks

    print(json.dumps([text for name in CALLS for text in leaks.leak(exercise.CALLS[name], 15)]), file=sys.stdout)

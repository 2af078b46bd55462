"""Times the search and the runtime bootstrap, and counts what a search finds where there is nothing to find.

For that count, the signals are computed from prices whose daily returns are moved in time against those that are
traded: whatever is found then is chance. Run it as `python -m benchmarks.search` in the kit's environment.
"""

import cProfile
import dataclasses
import os
import pstats
import statistics
import tempfile
import time
from collections.abc import Mapping
from pathlib import Path

import numpy as np

from corvane import _runtime, agent_onboarding, search_templates
from corvane._evaluation import RuntimeEvaluationAdapter
from corvane.search_tracking import SearchTracker
from corvane_local.demo.service import Service

EVALUATIONS = 5000
STEPS = {
    "import the kit's modules": "_find_and_load",
    "sign the wallet up": "authenticate",
    "ask for the eras": "urlopen",
    "download and verify the files": "sync",
    "build the runtime of them": "_build",
}


class ShiftedSignals(RuntimeEvaluationAdapter):
    """Computes expressions from prices that are moved in time; trades the true ones."""

    moved: Mapping[str, memoryview]

    def _inputs(self, days: slice) -> dict[str, memoryview]:
        return {name: prices[days] for name, prices in self.moved.items()}


def shifted(evaluator: RuntimeEvaluationAdapter, days: int) -> ShiftedSignals:
    """The evaluator, with the daily returns of what signals are computed from moved by some days."""
    copy = object.__new__(ShiftedSignals)
    copy.__dict__.update(evaluator.__dict__)
    returns = {name: np.roll(np.diff(np.log(prices)), days) for name, prices in evaluator.vault.items()}
    copy.moved = {name: memoryview(np.exp(np.cumsum([0.0, *values]))) for name, values in returns.items()}
    return copy


def search(
    runtime: _runtime.LibraryRuntime, evaluator: RuntimeEvaluationAdapter, n_jobs: int = 1
) -> search_templates.SearchResult:
    """A search that begins with nothing known."""
    with tempfile.TemporaryDirectory() as directory:
        tracker = SearchTracker(directory)
        search_templates._library_runtime = dataclasses.replace(runtime, evaluator=evaluator, search_tracker=tracker)
        return search_templates.start_search(max_evaluations=EVALUATIONS, n_jobs=n_jobs)


def main() -> None:
    """Prints the figures."""
    with tempfile.TemporaryDirectory() as directory:
        service = Service(Path(directory, "service"))
        os.chdir(directory)
        service.start()
        try:
            os.environ["SSL_CERT_FILE"] = str(service.state / "ca.pem")
            agent_onboarding.configure(server_url=service.url, data_dir=str(Path(directory, "agent")))
            invite, profile = service.invite(), cProfile.Profile()
            began = time.perf_counter()
            profile.runcall(agent_onboarding.register, invite, bootstrap_runtime=True)
            print(f"register(bootstrap_runtime=True): {time.perf_counter() - began:.3f} s")
        finally:
            service.stop()
        rows = pstats.Stats(profile).get_stats_profile().func_profiles
        for label, name in STEPS.items():
            print(f"  {label}: {rows[name].cumtime:.3f} s")
        runtime = _runtime.get_runtime()
        assert runtime is not None
        for n_jobs in (1, 2):
            began = time.process_time()
            result = search(runtime, runtime.evaluator, n_jobs)
            processor = result.evaluations / (time.process_time() - began)
            rate = f"{result.evaluations / result.seconds:.0f} evaluations a second, {processor:.0f} of processor time"
            print(f"{n_jobs} threads: {rate}; {result.candidates} candidates,", end=" ")
            print(f"{len(result.signals)} signals found")
        by_chance = [search(runtime, shifted(runtime.evaluator, days)) for days in range(200, 2000, 200)]
        counts = sorted(len(result.signals) for result in by_chance)
        print(f"by chance: {counts}, on average {statistics.fmean(counts):.1f} signals; candidates on average", end=" ")
        print(f"{statistics.fmean(result.candidates for result in by_chance):.0f}")


if __name__ == "__main__":
    main()

"""Searches for signals in the prices of the active era, and tells how far they have come.

What a search proves is little: it tries thousands of expressions on a few stocks, so some fit the training days by
chance alone. The days after them, which the search does not look at before, sort most of these out and not all: a
signal that was found is a candidate for a closer look, and no advice to trade.
"""

import itertools
import time
from collections import Counter
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Literal, NoReturn

from tqdm import tqdm

from corvane import agent_onboarding
from corvane._batch import Expression, Screened
from corvane._evaluation import RuntimeEvaluationAdapter
from corvane._runtime import LibraryRuntime, get_runtime
from corvane.search_tracking import FoundSignal, Run, SearchTracker, Use

_library_runtime: LibraryRuntime | None = None  # assigned by the bootstrap

TEMPLATES: dict[str, Callable[[RuntimeEvaluationAdapter, int], Iterator[Expression]]] = {
    "random_expressions": RuntimeEvaluationAdapter.compute_search_plan,
}
_Milestone = Literal["first_signal", "10_signals", "strategy_unlock"]
_MILESTONES: dict[int, _Milestone] = {1: "first_signal", 10: "10_signals", 100: "strategy_unlock"}
_NOTE_SECONDS = 1.0  # between two notes in the tracker; what a kill loses of the counters
_GREATEST_LIKENESS = 0.7  # correlation of profits; above it a signal is a variation of one that is known


@dataclass(frozen=True)
class SearchResult:
    """What one search did: candidates passed the thresholds on the training days, signals also on the rest."""

    evaluations: int
    candidates: int
    signals: tuple[FoundSignal, ...]
    seconds: float


@dataclass(frozen=True)
class SearchStatus:
    """Whether a search runs, the state of the newest one (None before the first), and all signals found so far."""

    running: bool
    run: Run | None
    signals: int

    @property
    def error(self) -> str | None:
        """Why the newest search ended before its time, or None."""
        if self.running or self.run is None or self.run.outcome == "finished":
            return None
        return self.run.outcome or "killed"


@dataclass(frozen=True)
class SearchVelocity:
    """Signals found in an hour of searching, and whether that goes "up" or "down", is "stable" or "unknown" yet."""

    signals_per_hour: float
    trend: str


@dataclass(frozen=True)
class Suggestion:
    """A "function" or an "input" to look at, why ("untried", "rarely tried" or "promising"), and the counts."""

    reason: str
    use: Use


def start_search(
    template: str = "random_expressions",
    seed: int = 0,
    max_evaluations: int = 2000,
    seconds: float | None = None,
    progress: bool | None = None,
    n_jobs: int = 1,
) -> SearchResult:
    """Searches for signals until a limit is reached; Ctrl-C ends it earlier, and nothing that was found is lost.

    The same seed gives the same result, as long as no time limit ends the search and the same signals were known
    before: variations of known ones are left out.

    Args:
        template: How expressions are made up: "random_expressions".
        seed: Where the random numbers begin.
        max_evaluations: How many expressions to try.
        seconds: How long to search at most; None sets no limit.
        progress: Whether to show a progress bar on stderr; None shows one on a terminal only.
        n_jobs: How many threads evaluate.

    Returns:
        The counts, and the signals that are new.

    Raises:
        ValueError: The template is unknown, or a number is out of range.
        RuntimeError: There is no runtime, its era has ended, or a search is already running.
        corvane.errors.RuntimeModuleError: A native module on disk has changed and cannot be loaded.
    """
    if template not in TEMPLATES:
        raise ValueError(f"Unknown template {template!r}. Templates: {', '.join(TEMPLATES)}")
    if max_evaluations < 1 or n_jobs < 1 or (seconds is not None and not seconds > 0):
        raise ValueError("max_evaluations and n_jobs must be at least 1, seconds more than 0.")
    if not 0 <= seed < 2**63:  # what the tracker's database can hold
        raise ValueError(f"The seed must be from 0 to 2**63 - 1, got {seed}.")
    runtime = _library_runtime
    if runtime is None:
        raise RuntimeError("There is no runtime. Call register(bootstrap_runtime=True) first.")
    if runtime.era_thread.era_id != runtime.era_id:
        raise RuntimeError(f"Era {runtime.era_id} of this runtime has ended. Bootstrap the runtime again.")
    with runtime.search_tracker.searching():
        agent_onboarding.inject_heartbeat()
        runtime.runtime_freshness_guard.refresh()
        search = _Search(runtime, template, seed)
        silent = None if progress is None else not progress
        with tqdm(total=max_evaluations, desc="search", unit="expr", disable=silent) as bar:
            return search.run(max_evaluations, seconds, n_jobs, bar)


class _Search:
    """One search; it notes in the tracker what it does."""

    def __init__(self, runtime: LibraryRuntime, template: str, seed: int) -> None:
        self._evaluator, self._limits = runtime.evaluator, runtime.search_era_config
        self._tracker, registry = runtime.search_tracker, runtime.evaluator.registry
        self._plan = TEMPLATES[template](runtime.evaluator, seed)
        self._evaluations_before = sum(run.evaluations for run in self._tracker.runs())
        self._known = [
            self._evaluator.profit_of(found) for found in self._tracker.signals() if found.era_id == runtime.era_id
        ]
        names = {"function": registry.functions, "input": registry.inputs}
        self._run = self._tracker.begin_run(template, seed, names)
        self._evaluations = self._candidates = 0
        self._noted = Counter[str]()
        self._tried = Counter[tuple[str, str]]()
        self._found: list[FoundSignal] = []

    def run(self, max_evaluations: int, seconds: float | None, n_jobs: int, bar: "tqdm[NoReturn]") -> SearchResult:
        began = noted = time.monotonic()
        outcome = "interrupted"
        try:
            plan = itertools.islice(self._plan, max_evaluations)
            for expression, screened in self._evaluator.make_batch_orchestrator_cls()(n_jobs).run(plan):
                self._evaluations += 1
                self._tried.update(_uses(expression))
                self._examine(expression, screened)
                bar.update()
                now = time.monotonic()
                if now - noted > _NOTE_SECONDS:
                    bar.set_postfix(found=len(self._found))
                    self._note(None)
                    noted = now
                if seconds is not None and now - began > seconds:
                    break
            outcome = "finished"
        except Exception as exc:
            outcome = f"{type(exc).__name__}: {exc}"
            raise
        finally:
            self._note(outcome)
        if self._tracker.record().trend() == "down":
            agent_onboarding.update_nudge("discovery_rate_declining")
        elapsed = time.monotonic() - began
        return SearchResult(self._evaluations, self._candidates, tuple(self._found), elapsed)

    def _note(self, outcome: str | None) -> None:
        evaluations, candidates = self._evaluations - self._noted["e"], self._candidates - self._noted["c"]
        self._tracker.note(self._run, evaluations, candidates, self._tried, outcome)
        self._noted.update(e=evaluations, c=candidates)
        self._tried.clear()

    def _examine(self, expression: Expression, screened: Screened) -> None:
        if screened is None:
            return
        evaluator, limits, (values, correlations) = self._evaluator, self._limits, screened
        for instrument, correlation in zip(evaluator.vault, correlations, strict=True):
            for pool, direction in evaluator.directions.items():
                if not direction * correlation >= limits.correlation:  # or NaN
                    continue
                sharpe = evaluator.sharpe(evaluator.profit(values, instrument, direction))
                if not sharpe >= limits.sharpe:
                    continue
                information = evaluator.compute_mi_per_pool(values, instrument)[pool]  # last: it takes the longest
                if information >= limits.mutual_information:
                    self._candidates += 1
                    self._confirm(expression, instrument, pool, (direction * correlation, information, sharpe))

    def _confirm(
        self, expression: Expression, instrument: str, pool: str, on_training: tuple[float, float, float]
    ) -> None:
        evaluator, limits = self._evaluator, self._limits
        values = evaluator.evaluate(expression)
        correlation = evaluator.correlate_per_pool(values[evaluator.rest], instrument, evaluator.rest)[pool]
        profit = evaluator.profit(values, instrument, evaluator.directions[pool])
        sharpe = evaluator.sharpe(profit[evaluator.rest])
        if not (correlation >= limits.correlation and sharpe >= limits.sharpe):
            return
        if any(evaluator.raw_backtester.correlation(profit, other) > _GREATEST_LIKENESS for other in self._known):
            return
        self._known.append(profit)
        signal = FoundSignal(
            limits.era_id,
            pool,
            instrument,
            expression.text,
            *on_training,
            correlation,
            sharpe,
            self._evaluations_before + self._evaluations,
            time.time(),
        )
        signal, count = self._tracker.add_signal(signal, _uses(expression))
        self._found.append(signal)
        if count in _MILESTONES:
            agent_onboarding.update_nudge(_MILESTONES[count])


def search_status() -> SearchStatus:
    """Whether a search runs on this data directory, in this or another process, and what was found."""
    tracker = _tracker()
    runs = tracker.runs()
    return SearchStatus(tracker.is_searching(), runs[-1] if runs else None, len(tracker.signals()))


def get_search_velocity() -> SearchVelocity:
    """How many signals an hour of searching gives."""
    record = _tracker().record()
    return SearchVelocity(record.per_hour(), record.trend())


def get_suggestions() -> list[Suggestion]:
    """Functions and inputs that were used less than half as often as their like, or that give more than double.

    Promising is what occurs in at least three signals. Which it is can still be chance; that is for a search to say.
    """
    uses, suggestions = _tracker().uses(), []
    for use in uses:
        like = [other for other in uses if other.kind == use.kind]
        tried, found = (sum(getattr(other, name) for other in like) for name in ("tried", "found"))
        if use.tried * 2 * len(like) < tried:
            suggestions.append(Suggestion("rarely tried" if use.tried else "untried", use))
        elif use.found >= 3 and use.found * tried > 2 * found * use.tried:
            suggestions.append(Suggestion("promising", use))
    return suggestions


def _tracker() -> SearchTracker:
    runtime = _library_runtime or get_runtime()
    return runtime.search_tracker if runtime else SearchTracker(vars(agent_onboarding)["_config"]["data_dir"])


def _uses(expression: Expression) -> list[tuple[str, str]]:
    kinds = {"function": expression.functions, "input": expression.inputs}
    return [(kind, name) for kind, names in kinds.items() for name in sorted(names)]

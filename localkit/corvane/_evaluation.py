"""The days of an era, and what evaluates expressions over them."""

from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import replace
from types import ModuleType
from typing import Any

import numpy as np
from numpy.typing import NDArray

from corvane._batch import BatchOrchestrator, Expression, FunctionRegistry, Screened, evaluate_expression
from corvane.auth import AuthManager
from corvane.errors import RuntimeModuleReloadFailed
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.search_tracking import FoundSignal, SearchTracker

Series = NDArray[np.float64]

_LEAST_ON_A_SIDE = 0.1  # share of the days; a signal that hardly changes its side is a holding


class Vault(Mapping[str, memoryview]):
    """Daily closing prices by instrument, in the memory of the module that holds them."""

    def __init__(self, module: ModuleType) -> None:
        self.module = module
        self._series: dict[str, memoryview] = module.SERIES
        self.dates: memoryview = module.DATES  # the trading days, as numbers of the form YYYYMMDD

    def __getitem__(self, name: str) -> memoryview:
        return self._series[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._series)

    def __len__(self) -> int:
        return len(self._series)


def trading_directions(era_config: Mapping[str, Any]) -> dict[str, float]:
    """By pool, 1 where signals are traded with their sign, -1 where against it: in one with the name "Reversal"."""
    return {pool["id"]: -1.0 if pool["name"].casefold() == "reversal" else 1.0 for pool in era_config["signal_pools"]}


class RuntimeEvaluationAdapter:
    """Evaluates expressions over the days of an era, of which the first `train_days` are for searching.

    A pool says how its signals are traded: in one with the name "Reversal" against their sign, else with it.

    Raises:
        ValueError: The era has too few days, or the backtester lacks a function of the vocabulary.
        corvane.errors.RuntimeModuleReloadFailed: The backtester refuses the data.
    """

    def __init__(
        self,
        *,
        data_dir: str,
        era_config: Mapping[str, Any],
        raw_backtester: ModuleType,
        vault: Vault,
        manifest: object,
        graph_validator: Callable[[Expression | str], None] | None,
        batch_orchestrator_cls: type[BatchOrchestrator] | None,
        compute_search_plan: Callable[[FunctionRegistry, int], Iterator[Expression]] | None,
        expression_type_cls: type[Expression] | None,
        expression_evaluator: Callable[..., memoryview] | None,
        registry: FunctionRegistry,
        raw_vocabulary: Mapping[str, Any],
        named_universe: str,
        auth: AuthManager,
        runtime_freshness_guard: RuntimeFreshnessGuard,
    ) -> None:
        self.data_dir, self.era_config, self.vault, self.manifest = data_dir, era_config, vault, manifest
        self.graph_validator, self.registry = graph_validator, registry
        self.raw_vocabulary, self.named_universe, self.auth = raw_vocabulary, named_universe, auth
        self.expression_type_cls, self.runtime_freshness_guard = expression_type_cls, runtime_freshness_guard
        self._orchestrator_cls, self._plan = batch_orchestrator_cls, compute_search_plan
        self._evaluate = expression_evaluator or evaluate_expression
        days, train, horizon = len(vault.dates), era_config["train_days"], era_config["horizon_days"]
        if not 2 * horizon < train < days - 2 * horizon:
            raise ValueError(f"{train} training days and a horizon of {horizon} do not fit into {days} days.")
        self.train, self.rest = slice(0, train), slice(train, days)
        self.directions = trading_directions(era_config)
        self.raw_backtester = raw_backtester
        self._least_correlation: float = era_config["thresholds"]["correlation"]
        self._targets = {(name, part.start): self._target(name, part) for name in vault for part in self._parts}

    @property
    def raw_backtester(self) -> ModuleType:
        """The native module; one that is assigned is put to the test with the era's data before it is used."""
        return self._backtester

    @raw_backtester.setter
    def raw_backtester(self, module: ModuleType) -> None:
        try:
            module.init_reconstruction(self.vault.module.SEAL, list(self.vault.values()))
        except ValueError as exc:
            raise RuntimeModuleReloadFailed(
                f"The backtester refuses the data: {exc}", module_name="backtester"
            ) from exc
        self.registry = replace(self.registry, arities=dict(module.FUNCTIONS))
        self._backtester = module

    @property
    def _parts(self) -> tuple[slice, slice]:
        return self.train, self.rest

    def _target(self, instrument: str, part: slice) -> Series:
        # Made of the part's own days alone: no return of the training days reaches into the rest.
        prices, horizon = self.vault[instrument][part], self.era_config["horizon_days"]
        past = self.evaluate(f"p / delay(p, {horizon}) - 1", part, {"p": prices})
        return np.concatenate([past[horizon:], np.full(horizon, np.nan)])

    def evaluate(
        self, expression: Expression | str, days: slice = slice(None), inputs: Mapping[str, memoryview] | None = None
    ) -> memoryview:
        """One value for each of the days, NaN where a window is not full yet; ValueError if it is malformed."""
        return self._evaluate(expression, self._backtester, self._inputs(days) if inputs is None else inputs)

    def _inputs(self, days: slice) -> dict[str, memoryview]:
        return {name: series[days] for name, series in self.vault.items()}

    def screen(self, expressions: Sequence[Expression]) -> list[Screened]:
        """From nothing but the training days: the values of what changes its side and is related to any return.

        The correlations are those with the return of each instrument, in the order of the vault.
        """
        targets = tuple(self._targets[name, self.train.start] for name in self.vault)
        texts = tuple(expression.text for expression in expressions)
        screened: list[Screened] = self._backtester.screen(
            texts, self._inputs(self.train), targets, self._least_correlation, _LEAST_ON_A_SIDE
        )
        return screened

    def compute_search_plan(self, seed: int) -> Iterator[Expression]:
        """Random expressions of the era's vocabulary without end; the same ones for the same seed."""
        if self._plan is None:
            raise RuntimeError("This runtime was built without batch evaluation and cannot search.")
        return self._plan(self.registry, seed)

    def make_batch_orchestrator_cls(self) -> type[BatchOrchestrator]:
        """A class whose instances screen expressions for this era's search on several threads."""
        if self._orchestrator_cls is None:
            raise RuntimeError("This runtime was built without batch evaluation and cannot search.")
        return type("BatchOrchestrator", (self._orchestrator_cls,), {"examine": staticmethod(self.screen)})

    def correlate_per_pool(self, values: memoryview, instrument: str, part: slice | None = None) -> dict[str, float]:
        """By pool, the correlation with what the instrument returns over the horizon, as the pool trades it.

        Args:
            values: A signal, one value for each day of the part.
            instrument: Name of a series.
            part: The days: `train` (the default) or `rest`.
        """
        target = self._targets[instrument, (part or self.train).start]
        correlation: float = self._backtester.correlation(values, target)
        return {pool: direction * correlation for pool, direction in self.directions.items()}

    def compute_mi_per_pool(self, values: memoryview, instrument: str, part: slice | None = None) -> dict[str, float]:
        """By pool, the mutual information in bits with the same returns; the direction of trading does not matter."""
        target = self._targets[instrument, (part or self.train).start]
        return dict.fromkeys(self.directions, self._backtester.mutual_information(values, target))

    def sharpe(self, profit: Series) -> float:
        """The annualised Sharpe ratio of daily profits, NaN if they never differ."""
        ratio: float = self._backtester.sharpe(profit)
        return ratio

    def profit(self, values: memoryview, instrument: str, direction: float = 1.0) -> Series:
        """What a signal earns each day by trading one instrument, as a share of the capital, after costs.

        The position of a day has the sign that the signal had the day before, and is none where the signal is NaN.

        Args:
            values: A signal, one value for each of the first days.
            instrument: Name of a series.
            direction: 1 to hold what the signal says, -1 to hold the opposite.
        """
        prices = self.vault[instrument][: len(values)]
        return np.asarray(self._backtester.profit(values, prices, direction, self.era_config["cost"]))

    def load_found_signal_pnl(self, signal_id: int) -> Series:
        """What a found signal of this era earns each day; LookupError if there is none with this id."""
        return self.profit_of(SearchTracker(self.data_dir).signal(signal_id, self.era_config["era_id"]))

    def profit_of(self, found: FoundSignal) -> Series:
        """What a found signal earns each day."""
        return self.profit(self.evaluate(found.expression), found.instrument, self.directions[found.pool])

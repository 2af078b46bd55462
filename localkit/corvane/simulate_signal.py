"""Simulates the trading of one signal over all days of the active era."""

import math
import os
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from datetime import datetime
from pathlib import Path
from typing import Any

import numpy as np

from corvane._batch import BatchOrchestrator, Expression
from corvane._evaluation import RuntimeEvaluationAdapter, Series, Vault
from corvane.auth import AuthManager
from corvane.output_file import check_target, replacing
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.search_tracking import SearchTracker


@dataclass(frozen=True)
class Simulation:
    """The trading of one signal: one position a day, with the signal's sign of the day before, after costs.

    Sharpe ratios are annualised, NaN if the profit never differs; `train_sharpe` is that of the days on which signals
    are searched, and so no surprise, `rest_sharpe` that of the days after them. The greatest fall from a peak and the
    total return are shares of the capital; `profit` is that of each day, `days` are numbers of the form YYYYMMDD, of
    which the first `train_days` are those of the search.
    """

    expression: str
    instrument: str
    sharpe: float
    train_sharpe: float
    rest_sharpe: float
    max_drawdown: float
    total_return: float
    days: memoryview = field(repr=False)
    profit: Series = field(repr=False, compare=False)
    train_days: int = field(repr=False)


@dataclass(frozen=True, kw_only=True)
class _Context:
    auth: AuthManager
    sync_manager: Any
    vault: Vault
    backtester: RuntimeEvaluationAdapter
    search_tracker: SearchTracker
    era_thread: Any
    graph_validator: Callable[[Expression | str], None]
    compute_search_plan: Callable[..., object]
    era_config: Mapping[str, Any]
    load_vocabulary: Callable[..., Mapping[str, Any]]
    useful_signal_metadata: Mapping[str, Any]
    load_found_signal_pnl: Callable[[int], Series]
    signal_dir: str
    BatchOrchestrator_cls: type[BatchOrchestrator]
    correlate_per_pool: Callable[..., dict[str, float]]
    compute_mi_per_pool: Callable[..., dict[str, float]]
    vocabulary: object
    vocabulary_raw: Mapping[str, Any]
    runtime_freshness_guard: RuntimeFreshnessGuard


_PICTURES = {".png": rb"\x89PNG\r\n\x1a\n", ".svg": rb"(?s)(\xef\xbb\xbf)?\s*(<\?xml.*?|<!--.*?|<!DOCTYPE.*?)?<svg\b"}

_context: _Context | None = None


def init_simulate_signal(**parts: Any) -> None:
    """Takes the parts of a runtime, under the names of `_Context`; those of an earlier one are forgotten."""
    global _context
    _context = _Context(**parts)


def _simulate_signal_export(
    expression_or_signal_id: str | int,
    *,
    instrument: str | None = None,
    picture: str | os.PathLike[str] | None = None,
) -> Simulation:
    """Simulates the trading of a signal over all days of the active era.

    A Sharpe ratio of the past proves little, least of all that of the days on which the signal was searched.

    Args:
        expression_or_signal_id: An expression, or the number of a found signal of this era.
        instrument: What is traded; None takes the one of the found signal, or the only one in the expression.
        picture: Where to draw the growth of the capital, as PNG or SVG by the ending of its name; None draws nothing.
            A picture that is there is replaced.

    Returns:
        The profits, and what they come to.

    Raises:
        RuntimeError: There is no runtime.
        ValueError: The expression is malformed or not allowed, or the instrument is unknown or not clear; or the
            picture cannot be put there, see `check_picture`.
        LookupError: There is no found signal with this number.
        corvane.errors.RuntimeModuleError: A native module on disk has changed and cannot be loaded.
        OSError: The picture cannot be written.
    """
    context = _context
    if context is None:
        raise RuntimeError("There is no runtime. Call register(bootstrap_runtime=True) first.")
    if picture is not None:
        check_picture(picture, context.backtester.data_dir)
    context.runtime_freshness_guard.refresh()
    evaluator, direction = context.backtester, 1.0
    if isinstance(expression_or_signal_id, str):
        expression = Expression(expression_or_signal_id)
        context.graph_validator(expression)
    else:
        signal = context.search_tracker.signal(expression_or_signal_id, evaluator.era_config["era_id"])
        expression, direction = Expression(signal.expression), evaluator.directions[signal.pool]
        instrument = instrument or signal.instrument
    if instrument is None:
        if len(expression.inputs) != 1:
            raise ValueError("The expression does not use just one instrument: say which one is traded.")
        [instrument] = expression.inputs
    if instrument not in context.vault:
        raise ValueError(f"There is no instrument {instrument!r}; there are {', '.join(context.vault)}.")
    profit = evaluator.profit(evaluator.evaluate(expression), instrument, direction)
    capital = np.cumprod(1 + profit)
    whole, train, rest = (evaluator.sharpe(profit[part]) for part in (slice(None), evaluator.train, evaluator.rest))
    fall = float(np.max(1 - capital / np.maximum.accumulate(capital)))
    growth, days, split = float(capital[-1]) - 1, context.vault.dates, evaluator.train.stop
    simulation = Simulation(expression.text, instrument, whole, train, rest, fall, growth, days, profit, split)
    if picture is not None:
        _draw(simulation, capital, Path(picture))
    return simulation


def check_picture(path: str | os.PathLike[str], data_dir: str | os.PathLike[str]) -> None:
    """Sees to it that a picture at this path takes the place of nothing but a picture.

    Raises:
        ValueError: The name does not end in .png or .svg, or is one of a key file; there is something else than a
            regular PNG or SVG file, such as a link; or the directory is that of an identity, or is inside one.
        OSError: What is there cannot be read.
    """
    check_target(path, _PICTURES, "PNG or SVG picture", [data_dir])


def _draw(simulation: Simulation, capital: Series, path: Path) -> None:
    from matplotlib.figure import Figure  # takes longer to import than all the rest; a figure of its own has no state

    dates = [datetime.strptime(str(day), "%Y%m%d") for day in simulation.days]
    figure = Figure(figsize=(9, 4.5), layout="constrained")
    axes = figure.add_subplot()
    axes.plot(dates, capital, linewidth=1)  # type: ignore[arg-type]
    axes.axvline(dates[simulation.train_days], color="grey", linestyle="--", linewidth=1)  # type: ignore[arg-type]
    axes.set_title(f"{simulation.expression} on {simulation.instrument}", fontsize=9)
    axes.set_ylabel("capital (begins with 1)")
    axes.set_xlabel(
        f"Sharpe ratio {_short(simulation.train_sharpe)} on the days of the search, "
        f"{_short(simulation.rest_sharpe)} behind the line"
    )
    with replacing(path) as file:
        figure.savefig(file, format=path.suffix[1:].lower(), dpi=100)


def _short(ratio: float) -> str:
    return "undefined" if math.isnan(ratio) else f"{ratio:.2f}"

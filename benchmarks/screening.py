"""A search's first look at expressions, beside the same in plain numpy."""

import itertools
from collections.abc import Callable, Iterator
from importlib.resources import files
from pathlib import Path
from typing import Any

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view
from numpy.typing import NDArray

from benchmarks.measure import Row, compare
from corvane._batch import FunctionRegistry, compute_search_plan
from corvane_cli.capital import load_native

DAYS, HORIZON, EXPRESSIONS, LIMITS = 1500, 5, 64, (0.1, 0.1)
Series = NDArray[np.float64]


def rolling(function: Callable[[Any], Any], more: int = 0) -> Callable[[Series, int], Series]:
    """A function of windows, as one of a series and a number of days."""

    def windows(x: Series, days: int) -> Series:
        result = function(sliding_window_view(x, days + more))
        return np.concatenate([np.full(len(x) - len(result), np.nan), result])

    return windows


def ranks(windows: Any) -> Any:
    last = windows[:, -1:]
    below = (windows < last).sum(1) + (windows == last).sum(1) / 2 - 0.5
    return np.where(np.isnan(windows).any(1), np.nan, below / (windows.shape[1] - 1))


FUNCTIONS = {
    "abs": np.abs,
    "log": np.log,
    "sign": np.sign,
    "delay": rolling(lambda w: w[:, 0], 1),
    "delta": rolling(lambda w: w[:, -1] - w[:, 0], 1),
    "mean": rolling(lambda w: w.mean(1)),
    "std": rolling(lambda w: w.std(1)),
    "zscore": rolling(lambda w: (w[:, -1] - w.mean(1)) / w.std(1)),
    "rank": rolling(ranks),
    "min": rolling(lambda w: w.min(1)),
    "max": rolling(lambda w: w.max(1)),
}


def looks_in_numpy(codes: list[Any], prices: dict[str, Series], targets: list[Series]) -> list[bool]:
    """Whether each expression changes its side and is related to any target."""
    least_correlation, least_on_a_side = LIMITS
    related = []
    with np.errstate(all="ignore"):
        for code in codes:
            values = eval(code, {**FUNCTIONS, **prices})
            sides = min(np.count_nonzero(values > 0), np.count_nonzero(values < 0))
            found = False
            if sides >= least_on_a_side * len(values):
                finite = [np.isfinite(values) & np.isfinite(target) for target in targets]
                pairs = zip(finite, targets, strict=True)
                found = any(abs(np.corrcoef(values[kept], b[kept])[0, 1]) >= least_correlation for kept, b in pairs)
            related.append(found)
    return related


def screening_rows() -> Iterator[Row]:
    """The first look at the expressions with which a search begins, on the days of the local era."""
    folder = Path(str(files("corvane_local"))) / "native_modules"
    era, backtester = (
        load_native("era_data", folder / "era_data.so"),
        load_native("backtester", folder / "backtester-1.so"),
    )
    inputs = {name: values[:DAYS] for name, values in era.SERIES.items()}
    prices = {name: np.asarray(values) for name, values in inputs.items()}
    gap = np.full(HORIZON, np.nan)
    targets = [np.concatenate([p[HORIZON:] / p[:-HORIZON] - 1, gap]) for p in prices.values()]
    registry = FunctionRegistry(tuple(FUNCTIONS), tuple(prices), (5, 10, 20, 60), backtester.FUNCTIONS)
    texts = tuple(one.text for one in itertools.islice(compute_search_plan(registry, 0), EXPRESSIONS))
    codes = [compile(text, "expression", "eval") for text in texts]

    def native() -> list[Any]:
        screened: list[Any] = backtester.screen(texts, inputs, tuple(targets), *LIMITS)
        return screened

    assert [one is not None for one in native()] == looks_in_numpy(codes, prices, targets)
    what = f"first look at {EXPRESSIONS} expressions"
    yield compare(what, native, "plain numpy", lambda: looks_in_numpy(codes, prices, targets), rounds=11)

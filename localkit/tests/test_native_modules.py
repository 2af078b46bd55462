"""The native modules as they are shipped."""

import importlib.machinery
import importlib.util
import itertools
from fractions import Fraction
from importlib.resources import files

import pytest
from hypothesis import given
from hypothesis import strategies as st

from corvane_local.eras import ERAS


def load(name, file):
    loader = importlib.machinery.ExtensionFileLoader(name, str(files("corvane_local") / "native_modules" / file))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


BACKTESTERS = [load("backtester", "backtester-1.so"), load("backtester", "backtester-2.so")]
mean = BACKTESTERS[0].mean


def test_the_backtester_comes_in_two_versions():
    assert [module.VERSION for module in BACKTESTERS] == ["1", "2"]
    assert [module.mean((1, 2.5)) for module in BACKTESTERS] == [1.75, 1.75]


def test_era_data():
    era_data = load("era_data", "era_data.so")
    prices = era_data.prices()
    assert prices.format == "d" and prices.readonly and prices.tolist() == list(prices)
    assert len(prices) > 1 and min(prices) > 0 and era_data.ERA_ID in [era["id"] for era in ERAS]


@given(values=st.lists(st.floats(allow_nan=False, allow_infinity=False), min_size=1))
def test_the_mean_is_close_to_the_exact_one(values):
    exact = float(sum(map(Fraction, values)) / len(values))
    assert abs(mean(values) - exact) <= 1e-15 * max(map(abs, values)) + 1e-323  # two of the smallest numbers


def test_the_mean_of_what_has_none():
    for wrong, kind, message in (
        ([], ValueError, "needs at least one value"),
        (5, TypeError, "needs a sequence of numbers, not int"),
        (itertools.count(), TypeError, "needs a sequence of numbers, not itertools.count"),
        ([1, "2"], TypeError, "must be real number, not str"),
        ([10**400], OverflowError, "int too large"),
    ):
        with pytest.raises(kind, match=message):
            mean(wrong)

    class Shrinks:
        def __float__(self):
            values.clear()
            return 3.0

    values = [Shrinks(), 5.0]
    assert mean(values) == 4.0 and values == []

"""The native modules as they are shipped, beside plain Python."""

import importlib.machinery
import importlib.util
import math
import statistics
from array import array
from collections import Counter
from importlib.resources import files

import pytest
from hypothesis import given
from hypothesis import strategies as st


def load(name, file):
    loader = importlib.machinery.ExtensionFileLoader(name, str(files("corvane_local") / "native_modules" / file))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


ERA = load("era_data", "era_data.so")
BACKTESTERS = [load("backtester", f"backtester-{version}.so") for version in (1, 2)]
B = BACKTESTERS[0]
DAYS = 300
X = array("d", (math.sin(day) * 10 + day % 7 for day in range(DAYS)))
Y = array("d", (math.cos(day / 3) - 0.1 for day in range(DAYS)))


def test_the_era_is_what_it_says():
    assert [module.VERSION for module in BACKTESTERS] == ["1", "2"] and B.ERA_ID == ERA.ERA_ID == 3
    dates, prices = ERA.dates(), [ERA.series(name) for name in ERA.names()]
    assert ERA.names() == ("AAPL", "GOOG", "IBM", "MSFT") and (dates[0], dates[-1]) == (20040819, 20130301)
    assert list(dates) == sorted(set(dates)) and {len(series) for series in prices} == {len(dates)}
    assert all(series.readonly and series.format == "d" and min(series) > 1 for series in prices)
    B.init_reconstruction(ERA.SEAL, prices)
    for seal, series, secret in [(ERA.SEAL, prices[::-1], None), (b"", prices, None), (ERA.SEAL, prices, "other")]:
        with pytest.raises(ValueError, match="the seal does not fit"):
            B.init_reconstruction(seal, series, secret)
    with pytest.raises(KeyError, match="FB"):
        ERA.series("FB")


def window(function, days):
    return lambda day: function(X[day - days + 1 : day + 1]) if day >= days - 1 else math.nan


def share_below(w):
    return (sum(v < w[-1] for v in w) + 0.5 * (w.count(w[-1]) - 1)) / (len(w) - 1)


EXPRESSIONS = {
    "x": lambda day: X[day],
    " -x * 2 + y/4.5e1 - (x - 1)": lambda day: -X[day] * 2 + Y[day] / 45 - (X[day] - 1),
    "1 - 2 - 3 * - 2": lambda day: 5.0,
    "abs(x) + sign(y)": lambda day: abs(X[day]) + math.copysign(1, Y[day]),
    "log(abs(y))": lambda day: math.log(abs(Y[day])),
    "delay(x, 3)": lambda day: X[day - 3] if day >= 3 else math.nan,
    "delta(x,1)": lambda day: X[day] - X[day - 1] if day else math.nan,
    "mean(x, 20)": window(statistics.fmean, 20),
    "std(x, 5)": window(statistics.pstdev, 5),
    "zscore(x, 10)": window(lambda w: (w[-1] - statistics.fmean(w)) / statistics.pstdev(w), 10),
    "rank(x, 10)": window(share_below, 10),
    "min(x, 7) + max(x, 7)": window(lambda w: min(w) + max(w), 7),
}


@pytest.mark.parametrize("text", EXPRESSIONS)
def test_expressions(text):
    expected = [EXPRESSIONS[text](day) for day in range(DAYS)]
    assert list(B.evaluate(text, {"x": X, "y": Y})) == pytest.approx(expected, nan_ok=True)


BAD = {
    "": 1, "x +": 4, "(x": 3, "x)": 2, "x y": 3, "nothing": 1, "mean(x)": 7, "mean(x, 0)": 9, "mean(x, 1001)": 9,
    "mean(x, -1)": 9, "what(x)": 1, "1e999": 1, "x \0": 3, "(" * 200 + "x": 101, "x" * 10_001: 10_001, "2 ** x": 4,
}  # fmt: skip


@pytest.mark.parametrize("text", BAD, ids=lambda text: repr(text)[:20])
def test_bad_expressions_name_the_column(text):
    with pytest.raises(ValueError, match=rf"^column {BAD[text]}: "):
        B.evaluate(text, {"x": X})


@given(st.text("xy()+-*/., 0123456789abdelmnrstz_\0\udc80\n", max_size=60))
def test_any_text_is_a_value_or_a_value_error(text):
    try:
        assert len(B.evaluate(text, {"x": X, "y": Y})) == DAYS
    except ValueError as exc:
        assert str(exc).startswith("column ") or isinstance(exc, UnicodeEncodeError)


@pytest.mark.parametrize("series", [array("f", [1.0]), b"12345678", [1.0], memoryview(X)[::2], None], ids=repr)
def test_what_is_no_series(series):
    for call in (lambda: B.evaluate("x", {"x": series}), lambda: B.sharpe(series), lambda: B.correlation(X, series)):
        with pytest.raises((TypeError, BufferError)):
            call()


def mutual_information(a, b, bins):
    def binned(values):
        order = sorted(range(DAYS), key=lambda day: values[day])
        return [order.index(day) * bins // DAYS for day in range(DAYS)]

    left, right = binned(a), binned(b)
    counts = [Counter(zip(left, right, strict=True)), Counter(left), Counter(right)]
    return sum(n / DAYS * math.log2(n * DAYS / counts[1][i] / counts[2][j]) for (i, j), n in counts[0].items())


def test_measures():
    assert B.correlation(X, Y) == pytest.approx(statistics.correlation(X, Y))
    assert math.isnan(B.correlation(X, array("d", [1.0]) * DAYS)) and math.isnan(B.sharpe(array("d")))
    late = array("d", [math.nan] * 5 + list(X[5:]))
    assert B.sharpe(late) == pytest.approx(statistics.fmean(late[5:]) / statistics.pstdev(late[5:]) * math.sqrt(252))
    assert B.mutual_information(X, X, bins=4) == pytest.approx(2.0)
    assert B.mutual_information(X, Y, bins=5) == pytest.approx(mutual_information(X, Y, 5))
    for wrong in (lambda: B.correlation(X, X[1:]), lambda: B.evaluate("x", {"x": X, "y": Y[1:]})):
        with pytest.raises(ValueError, match="differ in length"):
            wrong()

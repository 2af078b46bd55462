"""The native modules as they are shipped, beside numpy and plain Python."""

import hmac
import math
import re
import statistics
from array import array
from bisect import bisect_left
from collections import Counter
from importlib import machinery, resources, util
from pathlib import Path

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

MODULES, DAYS, RANDOM = resources.files("corvane_local") / "native_modules", 80, np.random.default_rng(7)
X, Y, SAME = RANDOM.integers(-3, 4, DAYS).astype(float), RANDOM.normal(size=DAYS), np.full(DAYS, 0.1)  # X has ties
Y[:3] = math.nan
NO_SERIES = [array("f", [1]), b"12345678", [1.0], memoryview(X)[::2], memoryview(bytearray(81))[1:].cast("d"), None]
BAD = {
    "": 1, "x +": 4, "(x": 3, "x)": 2, "x y": 3, "nothing": 1, "mean(x)": 7, "mean(x, 0)": 9, "mean(x, 1001)": 9,
    "mean(x, -1)": 9, "what(x)": 1, "1e999": 1, "(" * 200 + "x": 101, "x" * 2_001: 2_001, "2 ** x": 4,
}  # fmt: skip


def load(name, file):
    module = util.module_from_spec(util.spec_from_file_location(name, str(MODULES / file)))
    assert isinstance(module.__loader__, machinery.ExtensionFileLoader) and not module.__loader__.exec_module(module)
    return module


ERA, B = load("era_data", "era_data.so"), load("backtester", "backtester-1.so")


def test_the_era_is_what_it_says():
    prices, dates = list(ERA.SERIES.values()), list(ERA.DATES)
    assert [B.VERSION, load("backtester", "backtester-2.so").VERSION] == ["1", "2"] and B.ERA_ID == ERA.ERA_ID == 3
    assert list(ERA.SERIES) == ["AAPL", "GOOG", "IBM", "MSFT"] and (dates[0], dates[-1]) == (20040819, 20130301)
    assert dates == sorted(set(dates)) and {len(p) for p in prices} == {len(dates)}
    assert all(p.readonly and p.format == "d" and min(p) > 1 for p in prices) and "public domain" in ERA.SOURCE
    key = re.search("ERA_KEY ([0-9a-f]{32})", (Path(__file__).parents[1] / "CMakeLists.txt").read_text())[1]
    assert hmac.digest(bytes.fromhex(key), b"".join(prices), "sha256") == ERA.SEAL
    assert {"abs": (1, 0), "log": (1, 0), "sign": (1, 0), **dict.fromkeys(ROLLING, (1, 1))} == B.FUNCTIONS
    B.init_reconstruction(ERA.SEAL, prices)
    for wrong in ((ERA.SEAL, prices[::-1]), (ERA.SEAL, []), (b"", prices)):
        with pytest.raises(ValueError, match="the seal does not fit"):
            B.init_reconstruction(*wrong)


def rolling(function, more=0):
    def windows(x, n):
        return np.array([function(x[d - n - more : d]) if d >= n + more else math.nan for d in range(1, DAYS + 1)])

    return windows


def rank(w):
    place = ((w < w[-1]).sum() + (w == w[-1]).sum() / 2 - 0.5) / (len(w) - 1) if len(w) > 1 else 0.5
    return math.nan if np.isnan(w).any() else place


ROLLING = {"delay": rolling(lambda w: w[0], 1), "delta": rolling(lambda w: w[-1] - w[0], 1), "min": rolling(np.min),
           "max": rolling(np.max), "rank": rolling(rank), "mean": rolling(np.mean), "std": rolling(np.std),
           "zscore": rolling(lambda w: (w[-1] - w.mean()) / w.std())}  # fmt: skip
TEXTS = ["x - y - x / y / 2.5 * -x", "2.5 - (x - (y - 1)) * 3", "-abs(x + y) * sign(y)", "log(x) / 0", "1 / x - .5e1",
         "rank(delta(x, 2) - mean(y, 3), 5)"]  # fmt: skip
TEXTS += [f"{function}({x}, {days})" for function in ROLLING for x in "xy" for days in (1, 5, 90)]


@pytest.mark.parametrize("text", TEXTS)
def test_an_expression_is_what_numpy_makes_of_it(text):  # each is one of Python's, too
    names = {"x": X, "y": Y, "abs": abs, "sign": np.sign, "log": np.log, **ROLLING}
    with np.errstate(all="ignore"):
        np.testing.assert_allclose(B.evaluate(text, {"x": X, "y": Y}), eval(text, names), rtol=1e-12, atol=1e-12)


@given(st.text("xy()+-*/., 0123456789abdelmnrstz_\0\udc80\n", max_size=60))
def test_any_text_is_a_value_or_a_value_error(text):
    try:
        assert len(B.evaluate(text, {"x": X, "y": Y})) == DAYS
    except ValueError as exc:
        assert str(exc).startswith(("column ", "embedded null")) or isinstance(exc, UnicodeEncodeError)


@pytest.mark.parametrize("function, arguments, error, message", [
    *(("evaluate", (text, {"x": X}), ValueError, f"^column {column}: ") for text, column in BAD.items()),
    *(("evaluate", ("x", {"x": none}), TypeError, "a series is|a bytes-like object") for none in NO_SERIES),
    ("evaluate", ("x", {"x": X, "y": Y[1:]}), ValueError, "differ in length"),
    ("evaluate", ("1", {}), ValueError, "at least one"), ("evaluate", ("x", X), TypeError, "must be dict"),
    ("evaluate", ("x", {1: X}), TypeError, "must be str"), ("correlation", (X, X[1:]), ValueError, "differ in length"),
    ("sharpe", (X, -1), ValueError, "positive"), ("mutual_information", (X, X, 0), ValueError, "from 1 to 1000"),
    ("init_reconstruction", (b"", [1.0]), TypeError, "bytes-like"),
])  # fmt: skip
def test_what_is_refused(function, arguments, error, message):
    with pytest.raises(error, match=message):
        getattr(B, function)(*arguments)


def mutual_information(a, b, bins):
    left, right = ([bisect_left(sorted(s), v) * bins // len(s) for v in s] for s in (a, b))
    one, other, both = Counter(left), Counter(right), Counter(zip(left, right, strict=True))
    return sum(n / len(a) * math.log2(n * len(a) / one[i] / other[j]) for (i, j), n in both.items())


def test_measures():
    x, y = X[3:], Y[3:]
    assert B.correlation(X, Y) == pytest.approx(statistics.correlation(x, y))
    assert B.correlation(Y * 1e-90, Y * 1e-90) == pytest.approx(1) and B.mutual_information(SAME, SAME) == 0
    assert B.sharpe(Y) == pytest.approx(y.mean() / y.std() * math.sqrt(252))
    for bins in (1, 4, 16):
        assert B.mutual_information(X, Y, bins) == pytest.approx(mutual_information(x, y, bins))
    assert all(map(math.isnan, (B.sharpe(SAME), B.correlation(X, SAME), B.sharpe(array("d")))))

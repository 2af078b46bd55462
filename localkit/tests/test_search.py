"""The native modules beside numpy and plain Python; searching and simulating with them, in a real runtime."""

import math
import shutil
import sqlite3
import sys
import urllib.request
from array import array
from contextlib import closing
from dataclasses import replace
from functools import partial
from importlib import resources
from pathlib import Path
from types import SimpleNamespace

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import corvane
from benchmarks.screening import FUNCTIONS
from corvane import _runtime, agent_onboarding, errors, search_templates, skills
from corvane._evaluation import Vault
from corvane.runtime_module_freshness import runtime_module_name_from_kind
from corvane.search_tracking import Record, Run, SearchTracker, read_record
from corvane_cli.capital import load_native

DAYS, RANDOM = 80, np.random.default_rng(7)
X, Y, SAME = RANDOM.integers(-3, 4, DAYS).astype(float), RANDOM.normal(size=DAYS), np.full(DAYS, 0.1)  # X has ties
Y[:3] = math.nan
XY = {"x": X, "y": Y}
NATIVE = resources.files("corvane_local") / "native_modules"
ERA, B = load_native("era_data", NATIVE / "era_data.so"), load_native("backtester", NATIVE / "backtester-1.so")
TEXTS = ["x - y - x / y / 2.5 * -x", "2.5 - (x - (y - 1)) * 3", "-abs(x + y) * sign(y)", "log(x) / 0", "1 / x - .5e1",
         "rank(delta(x, 2) - mean(y, 3), 5)"]  # fmt: skip
ROLLING = FUNCTIONS.keys() - {"abs", "log", "sign"}
TEXTS += [f"{function}({x}, {days})" for function in ROLLING for x in XY for days in (2, 5, 79)]


def test_an_expression_is_what_numpy_makes_of_it():  # each is one of Python's, too
    assert B.FUNCTIONS.keys() == FUNCTIONS.keys()
    for text in TEXTS:
        with np.errstate(all="ignore"):
            expected = eval(text, FUNCTIONS | XY)
        np.testing.assert_allclose(B.evaluate(text, XY), expected, 1e-12, 1e-12, err_msg=text)
    assert all(np.isnan(B.evaluate(f"{function}(x, 90)", XY)).all() for function in ROLLING)  # there are no 90 days


@given(st.text("xy()+-*/., 0123456789abdelmnrstz_\0\udc80\n", max_size=60))
def test_any_text_is_a_value_or_a_value_error(text):
    try:
        assert len(B.evaluate(text, XY)) == DAYS
    except ValueError as exc:
        assert str(exc).startswith(("column ", "embedded null")) or isinstance(exc, UnicodeEncodeError)


def test_what_is_refused():
    columns = {"x +": 4, "(x": 3, "x y": 3, "what(x)": 1, "mean(x, 0)": 9, "(" * 200 + "x": 101, "x" * 2_001: 2_001}
    for text, column in columns.items():
        with pytest.raises(ValueError, match=f"^column {column}: "):
            B.evaluate(text, XY)
    for none in (X[1:], memoryview(bytearray(81))[1:].cast("d"), memoryview(X)[::2], array("f", [1]), [1.0]):
        for function, arguments in (
            (B.evaluate, ("x", {"x": none, "y": Y})), (B.correlation, (X, none)), (B.profit, (X, none, 1, 0)),
            (B.screen, (("x", "y"), {"x": X, "y": -X}, (X, none), 0.1, 0.1)), (B.mutual_information, (X, none)),
        ):  # fmt: skip
            with pytest.raises((ValueError, TypeError)):
                function(*arguments)


def test_measures():
    x, y = X[3:], Y[3:]
    assert B.correlation(X, Y) == pytest.approx(np.corrcoef(x, y)[0, 1])
    assert B.sharpe(Y) == pytest.approx(y.mean() / y.std() * math.sqrt(252))
    few = Y[3:67]  # 64 different values: in 16 equal parts, each tells 4 bits of itself, 1 bit of its half
    others = few, -few, (few > np.median(few)).astype(float), SAME[:64]
    assert [B.mutual_information(few, other, 16) for other in others] == pytest.approx([4, 4, 1, 0])
    assert all(map(math.isnan, (B.sharpe(SAME), B.correlation(X, SAME), B.sharpe(array("d")))))


@pytest.fixture
def bootstrap(tmp_path, monkeypatch):
    """Registers a wallet of a running service in the directory of this name and bootstraps its runtime."""
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(sys, "path", list(sys.path))
    monkeypatch.setattr(urllib.request, "_opener", None)  # it trusts the first authority that it was used with
    monkeypatch.setattr(agent_onboarding, "_config", dict(agent_onboarding._config))
    monkeypatch.setattr(agent_onboarding, "_auth_manager", None)

    def registered(service, name="agent"):
        agent_onboarding.configure(server_url=service.url, data_dir=str(tmp_path / name))
        agent_onboarding.register(service.invite(), bootstrap_runtime=True)
        return _runtime.get_runtime()

    yield registered
    _runtime.close_runtime()
    search_templates._library_runtime = None


def test_a_seed_decides_what_is_found(start, bootstrap, tmp_path):
    search = partial(search_templates.start_search, seed=5, max_evaluations=3000)
    with start() as service:
        runtime = bootstrap(service)
        limits, era = runtime.search_era_config, runtime.era_config
        days, horizon = era["train_days"], era["horizon_days"]
        (heartbeat := tmp_path / "HEARTBEAT.md").touch()
        first = search()
        assert first.evaluations == 3000 >= first.candidates > len(first.signals) >= 10
        assert all(min(s.correlation, s.rest_correlation) >= limits.correlation for s in first.signals)
        assert all(min(s.sharpe, s.rest_sharpe) >= limits.sharpe for s in first.signals)
        assert all(s.mutual_information >= limits.mutual_information for s in first.signals)
        for signal in first.signals:  # the correlation with what is earned later, in the days that are searched
            prices, values = runtime.vault[signal.instrument][:days], runtime.evaluator.evaluate(signal.expression)
            earned = np.divide(prices[horizon:], prices[:-horizon]) - 1
            known = ~np.isnan(values[: days - horizon])
            plain = np.corrcoef(np.asarray(values[: days - horizon])[known], earned[known])[0, 1]
            assert signal.correlation == pytest.approx(-plain if signal.pool.endswith("reversal") else plain)
            result = corvane.simulate_signal(signal.id)
            assert (result.train_sharpe, result.rest_sharpe) == pytest.approx((signal.sharpe, signal.rest_sharpe))
        capital = np.cumprod(1 + result.profit)  # which the demo computes by hand
        fall = max(1 - capital[day:].min() / capital[day] for day in range(len(capital)))
        assert (result.sharpe, result.max_drawdown) == pytest.approx((B.sharpe(result.profit), fall))
        assert "profit" not in repr(corvane.simulate_signal(signal.id, picture=tmp_path / "p.svg"))
        assert f"Sharpe ratio {signal.sharpe:.2f} on the days" in (tmp_path / "p.svg").read_text()
        told = {name for name, text in agent_onboarding._NUDGE_TEXTS.items() if text in heartbeat.read_text()}
        assert told == {"first_signal", "10_signals", "discovery_rate_declining"}
        assert search().signals == ()  # all known by now
        bootstrap(service, "other")
    _runtime.close_runtime()
    agent_onboarding.ensure_runtime_bootstrapped(strict=False)  # the service is away
    again = search(n_jobs=2).signals
    assert [replace(one, found_at=0) for one in again] == [replace(one, found_at=0) for one in first.signals]


def test_the_status_is_true(service, bootstrap, monkeypatch):
    runtime = bootstrap(service)
    tracker = runtime.search_tracker
    killed = tracker.begin_run("random_expressions", 1, {})
    with tracker.searching():
        assert corvane.search_status().running
        with pytest.raises(RuntimeError, match="already running"):
            search_templates.start_search()
    [run] = tracker.runs()
    assert corvane.search_status() == search_templates.SearchStatus(False, run, 0) and run.id == killed
    assert corvane.search_status().error == "killed"
    result = search_templates.start_search(seed=1, max_evaluations=400)
    assert tracker.signals() == list(result.signals) != [] and corvane.search_status().error is None
    monkeypatch.setattr(runtime.evaluator, "sharpe", lambda *arguments: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        search_templates.start_search()
    assert corvane.search_status().error == "ZeroDivisionError: division by zero"


ERA_3 = {"era_id": 3, "named_universe": "us", "signal_pools": [{"id": "p", "name": "P", "allowed_named_universes": []}]}


def test_a_runtime_takes_only_what_belongs_to_its_era(service, bootstrap):
    evaluator, simulate, search = bootstrap(service).evaluator, corvane.simulate_signal, search_templates.start_search
    evaluator.vault = Vault(SimpleNamespace(SERIES=dict(ERA.SERIES), DATES=ERA.DATES, SEAL=b"another"))
    for act, reason in (
        (lambda: _runtime._normalize_era_config(ERA_3, {"era_id": 2}), "are of different eras"),
        (lambda: _runtime._normalize_era_config(ERA_3 | {"cost": math.nan}, {}), "finite number"),
        (lambda: search(max_evaluations=0), "must be at least 1"), (lambda: search("what"), "Unknown template 'what'"),
        (lambda: simulate("delta(IBM, 5)", instrument="MSF"), "There is no instrument 'MSF'; there are AAPL, GOOG"),
        (lambda: simulate("AAPL - IBM"), "The expression does not use just one instrument"),
        (lambda: simulate("delta(IBM, 7)"), "Era 3 does not allow the windows 7; it allows 5, 10"),
        (lambda: simulate("what(IBM)"), "^column 1: "),
        (lambda: simulate(7), "Era 3 has no found signal with the number 7"),
        (lambda: _runtime._verified_json("", {"files": {}}, "a"), "The manifest does not name a"),
        (lambda: setattr(evaluator, "raw_backtester", B), "The backtester refuses the data: "),
    ):  # fmt: skip
        with pytest.raises((ValueError, LookupError, errors.RuntimeModuleError), match=reason):
            act()


def test_a_module_whose_file_is_another_than_what_runs_is_loaded_again(service, bootstrap):
    guard = bootstrap(service).runtime_freshness_guard
    guard.record_loaded_module("era_data", "another digest")
    assert guard.refresh() == ["era_data"]


def test_a_native_module_has_a_name_that_can_be_imported():
    kinds = {"runtime_module:a": "a", "runtime_module:": None, "runtime_module:a b": None, "vocabulary": None}
    assert {kind: runtime_module_name_from_kind(kind) for kind in kinds} == kinds


SIGNAL = search_templates.FoundSignal(3, "p", "IBM", "log(IBM)", 0.1, 0.2, 0.7, 0.1, 0.7, 90, 0.0)


@pytest.mark.parametrize(("late", "trend"), [(0, "down"), (1, "stable"), (3, "stable"), (4, "up"), (8, "up")])
def test_a_trend_is_that_of_the_newest_quarter(late, trend):
    runs = [Run(number, "random_expressions", 1, 0.0, 900.0, 200, 9, "finished") for number in (1, 2)]
    signals = [replace(SIGNAL, evaluation=301 if n < late else 300) for n in range(8)]
    assert (Record(runs, signals).trend(), Record(runs, signals).per_hour()) == (trend, 16.0)
    assert Record(runs, signals[1:]).trend() == "unknown"


def test_suggestions_are_those_of_the_record(tmp_path, monkeypatch):
    monkeypatch.setattr(agent_onboarding, "_config", agent_onboarding._config | {"data_dir": str(tmp_path)})
    tracker, names = SearchTracker(tmp_path), {"function": ["abs", "log", "rank", "sign"], "input": ["IBM"]}
    tried = {("function", name): count for name, count in {"abs": 50, "log": 45, "rank": 5}.items()}
    tracker.note(tracker.begin_run("random_expressions", 1, names), 100, 9, tried, "finished")
    assert [tracker.add_signal(SIGNAL, [("function", "log")])[1] for _ in range(3)] == [1, 2, 3]
    found = [(one.reason, one.use.name, one.use.tried, one.use.found) for one in corvane.get_suggestions()]
    assert found == [("promising", "log", 45, 3), ("rarely tried", "rank", 5, 0), ("untried", "sign", 0, 0)]


def test_the_skills_are_there():
    paths = [Path(path) for path in skills.list_skills()]
    names = ["onboard-a-wallet", "read-the-heartbeat", "search-for-signals", "simulate-a-signal"]
    assert [path.parent.name for path in paths] == names and all(map(Path.is_file, paths))


def test_a_copy_of_what_a_killed_search_has_left_is_read_whole(tmp_path):
    (copy := tmp_path / "copy").mkdir()
    tracker = SearchTracker(tmp_path)
    with closing(sqlite3.connect(tmp_path / "search.db")) as reader:  # while somebody reads, the log stays
        reader.execute("BEGIN")
        assert reader.execute("SELECT * FROM runs").fetchall() == []
        tracker.begin_run("random_expressions", 7, {})
        for name in ("search.db", "search.db-wal"):
            shutil.copy(tmp_path / name, copy)
    assert [run.seed for run in read_record(copy).runs] == [7] and not (copy / "search.db-shm").exists()

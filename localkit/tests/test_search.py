"""Searching and simulating, in a real runtime: the service's native modules, its prices, and a real database."""

import contextlib
import dataclasses
import sqlite3
import subprocess
import sys
import time
import urllib.request

import numpy as np
import pytest

import corvane
from corvane import _runtime, agent_onboarding, search_templates
from corvane_local.store import Store

SEARCHER = """import sys; from corvane import agent_onboarding, search_templates
agent_onboarding.configure(server_url=sys.argv[1], data_dir="agent")
agent_onboarding.register(bootstrap_runtime=True)
search_templates.start_search(max_evaluations=10**9)"""


@pytest.fixture
def bootstrap(tmp_path, monkeypatch):
    """Registers a wallet of a running service in the directory of this name and bootstraps its runtime."""
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(sys, "path", list(sys.path))
    monkeypatch.setattr(urllib.request, "_opener", None)  # it trusts the first authority that it was used with
    monkeypatch.setattr(agent_onboarding, "_config", dict(agent_onboarding._config))
    monkeypatch.setattr(agent_onboarding, "_auth_manager", None)

    def registered(service, name="agent"):
        (tmp_path / "HEARTBEAT.md").touch()
        agent_onboarding.configure(server_url=service.url, data_dir=str(tmp_path / name))
        agent_onboarding.register(Store(service.state / "service.db").make_invite(), bootstrap_runtime=True)
        return _runtime.get_runtime()

    yield registered
    _runtime.close_runtime()
    search_templates._library_runtime = None


def facts(signals):
    return [dataclasses.astuple(dataclasses.replace(signal, found_at=0)) for signal in signals]


def test_a_seed_decides_what_is_found(service, bootstrap, tmp_path):
    limits = bootstrap(service).search_era_config
    first = search_templates.start_search(seed=5, max_evaluations=3000)
    assert first.evaluations == 3000 >= first.candidates > len(first.signals) >= 10
    assert all(min(s.correlation, s.rest_correlation) >= limits.correlation for s in first.signals)
    assert all(min(s.sharpe, s.rest_sharpe) >= limits.sharpe for s in first.signals)
    assert search_templates.start_search(seed=5, max_evaluations=3000).signals == ()  # all known by now
    text = (tmp_path / "HEARTBEAT.md").read_text()
    assert [text.count(line) for line in ("Monitoring", "First", "10 signals", "dropped", "unlocked")] == [
        1,
        1,
        1,
        1,
        0,
    ]
    bootstrap(service, "other")
    assert facts(search_templates.start_search(seed=5, max_evaluations=3000, n_jobs=2).signals) == facts(first.signals)


def test_status_and_suggestions_are_true(service, bootstrap, tmp_path):
    tracker = bootstrap(service).search_tracker
    assert (corvane.search_status(), corvane.get_suggestions()) == (search_templates.SearchStatus(False, None, 0), [])
    with subprocess.Popen([sys.executable, "-Pc", SEARCHER, service.url]) as searcher:
        while not tracker.signals() or not tracker.runs()[0].evaluations:
            assert searcher.poll() is None
            time.sleep(0.02)
        assert corvane.search_status().running
        with pytest.raises(RuntimeError, match="running already"):
            search_templates.start_search()
        searcher.kill()
    kept, run = tracker.signals(), tracker.runs()[0]
    assert corvane.search_status() == search_templates.SearchStatus(False, run, len(kept))
    assert corvane.search_status().error == "killed"
    result = search_templates.start_search(seed=1, max_evaluations=400)
    assert tracker.signals() == [*kept, *result.signals] and corvane.search_status().error is None
    with contextlib.closing(sqlite3.connect(tmp_path / "agent/search.db")) as db, db:
        db.execute("UPDATE uses SET tried = iif(name = 'IBM', 1, 50), found = iif(name = 'AAPL', 9, 1)")
    assert {s.use.name: s.reason for s in corvane.get_suggestions()} == {"AAPL": "promising", "IBM": "rarely tried"}


@pytest.mark.parametrize("pool", [None, "momentum", "reversal"])
def test_profit_is_what_a_plain_computation_gives(pool, service, bootstrap, tmp_path):
    runtime = bootstrap(service)
    prices, cost, train = list(runtime.vault["IBM"]), runtime.era_config["cost"], runtime.era_config["train_days"]
    subject, side = "delta(IBM, 5)", -1 if pool == "reversal" else 1
    if pool:
        found = search_templates.FoundSignal(3, f"local-3-{pool}", "IBM", subject, 0.1, 0.2, 0.7, 0.1, 0.7, 1, 0.0)
        subject = runtime.search_tracker.add_signal(found, [])[0].id
    result = corvane.simulate_signal(subject, picture="curve.png")
    held = np.array([0.0] * 5 + [side * np.sign(b - a) for a, b in zip(prices, prices[5:-1], strict=False)])
    profit = np.append(0.0, held * (np.diff(prices) / prices[:-1]) - cost * np.abs(np.diff(held, prepend=0.0)))
    assert list(result.profit) == pytest.approx(list(profit), abs=1e-15)
    capital = np.cumprod(1 + profit)
    fall = max(1 - capital[day:].min() / capital[day] for day in range(len(capital)))
    assert (result.total_return, result.max_drawdown) == pytest.approx((capital[-1] - 1, fall))
    ratios = [p.mean() / p.std() * 252**0.5 for p in (profit, profit[:train], profit[train:])]
    assert [result.sharpe, result.train_sharpe, result.rest_sharpe] == pytest.approx(ratios)
    assert (tmp_path / "curve.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_the_runtime_without_the_service_is_the_same(start, bootstrap):
    with start() as service:
        kit = bootstrap(service)
        service.command("publish", "--backtester", "2")
        kit.sync_manager.sync()
        assert kit.raw_backtester.VERSION == kit.evaluator.raw_backtester.VERSION == "2"
        found = search_templates.start_search(max_evaluations=500)
    _runtime.close_runtime()
    kit.search_tracker._path.unlink()  # so that the next search begins with nothing known
    local = agent_onboarding.ensure_runtime_bootstrapped(strict=False)
    assert local is _runtime.get_runtime() is not kit and type(local.sync_manager) is not type(kit.sync_manager)
    for name in "era_id", "era_config", "vocabularies", "registry", "named_universes", "raw_backtester", "vault":
        assert getattr(local, name) == getattr(kit, name), name
    assert facts(search_templates.start_search(max_evaluations=500).signals) == facts(found.signals) != []
    bad = {"mean(IBM, 7)": "windows 7", "mean(IBM,": "column", "FB": "FB", "IBM - GOOG": "just one", 0: "number 0"}
    for subject, message in bad.items():
        with pytest.raises((ValueError, LookupError), match=message):
            corvane.simulate_signal(subject)

"""Searching and simulating, in a real runtime: the service's native modules, its prices, and a real database."""

import contextlib
import dataclasses
import math
import sqlite3
import statistics
import subprocess
import sys
import time
import urllib.request

import pytest

import corvane
from corvane import _runtime
from corvane import agent_onboarding as onboarding
from corvane import search_templates as search
from corvane_local.store import Store

OTHER_PROCESS = """import sys, corvane; from corvane import agent_onboarding, search_templates as search
agent_onboarding.configure(server_url=sys.argv[1], data_dir='agent')
"""
KILLED_SEARCH = "agent_onboarding.register(bootstrap_runtime=True); search.start_search(max_evaluations=10**9)"
STATUS = "s = corvane.search_status(); print(s.running, s.run.evaluations, s.signals, s.error)"


@pytest.fixture
def bootstrap(tmp_path, monkeypatch):
    """Registers a wallet of a running service in the directory of this name and bootstraps its runtime."""
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(sys, "path", list(sys.path))
    monkeypatch.setattr(urllib.request, "_opener", None)  # it trusts the first authority that it was used with
    monkeypatch.setattr(onboarding, "_config", dict(onboarding._config))
    monkeypatch.setattr(onboarding, "_auth_manager", None)
    monkeypatch.setattr(search, "_library_runtime", None)

    def registered(service, name="agent"):
        (tmp_path / "HEARTBEAT.md").touch()
        onboarding.configure(server_url=service.url, data_dir=str(tmp_path / name))
        onboarding.register(Store(service.state / "service.db").make_invite(), bootstrap_runtime=True)
        return _runtime.get_runtime()

    yield registered
    _runtime.close_runtime()


def facts(signals):
    return [dataclasses.astuple(dataclasses.replace(signal, found_at=0)) for signal in signals]


def test_a_seed_decides_what_is_found(service, bootstrap, tmp_path):
    runtime = bootstrap(service)
    limits = runtime.search_era_config
    first = search.start_search(seed=5, max_evaluations=3000)
    assert first.evaluations == 3000 >= first.candidates > len(first.signals) >= 10
    for found in first.signals:
        assert min(found.correlation, found.rest_correlation) >= limits.correlation
        assert min(found.sharpe, found.rest_sharpe) >= limits.sharpe
        assert found.mutual_information >= limits.mutual_information
    assert facts(runtime.search_tracker.signals()) == facts(first.signals)
    again = search.start_search(seed=5, max_evaluations=3000)
    assert (again.candidates, again.signals) == (first.candidates, ())  # all known by now
    text = (tmp_path / "HEARTBEAT.md").read_text()
    wanted = "Search Monitoring", "First signal found", "10 signals found", "discovery rate has dropped"
    assert [text.count(line) for line in wanted] == [1] * 4 and "unlocked" not in text
    bootstrap(service, "other")
    assert facts(search.start_search(seed=5, max_evaluations=3000, n_jobs=2).signals) == facts(first.signals)


def test_status_velocity_and_suggestions_are_true(service, bootstrap, tmp_path):
    tracker = bootstrap(service).search_tracker
    assert corvane.search_status() == search.SearchStatus(False, None, 0)
    assert (corvane.get_search_velocity().signals_per_hour, corvane.get_suggestions()) == (0, [])
    command = [sys.executable, "-P", "-c"]
    ask = [*command, OTHER_PROCESS + STATUS, service.url]
    with subprocess.Popen([*command, OTHER_PROCESS + KILLED_SEARCH, service.url]) as searcher:
        while not tracker.signals() or not tracker.runs()[0].evaluations:
            assert searcher.poll() is None
            time.sleep(0.02)
        running, evaluations, signals, error = subprocess.check_output(ask, text=True).split()
        assert (running, error) == ("True", "None") and int(evaluations) > 0 and int(signals) > 0
        with pytest.raises(RuntimeError, match="running already"):
            search.start_search()
        searcher.kill()
    kept, evaluations = tracker.signals(), tracker.runs()[0].evaluations
    assert subprocess.check_output(ask, text=True).split() == ["False", str(evaluations), str(len(kept)), "killed"]
    result = search.start_search(seed=1, max_evaluations=400)
    assert tracker.signals() == [*kept, *result.signals] and corvane.search_status().error is None
    hours = sum(run.noted_at - run.started_at for run in tracker.runs()) / 3600
    assert math.isclose(corvane.get_search_velocity().signals_per_hour, len(tracker.signals()) / hours)
    with contextlib.closing(sqlite3.connect(tmp_path / "agent/search.db")) as db, db:
        db.execute("UPDATE uses SET tried = 50, found = CASE name WHEN 'AAPL' THEN 9 ELSE 1 END")
        db.execute("UPDATE uses SET tried = 1 WHERE name = 'IBM'")
    suggested = [(s.reason, s.use.name) for s in corvane.get_suggestions()]
    assert suggested == [("promising", "AAPL"), ("rarely tried", "IBM")]
    assert (tmp_path / "agent/search.db").stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("pool", [None, "momentum", "reversal"])
def test_profit_is_what_a_plain_computation_gives(pool, service, bootstrap, tmp_path):
    runtime = bootstrap(service)
    prices, cost, train = list(runtime.vault["IBM"]), runtime.era_config["cost"], runtime.era_config["train_days"]
    subject, side = "delta(IBM, 5)", -1 if pool == "reversal" else 1
    if pool:
        found = search.FoundSignal(3, f"local-3-{pool}", "IBM", subject, 0.1, 0.2, 0.7, 0.1, 0.7, 1, 0.0)
        subject = runtime.search_tracker.add_signal(found, [])[0].id
    result = corvane.simulate_signal(subject, picture="curve.png")
    held = [0.0] * 6 + [side * math.copysign(b != a, b - a) for a, b in zip(prices, prices[5:-1], strict=False)]
    profit = [0.0]
    for day in range(1, len(prices)):
        profit.append(held[day] * (prices[day] / prices[day - 1] - 1) - cost * abs(held[day] - held[day - 1]))
    assert list(result.profit) == pytest.approx(profit, abs=1e-15)
    capital = [math.prod(1 + p for p in profit[: n + 1]) for n in range(len(profit))]
    assert result.total_return == pytest.approx(capital[-1] - 1)
    assert result.max_drawdown == pytest.approx(max(1 - c / max(capital[: n + 1]) for n, c in enumerate(capital)))
    for ratio, part in (
        (result.sharpe, profit),
        (result.train_sharpe, profit[:train]),
        (result.rest_sharpe, profit[train:]),
    ):
        assert ratio == pytest.approx(statistics.fmean(part) / statistics.stdev(part) * math.sqrt(252), rel=1e-3)
    assert (tmp_path / "curve.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_refusals(service, bootstrap, tmp_path):
    bootstrap(service)
    for arguments, error, message in [
        ({"": "mean(IBM, 7)"}, ValueError, "not allow the windows 7; it allows 5, 10, 20, 60"),
        ({"": "mean(IBM,"}, ValueError, "column"),
        ({"": "FB / IBM"}, ValueError, "FB"),
        ({"": "IBM - AAPL"}, ValueError, "just one instrument"),
        ({"": "IBM", "instrument": "FB"}, ValueError, "no instrument 'FB'; there are AAPL, GOOG, IBM, MSFT"),
        ({"": 99}, LookupError, "no found signal with the number 99"),
        ({"": "IBM", "picture": "no/curve.png"}, OSError, "no/curve.png"),
        ({"template": "magic"}, ValueError, "Unknown template 'magic'. Templates: random_expressions"),
        ({"seed": -1}, ValueError, "seed"),
        ({"n_jobs": 0}, ValueError, "at least 1"),
    ]:
        subject = [arguments.pop("")] if "" in arguments else []
        with pytest.raises(error, match=message):
            (corvane.simulate_signal if subject else search.start_search)(*subject, **arguments)
    assert corvane.search_status().run is None


def test_the_runtime_without_the_service_is_the_same(start, bootstrap):
    with start() as service:
        kit = bootstrap(service)
        service.command("publish", "--backtester", "2")
        kit.sync_manager.sync()
        assert kit.raw_backtester.VERSION == kit.evaluator.raw_backtester.VERSION == "2"
        found = search.start_search(max_evaluations=500)
        assert found.signals
    _runtime.close_runtime()
    kit.search_tracker._path.unlink()  # so that the next search begins with nothing known
    local = onboarding.ensure_runtime_bootstrapped(strict=False)
    assert local is _runtime.get_runtime() is not kit and type(local.sync_manager) is not type(kit.sync_manager)
    for name in "era_id", "era_config", "vocabularies", "registry", "feature_dirs", "named_universes", "raw_backtester":
        assert getattr(local, name) == getattr(kit, name), name
    assert {n: list(s) for n, s in local.vault.items()} == {n: list(s) for n, s in kit.vault.items()}
    [[seen], [expected]] = ([a.files for a in r.manifest_adapters.values()] for r in (local, kit))
    assert seen == expected | seen and seen.keys() == expected.keys()
    assert facts(search.start_search(max_evaluations=500).signals) == facts(found.signals)

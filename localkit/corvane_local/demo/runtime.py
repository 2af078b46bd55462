"""The runtime: an era is downloaded and verified, searched, simulated; and what happens when something is wrong."""

import difflib
import importlib
import json
import logging
import math
import sqlite3
import ssl
from collections.abc import Iterator, Sequence
from contextlib import closing, contextmanager
from datetime import datetime
from hashlib import sha256
from pathlib import Path
from typing import Any

import click
import httpx
import numpy as np

import corvane
from corvane import agent_onboarding as onboarding
from corvane import auth, search_templates
from corvane.errors import RuntimeModuleHashMismatch
from corvane.search_tracking import FoundSignal
from corvane.sync import CURRENT_PLATFORM
from corvane_local.demo.checks import check, option, private, refused, say, show
from corvane_local.demo.service import Service

EVALUATIONS = 4000
BACKTESTER = f"runtime/{CURRENT_PLATFORM}/backtester-{CURRENT_PLATFORM}.so"
kit: Any = importlib.import_module("corvane._runtime")


class RuntimeSteps:
    """The steps around the runtime; the wallet is registered, and what one step makes, the next ones use.

    Args:
        service: The running service.
        home: The agent's data directory.
        workspace: The agent's working directory.
        sabotage: What is damaged behind the kit's back: "module" or "picture".
    """

    def __init__(self, service: Service, home: Path, workspace: Path, sabotage: str | None) -> None:
        self.service = service
        self.home = home
        self.workspace = workspace
        self.sabotage = sabotage
        self.best: FoundSignal

    def find_the_universe(self) -> None:
        """The active era and its universe are found"""
        manager = auth.get_active_auth_manager()
        assert manager is not None
        click.echo("   A configured universe is taken without asking the service, so the option is emptied first.")
        private("_config")["named_universe"] = ""
        universe = private("_resolve_active_named_universe")(manager)
        show("_resolve_active_named_universe(MANAGER)", universe)
        eras = self._ask("/eras", manager.get_token())["eras"]
        active = [era for era in eras if era["state"] == "active"]
        check(f"one of the {len(eras)} eras of the service is active", len(eras) > len(active) == 1)
        pools = [pool["allowed_named_universes"] for pool in active[0]["signal_pools"]]
        check("the era names this universe", universe == active[0]["named_universe"] == option("named_universe"))
        check(f"so do its {len(pools)} pools", pools != [] and all(names == [universe] for names in pools))
        check("with a wrong token the service tells nothing", "eras" not in self._ask("/eras", "wrong"))

    def bootstrap(self) -> None:
        """One call downloads the era, verifies its native modules and builds the runtime"""
        if self.sabotage == "module":
            digest = self._published()[BACKTESTER]["sha256"]
            _flip_a_byte(self.service.state / "files" / digest)
        wallet = onboarding.register(bootstrap_runtime=True)
        show("register(bootstrap_runtime=True)", wallet)
        published = self._published()
        for path, entry in published.items():
            check(f"{path}: {entry['size']:,} bytes, SHA-256 as published", self._digest(path) == entry["sha256"])
        manifest = json.loads((self.home / "manifest.json").read_bytes())
        check("manifest.json names just these files", manifest["files"].keys() == published.keys())
        runtime = kit.get_runtime()
        check("the runtime is installed", runtime is not None)
        check("the search has it", search_templates._library_runtime is runtime)
        stamp = runtime.raw_backtester._corvane_module_sha256
        copy = Path(runtime.raw_backtester.__file__)
        check(f"what runs is the verified copy {copy.name}", sha256(copy.read_bytes()).hexdigest() == stamp)
        check("its digest is the one published", stamp == published[BACKTESTER]["sha256"])
        days = runtime.vault.dates
        click.echo(f"   {len(days)} trading days of {', '.join(runtime.vault)}, {days[0]} to {days[-1]}")

    def search(self) -> None:
        """A search of a few seconds finds signals, and the milestones reach HEARTBEAT.md"""
        heartbeat = self.workspace / "HEARTBEAT.md"
        before = heartbeat.read_text()
        result = search_templates.start_search(seed=7, max_evaluations=EVALUATIONS)
        say(
            f"start_search(seed=7, max_evaluations={EVALUATIONS})",
            f"{len(result.signals)} signals of {result.candidates} candidates",
            f"{result.evaluations / result.seconds:,.0f} expressions a second",
        )
        rows = self._rows("SELECT expression, instrument FROM signals ORDER BY id")
        check("all of them are in the database", rows == [(s.expression, s.instrument) for s in result.signals] != [])
        self.best = best = max(result.signals, key=lambda signal: signal.rest_sharpe)
        click.echo(f"   The best on days that the search had not seen: number {best.id}, {best.expression} on")
        click.echo(f"   {best.instrument}, Sharpe ratio {best.rest_sharpe:.2f}, and {best.sharpe:.2f} on the others.")
        after = heartbeat.read_text()
        lines = [line[2:] for line in difflib.ndiff(before.splitlines(), after.splitlines()) if line.startswith("+ ")]
        for line in lines:
            click.echo(f"   + {line}")
        wanted = ["First signal found!"] + ["10 signals found."] * (len(rows) >= 10)
        check("HEARTBEAT.md has a line for each milestone", all(any(w in line for line in lines) for w in wanted))
        check("and nothing else was touched", after.startswith(before))

    def simulate(self) -> None:
        """The best signal is simulated, with a picture of its equity curve"""
        picture = self.workspace / "best.png"
        result = corvane.simulate_signal(self.best.id, picture=picture)
        say(
            f"simulate_signal({self.best.id}, picture='best.png')",
            f"{result.expression} traded on {result.instrument}: {result.total_return:.1%} in all,"
            f" Sharpe ratio {result.sharpe:.2f}, greatest fall {result.max_drawdown:.1%}.",
        )
        runtime = kit.get_runtime()
        direction = -1 if self.best.pool.endswith("reversal") else 1
        values, prices = runtime.evaluator.evaluate(self.best.expression), list(runtime.vault[self.best.instrument])
        capital, held = [1.0], 0
        for value, price, following in zip(values, prices, prices[1:], strict=False):
            wanted = direction * ((value > 0) - (value < 0))
            profit = wanted * (following / price - 1) - runtime.era_config["cost"] * abs(wanted - held)
            capital.append(capital[-1] * (1 + profit))
            held = wanted
        growth = capital[-1] - 1
        check(f"computed by hand it comes to the same: {growth:.1%}", math.isclose(growth, result.total_return))
        if self.sabotage == "picture":
            other = next(name for name in runtime.vault if name != self.best.instrument)
            corvane.simulate_signal(self.best.expression, instrument=other, picture=picture)
        check("the curve in the picture is this capital", _is_drawn(capital, runtime.vault.dates, picture))
        click.echo("   What fits the past proves little; this is not advice to trade.")

    def ask_for_the_status(self) -> None:
        """What the checklist names tells the truth"""
        status = corvane.search_status()
        assert status.run is not None
        say(
            "search_status()",
            f"{'A' if status.running else 'No'} search runs. The last one: {status.run.outcome} after"
            f" {status.run.evaluations:,} evaluations; {status.signals} signals so far.",
        )
        velocity = corvane.get_search_velocity()
        say("get_search_velocity()", f"{velocity.signals_per_hour:,.0f} signals in an hour, trend {velocity.trend}.")
        for suggestion in corvane.get_suggestions():
            use = suggestion.use
            click.echo(
                f"   get_suggestions(): the {use.kind} {use.name} is {suggestion.reason}, found {use.found} times"
            )
        [(signals,)], [(evaluations, hours)] = (
            self._rows("SELECT count(*) FROM signals"),
            self._rows("SELECT sum(evaluations), sum(noted_at - started_at) / 3600 FROM runs"),
        )
        told = status.running, status.signals, status.run.evaluations
        check("it is what the database holds", told == (False, signals, evaluations))
        check("so is the velocity", math.isclose(velocity.signals_per_hour, signals / hours))

    def take_a_new_build(self) -> None:
        """The service publishes a new build: it is picked up without a restart"""
        runtime = kit.get_runtime()
        old = runtime.raw_backtester
        click.echo(f"   published as version {self.service.command('publish', '--backtester', '2')}")
        show("runtime.sync_manager.request_for_sync()", changed := runtime.sync_manager.request_for_sync())
        check("just the backtester was downloaded", changed == [BACKTESTER])
        versions = runtime.raw_backtester.VERSION, runtime.evaluator.raw_backtester.VERSION
        check("the runtime and its evaluator have version 2", versions == ("2", "2"))
        works = len(old.evaluate("mean(IBM, 5)", {"IBM": runtime.vault["IBM"]})) == len(runtime.vault["IBM"])
        check("what still holds version 1 can go on with it", old.VERSION == "1" and works)
        check("the new file is what is published", self._digest(BACKTESTER) == self._published()[BACKTESTER]["sha256"])

    def go_on_without_the_service(self) -> None:
        """A bad day: the service is away. The runtime is built from what is on disk"""
        self.service.stop()
        kit.close_runtime()
        with _log_lines() as lines:
            runtime: Any = onboarding.ensure_runtime_bootstrapped(strict=False)
        say("ensure_runtime_bootstrapped(strict=False)", *lines)
        wanted = "Failed to bootstrap corvane runtime: "
        check("the log says why the kit could not", len(lines) == 1 and lines[0].startswith(f"WARNING {wanted}"))
        check("a local runtime is installed", kit.get_runtime() is runtime is not None)
        check("it asks nobody for anything new", runtime.sync_manager.request_for_sync() == [])
        again = corvane.simulate_signal(self.best.id)
        check("the best signal is still there and can be simulated", again.expression == self.best.expression)
        click.echo("   Next step: none. Call it again when the service is back, to get what is new.")

    def be_strict(self) -> None:
        """The same, strictly: one error, on one line, with all its causes"""
        kit.close_runtime()
        beginning = "Corvane registration authenticated, but runtime data bootstrap failed: ConnectionError: "
        error = RuntimeError("there was none")
        with _log_lines() as lines:
            try:
                onboarding.ensure_runtime_bootstrapped()
            except RuntimeError as exc:
                error = exc
        say("ensure_runtime_bootstrapped()", f"RuntimeError: {error}", *lines)
        check("it says what failed", str(error).startswith(beginning) and "\n" not in str(error))
        check("and what caused that", "; caused by " in str(error) and error.__cause__ is not None)
        check("no runtime was left half built", kit.get_runtime() is None)
        click.echo("   Next step: see that the service can be reached; or ensure_runtime_bootstrapped(strict=False).")

    def refuse_a_flipped_byte(self) -> None:
        """Another bad day: one byte of the backtester on disk has flipped. It is refused"""
        path, expected = self.home / BACKTESTER, self._digest(BACKTESTER)
        _flip_a_byte(path)
        message = (
            f"Runtime module 'backtester' hash mismatch at {path}: expected {expected}, got {self._digest(BACKTESTER)}."
        )
        load = private("_load_per_era_backtester")
        error, sync = RuntimeModuleHashMismatch(message), "sync again when the service can be reached."
        refused("_load_per_era_backtester(HOME)", lambda: load(str(self.home)), error, sync)
        with _log_lines() as lines:
            runtime = onboarding.ensure_runtime_bootstrapped(strict=False)
        say("ensure_runtime_bootstrapped(strict=False)", *lines)
        said = [line for line in lines if line == f"DEBUG Failed to bootstrap local corvane runtime: {message}"]
        check("there is no runtime, and the log says why", runtime is kit.get_runtime() is None and said != [])

    def recover(self) -> None:
        """The service is back: the same call repairs the file and builds the runtime"""
        self.service.start()
        runtime: Any = onboarding.ensure_runtime_bootstrapped()
        say("ensure_runtime_bootstrapped()")
        check("the file is whole again", self._digest(BACKTESTER) == self._published()[BACKTESTER]["sha256"])
        check("the runtime is installed", kit.get_runtime() is runtime is not None)
        check("a sync finds nothing to do", runtime.sync_manager.request_for_sync() == [])
        kept = len(self._rows("SELECT 1 FROM signals"))
        check(f"the {kept} signals are still there", corvane.search_status().signals == kept > 0)

    def _ask(self, path: str, token: str) -> dict[str, Any]:
        headers, context = {"Authorization": f"Bearer {token}"}, ssl.create_default_context()
        answer = httpx.get(self.service.url + path, headers=headers, verify=context, trust_env=False)
        return dict(answer.json())

    def _published(self) -> dict[str, Any]:
        """The files of the release, as the service's database has them."""
        [(listed,)] = self.service.rows("SELECT files FROM releases ORDER BY version DESC LIMIT 1")
        published: dict[str, Any] = json.loads(str(listed))
        return published

    def _digest(self, path: str) -> str:
        return sha256((self.home / path).read_bytes()).hexdigest()

    def _rows(self, query: str) -> list[Any]:
        with closing(sqlite3.connect(f"file:{self.home / 'search.db'}?mode=ro", uri=True)) as db:
            return db.execute(query).fetchall()


def _flip_a_byte(path: Path) -> None:
    # A new file takes the old one's name: the bytes of a file that is loaded must never change.
    content = bytearray(path.read_bytes())
    content[len(content) // 2] ^= 1
    new = path.with_name(path.name + ".flipped")
    new.write_bytes(content)
    new.replace(path)


def _is_drawn(capital: Sequence[float], days: Sequence[int], picture: Path) -> bool:
    """Whether the coloured pixels of a PNG, stretched over their own width and height, go through every value."""
    from matplotlib.image import imread  # after the directory for its cache is set

    red, _, blue, _ = np.moveaxis(imread(picture), -1, 0)
    curve = blue - red > 0.2  # all the rest is grey
    rows, columns = np.nonzero(curve)
    dates = np.array([datetime.strptime(str(day), "%Y%m%d").toordinal() for day in days])
    across = (dates - dates[0]) / np.ptp(dates) * np.ptp(columns) + columns.min()
    down = (max(capital) - np.array(capital)) / np.ptp(capital) * np.ptp(rows) + rows.min()
    points = zip(across.round().astype(int), down.round().astype(int), strict=True)
    return all(curve[y - 2 : y + 3, x - 2 : x + 3].any() for x, y in points)


@contextmanager
def _log_lines() -> Iterator[list[str]]:
    """What the module logs in the meantime, including debug lines."""
    lines: list[str] = []
    handler = logging.Handler()
    handler.emit = lambda record: lines.append(f"{record.levelname} {record.getMessage()}")  # type: ignore[method-assign]
    level = onboarding.logger.level
    onboarding.logger.addHandler(handler)
    onboarding.logger.setLevel(logging.DEBUG)
    onboarding.logger.propagate = False
    try:
        yield lines
    finally:
        onboarding.logger.propagate = True
        onboarding.logger.setLevel(level)
        onboarding.logger.removeHandler(handler)

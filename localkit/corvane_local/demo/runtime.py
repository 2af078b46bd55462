"""The era that is searched, and the native modules for it: verified, replaced and pruned."""

import json
import ssl
import statistics
import sys
from collections.abc import Callable
from hashlib import sha256
from importlib.resources import files
from pathlib import Path
from types import ModuleType, SimpleNamespace

import click
import httpx

from corvane import agent_onboarding as onboarding
from corvane import auth
from corvane.errors import RuntimeModuleHashMismatch
from corvane.sync import CURRENT_PLATFORM
from corvane_local.demo.checks import check, option, private, refused, show
from corvane_local.demo.service import Service


class RuntimeSteps:
    """The steps around the runtime modules; the wallet is registered, and what one step makes, the next ones use.

    Args:
        service: The running service.
        home: The agent's data directory.
        sabotage: What goes wrong on purpose: "module".
    """

    def __init__(self, service: Service, home: Path, sabotage: str | None) -> None:
        self.service = service
        self.home = home
        self.sabotage = sabotage
        self.folder = home / "runtime" / CURRENT_PLATFORM
        self.era_id = ""
        self.modules: dict[str, ModuleType] = {}
        self.agent = SimpleNamespace()  # what uses the backtester

    def find_the_universe(self) -> None:
        """The active era and its universe are found"""
        manager = auth.get_active_auth_manager()
        assert manager is not None
        click.echo("   A configured universe is taken without asking the service, so the option is emptied first.")
        private("_config")["named_universe"] = ""
        universe = private("_resolve_active_named_universe")(manager)
        show("_resolve_active_named_universe(MANAGER)", universe)
        eras = self._ask_for_eras(f"Bearer {manager.get_token()}").json()["eras"]
        active = [era for era in eras if era["state"] == "active"]
        check(f"one of the {len(eras)} eras of the service is active", len(eras) > len(active) == 1)
        self.era_id = active[0]["id"]
        pools = [pool["allowed_named_universes"] for pool in active[0]["signal_pools"]]
        check("the era names this universe", universe == active[0]["named_universe"])
        check(f"so do its {len(pools)} pools", pools != [] and all(names == [universe] for names in pools))
        check("the option holds it", option("named_universe") == universe)
        check("without a token the service tells nothing", self._ask_for_eras("").status_code == 401)

    def load_the_modules(self) -> None:
        """Two native modules are placed and listed in a manifest: they are verified and loaded"""
        builds = {"era_data": _shipped("era_data"), "backtester": _shipped("backtester-1")}
        for name, build in builds.items():
            self._place(name, build)
        self._list(builds)
        if self.sabotage == "module":
            self._place("backtester", _with_one_byte_flipped(builds["backtester"]))
        self.modules = self._load()
        show("_load_runtime_modules_from_manifest(DATA_DIR, MANIFEST)", list(self.modules))
        for name, module in self.modules.items():
            stamp = module._corvane_module_sha256
            click.echo(f"   {name}: {stamp}")
            check("that is the digest of the file", stamp == _digest(self._path(name)))
            copy = Path(str(module.__file__))
            check(f"and of the copy {copy.name}", copy.parent == self.folder and stamp == _digest(copy))
        era_data, backtester = self.modules["era_data"], self.modules["backtester"]
        check(f"the data is that of era {era_data.ERA_ID}", self.era_id == era_data.ERA_ID)
        prices = list(era_data.prices())
        show("backtester.mean(era_data.prices())", mean := backtester.mean(era_data.prices()))
        check(f"that is the mean of its {len(prices)} prices", prices != [] and mean == statistics.fmean(prices))
        check("it is version 1 of the backtester", backtester.VERSION == "1")

    def refuse_a_flipped_byte(self) -> None:
        """One flipped byte is refused"""
        path, good = self._path("backtester"), self._path("backtester").read_bytes()
        self._place("backtester", _with_one_byte_flipped(good))
        message = (
            f"Runtime module 'backtester' hash mismatch at {path}: "
            f"expected {sha256(good).hexdigest()}, got {_digest(path)}."
        )
        call = "_load_runtime_modules_from_manifest(DATA_DIR, MANIFEST)"
        refused(call, self._load, RuntimeModuleHashMismatch, message)
        check("the module in use is the one from before", sys.modules["backtester"] is self.modules["backtester"])
        self._place("backtester", good)
        check("with the good file back, it is the same module again", self._load() == self.modules)

    def take_a_new_build(self) -> None:
        """A new build is picked up without a restart"""
        self.guard = onboarding.create_runtime_freshness_guard(str(self.home))
        old = self.agent.backtester = self.modules["backtester"]
        self.guard.record_loaded_module("backtester", old._corvane_module_sha256, module=old)
        self.guard.register_module_consumer("backtester", self.agent, "backtester")
        check("nothing is reloaded while nothing has changed", self.guard.refresh() == [])
        self._replace_the_backtester(_shipped("backtester-2"))
        show("agent.backtester.VERSION", self.agent.backtester.VERSION)
        check("the agent has the new version", self.agent.backtester.VERSION == "2")
        check("what still holds the old one can go on with it", (old.VERSION, old.mean([1, 2, 6])) == ("1", 3.0))

    def prune_old_copies(self) -> None:
        """Old copies are pruned: a third build comes, two copies stay"""
        ages = self._copies_of_the_backtester()
        self._replace_the_backtester(_shipped("backtester-1") + b"\0")  # loads as before, with a digest of its own
        copies = self._copies_of_the_backtester()
        for name in sorted(copies):
            click.echo(f"   {name}")
        check("two are left", len(copies) == 2)
        check("one of them is in use", Path(self.agent.backtester.__file__).name in copies)
        check("what is gone is the oldest", [ages[name] for name in ages.keys() - copies] == [min(ages.values())])

    def steps(self) -> list[Callable[[], None]]:
        return [
            self.find_the_universe,
            self.load_the_modules,
            self.refuse_a_flipped_byte,
            self.take_a_new_build,
            self.prune_old_copies,
        ]

    def _ask_for_eras(self, authorization: str) -> httpx.Response:
        headers = {"Authorization": authorization}
        context = ssl.create_default_context()
        return httpx.get(self.service.url + "/eras", headers=headers, verify=context, trust_env=False)

    def _load(self) -> dict[str, ModuleType]:
        data_dir = str(self.home)
        manifest = private("_read_manifest")(data_dir)
        modules: dict[str, ModuleType] = private("_load_runtime_modules_from_manifest")(data_dir, manifest)
        return modules

    def _replace_the_backtester(self, build: bytes) -> None:
        self._place("backtester", build)
        self._list({"era_data": self._path("era_data").read_bytes(), "backtester": build})
        show("guard.refresh()", reloaded := self.guard.refresh())
        check("just the backtester was reloaded", reloaded == ["backtester"])
        stamp = self.agent.backtester._corvane_module_sha256
        check("the agent's module is the one on disk", stamp == _digest(self._path("backtester")))

    def _copies_of_the_backtester(self) -> dict[str, int]:
        return {path.name: path.stat().st_mtime_ns for path in self.folder.glob(".corvane-runtime-backtester-*.so")}

    def _path(self, name: str) -> Path:
        return self.folder / f"{name}.so"

    def _place(self, name: str, build: bytes) -> None:
        _write(self._path(name), build)

    def _list(self, builds: dict[str, bytes]) -> None:
        listed = {
            str(self._path(name).relative_to(self.home)): {
                "kind": f"runtime_module:{name}",
                "platform": CURRENT_PLATFORM,
                "sha256": sha256(build).hexdigest(),
            }
            for name, build in builds.items()
        }
        manifest = {"era_id": self.era_id, "version": 1, "files": listed}
        _write(self.home / "manifest.json", json.dumps(manifest).encode())


def _shipped(name: str) -> bytes:
    return (files("corvane_local") / "native_modules" / f"{name}.so").read_bytes()


def _with_one_byte_flipped(build: bytes) -> bytes:
    middle = len(build) // 2
    return build[:middle] + bytes([build[middle] ^ 1]) + build[middle + 1 :]


def _digest(path: Path) -> str:
    return sha256(path.read_bytes()).hexdigest()


def _write(path: Path, content: bytes) -> None:
    # A new file takes the old one's name: the bytes of a file that is loaded must never change.
    path.parent.mkdir(parents=True, exist_ok=True)
    new = path.with_name(path.name + ".new")
    new.write_bytes(content)
    new.replace(path)

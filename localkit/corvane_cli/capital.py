"""What the capital of a found signal would have become, computed from the downloads alone: nobody is asked."""

import tempfile
from collections.abc import Mapping
from dataclasses import dataclass
from hashlib import sha256
from importlib.machinery import ExtensionFileLoader, ModuleSpec
from importlib.util import module_from_spec
from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np

from corvane import agent_onboarding
from corvane._evaluation import Vault, trading_directions
from corvane._runtime import _normalize_era_config, _verified_json
from corvane.search_tracking import FoundSignal
from corvane.sync import _checked_manifest

_MODULES = ("era_data", "backtester")


@dataclass(frozen=True)
class EraCapital:
    """The days of one era, and what trades signals over them."""

    backtester: ModuleType
    vault: Vault
    config: Mapping[str, Any]

    @property
    def train_share(self) -> float:
        """Which share of the days is that of the search."""
        return float(self.config["train_days"] / len(self.vault.dates))

    def capital(self, signal: FoundSignal, pieces: int) -> list[float] | None:
        """The capital at so many equal distances, beginning with 1; None for a signal of another era, or nonsense."""
        direction = trading_directions(self.config).get(signal.pool)
        if signal.era_id != self.config["era_id"] or direction is None or signal.instrument not in self.vault:
            return None
        prices, cost = self.vault[signal.instrument], self.config["cost"]
        try:
            values = self.backtester.evaluate(signal.expression, dict(self.vault))
            capital = np.cumprod(1 + np.asarray(self.backtester.profit(values, prices, direction, cost)))
        except ValueError:
            return None
        if not np.isfinite(capital).all():
            return None
        taken = np.linspace(0, len(capital) - 1, pieces + 1).round().astype(int)
        return list(capital[taken].tolist())


class EraModules:
    """The native modules of directories, each build loaded once.

    They are loaded from private copies of bytes that were compared with the manifest, and not under their names: the
    directories stay as they are, and so does what this process may have loaded before.
    """

    def __init__(self) -> None:
        self._loaded = dict[tuple[str, ...], EraCapital | None]()

    def of(self, data_dir: Path) -> EraCapital | None:
        """The era of a directory; None if its files are missing or not what the manifest says, or do not load."""
        try:
            manifest = _checked_manifest((data_dir / "manifest.json").read_bytes())
            select = vars(agent_onboarding)["_select_runtime_module_manifest_entry"]
            entries = [select(manifest, name) for name in _MODULES]
            key = (*(entry["sha256"] for _, entry in entries), manifest["files"]["era_config.json"]["sha256"])
            if key not in self._loaded:
                self._loaded[key] = None
                config = _normalize_era_config(_verified_json(str(data_dir), manifest, "era_config.json"), {}, manifest)
                contents = [(data_dir / path).read_bytes() for path, _ in entries]
                if [sha256(content).hexdigest() for content in contents] == list(key[:-1]):
                    self._loaded[key] = _load(contents, config)
            return self._loaded[key]
        except (OSError, ValueError, TypeError, KeyError, ImportError, RuntimeError):
            return None


def load_native(name: str, path: Path) -> ModuleType:
    """A native module from a file; sys.modules stays as it is."""
    loader = ExtensionFileLoader(name, str(path))
    module = module_from_spec(ModuleSpec(name, loader, origin=str(path)))
    loader.exec_module(module)
    return module


def _load(contents: list[bytes], config: Mapping[str, Any]) -> EraCapital:
    modules = []
    with tempfile.TemporaryDirectory(prefix="corvane-") as folder:
        for name, content in zip(_MODULES, contents, strict=True):
            (path := Path(folder, f"{name}.so")).write_bytes(content)
            modules.append(load_native(name, path))
    data, backtester = modules
    if not hasattr(backtester, "profit"):
        raise ImportError("This build of the backtester cannot compute profits.")
    vault = Vault(data)
    backtester.init_reconstruction(data.SEAL, list(vault.values()))
    return EraCapital(backtester, vault, config)

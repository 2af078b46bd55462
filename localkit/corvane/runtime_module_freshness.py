"""Keeps native runtime modules as new as the manifest says, without a restart."""

import json
import weakref
from collections.abc import Callable
from pathlib import Path
from types import ModuleType
from typing import Any

from corvane.sync import CURRENT_PLATFORM

_KIND_PREFIX = "runtime_module:"


def is_runtime_module_kind(kind: str) -> bool:
    """Whether a manifest entry of this kind is a native runtime module."""
    return runtime_module_name_from_kind(kind) is not None


def runtime_module_name_from_kind(kind: str) -> str | None:
    """The import name for a kind such as `runtime_module:backtester`, else None."""
    name = kind.removeprefix(_KIND_PREFIX)
    return name if name != kind and name.isidentifier() else None


class RuntimeFreshnessGuard:
    """Reloads modules whose digest in the manifest has changed, and hands them to those who use them.

    Args:
        data_dir: The directory that holds manifest.json.
        module_loader: Called with a module name and the digest it must have; returns the loaded module.
    """

    def __init__(self, *, data_dir: str, module_loader: Callable[[str, str], ModuleType]) -> None:
        self._manifest_path = Path(data_dir).expanduser() / "manifest.json"
        self._load = module_loader
        self._digests: dict[str, str] = {}
        self._consumers: dict[str, list[tuple[weakref.ref[Any], str]]] = {}

    def record_loaded_module(self, module_name: str, sha256: str, module: ModuleType | None = None) -> None:
        """Notes the digest of a module that is in use from now on."""
        self._digests[module_name] = sha256

    def register_module_consumer(self, module_name: str, consumer: object, attribute: str) -> None:
        """Has `consumer.attribute` replaced whenever the module is reloaded, for as long as the consumer lives."""
        self._consumers.setdefault(module_name, []).append((weakref.ref(consumer), attribute))

    def refresh(self) -> list[str]:
        """Reads the manifest and reloads what has changed.

        Returns:
            The names of the modules that were reloaded.

        Raises:
            OSError: The manifest cannot be read.
            ValueError: The manifest is not JSON.
            corvane.errors.RuntimeModuleError: A changed module cannot be loaded; the one in use stays.
        """
        reloaded = []
        for name, sha256 in self._listed_digests().items():
            if self._digests.get(name, sha256) != sha256:
                module = self._load(name, sha256)
                for reference, attribute in self._consumers.get(name, []):
                    if (consumer := reference()) is not None:
                        setattr(consumer, attribute, module)
                self._digests[name] = sha256
                reloaded.append(name)
        return reloaded

    def _listed_digests(self) -> dict[str, str]:
        files = json.loads(self._manifest_path.read_text(encoding="utf-8")).get("files", {})
        entries = [entry for _, entry in sorted(files.items()) if entry.get("platform") in (None, "", CURRENT_PLATFORM)]
        named = [(runtime_module_name_from_kind(str(entry.get("kind", ""))), entry.get("sha256")) for entry in entries]
        return {name: sha256 for name, sha256 in reversed(named) if name and sha256}

"""Keeps native runtime modules as new as the manifest says, without a restart."""

import json
import weakref
from collections.abc import Callable
from pathlib import Path
from types import ModuleType

from corvane.sync import CURRENT_PLATFORM

_KIND_PREFIX = "runtime_module:"
_PREFIX_LENGTH = len(_KIND_PREFIX)


def is_runtime_module_kind(kind: str) -> bool:
    """Whether a manifest entry of this kind is a native runtime module."""
    # Asked for every file of a manifest, most of which are something else; startswith would take three times as long.
    return kind[:_PREFIX_LENGTH] == _KIND_PREFIX and kind[_PREFIX_LENGTH:].isidentifier()


def runtime_module_name_from_kind(kind: str) -> str | None:
    """The import name for a kind such as `runtime_module:backtester`, else None."""
    return kind[_PREFIX_LENGTH:] if is_runtime_module_kind(kind) else None


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
        self._consumers: dict[str, list[tuple[Callable[[], object], str]]] = {}

    def record_loaded_module(self, module_name: str, sha256: str, module: ModuleType | None = None) -> None:
        """Notes the digest of a module that is in use from now on."""
        self._digests[module_name] = sha256

    def register_module_consumer(self, module_name: str, consumer: object, attribute: str) -> None:
        """Has `consumer.attribute` replaced whenever the module is reloaded, for as long as the consumer lives.

        A consumer whose type allows no weak references is kept alive.
        """
        self._consumers.setdefault(module_name, []).append((_reference(consumer), attribute))

    def refresh(self) -> list[str]:
        """Reads the manifest and reloads what has changed.

        Returns:
            The names of the modules that were reloaded.

        Raises:
            OSError: The manifest cannot be read.
            ValueError: The manifest is not a JSON object.
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
        manifest = json.loads(self._manifest_path.read_text(encoding="utf-8"))
        if not isinstance(manifest, dict):
            raise ValueError(f"{self._manifest_path} does not contain a JSON object.")
        files = manifest.get("files")
        digests: dict[str | None, object] = {}
        for _, entry in sorted(files.items()) if isinstance(files, dict) else []:
            if isinstance(entry, dict) and entry.get("platform") in (None, "", CURRENT_PLATFORM):
                name = runtime_module_name_from_kind(str(entry.get("kind", "")))
                digests.setdefault(name, entry.get("sha256"))  # the loader, too, takes the first by path
        return {name: sha256 for name, sha256 in digests.items() if name and isinstance(sha256, str) and sha256}


def _reference(consumer: object) -> Callable[[], object]:
    try:
        return weakref.ref(consumer)
    except TypeError:
        return lambda: consumer

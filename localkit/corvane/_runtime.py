"""The search runtime of this process: the era's data, its backtester, and what evaluates signals with both.

`bootstrap_runtime` makes it from what the service publishes. When the service is away, `corvane.agent_onboarding` makes
it of the same parts from the files on disk.
"""

import contextlib
import json
import os
import sys
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass
from hashlib import sha256
from importlib import import_module
from pathlib import Path
from types import ModuleType, SimpleNamespace
from typing import Any

from pydantic import BaseModel, ConfigDict, Field, TypeAdapter

from corvane import agent_onboarding
from corvane._batch import BatchOrchestrator, Expression, FunctionRegistry, compute_search_plan, evaluate_expression
from corvane._evaluation import RuntimeEvaluationAdapter, Vault
from corvane.auth import AuthManager
from corvane.errors import RuntimeModuleDownloadIncomplete, RuntimeModuleError, RuntimeModuleHashMismatch
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.search_tracking import SearchTracker
from corvane.sync import SyncManager
from corvane.sync_backoff import SyncBackoff

_ATTEMPTS, _FIRST_WAIT, _LONGEST_WAIT = 3, 0.3, 2.0  # seconds; somebody waits for the bootstrap

_runtime: "LibraryRuntime | None" = None
_backoff: SyncBackoff | None = None  # of the bootstrap that is under way


# -- What the files say -----------------------------------------------------------------------------------------------


class _Checked(BaseModel):
    model_config = ConfigDict(extra="allow", strict=True, allow_inf_nan=False)


class _Pool(_Checked):
    id: str = Field(min_length=1)
    name: str
    allowed_named_universes: list[str]


class _Thresholds(_Checked):
    correlation: float = Field(0.1, gt=0, lt=1)
    mutual_information: float = Field(0.2, ge=0)
    sharpe: float = 0.5


class _EraConfig(_Checked):
    era_id: int = Field(gt=0)
    named_universe: str = Field(min_length=1)
    signal_pools: list[_Pool] = Field(min_length=1)
    horizon_days: int = Field(5, gt=0)
    train_days: int = Field(1500, gt=0)
    cost: float = Field(0.0005, ge=0, lt=1)  # of the value that is bought or sold
    thresholds: _Thresholds = Field(default_factory=lambda: _Thresholds.model_validate({}))


_NAMES = TypeAdapter(tuple[str, ...])
_WINDOWS = TypeAdapter(tuple[int, ...])


def _normalize_era_config(
    era_config: Mapping[str, Any], vocabulary: Mapping[str, Any], manifest: Mapping[str, Any] | None = None
) -> dict[str, Any]:
    """A new era configuration, its types checked and its gaps filled.

    Raises:
        ValueError: A field is missing or malformed, or the files are of different eras.
    """
    eras = [source.get("era_id") for source in (era_config, vocabulary, manifest or {})]
    known = [era_id for era_id in eras if era_id is not None]
    if any(era_id != known[0] for era_id in known):
        raise ValueError(f"Era configuration, vocabulary and manifest are of different eras: {eras}.")
    return _EraConfig.model_validate({**era_config, "era_id": known[0] if known else None}).model_dump()


def _build_function_registry(vocabulary: Mapping[str, Any], era_config: Mapping[str, Any]) -> FunctionRegistry:
    """What the vocabulary allows in expressions.

    Raises:
        ValueError: A list of the vocabulary is missing or malformed.
    """
    functions, inputs = (_NAMES.validate_python(vocabulary.get(name)) for name in ("functions", "inputs"))
    windows = _WINDOWS.validate_python(vocabulary.get("windows"))
    if not inputs or (functions and not windows):
        raise ValueError(f"The vocabulary of era {era_config['era_id']} lacks inputs or windows.")
    return FunctionRegistry(functions, inputs, windows)


def _build_graph_validator(
    registry: FunctionRegistry,
    vocabulary: Mapping[str, Any],
    era_config: Mapping[str, Any],
    evaluator: RuntimeEvaluationAdapter,
) -> Callable[[Expression | str], None]:
    """A callable that raises ValueError for an expression which the vocabulary does not allow or which is malformed."""
    allowed = {"functions": registry.functions, "inputs": registry.inputs, "windows": registry.windows}

    def validate(expression: Expression | str) -> None:
        expression = Expression(str(expression))
        evaluator.evaluate(expression, slice(0, 1))  # what is malformed has a better message there
        for kind, names in allowed.items():
            if excess := sorted(getattr(expression, kind) - set(names)):
                found, allows = ", ".join(map(str, excess)), ", ".join(map(str, names))
                raise ValueError(f"Era {era_config['era_id']} does not allow the {kind} {found}; it allows {allows}.")

    return validate


# -- The parts of a runtime -------------------------------------------------------------------------------------------


def _load_vault_module(vault_module: ModuleType | None = None) -> ModuleType:
    """The module with the era's data: the given one, or what is imported under its name."""
    return vault_module if vault_module is not None else import_module("era_data")


def _wrap_synced_vault(vault_module: ModuleType, *, manifest: object, era_config: Mapping[str, Any]) -> Vault:
    """The era's data by instrument.

    Raises:
        ValueError: The module holds the data of another era.
    """
    if era_config["era_id"] != vault_module.ERA_ID:
        raise ValueError(f"The data is of era {vault_module.ERA_ID!r}, the configuration of {era_config['era_id']!r}.")
    return Vault(vault_module)


def _import_batch_runtime() -> tuple[
    type[BatchOrchestrator],
    Callable[[FunctionRegistry, int], Iterator[Expression]],
    type[Expression],
    Callable[..., memoryview],
]:
    """The class that evaluates many expressions, what makes them up, their type, and what evaluates one."""
    return BatchOrchestrator, compute_search_plan, Expression, evaluate_expression


# -- The runtime ------------------------------------------------------------------------------------------------------


class _RuntimeManifestAdapter:
    """The manifest as one named universe sees it."""

    def __init__(
        self, manifest: Any, *, feature_epoch: str, named_universe: str, era_config: Mapping[str, Any]
    ) -> None:
        self.era_id: int = era_config["era_id"]
        self.feature_epoch, self.named_universe = feature_epoch, named_universe
        self.files = {
            path: entry
            for path, entry in manifest.files.items()
            if not path.startswith("features/") or path.startswith(f"features/{named_universe}/")
        }


class _EraThreadProxy:
    """Follows the era of a sync manager, and leaves a line in HEARTBEAT.md when another one begins."""

    def __init__(self, sync_manager: Any) -> None:
        self._sync_manager = sync_manager
        sync_manager.register_era_callback(self._begin)

    @property
    def era_id(self) -> int | None:
        """The era of the files on disk, or None if there are none."""
        manifest = self._sync_manager.get_manifest()
        found = manifest.get("era_id") if isinstance(manifest, dict) else getattr(manifest, "era_id", None)
        return None if found is None else int(found)

    def close(self) -> None:
        """Ends the following."""
        self._sync_manager.unregister_era_callback(self._begin)

    def _begin(self, era_id: int) -> None:
        agent_onboarding.update_nudge("era_change")


class _SearchEraConfig:
    """What a search must know of an era: its horizon in trading days, and the thresholds for a found signal."""

    def __init__(self, era_config: Mapping[str, Any]) -> None:
        self.era_id: int = era_config["era_id"]
        self.horizon_days: int = era_config["horizon_days"]
        thresholds = era_config["thresholds"]
        self.correlation: float = thresholds["correlation"]
        self.mutual_information: float = thresholds["mutual_information"]
        self.sharpe: float = thresholds["sharpe"]


@dataclass(kw_only=True, eq=False, repr=False)
class LibraryRuntime:
    """All that searching and simulating need, for one wallet and one era."""

    auth: AuthManager
    auth_proxy: AuthManager
    data_dir: str
    server_url: str
    sync_manager: Any  # corvane.sync's, or the one of a runtime that was built without the service
    era_id: int
    era_thread: _EraThreadProxy
    era_config: Mapping[str, Any]
    search_era_config: _SearchEraConfig
    named_universes: tuple[str, ...]
    default_named_universe: str
    vocabularies: Mapping[str, Mapping[str, Any]]
    feature_dirs: Mapping[str, str]
    manifest_adapters: Mapping[str, _RuntimeManifestAdapter]
    vocabulary_raw: Mapping[str, Any]
    registry: FunctionRegistry
    vault: Vault
    raw_backtester: ModuleType
    evaluator: RuntimeEvaluationAdapter
    search_tracker: SearchTracker
    runtime_freshness_guard: RuntimeFreshnessGuard

    def load_vocabulary(self, named_universe: str | None = None) -> Mapping[str, Any]:
        """The vocabulary of a named universe, by default the runtime's own; KeyError for an unknown one."""
        return self.vocabularies[named_universe or self.default_named_universe]


def get_runtime() -> LibraryRuntime | None:
    """The runtime of this process, or None before the bootstrap."""
    return _runtime


def close_runtime() -> None:
    """Forgets the runtime, and calls off a bootstrap that waits for the service on another thread."""
    global _runtime
    if _backoff is not None:
        _backoff.cancel()
    if _runtime is not None:
        _runtime.era_thread.close()
    _runtime = None


def _verified_json(data_dir: str, manifest: Mapping[str, Any], path: str) -> dict[str, Any]:
    """The JSON object in a file of the manifest.

    Raises:
        corvane.errors.RuntimeModuleError: The manifest does not name the file, or it holds other bytes.
        OSError: It cannot be read.
        ValueError: It does not contain a JSON object.
    """
    if path not in manifest["files"]:
        raise RuntimeModuleDownloadIncomplete(f"The manifest does not name {path}.", relative_path=path)
    expected, content = manifest["files"][path]["sha256"], Path(data_dir, path).read_bytes()
    if (actual := sha256(content).hexdigest()) != expected:
        message = f"{path} is not what the manifest says: expected {expected}, got {actual}."
        raise RuntimeModuleHashMismatch(message, relative_path=path, expected_sha256=expected, actual_sha256=actual)
    value = json.loads(content)
    if not isinstance(value, dict):
        raise ValueError(f"{path} does not contain a JSON object.")
    return value


def bootstrap_runtime(
    am: AuthManager, config: dict[str, Any], load_backtester: Callable[[str], ModuleType]
) -> LibraryRuntime:
    """Downloads the active era and builds the runtime of this process from it.

    Args:
        am: The signed-in wallet.
        config: Options: data_dir, server_url, named_universe. The era's configuration is put into it as `era_config`,
            that of the files on disk before the service is asked.
        load_backtester: Loads the native modules of a data directory; returns the backtester.

    Raises:
        corvane.sync_backoff.SyncBackoffCancelled: `close_runtime` was called in the meantime.
        ConnectionError: The service cannot be reached within a few seconds.
        ValueError: A file does not make sense.
        Exception: What `corvane.sync.SyncManager.sync` and `load_backtester` raise.
    """
    global _runtime, _backoff
    data_dir = os.path.realpath(os.path.expanduser(config["data_dir"]))
    sync_manager = SyncManager(am, data_dir, config["server_url"])
    known = sync_manager.get_manifest()
    if known is not None:
        with contextlib.suppress(RuntimeModuleError, OSError, ValueError):  # the sync repairs what is damaged
            config["era_config"] = _verified_json(data_dir, known, "era_config.json")
    _backoff = SyncBackoff(_FIRST_WAIT, _LONGEST_WAIT, _ATTEMPTS)
    try:
        synced = _backoff.run(sync_manager.sync)
    finally:
        _backoff = None
    config["era_config"] = _verified_json(data_dir, synced, "era_config.json")
    _runtime = _build(am, config, data_dir, sync_manager, synced, load_backtester(data_dir))
    return _runtime


def _build(
    am: AuthManager,
    config: Mapping[str, Any],
    data_dir: str,
    sync_manager: SyncManager,
    synced: Mapping[str, Any],
    backtester: ModuleType,
) -> LibraryRuntime:
    universe = config.get("named_universe") or config["era_config"]["named_universe"]
    vocabulary = _verified_json(data_dir, synced, f"features/{universe}/vocabulary.json")
    era_config = _normalize_era_config(config["era_config"], vocabulary, synced)
    manifest = SimpleNamespace(era_id=era_config["era_id"], files=synced["files"], named_universe=universe)
    guard = agent_onboarding.create_runtime_freshness_guard(data_dir)
    guard.record_loaded_module("backtester", backtester._corvane_module_sha256, module=backtester)
    vault = _wrap_synced_vault(
        _load_vault_module(sys.modules.get("era_data")), manifest=manifest, era_config=era_config
    )
    orchestrator_cls, plan, expression_type, evaluate = _import_batch_runtime()
    evaluator = RuntimeEvaluationAdapter(
        data_dir=data_dir,
        era_config=era_config,
        raw_backtester=backtester,
        vault=vault,
        manifest=manifest,
        graph_validator=None,
        batch_orchestrator_cls=orchestrator_cls,
        compute_search_plan=plan,
        expression_type_cls=expression_type,
        expression_evaluator=evaluate,
        registry=_build_function_registry(vocabulary, era_config),
        raw_vocabulary=vocabulary,
        named_universe=universe,
        auth=am,
        runtime_freshness_guard=guard,
    )
    evaluator.graph_validator = _build_graph_validator(evaluator.registry, vocabulary, era_config, evaluator)
    adapter = _RuntimeManifestAdapter(
        manifest, feature_epoch="signal_is", named_universe=universe, era_config=era_config
    )
    runtime = LibraryRuntime(
        auth=am,
        auth_proxy=am,
        data_dir=data_dir,
        server_url=config["server_url"],
        sync_manager=sync_manager,
        era_id=era_config["era_id"],
        era_thread=_EraThreadProxy(sync_manager),
        era_config=era_config,
        search_era_config=_SearchEraConfig(era_config),
        named_universes=(universe,),
        default_named_universe=universe,
        vocabularies={universe: vocabulary},
        feature_dirs={universe: os.path.join(data_dir, "features", universe)},
        manifest_adapters={universe: adapter},
        vocabulary_raw=vocabulary,
        registry=evaluator.registry,
        vault=vault,
        raw_backtester=backtester,
        evaluator=evaluator,
        search_tracker=SearchTracker(data_dir),
        runtime_freshness_guard=guard,
    )
    for consumer in (evaluator, runtime):
        guard.register_module_consumer("backtester", consumer, "raw_backtester")
    sync_manager.runtime_freshness_guard = guard  # from now on a sync reloads what it has replaced
    return runtime

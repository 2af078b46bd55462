"""The runtime bootstrap beside the Python twin, with siblings that record what is done to them and fail in turn."""

import json
import logging
import shutil
import sys
import types
from hashlib import sha256

import pytest

import corvane
from corvane import agent_onboarding as native
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from differential import same
from test_runtime import built  # noqa: F401 -- a fixture

SIBLINGS = "_runtime", "sync_backoff", "search_tracking", "search_templates", "simulate_signal"


KEYWORDS = {}  # of the last call, by the name of what was called
EXPECTED_KEYWORDS = {
    "_runtime.RuntimeEvaluationAdapter": """data_dir era_config raw_backtester vault manifest graph_validator
        batch_orchestrator_cls compute_search_plan expression_type_cls expression_evaluator registry raw_vocabulary
        named_universe auth runtime_freshness_guard""",
    "_runtime.LibraryRuntime": """auth auth_proxy data_dir server_url sync_manager era_id era_thread era_config
        search_era_config named_universes default_named_universe vocabularies feature_dirs manifest_adapters
        vocabulary_raw registry vault raw_backtester evaluator search_tracker runtime_freshness_guard""",
    "simulate_signal.init_simulate_signal": """auth sync_manager vault backtester search_tracker era_thread
        graph_validator compute_search_plan era_config load_vocabulary useful_signal_metadata load_found_signal_pnl
        signal_dir BatchOrchestrator_cls correlate_per_pool compute_mi_per_pool vocabulary vocabulary_raw
        runtime_freshness_guard""",
}


class Cancelled(Exception):
    """What the kit raises when somebody cancels its waiting."""


class Anything:
    """Has every attribute and can be called; notes both. `changes` says what a look-up or a call gives instead."""

    def __init__(self, label, events, changes):
        self.__dict__.update(_label=label, _events=events, _changes=changes)

    def _give(self, label):
        self._events.note(label)
        given = self._changes.get(label, Anything(label, self._events, self._changes))
        if isinstance(given, type) and issubclass(given, BaseException) and not label.endswith("Cancelled"):
            raise given(label)
        return given

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return self._give(f"{self._label}.{name}")

    def __call__(self, *args, **kwargs):
        self._events.note(f"{self._label}(*{args}, **{kwargs}) while {sys.exc_info()[0]}")
        KEYWORDS[self._label] = " ".join(kwargs)
        return self._give(f"{self._label}()")

    def __setattr__(self, name, value):
        self._give(f"{self._label}.{name} = {value!r}")

    def __repr__(self):
        return self._label


def manager_as_text(self):
    return f"local manager {vars(self)}"


def kit(module, patch, events, changes=()):
    """Puts recording siblings in place; a value that is None makes one missing, an exception fails its import."""
    changes = {"sync_backoff.SyncBackoffCancelled": Cancelled, "_runtime.get_runtime()": None, **dict(changes)}
    for name in SIBLINGS:
        sibling = changes.get(name, Anything(name, events, changes))
        patch.delitem(sys.modules, f"corvane.{name}", raising=False)
        patch.delattr(corvane, name, raising=False)
        if isinstance(sibling, type):
            code = f"raise {sibling.__name__}('while {name} was imported')"
            (events.work / f"{name}.py").write_text(code)
            patch.setattr(corvane, "__path__", [str(events.work)])
        else:
            patch.setitem(sys.modules, f"corvane.{name}", sibling)
            if sibling is not None:
                patch.setattr(corvane, name, sibling, raising=False)
    for name in ("create_runtime_freshness_guard", "_load_runtime_modules_from_manifest"):
        if name in changes:
            patch.setattr(module, name, Anything(name, events, changes))
    patch.setattr(module, "_load_per_era_backtester", "the loader")
    patch.setattr(module._LocalRuntimeSyncManager, "__repr__", manager_as_text, raising=False)
    patch.setattr(module, "_fetch_eras_payload", lambda am: {"eras": [{"state": "active", "named_universe": "u"}]})


@pytest.fixture(autouse=True)
def all_log_lines():
    logger = logging.getLogger("corvane.agent_onboarding")
    logger.setLevel(logging.DEBUG)
    yield
    logger.setLevel(logging.NOTSET)


ERA = {"era_id": 3, "signal_pools": [{"allowed_named_universes": ["u"]}]}
BACKTESTER = types.SimpleNamespace(_corvane_module_sha256="5a" * 32)
LOADED = {
    "create_runtime_freshness_guard": None,
    "_load_runtime_modules_from_manifest": None,
    "_load_runtime_modules_from_manifest()": {"backtester": BACKTESTER, "era_data": "data"},
    "_runtime._import_batch_runtime()": (1, 2, 3, 4),
}


def local(module, work, config=None, files=(), **more):
    """Configuration and files of a data directory that is complete but for what is changed."""
    (work / "d/features/u").mkdir(parents=True)
    named = {"features/u/vocabulary.json": '{"era_id": "7"}', "manifest.json": '{"files": {"x": {}}}', **dict(files)}
    for name, text in named.items():
        if text is not None:
            (work / "d" / name).write_text(text)
    module._config.update(data_dir="d", era_config=ERA)
    module._config.update(config or {})


def bootstrap(module, work, patch, events, changes=(), **situation):
    events.work = work
    local(module, work, **situation)
    kit(module, patch, events, {**LOADED, **dict(changes)})
    return module._bootstrap_local_runtime_from_config("am")


class OtherMapping(dict):
    get = None


SITUATIONS = {
    "complete": {},
    **{f"era_config {v!r}": {"config": {"era_config": v}} for v in (None, [], "x", OtherMapping())},
    **{f"era {v!r}": {"config": {"era_config": {**ERA, "era_id": v}}} for v in ("7", "x", 0, None, 2.5, [], [1])},
    "no era id at all": {"config": {"era_config": {}}, "files": {"vocabulary.json": "{}"}},
    "no universe": {"config": {"era_config": {"era_id": 1}}, "files": {"vocabulary.json": "{}"}},
    **{f"universe {v!r}": {"config": {"named_universe": v}} for v in ("v", "u", "", None, 5, [1])},
    **{f"vocabulary {v!r}": {"files": {"features/u/vocabulary.json": v}} for v in (None, "[]", "{", "null", "\udce9")},
    **{f"manifest {v!r}": {"files": {"manifest.json": v}} for v in (None, "[]", "{", "{}", '{"files": 5}')},
    **{f"data_dir {v!r}": {"config": {"data_dir": v}} for v in ("", None, 5, b"d")},
    **{f"server_url {v!r}": {"config": {"server_url": v}} for v in ("", None, "https://x")},
    "no backtester": {"changes": {"_load_runtime_modules_from_manifest()": {"era_data": 1}}},
    "a backtester without digest": {"changes": {"_load_runtime_modules_from_manifest()": {"backtester": object}}},
    **{
        f"batch {v!r}": {"changes": {"_runtime._import_batch_runtime()": v}}
        for v in ((1, 2, 3), (1, 2, 3, 4, 5), None, "abcd", ImportError, KeyboardInterrupt)
    },
    "no validator": {"changes": {"_runtime._build_graph_validator()": LookupError}},
    "interrupted validator": {"changes": {"_runtime._build_graph_validator()": KeyboardInterrupt}},
    **{f"without {name}": {"changes": {name: None}} for name in ("_runtime", "search_tracking")},
    "a tracker that cannot be imported": {"changes": {"search_tracking": SyntaxError}},
}


@pytest.mark.parametrize("situation", SITUATIONS)
def test_local_bootstrap(situation, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        return bootstrap(module, work, patch, events, **SITUATIONS[situation])

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["descriptors"] == 0
    if situation == "complete":
        assert seen["result"] == "_runtime.LibraryRuntime()"


def propagate(strict, changes=(), **situation):
    def scenario(module, work, patch, events):
        events.work = work
        local(module, work, **situation)
        kit(module, patch, events, {**LOADED, **dict(changes)})
        return module._propagate_auth("am", strict=strict)

    return scenario


KIT_FAILS = {"_runtime.bootstrap_runtime()": ConnectionError}
RUNTIME = "_runtime.bootstrap_runtime()"
KITS = {
    "as it should be": {},
    "no runtime": {RUNTIME: None},
    "fails": KIT_FAILS,
    "fails, and so does the local one": {**KIT_FAILS, "_load_runtime_modules_from_manifest()": OSError},
    "cancelled": {RUNTIME: Cancelled},
    "cancelled elsewhere": {"simulate_signal.init_simulate_signal()": Cancelled},
    "no Cancelled": {"sync_backoff.SyncBackoffCancelled": AttributeError, **KIT_FAILS},
    "Cancelled is no class": {"sync_backoff.SyncBackoffCancelled": 5, **KIT_FAILS},
    "a template that refuses": {f"search_templates._library_runtime = {RUNTIME}": TypeError},
    "no export": {"simulate_signal._simulate_signal_export": AttributeError},
    **{f"{name} missing": {name: None} for name in SIBLINGS},
    **{f"{n} fails with {e.__name__}": {n: e} for n in SIBLINGS for e in (KeyError, KeyboardInterrupt)},
    **{
        f"a runtime without {name}": {f"{RUNTIME}.{name}": AttributeError}
        for name in ("registry", "sync_manager", "evaluator.graph_validator", "evaluator.correlate_per_pool")
    },
}


@pytest.mark.parametrize("strict", [True, False, []], ids=repr)
@pytest.mark.parametrize("state", KITS)
def test_propagation(state, strict, tmp_path, monkeypatch):
    seen, _ = same(propagate(strict, KITS[state]), tmp_path, monkeypatch)
    if state == "as it should be":
        assert seen["result"] == RUNTIME and not seen["logged"]


def test_propagation_without_local_configuration(tmp_path, monkeypatch):
    seen, _ = same(propagate(False, KIT_FAILS, config={"era_config": None}), tmp_path, monkeypatch)
    assert seen["result"] == "None" and [level for level, *_ in seen["logged"]] == ["WARNING", "WARNING"]


@pytest.mark.parametrize("replaced", ["_exception_chain_detail", "_read_json_if_present"])
def test_a_chain_without_detail_and_a_manifest_that_changes(replaced, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        original = module._read_json_if_present
        other = {
            "_exception_chain_detail": lambda exc: "",
            "_read_json_if_present": lambda path: 5 if path.endswith("manifest.json") else original(path),
        }
        patch.setattr(module, replaced, other[replaced])
        return propagate(replaced == "_exception_chain_detail", KIT_FAILS)(module, work, patch, events)

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert bool(seen["raised"]) is (replaced == "_exception_chain_detail")


@pytest.mark.parametrize("failure", [PermissionError, Cancelled, KeyboardInterrupt])
@pytest.mark.parametrize("strict", [True, False])
@pytest.mark.parametrize("changes", [{}, KIT_FAILS], ids=["kit", "local"])
def test_each_step_fails_in_turn(changes, strict, failure, tmp_path, monkeypatch):
    _, steps = same(propagate(strict, changes), tmp_path, monkeypatch)
    if not (strict and changes):
        called = EXPECTED_KEYWORDS if changes else ["simulate_signal.init_simulate_signal"]
        assert [KEYWORDS[name].split() for name in called] == [EXPECTED_KEYWORDS[name].split() for name in called]
    for step in range(1, steps + 1):
        same(propagate(strict, changes), tmp_path, monkeypatch, fail_at=step, failure=failure)


@pytest.mark.parametrize("strict", [True, False])
@pytest.mark.parametrize(
    "changes",
    [
        {"no manager": True},
        {},
        {"_runtime": None},
        {"_runtime.get_runtime()": LookupError},
        *({"_runtime.get_runtime()": "ready", **more} for more in ({}, {"search_templates": None})),
        {"_runtime.get_runtime()": "ready", "search_templates._library_runtime = 'ready'": ValueError},
    ],
    ids=repr,
)
def test_ensure(changes, strict, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        events.work = work
        kit(module, patch, events, changes)
        if "no manager" not in changes:
            patch.setattr(module, "_auth_manager", "am")
        return module.ensure_runtime_bootstrapped(*([] if strict else [False]))

    same(scenario, tmp_path, monkeypatch)


def test_sync_manager(tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        class Own(module._LocalRuntimeSyncManager):
            def get_manifest(self):
                return [super().get_manifest()]

        made = Own("manifest", runtime_freshness_guard=5)
        lists = made.request_for_sync(), made.request_for_sync()
        lists[0].append(1)
        plain = module._LocalRuntimeSyncManager(manifest="m")
        calls = plain.acquire(), plain.release(), plain.register_era_callback(1), plain.unregister_era_callback(2)
        names = [n for n in vars(module._LocalRuntimeSyncManager) if n not in ("__firstlineno__",)]
        arity = []
        for wrong in (lambda: module._LocalRuntimeSyncManager(), lambda: plain.acquire(1), lambda: plain.release(x=1)):
            try:
                arity.append(wrong())
            except TypeError as exc:
                arity.append(str(exc))
        return made.get_manifest(), lists, vars(made), vars(plain), calls, names, arity, type(plain).__doc__

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"] is None


@pytest.mark.parametrize("path", [None, "", "missing", "x", "list", "bad", ".", 5, b"list"], ids=repr)
def test_optional_files(path, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        (work / "list").write_text("[]"), (work / "bad").write_text("{"), (work / "x").mkdir()
        (work / "vocabulary.json").mkdir()
        return module._local_vocabulary_path(str(work), path), module._read_json_if_present(path)

    same(scenario, tmp_path, monkeypatch)


def test_a_real_module_is_reloaded_into_the_runtime(built, tmp_path, monkeypatch):  # noqa: F811
    """Real guard, real native modules: a new build reaches the evaluator and the runtime of a local bootstrap."""

    def place(kind):
        shutil.copy(built(kind), tmp_path / "new")
        (tmp_path / "new").rename(tmp_path / "b.so")
        entry = {"kind": "runtime_module:backtester", "sha256": sha256((tmp_path / "b.so").read_bytes()).hexdigest()}
        (tmp_path / "manifest.json").write_text(json.dumps({"files": {"b.so": entry}}))

    def holder(**parts):
        return types.SimpleNamespace(**{"registry": None, **parts})

    names = """_normalize_era_config _wrap_synced_vault _build_function_registry _RuntimeManifestAdapter _EraThreadProxy
        _build_graph_validator _SearchEraConfig _load_vault_module _import_batch_runtime"""
    kit_runtime = types.SimpleNamespace(
        **dict.fromkeys(names.split(), lambda *a, **k: {}), RuntimeEvaluationAdapter=holder, LibraryRuntime=holder
    )
    monkeypatch.setattr(corvane, "_runtime", kit_runtime, raising=False)
    monkeypatch.setitem(sys.modules, "corvane.search_tracking", types.SimpleNamespace(SearchTracker=str))
    monkeypatch.setattr(sys, "path", list(sys.path))
    monkeypatch.setattr(native, "_config", {"data_dir": str(tmp_path), "era_config": {"named_universe": "u"}})
    (tmp_path / "vocabulary.json").write_text("{}")
    place("backtester")
    runtime = native._bootstrap_local_runtime_from_config("am")
    assert kit_runtime._runtime is runtime and isinstance(runtime.runtime_freshness_guard, RuntimeFreshnessGuard)
    assert runtime.raw_backtester.BUILD == runtime.evaluator.raw_backtester.BUILD == 1
    place("backtester 2")
    assert runtime.runtime_freshness_guard.refresh() == ["backtester"]
    assert runtime.raw_backtester.BUILD == runtime.evaluator.raw_backtester.BUILD == 2
    del sys.modules["backtester"]

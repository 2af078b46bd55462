"""What is timed: each operation of the module beside its plain Python twin, or beside what no program can beat."""

import hashlib
import json
import random
import shutil
import subprocess
import sys
import sysconfig
import time
import types
from collections.abc import Callable, Iterator
from importlib.resources import files
from pathlib import Path
from typing import Any

from benchmarks.imports import import_rows
from benchmarks.measure import Row, compare, seconds
from benchmarks.screening import screening_rows
from corvane import agent_onboarding as native
from corvane.sync import CURRENT_PLATFORM
from support import twin

MODULES: tuple[Any, Any] = native, twin


class Manager:
    """An authentication manager whose service answers immediately."""

    def __init__(self, *arguments: object, **options: object) -> None: ...
    def authenticate(self) -> None: ...
    def get_wallet_address(self) -> str:
        return "0x1"

    def get_token(self) -> str:
        return "token"

    def get_token_expiry(self) -> float:
        return 1.0


def prepare(home: Path) -> None:
    """Gives both modules the same surroundings."""
    auth = types.SimpleNamespace(
        AuthManager=Manager,
        AuthError=Exception,
        RegistrationError=KeyError,
        InvalidKeyError=LookupError,
        _set_active_auth_manager=lambda am: None,
        _normalize_invite_code=lambda code: code,
        _validate_server_url=lambda url: url,
    )
    for module in MODULES:
        module.auth, module._config = auth, {**native._config, "data_dir": str(home)}
        module.logger.disabled = True


def both(what: str, action: Callable[[Any], object], before: Callable[[], object] = lambda: None) -> Row:
    """The native module beside its twin; `before` makes the state that the action changes."""

    def of(module: Any) -> Callable[[], object]:
        return lambda: (before(), action(module))

    return compare(what, of(native), "twin", of(twin))


def refused(module: Any) -> None:
    try:
        module.configure(colour=1)
    except ValueError:
        return
    raise AssertionError("the option was accepted")


def calls(home: Path) -> Iterator[Row]:
    """Calls in which Python does most of the work."""
    heartbeat = Path("HEARTBEAT.md")
    yield compare("get_agents_md_fragment()", native.get_agents_md_fragment, "empty function", lambda: None)
    yield both("get_agents_md_fragment()", lambda m: m.get_agents_md_fragment())
    yield both("configure()", lambda m: m.configure())
    yield both("configure, 3 options", lambda m: m.configure(auto_heartbeat=True, named_universe="u", server_url="x"))
    yield both("configure, refused", refused)
    chain = ValueError("a")
    chain.__cause__ = KeyError("b")
    yield both("_exception_chain_detail, 2 links", lambda m: m._exception_chain_detail(chain))
    yield both("_canonical_data_dir", lambda m: m._canonical_data_dir("~/x"))
    yield both("_write_wallet_key", lambda m: m._write_wallet_key(str(home), "5a" * 32))
    yield both("_read_wallet_key", lambda m: m._read_wallet_key(str(home)))
    yield both("register, wallet stored", lambda m: m.register())
    yield both("login", lambda m: m.login("5a" * 32))
    yield both("inject_heartbeat", lambda m: m.inject_heartbeat(), lambda: heartbeat.write_text("x\n"))
    yield both("inject_heartbeat, there already", lambda m: m.inject_heartbeat())
    yield both("update_nudge", lambda m: m.update_nudge("first_signal"), lambda: heartbeat.write_text("x\n"))
    yield both("update_nudge, unknown", lambda m: m.update_nudge("unknown"))


def eras() -> Iterator[Row]:
    """The named universe from a service that answers immediately."""
    pools = [{"allowed_named_universes": ["u"]} for _ in range(10)]
    body = {"eras": [{"state": "closed"}, {"state": "active", "named_universe": "u", "signal_pools": pools}]}
    for module in MODULES:
        module._fetch_eras_payload = lambda am: body

    def resolve(module: Any) -> None:
        module._config["named_universe"] = ""
        module._resolve_active_named_universe(None)

    yield both("_resolve_active_named_universe", resolve)


def hashing(home: Path) -> Iterator[Row]:
    """Files of growing size, beside the twin and beside the bare digest of bytes in memory."""
    for size in (1 << 10, 1 << 20, 1 << 26):
        path = home / f"{size}.bin"
        path.write_bytes(content := random.Random(size).randbytes(size))
        label = f"_sha256_file, {size >> 10:,} KiB"
        yield both(label, lambda m, path=path: m._sha256_file(str(path)))
        yield compare(
            label,
            lambda path=path: native._sha256_file(str(path)),
            "hashlib in memory",
            lambda content=content: hashlib.sha256(content).hexdigest(),
        )


def manifest_of(count: int, modules: list[str], shuffled: bool, home: Path) -> dict[str, Any]:
    entries: dict[str, Any] = {f"data/{n:06}.bin": {"kind": "series", "sha256": "0" * 64} for n in range(count)}
    for name in modules:
        digest = hashlib.sha256((home / f"{name}.so").read_bytes()).hexdigest()
        entries[f"{name}.so"] = {"kind": f"runtime_module:{name}", "platform": CURRENT_PLATFORM, "sha256": digest}
    order = list(entries.items())
    if shuffled:
        random.Random(count).shuffle(order)
    return {"era_id": 1, "version": 1, "files": dict(order)}


def compiled_modules(home: Path) -> list[str]:
    """Ten native modules that differ in their name alone."""
    source = home / "module.c"
    source.write_text(
        "#include <Python.h>\nstatic PyModuleDef_Slot slots[] = {{0, 0}};\n"
        'static PyModuleDef definition = {PyModuleDef_HEAD_INIT, .m_name = "m", .m_slots = slots};\n'
        "PyMODINIT_FUNC INITIALISE(void) { return PyModuleDef_Init(&definition); }\n"
    )
    include = sysconfig.get_paths()["include"]
    names = [f"m{n}" for n in range(10)]
    for name in names:
        command = ["cc", "-shared", "-fPIC", f"-I{include}", f"-DINITIALISE=PyInit_{name}", str(source)]
        subprocess.run([*command, "-o", str(home / f"{name}.so")], check=True)
    return names


def manifests(home: Path) -> Iterator[Row]:
    """Manifests of growing length, sorted and shuffled; reading one is bounded by json.load."""
    names = compiled_modules(home)
    for count in (10, 1_000, 100_000):
        for shuffled in (False, True):
            manifest = manifest_of(count, names, shuffled, home)
            label = f"{count:,} entries, {'shuffled' if shuffled else 'sorted'}"
            select = lambda m, manifest=manifest: m._select_runtime_module_manifest_entry(manifest, "m9")  # noqa: E731
            load = lambda m, manifest=manifest: m._load_runtime_modules_from_manifest(str(home), manifest)  # noqa: E731
            yield both(f"select a module, {label}", select)
            yield both(f"10 modules again, {label}", load)
        path = home / "manifest.json"
        path.write_text(json.dumps(manifest))

        def bare(path: Path = path) -> object:
            with open(path, encoding="utf-8") as file:
                return json.load(file)

        yield compare(f"_read_manifest, {count:,} entries", lambda: native._read_manifest(str(home)), "json.load", bare)


class Part(types.SimpleNamespace):
    """What the kit's runtime makes, without any work of its own."""

    def __init__(self, *positional: object, **parts: object) -> None:
        super().__init__(registry=None, **{k: v for k, v in parts.items() if k != "registry"})


def local_kit() -> types.SimpleNamespace:
    made = """_normalize_era_config _wrap_synced_vault _build_function_registry _RuntimeManifestAdapter _EraThreadProxy
        _build_graph_validator _SearchEraConfig RuntimeEvaluationAdapter LibraryRuntime"""
    return types.SimpleNamespace(
        **dict.fromkeys(made.split(), Part),
        _import_batch_runtime=lambda: (1, 2, 3, 4),
        _runtime=None,
        get_runtime=lambda: "runtime",
    )


def bootstraps(home: Path) -> Iterator[Row]:
    """The bootstrap with a kit that does nothing, so that what is timed is this module and its file reading."""
    import corvane

    era_home = home / "era"
    (era_home / "features" / "u").mkdir(parents=True)
    for name in ("era_data", "backtester"):
        build = "backtester-1" if name == "backtester" else name
        shutil.copy(str(files("corvane_local") / "native_modules" / f"{build}.so"), era_home / f"{name}.so")
    (era_home / "features/u/vocabulary.json").write_text("{}")
    (era_home / "manifest.json").write_text(json.dumps(manifest_of(100, ["era_data", "backtester"], False, era_home)))
    corvane._runtime = local_kit()  # type: ignore[attr-defined]
    sys.modules["corvane.search_tracking"] = types.SimpleNamespace(SearchTracker=Part)  # type: ignore[assignment]
    sys.modules["corvane.search_templates"] = corvane.search_templates = Part()  # type: ignore[assignment,attr-defined]
    for module in MODULES:
        module._auth_manager = Manager()
        module._config.update(data_dir=str(era_home), era_config={"era_id": 1, "named_universe": "u"})
    yield both("ensure_runtime_bootstrapped, warm", lambda m: m.ensure_runtime_bootstrapped())
    yield both("local bootstrap, modules loaded", lambda m: m._bootstrap_local_runtime_from_config("am"))


def shares_of_bootstrap(rounds: int = 200) -> dict[str, float]:
    """Share of each step in the time of a local bootstrap with the modules loaded before, by timing the names it calls.

    The rest is the module's own code and the kit, which does nothing here.
    """
    spent: dict[str, float] = {}

    def timed(name: str, function: Callable[..., object]) -> Callable[..., object]:
        def call(*arguments: object, **options: object) -> object:
            started = time.perf_counter()
            result = function(*arguments, **options)
            spent[name] = spent.get(name, 0.0) + time.perf_counter() - started
            return result

        return call

    steps = """_first_allowed_named_universe_from_era_config _local_vocabulary_path _read_json_if_present
        create_runtime_freshness_guard _read_manifest _load_runtime_modules_from_manifest"""
    originals = {name: getattr(native, name) for name in steps.split()}
    for name, function in originals.items():
        setattr(native, name, timed(name, function))
    total = seconds(lambda: native._bootstrap_local_runtime_from_config("am"), rounds)
    for name, function in originals.items():
        setattr(native, name, function)
    return {**{name: part / total for name, part in spent.items()}, "the rest": 1 - sum(spent.values()) / total}


def all_rows(home: Path) -> Iterator[Row]:
    prepare(home)
    yield from import_rows(home)
    yield from calls(home)
    yield from eras()
    yield from hashing(home)
    yield from manifests(home)
    yield from screening_rows()
    yield from bootstraps(home)

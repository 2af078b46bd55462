"""Manifest, copies, import and verified loading of native modules, beside the Python twin and with real modules."""

import json
import os
import shutil
import subprocess
import sys
import sysconfig
import types
from collections import OrderedDict
from collections.abc import Generator
from hashlib import sha256
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import twin
from corvane import agent_onboarding as m
from corvane.sync import CURRENT_PLATFORM
from differential import describe_exception, same

KINDS = {"ok": 0, "raises": 1, "no error": 2, "error set": 3, "interrupts": 4, "deletes": 5, "replaces": 6}


@pytest.fixture(scope="session")
def built(tmp_path_factory):
    """Path of a compiled tiny module by what its initialisation does; "ok" also as a second and a third build.

    The two builds of "backtester" can be imported under that name only.
    """
    folder, include = tmp_path_factory.mktemp("built"), sysconfig.get_paths()["include"]
    builds = [(kind, mode, 1, "tiny") for kind, mode in KINDS.items()] + [
        ("ok 2", 0, 2, "tiny"),
        ("ok 3", 0, 3, "tiny"),
    ]
    builds += [("backtester", 0, 1, "backtester"), ("backtester 2", 0, 2, "backtester")]
    compiler = ["c++", "-shared", "-fPIC", "-O0", f"-I{include}", str(Path(__file__).with_name("tiny.cpp"))]
    running = [
        subprocess.Popen(
            [
                *compiler,
                f"-DMODE={mode}",
                f"-DBUILD={build}",
                f"-DINITIALISE=PyInit_{name}",
                "-o",
                folder / f"{kind}.so",
            ]
        )
        for kind, mode, build, name in builds
    ]
    assert [process.wait() for process in running] == [0] * len(builds)
    (folder / "text.so").write_text("no library at all")
    return lambda kind: folder / f"{kind}.so"


@pytest.fixture(autouse=True)
def module_table(monkeypatch):
    monkeypatch.setattr(sys, "path", list(sys.path))
    yield
    sys.modules.pop("tiny", None)


def table_after(act, previous):
    """What the module table holds after the call, with what the call did."""
    sys.modules.pop("tiny", None)
    if previous is not None:
        sys.modules["tiny"] = previous
    try:
        outcome = repr(act())
    except BaseException as exc:
        outcome = describe_exception(exc)
    held = sys.modules.get("tiny", "absent")
    marks = [getattr(held, n, None) for n in ("__file__", "_corvane_module_sha256", "_corvane_module_source_path")]
    return outcome, "previous" if held is previous else repr(held), marks


@pytest.mark.parametrize("previous", [None, types.ModuleType("tiny"), "no module"], ids=repr)
@pytest.mark.parametrize("kind", [*KINDS, "text", "missing"])
def test_import_of_every_kind(kind, previous, built, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        if kind != "missing":
            shutil.copy(built(kind), "x.so")
        manifest = {"files": {"x.so": {"kind": "runtime_module:tiny", "sha256": None}}}
        return [
            table_after(lambda: module._load_extension_from_path("tiny", "x.so"), previous),
            table_after(lambda: module._load_manifest_runtime_module(str(work), "tiny", manifest=manifest), previous),
        ]

    same(scenario, tmp_path, monkeypatch)


def test_builds_replace_one_another(built, tmp_path, monkeypatch):
    """The same build is returned as it is, another one replaces it; two copies stay; a link counts where it leads."""

    def scenario(module, work, patch, events):
        sys.modules.pop("tiny", None)
        (work / "deep").mkdir()
        os.symlink(work / "deep/x.pyd", "link.pyd")
        seen, last = [], None
        for number, kind in enumerate(["ok", "ok", "ok 2", "ok 3", "ok"]):
            shutil.copy(built(kind), "deep/new")
            os.utime("deep/new", ns=(number, number))  # the copies' ages must not depend on the clock
            os.replace("deep/new", "deep/x.pyd")
            loaded = module._load_extension_from_path("tiny", "link.pyd" if number == 4 else "deep/x.pyd")
            seen.append((loaded.BUILD, loaded is last, loaded is sys.modules["tiny"], sorted(os.listdir("deep"))))
            last = loaded
        return seen

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"] is None and "(1, True, True" in seen["result"] and "(3, False, True" in seen["result"]


MANIFESTS = [
    None, "", "{", "[]", "5", "null", b"\xff", '{"files": null}', '{"files": []}', "{}", '{"a": 1, "a": 2}', "\ufeff{}",
    json.dumps({"era_id": [1], "version": None, "files": {"a": 5, "b": {"kind": 7}, "c": {"kind": None}}}),
]  # fmt: skip


@pytest.mark.parametrize("content", MANIFESTS, ids=repr)
@pytest.mark.parametrize("missing", [False, True])
def test_manifests(content, missing, built, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        if content is None:
            os.mkdir("manifest.json")
        elif not missing:
            Path("manifest.json").write_bytes(content if isinstance(content, bytes) else content.encode())
        results = []
        for name in ("_read_manifest", "_load_per_era_backtester"):
            try:
                results.append(getattr(module, name)(str(work)))
            except Exception as exc:
                results.append((describe_exception(exc), vars(exc)))
        manifest = results[0] if isinstance(results[0], types.SimpleNamespace) else None
        return results, list(module._runtime_module_manifest_entries(manifest)), sys.path[0]

    same(scenario, tmp_path, monkeypatch)


def entry(kind="runtime_module:tiny", **fields):
    return {"kind": kind, **fields}


class Clash(str):
    """A key that cannot be compared with the one that is looked up."""

    __hash__ = str.__hash__

    def __eq__(self, other):
        raise LookupError("compared")


FILES = [
    {"b/x.so": entry(), "a/y.so": entry(), "a/z.so": entry("runtime_module:other"), "c": 5, "d": entry("text")},
    {"x": entry(platform=""), "y": entry(platform=None), "z": entry(platform="else")},
    {"x": entry(platform="else"), "y": entry(platform=CURRENT_PLATFORM)},
    {"x": entry("runtime_module:vault"), "y": entry("runtime_module:era_data")},
    {"y": entry("runtime_module:vault"), "x": entry("runtime_module:era_data")},
    {"x": entry(), 5: entry()},
    {("x",): entry(), ("a",): entry(5)},
    {"y": entry("runtime_module:"), "x": {Clash("kind"): 1}},
    OrderedDict(b=entry(), a=entry("runtime_module:vault")),
    types.MappingProxyType({}),
]  # fmt: skip


@pytest.mark.parametrize("files", FILES, ids=repr)
@pytest.mark.parametrize("name", ["tiny", "era_data", "vault", "absent", None, []])
def test_selection(files, name, tmp_path, monkeypatch):
    for manifest in ({"files": files}, types.SimpleNamespace(files=files), types.SimpleNamespace()):
        same(lambda mod, *_, f=manifest: mod._select_runtime_module_manifest_entry(f, name), tmp_path, monkeypatch)
        same(lambda mod, *_, f=manifest: list(mod._runtime_module_manifest_entries(f)), tmp_path, monkeypatch)
        same(lambda mod, *_, f=manifest: mod._load_runtime_modules_from_manifest("d", f), tmp_path, monkeypatch)


class Mapping(dict):
    """A dict whose `get` takes only what the reader of a manifest passes."""

    def get(self, key, *default):
        assert default == (("",) if key == "kind" else ())
        return super().get(key, *default)


def test_entries_of_a_dict_subclass(tmp_path, monkeypatch):
    files = {"x": Mapping(entry()), "y": Mapping(kind=5)}
    seen, _ = same(lambda mod, *_: list(mod._runtime_module_manifest_entries({"files": files})), tmp_path, monkeypatch)
    assert seen["raised"] is None


def test_an_empty_cell_of_the_loader(tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        load = module.create_runtime_freshness_guard("d")._load
        assert load.__name__ == "_load" and load.__doc__ is None
        del load.__closure__[0].cell_contents
        load("tiny", "0")

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"]["type"] is NameError


ACTIONS = st.lists(
    st.sampled_from(["next", "send None", "send 5", "throw", "throw exit", "throw stop", "close", "again"])
)
SIBLING = st.sampled_from([None, StopIteration, ValueError, "re-enter"])


@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(actions=ACTIONS, failure=SIBLING, fail_at=st.integers(1, 4))
def test_entries_have_a_generators_manners(actions, failure, fail_at, monkeypatch):
    """One random script of next, send, throw and close, on the twin's generator and ours; siblings misbehave."""

    def drive(module):
        calls, generators, seen = [], [], []

        def is_kind(kind):
            calls.append(kind)
            if len(calls) == fail_at and failure == "re-enter":
                next(generators[0])
            elif len(calls) == fail_at and failure is not None:
                raise failure("from the sibling")
            return kind != "text"

        with monkeypatch.context() as patch:
            patch.setattr(module, "is_runtime_module_kind", is_kind)
            generators.append(module._runtime_module_manifest_entries({"files": FILES[0]}))
            generator = generators[0]
            assert isinstance(generator, Generator) and not calls
            steps = {
                "next": lambda: next(generator),
                "send None": lambda: generator.send(None),
                "send 5": lambda: generator.send(5),
                "throw": lambda: generator.throw(KeyError("thrown")),
                "throw exit": lambda: generator.throw(GeneratorExit),
                "throw stop": lambda: generator.throw(StopIteration(7)),
                "close": generator.close,
                "again": lambda: iter(generator) is generator,
            }
            for action in actions:
                try:
                    seen.append(steps[action]())
                except BaseException as exc:
                    seen.append(describe_exception(exc))
        return seen, calls

    assert drive(m) == drive(twin)


def write_manifest(**modules):
    files = {path: entry(sha256=digest) for path, digest in modules.values()}
    Path("manifest.json").write_text(json.dumps({"files": files}))


@pytest.mark.parametrize("digest", ["right", "upper", "short", "", None, 5, "gone"])
@pytest.mark.parametrize("expected", [None, "", "right", "wrong"])
def test_verified_loading(digest, expected, built, tmp_path, monkeypatch):
    right = sha256(built("ok").read_bytes()).hexdigest()
    digests = {"right": right, "upper": right.upper(), "short": right[:63], "wrong": "0" * 64}

    def scenario(module, work, patch, events):
        if digest != "gone":
            shutil.copy(built("ok"), "x.so")
        write_manifest(tiny=("x.so", digests.get(digest, digest)))
        wanted = digests.get(expected, expected)
        try:
            return table_after(
                lambda: module._load_manifest_runtime_module(None, "tiny", expected_sha256=wanted), None
            ), sys.path.count(str(work))
        finally:
            sys.path[:] = [p for p in sys.path if p != str(work)]

    same(lambda mod, work, *rest: (os.symlink(".", ".corvane"), scenario(mod, work, *rest))[1], tmp_path, monkeypatch)


@pytest.mark.parametrize("failure", [PermissionError, AttributeError, KeyboardInterrupt])
def test_each_step_of_loading_fails_in_turn(failure, built, tmp_path, monkeypatch):
    """Without a link there is a copy; what cannot be listed, examined or deleted stays; all else is raised."""

    def scenario(module, work, patch, events):
        shutil.copy(built("ok"), "x.so")
        for number in range(3):
            Path(f".corvane-runtime-tiny-old{number}.so").write_text("old")
            os.utime(f".corvane-runtime-tiny-old{number}.so", ns=(number, number))
        Path(".corvane-runtime-tiny-old.txt").write_text("another suffix")
        manifest = {"files": {"x.so": entry(sha256=sha256(built("ok").read_bytes()).hexdigest())}}
        try:
            return table_after(lambda: module._load_manifest_runtime_module(".", "tiny", manifest=manifest), None)
        finally:
            sys.path[:] = [p for p in sys.path if p != str(work)]

    seen, steps = same(scenario, tmp_path, monkeypatch)
    assert sorted(n for n in seen["files"] if "old" in n) == [
        ".corvane-runtime-tiny-old.txt",
        ".corvane-runtime-tiny-old2.so",
    ]
    for step in range(1, steps + 1):
        same(scenario, tmp_path, monkeypatch, fail_at=step, failure=failure)


@pytest.mark.parametrize("stamp", [None, "other"])
def test_a_file_that_changes_between_the_two_hashes(stamp, built, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        shutil.copy(built("ok"), "x.so")
        loaded = types.SimpleNamespace(**({"_corvane_module_sha256": stamp} if stamp else {}))
        patch.setattr(module, "_load_extension_from_path", lambda name, path: loaded)
        digest = sha256(built("ok").read_bytes()).hexdigest()
        try:
            module._load_manifest_runtime_module(".", "tiny", manifest={"files": {"x.so": entry(sha256=digest)}})
        except m.RuntimeModuleHashMismatch as exc:
            return str(exc), vars(exc)

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert "loaded with unexpected hash." in seen["result"]


def test_copies_that_are_there_already(built, tmp_path, monkeypatch):
    """A copy is trusted by its name, whatever it is."""
    digest = sha256(built("ok").read_bytes()).hexdigest()

    def scenario(module, work, patch, events):
        results = []
        for number, make in enumerate((Path.mkdir, lambda p: p.write_text("x"), lambda p: p.symlink_to("nowhere"))):
            folder = work / str(number)
            folder.mkdir()
            shutil.copy(built("ok"), folder / "x.so")
            make(folder / f".corvane-runtime-tiny-{digest[:16]}.so")
            results.append(
                table_after(lambda f=folder: module._load_extension_from_path("tiny", str(f / "x.so")), None)
            )
        return results

    same(scenario, tmp_path, monkeypatch)

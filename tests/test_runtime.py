"""Copies, import and verified loading of real native modules, and generators, beside the Python twin."""

import contextlib
import os
import subprocess
import sys
import sysconfig
import types
from collections.abc import Generator
from hashlib import sha256
from pathlib import Path

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from corvane import agent_onboarding
from support import scenarios, twin
from support.comparison import same, same_at_each_step, tried
from support.scenarios import FILES, base, call, entry, file, made, native, raising

KINDS = {"raises": 1, "no error": 2, "error set": 3, "interrupts": 4, "deletes": 5, "replaces": 6}
BUILDS = ["backtester-1.so", "backtester-2.so"]
COPY = "d/.corvane-runtime-backtester-{}.so"


@pytest.fixture(scope="session", autouse=True)
def built():
    """Compiled modules, each by what its initialisation does, beside those of the kit."""
    include, source = sysconfig.get_paths()["include"], Path(__file__).with_name("tiny.cpp")
    compiler = ["c++", "-shared", "-fPIC", "-O0", f"-I{include}", str(source), "-o"]
    running = [
        subprocess.Popen([*compiler, base() / f"native/{kind}.so", f"-DMODE={mode}"]) for kind, mode in KINDS.items()
    ]
    assert [process.wait() for process in running] == [0] * len(KINDS)


def digest(build=BUILDS[0]):
    return sha256((base() / "native" / build).read_bytes()).hexdigest()


def with_table(act, previous=None):
    """What the module table holds after the call, with what the call did."""

    def acted():
        sys.modules.pop("backtester", None)
        if previous is not None:
            sys.modules["backtester"] = previous
        outcome, held = tried(act), sys.modules.get("backtester", "absent")
        marks = [getattr(held, n, None) for n in ("__file__", "_corvane_module_sha256", "_corvane_module_source_path")]
        return outcome, "previous" if held is previous else held, marks, sys.path.count(os.getcwd() + "/d")

    return acted


LOAD = call("_load_manifest_runtime_module", "d", "backtester")


@pytest.mark.parametrize("previous", [None, types.ModuleType("backtester"), "no module"], ids=repr)
@pytest.mark.parametrize("kind", [*KINDS, "backtester-1", b"no library at all", ""], ids=str)
def test_import_of_every_kind(kind, previous):
    source = f"{kind}.so" if kind in (*KINDS, "backtester-1") else kind
    modules = native(backtester={"source": source, "listed": {"sha256": None}})
    for act in (call("_load_extension_from_path", "backtester", "d/backtester.so"), LOAD):
        same(with_table(act, previous), modules)


def test_builds_replace_one_another():
    """The same build is returned as it is, another one replaces it; two copies stay; a link counts where it leads."""

    def replacing():
        contents = [(base() / "native" / build).read_bytes() for build in BUILDS]
        last = None
        for number, content in enumerate([contents[0], contents[0], contents[1], contents[1] + b"3", contents[0]]):
            Path("d/new").write_bytes(content)
            os.utime("d/new", ns=(number, number))  # the copies' ages must not depend on the clock
            os.replace("d/new", "d/x.pyd")
            path = "link.pyd" if number == 4 else "d/x.pyd"
            loaded = scenarios.m._load_extension_from_path("backtester", path)
            held = loaded is sys.modules["backtester"]
            yield loaded.VERSION, loaded is last, held, sorted(os.listdir("d"))
            last = loaded

    link = made(lambda p: p.symlink_to("d/x.pyd"), "link.pyd")
    seen = same(lambda: list(replacing()), made(Path.mkdir, "d/old"), link)
    assert "('1', True, True" in seen["result"] and "('2', False, True" in seen["result"]


DIGESTS = {"right": digest(), "upper": digest().upper(), "short": digest()[:63], "wrong": "0" * 64}


@pytest.mark.parametrize("listed", ["right", "upper", "short", "", None, 5, "gone"])
@pytest.mark.parametrize("expected", [None, "", "right", "wrong"])
def test_verified_loading(listed, expected):
    source = "" if listed == "gone" else BUILDS[0]
    modules = native(backtester={"source": source, "listed": {"sha256": DIGESTS.get(listed, listed)}})
    load = call("_load_manifest_runtime_module", None, "backtester", expected_sha256=DIGESTS.get(expected, expected))
    same(with_table(load), modules, made(lambda p: p.symlink_to("d"), ".corvane"))


@pytest.mark.parametrize("failure", [PermissionError, AttributeError, KeyboardInterrupt])
def test_each_step_of_loading_fails_in_turn(failure):
    """Without a link there is a copy; what cannot be listed, examined or deleted stays; all else is raised."""
    old = [file(COPY.format(f"old{number}"), "old", 0o600, number) for number in range(3)]
    manifest = {"files": {"backtester.so": entry(sha256=digest())}}
    load = call("_load_manifest_runtime_module", "d", "backtester", manifest=manifest)
    modules = native(backtester={"source": BUILDS[0]})
    seen = same_at_each_step(
        raising(failure), with_table(load), modules, file("d/.corvane-runtime-backtester-old.txt"), *old
    )
    kept = [COPY.format("old2"), "d/.corvane-runtime-backtester-old.txt"]
    assert sorted(name for name in seen["files"] if "old" in name) == sorted(kept)


@pytest.mark.parametrize("make", [Path.mkdir, lambda p: p.write_text("x"), lambda p: p.symlink_to("nowhere")])
def test_copies_that_are_there_already(make):
    """A copy is trusted by its name, whatever it is."""
    copy = made(make, COPY.format(digest()[:16]))
    assert same(with_table(LOAD), native(backtester={"source": BUILDS[0]}), copy)["raised"] is None


def test_an_empty_cell_of_the_loader():
    def emptied():
        load = scenarios.m.create_runtime_freshness_guard("d")._load
        assert load.__name__ == "_load" and load.__doc__ is None
        del load.__closure__[0].cell_contents
        load("backtester", "0")

    assert same(emptied)["raised"]["type"] is NameError


def test_a_real_module_is_reloaded_into_the_runtime():
    """Real guard, real native modules: a new build reaches the evaluator and the runtime of a local bootstrap."""
    real = scenarios.runtime(RuntimeEvaluationAdapter=types.SimpleNamespace, LibraryRuntime=types.SimpleNamespace)
    on_disk = scenarios.Call(None, "", (*scenarios.LOCAL, scenarios.kit(_runtime=real)))
    with on_disk.situation(), contextlib.ExitStack() as undo:
        runtime = agent_onboarding._bootstrap_local_runtime_from_config("am")
        assert runtime.raw_backtester.VERSION == runtime.evaluator.raw_backtester.VERSION == "1"
        native(backtester={"source": BUILDS[1]}, era_data={})(undo)
        assert runtime.runtime_freshness_guard.refresh() == ["backtester"]
        assert runtime.raw_backtester.VERSION == runtime.evaluator.raw_backtester.VERSION == "2"


ACTIONS = "next", "send None", "send 5", "throw", "throw exit", "throw stop", "close", "again"
SIBLING = st.sampled_from([None, StopIteration, ValueError, "re-enter"])


@settings(max_examples=150, deadline=None)
@given(actions=st.lists(st.sampled_from(ACTIONS)), failure=SIBLING, fail_at=st.integers(1, 4))
def test_entries_have_a_generators_manners(actions, failure, fail_at):
    """One random script of next, send, throw and close, on the twin's generator and ours; siblings misbehave."""

    def drive(module):
        calls, generators = [], []

        def is_kind(kind):
            calls.append(kind)
            if len(calls) == fail_at and failure == "re-enter":
                next(generators[0])
            elif len(calls) == fail_at and failure is not None:
                raise failure("from the sibling")
            return kind != "text"

        with contextlib.ExitStack() as undo:
            scenarios.patched(module, is_runtime_module_kind=is_kind)(undo)
            generator = module._runtime_module_manifest_entries({"files": FILES[0]})
            generators.append(generator)
            assert isinstance(generator, Generator) and not calls
            steps = (
                lambda: next(generator),
                lambda: generator.send(None),
                lambda: generator.send(5),
                lambda: generator.throw(KeyError("thrown")),
                lambda: generator.throw(GeneratorExit),
                lambda: generator.throw(StopIteration(7)),
                generator.close,
                lambda: iter(generator) is generator,
            )
            by_name = dict(zip(ACTIONS, steps, strict=True))
            return [tried(by_name[action]) for action in actions], calls

    assert drive(agent_onboarding) == drive(twin)

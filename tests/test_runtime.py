"""The import of real native modules, whatever they do; and the manners of a generator, beside plain Python."""

import contextlib
import subprocess
import sys
import sysconfig
import types
from collections.abc import Generator
from pathlib import Path

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from corvane import agent_onboarding
from support import scenarios, twin
from support.comparison import same, same_at_each_step, tried
from support.promises import D1
from support.scenarios import FILES, base, call, entry, file, native, raising

KINDS = {"raises": 1, "no error": 2, "error set": 3, "interrupts": 4, "deletes": 5, "replaces": 6}
BUILDS = ["backtester-1.so", "backtester-2.so"]


@pytest.fixture(scope="session", autouse=True)
def built():
    """Compiled modules, each by what its initialisation does, beside those of the kit."""
    include, source = sysconfig.get_paths()["include"], Path(__file__).with_name("tiny.cpp")
    compiler = ["c++", "-shared", "-fPIC", "-O0", f"-I{include}", str(source), "-o"]
    running = [
        subprocess.Popen([*compiler, base() / f"native/{kind}.so", f"-DMODE={mode}"]) for kind, mode in KINDS.items()
    ]
    assert [process.wait() for process in running] == [0] * len(KINDS)


def with_previous(act, previous):
    """The call, with this in the module table."""

    def acted():
        sys.modules.pop("backtester", None)
        if previous is not None:
            sys.modules["backtester"] = previous
        outcome, held = tried(act), sys.modules.get("backtester", "absent")
        return outcome, "previous" if held is previous else held

    return acted


LOAD = call("_load_manifest_runtime_module", "d", "backtester")


@pytest.mark.parametrize("previous", [None, types.ModuleType("backtester"), "no module"], ids=repr)
@pytest.mark.parametrize("kind", [*KINDS, "backtester-1", b"no library at all", ""], ids=str)
def test_whatever_a_module_does_the_table_is_as_after_an_import(kind, previous):
    source = f"{kind}.so" if kind in (*KINDS, "backtester-1") else kind
    modules = native(backtester={"source": source, "listed": {"sha256": None}})
    for act in (call("_load_extension_from_path", "backtester", "d/backtester.so"), LOAD):
        same(with_previous(act, previous), modules)


@pytest.mark.parametrize("failure", [PermissionError, AttributeError, KeyboardInterrupt])
def test_a_failure_at_each_step_of_loading_comes_to_the_same_as_in_python(failure):
    """Without a link there is a copy; what cannot be listed, examined or deleted stays; all else is raised."""
    old = [file(f"d/.corvane-runtime-backtester-old{age}.so", "old", 0o600, age) for age in range(3)]
    manifest = {"files": {"backtester.so": entry(sha256=D1)}}
    load = call("_load_manifest_runtime_module", "d", "backtester", manifest=manifest)
    same_at_each_step(raising(failure), load, native(backtester={"source": BUILDS[0]}), *old)


def test_a_loader_without_its_directory_is_a_name_error():
    def emptied():
        load = scenarios.m.create_runtime_freshness_guard("d")._load
        assert load.__name__ == "_load" and load.__doc__ is None
        del load.__closure__[0].cell_contents
        load("backtester", "0")

    assert same(emptied)["raised"]["type"] is NameError


def test_a_new_build_reaches_the_evaluator_and_the_runtime():
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


@settings(max_examples=150, deadline=None, database=None)
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

"""Nothing that a caller does crashes the module: what it holds is replaced, patched or destroyed in mid-call."""

import gc
import os
import sys

import pytest

from corvane import agent_onboarding as m
from support.programs import run

PATCHED = {
    ("method", "wrapper"): "own code: AuthToken(token='<redacted>', expires_at=1.5)",
    ("method", "builtin"): "TEXT",
    ("method", "no class"): "'NoneType' object is not callable",
    ("replaced", "function"): "something else",
    ("replaced", "class"): "something else",
    ("replaced", "deleted"): "deleted",
    ("cache", "user"): "def configure(**kwargs: object) -> None:",
    ("cache", "none"): "None",
}


@pytest.mark.parametrize("patched", PATCHED, ids=" ".join)
def test_the_import_takes_nothing_for_what_it_is_not(patched):
    assert run("patched_import", *patched) == PATCHED[patched]


@pytest.mark.parametrize("where", ["importing", "raising", "handling", "old_cause"])
def test_a_thread_that_waits_while_the_interpreter_ends_sleeps_on(where):
    assert run("exit_in_thread", where, status=7) == ""


AROUND = {
    "shared_namespace": "True",
    "builtin": "({'x': 1}, {})",
    "greenlets": "each its own",
    "class_gone": "Gone the key",
    "code": "(None, 5)",
    "traceback": "not enough values to unpack (expected 3, got 2)",
    "other_watcher": "the new value",
    "no_watcher": "the new value",
    "lowered_stack": "maximum recursion depth exceeded",
}


@pytest.mark.parametrize("what", AROUND)
def test_what_is_around_a_call_may_change_in_the_middle_of_it(what):
    if what == "lowered_stack" and sys.version_info >= (3, 14):
        pytest.skip("3.14 measures the stack itself, once, and falls in plain Python, too")
    if "watcher" in what:
        pytest.importorskip("_testcapi", reason="the interpreter comes without its own tests")
    assert run("around_a_call", what) == AROUND[what]


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the frames of an instrumented build need a larger stack")
def test_endless_recursion_is_an_error_on_every_stack():
    ways = run("recursion").splitlines()
    assert [way for way in ways if not way.endswith(": RecursionError")] == [] and len(ways) == 108


def test_the_traceback_of_an_endless_recursion_is_folded():
    endless = "from corvane import agent_onboarding as m; m._find_heartbeat = m.inject_heartbeat; m.inject_heartbeat()"
    run(endless, status=1, errors="Previous line repeated [0-9]+ more times")


def test_a_context_manager_that_is_completed_too_late(monkeypatch):
    class Enter:
        times = 0

        def __get__(self, manager, owner):
            self.times += 1
            if self.times == 2:  # the first look-up found no way out, and the interpreter is asked to say so
                owner.__exit__ = lambda *exception: None
            return lambda: manager

    monkeypatch.setattr(m, "open", lambda *path, encoding: type("Late", (), {"__enter__": Enter()})(), raising=False)
    with pytest.raises(TypeError, match=r"changed while it was entered$|missed __exit__ method\)$"):  # on 3.14
        m._read_json_if_present(__file__)


def test_options_that_vanish_while_they_are_set(monkeypatch):
    class Emptying(str):
        __hash__ = str.__hash__

        def strip(self):
            for holder in gc.get_referrers(self):
                if type(holder) is dict and "auto_heartbeat" in holder:
                    holder.clear()
            return "us"

    monkeypatch.setattr(m, "_config", dict(m._config))
    with pytest.raises(RuntimeError, match=r"dictionary changed size during iteration$"):
        m.configure(**{"named_universe": Emptying("us"), "auto_heartbeat": False})

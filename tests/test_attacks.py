"""Nothing that a caller does crashes the module: what it holds is replaced, patched or destroyed in mid-call."""

import gc
import itertools
import os
import signal
import sys
import traceback
import types
from pathlib import Path

import pytest

from corvane import agent_onboarding as m
from support import scenarios
from support.comparison import same, tried
from support.programs import run
from support.scenarios import Clash, call, config, kit, ours

ROOT = Path(__file__).parents[1]
FUNCTIONS = [n for n, f in vars(m).items() if isinstance(f, types.FunctionType) and f.__module__ == m.__name__]


PATCHED = {
    ("method", "wrapper"): "own code, AuthToken(token='<re own code, manifest",
    ("method", "partial"): "AuthToken(token='<redacted>',  manifest",
    ("method", "builtin"): "TEXT TEXT",
    ("method", "object"): "object object",
    ("method", "ours"): "TypeError: expected str, bytes TypeError: expected str, bytes",
    ("method", "no-class"): "TypeError: 'NoneType' object i manifest",
    ("replaced", "object"): "<object object 0xab ## C",
    ("replaced", "ours"): "<function _normalize_key 0xab ## C",
    ("replaced", "class"): "None 0xab ## C",
    ("replaced", "manager"): "<class 'dict'> 0xab ## C",
    ("replaced", "generator"): "<class 'list'> 0xab ## C",
    **{("replaced", f"{kind} deleted"): "deleted 0xab ## C" for kind in ("function", "manager")},
    **{("cache", kind): "0xab ValueError def configure(*" for kind in ("user", "stand-in", "removed")},
    **{("cache", kind): "0xab ValueError" for kind in ("refusing", "none", "list", "halted", "emptied")},
}


@pytest.mark.parametrize("patched", PATCHED, ids=" ".join)
def test_the_import_takes_nothing_for_what_it_is_not(patched):
    assert run("patched_import", *patched) == PATCHED[patched]


WHERE = "linecache, sibling, record, source cache, exception, handler, old cause, arguments"


@pytest.mark.parametrize("where", WHERE.split(", "))
def test_a_thread_that_waits_while_the_interpreter_ends_sleeps_on(where):
    assert run("exit_in_thread", where, status=7) == ""


AROUND = {
    "shared_namespace": "[True, True, True]",
    "greenlets": "each its own",
    "class_gone": "Gone the key",
    "code": "(None, 5)",
    "traceback": "not enough values to unpack (expected 3, got 2)",
    "other_watcher": "the new value",
    "no_watcher": "the new value",
    "lowered_stack": "RecursionError",
}


@pytest.mark.parametrize("what", AROUND)
def test_what_is_around_a_call_may_change_in_the_middle_of_it(what):
    if what == "lowered_stack" and sys.version_info >= (3, 14):
        pytest.skip("3.14 measures the stack itself, once, and falls in plain Python, too")
    if "watcher" in what:
        pytest.importorskip("_testcapi", reason="the interpreter comes without its own tests")
    assert run("around_a_call", what) == AROUND[what]


class Lying(str):
    """A keyword that notes each comparison: it gives each answer once, then the truth; a class is raised."""

    __hash__ = str.__hash__
    answers = ()

    def __eq__(self, other):
        scenarios.note(f"{self} == {other}")
        self.answers, answer = self.answers[1:], next(iter(self.answers), None)
        if isinstance(answer, type):
            raise answer
        return str.__eq__(self, other) if answer is None else answer


LIES = (), (False,) * 8, (True,), (LookupError,), (False, LookupError), (0, [], "", [1])
WRONG = [
    *(((), {}), ((1,) * 9, {}), ((), {"nonsense": 1}), ((), {"data_dirr": 1, "bootstrap": 2}), ((), {1: 2})),
    ((1,), {"invite_code": 2, "private_key": 2, "exc": 2, "trigger": 2, "working_dir": 2, "data_dir": 2}),
]


@pytest.mark.parametrize("name", FUNCTIONS)
def test_arguments_are_bound_in_one_pass_and_errors_are_the_interpreters(name):
    code = getattr(m, name).__code__
    parameters = (*code.co_varnames[: code.co_argcount + code.co_kwonlyargcount], "other")

    def each():
        function = getattr(scenarios.m, name)
        for lie, positional, parameter in itertools.product(LIES, ((), ("x",) * code.co_argcount), parameters):
            keyword = Lying(parameter)
            keyword.answers = lie
            yield tried(lambda: function(*positional, **{keyword: "x"}))  # noqa: B023
        yield from (tried(lambda a=args, k=kwargs: function(*a, **k)) for args, kwargs in WRONG)

    seen = same(lambda: list(each()), config(server_url="http://127.0.0.1:1"), kit())
    assert seen["outcome"].count(f"{name}() ") >= 2  # of an error in binding


class Bare:
    """An iterator that cannot be asked for an iterator."""

    def __init__(self, items):
        self.items = iter(items)

    def __next__(self):
        scenarios.note("next")
        return next(self.items)


class Restarting(Bare):
    def __iter__(self):
        scenarios.note("again")
        return Restarting([("new", {"kind": "runtime_module:new"})])


@pytest.mark.parametrize("kind", [Bare, Restarting])
@pytest.mark.parametrize("wrapped", [True, False])
def test_the_manifest_is_asked_for_one_iterator(kind, wrapped):
    entries = {"files": {name: {"kind": f"runtime_module:{name}"} for name in "abc"}}
    holder = type("Holder", (list,), {"__iter__": lambda items: kind(items[:])}) if wrapped else kind
    other = ours(sorted=holder)
    same(lambda: list(itertools.islice(scenarios.m._runtime_module_manifest_entries(entries), 9)), other)


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the frames of an instrumented build need a larger stack")
def test_endless_recursion_is_an_error_on_every_stack():
    ways = run("recursion", "256", "512", "2048").splitlines()
    assert [way for way in ways if not way.endswith(": True")] == []
    assert len({way.split()[0] for way in ways}) == 35  # the others call no name outside of a handler


def test_the_traceback_of_an_endless_recursion_is_folded():
    endless = "from corvane import agent_onboarding as m; m._find_heartbeat = m.inject_heartbeat; m.inject_heartbeat()"
    run(endless, status=1, errors="Previous line repeated [0-9]+ more times")


def test_words_of_the_interpreter_at_the_end_of_its_stack(monkeypatch):
    monkeypatch.setattr(m, "os", types.SimpleNamespace(path=types.SimpleNamespace(exists=bool)))
    monkeypatch.setattr(m, "open", "".format, raising=False)  # a text, which no `with` can enter

    def deep(levels):
        return deep(levels - 1) if levels else m._read_json_if_present("x")

    seen = set()
    for levels in range(sys.getrecursionlimit()):
        try:
            deep(levels)
        except (TypeError, RecursionError) as exc:
            seen.add(type(exc))
    assert seen == {TypeError, RecursionError}


def test_a_context_manager_that_is_completed_too_late(monkeypatch):
    class Enter:
        times = 0

        def __get__(self, manager, owner):
            self.times += 1
            if self.times == 2:  # the first look-up found no way out, and the interpreter is asked to say so
                owner.__exit__ = lambda *exception: None
            return lambda: manager

    monkeypatch.setattr(m, "open", lambda *path, encoding: type("Late", (), {"__enter__": Enter()})(), raising=False)
    with pytest.raises(TypeError):
        m._read_json_if_present(__file__)


@pytest.mark.parametrize(("name", "file"), [("configure", "entry_points"), ("_safe_named_universe", "eras")])
def test_a_comparison_that_raises_is_reported_where_it_is_made(name, file):
    odd = type("Odd", (Clash,), {"strip": lambda self: self})("x")
    with pytest.raises(LookupError) as info:
        m.configure(named_universe=odd) if name == "configure" else m._safe_named_universe(odd)
    entry = traceback.extract_tb(info.tb)[-2]
    assert entry.filename == f"src/agent_onboarding/{file}.cpp"
    assert "leaves_segment(" in (ROOT / entry.filename).read_text().splitlines()[entry.lineno - 1]


class Truth:
    """Says when it is tested for truth."""

    def __init__(self, answer):
        self.answer = answer

    def __bool__(self):
        scenarios.note(f"is {self.answer}")
        return self.answer

    __int__ = lambda self: 7  # noqa: E731
    __str__ = lambda self: "us"  # noqa: E731


@pytest.mark.parametrize("answers", [*itertools.product((False, True), repeat=3)])
def test_each_operand_is_tested_once(answers):
    one, other, last = map(Truth, answers)
    era = {"era_id": one, "allowed_named_universes": ["u"]}
    vocabulary = ours(_read_json_if_present=lambda path: {"era_id": other})
    local = call("_bootstrap_local_runtime_from_config", scenarios.manager())
    same(local, *scenarios.LOCAL, config(era_config=era), vocabulary, kit())
    universe = {"named_universe": one, "id": other, "name": last}
    same(call("_active_era_named_universe_candidates", {"universes": [universe]}))


@pytest.mark.parametrize("by_signal", [True, False])
def test_options_that_vanish_while_they_are_set(by_signal):
    def empty(*signal):
        """Empties the dict of keyword arguments that holds the value."""
        for holder in gc.get_referrers(value):
            if type(holder) is dict and "auto_heartbeat" in holder and "server_url" not in holder:
                holder.clear()

    class Emptying(str):
        __hash__ = str.__hash__

        def strip(self):
            signal.raise_signal(signal.SIGUSR1) if by_signal else empty()
            return "us"

    def handled(undo):
        undo.callback(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, empty))

    value = Emptying("us")
    seen = same(lambda: scenarios.m.configure(**{"named_universe": value, "auto_heartbeat": False}), handled)
    assert "dictionary changed size during iteration" in seen["raised"]["text"]

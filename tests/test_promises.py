"""What each function promises, told from beginning to end; the table is support/promises.py."""

import contextlib
import types

import pytest

from corvane import agent_onboarding as m
from support import scenarios
from support.comparison import story
from support.promises import CALLS


@pytest.mark.parametrize("promise", CALLS)
def test_promise(promise):
    assert story(CALLS[promise]) == CALLS[promise].story


def test_a_new_build_reaches_the_evaluator_and_the_runtime():
    """Real guard, real native modules: a new build reaches the evaluator and the runtime of a local bootstrap."""
    real = scenarios.runtime(RuntimeEvaluationAdapter=types.SimpleNamespace, LibraryRuntime=types.SimpleNamespace)
    on_disk = scenarios.Call(None, "", (*scenarios.LOCAL, scenarios.kit(_runtime=real)))
    with on_disk.situation(), contextlib.ExitStack() as undo:
        runtime = m._bootstrap_local_runtime_from_config("am")
        assert runtime.raw_backtester.VERSION == runtime.evaluator.raw_backtester.VERSION == "1"
        scenarios.native(backtester={"source": "backtester-2.so"}, era_data={})(undo)
        assert runtime.runtime_freshness_guard.refresh() == ["backtester"]
        assert runtime.raw_backtester.VERSION == runtime.evaluator.raw_backtester.VERSION == "2"

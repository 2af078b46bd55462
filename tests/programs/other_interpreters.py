"""The import fails in another interpreter, this one gets the module, and others are refused it."""

import importlib
import sys

from test.support import run_in_subinterp_with_config

# 3.12 crashes where another interpreter has these first.
for name in "urllib.request", "secrets", "shutil", "dataclasses", "typing", "corvane.auth", "corvane.sync":
    importlib.import_module(name)
# Without the real corvane.auth and corvane.sync: their libraries refuse other interpreters on their own.
IMPORT = f"""
import sys
sys.path[:] = {sys.path!r}
import corvane
corvane.auth, sys.modules["corvane.sync"] = sys, type(sys)("corvane.sync")
try:
    import corvane.agent_onboarding
except ImportError as exc:
    print(exc, flush=True)
"""
allowed = dict.fromkeys(("allow_fork", "allow_exec", "allow_threads", "allow_daemon_threads"), True)


def elsewhere(own, strict):
    given = {"own_gil": own, "use_main_obmalloc": not own, "check_multi_interp_extensions": strict, **allowed}
    assert run_in_subinterp_with_config(IMPORT, **given) == 0


elsewhere(True, True)
m = importlib.import_module("corvane.agent_onboarding")
assert m._normalize_key("a") == "0xa"
assert list(m._config)[1] is sys.intern("data" + "_dir"[:])  # a text of this interpreter
for own, strict in (False, False), (False, True), (True, True):
    elsewhere(own, strict)

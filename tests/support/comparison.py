"""Makes one call on the native module and on its Python twin and describes all that a caller could tell apart."""

import contextlib
import os
import pprint
import re
import sys
import time
import traceback
import types

from corvane import agent_onboarding as native
from support import scenarios, twin
from support.scenarios import Call, files, patched

GENERATOR_STEPS = ("sorted_files", "runtime_module")  # frames of their own, below that of the generator
# The module keeps a wording of its own for this one; the twin cannot but have the interpreter's.
UNBOUND = "local variable 'sync_backoff' referenced before assignment"
UNBOUND_NOW = "cannot access local variable 'sync_backoff' where it is not associated with a value"


def text(value):
    """What it says, without addresses and without the name of the one that it belongs to."""
    return re.sub(
        r" at 0x[0-9a-f]+", "", repr(value).replace(UNBOUND_NOW, UNBOUND).replace(native.__name__, twin.__name__)
    )


def describe_exception(exc):
    """Type, text, args, attributes, chain and the functions in the traceback."""
    if exc is None:
        return None
    frames = [f.name for f in traceback.extract_tb(exc.__traceback__) if "site-packages" not in f.filename]
    return {
        "type": type(exc),
        "text": text(str(exc)),
        "args": text(exc.args),
        "attributes": [text(getattr(exc, n, None)) for n in ("errno", "filename", "name", "start", "end", "__dict__")],
        "frames": [name for name in frames if name not in GENERATOR_STEPS],
        "cause": describe_exception(exc.__cause__),
        "context": describe_exception(exc.__context__),
        "suppress": exc.__suppress_context__,
    }


def tried(act):
    """The result, or the description of what is raised."""
    try:
        return act()
    except BaseException as exc:
        return describe_exception(exc)


class Tap:
    """Stands before a module or an object and notes each attribute look-up and call."""

    def __init__(self, target, label, note):
        self.__dict__.update(_target=target, _label=label, _note=note)

    def __repr__(self):
        return self._label

    def __getattr__(self, name):
        label, note = f"{self._label}.{name}", self._note
        note(label)
        value = getattr(self._target, name)
        if isinstance(value, types.ModuleType | Tap) or label == "os.environ":
            return Tap(value, label, note)
        return tapped(value, label, note) if callable(value) and not isinstance(value, type) else value


def tapped(function, label, note):
    def called(*args, **kwargs):
        note(f"{label}{args}{kwargs} while {sys.exc_info()[0]}")
        return function(*args, **kwargs)

    return called


def descriptors():
    """The open ones, without the one that lists them."""
    return {fd for fd in os.listdir("/proc/self/fd") if os.path.exists(f"/proc/self/fd/{fd}")}


def left_open(before):
    """What was opened since. A test's server closes its end of a connection a moment after the client has gone."""
    for _ in range(200):
        leaked = descriptors() - before
        with contextlib.suppress(FileNotFoundError):  # closed by now
            if not any("socket:" in os.readlink(f"/proc/self/fd/{fd}") for fd in leaked):
                break
        time.sleep(0.005)
    return leaked


def observe(module, call, strike_at=None, strike=None):
    """What comes of the call in its situation, and every event on the way; at number `strike_at` there is a strike."""
    events = []

    def note(seen):
        events.append(text(seen))
        if len(events) == strike_at:
            strike(module, undo)

    with contextlib.ExitStack() as undo:
        patched(scenarios, m=module)(undo)
        patched(os, environ={**os.environ, "HOME": str(scenarios.base() / "work")})(undo)
        logged = undo.enter_context(call.situation())
        patched(module._LocalRuntimeSyncManager, __repr__=lambda self: f"local manager {vars(self)}")(undo)
        taps = {name: Tap(getattr(module, name), name.strip("_"), note) for name in ("os", "_stat", "auth")}
        patched(module, open=vars(module).get("open", tapped(open, "open", note)), **taps)(undo)
        patched(scenarios, note=note)(undo)
        before, result, raised = descriptors(), None, None
        try:
            result = text(call.act())
        except BaseException as exc:
            raised = describe_exception(exc)
        leaked = left_open(before)
        for fd in leaked:  # where os.close was made to fail
            os.close(int(fd))
        return {
            "result": result,
            "raised": raised,
            "events": events,
            "logged": [(r.levelname, r.msg, text(r.args), r.exc_info) for r in logged],
            "files": files(),
            "state": (text(vars(module).get("_config")), vars(module).get("_auth_manager") is not None),
            "descriptors": len(leaked),
        }


def same(act, *prepare, strike_at=None, strike=None):
    """Asserts that the twin and the native module cannot be told apart; answers what was seen."""
    call = Call(act, "", prepare)
    expected, actual = (observe(module, call, strike_at, strike) for module in (twin, native))
    different = {key: (seen, actual[key]) for key, seen in expected.items() if seen != actual[key]}
    assert not different, pprint.pformat(different, width=150)
    return actual


def same_at_each_step(strike, act, *prepare):
    """The same with a strike at each event in turn; answers what was seen without one."""
    seen = same(act, *prepare)
    assert len(seen["events"]) >= 2
    for step in range(1, len(seen["events"]) + 1):
        same(act, *prepare, strike_at=step, strike=strike)
    return seen

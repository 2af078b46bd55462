"""Makes a call and tells what a caller could see of it: its story, or the same of the native module and its twin."""

import contextlib
import inspect
import os
import pprint
import re
import sys
import traceback
import types
from pathlib import Path

import corvane
from corvane import agent_onboarding as native
from corvane import auth
from support import scenarios, twin
from support.scenarios import Call, base, files, patched, spelled

NAMES = [name for name in vars(native) if not name.startswith("__")]
GENERATOR_STEPS = ("sorted_files", "runtime_module")  # frames of their own, below that of the generator
# The module keeps a wording of its own for this one; the twin cannot but have the interpreter's.
UNBOUND = "local variable 'sync_backoff' referenced before assignment"
UNBOUND_NOW = "cannot access local variable 'sync_backoff' where it is not associated with a value"


def text(value, quoted=True):
    """What it says, without addresses, the working directory and the name of the one that it belongs to."""
    said = (repr(value) if quoted else value).replace(UNBOUND_NOW, UNBOUND).replace(twin.__name__, native.__name__)
    return re.sub(r" at 0x[0-9a-f]+", "", said.replace(str(base() / "work"), "."))


def told(exc):
    """Type, message, attributes, cause and context of an exception in one line."""
    fields = vars(exc) if type(exc).__module__ == "corvane.errors" else {}
    given = {name: value for name, value in fields.items() if value is not None}
    line = f"{type(exc).__name__}: {exc}" + (f" {given}" if given else "")
    if exc.__cause__ is not None:
        return f"{line} from [{told(exc.__cause__)}]"
    return line if exc.__context__ is None or exc.__suppress_context__ else f"{line} while [{told(exc.__context__)}]"


def frames(exc):
    """The functions in its traceback."""
    names = [frame.name for frame in traceback.extract_tb(exc.__traceback__) if "site-packages" not in frame.filename]
    return [name for name in names if name not in GENERATOR_STEPS]


def details(exc):
    """The functions in its traceback and its arguments, and those of what it came from."""
    return [] if exc is None else [*frames(exc), text(exc.args), *details(exc.__cause__ or exc.__context__)]


def tried(act):
    """The result, or what is raised."""
    try:
        return act()
    except BaseException as exc:
        return text(told(exc), quoted=False), details(exc)


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
        note(spelled(label, args, kwargs))
        return function(*args, **kwargs)

    return called


def descriptors():
    """The open ones. Not sockets: a test's server closes its end of a connection a moment after the client has gone."""
    paths = [Path("/proc/self/fd", fd) for fd in os.listdir("/proc/self/fd")]
    return {path.name for path in paths if os.path.lexists(path) and not path.is_socket()}


LOADED = "backtester", "era_data", "alpha", "zeta", "x"  # what native modules are called here
UNTOLD = re.compile(r"[\w.()]*\w$|(os\.(path|getcwd|getuid|fdopen|environ|listdir|stat)|stat)\b")  # it only looks


def world(module):
    """What a call can change, by name."""
    options = vars(module).get("_config")
    loaded = {name: sys.modules[name] for name in LOADED if sys.modules.get(name)}
    marks = "__file__", "_corvane_module_sha256", "_corvane_module_source_path"
    state = {
        **{f"option {name}": value for name, value in (options if isinstance(options, dict) else {}).items()},
        "manager": vars(module).get("_auth_manager"),
        "active manager": auth._active,
        "corvane.simulate_signal": vars(corvane).get("simulate_signal"),
        **{f"sys.path[{at}]": path for at, path in enumerate(sys.path) if str(path).startswith(str(base()))},
        **{f"loaded {name}": [getattr(held, mark, None) for mark in marks] for name, held in loaded.items()},
    }
    return {**files(), **{name: text(value) for name, value in state.items()}}


def observe(module, call, strike_at=None, strike=None):
    """What comes of the call in its situation, and every event on the way; at number `strike_at` there is a strike."""
    events = []

    def note(seen):
        events.append(text(seen, quoted=False))
        if len(events) == strike_at:
            strike(module, undo)

    with contextlib.ExitStack() as undo:
        patched(scenarios, m=module)(undo)
        undo.callback(os.umask, os.umask(0o022))
        undo.enter_context(call.situation())
        patched(module._LocalRuntimeSyncManager, __repr__=lambda self: f"local manager {vars(self)}")(undo)
        taps = {name: Tap(getattr(module, name), name.strip("_"), note) for name in ("os", "_stat", "auth")}
        patched(module, open=vars(module).get("open", tapped(open, "open", note)), **taps)(undo)
        patched(scenarios, note=note)(undo)
        before, there, raised = descriptors(), world(module), []
        try:
            outcome = f"returned {text(call.act())}"
        except BaseException as exc:
            raised, outcome = details(exc), f"raised {text(told(exc), quoted=False)}"
        patched(scenarios, note=None)(undo)
        leaked = descriptors() - before
        for fd in leaked:  # where os.close was made to fail
            os.close(int(fd))
        now = world(module)
        names = sorted(name for name in {**there, **now} if there.get(name) != now.get(name))
        return {
            "raised": raised,
            "outcome": outcome,
            "events": events,
            "changes": [f"{name}: {now.get(name, 'gone')}" for name in names],
            "descriptors": len(leaked),
        }


def story(call):
    """The steps that matter, the outcome and what has changed; and nothing else has, nor is anything left open."""
    seen = observe(native, call)
    assert seen["descriptors"] == 0
    told = [re.sub(r"(os\.f?(?:stat|chmod|write|close))\(\d+", r"\1(fd", event) for event in seen["events"]]
    return (*(event for event in told if not UNTOLD.match(event)), seen["outcome"], *seen["changes"])


def same(act, *prepare, strike_at=None, strike=None):
    """Asserts that the twin and the native module cannot be told apart; returns what was seen."""
    call = Call(act, "", prepare)
    expected, actual = (observe(module, call, strike_at, strike) for module in (twin, native))
    different = {key: (seen, actual[key]) for key, seen in expected.items() if seen != actual[key]}
    assert not different, pprint.pformat(different, width=150)
    return actual


def other_code(module, undo):
    """All functions do something else from now on, the one that is running as well."""
    for function in filter(inspect.isfunction, vars(module).values()):
        if function.__module__ == module.__name__ and not inspect.isgeneratorfunction(function):
            undo.callback(setattr, function, "__code__", function.__code__)
            function.__code__ = (lambda *args, **kwargs: "other code").__code__


def names_deleted(module, undo):
    patched(module, **dict.fromkeys(NAMES, scenarios.MISSING))(undo)


def others_called(module, undo):
    for act in (module.inject_heartbeat, module.get_agents_md_fragment, lambda: module.configure(colour=1)):
        scenarios.note(repr(tried(act)))


# What happens in the middle of a call: it fails, or what the module holds is changed.
STRIKES = {
    **{
        kind.__name__: scenarios.raising(kind)
        for kind in (PermissionError, auth.AuthError, scenarios.Cancelled, KeyboardInterrupt)
    },
    "names deleted": names_deleted,
    "options emptied": lambda module, undo: module._config.clear(),
    "other code": other_code,
    "others called": others_called,
}

"""Runs one scenario on the native module and on its Python twin and describes all that a caller could tell apart."""

import logging
import os
import pprint
import shutil
import stat
import sys
import time
import traceback
import types
from pathlib import Path

import twin
from corvane import agent_onboarding as native

GENERATOR_STEPS = ("sorted_pairs", "next_entry")  # frames of their own, below that of the generator
# The module keeps a wording of its own for this one; the twin cannot but have the interpreter's.
UNBOUND = "local variable 'sync_backoff' referenced before assignment"
UNBOUND_NOW = "cannot access local variable 'sync_backoff' where it is not associated with a value"
SHARED_TEXTS = ("_HEARTBEAT_STATIC_SECTION", "_NUDGE_TEXTS", "_AGENTS_MD_FRAGMENT")
for _name in SHARED_TEXTS:
    setattr(twin, _name, getattr(native, _name))


def describe_exception(exc, seen=()):
    """Type, text, args, chain and the functions in the traceback."""
    if exc is None or exc in seen:
        return exc if exc is None else "(seen)"
    seen = (*seen, exc)
    frames = [f.name for f in traceback.extract_tb(exc.__traceback__) if "site-packages" not in f.filename]
    frames = [name for name in frames if name not in GENERATOR_STEPS]
    return {
        "type": type(exc),
        "text": str(exc).replace(UNBOUND_NOW, UNBOUND),
        "args": repr(exc.args).replace(UNBOUND_NOW, UNBOUND),
        "attributes": [getattr(exc, n, None) for n in ("errno", "filename", "name", "start", "end")],
        "frames": frames,
        "cause": describe_exception(exc.__cause__, seen),
        "context": describe_exception(exc.__context__, seen),
        "suppress": exc.__suppress_context__,
    }


def snapshot(root: Path):
    """Every entry below root: type and mode, link target or bytes."""

    def entry(path):
        status = path.lstat()
        if stat.S_ISLNK(status.st_mode):
            return os.readlink(path)
        content = path.read_bytes() if stat.S_ISREG(status.st_mode) else b""
        return oct(status.st_mode), content

    return {str(p.relative_to(root)): entry(p) for p in sorted(root.rglob("*"))}


class Tap:
    """Stands before a module or an object and notes each attribute look-up and call; the Nth event can raise."""

    def __init__(self, target, label, events):
        self.__dict__.update(_target=target, _label=label, _events=events)

    def __repr__(self):
        return self._label

    def __getattr__(self, name):
        label = f"{self._label}.{name}"
        self._events.note(label)
        value = getattr(self._target, name)
        if isinstance(value, types.ModuleType | Tap) or label == "os.environ":
            return Tap(value, label, self._events)
        if callable(value) and not isinstance(value, type):
            return self._events.wrap(value, label)
        return value


class Events(list):
    def __init__(self, fail_at=None, failure=None):
        super().__init__()
        self.fail_at, self.failure = fail_at, failure

    def note(self, text):
        self.append(text)
        if len(self) == self.fail_at:
            raise self.failure()

    def wrap(self, function, label):
        def called(*args, **kwargs):
            self.note(f"{label}{args}{kwargs} while {sys.exc_info()[0]}")
            return function(*args, **kwargs)

        return called


class FakeManager:
    def __init__(self, failure):
        self.failure = failure

    def authenticate(self):
        if self.failure:
            raise self.failure[0](*self.failure[1:])

    get_wallet_address = lambda self: "0xaddress"  # noqa: E731
    get_token = lambda self: "token"  # noqa: E731
    get_token_expiry = lambda self: 12.5  # noqa: E731


class FakeAuth:
    """The auth module of a kit whose service answers as told."""

    AuthError = type("AuthError", (Exception,), {})
    RegistrationError = type("RegistrationError", (AuthError,), {})
    InvalidKeyError = type("InvalidKeyError", (AuthError,), {})

    def __init__(self, events, failure=None):
        self.events, self.failure = events, failure

    def AuthManager(self, key, server_url, **kwargs):
        return Tap(FakeManager(self.failure), "manager", self.events)

    def _normalize_invite_code(self, code):
        return code.upper() if isinstance(code, str) else None

    def _set_active_auth_manager(self, manager):
        pass

    def _validate_server_url(self, url):
        return url.rstrip("/")


def descriptors():
    """The open ones, without the one that lists them."""
    return {fd for fd in os.listdir("/proc/self/fd") if os.path.exists(f"/proc/self/fd/{fd}")}


def left_open(before):
    """What was opened since. A test's server closes its end of a connection a moment after the client has gone."""
    for _ in range(200):
        leaked = descriptors() - before
        if not any("socket:" in os.path.realpath(f"/proc/self/fd/{fd}") for fd in leaked):
            break
        time.sleep(0.005)
    return leaked


def observe(module, scenario, work: Path, monkeypatch, fail_at=None, failure=None):
    """Runs scenario(module, work) in a fresh directory and answers (description, number of events)."""
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(mode=0o755)
    events, logged = Events(fail_at, failure), []
    handler = logging.Handler()
    handler.emit = lambda record: logged.append((record.levelname, record.msg, repr(record.args), record.exc_info))
    before = descriptors()
    with monkeypatch.context() as patch:
        patch.chdir(work)
        patch.setenv("HOME", str(work))
        patch.setenv("CORVANE_INVITE_CODE", "from-environment")
        patch.setattr(module, "_config", dict(DEFAULTS))
        patch.setattr(module, "_auth_manager", None)
        patch.setattr(module, "os", Tap(os, "os", events))
        patch.setattr(module, "_stat", Tap(stat, "stat", events))
        patch.setattr(module, "auth", Tap(FakeAuth(events), "auth", events))
        patch.setattr(module.secrets, "token_hex", lambda n: "ab" * n)
        module.logger.addHandler(handler)
        result = raised = None
        try:
            result = scenario(module, work, patch, events)
        except BaseException as exc:
            raised = describe_exception(exc)
        finally:
            module.logger.removeHandler(handler)
        state = {"_config": repr(module._config), "manager set": module._auth_manager is not None}
    seen = {
        "result": repr(result),
        "raised": raised,
        "events": list(events),
        "logged": logged,
        "files": snapshot(work),
        "state": state,
        "descriptors": len(leaked := left_open(before)),
    }
    for fd in leaked:  # where the scenario let os.close fail
        os.close(int(fd))
    return seen, len(events)


DEFAULTS = dict(native._config)


def same(scenario, tmp_path, monkeypatch, fail_at=None, failure=None):
    """Asserts that the twin and the native module cannot be told apart; answers what was seen."""
    expected, count = observe(twin, scenario, tmp_path / "work", monkeypatch, fail_at, failure)
    actual, _ = observe(native, scenario, tmp_path / "work", monkeypatch, fail_at, failure)
    different = {
        key: {"python": expected[key], "native": actual[key]} for key in expected if expected[key] != actual[key]
    }
    assert not different, pprint.pformat(different, width=150)
    return actual, count

"""A daemon thread waits somewhere in the import or in a body while the interpreter ends; the exit status is 7."""

import dataclasses
import importlib
import linecache
import logging
import sys
import threading
import time
import types
from collections import UserDict

from corvane import auth, runtime_module_freshness, skills, sync  # noqa: F401

waiting = threading.Event()


def wait(*args, sleep=time.sleep, waits=waiting.set):
    """Until the interpreter is ending."""
    if "thread" in globals() and threading.current_thread() is thread:
        waits()
        sleep(0.3)


class Waiting(type):
    __subclasscheck__ = __repr__ = wait


def load():
    return importlib.import_module("corvane.agent_onboarding")


def imported(name):
    """The module is imported while the import of this one takes long."""
    sys.modules.pop(name)
    sys.meta_path.insert(0, types.SimpleNamespace(find_spec=lambda full, *args: wait() if full == name else None))
    load()


def decorated(good=dataclasses.dataclass):
    """The module is imported while its records take long."""
    dataclasses.dataclass = lambda cls: (wait(), good(cls))[1]
    load()


def cached():
    linecache.cache = type("Slow", (UserDict,), {"__setitem__": wait})()
    load()


def raised():
    load().ValueError = Waiting("Slow", (Exception,), {})
    load().login(None)


def handling():
    load().logger = types.SimpleNamespace(warning=wait)
    load()._find_heartbeat = lambda directory: "/"
    load().inject_heartbeat()


def old_cause():
    """The cause that an exception has already is thrown away when it gets another."""
    failure, m = ValueError(), load()
    failure.__cause__ = type("Old", (Exception,), {"__del__": wait})()
    m.RuntimeError, m.auth = lambda text: failure, None
    m._propagate_auth(None, strict=True)


WHERE = {
    "linecache": lambda: imported("linecache"),
    "sibling": lambda: imported("corvane.skills"),
    "record": decorated,
    "source cache": cached,
    "exception": raised,
    "handler": handling,
    "old cause": old_cause,
    "arguments": lambda: load().login(**{type("Name", (str,), {"__hash__": str.__hash__, "__eq__": wait})("x"): 1}),
}
logging.disable()
thread = threading.Thread(target=WHERE[sys.argv[1]], daemon=True)
thread.start()
while not waiting.wait(0.1):
    assert thread.is_alive()
ending = type("Ending", (), {"__del__": lambda self, sleep=time.sleep: sleep(0.7)})
sys.modules["held"] = types.SimpleNamespace(ending=ending())
sys.exit(7)

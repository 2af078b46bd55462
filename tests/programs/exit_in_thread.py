"""A daemon thread waits somewhere in the import or in a body while the interpreter ends; the exit status is 7."""

import importlib
import logging
import sys
import threading
import time
import types

from corvane import auth, runtime_module_freshness, skills, sync  # noqa: F401

waiting = threading.Event()


def wait(*args, sleep=time.sleep, waits=waiting.set):
    """Until the interpreter is ending."""
    if "thread" in globals() and threading.current_thread() is thread:
        waits()
        sleep(0.3)


def load():
    return importlib.import_module("corvane.agent_onboarding")


def importing():
    """A module that ours imports takes long."""
    del sys.modules["corvane.skills"]
    find = types.SimpleNamespace(find_spec=lambda name, *args: wait() if name == "corvane.skills" else None)
    sys.meta_path.insert(0, find)
    load()


def raising():
    load().ValueError = type("Waiting", (type,), {"__subclasscheck__": wait})("Slow", (Exception,), {})
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


logging.disable()
thread = threading.Thread(target=globals()[sys.argv[1]], daemon=True)
thread.start()
while not waiting.wait(0.1):
    assert thread.is_alive()
ending = type("Ending", (), {"__del__": lambda self, sleep=time.sleep: sleep(0.7)})
sys.modules["held"] = types.SimpleNamespace(ending=ending())
sys.exit(7)

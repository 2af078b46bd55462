"""Functions without end, through the names that lead back into them, on a thread's small stack.

Usage: recursion.py KIBIBYTES... Says what it tries, so that the last line tells where the process has died.
"""

import functools
import inspect
import itertools
import logging
import os
import sys
import tempfile
import threading
import types
from unittest import mock

from corvane import agent_onboarding as m

BUILTINS = "bool dict getattr hasattr id int isinstance len list open repr sorted str type"
# Not the logger: the handlers call it, and what is called in each handler on the way up takes for ever.
NAMES = [name for name in vars(m) if not name.startswith("__") and name != "logger"] + BUILTINS.split()
ENTRIES = m._runtime_module_manifest_entries
FUNCTIONS = {n: f for n, f in vars(m).items() if isinstance(f, types.FunctionType) and f.__module__ == m.__name__} | {
    "configure": functools.partial(m.configure, colour=1),
    "_runtime_module_manifest_entries": lambda manifest: list(ENTRIES(manifest)),
}
reached = []


class Again:
    """Whatever is done with it leads back."""

    def __init__(self, back):
        vars(self)["back"] = back

    def __call__(self, *args, **kwargs):
        return vars(self)["back"](*args, **kwargs)

    def __getattr__(self, name=None):
        return self(looked_up=name)

    __getitem__ = __bool__ = __iter__ = __str__ = __getattr__


def stop(*args, **kwargs):
    reached.append((args, kwargs))
    raise RecursionError


def raises(function, arguments, name, value):
    """Whether RecursionError comes of the call while the module has this value under the name."""
    try:
        with mock.patch.object(m, name, value, create=True):
            function(*arguments)
    except Exception as exc:
        return isinstance(exc, RecursionError)
    return False


def leads_back(*how):
    reached.clear()
    return raises(*how) and len(reached) == 1


def ways(function):
    """How the function comes back to itself, once and outside of handlers: a name and its value."""
    parameters = inspect.signature(function).parameters.values()
    arguments = ["x" for p in parameters if p.default is p.empty and p.kind is not p.VAR_KEYWORD]
    for name in itertools.islice((name for name in NAMES if leads_back(function, arguments, name, Again(stop))), 3):
        [(args, kwargs)] = reached
        # It takes much of the C stack on its way back.
        yield arguments, name, Again(lambda *args, **kwargs: sorted([0, 1], key=lambda number: function(*arguments)))
        if not kwargs and leads_back(function, args, name, Again(stop)):
            yield arguments, name, function


logging.disable()
with tempfile.TemporaryDirectory() as directory:
    os.environ["HOME"] = directory
    os.chdir(directory)
    m._config["server_url"] = "http://127.0.0.1:1"
    for name, function in FUNCTIONS.items():
        for way in ways(function):
            for size, limit in itertools.product(map(int, sys.argv[1:]), (1000, 1_000_000)):
                print(name, way[1], type(way[2]).__name__, size, limit, end=": ", flush=True)
                threading.stack_size(size * 1024)
                thread = threading.Thread(target=lambda: print(raises(function, *way)))  # noqa: B023
                sys.setrecursionlimit(limit)
                thread.start()
                thread.join()
                sys.setrecursionlimit(1000)

"""Each function without end, through each name and each argument that leads back into it, on a thread's small stack.

Usage: recursion.py MODULE KIBIBYTES LIMIT. Says what it tries, so that the last line tells where the process has died.
"""

import functools
import importlib
import inspect
import logging
import os
import sys
import tempfile
import threading
import types

m = importlib.import_module(sys.argv[1])
kibibytes, limit = map(int, sys.argv[2:])
FUNCTIONS = {n: f for n, f in vars(m).items() if isinstance(f, types.FunctionType) and f.__module__ == m.__name__}
ENTRIES = m._runtime_module_manifest_entries
FUNCTIONS |= {
    "configure": functools.partial(m.configure, colour=1),
    "_runtime_module_manifest_entries": lambda manifest: list(ENTRIES(manifest)),
}
BUILTINS = [
    "bool",
    "dict",
    "getattr",
    "hasattr",
    "id",
    "int",
    "isinstance",
    "len",
    "list",
    "open",
    "repr",
    "sorted",
    "str",
    "type",
]
NAMES = [name for name in vars(m) if not name.startswith("__") and name != "logger"] + BUILTINS
ABSENT = object()


class Again:
    """Whatever is done with it leads back."""

    def __init__(self, back):
        self.__dict__["back"] = back

    def __getattr__(self, name):
        return self.__dict__["back"](looked_up=name)

    def __call__(self, *args, **kwargs):
        return self.__dict__["back"](*args, **kwargs)

    def __getitem__(self, key):
        return self.__dict__["back"](looked_up=key)

    def __iter__(self):
        return self.__dict__["back"](looked_up=iter)

    __bool__ = __str__ = __iter__


def raises(function, arguments, name, value):
    """Whether RecursionError comes of the call while the module has this value under the name."""
    before = vars(m).get(name, ABSENT)
    setattr(m, name, value)
    try:
        function(*arguments)
    except RecursionError:
        return True
    except Exception:
        return False
    finally:
        delattr(m, name) if before is ABSENT else setattr(m, name, before)


def ways(function):
    """How the function comes back to itself, once and outside of handlers: arguments, a name and its value."""
    parameters = inspect.signature(function).parameters.values()
    usual = ["x" for p in parameters if p.default is p.empty and p.kind is not p.VAR_KEYWORD]
    reached = []

    def stop(*args, **kwargs):
        reached.append((args, kwargs))
        raise RecursionError

    def sorting(*args, **kwargs):
        sorted([0, 1], key=lambda number: function(*arguments))  # takes much of the C stack

    for number in range(len(usual)):
        arguments = [*usual[:number], Again(stop), *usual[number + 1 :]]
        reached.clear()
        if raises(function, arguments, "m", None) and len(reached) == 1:
            arguments[number] = Again(sorting)
            yield arguments, "m", None
    arguments = usual
    for name in NAMES:
        reached.clear()
        if raises(function, usual, name, Again(stop)) and len(reached) == 1:
            yield usual, name, Again(sorting)
            args, kwargs = reached.pop()
            if not kwargs and raises(function, args, name, Again(stop)) and len(reached) == 1:
                yield usual, name, function


def work():
    for name, function in FUNCTIONS.items():
        for arguments, place, value in ways(function):
            print(name, place, *(type(given).__name__ for given in (value, *arguments)), end=": ", flush=True)
            sys.setrecursionlimit(limit)
            print(raises(function, arguments, place, value))
            sys.setrecursionlimit(1000)


logging.disable()
with tempfile.TemporaryDirectory() as directory:
    os.environ["HOME"] = directory
    os.chdir(directory)
    m._config["server_url"] = "http://127.0.0.1:1"
    threading.stack_size(kibibytes * 1024)
    thread = threading.Thread(target=work)
    thread.start()
    thread.join()

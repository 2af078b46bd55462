"""What the import meets is patched, or a trace function replaces what it has just made. Prints what comes of it."""

import builtins
import dataclasses
import functools
import importlib
import linecache
import logging  # noqa: F401  whose own imports must not meet the patches
import sys
from collections import UserDict

from corvane import auth, runtime_module_freshness, skills, sync  # noqa: F401

NAME = "corvane.agent_onboarding"
NEIGHBOURS = ["text".upper for _ in range(1000)]  # in memory, too; whoever takes one for a function hits the next
dataclass, build_class = dataclasses.dataclass, builtins.__build_class__


def method():
    """The class statement gives a class with another method, or the decorator of a record gives no class."""

    def build(function, name, *bases, **options):
        made = build_class(function, name, *bases, **options)
        if name == "AuthToken" and kind != "no class":
            others = {
                "builtin": NEIGHBOURS[500],
                "wrapper": functools.wraps(made.__repr__)(lambda self: f"own code: {repr_before(self)}"),
            }
            repr_before, made.__repr__ = made.__repr__, others[kind]
        return made

    builtins.__build_class__ = build
    no_class = kind == "no class"
    dataclasses.dataclass = lambda cls: None if no_class and cls.__name__ == "AuthToken" else dataclass(cls)
    m = importlib.import_module(NAME)
    try:
        return repr(m.AuthToken("t", 1.5))
    except TypeError as exc:
        return exc


def replaced():
    """A trace function replaces or deletes a function or class of the module as soon as it is there."""
    name = "AuthToken" if kind == "class" else "login"

    def trace(frame, event, argument):
        names = frame.f_globals
        if event == "return" and names.get("__name__") == NAME and name in names:
            names[name] = "something else"
            if kind == "deleted":
                del names[name]
        return trace

    sys.settrace(trace)
    m = importlib.import_module(NAME)
    sys.settrace(None)
    return vars(m).pop(name, "deleted")


def cache():
    """The cache of sources is of another class, or there is none."""
    linecache.cache = UserDict() if kind == "user" else None
    importlib.import_module(NAME)
    return linecache.cache and linecache.getline("<corvane.agent_onboarding.configure>", 1)


what, kind = sys.argv[1:]
print(globals()[what]())
assert sys.modules[NAME]._normalize_key("ab") == "0xab" and {upper() for upper in NEIGHBOURS} == {"TEXT"}

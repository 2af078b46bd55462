"""What the import meets is patched, or a trace function replaces what it has just made. Prints what comes of it."""

import builtins
import dataclasses
import functools
import importlib
import linecache
import logging  # noqa: F401  which needs linecache itself
import os
import sys
import types
import warnings
from collections import UserDict

from corvane import auth, runtime_module_freshness, skills, sync  # noqa: F401

NAME = "corvane.agent_onboarding"
warnings.simplefilter("ignore", FutureWarning)  # of 3.13 for a partial in a class
NEIGHBOURS = ["text".upper for _ in range(1000)]  # in memory, too; whoever takes one for a function hits the next
dataclass, build_class = dataclasses.dataclass, builtins.__build_class__


def tried(act):
    try:
        return act()
    except Exception as exc:
        return f"{type(exc).__name__}: {exc}"


def method():
    """The class statement gives a class with another method, or the decorator of a record gives no class."""

    def build(function, name, *bases, **options):
        made = build_class(function, name, *bases, **options)
        patched = {"AuthToken": "__repr__", "_LocalRuntimeSyncManager": "get_manifest"}.get(name)
        if patched and kind != "no-class":
            method = getattr(made, patched)
            others = {
                "builtin": NEIGHBOURS[500],
                "partial": functools.partialmethod(method),
                "object": type("Callable", (), {"__call__": lambda self: "object"})(),
                "wrapper": functools.wraps(method)(lambda *args: f"own code, {method(*args)}"),
                "ours": sys.modules[NAME]._sha256_file,
            }
            setattr(made, patched, others[kind])
        return made

    builtins.__build_class__ = build
    no_class = kind == "no-class"
    dataclasses.dataclass = lambda cls: None if no_class and cls.__name__ == "AuthToken" else dataclass(cls)
    m = importlib.import_module(NAME)
    manager = m._LocalRuntimeSyncManager("manifest")
    print(*(tried(act)[:30] for act in (lambda: repr(m.AuthToken("t", 1.5)), lambda: manager.get_manifest())))
    assert manager.request_for_sync() == [] and m._sha256_file(os.devnull).startswith("e3b0")


def replaced():
    """A trace function replaces or deletes, as soon as it is there, what the module has defined."""
    name, value = {
        "object": ("login", object()),
        "ours": ("login", "_normalize_key"),
        "class": ("AuthToken", None),
        "manager": ("_LocalRuntimeSyncManager", dict),
        "generator": ("_runtime_module_manifest_entries", list),
        "function deleted": ("_read_manifest", "no such name"),
        "manager deleted": ("_LocalRuntimeSyncManager", "no such name"),
    }[kind]

    def trace(frame, event, argument):
        names = frame.f_globals
        if event == "return" and names.get("__name__") == NAME and name in names:
            names[name] = names.get(value) if isinstance(value, str) else value
            if value == "no such name":
                del names[name]
        return trace

    sys.settrace(trace)
    m = importlib.import_module(NAME)
    sys.settrace(None)
    print(str(vars(m).pop(name, "deleted")).split(" at ")[0], m._normalize_key("ab"), m.get_agents_md_fragment()[:4])


def cache():
    """linecache is not what it usually is."""
    caches = {"user": UserDict(), "none": None, "list": [], "refusing": type("R", (UserDict,), {"__setitem__": 0})()}
    linecache.cache = caches.get(kind, linecache.cache)
    sys.modules |= {"halted": {"linecache": None}, "stand-in": {"linecache": types.SimpleNamespace(cache={})}}.get(
        kind, {}
    )
    if kind == "removed":
        del sys.modules["linecache"]
    elif kind == "emptied":
        vars(linecache).clear()
    m = importlib.import_module(NAME)
    there = tried(lambda: sys.modules["linecache"].cache["<corvane.agent_onboarding.configure>"][2][0][:15])
    print(m._normalize_key("ab"), tried(lambda: m.configure(colour=1))[:10], there if "def" in there else "")


what, kind = sys.argv[1:]
globals()[what]()
assert {upper() for upper in NEIGHBOURS} == {"TEXT"}

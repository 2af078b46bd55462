"""What the import meets is patched, or a trace function replaces what it has just made. Prints what comes of it."""

import builtins
import dataclasses
import functools
import importlib
import linecache
import os
import sys
import types
from collections import UserDict

import corvane.auth
import corvane.runtime_module_freshness
import corvane.skills
import corvane.sync  # noqa: F401

NAME = "corvane.agent_onboarding"
RECORD = types.SimpleNamespace(expires_at=7)
NEIGHBOURS = ["text".upper for _ in range(1000)]  # in memory, too; whoever takes one for a function hits the next
dataclass, build_class = dataclasses.dataclass, builtins.__build_class__
what, kind = sys.argv[1:]


def tried(act):
    try:
        return act()
    except Exception as exc:
        return f"{type(exc).__name__}: {exc}"


class Unreadable(type):
    """Its classes do not give their methods away."""

    def __getattribute__(cls, name):
        raise AttributeError(name)


def representation():
    """The decorated record has another __repr__."""

    def decorate(cls):
        made = dataclass(cls)
        function = made.__repr__
        made.__repr__ = {
            "builtin": NEIGHBOURS[500],
            "descriptor": float.__repr__,
            "partial": functools.partial(function, RECORD),
            "static": staticmethod(functools.partial(function, RECORD)),
            "property": property(lambda self: lambda: f"property, {function(self)}"),
            "object": type("Callable", (), {"__call__": lambda self: f"object, {function(RECORD)}"})(),
            "wrapper": functools.wraps(function)(lambda self: f"own code, {function(self)}"),
            "ours": sys.modules[NAME]._sha256_file,
            "none": None,
        }[kind]
        return made

    beside_the_twin(decorate)


def decorated():
    """The decorator gives something else than the record."""
    beside_the_twin(
        {
            "none": lambda cls: None,
            "text": lambda cls: "AuthToken",
            "unreadable": lambda cls: Unreadable("AuthToken", (dataclass(cls),), {}),
            "empty": lambda cls: type("AuthToken", (), {}),
            "slots": lambda cls: dataclass(cls, slots=True),
        }[kind]
    )


def beside_the_twin(decorate):
    dataclasses.dataclass = lambda cls: decorate(cls) if cls.__name__ == "AuthToken" else dataclass(cls)
    native, twin = importlib.import_module(NAME), importlib.import_module("support.twin")
    records = [tried(lambda m=m: repr(m.AuthToken("t", 1.5))) for m in (native, twin)]
    print(records[0] == records[1] or records, native._sha256_file(os.devnull)[:4])


def methods():
    """The class statement gives a manager with other methods."""

    def changed(method):
        called = functools.wraps(method)(lambda *args: ("own code", method(*args)))
        return {"wrapper": called, "partial": functools.partialmethod(method), "builtin": NEIGHBOURS[500]}[kind]

    def build(function, name, *bases, **options):
        made = build_class(function, name, *bases, **options)
        if name == "_LocalRuntimeSyncManager":
            made.get_manifest = changed(made.get_manifest)
        return made

    builtins.__build_class__ = build
    manager = importlib.import_module(NAME)._LocalRuntimeSyncManager("manifest")
    print(tried(lambda: manager.get_manifest()), manager.request_for_sync())


def replaced():
    """A trace function replaces, as soon as it is there, what the module has defined."""

    def trace(frame, event, argument):
        names = frame.f_globals
        if event == "return" and names.get("__name__") == NAME and names.get(name) is not replacement:
            names[name] = names[replacement] if isinstance(replacement, str) else replacement
        return trace

    name, replacement = {
        "object": ("login", object()),
        "none": ("login", None),
        "partial": ("login", functools.partial(print, "partial")),
        "ours": ("login", "_normalize_key"),
        "class": ("AuthToken", None),
        "manager": ("_LocalRuntimeSyncManager", dict),
        "generator": ("_runtime_module_manifest_entries", list),
    }[kind]
    sys.settrace(trace)
    m = importlib.import_module(NAME)
    sys.settrace(None)
    print(str(vars(m).pop(name)).split(" at ")[0], m._normalize_key("ab"), m.get_agents_md_fragment()[:4])


def deleted():
    """A trace function deletes what the module has just defined."""
    name = {"function": "_normalize_key", "manager": "_LocalRuntimeSyncManager"}[kind]

    def trace(frame, event, argument):
        if event == "return" and frame.f_globals.get("__name__") == NAME:
            frame.f_globals.pop(name, None)
        return trace

    sys.settrace(trace)
    m = importlib.import_module(NAME)
    sys.settrace(None)
    print(hasattr(m, name), m._resolve_optional_invite_code.__name__)


def cache():
    """linecache is not what it usually is."""
    {
        "user": lambda: setattr(linecache, "cache", UserDict()),
        "refusing": lambda: setattr(linecache, "cache", type("Refusing", (UserDict,), {"__setitem__": divmod})()),
        "nothing": lambda: setattr(linecache, "cache", None),
        "list": lambda: setattr(linecache, "cache", []),
        "missing": lambda: delattr(linecache, "cache"),
        "halted": lambda: sys.modules.update(linecache=None),
        "stand-in": lambda: sys.modules.update(linecache=types.SimpleNamespace(cache={})),
        "text": lambda: sys.modules.update(linecache="linecache"),
        "removed": lambda: sys.modules.pop("linecache"),
        "emptied": lambda: vars(linecache).clear(),
    }[kind]()
    m = importlib.import_module(NAME)
    there = tried(lambda: sys.modules["linecache"].cache["<corvane.agent_onboarding.configure>"][2][0])
    print(m._normalize_key("ab"), tried(lambda: m.configure(colour=1))[:10], there[:16] if "def" in there else "none")


globals()[what]()
assert {upper() for upper in NEIGHBOURS} == {"TEXT"}

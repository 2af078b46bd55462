"""Imports of the module that fail at a bad moment, and the next one. Argument: which. Prints what the failure says."""

import ctypes
import dataclasses
import importlib.util
import logging
import sys
import types

NAME = "corvane.agent_onboarding"


def failure(act):
    try:
        act()
    except Exception as exc:
        return exc
    raise AssertionError("it has not failed")


def load():
    return importlib.import_module(NAME)


def missing_sibling():
    """More often than there is room at the exit."""
    good = importlib.import_module("corvane.skills")
    for broken in (None, types.ModuleType("corvane.skills")) * 20:
        sys.modules["corvane.skills"] = broken
        exc = failure(load)
        assert NAME not in sys.modules
    sys.modules["corvane.skills"] = good
    return exc


def kept_function():
    """A function is kept from the import that fails; the next one succeeds, and the function says so."""
    good, kept = dataclasses.dataclass, []

    def failing(cls=None, **options):
        kept.append(sys._getframe(1).f_globals.get("_sha256_file"))
        return good(cls, **options) if kept[-1] is None else 1 / 0

    dataclasses.dataclass = failing
    assert isinstance(failure(load), ZeroDivisionError)
    dataclasses.dataclass = good
    load()
    return failure(lambda: kept[-1]("x"))


def two_modules():
    """Two modules are made before either is executed."""
    spec = importlib.util.find_spec(NAME)
    first, second = map(importlib.util.module_from_spec, (spec, spec))
    spec.loader.exec_module(first)
    sys.modules[NAME] = first
    return failure(lambda: spec.loader.exec_module(second))


def another_name():
    """The module is loaded under another name while it is being initialised."""
    path, get_logger, failures = importlib.util.find_spec(NAME).origin, logging.getLogger, []

    def load_again(name=None):
        if name == NAME:
            spec = importlib.util.spec_from_file_location("another.agent_onboarding", path)
            failures.append(failure(lambda: spec.loader.exec_module(importlib.util.module_from_spec(spec))))
        return get_logger(name)

    logging.getLogger = load_again
    load()
    return failures[0]


def no_room_at_the_exit():
    importlib.import_module("corvane.skills")
    while ctypes.pythonapi.Py_AtExit(ctypes.pythonapi.Py_IsInitialized) == 0:
        pass
    print(failure(load))
    sys.exit()


print(globals()[sys.argv[1]]())
assert load()._normalize_key("a") == "0xa" and load()._sha256_file("/dev/null").startswith("e3b0")

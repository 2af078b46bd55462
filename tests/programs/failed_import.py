"""A function is kept from an import that fails; the next one succeeds."""

import dataclasses
import importlib
import sys

good, kept = dataclasses.dataclass, []


def failing(cls=None, **options):
    kept.append(sys._getframe(1).f_globals.get("_sha256_file"))
    if kept[-1] is None:
        return good(cls, **options)
    raise ValueError("not today")


dataclasses.dataclass = failing
try:
    importlib.import_module("corvane.agent_onboarding")
except ValueError as exc:
    print(exc)
dataclasses.dataclass = good
m = importlib.import_module("corvane.agent_onboarding")
try:
    kept[-1]("x")
except SystemError as exc:
    print(exc)
assert m._sha256_file("/dev/null").startswith("e3b0")

"""A trace function takes the traceback away from what the interpreter raises for us."""

import sys

import corvane.agent_onboarding as m


def trace(frame, event, argument):
    if event == "exception":
        argument[1].__traceback__ = None
    return trace


m._runtime_module_manifest_entries = iter
sys.settrace(trace)
try:
    m._select_runtime_module_manifest_entry([[1, 2]], "x")
except ValueError as exc:
    sys.settrace(None)
    print(exc)

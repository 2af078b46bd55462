"""A sibling is missing, or lacks a name; then it is there."""

import importlib
import sys
import traceback
import types

good = importlib.import_module("corvane.skills")
halted = "import of corvane.skills halted; None in sys.modules"
lacking = "cannot import name 'list_skills' from 'corvane.skills' (unknown location)"
ways = (None, halted), (types.ModuleType("corvane.skills"), lacking)
for broken, text in ways * 20:  # more often than there is room at the exit
    sys.modules["corvane.skills"] = broken
    try:
        importlib.import_module("corvane.agent_onboarding")
    except ImportError as exc:
        frames = [f.filename for f in traceback.extract_tb(exc.__traceback__)]
        assert "<corvane.agent_onboarding>" in frames and "src/agent_onboarding/py/function.cpp" in frames, frames
        assert str(exc) == text and "corvane.agent_onboarding" not in sys.modules, str(exc)
    else:
        raise AssertionError("imported")
sys.modules["corvane.skills"] = good
print(importlib.import_module("corvane.agent_onboarding").login.__module__)

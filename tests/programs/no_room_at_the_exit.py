"""The interpreter takes no more exit functions."""

import ctypes
import importlib

importlib.import_module("corvane.skills")
while ctypes.pythonapi.Py_AtExit(ctypes.pythonapi.Py_IsInitialized) == 0:
    pass
try:
    importlib.import_module("corvane.agent_onboarding")
except SystemError as exc:
    print(exc)

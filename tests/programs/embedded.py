"""Imports the module from the path MODULE in an interpreter that is started again, where not everything is."""

import importlib.machinery
import importlib.util
import os
import sys
import types

# Stubs for what the interpreter itself cannot import a second time, and for the siblings.
names = "hashlib secrets urllib urllib.error urllib.request corvane corvane.auth corvane.errors corvane.skills"
for name in (*names.split(), "corvane.sync", "corvane.runtime_module_freshness"):
    module = sys.modules[name] = types.ModuleType(name)
    module.__path__, module.__getattr__ = [], lambda wanted: sys.modules.get("corvane." + wanted, Exception)
loader = importlib.machinery.ExtensionFileLoader("corvane.agent_onboarding", os.environ["MODULE"])
m = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
loader.exec_module(m)
assert m._normalize_key("ab") == "0xab"

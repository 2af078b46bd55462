"""Two modules are made before either is executed."""

import importlib.util

spec = importlib.util.find_spec("corvane.agent_onboarding")
first, second = map(importlib.util.module_from_spec, (spec, spec))
spec.loader.exec_module(first)
try:
    spec.loader.exec_module(second)
except ImportError as exc:
    print(exc)
assert first._normalize_key("a") == "0xa"

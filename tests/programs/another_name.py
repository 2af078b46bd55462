"""The module is loaded under another name while it is being initialised."""

import importlib.util
import logging

path, get_logger = importlib.util.find_spec("corvane.agent_onboarding").origin, logging.getLogger


def load_again(name=None):
    if name == "corvane.agent_onboarding":
        spec = importlib.util.spec_from_file_location("another.agent_onboarding", path)
        try:
            spec.loader.exec_module(importlib.util.module_from_spec(spec))
        except ImportError as exc:
            print(exc)
    return get_logger(name)


logging.getLogger = load_again
m = importlib.import_module("corvane.agent_onboarding")
assert m.register and m._normalize_key("a") == "0xa"

"""An exception changes its class while it is asked for it, and the class that it had is gone."""

import gc
import os

from corvane import agent_onboarding as m


class Instead(OSError):
    pass


class Answer:
    def __init__(self, raised):
        self.raised = raised

    def __bool__(self):
        self.raised.__class__ = Instead
        gc.collect()
        self.reused = [type(f"Reused{i}", (), {}) for i in range(50)]
        return False


def refusal(path):
    class Asked(type):
        def __subclasscheck__(cls, subclass):
            return Answer(raised)

    raised = Asked("Gone", (OSError,), {})(path)
    return raised


m._unsafe_wallet_error = refusal
readable, _ = os.pipe()
try:
    m._check_wallet_fd("the key", readable)
except Exception as exc:
    print(type(exc).__name__, exc, end="")

"""The import fails again and again where a small stack has no room for it, and then has room."""

import importlib.util
import os
import sys
import threading

import corvane.skills
import corvane.sync  # noqa: F401 - with most of what the module imports

spec = importlib.util.find_spec("corvane.agent_onboarding")
modules = [importlib.util.module_from_spec(spec) for _ in range(41)]
sys.setrecursionlimit(100_000)
threading.stack_size(512 * 1024)


class Deep:
    """Takes much of the stack before it does something."""

    def __init__(self, levels):
        self.levels = levels

    def __lt__(self, other):
        return bool(sorted([Deep(self.levels - 1)] * 2)) if self.levels else spec.loader.exec_module(modules.pop())


def fails(levels):
    failures = []

    def attempt():
        try:
            Deep(levels) < None  # noqa: B015
        except RecursionError as exc:
            failures.append(exc)

    thread = threading.Thread(target=attempt)
    thread.start()
    thread.join()
    return len(failures)


def fails_elsewhere(levels):
    """In a process of its own, for a little less deep is deep enough for the interpreter itself to crash."""
    child = os.fork()
    if child == 0:
        os.close(2)
        os._exit(fails(levels))
    return os.waitpid(child, 0)[1] == 1 << 8


[levels, *_] = filter(fails_elsewhere, range(40, 200, 4))
print(sum(fails(levels) for _ in range(40)), spec.loader.exec_module(modules.pop()))

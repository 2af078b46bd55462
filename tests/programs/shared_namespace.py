"""An object shares a namespace; what dies when the last value is stored through it calls a function of the module.

Stored often enough, the interpreter specialises the store: it destroys the old value before the dictionary has changed
in every respect.
"""

import builtins
import importlib
import os
import sys
import types

m = importlib.import_module(sys.argv[1])
whose, last = sys.argv[2:]
seen = []


class Value:
    """What is stored. It can be called, has what the functions look for, and says which one it is."""

    path = os.path

    def __init__(self, number, held=None):
        self.number, self.held = number, held

    def __call__(self, *args):
        seen.append(self.number)
        return "/"

    getcwd = __call__


class Calling(Value):
    def __del__(self):
        seen.append(getattr(act(), "number", None))


if whose == "os":
    m.os = types.ModuleType("os")
    vars(m.os).update(vars(os))
shared, name, act = {
    "fragment": (m, "_AGENTS_MD_FRAGMENT", m.get_agents_md_fragment),
    "os": (m.os, "getcwd", m._find_heartbeat),
    "builtins": (builtins, "isinstance", lambda: m._safe_named_universe("x")),
}[whose]
sharing, kept = type("Sharing", (), {})(), vars(shared)[name]  # of its own, it has no attributes
sharing.__dict__ = vars(shared)
store = types.FunctionType(compile(f"sharing.{name} = value", "store", "exec"), globals())
dying = {"itself": lambda: Calling(50), "held": lambda: Value(50, Calling(None))}[last]
values = [Value(number) for number in range(50)]
for make in (*(lambda value=value: value for value in values), dying, lambda: Value(51)):
    value = make()
    act()
    store()
    del value
act()
setattr(shared, name, kept)
print(seen)

"""A function gets other code while its arguments are bound."""

from corvane import agent_onboarding as m


class Swapping(str):
    __hash__ = str.__hash__

    def __eq__(self, other):
        f.__code__ = (lambda: 5).__code__
        return str.__eq__(self, other)


f = m._prune_runtime_extension_copies
print(f("a", **{Swapping("keep_path"): "/nowhere/x"}), f())

"""What is around a call changes in the middle of it. Argument: what. Prints what comes of it."""

import builtins
import gc
import os
import random
import resource
import sys
import types


def greenlets():
    """Six greenlets leave the except clauses of one function in an order of their own; each sees its own exception."""
    from greenlet import getcurrent, greenlet

    main, wrong = getcurrent(), []

    def fail(name):
        raise ValueError(name)

    def forever(name):
        while True:
            try:
                m._propagate_auth(name, strict=True)
            except RuntimeError as exc:
                if (exc.__cause__.args, exc.__context__) != ((name,), exc.__cause__):
                    wrong.append((name, exc.__cause__))
            main.switch()

    m.logger = types.SimpleNamespace(warning=lambda *args: main.switch())
    m.auth = types.SimpleNamespace(_set_active_auth_manager=fail)
    running = [greenlet(lambda name=name: forever(name)) for name in range(6)]
    for _ in range(5000):
        random.choice(running).switch()
    return wrong or "each its own"


def class_gone():
    """An exception changes its class while it is asked for it, and the class that it had is gone."""

    class Answer:
        def __bool__(self):
            raised.__class__ = type("Instead", (OSError,), {})
            gc.collect()
            self.reused = [type(f"Reused{i}", (), {}) for i in range(50)]
            return False

    asked = type("Asked", (type,), {"__subclasscheck__": lambda cls, subclass: Answer()})
    raised = asked("Gone", (OSError,), {})("the key")
    m._unsafe_wallet_error = lambda path: raised
    del asked
    try:
        m._check_wallet_fd("the key", os.pipe()[0])
    except Exception as exc:
        return f"{type(exc).__name__} {exc}"


def code():
    """A function gets other code while its arguments are bound."""

    class Swapping(str):
        __hash__ = str.__hash__

        def __eq__(self, other):
            f.__code__ = (lambda: 5).__code__
            return str.__eq__(self, other)

    f = m._prune_runtime_extension_copies
    return f("a", **{Swapping("keep_path"): "/nowhere/x"}), f()


def traceback():
    """A trace function takes the traceback away from what the interpreter raises for us."""

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
        return exc


def shared_namespace():
    """An object shares the namespace; what dies when a value is stored through it calls a function of the module.

    Stored often enough, the interpreter specialises the store: it destroys the old value before the dictionary has
    changed in every respect.
    """

    class Value:
        def __del__(self):
            seen.append(m.get_agents_md_fragment())

    seen, sharing = [], type("Sharing", (), {})()
    sharing.__dict__ = vars(m)
    for number in range(50):
        sharing._AGENTS_MD_FRAGMENT = Value()
        sharing._AGENTS_MD_FRAGMENT = number
        m.get_agents_md_fragment()
    return seen == [*range(50)]


def builtin():
    """A builtin is replaced where all modules find it."""
    manifest = {"files": {"x": 1}}
    before = m._manifest_files(manifest)
    builtins.isinstance = lambda value, kind: False
    return before, m._manifest_files(manifest)


def other_watcher():
    """Somebody else watches the namespace, and code of theirs runs between the announcement of a change and itself."""
    import _testcapi

    _testcapi.watch_dict(_testcapi.add_dict_watcher(1), vars(m))  # a watcher that fails at each event
    sys.unraisablehook = lambda unraisable: m.get_agents_md_fragment()
    m._AGENTS_MD_FRAGMENT = "the new value"
    return m.get_agents_md_fragment()


def no_watcher():
    """Somebody else has every watcher of dictionaries: nothing is remembered, and a patch is seen all the same."""
    for m._AGENTS_MD_FRAGMENT in "one", "two":
        assert m.get_agents_md_fragment() is m._AGENTS_MD_FRAGMENT
    return "the new value"


def lowered_stack():
    """The limit of the main thread's stack is lowered after the import, and a call never ends."""
    resource.setrlimit(resource.RLIMIT_STACK, (512 * 1024, resource.RLIM_INFINITY))
    m.auth = types.SimpleNamespace(_normalize_invite_code=lambda code: m._resolve_invite_code(code))
    try:
        m._resolve_invite_code("x")
    except RecursionError as exc:
        return exc


if sys.argv[1] == "no_watcher":
    import _testcapi

    try:
        while True:
            _testcapi.add_dict_watcher(0)
    except RuntimeError:  # the interpreter has only a few
        pass
from corvane import agent_onboarding as m  # noqa: E402

print(globals()[sys.argv[1]]())

"""Each function beside its Python twin: the scenarios, odd values of all kinds, and every step failing."""

import contextlib
import functools
import inspect
import itertools
import json
import os
import secrets
import types
from pathlib import Path

import pytest

from corvane import auth
from support import scenarios as e
from support.comparison import same, same_at_each_step, tried


class Text(str):
    """A text that says something else of itself; it is taken as it is."""

    def __str__(self):
        return "something else"


class Awkward:
    """A value whose every use raises."""

    __str__ = __bool__ = __eq__ = __fspath__ = e.raising(LookupError, "no text")
    __hash__ = None


READ, WRITE, LOGIN = e.call("_read_wallet_key", "d"), e.call("_write_wallet_key", "d", e.KEY), e.call("login", e.KEY)
INJECT, NUDGE = e.call("inject_heartbeat"), e.call("update_nudge", "first_signal", n=1)
CHECKLIST = e.file("HEARTBEAT.md", "x")


def several(*acts):
    """All of them one after the other, whatever is raised."""
    return lambda: [tried(act) for act in acts]


VICTIM = e.LINK, e.file("d/victim", "secret")
KEY_FILES = {
    **{f"mode {mode:o}": e.file("d/wallet.key", "abc", mode) for mode in (0, 0o400, 0o644, 0o666, 0o4755, 0o1600)},
    "longer": e.file("d/wallet.key", "x" * 200),
    "loop": e.made(lambda p: p.symlink_to("wallet.key")),
    "fifo": e.made(os.mkfifo),
}
HEARTBEATS = b"", b"abc", b"abc\n", b"a\r\nb\rc", b"x ## [Corvane] y", b"\xff", b"- [ ] [Corvane] old", b"\0\n"
NAMES = [None, "", " us ", ".", "..", "a/b", "a\\b", "a\0", 7, 0, False, ["x"], {}, Text(" t\n"), "\udc80", "us"]
ODD = (
    None, "", "abc", "0Xab", "a/b/c/d", "a/b/c/", "d\0", "\udc80", "x" * 100_000, "~/x", "~nobody-there/x",
    "10_signals", Text("era_change"), Path("d"), b"d", False, [], {}, Awkward(),
    5000,  # not the number of an open descriptor, which would be read and closed
)  # fmt: skip
TAKING = """
    login _normalize_key register _resolve_invite_code _canonical_data_dir _wallet_key_path _unsafe_wallet_error
    _find_heartbeat inject_heartbeat update_nudge _read_json_if_present _exception_chain_detail"""
OPTIONS = (
    *({}, {"auto_heartbeat": False, "colour": 1}, {"auto_heartbeat": Awkward()}, {"server_url": "https://x//"}),
    *({Text("data_dir"): "e"}, {"\udc80": 1}, *({"named_universe": name} for name in NAMES)),
    *({name: value} for name in ("data_dir", "server_url") for value in ODD),
)
PATCHED = """
    _read_wallet_key _write_wallet_key _canonical_data_dir _unsafe_wallet_error _normalize_key inject_heartbeat
    WalletRegistration open isinstance OSError Exception hasattr sorted _config _VALID_OPTIONS logger _find_heartbeat
    _check_wallet_fd secrets IOError RuntimeError _fetch_eras_payload urllib json str len"""
REPLACEMENTS = e.MISSING, None, "text", ValueError, lambda *args, **kwargs: "patched"
RESOLVE = e.call("_resolve_active_named_universe", e.manager(get_token=str))
REFUSED = several(e.call("configure", x=1), e.register(data_dir="e"), e.register(), LOGIN, INJECT, RESOLVE)
STRANGE_FILES = (
    type("NoExit", (), {"__enter__": dict}),
    type("NotBound", (), {"__enter__": dict, "__exit__": dict}),  # called without the file, since they are no functions
    functools.partial(contextlib.suppress, AttributeError),  # its reading fails, and it swallows that
)
STRANGE_ERRORS = OSError, type("NoInstance", (OSError,), {"__new__": lambda cls, *args: 5})


def in_a_generator():
    """The implicit context is the exception handled where the call is made, also inside a generator."""

    def generator():
        try:
            raise KeyError("in the generator")
        except KeyError:
            yield READ()

    return next(generator())


def wallet_and_workspace_rows():
    """Name, what is called, what is there before."""
    acts = {"read": READ, "write": WRITE, "register": e.register()}
    for (kind, prepare), (name, act) in itertools.product(KEY_FILES.items(), acts.items()):
        yield f"{name} {kind}", act, prepare
    for value, name in itertools.product(ODD, TAKING.split()):
        yield f"{name} {type(value)} {value!r:.20}", e.call(name, value), CHECKLIST
    for value in ODD:
        more = e.register(data_dir=value), e.call("_local_vocabulary_path", ".", value)
        yield f"in {type(value)} {value!r:.20}", several(*more), CHECKLIST
    no_option = lambda undo: e.m._config.pop("auto_heartbeat")  # noqa: E731
    yield "no option to opt out", several(e.register(), INJECT, NUDGE), CHECKLIST, no_option
    for content in HEARTBEATS:
        yield f"heartbeat {content}", several(INJECT, INJECT, NUDGE, NUDGE), e.file("HEARTBEAT.md", content)
        yield f"nudge {content}", NUDGE, e.file("HEARTBEAT.md", content)
    for options in OPTIONS:
        yield f"configure {options!r:.40}", e.call("configure", **options)
    for number, make in enumerate(STRANGE_FILES):
        opened = e.ours(open=lambda *args, make=make, **kwargs: make())
        yield f"strange file {number}", several(INJECT, NUDGE), CHECKLIST, opened
    swallowing = e.other_os(fdopen=lambda fd, mode: os.close(fd) or STRANGE_FILES[2]())
    yield "a swallowed exception", READ, e.KEY_FILE, swallowing
    for kind in STRANGE_ERRORS:
        yield f"{kind} is raised", READ, *VICTIM, e.ours(_unsafe_wallet_error=lambda p, kind=kind: kind)
    mode = type("Mode", (int,), {"__and__": e.raising(LookupError)})(0o100600)
    status = types.SimpleNamespace(st_mode=mode, st_uid=os.getuid())
    yield "a mode of its own kind", READ, e.KEY_FILE, e.other_os(fstat=lambda fd: status)
    flags = type("Flags", (int,), {"__or__": e.raising(LookupError)})(os.O_CREAT)
    yield "flags of their own kind", WRITE, e.other_os(O_CREAT=flags)
    yield "inside a generator and handlers", in_a_generator, *VICTIM
    yield "a module without the function", e.register(), e.patched(secrets, token_hex=e.MISSING)
    loop = e.chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    for exc in (
        ValueError("  x \n"), e.chain(*map(ValueError, "aabbccdd")), e.chain(*[ValueError("x") for _ in range(2000)]),
        loop, types.SimpleNamespace(diagnostic_detail=5), e.Anything("x", {"x.diagnostic_detail": KeyError}),
    ):  # fmt: skip
        yield f"chain {type(exc).__name__}", e.call("_exception_chain_detail", exc)
    # The module's namespace is the seam: a replaced name is used, a deleted one is a NameError.
    for name, value in itertools.product(PATCHED.split(), REPLACEMENTS):
        other = e.ours(**{name: value})
        yield f"{name} {value!r:.9}", REFUSED, *VICTIM, e.file("HEARTBEAT.md", b"\xff"), other


ACTIVE = {"state": "Active", "named_universe": "us"}
ERAS = [
    None, [], {}, "text", [ACTIVE], [ACTIVE, ACTIVE], [{"state": " active"}], [{"state": None}, 5, ACTIVE],
    [{"state": "ACTIVE", "allowed_named_universes": ["us", " us "], "universes": [{"id": "us"}]}],
    [{**ACTIVE, "signal_pools": [5, {"allowed_named_universes": "other"}]}],
    [{**ACTIVE, "signal_pools": {"allowed_named_universes": "other"}}],
    [{"state": "active", "universes": {"b": 1, "a": 2}}], [{"state": "active", "universes": {"b": 1, 2: 2}}],
    [{"state": "active", "universes": [{"named_universe": "", "id": 0, "name": "n"}, {"name": ""}, {}]}],
    [{"state": "active", "universes": ["x", None, "..", "x"]}], [{"state": "active", "universes": "us"}],
    [{"state": "active", "allowed_named_universes": "us"}],
]  # fmt: skip
CONFIGURATIONS = [
    *NAMES,
    *({"signal_pools": [5, {"allowed_named_universes": n}], "named_universe": "last"} for n in (*NAMES, NAMES)),
    *({"allowed_named_universes": [n, "next"], "signal_pools": [{}]} for n in NAMES),
    {"allowed_named_universes": ["..", "a/b"], "named_universe": "last"},
    *(era for eras in ERAS if isinstance(eras, list) for era in eras),
]


MANIFESTS = [
    "", "5", "null", b"\xff", '{"files": null}', '{"files": []}', "{}", '{"a": 1, "a": 2}', "\ufeff{}",
    json.dumps({"era_id": [1], "version": None, "files": {"a": 5, "b": {"kind": 7}, "c": {"kind": None}}}),
]  # fmt: skip


def era_and_manifest_rows():
    """Eras, names and manifests of every shape."""
    resolve = e.call("_resolve_active_named_universe", "am")
    for eras, configured in itertools.product(ERAS, (None, " mine ", 5)):
        fetched = e.ours(_fetch_eras_payload=e.Anything("fetch", {"fetch()": {"eras": eras}}))
        yield f"eras {eras!r:.50} and {configured}", resolve, fetched, e.config(named_universe=configured)
    first = "_first_allowed_named_universe_from_era_config"
    for name, values in ((first, CONFIGURATIONS), ("_safe_named_universe", NAMES)):
        yield name, several(*(e.call(name, value) for value in values))
    manifests = [m for files in e.FILES for m in ({"files": files}, types.SimpleNamespace(files=files))]
    for number, manifest in enumerate([*manifests, types.SimpleNamespace()]):
        names = "backtester", "era_data", "vault", "absent", None, []
        select = (e.call("_select_runtime_module_manifest_entry", manifest, name) for name in names)
        entries = lambda m=manifest: list(e.m._runtime_module_manifest_entries(m))  # noqa: E731
        load = e.call("_load_runtime_modules_from_manifest", "d", manifest)
        yield f"manifest {number}", several(*select, entries, load)
    backwards = e.ours(sorted=lambda items: reversed(sorted(items)))
    entries = lambda: list(e.m._runtime_module_manifest_entries({"files": {"x": e.entry(), "y": e.entry()}}))  # noqa: E731
    yield "another sorted", entries, backwards
    for path in ("../x", "/nowhere/x", "a\0b", "x" * 300, "a\nb", "\udc80", "", "."):
        yield (
            f"path {path!r:.9}",
            e.call("_load_manifest_runtime_module", "d", "x", manifest={"files": {path: e.entry("runtime_module:x")}}),
        )
    read = several(e.call("_read_manifest", "d"), e.call("_load_per_era_backtester", "d"))
    for content in MANIFESTS:
        yield f"manifest {content!r:.40}", read, e.file("d/manifest.json", content)


ERA = {"era_id": 3, "signal_pools": [{"allowed_named_universes": ["u"]}]}
MODULES = {"backtester": types.SimpleNamespace(_corvane_module_sha256="5a" * 32), "era_data": "data"}
VOCABULARY, MANIFEST = "d/features/u/vocabulary.json", "d/manifest.json"


def on_disk(files=(), modules=MODULES, **options):
    """Configuration and files of a data directory that is complete but for what is changed."""
    contents = {VOCABULARY: '{"era_id": "7"}', MANIFEST: '{"files": {"x": {}}}', **dict(files)}
    yield e.config(**{"era_config": ERA, **options})
    yield from (e.file(name, text) for name, text in contents.items() if text is not None)
    loader = e.Anything("load_modules", {"load_modules()": modules})
    yield e.ours(create_runtime_freshness_guard=e.Anything("make_guard"), _load_runtime_modules_from_manifest=loader)


SITUATIONS = [
    *({"era_config": value} for value in (None, [], "x")),
    *({"era_config": {**ERA, "era_id": value}} for value in ("7", "x", 0, None, 2.5, [], [1])),
    *({"era_config": era, "files": {"d/vocabulary.json": "{}"}} for era in ({}, {"era_id": 1})),
    *({"named_universe": value} for value in ("v", "u", "", None, 5, [1])),
    *({"files": {VOCABULARY: text}} for text in (None, "[]", "{", "null", b"\xe9")),
    *({"files": {MANIFEST: text}} for text in (None, "[]", "{", '{"files": 5}')),
    *({"data_dir": value} for value in ("", None, 5, b"d")),
    *({"server_url": value} for value in ("", None, "https://x")),
    *({"modules": modules} for modules in ({"era_data": 1}, {"backtester": object})),
]
BATCHES = (1, 2, 3, 4, 5), None, "abcd", ImportError, KeyboardInterrupt
RUNTIME = "_runtime.bootstrap_runtime()"
KIT_FAILS = {RUNTIME: ConnectionError}
KITS = [
    *({"_runtime._import_batch_runtime()": batch} for batch in BATCHES),
    *({}, {"_runtime._build_graph_validator()": KeyboardInterrupt}, {"_runtime.get_runtime()": LookupError}),
    *({**e.READY, "search_templates": None}, {"simulate_signal.init_simulate_signal()": e.Cancelled}),
    *({"sync_backoff.SyncBackoffCancelled": cancelled, **KIT_FAILS} for cancelled in (AttributeError, 5)),
    {"simulate_signal._simulate_signal_export": AttributeError},
    *({name: None} for name in e.SIBLINGS),
    *({f"{RUNTIME}.{name}": AttributeError} for name in ("registry", "sync_manager", "evaluator.graph_validator")),
]


def bootstrap_rows():
    """The runtime, with a kit that records what is done to it and fails."""
    local = e.call("_bootstrap_local_runtime_from_config", "am")
    for situation in SITUATIONS:
        yield f"local {situation}", local, *on_disk(**situation), e.kit()
    for changes in KITS:
        yield f"local {changes}", local, *on_disk(), e.kit(changes)
    for strict in (True, False, []):
        propagate = e.call("_propagate_auth", "am", strict=strict)
        ensure = e.call("ensure_runtime_bootstrapped", strict)
        for changes, act in itertools.product(KITS, (propagate, ensure)):
            yield f"{changes}, {strict}", act, *on_disk(named_universe="u"), e.kit(changes), e.MANAGER
        yield f"no detail {strict}", propagate, e.kit(KIT_FAILS), e.ours(_exception_chain_detail=lambda exc: "")
        yield f"both fail {strict}", propagate, *on_disk(modules=OSError), e.kit(KIT_FAILS)
    changing = e.ours(_read_json_if_present=lambda path: {} if "vocabulary" in path else 5)
    yield "a manifest that changes", local, *on_disk(), e.kit(), changing


ROWS = [*wallet_and_workspace_rows(), *era_and_manifest_rows(), *bootstrap_rows()]


@pytest.mark.parametrize("name", e.CALLS)
def test_scenarios(name):
    same(e.CALLS[name].act, *e.CALLS[name].prepare)
    e.CALLS[name]()


@pytest.mark.parametrize(("act", "prepare"), [pytest.param(act, rest, id=name) for name, act, *rest in ROWS])
def test_same_as_python(act, prepare):
    assert same(act, *prepare)["descriptors"] == 0


STEPWISE = {
    "read": (READ, KEY_FILES["mode 644"]),
    "write": (WRITE, e.KEY_FILE),
    "register": (e.register(), CHECKLIST),
    "register again": (e.register(), e.KEY_FILE),
    "login": (LOGIN,),
    "checklist": (several(INJECT, NUDGE), CHECKLIST),
    "configure": (e.call("configure", server_url="https://x/", data_dir="e"),),
    **{
        f"propagate {strict} {changes}": (e.call("_propagate_auth", "am", strict=strict), *on_disk(), e.kit(changes))
        for strict, changes in itertools.product((True, False), ({}, KIT_FAILS))
    },
}


def names(module):
    return [name for name in vars(module) if not name.startswith("__")]


def other_code(module, undo):
    """All functions do something else from now on, the one that is running as well."""
    for function in (f for f in map(vars(module).get, names(module)) if isinstance(f, types.FunctionType)):
        if function.__module__ == module.__name__ and not inspect.isgeneratorfunction(function):
            undo.callback(setattr, function, "__code__", function.__code__)
            function.__code__ = (lambda *args, **kwargs: "other code").__code__


def call_others(module, undo):
    for act in (module.inject_heartbeat, module.get_agents_md_fragment, lambda: module.configure(colour=1)):
        e.note(repr(tried(act)))


# What happens in the middle of a call: it fails, or what the module holds is changed.
STRIKES = {
    **{
        kind.__name__: e.raising(kind)
        for kind in (PermissionError, auth.AuthError, AttributeError, e.Cancelled, KeyboardInterrupt)
    },
    "names deleted": lambda module, undo: e.patched(module, **dict.fromkeys(names(module), e.MISSING))(undo),
    "names without value": lambda module, undo: e.patched(module, **dict.fromkeys(names(module)))(undo),
    "options emptied": lambda module, undo: module._config.clear(),
    "options replaced": lambda module, undo: e.patched(module, _config=[])(undo),
    "other code": other_code,
    "others called": call_others,
}


@pytest.mark.parametrize("strike", STRIKES)
@pytest.mark.parametrize("name", STEPWISE)
def test_a_strike_at_each_step(name, strike):
    same_at_each_step(STRIKES[strike], *STEPWISE[name])

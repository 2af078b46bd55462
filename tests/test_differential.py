"""Each function beside its Python twin: the calls of the exercise, odd values of all kinds, and every step failing."""

import contextlib
import itertools
import json
import os
import secrets
import socket
import sys
import types
from collections import OrderedDict
from pathlib import Path

import pytest

import proof.exercise as e
from corvane import agent_onboarding as native
from corvane import auth
from corvane.sync import CURRENT_PLATFORM
from differential import same, same_at_each_step, tried


class Text(str):
    """A text that says something else of itself; it is taken as it is."""

    def __str__(self):
        return "something else"


class Awkward:
    """A value whose every use raises."""

    def __str__(self):
        raise LookupError("no text")

    __bool__ = __eq__ = __fspath__ = __str__
    __hash__ = None


class Clash(str):
    """A key that cannot be compared with the one that is looked up."""

    __hash__ = str.__hash__

    def __eq__(self, other):
        raise LookupError("compared")


class Mapping(dict):
    """A dict whose `get` takes only what the reader of a manifest passes."""

    def get(self, key, *default):
        assert default == (("",) if key == "kind" else ())
        return super().get(key, *default)


class OtherMapping(dict):
    get = None


READ, WRITE = e.call("_read_wallet_key", "d"), e.call("_write_wallet_key", "d", e.KEY)
INJECT, NUDGE = e.call("inject_heartbeat"), e.call("update_nudge", "first_signal", n=1)
CHECKLIST = e.file("HEARTBEAT.md", "x")


def several(*acts):
    """All of them one after the other, whatever is raised."""
    return lambda: [tried(act) for act in acts]


def bind(path):
    with socket.socket(socket.AF_UNIX) as s:
        s.bind(os.path.relpath(path))


def key_file(content=b"abc\n", mode=0o600):
    return (e.file("d/wallet.key", content, mode),)


VICTIM = e.LINK, e.file("d/victim", "secret")
KEY_FILES = {
    "none": (),
    "key": key_file(),
    **{f"mode {mode:o}": key_file(mode=mode) for mode in (0, 0o400, 0o644, 0o666, 0o4755, 0o1600)},
    "not utf-8": key_file(b"\xff\xfe"),
    "longer": key_file(b"x" * 200),
    "link": VICTIM,
    "loop": (e.made(lambda p: p.symlink_to("wallet.key")),),
    "fifo": (e.made(os.mkfifo),),
    "socket": (e.made(bind),),
    "foreign": (e.made(lambda p: (p.write_text("k"), os.chown(p, 65534, 65534))),),
    "file for a directory": (e.file("d"),),
}
HEARTBEATS = b"", b"abc", b"abc\n", b"a\r\nb\rc", b"x ## [Corvane] y", b"\xff", b"- [ ] [Corvane] old", b"\0\n"
PATHS = None, "", "d", Path("d"), Text("d"), b"d", 5, "d\0", "\udc80", "~/x", "~nobody-there/x", Awkward()
UNIVERSES = " us ", "", " \t", ".", "..", "a/b", "a\\b", "a\0b", "a.b", Text(" t "), "\udc80"
OPTIONS = (
    *({}, {"colour": 1}, {"auto_heartbeat": False, "colour": 1}, {"auto_heartbeat": 1}, {"auto_heartbeat": Awkward()}),
    *({"data_dir": value} for value in (5, "", " ", Text("d"))),
    *({"server_url": "https://x//"}, {"server_url": None}, {Text("data_dir"): "e"}, {"\udc80": 1}),
    *({"named_universe": name} for name in UNIVERSES),
)


def first_rows():
    """Wallet, registration, workspace, options: name, what is called, what is there before."""
    for kind, prepare in KEY_FILES.items():
        for name, act in {"read": READ, "write": WRITE, "register": e.register()}.items():
            yield f"{name} {kind}", act, *prepare
    foreign = e.other_os(fstat=lambda fd: os.stat_result((*os.stat(fd)[:4], os.getuid() + 1, *os.stat(fd)[5:])))
    yield "foreign once it is open", READ, *key_file(), foreign
    mode = type("Mode", (int,), {"__and__": e.raising(LookupError)})(0o100600)
    status = types.SimpleNamespace(st_mode=mode, st_uid=os.getuid())
    yield "a mode of its own kind", READ, *key_file(), e.other_os(fstat=lambda fd: status)
    for key in (None, "", "abc", "0Xab", Text("ab"), b"ab", 7, "a\udc80", "x" * 100_000, Awkward()):
        yield f"login {key!r:.20}", e.call("login", key)
        yield f"normalize {key!r:.20}", e.call("_normalize_key", key)
    for path in PATHS:
        for name in ("_canonical_data_dir", "_wallet_key_path", "_unsafe_wallet_error", "_find_heartbeat"):
            yield f"{name} {type(path)} {path!r:.9}", e.call(name, path)
        yield f"inject {type(path)} {path!r:.9}", e.call("inject_heartbeat", path), e.file("HEARTBEAT.md")
        yield f"register in {type(path)} {path!r:.9}", e.register(data_dir=path)
    no_option = lambda undo: e.m._config.pop("auto_heartbeat")  # noqa: E731
    yield "no option to opt out", several(e.register(), INJECT, NUDGE), CHECKLIST, no_option
    for code in (None, "", "c", 5):
        yield f"invite {code}", e.register(invite_code=code), e.INVITED
    for content in HEARTBEATS:
        twice = several(e.call("inject_heartbeat", "."), INJECT, NUDGE, NUDGE)
        yield f"heartbeat {content}", twice, e.file("HEARTBEAT.md", content)
        yield f"nudge {content}", NUDGE, e.file("HEARTBEAT.md", content)
    for trigger in ("first_signal", "10_signals", "unknown", Text("era_change"), 5, None, [], Awkward()):
        yield f"nudge {trigger!r:.20}", e.call("update_nudge", trigger), CHECKLIST
    for depth in ("a", "a/b/c", "a/b/c/d", "a/b/c/", ".", "/", "a/b/c/d/e"):
        below = lambda d=depth: e.m._find_heartbeat(os.path.abspath(d))  # noqa: E731
        yield f"find {depth}", several(e.call("_find_heartbeat", depth), below), CHECKLIST
    yield "a directory", INJECT, e.made(Path.mkdir, "HEARTBEAT.md")
    for options in OPTIONS:
        yield f"configure {options}", e.call("configure", **options)


class Swallowing:
    """A file whose reading fails and whose `__exit__` swallows that."""

    __enter__ = lambda self: self  # noqa: E731
    __exit__ = lambda self, *exc: True  # noqa: E731
    read = e.raising(ValueError, "swallowed")


class NotBound:
    """Its special methods are no descriptors: they are called without the file."""

    __enter__ = __exit__ = dict


class NoInstance(OSError):
    def __new__(cls, *args):
        return 5


def interrupted(at):
    def other_open(path, mode, **kwargs):
        if mode == at:
            raise KeyboardInterrupt
        return open(path, mode, **kwargs)

    return e.ours(open=other_open)


def in_a_generator():
    """The implicit context is the exception handled where the call is made, also inside a generator."""

    def generator():
        try:
            raise KeyError("in the generator")
        except KeyError:
            yield e.m._read_wallet_key("d")

    try:
        raise ValueError("outside")
    except ValueError:
        return next(generator())


class Failing(Exception):
    __str__ = e.raising(RuntimeError, "no text")
    diagnostic_detail = property(e.raising(KeyError, "no detail"))


def with_detail(detail):
    exc = OSError("write failed")
    exc.diagnostic_detail = detail
    return exc


def seldom_rows():
    """What hardly ever happens: strange files, classes that are raised, endless chains of exceptions."""
    for mode in "rw":
        yield f"interrupted {mode}", INJECT, CHECKLIST, interrupted(mode)
    for kind in (type("NoExit", (), {"__enter__": dict}), NotBound, Swallowing):
        yield (
            f"a file: {kind.__name__}",
            several(INJECT, NUDGE),
            CHECKLIST,
            e.ours(open=lambda *args, kind=kind, **kwargs: kind()),
        )
    swallowing = e.other_os(fdopen=lambda fd, mode: os.close(fd) or Swallowing())
    yield "a swallowed exception", READ, *key_file(), swallowing
    for kind in (OSError, NoInstance):
        yield f"{kind} is raised", READ, *VICTIM, e.ours(_unsafe_wallet_error=lambda p, kind=kind: kind)
    yield "inside a generator and handlers", in_a_generator, *VICTIM
    yield "a module without the function", e.register(), e.patched(secrets, token_hex=e.MISSING)
    loop = e.chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    for exc in (
        None, ValueError(), ValueError("  x \n"), e.chain(*map(ValueError, "abcdef")), with_detail("disk full"),
        e.chain(*map(ValueError, "aabbccdd")), with_detail(""), with_detail(5), loop, Failing(), "no exception",
        Awkward(), e.chain(*[ValueError("same") for _ in range(2000)]),
    ):  # fmt: skip
        yield f"chain {type(exc).__name__}", e.call("_exception_chain_detail", exc)


NAMES = [None, "", " us ", ".", "..", "a/b", "a\\b", "a\0", 7, 0, False, ["x"], {}, Text(" t\n"), "\udc80", "us"]
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


def collected():
    names = []
    e.m._append_allowed_named_universes(names, NAMES)
    return names


def era_rows():
    """Eras and names of every shape."""
    resolve = e.call("_resolve_active_named_universe", "am")
    for eras, configured in itertools.product(ERAS, (None, "", " mine ", "..", 5)):
        fetched = e.ours(_fetch_eras_payload=e.Anything("fetch", {"fetch()": {"eras": eras}}))
        yield f"eras {eras!r:.50} and {configured}", resolve, fetched, e.config(named_universe=configured)
    first = "_first_allowed_named_universe_from_era_config"
    for name, values in ((first, CONFIGURATIONS), ("_safe_named_universe", NAMES)):
        yield name, several(*(e.call(name, value) for value in values), collected)
    names = "RuntimeError", "OSError", "isinstance", "_fetch_eras_payload", "urllib", "json", "str", "len"
    for name, value in itertools.product(names, (None, ValueError, "text")):
        no_token = e.call("_resolve_active_named_universe", e.manager(get_token=str))
        yield f"eras with {name} {value}", no_token, e.ours(**{name: value})


def entry(kind="runtime_module:backtester", **fields):
    return {"kind": kind, **fields}


FILES = [
    {"b/x.so": entry(), "a/y.so": entry(), "a/z.so": entry("runtime_module:other"), "c": 5, "d": entry("text")},
    {"x": entry(platform=""), "y": entry(platform=None), "z": entry(platform="else")},
    {"x": entry(platform="else"), "y": entry(platform=CURRENT_PLATFORM)},
    {"x": entry("runtime_module:vault"), "y": entry("runtime_module:era_data")},
    {"y": entry("runtime_module:vault"), "x": entry("runtime_module:era_data")},
    {"x": entry(), 5: entry()},
    {("x",): entry(), ("a",): entry(5)},
    {"y": entry("runtime_module:"), "x": {Clash("kind"): 1}},
    OrderedDict(b=entry(), a=entry("runtime_module:vault")),
    types.MappingProxyType({}),
    {"x": Mapping(entry()), "y": Mapping(kind=5)},
]  # fmt: skip
MANIFESTS = [
    "", "{", "[]", "5", "null", b"\xff", '{"files": null}', '{"files": []}', "{}", '{"a": 1, "a": 2}', "\ufeff{}",
    json.dumps({"era_id": [1], "version": None, "files": {"a": 5, "b": {"kind": 7}, "c": {"kind": None}}}),
]  # fmt: skip


def manifest_rows():
    """Manifests of every shape."""
    manifests = [m for files in FILES for m in ({"files": files}, types.SimpleNamespace(files=files))]
    for number, manifest in enumerate([*manifests, types.SimpleNamespace()]):
        names = "backtester", "era_data", "vault", "absent", None, []
        select = (e.call("_select_runtime_module_manifest_entry", manifest, name) for name in names)
        entries = lambda m=manifest: list(e.m._runtime_module_manifest_entries(m))  # noqa: E731
        load = e.call("_load_runtime_modules_from_manifest", "d", manifest)
        yield f"manifest {number}", several(*select, entries, load)
    backwards = e.ours(sorted=lambda items: reversed(sorted(items)))
    entries = lambda: list(e.m._runtime_module_manifest_entries({"files": {"x": entry(), "y": entry()}}))  # noqa: E731
    yield "another sorted", entries, backwards
    read = several(e.call("_read_manifest", "d"), e.call("_load_per_era_backtester", "d"), lambda: sys.path[0])
    for content in MANIFESTS:
        yield f"manifest {content!r:.40}", read, e.file("d/manifest.json", content)
    paths = None, "", "missing", "x", "list", "bad", ".", 5000, b"list"  # an open descriptor would be read and closed
    optional = ((e.call("_local_vocabulary_path", ".", path), e.call("_read_json_if_present", path)) for path in paths)
    there = e.file("list", "[]"), e.file("bad", "{"), *(e.made(Path.mkdir, name) for name in ("x", "vocabulary.json"))
    yield "optional files", several(*itertools.chain(*optional)), *there


ERA = {"era_id": 3, "signal_pools": [{"allowed_named_universes": ["u"]}]}
MODULES = {"backtester": types.SimpleNamespace(_corvane_module_sha256="5a" * 32), "era_data": "data"}
COMPLETE = {"d/features/u/vocabulary.json": '{"era_id": "7"}', "d/manifest.json": '{"files": {"x": {}}}'}


def on_disk(files=(), modules=MODULES, **options):
    """Configuration and files of a data directory that is complete but for what is changed."""
    yield e.config(**{"era_config": ERA, **options})
    yield from (e.file(name, text) for name, text in {**COMPLETE, **dict(files)}.items() if text is not None)
    loader = e.Anything("load_modules", {"load_modules()": modules})
    yield e.ours(create_runtime_freshness_guard=e.Anything("make_guard"), _load_runtime_modules_from_manifest=loader)


NO_UNIVERSE = {"d/vocabulary.json": "{}"}
SITUATIONS = {
    **{f"era_config {v!r}": {"era_config": v} for v in (None, [], "x", OtherMapping())},
    **{f"era {v!r}": {"era_config": {**ERA, "era_id": v}} for v in ("7", "x", 0, None, 2.5, [], [1])},
    "no era id at all": {"era_config": {}, "files": NO_UNIVERSE},
    "no universe": {"era_config": {"era_id": 1}, "files": NO_UNIVERSE},
    **{f"universe {v!r}": {"named_universe": v} for v in ("v", "u", "", None, 5, [1])},
    **{f"vocabulary {v!r}": {"files": {"d/features/u/vocabulary.json": v}} for v in (None, "[]", "{", "null", b"\xe9")},
    **{f"manifest {v!r}": {"files": {"d/manifest.json": v}} for v in (None, "[]", "{", '{"files": 5}')},
    **{f"data_dir {v!r}": {"data_dir": v} for v in ("", None, 5, b"d")},
    **{f"server_url {v!r}": {"server_url": v} for v in ("", None, "https://x")},
    "no backtester": {"modules": {"era_data": 1}},
    "a backtester without digest": {"modules": {"backtester": object}},
}
BATCHES = (1, 2, 3, 4, 5), None, "abcd", ImportError, KeyboardInterrupt
CHANGES = [{"_runtime._import_batch_runtime()": batch} for batch in BATCHES] + [
    *({"_runtime._build_graph_validator()": KeyboardInterrupt}, {"search_tracking": None}),
    *({"search_tracking": SyntaxError}, {}),
]
RUNTIME = "_runtime.bootstrap_runtime()"
KIT_FAILS = {RUNTIME: ConnectionError}
KITS = {
    "no runtime": {RUNTIME: None},
    "cancelled elsewhere": {"simulate_signal.init_simulate_signal()": e.Cancelled},
    "no Cancelled": {"sync_backoff.SyncBackoffCancelled": AttributeError, **KIT_FAILS},
    "Cancelled is no class": {"sync_backoff.SyncBackoffCancelled": 5, **KIT_FAILS},
    "no export": {"simulate_signal._simulate_signal_export": AttributeError},
    **{f"{name} missing": {name: None} for name in e.SIBLINGS},
    **{f"{n} fails with {kind}": {n: kind} for n in e.SIBLINGS for kind in (KeyError, KeyboardInterrupt)},
    **{
        f"a runtime without {name}": {f"{RUNTIME}.{name}": AttributeError}
        for name in ("registry", "sync_manager", "evaluator.graph_validator", "evaluator.correlate_per_pool")
    },
}
STRICTNESS = True, False, []
READY = {"_runtime.get_runtime()": "ready"}


def sync_manager():
    class Own(e.m._LocalRuntimeSyncManager):
        def get_manifest(self):
            return [super().get_manifest()]

    own, plain = Own("manifest", runtime_freshness_guard=5), e.m._LocalRuntimeSyncManager(manifest="m")
    lists = own.request_for_sync(), own.request_for_sync()
    lists[0].append(1)
    calls = plain.acquire(), plain.release(), plain.register_era_callback(1), plain.unregister_era_callback(2)
    wrong = several(lambda: plain.acquire(1), lambda: plain.release(x=1))()
    return own.get_manifest(), lists, vars(own), vars(plain), calls, wrong, list(vars(Own.__base__)), plain.__doc__


def bootstrap_rows():
    """The runtime, with a kit that records what is done to it and fails."""
    local = e.call("_bootstrap_local_runtime_from_config", "am")
    for name, situation in SITUATIONS.items():
        yield f"local {name}", local, *on_disk(**situation), e.kit()
    for changes in CHANGES:
        yield f"local {changes}", local, *on_disk(), e.kit(changes)
    for strict in STRICTNESS:
        propagate = e.call("_propagate_auth", "am", strict=strict)
        for name, changes in KITS.items():
            yield f"propagate, {name}, {strict}", propagate, *on_disk(), e.kit(changes)
        yield f"no detail {strict}", propagate, e.kit(KIT_FAILS), e.ours(_exception_chain_detail=lambda exc: "")
        yield f"both fail {strict}", propagate, *on_disk(modules=OSError), e.kit(KIT_FAILS)
        for more in ({"_runtime": None}, {"_runtime.get_runtime()": LookupError}, {**READY, "search_templates": None}):
            yield f"ensure {more} {strict}", e.call("ensure_runtime_bootstrapped", strict), e.MANAGER, e.kit(more)
    changing = e.ours(_read_json_if_present=lambda path: {} if "vocabulary" in path else 5)
    yield "a manifest that changes", local, *on_disk(), e.kit(), changing
    yield "sync manager", sync_manager


FAILURES = [
    *((ConnectionRefusedError, 111, "refused"), (OSError, 5, "x"), (KeyboardInterrupt,)),
    *((auth.RegistrationError, "used", 2), (auth.InvalidKeyError, "bad"), (auth.AuthError,)),
]
UNMATCHED = (
    *(e.patched(auth), e.ours(ConnectionError="not a class"), e.patched(auth, AuthError=(ValueError, OSError))),
    *(e.patched(auth, InvalidKeyError=None), e.patched(auth, RegistrationError=None)),
)


def handling(act):
    try:
        raise LookupError("outer")
    except LookupError:
        return act()


def service_rows():
    """Except clauses look their class up when they are tried; inside, the caught exception is the one handled."""
    acts = {"register": e.register(), "login": e.call("login", e.KEY)}
    for failure, (number, other), (name, act) in itertools.product(FAILURES, enumerate(UNMATCHED), acts.items()):
        handled = lambda act=act: handling(act)  # noqa: E731
        yield f"{name} {failure} {number}", handled, e.service(*failure), other


PATCHED = """
    _read_wallet_key _write_wallet_key _canonical_data_dir _unsafe_wallet_error _normalize_key inject_heartbeat
    WalletRegistration open isinstance OSError Exception hasattr sorted _config _VALID_OPTIONS logger _find_heartbeat
    _check_wallet_fd secrets IOError"""
REPLACEMENTS = e.MISSING, None, "text", ValueError, lambda *args, **kwargs: "patched"


def replaced(name, value):
    """The module's namespace is the seam: a replaced name is used, a deleted one is a NameError."""
    acts = [getattr(e.m, name) for name in ("register", "login", "inject_heartbeat", "configure")]
    with contextlib.ExitStack() as undo:
        e.ours(**{name: value})(undo)
        refused = several(lambda: acts[0]("CORV-AAAA-BBBB-CCCC", "d"), lambda: acts[1](e.KEY), acts[2])
        return several(lambda: acts[0]("CORV-AAAA-BBBB-CCCC", "e"), lambda: acts[3](x=1), refused)()


def patched_rows():
    for name, value in itertools.product(PATCHED.split(), REPLACEMENTS):
        act = lambda name=name, value=value: replaced(name, value)  # noqa: E731
        yield f"{name} {value!r:.9}", act, *VICTIM, e.file("HEARTBEAT.md", b"\xff")


TABLES = first_rows, seldom_rows, era_rows, manifest_rows, bootstrap_rows, service_rows, patched_rows
ROWS = [row for table in TABLES for row in table()]


@pytest.mark.parametrize("name", e.CALLS)
def test_calls_of_the_exercise(name):
    same(e.CALLS[name].act, *e.CALLS[name].prepare)
    e.CALLS[name]()


@pytest.mark.parametrize(("act", "prepare"), [pytest.param(act, rest, id=name) for name, act, *rest in ROWS])
def test_same_as_python(act, prepare):
    assert same(act, *prepare)["descriptors"] == 0


STEPWISE = {
    "read": (READ, *key_file(mode=0o644)),
    "write": (WRITE, e.KEY_FILE),
    "register": (e.register(), CHECKLIST),
    "register again": (e.register(), e.KEY_FILE),
    "login": (e.call("login", e.KEY),),
    "nudge": (NUDGE, CHECKLIST),
    "configure": (e.call("configure", server_url="https://x/", data_dir="e"),),
    **{
        f"propagate {strict} {changes}": (e.call("_propagate_auth", "am", strict=strict), *on_disk(), e.kit(changes))
        for strict, changes in itertools.product((True, False), ({}, KIT_FAILS))
    },
}


@pytest.mark.parametrize("failure", [PermissionError, auth.AuthError, AttributeError, e.Cancelled, KeyboardInterrupt])
@pytest.mark.parametrize("name", STEPWISE)
def test_each_step_fails_in_turn(name, failure):
    same_at_each_step(failure, *STEPWISE[name])


def test_a_real_module_is_reloaded_into_the_runtime():
    """Real guard, real native modules: a new build reaches the evaluator and the runtime of a local bootstrap."""

    real = e.runtime(RuntimeEvaluationAdapter=types.SimpleNamespace, LibraryRuntime=types.SimpleNamespace)
    with e.Call(None, "", (*e.LOCAL, e.kit(_runtime=real))).situation(), contextlib.ExitStack() as undo:
        built = native._bootstrap_local_runtime_from_config("am")
        assert built.raw_backtester.VERSION == built.evaluator.raw_backtester.VERSION == "1"
        e.native(backtester={"source": "backtester-2.so"}, era_data={})(undo)
        assert built.runtime_freshness_guard.refresh() == ["backtester"]
        assert built.raw_backtester.VERSION == built.evaluator.raw_backtester.VERSION == "2"

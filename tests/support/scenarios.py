"""One pass through every function of the module: each way to succeed and each way to fail, by name.

A call is made in a fresh directory, beside a kit that answers as told, and says itself what has to come of it. As a
script: `python -m support.scenarios NAME...`, all of them by default.
"""

import atexit
import contextlib
import functools
import hashlib
import importlib
import itertools
import json
import logging
import os
import re
import secrets
import shutil
import stat
import sys
import tempfile
import types
import urllib.error
import urllib.request
from collections import OrderedDict
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import corvane
import corvane_local
from corvane import auth
from corvane.sync import CURRENT_PLATFORM

m: Any = importlib.import_module(os.environ.get("MODULE_CALLED", "corvane.agent_onboarding"))
DEFAULTS: dict[str, Any] = dict(m._config)
KEY = "5a" * 32
SIBLINGS = "_runtime", "sync_backoff", "search_tracking", "search_templates", "simulate_signal"
MISSING = object()
note: Callable[[str], None] | None = None  # is told what the fakes are asked for

Prepare = Callable[[contextlib.ExitStack], object]


@dataclass(frozen=True)
class Call:
    """What is called, what has to be in its outcome, and what is there before."""

    act: Callable[[], object]
    expected: str
    prepare: tuple[Prepare, ...]

    def __call__(self) -> None:
        """Makes the call once in a fresh directory; AssertionError if anything else comes of it than expected."""
        with self.situation() as logged:
            seen = outcome(self.act, logged)
        assert self.expected in seen, f"expected {self.expected!r}, seen {seen!r}"

    @contextlib.contextmanager
    def situation(self) -> Iterator[list[logging.LogRecord]]:
        """The directory and the kit that the call is made in; gives the list that log records go to."""
        logged: list[logging.LogRecord] = []
        work = base() / "work"
        with contextlib.ExitStack() as undo:
            patched(m.logger, level=logging.DEBUG, _cache={}, handle=logged.append)(undo)
            undo.callback(shutil.rmtree, work, ignore_errors=True)
            undo.enter_context(contextlib.chdir(base()))
            shutil.rmtree(work, ignore_errors=True)
            work.mkdir()
            os.chdir(work)
            for prepare in (usual, *self.prepare):
                prepare(undo)
            yield logged


@functools.cache
def base() -> Path:
    """A directory of this process and the children it forks."""
    made = Path(os.path.realpath(tempfile.mkdtemp(prefix="scenarios-")))
    atexit.register(shutil.rmtree, made, ignore_errors=True)
    shutil.copytree(Path(corvane_local.__path__[0]) / "native_modules", made / "native")
    return made


def outcome(act: Callable[[], object], logged: list[logging.LogRecord]) -> str:
    """Result or exception and log lines as one text, the same for the same call."""
    try:
        text = f"returned {act()!r}"
    except Exception as exc:
        text = f"raised {type(exc).__name__}: {exc}"
    text = "; ".join([text, *(f"{r.levelname} {r.getMessage()}" for r in logged)])
    return re.sub(r" at 0x[0-9a-f]+", "", text.replace(str(base() / "work"), "."))


def files() -> dict[str, tuple[str, str | bytes]]:
    """Modes and contents of what is below the working directory: where a link leads, the digest of a large file."""
    found: dict[str, tuple[str, str | bytes]] = {}
    for path in sorted(Path().rglob("*")):
        mode = path.lstat().st_mode
        content = path.read_bytes() if stat.S_ISREG(mode) else b""
        short = hashlib.sha256(content).digest() if len(content) > 5000 else content
        found[str(path)] = oct(mode), os.readlink(path) if stat.S_ISLNK(mode) else short
    return found


def put(target: object, name: str, value: object) -> None:
    if value is not MISSING:
        setattr(target, name, value)
    elif name in vars(target):
        delattr(target, name)


def patched(target: object, **attributes: Any) -> Prepare:
    """Other attributes of a module or an object; MISSING deletes one."""

    def prepare(undo: contextlib.ExitStack) -> None:
        for name, value in attributes.items():
            undo.callback(put, target, name, vars(target).get(name, MISSING))
            put(target, name, value)

    return prepare


def ours(**attributes: Any) -> Prepare:
    """Other names in the module that is called."""
    return lambda undo: patched(m, **attributes)(undo)


def other_os(**functions: Any) -> Prepare:
    """An os module, for ours alone, in which these functions are others."""
    return ours(os=types.SimpleNamespace(**{**vars(os), **functions}))


def made(make: Callable[[Path], object], name: str = "d/wallet.key") -> Prepare:
    """Something at this path, and the directories above it."""

    def prepare(undo: contextlib.ExitStack) -> None:
        Path(name).parent.mkdir(parents=True, exist_ok=True)
        make(Path(name))

    return prepare


def file(name: str, content: str | bytes = "", mode: int = 0o600, modified: int = 0) -> Prepare:
    def make(path: Path) -> None:
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        path.chmod(mode)
        os.utime(path, ns=(modified, modified))

    return made(make, name)


def native(**entries: Mapping[str, Any]) -> Prepare:
    """Native modules and the manifest that lists them; an entry's `source` is the file, or its content."""

    def prepare(undo: contextlib.ExitStack) -> None:
        listed = {}
        for name, entry in entries.items():
            path, source = Path(f"d/{name}.so"), entry.get("source", f"{name}.so")
            path.parent.mkdir(exist_ok=True)
            path.unlink(missing_ok=True)
            if isinstance(source, bytes):
                path.write_bytes(source)
            elif source:
                os.link(base() / "native" / source, path)  # the same file each time, which is mapped once
            digest = hashlib.sha256(path.read_bytes() if source else b"").hexdigest()
            listed[f"{name}.so"] = {"kind": f"runtime_module:{name}", "sha256": digest, **entry.get("listed", {})}
        file("d/manifest.json", json.dumps({"era_id": 3, "files": listed}))(undo)

    return prepare


class Anything:
    """Has every attribute and can be called; `changes` says what such a look-up or call gives or raises instead."""

    __spec__ = None  # an import asks for it, and forgets what goes wrong there

    def __init__(self, label: str = "anything", changes: Mapping[str, Any] | None = None, **given: Any) -> None:
        self.__dict__.update(given, _label=label, _changes=changes or {})

    def _give(self, label: str) -> Any:
        if note:
            note(label)
        given = self._changes.get(label, MISSING)
        if isinstance(given, type) and issubclass(given, Exception | KeyboardInterrupt) and given is not Cancelled:
            raise given("no")
        return Anything(label, self._changes) if given is MISSING else given

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__"):
            raise AttributeError(name)
        return self._give(f"{self._label}.{name}")

    def __setattr__(self, name: str, value: object) -> None:
        self._give(f"{self._label}.{name} =")
        if note:
            note(repr(value))

    def __call__(self, *args: object, **kwargs: object) -> Any:
        if note:
            note(f"{self._label}(*{args}, **{kwargs}) while {sys.exc_info()[0]}")
        return self._give(f"{self._label}()")

    def __repr__(self) -> str:
        return str(self._label)


def raising(kind: type[BaseException], *args: object) -> Callable[..., Any]:
    def fail(*_: object, **__: object) -> None:
        raise kind(*args)

    return fail


class Cancelled(Exception):
    """What the kit raises when somebody cancels its waiting."""


class Clash(str):
    """A key that cannot be compared with the one that is looked up."""

    __hash__ = str.__hash__
    __eq__ = raising(LookupError, "compared")


USUAL = {
    "_runtime.get_runtime()": None,
    "_runtime._import_batch_runtime()": (1, 2, 3, 4),
    "sync_backoff.SyncBackoffCancelled": Cancelled,
    "manager.get_token()": "token",
    "manager.get_token_expiry()": 12.5,
    "manager.get_wallet_address()": "0xaddress",
}


def kit(changes: Mapping[str, Any] | None = None, **siblings: Any) -> Prepare:
    """The rest of the kit, its answers changed; a module that is None is missing."""

    def prepare(undo: contextlib.ExitStack) -> None:
        answers = {**USUAL, **(changes or {}), **siblings}
        for name in SIBLINGS:
            sibling = answers.get(name, Anything(name, answers))
            key, held = f"corvane.{name}", sys.modules
            undo.callback(held.update, {key: held[key]} if key in held else {})
            undo.callback(held.pop, key, None)
            held[key] = sibling
            patched(corvane, **{name: MISSING if sibling is None else sibling})(undo)

    return prepare


def runtime(**given: Any) -> Anything:
    return Anything("_runtime", USUAL, **given)


def manager(**given: Any) -> Anything:
    return Anything("manager", USUAL, **given)


def service(*failure: Any) -> Prepare:
    """A service that lets everybody in, or fails."""
    given = {"authenticate": raising(*failure)} if failure else {}
    return patched(auth, AuthManager=lambda *args, **kwargs: manager(**given))


def answer(body: bytes, status: int = 200) -> Prepare:
    """What /eras answers."""
    response = types.SimpleNamespace(status=status, read=lambda: body)
    return patched(urllib.request, urlopen=lambda *args, **kwargs: contextlib.nullcontext(response))


def chain(*links: BaseException) -> BaseException:
    for outer, inner in itertools.pairwise(links):
        outer.__cause__ = inner
    return links[0]


def usual(undo: contextlib.ExitStack) -> None:
    patched(m, _config={**DEFAULTS, "data_dir": "d"}, _auth_manager=None)(undo)
    patched(auth, _active=None)(undo)
    patched(secrets, token_hex=lambda n: "ab" * n)(undo)
    patched(sys, path=[*sys.path])(undo)
    service()(undo)
    for name in "backtester", "era_data":
        undo.callback(sys.modules.pop, name, None)


def call(name: str, *args: Any, **kwargs: Any) -> Callable[[], object]:
    return lambda: getattr(m, name)(*args, **kwargs)


def config(**options: Any) -> Prepare:
    return lambda undo: m._config.update(options)


INVITED = patched(os, environ={**os.environ, "CORVANE_INVITE_CODE": "corv-aaaa-bbbb-cccc"})
LINK = made(lambda p: p.symlink_to("victim"))
KEY_FILE = file("d/wallet.key", KEY + "\n")
BOTH = native(backtester={"source": "backtester-1.so"}, era_data={})
LOCAL = (BOTH, config(era_config={"era_id": 3, "allowed_named_universes": ["u"]}), file("d/vocabulary.json", "{}"))
KIT_FAILS = kit({"_runtime.bootstrap_runtime()": OSError})
READY = {"_runtime.get_runtime()": "ready"}
ACTIVE = {"state": "active", "named_universe": "us"}
ERA = {**ACTIVE, "signal_pools": [{"allowed_named_universes": ["us", ".."]}], "universes": [{"id": "us"}, "us"]}
ONE_ERA = answer(json.dumps({"eras": [ERA]}).encode())
MANAGER = ours(_auth_manager=manager())
LOGIN = call("login", KEY)
LOAD = call("_load_manifest_runtime_module", "d", "backtester")
IMPORT = call("_load_extension_from_path", "backtester", "d/backtester.so")
SOMEBODY_ELSES = types.SimpleNamespace(st_mode=0o100600, st_uid=12345)
READ_ONLY = ours(open=lambda path, mode, **how: {"r": open}[mode](path, mode, **how))
COPIES = tuple(file(f".corvane-runtime-x-{n}.so", "", 0o600, n) for n in range(4))
UNSAFE, NOT_WRITTEN = "raised OSError: Unsafe wallet key at ./d", "raised OSError: Cannot write wallet to ./d"
STRICT = "raised RuntimeError: Corvane "


def entry(kind: object = "runtime_module:backtester", **fields: Any) -> dict[Any, Any]:
    return {"kind": kind, **fields}


FILES: list[dict[Any, Any]] = [
    {"b/x.so": entry(), "a/y.so": entry(), "a/z.so": entry("runtime_module:other"), "c": 5, "d": entry("text")},
    {"x": entry(platform=""), "y": entry(platform=None), "z": entry(platform="else")},
    {"x": entry(platform="else"), "y": entry(platform=CURRENT_PLATFORM)},
    {"x": entry("runtime_module:vault"), "y": entry("runtime_module:era_data")},
    {"y": entry("runtime_module:vault"), "x": entry("runtime_module:era_data")},
    {"x": entry(), 5: entry()},
    {("x",): entry(), ("a",): entry(5)},
    {"y": entry("runtime_module:"), "x": {Clash("kind"): 1}},
    OrderedDict(b=entry(), a=entry("runtime_module:vault")),
]  # fmt: skip


def register(**kwargs: Any) -> Callable[[], object]:
    return call("register", **{"invite_code": "CORV-AAAA-BBBB-CCCC", **kwargs})


def manager_methods() -> object:
    local = m._LocalRuntimeSyncManager("manifest", runtime_freshness_guard=5)
    done = local.acquire(), local.release(), local.register_era_callback(1), local.unregister_era_callback(1)
    return local.get_manifest(), local.request_for_sync(), vars(local), done


def prune() -> list[str]:
    m._prune_runtime_extension_copies("x", ".corvane-runtime-x-0.so")
    return sorted(os.listdir())


# fmt: off
def rows() -> Iterator[tuple[Any, ...]]:
    """Name, what is called, what has to be in the outcome, what is there before."""
    details = chain(ValueError("a"), KeyError(), *(OSError(n) for n in range(4)))
    yield "chain", call("_exception_chain_detail", details), "'ValueError: a; caused by KeyError; caused by OSError: 0"
    yield "chain fails", call("_exception_chain_detail", Anything(__str__=1)), "returned 'Anything: anything; diagnosti"
    copy = call("_content_addressed_extension_path", "n", "x", "0123456789abcdefXX")
    yield "copy unlinked", copy, "returned", file("x"), other_os(link=raising(OSError))
    yield "prune", prune, "returned ['.corvane-runtime-x-0.so', '.corvane-runtime-x-3.so']", *COPIES
    yield "prune nothing", prune, "-x-0.so', '.corvane-runtime-x-1.so']", *COPIES[:2]
    yield "prune no directory", call("_prune_runtime_extension_copies", "x", "no/y"), "returned None"
    undeletable = other_os(unlink=raising(PermissionError))
    yield "prune undeletable", prune, "runtime-x-2.so', '.corvane-runtime-x-3.so']", *COPIES, undeletable
    yield "import again", lambda: IMPORT() is IMPORT(), "returned True", BOTH
    other = call("_load_extension_from_path", "backtester", "d/other.so")
    two = native(backtester={"source": "backtester-1.so"}, other={"source": "backtester-2.so"})
    yield "import another build", lambda: (IMPORT() is other(), sys.modules["backtester"] is other()), "(False, T", two
    text = native(backtester={"source": b"no library"})
    undone = ours(_prune_runtime_extension_copies=raising(LookupError))
    yield "import undone", IMPORT, "raised LookupError", BOTH, undone
    nothing = patched(sys.modules["importlib.util"], spec_from_file_location=lambda *args: None)
    yield "import unspecified", IMPORT, "raised RuntimeError: Could not create import spec for ./d", BOTH, nothing
    yield "manifest", call("_read_manifest", "d"), "returned namespace(era_id=3", BOTH
    yield "manifest invalid", call("_read_manifest", "d"), "raised JSONDecodeError", file("d/manifest.json", "{")
    for n, value in enumerate([None, {"files": {1: 2}}, types.SimpleNamespace(files={}), {"files": 5}]):
        yield f"manifest files {n}", call("_manifest_files", value), "returned {"
    kinds = {"b": {}, "c": {"kind": "x"}, "d": {"platform": CURRENT_PLATFORM}, "e": {"platform": "another"}}
    listed = {"a": 5, **{name: {"kind": "runtime_module:vault", **entry} for name, entry in kinds.items()}}
    entries, choose = "_runtime_module_manifest_entries", "_select_runtime_module_manifest_entry"
    yield "entries", lambda: list(getattr(m, entries)({"files": listed})), "returned [('vault', 'b',"
    yield "select", call(choose, {"files": listed}, "era_data"), "returned ('b', {"
    yield "load", LOAD, "returned <module 'backtester'", BOTH
    yield "load unlisted", call("_load_manifest_runtime_module", "d", "x"), "Incomplete: Manifest does not cont", BOTH
    absent = native(backtester={"source": ""})
    yield "load missing", LOAD, "Incomplete: Runtime module 'backtester' is missing at d/", absent
    wrong = call("_load_manifest_runtime_module", "d", "backtester", expected_sha256="5a")
    yield "load mismatch", wrong, "raised RuntimeModuleHashMismatch: Runtime module 'backtester' hash mismatch", BOTH
    yield "load fails", LOAD, "raised RuntimeModuleReloadFailed: Runtime module 'backtester' failed to load", text
    swapped = ours(_load_extension_from_path=lambda *args: None)
    yield "load unexpected", LOAD, "HashMismatch: Runtime module 'backtester' loaded with unexpected", BOTH, swapped
    yield "load all", lambda: list(m._load_runtime_modules_from_manifest("d", m._read_manifest("d"))), "['era_", BOTH
    yield "guard loads", lambda: m.create_runtime_freshness_guard("d")._load("backtester", ""), "returned <mod", BOTH
    per_era = call("_load_per_era_backtester", "d")
    yield "backtester", per_era, "; INFO Loaded per-era backtester from manifest in d", BOTH
    yield "backtester without manifest", per_era, "Incomplete: Per-era backtester runtime is required"
    yield "backtester unlisted", per_era, "Incomplete: Per-era backtester runtime is missing", native(era_data={})
    mute = type("Mute", (), {"__str__": raising(LookupError)})
    yield "refusal of no text", call("_unsafe_wallet_error", mute()), "raised LookupError"
    yield "records", lambda: (m.AuthToken("t", 1.5), m.WalletRegistration("0x") == m.WalletRegistration("0x")), "redac"
    yield "find", call("_find_heartbeat", "a/b/c"), "returned 'HEARTBEAT.md'", file("HEARTBEAT.md")
    for name, act in (("inject", call("inject_heartbeat")), ("nudge", call("update_nudge", "era_change", n=1))):
        yield name, act, "returned None", file("HEARTBEAT.md", "abc")
        yield f"{name} twice", lambda act=act: (act(), act()), "returned (None, None)", file("HEARTBEAT.md")
        yield f"{name} nowhere", act, "returned None"
        yield f"{name} opted out", act, "returned None", file("HEARTBEAT.md"), config(auto_heartbeat=False)
        yield f"{name} unreadable", act, "returned None; WARNING ", file("HEARTBEAT.md", b"\xff")
        yield f"{name} unwritable", act, "WARNING ", file("HEARTBEAT.md"), READ_ONLY
    yield "fragment", call("get_agents_md_fragment"), "returned '## Corvane Integration"
    fetch = call("_fetch_eras_payload", manager())
    yield "eras without token", call("_fetch_eras_payload", manager(get_token=str)), "could not fetch /eras without an"
    unreachable = patched(urllib.request, urlopen=raising(urllib.error.URLError, "no"))
    yield "eras unreachable", fetch, "raised RuntimeError: Registration bootstrap failed to fetch /eras.", unreachable
    for body, seen in ((b"{", "JSON"), (b"\xff", "JSON"), (b"[]", "payload")):
        yield f"eras {body!r}", fetch, f"Registration bootstrap received invalid /eras {seen}", answer(body)
    yield "eras 204", fetch, "failed to fetch /eras: HTTP 204", answer(b"", 204)
    yield "names", lambda: [m._safe_named_universe(n) for n in (None, " us ", "..", "a/b", 7, "")], "[None, 'us', None,"
    first = "_first_allowed_named_universe_from_era_config"
    yield "first name", lambda: [getattr(m, first)(c) for c in (None, ERA, ACTIVE, {})], "[None, 'us', 'us', None]"
    resolve = call("_resolve_active_named_universe", manager())
    yield "resolve configured", resolve, "returned 'mine'", config(named_universe=" mine ")
    yield "resolve active", resolve, "returned 'us'", ONE_ERA
    yield "resolve no list", resolve, "payload is missing eras list", answer(b"{}")
    none_active, no_name = b'{"eras": [5, {"state": "x"}]}', b'{"eras": [{"state": "active", "universes": {"..": 1}}]}'
    yield "resolve none active", resolve, "exactly one active era from /eras, got 0.", answer(none_active)
    yield "resolve no name", resolve, "exactly one active named universe from /eras, got 0.", answer(no_name)
    for name, act, lost in (
        ("read", call("_read_wallet_key", "d"), "raised OSError: Cannot read wallet from"),
        ("write", call("_write_wallet_key", "d", "0x" + KEY), NOT_WRITTEN),
    ):
        reading = name == "read"
        yield name, act, f"returned '{KEY}'" if reading else "returned None", KEY_FILE
        yield f"{name} loose", act, "returned", file("d/wallet.key", KEY, 0o4666)
        yield f"{name} missing", act, "returned None"
        yield f"{name} link", act, UNSAFE, LINK, file("d/victim")
        yield f"{name} dangling", act, "returned None" if reading else NOT_WRITTEN, LINK
        yield f"{name} directory", act, UNSAFE, made(Path.mkdir)
        yield f"{name} foreign", act, UNSAFE, KEY_FILE, other_os(getuid=lambda: 12345)
        no = UNSAFE if reading else NOT_WRITTEN
        yield f"{name} unopened", act, no, KEY_FILE, other_os(open=raising(OSError, 24, "full"))
        yield f"{name} a directory", act, no, KEY_FILE, other_os(fstat=lambda fd: os.stat("."))
        yield f"{name} somebody else's", act, no, KEY_FILE, other_os(fstat=lambda fd: SOMEBODY_ELSES)
        swap = ours(_check_wallet_fd=lambda path, fd: m._nothing)
        yield f"{name} checked wrongly", act, "raised AttributeError", KEY_FILE, swap
        yield f"{name} no status", act, lost, KEY_FILE, other_os(lstat=raising(OSError, 5, "bad"))
    yield "read no text", call("_read_wallet_key", "d"), "raised UnicodeDecodeError", file("d/wallet.key", b"\xff")
    yield "write no text", call("_write_wallet_key", "d", "\udc80"), "raised UnicodeEncodeError"
    yield "write no directory", call("_write_wallet_key", "d", KEY), "raised FileExistsError", file("d")
    kept = {"_manifest": "manifest", "_vocabulary": {}, "runtime_freshness_guard": 5}
    yield "sync manager", manager_methods, f"returned ('manifest', [], {kept}, (None, None, None, None))"
    for path, seen in ((None, "returned None"), ("x", "returned []"), ("bad", "raised JSONDecodeError")):
        yield f"json {path}", call("_read_json_if_present", path), seen, file("x", "[]"), file("bad", "{")
    local = call("_bootstrap_local_runtime_from_config", manager())
    yield "local without era", local, "returned None", kit(), BOTH
    yield "local without vocabulary", local, "returned None", kit(), *LOCAL[:2]
    yield "local without backtester", local, "Per-era backtester runtime is missing", kit(), *LOCAL, native(era_data={})
    yield "local without kit", local, "raised ModuleNotFoundError", kit(_runtime=None), *LOCAL
    batch = kit({"_runtime._import_batch_runtime()": (1, 2, 3)})
    yield "local without batch", local, "Runtime(); WARNING Batch runtime import failed", batch, *LOCAL
    validator = kit({"_runtime._build_graph_validator()": LookupError})
    yield "local without validator", local, "raised LookupError", validator, *LOCAL
    refusing = {"search_templates._library_runtime =": TypeError}
    unset = patched(auth, _set_active_auth_manager=raising(ValueError, "no"))
    strict, tolerant = call("_propagate_auth", manager(), strict=True), call("_propagate_auth", manager())
    refused, no_simulation = kit(refusing), kit(simulate_signal=None)
    cancelled = kit(_runtime=runtime(bootstrap_runtime=raising(Cancelled)))
    unreadable = KIT_FAILS, *LOCAL, file("d/manifest.json")
    yield "propagate", strict, "returned _runtime.bootst", kit()
    yield "propagate unset", tolerant, "returned _runtime.bootstrap_runtime(); WARNING Failed to set", unset, kit()
    yield "propagate unset strictly", strict, "auth bootstrap failed after", unset, kit()
    yield "propagate kit fails", tolerant, "DEBUG Failed to bootstrap local corvane", *unreadable
    yield "propagate kit fails, local", tolerant, "returned _runtime.LibraryRuntime(); WARNING", KIT_FAILS, *LOCAL
    yield "propagate kit fails strictly", strict, "runtime data bootstrap failed: OSError: no", KIT_FAILS, *LOCAL
    no_runtime = kit({"_runtime.bootstrap_runtime()": None})
    yield "propagate no runtime", tolerant, "private corvane runtime was not initialized", no_runtime
    yield "propagate no runtime strictly", strict, "bootstrap returned no runtime.", no_runtime
    yield "propagate refused strictly", strict, "search runtime injection failed", refused
    yield "propagate no simulation strictly", strict, "bootstrap failed: ModuleNotFoundError", no_simulation
    yield "propagate cancelled", tolerant, "raised Cancelled", cancelled
    yield "propagate no backoff", tolerant, "raised UnboundLocalError", kit(sync_backoff=None)
    ensure = "ensure_runtime_bootstrapped"
    yield "ensure nothing", call(ensure, False), "returned None"
    yield "ensure nothing strictly", call(ensure), "raised AuthError: No wallet initialized."
    yield "ensure ready", call(ensure), "returned 'ready'", MANAGER, kit(READY)
    refused = kit({**READY, **refusing})
    yield "ensure refused strictly", call(ensure), STRICT + "search runtime injection failed", MANAGER, refused
    yield "ensure new", call(ensure), "returned _runtime.", MANAGER, kit(), ONE_ERA
    yield "invite", call("_resolve_invite_code", None), "returned 'CORV-AAAA-BBBB-CCCC'", INVITED
    for name, act, started, done in (
        ("register", register(), register(bootstrap_runtime=True), "returned WalletRegistration(address='0xaddress')"),
        ("login", LOGIN, call("login", KEY, bootstrap_runtime=True), "AuthToken(token='<redacted>', expires_at=12.5)"),
    ):
        yield name, act, done, file("HEARTBEAT.md")
        yield f"{name} again", act, done, KEY_FILE, config(auto_heartbeat=False)
        yield f"{name} unset", act, f"{done}; WARNING Failed to set active auth manager: no", unset
        yield f"{name} unsafe", act, UNSAFE, LINK, file("d/victim")
        yield f"{name} unreachable", act, "raised ConnectionError: Cannot reach", service(ConnectionRefusedError, "no")
        invalid = service(auth.InvalidKeyError, "refused")
        yield f"{name} invalid", act, "raised ValueError: Invalid private key format", invalid
        yield f"{name} fails", act, "raised OSError: refused", service(OSError, "refused")
        yield f"{name} bootstrap", started, done, kit(), ONE_ERA
        yield f"{name} bootstrap fails", started, STRICT, KIT_FAILS, ONE_ERA
    taken = service(auth.RegistrationError, "used up")
    yield "register refused", register(), "raised RegistrationError: Registration failed: used up. Contact", taken
    yield "register uninvited", register(invite_code="no"), "raised ValueError: Invite code required."
    yield "login refused", LOGIN, "raised AuthError: Authentication failed. Verify", service(auth.AuthError, "refused")
    yield "configure", call("configure", auto_heartbeat=False, data_dir="e", server_url="https://x/"), "returned None"
    valid = "Unknown configuration option: 'colour'. Valid options: auto_heartbeat, data_dir, named_univ"
    yield "configure unknown", call("configure", colour=1), valid
    yield "configure type", call("configure", auto_heartbeat=1), "Option 'auto_heartbeat' expects bool, got int."
    yield "configure no https", call("configure", server_url="http://x"), "server_url must use https"
    yield "configure path", call("configure", named_universe="a/b"), "named_universe must be a single safe path seg"
# fmt: on

CALLS = {name: Call(act, expected, tuple(prepare)) for name, act, expected, *prepare in rows()}


if __name__ == "__main__":
    for name in sys.argv[1:] or CALLS:
        CALLS[name]()

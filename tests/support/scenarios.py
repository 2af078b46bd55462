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
import urllib.request
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import corvane
import corvane_local
from corvane import auth

m: Any = importlib.import_module(os.environ.get("MODULE_CALLED", "corvane.agent_onboarding"))
DEFAULTS: dict[str, Any] = dict(m._config)
KEY, CODE = "5a" * 32, "CORV-AAAA-BBBB-CCCC"
SIBLINGS = "_runtime", "sync_backoff", "search_tracking", "search_templates", "simulate_signal"
MISSING = object()
note: Callable[[str], None] | None = None  # is told what the fakes are asked for

Prepare = Callable[[contextlib.ExitStack], object]


@dataclass(frozen=True)
class Call:
    """What is called, what has to be in its outcome, what is there before; and the whole story, step by step."""

    act: Callable[[], object]
    expected: str
    prepare: tuple[Prepare, ...]
    story: tuple[str, ...] = ()

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

        def handle(record: logging.LogRecord) -> None:
            logged.append(record)
            if note:
                note(f"{record.levelname} {record.msg} {record.args}{handled()}")

        with contextlib.ExitStack() as undo:
            patched(m.logger, level=logging.DEBUG, _cache={}, handle=handle)(undo)
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


def files() -> dict[str, str]:
    """Modes and contents of what is below the working directory: where a link leads, the digest of a large file."""
    found: dict[str, str] = {}
    for path in sorted(Path().rglob("*")):
        status = path.lstat()
        content = path.read_bytes() if stat.S_ISREG(status.st_mode) else b""
        short = hashlib.sha256(content).hexdigest()[:16] if len(content) > 5000 else content
        said = os.readlink(path) if stat.S_ISLNK(status.st_mode) else short
        age = f" of {status.st_mtime_ns}" if status.st_mtime_ns < 10**12 and stat.S_ISREG(status.st_mode) else ""
        found[str(path)] = f"{status.st_mode:o} {said!r}{age}"
    return found


def say(seen: str) -> None:
    if note:
        note(seen)


def handled() -> str:
    """The exception that is being handled, for a note."""
    kind = sys.exc_info()[0]
    return f" while {kind.__name__}" if kind else ""


def spelled(label: str, args: tuple[object, ...], kwargs: Mapping[str, object]) -> str:
    """A call as it is written, for a note."""
    given = [*map(repr, args), *(f"{name}={value!r}" for name, value in kwargs.items())]
    return f"{label}({', '.join(given)}){handled()}"


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
    """An os module, for ours alone, in which these functions are others; MISSING leaves one out."""
    given = {name: value for name, value in {**vars(os), **functions}.items() if value is not MISSING}
    return ours(os=types.SimpleNamespace(**given))


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

    def _give(self, label: str, seen: str = "") -> Any:
        say(seen or label)
        given = self._changes.get(label, MISSING)
        if isinstance(given, type) and issubclass(given, Exception | KeyboardInterrupt) and given is not Cancelled:
            raise given("no")
        if isinstance(given, BaseException):
            raise type(given)(*given.args)
        return Anything(label, self._changes) if given is MISSING else given

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__"):
            raise AttributeError(name)
        return self._give(f"{self._label}.{name}")

    def __setattr__(self, name: str, value: object) -> None:
        label = f"{self._label}.{name} ="
        self._give(label, f"{label} {value!r}{handled()}" if note else "")

    def __call__(self, *args: object, **kwargs: object) -> Any:
        # Without anybody to tell it to, no text is made: calls are also made where no memory is left for one.
        return self._give(f"{self._label}()", spelled(self._label, args, kwargs) if note else "")

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


runtime = functools.partial(Anything, "_runtime", USUAL)
manager = functools.partial(Anything, "manager", USUAL)


def service(*failure: Any) -> Prepare:
    """A service that lets everybody in, or fails."""
    changes = {**USUAL, "manager.authenticate()": failure[0](*failure[1:]) if failure else None}
    return patched(auth, AuthManager=lambda *args, **kwargs: Anything("manager", changes))


def answer(body: bytes) -> Prepare:
    """What /eras answers. The HTTP library notes the request."""

    def urlopen(request: urllib.request.Request, timeout: float) -> object:
        say(f"{request.get_method()} {request.full_url} {request.headers} in {timeout} s")
        return contextlib.nullcontext(types.SimpleNamespace(read=lambda: body, status=200))

    return patched(urllib.request, urlopen=urlopen)


def chain(*links: BaseException) -> BaseException:
    for outer, inner in itertools.pairwise(links):
        outer.__cause__ = inner
    return links[0]


def usual(undo: contextlib.ExitStack) -> None:
    patched(m, _config={**DEFAULTS, "data_dir": "d"}, _auth_manager=None)(undo)
    patched(auth, _active=None)(undo)
    patched(os, environ={**os.environ, "HOME": str(base() / "work")})(undo)
    os.environ.pop("CORVANE_INVITE_CODE", None)
    patched(secrets, token_hex=lambda n: "ab" * n)(undo)
    patched(sys, path=[*sys.path])(undo)
    service()(undo)
    for name in "backtester", "era_data":
        undo.callback(sys.modules.pop, name, None)


def call(name: str, *args: Any, **kwargs: Any) -> Callable[[], object]:
    return lambda: getattr(m, name)(*args, **kwargs)


def config(**options: Any) -> Prepare:
    return lambda undo: m._config.update(options)


INVITED = lambda undo: os.environ.update(CORVANE_INVITE_CODE=CODE.lower())  # noqa: E731
LINK = made(lambda p: p.symlink_to("victim"))
KEY_FILE = file("d/wallet.key", KEY + "\n")
BOTH = native(backtester={"source": "backtester-1.so"}, era_data={})
LOCAL = (BOTH, config(era_config={"era_id": 3, "allowed_named_universes": ["u"]}), file("d/vocabulary.json", "{}"))
KIT_FAILS = kit({"_runtime.bootstrap_runtime()": OSError})
READY = {"_runtime.get_runtime()": "ready"}
ACTIVE = {"state": "active", "named_universe": "us"}
ERA = {**ACTIVE, "signal_pools": [{"allowed_named_universes": ["us", ".."]}], "universes": [{"id": "us"}, "us"]}
MANAGER = ours(_auth_manager=manager())
LOGIN = call("login", KEY)
LOAD = call("_load_manifest_runtime_module", "d", "backtester")
IMPORT = call("_load_extension_from_path", "backtester", "d/backtester.so")


def eras(*given: object) -> Prepare:
    return answer(json.dumps({"eras": given}).encode())


def entry(kind: object = "runtime_module:backtester", **fields: Any) -> dict[Any, Any]:
    return {"kind": kind, **fields}


FILES: list[dict[Any, Any]] = [
    {"b/x.so": entry(), "a/y.so": entry(), "a/z.so": entry("runtime_module:other"), "c": 5, "d": entry("text")},
    {"x": entry(), 5: entry()},
    {("x",): entry(), ("a",): entry(5)},
    {"y": entry("runtime_module:"), "x": {Clash("kind"): 1}},
]  # fmt: skip


def register(**kwargs: Any) -> Callable[[], object]:
    return call("register", **{"invite_code": CODE, **kwargs})


ON_DISK = {"era_config": {"era_id": 3, "signal_pools": [{"allowed_named_universes": ["u"]}]}}
VOCABULARY, MANIFEST = "d/features/u/vocabulary.json", "d/manifest.json"
RAW = types.SimpleNamespace(_corvane_module_sha256="5a")
CONTENTS: dict[str, Any] = {VOCABULARY: '{"era_id": "7"}', MANIFEST: '{"files": {"x": {}}}'}


def on_disk(files: Mapping[str, Any] | None = None, modules: Any = MISSING, **options: Any) -> tuple[Prepare, ...]:
    """Configuration and files of a data directory that is complete but for what is changed."""
    there = [file(name, text) for name, text in {**CONTENTS, **(files or {})}.items() if text is not None]
    modules = {"backtester": RAW, "era_data": "data"} if modules is MISSING else modules
    loader = Anything("load_modules", {"load_modules()": modules})
    guard = Anything("guard", {"guard()": Anything("guard")})
    seams = ours(create_runtime_freshness_guard=guard, _load_runtime_modules_from_manifest=loader)
    return config(**{**ON_DISK, **options}), *there, seams


def __getattr__(name: str) -> Any:
    """The table, CALLS, needs what is above, and is read when it is asked for."""
    if name != "CALLS":
        raise AttributeError(name)
    return importlib.import_module("support.promises").CALLS


if __name__ == "__main__":
    table: dict[str, Call] = importlib.import_module("support.promises").CALLS
    for name in sys.argv[1:] or table:
        table[name]()

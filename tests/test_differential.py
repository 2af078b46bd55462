"""Each function beside its Python twin: on ordinary days, on bad input, and with every step failing in turn."""

import itertools
import os
import socket
from pathlib import Path

import pytest

from differential import FakeAuth, Tap, describe_exception, same

KEY = "0x" + "5a" * 32


# -- What lies there before the call: functions of the working directory


def put(make):
    return lambda work: ((work / "d").mkdir(), make(work / "d/wallet.key"))


def put_key(content=b"abc\n", mode=0o600):
    return put(lambda path: (path.write_bytes(content), path.chmod(mode)))


def heartbeat(content):
    return lambda work: (work / "HEARTBEAT.md").write_bytes(content)


def nothing(work):
    pass


def link_to_victim(path):
    path.with_name("victim").write_text("secret")
    path.symlink_to("victim")


def bind_socket(path):
    with socket.socket(socket.AF_UNIX) as s:
        s.bind(os.path.relpath(path))


# -- What is called: functions of the module


def call(name, *args, **kwargs):
    return lambda m: getattr(m, name)(*args, **kwargs)


def register(**kwargs):
    return call("register", data_dir="d", **kwargs)


# -- What is passed


class Text(str):
    pass


class Awkward:
    """A value whose every use raises."""

    def __str__(self):
        raise LookupError("no text")

    __bool__ = __eq__ = __fspath__ = __str__
    __hash__ = None


KEY_FILES = {
    "none": nothing,
    "key": put_key(),
    **{f"mode {mode:o}": put_key(mode=mode) for mode in (0, 0o400, 0o644, 0o666, 0o4755, 0o1600)},
    "not utf-8": put_key(b"\xff\xfe"),
    "longer": put_key(b"x" * 200),
    "link": put(link_to_victim),
    "dangling": put(lambda p: p.symlink_to("nowhere")),
    "loop": put(lambda p: p.symlink_to("wallet.key")),
    "directory": put(Path.mkdir),
    "fifo": put(os.mkfifo),
    "socket": put(bind_socket),
    "foreign": put(lambda p: (p.write_text("k"), os.chown(p, 65534, 65534))),
    "file for a directory": lambda w: (w / "d").write_text("not a directory"),
}
HEARTBEATS = b"", b"abc", b"abc\n", b"a\r\nb\rc", b"x ## [Corvane] y", b"\xff", b"- [ ] [Corvane] old", b"\0\n"
PATHS = None, "", "d", Path("d"), Text("d"), b"d", 5, "d\0", "\udc80", "~/x", "~nobody-there/x", Awkward()
NUDGES = "first_signal", "10_signals", "unknown", Text("era_change"), 5, None, [], Awkward()
UNIVERSES = " us ", "", " \t", ".", "..", "a/b", "a\\b", "a\0b", "a.b", Text(" t "), "\udc80"
OPTIONS = [
    *({}, {"colour": 1}, {"auto_heartbeat": False, "colour": 1}, {"auto_heartbeat": 1}, {"auto_heartbeat": Awkward()}),
    *({"data_dir": value} for value in (5, "", " ", Text("d"))),
    *({"server_url": "https://x//"}, {"server_url": None}, {Text("data_dir"): "e"}, {"\udc80": 1}),
    *({"named_universe": name} for name in UNIVERSES),
]


def scenarios():
    for kind, prepare in KEY_FILES.items():
        yield f"read {kind}", prepare, call("_read_wallet_key", "d")
        yield f"write {kind}", prepare, call("_write_wallet_key", "d", KEY)
        yield f"register {kind}", prepare, register(invite_code="code")
    for key in (None, "", "abc", "0Xab", Text("ab"), b"ab", 7, "a\udc80", "x" * 100_000, Awkward()):
        yield f"login {key!r:.20}", nothing, call("login", key)
        yield f"normalize {key!r:.20}", nothing, call("_normalize_key", key)
    for path in PATHS:
        for name in ("_canonical_data_dir", "_wallet_key_path", "_unsafe_wallet_error", "_find_heartbeat"):
            yield f"{name} {type(path)} {path!r:.9}", nothing, call(name, path)
        yield f"inject {type(path)} {path!r:.9}", heartbeat(b""), call("inject_heartbeat", path)
        yield f"register in {type(path)} {path!r:.9}", nothing, call("register", data_dir=path)
    for code in (None, "", "c", 5):
        yield f"invite {code}", nothing, register(invite_code=code)
    for content in HEARTBEATS:
        yield f"inject {content}", heartbeat(content), lambda m: (m.inject_heartbeat("."), m.inject_heartbeat())
        yield f"nudge {content}", heartbeat(content), lambda m: [m.update_nudge("first_signal", n=1) for _ in "ab"]
    for trigger in NUDGES:
        yield f"nudge {trigger!r:.20}", heartbeat(b"x"), call("update_nudge", trigger)
    for depth in ("a", "a/b/c", "a/b/c/d", "a/b/c/", ".", "/", "a/b/c/d/e"):
        yield f"find {depth}", heartbeat(b""), call("_find_heartbeat", depth)
        yield f"find below {depth}", heartbeat(b""), lambda m, d=depth: m._find_heartbeat(os.path.abspath(d))
    yield "a directory", lambda w: (w / "HEARTBEAT.md").mkdir(), call("inject_heartbeat")
    for options in OPTIONS:
        yield f"configure {options}", nothing, call("configure", **options)
    for act in (call("inject_heartbeat"), call("update_nudge", "first_signal")):
        yield "opted out", heartbeat(b""), lambda m, act=act: (m.configure(auto_heartbeat=False), act(m))
    yield "bootstrap", nothing, register(invite_code="c", bootstrap_runtime=True)
    yield "bootstrap in a universe", nothing, lambda m: (m.configure(named_universe="u"), m.register("c", "d", True))
    yield "login bootstrap", nothing, call("login", "ab", bootstrap_runtime=True)
    yield "fragment", nothing, call("get_agents_md_fragment")


@pytest.mark.parametrize(("prepare", "act"), [pytest.param(p, a, id=i) for i, p, a in scenarios()])
def test_same_as_python(prepare, act, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        prepare(work)
        return act(module)

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["descriptors"] == 0


STEPWISE = {
    "read": (put_key(mode=0o644), call("_read_wallet_key", "d")),
    "write": (put_key(), call("_write_wallet_key", "d", KEY)),
    "register": (heartbeat(b"x"), register(invite_code="c")),
    "register again": (put_key(), register()),
    "login": (nothing, call("login", KEY)),
    "nudge": (heartbeat(b"x"), call("update_nudge", "first_signal")),
    "configure": (nothing, call("configure", server_url="https://x/", data_dir="e")),
}


@pytest.mark.parametrize("failure", [PermissionError, FakeAuth.AuthError, AttributeError, KeyboardInterrupt])
@pytest.mark.parametrize("name", STEPWISE)
def test_each_step_fails_in_turn(name, failure, tmp_path, monkeypatch):
    prepare, act = STEPWISE[name]

    def scenario(module, work, patch, events):
        prepare(work)
        return act(module)

    _, steps = same(scenario, tmp_path, monkeypatch)
    assert steps >= 2
    for step in range(1, steps + 1):
        same(scenario, tmp_path, monkeypatch, fail_at=step, failure=failure)


FAILURES = [
    (ConnectionRefusedError, 111, "refused"),
    (FakeAuth.RegistrationError, "used", 2),
    (FakeAuth.InvalidKeyError, "bad"),
    (FakeAuth.AuthError,),
    (OSError, 5, "x"),
    (KeyboardInterrupt,),
]


@pytest.mark.parametrize("failure", FAILURES, ids=repr)
@pytest.mark.parametrize("deleted", [None, "ConnectionError", "AuthError", "InvalidKeyError", "RegistrationError"])
@pytest.mark.parametrize("act", [register(invite_code="c"), call("login", KEY)], ids=["register", "login"])
def test_service_errors(act, failure, deleted, tmp_path, monkeypatch):
    """Except clauses look their class up when they are tried; inside, the caught exception is the one handled."""

    def scenario(module, work, patch, events):
        fake = FakeAuth(events, failure)
        if deleted == "ConnectionError":
            patch.setattr(module, deleted, "not a class", raising=False)
        elif deleted:
            fake.__dict__[deleted] = (ValueError, OSError) if deleted == "AuthError" else None
        patch.setattr(module, "auth", Tap(fake, "auth", events))
        try:
            raise LookupError("outer")
        except LookupError:
            return act(module)

    same(scenario, tmp_path, monkeypatch)


CALLED = ("register", "login", "inject_heartbeat", "configure")
PATCHED = """
    _read_wallet_key _write_wallet_key _canonical_data_dir _unsafe_wallet_error _normalize_key inject_heartbeat
    WalletRegistration open isinstance OSError Exception hasattr sorted _config _VALID_OPTIONS logger _find_heartbeat
    _check_wallet_fd secrets IOError"""


@pytest.mark.parametrize("name", PATCHED.split())
@pytest.mark.parametrize("replacement", ["deleted", None, "text", ValueError, lambda *a, **k: "patched"], ids=repr)
def test_patched_names(name, replacement, tmp_path, monkeypatch):
    """The module's namespace is the seam: a replaced name is used, a deleted one is a NameError."""

    def scenario(module, work, patch, events):
        heartbeat(b"\xff")(work)
        register, login, inject, configure = (getattr(module, n) for n in CALLED)
        results = []
        with patch.context() as narrower:
            if replacement != "deleted":
                narrower.setattr(module, name, replacement, raising=False)
            elif name in vars(module):
                narrower.delattr(module, name)
            for act in (
                lambda: register("c", "e"),
                lambda: put(link_to_victim)(work),
                lambda: register("c", "d"),
                lambda: login(KEY),
                inject,
                lambda: configure(x=1),
            ):
                try:
                    results.append(act())
                except Exception as exc:
                    results.append(describe_exception(exc))
        return results

    same(scenario, tmp_path, monkeypatch)


def test_exception_chain_detail(tmp_path, monkeypatch):
    def chain(*links):
        for outer, inner in itertools.pairwise(links):
            outer.__cause__ = inner
        return links[0]

    def with_detail(detail):
        exc = OSError("write failed")
        exc.diagnostic_detail = detail
        return exc

    class Failing(Exception):
        def __str__(self):
            raise RuntimeError("no text")

        @property
        def diagnostic_detail(self):
            raise KeyError("no detail")

    loop = chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    values = [
        None, ValueError(), ValueError("  x \n"), chain(*map(ValueError, "abcdef")), with_detail("disk full"),
        chain(*map(ValueError, "aabbccdd")), with_detail(""), with_detail(5), loop, Failing(), "no exception",
        Awkward(), chain(*[ValueError("same") for _ in range(2000)]),
    ]  # fmt: skip
    for value in values:
        same(lambda m, *_, v=value: m._exception_chain_detail(v), tmp_path, monkeypatch)


class Swallowing:
    """A file whose reading fails and whose `__exit__` swallows that."""

    __enter__ = lambda self: self  # noqa: E731
    __exit__ = lambda self, *exc: True  # noqa: E731

    def read(self):
        raise ValueError("swallowed")


def test_swallowed_exceptions(tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        heartbeat(b"")(work), put_key()(work)
        patch.setattr(module, "open", lambda *args, **kwargs: Swallowing(), raising=False)
        patch.setattr(os, "fdopen", lambda fd, mode: os.close(fd) or Swallowing())
        return module._read_wallet_key("d"), module.update_nudge("first_signal"), module.inject_heartbeat()

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"]["type"] is UnboundLocalError


class NoExit:
    __enter__ = dict


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

    return other_open


SELDOM = {
    **{f"interrupted {mode}": ({"open": interrupted(mode)}, call("inject_heartbeat")) for mode in "rw"},
    "a file without exit": ({"open": lambda *args, **kwargs: NoExit()}, call("inject_heartbeat")),
    "a file that is not bound": ({"open": lambda *args, **kwargs: NotBound()}, call("inject_heartbeat")),
    "a class is raised": ({"_unsafe_wallet_error": lambda path: OSError}, call("_read_wallet_key", "d")),
    "a class without instances": ({"_unsafe_wallet_error": lambda path: NoInstance}, call("_read_wallet_key", "d")),
}  # fmt: skip


@pytest.mark.parametrize("name", SELDOM)
def test_seldom_ways(name, tmp_path, monkeypatch):
    replaced, act = SELDOM[name]

    def scenario(module, work, patch, events):
        heartbeat(b"x")(work), put(link_to_victim)(work)
        for name, value in replaced.items():
            patch.setattr(module, name, value, raising=False)
        return act(module)

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"] or seen["logged"]


def test_foreign_once_it_is_open(tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        put_key()(work)
        plain = os.stat("d/wallet.key")
        patch.setattr(os, "fstat", lambda fd: os.stat_result((*plain[:4], plain.st_uid + 1, *plain[5:])))
        return module._read_wallet_key("d")

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert "unsafe ownership" in seen["raised"]["text"] and seen["descriptors"] == 0


def test_inside_generators_and_handlers(tmp_path, monkeypatch):
    """The implicit context is the exception handled where the call is made, also inside a generator."""

    def scenario(module, work, patch, events):
        put(link_to_victim)(work)

        def generator():
            try:
                raise KeyError("in the generator")
            except KeyError:
                yield module._read_wallet_key("d")

        try:
            raise ValueError("outside")
        except ValueError:
            return next(generator())

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"]["context"]["type"] is KeyError

"""What each function promises: one table, which support/scenarios.py has the fixtures for."""

import hashlib
import importlib
import io
import os
import re
import sys
import types
import urllib.error
from pathlib import Path

import corvane_local
from corvane import auth
from corvane.sync import CURRENT_PLATFORM
from support import scenarios
from support.scenarios import *  # noqa: F403

# ruff: noqa: F405, B023  each name is one of the fixtures; a row is made and used at once
CHECKLIST = m._HEARTBEAT_STATIC_SECTION.encode()
NUDGE = m._NUDGE_TEXTS["era_change"].encode() + b"\n"
NATIVE = Path(corvane_local.__path__[0]) / "native_modules"


def digest(name):
    return hashlib.sha256((NATIVE / name).read_bytes()).hexdigest()


# How a story says it.
K = "./d/wallet.key"
MADE, LSTAT = "os.makedirs('./d', exist_ok=True)", f"os.lstat('{K}')"
FSTAT, FCHMOD = "os.fstat(fd)", "os.fchmod(fd, 384)"
READ_FLAGS, WRITE_FLAGS = os.O_RDONLY | os.O_NOFOLLOW, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_NOFOLLOW
OPEN_READ, OPEN_WRITE = f"os.open('{K}', {READ_FLAGS})", f"os.open('{K}', {WRITE_FLAGS}, 384)"
CLOSE, CHMOD = "os.close(fd)", f"os.chmod('{K}', 384)"
UNSAFE = f"OSError: Unsafe wallet key at {K}. Refusing to use wallet.key with unsafe ownership, type, or permissions."
NOT_READ = f"OSError: Cannot read wallet from {K}. Check file permissions."
NOT_WRITTEN = f"OSError: Cannot write wallet to {K}. Check directory permissions."
NEW_DIRECTORY = "d: 40755 b''"
NO_TEXT = "UnicodeDecodeError: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte"
NO_JSON = "JSONDecodeError: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"
READING = "open('./HEARTBEAT.md', 'r', encoding='utf-8')"
WRITING = "open('./HEARTBEAT.md', 'w', encoding='utf-8')"
REQUEST = "GET https://api.corvane.example/eras {'Authorization': 'Bearer token'} in 15 s"
ETAG = "manager.get_token()", REQUEST
NO_CODE = (
    "raised ValueError: Invite code required. Pass --invite-code, set CORVANE_INVITE_CODE, or call "
    "register(invite_code=...)."
)
INVALID = "raised ValueError: Invalid private key format. Expected hex string (64 characters) or 32 bytes."
UNREACHABLE = "raised ConnectionError: Cannot reach Corvane server. Check your network connection and try again."
SERVER, CODE = DEFAULTS["server_url"], "CORV-AAAA-BBBB-CCCC"
D1, D2, ERA_DATA = digest("backtester-1.so"), digest("backtester-2.so"), digest("era_data.so")


def saved(key):
    """From the opened file to the last change of its mode."""
    return OPEN_WRITE, FSTAT, FCHMOD, f"os.write(fd, {key.encode()!r})", CLOSE, CHMOD


def left(key, age="", mode="600"):
    return f"d/wallet.key: 100{mode} {key.encode() if isinstance(key, str) else key!r}{age}"


def checklist(content):
    return f"HEARTBEAT.md: 100600 {content!r}"


def copied(name, content, source=""):
    """A loaded module: its copy, and what the module table holds."""
    source = source or f"{name}.so"
    copy = f"d/.corvane-runtime-{name}-{content[:16]}.so"
    mode = (NATIVE / {D1: "backtester-1.so", D2: "backtester-2.so", ERA_DATA: "era_data.so"}[content]).stat().st_mode
    return f"{copy}: {mode:o} '{content[:16]}'", f"loaded {name}: ['./{copy}', '{content}', './d/{source}']"


def linked(name, content):
    """A file is hashed, and linked under the name of its content."""
    return f"open('d/{name}.so', 'rb')", f"os.link('d/{name}.so', './d/.corvane-runtime-{name}-{content[:16]}.so')"


def loaded(name, content):
    """A file is hashed, and hashed again for its import."""
    return linked(name, content)[:1] + linked(name, content)


def module(name, content):
    return f"<module '{name}' from './d/.corvane-runtime-{name}-{content[:16]}.so'>"


def refused(kind, message, cause="", **attributes):
    return f"raised RuntimeModule{kind}: {message}" + (f" {attributes}" if attributes else "") + cause


def manager_methods():
    local = scenarios.m._LocalRuntimeSyncManager("manifest", runtime_freshness_guard=5)
    done = local.acquire(), local.release(), local.register_era_callback(1), local.unregister_era_callback(1)
    return local.get_manifest(), local.request_for_sync(), vars(local), done


def fresh_lists():
    local = scenarios.m._LocalRuntimeSyncManager(1)
    local.request_for_sync().append(1)
    return local.request_for_sync(), local.runtime_freshness_guard


class Fresh(Exception):
    """Has a new cause each time it is asked; the text changes after fifty of the same."""

    @property
    def __cause__(self):
        return Fresh(self.args[0] + 1)

    def __str__(self):
        return str(self.args[0] // 50)


class Chunks(io.BytesIO):
    """A file that notes how it is read."""

    def read(self, size=-1):
        say(f"read({size})")
        return super().read(size)


# fmt: off
def details():
    loop = chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    disk, silent = OSError("write failed"), OSError("x")
    disk.diagnostic_detail, silent.diagnostic_detail = "disk full", ""
    implicit = ValueError("a")
    implicit.__context__ = KeyError("b")
    for name, exc, seen in (
        ("nothing is nothing", None, ""),
        ("a link without text is its class", ValueError(), "ValueError"),
        ("blanks around a text go", ValueError(" x\n"), "ValueError: x"),
        ("causes follow", chain(ValueError("x"), KeyError()), "ValueError: x > KeyError"),
        ("a context is no cause", implicit, "ValueError: a"),
        ("a diagnosis follows its link", disk, "OSError: write failed; diagnostic: disk full"),
        ("an empty diagnosis is none", silent, "OSError: x"),
        ("anything is described", types.SimpleNamespace(diagnostic_detail=5),
         "SimpleNamespace: namespace(diagnostic_detail=5); diagnostic: 5"),
        ("four links at most", chain(*map(OSError, range(6))), "OSError: 0 > OSError: 1 > OSError: 2 > OSError: 3"),
        ("a repeated link is told once", chain(*map(OSError, "aabbc")), "OSError: a > OSError: b > OSError: c"),
        ("a long repetition is walked", chain(*map(OSError, "a" * 2000 + "b")), "OSError: a > OSError: b"),
        ("a loop ends", loop, "ValueError: a > KeyError: 'b'"),
        ("a new cause each time is walked", Fresh(0), "Fresh: 0 > Fresh: 1 > Fresh: 2 > Fresh: 3"),
    ):
        told = seen.replace(" > ", "; caused by ")
        yield f"details: {name}", call("_exception_chain_detail", exc), f"returned {told!r}"


def copies():
    """Digests, copies and pruning."""
    sha = "_sha256_file"
    empty = f"returned '{hashlib.sha256().hexdigest()}'"
    yield "digest: an empty file", call(sha, "x"), ("open('x', 'rb')", empty), file("x")
    million = ours(open=lambda path, mode: Chunks(bytes(2**20)))
    of_million = f"returned '{hashlib.sha256(bytes(2**20)).hexdigest()}'"
    yield "digest: read by 1 MiB until nothing comes", call(sha, "x"), (*2 * ["read(1048576)"], of_million), million
    copy = "_content_addressed_extension_path"
    made_copy = call(copy, "n", "d/x.pyd", "0123456789abcdefXX")
    name, source = "d/.corvane-runtime-n-0123456789abcdef.so", file("d/x.pyd", "abc", 0o640, 7)
    link, back, copied_file = f"os.link('d/x.pyd', './{name}')", f"returned './{name}'", f"{name}: 100640 b'abc' of 7"
    yield "copy: a link where that is possible", made_copy, (link, back, copied_file), source
    unlinked = other_os(link=raising(OSError))
    yield "copy: keeps mode and modification time", made_copy, (link, back, copied_file), source, unlinked
    yield "copy: is trusted by its name", made_copy, back, source, file(name, "other")
    symbolic = made(lambda p: p.symlink_to("d/x.pyd"), "link")
    at_target = f"os.link('link', './{name}')", back, copied_file
    yield "copy: beside what a link leads to", call(copy, "n", "link", "0123456789abcdef"), at_target, source, \
        symbolic, other_os(link=lambda a, b: os.link(os.path.realpath(a), b))

    def old(name, age):
        return file(f"d/.corvane-runtime-{name}", "", 0o600, age)

    def without(*names):
        unlinks = [f"os.unlink('./d/.corvane-runtime-x-{name}')" for name in names]
        return *unlinks, "returned None", *(f"d/.corvane-runtime-x-{name}: gone" for name in names)

    def pruned(keep, **how):
        return call("_prune_runtime_extension_copies", "x", f"d/.corvane-runtime-x-{keep}.so", **how)

    ordered = other_os(listdir=lambda path: sorted(os.listdir(path)))
    four = [old(f"x-{name}.so", age) for name, age in zip("abcd", (3, 2, 1, 0), strict=True)]
    yield "prune: the kept and the newest stay", pruned("d"), without("b.so", "c.so"), *four, ordered
    yield "prune: two stay when the newest is kept", pruned("a"), without("c.so", "d.so"), *four, ordered
    yield "prune: as many as said stay", pruned("d", max_copies=1), without("a.so", "b.so", "c.so"), *four, ordered
    yield "prune: two are not too many", pruned("b"), "returned None", *four[:2]
    same_age = [old(f"x-{name}.so", 5) for name in "abcd"]
    yield "prune: of one age the first listed stays", pruned("c"), without("b.so", "d.so"), *same_age, ordered
    others = old("x-e.txt", 0), old("y-f.so", 0), old("xx-g.so", 0), old("x-beta-h.so", 0)
    yield "prune: other names stay", pruned("a"), without("beta-h.so"), *four[:2], *others, ordered
    dangling = made(lambda p: p.symlink_to("nowhere"), "d/.corvane-runtime-x-z.so")
    yield "prune: what has no status stays", pruned("a"), "returned None", *four[:2], dangling
    refusing = other_os(listdir=lambda path: sorted(os.listdir(path)), unlink=raising(PermissionError))
    yield "prune: what cannot be deleted stays", pruned("a"), without("c.so", "d.so")[:3], *four, refusing
    yield "prune: a directory that cannot be listed", pruned("a"), "returned None"


def imports():
    """The import of a native module from its copy."""
    fresh = (f"returned {module('backtester', D1)}", *copied("backtester", D1))
    steps, copy = linked("backtester", D1), f"./d/.corvane-runtime-backtester-{D1[:16]}.so"

    def present(**marks):
        return lambda undo: sys.modules.update(backtester=types.SimpleNamespace(**marks))

    here = lambda: str(base() / "work" / copy[2:])  # noqa: E731
    yield "import", IMPORT, (*steps, *fresh), BOTH
    yield "import: the same build is returned as it is", lambda: IMPORT() is IMPORT(), (*steps, steps[0],
        "returned True", *fresh[1:]), BOTH
    is_other = lambda undo: present(__file__=here(), _corvane_module_sha256="other")(undo)  # noqa: E731
    yield "import: the same file with another digest is another build", IMPORT, (*steps, *fresh), BOTH, is_other
    moved = present(__file__="elsewhere", _corvane_module_sha256=D1)
    yield "import: another file with the same digest is another build", IMPORT, (*steps, *fresh), BOTH, moved
    yield "import: what was imported otherwise is replaced", IMPORT, (*steps, *fresh), BOTH, present()
    other = call("_load_extension_from_path", "backtester", "d/other.so")
    two = native(backtester={"source": "backtester-1.so"}, other={"source": "backtester-2.so"})
    second = "open('d/other.so', 'rb')", linked("backtester", D2)[1].replace("d/backtester.so", "d/other.so")
    copy_2, held = copied("backtester", D2, "other.so")
    both = lambda: (IMPORT() is other(), len(os.listdir("d")))  # noqa: E731
    yield "import: another build replaces it", both, (*steps, *second, "returned (False, 5)", *sorted([fresh[1],
        copy_2]), held), two
    fails = ours(_prune_runtime_extension_copies=raising(LookupError, "no"))
    yield "import: a failure takes the module out again", IMPORT, (*steps, "raised LookupError: no", fresh[1]), BOTH, \
        fails
    yield "import: a failure puts the old module back", IMPORT, (*steps, "raised LookupError: no", fresh[1]), BOTH, \
        present(), fails
    no_spec = f"raised RuntimeError: Could not create import spec for {copy}"
    for what, found in ("that nothing can import", None), ("without a loader", types.SimpleNamespace(loader=None)):
        unknown = patched(sys.modules["importlib.util"], spec_from_file_location=lambda *args, found=found: found)
        yield f"import: a file {what} is refused", IMPORT, (*steps, no_spec, fresh[1]), BOTH, unknown

    class Loader:
        create_module = staticmethod(lambda spec: None)
        exec_module = staticmethod(lambda made: say(f"executed({made is sys.modules['backtester']})"))

    def specified(name, path):
        say(f"specified({name}, {path})")
        return importlib.machinery.ModuleSpec(name, Loader())

    in_table = patched(sys.modules["importlib.util"], spec_from_file_location=specified)
    executed = f"specified(backtester, {copy})", "executed(True)"
    mark = f"loaded backtester: [None, '{D1}', './d/backtester.so']"
    yield "import: a module is registered before it is executed", IMPORT, (*steps, *executed, "returned <module "
        "'backtester' (<support.promises.imports.<locals>.Loader object>)>", fresh[1], mark), BOTH, in_table


def manifests():
    read = call("_read_manifest", "d")
    opened = "open('d/manifest.json', 'r', encoding='utf-8')"

    def manifest(text):
        return file("d/manifest.json", text)

    full = '{"era_id": [1], "version": 2, "files": {"a": {}}, "more": 1}'
    yield "manifest", read, (opened, "returned namespace(era_id=[1], version=2, files={'a': {}})"), manifest(full)
    nothing = opened, "returned namespace(era_id=None, version=None, files={})"
    yield "manifest: all is optional", read, nothing, manifest("{}")
    of_five = opened, "returned namespace(era_id=None, version=None, files=5)"
    yield "manifest: files of any type", read, of_five, manifest('{"files": 5}')
    yield "manifest: missing", read, refused("DownloadIncomplete", "Runtime manifest is missing at d/manifest.json.",
        relative_path="manifest.json")
    for what, text, seen in (
        ("not JSON", "{", NO_JSON), ("not UTF-8", b"\xff", NO_TEXT),
        ("not an object", "[]", "AttributeError: 'list' object has no attribute 'get'"),
    ):
        yield f"manifest: {what}", read, (opened, f"raised {seen}"), manifest(text)
    files_of = "_manifest_files"
    for what, value, found in (
        ("nothing", None, {}), ("a mapping", {"files": {1: 2}}, {1: 2}), ("a mapping without", {}, {}),
        ("a record", types.SimpleNamespace(files={3: 4}), {3: 4}), ("any other object", 5, {}),
        ("files that are no mapping", {"files": [5]}, {}),
    ):
        yield f"files: of {what}", call(files_of, value), f"returned {found}"
    other = entry("runtime_module:other")
    for what, listed, names in (
        ("in the order of their paths", {"b/x": entry(), "a/y": other}, ["other a/y", "backtester b/x"]),
        ("no other kinds", {"a": 5, "b": entry("text"), "c": {}, "d": entry()}, ["backtester d"]),
        ("of any platform, of none and of this one", {"x": entry(platform=""), "y": entry(platform=None), "z": entry(
            platform=CURRENT_PLATFORM)}, ["backtester x", "backtester y", "backtester z"]),
        ("not of another platform", {"x": entry(platform="else"), "y": other}, ["other y"]),
    ):
        act = lambda listed=listed: [f"{n} {p}" for n, p, e in entries(listed) if e is listed[p]]  # noqa: E731
        yield f"entries: {what}", act, f"returned {names}"
    text_of_kind = ours(is_runtime_module_kind=lambda kind: kind == "5", runtime_module_name_from_kind="<{}>".format)
    yield "entries: a kind is taken as text", lambda: [*entries({"a": entry(5)})], "returned [('<5>', 'a', {'kind': " \
        "5})]", text_of_kind
    nameless = ours(runtime_module_name_from_kind=lambda kind: "")
    yield "entries: a kind without a name is skipped", lambda: [*entries({"a": entry()})], "returned []", nameless

    def changed():
        listed = {"a": entry(), "b": entry()}
        rest = entries(listed)
        first = next(rest)
        listed.clear()
        listed["c"] = entry()
        return first[1], [path for _, path, _ in rest]

    yield "entries: what changes in between is not seen", changed, "returned ('a', ['b'])"
    vault, data = entry("runtime_module:vault"), entry("runtime_module:era_data")
    for what, wanted, listed, found in (
        ("the first by path", "backtester", {"b": entry(), "a": entry(x=1)}, ("a", entry(x=1))),
        ("era_data may be a vault", "era_data", {"a": vault, "b": data}, ("a", vault)),
        ("era_data that comes first", "era_data", {"b": vault, "a": data}, ("a", data)),
        ("a vault is no era_data", "vault", {"a": data}, (None, None)),
        ("none", "absent", {"a": data}, (None, None)),
    ):
        select = call("_select_runtime_module_manifest_entry", {"files": listed}, wanted)
        yield f"select: {what}", select, f"returned {found}"


def entries(listed):
    yield from scenarios.m._runtime_module_manifest_entries({"files": listed})


def loading():
    """A module whose manifest entry has a SHA-256 is loaded only after its bytes were found to have it."""
    opened, first = "open('d/manifest.json', 'r', encoding='utf-8')", "sys.path[0]: './d'"
    copy, held = copied("backtester", D1)
    done = (*loaded("backtester", D1), f"returned {module('backtester', D1)}")
    known = {"module_name": "backtester", "relative_path": "backtester.so"}
    path = "d/backtester.so"

    def expecting(digest, **listed):
        load = call("_load_manifest_runtime_module", "d", "backtester", expected_sha256=digest)
        return load, native(backtester={"source": "backtester-1.so", "listed": listed})

    def mismatch(expected, **more):
        text = f"Runtime module 'backtester' hash mismatch at {path}: expected {expected}, got {D1}."
        return refused("HashMismatch", text, **known, expected_sha256=expected, actual_sha256=D1)

    result = copy, held, first
    yield "load", LOAD, (opened, *done, *result), BOTH
    again = lambda undo: sys.path.append(str(base() / "work/d"))  # noqa: E731
    yield "load: a directory that is on sys.path is not added again", LOAD, (opened, *done, *result[:2]), BOTH, again
    home = made(lambda p: p.symlink_to("d"), ".corvane")
    for what in (None, ""):
        default = call("_load_manifest_runtime_module", what, "x", manifest={})
        yield f"load: {what!r} is the default directory", default, (refused("DownloadIncomplete", "Manifest does not "
            "contain a runtime module for 'x'.", module_name="x"), first), BOTH, home
    load, listed = expecting(D1, sha256="other")
    yield "load: the expected digest goes before the listed one", load, (opened, *done, *result), listed
    load, listed = expecting("5a", sha256=D1)
    read = opened, done[0]
    yield "load: a file without the expected digest is not loaded", load, (*read, mismatch("5a"), first), listed
    load, listed = expecting("", sha256=D1.upper())
    yield "load: digests are compared exactly", load, (*read, mismatch(D1.upper()), first), listed
    load, listed = expecting(None, sha256=None)
    yield "load: without a digest there is no check", load, (opened, *done, *result), listed
    unlisted = refused("DownloadIncomplete", "Manifest does not contain a runtime module for 'x'.", module_name="x",
        expected_sha256="5a")
    yield "load: unlisted", call("_load_manifest_runtime_module", "d", "x", expected_sha256="5a"), (opened, unlisted,
        first), BOTH
    none = hashlib.sha256().hexdigest()
    absent = refused("DownloadIncomplete", f"Runtime module 'backtester' is missing at {path}.", **known,
        expected_sha256=none)
    yield "load: missing", LOAD, (opened, absent, first), native(backtester={"source": ""})
    text, bad = native(backtester={"source": b"no library"}), hashlib.sha256(b"no library").hexdigest()
    bad_copy = f"d/.corvane-runtime-backtester-{bad[:16]}.so"
    short = f"./{bad_copy}: file too short"
    fails = refused("ReloadFailed", f"Runtime module 'backtester' failed to load from {path}: {short}",
        f" from [ImportError: {short}]", **known, expected_sha256=bad, actual_sha256=bad)
    tried = f"os.link('{path}', './{bad_copy}')", fails, f"{bad_copy}: 100644 b'no library'"
    yield "load: no library", LOAD, (opened, *2 * [done[0]], *tried, first), text
    failing = ours(_load_extension_from_path=raising(LookupError, "broken"))
    cause = " from [LookupError: broken]"
    fails = refused("ReloadFailed", f"Runtime module 'backtester' failed to load from {path}: broken", cause, **known,
        expected_sha256=D1, actual_sha256=D1)
    yield "load: a failed import is the cause", LOAD, (*read, fails, first), BOTH, failing
    for what, stamp in (("another digest", "5a"), ("no digest", None)):
        swapped = ours(_load_extension_from_path=lambda *args, stamp=stamp: types.SimpleNamespace(**{
            "_corvane_module_sha256": stamp} if stamp else {}))
        actual = {"actual_sha256": stamp} if stamp else {}
        unexpected = refused("HashMismatch", "Runtime module 'backtester' loaded with unexpected hash.", **known,
            expected_sha256=D1, **actual)
        yield f"load: a module with {what} is refused", LOAD, (*read, unexpected, first), BOTH, swapped
    names = "zeta", "alpha", "era_data", "vault"
    noting = ours(_load_manifest_runtime_module=Anything("load", {"load()": "module"}))
    listing = {"files": {f"{9 - n}": entry(f"runtime_module:{name}", sha256=name) for n, name in enumerate(names)}}
    expected_digest = lambda name: f"expected_sha256='{name}', manifest={listing}"  # noqa: E731
    order = [f"load('d', '{n}', {expected_digest(n)})" for n in ("era_data", "alpha", "vault", "zeta")]
    everything = {n: "module" for n in ("era_data", "alpha", "vault", "zeta")}
    yield "load all: era data first, then by name", call("_load_runtime_modules_from_manifest", "d", listing), (*order,
        f"returned {everything}"), noting
    guarded = ours(RuntimeFreshnessGuard=lambda **given: list(given.items()))
    guard = "returned [('data_dir', 'd'), ('module_loader', <function create_runtime_freshness_guard.<locals>._load>)]"
    yield "guard: knows directory and loader", call("create_runtime_freshness_guard", "d"), guard, guarded

    def guard_loads(expected):
        return lambda: scenarios.m.create_runtime_freshness_guard("d")._load("backtester", expected)

    yield "guard: loads what has the digest", guard_loads(D1), (opened, *done, *result), BOTH
    yield "guard: insists on the digest that it expects", guard_loads("5a"), (*read, mismatch("5a"), first), BOTH
    per_era, needed = call("_load_per_era_backtester", "d"), {"module_name": "backtester"}
    era = loaded("era_data", ERA_DATA), copied("era_data", ERA_DATA)
    told = "INFO Loaded per-era backtester from manifest in %s ('d',)"
    yield "backtester", per_era, (opened, *era[0], *done[:3], told, done[3], *sorted([copy, era[1][0]]), *sorted([held,
        era[1][1]]), first), BOTH
    cause = "Runtime manifest is missing at d/manifest.json."
    cause = f" from [RuntimeModuleDownloadIncomplete: {cause} {{'relative_path': 'manifest.json'}}]"
    yield "backtester: needs a manifest", per_era, (refused("DownloadIncomplete", "Per-era backtester runtime is "
        "required; sync the runtime manifest before loading the SDK backtester.", cause, **needed, relative_path=
        "manifest.json"), "sys.path[0]: './d'")
    yield "backtester: unlisted", per_era, (opened, *era[0], refused("DownloadIncomplete", "Per-era backtester "
        "runtime is missing from manifest.", **needed), *era[1], first), native(era_data={})


def workspace():
    """HEARTBEAT.md keeps all that was in it, but for its line ends; no other file of the workspace is touched."""
    find = "_find_heartbeat"
    here = file("HEARTBEAT.md")
    for what, start, found in (
        ("here", None, "'./HEARTBEAT.md'"), ("three directories up", "a/b/c", "'HEARTBEAT.md'"),
        ("not four directories up", "a/b/c/d", None), ("a trailing slash takes a step", "a/b/c/", None),
        ("a dot has one parent", ".", "'./HEARTBEAT.md'"), ("from the root on there is no parent", "/", None),
        ("a path is taken as it is", "~", "'HEARTBEAT.md'"),
    ):
        yield f"find: {what}", call(find, start), f"returned {found}", here
    yield "find: a directory counts", call(find), "returned './HEARTBEAT.md'", made(Path.mkdir, "HEARTBEAT.md")
    inject, nudge, other = call("inject_heartbeat"), call("update_nudge", "era_change", n=1), NUDGE.replace(b"[ ]",
        b"[x]")
    section = b"\n" + CHECKLIST
    edits = (("inject", inject, b"abc", b"abc\n" + section, "a line is ended first"), ("inject", inject, b"abc\n",
        b"abc\n" + section, "one blank line before the section"), ("inject", inject, b"", section, "an empty file "
        "begins with a blank line"), ("inject", inject, b"a\r\nb\rc", b"a\nb\nc\n" + section, "line ends become line "
        "feeds"), ("inject", inject, b"- [ ] [Corvane] old\n", b"- [ ] [Corvane] old\n" + section, "a nudge is no "
        "section"), ("inject", inject, b"x ## [Corvane] y", None, "once per file"), ("nudge", nudge, b"abc", b"abc\n" +
        NUDGE, "a line is ended first"), ("nudge", nudge, b"abc\n", b"abc\n" + NUDGE, "no blank line before it"), (
        "nudge", nudge, b"", b"\n" + NUDGE, "an empty file begins with a blank line"), ("nudge", nudge, b"\xc3\xa4\r\n",
        "\u00e4\n".encode() + NUDGE, "line ends become line feeds"), ("nudge", nudge, NUDGE + b"x\n", None,
        "once per file"), ("nudge", nudge, other, other + NUDGE, "again when it was ticked off"),)
    for name, act, before, after, what in edits:
        seen = (READING, "returned None") if after is None else (READING, WRITING, "returned None", checklist(after))
        yield name if before == b"abc" else f"{name}: {what}", act, seen, file("HEARTBEAT.md", before)
    invalid = b"\xff"
    no_text = "UnicodeDecodeError('utf-8', b'\\xff', 0, 1, 'invalid start byte')"
    verbs = "read", "write"
    for name, act, lost_read, lost_write in (
        ("inject", inject, *(f"Failed to {verb} HEARTBEAT.md at %s: %s ('./HEARTBEAT.md', {{}})" for verb in verbs)),
        ("nudge", nudge, "update_nudge failed: %s ({},)", "update_nudge failed: %s ({},)"),
    ):
        yield f"{name}: no file is made", act, "returned None"
        yield f"{name}: opted out", act, "returned None", here, config(auto_heartbeat=False)
        unread = f"WARNING {lost_read.format(no_text)} while UnicodeDecodeError"
        yield f"{name}: what is no UTF-8 stays", act, (READING, unread, "returned None"), file("HEARTBEAT.md", invalid)
        unwritten = f"WARNING {lost_write.format("KeyError('w')")} while KeyError"
        yield f"{name}: an unwritable file is logged", act, (READING, WRITING, unwritten, "returned None"), here, \
            READ_ONLY
        folder = f"WARNING {lost_read.format("IsADirectoryError(21, 'Is a directory')")} while IsADirectoryError"
        yield f"{name}: a directory is logged", act, (READING, folder, "returned None"), made(Path.mkdir,
            "HEARTBEAT.md")
    yield "nudge: unknown", call("update_nudge", "unknown"), "returned None", here
    for trigger, line in m._NUDGE_TEXTS.items():
        yield f"nudge: {trigger}", call("update_nudge", trigger, rate=1), (READING, WRITING, "returned None", checklist(
            f"\n{line}\n".encode())), here
    fragment = """## Corvane Integration
- Skills: Provided via `corvane.list_skills()` (returns bundle SKILL.md paths)
- Tools: register, search, stop, status, analytics (via Python API)
- Heartbeat: Auto-injected monitoring checklist
"""
    yield "fragment", call("get_agents_md_fragment"), f"returned {fragment!r}"
    yield "fragment: as it is now", call("get_agents_md_fragment"), "returned 'new'", ours(_AGENTS_MD_FRAGMENT="new")


def universes():
    """/eras, and the universe that is taken."""
    fetch = call("_fetch_eras_payload", manager())
    failed, bootstrap = "RuntimeError: Registration bootstrap failed to fetch /eras.", "RuntimeError: Registration " \
        "bootstrap "
    invalid = f"raised {bootstrap}received invalid /eras JSON."
    no_token = f"raised {bootstrap}could not fetch /eras without an auth token."
    for token in None, "":
        yield f"eras: token {token!r}", call("_fetch_eras_payload", manager(get_token=lambda token=token: token)), \
            no_token
    number = manager(get_token=lambda: 5)
    yield "eras: a token is taken as text", call("_fetch_eras_payload", number), (REQUEST.replace("token", "5"),
        "returned {}"), answer(b"{}")
    slashes = config(server_url="https://x/y//")
    yield "eras: one slash", fetch, (ETAG[0], REQUEST.replace(SERVER, "https://x/y"), "returned {'eras': []}"), eras \
        (), slashes
    for what, given, seen in (
        ("200", answer(b'{"a": 1}'), "returned {'a': 1}"),
        ("no status", answer(b"{}", None), "returned {}"),
        ("204", answer(b"", 204), f"raised {failed[:-1]}: HTTP 204"),
        ("not UTF-8", answer(b"\xff"), f"{invalid} from [{NO_TEXT}]"),
        ("not JSON", answer(b"{"), f"{invalid} from [{NO_JSON}]"),
        ("no object", answer(b"[]"), f"raised {bootstrap}received invalid /eras payload."),
        ("lost", opening(raising(urllib.error.URLError, "x")), f"raised {failed} from [URLError: <urlopen error x>]"),
        ("late", opening(raising(TimeoutError, "x")), f"raised {failed} from [TimeoutError: x]"),
        ("refused", opening(raising(ConnectionRefusedError)), f"raised {failed} from [ConnectionRefusedError: ]"),
        ("another failure", opening(raising(LookupError, "x")), "raised LookupError: x"),
    ):
        yield f"eras: {what}", fetch, (*ETAG, seen), given
    clean = "_safe_named_universe"
    names = {" us\n": "us", "...": "...", 7: "7", 0: "0", ("x",): "('x',)"}
    unusable = None, "", " ", ".", " .. ", "a/b", "a\\b", "a\0", ["/"]
    for value, name in (*names.items(), *((value, None) for value in unusable)):
        yield f"name: {value!r}", call(clean, value), f"returned {name!r}"
    for era, names in (
        ({}, []),
        ({"named_universe": "a", "allowed_named_universes": ["b", "a", ".."], "signal_pools": [5, {
            "allowed_named_universes": "c"}, {}], "universes": ["d", None, {"id": "e"}]}, ["a", "b", "c", "d", "e"]),
        ({"allowed_named_universes": "b", "signal_pools": {"allowed_named_universes": "c"}, "universes": "d"}, ["b"]),
        ({"universes": {"b": 1, "a": 2}}, ["a", "b"]),
        ({"universes": [{"named_universe": "", "id": 0, "name": "n"}, {"named_universe": "x", "id": "y", "name": "z"},
            {"id": "i", "name": "z"}, {}]}, ["n", "x", "i"]),
    ):
        collect = call("_active_era_named_universe_candidates", era)
        yield f"candidates: {', '.join(names)} of {len(era)}", collect, f"returned {names}"
    first = "_first_allowed_named_universe_from_era_config"
    for era, found in (
        (None, None), ({}, None), ({"named_universe": " us "}, "us"), ({"allowed_named_universes": ["..", "b"]}, "b"),
        ({"allowed_named_universes": "b", "named_universe": "c"}, "b"),
        ({"signal_pools": [5, {}, {"allowed_named_universes": ["..", " a"]}], "allowed_named_universes": "b"}, "a"),
        ({"signal_pools": [{"allowed_named_universes": "/"}, {"allowed_named_universes": ["..", "/"]}],
          "named_universe": "c"}, "c"),
    ):
        yield f"first name: {era}"[:60], call(first, era), f"returned {found!r}"
    resolve = call("_resolve_active_named_universe", manager())
    mine, us = "option named_universe: 'mine'", "option named_universe: 'us'"
    yield "resolve: a configured name is taken", resolve, ("returned 'mine'", mine), config(named_universe=" mine ")
    for unsafe in "a/b", "..", "":
        yield f"resolve: {unsafe!r} is none", resolve, (*ETAG, "returned 'us'", us), eras(ERA), config(named_universe=
            unsafe)
    many = "expected exactly one active "
    for what, given, seen in (
        ("one era, one name", eras(5, {"state": "x"}, ERA), None),
        ("any case", eras({**ERA, "state": "ActivE"}), None),
        ("no list", answer(b'{"eras": {}}'), "/eras payload is missing eras list."),
        ("no eras", answer(b"{}"), "/eras payload is missing eras list."),
        ("none active", eras(5, {}, {"state": " active"}), f"{many}era from /eras, got 0."),
        ("two active", eras(ACTIVE, ACTIVE), f"{many}era from /eras, got 2."),
        ("no name", eras({"state": "active", "universes": {"..": 1}}), f"{many}named universe from /eras, got 0."),
        ("two names", eras({**ACTIVE, "universes": ["a"]}), f"{many}named universe from /eras, got 2."),
    ):
        ends = ("returned 'us'", us) if seen is None else (f"raised {bootstrap}{seen}",)
        yield f"resolve: {what}", resolve, (*ETAG, *ends), given


def key_file():
    """wallet.key is used only as a regular file of this user, never through a link, and is its owner's alone."""
    directory = "_canonical_data_dir"
    home = made(lambda p: p.symlink_to("d"), ".corvane"), file("d/x")
    for value, found in ((None, "./d"), ("", "./d"), ("~/x", "./x"), (".corvane/../y", "./y"), ("/nowhere/../z", "/z")):
        yield f"directory: {value}", call(directory, value), f"returned {found!r}", *home
    yield "key path: that of the target", call("_wallet_key_path", ".corvane"), f"returned '{K}'", *home
    yield "refusal", call("_unsafe_wallet_error", K), f"returned {OSError(UNSAFE[9:])!r}"
    read, write = call("_read_wallet_key", "d"), call("_write_wallet_key", "d", "0x" + KEY)
    there, begun = (LSTAT, OPEN_READ, FSTAT), (MADE, LSTAT, OPEN_WRITE, FSTAT)
    got, put_down, empty = f"returned '{KEY}'", (*saved("0x" + KEY), "returned None", left("0x" + KEY)), left(b"")
    longer = file("d/wallet.key", "x" * 200)
    yield "read", read, (*there, got), KEY_FILE
    yield "write", write, (MADE, LSTAT, *put_down), longer
    loose = file("d/wallet.key", KEY, 0o4606)
    yield "read loose", read, (*there, FCHMOD, got, left(KEY, " of 0")), loose
    yield "write loose", write, (*begun, FCHMOD, *saved("0x" + KEY)[2:], *put_down[-2:]), loose
    for name, act, first, opened, no, failed in (("read", read, (LSTAT,), there[:2], UNSAFE, NOT_READ),
                                                 ("write", write, (MADE, LSTAT), begun[:3], NOT_WRITTEN, NOT_WRITTEN)):
        emptied = () if name == "read" else (empty,)
        yield f"{name}: a key that a link points to is refused", act, (*first, f"raised {UNSAFE}"), LINK, file(
            "d/victim", "x")
        yield f"{name}: a directory is refused", act, (*first, f"raised {UNSAFE}"), made(Path.mkdir)
        yield f"{name}: a FIFO is refused", act, (*first, f"raised {UNSAFE}"), made(os.mkfifo)
        yield f"{name}: the file of another user is refused", act, (*first, f"raised {UNSAFE}"), KEY_FILE, other_os(
            getuid=lambda: 12345)
        lost = other_os(lstat=raising(OSError, 5, "bad"))
        yield f"{name}: a file without status is refused", act, (*first, f"raised {failed} while [OSError: [Errno 5] "
            f"bad]"), KEY_FILE, lost
        full = other_os(open=raising(OSError, 24, "full"))
        yield f"{name}: cannot be opened", act, (*opened, f"raised {no} while [OSError: [Errno 24] full]"), KEY_FILE, \
            full
        swapped = "" if name == "read" else f" while [{UNSAFE}]"
        for what, status in (("a directory", None), ("another user's file", SOMEBODY_ELSES)):
            in_between = other_os(fstat=lambda fd, status=status: status or os.stat("."))
            seen = *opened, FSTAT, f"{CLOSE} while OSError", f"raised {no}{swapped}", *emptied
            yield f"{name}: {what} that came in between is refused", act, seen, KEY_FILE, in_between
        mode_stays = file("d/wallet.key", KEY, 0o640), other_os(fchmod=raising(PermissionError, 1, "no"))
        denied = "PermissionError: [Errno 1] no"
        denied = f"raised {denied}" if name == "read" else f"raised {NOT_WRITTEN} while [{denied}]"
        emptied = () if name == "read" else (left(b"", mode="640"),)
        yield f"{name}: a mode that cannot be changed", act, (*opened, FSTAT, FCHMOD, f"{CLOSE} while PermissionError",
            denied, *emptied), *mode_stays
        yield f"{name}: checked wrongly", act, (*opened, f"{CLOSE} while AttributeError", "raised AttributeError: "
            "module 'corvane.agent_onboarding' has no attribute '_nothing'", *(() if name == "read" else (empty,))), \
            KEY_FILE, ours(_check_wallet_fd=lambda path, fd: scenarios.m._nothing)
        flags = opened[-1].replace(str(READ_FLAGS if name == "read" else WRITE_FLAGS), str((READ_FLAGS if name == "read"
            else WRITE_FLAGS) - os.O_NOFOLLOW))
        seen = (*opened[:-1], flags, FSTAT, got) if name == "read" else (*opened[:-1], flags, *put_down[1:])
        yield f"{name}: where no file can be opened without its links", act, seen, KEY_FILE, other_os(O_NOFOLLOW=
            MISSING)
        foreign = types.SimpleNamespace(st_mode=0o100600, st_uid=12345)
        anybodys = other_os(getuid=MISSING, lstat=lambda path: foreign, fstat=lambda fd: foreign)
        yield f"{name}: where there are no users, the owner is not asked", act, (*there, got) if name == "read" else (
            MADE, LSTAT, *put_down), KEY_FILE, anybodys
    yield "read: a missing file is no key", read, "returned None"
    yield "read: a link that leads nowhere is no key", read, "returned None", LINK
    yield "read: no text", read, (*there, "raised UnicodeDecodeError: 'utf-8' codec can't decode byte 0xff in "
        "position 0: invalid start byte"), file("d/wallet.key", b"\xff")
    yield "write: a new file", write, (MADE, *put_down[:-1], NEW_DIRECTORY, put_down[-1])
    yield "write: a link that leads nowhere is refused", write, (MADE, OPEN_WRITE, f"raised {NOT_WRITTEN} while "
        f"[OSError: [Errno 40] Too many levels of symbolic links: '{K}']"), LINK
    written, full = saved("0x" + KEY), raising(OSError, 28, "full")
    for name, fails, steps, after in (
        ("write", full, (*written[:4], f"{CLOSE} while OSError"), empty),
        ("close", lambda fd: full(os.close(fd)), written[:5], left("0x" + KEY)),
        ("chmod", full, written, left("0x" + KEY)),
    ):
        lost = f"raised {NOT_WRITTEN} while [OSError: [Errno 28] full]"
        yield f"write: {name} fails", write, (MADE, LSTAT, *steps, lost, after), KEY_FILE, other_os(**{name: fails})
    yield "write: no text", call("_write_wallet_key", "d", "\udc80"), (MADE, OPEN_WRITE, FSTAT, FCHMOD,
        f"{CLOSE} while UnicodeEncodeError", "raised UnicodeEncodeError: 'utf-8' codec can't encode character "
        "'\\udc80' in position 0: surrogates not allowed", NEW_DIRECTORY, empty)
    yield "write: no directory", write, (MADE, "raised FileExistsError: [Errno 17] File exists: './d'"), file("d")


def spread(**given):
    """Keyword arguments as a note spells them."""
    return ", ".join(f"{name}={value}" for name, value in given.items())


ERA_CONFIG, EVALUATOR, RUNTIME = (f"_runtime.{name}()" for name in ("_normalize_era_config", "RuntimeEvaluationAdapter",
    "LibraryRuntime"))


def built(era=3, batch=(1, 2, 3, 4), options=ON_DISK["era_config"], wrong="", vocabulary=None):
    """The steps of a local bootstrap that is complete."""
    vocabulary = vocabulary or {"era_id": "7"}
    record = f"namespace(era_id={era}, files={{'x': {{}}}}, named_universe='u')"
    sync = f"local manager {{'_manifest': {record}, '_vocabulary': {{}}, 'runtime_freshness_guard': guard}}"
    vault, registry, plan = "_runtime._wrap_synced_vault()", "_runtime._build_function_registry()", batch or [None] * 4
    evaluator = spread(data_dir="'./d'", era_config=ERA_CONFIG, raw_backtester=RAW, vault=vault, manifest=record,
        graph_validator=None, batch_orchestrator_cls=plan[0], compute_search_plan=plan[1], expression_type_cls=plan[2],
        expression_evaluator=plan[3], registry=registry, raw_vocabulary=vocabulary, named_universe="'u'", auth=
        "manager", runtime_freshness_guard="guard")
    adapter = "_runtime._RuntimeManifestAdapter()"
    runtime = spread(auth="manager", auth_proxy="manager", data_dir="'./d'", server_url=repr(SERVER), sync_manager=sync,
        era_id=era, era_thread="_runtime._EraThreadProxy()", era_config=ERA_CONFIG, search_era_config=
        "_runtime._SearchEraConfig()", named_universes="('u',)", default_named_universe="'u'", vocabularies={"u":
        vocabulary}, feature_dirs={"u": "./d/features/u"}, manifest_adapters=f"{{'u': {adapter}}}", vocabulary_raw=
        vocabulary, registry=f"{EVALUATOR}.registry", vault=vault, raw_backtester=RAW, evaluator=EVALUATOR,
        search_tracker="search_tracking.SearchTracker()", runtime_freshness_guard="guard")
    opened = [f"open('./d/{name}', 'r', encoding='utf-8')" for name in ("features/u/vocabulary.json", *2 * [
        "manifest.json"])]
    return [
        opened[0], "guard('./d')", *opened[1:],
        "load_modules('./d', namespace(era_id=None, version=None, files={'x': {}}))",
        f"guard.record_loaded_module('backtester', '5a', module={RAW})",
        f"_runtime._normalize_era_config({options}, {vocabulary}, manifest={{'files': {{'x': {{}}}}}})",
        f"_runtime._wrap_synced_vault('data', manifest={record}, era_config={ERA_CONFIG})",
        f"_runtime._build_function_registry({vocabulary}, era_config={ERA_CONFIG})",
        "_runtime._import_batch_runtime()", *([wrong] if wrong else []),
        f"_runtime.RuntimeEvaluationAdapter({evaluator})",
        f"guard.register_module_consumer('backtester', {EVALUATOR}, 'raw_backtester')",
        "search_tracking.SearchTracker('./d')",
        f"_runtime._RuntimeManifestAdapter({record}, feature_epoch='signal_is', named_universe='u', "
        f"era_config={ERA_CONFIG})",
        f"_runtime._EraThreadProxy({sync})",
        f"_runtime._SearchEraConfig({ERA_CONFIG})",
        f"_runtime.LibraryRuntime({runtime})",
        f"_runtime._runtime = {RUNTIME}",
        f"_runtime._build_graph_validator({EVALUATOR}.registry, {vocabulary}, {ERA_CONFIG}, {EVALUATOR})",
        f"{EVALUATOR}.graph_validator = _runtime._build_graph_validator()",
        f"guard.register_module_consumer('backtester', {RUNTIME}, 'raw_backtester')",
    ]


def local_runtime():
    """What stands in for the kit's own bootstrap."""
    kept = {"_manifest": "manifest", "_vocabulary": {}, "runtime_freshness_guard": 5}
    yield "sync manager", manager_methods, f"returned ('manifest', [], {kept}, (None, None, None, None))"
    yield "sync manager: a new list each time", fresh_lists, "returned ([], None)"
    opened = "open('x', 'r', encoding='utf-8')"
    for path in None, "", "nowhere":
        yield f"json: {path!r}", call("_read_json_if_present", path), "returned None"
    yield "json: any value", call("_read_json_if_present", "x"), (opened, "returned []"), file("x", "[]")
    wrong = "raised JSONDecodeError: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"
    yield "json: invalid", call("_read_json_if_present", "x"), (opened, wrong ), file("x", "{")
    top, own = "d/vocabulary.json", "d/features/u/vocabulary.json"
    for name, there, found in (("u", (top, own), own), ("u", (top,), top), ("", (top, own), top), (None, (own,), None),
                               ("u", (), None)):
        yield f"vocabulary: {name!r} of {len(there)} {found}", call("_local_vocabulary_path", "d", name), \
            f"returned {found!r}", *map(file, there)
    local = call("_bootstrap_local_runtime_from_config", manager())
    steps, done = built(), f"returned {RUNTIME}"
    yield "local", local, (*steps, done), kit(), *on_disk()
    for what, options in (("no era", {"era_config": None}), ("an era that is no dict", {"era_config": []})):
        yield f"local: {what}", local, "returned None", kit(), *on_disk(**options)
    for text in "[]", "null":
        yield f"local: the vocabulary {text}", local, (steps[0], "returned None"), kit(), *on_disk({VOCABULARY: text})
    yield "local: no vocabulary", local, "returned None", kit(), *on_disk({VOCABULARY: None})
    bare = {"signal_pools": [{"allowed_named_universes": "u"}]}
    yield "local: the vocabulary's era", local, (*built(7, options=bare), done), kit(), *on_disk(era_config=bare)
    yield "local: no era is 0", local, (*built(0, options=bare, vocabulary={"a": 1}), done), kit(), *on_disk(
        {VOCABULARY: '{"a": 1}'}, era_config=bare)
    default = [step.replace(f"server_url='{SERVER}'", "server_url='https://x'") for step in steps]
    yield "local: the server that is set", local, (*default, done), kit(), *on_disk(server_url="https://x")
    yield "local: the usual server", local, (*steps, done), kit(), *on_disk(server_url="")
    other_universe = [step.replace("'u'", "'v'").replace("['v']", "['u']").replace("/u'", "/v'") for step in steps]
    other_universe[0] = "open('./d/vocabulary.json', 'r', encoding='utf-8')"
    yield "local: the universe that is set", local, (*other_universe, done), kit(), *on_disk({VOCABULARY: None,
        "d/vocabulary.json": CONTENTS[VOCABULARY]}, named_universe="v")
    for batch, seen in (
        ((1, 2, 3), "ValueError('not enough values to unpack (expected 4, got 3)'),) while ValueError"),
        (ImportError, "ImportError('no'),) while ImportError"),
    ):
        warning = "WARNING Batch runtime import failed during local bootstrap; continuing without batch orchestration "
        without = built(batch=None, wrong=f"{warning}helpers: %s ({seen}")
        yield f"local: without batch {batch}", local, (*without, done), kit({"_runtime._import_batch_runtime()":
            batch}), *on_disk()
    no_backtester = refused("DownloadIncomplete", "Per-era backtester runtime is missing from manifest.", module_name=
        "backtester")
    yield "local: no backtester", local, (*steps[:5], no_backtester), kit(), *on_disk(modules={"era_data": "data"})
    yield "local: a backtester without digest is not recorded", local, (*[step.replace(repr(RAW), "'raw'") for step in (
        *steps[:5], *steps[6:])], done), kit(), *on_disk(modules={"backtester": "raw", "era_data": "data"})
    loading = "_runtime._load_vault_module(vault_module=None)"
    kits_vault = (*steps[:6], loading, steps[6], steps[7].replace("'data'", "_runtime._load_vault_module()"), *steps[
        8:])
    yield "local: the kit's own vault", local, (*kits_vault, done), kit(), *on_disk(modules={"backtester": RAW})
    validator = kit({"_runtime._build_graph_validator()": LookupError})
    yield "local: a failing validator takes the runtime away", local, (*steps[:-2], "_runtime._runtime = None while "
        "LookupError", "raised LookupError: no"), validator, *on_disk()
    missing = "raised ModuleNotFoundError: import of corvane._runtime halted; None in sys.modules"
    yield "local: without kit", local, (steps[0], missing), kit(_runtime=None), *on_disk()


# Where the arguments of init_simulate_signal come from: a part of the runtime, of the same name where none is given.
PARTS = """sync_manager vault backtester=evaluator search_tracker era_thread graph_validator=evaluator.graph_validator
    compute_search_plan=evaluator.compute_search_plan era_config load_vocabulary
    useful_signal_metadata=sync_manager._vocabulary load_found_signal_pnl=evaluator.load_found_signal_pnl
    signal_dir=data_dir BatchOrchestrator_cls=evaluator.make_batch_orchestrator_cls()
    correlate_per_pool=evaluator.correlate_per_pool compute_mi_per_pool=evaluator.compute_mi_per_pool
    vocabulary=registry vocabulary_raw runtime_freshness_guard"""


def simulation(runtime, absent=()):
    """How the simulation is initialised with the parts of a runtime."""
    parts = {name: part or name for name, _, part in (text.partition("=") for text in PARTS.split())}
    given = {name: None if name in absent else f"{runtime}.{part}" for name, part in parts.items()}
    called = f"simulate_signal.init_simulate_signal({spread(auth='manager', **given)})"
    return f"{runtime}.evaluator.make_batch_orchestrator_cls()", called


def propagation():
    """How the manager and the runtime reach the rest of the kit."""
    strict, tolerant = call("_propagate_auth", manager(), strict=True), call("_propagate_auth", manager())
    given = "_runtime.bootstrap_runtime()"
    activated, active = "auth._set_active_auth_manager(manager)", "active manager: manager"
    options = {**DEFAULTS, "data_dir": "d"}
    boot = f"_runtime.bootstrap_runtime(manager, {options}, <function _load_per_era_backtester>)"
    injected = f"search_templates._library_runtime = {given}"
    exported = "corvane.simulate_signal: simulate_signal._simulate_signal_export"
    start, sim, ends = (activated, boot), simulation(given), (f"returned {given}", active, exported)
    none = "WARNING Failed to initialize simulate_signal: %s (RuntimeError('private corvane runtime was not " \
        "initialized'),) "
    no_simulation = f"{none}while RuntimeError"
    no = "OSError('no'),) while OSError"
    for mode, act in ("strictly", strict), ("tolerantly", tolerant):
        name = "propagate" if mode == "strictly" else "propagate: tolerantly"
        yield name, act, (*start, injected, *sim, *ends), kit()
    for absent, lookups in (
        (("graph_validator",), ["evaluator.graph_validator"]),
        (("load_found_signal_pnl",), ["evaluator.load_found_signal_pnl"]),
        (("useful_signal_metadata", "vocabulary"), ["sync_manager._vocabulary", "registry"]),
    ):
        without = kit({f"{given}.{name}": AttributeError for name in lookups})
        yield f"propagate: without {lookups[0]}", strict, (*start, injected, *simulation(given, absent), *ends), without
    unset = patched(auth, _set_active_auth_manager=raising(ValueError, "no"))
    warned = activated, "WARNING Failed to set active auth manager: %s (ValueError('no'),) while ValueError"
    yield "propagate: unset", tolerant, (*warned, boot, injected, *sim, ends[0], exported), unset, kit()
    yield "propagate: unset strictly", strict, (*warned, "raised RuntimeError: Corvane auth bootstrap failed after "
        "authentication. from [ValueError: no]"), unset, kit()
    failed = f"WARNING Failed to bootstrap corvane runtime: %s ({no}"
    era = f"'named_universe': '', 'era_config': {ON_DISK['era_config']}"
    boot_era = boot.replace("'named_universe': ''", era)
    yield "propagate: both bootstraps fail", tolerant, (activated, boot_era, failed, *[f"{step} while OSError" for step
        in built()[:5]], "DEBUG Failed to bootstrap local corvane runtime: %s (LookupError('no'),) while LookupError",
        no_simulation, "returned None", active), KIT_FAILS, *on_disk(modules=LookupError)
    yield "propagate: no local runtime", tolerant, (*start, failed, no_simulation, "returned None", active), KIT_FAILS
    local = (f"{step} while OSError" for step in built())
    at_hand = f"search_templates._library_runtime = {RUNTIME}"
    yield "propagate: a local runtime", tolerant, (activated, boot_era, failed, *local, at_hand, *simulation(RUNTIME),
        f"returned {RUNTIME}", active, exported), KIT_FAILS, *on_disk()
    data = "raised RuntimeError: Corvane registration authenticated, but runtime data bootstrap"
    yield "propagate: the kit fails strictly", strict, (*start, failed, f"{data} failed: OSError: no from [OSError: "
        f"no]", active), KIT_FAILS
    silent = ours(_exception_chain_detail=lambda exc: "")
    yield "propagate: no detail", strict, (*start, failed, f"{data} failed from [OSError: no]", active), KIT_FAILS, \
        silent
    no_runtime = kit({given: None})
    yield "propagate: no runtime", tolerant, (*start, no_simulation, "returned None", active), no_runtime
    yield "propagate: no runtime strictly", strict, (*start, f"{data} returned no runtime.", active), no_runtime
    refusing = kit({"search_templates._library_runtime =": OSError})
    refusal = f"WARNING Failed to inject runtime into search_templates: %s ({no}"
    yield "propagate: refused", tolerant, (*start, injected, refusal, *sim, *ends), refusing
    yield "propagate: refused strictly", strict, (*start, injected, refusal, "raised RuntimeError: Corvane search "
        "runtime injection failed. from [OSError: no]", active), refusing
    simulation_failed = "WARNING Failed to initialize simulate_signal: %s ("
    broken = kit({"simulate_signal.init_simulate_signal()": OSError})
    yield "propagate: no simulation", tolerant, (*start, injected, *sim, f"{simulation_failed}{no}", ends[0], active), \
        broken
    wrapped = "raised RuntimeError: Corvane simulate_signal bootstrap failed: "
    yield "propagate: no simulation strictly", strict, (*start, injected, *sim, f"{simulation_failed}{no}",
        f"{wrapped}OSError: no from [OSError: no]", active), broken
    unexported = kit({"simulate_signal._simulate_signal_export": OSError})
    lost = f"WARNING Failed to restore top-level simulate exports: %s ({no}"
    yield "propagate: no export", tolerant, (*start, injected, *sim, lost, ends[0], active), unexported
    export = "Corvane simulate exports bootstrap failed."
    yield "propagate: no export strictly", strict, (*start, injected, *sim, lost,
        f"{simulation_failed}RuntimeError('{export}'),) while RuntimeError", f"{wrapped}RuntimeError: {export}; "
        f"caused by OSError: no from [RuntimeError: {export} from [OSError: no]]", active), unexported
    for mode, act in ("strictly", strict), ("tolerantly", tolerant):
        cancelled = kit({given: Cancelled("enough")})
        yield f"propagate: cancelled {mode}", act, (*start, "raised Cancelled: enough", active), cancelled, *on_disk() \
            [1:]
        no_backoff = kit(sync_backoff=None)
        yield f"propagate: no backoff {mode}", act, (activated, "raised UnboundLocalError: local variable "
            "'sync_backoff' referenced before assignment while [ModuleNotFoundError: import of corvane.sync_backoff "
            "halted; None in sys.modules]", active), no_backoff
    ensure, ready = "ensure_runtime_bootstrapped", "search_templates._library_runtime = 'ready'"
    asked, existing = "_runtime.get_runtime()", "WARNING Failed to inject existing runtime into search_templates: %s"
    yield "ensure: nothing", call(ensure, False), "returned None"
    yield "ensure: nothing strictly", call(ensure), "raised AuthError: No wallet initialized. Call register() or " \
        "login() first."
    for flag in True, False:
        yield f"ensure: ready, {flag}", call(ensure, flag), (asked, ready, "returned 'ready'"), MANAGER, kit(READY)
        refused_too = kit({**READY, "search_templates._library_runtime =": OSError})
        ended = "raised RuntimeError: Corvane search runtime injection failed. from [OSError: no]" if flag else \
            "returned 'ready'"
        yield f"ensure: refused, {flag}", call(ensure, flag), (asked, ready, f"{existing} ({no}", ended), MANAGER, \
            refused_too
        new_universe = boot.replace("'named_universe': ''", "'named_universe': 'us'")
        yield f"ensure: new, {flag}", call(ensure, flag), (asked, *ETAG, activated, new_universe, injected, *sim, *ends,
            "option named_universe: 'us'"), MANAGER, kit(), eras(ERA)
    failing = f"{data} failed: OSError: no from [OSError: no]"
    mine = config(named_universe="mine")
    new_universe = boot.replace("'named_universe': ''", "'named_universe': 'mine'")
    yield "ensure: fails strictly", call(ensure), (asked, activated, new_universe, failed, failing, active), MANAGER, \
        KIT_FAILS, mine
    yield "ensure: fails tolerantly", call(ensure, False), (asked, activated, new_universe, failed, no_simulation,
        "returned None", active), MANAGER, KIT_FAILS, mine
    yield "ensure: no universe", call(ensure, False), (asked, *ETAG, "raised RuntimeError: Registration bootstrap "
        "expected exactly one active era from /eras, got 0."), MANAGER, kit(), eras()


def entry_points():
    """No wallet is signed up before its key is in its file, which stays there whatever the service says."""
    for key, full in (("ab", "0xab"), ("0xab", "0xab"), ("0Xab", "0Xab"), ("", "0x"), ("x0ab", "0xx0ab")):
        yield f"key {key!r}", call("_normalize_key", key), f"returned {full!r}"
    code, optional = "_resolve_invite_code", "_resolve_optional_invite_code"
    found = f"returned '{CODE}'"
    asked = "auth._normalize_invite_code({!r})".format
    yield "code: from the environment", call(code, None), (asked(CODE.lower()), found), INVITED
    yield "code: an empty one is not replaced", call(code, ""), (asked(""), NO_CODE), INVITED
    yield "code: given", call(code, f" {CODE} "), (asked(f" {CODE} "), found), INVITED
    yield "code: none", call(code, None), (asked(None), NO_CODE), UNINVITED
    yield "code: an optional one may lack", call(optional, None), (asked(None), "returned None"), INVITED
    yield "code: an optional one", call(optional, CODE.lower()), (asked(CODE.lower()), found)
    new, server = "ab" * 32, repr(SERVER)
    authenticated, active = "manager.authenticate()", "auth._set_active_auth_manager(manager)"
    held = "active manager: manager", NEW_DIRECTORY, left(new), "manager: manager", "option data_dir: './d'"
    signed = f"auth.AuthManager('0x{new}', {server}, invite_code='{CODE}')", authenticated
    begun = MADE, asked(CODE), MADE, *saved(new)
    address, registered = "manager.get_wallet_address()", "returned WalletRegistration(address='0xaddress')"
    silent, failed_too = config(auto_heartbeat=False), (NEW_DIRECTORY, left(new), "option data_dir: './d'")
    listed = READING, WRITING, registered, checklist(b"\n" + CHECKLIST), *held
    here = file("HEARTBEAT.md")
    yield "register", register(), (*begun, *signed, active, address, *listed), here
    yield "register: opted out", register(), (*begun, *signed, active, address, registered, *held), here, silent
    opening_fails = "register: a workspace that fails is no longer swallowed"
    yield opening_fails, register(), (*begun, *signed, active, address, "raised LookupError: no", *held), here, ours(
        inject_heartbeat=raising(LookupError, "no"))
    again = MADE, LSTAT, OPEN_READ, FSTAT, asked(None), f"auth.AuthManager('0x{KEY}', {server}, invite_code=None)", \
        authenticated
    yield "register: the stored key again, without a code", call("register"), (*again, active, address, registered, held
        [0], *held[3:]), KEY_FILE, INVITED
    at_e = [text.replace("./d", "./e").replace("d: 4", "e: 4").replace("d/w", "e/w").replace("./e/w", "./e/w") for text
        in (*begun, *signed, active, address, registered, *held)]
    yield "register: another directory from now on", register(data_dir="e"), at_e
    yield "register: no code, no key", call("register"), (MADE, asked(None), NO_CODE, NEW_DIRECTORY, held[4]), UNINVITED
    login_signed = f"auth.AuthManager('0x{KEY}', {server})", authenticated
    stored = MADE, MADE, *saved(KEY)
    tokens = "manager.get_token()", "manager.get_token_expiry()", "returned AuthToken(token='<redacted>', " \
        "expires_at=12.5)"
    logged_in = held[0], NEW_DIRECTORY, left(KEY), *held[3:]
    yield "login", LOGIN, (*stored, *login_signed, active, *tokens, *logged_in), here
    replaced = MADE, MADE, LSTAT, *saved(f"0X{KEY}"), f"auth.AuthManager('0X{KEY}', {server})", authenticated, active, \
        *tokens
    yield "login: replaces the key that was there", call("login", f"0X{KEY}"), (*replaced, held[0], left(f"0X{KEY}"), *
        held[3:]), KEY_FILE
    yield "login: None", call("login", None), INVALID
    unset = patched(auth, _set_active_auth_manager=raising(ValueError, "no"))
    warned = active, "WARNING Failed to set active auth manager: %s (ValueError('no'),) while ValueError"
    for name, act, before, after, more in (
        ("register", register(), (*begun, *signed), (address, registered), failed_too),
        ("login", LOGIN, (*stored, *login_signed), tokens, (NEW_DIRECTORY, left(KEY), held[4])),
    ):
        changed = *more[:-1], "manager: manager", more[-1]
        yield f"{name} unset", act, (*before, *warned, *after, *changed), unset
        first = before[:-len(saved("")) - 2]
        refusal = (*first[:2], LSTAT, f"raised {UNSAFE}") if name == "login" else (MADE, LSTAT, f"raised {UNSAFE}")
        yield f"{name}: an unsafe key file is not used", act, (*refusal, held[4]), LINK, file("d/victim")
        not_signed_up = "RegistrationError: Registration failed: no. Contact support if this persists."
        wrong_key = "AuthError: Authentication failed. Verify your private key is correct."
        for kind, text in (
            (ConnectionRefusedError, UNREACHABLE), (auth.InvalidKeyError, INVALID), (LookupError, None),
            (auth.RegistrationError, f"raised {not_signed_up if name == 'register' else wrong_key}"),
            (auth.AuthError, None if name == "register" else f"raised {wrong_key}"),
        ):
            raised = f"{text} while [{kind.__name__}: no]" if text else f"raised {kind.__name__}: no"
            yield f"{name}: {kind.__name__}", act, (*before, raised, *more), service(kind, "no")
    started = register(bootstrap_runtime=True)
    options = {**DEFAULTS, "data_dir": "./d"}
    universe = {**options, "named_universe": "us"}
    boots = [f"_runtime.bootstrap_runtime(manager, {given}, <function _load_per_era_backtester>)" for given in (options,
        universe)]
    given = "_runtime.bootstrap_runtime()"
    wired = f"search_templates._library_runtime = {given}", *simulation(given)
    exported = "corvane.simulate_signal: simulate_signal._simulate_signal_export"
    yield "register bootstrap", started, (*begun, *signed, *ETAG, active, boots[1], *wired, active, address, registered,
        held[0], exported, *held[1:], "option named_universe: 'us'"), kit(), eras(ERA)
    yield "login bootstrap", call("login", KEY, bootstrap_runtime=True), (*stored, *login_signed, active, boots[0], *
        wired, active, *tokens, held[0], exported, *logged_in[1:]), kit()
    no_eras = "raised RuntimeError: Registration bootstrap expected exactly one active era from /eras, got 0."
    yield "register: no universe", started, (*begun, *signed, *ETAG, no_eras, *held[1:]), kit(), eras()
    warning = "WARNING Failed to bootstrap corvane runtime: %s (OSError('no'),) while OSError"
    data = "raised RuntimeError: Corvane registration authenticated, but runtime data bootstrap failed: OSError: no"
    strictly = active, boots[0], warning, f"{data} from [OSError: no]"
    yield "login: the bootstrap is strict", call("login", KEY, bootstrap_runtime=True), (*stored, *login_signed, *
        strictly, *logged_in), KIT_FAILS
    mine = [step.replace("'named_universe': ''", "'named_universe': 'us'") for step in strictly]
    yield "register: the bootstrap is strict", started, (*begun, *signed, *mine, *held), KIT_FAILS, config(
        named_universe="us")


class Name(str):
    """A text of its own kind."""


def options():
    valid = "Valid options: auto_heartbeat, data_dir, named_universe, server_url"
    unknown = f"raised ValueError: Unknown configuration option: 'colour'. {valid}"
    segment = "raised ValueError: named_universe must be a single safe path segment."
    no_name = "raised ValueError: named_universe cannot be empty."
    not_https = "server_url must use https (http only for this machine), got 'http://x'."
    asked = "auth._validate_server_url({!r})".format
    for given, seen in (
        ({}, ("returned None",)),
        ({"data_dir": "~/e"}, ("returned None", "option data_dir: '~/e'")),
        ({"data_dir": " "}, ("returned None", "option data_dir: ' '")),
        ({"data_dir": ""}, ("raised ValueError: data_dir cannot be empty.",)),
        ({"data_dir": 5}, ("raised ValueError: Option 'data_dir' expects str, got int.",)),
        ({"auto_heartbeat": False, "colour": 1, "data_dir": "e"}, (unknown, "option auto_heartbeat: False")),
        ({"auto_heartbeat": 1}, ("raised ValueError: Option 'auto_heartbeat' expects bool, got int.",)),
        ({"auto_heartbeat": None}, ("raised ValueError: Option 'auto_heartbeat' expects bool, got NoneType.",)),
        ({"server_url": "https://x/"}, (asked("https://x/"), "returned None", "option server_url: 'https://x'")),
        ({"server_url": "http://x"}, (asked("http://x"), f"raised ValueError: {not_https}")),
        ({"server_url": b""}, ("raised ValueError: Option 'server_url' expects str, got bytes.",)),
        ({"named_universe": " us_large\n"}, ("returned None", "option named_universe: 'us_large'")),
        ({"named_universe": Name("us")}, ("returned None", "option named_universe: 'us'")),
        *(({"named_universe": name}, (segment,)) for name in (".", " ..", "a/b", "a\\b", "a\0")),
        *(({"named_universe": name}, (no_name,)) for name in ("", " \n")),
    ):
        yield f"configure: {given}"[:60], call("configure", **given), seen
    others = ours(_VALID_OPTIONS={"zeta": int, "alpha": int})
    yield "configure: the options that are valid now", call("configure", colour=1), unknown.replace(valid,
        "Valid options: alpha, zeta"), others


def rows():
    """Name, what is called, what comes of it, what is there before."""
    files = details, copies, imports, manifests, loading, workspace, universes, key_file
    for part in (*files, local_runtime, propagation, entry_points, options):
        yield from part()
# fmt: on


def scenario(act, story, *prepare):
    told = (story,) if isinstance(story, str) else tuple(story)
    [outcome] = [line for line in told if line.startswith(("returned ", "raised "))]
    return Call(act, re.split(r" (?:from |while )\[| \{'", outcome)[0], prepare, told)


CALLS = {name: scenario(*row) for name, *row in rows()}

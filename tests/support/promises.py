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

# ruff: noqa: F405  each name is one of the fixtures; a row is made and used at once
CHECKLIST = m._HEARTBEAT_STATIC_SECTION.encode()
NUDGE = m._NUDGE_TEXTS["era_change"].encode() + b"\n"
NATIVE = Path(corvane_local.__path__[0]) / "native_modules"
BUILDS = "backtester-1.so", "backtester-2.so", "era_data.so"
D1, D2, ERA_DATA = (hashlib.sha256((NATIVE / name).read_bytes()).hexdigest() for name in BUILDS)
MODES = {D: (NATIVE / name).stat().st_mode for D, name in zip((D1, D2, ERA_DATA), BUILDS, strict=True)}

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
MANIFEST_READ = "open('d/manifest.json', 'r', encoding='utf-8')"
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


def saved(key):
    """From the opened file to the last change of its mode."""
    return OPEN_WRITE, FSTAT, FCHMOD, f"os.write(fd, {key.encode()!r})", CLOSE, CHMOD


def left(key, age="", mode="600"):
    return f"d/wallet.key: 100{mode} {key.encode() if isinstance(key, str) else key!r}{age}"


def checklist(content):
    return f"HEARTBEAT.md: 100600 {content!r}"


def copied(name, content, source=""):
    """A loaded module: its copy, and what the module table holds."""
    copy = f"d/.corvane-runtime-{name}-{content[:16]}.so"
    held = f"loaded {name}: ['./{copy}', '{content}', './d/{source or f'{name}.so'}']"
    return f"{copy}: {MODES[content]:o} '{content[:16]}'", held


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


def replaced(steps, old, new):
    return [step.replace(old, new) for step in steps]


def having(exc, **attributes):
    for name, value in attributes.items():
        setattr(exc, name, value)
    return exc


class Fresh(Exception):
    """Has a new cause each time it is asked; the text changes after fifty of the same."""

    __cause__ = property(lambda self: Fresh(self.args[0] + 1))
    __str__ = lambda self: str(self.args[0] // 50)  # noqa: E731


class Chunks(io.BytesIO):
    """A file that notes how it is read."""

    def read(self, size=-1):
        say(f"read({size})")
        return super().read(size)


# fmt: off
def details():
    loop = chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    for name, exc, seen in (
        ("nothing is nothing", None, ""),
        ("a link without text is its class", ValueError(), "ValueError"),
        ("blanks around a text go", ValueError(" x\n"), "ValueError: x"),
        ("causes follow", chain(ValueError("x"), KeyError()), "ValueError: x > KeyError"),
        ("a context is no cause", having(ValueError("a"), __context__=KeyError("b")), "ValueError: a"),
        ("a diagnosis follows its link", having(OSError(1), diagnostic_detail="full"), "OSError: 1; diagnostic: full"),
        ("an empty diagnosis is none", having(OSError("x"), diagnostic_detail=""), "OSError: x"),
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
    sha, million = "_sha256_file", ours(open=lambda path, mode: Chunks(bytes(2**20)))
    yield "digest: an empty file", call(sha, "x"), ("open('x', 'rb')", f"returned '{hashlib.sha256().hexdigest()}'"), \
        file("x")
    of_million = f"returned '{hashlib.sha256(bytes(2**20)).hexdigest()}'"
    yield "digest: read by 1 MiB until nothing comes", call(sha, "x"), (*2 * ["read(1048576)"], of_million), million
    copy, name = "_content_addressed_extension_path", "d/.corvane-runtime-n-0123456789abcdef.so"
    made_copy, source = call(copy, "n", "d/x.pyd", "0123456789abcdefXX"), file("d/x.pyd", "abc", 0o640, 7)
    link, back, copied_file = f"os.link('d/x.pyd', './{name}')", f"returned './{name}'", f"{name}: 100640 b'abc' of 7"
    yield "copy: a link where that is possible", made_copy, (link, back, copied_file), source
    unlinked = other_os(link=raising(OSError))
    yield "copy: keeps mode and modification time", made_copy, (link, back, copied_file), source, unlinked
    yield "copy: is trusted by its name", made_copy, back, source, file(name, "other")
    symbolic = made(lambda p: p.symlink_to("d/x.pyd"), "link")
    followed = other_os(link=lambda a, b: os.link(os.path.realpath(a), b))
    yield "copy: beside what a link leads to", call(copy, "n", "link", "0123456789abcdef"), (
        f"os.link('link', './{name}')", back, copied_file), source, symbolic, followed

    def there(names):
        """Files in the order of their names, each with its age as last digit."""
        return [file(f"d/.corvane-runtime-{name[:-1]}", "", 0o600, int(name[-1])) for name in names.split()]

    def without(*names):
        gone = [f"d/.corvane-runtime-x-{name}.so" for name in names]
        return *(f"os.unlink('./{name}')" for name in gone), "returned None", *(f"{name}: gone" for name in gone)

    def pruned(keep, **how):
        return call("_prune_runtime_extension_copies", "x", f"d/.corvane-runtime-x-{keep}.so", **how)

    listing = {"listdir": lambda path: sorted(os.listdir(path))}
    two, four, same_age = "x-a.so3 x-b.so2", "x-a.so3 x-b.so2 x-c.so1 x-d.so0", "x-a.so5 x-b.so5 x-c.so5 x-d.so5"
    for what, act, names, gone in (
        ("the kept and the newest stay", pruned("d"), four, "bc"),
        ("two stay when the newest is kept", pruned("a"), four, "cd"),
        ("as many as said stay", pruned("d", max_copies=1), four, "abc"),
        ("two are not too many", pruned("b"), two, ""),
        ("of one age the first listed stays", pruned("c"), same_age, "bd"),
        ("other names stay", pruned("a"), f"{two} x-e.txt0 y-f.so0 xx-g.so0 x-h.so0", "h"),
    ):
        yield f"prune: {what}", act, without(*gone), *there(names), other_os(**listing)
    dangling = made(lambda p: p.symlink_to("nowhere"), "d/.corvane-runtime-x-z.so")
    yield "prune: what has no status stays", pruned("a"), "returned None", *there(two), dangling
    refusing = other_os(**listing, unlink=raising(PermissionError))
    yield "prune: what cannot be deleted stays", pruned("a"), without("c", "d")[:3], *there(four), refusing
    yield "prune: a directory that cannot be listed", pruned("a"), "returned None"


def imports():
    """The import of a native module from its copy."""
    fresh = (f"returned {module('backtester', D1)}", *copied("backtester", D1))
    steps, copy = linked("backtester", D1), f"./d/.corvane-runtime-backtester-{D1[:16]}.so"
    here = lambda: str(base() / "work" / copy[2:])  # noqa: E731
    yield "import", IMPORT, (*steps, *fresh), BOTH
    yield "import: the same build is returned as it is", lambda: IMPORT() is IMPORT(), (*steps, steps[0],
        "returned True", *fresh[1:]), BOTH

    def present(file=None, **marks):
        named = lambda: {"__file__": file()} if file else {}  # noqa: E731
        return lambda undo: sys.modules.update(backtester=types.SimpleNamespace(**named(), **marks))

    for what, marks in (
        ("the same file with another digest is another build", {"file": here, "_corvane_module_sha256": "other"}),
        ("another file with the same digest is another build", {"file": str, "_corvane_module_sha256": D1}),
        ("what was imported otherwise is replaced", {}),
    ):
        yield f"import: {what}", IMPORT, (*steps, *fresh), BOTH, present(**marks)
    other = call("_load_extension_from_path", "backtester", "d/other.so")
    two = native(backtester={"source": "backtester-1.so"}, other={"source": "backtester-2.so"})
    second = "open('d/other.so', 'rb')", linked("backtester", D2)[1].replace("d/backtester.so", "d/other.so")
    copy_2, held = copied("backtester", D2, "other.so")
    yield "import: another build replaces it", lambda: (IMPORT() is other(), len(os.listdir("d"))), (*steps, *second,
        "returned (False, 5)", *sorted([fresh[1], copy_2]), held), two
    failure = IMPORT, (*steps, "raised LookupError: no", fresh[1]), BOTH, ours(
        _prune_runtime_extension_copies=raising(LookupError, "no"))
    yield "import: a failure takes the module out again", *failure
    yield "import: a failure puts the old module back", *failure, present()
    no_spec = f"raised RuntimeError: Could not create import spec for {copy}"
    for what, found in ("that nothing can import", None), ("without a loader", types.SimpleNamespace(loader=None)):
        unknown = patched(sys.modules["importlib.util"], spec_from_file_location=lambda *args, found=found: found)
        yield f"import: a file {what} is refused", IMPORT, (*steps, no_spec, fresh[1]), BOTH, unknown

    in_its_place = types.SimpleNamespace(_corvane_module_sha256="other")
    swapping = lambda *args: (sys.modules.update(backtester=in_its_place), raising(LookupError, "no")())  # noqa: E731
    yield "import: what has taken its place stays after a failure", *failure[:1], (*failure[1],
        "loaded backtester: [None, 'other', None]"), BOTH, present(), ours(_prune_runtime_extension_copies=swapping)

    class Loader:
        create_module = staticmethod(lambda spec: None)

        def exec_module(self, made):
            marked = hasattr(made, "_corvane_module_sha256")
            say(f"in the table {made is sys.modules['backtester']}, marked {marked}")

    def specified(name, path):
        say(f"specified({name}, {path})")
        return importlib.machinery.ModuleSpec(name, Loader())

    in_table = patched(sys.modules["importlib.util"], spec_from_file_location=specified)
    yield "import: a module is registered before it is executed, and marked after it", IMPORT, (*steps,
        f"specified(backtester, {copy})", "in the table True, marked False", "returned <module 'backtester' "
        "(<support.promises.imports.<locals>.Loader object>)>", fresh[1], f"loaded backtester: [None, '{D1}', "
        "'./d/backtester.so']"), BOTH, in_table


def manifests():
    read, files_of = call("_read_manifest", "d"), "_manifest_files"
    for what, text, seen in (
        ("in full", '{"era_id": [1], "version": 2, "files": {"a": {}}, "more": 1}',
         "returned namespace(era_id=[1], version=2, files={'a': {}})"),
        ("all is optional", "{}", "returned namespace(era_id=None, version=None, files={})"),
        ("files of any type", '{"files": 5}', "returned namespace(era_id=None, version=None, files=5)"),
        ("not JSON", "{", f"raised {NO_JSON}"), ("not UTF-8", b"\xff", f"raised {NO_TEXT}"),
        ("not an object", "[]", "raised AttributeError: 'list' object has no attribute 'get'"),
    ):
        yield f"manifest: {what}", read, (MANIFEST_READ, seen), file("d/manifest.json", text)
    yield "manifest: missing", read, refused("DownloadIncomplete", "Runtime manifest is missing at d/manifest.json.",
        relative_path="manifest.json")
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
    yield "entries: a kind is taken as text", lambda: [*entries({"a": entry(5)})], \
        "returned [('<5>', 'a', {'kind': 5})]", text_of_kind
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
    first, path, known = "sys.path[0]: './d'", "d/backtester.so", {"module_name": "backtester"}
    copy, held = copied("backtester", D1)
    done, result = (*loaded("backtester", D1), f"returned {module('backtester', D1)}"), (copy, held, first)
    read = MANIFEST_READ, done[0]
    listed = {**known, "relative_path": "backtester.so"}

    def mismatch(expected):
        text = f"Runtime module 'backtester' hash mismatch at {path}: expected {expected}, got {D1}."
        return *read, refused("HashMismatch", text, **listed, expected_sha256=expected, actual_sha256=D1), first

    full = MANIFEST_READ, *done, *result
    yield "load", LOAD, full, BOTH
    again = lambda undo: sys.path.append(str(base() / "work/d"))  # noqa: E731
    yield "load: a directory that is on sys.path is not added again", LOAD, full[:-1], BOTH, again
    unlisted = "DownloadIncomplete", "Manifest does not contain a runtime module for 'x'."
    for what in None, "":
        default = call("_load_manifest_runtime_module", what, "x", manifest={})
        yield f"load: {what!r} is the default directory", default, (refused(*unlisted, module_name="x"), first), BOTH, \
            made(lambda p: p.symlink_to("d"), ".corvane")
    yield "load: unlisted", call("_load_manifest_runtime_module", "d", "x", expected_sha256="5a"), (MANIFEST_READ,
        refused(*unlisted, module_name="x", expected_sha256="5a"), first), BOTH
    for what, expected, digest, seen in (
        ("the expected digest goes before the listed one", D1, "other", full),
        ("a file without the expected digest is not loaded", "5a", D1, mismatch("5a")),
        ("digests are compared exactly", "", D1.upper(), mismatch(D1.upper())),
        ("without a digest there is no check", None, None, full),
    ):
        load, entry_of = call("_load_manifest_runtime_module", "d", "backtester", expected_sha256=expected), {
            "source": "backtester-1.so", "listed": {"sha256": digest}}
        yield f"load: {what}", load, seen, native(backtester=entry_of)
    absent = refused("DownloadIncomplete", f"Runtime module 'backtester' is missing at {path}.", **listed,
        expected_sha256=hashlib.sha256().hexdigest())
    yield "load: missing", LOAD, (MANIFEST_READ, absent, first), native(backtester={"source": ""})
    text, bad = native(backtester={"source": b"no library"}), hashlib.sha256(b"no library").hexdigest()
    bad_copy = f"d/.corvane-runtime-backtester-{bad[:16]}.so"
    short = f"./{bad_copy}: file too short"
    yield "load: no library", LOAD, (*read, done[0], f"os.link('{path}', './{bad_copy}')", refused("ReloadFailed",
        f"Runtime module 'backtester' failed to load from {path}: {short}", f" from [ImportError: {short}]", **listed,
        expected_sha256=bad, actual_sha256=bad), f"{bad_copy}: 100644 b'no library'", first), text
    broken = "ReloadFailed", f"Runtime module 'backtester' failed to load from {path}: broken", \
        " from [LookupError: broken]"
    yield "load: a failed import is the cause", LOAD, (*read, refused(*broken, **listed, expected_sha256=D1,
        actual_sha256=D1), first), BOTH, ours(_load_extension_from_path=raising(LookupError, "broken"))
    for what, stamp, actual in (
        ("another digest", {"_corvane_module_sha256": "5a"}, {"actual_sha256": "5a"}), ("no digest", {}, {}),
    ):
        swapped = ours(_load_extension_from_path=lambda *args, stamp=stamp: types.SimpleNamespace(**stamp))
        yield f"load: a module with {what} is refused", LOAD, (*read, refused("HashMismatch", "Runtime module "
            "'backtester' loaded with unexpected hash.", **listed, expected_sha256=D1, **actual), first), BOTH, swapped
    names, in_order = ("zeta", "alpha", "era_data", "vault"), ("era_data", "alpha", "vault", "zeta")
    listing = {"files": {f"{9 - n}": entry(f"runtime_module:{name}", sha256=name) for n, name in enumerate(names)}}
    order = [f"load('d', '{name}', expected_sha256='{name}', manifest={listing})" for name in in_order]
    yield "load all: era data first, then by name", call("_load_runtime_modules_from_manifest", "d", listing), (*order,
        f"returned {dict.fromkeys(in_order, 'module')}"), ours(_load_manifest_runtime_module=Anything("load", {
        "load()": "module"}))
    for what, digest, seen in (
        ("loads what has the digest", D1, full), ("insists on the digest that it expects", "5a", mismatch("5a")),
    ):
        load = lambda digest=digest: scenarios.m.create_runtime_freshness_guard("d")._load("backtester", digest)  # noqa: E731
        yield f"guard: {what}", load, seen, BOTH
    per_era = call("_load_per_era_backtester", "d")
    era, era_copied = loaded("era_data", ERA_DATA), copied("era_data", ERA_DATA)
    told = "INFO Loaded per-era backtester from manifest in %s ('d',)"
    yield "backtester", per_era, (MANIFEST_READ, *era, *done[:3], told, done[3], *sorted([copy, era_copied[0]]),
        *sorted([held, era_copied[1]]), first), BOTH
    cause = "Runtime manifest is missing at d/manifest.json. {'relative_path': 'manifest.json'}"
    yield "backtester: needs a manifest", per_era, (refused("DownloadIncomplete", "Per-era backtester runtime is "
        "required; sync the runtime manifest before loading the SDK backtester.", f" from [RuntimeModuleDownload"
        f"Incomplete: {cause}]", **known, relative_path="manifest.json"), first)
    yield "backtester: unlisted", per_era, (MANIFEST_READ, *era, refused("DownloadIncomplete", "Per-era backtester "
        "runtime is missing from manifest.", **known), *era_copied, first), native(era_data={})


def workspace():
    """HEARTBEAT.md keeps all that was in it, but for its line ends; no other file of the workspace is touched."""
    find, here = "_find_heartbeat", file("HEARTBEAT.md")
    for what, start, found in (
        ("here", None, "'./HEARTBEAT.md'"), ("three directories up", "a/b/c", "'HEARTBEAT.md'"),
        ("not four directories up", "a/b/c/d", None), ("a trailing slash takes a step", "a/b/c/", None),
        ("a dot has one parent", ".", "'./HEARTBEAT.md'"), ("from the root on there is no parent", "/", None),
        ("a path is taken as it is", "~", "'HEARTBEAT.md'"),
    ):
        yield f"find: {what}", call(find, start), f"returned {found}", here
    inject, nudge = call("inject_heartbeat"), call("update_nudge", "era_change", n=1)
    section, ticked = b"\n" + CHECKLIST, NUDGE.replace(b"[ ]", b"[x]")
    for name, act, before, after, what in (
        ("inject", inject, b"abc", b"abc\n" + section, ""),
        ("inject", inject, b"abc\n", b"abc\n" + section, ": one blank line before the section"),
        ("inject", inject, b"", section, ": an empty file begins with a blank line"),
        ("inject", inject, b"a\r\nb\rc", b"a\nb\nc\n" + section, ": line ends become line feeds"),
        ("inject", inject, NUDGE, NUDGE + section, ": a nudge is no section"),
        ("inject", inject, b"x ## [Corvane] y", None, ": once per file"),
        ("nudge", nudge, b"abc", b"abc\n" + NUDGE, ""),
        ("nudge", nudge, b"abc\n", b"abc\n" + NUDGE, ": no blank line before it"),
        ("nudge", nudge, b"", b"\n" + NUDGE, ": an empty file begins with a blank line"),
        ("nudge", nudge, b"\xc3\xa4\r\n", "\u00e4\n".encode() + NUDGE, ": line ends become line feeds"),
        ("nudge", nudge, NUDGE + b"x\n", None, ": once per file"),
        ("nudge", nudge, ticked, ticked + NUDGE, ": again when it was ticked off"),
    ):
        seen = (READING, "returned None") if after is None else (READING, WRITING, "returned None", checklist(after))
        yield f"{name}{what}", act, seen, file("HEARTBEAT.md", before)
    for name, act, lost_read, lost_write in (
        ("inject", inject, *(f"Failed to {verb} HEARTBEAT.md at %s: %s ('./HEARTBEAT.md', {{}})" for verb in (
            "read", "write"))),
        ("nudge", nudge, "update_nudge failed: %s ({},)", "update_nudge failed: %s ({},)"),
    ):
        yield f"{name}: no file is made", act, "returned None"
        yield f"{name}: opted out", act, "returned None", here, config(auto_heartbeat=False)
        for what, steps, told, failure, there in (
            ("what is no UTF-8 stays", [READING], lost_read, "UnicodeDecodeError('utf-8', b'\\xff', 0, 1, 'invalid "
             "start byte')", [file("HEARTBEAT.md", b"\xff")]),
            ("an unwritable file is logged", [READING, WRITING], lost_write, "KeyError('w')", [here, READ_ONLY]),
            ("a directory counts and is logged", [READING], lost_read, "IsADirectoryError(21, 'Is a directory')",
             [made(Path.mkdir, "HEARTBEAT.md")]),
        ):
            warning = f"WARNING {told.format(failure)} while {failure.partition('(')[0]}"
            yield f"{name}: {what}", act, (*steps, warning, "returned None"), *there
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
    bootstrap = "RuntimeError: Registration bootstrap "
    failed, invalid = f"{bootstrap}failed to fetch /eras.", f"raised {bootstrap}received invalid /eras JSON."
    for token in None, "":
        yield f"eras: token {token!r}", call("_fetch_eras_payload", manager(get_token=lambda token=token: token)), \
            f"raised {bootstrap}could not fetch /eras without an auth token."
    yield "eras: a token is taken as text", call("_fetch_eras_payload", manager(get_token=lambda: 5)), (
        REQUEST.replace("token", "5"), "returned {}"), answer(b"{}")
    fetch = call("_fetch_eras_payload", manager())
    yield "eras: one slash", fetch, (ETAG[0], REQUEST.replace(SERVER, "https://x/y"), "returned {'eras': []}"), \
        eras(), config(server_url="https://x/y//")
    for what, given, seen in (
        ("200", answer(b'{"a": 1}'), "returned {'a': 1}"),
        ("no status", answer(b"{}", None), "returned {}"),
        ("204", answer(b"", 204), f"raised {failed[:-1]}: HTTP 204"),
        ("not UTF-8", answer(b"\xff"), f"{invalid} from [{NO_TEXT}]"),
        ("not JSON", answer(b"{"), f"{invalid} from [{NO_JSON}]"),
        ("no object", answer(b"[]"), f"raised {bootstrap}received invalid /eras payload."),
        ("lost", opening(raising(urllib.error.URLError, "x")), f"raised {failed} from [URLError: <urlopen error x>]"),
        ("late", opening(raising(TimeoutError, "x")), f"raised {failed} from [TimeoutError: x]"),
        ("another failure", opening(raising(LookupError, "x")), "raised LookupError: x"),
    ):
        yield f"eras: {what}", fetch, (*ETAG, seen), given
    names = {" us\n": "us", "...": "...", 7: "7", 0: "0", ("x",): "('x',)"}
    unusable = None, "", " ", ".", " .. ", "a/b", "a\\b", "a\0", ["/"]
    for value, name in (*names.items(), *((value, None) for value in unusable)):
        yield f"name: {value!r}", call("_safe_named_universe", value), f"returned {name!r}"
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
    first_name = "_first_allowed_named_universe_from_era_config"
    for era, found in (
        (None, None), ({}, None), ({"named_universe": " us "}, "us"), ({"allowed_named_universes": ["..", "b"]}, "b"),
        ({"allowed_named_universes": "b", "named_universe": "c"}, "b"),
        ({"signal_pools": [5, {}, {"allowed_named_universes": ["..", " a"]}], "allowed_named_universes": "b"}, "a"),
        ({"signal_pools": [{"allowed_named_universes": "/"}, {"allowed_named_universes": ["..", "/"]}],
          "named_universe": "c"}, "c"),
    ):
        yield f"first name: {era}"[:60], call(first_name, era), f"returned {found!r}"
    resolve, us = call("_resolve_active_named_universe", manager()), "option named_universe: 'us'"
    yield "resolve: a configured name is taken", resolve, ("returned 'mine'", us.replace("us", "mine")), config(
        named_universe=" mine ")
    for unsafe in "a/b", "..", "":
        yield f"resolve: {unsafe!r} is none", resolve, (*ETAG, "returned 'us'", us), eras(ERA), config(
            named_universe=unsafe)
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
    home = made(lambda p: p.symlink_to("d"), ".corvane"), file("d/x")
    for value, found in ((None, "./d"), ("", "./d"), ("~/x", "./x"), (".corvane/../y", "./y"), ("/nowhere/../z", "/z")):
        yield f"directory: {value}", call("_canonical_data_dir", value), f"returned {found!r}", *home
    yield "key path: that of the target", call("_wallet_key_path", ".corvane"), f"returned '{K}'", *home
    yield "refusal", call("_unsafe_wallet_error", K), f"returned {OSError(UNSAFE[9:])!r}"
    read, write = call("_read_wallet_key", "d"), call("_write_wallet_key", "d", "0x" + KEY)
    there, begun = (LSTAT, OPEN_READ, FSTAT), (MADE, LSTAT, OPEN_WRITE, FSTAT)
    got, put_down, empty = f"returned '{KEY}'", (*saved("0x" + KEY), "returned None", left("0x" + KEY)), left(b"")
    yield "read", read, (*there, got), KEY_FILE
    yield "write", write, (MADE, LSTAT, *put_down), file("d/wallet.key", "x" * 200)
    loose = file("d/wallet.key", KEY, 0o4606)
    yield "read loose", read, (*there, FCHMOD, got, left(KEY, " of 0")), loose
    yield "write loose", write, (*begun, FCHMOD, *saved("0x" + KEY)[2:], *put_down[-2:]), loose
    foreign = types.SimpleNamespace(st_mode=0o100600, st_uid=12345)
    nobodys = other_os(getuid=MISSING, lstat=lambda path: foreign, fstat=lambda fd: foreign)
    for name, act, first, opened, done, no, failed, emptied in (
        ("read", read, (LSTAT,), there[:2], (FSTAT, got), UNSAFE, NOT_READ, ()),
        ("write", write, (MADE, LSTAT), begun[:3], put_down[1:], NOT_WRITTEN, NOT_WRITTEN, (empty,)),
    ):
        for what, *given in (
            ("a key that a link points to", LINK, file("d/victim", "x")), ("a directory", made(Path.mkdir)),
            ("a FIFO", made(os.mkfifo)), ("the file of another user", KEY_FILE, other_os(getuid=lambda: 12345)),
        ):
            yield f"{name}: {what} is refused", act, (*first, f"raised {UNSAFE}"), *given
        for what, seen, fails in (
            ("a file without status is refused", (*first, f"raised {failed}"), {"lstat": raising(OSError, 5, "no")}),
            ("cannot be opened", (*opened, f"raised {no}"), {"open": raising(OSError, 5, "no")}),
        ):
            yield f"{name}: {what}", act, (*seen[:-1], f"{seen[-1]} while [OSError: [Errno 5] no]"), KEY_FILE, other_os(
                **fails)
        again = "" if name == "read" else f" while [{UNSAFE}]"
        for what, status in (("a directory", None), ("another user's file", foreign)):
            in_between = other_os(fstat=lambda fd, status=status: status or os.stat("."))
            yield f"{name}: {what} that came in between is refused", act, (*opened, FSTAT, f"{CLOSE} while OSError",
                f"raised {no}{again}", *emptied), KEY_FILE, in_between
        denied = "PermissionError: [Errno 1] no"
        yield f"{name}: a mode that cannot be changed", act, (*opened, FSTAT, FCHMOD, f"{CLOSE} while PermissionError",
            f"raised {denied}" if name == "read" else f"raised {NOT_WRITTEN} while [{denied}]", *(text.replace("600",
            "640") for text in emptied)), file("d/wallet.key", KEY, 0o640), other_os(fchmod=raising(PermissionError, 1,
            "no"))
        flags = WRITE_FLAGS if name == "write" else READ_FLAGS
        followed = *opened[:-1], opened[-1].replace(str(flags), str(flags - os.O_NOFOLLOW))
        yield f"{name}: where links cannot be refused", act, (*followed, *done), KEY_FILE, other_os(O_NOFOLLOW=MISSING)
        yield f"{name}: where there are no users, the owner is not asked", act, (*opened, *done), KEY_FILE, nobodys
    yield "read: a missing file is no key", read, "returned None"
    yield "read: a link that leads nowhere is no key", read, "returned None", LINK
    yield "read: no text", read, (*there, f"raised {NO_TEXT}"), file("d/wallet.key", b"\xff")
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


ERA_CONFIG, EVALUATOR, RUNTIME, VAULT, REGISTRY = (f"_runtime.{name}()" for name in (
    "_normalize_era_config", "RuntimeEvaluationAdapter", "LibraryRuntime", "_wrap_synced_vault",
    "_build_function_registry"))


def built(era=3, batch=(1, 2, 3, 4), options=ON_DISK["era_config"], wrong=(), vocabulary=None):
    """The steps of a local bootstrap that is complete."""
    vocabulary, adapter = vocabulary or {"era_id": "7"}, "_runtime._RuntimeManifestAdapter()"
    record = f"namespace(era_id={era}, files={{'x': {{}}}}, named_universe='u')"
    sync = f"local manager {{'_manifest': {record}, '_vocabulary': {{}}, 'runtime_freshness_guard': guard}}"
    evaluator = spread(
        data_dir="'./d'", era_config=ERA_CONFIG, raw_backtester=RAW, vault=VAULT, manifest=record, graph_validator=None,
        batch_orchestrator_cls=batch[0], compute_search_plan=batch[1], expression_type_cls=batch[2],
        expression_evaluator=batch[3], registry=REGISTRY, raw_vocabulary=vocabulary, named_universe="'u'",
        auth="manager", runtime_freshness_guard="guard")
    runtime = spread(
        auth="manager", auth_proxy="manager", data_dir="'./d'", server_url=repr(SERVER), sync_manager=sync, era_id=era,
        era_thread="_runtime._EraThreadProxy()", era_config=ERA_CONFIG, search_era_config="_runtime._SearchEraConfig()",
        named_universes="('u',)", default_named_universe="'u'", vocabularies={"u": vocabulary},
        feature_dirs={"u": "./d/features/u"}, manifest_adapters=f"{{'u': {adapter}}}", vocabulary_raw=vocabulary,
        registry=f"{EVALUATOR}.registry", vault=VAULT, raw_backtester=RAW, evaluator=EVALUATOR,
        search_tracker="search_tracking.SearchTracker()", runtime_freshness_guard="guard")
    return [
        "open('./d/features/u/vocabulary.json', 'r', encoding='utf-8')", "guard('./d')",
        *2 * ["open('./d/manifest.json', 'r', encoding='utf-8')"],
        "load_modules('./d', namespace(era_id=None, version=None, files={'x': {}}))",
        f"guard.record_loaded_module('backtester', '5a', module={RAW})",
        f"_runtime._normalize_era_config({options}, {vocabulary}, manifest={{'files': {{'x': {{}}}}}})",
        f"_runtime._wrap_synced_vault('data', manifest={record}, era_config={ERA_CONFIG})",
        f"_runtime._build_function_registry({vocabulary}, era_config={ERA_CONFIG})",
        "_runtime._import_batch_runtime()", *wrong,
        f"_runtime.RuntimeEvaluationAdapter({evaluator})",
        f"guard.register_module_consumer('backtester', {EVALUATOR}, 'raw_backtester')",
        "search_tracking.SearchTracker('./d')",
        f"{adapter[:-2]}({record}, feature_epoch='signal_is', named_universe='u', era_config={ERA_CONFIG})",
        f"_runtime._EraThreadProxy({sync})",
        f"_runtime._SearchEraConfig({ERA_CONFIG})",
        f"_runtime.LibraryRuntime({runtime})",
        f"_runtime._runtime = {RUNTIME}",
        f"_runtime._build_graph_validator({EVALUATOR}.registry, {vocabulary}, {ERA_CONFIG}, {EVALUATOR})",
        f"{EVALUATOR}.graph_validator = _runtime._build_graph_validator()",
        f"guard.register_module_consumer('backtester', {RUNTIME}, 'raw_backtester')",
    ]


def manager_methods():
    local = scenarios.m._LocalRuntimeSyncManager("manifest", runtime_freshness_guard=5)
    done = local.acquire(), local.release(), local.register_era_callback(1), local.unregister_era_callback(1)
    local.request_for_sync().append("a new list each time")
    other = scenarios.m._LocalRuntimeSyncManager(1).runtime_freshness_guard
    return local.get_manifest(), local.request_for_sync(), vars(local), done, other


def local_runtime():
    """What stands in for the kit's own bootstrap."""
    kept = {"_manifest": "manifest", "_vocabulary": {}, "runtime_freshness_guard": 5}
    yield "sync manager", manager_methods, f"returned ('manifest', [], {kept}, (None, None, None, None), None)"
    opened = "open('x', 'r', encoding='utf-8')"
    for path in None, "", "nowhere":
        yield f"json: {path!r}", call("_read_json_if_present", path), "returned None"
    yield "json: any value", call("_read_json_if_present", "x"), (opened, "returned []"), file("x", "[]")
    yield "json: invalid", call("_read_json_if_present", "x"), (opened, f"raised {NO_JSON}"), file("x", "{")
    top, own = "d/vocabulary.json", "d/features/u/vocabulary.json"
    for name, there, found in (("u", (top, own), own), ("u", (top,), top), ("", (top, own), top), (None, (own,), None),
                               ("u", (), None)):
        yield f"vocabulary: {name!r} of {len(there)} {found}", call("_local_vocabulary_path", "d", name), \
            f"returned {found!r}", *map(file, there)
    steps, done, bare = built(), f"returned {RUNTIME}", {"signal_pools": [{"allowed_named_universes": "u"}]}
    other_universe = replaced(replaced(replaced(steps, "'u'", "'v'"), "['v']", "['u']"), "/u'", "/v'")
    other_universe[0] = "open('./d/vocabulary.json', 'r', encoding='utf-8')"
    for what, seen, given in (
        ("", (*steps, done), on_disk()),
        (": no era", "returned None", on_disk(era_config=None)),
        (": an era that is no dict", "returned None", on_disk(era_config=[])),
        (": no vocabulary", "returned None", on_disk({VOCABULARY: None})),
        (": a vocabulary that is no dict", (steps[0], "returned None"), on_disk({VOCABULARY: "[]"})),
        (": the vocabulary's era", (*built(7, options=bare), done), on_disk(era_config=bare)),
        (": no era is 0", (*built(0, options=bare, vocabulary={"a": 1}), done), on_disk({VOCABULARY: '{"a": 1}'},
            era_config=bare)),
        (": the server that is set", (*replaced(steps, f"server_url='{SERVER}'", "server_url='https://x'"), done),
            on_disk(server_url="https://x")),
        (": the usual server", (*steps, done), on_disk(server_url="")),
        (": the universe that is set", (*other_universe, done), on_disk({VOCABULARY: None, "d/vocabulary.json":
            CONTENTS[VOCABULARY]}, named_universe="v")),
        (": no backtester", (*steps[:5], refused("DownloadIncomplete", "Per-era backtester runtime is missing from "
            "manifest.", module_name="backtester")), on_disk(modules={"era_data": "data"})),
        (": a backtester without digest is not recorded", (*replaced(steps[:5] + steps[6:], repr(RAW), "'raw'"), done),
            on_disk(modules={"backtester": "raw", "era_data": "data"})),
        (": the kit's own vault", (*steps[:6], "_runtime._load_vault_module(vault_module=None)", steps[6], *replaced(
            steps[7:], "'data'", "_runtime._load_vault_module()"), done), on_disk(modules={"backtester": RAW})),
    ):
        yield f"local{what}", LOCAL_BOOTSTRAP, seen, kit(), *given
    for batch, seen in (
        ((1, 2, 3), "ValueError('not enough values to unpack (expected 4, got 3)'),) while ValueError"),
        (ImportError, "ImportError('no'),) while ImportError"),
    ):
        warning = "WARNING Batch runtime import failed during local bootstrap; continuing without batch orchestration "
        without = built(batch=[None] * 4, wrong=[f"{warning}helpers: %s ({seen}"])
        yield f"local: without batch {batch}", LOCAL_BOOTSTRAP, (*without, done), kit({
            "_runtime._import_batch_runtime()": batch}), *on_disk()
    yield "local: a failing validator takes the runtime away", LOCAL_BOOTSTRAP, (*steps[:-2], "_runtime._runtime = "
        "None while LookupError", "raised LookupError: no"), kit({"_runtime._build_graph_validator()": LookupError}), \
        *on_disk()
    missing = "raised ModuleNotFoundError: import of corvane._runtime halted; None in sys.modules"
    yield "local: without kit", LOCAL_BOOTSTRAP, (steps[0], missing), kit(_runtime=None), *on_disk()


LOCAL_BOOTSTRAP = call("_bootstrap_local_runtime_from_config", manager())
# Where the arguments of init_simulate_signal come from: a part of the runtime, of the same name where none is given.
PARTS = """sync_manager vault backtester=evaluator search_tracker era_thread graph_validator=evaluator.graph_validator
    compute_search_plan=evaluator.compute_search_plan era_config load_vocabulary
    useful_signal_metadata=sync_manager._vocabulary load_found_signal_pnl=evaluator.load_found_signal_pnl
    signal_dir=data_dir BatchOrchestrator_cls=evaluator.make_batch_orchestrator_cls()
    correlate_per_pool=evaluator.correlate_per_pool compute_mi_per_pool=evaluator.compute_mi_per_pool
    vocabulary=registry vocabulary_raw runtime_freshness_guard"""
GIVEN = "_runtime.bootstrap_runtime()"
EXPORTED = "corvane.simulate_signal: simulate_signal._simulate_signal_export"
INJECTED = f"search_templates._library_runtime = {GIVEN}"
UNSET = patched(auth, _set_active_auth_manager=raising(ValueError, "no"))
NOT_SET = "WARNING Failed to set active auth manager: %s (ValueError('no'),) while ValueError"
NOT_BOOTSTRAPPED = "WARNING Failed to bootstrap corvane runtime: %s (OSError('no'),) while OSError"
NO_DATA = "raised RuntimeError: Corvane registration authenticated, but runtime data bootstrap"
SET, ACTIVE_MANAGER = "auth._set_active_auth_manager(manager)", "active manager: manager"


def simulation(runtime, absent=()):
    """How the simulation is initialised with the parts of a runtime."""
    parts = {name: part or name for name, _, part in (text.partition("=") for text in PARTS.split())}
    given = {name: None if name in absent else f"{runtime}.{part}" for name, part in parts.items()}
    called = f"simulate_signal.init_simulate_signal({spread(auth='manager', **given)})"
    return f"{runtime}.evaluator.make_batch_orchestrator_cls()", called


def booting(**options):
    """The kit's bootstrap, with these options."""
    return f"_runtime.bootstrap_runtime(manager, { {**DEFAULTS, 'data_dir': 'd', **options} }, " \
        "<function _load_per_era_backtester>)"


def propagation():
    """How the manager and the runtime reach the rest of the kit."""
    strict, tolerant = call("_propagate_auth", manager(), strict=True), call("_propagate_auth", manager())
    boot, no = booting(), "OSError('no'),) while OSError"
    start, sim = (SET, boot), simulation(GIVEN)
    good, ends = (*start, INJECTED, *sim), (f"returned {GIVEN}", ACTIVE_MANAGER, EXPORTED)
    no_simulation = "WARNING Failed to initialize simulate_signal: %s (RuntimeError('private corvane runtime was not " \
        "initialized'),) while RuntimeError", "returned None", ACTIVE_MANAGER
    simulation_failed, wrapped = "WARNING Failed to initialize simulate_signal: %s (", "raised RuntimeError: Corvane " \
        "simulate_signal bootstrap failed: "
    refusal = f"WARNING Failed to inject runtime into search_templates: %s ({no}"
    lost = f"WARNING Failed to restore top-level simulate exports: %s ({no}"
    export, no_export = "Corvane simulate exports bootstrap failed.", kit({
        "simulate_signal._simulate_signal_export": OSError})
    no_templates, broken = kit({"search_templates._library_runtime =": OSError}), kit({
        "simulate_signal.init_simulate_signal()": OSError})
    yield "propagate", strict, (*good, *ends), kit()
    yield "propagate: tolerantly", tolerant, (*good, *ends), kit()
    for what, given, seen, seen_strictly in (
        ("unset", [UNSET, kit()], (SET, NOT_SET, *good[1:], ends[0], EXPORTED),
         (SET, NOT_SET, "raised RuntimeError: Corvane auth bootstrap failed after authentication. from [ValueError: "
          "no]")),
        ("the kit fails", [KIT_FAILS], (*start, NOT_BOOTSTRAPPED, *no_simulation),
         (*start, NOT_BOOTSTRAPPED, f"{NO_DATA} failed: OSError: no from [OSError: no]", ACTIVE_MANAGER)),
        ("no detail", [KIT_FAILS, ours(_exception_chain_detail=lambda exc: "")], None,
         (*start, NOT_BOOTSTRAPPED, f"{NO_DATA} failed from [OSError: no]", ACTIVE_MANAGER)),
        ("no runtime", [kit({GIVEN: None})], (*start, *no_simulation),
         (*start, f"{NO_DATA} returned no runtime.", ACTIVE_MANAGER)),
        ("refused", [no_templates], (*start, INJECTED, refusal, *sim, *ends), (*start, INJECTED, refusal,
         "raised RuntimeError: Corvane search runtime injection failed. from [OSError: no]", ACTIVE_MANAGER)),
        ("no simulation", [broken], (*good, f"{simulation_failed}{no}", *ends[:2]),
         (*good, f"{simulation_failed}{no}", f"{wrapped}OSError: no from [OSError: no]", ACTIVE_MANAGER)),
        ("no export", [no_export], (*good, lost, *ends[:2]), (*good, lost, f"{simulation_failed}RuntimeError("
         f"'{export}'),) while RuntimeError", f"{wrapped}RuntimeError: {export}; caused by OSError: no from "
         f"[RuntimeError: {export} from [OSError: no]]", ACTIVE_MANAGER)),
        ("cancelled", [kit({GIVEN: Cancelled("enough")}), *on_disk()[1:]], *2 * [(*start, "raised Cancelled: enough",
         ACTIVE_MANAGER)]),
        ("no backoff", [kit(sync_backoff=None)], *2 * [(SET, "raised UnboundLocalError: local variable 'sync_backoff' "
         "referenced before assignment while [ModuleNotFoundError: import of corvane.sync_backoff halted; None in "
         "sys.modules]", ACTIVE_MANAGER)]),
    ):
        yield f"propagate: {what} strictly", strict, seen_strictly, *given
        if seen:
            yield f"propagate: {what}", tolerant, seen, *given
    for absent, lookups in (
        (("graph_validator",), ["evaluator.graph_validator"]),
        (("load_found_signal_pnl",), ["evaluator.load_found_signal_pnl"]),
        (("useful_signal_metadata", "vocabulary"), ["sync_manager._vocabulary", "registry"]),
    ):
        without = kit({f"{GIVEN}.{name}": AttributeError for name in lookups})
        yield f"propagate: without {lookups[0]}", strict, (*good[:3], *simulation(GIVEN, absent), *ends), without
    begun = SET, booting(**ON_DISK), NOT_BOOTSTRAPPED, *[f"{step} while OSError" for step in built()]
    yield "propagate: both bootstraps fail", tolerant, (*begun[:8], "DEBUG Failed to bootstrap local corvane runtime: "
        "%s (LookupError('no'),) while LookupError", *no_simulation), KIT_FAILS, *on_disk(modules=LookupError)
    yield "propagate: a local runtime", tolerant, (*begun, f"search_templates._library_runtime = {RUNTIME}",
        *simulation(RUNTIME), f"returned {RUNTIME}", *ends[1:]), KIT_FAILS, *on_disk()
    ensure, asked = "ensure_runtime_bootstrapped", "_runtime.get_runtime()"
    ready = "search_templates._library_runtime = 'ready'"
    yield "ensure: nothing", call(ensure, False), "returned None"
    yield "ensure: nothing strictly", call(ensure), "raised AuthError: No wallet initialized. Call register() or " \
        "login() first."
    mine = config(named_universe="mine")
    failing = asked, SET, booting(named_universe="mine"), NOT_BOOTSTRAPPED
    for flag, ended, after in (
        (True, "raised RuntimeError: Corvane search runtime injection failed. from [OSError: no]",
         (f"{NO_DATA} failed: OSError: no from [OSError: no]", ACTIVE_MANAGER)),
        (False, "returned 'ready'", no_simulation),
    ):
        yield f"ensure: ready, {flag}", call(ensure, flag), (asked, ready, "returned 'ready'"), MANAGER, kit(READY)
        refusing = kit({**READY, "search_templates._library_runtime =": OSError})
        yield f"ensure: refused, {flag}", call(ensure, flag), (asked, ready, "WARNING Failed to inject existing "
            f"runtime into search_templates: %s ({no}", ended), MANAGER, refusing
        yield f"ensure: new, {flag}", call(ensure, flag), (asked, *ETAG, SET, booting(named_universe="us"), INJECTED,
            *sim, *ends, "option named_universe: 'us'"), MANAGER, kit(), eras(ERA)
        yield f"ensure: fails, {flag}", call(ensure, flag), (*failing, *after), MANAGER, KIT_FAILS, mine
    yield "ensure: no universe", call(ensure, False), (asked, *ETAG, "raised RuntimeError: Registration bootstrap "
        "expected exactly one active era from /eras, got 0."), MANAGER, kit(), eras()


def entry_points():
    """No wallet is signed up before its key is in its file, which stays there whatever the service says."""
    for key, full in (("ab", "0xab"), ("0xab", "0xab"), ("0Xab", "0Xab"), ("", "0x"), ("x0ab", "0xx0ab")):
        yield f"key {key!r}", call("_normalize_key", key), f"returned {full!r}"
    asked = "auth._normalize_invite_code({!r})".format
    for what, name, code, there, said, seen in (
        ("from the environment", "", None, INVITED, CODE.lower(), f"returned '{CODE}'"),
        ("an empty one is not replaced", "", "", INVITED, "", NO_CODE),
        ("given", "", f" {CODE} ", INVITED, f" {CODE} ", f"returned '{CODE}'"),
        ("none", "", None, UNINVITED, None, NO_CODE),
        ("an optional one may lack", "_optional", None, INVITED, None, "returned None"),
        ("an optional one", "_optional", CODE.lower(), INVITED, CODE.lower(), f"returned '{CODE}'"),
    ):
        yield f"code: {what}", call(f"_resolve{name}_invite_code", code), (asked(said), seen), there
    new, server, authenticated = "ab" * 32, repr(SERVER), "manager.authenticate()"
    at_d, held = "option data_dir: './d'", "manager: manager"
    signed = f"auth.AuthManager('0x{new}', {server}, invite_code='{CODE}')", authenticated
    begun, kept = (MADE, asked(CODE), MADE, *saved(new)), (NEW_DIRECTORY, left(new))
    address, registered = "manager.get_wallet_address()", "returned WalletRegistration(address='0xaddress')"
    whole, after = (*begun, *signed, SET, address), (ACTIVE_MANAGER, *kept, held, at_d)
    here = file("HEARTBEAT.md")
    yield "register", register(), (*whole, READING, WRITING, registered, checklist(b"\n" + CHECKLIST), *after), here
    yield "register: opted out", register(), (*whole, registered, *after), here, config(auto_heartbeat=False)
    yield "register: a workspace that fails is no longer swallowed", register(), (*whole, "raised LookupError: no",
        *after), here, ours(inject_heartbeat=raising(LookupError, "no"))
    yield "register: the stored key again, without a code", call("register"), (MADE, LSTAT, OPEN_READ, FSTAT,
        asked(None), f"auth.AuthManager('0x{KEY}', {server}, invite_code=None)", authenticated, SET, address,
        registered, ACTIVE_MANAGER, held, at_d), KEY_FILE, INVITED
    at_e = replaced(replaced((*whole, registered, *after), "./d", "./e"), "d: 4", "e: 4")
    yield "register: another directory from now on", register(data_dir="e"), replaced(at_e, "d/w", "e/w")
    yield "register: no code, no key", call("register"), (MADE, asked(None), NO_CODE, NEW_DIRECTORY, at_d), UNINVITED
    login_signed, stored = (f"auth.AuthManager('0x{KEY}', {server})", authenticated), (MADE, MADE, *saved(KEY))
    tokens = "manager.get_token()", "manager.get_token_expiry()", "returned AuthToken(token='<redacted>', " \
        "expires_at=12.5)"
    login_kept = NEW_DIRECTORY, left(KEY)
    yield "login", LOGIN, (*stored, *login_signed, SET, *tokens, ACTIVE_MANAGER, *login_kept, held, at_d), here
    yield "login: replaces the key that was there", call("login", f"0X{KEY}"), (MADE, MADE, LSTAT, *saved(f"0X{KEY}"),
        f"auth.AuthManager('0X{KEY}', {server})", authenticated, SET, *tokens, ACTIVE_MANAGER, left(f"0X{KEY}"), held,
        at_d), KEY_FILE
    yield "login: None", call("login", None), INVALID
    not_signed_up = "raised RegistrationError: Registration failed: no. Contact support if this persists."
    wrong_key = "raised AuthError: Authentication failed. Verify your private key is correct."
    for name, act, first, before, ending, more, refusals in (
        ("register", register(), (MADE, LSTAT), (*begun, *signed), (address, registered), kept, (not_signed_up, None)),
        ("login", LOGIN, (MADE, MADE, LSTAT), (*stored, *login_signed), tokens, login_kept, (wrong_key, wrong_key)),
    ):
        yield f"{name} unset", act, (*before, SET, NOT_SET, *ending, *more, held, at_d), UNSET
        yield f"{name}: an unsafe key file is not used", act, (*first, f"raised {UNSAFE}", at_d), LINK, file("d/victim")
        for kind, text in (
            (ConnectionRefusedError, UNREACHABLE), (auth.InvalidKeyError, INVALID), (LookupError, None),
            *zip((auth.RegistrationError, auth.AuthError), refusals, strict=True),
        ):
            said = f"{text} while [{kind.__name__}: no]" if text else f"raised {kind.__name__}: no"
            yield f"{name}: {kind.__name__}", act, (*before, said, *more, at_d), service(kind, "no")
    started, login_started = register(bootstrap_runtime=True), call("login", KEY, bootstrap_runtime=True)
    wired, us = (INJECTED, *simulation(GIVEN)), booting(data_dir="./d", named_universe="us")
    yield "register bootstrap", started, (*begun, *signed, *ETAG, SET, us, *wired, SET, address, registered,
        ACTIVE_MANAGER, EXPORTED, *kept, held, at_d, "option named_universe: 'us'"), kit(), eras(ERA)
    yield "login bootstrap", login_started, (*stored, *login_signed, SET, booting(data_dir="./d"), *wired, SET, *tokens,
        ACTIVE_MANAGER, EXPORTED, *login_kept, held, at_d), kit()
    yield "register: no universe", started, (*begun, *signed, *ETAG, "raised RuntimeError: Registration bootstrap "
        "expected exactly one active era from /eras, got 0.", *after[1:]), kit(), eras()
    strictly = NOT_BOOTSTRAPPED, f"{NO_DATA} failed: OSError: no from [OSError: no]", ACTIVE_MANAGER
    yield "login: the bootstrap is strict", login_started, (*stored, *login_signed, SET, booting(data_dir="./d"),
        *strictly, *login_kept, held, at_d), KIT_FAILS
    yield "register: the bootstrap is strict", started, (*begun, *signed, SET, us, *strictly, *kept, held, at_d), \
        KIT_FAILS, config(named_universe="us")


def options():
    valid = "Valid options: auto_heartbeat, data_dir, named_universe, server_url"
    unknown = f"raised ValueError: Unknown configuration option: 'colour'. {valid}"
    segment = "raised ValueError: named_universe must be a single safe path segment."
    no_name = "raised ValueError: named_universe cannot be empty."
    not_https = "server_url must use https (http only for this machine), got 'http://x'."
    asked = "auth._validate_server_url({!r})".format
    for given, *seen in (
        ({}, "returned None"),
        ({"data_dir": "~/e"}, "returned None", "option data_dir: '~/e'"),
        ({"data_dir": " "}, "returned None", "option data_dir: ' '"),
        ({"data_dir": ""}, "raised ValueError: data_dir cannot be empty."),
        ({"data_dir": 5}, "raised ValueError: Option 'data_dir' expects str, got int."),
        ({"auto_heartbeat": False, "colour": 1, "data_dir": "e"}, unknown, "option auto_heartbeat: False"),
        ({"auto_heartbeat": 1}, "raised ValueError: Option 'auto_heartbeat' expects bool, got int."),
        ({"server_url": "https://x/"}, asked("https://x/"), "returned None", "option server_url: 'https://x'"),
        ({"server_url": "http://x"}, asked("http://x"), f"raised ValueError: {not_https}"),
        ({"server_url": b""}, "raised ValueError: Option 'server_url' expects str, got bytes."),
        ({"named_universe": " us_large\n"}, "returned None", "option named_universe: 'us_large'"),
        ({"named_universe": type("Name", (str,), {})("us")}, "returned None", "option named_universe: 'us'"),
        *(({"named_universe": name}, segment) for name in (".", " ..", "a/b", "a\\b", "a\0")),
        *(({"named_universe": name}, no_name) for name in ("", " \n")),
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

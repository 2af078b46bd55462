"""What each function promises: one table, which support/scenarios.py has the fixtures for."""

import hashlib
import importlib.machinery
import os
import re
import sys
import types
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
COPY = f"./d/.corvane-runtime-backtester-{D1[:16]}.so"
BACKTESTER = f"returned <module 'backtester' from '{COPY}'>"
K = "./d/wallet.key"
MADE, LSTAT, CHMOD = "os.makedirs('./d', exist_ok=True)", f"os.lstat('{K}')", f"os.chmod('{K}', 384)"
FSTAT, FCHMOD, CLOSE = "os.fstat(fd)", "os.fchmod(fd, 384)", "os.close(fd)"
READ_FLAGS, WRITE_FLAGS = os.O_RDONLY | os.O_NOFOLLOW, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_NOFOLLOW
OPEN_READ, OPEN_WRITE = f"os.open('{K}', {READ_FLAGS})", f"os.open('{K}', {WRITE_FLAGS}, 384)"
UNSAFE = f"OSError: Unsafe wallet key at {K}. Refusing to use wallet.key with unsafe ownership, type, or permissions."
NOT_READ = f"OSError: Cannot read wallet from {K}. Check file permissions."
NOT_WRITTEN = f"OSError: Cannot write wallet to {K}. Check directory permissions."
NEW_DIRECTORY = "d: 40755 b''"
MANIFEST_READ = "open('d/manifest.json', 'r', encoding='utf-8')"
READING = "open('./HEARTBEAT.md', 'r', encoding='utf-8')"
WRITING = "open('./HEARTBEAT.md', 'w', encoding='utf-8')"
ASKED = "manager.get_token()", "GET https://api.corvane.example/eras {'Authorization': 'Bearer token'} in 15 s"
SERVER = DEFAULTS["server_url"]


def saved(key):
    """From the opened file to the last change of its mode."""
    return OPEN_WRITE, FSTAT, FCHMOD, f"os.write(fd, {key.encode()!r})", CLOSE, CHMOD


def left(key, age=""):
    return f"d/wallet.key: 100600 {key.encode()!r}{age}"


def copied(name, content, source=""):
    """A loaded module: its copy, and what the module table holds."""
    copy = f"d/.corvane-runtime-{name}-{content[:16]}.so"
    held = f"loaded {name}: ['./{copy}', '{content}', './d/{source or f'{name}.so'}']"
    return f"{copy}: {MODES[content]:o} '{content[:16]}'", held


def loaded(name, content):
    """A file is hashed, hashed again for its import, and linked under the name of its content."""
    link = f"os.link('d/{name}.so', './d/.corvane-runtime-{name}-{content[:16]}.so')"
    return *2 * [f"open('d/{name}.so', 'rb')"], link


def refused(kind, message, cause="", **attributes):
    return f"raised RuntimeModule{kind}: {message}" + (f" {attributes}" if attributes else "") + cause


def replaced(steps, old, new):
    return [step.replace(old, new) for step in steps]


class Fresh(Exception):
    """Has a new cause each time it is asked; the text changes after fifty of the same."""

    __cause__ = property(lambda self: Fresh(self.args[0] + 1))
    __str__ = lambda self: str(self.args[0] // 50)  # noqa: E731


# fmt: off
def details():
    loop = chain(ValueError("a"), KeyError("b"))
    loop.__cause__.__cause__ = loop
    for name, exc, seen in (
        ("a link without text is its class", chain(ValueError(" x\n"), KeyError()), "ValueError: x > KeyError"),
        ("a context is no cause", type("Odd", (ValueError,), {"__context__": KeyError("b")})("a"), "Odd: a"),
        ("a diagnosis follows", type("Odd", (OSError,), {"diagnostic_detail": "b"})("a"), "Odd: a; diagnostic: b"),
        ("four links at most", chain(*map(OSError, range(6))), "OSError: 0 > OSError: 1 > OSError: 2 > OSError: 3"),
        ("a repeated link is told once", chain(*map(OSError, "aabbc")), "OSError: a > OSError: b > OSError: c"),
        ("a loop ends", loop, "ValueError: a > KeyError: 'b'"),
        ("a new cause each time is walked", Fresh(0), "Fresh: 0 > Fresh: 1 > Fresh: 2 > Fresh: 3"),
    ):
        told = seen.replace(" > ", "; caused by ")
        yield f"details: {name}", call("_exception_chain_detail", exc), f"returned {told!r}"


def copies():
    """Digests, copies and pruning."""
    blocks = bytes(2**21 + 1)
    yield "digest: of all blocks", call("_sha256_file", "x"), (
        "open('x', 'rb')", f"returned '{hashlib.sha256(blocks).hexdigest()}'"), file("x", blocks)
    copy, source = call("_content_addressed_extension_path", "n", "d/x.pyd", "0123456789abcdefXX"), "d/x.pyd"
    name, there = "d/.corvane-runtime-n-0123456789abcdef.so", file(source, "abc", 0o640, 7)
    seen = f"os.link('{source}', './{name}')", f"returned './{name}'", f"{name}: 100640 b'abc' of 7"
    yield "copy: keeps mode and modification time", copy, seen, there, other_os(link=raising(OSError))
    yield "copy: is trusted by its name", copy, seen[1], there, file(name, "other")

    def without(names):
        gone = [f"d/.corvane-runtime-x-{name}.so" for name in names]
        return *(f"os.unlink('./{name}')" for name in gone), "returned None", *(f"{name}: gone" for name in gone)

    listing = {"listdir": lambda path: sorted(os.listdir(path))}
    four = "x-a.so3 x-b.so2 x-c.so1 x-d.so0"  # each with its age as last digit
    others = "x-a.so3 x-b.so2 x-e.txt0 y-f.so0 xx-g.so0 x-h.so0"
    for what, keep, names, seen, functions in (
        ("the kept and the newest stay", "d", four, without("bc"), listing),
        ("other names stay", "a", others, without("h"), listing),
        ("what cannot be deleted stays", "a", four, without("cd")[:3], {**listing, "unlink": raising(PermissionError)}),
        ("a directory that cannot be listed", "a", four, "returned None", {"listdir": raising(OSError)}),
    ):
        there = (file(f"d/.corvane-runtime-{name[:-1]}", "", 0o600, int(name[-1])) for name in names.split())
        prune = call("_prune_runtime_extension_copies", "x", f"d/.corvane-runtime-x-{keep}.so")
        yield f"prune: {what}", prune, seen, *there, other_os(**functions)


def imports():
    """The import of a native module from its copy."""
    steps, fresh = loaded("backtester", D1)[1:], copied("backtester", D1)
    yield "import: the same build is returned as it is", lambda: IMPORT() is IMPORT(), (*steps, steps[0],
        "returned True", *fresh), BOTH
    changed = lambda: setattr(IMPORT(), "_corvane_module_sha256", "") or IMPORT()  # noqa: E731
    yield "import: the same file with another digest is another build", changed, (*steps, steps[0], BACKTESTER,
        *fresh), BOTH
    other = call("_load_extension_from_path", "backtester", "d/other.so")
    two = native(backtester={"source": "backtester-1.so"}, other={"source": "backtester-2.so"})
    second = "open('d/other.so', 'rb')", loaded("backtester", D2)[2].replace("d/backtester.so", "d/other.so")
    copy_2, held = copied("backtester", D2, "other.so")
    yield "import: another build replaces it", lambda: (IMPORT() is other(), len(os.listdir("d"))), (*steps, *second,
        "returned (False, 5)", *sorted([fresh[0], copy_2]), held), two
    failure = IMPORT, (*steps, "raised LookupError: no", fresh[0]), BOTH, ours(
        _prune_runtime_extension_copies=raising(LookupError, "no"))
    yield "import: a failure takes the module out again", *failure
    yield "import: a failure puts the old module back", *failure, lambda undo: sys.modules.update(backtester=sys)

    def swapping(*args):
        sys.modules["backtester"] = sys
        raise LookupError("no")

    yield "import: what has taken its place stays after a failure", *failure[:1], (*failure[1],
        "loaded backtester: [None, None, None]"), BOTH, ours(_prune_runtime_extension_copies=swapping)
    unknown = patched(sys.modules["importlib.util"], spec_from_file_location=lambda *args: types.SimpleNamespace(
        loader=None))
    yield "import: a file without a loader is refused", IMPORT, (*steps, "raised RuntimeError: Could not create import "
        f"spec for {COPY}", fresh[0]), BOTH, unknown
    watched = patched(importlib.machinery.ExtensionFileLoader, exec_module=lambda loader, made: say(
        f"in the table {made is sys.modules['backtester']}, marked {hasattr(made, '_corvane_module_sha256')}"))
    yield "import: a module is registered before it is executed, and marked after it", IMPORT, (*steps,
        "in the table True, marked False", BACKTESTER, *fresh), BOTH, watched


def manifests():
    entries = lambda listed: scenarios.m._runtime_module_manifest_entries({"files": listed})  # noqa: E731
    yield "manifest", call("_read_manifest", "d"), (MANIFEST_READ, "returned namespace(era_id=[1], version=2, "
        "files={'a': {}})"), file("d/manifest.json", '{"era_id": [1], "version": 2, "files": {"a": {}}, "more": 1}')
    yield "manifest: missing", call("_read_manifest", "d"), refused("DownloadIncomplete", "Runtime manifest is missing "
        "at d/manifest.json.", relative_path="manifest.json")
    yield "files: of nothing", call("_manifest_files", None), "returned {}"
    other = entry("runtime_module:other")
    for what, listed, names in (
        ("in the order of their paths", {"b/x": entry(), "a/y": other}, ["other a/y", "backtester b/x"]),
        ("no other kinds", {"a": 5, "b": entry("text"), "c": {}, "d": entry()}, ["backtester d"]),
        ("of any platform and of this one", {"x": entry(platform=""), "y": entry(platform="else"), "z": entry(
            platform=CURRENT_PLATFORM)}, ["backtester x", "backtester z"]),
    ):
        act = lambda listed=listed: [f"{n} {p}" for n, p, e in entries(listed) if e is listed[p]]  # noqa: E731
        yield f"entries: {what}", act, f"returned {names}"

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
        ("a vault is nothing else", "backtester", {"a": vault}, (None, None)),
    ):
        select = call("_select_runtime_module_manifest_entry", {"files": listed}, wanted)
        yield f"select: {what}", select, f"returned {found}"


def loading():
    """A module whose manifest entry has a SHA-256 is loaded only after its bytes were found to have it."""
    first, path, known = "sys.path[0]: './d'", "d/backtester.so", {"module_name": "backtester"}
    copy, held = copied("backtester", D1)
    done, missing = (*loaded("backtester", D1), BACKTESTER), hashlib.sha256().hexdigest()
    read, full = (MANIFEST_READ, done[0]), (MANIFEST_READ, *done, copy, held, first)

    def lost(kind, message, cause="", **digests):
        attributes = {**known, "relative_path": "backtester.so", **digests}
        return refused(kind, f"Runtime module 'backtester' {message}", cause, **attributes), first

    def mismatch(expected):
        return *read, *lost("HashMismatch", f"hash mismatch at {path}: expected {expected}, got {D1}.",
            expected_sha256=expected, actual_sha256=D1)

    yield "load", LOAD, full, BOTH
    unlisted = call("_load_manifest_runtime_module", "", "x", expected_sha256="5a", manifest={})
    yield "load: unlisted in the default directory", unlisted, (refused("DownloadIncomplete", "Manifest does not "
        "contain a runtime module for 'x'.", module_name="x", expected_sha256="5a"), "sys.path[0]: './.corvane'")
    for what, expected, digest, seen in (
        ("the expected digest goes before the listed one", D1, "other", full),
        ("a file without the expected digest is not loaded", "5a", D1, mismatch("5a")),
        ("a file without the listed digest is not loaded", None, "5b", mismatch("5b")),
        ("without a digest there is no check", None, None, full),
    ):
        load = call("_load_manifest_runtime_module", "d", "backtester", expected_sha256=expected)
        yield f"load: {what}", load, seen, native(backtester={"source": BUILDS[0], "listed": {"sha256": digest}})
    yield "load: missing", LOAD, (MANIFEST_READ, *lost("DownloadIncomplete", f"is missing at {path}.",
        expected_sha256=missing)), native(backtester={"source": ""})
    yield "load: a failed import is the cause", LOAD, (*read, *lost("ReloadFailed", f"failed to load from {path}: no",
        " from [LookupError: no]", expected_sha256=D1, actual_sha256=D1)), BOTH, ours(
        _load_extension_from_path=raising(LookupError, "no"))
    swapped = ours(_load_extension_from_path=lambda *args: types.SimpleNamespace(_corvane_module_sha256="5a"))
    yield "load: a module with another digest is refused", LOAD, (*read, *lost("HashMismatch", "loaded with unexpected "
        "hash.", expected_sha256=D1, actual_sha256="5a")), BOTH, swapped
    names, in_order = ("zeta", "alpha", "era_data", "vault"), ("era_data", "alpha", "vault", "zeta")
    listing = {"files": {f"{9 - n}": entry(f"runtime_module:{name}", sha256=name) for n, name in enumerate(names)}}
    order = [f"load('d', '{name}', expected_sha256='{name}', manifest={listing})" for name in in_order]
    yield "load all: era data first, then by name", call("_load_runtime_modules_from_manifest", "d", listing), (*order,
        f"returned {dict.fromkeys(in_order, 'module')}"), ours(_load_manifest_runtime_module=Anything("load", {
        "load()": "module"}))
    guarded = lambda: scenarios.m.create_runtime_freshness_guard("d")._load("backtester", "5a")  # noqa: E731
    yield "guard: its loader insists on the digest that it expects", guarded, mismatch("5a"), BOTH
    per_era, era = call("_load_per_era_backtester", "d"), loaded("era_data", ERA_DATA)
    era_copy, era_held = copied("era_data", ERA_DATA)
    told = "INFO Loaded per-era backtester from manifest in %s ('d',)"
    yield "backtester", per_era, (MANIFEST_READ, *era, *done[:3], told, BACKTESTER, *sorted([copy, era_copy]), held,
        era_held, first), BOTH
    cause = "Runtime manifest is missing at d/manifest.json. {'relative_path': 'manifest.json'}"
    yield "backtester: needs a manifest", per_era, (refused("DownloadIncomplete", "Per-era backtester runtime is "
        "required; sync the runtime manifest before loading the SDK backtester.", f" from [RuntimeModuleDownload"
        f"Incomplete: {cause}]", **known, relative_path="manifest.json"), first)
    yield "backtester: unlisted", per_era, (MANIFEST_READ, *era, refused("DownloadIncomplete", "Per-era backtester "
        "runtime is missing from manifest.", **known), era_copy, era_held, first), native(era_data={})


def workspace():
    """HEARTBEAT.md keeps all that was in it, but for its line ends; no other file of the workspace is touched."""
    here = file("HEARTBEAT.md")
    yield "find: three directories up", call("_find_heartbeat", "a/b/c"), "returned 'HEARTBEAT.md'", here
    yield "find: not four directories up", call("_find_heartbeat", "a/b/c/d"), "returned None", here
    inject, nudge = call("inject_heartbeat"), call("update_nudge", "era_change", n=1)
    section, ticked = b"\n" + CHECKLIST, NUDGE.replace(b"[ ]", b"[x]")
    for name, act, before, after in (
        ("inject", inject, b"abc", b"abc\n" + section),
        ("inject: one blank line before the section", inject, b"abc\n", b"abc\n" + section),
        ("inject: line ends become line feeds", inject, b"a\r\nb\rc", b"a\nb\nc\n" + section),
        ("inject: a nudge is no section", inject, NUDGE, NUDGE + section),
        ("inject: once per file", inject, b"x ## [Corvane] y", None),
        ("nudge", nudge, b"\xc3\xa4", b"\xc3\xa4\n" + NUDGE),
        ("nudge: once per file", nudge, NUDGE + b"x\n", None),
        ("nudge: again when it was ticked off", nudge, ticked, ticked + NUDGE),
    ):
        changed = (WRITING, "returned None", f"HEARTBEAT.md: 100600 {after!r}") if after else ("returned None",)
        yield name, act, (READING, *changed), file("HEARTBEAT.md", before)

    read_only = ours(open=lambda path, mode, **how: {"r": open}[mode](path, mode, **how))
    no_text = "UnicodeDecodeError('utf-8', b'\\xff', 0, 1, 'invalid start byte')", "UnicodeDecodeError"
    for name, act, warning in (
        ("inject", inject, "WARNING Failed to {0} HEARTBEAT.md at %s: %s ('./HEARTBEAT.md', {1}) while {2}"),
        ("nudge", nudge, "WARNING update_nudge failed: %s ({1},) while {2}"),
    ):
        yield f"{name}: no file is made", act, "returned None"
        yield f"{name}: opted out", act, "returned None", here, config(auto_heartbeat=False)
        yield f"{name}: what is not UTF-8 stays", act, (READING, warning.format("read", *no_text), "returned None"), \
            file("HEARTBEAT.md", b"\xff")
        unwritable = warning.format("write", "KeyError('w')", "KeyError"), "returned None"
        yield f"{name}: an unwritable file is logged", act, unwritable, here, read_only
    yield "nudge: unknown", call("update_nudge", "unknown"), "returned None", here
    text = lambda: hashlib.sha256(scenarios.m.get_agents_md_fragment().encode()).hexdigest()  # noqa: E731
    yield "fragment", text, "returned '328fe7796ec48ef62d742dbd5546a98f64ae719a32d1efcad4923d4f36afb907'"


def universes():
    """The universe that is taken. What becomes of the answers of /eras is in test_eras.py."""
    bootstrap = "raised RuntimeError: Registration bootstrap "
    yield "eras: no token", call("_fetch_eras_payload", manager(get_token=str)), f"{bootstrap}could not fetch /eras " \
        "without an auth token."
    names = {" us\n": "us", "...": "...", 7: "7"}
    for value, name in (*names.items(), *((value, None) for value in (None, " ", ".", " .. ", "a/b", "a\\b", "a\0"))):
        yield f"name: {value!r}", call("_safe_named_universe", value), f"returned {name!r}"
    for era, names in (
        ({"named_universe": "a", "allowed_named_universes": ["b", "a", ".."], "signal_pools": [5, {
            "allowed_named_universes": "c"}, {}], "universes": ["d", None, {"id": "e"}]}, ["a", "b", "c", "d", "e"]),
        ({"universes": {"b": 1, "a": 2}}, ["a", "b"]),
        ({"universes": [{"named_universe": "", "id": 0, "name": "n"}, {"named_universe": "x", "id": "y", "name": "z"},
            {"id": "i", "name": "z"}, {}]}, ["n", "x", "i"]),
    ):
        yield f"candidates: {names}", call("_active_era_named_universe_candidates", era), f"returned {names}"
    for era, found in (
        (None, None), ({"allowed_named_universes": ["/"], "named_universe": " us "}, "us"),
        ({"allowed_named_universes": ["..", "b"], "named_universe": "c"}, "b"),
        ({"signal_pools": [5, {}, {"allowed_named_universes": ["..", " a"]}], "allowed_named_universes": "b"}, "a"),
    ):
        first = call("_first_allowed_named_universe_from_era_config", era)
        yield f"first name: {era}"[:60], first, f"returned {found!r}"
    resolve, us = call("_resolve_active_named_universe", manager()), "option named_universe: 'us'"
    yield "resolve: a configured name is taken", resolve, ("returned 'mine'", us.replace("us", "mine")), config(
        named_universe=" mine ")
    many = "expected exactly one active "
    for what, given, seen in (
        ("one era, one name", eras(5, {"state": "x"}, ERA), None),
        ("any case", eras({**ERA, "state": "ActivE"}), None),
        ("no object", answer(b"[]"), "received invalid /eras payload."),
        ("no list", answer(b'{"eras": {}}'), "/eras payload is missing eras list."),
        ("none active", eras(5, {}, {"state": " active"}), f"{many}era from /eras, got 0."),
        ("two names", eras({**ACTIVE, "universes": ["a"]}), f"{many}named universe from /eras, got 2."),
    ):
        yield f"resolve: {what}", resolve, (*ASKED, *([bootstrap + seen] if seen else ["returned 'us'", us])), given


def key_file():
    """wallet.key is used only as a regular file of this user, never through a link, and is its owner's alone."""
    home = made(lambda p: p.symlink_to("d"), ".corvane"), file("d/x")
    for value, found in ((None, "./d"), ("~/x", "./x"), (".corvane/y", "./d/y")):
        yield f"directory: {value}", call("_canonical_data_dir", value), f"returned {found!r}", *home
    read, write = call("_read_wallet_key", "d"), call("_write_wallet_key", "d", "0x" + KEY)
    there, begun = (LSTAT, OPEN_READ, FSTAT), (MADE, LSTAT, OPEN_WRITE)
    got, put_down, empty = f"returned '{KEY}'", (*saved("0x" + KEY), "returned None", left("0x" + KEY)), left("")
    yield "read", read, (*there, got), KEY_FILE
    yield "write", write, (MADE, LSTAT, *put_down), file("d/wallet.key", "x" * 200)
    loose = file("d/wallet.key", KEY, 0o4606)
    yield "read loose", read, (*there, FCHMOD, got, left(KEY, " of 0")), loose
    foreign = types.SimpleNamespace(st_mode=0o100600, st_uid=12345)
    elsewhere = {"lstat": lambda path: foreign, "fstat": lambda fd: foreign, "getuid": MISSING, "O_NOFOLLOW": MISSING}
    for name, act, first, opened, done, no, failed, emptied in (
        ("read", read, (LSTAT,), there[:2], (FSTAT, got), UNSAFE, NOT_READ, ()),
        ("write", write, (MADE, LSTAT), begun, put_down[1:], NOT_WRITTEN, NOT_WRITTEN, (empty,)),
    ):
        for what, *given in (
            ("a key that a link points to", LINK, file("d/victim", "x")), ("a FIFO", made(os.mkfifo)),
            ("the file of another user", KEY_FILE, other_os(getuid=lambda: 12345)),
        ):
            yield f"{name}: {what} is refused", act, (*first, f"raised {UNSAFE}"), *given
        lost = other_os(lstat=raising(OSError, 5, "no")), other_os(open=raising(OSError, 5, "no"))
        unread = " while [OSError: [Errno 5] no]"
        yield f"{name}: a file without status is refused", act, (*first, f"raised {failed}{unread}"), KEY_FILE, lost[0]
        yield f"{name}: cannot be opened", act, (*opened, f"raised {no}{unread}"), KEY_FILE, lost[1]
        again = "" if name == "read" else f" while [{UNSAFE}]"
        for what, status in (("a directory", None), ("another user's file", foreign)):
            in_between = other_os(fstat=lambda fd, status=status: status or os.stat("."))
            yield f"{name}: {what} that came in between is refused", act, (*opened, FSTAT, f"{CLOSE} while OSError",
                f"raised {no}{again}", *emptied), KEY_FILE, in_between
        flags = WRITE_FLAGS if name == "write" else READ_FLAGS
        followed = *opened[:-1], opened[-1].replace(str(flags), str(flags - os.O_NOFOLLOW))
        yield f"{name}: on a platform without owners and O_NOFOLLOW", act, (*followed, *done), KEY_FILE, other_os(
            **elsewhere)
    yield "read: a link that leads nowhere is no key", read, "returned None", LINK
    yield "write: a link that leads nowhere is refused", write, (MADE, OPEN_WRITE, f"raised {NOT_WRITTEN} while "
        f"[OSError: [Errno 40] Too many levels of symbolic links: '{K}']"), LINK
    full = f"raised {NOT_WRITTEN} while [OSError: [Errno 28] full]"
    yield "write: a full disk", write, (MADE, LSTAT, *put_down[:4], f"{CLOSE} while OSError", full, empty), KEY_FILE, \
        other_os(write=raising(OSError, 28, "full"))


def spread(**given):
    """Keyword arguments as a note spells them."""
    return ", ".join(f"{name}={value}" for name, value in given.items())


ERA_CONFIG, EVALUATOR, RUNTIME, VAULT, REGISTRY = (f"_runtime.{name}()" for name in (
    "_normalize_era_config", "RuntimeEvaluationAdapter", "LibraryRuntime", "_wrap_synced_vault",
    "_build_function_registry"))


def built(vault="'data'", batch=(1, 2, 3, 4), wrong=()):
    """The steps of a local bootstrap that is complete."""
    vocabulary, adapter = {"era_id": "7"}, "_runtime._RuntimeManifestAdapter()"
    record = "namespace(era_id=3, files={'x': {}}, named_universe='u')"
    sync = f"local manager {{'_manifest': {record}, '_vocabulary': {{}}, 'runtime_freshness_guard': guard}}"
    evaluator = spread(
        data_dir="'./d'", era_config=ERA_CONFIG, raw_backtester=RAW, vault=VAULT, manifest=record, graph_validator=None,
        batch_orchestrator_cls=batch[0], compute_search_plan=batch[1], expression_type_cls=batch[2],
        expression_evaluator=batch[3], registry=REGISTRY, raw_vocabulary=vocabulary, named_universe="'u'",
        auth="manager", runtime_freshness_guard="guard")
    runtime = spread(
        auth="manager", auth_proxy="manager", data_dir="'./d'", server_url=repr(SERVER), sync_manager=sync, era_id=3,
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
        f"_runtime._normalize_era_config({ON_DISK['era_config']}, {vocabulary}, manifest={{'files': {{'x': {{}}}}}})",
        f"_runtime._wrap_synced_vault({vault}, manifest={record}, era_config={ERA_CONFIG})",
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
    return local.get_manifest(), local.request_for_sync(), vars(local), done


def local_runtime():
    """What stands in for the kit's own bootstrap."""
    kept = {"_manifest": "manifest", "_vocabulary": {}, "runtime_freshness_guard": 5}
    yield "sync manager", manager_methods, f"returned ('manifest', [], {kept}, (None, None, None, None))"
    top, own = "d/vocabulary.json", "d/features/u/vocabulary.json"
    for name, there, found in (("u", (top, own), own), ("u", (top,), top), ("", (top, own), top), ("u", (), None)):
        yield f"vocabulary: {name!r} of {len(there)} {found}", call("_local_vocabulary_path", "d", name), \
            f"returned {found!r}", *map(file, there)
    steps, done, of_kit = built(), f"returned {RUNTIME}", built("_runtime._load_vault_module()")
    era_7 = replaced(replaced(steps, "era_id=3", "era_id=7"), "'era_id': 3", "'era_id': 0")
    for what, seen, given in (
        ("", steps, on_disk()),
        (": no era", [], on_disk(era_config=None)),
        (": no vocabulary", [], on_disk({VOCABULARY: None})),
        (": the vocabulary's era", era_7, on_disk(era_config={**ON_DISK["era_config"], "era_id": 0})),
        (": no number", replaced(replaced(era_7, "era_id=7", "era_id=0"), "{'era_id': '7'}", "{}"),
            on_disk({VOCABULARY: "{}"}, era_config={**ON_DISK["era_config"], "era_id": 0})),
        (": the kit's own vault", [*of_kit[:6], "_runtime._load_vault_module(vault_module=None)", *of_kit[6:]],
            on_disk(modules={"backtester": RAW})),
    ):
        yield f"local{what}", LOCAL_BOOTSTRAP, (*seen, done if seen else "returned None"), kit(), *given
    yield "local: no backtester", LOCAL_BOOTSTRAP, (*steps[:5], refused("DownloadIncomplete", "Per-era backtester "
        "runtime is missing from manifest.", module_name="backtester")), kit(), *on_disk(modules={})
    wrong = "WARNING Batch runtime import failed during local bootstrap; continuing without batch orchestration " \
        "helpers: %s (ValueError('not enough values to unpack (expected 4, got 3)'),) while ValueError"
    yield "local: without batch helpers", LOCAL_BOOTSTRAP, (*built(batch=[None] * 4, wrong=[wrong]), done), kit({
        "_runtime._import_batch_runtime()": (1, 2, 3)}), *on_disk()
    yield "local: a failing validator takes the runtime away", LOCAL_BOOTSTRAP, (*steps[:-2], "_runtime._runtime = "
        "None while LookupError", "raised LookupError: no"), kit({"_runtime._build_graph_validator()": LookupError}), \
        *on_disk()


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


def simulation(runtime):
    """How the simulation is initialised with the parts of a runtime."""
    parts = {name: part or name for name, _, part in (text.partition("=") for text in PARTS.split())}
    given = spread(auth="manager", **{name: f"{runtime}.{part}" for name, part in parts.items()})
    return f"{runtime}.evaluator.make_batch_orchestrator_cls()", f"simulate_signal.init_simulate_signal({given})"


def booting(**options):
    """The kit's bootstrap, with these options."""
    return f"_runtime.bootstrap_runtime(manager, { {**DEFAULTS, 'data_dir': 'd', **options} }, " \
        "<function _load_per_era_backtester>)"


def propagation():
    """How the manager and the runtime reach the rest of the kit."""
    strict, tolerant = call("_propagate_auth", manager(), strict=True), call("_propagate_auth", manager())
    start, sim, no = (SET, booting()), simulation(GIVEN), "OSError('no'),) while OSError"
    injected = *start, INJECTED
    good, ends = (*injected, *sim), (f"returned {GIVEN}", ACTIVE_MANAGER, EXPORTED)
    not_injected = f"WARNING Failed to inject runtime into search_templates: %s ({no}"
    not_exported = f"WARNING Failed to restore top-level simulate exports: %s ({no}"
    no_simulation = "WARNING Failed to initialize simulate_signal: %s ("
    no_data = f"{NO_DATA} failed: OSError: no from [OSError: no]"
    no_search = "raised RuntimeError: Corvane search runtime injection failed. from [OSError: no]"
    no_bootstrap = "raised RuntimeError: Corvane simulate_signal bootstrap failed: "
    export = "Corvane simulate exports bootstrap failed."
    no_templates, no_init, no_export = ({name: OSError} for name in (
        "search_templates._library_runtime =", "simulate_signal.init_simulate_signal()",
        "simulate_signal._simulate_signal_export"))
    for what, seen, *given in (
        ("unset", (SET, NOT_SET, "raised RuntimeError: Corvane auth bootstrap failed after authentication. from "
            "[ValueError: no]"), UNSET, kit()),
        ("the kit fails", (*start, NOT_BOOTSTRAPPED, no_data, ACTIVE_MANAGER), KIT_FAILS),
        ("no detail", (*start, NOT_BOOTSTRAPPED, f"{NO_DATA} failed from [OSError: no]", ACTIVE_MANAGER), KIT_FAILS,
            ours(_exception_chain_detail=lambda exc: "")),
        ("no runtime", (*start, f"{NO_DATA} returned no runtime.", ACTIVE_MANAGER), kit({GIVEN: None})),
        ("not injected", (*injected, not_injected, no_search, ACTIVE_MANAGER), kit(no_templates)),
        ("no simulation", (*good, f"{no_simulation}{no}", f"{no_bootstrap}OSError: no from [OSError: no]",
            ACTIVE_MANAGER), kit(no_init)),
        ("no back-off", (SET, "raised UnboundLocalError: local variable 'sync_backoff' referenced before assignment "
            "while [ModuleNotFoundError: import of corvane.sync_backoff halted; None in sys.modules]", ACTIVE_MANAGER),
            kit(sync_backoff=None)),
        ("no export", (*good, not_exported, f"{no_simulation}RuntimeError('{export}'),) while RuntimeError",
            f"{no_bootstrap}RuntimeError: {export}; caused by OSError: no from [RuntimeError: {export} from [OSError: "
            "no]]", ACTIVE_MANAGER), kit(no_export)),
    ):
        yield f"propagate: {what} strictly", strict, seen, *given
    begun = SET, booting(**ON_DISK), NOT_BOOTSTRAPPED, *[f"{step} while OSError" for step in built()]
    nothing = f"{no_simulation}RuntimeError('private corvane runtime was not initialized'),) while RuntimeError", \
        "returned None", ACTIVE_MANAGER
    for what, seen, *given in (
        ("", (*good, *ends), kit()),
        (": failures are logged", (*injected, not_injected, *sim, not_exported, *ends[:2]),
            kit({**no_templates, **no_export})),
        (": cancelled", (*start, "raised Cancelled: enough", ACTIVE_MANAGER), kit({GIVEN: Cancelled("enough")})),
        (": both bootstraps fail", (*begun[:8], "DEBUG Failed to bootstrap local corvane runtime: %s (LookupError("
            "'no'),) while LookupError", *nothing), KIT_FAILS, *on_disk(modules=LookupError)),
        (": a local runtime", (*begun, f"search_templates._library_runtime = {RUNTIME}", *simulation(RUNTIME),
            f"returned {RUNTIME}", *ends[1:]), KIT_FAILS, *on_disk()),
    ):
        yield f"propagate{what}", tolerant, seen, *given
    ensure, ensure_tolerantly = call("ensure_runtime_bootstrapped"), call("ensure_runtime_bootstrapped", False)
    asked, at_us, ready = "_runtime.get_runtime()", booting(named_universe="us"), "returned 'ready'"
    set_ready, refusing = "search_templates._library_runtime = 'ready'", kit({**READY, **no_templates})
    not_set = f"WARNING Failed to inject existing runtime into search_templates: %s ({no}"
    for what, act, seen, *given in (
        ("nothing", ensure_tolerantly, "returned None"),
        ("nothing strictly", ensure, "raised AuthError: No wallet initialized. Call register() or login() first."),
        ("ready", ensure, (asked, set_ready, ready), MANAGER, kit(READY)),
        ("refused", ensure_tolerantly, (asked, set_ready, not_set, ready), MANAGER, refusing),
        ("new, False", ensure_tolerantly, (asked, *ASKED, SET, at_us, INJECTED, *sim, *ends,
            "option named_universe: 'us'"), MANAGER, kit(), eras(ERA)),
        ("the kit fails strictly", ensure, (asked, SET, at_us, NOT_BOOTSTRAPPED, no_data, ACTIVE_MANAGER), MANAGER,
            KIT_FAILS, config(named_universe="us")),
    ):
        yield f"ensure: {what}", act, seen, *given


def entry_points():
    """No wallet is signed up before its key is in its file, which stays there whatever the service says."""
    no_code = "raised ValueError: Invite code required. Pass --invite-code, set CORVANE_INVITE_CODE, or call " \
        "register(invite_code=...)."
    invalid = "raised ValueError: Invalid private key format. Expected hex string (64 characters) or 32 bytes."
    unreachable = "raised ConnectionError: Cannot reach Corvane server. Check your network connection and try again."
    for key, full in (("ab", "0xab"), ("0xab", "0xab"), ("0Xab", "0Xab")):
        yield f"key {key!r}", call("_normalize_key", key), f"returned {full!r}"
    asked = "auth._normalize_invite_code({!r})".format
    resolve = "_resolve_invite_code"
    yield "code: from the environment", call(resolve, None), (asked(CODE.lower()), f"returned '{CODE}'"), INVITED
    yield "code: an empty one is not replaced", call(resolve, ""), (asked(""), no_code), INVITED
    new, server, authenticated = "ab" * 32, repr(SERVER), "manager.authenticate()"
    at_d, held = "option data_dir: './d'", "manager: manager"
    signed = f"auth.AuthManager('0x{new}', {server}, invite_code='{CODE}')", authenticated
    begun, kept = (MADE, asked(CODE), MADE, *saved(new)), (NEW_DIRECTORY, left(new))
    address, registered = "manager.get_wallet_address()", "returned WalletRegistration(address='0xaddress')"
    whole, after = (*begun, *signed, SET, address), (ACTIVE_MANAGER, *kept, held, at_d)
    here, checklist = file("HEARTBEAT.md"), f"HEARTBEAT.md: 100600 {b'\n' + CHECKLIST}"
    yield "register", register(), (*whole, READING, WRITING, registered, checklist, *after), here
    yield "register: the stored key again, without a code", call("register"), (MADE, LSTAT, OPEN_READ, FSTAT,
        asked(None), f"auth.AuthManager('0x{KEY}', {server}, invite_code=None)", authenticated, SET, address,
        registered, ACTIVE_MANAGER, held, at_d), KEY_FILE, INVITED
    at_e = replaced(replaced((*whole, registered, *after), "./d", "./e"), "d: 4", "e: 4")
    yield "register: another directory from now on", register(data_dir="e"), replaced(at_e, "d/w", "e/w")
    yield "register: no code, no key", call("register"), (MADE, asked(None), no_code, NEW_DIRECTORY, at_d)
    login_signed, stored = (f"auth.AuthManager('0x{KEY}', {server})", authenticated), (MADE, MADE, *saved(KEY))
    tokens = "manager.get_token()", "manager.get_token_expiry()", "returned AuthToken(token='<redacted>', " \
        "expires_at=12.5)"
    login_kept = NEW_DIRECTORY, left(KEY)
    yield "login", LOGIN, (*stored, *login_signed, SET, *tokens, ACTIVE_MANAGER, *login_kept, held, at_d), here
    yield "login: None", call("login", None), invalid
    not_signed_up = "raised RegistrationError: Registration failed: no. Contact support if this persists."
    wrong_key = "raised AuthError: Authentication failed. Verify your private key is correct."
    for name, act, first, before, ending, more, refusals in (
        ("register", register(), (MADE, LSTAT), (*begun, *signed), (address, registered), kept, (not_signed_up, None)),
        ("login", LOGIN, (MADE, MADE, LSTAT), (*stored, *login_signed), tokens, login_kept, (wrong_key, wrong_key)),
    ):
        yield f"{name} unset", act, (*before, SET, NOT_SET, *ending, *more, held, at_d), UNSET
        yield f"{name}: an unsafe key file is not used", act, (*first, f"raised {UNSAFE}", at_d), LINK, file("d/victim")
        for kind, text in (
            (ConnectionRefusedError, unreachable), (auth.InvalidKeyError, invalid), (LookupError, None),
            *zip((auth.RegistrationError, auth.AuthError), refusals, strict=True),
        ):
            said = f"{text} while [{kind.__name__}: no]" if text else f"raised {kind.__name__}: no"
            yield f"{name}: {kind.__name__}", act, (*before, said, *more, at_d), service(kind, "no")
    started, login_started = register(bootstrap_runtime=True), call("login", KEY, bootstrap_runtime=True)
    us = booting(data_dir="./d", named_universe="us")
    yield "register bootstrap", started, (*begun, *signed, *ASKED, SET, us, INJECTED, *simulation(GIVEN), SET, address,
        registered, ACTIVE_MANAGER, EXPORTED, *kept, held, at_d, "option named_universe: 'us'"), kit(), eras(ERA)
    strictly = NOT_BOOTSTRAPPED, f"{NO_DATA} failed: OSError: no from [OSError: no]", ACTIVE_MANAGER
    yield "login: the bootstrap is strict", login_started, (*stored, *login_signed, SET, booting(data_dir="./d"),
        *strictly, *login_kept, held, at_d), KIT_FAILS
    yield "register: the bootstrap is strict", started, (*begun, *signed, SET, us, *strictly, *kept, held, at_d), \
        KIT_FAILS, config(named_universe="us")


def options():
    unknown = "raised ValueError: Unknown configuration option: 'colour'. Valid options: auto_heartbeat, data_dir, " \
        "named_universe, server_url"
    segment = "raised ValueError: named_universe must be a single safe path segment."
    for given, *seen in (
        ({"data_dir": ""}, "raised ValueError: data_dir cannot be empty."),
        ({"auto_heartbeat": False, "colour": 1, "data_dir": "e"}, unknown, "option auto_heartbeat: False"),
        ({"auto_heartbeat": 1}, "raised ValueError: Option 'auto_heartbeat' expects bool, got int."),
        ({"server_url": "https://x/"}, "auth._validate_server_url('https://x/')", "returned None",
            "option server_url: 'https://x'"),
        ({"named_universe": " us_large\n"}, "returned None", "option named_universe: 'us_large'"),
        ({"named_universe": " \n"}, "raised ValueError: named_universe cannot be empty."),
        *(({"named_universe": name}, segment) for name in (".", " ..", "a/b", "a\\b", "a\0")),
    ):
        yield f"configure: {given}"[:60], call("configure", **given), seen


def scenario(act, story, *prepare):
    told = (story,) if isinstance(story, str) else tuple(story)
    [outcome] = [line for line in told if line.startswith(("returned ", "raised "))]
    return Call(act, re.split(r" (?:from |while )\[| \{'", outcome)[0], prepare, told)


PROMISES = (details, copies, imports, manifests, loading, workspace, universes, key_file, local_runtime, propagation,
    entry_points, options)
CALLS = {name: scenario(*row) for part in PROMISES for name, *row in part()}

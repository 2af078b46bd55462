"""The installation, the directory, and what was downloaded and found."""

import errno
import importlib
import os
import re
import shutil
import stat
import sys
from collections.abc import Iterator
from importlib.machinery import EXTENSION_SUFFIXES, all_suffixes
from pathlib import Path
from shlex import quote

import corvane
from corvane.sync import _checked_manifest, _digest
from corvane_cli.doctor_findings import (
    ERROR,
    TIMEOUT,
    WARNING,
    Finding,
    Looked,
    aside,
    command_line,
    kind_of,
    set_step,
)
from corvane_cli.identity import Agent

_COPY = re.compile(r"\.corvane-runtime-.+-([0-9a-f]{16})\.so")
_TRIED = 64 * 1024  # bytes; more than all small files of an identity together
# What commands write in the directory, and the command that recreates it.
_FILES = {
    "session.json": "register", "manifest.json": "sync", "era_config.json": "sync", "search.db": "", "search.lock": "",
    "sync.lock": "", "wallet.lock": "",
}  # fmt: skip
_FOLDERS = {"runtime": "sync", "features": "sync"}


# -- The installation and the directory -------------------------------------------------------------------------------


def check_extension(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the native onboarding module is built for this interpreter."""
    try:
        module = importlib.import_module("corvane.agent_onboarding")
    except ImportError as exc:
        files = [file.name for place in corvane.__path__ for file in sorted(Path(place).glob("agent_onboarding*.so"))]
        reason = f"this interpreter loads {EXTENSION_SUFFIXES[0]}; there is {', '.join(files) or 'no such file'}"
        next_step = f"`{quote(sys.executable)} -m pip install WHEEL` with the extension's wheel for this interpreter."
        yield Finding("extension", ERROR, f"corvane.agent_onboarding cannot be loaded: {exc}.", reason, next_step)
    else:
        yield Looked("extension", f"the extension, {module.__file__}")


def check_directory(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether we can write in the directory, and nobody else can put other files in the place of ours."""
    root, reason = agent.data_dir, "whoever can rename a directory on the way to wallet.key can put another key there"
    for path in dict.fromkeys((root, *root.parents, *agent.named_dir.parents)):
        if not path.exists():
            continue
        status, quoted = path.stat(), quote(str(path))
        if path == root and not stat.S_ISDIR(status.st_mode):
            right = quote(str(root.parent)) if (root.parent / "wallet.key").exists() else "DIRECTORY"
            set_it = set_step("CORVANE_DATA_DIR", "--data-dir", right)
            next_step = f"Name the directory that holds wallet.key: `{set_it}`."
            yield Finding("directory", ERROR, f"{path} is not a directory.", "an identity is a directory", next_step)
        elif status.st_uid not in (0, os.getuid()):
            problem = f"{path} belongs to user {status.st_uid}."
            yield Finding("directory", ERROR, problem, reason, "Choose a --data-dir below directories of your own.")
        elif status.st_mode & 0o022 and not status.st_mode & stat.S_ISVTX:
            severity, who = (ERROR, "everybody") if status.st_mode & 0o002 else (WARNING, "its group")
            next_step = f"`chmod {'700' if path == root else 'go-w'} {quoted}`"
            yield Finding("directory", severity, f"{path} can be written by {who}.", reason, next_step)
        elif path == root and status.st_mode & 0o055:
            problem = f"{path} can be read by other users."
            yield Finding("directory", WARNING, problem, "they see what is kept there", f"`chmod 700 {quoted}`")
        if path == root and stat.S_ISDIR(status.st_mode):
            yield from _unwritable(path)
    free = f", with {shutil.disk_usage(root).free // 2**20:,} MiB free" if root.is_dir() else ", which is not there yet"
    yield Looked("directory", f"the directory {root}{free}, and those above it")


def _unwritable(path: Path) -> Iterator[Finding]:
    # Tried with a file that never has a name, so that nothing is left behind and nothing in the directory changes.
    quoted, reason = quote(str(path)), "keys, sessions and downloads could not be saved, or only in part"
    try:
        with open(os.open(path, os.O_TMPFILE | os.O_RDWR | os.O_CLOEXEC, 0o600), "wb") as file:
            file.write(bytes(_TRIED))
            file.flush()
            os.fsync(file.fileno())
    except OSError as exc:
        if exc.errno in (errno.EOPNOTSUPP, errno.EISDIR, errno.EINVAL):  # the file system has no such files
            return
        steps = {
            errno.EACCES: f"`chmod 700 {quoted}`",
            errno.EROFS: f"`mount -o remount,rw {quote(str(_mount(path)))}` as root, or choose another --data-dir.",
            errno.EFBIG: "`ulimit -f unlimited`: this shell limits the size of files.",
        }
        next_step = steps.get(exc.errno or 0, f"Free some space there; `df -h {quoted}` says how much there is.")
        yield Finding("directory", ERROR, f"Nothing can be saved in {path}: {exc.strerror}.", reason, next_step)


def _mount(path: Path) -> Path:
    # Not Path.is_mount, which sees no bind mounts.
    lines = Path("/proc/self/mountinfo").read_bytes().splitlines()
    mounted = [re.sub(rb"\\(\d{3})", lambda code: bytes([int(code[1], 8)]), line.split(b" ")[4]) for line in lines]
    real = path.resolve()
    return next((one for one in (real, *real.parents) if os.fsencode(one) in mounted), Path("/"))


def check_names(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether something is in the way of what commands write, or can be imported instead of a library."""
    root = agent.data_dir
    expected = {root / name: again for name, again in _FILES.items()}
    for path in [*root.rglob("*.new"), *root.rglob("*.part")]:
        expected.setdefault(path, "")
    for path, again in sorted(expected.items()):
        if kind := kind_of(path):
            then = f" && {command_line(f'corvane {again}', agent)}" * bool(again)
            reason = "commands write a file of this name, and do not follow links"
            yield Finding("names", ERROR, f"{path} is {kind}.", reason, f"`{aside(path)}{then}`")
    for name, again in _FOLDERS.items():
        if os.path.lexists(path := root / name) and not path.is_dir():
            reason, step = "downloads go into a directory of this name", command_line(f"corvane {again}", agent)
            yield Finding("names", ERROR, f"{path} is not a directory.", reason, f"`{aside(path)} && {step}`")
    for path in sorted(root.iterdir()) if root.is_dir() else ():
        is_package = path.is_dir() and any(path.glob("__init__.*"))
        module = path.name if is_package else path.name.partition(".")[0]
        if module.isidentifier() and (is_package or path.name.endswith(tuple(all_suffixes()))):
            reason = "this directory comes first where modules are looked for: the file can stand in for any of them"
            next_step = f"`{aside(path)}`; find out who made it."
            yield Finding("names", ERROR, f"{path} can be imported.", reason, next_step)
    yield Looked("names", f"the files in {root}: no links, nothing that can be imported")


# -- What was downloaded and found ------------------------------------------------------------------------------------


def check_files(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether every file that manifest.json names is in its place, with the bytes that it names."""
    from pydantic import ValidationError

    path, sync = agent.data_dir / "manifest.json", command_line("corvane sync", agent)
    if kind_of(path):
        return  # which another check says
    try:
        manifest = _checked_manifest(path.read_bytes())
    except FileNotFoundError:
        yield Looked("files", "no downloads: nothing was synced yet")
        return
    except ValidationError as exc:
        reasons = {
            "sha256": "a native module without a digest is loaded unverified",
            "[key]": "a file of the service belongs below the data directory, in the places meant for it",
        }
        for error in exc.errors():
            place = [str(part) for part in error["loc"]]
            problem = f"{path} is malformed: {' '.join([*place, error['msg']])}."
            reason = reasons.get("".join(place[-1:]), "nothing can be verified with it")
            next_step = f"`rm {quote(str(path))} && {sync}` writes it again."
            yield Finding("manifest", ERROR, problem, reason, next_step)
        return
    for name, entry in sorted(manifest["files"].items()):
        file = agent.data_dir / name
        if not Path(os.path.realpath(file)).is_relative_to(agent.data_dir):
            link = next((place for place in (*reversed(file.parents), file) if place.is_symlink()), file)
            problem, reason = f"{file} leads out of the directory by the link {link}.", "what is there is not ours"
            next_step = f"`rm {quote(str(link))} && {sync}` downloads it again."
            yield Finding("manifest", ERROR, problem, reason, next_step)
        elif (actual := _digest(file) if file.is_file() else None) != entry["sha256"]:
            problem = f"{file} is {'damaged' if actual else 'missing'}."
            reason = f"the manifest says SHA-256 {entry['sha256']}, there is {actual or 'no file'}"
            again = f"{aside(file)} && {sync}" if file.is_dir() else sync
            yield Finding("files", ERROR, problem, reason, f"`{again}` downloads it again.")
    yield Looked("files", f"{len(manifest['files'])} files of the manifest {manifest['version']}, byte by byte")


def check_copies(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the copies of native modules hold the bytes that their names promise."""
    copies = sorted(agent.data_dir.rglob(".corvane-runtime-*"))
    for path in copies:
        named = _COPY.fullmatch(path.name)
        actual = _digest(path) if path.is_file() and not path.is_symlink() else None
        if named is None or actual is None or not actual.startswith(named[1]):
            reason = "a copy is trusted by its name and imported without being read again"
            next_step = f"`rm {quote(str(path))}`; the next start makes a new one from the verified file."
            yield Finding("copies", ERROR, f"{path} does not hold what its name says.", reason, next_step)
    yield Looked("copies", f"{len(copies)} copies of native modules")


def check_searches(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the file of searches and found signals can be read."""
    import sqlite3
    from contextlib import closing

    from corvane.search_tracking import connect_to_read, read_record

    path = agent.data_dir / "search.db"
    if kind_of(path) or not path.exists():
        return
    files = [file for file in (path, Path(f"{path}-wal"), Path(f"{path}-shm")) if file.exists()]
    problem = ""
    try:
        read_record(agent.data_dir)
        with closing(connect_to_read(path, TIMEOUT)) as db:
            [said] = db.execute("PRAGMA quick_check(1)").fetchone()
        if said != "ok":
            problem = f"{path} is damaged: {said}."
    except BlockingIOError:
        pass  # a search is writing
    except sqlite3.DatabaseError as exc:
        problem = "" if "locked" in str(exc) else f"{path} is damaged: {exc}."
    except ValueError as exc:
        problem = str(exc)
    if problem:
        reason = "searches cannot note what they find"
        next_step = (
            f"`{' && '.join(map(aside, files))}`: the next search begins a new one; found signals stay in the old."
        )
        yield Finding("searches", ERROR, problem, reason, next_step)
    yield Looked("searches", f"{path}, with the found signals")

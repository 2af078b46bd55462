"""What can be wrong around a wallet, and what to do about it. Nothing is changed.

The first thing between backquotes in a next step is what to type. Words in capitals stand for what only the reader has:
FILE for a copy of the key, CODE for an invite code, URL for the service's address, CA for the certificate authority's
file. Everything else is an alternative, or says when not to.
"""

import errno
import importlib
import os
import re
import shutil
import stat
import time
from collections.abc import Callable, Iterator
from dataclasses import asdict, dataclass, field
from datetime import UTC, datetime
from importlib.machinery import EXTENSION_SUFFIXES, all_suffixes
from pathlib import Path
from shlex import quote
from typing import Any

import corvane
from corvane.auth import (
    AuthBusyError,
    AuthError,
    InvalidKeyError,
    NotTheServiceError,
    PortalError,
    _is_loopback,
    _validate_server_url,
)
from corvane.sync import _checked_manifest, _digest
from corvane_cli import interrupts
from corvane_cli.display import one_line
from corvane_cli.identity import KEY_VARIABLE, Agent, KeyFile

# What takes long to import is imported where it is used: `corvane status` uses some of this, too.

ERROR, WARNING = "error", "warning"

_COPY = re.compile(r"\.corvane-runtime-.+-([0-9a-f]{16})\.so")
_NO_HEARTBEAT = (2026, 8, 1)  # the first version of the agent host that does not read HEARTBEAT.md
_CLOCK_WARNING, _CLOCK_ERROR = 30.0, 1800.0  # seconds
_TIMEOUT = 10.0  # seconds
_TRIED = 64 * 1024  # bytes; more than all small files of an identity together
_NOT_VALID_NOW, _OTHER_NAME = (9, 10), (62, 64)  # what OpenSSL finds wrong with a certificate
# What commands write in the directory, and the command that makes it anew.
_FILES = {
    "session.json": "register", "manifest.json": "sync", "era_config.json": "sync", "search.db": "", "search.lock": "",
    "sync.lock": "", "wallet.lock": "",
}  # fmt: skip
_FOLDERS = {"runtime": "sync", "features": "sync"}


@dataclass(frozen=True)
class Finding:
    """One thing that is wrong: how bad it is, what it is, why it matters, and what to do."""

    check: str
    severity: str
    problem: str
    reason: str
    next_step: str

    def text(self) -> str:
        """The finding for people."""
        problem, reason, next_step = map(one_line, (self.problem, self.reason, self.next_step))
        return f"{self.severity}: {problem}\n  why: {reason}\n  next: {next_step}"


@dataclass(frozen=True)
class Looked:
    """Something that was looked at and is as it should be."""

    check: str
    what: str


@dataclass
class Report:
    """What the doctor found, and what else it looked at."""

    findings: list[Finding] = field(default_factory=list)
    looked_at: list[Looked] = field(default_factory=list)

    def errors(self) -> int:
        """How many findings are errors."""
        return sum(finding.severity == ERROR for finding in self.findings)

    def data(self) -> dict[str, Any]:
        """The report for programs."""
        return {**asdict(self), "errors": self.errors()}

    def lines(self) -> list[str]:
        """The report for people."""
        lines = [f"ok: {one_line(looked.what)}" for looked in self.looked_at]
        lines += [line for finding in self.findings for line in finding.text().splitlines()]
        return [*lines, f"errors: {self.errors()}, warnings: {len(self.findings) - self.errors()}"]


Check = Callable[[Agent], Iterator[Finding | Looked]]


def _command(words: str, agent: Agent) -> str:
    """A command for this identity, with the options that the environment does not give."""
    url = os.environ.get("CORVANE_SERVER_URL")
    plain = Agent(os.environ.get("CORVANE_DATA_DIR", ""), url)
    if plain.data_dir != agent.data_dir:
        words += f" --data-dir {quote(str(agent.data_dir))}"
        plain = Agent(str(agent.data_dir), url)
    if plain.server_url != agent.server_url:
        words += f" --server-url {quote(agent.server_url)}"
    return words


def _set(variable: str, option: str, value: str) -> str:
    """What gives a command another address or directory, in the way in which it has got the present one."""
    return f"export {variable}={value}" if os.environ.get(variable) else f"corvane doctor {option} {value}"


def _aside(path: Path) -> str:
    """What moves a file out of the way, and loses nothing."""
    target, number = f"{path}.aside", 1
    while os.path.lexists(target):
        target, number = f"{path}.aside-{number}", number + 1
    return f"mv {quote(str(path))} {quote(target)}"


def _kind(path: Path) -> str | None:
    """What stands at a path, if that is anything but a regular file."""
    try:
        mode = path.lstat().st_mode
    except FileNotFoundError:
        return None
    kinds = {stat.S_IFREG: None, stat.S_IFLNK: "a symbolic link", stat.S_IFDIR: "a directory"}
    return kinds.get(stat.S_IFMT(mode), "not a regular file")


# -- The installation and the directory -------------------------------------------------------------------------------


def check_extension(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the native onboarding module is built for this interpreter."""
    try:
        module = importlib.import_module("corvane.agent_onboarding")
    except ImportError as exc:
        files = [file.name for place in corvane.__path__ for file in sorted(Path(place).glob("agent_onboarding*.so"))]
        reason = f"this interpreter loads {EXTENSION_SUFFIXES[0]}; there is {', '.join(files) or 'no such file'}"
        next_step = "Install the kit with the interpreter that runs it: CPython 3.12, `python3.12 -m pip install`."
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
            next_step = f"Name the directory that holds wallet.key: `{_set('CORVANE_DATA_DIR', '--data-dir', right)}`."
            yield Finding("directory", ERROR, f"{path} is not a directory.", "an identity is a directory", next_step)
        elif status.st_uid not in (0, os.getuid()):
            problem = f"{path} belongs to user {status.st_uid}."
            yield Finding("directory", ERROR, problem, reason, "Choose a --data-dir below directories of your own.")
        elif status.st_mode & 0o022 and not status.st_mode & stat.S_ISVTX:
            severity, who = (ERROR, "everybody") if status.st_mode & 0o002 else (WARNING, "its group")
            yield Finding("directory", severity, f"{path} can be written by {who}.", reason, f"`chmod go-w {quoted}`")
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
    return path if path.is_mount() else _mount(path.parent)


def check_names(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether something stands where commands want to write, or can be imported instead of a library."""
    root = agent.data_dir
    expected = {root / name: again for name, again in _FILES.items()}
    for path in [*root.rglob("*.new"), *root.rglob("*.part")]:
        expected.setdefault(path, "")
    for path, again in sorted(expected.items()):
        if kind := _kind(path):
            then = f" && {_command(f'corvane {again}', agent)}" * bool(again)
            reason = "commands want to write a file of this name, and do not follow links"
            yield Finding("names", ERROR, f"{path} is {kind}.", reason, f"`{_aside(path)}{then}`")
    for name, again in _FOLDERS.items():
        if os.path.lexists(path := root / name) and not path.is_dir():
            reason, step = "downloads belong into a directory of this name", _command(f"corvane {again}", agent)
            yield Finding("names", ERROR, f"{path} is not a directory.", reason, f"`{_aside(path)} && {step}`")
    for path in sorted(root.iterdir()) if root.is_dir() else ():
        is_package = path.is_dir() and any(path.glob("__init__.*"))
        module = path.name if is_package else path.name.partition(".")[0]
        if module.isidentifier() and (is_package or path.name.endswith(tuple(all_suffixes()))):
            reason = "this directory comes first where modules are looked for: the file can stand in for any of them"
            next_step = f"`{_aside(path)}`; find out who made it."
            yield Finding("names", ERROR, f"{path} can be imported.", reason, next_step)
    yield Looked("names", f"what lies in {root}: no links, nothing that can be imported")


# -- The key and the session ------------------------------------------------------------------------------------------


def check_key_file(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether there is a key, and it is safe to use."""
    key = agent.key_file()
    if agent.env_key:
        try:
            address = agent.manager().get_wallet_address()
        except InvalidKeyError:
            problem, reason = f"{KEY_VARIABLE} holds no key.", "it comes first: nothing else is tried"
            next_step = f"`unset {KEY_VARIABLE}`, or set it to 64 hexadecimal digits."
            yield Finding("key", ERROR, problem, reason, next_step)
        else:
            yield Looked("key", f"the key in {KEY_VARIABLE}, of the wallet {address}")
    if key.state != "absent" or not agent.env_key:
        yield from key_findings(key, agent)
    if key.state == "good":
        yield Looked("key", f"{key.path}, the key of the wallet {key.address}")
    for backup in (backups := _backups(agent)):
        if backup.status and backup.state not in ("unsafe", "unreadable") and backup.status.st_mode & 0o077:
            yield _open_to_others(backup)
    if backups:
        yield Looked("key", f"replaced keys beside it: {len(backups)}, closed to others")


def _backups(agent: Agent) -> list[KeyFile]:
    return [agent.key_file(path.name) for path in sorted(agent.data_dir.glob("wallet.key.backup-*"), reverse=True)]


def _open_to_others(key: KeyFile) -> Finding:
    mode = stat.S_IMODE(key.status.st_mode) if key.status else 0
    reason = "who has read the key can sign in with it for ever"
    next_step = f"`chmod 600 {quote(str(key.path))}`; if others were here, use a new wallet."
    return Finding("key", ERROR, f"{key.path} is open to other users (mode {mode:o}).", reason, next_step)


def key_findings(key: KeyFile, agent: Agent | None = None) -> Iterator[Finding]:
    """What is wrong with a key file, of this agent or else of the one whose directory it lies in."""
    agent = agent or Agent(str(key.path.parent), os.environ.get("CORVANE_SERVER_URL"))
    path, quoted = key.path, quote(str(key.path))
    session = agent.session()
    whose = f" The session is of the wallet {session.address}: look for that one's key." if session else ""
    if key.state == "absent":
        login = _command("corvane login", agent)
        step = (
            f"`{_command('corvane register --invite-code CODE', agent)}` makes a wallet, `{login} < FILE` takes one in."
        )
        if whose:
            step = f"`{login} < {_best_backup(agent)}` with a copy of the key.{whose}"
        yield Finding("key", WARNING, f"There is no wallet key at {path}.", "nobody can sign in without one", step)
    elif key.state in ("empty", "malformed"):
        login = _command(f"corvane login{' --replace' * (key.state == 'malformed')}", agent)
        next_step = f"`{login} < {_best_backup(agent)}` with a copy of the key.{whose}"
        if key.state == "empty":
            problem = f"{path} is empty."
            reason = (
                "a save was interrupted; whether the key that is missing has signed up, and wallets depend on it, "
                "cannot be seen from here"
            )
            next_step += (
                " Only if there is no copy anywhere, and the wallet may be lost: "
                f"{_aside(path)}, then corvane register with a new invite code."
            )
        else:
            problem, reason = f"{path} holds no key.", "a key is 64 hexadecimal digits, with or without 0x in front"
            next_step += " What is in the file now is kept as a backup."
        yield Finding("key", ERROR, problem, reason, next_step)
    elif key.state == "unreadable" and _kind(path) is None:
        problem, reason = f"{path} {key.problem}.", "its mode or a directory above it keeps this user out"
        yield Finding("key", ERROR, problem, reason, f"`chmod 600 {quoted}`, or run as its owner.")
    elif key.state in ("unsafe", "unreadable"):
        problem, reason = (
            f"{path} is not used: {key.problem}.",
            "somebody may have put it there",
        )
        login = _command("corvane login", agent)
        next_step = f"`{_aside(path)} && {login} < FILE` with your own copy of the key. Find out who did it.{whose}"
        yield Finding("key", ERROR, problem, reason, next_step)
    if key.status is None or key.state in ("unsafe", "unreadable"):
        return
    if key.status.st_nlink > 1:
        problem, reason = f"{path} has {key.status.st_nlink} names.", "a login rewrites it under all of them"
        copy = quote(f"{path}.copy")
        next_step = f"Make it a file of its own: `cp -p {quoted} {copy} && mv {copy} {quoted}`"
        yield Finding("key", ERROR, problem, reason, next_step)
    if key.status.st_mode & 0o077:
        yield _open_to_others(key)


def _best_backup(agent: Agent) -> str:
    """The backup that the session is of, or the newest one; FILE if there is none here."""
    good = [backup for backup in _backups(agent) if backup.state == "good"]
    session = agent.session()
    good.sort(key=lambda backup: bool(session and backup.address == session.address), reverse=True)
    return quote(str(good[0].path)) if good else "FILE"


def check_session(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the session is of the stored key, and of the service that is asked for."""
    path, key, session = agent.data_dir / "session.json", agent.key_file(), agent.session()
    register = f"`{_command('corvane register', agent)}`"
    if agent.env_key:
        yield Looked("session", f"no session: the key in {KEY_VARIABLE} needs none")
    elif _kind(path) or key.state != "good":
        return  # which other checks say
    elif not path.exists():
        problem, reason = f"There is no session in {agent.data_dir}.", "without one the stored key is not used"
        unknown = "with --invite-code CODE also one that the service does not know"
        yield Finding("session", WARNING, problem, reason, f"{register} signs the stored wallet in; {unknown}.")
    elif session is None:
        path.read_bytes()  # what cannot be read is another matter
        problem, reason = f"{path} is not a session.", "without one the stored key is not used"
        yield Finding("session", ERROR, problem, reason, f"{register} writes it anew.")
    elif agent.is_pending():
        problem = f"The service has not accepted {session.address} yet, as far as is known."
        again = _command("corvane register --invite-code CODE", agent)
        next_step = f"`{again}` signs the stored wallet up, or in if it was accepted."
        yield Finding("session", WARNING, problem, "a sign-up was refused, or interrupted", next_step)
    elif session.address != key.address:
        problem = f"The session is of {session.address}, {key.path} of {key.address}."
        reason = "the key was replaced without `corvane login`; it is not used until it has signed in"
        next_step = f"{register} signs the stored wallet in. If it is the wrong one: `corvane login --replace < FILE`."
        yield Finding("session", WARNING, problem, reason, next_step)
    elif session.server_url != agent.server_url:
        problem = f"The session is with {session.server_url}, and {agent.server_url} is asked for."
        reason = "a key is used only where it has signed in"
        own = "unset CORVANE_SERVER_URL" if os.environ.get("CORVANE_SERVER_URL") else _own_service(agent)
        next_step = f"`{own}` stays with the session's. If the other one is right: {register}."
        yield Finding("session", WARNING, problem, reason, next_step)
    else:
        since = f"{datetime.fromtimestamp(session.signed_in_at or 0, UTC):%Y-%m-%dT%H:%M:%SZ}"
        yield Looked("session", f"the session with {session.server_url}, since {since}")


def _own_service(agent: Agent) -> str:
    return _command("corvane doctor", Agent(str(agent.data_dir), None))


# -- What was downloaded and found ------------------------------------------------------------------------------------


def check_files(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether every file that manifest.json names is in its place, with the bytes that it names."""
    from pydantic import ValidationError

    path, sync = agent.data_dir / "manifest.json", _command("corvane sync", agent)
    if _kind(path):
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
        for error in exc.errors(include_url=False, include_input=False):
            place = [str(part) for part in error["loc"]]
            problem = f"{path} is malformed: {' '.join([*place, error['msg']])}."
            reason = reasons.get("".join(place[-1:]), "nothing can be verified with it")
            next_step = f"`rm {quote(str(path))} && {sync}` writes it anew."
            yield Finding("manifest", ERROR, problem, reason, next_step)
        return
    for name, entry in sorted(manifest["files"].items()):
        file = agent.data_dir / name
        if not Path(os.path.realpath(file)).is_relative_to(agent.data_dir):
            link = next((place for place in (*reversed(file.parents), file) if place.is_symlink()), file)
            problem, reason = f"{file} leads out of the directory by the link {link}.", "what lies there is not ours"
            next_step = f"`rm {quote(str(link))} && {sync}` downloads it again."
            yield Finding("manifest", ERROR, problem, reason, next_step)
        elif (actual := _digest(file) if file.is_file() else None) != entry["sha256"]:
            problem = f"{file} is {'spoilt' if actual else 'missing'}."
            reason = f"the manifest promises SHA-256 {entry['sha256']}, there is {actual or 'no file'}"
            again = f"{_aside(file)} && {sync}" if file.is_dir() else sync
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

    path = agent.data_dir / "search.db"
    if _kind(path) or not path.exists():
        return
    files = [file for file in (path, Path(f"{path}-wal"), Path(f"{path}-shm")) if file.exists()]
    # Without shared memory nobody has it open, and then it can be read without the one that would be made for it.
    how = "mode=ro" if Path(f"{path}-shm") in files else "mode=ro&immutable=1"
    try:
        with closing(sqlite3.connect(f"{path.as_uri()}?{how}", uri=True, timeout=_TIMEOUT)) as db:
            said = [row[0] for row in db.execute("PRAGMA quick_check(1)")]
    except sqlite3.DatabaseError as exc:
        said = [] if "locked" in str(exc) else [str(exc)]
    if said not in ([], ["ok"]):
        problem, reason = f"{path} is spoilt: {said[0]}.", "searches cannot note what they find"
        next_step = (
            f"`{' && '.join(map(_aside, files))}`: the next search begins a new one; found signals stay in the old."
        )
        yield Finding("searches", ERROR, problem, reason, next_step)
    yield Looked("searches", f"{path}, with the found signals")


# -- The service ------------------------------------------------------------------------------------------------------


def check_trust(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether SSL_CERT_FILE names what it should."""
    import ssl

    name = os.environ.get("SSL_CERT_FILE")
    if name is None:
        yield Looked("trust", "certificate authorities: the system's")
        return
    problem = ""
    try:
        if os.path.isdir(name):
            problem = "is a directory"
        else:
            ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT).load_verify_locations(name)
    except ssl.SSLError:
        problem = "holds no certificate"
    except OSError as exc:
        problem = "does not exist" if exc.errno == errno.ENOENT else f"cannot be read: {exc.strerror}"
    if problem:
        reason = "no certificate is trusted then, and no service can be reached"
        yield Finding("trust", ERROR, f"SSL_CERT_FILE ({name}) {problem}.", reason, _trust(agent))
    yield Looked("trust", f"certificate authorities: {name}")


def _trust(agent: Agent) -> str:
    from urllib.parse import urlsplit

    unset, right = "unset SSL_CERT_FILE", "export SSL_CERT_FILE=CA"
    if _is_loopback(urlsplit(agent.server_url).hostname or ""):
        return f"`{right}` with the path that the local service prints as it starts."
    if os.environ.get("SSL_CERT_FILE") is None:
        return f"`{right}` if the service has an authority of its own; if not, somebody is in between."
    return f"`{unset}`; or `{right}` if the service has an authority of its own."


def check_service(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the service answers at its address itself, and agrees with our clock."""
    from corvane._http import Service

    url, began = agent.server_url, time.time()
    if not url:
        return  # the extension cannot be loaded, which another check says
    other = f"`{_set('CORVANE_SERVER_URL', '--server-url', 'URL')}`"
    meanwhile = "nobody can sign in meanwhile"
    try:
        _validate_server_url(url)
    except ValueError as exc:
        yield Finding("service", ERROR, str(exc), meanwhile, f"Correct the address: {other}.")
        return
    try:
        with Service(url) as service, service.send("GET", "/health") as answer:
            fields, busy, date = answer.fields(), answer.is_busy, answer.headers.get("Date", "")
    except NotTheServiceError as exc:
        next_step = f"Correct the address: {other}."
        if isinstance(exc, PortalError):
            next_step = f"If this network asks for a sign-in, open a browser; if not, correct the address: {other}."
        yield Finding("service", ERROR, str(exc), "the kit takes its tokens nowhere else", next_step)
        return
    except ConnectionError as exc:
        yield _unreachable(agent, exc, other)
        return
    if busy:
        problem, next_step = f"{url} is away or busy.", f"Try again later: `{_command('corvane doctor', agent)}`."
        yield Finding("service", WARNING, problem, meanwhile, next_step)
    elif fields.get("status") != "ok":
        problem, reason = f"{url} is not a Corvane service.", "it does not answer /health as one does"
        yield Finding("service", ERROR, problem, reason, f"Correct the address: {other}.")
    yield from _clock(_seconds(date), (began + time.time()) / 2)
    yield Looked("service", f"{url}, which answers in {(time.time() - began) * 1000:.0f} ms, and its clock")


def _clock(theirs: float | None, ours: float) -> Iterator[Finding]:
    if theirs is not None and abs(off := ours - theirs) > _CLOCK_WARNING:
        severity = ERROR if abs(off) > _CLOCK_ERROR else WARNING
        amount = f"{abs(off):.0f} s" if abs(off) < 2 * 86400 else f"{abs(off) / 86400:,.0f} days"
        problem = f"This clock is {amount} {'ahead of' if off > 0 else 'behind'} the service's."
        reason = "tokens and certificates seem to expire too early or too late"
        next_step = "Set the clock by NTP: `timedatectl set-ntp true`; in a container that is its host's business."
        yield Finding("clock", severity, problem, reason, next_step)


def _seconds(date: str) -> float | None:
    from email.utils import parsedate_to_datetime

    try:
        return parsedate_to_datetime(date).timestamp()
    except (ValueError, OverflowError):
        return None


def _unreachable(agent: Agent, exc: BaseException, other: str) -> Finding:
    """Why there is no connection: the clock first, for it makes good certificates look bad."""
    import ssl

    cause: BaseException | None = exc
    while cause is not None and not isinstance(cause, ssl.SSLCertVerificationError):
        cause = cause.__cause__ or cause.__context__
    problem, meanwhile = str(exc), "nobody can sign in meanwhile"
    if cause is None:
        next_step = f"Check the network, and try again; if the address is wrong: {other}."
    elif cause.verify_code in _NOT_VALID_NOW:
        for finding in _clock(_unverified_time(agent.server_url), time.time()):
            if finding.severity == ERROR:
                return finding
        next_step = "Tell the operator: the certificate is out of date. `corvane-local serve` renews its own at start."
    elif cause.verify_code in _OTHER_NAME:
        next_step = f"The certificate is for another host. Correct the address: {other}."
    else:
        next_step = _trust(agent)
    return Finding("service", ERROR, problem, meanwhile, next_step)


def _unverified_time(url: str) -> float | None:
    """What the server at this address takes the time to be. Nobody is trusted with this, and nothing is told."""
    import socket
    import ssl
    from urllib.parse import urlsplit

    parts, head, until = urlsplit(url), b"", time.monotonic() + _TIMEOUT
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    try:
        with (
            socket.create_connection((parts.hostname or "", parts.port or 443), _TIMEOUT) as plain,
            context.wrap_socket(plain, server_hostname=parts.hostname) as tls,
        ):
            tls.sendall(f"GET {parts.path}/health HTTP/1.1\r\nHost: {parts.netloc}\r\n\r\n".encode())
            while b"\r\n\r\n" not in head and len(head) < _TRIED and time.monotonic() < until:
                if not (more := tls.recv(4096)):
                    break
                head += more
    except OSError:
        return None
    date = re.search(rb"^date: *(.+?)\r$", head, re.M | re.I)
    return _seconds(date[1].decode("latin-1")) if date else None


def check_sign_in(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the service knows the key. It is asked only where the key has signed in before."""
    if not agent.is_logged_in():
        return
    try:
        manager = agent.manager()
        manager.authenticate()
    except InvalidKeyError:
        return  # which another check says
    except (AuthBusyError, ConnectionError) as exc:
        next_step = f"Try again later: `{_command('corvane doctor', agent)}`."
        yield Finding("sign-in", WARNING, f"Nobody can sign in now: {exc}", "the service is away or busy", next_step)
    except NotTheServiceError as exc:
        next_step = f"Correct the address: `{_set('CORVANE_SERVER_URL', '--server-url', 'URL')}`."
        yield Finding("sign-in", ERROR, str(exc), "nobody can sign in there", next_step)
    except AuthError as exc:
        problem = f"{agent.server_url} refuses {manager.get_wallet_address()}: {exc}"
        again = _command("corvane register --invite-code CODE", agent)
        next_step = f"`{again}` signs this wallet up again, with a new invite code; its key stays the same."
        yield Finding("sign-in", ERROR, problem, "the service does not know the wallet, or not any more", next_step)
    else:
        yield Looked("sign-in", f"a sign-in: {agent.server_url} accepts {manager.get_wallet_address()}")


def check_agent_host(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the agent host still reads HEARTBEAT.md."""
    import subprocess

    if (command := shutil.which("openclaw")) is None:
        yield Looked("host", "no agent host on the path")
        return
    env = {name: value for name, value in os.environ.items() if name != KEY_VARIABLE}
    try:
        said = subprocess.run([command, "--version"], input=b"", capture_output=True, env=env, timeout=_TIMEOUT).stdout
    except (OSError, subprocess.TimeoutExpired):
        said = b""
    version = re.search(rb"\b(20\d\d)\.(\d{1,2})\.(\d{1,3})\b", said)
    if version is None:
        problem, reason = f"{command} does not tell its version.", "versions from 2026.8.1 on do not read HEARTBEAT.md"
        yield Finding("host", WARNING, problem, reason, "Run `openclaw --version` yourself.")
    elif tuple(map(int, version.groups())) >= _NO_HEARTBEAT:
        reason = "from 2026.8.1 on the checklist and the nudges in that file reach nobody"
        next_step = (
            "`corvane heartbeat --print > FILE`, find the job with `openclaw cron list --all --json`, add what its "
            "scratch holds to FILE, then `openclaw cron scratch <jobId> --file FILE --expected-revision N`."
        )
        yield Finding("host", WARNING, f"openclaw {version[0].decode()} does not read HEARTBEAT.md.", reason, next_step)
    else:
        yield Looked("host", f"{command}, {version[0].decode()}")


CHECKS: tuple[Check, ...] = (
    check_extension, check_directory, check_names, check_key_file, check_session, check_files, check_copies,
    check_searches, check_agent_host, check_trust,
)  # fmt: skip


def examine(agent: Agent, *checks: Check) -> list[Finding]:
    """What the checks find."""
    report = Report()
    for check in checks:
        _examine(agent, check, report)
    return report.findings


def diagnose(agent: Agent, online: bool) -> Report:
    """All that there is to find until the command's time is up. Of causes and effects the cause alone is told."""
    report, check = Report(), CHECKS[0]
    try:
        for check in _due(agent, online, report):
            _examine(agent, check, report)
    except interrupts.OutOfTime:
        interrupts.disarm()  # it would come again
        name = check.__name__.removeprefix("check_").replace("_", " ")
        problem = f"Not everything was examined in time; the check that was under way: {name}."
        again = _command("corvane doctor --timeout 300", agent)
        next_step = f"`{again}` waits longer; with --offline the service is not asked."
        report.findings.append(Finding("time", ERROR, problem, "what was not examined may be wrong, too", next_step))
    return report


def _due(agent: Agent, online: bool, report: Report) -> Iterator[Check]:
    """The checks that make sense after what the report holds so far."""
    root = agent.data_dir
    for check in CHECKS:
        known = len(report.findings)
        yield check
        is_last = len(report.findings) > known and check is check_directory and os.path.lexists(root)
        if is_last and not (root.is_dir() and os.access(root, os.R_OK | os.X_OK)):
            return
    if online and not any(finding.check == "trust" for finding in report.findings):
        known = len(report.findings)
        yield check_service
        if len(report.findings) == known:
            yield check_sign_in


def _examine(agent: Agent, check: Check, report: Report) -> None:
    """Notes what one check finds, even if it comes to no end; what it cannot read is a finding, too."""
    found, looked = list[Finding](), list[Looked]()
    try:
        for one in check(agent):
            found.append(one) if isinstance(one, Finding) else looked.append(one)
    except OSError as exc:
        reason = "what cannot be read cannot be examined"
        next_step = f"`chmod u+rwX {quote(str(exc.filename))}`, or remove it."
        found.append(Finding("files", ERROR, f"{exc.filename}: {exc.strerror}.", reason, next_step))
    finally:
        report.findings += found
        report.looked_at += [] if found else looked

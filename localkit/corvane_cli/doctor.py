"""What can be wrong around a wallet, and what to do about it. Nothing is changed."""

import importlib
import os
import re
import shutil
import ssl
import stat
import subprocess
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from email.utils import parsedate_to_datetime
from importlib.machinery import EXTENSION_SUFFIXES
from pathlib import Path
from shlex import quote

import httpx
from pydantic import ValidationError

import corvane
from corvane.sync import _checked_manifest, _digest
from corvane_cli.identity import KEY_VARIABLE, Agent, KeyFile

ERROR, WARNING = "error", "warning"
SIGN_UP = "`corvane register --invite-code CODE` makes a wallet, `corvane login < FILE` takes one over."
SIGN_IN = "`corvane register` signs the stored wallet in."

_COPY = re.compile(r"\.corvane-runtime-.+-([0-9a-f]{16})\.so")
_NO_HEARTBEAT = (2026, 8, 1)  # the first version of the agent host that does not read HEARTBEAT.md
_CLOCK_WARNING, _CLOCK_ERROR = 30.0, 1800.0  # seconds
_TIMEOUT = 10.0  # seconds


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
        return f"{self.severity}: {self.problem}\n  why: {self.reason}\n  next: {self.next_step}"


def check_directory(agent: Agent) -> Iterator[Finding]:
    """Whether somebody else can put other files in the place of ours."""
    reason = "whoever can rename a directory on the way to wallet.key can put another key in its place"
    for path in dict.fromkeys((agent.data_dir, *agent.data_dir.parents, *agent.named_dir.parents)):
        if not path.exists():
            continue
        status, quoted = path.stat(), quote(str(path))
        if status.st_uid not in (0, os.getuid()):
            problem = f"{path} belongs to user {status.st_uid}."
            yield Finding("directory", ERROR, problem, reason, "Choose a --data-dir below directories of your own.")
        elif status.st_mode & 0o022 and not status.st_mode & stat.S_ISVTX:
            severity, who = (ERROR, "everybody") if status.st_mode & 0o002 else (WARNING, "its group")
            yield Finding("directory", severity, f"{path} can be written by {who}.", reason, f"chmod go-w {quoted}")
        elif path == agent.data_dir and status.st_mode & 0o055:
            problem = f"{path} can be read by other users."
            yield Finding("directory", WARNING, problem, "they see what is kept there", f"chmod 700 {quoted}")


def check_key_file(agent: Agent) -> Iterator[Finding]:
    """Whether wallet.key holds a key, and is safe to use."""
    key = agent.key_file()
    return iter(()) if key.state == "absent" and agent.env_key else key_findings(key)


def key_findings(key: KeyFile) -> Iterator[Finding]:
    """What is wrong with a key file."""
    path, quoted = key.path, quote(str(key.path))
    if key.state == "absent":
        yield Finding("key", WARNING, f"There is no wallet key at {path}.", "nobody can sign in without one", SIGN_UP)
    elif key.state == "empty":
        reason = (
            "a save was interrupted. A new key that was being saved has never been used, so nothing is lost; one that "
            "a login was replacing is beside it, in the newest wallet.key.backup-*"
        )
        next_step = f"`corvane login < BACKUP`; if there never was a key before: rm {quoted}, then `corvane register`."
        yield Finding("key", ERROR, f"{path} is empty.", reason, next_step)
    elif key.state == "malformed":
        reason = "a key is 64 hexadecimal digits, with or without 0x in front"
        next_step = "`corvane login --replace < FILE` with a copy of the key; the file is kept as a backup, too."
        yield Finding("key", ERROR, f"{path} holds no key.", reason, next_step)
    elif key.state == "unsafe":
        problem, reason = f"{path} is not used: {key.problem}.", "somebody else may have put it there"
        yield Finding("key", ERROR, problem, reason, "Move it away, and find out who did it.")
    elif key.state == "unreadable":
        problem, reason = f"{path} {key.problem}.", "its mode or a directory above it keeps this user out"
        yield Finding("key", ERROR, problem, reason, f"chmod 600 {quoted}, or run as its owner.")
    if key.status and key.status.st_nlink > 1:
        problem, reason = f"{path} has {key.status.st_nlink} names.", "a login rewrites it under all of them"
        next_step = f"Make it a file of its own: cp -p {quoted} {quoted}.new && mv {quoted}.new {quoted}"
        yield Finding("key", ERROR, problem, reason, next_step)
    if key.status and key.status.st_mode & 0o077:
        problem = f"{path} is open to other users (mode {stat.S_IMODE(key.status.st_mode):o})."
        reason = "who has read the key can sign in with it for ever"
        yield Finding("key", ERROR, problem, reason, f"chmod 600 {quoted}; if others were here, use a new wallet.")


def check_session(agent: Agent) -> Iterator[Finding]:
    """Whether the session is of the stored key."""
    session, key = agent.session(), agent.key_file()
    if session and key.address and session.address != key.address and not agent.env_key:
        problem = f"The session is of {session.address}, {key.path} of {key.address}."
        reason = "the key was replaced without `corvane login`; it is not used until it has signed in"
        next_step = f"{SIGN_IN} If it is the wrong one: `corvane login --replace < FILE` with a copy of the right key."
        yield Finding("session", WARNING, problem, reason, next_step)


def check_files(agent: Agent) -> Iterator[Finding]:
    """Whether every file that manifest.json names is in its place, with the bytes that it names."""
    path, again = agent.data_dir / "manifest.json", "`corvane sync` downloads it again."
    try:
        manifest = _checked_manifest(path.read_bytes())
    except FileNotFoundError:
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
            yield Finding("manifest", ERROR, problem, reason, f"rm {quote(str(path))}; `corvane sync` writes it anew.")
        return
    for name, entry in sorted(manifest["files"].items()):
        file = agent.data_dir / name
        if not Path(os.path.realpath(file)).is_relative_to(agent.data_dir):
            link = next((place for place in (*reversed(file.parents), file) if place.is_symlink()), file)
            problem, reason = f"{file} leads out of the directory by the link {link}.", "what lies there is not ours"
            yield Finding("manifest", ERROR, problem, reason, f"rm {quote(str(link))}; {again}")
        elif (actual := _digest(file) if file.is_file() else None) != entry["sha256"]:
            problem = f"{file} is {'spoilt' if actual else 'missing'}."
            reason = f"the manifest promises SHA-256 {entry['sha256']}, there is {actual or 'no file'}"
            yield Finding("files", ERROR, problem, reason, again)


def check_copies(agent: Agent) -> Iterator[Finding]:
    """Whether the copies of native modules hold the bytes that their names promise."""
    for path in sorted(agent.data_dir.rglob(".corvane-runtime-*")):
        named = _COPY.fullmatch(path.name)
        actual = _digest(path) if path.is_file() and not path.is_symlink() else None
        if named is None or actual is None or not actual.startswith(named[1]):
            reason = "a copy is trusted by its name and imported without being read again"
            next_step = f"rm {quote(str(path))}; the next start makes a new one from the verified file."
            yield Finding("copies", ERROR, f"{path} does not hold what its name says.", reason, next_step)


def check_service(agent: Agent) -> Iterator[Finding]:
    """Whether the service answers at its address itself, and agrees with our clock."""
    url, began = agent.server_url, time.time()
    if not url:
        return  # the extension cannot be loaded, which another check says
    try:
        context = ssl.create_default_context()
        response = httpx.get(f"{url}/health", verify=context, timeout=_TIMEOUT, trust_env=False)
    except (httpx.HTTPError, httpx.InvalidURL) as exc:
        next_step = "Check the address (--server-url), the network, and SSL_CERT_FILE; then try again."
        yield Finding("service", ERROR, f"{url} cannot be reached: {exc}", "nobody can sign in meanwhile", next_step)
        return
    if response.is_redirect:
        target = response.headers.get("Location", "nowhere")
        next_step = f"If you trust it: --server-url {target.removesuffix('/health')}"
        problem, reason = f"{url} redirects to {target}.", "the kit takes its tokens nowhere else"
        yield Finding("service", ERROR, problem, reason, next_step)
    elif response.status_code != 200:
        problem, next_step = f"{url}/health answers HTTP {response.status_code}.", "Try again, or check the address."
        yield Finding("service", WARNING, problem, "it is busy, or no Corvane service", next_step)
    try:
        theirs = parsedate_to_datetime(response.headers.get("Date", "")).timestamp()
    except ValueError:
        return
    off = (began + time.time()) / 2 - theirs
    if abs(off) > _CLOCK_WARNING:
        severity = ERROR if abs(off) > _CLOCK_ERROR else WARNING
        problem = f"This clock is {abs(off):.0f} s {'ahead of' if off > 0 else 'behind'} the service's."
        reason = "tokens and certificates seem to expire too early or too late"
        yield Finding("clock", severity, problem, reason, "Set the clock by NTP, such as: timedatectl set-ntp true")


def check_agent_host(agent: Agent) -> Iterator[Finding]:
    """Whether the agent host still reads HEARTBEAT.md."""
    if (command := shutil.which("openclaw")) is None:
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


def check_extension(agent: Agent) -> Iterator[Finding]:
    """Whether the native onboarding module is built for this interpreter."""
    try:
        importlib.import_module("corvane.agent_onboarding")
    except ImportError as exc:
        files = [file.name for place in corvane.__path__ for file in sorted(Path(place).glob("agent_onboarding*.so"))]
        reason = f"this interpreter loads {EXTENSION_SUFFIXES[0]}; there is {', '.join(files) or 'no such file'}"
        next_step = "Install the kit with the interpreter that runs it: CPython 3.12, `python3.12 -m pip install`."
        yield Finding("extension", ERROR, f"corvane.agent_onboarding cannot be loaded: {exc}.", reason, next_step)


Check = Callable[[Agent], Iterator[Finding]]
CHECKS = (check_extension, check_directory, check_key_file, check_session, check_files, check_copies, check_agent_host)


def examine(agent: Agent, *checks: Check) -> list[Finding]:
    """What the checks find; what one cannot read is a finding, too."""
    findings: list[Finding] = []
    for check in checks:
        try:
            findings.extend(check(agent))
        except OSError as exc:
            reason, next_step = "what cannot be read cannot be examined", "Put the permissions right, or remove it."
            findings.append(Finding("files", ERROR, f"{exc.filename}: {exc.strerror}.", reason, next_step))
    return findings

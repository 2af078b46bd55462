"""Whose agent this is: the key that signs in, the session that says where, and the directory that holds both.

The key is the one in CORVANE_PRIVATE_KEY, which is never stored, or else the one in wallet.key. The session is the
file session.json: the wallet and the service that the last `login` or `register` was accepted with. It holds no
secret; without it, or for another wallet or service, the stored key is not used. Tokens are kept in memory only.
"""

import fcntl
import json
import os
import stat
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass, field
from pathlib import Path
from types import ModuleType

from corvane.auth import AuthManager, InvalidKeyError, _set_active_auth_manager
from corvane.key_file import make_key, own_file, write_whole
from corvane_cli.display import log_to_stderr, remember

KEY_VARIABLE = "CORVANE_PRIVATE_KEY"
LONGEST_KEY = 4096  # bytes, of a file or of what arrives

SIGN_UP = "`corvane register --invite-code CODE` makes a wallet, `corvane login < FILE` uses an existing one."
SIGN_UP_STORED = (
    "`corvane register --invite-code CODE` signs the stored wallet up. (If the service has accepted it after all, "
    "and only its response was lost, this signs it in.)"
)
SIGN_IN = (
    "`corvane register` signs the stored wallet in; with --invite-code CODE, even one that the service does not know."
)


@dataclass(frozen=True)
class KeyFile:
    """What lies at the path of wallet.key: it is "good", "absent", "empty", "malformed", "unsafe" or "unreadable".

    An unsafe file is not read; `problem` says why it is unsafe, or cannot be read.
    """

    path: Path
    state: str
    content: bytes = field(default=b"", repr=False)
    address: str | None = None
    problem: str = ""
    status: os.stat_result | None = None


@dataclass(frozen=True)
class Session:
    """What is known of the stored wallet: its service, and when that has last accepted it.

    The time is in seconds since 1970-01-01 UTC; None says that the wallet is new and was never accepted.
    """

    address: str
    server_url: str
    signed_in_at: float | None


class Agent:
    """One identity: a data directory, a service, and the key for it.

    Args:
        data_dir: The directory; it need not exist.
        server_url: Address of the service; None takes the one of the session, or else the kit's.
    """

    def __init__(self, data_dir: str, server_url: str | None) -> None:
        named = os.path.expanduser(data_dir or "~/.corvane")
        self.named_dir, self.data_dir = Path(os.path.abspath(named)), Path(os.path.realpath(named))
        self.env_key = os.environ.get(KEY_VARIABLE, "").strip()
        self.key_source = KEY_VARIABLE if self.env_key else str(self.data_dir / "wallet.key")
        self._session_path = self.data_dir / "session.json"
        self._asked_url = server_url.rstrip("/") if server_url else None

    def elsewhere(self, data_dir: str) -> "Agent":
        """The identity in another directory, with the key that is stored there, for the same options."""
        other = Agent(data_dir, self._asked_url)
        other.env_key, other.key_source = "", str(other.data_dir / "wallet.key")
        return other

    @property
    def server_url(self) -> str:
        """The address of the service; empty if only the kit could tell, and it cannot be loaded."""
        if self._asked_url:
            return self._asked_url
        if session := self.session():
            return session.server_url
        try:
            from corvane import agent_onboarding
        except ImportError:
            return ""
        return str(vars(agent_onboarding)["_config"]["server_url"])

    def key_file(self, name: str = "wallet.key") -> KeyFile:
        """What lies at the path of wallet.key, or of a backup, now. Changes nothing, not even permissions."""
        path = self.data_dir / name
        content, state, problem, status = _read(path)
        if state:
            return KeyFile(path, state, problem=problem, status=status)
        remember(content.decode("latin-1"))
        if not content.strip():
            return KeyFile(path, "empty", content, status=status)
        try:
            address = AuthManager(prefixed(content.decode("ascii")), "").get_wallet_address()
        except (InvalidKeyError, UnicodeDecodeError):
            return KeyFile(path, "malformed", content, status=status)
        return KeyFile(path, "good", content, address, status=status)

    def session(self) -> Session | None:
        """The session, or None if there is none or it makes no sense."""
        try:
            fields = json.loads(_read(self._session_path)[0])
            session = Session(fields["address"], fields["server_url"], fields["signed_in_at"])
        except (ValueError, RecursionError, TypeError, KeyError):
            return None
        at, texts = session.signed_in_at, (session.address, session.server_url)
        is_time = at is None or (isinstance(at, int | float) and 1 < at < 1e11)
        return session if is_time and all(isinstance(text, str) for text in texts) else None

    def is_logged_in(self) -> bool:
        """Whether there is a key, and for a stored one a session of that wallet with that service."""
        if self.env_key:
            return True
        session, key = self.session(), self.key_file()
        is_accepted = session is not None and session.signed_in_at is not None
        return bool(
            session and is_accepted and key.address == session.address and session.server_url == self.server_url
        )

    def is_pending(self) -> bool:
        """Whether the stored key was made for a sign-up that, as far as is known, has not succeeded."""
        session = self.session()
        return bool(session and session.signed_in_at is None and session.address == self.key_file().address)

    def next_step(self) -> str:
        """What brings a wallet that is not logged in further."""
        if self.key_file().state == "absent":
            return SIGN_UP + self.key_to_look_for()
        return SIGN_UP_STORED if self.is_pending() else SIGN_IN

    def key_to_look_for(self) -> str:
        """The end of a next step where there is no good key: whose is missing, if a session says so."""
        session = self.session()
        return f" The session is that of the wallet {session.address}: look for its key." if session else ""

    def manager(self, invite_code: str | None = None) -> AuthManager:
        """What signs in with the key of the environment or else the stored one; nothing is sent yet.

        Raises:
            corvane.auth.InvalidKeyError: The key is malformed.
        """
        key = self.env_key or self.key_file().content.decode("ascii", "replace")
        return AuthManager(prefixed(key), self.server_url, invite_code)

    def sign_in(self, manager: AuthManager) -> AuthManager:
        """Signs in for the whole kit, and stores nothing. Raises what `corvane.auth.AuthManager` raises."""
        onboarding = self.onboarding()  # which refuses a bad address
        manager.authenticate()
        # As login() does it, which would store the key as well.
        vars(onboarding)["_auth_manager"] = manager
        _set_active_auth_manager(manager)
        return manager

    def onboarding(self, heartbeat: bool = False) -> ModuleType:
        """The onboarding module with this agent's options set.

        Imported here, not above: the doctor must be able to say why it cannot be imported.
        """
        from corvane import agent_onboarding

        log_to_stderr("WARNING", "%(message)s")  # which logging would do by itself, but raw
        agent_onboarding.configure(data_dir=str(self.data_dir), server_url=self.server_url, auto_heartbeat=heartbeat)
        return agent_onboarding

    def make_key(self) -> None:
        """Makes a new key, and notes that no service has accepted it; both are on disk then, or there is neither."""
        make_key(self.data_dir)
        key = self.key_file()
        try:
            self.begin_session(str(key.address), accepted=False)
        except BaseException:
            key.path.unlink()  # nobody has heard of it
            raise

    def store_key(self, text: str) -> None:
        """Puts a key into wallet.key, in place of the one that is there."""
        write_whole(self.data_dir / "wallet.key", text.encode("ascii"), replace=True)

    def begin_session(self, address: str, accepted: bool = True) -> None:
        """Notes that the service has accepted the stored key, or is about to be asked for the first time."""
        session = Session(address, self.server_url, time.time() if accepted else None)
        write_whole(self._session_path, json.dumps(asdict(session)).encode(), replace=True)

    def end_session(self) -> bool:
        """Forgets the session; whether there was one."""
        existed = self._session_path.exists()
        self._session_path.unlink(missing_ok=True)
        return existed

    def back_up_key(self, key: KeyFile) -> Path:
        """A copy of the key file beside it, on disk before this returns."""
        from datetime import UTC, datetime

        backup = key.path.with_name(f"wallet.key.backup-{datetime.now(UTC):%Y%m%dT%H%M%S.%fZ}")
        write_whole(backup, key.content, replace=False)
        return backup

    @contextmanager
    def changing_the_wallet(self, dry_run: bool) -> Iterator[None]:
        """Makes the directory, and keeps other commands from changing the wallet until the end; a dry run does neither.

        Raises:
            BlockingIOError: Another command does so now.
            PermissionError: Other users could replace the files of the directory.
        """
        if dry_run:
            yield
            return
        self.data_dir.mkdir(mode=0o700, parents=True, exist_ok=True)
        if self.data_dir.stat().st_mode & 0o022:  # not changed here: others may need it
            raise PermissionError(f"{self.data_dir} can be written by other users; chmod 700 it or choose another.")
        with open(self.data_dir / "wallet.lock", "ab", opener=own_file) as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                raise BlockingIOError(f"Another command is changing the wallet in {self.data_dir}.") from None
            for pattern in (".wallet.key*.new", ".session.json.new"):  # of a command that was killed
                for path in self.data_dir.glob(pattern):
                    path.unlink()
            yield


def prefixed(key: str) -> str:
    """The key with 0x in front, as the kit wants it."""
    key = key.strip()
    return key if key[:2].lower() == "0x" else "0x" + key


def _read(path: Path) -> tuple[bytes, str, str, os.stat_result | None]:
    """The content of a small file of ours; or why it was not read, as the state and the problem of a KeyFile."""
    try:
        # Without O_NONBLOCK a FIFO would hold the command up.
        fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError:
        return b"", "absent", "", None
    except OSError as exc:
        if os.path.islink(path):
            return b"", "unsafe", "it is a symbolic link", None
        return b"", "unreadable", f"cannot be opened: {exc.strerror}", None
    status = os.fstat(fd)
    if not stat.S_ISREG(status.st_mode):
        os.close(fd)  # no file object can be made for a directory
        return b"", "unsafe", "it is not a regular file", status
    with open(fd, "rb", buffering=0) as file:
        if status.st_uid != os.getuid():
            return b"", "unsafe", f"it belongs to user {status.st_uid}", status
        if status.st_size > LONGEST_KEY:
            return b"", "unsafe", "it is too large for a key", status
        return file.read(LONGEST_KEY) or b"", "", "", status

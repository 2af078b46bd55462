"""What the service remembers: invites, wallets, challenges, tokens and releases, in one SQLite file.

Every change is one transaction, on disk before the caller hears of it, so what was acknowledged survives a kill.
"""

import hashlib
import json
import os
import secrets
import sqlite3
import time
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from corvane.manifest import FileEntry

_SCHEMA = """
CREATE TABLE IF NOT EXISTS invites
    (code TEXT PRIMARY KEY, made_at REAL NOT NULL, used_by TEXT) STRICT;
CREATE TABLE IF NOT EXISTS wallets
    (address TEXT PRIMARY KEY, public_key TEXT NOT NULL, registered_at REAL NOT NULL) STRICT;
CREATE TABLE IF NOT EXISTS challenges
    (challenge TEXT PRIMARY KEY, public_key TEXT NOT NULL, expires_at REAL NOT NULL) STRICT;
CREATE TABLE IF NOT EXISTS tokens
    (digest TEXT PRIMARY KEY, address TEXT NOT NULL, expires_at REAL NOT NULL) STRICT;
CREATE TABLE IF NOT EXISTS releases
    (version INTEGER PRIMARY KEY, backtester TEXT NOT NULL, files TEXT NOT NULL) STRICT;
CREATE INDEX IF NOT EXISTS challenges_by_expiry ON challenges (expires_at);
CREATE INDEX IF NOT EXISTS tokens_by_expiry ON tokens (expires_at);
"""
CHALLENGE_SECONDS, TOKEN_SECONDS = 120.0, 3600.0
_INVITE_ALPHABET = "23456789ABCDEFGHJKLMNPQRSTUVWXYZ"  # nothing that looks like something else
_BUSY_TIMEOUT = 5.0  # seconds
_CLEARED_AT_ONCE = 20  # rows; more than a request adds, and few enough that nobody waits for them


class Refused(Exception):
    """The service says no: an HTTP status, a word for programs, a sentence for people, and when to ask again."""

    def __init__(self, status: int, code: str, message: str, retry_after: float | None = None) -> None:
        super().__init__(message)
        self.status = status
        self.code = code
        self.retry_after = retry_after  # seconds


@dataclass(frozen=True)
class Proof:
    """A wallet's answer to a challenge, and whether the signature fits."""

    address: str
    public_key: str
    challenge: str
    is_genuine: bool


@dataclass(frozen=True)
class Release:
    """What agents download: files by their relative path."""

    version: int
    backtester: str
    files: "dict[str, FileEntry]"


@dataclass(frozen=True)
class Invite:
    """An invite code, when it was made (seconds since 1970-01-01 UTC), and the wallet that used it."""

    code: str
    made_at: float
    used_by: str | None


@dataclass(frozen=True)
class Member:
    """A wallet, and since when the service knows it (seconds since 1970-01-01 UTC)."""

    address: str
    registered_at: float


@dataclass(frozen=True)
class Build:
    """A release: its version, and which build of the backtester it holds."""

    version: int
    backtester: str


@dataclass(frozen=True)
class Contents:
    """What the service remembers and may show, oldest first."""

    invites: list[Invite]
    wallets: list[Member]
    builds: list[Build]


class Store:
    """The database file of one service.

    Args:
        path: The file, made if it is missing.
        challenge_seconds: How long a challenge is valid.
        token_seconds: How long a token is valid.
    """

    def __init__(
        self, path: Path, challenge_seconds: float = CHALLENGE_SECONDS, token_seconds: float = TOKEN_SECONDS
    ) -> None:
        self._path = path
        self._challenge_seconds = challenge_seconds
        self._token_seconds = token_seconds
        with suppress(
            FileExistsError
        ):  # whose closing would release the locks of its other connections in this process
            os.close(
                os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
            )  # SQLite's other files get this mode, too
        with self._transaction() as db:
            for statement in _SCHEMA.split(";"):
                db.execute(statement)

    @contextmanager
    def _transaction(self, kind: str = "IMMEDIATE") -> Iterator[sqlite3.Connection]:
        # One connection a transaction: requests run on several threads, and opening a file is cheap.
        db = sqlite3.connect(self._path, timeout=_BUSY_TIMEOUT, isolation_level=None)
        try:
            db.execute("PRAGMA journal_mode = WAL")
            db.execute("PRAGMA synchronous = FULL")
            db.execute(f"BEGIN {kind}")
            try:
                yield db
            except Refused:
                db.execute("COMMIT")  # a refusal has written nothing but the use of its challenge
                raise
            db.execute("COMMIT")
        finally:
            db.close()  # which rolls back what is not committed

    def make_invite(self) -> str:
        """A new invite code, good for one wallet."""
        groups = ["".join(secrets.choice(_INVITE_ALPHABET) for _ in range(4)) for _ in range(3)]
        code = "-".join(["CORV", *groups])
        with self._transaction() as db:
            db.execute("INSERT INTO invites VALUES (?, ?, NULL)", (code, time.time()))
        return code

    def make_challenge(self, public_key: str) -> tuple[str, float]:
        """A new challenge for this key and the time when it expires."""
        challenge, now = secrets.token_hex(32), time.time()
        with self._transaction() as db:
            _clear(db, "challenges", now)
            db.execute(
                "INSERT INTO challenges VALUES (?, ?, ?)", (challenge, public_key, now + self._challenge_seconds)
            )
        return challenge, now + self._challenge_seconds

    def sign_in(self, proof: Proof) -> tuple[str, float]:
        """A token for a wallet that is registered, and the time when it expires."""
        with self._transaction() as db:
            self._use_challenge(db, proof)
            if not self._is_registered(db, proof.address):
                raise Refused(404, "unknown_wallet", "This wallet is not registered")
            return self._issue_token(db, proof.address)

    def sign_up(self, proof: Proof, invite_code: str) -> tuple[str, float]:
        """Registers the wallet if it is new, and uses the invite up for it; then signs it in."""
        with self._transaction() as db:
            self._use_challenge(db, proof)
            if not self._is_registered(db, proof.address):
                row = db.execute("SELECT used_by FROM invites WHERE code = ?", (invite_code,)).fetchone()
                if row is None:
                    raise Refused(404, "unknown_invite", "This invite code is unknown")
                if row[0] is not None:
                    raise Refused(409, "used_invite", "This invite code has been used")
                db.execute("UPDATE invites SET used_by = ? WHERE code = ?", (proof.address, invite_code))
                wallet = (proof.address, proof.public_key, time.time())
                db.execute("INSERT INTO wallets VALUES (?, ?, ?)", wallet)
            return self._issue_token(db, proof.address)

    def wallet_of(self, token: str) -> tuple[str, float]:
        """The address that the token was given to and the time when it was registered."""
        query = (
            "SELECT address, registered_at FROM tokens JOIN wallets USING (address) WHERE digest = ? AND expires_at > ?"
        )
        with self._transaction("DEFERRED") as db:  # reads only, and waits for no writer
            row: tuple[str, float] | None = db.execute(query, (_digest(token), time.time())).fetchone()
        if row is None:
            raise Refused(401, "bad_token", "The token is unknown or has expired")
        return row

    def contents(self) -> Contents:
        """All that an operator may see. Of a code that is still good, that is the last group alone."""
        with self._transaction("DEFERRED") as db:
            invites = db.execute("SELECT code, made_at, used_by FROM invites ORDER BY made_at, rowid").fetchall()
            wallets = db.execute("SELECT address, registered_at FROM wallets ORDER BY registered_at, rowid").fetchall()
            builds = db.execute("SELECT version, backtester FROM releases ORDER BY version").fetchall()
        shown = [(code if used_by else f"CORV-****-****-{code[-4:]}", made, used_by) for code, made, used_by in invites]
        return Contents([Invite(*row) for row in shown], [Member(*row) for row in wallets], [Build(*b) for b in builds])

    def size(self) -> int:
        """How many bytes the database takes on disk."""
        total = 0
        for suffix in ("", "-wal", "-shm"):
            with suppress(FileNotFoundError):  # the last connection to be closed takes the others along
                total += os.stat(f"{self._path}{suffix}").st_size
        return total

    def publish(self, backtester: str, files: "dict[str, FileEntry]") -> int:
        """The version that is published now: a new one if the files differ from those published before."""
        with self._transaction() as db:
            current = self._release(db)
            if current and (current.backtester, current.files) == (backtester, files):
                return current.version
            version = current.version + 1 if current else 1
            db.execute("INSERT INTO releases VALUES (?, ?, ?)", (version, backtester, json.dumps(files)))
            return version

    def release(self) -> Release | None:
        """The newest release, or None before the first."""
        with self._transaction("DEFERRED") as db:
            return self._release(db)

    @staticmethod
    def _release(db: sqlite3.Connection) -> Release | None:
        row = db.execute("SELECT version, backtester, files FROM releases ORDER BY version DESC LIMIT 1").fetchone()
        return None if row is None else Release(row[0], row[1], json.loads(row[2]))

    @staticmethod
    def _use_challenge(db: sqlite3.Connection, proof: Proof) -> None:
        query = "DELETE FROM challenges WHERE challenge = ? AND public_key = ? RETURNING expires_at"
        row = db.execute(query, (proof.challenge, proof.public_key)).fetchone()
        if row is None or row[0] <= time.time():
            raise Refused(401, "bad_challenge", "The challenge is unknown, used or expired")
        if not proof.is_genuine:
            raise Refused(401, "bad_signature", "The signature does not match the challenge and the key")

    @staticmethod
    def _is_registered(db: sqlite3.Connection, address: str) -> bool:
        return db.execute("SELECT 1 FROM wallets WHERE address = ?", (address,)).fetchone() is not None

    def _issue_token(self, db: sqlite3.Connection, address: str) -> tuple[str, float]:
        token, now = secrets.token_urlsafe(32), time.time()
        _clear(db, "tokens", now)
        db.execute("INSERT INTO tokens VALUES (?, ?, ?)", (_digest(token), address, now + self._token_seconds))
        return token, now + self._token_seconds


def _clear(db: sqlite3.Connection, table: str, now: float) -> None:
    expired = f"SELECT rowid FROM {table} WHERE expires_at < ? LIMIT {_CLEARED_AT_ONCE}"
    db.execute(f"DELETE FROM {table} WHERE rowid IN ({expired})", (now,))


def _digest(token: str) -> str:
    # Who reads the database cannot sign in. Only digests are compared, so no constant-time comparison is needed: the
    # time of a look-up tells at most how a digest begins, and nobody can make tokens with digests of their choice.
    # A challenge is not secret. An invite code is, and the limit on failures protects its 60 bits from being guessed.
    return hashlib.sha256(token.encode()).hexdigest()

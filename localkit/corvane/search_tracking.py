"""What searches have found and how far they have come, in one SQLite file of the data directory."""

import fcntl
import math
import os
import shutil
import sqlite3
import tempfile
import time
from bisect import bisect_right
from collections.abc import Iterable, Iterator, Mapping
from contextlib import closing, contextmanager
from dataclasses import astuple, dataclass, fields, replace
from pathlib import Path
from typing import get_type_hints

from corvane.key_file import own_file

_SCHEMA = """
CREATE TABLE IF NOT EXISTS runs
    (id INTEGER PRIMARY KEY, template TEXT NOT NULL, seed INTEGER NOT NULL, started_at REAL NOT NULL,
     noted_at REAL NOT NULL, evaluations INTEGER NOT NULL, candidates INTEGER NOT NULL, outcome TEXT) STRICT;
CREATE TABLE IF NOT EXISTS signals
    (era_id INTEGER NOT NULL, pool TEXT NOT NULL, instrument TEXT NOT NULL, expression TEXT NOT NULL,
     correlation REAL NOT NULL, mutual_information REAL NOT NULL, sharpe REAL NOT NULL,
     rest_correlation REAL NOT NULL, rest_sharpe REAL NOT NULL, evaluation INTEGER NOT NULL, found_at REAL NOT NULL,
     id INTEGER PRIMARY KEY) STRICT;
CREATE TABLE IF NOT EXISTS uses
    (kind TEXT, name TEXT, tried INTEGER NOT NULL, found INTEGER NOT NULL, PRIMARY KEY (kind, name)) STRICT;
"""
_BUSY_TIMEOUT = 10.0  # seconds
_LEAST_FOR_A_TREND = 8  # signals


@dataclass(frozen=True)
class FoundSignal:
    """A signal that passed the thresholds on the training days and was confirmed on the rest.

    The correlation and the mutual information (bits) are those with the return over the era's horizon, the Sharpe
    ratios are annualised and after costs. `evaluation` counts all evaluations up to this find, `found_at` is in seconds
    since 1970-01-01 UTC. The id is given by the tracker.
    """

    era_id: int
    pool: str
    instrument: str
    expression: str
    correlation: float
    mutual_information: float
    sharpe: float
    rest_correlation: float
    rest_sharpe: float
    evaluation: int
    found_at: float
    id: int | None = None


@dataclass(frozen=True)
class Run:
    """One search: times in seconds since 1970-01-01 UTC; no outcome while it runs, and none if it was killed."""

    id: int
    template: str
    seed: int
    started_at: float
    noted_at: float
    evaluations: int
    candidates: int
    outcome: str | None

    @property
    def seconds(self) -> float:
        """How long it has searched; a clock that was set back counts as no time."""
        return max(0.0, self.noted_at - self.started_at)

    def rate(self, count: int, seconds: float = 1.0) -> float | None:
        """How many of something it has come to in so many seconds; None where no time has passed."""
        return count * seconds / self.seconds if self.seconds else None


@dataclass(frozen=True)
class Use:
    """How many of the evaluated expressions, and how many found signals, use a "function" or an "input"."""

    kind: str
    name: str
    tried: int
    found: int


@dataclass(frozen=True)
class Record:
    """All searches and all found signals of a data directory, oldest first, and whether a search runs now."""

    runs: list[Run]
    signals: list[FoundSignal]
    running: bool = False

    def found_by(self) -> dict[int, int]:
        """How many signals each run has found, by its number."""
        found_at, found, evaluations = sorted(signal.evaluation for signal in self.signals), dict[int, int](), 0
        for run in self.runs:
            before, evaluations = evaluations, evaluations + run.evaluations
            found[run.id] = bisect_right(found_at, evaluations) - bisect_right(found_at, before)
        return found

    def outcome(self, run: Run) -> str:
        """How a run has ended: "finished", "interrupted", an error, "killed"; or that it is "running"."""
        return run.outcome or ("running" if self.running and run == self.runs[-1] else "killed")

    def per_hour(self) -> float:
        """How many signals an hour of searching has given."""
        hours = sum(run.seconds for run in self.runs) / 3600
        return len(self.signals) / hours if hours > 0 else 0.0

    def trend(self) -> str:
        """The newest quarter of the evaluations compared with all: a half more or less is a trend."""
        evaluations = sum(run.evaluations for run in self.runs)
        if len(self.signals) < _LEAST_FOR_A_TREND:
            return "unknown"
        share = sum(signal.evaluation > 0.75 * evaluations for signal in self.signals) / len(self.signals)
        return "down" if share < 0.125 else "up" if share > 0.375 else "stable"


def read_record(data_dir: str | os.PathLike[str]) -> Record:
    """What the searches of a data directory have done. Makes and changes nothing; without a file, nothing was done.

    Raises:
        ValueError: The file is not a record of searches, or is damaged.
        OSError: It cannot be read.
    """
    path = Path(data_dir) / "search.db"
    if path.is_symlink() or (path.exists() and not path.is_file()):
        raise ValueError(f"{path} is not a regular file.")
    try:
        os.close(os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC))  # SQLite would not say why it cannot
    except FileNotFoundError:
        return Record([], [])
    try:
        with closing(connect_to_read(path, _BUSY_TIMEOUT)) as db:
            db.execute("BEGIN")  # both as they are at one moment
            runs = _checked(Run, db.execute(f"SELECT {_names(Run)} FROM runs ORDER BY id"))
            signals = _checked(FoundSignal, db.execute(f"SELECT {_names(FoundSignal)} FROM signals ORDER BY id"))
    except sqlite3.DatabaseError as exc:
        if "locked" in str(exc):
            raise BlockingIOError(f"{path} is in use by another command.") from exc
        raise ValueError(f"{path} is damaged, or not a record of searches: {exc}.") from exc
    except ValueError as exc:
        raise ValueError(f"{path} is damaged: {exc}.") from exc
    return Record(runs, signals, _is_locked(path.with_name("search.lock")))


def _in_memory(path: Path, log: Path) -> sqlite3.Connection:
    """A database with its log, read from a copy elsewhere: SQLite writes beside a log that it reads."""
    with tempfile.TemporaryDirectory() as folder:
        shutil.copy(log, folder)
        with closing(sqlite3.connect(shutil.copy(path, folder))) as copy:
            memory = sqlite3.connect(":memory:", isolation_level=None)
            try:
                copy.backup(memory)
            except BaseException:
                memory.close()
                raise
            return memory


def connect_to_read(path: Path, timeout: float) -> sqlite3.Connection:
    """A connection that changes nothing; where no search runs, it leaves no file behind either."""
    # Without shared memory nobody has it open, and then it can be read without the one that would be made for it. A
    # search opens it again and again: in between there is none, but there may be at any moment.
    is_open = Path(f"{path}-shm").exists() or _is_locked(path.with_name("search.lock"))
    if not is_open and (log := Path(f"{path}-wal")).exists():
        return _in_memory(path, log)  # of a search that was killed: the database was copied with it
    how = "mode=ro" if is_open else "mode=ro&immutable=1"
    return sqlite3.connect(f"{path.absolute().as_uri()}?{how}", uri=True, timeout=timeout, isolation_level=None)


def _names(kind: type[Run | FoundSignal]) -> str:
    return ", ".join(field.name for field in fields(kind))


def _checked[T: Run | FoundSignal](kind: type[T], rows: Iterable[tuple[object, ...]]) -> list[T]:
    """The rows as records. Another program can have made the tables, with anything in them."""
    hints = list(get_type_hints(kind).items())

    def fits(name: str, hint: object, value: object) -> bool:
        if not isinstance(value, hint):  # type: ignore[arg-type]
            return False
        if isinstance(value, float) and not math.isfinite(value):
            return False
        return not name.endswith("_at") or (isinstance(value, float) and 0 <= value < 1e11)

    records = []
    for row in rows:
        for (name, hint), value in zip(hints, row, strict=True):
            if not fits(name, hint, value):
                raise ValueError(f"{name} cannot be {str(value)[:40]!r}")
        records.append(kind(*row))  # type: ignore[arg-type]
    return records


def _is_locked(lock: Path) -> bool:
    try:
        with open(lock, "rb", opener=own_file) as file:
            fcntl.flock(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    except OSError:
        return False
    return False


class SearchTracker:
    """The record of the searches in one data directory; threads and processes may share it.

    Args:
        data_dir: The directory; made if it is missing.
    """

    def __init__(self, data_dir: str | os.PathLike[str]) -> None:
        root = Path(data_dir).expanduser()
        root.mkdir(mode=0o700, parents=True, exist_ok=True)
        self._path, self._lock = root / "search.db", root / "search.lock"
        for path in (self._path, self._lock):
            os.close(os.open(path, os.O_CREAT | os.O_RDWR | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600))
        with self._transaction() as db:
            for statement in _SCHEMA.split(";"):
                db.execute(statement)

    @contextmanager
    def _transaction(self) -> Iterator[sqlite3.Connection]:
        # One connection a transaction: it is never shared between threads, and opening a file is cheap.
        db = sqlite3.connect(self._path, timeout=_BUSY_TIMEOUT, isolation_level=None)
        try:
            db.execute("PRAGMA journal_mode = WAL")
            db.execute("BEGIN IMMEDIATE")
            yield db
            db.execute("COMMIT")
        finally:
            db.close()  # which rolls back what is not committed

    @contextmanager
    def searching(self) -> Iterator[None]:
        """Held by a search for as long as it runs; the kernel lets go of it when a process dies.

        Raises:
            RuntimeError: Another search runs in this directory.
        """
        with open(self._lock, "rb", opener=own_file) as file:
            for patience in range(50):
                try:
                    fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    break
                except BlockingIOError:
                    if patience == 49:
                        raise RuntimeError("A search is already running in this data directory.") from None
                    time.sleep(0.01)  # `is_searching` holds it for a moment, too
            yield

    def is_searching(self) -> bool:
        """Whether a search runs now, in this or in another process."""
        return _is_locked(self._lock)

    def begin_run(self, template: str, seed: int, names: Mapping[str, Iterable[str]]) -> int:
        """The number of a new run; `names` are the functions and inputs that it can use, by kind."""
        now = time.time()
        with self._transaction() as db:
            rows = [(kind, name) for kind, listed in names.items() for name in listed]
            db.executemany("INSERT OR IGNORE INTO uses VALUES (?, ?, 0, 0)", rows)
            run = db.execute("INSERT INTO runs VALUES (NULL, ?, ?, ?, ?, 0, 0, NULL)", (template, seed, now, now))
            assert run.lastrowid is not None
            return run.lastrowid

    def note(
        self,
        run: int,
        evaluations: int,
        candidates: int,
        tried: Mapping[tuple[str, str], int],
        outcome: str | None = None,
    ) -> None:
        """Adds to the counters of a run; `tried` counts the expressions by the kind and name of what they use."""
        with self._transaction() as db:
            db.execute(
                "UPDATE runs SET noted_at = ?, evaluations = evaluations + ?, candidates = candidates + ?, outcome = ?"
                " WHERE id = ?",
                (time.time(), evaluations, candidates, outcome, run),
            )
            rows = [(count, kind, name) for (kind, name), count in tried.items()]
            db.executemany("UPDATE uses SET tried = tried + ? WHERE kind = ? AND name = ?", rows)

    def add_signal(self, signal: FoundSignal, uses: Iterable[tuple[str, str]]) -> tuple[FoundSignal, int]:
        """Stores a signal and counts it for what it uses. The signal with its id, and how many there are now."""
        with self._transaction() as db:
            marks = ", ".join("?" * len(fields(signal)))
            stored = db.execute(f"INSERT INTO signals VALUES ({marks})", astuple(signal)).lastrowid
            db.executemany("UPDATE uses SET found = found + 1 WHERE kind = ? AND name = ?", uses)
            return replace(signal, id=stored), int(db.execute("SELECT count(*) FROM signals").fetchone()[0])

    def signals(self) -> list[FoundSignal]:
        """All found signals, oldest first."""
        with self._transaction() as db:
            return [FoundSignal(*row) for row in db.execute("SELECT * FROM signals ORDER BY id")]

    def signal(self, signal_id: int, era_id: int) -> FoundSignal:
        """A found signal of an era by its id; LookupError if there is none."""
        for signal in self.signals():
            if (signal.id, signal.era_id) == (signal_id, era_id):
                return signal
        raise LookupError(f"Era {era_id} has no found signal with the number {signal_id}.")

    def runs(self) -> list[Run]:
        """All searches, oldest first."""
        with self._transaction() as db:
            return [Run(*row) for row in db.execute("SELECT * FROM runs ORDER BY id")]

    def record(self) -> Record:
        """All searches and found signals."""
        return Record(self.runs(), self.signals(), self.is_searching())

    def uses(self) -> list[Use]:
        """All functions and inputs that a search could use, by kind and name."""
        with self._transaction() as db:
            return [Use(*row) for row in db.execute("SELECT * FROM uses ORDER BY kind, name")]

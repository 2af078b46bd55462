"""The files of the active era, as agents download them: what a release is made of, and how it is published."""

import json
from collections.abc import Iterator
from hashlib import sha256
from importlib.resources import files
from pathlib import Path

from corvane.manifest import FileEntry
from corvane.sync import CURRENT_PLATFORM
from corvane_local.certificates import write_private
from corvane_local.eras import ACTIVE_ERA
from corvane_local.store import Store

FIRST_BACKTESTER = "1"

_ERA_CONFIG = {
    "era_id": ACTIVE_ERA["era_id"],
    "named_universe": ACTIVE_ERA["named_universe"],
    "signal_pools": ACTIVE_ERA["signal_pools"],
    "horizon_days": 5,
    "train_days": 1500,
    # Above what chance gives on so many days: with 16 bins, 1500 independent pairs share 0.11 bits.
    "thresholds": {"correlation": 0.06, "mutual_information": 0.15, "sharpe": 0.5},
}
_VOCABULARY = {
    "era_id": ACTIVE_ERA["era_id"],
    "inputs": ["AAPL", "GOOG", "IBM", "MSFT"],
    "functions": ["abs", "log", "sign", "delay", "delta", "mean", "std", "zscore", "rank", "min", "max"],
    "windows": [5, 10, 20, 60],
}


def publish(store: Store, folder: Path, backtester: str | None = None) -> int:
    """Publishes the installed files, in a new version if they differ from those published before.

    Each file is kept under its digest, so that a release stays what it was when the kit is reinstalled.

    Args:
        store: Where the release is noted.
        folder: Where the files are kept; made if it is missing.
        backtester: Which build of the backtester; None keeps the one that is published.

    Returns:
        The version that is published now.
    """
    if backtester is None:
        current = store.release()
        backtester = current.backtester if current else FIRST_BACKTESTER
    folder.mkdir(mode=0o700, exist_ok=True)
    listed: dict[str, FileEntry] = {}
    for path, kind, content in _contents(backtester):
        digest = sha256(content).hexdigest()
        if not (folder / digest).exists():
            write_private(folder / digest, content)
        listed[path] = {"kind": kind, "sha256": digest, "size": len(content)}
        if kind.startswith("runtime_module:"):
            listed[path]["platform"] = CURRENT_PLATFORM
    return store.publish(backtester, listed)


def _contents(backtester: str) -> Iterator[tuple[str, str, bytes]]:
    modules, runtime = files("corvane_local") / "native_modules", f"runtime/{CURRENT_PLATFORM}"
    yield f"{runtime}/era_data.so", "runtime_module:era_data", (modules / "era_data.so").read_bytes()
    build = (modules / f"backtester-{backtester}.so").read_bytes()
    yield f"{runtime}/backtester-{CURRENT_PLATFORM}.so", "runtime_module:backtester", build
    yield f"features/{ACTIVE_ERA['named_universe']}/vocabulary.json", "vocabulary", _json(_VOCABULARY)
    yield "era_config.json", "era_config", _json(_ERA_CONFIG)


def _json(value: object) -> bytes:
    return json.dumps(value, indent=1).encode() + b"\n"

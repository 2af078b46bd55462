"""The processor time of commands that people and scripts run often, beside that of an interpreter that does nothing."""

import json
import os
import resource
import statistics
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from corvane.auth import AuthManager
from corvane.key_file import make_key

LIMIT = 0.12  # seconds of processor time over a bare interpreter
_ROUNDS = 21
_COMMANDS = ("--version", "--help", "status", "whoami")


def processor_seconds(arguments: list[str]) -> float:
    """What one child process uses, in user and kernel mode."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run([sys.executable, "-P", *arguments], stdout=subprocess.DEVNULL, check=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def startup_rows(work: Path) -> Iterator[tuple[str, float]]:
    """The commands, for a wallet that is signed in, with the median of their seconds over a bare interpreter's."""
    make_key(work / "agent")
    key, url = (work / "agent/wallet.key").read_text(), "https://h.example"
    address = AuthManager(f"0x{key}", url).get_wallet_address()
    session = {"address": address, "server_url": url, "signed_in_at": 1.8e9}
    (work / "agent/session.json").write_text(json.dumps(session))
    os.environ["CORVANE_DATA_DIR"] = str(work / "agent")
    for command in _COMMANDS:
        # In turn, so that a noisy machine disturbs both alike.
        rounds = [
            (processor_seconds(["-m", "corvane_cli", command]), processor_seconds(["-c", "pass"]))
            for _ in range(_ROUNDS)
        ]
        yield f"corvane {command}", statistics.median(ours - bare for ours, bare in rounds)

"""The local service as the demo runs it."""

import sqlite3
import subprocess
import sys
from pathlib import Path

from corvane_local.demo.checks import check


class Service:
    """The local service as a process of its own."""

    def __init__(self, state: Path) -> None:
        self.state = state
        self.url = ""
        self._process: subprocess.Popen[str] | None = None

    def start(self) -> None:
        port = self.url.rpartition(":")[2] or "0"  # after a stop, the same address again
        command = [sys.executable, "-P", "-m", "corvane_local", "serve", "--port", port, "--state", str(self.state)]
        self._process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout is not None
        self.url = self._process.stdout.readline().strip()
        check("the service answers with its address", self.url.startswith("https://127.0.0.1:"))

    def stop(self) -> None:
        if self._process is not None:
            self._process.terminate()
            self._process.communicate(timeout=15)
            self._process = None

    def command(self, name: str, *options: str) -> str:
        """The output of an operator's command."""
        command = [sys.executable, "-P", "-m", "corvane_local", name, "--state", str(self.state), *options]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()

    def invite(self) -> str:
        return self.command("invite")

    def rows(self, query: str, *values: str) -> list[tuple[object, ...]]:
        with sqlite3.connect(f"file:{self.state / 'service.db'}?mode=ro", uri=True) as db:
            return db.execute(query, values).fetchall()

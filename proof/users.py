"""Other users both ways, every mode of wallet.key, every awkward umask; as root and as nobody."""

import itertools
import json
import os
import shutil
import stat
import tempfile
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from proof.exercise import KEY, m, outcome
from proof.workshop import Missing, Result, Workshop

NOBODY = 65534
NEW = "0x" + KEY


def as_user(user: int, act: Callable[[], Any]) -> Any:
    """What act answers in a forked child that is this user."""
    read, write = os.pipe()
    if (pid := os.fork()) == 0:
        status = 1
        try:
            os.setresgid(user, user, user)
            os.setresuid(user, user, user)
            os.write(write, json.dumps(act()).encode())
            status = 0
        finally:
            os._exit(status)
    os.close(write)
    with open(read, "rb") as pipe:
        answer = pipe.read()
    if os.waitpid(pid, 0)[1] != 0:
        raise RuntimeError(f"the child of user {user} failed")
    return json.loads(answer)


def put(directory: Path, mode: int, owner: int | None = None) -> Path:
    """A key file, owned by this process unless root gives it away."""
    key = directory / "wallet.key"
    key.unlink(missing_ok=True)
    key.write_text(KEY)
    if owner is not None:
        os.chown(key, owner, owner)
    key.chmod(mode)
    return key


def look(key: Path) -> tuple[int, str]:
    """Mode and content, whatever the mode."""
    mode = stat.S_IMODE(key.stat().st_mode)
    key.chmod(0o600)
    return mode, key.read_text()


def calls(directory: Path) -> dict[str, Callable[[], object]]:
    return {"read": lambda: m._read_wallet_key(directory), "write": lambda: m._write_wallet_key(directory, NEW)}


def modes(directory: Path, all_modes: range) -> list[str]:
    """Each mode of an own file: what may be opened works, and is the owner's alone afterwards."""
    found, root = [], os.geteuid() == 0
    for mode, name in itertools.product(all_modes, ("read", "write")):
        key = put(directory, mode)
        seen = outcome(calls(directory)[name], [])
        if name == "read":
            allowed, refusal = root or mode & 0o400, "raised OSError: Unsafe wallet key"
            good, after = f"returned '{KEY}'", (0o600 if mode & 0o077 else mode, KEY)
        else:
            allowed, refusal = root or mode & 0o200, "raised OSError: Cannot write wallet"
            good, after = "returned None", (0o600, NEW)
        expected, after = (good, after) if allowed else (refusal, (mode, KEY))
        left = look(key)
        if not seen.startswith(expected) or left != after:
            found.append(f"user {os.geteuid()}, {name}, mode {mode:04o}: {seen}, left {left}")
    return found


def umasks(directory: Path) -> list[str]:
    found = []
    for mask in (0, 0o077, 0o777):
        key = directory / "wallet.key"
        key.unlink(missing_ok=True)
        before = os.umask(mask)
        seen = outcome(calls(directory)["write"], [])
        os.umask(before)
        if (left := (seen, *look(key))) != ("returned None", 0o600, NEW):
            found.append(f"user {os.geteuid()}, umask {mask:03o}: {left}")
    return found


def run(workshop: Workshop) -> Iterator[Result]:
    if os.geteuid() != 0:
        raise Missing("only root can become somebody else")
    with tempfile.TemporaryDirectory() as made:
        top = Path(made)
        top.chmod(0o755)
        foreign: list[str] = []
        shared = top / "shared"
        shared.mkdir()
        shared.chmod(0o777)
        for owner, user, mode, name in itertools.product((0, NOBODY), (0, NOBODY), (0o600, 0o666), ("read", "write")):
            key = put(shared, mode, owner)
            if owner == user:
                continue
            seen = as_user(user, lambda: outcome(calls(shared)[name], []))  # noqa: B023
            if not seen.startswith("raised OSError: Unsafe wallet key") or look(key) != (mode, KEY):
                foreign.append(f"user {user} and {name} of {owner}'s file of mode {mode:o}: {seen}, left {look(key)}")
        yield Result("users: another user's file, both ways", 8, foreign)
        shutil.rmtree(shared)
        all_modes = range(0, 0o10000, 0o111 if workshop.quick else 1)
        for user in (0, NOBODY):
            own = top / str(user)
            own.mkdir()
            os.chown(own, user, user)
            found = as_user(user, lambda: modes(own, all_modes))  # noqa: B023
            yield Result(f"users: each mode of the key file, as user {user}", 2 * len(all_modes), found)
            found = as_user(user, lambda: umasks(own))  # noqa: B023
            yield Result(f"users: each umask, as user {user}", 3, found)

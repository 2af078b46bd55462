"""Other users both ways, every mode of wallet.key; as root and as nobody."""

import itertools
import os
import stat
import tempfile
from collections.abc import Callable, Iterable, Iterator
from pathlib import Path

from proof.exercise import KEY, m, outcome
from proof.workshop import Missing, Result, Workshop, in_children

NOBODY = 65534
NEW = "0x" + KEY


def as_user(user: int, act: Callable[[], Iterable[str]]) -> list[str]:
    """What act yields in a forked child that is this user."""

    def child() -> Iterator[str]:
        os.setresgid(user, user, user)
        os.setresuid(user, user, user)
        yield from act()

    return in_children([child])[0]


def put(key: Path, mode: int, owner: int = -1) -> None:
    key.unlink(missing_ok=True)
    key.write_text(KEY)
    os.chown(key, owner, owner)
    key.chmod(mode)


def tried(name: str, key: Path) -> str:
    """The outcome but for the path that it names."""
    text = outcome(lambda: getattr(m, f"_{name}_wallet_key")(key.parent, *([NEW] if name == "write" else [])), [])
    return text.partition(f" {key}")[0]


def left(key: Path) -> tuple[int, str]:
    """Mode and content, whatever the mode."""
    mode = stat.S_IMODE(key.stat().st_mode)
    key.chmod(0o600)
    return mode, key.read_text()


def modes(key: Path, all_modes: Iterable[int]) -> Iterator[str]:
    """Each mode of an own file: what may be opened works, and is the owner's alone afterwards."""
    user = os.geteuid()
    for mode in all_modes:
        for name, needed, good, refused in (
            ("read", 0o400, (f"returned '{KEY}'", (0o600 if mode & 0o077 else mode, KEY)), "Unsafe wallet key at"),
            ("write", 0o200, ("returned None", (0o600, NEW)), "Cannot write wallet to"),
        ):
            put(key, mode)
            seen = tried(name, key), left(key)
            if seen != (good if user == 0 or mode & needed else (f"raised OSError: {refused}", (mode, KEY))):
                yield f"user {user}, {name}, mode {mode:04o}: {seen}"


def run(workshop: Workshop) -> Iterator[Result]:
    if os.geteuid() != 0:
        raise Missing("only root can become somebody else")
    all_modes = range(0, 0o10000, 0o111 if workshop.quick else 1)
    foreign: list[str] = []
    with tempfile.TemporaryDirectory() as made:
        Path(made).chmod(0o777)
        key = Path(made, "wallet.key")
        for (user, owner), mode, name in itertools.product(
            ((0, NOBODY), (NOBODY, 0)), (0o600, 0o666), ("read", "write")
        ):
            put(key, mode, owner)
            seen = as_user(user, lambda: [tried(name, key)]), left(key)  # noqa: B023
            if seen != (["raised OSError: Unsafe wallet key at"], (mode, KEY)):
                foreign.append(f"user {user}, {name} of {owner}'s file of mode {mode:o}: {seen}")
        yield Result("users: another user's file, both ways", 8, foreign)
        for user in (0, NOBODY):
            key.unlink()
            found = as_user(user, lambda: modes(key, all_modes))
            yield Result(f"users: each mode of the key file, as user {user}", 2 * len(all_modes), found)

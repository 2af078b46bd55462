"""wallet.key of other users, of every mode, as root and as nobody, and swapped between examination and opening."""

import itertools
import os
import socket
import stat
import tempfile
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

from proof.workshop import Missing, Result, Workshop, descriptors
from support.scenarios import CALLS, KEY, KEY_FILE, Call, file, files, m, other_os, outcome

NOBODY, NEW = 65534, "0x" + KEY
REFUSED = {"read": "raised OSError: Unsafe wallet key at", "write": "raised OSError: Cannot write wallet to"}
# What takes the place of the file.
KINDS: dict[str, Callable[[Path], object]] = {
    "a link to a file": lambda path: path.symlink_to("../victim"),
    "a link to a directory": lambda path: path.symlink_to(".."),
    "a dangling link": lambda path: path.symlink_to("nothing"),
    "a loop": lambda path: path.symlink_to(path.name),
    "a FIFO": os.mkfifo,
    "a directory": Path.mkdir,
    "a socket": lambda path: socket.socket(socket.AF_UNIX).bind(str(path)),
    "a device": lambda path: os.mknod(path, 0o20600, os.makedev(1, 3)),
    "somebody else's file": lambda path: os.chown(Path("foreign").rename(path), NOBODY, NOBODY),
}


def seen(name: str, user: int, owner: int, mode: int, key: Path) -> tuple[str, int, str]:
    """The outcome, mode and content of the key afterwards."""
    key.unlink(missing_ok=True)
    key.write_text(KEY)
    os.chown(key, owner, owner)
    key.chmod(mode)
    arguments = (key.parent, NEW) if name == "write" else (key.parent,)
    os.setresuid(user, user, 0)  # the last is the way back
    text = outcome(lambda: getattr(m, f"_{name}_wallet_key")(*arguments), [])
    os.setresuid(0, 0, 0)
    return text.partition(f" {key}")[0], stat.S_IMODE(key.stat().st_mode), key.read_text()


def expected(name: str, user: int, owner: int, mode: int) -> tuple[str, int, str]:
    """What may be opened works, and is the owner's alone afterwards."""
    if user != owner:
        return REFUSED["read"], mode, KEY
    if user and not mode & (0o400 if name == "read" else 0o200):
        return REFUSED[name], mode, KEY
    if name == "read":
        return f"returned '{KEY}'", 0o600 if mode & 0o077 else mode, KEY
    return "returned None", 0o600, NEW


def wrong_when_swapped(name: str, kind: str) -> Iterator[str]:
    def swapping(path: str, *args: Any) -> int:
        os.unlink(path)
        KINDS[kind](Path(path))
        _end = open(path, "r+b", buffering=0) if kind == "a FIFO" else None  # or the opening waits for it  # noqa: SIM115
        return os.open(path, *args)

    given = KEY_FILE, file("victim", "victim"), file("foreign", "victim"), other_os(open=swapping)
    call, before = Call(CALLS[name].act, "", given), descriptors()
    with call.situation() as logged:
        said, left, after = outcome(call.act, logged), files(), descriptors()
    # The opening for writing truncates, and root may open anything; the check of the owner comes after it.
    victims = 1 if (name, kind) == ("write", "somebody else's file") else 2
    if not said.startswith(f"{REFUSED[name]} ./d") or str(left).count("b'victim'") != victims or after != before:
        yield f"{name}, {kind}: {said} {left}, {after - before} descriptors left"


def run(workshop: Workshop) -> Iterator[Result]:
    if os.geteuid() != 0:
        raise Missing("only root can become somebody else and make devices")
    modes = range(0, 0o10000, 0o111 if workshop.quick else 1)
    with tempfile.TemporaryDirectory() as made:
        Path(made).chmod(0o777)
        for what, users, each in (
            ("another user's file, both ways", ((0, NOBODY), (NOBODY, 0)), (0o600, 0o666)),
            ("each mode of the key file, as root and as nobody", ((0, 0), (NOBODY, NOBODY)), modes),
        ):
            tried = [(name, *user, mode) for name, user, mode in itertools.product(REFUSED, users, each)]
            rows = [(row, seen(*row, Path(made, "wallet.key")), expected(*row)) for row in tried]
            found = [f"{row}: {came}, expected {wanted}" for row, came, wanted in rows if came != wanted]
            yield Result(f"key file: {what}", len(tried), found)
    races = list(itertools.product(REFUSED, KINDS))
    found = [wrong for race in races for wrong in wrong_when_swapped(*race)]
    yield Result("key file: swapped between examination and opening", len(races), found)

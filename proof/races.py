"""Something else lies at wallet.key between its examination and its opening: refused, and what lies there is let be."""

import functools
import importlib
import itertools
import os
import re
import socket
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from proof.system_calls import traced
from proof.workshop import Missing, Result, Workshop

HELD = 0.3  # seconds for which strace holds the opening back
REFUSED = {"read": "raised OSError: Unsafe wallet key at ./d", "write": "raised OSError: Cannot write wallet to ./d"}


def bind(path: Path) -> None:
    with socket.socket(socket.AF_UNIX) as made:
        made.bind(os.path.relpath(path))


def foreign(path: Path) -> None:
    path.write_text("victim")
    os.chown(path, 65534, 65534)


def fifo(path: Path) -> None:
    os.mkfifo(path)
    time.sleep(HELD)
    os.close(os.open(path, os.O_RDWR | os.O_NONBLOCK))  # for which the other opening waits, as the system has it


KINDS: dict[str, Callable[[Path], object]] = {
    "a link to a file": lambda path: path.symlink_to("../victim"),
    "a link to a directory": lambda path: path.symlink_to(".."),
    "a dangling link": lambda path: path.symlink_to("nothing"),
    "a loop": lambda path: path.symlink_to(path.name),
    "a FIFO": fifo,
    "a directory": Path.mkdir,
    "a socket": bind,
    "a device": lambda path: os.mknod(path, 0o20600, os.makedev(1, 3)),
    "somebody else's file": foreign,
}


def while_swapped(act: Callable[[], object], path: Path, put: Callable[[Path], object]) -> object:
    """The call, while another thread, which strace does not follow, puts something else into the key's place."""

    def swap() -> None:
        time.sleep(HELD / 2)
        path.unlink()
        put(path)

    with ThreadPoolExecutor(1) as pool:
        pool.submit(swap)
        return act()


def run(workshop: Workshop) -> Iterator[Result]:
    workshop.tool("strace", "strace")
    if os.geteuid() != 0:
        raise Missing("only root can make devices and other users' files")
    exercise = importlib.import_module("proof.exercise")
    path = exercise.base() / "work/d/wallet.key"
    held = "-P", str(path), "-e", "trace=openat", "-e", f"inject=openat:delay_enter={HELD * 1e6:.0f}"
    tried = list(itertools.product(REFUSED, KINDS))[:: 8 if workshop.quick else 1]
    found: list[str] = []
    for name, kind in tried:
        act = functools.partial(while_swapped, exercise.CALLS[name].act, path, KINDS[kind])
        started = time.monotonic()
        said, _, _ = traced(exercise.Call(act, "", (exercise.KEY_FILE, exercise.file("victim", "victim"))), *held)
        victims = 2 if (name, kind) == ("read", "somebody else's file") else 1
        if not said.startswith(f"{REFUSED[name]}/wallet.key") or "; 0 descriptors left" not in said:
            found.append(f"{name}, {kind}: {said[:200]!r}")
        elif re.findall(r"b'(victim)?'", said).count("victim") != victims:
            found.append(f"{name}, {kind}: a victim was changed: {said[:400]}")
        elif not HELD < time.monotonic() - started < 9 * HELD:
            found.append(f"{name}, {kind}: took {time.monotonic() - started:.1f} s")
    yield Result("races: swapped between examination and opening", len(tried), found)
    # The opening truncates, and root may open anything; the check of the owner comes after it.
    cut = tried.count(("write", "somebody else's file"))
    yield Result("   of these, as documented: refused, but the opening for writing emptied it", cut)

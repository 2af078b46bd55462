"""Something else lies at wallet.key between its examination and its opening: refused, and what lies there is let be."""

import importlib
import os
import re
import socket
import threading
import time
from collections.abc import Callable, Iterator
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


def run(workshop: Workshop) -> Iterator[Result]:
    workshop.tool("strace", "strace")
    if os.geteuid() != 0:
        raise Missing("only root can make devices and other users' files")
    exercise = importlib.import_module("proof.exercise")
    path = exercise.base() / "work/d/wallet.key"
    held = "-P", str(path), "-e", "trace=openat", "-e", f"inject=openat:delay_enter={HELD * 1e6:.0f}"
    found: list[str] = []
    kinds = list(KINDS)[:: 8 if workshop.quick else 1]
    emptied = 0
    for name, refusal in REFUSED.items():
        for kind in kinds:

            def swap(kind: str = kind) -> None:
                time.sleep(HELD / 2)
                path.unlink()
                KINDS[kind](path)

            def act(swap: Callable[[], None] = swap, act: Callable[[], object] = exercise.CALLS[name].act) -> object:
                swapping = threading.Thread(target=swap)  # which strace does not follow
                swapping.start()
                try:
                    return act()
                finally:
                    swapping.join()

            call = exercise.Call(act, "", (exercise.KEY_FILE, exercise.file("victim", "victim")))
            started = time.monotonic()
            said, _, _ = traced(call, *held)
            # The opening for writing truncates, and root may open anything; the check of the owner comes after it.
            cut = name == "write" and kind == "somebody else's file"
            emptied += cut
            if not said.startswith(f"{refusal}/wallet.key") or "; 0 descriptors left" not in said:
                found.append(f"{name}, {kind}: {said[:200]!r}")
            elif re.findall(r"b'(victim)?'", said).count("victim") != (2 if "else" in kind and not cut else 1):
                found.append(f"{name}, {kind}: a victim was changed: {said[:400]}")
            elif not HELD < time.monotonic() - started < 9 * HELD:
                found.append(f"{name}, {kind}: took {time.monotonic() - started:.1f} s")
    yield Result("races: swapped between examination and opening", len(REFUSED) * len(kinds), found)
    yield Result("   of these, as documented: refused, but the opening for writing emptied it", emptied)

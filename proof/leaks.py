"""The call of every scenario over and over: blocks, objects, malloc bytes and descriptors must stay as they are."""

import ctypes
import gc
import itertools
import sys
from collections.abc import Iterator

from proof.workshop import Result, Workshop, descriptors
from support.scenarios import CALLS, Call

METERS = "allocated blocks", "tracked objects", "malloc bytes", "descriptors"
SIZE = 15  # calls of a batch


class Mallinfo(ctypes.Structure):
    _fields_ = (("fields", ctypes.c_size_t * 10),)  # number 4 is hblkhd, number 7 uordblks


def measured(call: Call) -> tuple[int, ...]:
    """The meters after a batch."""
    for _ in range(SIZE):
        call()
    for _ in range(3):
        gc.collect()
    libc = ctypes.CDLL(None)
    libc.mallinfo2.restype = Mallinfo
    malloc = libc.mallinfo2().fields
    return sys.getallocatedblocks(), len(gc.get_objects()), malloc[7] + malloc[4], descriptors()


def grown(*names: str) -> list[str]:
    """The meters that grow in every batch by one or more for each call, also when caches had time to fill."""
    found = []
    for name in names:
        for batches in 3, 3, 6, 10, 10:
            series = zip(*[measured(CALLS[name]) for _ in range(batches + 1)], strict=True)
            steps = [[after - before for before, after in itertools.pairwise(one)] for one in series]
            growth = [(meter, seen) for meter, seen in zip(METERS, steps, strict=True) if min(seen) >= SIZE]
            if not growth:
                break
        found += [f"{name}: {meter} grew by {seen} in batches of {SIZE}" for meter, seen in growth]
    return found


def run(workshop: Workshop) -> Iterator[Result]:
    names = workshop.sample(CALLS, 20)
    found = [text for texts in workshop.shared_out("leaks.grown", names) for text in texts]
    yield Result(f"leaks: calls of the scenarios, {4 * SIZE} times and more", len(names), found)

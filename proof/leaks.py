"""Every call of the exercise over and over: blocks, objects, malloc bytes and descriptors must stay as they are.

As a script it says what grows with the calls named.
"""

import array
import ctypes
import gc
import json
import os
import sys
from collections.abc import Iterator

from proof.exercise import CALLS, Call, base
from proof.workshop import Result, Workshop, descriptors

METERS = "allocated blocks", "tracked objects", "malloc bytes", "descriptors"
SIZE = 15  # calls of a batch


class _Mallinfo(ctypes.Structure):
    _fields_ = [(f"field{n}", ctypes.c_size_t) for n in range(10)]  # number 4 is hblkhd, number 7 uordblks


LIBC = ctypes.CDLL(None)
LIBC.mallinfo2.restype = _Mallinfo


def measure() -> list[int]:
    for _ in range(3):
        gc.collect()
    malloc = LIBC.mallinfo2()
    return [sys.getallocatedblocks(), len(gc.get_objects()), malloc.field7 + malloc.field4, descriptors()]


def growth(call: Call, batches: int) -> list[str]:
    """The meters that grew in every batch by one or more for each call."""
    readings = array.array("q", bytes(8 * len(METERS) * (batches + 1)))  # made before, so that it does not grow itself
    for batch in range(batches + 1):
        for _ in range(SIZE):
            call()
        for place, value in enumerate(measure()):
            readings[batch * len(METERS) + place] = value
    steps = [readings[i + len(METERS)] - readings[i] for i in range(batches * len(METERS))]
    by_meter = {meter: steps[place :: len(METERS)] for place, meter in enumerate(METERS)}
    return [f"{meter} grew by {seen} in batches of {SIZE}" for meter, seen in by_meter.items() if min(seen) >= SIZE]


def leak(call: Call) -> list[str]:
    """What still grows when the interpreter's caches, which grow to a limit, have had time to fill."""
    grown: list[str] = []
    for batches in (3, 3, 6, 6, 10, 10, 10):
        grown = growth(call, batches)
        if not grown:
            break
    return grown


def run(workshop: Workshop) -> Iterator[Result]:
    kept: list[object] = []
    planted = {
        "an object": lambda: kept.append([]),
        "malloc bytes": lambda: LIBC.malloc(100),
        "a descriptor": lambda: os.open(base(), os.O_RDONLY),
    }
    missed = [f"the meter misses {name}" for name, act in planted.items() if not growth(Call(act, "returned", ()), 3)]
    yield Result("leaks: planted, all of them seen", len(planted), missed)
    calls = list(CALLS.items())[:: 20 if workshop.quick else 1]
    grown = [f"{name}: {text}" for name, call in calls for text in leak(call)]
    yield Result(f"leaks: calls of the exercise, {4 * SIZE} times and more", len(calls), grown)


if __name__ == "__main__":
    print(json.dumps([text for name in sys.argv[1:] for text in leak(CALLS[name])]))

"""Every call of the exercise over and over: blocks, objects, malloc bytes and descriptors must stay as they are."""

import array
import ctypes
import gc
import os
import sys
from collections.abc import Iterator

from proof.exercise import CALLS, Call, base
from proof.workshop import Result, Workshop

METERS = "allocated blocks", "tracked objects", "malloc bytes", "descriptors"


class _Mallinfo(ctypes.Structure):
    _fields_ = [(f"field{n}", ctypes.c_size_t) for n in range(10)]  # number 4 is hblkhd, number 7 uordblks


_mallinfo2 = ctypes.CDLL(None).mallinfo2
_mallinfo2.restype = _Mallinfo


def measure() -> list[int]:
    for _ in range(3):
        gc.collect()
    malloc = _mallinfo2()
    descriptors = len(os.listdir("/proc/self/fd"))
    return [sys.getallocatedblocks(), len(gc.get_objects()), malloc.field7 + malloc.field4, descriptors]


def growth(call: Call, batches: int, size: int) -> list[str]:
    """The meters that grew in every batch by one or more for each call."""
    readings = array.array("q", bytes(8 * len(METERS) * (batches + 1)))  # made before, so that it does not grow itself
    for batch in range(batches + 1):
        for _ in range(size):
            call()
        for place, value in enumerate(measure()):
            readings[batch * len(METERS) + place] = value
    steps = [readings[i + len(METERS)] - readings[i] for i in range(batches * len(METERS))]
    by_meter = {meter: steps[place :: len(METERS)] for place, meter in enumerate(METERS)}
    return [f"{meter} grew by {seen} in batches of {size}" for meter, seen in by_meter.items() if min(seen) >= size]


def planted() -> Iterator[tuple[str, Call]]:
    """Calls that leak, one for each meter."""
    kept: list[object] = []
    libc = ctypes.CDLL(None)
    for name, leak in (
        ("an object", lambda: kept.append([])),
        ("malloc bytes", lambda: libc.malloc(100)),
        ("a descriptor", lambda: os.open(base(), os.O_RDONLY)),
    ):
        yield name, Call(leak, "returned", ())


def leak(call: Call, size: int) -> list[str]:
    """What still grows when the interpreter's caches, which grow to a limit, have had time to fill."""
    grown: list[str] = []
    for batches in (3, 3, 6, 6, 10, 10, 10):
        grown = growth(call, batches, size)
        if not grown:
            break
    return grown


def run(workshop: Workshop) -> Iterator[Result]:
    size, calls = 15, list(CALLS.items())[:: 10 if workshop.quick else 1]
    missed = [f"the meter misses {name}" for name, call in planted() if not leak(call, size)]
    yield Result("leaks: planted, all of them seen", 3, missed)
    grown = [f"{name}: {text}" for name, call in calls for text in leak(call, size)]
    yield Result(f"leaks: calls of the exercise, {4 * size} times and more", len(calls), grown)

"""Times two ways of doing the same thing side by side, so that a noisy machine disturbs both alike."""

import statistics
import time
from collections.abc import Callable
from dataclasses import dataclass

ROUNDS = 31
BATCH_SECONDS = 0.004


@dataclass
class Row:
    """One comparison: medians in seconds a call, and the ratios of the rounds, native over reference."""

    what: str
    against: str
    native: float
    ratios: list[float]

    @property
    def ratio(self) -> float:
        return statistics.median(self.ratios)

    @property
    def spread(self) -> tuple[float, float]:
        """The middle half of the ratios."""
        low, _, high = statistics.quantiles(self.ratios, n=4)
        return low, high


def batch_size(action: Callable[[], object]) -> int:
    size = 1
    while seconds(action, size) < BATCH_SECONDS and size < 1 << 20:
        size *= 2
    return size


def seconds(action: Callable[[], object], times: int) -> float:
    started = time.perf_counter()
    for _ in range(times):
        action()
    return time.perf_counter() - started


def compare(
    what: str, native: Callable[[], object], against: str, reference: Callable[[], object], rounds: int = ROUNDS
) -> Row:
    """Alternates batches of both; which comes first changes every round."""
    size = max(batch_size(native), batch_size(reference))
    ours, ratios = [], []
    for number in range(rounds):
        if number % 2:
            mine, other = seconds(native, size), seconds(reference, size)
        else:
            other, mine = seconds(reference, size), seconds(native, size)
        ours.append(mine / size)
        ratios.append(mine / other)
    return Row(what, against, statistics.median(ours), ratios)


def readable(duration: float) -> str:
    for unit, factor in (("s", 1.0), ("ms", 1e3), ("us", 1e6)):
        if duration * factor >= 1:
            return f"{duration * factor:.3g} {unit}"
    return f"{duration * 1e9:.0f} ns"

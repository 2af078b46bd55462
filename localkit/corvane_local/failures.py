"""Slows down who fails to sign in again and again."""

import threading
import time
from collections.abc import Callable


class FailureLimit:
    """Allows `count` failures at once and then as many in every `seconds`, for each name.

    Successes cost nothing, so any number of honest agents can share an address. Kept in memory: there is one process, a
    restart forgives no more than `seconds` of failures, and a write to disk for each would cost us more than those who
    fail.

    Args:
        count: How many failures may come at once.
        seconds: How long it takes until all of them are forgotten.
        clock: What tells the time, in seconds.
    """

    def __init__(self, count: int, seconds: float, clock: Callable[[], float] = time.monotonic) -> None:
        self._interval = seconds / count
        self._seconds = seconds
        self._clear_at: dict[str, float] = {}  # when all failures of a name are forgotten
        self._clock = clock
        self._pruned_at = clock()
        self._lock = threading.Lock()

    def wait(self, name: str) -> float:
        """Seconds until the name may fail once more; 0 or less if it may now."""
        with self._lock:
            return self._clear_at.get(name, 0.0) - self._clock() - (self._seconds - self._interval)

    def note(self, name: str) -> None:
        """Notes one failure. Those of requests that were under way at once all count: the wait grows with each."""
        with self._lock:
            now = self._clock()
            if now - self._pruned_at > self._seconds:
                self._clear_at = {n: at for n, at in self._clear_at.items() if at > now}
                self._pruned_at = now
            self._clear_at[name] = max(self._clear_at.get(name, 0.0), now) + self._interval

    def forget(self, name: str) -> None:
        """Forgets the failures of a name."""
        with self._lock:
            self._clear_at.pop(name, None)

"""Tries again when the service cannot be reached, ever more patiently, until somebody calls it off."""

import threading
from collections.abc import Callable
from typing import TypeVar

Result = TypeVar("Result")


class SyncBackoffCancelled(Exception):
    """Somebody called the attempts off."""


class ServiceBusy(ConnectionError):
    """The service cannot answer at the moment (HTTP 429 or 5xx).

    Args:
        message: What happened.
        retry_after: Seconds that the service asks to be left alone, if it says so.
    """

    def __init__(self, message: str, retry_after: float | None = None) -> None:
        super().__init__(message)
        self.retry_after = retry_after


class SyncBackoff:
    """Exponential back-off with full jitter: the wait is any time up to a limit that doubles with each attempt.

    Args:
        base: The limit of the first wait, in seconds.
        cap: The limit of every wait, in seconds.
        attempts: How often to try in all.
    """

    def __init__(self, base: float = 0.5, cap: float = 30.0, attempts: int = 6) -> None:
        if base < 0 or cap < 0 or attempts < 1:
            raise ValueError("base and cap must not be negative, attempts must be at least 1.")
        self._base, self._cap, self._attempts = base, cap, attempts
        self._cancelled = threading.Event()

    def cancel(self) -> None:
        """Ends the wait of any thread, and keeps `run` from trying once more. For good: make a new one to go on."""
        self._cancelled.set()

    def run(self, action: Callable[[], Result]) -> Result:
        """The result of the first attempt that succeeds.

        Raises:
            SyncBackoffCancelled: `cancel` was called; the last failure is its cause.
            ConnectionError, TimeoutError: All attempts failed, or the service asks for a wait longer than `cap`.
        """
        import random  # here, because it takes a while

        failure: Exception | None = None
        for attempt in range(1, self._attempts + 1):
            if self._cancelled.is_set():
                raise SyncBackoffCancelled("The attempts were cancelled.") from failure
            try:
                return action()
            except (ConnectionError, TimeoutError) as exc:
                failure = exc
            asked = (failure.retry_after if isinstance(failure, ServiceBusy) else None) or 0.0
            if attempt == self._attempts or asked > self._cap:
                raise failure
            # The doubling ends before the power grows beyond what a float can hold.
            limit = min(self._cap, self._base * 2.0 ** min(attempt - 1, 60))
            self._cancelled.wait(max(asked, random.uniform(0.0, limit)))
        raise AssertionError("unreachable")

"""Bounds on what one connection can cost, for clients that are slow, broken or mean.

A request runs on a worker thread only once its body is complete, so what is bounded here is time and number: of TLS
handshakes, of exchanges (a request and its answer) and of open connections. Whoever exceeds them is cut off.
"""

import asyncio
from collections import Counter
from typing import Any, ClassVar

from uvicorn.protocols.http.h11_impl import H11Protocol

MAX_HEAD = 16 * 1024  # bytes of an incomplete request line with its headers
_MAX_CONNECTIONS = 500  # of some 300 KiB each, most of it asyncio's buffer for TLS
_HANDSHAKE_SECONDS = 10.0
_SHUTDOWN_SECONDS = 5.0  # for what a client still has to take after the connection was closed


class Loop(asyncio.SelectorEventLoop):
    """An event loop whose servers wait a short time only for TLS handshakes."""

    async def create_server(self, *args: Any, **options: Any) -> Any:
        """What asyncio does, with other time limits."""
        options |= {"ssl_handshake_timeout": _HANDSHAKE_SECONDS, "ssl_shutdown_timeout": _SHUTDOWN_SECONDS}
        return await super().create_server(*args, **options)


class Connection(H11Protocol):
    """An HTTP connection on which every exchange must end within `exchange_seconds`."""

    exchange_seconds = 20.0
    cut_off: ClassVar[Counter[str]] = Counter()  # how many connections were, by the reason
    _deadline: asyncio.TimerHandle

    def connection_made(self, transport: asyncio.Transport) -> None:  # type: ignore[override]
        """Starts the clock; makes room if there are too many connections."""
        super().connection_made(transport)
        self._deadline = self.loop.call_later(self.exchange_seconds, self._end)
        if len(self.connections) > _MAX_CONNECTIONS:
            # The one that has kept us waiting longest, so that half-open connections shut nobody out.
            waiting = [c for c in self.connections if isinstance(c, Connection) and c.waits_for_client()]
            self.cut_off["too many at once"] += 1
            min(waiting, key=lambda c: c._deadline.when()).transport.abort()

    def connection_lost(self, exc: Exception | None) -> None:
        """Stops the clock."""
        super().connection_lost(exc)
        self._deadline.cancel()

    def on_response_complete(self) -> None:
        """Restarts the clock. Nothing that arrives in between does, or one byte a second would keep us busy."""
        super().on_response_complete()
        self._deadline.cancel()
        self._deadline = self.loop.call_later(self.exchange_seconds, self._end)

    def _end(self) -> None:
        if self.conn.trailing_data[0] or not self._is_idle():  # and not merely kept open
            self.cut_off["too slow"] += 1
        self.transport.abort()

    def waits_for_client(self) -> bool:
        """Whether it is the client's turn: no complete request is being answered."""
        return self._is_idle() or self.cycle.more_body

    def _is_idle(self) -> bool:
        return self.cycle is None or self.cycle.response_complete

"""Requests to the service: to its own address only (no proxy, no redirect), and each with a deadline for all of it.

The time-outs of HTTP libraries are for one socket operation each, so a service that sends a byte a second would hold an
agent forever. Here every operation gets what is left until the deadline. That of a download moves with its progress.
"""

import contextlib
import json
import socket
import ssl
import sys
import threading
import time
from collections.abc import Iterable, Iterator, Mapping
from queue import Empty, SimpleQueue
from typing import Any

import httpcore
import httpx

from corvane.auth import NotTheServiceError, PortalError

REQUEST_SECONDS = 15.0  # for a request and its whole answer
SLOWEST = 1024  # bytes a second that a download must bring, on average over REQUEST_SECONDS
_REDIRECTS = (301, 302, 303, 307, 308)
LARGEST_ANSWER = 16 * 2**20  # bytes; a manifest of 100,000 files


class Service:
    """A connection to one service.

    Args:
        server_url: Its base address.
    """

    def __init__(self, server_url: str) -> None:
        self.url = server_url.rstrip("/")
        self._clock, context = _Clock(), ssl.create_default_context()
        transport = httpx.HTTPTransport(verify=context, trust_env=False)
        transport._pool = httpcore.ConnectionPool(ssl_context=context, network_backend=_Backend(self._clock))
        headers = {"Accept-Encoding": "identity"}  # a range counts these bytes; and nothing swells when it is unpacked
        # A hook sees a redirect before the client does, which takes an unusable target for a broken connection.
        hooks = {"response": [self._refuse_redirect]}
        self._client = httpx.Client(
            transport=transport, headers=headers, timeout=None, trust_env=False, event_hooks=hooks
        )

    def __enter__(self) -> "Service":
        return self

    def __exit__(self, *_: object) -> None:
        self._client.close()

    @contextlib.contextmanager
    def send(
        self, method: str, path: str, headers: Mapping[str, str] | None = None, body: Any = None
    ) -> Iterator["Answer"]:
        """Sends a request; the answer's body arrives as it is read.

        Raises:
            corvane.auth.PortalError: The answer is a redirect.
            ConnectionError: The service cannot be reached, or has not answered in time.
        """
        self._clock.end = time.monotonic() + REQUEST_SECONDS
        try:
            request = self._client.build_request(method, self.url + path, headers=headers, json=body)
            del headers, body  # a traceback that is shown with its locals would show an invite code or a token
            with contextlib.closing(self._response(request)) as response:
                yield Answer(self, response)
        except httpx.TimeoutException as exc:
            raise ConnectionError(
                f"{self.url} has not answered in time, or sends too slowly ({REQUEST_SECONDS:g} s)."
            ) from exc
        except (httpx.TransportError, httpx.InvalidURL, UnicodeError) as exc:  # the last of a name that cannot be one
            raise ConnectionError(f"{self.url} cannot be reached: {exc}") from exc

    def _response(self, request: httpx.Request) -> httpx.Response:
        before = sys.exception()
        try:
            return self._client.send(request, stream=True)
        except BaseException as exc:
            link: BaseException | None = exc
            while link is not None and link is not before:  # the frames of the HTTP library hold what was to be sent
                link.__traceback__ = None
                link = link.__cause__ or link.__context__
            raise

    def _refuse_redirect(self, response: httpx.Response) -> None:
        target = response.headers.get("Location") if 300 <= response.status_code < 400 else None
        if target or response.status_code in _REDIRECTS:
            where = f"to {target[:300]}, which is not followed" if target else "without saying where"
            raise PortalError(f"{self.url} redirects {where}: the address has moved, or a captive portal answers.")


class Answer:
    """What came back for a request."""

    def __init__(self, service: Service, response: httpx.Response) -> None:
        self._service, self._response = service, response
        self.status, self.headers = response.status_code, response.headers
        self.is_busy = self.status == 429 or self.status >= 500

    def read(self) -> bytes:
        """The whole body. Raises NotTheServiceError if it seems endless."""
        body = bytearray()
        for chunk in self._response.iter_raw():
            body += chunk
            if len(body) > LARGEST_ANSWER:
                raise NotTheServiceError(f"{self._service.url} returned more than {LARGEST_ANSWER:,} bytes.")
        return bytes(body)

    def chunks(self) -> Iterator[bytes]:
        """The body piece by piece, for as long as it keeps coming."""
        clock = self._service._clock
        for chunk in self._response.iter_raw():
            yield chunk
            clock.end = min(time.monotonic() + REQUEST_SECONDS, clock.end + len(chunk) / SLOWEST)

    def fields(self) -> dict[str, Any]:
        """The JSON object in the body; of a busy service, which may not get as far as JSON, perhaps an empty one.

        Raises:
            corvane.auth.NotTheServiceError: There is no JSON object, or it is a refusal without a reason.
            corvane.auth.PortalError: There is a web page instead.
        """
        body, fields = self.read(), None
        with contextlib.suppress(ValueError, RecursionError):
            if isinstance(value := json.loads(body), dict):
                fields = value
        if self.is_busy:
            return fields or {}
        if self.status != 200 and not self.reason(fields or {}):  # the service gives one whenever it refuses something
            path = self._response.request.url.path
            problem = f"There seems to be no Corvane service at {self._service.url}"
            raise NotTheServiceError(f"{problem}: {path} returned HTTP {self.status} without a reason.")
        if fields is not None:
            return fields
        is_page = "html" in self.headers.get("Content-Type", "") or body.lstrip()[:1] == b"<"
        if is_page:
            raise PortalError(f"{self._service.url} returned a web page, as captive portals and proxies do.")
        raise NotTheServiceError(f"{self._service.url} returned something that is not a JSON object.")

    @staticmethod
    def reason(fields: Mapping[str, Any]) -> str:
        """Why the service refuses, in its own words; empty if it does not say."""
        error = fields.get("error")
        return error.strip() if isinstance(error, str) else ""


class _Clock:
    end = 0.0

    def left(self) -> float:
        """The seconds until the deadline, for the next operation."""
        if (left := self.end - time.monotonic()) <= 0:
            raise httpcore.ReadTimeout("the deadline has passed")
        return left


class _Backend(httpcore.SyncBackend):
    def __init__(self, clock: _Clock) -> None:
        self._clock = clock

    def connect_tcp(
        self,
        host: str,
        port: int,
        timeout: float | None = None,
        local_address: str | None = None,
        socket_options: Iterable[httpcore.SOCKET_OPTION] | None = None,
    ) -> httpcore.NetworkStream:
        try:
            found = _resolved(host, port, self._clock.left())
        except OSError as exc:
            raise httpcore.ConnectError(str(exc)) from exc
        for number, (*_, address) in enumerate(found, 1):  # each would be given the whole time otherwise
            with contextlib.suppress(*[httpcore.ConnectError] * (number < len(found))):
                stream = super().connect_tcp(str(address[0]), port, self._clock.left())
                return _Stream(stream, self._clock)
        raise AssertionError("unreachable")


def _resolved(host: str, port: int, seconds: float) -> list[Any]:
    # In a thread of its own: neither a signal nor a time limit ends getaddrinfo, which may wait for half a minute.
    answer: SimpleQueue[list[Any] | Exception] = SimpleQueue()

    def ask() -> None:
        try:
            answer.put(socket.getaddrinfo(host, port, type=socket.SOCK_STREAM))
        except Exception as exc:
            answer.put(exc)

    threading.Thread(target=ask, daemon=True).start()
    try:
        found = answer.get(timeout=seconds)
    except Empty:
        raise httpcore.ConnectTimeout(f"nobody says where {host} is") from None
    if isinstance(found, Exception):
        raise found
    return found


class _Stream(httpcore.NetworkStream):
    def __init__(self, stream: httpcore.NetworkStream, clock: _Clock) -> None:
        self._stream, self._clock = stream, clock

    def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        return self._stream.read(max_bytes, self._clock.left())

    def write(self, buffer: bytes, timeout: float | None = None) -> None:
        self._stream.write(buffer, self._clock.left())

    def start_tls(
        self, ssl_context: ssl.SSLContext, server_hostname: str | None = None, timeout: float | None = None
    ) -> httpcore.NetworkStream:
        return _Stream(self._stream.start_tls(ssl_context, server_hostname, self._clock.left()), self._clock)

    def get_extra_info(self, info: str) -> Any:
        return self._stream.get_extra_info(info)

    def close(self) -> None:
        self._stream.close()

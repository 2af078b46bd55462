"""/eras from a real socket, well and badly behaved."""

import contextlib
import socketserver
import threading

import pytest

from support import scenarios as e
from support.comparison import story


def answer(status="200 OK", body=b"{}", *headers, length=None):
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(body) if length is None else length}", *headers]
    return "\r\n".join([*lines, "Connection: close", "", ""]).encode() + body


@contextlib.contextmanager
def serving(given):
    """A loopback server that gives these bytes to each connection, and keeps the requests."""
    requests = []

    class Handler(socketserver.BaseRequestHandler):
        def handle(self):
            requests.append(self.request.recv(65536))
            self.request.sendall(given)

    with socketserver.TCPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, args=(0.01,), daemon=True).start()
        yield f"http://127.0.0.1:{server.server_address[1]}", requests
        server.shutdown()


def fetched(url, **given):
    """What comes of it, without the token that was asked for."""
    return story(e.Call(e.call("_fetch_eras_payload", e.manager(**given)), "", (e.config(server_url=url),)))[-1]


FAILED = "raised RuntimeError: Registration bootstrap failed to fetch /eras"
JSON = "raised RuntimeError: Registration bootstrap received invalid /eras JSON. from ["
GOOD = answer(body=b'{"eras": []}')
ANSWERS = {
    "an object": (GOOD, "returned {'eras': []}"),
    "nothing": (answer(body=b""), JSON + "JSONDecodeError: "),
    "gzip": (answer("200 OK", b"\x1f\x8b\x08\x00", "Content-Encoding: gzip"), JSON + "UnicodeDecodeError: "),
    "206": (answer("206 Partial Content"), FAILED + ": HTTP 206"),
    "401": (answer("401 Refused"), FAILED + ". from [HTTPError: HTTP Error 401: Refused]"),
    "a short body": (answer(length=100), "raised IncompleteRead: IncompleteRead(2 bytes read, 98 more expected)"),
    "closed at once": (b"", FAILED + ". from [RemoteDisconnected: "),
}


@pytest.mark.parametrize("kind", ANSWERS)
def test_every_answer_is_the_eras_or_an_error(kind):
    given, seen = ANSWERS[kind]
    with serving(given) as (url, requests):
        assert fetched(url + "//").startswith(seen)
    [request] = requests
    assert request.startswith(b"GET /eras HTTP/1.1\r\n") and b"\r\nAuthorization: Bearer token\r\n" in request


def test_redirects_carry_the_token_on():
    """A property of the HTTP library that operators are told about; it must not change unnoticed."""
    with serving(GOOD) as (other, taken), serving(answer("307 Moved", b"", f"Location: {other}/eras")) as (url, _):
        assert fetched(url) == "returned {'eras': []}"
    assert [b"Authorization: Bearer token\r\n" in request for request in taken] == [True]

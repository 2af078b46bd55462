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
        thread = threading.Thread(target=server.serve_forever, args=(0.01,))
        thread.start()
        try:
            yield f"http://127.0.0.1:{server.server_address[1]}", requests
        finally:
            server.shutdown()
            thread.join()


def fetched(url, **given):
    """What comes of it, without the token that was asked for."""
    am = e.manager(**given)
    return story(e.Call(e.call("_fetch_eras_payload", am), "", (e.config(server_url=url),)))[-1]


FAILED = "raised RuntimeError: Registration bootstrap failed to fetch /eras"
JSON = "raised RuntimeError: Registration bootstrap received invalid /eras JSON. from ["
GOOD = answer(body=b'{"eras": []}')
ANSWERS = {
    "an object": (GOOD, "returned {'eras': []}"),
    "a deep list": (answer(body=b"[" * 100_000), "raised RecursionError: "),
    "a long number": (answer(body=b"1" * 5_000), "raised ValueError: Exceeds the limit (4300 digits)"),
    "nothing": (answer(body=b""), JSON + "JSONDecodeError: "),
    "gzip": (answer("200 OK", b"\x1f\x8b\x08\x00", "Content-Encoding: gzip"), JSON + "UnicodeDecodeError: "),
    "206": (answer("206 Partial Content"), FAILED + ": HTTP 206"),
    **{
        f"{code}": (answer(f"{code} Refused"), f"{FAILED}. from [HTTPError: HTTP Error {code}: Refused]")
        for code in (304, 401, 403, 404, 500)
    },
    "a redirect loop": (answer("302 Found", b"", "Location: /eras"), FAILED + ". from [HTTPError: HTTP Error 302: "),
    "a redirect to a file": (answer("302 Found", b"", "Location: file:///x"), FAILED + ". from [HTTPError: HTTP Error"),
    "a short body": (answer(length=100), "raised IncompleteRead: IncompleteRead(2 bytes read, 98 more expected)"),
    "junk": (b"no HTTP at all\r\n\r\n", "raised BadStatusLine: no HTTP at all"),
    "closed at once": (b"", FAILED + ". from [RemoteDisconnected: "),
}


@pytest.mark.parametrize("kind", ANSWERS)
def test_every_answer_is_the_eras_or_an_error(kind):
    given, seen = ANSWERS[kind]
    with serving(given) as (url, requests):
        assert fetched(url + "//").startswith(seen)
    for request in requests:
        assert request.startswith(b"GET /eras HTTP/1.1\r\n") and b"\r\nAuthorization: Bearer token\r\n" in request
    assert requests


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirects_carry_the_token_on(status):
    """A property of the HTTP library that operators are told about; it must not change unnoticed."""
    with (
        serving(GOOD) as (other, taken),
        serving(answer(f"{status} Moved", b"", f"Location: {other}/eras")) as (url, _),
    ):
        assert fetched(url) == "returned {'eras': []}"
    assert [b"Authorization: Bearer token\r\n" in request for request in taken] == [True]


REFUSED = {"a\nb": "raised ValueError: ", "\u20ac": "raised UnicodeEncodeError: "}


@pytest.mark.parametrize("token", REFUSED)
def test_a_token_that_no_header_can_hold_is_not_sent(token):
    with serving(GOOD) as (url, requests):
        assert fetched(url, get_token=lambda: token).startswith(REFUSED[token]) and not requests


ADDRESSES = {
    **dict.fromkeys(["http://127.0.0.1:1", "https://127.0.0.1:1", "file:///nowhere"], FAILED + ". from [URLError: "),
    "nonsense": "raised ValueError: unknown url type: ",
    "http://[": "raised ValueError: ",
    5: "raised AttributeError: 'int' object has no attribute 'rstrip'",
}


@pytest.mark.parametrize("url", ADDRESSES)
def test_an_address_that_nothing_answers_is_an_error(url):
    assert fetched(url).startswith(ADDRESSES[url])

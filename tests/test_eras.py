"""/eras from a real socket, well and badly behaved, beside the Python twin."""

import contextlib
import socket
import threading
import urllib.request

import pytest

from support import scenarios
from support.comparison import same
from support.scenarios import MISSING, call, config, manager, patched, raising


def answer(status="200 OK", body=b"{}", *headers, length=None):
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(body) if length is None else length}", *headers]
    return "\r\n".join([*lines, "Connection: close", "", ""]).encode() + body


@contextlib.contextmanager
def serving(given):
    """A loopback server that gives these bytes to each connection, and keeps the requests."""
    requests = []
    with socket.create_server(("127.0.0.1", 0)) as listener:

        def serve():
            while True:
                try:
                    connection, _ = listener.accept()
                except OSError:
                    return  # shut down
                with contextlib.suppress(OSError), connection:
                    requests.append(connection.recv(65536))
                    connection.sendall(given)

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield f"http://127.0.0.1:{listener.getsockname()[1]}", requests
        finally:
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()


def fetched(url, **given):
    return same(call("_fetch_eras_payload", manager(**given)), config(server_url=url))


ANSWERS = {
    "object": answer(body=b'{"eras": []}'),
    **{repr(body)[:20]: answer(body=body) for body in (b"[]", b"5", b"", b'{"\xff": 1}', b"[" * 100_000, b"1" * 5_000)},
    "gzip": answer("200 OK", b"\x1f\x8b\x08\x00", "Content-Encoding: gzip"),
    "204": answer("204 No Content", b""),
    "206": answer("206 Partial Content"),
    **{str(code): answer(f"{code} Refused") for code in (304, 400, 401, 403, 404, 500, 503)},
    "redirect loop": answer("302 Found", b"", "Location: /eras"),
    "redirect elsewhere": answer("302 Found", b"", "Location: file:///etc/passwd"),
    "short body": answer(length=100),
    "junk": b"no HTTP at all\r\n\r\n",
    "closed at once": b"",
}


@pytest.mark.parametrize("kind", ANSWERS)
def test_every_answer(kind):
    with serving(ANSWERS[kind]) as (url, requests):
        seen = fetched(url + "//")
    assert all(r.startswith(b"GET /eras HTTP/1.1\r\n") and b"Authorization: Bearer token\r\n" in r for r in requests)
    assert "Bearer" not in str(seen["raised"]) and len(requests) >= 2


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirects_carry_the_token_on(status):
    """A property of the HTTP library that operators are told about; it must not change unnoticed."""
    elsewhere = serving(ANSWERS["object"])
    with elsewhere as (other, taken), serving(answer(f"{status} Moved", b"", f"Location: {other}/eras")) as (url, _):
        seen = fetched(url)
    assert seen["result"] == "{'eras': []}" and all(b"Authorization: Bearer token\r\n" in r for r in taken)


@pytest.mark.parametrize("token", [None, "", 0, 5, "a\nb", "\u20ac", "x" * 100_000], ids=lambda t: repr(t)[:20])
def test_tokens(token):
    with serving(ANSWERS["object"]) as (url, requests):
        fetched(url, get_token=lambda: token)
    assert len(requests) in (0, 2)


ADDRESSES = "http://127.0.0.1:1", "https://127.0.0.1:1", "nonsense", "", 5, None, "http://[", "file:///etc", MISSING


@pytest.mark.parametrize("url", ADDRESSES)
def test_addresses(url):
    no_option = (lambda undo: scenarios.m._config.pop("server_url"),) if url is MISSING else ()
    seen = same(call("_fetch_eras_payload", manager()), config(server_url=url), *no_option)
    assert seen["raised"]


@pytest.mark.parametrize("failure", [TimeoutError, ConnectionResetError, KeyboardInterrupt, ValueError, RuntimeError])
@pytest.mark.parametrize("at", ["get_token", "urlopen", "read", "status"])
def test_failures_of_the_http_library(at, failure):
    fail = raising(failure, "failed")

    class Response:
        __enter__ = lambda self: self  # noqa: E731
        __exit__ = lambda self, *exc: None  # noqa: E731
        read = fail if at == "read" else lambda self: b"{}"
        status = property(fail) if at == "status" else None

    def urlopen(request, **kwargs):
        scenarios.note(f"{request.get_method()} {request.full_url} {request.headers} {kwargs}")
        return Response()

    library = patched(urllib.request, urlopen=fail if at == "urlopen" else urlopen)
    given = {"get_token": fail} if at == "get_token" else {}
    assert same(call("_fetch_eras_payload", manager(**given)), library)["raised"]

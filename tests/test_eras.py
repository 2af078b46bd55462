"""/eras from a real socket, well and badly behaved, and eras of every shape, beside the Python twin."""

import contextlib
import socket
import ssl
import threading
import types
import urllib.request

import pytest

from corvane_local.certificates import ensure_certificates
from differential import same


def answer(status="200 OK", body=b"{}", *headers, length=None):
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(body) if length is None else length}", *headers]
    return "\r\n".join([*lines, "Connection: close", "", ""]).encode() + body


@contextlib.contextmanager
def serving(*answers, tls=None):
    """A loopback server that gives these bytes, one connection each and round again, and keeps the requests."""
    requests = []
    with socket.create_server(("127.0.0.1", 0)) as listener:

        def serve():
            while True:
                try:
                    connection, _ = listener.accept()
                except OSError:
                    return  # shut down
                with contextlib.suppress(OSError), connection:
                    stream = tls.wrap_socket(connection, server_side=True) if tls else connection
                    requests.append(stream.recv(65536))
                    stream.sendall(answers[(len(requests) - 1) % len(answers)])
                    stream.close()

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield f"http{'s' if tls else ''}://127.0.0.1:{listener.getsockname()[1]}", requests
        finally:
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()


def manager(token="token"):
    return types.SimpleNamespace(get_token=lambda: token)


def fetch(url, token="token"):
    def scenario(module, work, patch, events):
        patch.setitem(module._config, "server_url", url)
        return module._fetch_eras_payload(manager(token))

    return scenario


ANSWERS = {
    "object": answer(body=b'{"eras": []}'),
    "not an object": answer(body=b"[]"),
    "a number": answer(body=b"5"),
    "empty": answer(body=b""),
    "not UTF-8": answer(body=b'{"\xff": 1}'),
    "gzip": answer("200 OK", b"\x1f\x8b\x08\x00", "Content-Encoding: gzip"),
    "deep": answer(body=b"[" * 100_000),
    "many digits": answer(body=b"1" * 5_000),
    "204": answer("204 No Content", b""),
    "206": answer("206 Partial Content"),
    **{str(code): answer(f"{code} Refused") for code in (304, 400, 401, 403, 404, 500, 503)},
    "redirect loop": answer("302 Found", b"", "Location: /eras"),
    "redirect elsewhere": answer("302 Found", b"", "Location: file:///etc/passwd"),
    "short body": answer(length=100),
    "bad chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
    "junk": b"no HTTP at all\r\n\r\n",
    "long line": b"HTTP/1.1 200 OK\r\nX: " + b"x" * 70_000 + b"\r\n\r\n",
    "many headers": b"HTTP/1.1 200 OK\r\n" + b"X: x\r\n" * 200 + b"\r\n",
    "closed at once": b"",
}


@pytest.mark.parametrize("kind", ANSWERS)
def test_every_answer(kind, tmp_path, monkeypatch):
    with serving(ANSWERS[kind]) as (url, requests):
        seen, _ = same(fetch(url + "//"), tmp_path, monkeypatch)
    assert all(r.startswith(b"GET /eras HTTP/1.1\r\n") and b"Authorization: Bearer token\r\n" in r for r in requests)
    assert "Bearer" not in str(seen["raised"]) and len(requests) >= 2


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirects_carry_the_token_on(status, tmp_path, monkeypatch):
    """A property of the HTTP library that operators are told about; it must not change unnoticed."""
    with (
        serving(ANSWERS["object"]) as (other, taken),
        serving(answer(f"{status} Moved", b"", f"Location: {other}/eras")) as (url, _),
    ):
        seen, _ = same(fetch(url), tmp_path, monkeypatch)
    assert seen["result"] == "{'eras': []}" and all(b"Authorization: Bearer token\r\n" in r for r in taken)


@pytest.mark.parametrize("token", [None, "", 0, 5, "a\nb", "\u20ac", "x" * 100_000], ids=lambda t: repr(t)[:20])
def test_tokens(token, tmp_path, monkeypatch):
    with serving(ANSWERS["object"]) as (url, requests):
        same(fetch(url, token), tmp_path, monkeypatch)
    assert len(requests) in (0, 2)


@pytest.mark.parametrize(
    "url", ["http://127.0.0.1:1", "https://127.0.0.1:1", "nonsense", "", 5, None, "http://[", "file:///etc"]
)
def test_addresses(url, tmp_path, monkeypatch):
    same(fetch(url), tmp_path, monkeypatch)
    same(lambda mod, *_: mod._config.pop("server_url") and mod._fetch_eras_payload(manager()), tmp_path, monkeypatch)


@pytest.mark.parametrize("failure", [TimeoutError, ConnectionResetError, KeyboardInterrupt, ValueError, RuntimeError])
@pytest.mark.parametrize("at", ["get_token", "urlopen", "read", "status"])
def test_failures_of_the_http_library(at, failure, tmp_path, monkeypatch):
    def fail(*args, **kwargs):
        raise failure("failed")

    class Response:
        __enter__ = lambda self: self  # noqa: E731
        __exit__ = lambda self, *exc: None  # noqa: E731
        read = fail if at == "read" else lambda self: b"{}"
        status = property(fail) if at == "status" else None

    def scenario(module, work, patch, events):
        def opened(request, **kwargs):
            events.append((request.get_method(), request.full_url, request.headers, kwargs))
            return Response()

        patch.setattr(urllib.request, "urlopen", fail if at == "urlopen" else opened)
        return module._fetch_eras_payload(types.SimpleNamespace(get_token=fail) if at == "get_token" else manager())

    same(scenario, tmp_path, monkeypatch)


class Text(str):
    """A text that says something else of itself; it is taken as it is."""

    def __str__(self):
        return "something else"


NAMES = [None, "", " us ", ".", "..", "a/b", "a\\b", "a\0", 7, 0, False, ["x"], {}, Text(" t\n"), "\udc80", "us"]
ACTIVE = {"state": "Active", "named_universe": "us"}
ERAS = [
    None, [], {}, "text", [ACTIVE], [ACTIVE, ACTIVE], [{"state": " active"}], [{"state": None}, 5, ACTIVE],
    [{"state": "ACTIVE", "allowed_named_universes": ["us", " us "], "universes": [{"id": "us"}]}],
    [{**ACTIVE, "signal_pools": [5, {"allowed_named_universes": "other"}]}],
    [{**ACTIVE, "signal_pools": {"allowed_named_universes": "other"}}],
    [{"state": "active", "universes": {"b": 1, "a": 2}}], [{"state": "active", "universes": {"b": 1, 2: 2}}],
    [{"state": "active", "universes": [{"named_universe": "", "id": 0, "name": "n"}, {"name": ""}, {}]}],
    [{"state": "active", "universes": ["x", None, "..", "x"]}], [{"state": "active", "universes": "us"}],
    [{"state": "active", "allowed_named_universes": "us"}],
]  # fmt: skip


@pytest.mark.parametrize("configured", [None, "", " mine ", "..", 5])
@pytest.mark.parametrize("eras", ERAS, ids=lambda e: repr(e)[:50])
def test_eras_of_every_shape(eras, configured, tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        patch.setattr(module, "_fetch_eras_payload", lambda am: events.append(am) or {"eras": eras})
        patch.setitem(module._config, "named_universe", configured)
        if isinstance(eras, list):
            for era in eras:
                module._first_allowed_named_universe_from_era_config(era)
        return module._resolve_active_named_universe("am")

    same(scenario, tmp_path, monkeypatch)


def test_names_and_era_configurations(tmp_path, monkeypatch):
    def scenario(module, work, patch, events):
        collected = []
        module._append_allowed_named_universes(collected, NAMES)
        configurations = [
            *NAMES,
            *({"signal_pools": [5, {"allowed_named_universes": n}], "named_universe": "last"} for n in (*NAMES, NAMES)),
            *({"allowed_named_universes": [n, "next"], "signal_pools": [{}]} for n in NAMES),
            {"allowed_named_universes": ["..", "a/b"], "named_universe": "last"},
        ]
        chosen = [module._first_allowed_named_universe_from_era_config(c) for c in configurations]
        return [module._safe_named_universe(n) for n in NAMES], collected, chosen

    seen, _ = same(scenario, tmp_path, monkeypatch)
    assert seen["raised"] is None


@pytest.mark.parametrize(
    "name", ["RuntimeError", "OSError", "isinstance", "_fetch_eras_payload", "urllib", "json", "str", "len"]
)
def test_patched_names(name, tmp_path, monkeypatch):
    for replacement in (None, ValueError, "text"):

        def scenario(module, work, patch, events, replacement=replacement):
            patch.setattr(module, name, replacement, raising=False)
            return module._resolve_active_named_universe(manager(""))

        same(scenario, tmp_path, monkeypatch)


@pytest.mark.parametrize("trusted", [True, False])
def test_https_with_an_authority_that_is_trusted_or_not(trusted, tmp_path_factory, tmp_path, monkeypatch):
    authority, certificate, key = ensure_certificates(tmp_path_factory.mktemp("certificates"))
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    monkeypatch.setattr(urllib.request, "_opener", None)  # which read the trusted authorities when it was made
    if trusted:
        monkeypatch.setenv("SSL_CERT_FILE", str(authority))
    with serving(ANSWERS["object"], tls=context) as (url, requests):
        seen, _ = same(fetch(url), tmp_path, monkeypatch)
    if trusted:
        assert seen["result"] == "{'eras': []}" and len(requests) == 2
    else:
        assert "CERTIFICATE_VERIFY_FAILED" in seen["raised"]["cause"]["text"] and not requests

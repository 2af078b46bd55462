"""What the kit makes of a service that is slow, busy, odd or not there: never a hang, never a secret elsewhere."""

import itertools
import logging
import math
import pickle
import socket
import time
import traceback
from hashlib import sha256
from types import SimpleNamespace

import pytest

from corvane import auth
from corvane.key_file import write_whole
from corvane.sync import SyncManager
from corvane.sync_backoff import ServiceBusy
from localkit.tests.conftest import http, slowly

KEY, CODE, TOKEN = "c0ffee" * 10 + "beef", "CORV-KEPT-FRMN-SEEN", "token-that-nobody-may-see"
GOOD = {"token": TOKEN, "expires_at": 4_000_000_000.5}  # the same for each process that collects the tests


def sign_in(server, home, *answers):
    server.script = iter(answers)
    auth.AuthManager(f"0x{KEY}", server.url, CODE).authenticate()


def sync(server, home, *answers):
    server.script = iter(answers)
    return SyncManager(SimpleNamespace(get_token=lambda: TOKEN), home, server.url).request_for_sync()


def release(content, digest):
    """The manifest of one file."""
    entry = {"kind": "k", "sha256": digest, "size": len(content)}
    return http({"era_id": 1, "version": 1, "files": {"runtime/x": entry}})


PAGE = b"<!DOCTYPE html><title>502 Bad Gateway</title>"
CHALLENGE = http({"challenge": "a"})
ENDLESS = [b"HTTP/1.1 200 OK\r\n\r\n", *itertools.repeat(b" " * 2**20, 40)]
BUSY, PORTAL, OTHER = auth.AuthBusyError, auth.PortalError, auth.NotTheServiceError
ANSWERS = [
    (http(PAGE, 502), BUSY, "HTTP 502"), (http({"error": "too many"}, 429), BUSY, "too many|HTTP 429"),
    (http(status=307, Location="http://h:x/" + 9_000 * "y"), PORTAL, "redirects to http://h:x/y{289}, "),
    (http(status=301), PORTAL, "redirects without saying where"),
    (http(b"Welcome", Content_Type="text/html"), PORTAL, "web page"), (http(b" <html>"), PORTAL, "web page"),
    (http({"error": [1]}, 400), OTHER, "HTTP 400"), (http(PAGE, 404), OTHER, "HTTP 404"),
    (http({"error": "not you"}, 403), auth.AuthError, "not you"),
    (http(), OTHER, "JSON"), (http([]), OTHER, "not a JSON object"), (http(b"[" * 100_000), OTHER, "JSON"),
    (b"220 mail.example ESMTP\r\n", ConnectionError, "cannot be reached"), (ENDLESS, OTHER, "more than"),
]  # fmt: skip
OF_SYNC = {BUSY: ServiceBusy, auth.AuthError: auth.RequestRefusedError}


@pytest.mark.parametrize(("answer", "refusal", "text"), ANSWERS, ids=lambda v: getattr(v, "__name__", str(v)[:16]))
def test_what_answers_is_named(answer, refusal, text, scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 20.0)
    for act, kind in ((sign_in, refusal), (sync, OF_SYNC.get(refusal, refusal))):
        with pytest.raises(kind, match=text) as info:
            act(scripted, tmp_path, answer)
        assert info.type is kind
    assert not (tmp_path / "manifest.json").exists()


INTERIM = b"HTTP/1.1 102 Processing\r\n\r\n" * 10  # what comes before an answer is a part of it
SLOW = {
    "answer": (sign_in, CHALLENGE, slowly(INTERIM + http(GOOD))),
    "manifest": (sync, slowly(INTERIM + release(b"", "0" * 64))),
    "file": (sync, release(bytes(600), "0" * 64), slowly(http(bytes(600)))),
}


@pytest.mark.parametrize("slow", SLOW)
def test_every_request_has_a_deadline_for_a_service_that_drips(slow, scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 1.0)
    act, *answers = SLOW[slow]
    began = time.monotonic()
    with pytest.raises(ConnectionError, match="in time, or sends too slowly"):
        act(scripted, tmp_path, *answers)
    assert 0.9 < time.monotonic() - began < 18


def test_a_name_server_that_does_not_answer_holds_nobody_up(monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 0.5)
    monkeypatch.setattr(socket, "getaddrinfo", lambda *_, **__: time.sleep(20))
    began = time.monotonic()
    with pytest.raises(ConnectionError, match="in time"):
        auth.AuthManager(f"0x{KEY}", "https://h.example").authenticate()
    assert time.monotonic() - began < 15


def test_a_download_that_goes_on_may_take_its_time(scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 1.5)
    content = bytes(9_000)
    pieces = (time.sleep(0.3) or piece for piece in [http(content)[:-9_000], *[bytes(1_500)] * 6])
    assert sync(scripted, tmp_path, release(content, sha256(content).hexdigest()), pieces) == ["runtime/x"]


ODD = [
    *[("expires_at", odd, "does not say how long") for odd in (True, "1e9", None, math.nan, math.inf, -5, 10**400)],
    *[("token", odd, "contains no token") for odd in (5, "", "a\nb", "\u00e9", "x" * 5_000)],
    *[("challenge", odd, "contains no challenge") for odd in (None, "\u00e9")],
]


@pytest.mark.parametrize(("field", "odd", "reason"), ODD, ids=lambda value: repr(value)[:12])
def test_odd_answers_are_refused(field, odd, reason, scripted):
    answer = http({**GOOD, "challenge": "a", field: odd})
    with pytest.raises(auth.AuthError, match=f"The service's answer {reason}"):
        sign_in(scripted, None, answer, answer)


def test_the_token_goes_nowhere_else(scripted, tmp_path, monkeypatch, caplog):
    caplog.set_level(logging.DEBUG)
    for name in ("HTTP_PROXY", "http_proxy", "ALL_PROXY", "all_proxy"):
        monkeypatch.setenv(name, "http://127.0.0.1:1")
    manager = auth.AuthManager(f"0x{KEY}", scripted.url)
    elsewhere = http(status=307, Location=f"{scripted.url.replace('127.0.0.1', 'localhost')}/elsewhere")
    scripted.script = iter([CHALLENGE, http(GOOD), elsewhere, http({"era_id": 1, "version": 1, "files": {}})])
    with pytest.raises(auth.NotTheServiceError):
        SyncManager(manager, tmp_path, scripted.url).sync()
    assert [TOKEN in request for request in scripted.requests] == [False, False, True]
    assert TOKEN not in caplog.text + repr(manager) and KEY not in caplog.text + repr(manager) + str(vars(manager))
    with pytest.raises(TypeError, match="cannot be pickled"):
        pickle.dumps(manager)


FAILURES = {  # what is called, and what the service answers
    "a used code": (sign_in, CHALLENGE, http({"error": "used", "code": "used_invite"}, 409)),
    "not HTTP": (sign_in, CHALLENGE, b"220 mail.example ESMTP\r\n"),
    "no expiry": (sign_in, CHALLENGE, http({"token": TOKEN})),
    "half a manifest": (sync, b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"),
    "a refused token": (sync, http(status=401)),
    "not hexadecimal": (lambda server, home: auth.AuthManager(KEY, server.url),),
    "a key that is there": (lambda server, home: write_whole(home, KEY.encode(), replace=False),),
}


def frames(error):
    """The frames of all exceptions of a chain, also of those that a traceback would not show."""
    for linked in filter(None, (error.__cause__, error.__context__)):
        yield from frames(linked)
    yield from (frame for frame, _ in traceback.walk_tb(error.__traceback__) if frame.f_code.co_filename != __file__)


@pytest.mark.parametrize("name", FAILURES)
def test_neither_a_message_nor_the_locals_of_a_traceback_tell_a_secret(name, scripted, tmp_path):
    act, *answers = FAILURES[name]
    with pytest.raises((auth.AuthError, OSError)) as info:
        act(scripted, tmp_path, *answers)
    # Error trackers and rich show the locals of each frame.
    shown = [(frame.f_code.co_name, repr(frame.f_locals)) for frame in frames(info.value)]
    told, secrets = [*shown, ("message", str(info.value))], (KEY, str(int(KEY, 16)), CODE, TOKEN)
    assert shown and not [(secret, *place) for place in told for secret in secrets if secret in place[1]]


ADDRESSES = "https://a.example:8443/b//", "http://localhost:1", "http://127.0.0.1", "http://[::1]:80/"
HOSTS = "localhost.evil", "127.0.0.1.h.example", "127.0.0.1@h", "h.example", "0.0.0.0"
REFUSED = "", "ftp://a", "https://", "https://u@a", "https://a?", "https://a b", *(f"http://{host}" for host in HOSTS)


@pytest.mark.parametrize("url", REFUSED)
def test_plain_http_is_for_this_machine(url):
    assert [auth._validate_server_url(url) for url in ADDRESSES] == [url.rstrip("/") for url in ADDRESSES]
    with pytest.raises(ValueError, match="server_url must"):
        auth._validate_server_url(url)

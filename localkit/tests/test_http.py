"""What the kit makes of a service that is slow, busy, odd or not there: never a hang, never a token elsewhere."""

import itertools
import logging
import socket
import time
from contextlib import ExitStack
from hashlib import sha256

import pytest

from corvane import auth
from corvane.sync import SyncManager
from corvane.sync_backoff import ServiceBusy
from localkit.tests.conftest import http, slowly

TOKEN = "token-that-nobody-may-see"
GOOD = {"token": TOKEN, "expires_at": 4_000_000_000.5}  # the same for each process that collects the tests


class Anybody:
    def get_token(self):
        return TOKEN


def sign_in(server, *answers):
    server.script = iter(answers)
    auth.AuthManager(f"0x{7:064x}", server.url).authenticate()


def sync(server, home, *answers, **options):
    server.script = iter(answers)
    return SyncManager(Anybody(), home, server.url, **options).request_for_sync()


PAGE = b"<!DOCTYPE html><title>502 Bad Gateway</title>"
CHALLENGE = http({"challenge": "a"})
ENDLESS = [b"HTTP/1.1 200 OK\r\n\r\n", *itertools.repeat(b" " * 2**20, 40)]
ANSWERS = {
    "a proxy's page": (http(PAGE, 502), auth.AuthBusyError, "HTTP 502"),
    "too many": (http({"error": "too many"}, 429), auth.AuthBusyError, "too many|HTTP 429"),
    "busy": (http(PAGE, 503), auth.AuthBusyError, "HTTP 503"),
    "busy, an odd reason": (http({"error": {}}, 500), auth.AuthBusyError, "away or busy .HTTP 500"),
    "a redirect": (http(status=302, Location="http://h/"), auth.PortalError, "redirects to http://h/"),
    "a redirect to nonsense": (http(status=307, Location="http://h:x/"), auth.PortalError, "redirects to http://h:x/"),
    "a redirect to nowhere": (http(status=301), auth.PortalError, "redirects without saying where"),
    "a captive portal": (http(b"Welcome", Content_Type="text/html"), auth.PortalError, "web page"),
    "a page without a type": (http(b" <html>"), auth.PortalError, "web page"),
    "no reason": (http({}, 404), auth.NotTheServiceError, "HTTP 404"),
    "an odd reason": (http({"error": [1]}, 400), auth.NotTheServiceError, "HTTP 400"),
    "a page that is missing": (http(PAGE, 404), auth.NotTheServiceError, "HTTP 404"),
    "a teapot": (http([], 418), auth.NotTheServiceError, "HTTP 418"),
    "nothing": (http(status=304), auth.NotTheServiceError, "HTTP 304"),
    "a refusal": (http({"error": "not you"}, 403), auth.AuthError, "not you"),
    "an empty answer": (http(), auth.NotTheServiceError, "JSON"),
    "a list": (http([]), auth.NotTheServiceError, "not a JSON object"),
    "no HTTP": (b"220 mail.example ESMTP\r\n", ConnectionError, "cannot be reached"),
    "an endless body": (ENDLESS, auth.NotTheServiceError, "more than"),
    "a deep body": (http(b"[" * 100_000), auth.NotTheServiceError, "JSON"),
}
OF_SYNC = {auth.AuthBusyError: ServiceBusy, auth.AuthError: auth.RequestRefusedError}


@pytest.mark.parametrize("kind", ANSWERS)
def test_what_answers_is_named(kind, scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 20.0)
    answer, refusal, text = ANSWERS[kind]
    answer = answer if isinstance(answer, bytes) else list(answer)
    with pytest.raises(refusal, match=text) as info:
        sign_in(scripted, answer)
    with pytest.raises(OF_SYNC.get(refusal, refusal), match=text) as of_sync:
        sync(scripted, tmp_path, answer)
    assert (info.type, of_sync.type) == (refusal, OF_SYNC.get(refusal, refusal))
    assert not (tmp_path / "manifest.json").exists()


@pytest.mark.parametrize("slow", ["challenge", "answer", "manifest", "file", "silence", "nobody"])
def test_a_service_that_drips_is_given_up(slow, scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 1.0)
    manifest = {"era_id": 1, "version": 1, "files": {"runtime/x": {"kind": "k", "sha256": "0" * 64, "size": 600}}}
    interim = b"HTTP/1.1 102 Processing\r\n\r\n" * 10  # what comes before an answer is a part of it
    answers = {"challenge": [slowly(interim + CHALLENGE)], "answer": [CHALLENGE, slowly(interim + http(GOOD))]}
    answers |= {"manifest": [slowly(interim + http(manifest))], "file": [http(manifest), slowly(http(bytes(600)))]}
    answers |= {"silence": [(time.sleep(20) for _ in "1")], "nobody": []}
    with ExitStack() as stack:
        if slow == "nobody":  # a queue of connections that is full: the next one is neither accepted nor refused
            listening = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
            scripted.url = f"http://127.0.0.1:{listening.getsockname()[1]}"
            for _ in "123":
                (waiting := stack.enter_context(socket.socket())).setblocking(False)
                waiting.connect_ex(listening.getsockname())
        began = time.monotonic()
        with pytest.raises(ConnectionError, match="in time, or sends too slowly"):
            if slow in ("manifest", "file"):
                sync(scripted, tmp_path, *answers[slow])
            sign_in(scripted, *answers[slow])
        assert 0.9 < time.monotonic() - began < 18


def test_a_download_that_goes_on_may_take_its_time(scripted, tmp_path, monkeypatch):
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 1.5)
    content = bytes(9_000)
    entry = {"kind": "k", "sha256": sha256(content).hexdigest(), "size": len(content)}
    pieces = (time.sleep(0.3) or piece for piece in [http(content)[:-9_000], *[bytes(1_500)] * 6])
    manifest = http({"era_id": 1, "version": 1, "files": {"runtime/x": entry}})
    assert sync(scripted, tmp_path, manifest, pieces) == ["runtime/x"]


ODD = [
    ("does not say how long", CHALLENGE, http({**GOOD, "expires_at": odd}))
    for odd in (True, "1e9", None, [], float("nan"), float("inf"), -5, 10**400, {})
]
TOKENS = 5, None, "", "a\nb", "a b", "\u00e9", "x" * 5_000
ODD += [("contains no token", CHALLENGE, http({**GOOD, "token": odd})) for odd in TOKENS]
ODD += [("contains no challenge", http({"challenge": odd})) for odd in (5, None, "\u00e9", ["a"])]


@pytest.mark.parametrize("odd", ODD, ids=lambda odd: odd[-1].rpartition(b"\r\n")[2].decode()[:40])
def test_odd_answers_are_refused(odd, scripted):
    lacks, *answers = odd
    with pytest.raises(auth.AuthError, match=f"The service's answer {lacks}"):
        sign_in(scripted, *answers)


def test_the_token_goes_nowhere_else(scripted, tmp_path, monkeypatch, caplog):
    caplog.set_level(logging.DEBUG)
    for name in ("HTTP_PROXY", "http_proxy", "ALL_PROXY", "all_proxy"):
        monkeypatch.setenv(name, "http://127.0.0.1:1")
    manager = auth.AuthManager(f"0x{7:064x}", scripted.url)
    elsewhere = http(status=307, Location=f"{scripted.url.replace('127.0.0.1', 'localhost')}/elsewhere")
    scripted.script = iter([CHALLENGE, http(GOOD), elsewhere, http({"era_id": 1, "version": 1, "files": {}})])
    with pytest.raises(auth.NotTheServiceError):
        SyncManager(manager, tmp_path, scripted.url).sync()
    assert [TOKEN in request for request in scripted.requests] == [False, False, True]
    assert TOKEN not in caplog.text + repr(manager) and f"{7:064x}" not in caplog.text


ADDRESSES = {
    "https://a.example:8443/b//": True,
    "http://localhost:1": True,
    "http://127.0.0.1": True,
    "http://[::1]:80/": True,
}
for bad in ("localhost.evil", "localhost@h.example", "127.0.0.1.h.example", "127.0.0.1@h", "h.example", "0.0.0.0"):
    ADDRESSES[f"http://{bad}"] = False
ADDRESSES |= dict.fromkeys(("", "ftp://a", "https://", "https://u@a", "https://a?", "https://a b"), False)


@pytest.mark.parametrize("url", ADDRESSES)
def test_plain_http_is_for_this_machine(url):
    if ADDRESSES[url]:
        assert auth._validate_server_url(url) == url.rstrip("/")
    else:
        with pytest.raises(ValueError, match="server_url must"):
            auth._validate_server_url(url)

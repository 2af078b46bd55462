"""Tracebacks that are shown with the locals of their frames, as error trackers and rich do, tell no secret."""

import time
import traceback
from types import SimpleNamespace

import pytest

from corvane import agent_onboarding, key_file
from corvane._http import Service
from corvane.auth import AuthError, AuthManager
from corvane.sync import SyncManager
from localkit.tests.conftest import http

KEY, CODE, TOKEN = f"{0xC0FFEE:064x}", "CORV-KEPT-FRMN-SEEN", "a-token-for-nobody-else"
TOO_LARGE = "x" * 50_000_000  # for the buffers of a socket that nobody reads
CHALLENGE, CUT_SHORT = http({"challenge": "a"}), b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"


def register(url, home):
    agent_onboarding.register()


def sign_in(key):
    return lambda url, home: AuthManager(key, url, CODE).authenticate()


def sync(url, home):
    SyncManager(SimpleNamespace(get_token=lambda: TOKEN), str(home), url).sync()


def send_more_than_is_read(url, home):
    headers = {"Authorization": f"Bearer {TOKEN}"}
    with Service(url) as service, service.send("POST", "/", headers, {"code": CODE, "more": TOO_LARGE}):
        pass


CALLS = {  # what is called, and what the service answers
    "no service": (register, None),
    "a used code": (register, [CHALLENGE, http({"error": "used", "code": "used_invite"}, 409)]),
    "half an answer": (register, [CHALLENGE, CUT_SHORT]),
    "not HTTP": (sign_in(f"0x{KEY}"), [CHALLENGE, b"220 mail.example ESMTP\r\n"]),
    "login refused": (lambda url, home: agent_onboarding.login(KEY), [CHALLENGE, http({"error": "unknown"}, 404)]),
    "no expiry": (sign_in(f"0x{KEY}"), [CHALLENGE, http({"token": TOKEN})]),
    "half a manifest": (sync, [CUT_SHORT]),
    "a refused token": (sync, [http(status=401)]),
    "a request that is not read": (send_more_than_is_read, [(time.sleep(20) for _ in "1")]),
    "not hexadecimal": (sign_in(KEY), None),
    "not a key": (sign_in("0x" + "f" * 60 + KEY[-6:-2]), None),
    "a key that is there": (lambda url, home: key_file.write_whole(home, KEY.encode(), replace=False), None),
}


def frames(error):
    """The frames of all exceptions of a chain, also of those that a traceback would not show."""
    for linked in filter(None, (error.__cause__, error.__context__)):
        yield from frames(linked)
    yield from (frame for frame, _ in traceback.walk_tb(error.__traceback__) if frame.f_code.co_filename != __file__)


@pytest.mark.parametrize("name", CALLS)
def test_locals_tell_no_secret(name, scripted, tmp_path, monkeypatch):
    call, answers = CALLS[name]
    config = {"server_url": scripted.url, "data_dir": str(tmp_path), "auto_heartbeat": False}
    monkeypatch.setattr(agent_onboarding, "_config", agent_onboarding._config | config)
    monkeypatch.setattr(agent_onboarding, "_auth_manager", None)
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 3.0)
    monkeypatch.setenv("CORVANE_INVITE_CODE", CODE)
    scripted.script = iter(answers or [])
    if answers is None:
        scripted.server_close()
    with pytest.raises((AuthError, OSError)) as info:
        call(scripted.url, tmp_path)
    key = (tmp_path / "wallet.key").read_text() if call is register else KEY
    secrets = {"key": key, "its number": str(int(key, 16)), "code": CODE, "token": TOKEN}
    seen = [(frame.f_code.co_name, repr(frame.f_locals)) for frame in frames(info.value)]
    assert seen and not [(secret, *place) for place in seen for secret, text in secrets.items() if text in place[1]]

"""Tracebacks that are shown with the locals of their frames, as error trackers and rich do, tell no secret."""

import time
import traceback

import pytest

from corvane import agent_onboarding, key_file
from corvane._http import Service
from corvane.auth import AuthManager
from corvane.sync import SyncManager
from localkit.tests.conftest import http

KEY, CODE, TOKEN = f"{0xC0FFEE:064x}", "CORV-KEPT-FRMN-SEEN", "a-token-for-nobody-else"
TOO_LARGE = "x" * 50_000_000  # for the buffers of a socket that nobody reads


def send_more_than_is_read(url, home):
    headers = {"Authorization": f"Bearer {TOKEN}"}
    with Service(url) as service, service.send("POST", "/", headers, {"code": CODE, "more": TOO_LARGE}):
        raise AssertionError("unreachable")


class SignedIn:
    def get_token(self):
        return TOKEN


def sign_in(key):
    return lambda url, home: AuthManager(key, url, CODE).authenticate()


def register(url, home):
    agent_onboarding.register()


def login(url, home):
    agent_onboarding.login(KEY)


def sync(url, home):
    SyncManager(SignedIn(), str(home), url).sync()


def make_a_second_key(url, home):
    (home / "wallet.key").write_text("")
    key_file.write_whole(home / "wallet.key", KEY.encode(), replace=False)


CHALLENGE, CUT_SHORT = http({"challenge": "a"}), b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"
CALLS = {  # what is called, what the service answers, and the exception
    "no service": (register, None, ConnectionError),
    "a used code": (register, [CHALLENGE, http({"error": "used", "code": "used_invite"}, 409)], Exception),
    "half an answer": (register, [CHALLENGE, CUT_SHORT], ConnectionError),
    "not HTTP": (sign_in(f"0x{KEY}"), [CHALLENGE, b"220 mail.example ESMTP\r\n"], ConnectionError),
    "login refused": (login, [CHALLENGE, http({"error": "unknown"}, 404)], Exception),
    "no expiry": (sign_in(f"0x{KEY}"), [CHALLENGE, http({"token": TOKEN})], Exception),
    "a refused token": (sync, [http(status=401)], Exception),
    "a manifest that breaks off": (sync, [CUT_SHORT], ConnectionError),
    "a request that is not read": (send_more_than_is_read, [(time.sleep(20) for _ in "1")], ConnectionError),
    "not hexadecimal": (sign_in(KEY), None, Exception),
    "not a key": (sign_in("0x" + "f" * 60 + KEY[-6:-2]), None, Exception),
    "a key that is there": (make_a_second_key, None, FileExistsError),
}


def frames(error):
    """The frames of all exceptions of a chain, also of those that a traceback would not show."""
    for linked in filter(None, (error.__cause__, error.__context__)):
        yield from frames(linked)
    yield from (frame for frame, _ in traceback.walk_tb(error.__traceback__) if frame.f_code.co_filename != __file__)


@pytest.mark.parametrize("name", CALLS)
def test_locals_tell_no_secret(name, scripted, tmp_path, monkeypatch):
    call, answers, expected = CALLS[name]
    config = {"server_url": scripted.url, "data_dir": str(tmp_path), "auto_heartbeat": False}
    monkeypatch.setattr(agent_onboarding, "_config", agent_onboarding._config | config)
    monkeypatch.setattr(agent_onboarding, "_auth_manager", None)
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 3.0)
    monkeypatch.setenv("CORVANE_INVITE_CODE", CODE)
    scripted.script = iter(answers or [])
    if answers is None:
        scripted.server_close()
    with pytest.raises(expected) as info:
        call(scripted.url, tmp_path)
    key = (tmp_path / "wallet.key").read_text() if call is register else KEY
    seen = [(frame.f_code.co_name, repr(frame.f_locals)) for frame in frames(info.value)]
    assert seen and "unreachable" not in repr(info.value)
    secrets = {"key": key, "its number": str(int(key, 16)), "code": CODE, "token": TOKEN}
    assert not [(secret, *place) for place in seen for secret, text in secrets.items() if text in place[1]]

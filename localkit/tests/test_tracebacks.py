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
CHALLENGE = http({"challenge": "a"})
TOO_LARGE = "x" * 50_000_000  # for the buffers of a socket that nobody reads


def register(server, home):
    agent_onboarding.configure(server_url=server.url, data_dir=str(home), auto_heartbeat=False)
    agent_onboarding.register()


def login(server, home):
    agent_onboarding.configure(server_url=server.url, data_dir=str(home), auto_heartbeat=False)
    agent_onboarding.login(KEY)


def sign_in(server, home):
    AuthManager(f"0x{KEY}", server.url, CODE).authenticate()


def send_more_than_is_read(server, home):
    with Service(server.url) as service:
        headers = {"Authorization": f"Bearer {TOKEN}"}
        with service.send("POST", "/", headers, {"code": CODE, "more": TOO_LARGE}):
            raise AssertionError("unreachable")


class SignedIn:
    def get_token(self):
        return TOKEN


def sync(server, home):
    SyncManager(SignedIn(), str(home), server.url).sync()


def make_a_second_key(server, home):
    (home / "wallet.key").write_text("")
    key_file.write_whole(home / "wallet.key", KEY.encode(), replace=False)


CALLS = {  # what is called, what the service answers, and the exception
    "no service": (register, None, ConnectionError),
    "a used code": (register, [CHALLENGE, http({"error": "used", "code": "used_invite"}, 409)], Exception),
    "half an answer": (register, [CHALLENGE, b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"], ConnectionError),
    "no HTTP": (sign_in, [CHALLENGE, b"220 mail.example ESMTP\r\n"], ConnectionError),
    "login refused": (login, [CHALLENGE, http({"error": "unknown"}, 404)], Exception),
    "no expiry": (sign_in, [CHALLENGE, http({"token": TOKEN})], Exception),
    "a refused token": (sync, [http(status=401)], Exception),
    "a manifest that breaks off": (sync, [b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"], ConnectionError),
    "a request that is not read": (send_more_than_is_read, [(time.sleep(20) for _ in "1")], ConnectionError),
    "not hexadecimal": (lambda *_: AuthManager(KEY, "https://h", CODE), None, Exception),
    "not a key": (lambda *_: AuthManager("0x" + "f" * 60 + KEY[-6:-2], "https://h", CODE), None, Exception),
    "a key that is there": (make_a_second_key, None, FileExistsError),
}  # fmt: skip


def frames(error):
    """The frames of all exceptions of a chain, also of those that a traceback would not show."""
    for linked in filter(None, (error.__cause__, error.__context__)):
        yield from frames(linked)
    yield from (frame for frame, _ in traceback.walk_tb(error.__traceback__) if frame.f_code.co_filename != __file__)


@pytest.mark.parametrize("name", CALLS)
def test_locals_tell_no_secret(name, scripted, tmp_path, monkeypatch):
    call, answers, expected = CALLS[name]
    monkeypatch.setattr("corvane._http.REQUEST_SECONDS", 3.0)
    monkeypatch.setenv("CORVANE_INVITE_CODE", CODE)
    for state in ("_config", "_auth_manager"):
        value = vars(agent_onboarding)[state]
        monkeypatch.setattr(agent_onboarding, state, dict(value) if state == "_config" else value)
    if answers is None:
        scripted.server_close()
    else:
        scripted.script = iter([[piece] if isinstance(piece, bytes) else piece for piece in answers])
    with pytest.raises(expected) as info:
        call(scripted, tmp_path)
    if (key := tmp_path / "wallet.key").exists() and call is register:
        monkeypatch.setitem(globals(), "KEY", key.read_text())
    seen = [(frame.f_code.co_name, repr(frame.f_locals)) for frame in frames(info.value)]
    assert seen and "AssertionError" not in repr(info.value)
    secrets = {"key": KEY, "its number": str(int(KEY, 16)), "code": CODE, "token": TOKEN}
    told = [(secret, *place) for place in seen for secret, text in secrets.items() if text in place[1]]
    assert not told

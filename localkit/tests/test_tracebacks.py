"""Tracebacks that are shown with the locals of their frames, as error trackers and rich do, tell no secret."""

import traceback
from types import SimpleNamespace

import pytest

from corvane import key_file
from corvane.auth import AuthError, AuthManager
from corvane.sync import SyncManager
from localkit.tests.conftest import http

KEY, CODE, TOKEN = f"{0xC0FFEE:064x}", "CORV-KEPT-FRMN-SEEN", "a-token-for-nobody-else"
CHALLENGE = http({"challenge": "a"})


def sign_up(url, home):
    AuthManager(f"0x{KEY}", url, CODE).authenticate()


def sync(url, home):
    SyncManager(SimpleNamespace(get_token=lambda: TOKEN), str(home), url).sync()


CALLS = {  # what is called, and what the service answers
    "a used code": (sign_up, [CHALLENGE, http({"error": "used", "code": "used_invite"}, 409)]),
    "not HTTP": (sign_up, [CHALLENGE, b"220 mail.example ESMTP\r\n"]),
    "no expiry": (sign_up, [CHALLENGE, http({"token": TOKEN})]),
    "half a manifest": (sync, [b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"]),
    "a refused token": (sync, [http(status=401)]),
    "not hexadecimal": (lambda url, home: AuthManager(KEY, url), []),
    "a key that is there": (lambda url, home: key_file.write_whole(home, KEY.encode(), replace=False), []),
}


def frames(error):
    """The frames of all exceptions of a chain, also of those that a traceback would not show."""
    for linked in filter(None, (error.__cause__, error.__context__)):
        yield from frames(linked)
    yield from (frame for frame, _ in traceback.walk_tb(error.__traceback__) if frame.f_code.co_filename != __file__)


@pytest.mark.parametrize("name", CALLS)
def test_locals_tell_no_secret(name, scripted, tmp_path):
    call, answers = CALLS[name]
    scripted.script = iter(answers)
    with pytest.raises((AuthError, OSError)) as info:
        call(scripted.url, tmp_path)
    seen = [(frame.f_code.co_name, repr(frame.f_locals)) for frame in frames(info.value)]
    secrets = KEY, str(int(KEY, 16)), CODE, TOKEN
    assert seen and not [(secret, *place) for place in seen for secret in secrets if secret in place[1]]

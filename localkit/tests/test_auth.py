"""The kit's sign-in: whom it trusts, what it makes of answers, keys and codes, and what it does not show."""

import pickle

import pytest

from corvane import auth

KEY, LOCAL = "0x" + "11" * 32, "https://localhost"
NONSENSE = [b"{}", b'{"challenge": null}', '{"challenge": "é"}'.encode(), b"[" * 100_000, b"oops",
            b'{"token": null, "expires_at": 5}', b'{"token": "t", "expires_at": NaN}',
            b'{"token": "t", "expires_at": 1%s}' % (b"0" * 400)]  # fmt: skip
GOOD_URLS = ["https://a.example:8443/api//", "https://a", "http://127.0.0.1:1", "http://localhost", "http://[::1]"]
BAD_URLS = ["", "a.example", "http://a.example", "ftp://a", "https://", "https://u@a", "https://a:x", "https://[::1",
            " https://a", *(f"https://a{junk}" for junk in ("?q", "?", "#f", "#", " b", "\n.example"))]  # fmt: skip
BAD_CODES = [None, 5, "", " ", "CORV", "CORV-2222-ABCD-ZZZO", "CORV-2222-ABCD-ZZZZ-2222", "\udc80"]


def test_an_unknown_authority_is_not_trusted(service, monkeypatch):
    monkeypatch.delenv("SSL_CERT_FILE")
    with pytest.raises(ConnectionError, match="CERTIFICATE_VERIFY_FAILED"):
        service.sign_in(1)


@pytest.mark.parametrize("body", NONSENSE)
def test_answers_that_make_no_sense(planned, body):
    headers = {"Content-Encoding": "gzip"} if body == b"oops" else {}
    planned.plan = [(200, {}, b'{"challenge": "ab"}')] * (b"token" in body) + [(200, headers, body)]
    with pytest.raises(auth.AuthError, match="The service's answer"):
        auth.AuthManager(KEY, planned.url).authenticate()


def test_keys_do_not_show():
    manager = auth.AuthManager(KEY, LOCAL)
    assert KEY[2:] not in repr(manager) + str(vars(manager))
    with pytest.raises(TypeError, match="cannot be pickled"):
        pickle.dumps(manager)
    for bad in (KEY[2:], "zz" + KEY[2:], "0x" + "g" * 64, "0x" + "0" * 64, "0x" + "f" * 64, "0x" + "1" * 65):
        with pytest.raises(auth.InvalidKeyError) as info:
            auth.AuthManager(bad, LOCAL)
        assert bad[2:] not in str(info.value)


def test_invite_codes_and_addresses():
    assert auth._normalize_invite_code(" corv-2222-abcd-zzzz\n") == "CORV-2222-ABCD-ZZZZ"
    assert [auth._normalize_invite_code(bad) for bad in BAD_CODES] == [None] * len(BAD_CODES)
    assert [auth._validate_server_url(good) for good in GOOD_URLS] == [good.rstrip("/") for good in GOOD_URLS]
    for bad in BAD_URLS:
        with pytest.raises(ValueError, match="server_url must"):
            auth._validate_server_url(bad)

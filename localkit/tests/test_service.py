"""The local service as a process of its own, over real HTTPS, with its real database."""

import contextlib
import http.server
import os
import pickle
import signal
import socket
import sqlite3
import ssl
import subprocess
import sys
import threading
import time

import httpx
import pytest
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec

from corvane import auth

KEY, OTHER = "0x" + "11" * 32, "0x" + "22" * 32
COMMAND = [sys.executable, "-P", "-m", "corvane_local"]


@contextlib.contextmanager
def running(state, *options):
    process = subprocess.Popen([*COMMAND, "serve", "--port", "0", "--state", state, *options], stdout=-1, text=True)
    try:
        process.url = process.stdout.readline().strip()
        yield process
    finally:
        process.kill()
        process.communicate()


@pytest.fixture(scope="module")
def state(tmp_path_factory):
    return tmp_path_factory.mktemp("service")


@pytest.fixture(scope="module")
def service(state):
    with running(state) as process:
        os.environ["SSL_CERT_FILE"] = str(state / "ca.pem")
        yield process
    del os.environ["SSL_CERT_FILE"]


def invite(state):
    return subprocess.run(
        [*COMMAND, "invite", "--state", state], check=True, capture_output=True, text=True
    ).stdout.strip()


def rows(state, query):
    with contextlib.closing(sqlite3.connect(state / "service.db")) as db:
        return db.execute(query).fetchall()


def sign_in(service, key=KEY, code=None):
    manager = auth.AuthManager(key, service.url, invite_code=code)
    manager.authenticate()
    return manager


def post(service, path, **kwargs):
    return httpx.post(service.url + path, verify=ssl.create_default_context(), **kwargs)


def get(service, path, header):
    return httpx.get(service.url + path, headers={"Authorization": header}, verify=ssl.create_default_context())


def wallet(service, header):
    return get(service, "/wallet", header)


def test_sign_up_and_in(service, state):
    code = invite(state)
    first = sign_in(service, code=code.lower())
    again = sign_in(service)
    assert first.get_wallet_address() == again.get_wallet_address()
    assert first.get_token() != again.get_token() and abs(first.get_token_expiry() - time.time() - 3600) < 60
    sign_in(service, code=invite(state))  # known already: the second invite is not used up
    assert len(rows(state, "SELECT * FROM invites WHERE used_by IS NULL")) == 1
    with pytest.raises(auth.RegistrationError, match="has been used"):
        sign_in(service, OTHER, code)
    with pytest.raises(auth.RegistrationError, match="unknown"):
        sign_in(service, OTHER, "CORV-2222-2222-2222")
    with pytest.raises(auth.RegistrationError, match="malformed: invite_code"):
        sign_in(service, OTHER, "junk!")
    with pytest.raises(auth.AuthError, match="not registered") as info:
        sign_in(service, OTHER)
    assert type(info.value) is auth.AuthError
    assert wallet(service, "Bearer " + first.get_token()).json()["address"] == first.get_wallet_address()
    for header in ("", "Bearer", "Bearer x", first.get_token(), "Basic " + first.get_token()):
        assert wallet(service, header).status_code == 401
    assert first.get_token() not in str(rows(state, "SELECT * FROM tokens"))


def test_eras_are_for_those_who_signed_in(service, state):
    token = sign_in(service, code=invite(state)).get_token()
    for header in ("", "Bearer", "Bearer x", token):
        answer = get(service, "/eras", header)
        assert answer.status_code == 401 and answer.json()["code"] == "bad_token"
    eras = get(service, "/eras", "Bearer " + token).json()["eras"]
    assert [era["state"] for era in eras] == ["closed", "closed", "active"]
    assert eras[2]["named_universe"] == "us_large" and "us_large" not in str(eras[:2])
    pools = [(set(pool), pool["allowed_named_universes"]) for pool in eras[2]["signal_pools"]]
    assert pools == [({"id", "name", "allowed_named_universes"}, ["us_large"])] * 2


def test_one_invite_is_for_one_of_many(service, state):
    code, outcomes = invite(state), []

    def attempt(number):
        try:
            outcomes.append(sign_in(service, f"0x{number:064x}", code).get_wallet_address())
        except auth.RegistrationError:
            outcomes.append(None)

    threads = [threading.Thread(target=attempt, args=(n,)) for n in range(100, 108)]
    [t.start() for t in threads], [t.join() for t in threads]
    assert len(outcomes) == 8 and len([o for o in outcomes if o]) == 1


def test_a_challenge_works_once(service):
    manager = auth.AuthManager(OTHER, service.url)
    body = {"public_key": manager._public_key}
    for forge, code in ((True, "bad_signature"), (False, "unknown_wallet")):
        body["challenge"] = post(service, "/auth/challenge", json=body).json()["challenge"]
        proof = manager._key.sign(auth.signed_message(body["challenge"] + "!" * forge), ec.ECDSA(hashes.SHA256()))
        body["signature"] = proof.hex()
        codes = [post(service, "/auth/login", json=body).json()["code"] for _ in range(2)]
        assert codes == [code, "bad_challenge"]


POINT = "02" + "79be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"


@pytest.mark.parametrize(
    ("path", "request_", "status"),
    [
        ("/auth/challenge", {"content": b""}, 422),
        ("/auth/challenge", {"content": b"{"}, 422),
        ("/auth/challenge", {"content": b'{"public_key": "\xff"}'}, 400),
        ("/auth/challenge", {"content": b"[" * 50_000}, 400),
        ("/auth/challenge", {"content": b"9" * 6000}, 400),
        ("/auth/challenge/", {"json": {}}, 404),
        ("/auth/challenge", {"json": []}, 422),
        ("/auth/challenge", {"json": {"public_key": 5}}, 422),
        ("/auth/challenge", {"json": {"public_key": "02" + "00" * 32}}, 422),
        ("/auth/challenge", {"content": b'{"public_key": "\\ud800"}'}, 422),
        ("/auth/challenge", {"content": b" " * 70_000}, 413),
        ("/auth/challenge", {"content": iter([b" " * 40_000] * 2)}, 413),
        ("/auth/login", {"json": {"public_key": POINT}}, 422),
        ("/auth/login", {"json": {"public_key": POINT, "challenge": "0" * 64, "signature": "30" * 40}}, 401),
        ("/auth/register", {"json": {"public_key": POINT, "invite_code": "x" * 100}}, 422),
        ("/nowhere", {}, 404),
        ("/wallet", {}, 405),
    ],
)
def test_malformed_requests_get_a_4xx_with_json(service, path, request_, status):
    headers = {"Content-Type": "application/json"}
    answer = post(service, path, headers=headers, **request_)
    assert answer.status_code == status and set(answer.json()) == {"error", "code"}


def test_tokens_and_challenges_run_out(tmp_path, monkeypatch):
    with running(tmp_path, "--challenge-seconds", "0") as service:
        monkeypatch.setenv("SSL_CERT_FILE", str(tmp_path / "ca.pem"))
        with pytest.raises(auth.AuthError, match="expired"):
            sign_in(service)
    with running(tmp_path, "--token-seconds", "4.5") as service:
        manager = sign_in(service, code=invite(tmp_path))
        first = manager.get_token()
        assert manager.get_token() == first
        time.sleep(2)
        assert manager.get_token() != first  # early enough for the first to be still good
        assert wallet(service, "Bearer " + first).status_code == 200 and manager.get_token_expiry() > time.time() + 3
        time.sleep(3)
        assert wallet(service, "Bearer " + first).status_code == 401


def test_what_was_acknowledged_survives_a_kill(tmp_path, monkeypatch):
    with running(tmp_path) as service:
        monkeypatch.setenv("SSL_CERT_FILE", str(tmp_path / "ca.pem"))
        code = invite(tmp_path)
        address = sign_in(service, code=code).get_wallet_address()
        service.send_signal(signal.SIGKILL)
        service.wait()
        with pytest.raises(ConnectionError, match="cannot be reached"):
            sign_in(service)
    assert rows(tmp_path, "SELECT used_by FROM invites") == [(address,)]
    with running(tmp_path) as service:
        assert sign_in(service).get_wallet_address() == address
        post(service, "/auth/challenge", json={})
        service.send_signal(signal.SIGTERM)
        assert service.wait(10) == 0
    with running(tmp_path) as service:
        service.send_signal(signal.SIGINT)
        assert service.wait(10) == 0
    assert oct(tmp_path.stat().st_mode)[-3:] == oct((tmp_path / "ca.key").stat().st_mode | 0o100)[-3:] == "700"


def test_an_unknown_authority_is_not_trusted(service, tmp_path, monkeypatch):
    monkeypatch.delenv("SSL_CERT_FILE")
    with pytest.raises(ConnectionError, match="CERTIFICATE_VERIFY_FAILED"):
        sign_in(service)


def test_a_taken_port_is_a_clear_error(tmp_path):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = str(taken.getsockname()[1])
        done = subprocess.run([*COMMAND, "serve", "--port", port, "--state", tmp_path], capture_output=True, text=True)
    assert done.returncode == 1 and f"cannot listen on 127.0.0.1:{port}" in done.stderr


def test_a_directory_open_to_others_is_refused(tmp_path):
    tmp_path.chmod(0o755)
    done = subprocess.run([*COMMAND, "invite", "--state", tmp_path], capture_output=True, text=True)
    assert done.returncode == 1 and "open to other users" in done.stderr and not list(tmp_path.iterdir())


@pytest.mark.parametrize(
    ("body", "encoding"),
    [
        (b"{}", "identity"),
        (b'{"challenge": null}', "identity"),
        ('{"challenge": "é"}'.encode(), "identity"),
        (b"[" * 100_000, "identity"),
        (b"oops", "gzip"),
        (b'{"token": null, "expires_at": 5}', "identity"),
        (b'{"token": "t", "expires_at": NaN}', "identity"),
        (b'{"token": "t", "expires_at": 1%s}' % (b"0" * 400), "identity"),
    ],
)
def test_answers_that_make_no_sense(body, encoding):
    class Answers(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            self.rfile.read(int(self.headers["Content-Length"]))
            self.send_response(200)
            self.send_header("Content-Encoding", encoding)
            self.end_headers()
            is_first = self.path == "/auth/challenge" and b"token" in body
            self.wfile.write(b'{"challenge": "ab"}' if is_first else body)

        def log_message(self, *args):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Answers) as server:
        threading.Thread(target=server.serve_forever, args=(0.05,), daemon=True).start()
        with pytest.raises(auth.AuthError, match="The service's answer"):
            auth.AuthManager(KEY, f"http://127.0.0.1:{server.server_port}").authenticate()
        server.shutdown()


def test_keys_do_not_show():
    manager = auth.AuthManager(KEY, "https://localhost")
    assert KEY[2:] not in repr(manager) and KEY[2:] not in str(vars(manager))
    with pytest.raises(TypeError, match="cannot be pickled"):
        pickle.dumps(manager)
    for bad in (
        "0x",
        "0x5",
        "11" * 32,
        "zz" + "11" * 32,
        "0x" + "g" * 64,
        "0x" + "0" * 64,
        "0x" + "f" * 64,
        "0x" + "1" * 65,
    ):
        with pytest.raises(auth.InvalidKeyError) as info:
            auth.AuthManager(bad, "https://localhost")
        assert len(bad) < 5 or bad[2:] not in str(info.value)


def test_invite_codes_and_addresses():
    assert auth._normalize_invite_code(" corv-2222-abcd-zzzz\n") == "CORV-2222-ABCD-ZZZZ"
    for bad in (None, 5, "", " ", "CORV", "CORV-2222-ABCD-ZZZO", "CORV-2222-ABCD-ZZZZ-2222", "\udc80"):
        assert auth._normalize_invite_code(bad) is None
    for good in ("https://a.example:8443/api//", "https://a", "http://127.0.0.1:1", "http://localhost", "http://[::1]"):
        assert auth._validate_server_url(good) == good.rstrip("/")
    wrong = ["", "a.example", "http://a.example", "ftp://a", "https://", "https://u@a", "https://a:x", "https://[::1"]
    wrong += [
        "https://a?q",
        "https://a?",
        "https://a#f",
        "https://a#",
        "https://a b",
        " https://a",
        "https://a\n.example",
    ]
    for bad in wrong:
        with pytest.raises(ValueError, match="server_url must"):
            auth._validate_server_url(bad)

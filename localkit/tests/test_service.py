"""The local service from outside: what it grants, what it refuses, and what it stands."""

import concurrent.futures
import contextlib
import json
import signal
import socket
import ssl
import time
from hashlib import sha256

import httpx
import pytest
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec

from corvane import auth

BOGUS = {"challenge": "0" * 64, "signature": "30" * 40}
POINT = "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"
PROTECTED = ["/wallet", "/eras", "/runtime/manifest", "/runtime/files/era_config.json"]


def test_sign_up_and_in(service):
    code = service.command("invite")[0]
    first, again = service.sign_in(1, code.lower()), service.sign_in(1)
    token, address = first.get_token(), first.get_wallet_address()
    assert again.get_wallet_address() == address == service.get("/wallet", token).json()["address"]
    assert again.get_token() != token and abs(first.get_token_expiry() - time.time() - 3600) < 60
    service.sign_up(1)  # known already: the second invite is not used up
    assert len(service.rows("SELECT * FROM invites WHERE used_by IS NULL")) == 1
    assert token not in str(service.rows("SELECT * FROM tokens"))
    for wrong, message in ((code, "has been used"), ("CORV-2222-2222-2222", "unknown"), ("junk!", "malformed: invite")):
        with pytest.raises(auth.RegistrationError, match=message):
            service.sign_in(2, wrong)
    with pytest.raises(auth.AuthError, match="not registered"):
        service.sign_in(2)
    for header in ("", "Bearer", "Bearer x", "Bearer \xff", token, "Basic " + token):
        for path in PROTECTED:
            answer = service.client.get(path, headers={"Authorization": header.encode("latin-1")})
            assert answer.status_code == 401 and answer.json()["code"] == "bad_token"


def test_one_invite_is_for_one_of_many(service):
    code = service.command("invite")[0]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        attempts = [pool.submit(service.sign_in, number, code) for number in range(100, 108)]
    errors = [attempt.exception() for attempt in attempts]
    assert errors.count(None) == 1 and sum(isinstance(e, auth.RegistrationError) for e in errors) == 7


def test_a_challenge_works_once(service):
    manager = auth.AuthManager(f"0x{2:064x}", service.url)
    body = {"public_key": manager._public_key}
    for forge, code in (("!", "bad_signature"), ("", "unknown_wallet")):
        body["challenge"] = service.client.post("/auth/challenge", json=body).json()["challenge"]
        message = auth.signed_message(body["challenge"] + forge)
        body["signature"] = manager._key.sign(message, ec.ECDSA(hashes.SHA256())).hex()
        codes = [service.client.post("/auth/login", json=body).json()["code"] for _ in range(2)]
        assert codes == [code, "bad_challenge"]


@pytest.mark.parametrize("path, status, bodies", [
    ("/auth/challenge", 400, [b'{"public_key": "\xff"}', b"[" * 50_000, b"9" * 6000]),
    ("/auth/challenge", 413, [b" " * 70_000, iter([b" " * 40_000] * 2)]),
    ("/auth/challenge", 422, [b"", b"{", b"[]", {"public_key": 5}, {"public_key": "02" + "00" * 32}]),
    ("/auth/challenge", 422, [b'{"public_key": "\\ud800"}']), ("/auth/login", 422, [{"public_key": POINT}]),
    ("/auth/login", 401, [{"public_key": POINT, **BOGUS}]), ("/nowhere", 404, [b""]), ("/wallet", 405, [b""]),
    ("/auth/register", 422, [{"public_key": POINT, "invite_code": "x" * 100}]),
])  # fmt: skip
def test_malformed_requests_get_a_4xx_with_json_as_described(service, path, status, bodies):
    described = service.client.get("/openapi.json").json()["paths"].get(path, {}).get("post")
    assert described is None or (str(status) in described["responses"] and described["summary"])
    for body in bodies:
        content = json.dumps(body) if isinstance(body, dict) else body
        answer = service.client.post(path, headers={"Content-Type": "application/json"}, content=content)
        assert answer.status_code == status and set(answer.json()) == {"error", "code"}


def test_runtime_files_whole_and_in_part(service):
    token = service.sign_up(3).get_token()
    manifest = service.get("/runtime/manifest", token).json()
    for path, entry in manifest["files"].items():
        whole, digest = service.get(f"/runtime/files/{path}", token), entry["sha256"]
        assert sha256(whole.content).hexdigest() == digest and whole.headers["ETag"] == f'"{digest}"'
        assert len(whole.content) == entry["size"] and ("platform" in entry) == path.endswith(".so")
        for asked, etag, status, content in (
            ("bytes=100-", digest, 206, whole.content[100:]), ("bytes=5-9", digest, 206, whole.content[5:10]),
            ("bytes=100-", "other", 200, whole.content), (f"bytes={entry['size']}-", digest, 416, None),
            ("lines=1-", digest, 400, None),
        ):  # fmt: skip
            answer = service.get(f"/runtime/files/{path}", token, Range=asked, **{"If-Range": f'"{etag}"'})
            assert answer.status_code == status and content in (None, answer.content)
    wrong = ["", "manifest.json", "%2e%2e/service.db", "..%2fservice.db", "/etc/passwd", "era_config.json%00", "%ff"]
    for path in [*wrong, "runtime//era_data.so", "%2e/era_config.json", "era_config.json/", "x" * 9000, digest]:
        assert service.get(f"/runtime/files/{path}", token).status_code == 404
    assert [service.command("publish", "--backtester", build) for build in "2211"] == [["2"], ["2"], ["3"], ["3"]]
    assert service.get("/runtime/manifest", token).json() == manifest | {"version": 3}


def test_failures_are_limited_for_each_key_and_address(start):
    def fail(number, client=None):
        body = {"public_key": auth.AuthManager(f"0x{number:064x}", service.url)._public_key, **BOGUS}
        forwarded = {"X-Forwarded-For": f"10.0.0.{number}"}  # which anybody may write
        return (client or service.client).post("/auth/login", json=body, headers=forwarded)

    with start() as service:
        service.sign_up(1)
        for _ in range(2):
            assert [fail(1).status_code for _ in range(9)] == [401] * 9
            service.sign_in(1)  # which forgives
        answers = [fail(2) for _ in range(12)]
        assert [answer.status_code for answer in answers] == [401] * 10 + [429] * 2
        assert 1 <= int(answers[-1].headers["Retry-After"]) <= 6
        service.sign_in(1)
        with pytest.raises(auth.AuthBusyError, match="Too many failures"):
            service.sign_in(2)
        codes = [fail(10 + n // 8).status_code for n in range(320)]
        assert codes.index(429) > 250 and codes[290:].count(429) > 10  # while no key has failed too often
        elsewhere = httpx.HTTPTransport(ssl.create_default_context(), local_address="127.0.0.2")
        with httpx.Client(transport=elsewhere, base_url=service.url) as client:
            assert fail(3, client).status_code == 401


GET, POST, DRIP = b"GET /health HTTP/1.1\r\nHost: x\r\n", b"POST /auth/login HTTP/1.1\r\nHost: x\r\n", [b" "] * 300
BROKEN = {
    "silent": (b"", [], b""),
    "slow head": (GET, [b"x"] * 300, b""),
    "slow body": (POST + b"Content-Length: 400\r\n\r\n", DRIP, b""),
    "slow chunks": (POST + b"Transfer-Encoding: chunked\r\n\r\n", [b"1\r\n \r\n"] * 300, b""),
    "drip after an answer": (POST + b"Content-Length: 99999999\r\n\r\n" + b" " * 70_000, DRIP, b"413"),
    "endless head": (GET + b"X: ", [b"y" * 4000] * 9, b"400"),
    "bad length": (POST + b"Content-Length: -5\r\n\r\n", [], b"400"),
    "bad chunk": (POST + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", [], b"400"),
    "upgrade": (GET + b"Connection: upgrade\r\nUpgrade: websocket\r\n\r\n", [], b"200"),
    "tunnel": (b"CONNECT x:1 HTTP/1.1\r\nHost: x\r\n\r\n", [], b"404"),
}


def test_slow_and_broken_clients_are_cut_off_and_block_nobody(start):
    def status_of(head, pieces, _):
        received, ends, pieces = b"", time.monotonic() + 20, iter([head, *pieces])
        with trust.wrap_socket(socket.create_connection(address), server_hostname="127.0.0.1") as client:
            client.settimeout(0.02)
            while True:
                assert time.monotonic() < ends, "it was not cut off"
                try:
                    client.sendall(next(pieces, b""))
                    data = client.recv(65536)
                except TimeoutError:
                    continue
                except OSError:
                    data = b""
                if not data:
                    return received[9:12]  # behind HTTP/1.1
                received += data

    with start("--exchange-seconds", "3") as service, contextlib.ExitStack() as stack:
        address, trust = ("127.0.0.1", int(service.url.rpartition(":")[2])), ssl.create_default_context()
        half_open = [stack.enter_context(socket.create_connection(address)) for _ in range(1200)]
        half_open[0].sendall(GET + b"\r\n")  # no TLS
        with concurrent.futures.ThreadPoolExecutor(len(BROKEN)) as pool:
            statuses = {name: pool.submit(status_of, *case) for name, case in BROKEN.items()}
            while not all(status.done() for status in statuses.values()):  # a blocked request waits for all of them
                assert httpx.get(service.url + "/health", verify=trust).elapsed.total_seconds() < 5
        assert {name: status.result() for name, status in statuses.items()} == {
            name: case[2] for name, case in BROKEN.items()
        }
        assert half_open[0].recv(100) == b""


def test_tokens_and_challenges_run_out(start):
    with start("--challenge-seconds", "0") as service, pytest.raises(auth.AuthError, match="expired"):
        service.sign_in(1)
    with start("--token-seconds", "4.5") as service:
        manager = service.sign_up(1)
        first = manager.get_token()
        assert manager.get_token() == first
        time.sleep(2)
        assert manager.get_token() != first and service.get("/wallet", first).status_code == 200  # renewed early
        time.sleep(3)
        assert service.get("/wallet", first).status_code == 401


def test_what_was_acknowledged_survives_a_kill_under_load(start, tmp_path):
    acknowledged = {}

    def register(number, code):
        manager = service.sign_in(number, code)
        acknowledged[manager.get_wallet_address()] = (code, manager.get_token())
        if len(acknowledged) == 40:
            service.process.kill()

    with start() as service:
        codes = service.command("invite", "--count", "200")
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            attempts = [pool.submit(register, n, code) for n, code in enumerate(codes, 1)]
        assert {type(attempt.exception()) for attempt in attempts} == {type(None), ConnectionError}
    with start() as service:
        used = dict(service.rows("SELECT used_by, code FROM invites WHERE used_by IS NOT NULL"))
        assert {address for (address,) in service.rows("SELECT address FROM wallets")} == set(used) >= set(acknowledged)
        assert service.rows("PRAGMA integrity_check") == [("ok",)]
        for address, (code, token) in acknowledged.items():
            assert used[address] == code and service.get("/wallet", token).json()["address"] == address
        service.client.close()
        service.process.send_signal(signal.SIGTERM)
        assert service.process.wait(10) == 0
    assert [path.stat().st_mode & 0o777 for path in (tmp_path, tmp_path / "ca.key")] == [0o700, 0o600]

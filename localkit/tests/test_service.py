"""The local service from outside: what it grants, what it refuses, and what it stands."""

import concurrent.futures
import contextlib
import json
import signal
import socket
import ssl
import subprocess
import sys
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
    assert first.get_wallet_address() == again.get_wallet_address()
    assert first.get_token() != again.get_token() and abs(first.get_token_expiry() - time.time() - 3600) < 60
    service.sign_up(1)  # known already: the second invite is not used up
    assert len(service.rows("SELECT * FROM invites WHERE used_by IS NULL")) == 1
    for wrong, message in ((code, "has been used"), ("CORV-2222-2222-2222", "unknown"), ("junk!", "malformed: invite")):
        with pytest.raises(auth.RegistrationError, match=message):
            service.sign_in(2, wrong)
    with pytest.raises(auth.AuthError, match="not registered") as info:
        service.sign_in(2)
    assert type(info.value) is auth.AuthError
    assert service.get("/wallet", first.get_token()).json()["address"] == first.get_wallet_address()
    assert first.get_token() not in str(service.rows("SELECT * FROM tokens"))
    eras = service.get("/eras", first.get_token()).json()["eras"]
    assert [(era["era_id"], era["state"]) for era in eras] == [(1, "closed"), (2, "closed"), (3, "active")]
    pools = [(set(pool), pool["allowed_named_universes"]) for pool in eras[2]["signal_pools"]]
    assert pools == [({"id", "name", "allowed_named_universes"}, ["us_large"])] * 2
    for header in ("", "Bearer", "Bearer x", "Bearer \xff", first.get_token(), "Basic " + first.get_token()):
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
    for forge, code in ((True, "bad_signature"), (False, "unknown_wallet")):
        body["challenge"] = service.client.post("/auth/challenge", json=body).json()["challenge"]
        proof = manager._key.sign(auth.signed_message(body["challenge"] + "!" * forge), ec.ECDSA(hashes.SHA256()))
        body["signature"] = proof.hex()
        codes = [service.client.post("/auth/login", json=body).json()["code"] for _ in range(2)]
        assert codes == [code, "bad_challenge"]


def test_malformed_requests_get_a_4xx_with_json_as_described(service):
    described = service.client.get("/openapi.json").json()["paths"]
    for path, status, bodies in (
        ("/auth/challenge", 400, [b'{"public_key": "\xff"}', b"[" * 50_000, b"9" * 6000]),
        ("/auth/challenge", 413, [b" " * 70_000, iter([b" " * 40_000] * 2)]),
        ("/auth/challenge", 422, [b"", b"{", b"[]", {"public_key": 5}, {"public_key": "02" + "00" * 32}]),
        ("/auth/challenge", 422, [b'{"public_key": "\\ud800"}']),
        ("/auth/login", 422, [{"public_key": POINT}]),
        ("/auth/login", 401, [{"public_key": POINT, **BOGUS}]),
        ("/auth/register", 422, [{"public_key": POINT, "invite_code": "x" * 100}]),
        ("/nowhere", 404, [b""]),
        ("/wallet", 405, [b""]),
    ):
        for body in bodies:
            content = json.dumps(body) if isinstance(body, dict) else body
            answer = service.client.post(path, headers={"Content-Type": "application/json"}, content=content)
            assert answer.status_code == status and set(answer.json()) == {"error", "code"}
            operation = described.get(path, {}).get("post")
            assert operation is None or (str(status) in operation["responses"] and operation["summary"])


def test_runtime_files_whole_and_in_part(service):
    token = service.sign_up(3).get_token()
    manifest = service.get("/runtime/manifest", token).json()
    assert (manifest["era_id"], manifest["version"], len(manifest["files"])) == (3, 1, 4)
    for path, entry in manifest["files"].items():
        whole, digest = service.get(f"/runtime/files/{path}", token), entry["sha256"]
        assert sha256(whole.content).hexdigest() == digest and whole.headers["ETag"] == f'"{digest}"'
        assert len(whole.content) == entry["size"] and ("platform" in entry) == path.endswith(".so")
        for headers, status, content in (
            ({"Range": "bytes=100-", "If-Range": f'"{digest}"'}, 206, whole.content[100:]),
            ({"Range": "bytes=5-9"}, 206, whole.content[5:10]),
            ({"Range": "bytes=100-", "If-Range": '"other"'}, 200, whole.content),
            ({"Range": f"bytes={entry['size']}-"}, 416, None),
            ({"Range": "lines=1-"}, 400, None),
        ):
            answer = service.get(f"/runtime/files/{path}", token, **headers)
            assert answer.status_code == status and content in (None, answer.content)
    wrong = ["", "manifest.json", "%2e%2e/service.db", "..%2fservice.db", "/etc/passwd", "era_config.json%00", "%ff"]
    for path in [*wrong, "runtime//era_data.so", "%2e/era_config.json", "era_config.json/", "x" * 9000, digest]:
        assert service.get(f"/runtime/files/{path}", token).status_code == 404
    assert [service.command("publish", "--backtester", build) for build in "2211"] == [["2"], ["2"], ["3"], ["3"]]
    files = manifest["files"]
    assert service.get("/runtime/manifest", token).json() == {"era_id": 3, "version": 3, "files": files}


def test_failures_are_limited_for_each_key_and_address(start):
    def fail(number, **headers):
        body = {"public_key": auth.AuthManager(f"0x{number:064x}", service.url)._public_key, **BOGUS}
        return service.client.post("/auth/login", json=body, headers=headers)

    with start() as service:
        service.sign_up(1)
        for _ in range(2):
            assert [fail(1).status_code for _ in range(9)] == [401] * 9
            service.sign_in(1)  # which forgives
        answers = [fail(2, **{"X-Forwarded-For": f"10.0.0.{n}"}) for n in range(12)]
        assert [answer.status_code for answer in answers] == [401] * 10 + [429] * 2
        assert 1 <= int(answers[-1].headers["Retry-After"]) <= 6
        service.sign_in(1)
        with pytest.raises(auth.AuthBusyError, match="Too many failures"):
            service.sign_in(2)
        codes = [fail(10 + n // 8, **{"X-Forwarded-For": f"10.0.0.{n}"}).status_code for n in range(320)]
        assert codes.index(429) > 250 and codes[290:].count(429) > 10  # while no key has failed too often
        elsewhere = httpx.HTTPTransport(ssl.create_default_context(), local_address="127.0.0.2")
        with httpx.Client(transport=elsewhere, base_url=service.url) as service.client:
            assert fail(3).status_code == 401


POST = b"POST /auth/login HTTP/1.1\r\nHost: x\r\n"
DRIP = [b" "] * 300
BROKEN = {
    "silent": (b"", [], b""),
    "slow head": (b"GET /health HTTP/1.1\r\n", [b"x"] * 300, b""),
    "slow body": (POST + b"Content-Length: 400\r\n\r\n", DRIP, b""),
    "slow chunks": (POST + b"Transfer-Encoding: chunked\r\n\r\n", [b"1\r\n \r\n"] * 300, b""),
    "drip after an answer": (POST + b"Content-Length: 99999999\r\n\r\n" + b" " * 70_000, DRIP, b"413"),
    "no host": (b"GET /health HTTP/1.1\r\n\r\n", [], b"400"),
    "endless head": (b"GET /health HTTP/1.1\r\nHost: x\r\nX: ", [b"y" * 4000] * 9, b"400"),
    "bad length": (POST + b"Content-Length: -5\r\n\r\n", [], b"400"),
    "bad chunk": (POST + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", [], b"400"),
    "upgrade": (b"GET /health HTTP/1.1\r\nHost: x\r\nConnection: upgrade\r\nUpgrade: websocket\r\n\r\n", [], b"200"),
    "other form": (b"GET http://x/health HTTP/1.1\r\nHost: x\r\n\r\n", [], b"404"),
    "tunnel": (b"CONNECT x:1 HTTP/1.1\r\nHost: x\r\n\r\n", [], b"404"),
}


def test_slow_and_broken_clients_are_cut_off_and_block_nobody(start):
    def talk(head, pieces, status):
        received, began, pieces = b"", time.monotonic(), iter([head, *pieces])
        with trust.wrap_socket(socket.create_connection(address), server_hostname="127.0.0.1") as client:
            client.settimeout(0.02)
            while time.monotonic() - began < 25:
                try:
                    client.sendall(next(pieces, b""))
                    if not (data := client.recv(65536)):
                        break
                    received += data
                except TimeoutError:
                    pass
                except OSError:
                    break
        return received.split(b" ")[1] if received else b"", time.monotonic() - began

    with start("--exchange-seconds", "2") as service, contextlib.ExitStack() as stack:
        address, trust = ("127.0.0.1", int(service.url.rpartition(":")[2])), ssl.create_default_context()
        half_open = [stack.enter_context(socket.create_connection(address)) for _ in range(1200)]
        half_open[0].sendall(b"GET /health HTTP/1.1\r\nHost: x\r\n\r\n")  # no TLS
        with concurrent.futures.ThreadPoolExecutor(len(BROKEN)) as pool:
            talks = {name: pool.submit(talk, *case) for name, case in BROKEN.items()}
            while not all(outcome.done() for outcome in talks.values()):
                assert (
                    httpx.get(service.url + "/health", verify=trust).elapsed.total_seconds() < 5
                )  # a blocked one waits for all of them
        outcomes = {name: outcome.result() for name, outcome in talks.items()}
        assert {n: status for n, (status, _) in outcomes.items()} == {n: status for n, (_, _, status) in BROKEN.items()}
        assert max(seconds for _, seconds in outcomes.values()) < 20
        assert half_open[0].recv(100) == b""


def test_tokens_and_challenges_run_out(start):
    with start("--challenge-seconds", "0") as service, pytest.raises(auth.AuthError, match="expired"):
        service.sign_in(1)
    with start("--token-seconds", "4.5") as service:
        manager = service.sign_up(1)
        first = manager.get_token()
        assert manager.get_token() == first
        time.sleep(2)
        assert manager.get_token() != first  # early enough for the first to be still good
        assert service.get("/wallet", first).status_code == 200 and manager.get_token_expiry() > time.time() + 3
        time.sleep(3)
        assert service.get("/wallet", first).status_code == 401


def test_what_was_acknowledged_survives_a_kill_under_load(start, tmp_path):
    acknowledged = {}

    def register(number, code):
        manager = service.sign_in(number, code)
        acknowledged[manager.get_wallet_address()] = (number, code, manager.get_token())
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
        for address, (_, code, token) in acknowledged.items():
            assert used[address] == code and service.get("/wallet", token).json()["address"] == address
        service.sign_in(acknowledged.popitem()[1][0])
        service.client.close()
        service.process.send_signal(signal.SIGTERM)
        assert service.process.wait(10) == 0
    assert oct(tmp_path.stat().st_mode)[-3:] == oct((tmp_path / "ca.key").stat().st_mode | 0o100)[-3:] == "700"


def test_a_taken_port_and_an_open_directory_are_clear_errors(service, tmp_path):
    def outcome(*options):
        done = subprocess.run([sys.executable, "-m", "corvane_local", *options], capture_output=True, text=True)
        return done.returncode, done.stderr

    port = service.url.rpartition(":")[2]
    message = f"Error: cannot listen on 127.0.0.1:{port}: Address already in use. Try --port 0.\n"
    assert outcome("serve", "--port", port, "--state", tmp_path / "state") == (1, message)
    tmp_path.chmod(0o755)
    code, message = outcome("invite", "--state", tmp_path)
    assert code == 1 and "open to other users" in message

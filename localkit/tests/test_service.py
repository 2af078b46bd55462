"""The local service, sign-in and syncs: what is granted and refused, and what survives breaks, kills and bad bytes."""

import concurrent.futures
import contextlib
import json
import os
import pickle
import shutil
import signal
import socket
import ssl
import sys
import threading
import time
from hashlib import sha256
from types import SimpleNamespace

import pytest
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec

from corvane import auth, errors
from corvane.sync import SyncManager
from corvane.sync_backoff import ServiceBusy, SyncBackoff, SyncBackoffCancelled
from corvane_local.store import Store

ANYBODY = SimpleNamespace(get_token=lambda: "token")


def test_sign_up_and_in(service, monkeypatch):
    code = service.invite()
    first, again = service.sign_in(1, f" {code.lower()}\n"), service.sign_in(1)
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
        for path in ("/wallet", "/eras", "/runtime/manifest", "/runtime/files/era_config.json"):
            answer = service.client.get(path, headers={"Authorization": header.encode("latin-1")})
            assert answer.status_code == 401 and answer.json()["code"] == "bad_token"
    monkeypatch.delenv("SSL_CERT_FILE")
    with pytest.raises(ConnectionError, match="CERTIFICATE_VERIFY_FAILED"):
        service.sign_in(1)


def test_a_challenge_works_once(service):
    manager = auth.AuthManager(f"0x{2:064x}", service.url)
    body = {"public_key": manager._public_key}
    for forge, code in (("!", "bad_signature"), ("", "unknown_wallet")):
        body["challenge"] = service.client.post("/auth/challenge", json=body).json()["challenge"]
        message = auth.signed_message(body["challenge"] + forge)
        body["signature"] = manager._key.sign(message, ec.ECDSA(hashes.SHA256())).hex()
        codes = [service.client.post("/auth/login", json=body).json()["code"] for _ in range(2)]
        assert codes == [code, "bad_challenge"]


def test_keys_do_not_show_and_go_nowhere_else():
    key = "11" * 32
    manager = auth.AuthManager("0x" + key, "https://localhost")
    assert key not in repr(manager) + str(vars(manager))
    with pytest.raises(TypeError, match="cannot be pickled"):
        pickle.dumps(manager)
    for bad in (key, "zz" + key, "0x" + "g" * 64, "0x" + "0" * 64, "0x" + "f" * 64, "0x" + "1" * 65):
        with pytest.raises(auth.InvalidKeyError) as info:
            auth.AuthManager(bad, "https://localhost")
        assert bad[2:] not in str(info.value)
    for good in ("https://a.example:8443/api//", "http://127.0.0.1:1", "http://localhost", "http://[::1]"):
        assert auth._validate_server_url(good) == good.rstrip("/")
    for bad in ("", "http://a.example", "ftp://a", "https://", "https://u@a", "https://a?", "https://a b"):
        with pytest.raises(ValueError, match="server_url must"):
            auth._validate_server_url(bad)


def test_only_what_is_published_is_served(service):
    token = service.sign_up(3).get_token()
    manifest = service.get("/runtime/manifest", token).json()
    for path in ("", "manifest.json", "%2e%2e/service.db", "/etc/passwd", "era_config.json%00", "%ff", "x" * 9000):
        assert service.get(f"/runtime/files/{path}", token).status_code == 404
    assert [service.command("publish", "--backtester", build) for build in "2211"] == ["2", "2", "3", "3"]
    assert service.get("/runtime/manifest", token).json() == manifest | {"version": 3}
    for status, body in (400, b"[" * 50_000), (413, b" " * 70_000), (413, iter([b" " * 40_000] * 2)), (422, b"{}"):
        answer = service.client.post("/auth/challenge", content=body, headers={"Content-Type": "application/json"})
        assert answer.status_code == status and answer.json().keys() == {"error", "code"}


def test_failures_are_limited_for_each_key_and_address(start):
    def fail(number):
        key = auth.AuthManager(f"0x{number:064x}", service.url)._public_key
        body = {"public_key": key, "challenge": "0" * 64, "signature": "30" * 40}
        return service.client.post("/auth/login", json=body).status_code

    with start() as service:
        service.sign_up(1)
        for _ in range(2):
            assert [fail(1) for _ in range(9)] == [401] * 9
            service.sign_in(1)  # which forgives
        assert [fail(2) for _ in range(12)] == [401] * 10 + [429] * 2
        with pytest.raises(auth.AuthBusyError, match=r"try again in [1-6] s"):
            service.sign_in(2)
        codes = [fail(10 + n // 8) for n in range(320)]
        assert codes.index(429) > 250 and codes[290:].count(429) > 10  # while no key has failed too often


def test_slow_clients_are_cut_off_and_block_nobody(start):
    with start("--exchange-seconds", "3") as service, contextlib.ExitStack() as stack:
        address = "127.0.0.1", int(service.url.rpartition(":")[2])
        for _ in range(1200):
            stack.enter_context(socket.create_connection(address))  # and no TLS
        slow = ssl.create_default_context().wrap_socket(socket.create_connection(address), server_hostname=address[0])
        stack.enter_context(slow).sendall(b"POST /auth/login HTTP/1.1\r\nHost: x\r\nContent-Length: 9999\r\n\r\n")
        began = time.monotonic()
        with pytest.raises(OSError):
            while time.monotonic() - began < 10:
                slow.sendall(b" ")
                assert service.client.get("/health").elapsed.total_seconds() < 3
        assert time.monotonic() - began < 9


def test_tokens_run_out(start):
    with start("--token-seconds", "4.5") as service:
        manager = service.sign_up(1)
        first = manager.get_token()
        assert manager.get_token() == first
        time.sleep(2)
        assert manager.get_token() != first and service.get("/wallet", first).status_code == 200  # renewed early
        time.sleep(3)
        assert service.get("/wallet", first).status_code == 401


def test_what_was_acknowledged_survives_a_kill_under_load(start):
    acknowledged = {}

    def register(number, code):
        manager = service.sign_in(number, code)
        acknowledged[manager.get_wallet_address()] = (code, manager.get_token())
        if len(acknowledged) == 40:
            service.process.kill()

    with start() as service:
        codes = service.command("invite", "--count", "100").split() * 2  # everybody wants one that another wants, too
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            attempts = [pool.submit(register, n, code) for n, code in enumerate(sorted(codes), 1)]
        raised = {type(attempt.exception()) for attempt in attempts}
        assert raised == {type(None), auth.RegistrationError, ConnectionError}
    with start() as service:
        used = dict(service.rows("SELECT used_by, code FROM invites WHERE used_by IS NOT NULL"))
        assert {address for (address,) in service.rows("SELECT address FROM wallets")} == set(used) >= set(acknowledged)
        for address, (code, token) in acknowledged.items():
            assert used[address] == code and service.get("/wallet", token).json()["address"] == address


def stored(service, content):
    return service.state / "files" / sha256(content).hexdigest()


def publish(service, files):
    listed = {}
    for path, content in files.items():
        listed[path] = {"kind": "any", "sha256": sha256(content).hexdigest(), "size": len(content)}
        stored(service, content).write_bytes(content)
    return Store(service.state / "service.db").publish("1", listed)


def checked_manifest(home):
    """What manifest.json names is there, and as it says."""
    manifest = json.loads((home / "manifest.json").read_bytes())
    for path, entry in manifest["files"].items():
        assert sha256((home / path).read_bytes()).hexdigest() == entry["sha256"], path
    return manifest


def test_a_cut_download_is_resumed(start, tmp_path):
    home, files = tmp_path / "home", {"runtime/big": os.urandom(1 << 20) * 64, "era_config.json": b"{}"}
    part = home / "runtime/big.part"
    with start() as service, concurrent.futures.ThreadPoolExecutor() as pool:
        manager = service.sign_up(1)
        publish(service, files)
        outcome = pool.submit(SyncManager(manager, home, service.url).sync)
        while not part.exists() or part.stat().st_size < 100_000:
            time.sleep(0.001)
        service.process.kill()
        with pytest.raises(ConnectionError, match="cannot be reached"):
            outcome.result()
    assert 100_000 <= part.stat().st_size < 1 << 26 and not (home / "manifest.json").exists()
    with start() as service:
        publish(service, files)
        with open(stored(service, files["runtime/big"]), "r+b") as file:
            file.write(b"?" * 100_000)  # what is held already; the rest alone is of use
        syncs = SyncManager(manager, home, service.url)
        assert syncs.request_for_sync() == ["era_config.json", "runtime/big"] and syncs.request_for_sync() == []
        assert syncs.get_manifest() == checked_manifest(home)


@pytest.mark.parametrize("held", [b"", b"new", b"other", b"much longer than it"])
@pytest.mark.parametrize("served", [b"new twO", b"new tw", b"new two" * 999])
def test_a_spoilt_file_is_refused_and_the_old_era_stays(service, tmp_path, served, held):
    syncs = SyncManager(service.sign_up(1), tmp_path, service.url)
    publish(service, {"runtime/a": b"old a", "runtime/b": b"old b"})
    old = syncs.sync()
    publish(service, {"runtime/a": b"new one", "runtime/b": b"new two"})
    stored(service, b"new two").write_bytes(served)
    (tmp_path / "runtime/b.part").write_bytes(held)
    error = errors.RuntimeModuleHashMismatch if len(served) == 7 else errors.RuntimeModuleDownloadIncomplete
    with pytest.raises(error, match="runtime/b: the manifest says"):
        syncs.sync()
    assert checked_manifest(tmp_path) == old
    stored(service, b"new two").write_bytes(b"new two")
    assert syncs.request_for_sync() == ["runtime/a", "runtime/b"] and checked_manifest(tmp_path) != old


def killed_at(step, syncs):
    """Whether a child of this process was killed just before its sync's n-th step that touches a file."""

    def count(event, args):
        nonlocal step
        step -= (touches := event in ("os.rename", "os.remove", "os.truncate") or str(syncs._root) in str(args[:1]))
        if touches and step < 0:
            os.kill(os.getpid(), signal.SIGKILL)

    if (child := os.fork()) == 0:
        try:
            sys.addaudithook(count)
            syncs.sync()
        finally:
            os._exit(0)  # what did not succeed shows in the manifest
    return os.WIFSIGNALED(os.waitpid(child, 0)[1])


def test_a_kill_at_any_step_leaves_a_true_manifest(service, tmp_path):
    home, step, seen = tmp_path / "home", 0, set()
    files = {"runtime/a": b"old", "runtime/b": b"same", "features/c": b"old", "era_config.json": b"old"}
    publish(service, files)
    syncs = SyncManager(service.sign_up(1), home, service.url)
    syncs.sync()
    shutil.copytree(home, tmp_path / "old")
    version = publish(service, files | {"runtime/a": b"new", "era_config.json": b"new", "features/d": b"new"})
    while killed_at(step, syncs):
        seen.add((checked_manifest(home)["version"] == version, len(checked_manifest(home)["files"])))
        assert syncs.sync() == checked_manifest(home)
        shutil.rmtree(home)
        shutil.copytree(tmp_path / "old", home)
        step += 1
    assert step > 20 and seen == {(False, 4), (False, 2), (True, 5)}
    assert checked_manifest(home)["version"] == version and not list(home.rglob("*.part"))


def test_paths_out_of_place_are_refused(planned, tmp_path):
    entry = {"kind": "", "sha256": "0" * 64, "size": 0}
    for path in ("/etc/x", "../x", "runtime/../x", "runtime\\x", "runtime/\0", "wallet.key", "", "runtime/x.part"):
        manifest = {"era_id": 3, "version": 1, "files": {"runtime/fine": entry, path: entry}}
        planned.plan = [(200, {}, json.dumps(manifest).encode())]
        with pytest.raises(ValueError, match="is not allowed"):
            SyncManager(ANYBODY, tmp_path, planned.url).sync()
    assert [p.name for p in tmp_path.iterdir()] == ["sync.lock"]


def test_back_off_waits_as_asked_and_ends_when_told(planned, tmp_path):
    def outcome(backoff, *plan, url=planned.url):
        planned.plan, planned.asked_at[:] = [(status, {"Retry-After": wait}, b"") for status, wait in plan], []
        with pytest.raises((auth.AuthError, ConnectionError, SyncBackoffCancelled)) as info:
            backoff.run(SyncManager(ANYBODY, tmp_path, url).sync)
        return type(info.value), len(planned.asked_at)

    patient = SyncBackoff(base=0.01, cap=2, attempts=3)
    assert outcome(patient, (503, "1"), (500, "junk"), (401, "")) == (auth.AuthError, 3)  # a refusal is final
    first, second, third = planned.asked_at
    assert 1 <= second - first < 1.8 and third - second < 0.8
    assert outcome(patient, (429, "60")) == (ServiceBusy, 1)  # longer than we would wait
    called_off, began = SyncBackoff(cap=60), time.monotonic()
    threading.Timer(0.5, called_off.cancel).start()
    assert outcome(called_off, (503, "60")) == (SyncBackoffCancelled, 1) and 0.4 < time.monotonic() - began < 5

"""The local service, sign-in and syncs: what is granted and refused, and what survives breaks, kills and bad bytes."""

import asyncio
import concurrent.futures
import contextlib
import itertools
import json
import os
import shlex
import shutil
import signal
import socket
import sqlite3
import ssl
import subprocess
import sys
import threading
import time
from datetime import timedelta
from hashlib import sha256
from types import SimpleNamespace

import httpx
import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec

from corvane import auth, errors
from corvane.sync import SyncManager
from corvane.sync_backoff import ServiceBusy, SyncBackoff, SyncBackoffCancelled
from corvane_local import certificates
from corvane_local.app import create_app
from corvane_local.operator_page import Operator
from corvane_local.store import Proof, Store
from localkit.tests.conftest import http, wait_until

ANYBODY = SimpleNamespace(get_token=lambda: "token")


def test_sign_up_and_in(service, monkeypatch):
    code = service.invite()
    first, again = service.sign_in(1, f" {code.lower()}\n"), service.sign_in(1)
    token, address = first.get_token(), first.get_wallet_address()
    assert again.get_wallet_address() == address == "0x0f715baf5d4c2ed329785cef29e562f73488c8a2"
    assert address == service.get("/wallet", token).json()["address"] and again.get_token() != token
    service.sign_up(1)  # known already: the second invite is not used up
    assert len(service.rows("SELECT * FROM invites WHERE used_by IS NULL")) == 1
    assert token not in str(service.rows("SELECT * FROM tokens"))
    for wrong, message in ((code, "has been used"), ("CORV-2222-2222-2222", "unknown"), ("junk!", "malformed: invite")):
        with pytest.raises(auth.RegistrationError, match=message) as refused:
            service.sign_in(2, wrong)
        assert wrong not in str(refused.value)
    with pytest.raises(auth.AuthError, match="not registered"):
        service.sign_in(2)
    for header in ("", "Bearer", "Bearer \xff", token, "Basic " + token):
        for path in ("/wallet", "/eras", "/runtime/manifest", "/runtime/files/era_config.json"):
            answer = service.client.get(path, headers={"Authorization": header.encode("latin-1")})
            assert (answer.status_code, answer.json()["code"]) == (401, "bad_token")
    monkeypatch.delenv("SSL_CERT_FILE")
    with pytest.raises(ConnectionError, match="CERTIFICATE_VERIFY_FAILED"):
        service.sign_in(1)


@pytest.mark.parametrize("path", ["/auth/login", "/auth/register"])
def test_signing_in_takes_the_key_itself_and_a_fresh_challenge_of_it(service, path):
    owner, stranger = (auth.AuthManager(f"0x{number:064x}", service.url) for number in (len(path), 5))
    code = service.invite()

    def challenge():
        return service.client.post("/auth/challenge", json={"public_key": owner._public_key}).json()["challenge"]

    def outcome(text, signer=owner, claimed=owner, message=auth.signed_message):
        signature = signer._key.sign(message(text), ec.ECDSA(hashes.SHA256())).hex()
        body = {"public_key": claimed._public_key, "challenge": text, "signature": signature, "invite_code": code}
        answer = service.client.post(path, json=body)
        assert answer.headers.get("WWW-Authenticate") == ("Bearer" if answer.status_code == 401 else None)
        return answer.json().get("code", "signed in")

    signed_in = "unknown_wallet" if path == "/auth/login" else "signed in"
    good, forged, unprefixed, expired = challenge(), challenge(), challenge(), challenge()
    assert outcome(forged, signer=stranger) == outcome(unprefixed, message=str.encode) == "bad_signature"
    assert outcome(good, stranger, claimed=stranger) == "bad_challenge"  # and good it stays for its own key
    with contextlib.closing(sqlite3.connect(service.state / "service.db", isolation_level=None)) as db:
        db.execute("UPDATE challenges SET expires_at = ? WHERE challenge = ?", (time.time() - 0.1, expired))
    assert outcome(expired) == "bad_challenge" and outcome(good) == signed_in
    assert outcome(forged) == outcome(good) == outcome("0" * 64) == "bad_challenge"  # used, or never given out


SECRET = "5ec1e7" * 11


def test_only_what_is_published_is_served(service):
    token = service.sign_up(3).get_token()
    for path in ("", "manifest.json", "%2e%2e/service.db", "/etc/passwd", "era_config.json%00", "%ff", SECRET):
        answer = service.get(f"/runtime/files/{path}", token)
        assert answer.status_code == 404 and SECRET not in answer.text + str(answer.headers)
    assert [service.command("publish", "--backtester", build) for build in "2211"] == ["2", "2", "3", "3"]


PROOF = {"public_key": "02" + "79be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798", "challenge": "0" * 64}
FULL = PROOF | {"signature": "30" * 40, "invite_code": "CORV-2222-2222-2222"}
REFUSED = [
    (400, b"{"), (400, b"[" * 50_000), (400, b"{\"public_key\": " + b"9" * 5000 + b"}"), (400, b"\xff"),
    (422, b""), (422, b"[]"), (422, {"public_key": SECRET}), (422, {"public_key": "\ud800"}),
    (422, FULL | {"public_key": "02" + "f" * 64}), (422, FULL | {"signature": SECRET + "x"}),
    (422, PROOF | {SECRET: SECRET}), (422, FULL | {"invite_code": SECRET}),
    (413, b" " * 65_537), (413, iter([b" " * 65_536, b" "])), (422, b"{}" + b" " * 65_534),
]  # fmt: skip


@pytest.mark.parametrize(("status", "body"), REFUSED)
def test_a_refusal_says_why_and_repeats_nothing(service, status, body):
    content = json.dumps(body).encode() if isinstance(body, dict) else body
    answer = service.client.post("/auth/register", content=content, headers={"Content-Type": "application/json"})
    assert answer.status_code == status and answer.json().keys() == {"error", "code"}
    assert SECRET not in answer.text + str(answer.headers)


def test_failures_count_for_key_and_client_and_leave_the_owner_alone(start):
    def fail(number, client):
        key = auth.AuthManager(f"0x{number:064x}", service.url)._public_key
        signed = {"public_key": key, "challenge": "0" * 64, "signature": "30" * 40}
        # Whom a client names as the one behind it is not believed.
        answer = client.post("/auth/login", json=signed, headers={"X-Forwarded-For": f"10.0.0.{next(claimed) % 250}"})
        assert ("Retry-After" in answer.headers) == (answer.status_code == 429)
        return answer.status_code

    def client(address):
        transport = httpx.HTTPTransport(local_address=address)
        return stack.enter_context(httpx.Client(base_url=service.url, transport=transport))

    claimed = itertools.count()
    # Slow enough that nothing is forgotten meanwhile, however slow the machine is.
    with start("--failure-seconds", "36000") as service, contextlib.ExitStack() as stack:
        here, there, far = map(client, ("127.0.0.1", "127.0.0.2", "127.0.0.3"))
        service.sign_up(1)
        for _ in range(2):
            assert [fail(1, here) for _ in range(9)] == [401] * 9
            service.sign_in(1)  # which forgives
        assert [fail(1, there) for _ in range(12)] == [401] * 10 + [429] * 2
        service.sign_in(1)  # whoever knows the public key, the owner gets in from elsewhere
        assert [fail(2, here) for _ in range(11)] == [401] * 10 + [429]
        with pytest.raises(auth.AuthBusyError, match=r"try again in 3\d\d\d s"):
            service.sign_in(2)
        codes = [fail(10 + n // 8, far) for n in range(302)]  # while no key has failed too often
        assert codes == [401] * 300 + [429] * 2 and fail(3, here) == 401


def connected(service, stack):
    plain = socket.create_connection(("127.0.0.1", service.client.base_url.port), timeout=20)
    return stack.enter_context(ssl.create_default_context().wrap_socket(plain, server_hostname="127.0.0.1"))


def test_slow_clients_are_cut_off_and_block_nobody(start):
    with start("--exchange-seconds", "3") as service, contextlib.ExitStack() as stack:
        head, body = connected(service, stack), connected(service, stack)
        head.sendall(b"GET / HT")
        body.sendall(b"POST /auth/login HTTP/1.1\r\nHost: x\r\nContent-Length: 9999\r\n\r\n")
        began = time.monotonic()
        with pytest.raises(OSError):
            while time.monotonic() - began < 10:
                body.sendall(b" ")
                assert service.client.get("/health").elapsed.total_seconds() < 3
        with contextlib.suppress(ConnectionError):
            assert head.recv(1) == b""
        token = (service.state / "operator.token").read_text().strip()
        assert service.get("/operator.json", token).json()["connections_cut_off"] == {"too slow": 2}


def test_of_too_many_connections_the_one_that_has_waited_longest_is_closed(start):
    with start("--exchange-seconds", "60") as service, contextlib.ExitStack() as stack:
        first, *_, last = [connected(service, stack) for _ in range(501)]
        with contextlib.suppress(ConnectionError):
            assert first.recv(1) == b""
        last.sendall(b"GET /health HTTP/1.1\r\nHost: x\r\n\r\n")
        assert last.recv(99).startswith(b"HTTP/1.1 200")


def test_nobody_from_elsewhere_finds_the_operators_page(tmp_path):
    app = create_app(Store(tmp_path / "service.db"), tmp_path, 60.0, token := "t" * 43)

    async def statuses(host):
        options = {"base_url": "https://h", "headers": {"Authorization": f"Bearer {token}"}}
        async with httpx.AsyncClient(transport=httpx.ASGITransport(app, client=(host, 1)), **options) as client:
            return [(await client.get(path)).status_code for path in ("/", "/operator.json", "/health")]

    for host, status in {"127.0.0.1": 200, "::1": 200, "10.0.0.7": 404, "a.b": 404}.items():
        assert asyncio.run(statuses(host)) == [status, status, 200]


def test_sessions_of_the_operators_page_end_and_are_few(monkeypatch):
    now = time.monotonic()
    monkeypatch.setattr(time, "monotonic", lambda: now)
    operator = Operator("t" * 43, 60.0)
    sessions = [operator.open_session("here", "t" * 43) for _ in range(101)]
    assert [operator.has_session(one) for one in (sessions[0], sessions[1], "")] == [False, True, False]
    now += 8 * 3600 + 1
    assert not any(map(operator.has_session, sessions))


def test_a_busy_database_is_named_and_no_reader_waits_for_it(service):
    token = service.sign_up(1).get_token()
    with contextlib.closing(sqlite3.connect(service.state / "service.db")) as db:
        db.execute("BEGIN IMMEDIATE")
        assert service.get("/wallet", token).status_code == 200
        answer = service.client.post("/auth/challenge", json=PROOF, timeout=30)
    assert (answer.status_code, answer.headers["Retry-After"], answer.json()["code"]) == (503, "1", "busy")


def test_tokens_run_out(start):
    with start("--token-seconds", "4.5") as service:
        manager = service.sign_up(1)
        first = manager.get_token()
        assert manager.get_token() == first
        wait_until(lambda: manager.get_token() != first)
        assert service.get("/wallet", first).status_code == 200  # renewed early
        wait_until(lambda: service.get("/wallet", first).status_code == 401)


# The ssl module leaves a socket open that is reset before its handshake begins.
@pytest.mark.filterwarnings("ignore:Exception ignored in. <ssl.SSLSocket:pytest.PytestUnraisableExceptionWarning")
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


def test_expired_rows_are_cleared_away_and_no_sign_in_scans_a_table(tmp_path, monkeypatch):
    statements, now, connect = [], time.time(), sqlite3.connect

    def traced(*args, **options):
        db = connect(*args, **options)
        db.set_trace_callback(statements.append)
        return db

    store, code = Store(tmp_path / "service.db"), Store(tmp_path / "service.db").make_invite()
    with contextlib.closing(connect(tmp_path / "service.db", isolation_level=None)) as db:
        tables = {"challenges": 60, "tokens": 64}  # what is left of 120 in each: a challenge is used, a token is kept
        rows = [(f"{n}", "x", now + (60 if n % 2 else -60)) for n in range(120)]
        for table in tables:
            db.executemany(f"INSERT INTO {table} VALUES (?, ?, ?)", rows)
        monkeypatch.setattr(sqlite3, "connect", traced)
        for _ in range(4):
            challenge, _ = store.make_challenge("key")
            token, _ = store.sign_up(Proof("0x1", "key", challenge, True), code)
        assert store.wallet_of(token)[0] == "0x1"
        counts = [db.execute(f"SELECT count(*), min(expires_at) FROM {table}").fetchone() for table in tables]
        assert counts == [(left, now + 60) for left in tables.values()]
        plans = [db.execute(f"EXPLAIN QUERY PLAN {text}").fetchall() for text in statements if "FROM" in text]
        assert len(plans) >= 18 and not [plan for plan in plans if "SCAN" in str(plan)]


FILES = "ca.pem", "ca.key", "server.pem", "server.key"


@pytest.mark.parametrize("spoil", ["remove", "garble", "swap", "expire"])
@pytest.mark.parametrize("name", FILES)
def test_certificates_are_replaced_when_they_are_of_no_use(tmp_path, monkeypatch, name, spoil):
    def make(state):
        ca, *pair = certificates.ensure_certificates(state)
        ssl.create_default_context(ssl.Purpose.CLIENT_AUTH).load_cert_chain(*pair)  # which compares key and certificate
        subject, issuer = (x509.load_pem_x509_certificate(path.read_bytes()) for path in (pair[0], ca))
        subject.verify_directly_issued_by(issuer)
        return [(state / file).read_bytes() for file in FILES]

    life, kept = ("_AUTHORITY_LIFE", 0) if name.startswith("ca") else ("_SERVER_LIFE", 2)
    (state := tmp_path / "state").mkdir()
    (other := tmp_path / "other").mkdir()
    with monkeypatch.context() as patch:
        if spoil == "expire":
            patch.setattr(certificates, life, timedelta(days=7, minutes=-1))
        before = make(state)
    if spoil == "remove":
        (state / name).unlink()
    elif spoil == "garble":
        (state / name).write_bytes(b"?")
    elif spoil == "swap":  # the half of another pair, as a kill between the two writes leaves it
        (state / name).write_bytes(make(other)[FILES.index(name)])
    assert [new == old for new, old in zip(make(state), before, strict=True)] == [True] * kept + [False] * (4 - kept)
    assert {path.stat().st_mode & 0o777 for path in state.iterdir()} == {0o600}


def test_the_operator_sees_all_but_secrets_and_what_the_service_keeps_is_private(start, tmp_path):
    with contextlib.ExitStack() as stack:
        stack.callback(os.umask, os.umask(0))
        service = stack.enter_context(start())
        wallet, unused = service.sign_up(1), service.invite()
        token, address = wallet.get_token(), wallet.get_wallet_address()
        [(spent,)] = service.rows("SELECT code FROM invites WHERE used_by IS NOT NULL")
        listed, text = json.loads(service.command("list", "--json")), service.command("list")
        invites = [(one["code"], one["used_by"]) for one in listed["invites"]]
        assert invites == [(spent, address), (f"CORV-****-****-{unused[-4:]}", None)]
        assert "Invites: 2, 1 unused" in text and f"used by {address}" in text
        for secret in (unused, token, sha256(token.encode()).hexdigest()):
            assert secret not in text + json.dumps(listed)
        modes = {path.name: path.stat().st_mode & 0o077 for path in service.state.rglob("*") if path.name != "log"}
        assert modes.keys() > {"ca.key", "files", "server.key", "service.db"} and set(modes.values()) == {0}
    (service.state / "service.db").write_bytes(b"?" * 5000)
    (tmp_path / "open").mkdir()
    for line, reason in (
        ("list --state nowhere", "There is no service in"), ("invite --state open", "is open to other users"),
        (f"serve --state '{service.state}'", "database"), ("serve --port 0 --state new >/dev/full", "No space"),
        ("list --state nowhere >&-", "output is closed"),
    ):  # fmt: skip
        command = ["sh", "-c", f"{shlex.quote(sys.executable)} -P -m corvane_local {line}"]
        done = subprocess.run(command, capture_output=True, text=True, timeout=30, cwd=tmp_path)
        assert (done.returncode, done.stderr.count("\n")) == (1, 1) and reason in done.stderr


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


def test_a_cut_download_is_resumed(service, scripted, tmp_path):
    manager, content = service.sign_up(1), b"held, and the rest"
    publish(service, {"runtime/a": content})
    manifest = service.get("/runtime/manifest", manager.get_token()).content
    scripted.script = iter([http(manifest), http(content)[:-14]])
    with pytest.raises(ConnectionError):
        SyncManager(ANYBODY, tmp_path, scripted.url).sync()
    assert not (tmp_path / "manifest.json").exists()
    stored(service, content).write_bytes(b"????, and the rest")  # so that the rest alone is of use
    assert SyncManager(manager, tmp_path, service.url).sync() == checked_manifest(tmp_path)


@pytest.mark.parametrize("held", [b"", b"other", b"much longer than it"])
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


OUT_OF_PLACE = "/etc/x", "../x", "runtime/../x", "runtime\\x", "runtime/\0", "wallet.key", "", "runtime/x.part"


def test_paths_out_of_place_are_refused(scripted, tmp_path):
    entry = {"kind": "", "sha256": "0" * 64, "size": 0}
    for path in OUT_OF_PLACE:
        scripted.script = iter([http({"era_id": 3, "version": 1, "files": {"runtime/fine": entry, path: entry}})])
        with pytest.raises(auth.NotTheServiceError, match=r"a manifest that makes no sense: .* is not allowed"):
            SyncManager(ANYBODY, tmp_path, scripted.url).sync()
    assert [p.name for p in tmp_path.iterdir()] == ["sync.lock"]


def test_back_off_waits_as_asked_and_ends_when_told(scripted, tmp_path):
    def outcome(backoff, *plan):
        scripted.asked_at.clear()
        scripted.script = iter([http({"error": "not today"}, status, Retry_After=wait) for status, wait in plan])
        with pytest.raises((auth.AuthError, ConnectionError, SyncBackoffCancelled)) as info:
            backoff.run(SyncManager(ANYBODY, tmp_path, scripted.url).sync)
        return type(info.value), len(scripted.asked_at)

    assert SyncBackoff(base=0, cap=0, attempts=1).run(lambda: 7) == 7
    with pytest.raises(ValueError, match="attempts must be at least 1"):
        SyncBackoff(attempts=0)
    patient = SyncBackoff(base=0.01, cap=2, attempts=3)
    assert outcome(patient, (503, "1"), (500, "junk"), (401, "")) == (auth.RequestRefusedError, 3)  # a refusal is final
    first, second, third = scripted.asked_at
    assert 1 <= second - first < 1.8 and third - second < 0.8
    assert outcome(patient, (429, "60")) == (ServiceBusy, 1)  # longer than we would wait
    called_off, began = SyncBackoff(cap=60), time.monotonic()
    threading.Timer(0.5, called_off.cancel).start()
    assert outcome(called_off, (503, "60")) == (SyncBackoffCancelled, 1) and 0.4 < time.monotonic() - began < 5

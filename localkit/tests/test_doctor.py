"""The doctor: what is wrong is found, and the step that it gives, typed to the letter, puts it right."""

import ipaddress
import json
import os
import re
import shlex
import shutil
import socket
import sqlite3
import ssl
import subprocess
import sys
import threading
import traceback
from contextlib import closing
from datetime import UTC, datetime, timedelta
from email.utils import format_datetime
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

import pytest

import corvane as kit
from corvane_cli import display, doctor
from corvane_cli.command import Exit
from corvane_cli.identity import Agent
from corvane_local import certificates
from localkit.tests.conftest import http, slowly

FIRST, SECOND = f"{21:064x}", f"{22:064x}"
PYTHON = shlex.quote(sys.executable)
BACKUP = "wallet.key.backup-20260101T000000.000000Z"


def text(report):
    return "\n".join(report.lines())


class Patient:
    """An identity with its environment, as a shell has it."""

    def __init__(self, service, work):
        self.service, self.work, self.home = service, work, work / "home"
        (work / "bin").mkdir()
        command = work / "bin/corvane"
        command.write_text(f'#!/bin/sh\nexec {PYTHON} -BP -m corvane_cli "$@"\n')
        command.chmod(0o755)
        self.env = {"HOME": str(work), "PATH": f"{work}/bin:/usr/bin:/bin", "SSL_CERT_FILE": f"{service.state}/ca.pem"}
        self.env |= {"CORVANE_SERVER_URL": service.url, "CORVANE_DATA_DIR": str(self.home)}
        (work / "copy").write_text(FIRST)

    def run(self, script):
        """Runs it in the home; what it exports stays."""
        seen = self.work / "environment"
        script = f"set -e; cd {shlex.quote(str(self.home))}; {script}\nenv -0 >{shlex.quote(str(seen))}"
        subprocess.run(["sh", "-c", script], env=self.env, check=True, stdout=-3)
        self.env = dict(item.split("=", 1) for item in seen.read_text().split("\0") if item)

    def examine(self, online=True):
        with mock.patch.dict(os.environ, self.env, clear=True):
            agent = Agent(os.environ.get("CORVANE_DATA_DIR", "~/.corvane"), os.environ.get("CORVANE_SERVER_URL"))
            return doctor.diagnose(agent, online)

    def follow(self, finding):
        """Types the first thing between backquotes, with our values for the words in capitals."""
        step = re.search("`([^`]+)`", finding.next_step)[1]
        values = {"FILE": f"{self.work}/copy", "URL": self.service.url, "CA": f"{self.service.state}/ca.pem"}
        values |= {"CODE": self.service.invite()}
        for word, value in values.items():
            step = re.sub(rf"(?<!\w){word}(?!\w)", value, step)
        self.run(step)

    def tree(self):
        return {p: p.lstat().st_mtime_ns for p in self.home.rglob("*")}


@pytest.fixture(scope="module")
def healthy(service, tmp_path_factory):
    """A signed-in identity with its downloads, to be copied."""
    patient = Patient(service, tmp_path_factory.mktemp("healthy"))
    patient.home.mkdir(mode=0o700)
    for key in (FIRST, SECOND):
        service.sign_up(int(key, 16))
    patient.run("corvane login <../copy && corvane sync")
    return patient.home


@pytest.fixture
def patient(service, healthy, tmp_path):
    patient = Patient(service, tmp_path)
    shutil.copytree(healthy, patient.home)
    return patient


def test_healthy_it_says_what_it_looked_at(patient, service):
    report = patient.examine()
    looked = [one.check for one in report.looked_at]
    expected = ["extension", "directory", "names", "key", "session", "files", "copies", "host", "trust"]
    assert looked == [*expected, "service", "sign-in"] and report.findings == []
    shown = text(report)
    for part in (str(patient.home), service.url, "4 files of the manifest", "accepts 0x", "errors: 0, warnings: 0"):
        assert part in shown
    assert [one.check for one in patient.examine(online=False).looked_at] == expected
    before, asked = patient.tree(), service.rows("SELECT count(*) FROM tokens")
    done = subprocess.run(["corvane", "doctor", "--offline", "--json"], env=patient.env, stdout=-1, check=True)
    assert json.loads(done.stdout)["errors"] == 0 and len(json.loads(done.stdout)["looked_at"]) == len(expected)
    assert patient.tree() == before and service.rows("SELECT count(*) FROM tokens") == asked


ENTRY = """echo '{"era_id": 3, "version": 1, "files": {"%s": {"kind": "k", "size": 2%s}}}' >manifest.json"""
DIGEST = f', "sha256": "{"0" * 64}"'
SOCKET = f"rm wallet.key; {PYTHON} -c 'import socket as s; s.socket(1).bind(\"wallet.key\")'"
LOST = f"{PYTHON} -c 'import sqlite3, sys; d = sqlite3.connect(sys.argv[1]); d.execute(sys.argv[2]); d.commit()'"
PAGE = "import sqlite3; d = sqlite3.connect('search.db'); d.execute('CREATE TABLE a (b)'); d.commit()"
ASIDE, ADDRESS = ".aside", "0x[0-9a-f]{40}"
# Check (and which others see the same), spoiling, what the problem says, what the step says.
REPAIRED = [
    ("directory", "chmod 777 ..", "can be written by everybody", "chmod go-w"),
    ("directory", "chmod 770 ..", "can be written by its group", "chmod go-w"),
    ("directory", "chmod 750 .", "can be read by other users", "chmod 700"),
    ("directory", "export CORVANE_DATA_DIR=$PWD/wallet.key", "key is not a directory", "export CORVANE_DATA_DIR"),
    ("names", "ln -sf /etc/passwd wallet.lock", "wallet.lock is a symbolic link", "mv .*" + ASIDE),
    ("names", "rm -f sync.lock; ln -s nowhere sync.lock", "sync.lock is a symbolic link", "mv .*" + ASIDE),
    ("names", "mkdir session.json.new", "session.json.new is a directory", "mv .*" + ASIDE),
    ("names", "mkdir runtime/x.part runtime/x.part.aside", "x.part is a directory", "mv .*aside-1"),
    ("names", "rm session.json; mkdir session.json", "session.json is a directory", "mv .* && corvane register"),
    ("names", "mv manifest.json m; ln -s m manifest.json", "manifest.json is a symbolic link", "mv .* && corvane sync"),
    ("names", "mkfifo search.db", "search.db is not a regular file", "mv .*" + ASIDE),
    ("names files files", "rm -r runtime; echo >runtime", "runtime is not a directory", "mv .* && corvane sync"),
    ("names", "echo 'evil()' >json.py", "json.py can be imported", "mv .*" + ASIDE),
    ("names", "mkdir numpy; echo >numpy/__init__.py", "numpy can be imported", "mv .*" + ASIDE),
    ("names", "echo >numpy.abi3.so", "numpy.abi3.so can be imported", "mv .*" + ASIDE),
    ("key", ": >wallet.key", "is empty", f"login < .* of the wallet {ADDRESS}: .* no copy anywhere"),
    ("key", f"cp -p wallet.key {BACKUP}; : >wallet.key", "is empty", f"login < .*{BACKUP}. with"),
    ("key", f"rm session.json; cp -p wallet.key {BACKUP}; echo >wallet.key", "is empty", f"login < .*{BACKUP}. with"),
    ("key", "echo abc >wallet.key", "contains no key", "login --replace <"),
    ("key", "chmod 644 wallet.key", "is open to other users .mode 644", "chmod 600"),
    ("key", "ln wallet.key second", "has 2 names", "cp -p .* && mv"),
    ("key", "mv wallet.key k; ln -s k wallet.key", "it is a symbolic link", "mv .* && corvane login < FILE"),
    ("key", SOCKET, "be opened", "mv .* && corvane login < FILE"),
    ("key", "mv wallet.key ../k; mkdir wallet.key", "regular file", "mv .* && corvane login < FILE"),
    ("key", "rm wallet.key session.json", "There is no wallet key", "register --invite-code CODE"),
    ("key", "rm wallet.key", "There is no wallet key", f"login < .* of the wallet {ADDRESS}"),
    ("key", "chown 12345 wallet.key", "it belongs to user 12345", "mv .* && corvane login < FILE"),
    ("key", f"cp wallet.key {BACKUP}; chmod 640 {BACKUP}", f"{BACKUP} is open to other users", "chmod 600"),
    ("key", "export CORVANE_PRIVATE_KEY=abc", "CORVANE_PRIVATE_KEY contains no key", "unset CORVANE_PRIVATE_KEY"),
    ("session", "rm session.json", "There is no session", "register"),
    ("session", 'sed -i \'s/"signed_in_at":[^}]*/"signed_in_at": null/\' session.json', "not accepted", "-code CODE"),
    ("session", "echo '{' >session.json", "is not a session", "register"),
    ("session", "sed -i 's/\"signed_in_at\":/&1e30/' session.json", "is not a session", "register"),
    ("session", f"echo {SECOND} >wallet.key", f"The session is for {ADDRESS}", "register"),
    ("session service", "export CORVANE_SERVER_URL=https://127.0.0.1:1", "127.0.0.1:1 is asked for", "unset"),
    ("manifest", ENTRY % ("era_config.json", ""), "era_config.json sha256 Field required", "rm .* && corvane sync"),
    ("manifest", ENTRY % ("runtime/../../x", DIGEST), "is not allowed", "rm .* && corvane sync"),
    ("manifest", ENTRY % ("runtime/x", DIGEST) + "; mv runtime ../r; ln -s .. runtime", "by the link ", "rm .*sync"),
    ("files", ENTRY % ("era_config.json", DIGEST), "is damaged", "corvane sync"),
    ("files", "rm era_config.json", "is missing", "corvane sync"),
    ("files", "rm features/*/*.json; mkdir features/us_large/vocabulary.json", "is missing", "mv .* && corvane sync"),
    ("copies", f"echo x >.corvane-runtime-x-{'0' * 16}.so", "does not hold", "rm "),
    ("searches", "echo garbage >search.db", "search.db is damaged: file is not a database", "mv .*" + ASIDE),
    ("searches", f'{PYTHON} -c "{PAGE}"; truncate -s 4096 search.db', "search.db is damaged", "mv .*" + ASIDE),
    ("searches", "echo garbage >search.db; cp search.db search.db-wal", "search.db is damaged", "mv .* && mv .*-wal"),
    ("trust", "export SSL_CERT_FILE=/nowhere", "/nowhere. does not exist", "export SSL_CERT_FILE=CA"),
    ("trust", "export SSL_CERT_FILE=", "does not exist", "export SSL_CERT_FILE=CA"),
    ("trust", "export SSL_CERT_FILE=/etc", "is a directory", "export SSL_CERT_FILE=CA"),
    ("trust", "export SSL_CERT_FILE=/dev/null", "holds no certificate", "export SSL_CERT_FILE=CA"),
    ("service", "unset SSL_CERT_FILE", "CERTIFICATE_VERIFY_FAILED", "export SSL_CERT_FILE=CA"),
    ("service session", "export CORVANE_SERVER_URL=https://127.0.0.1:1", "Connection refused", "SERVER_URL=URL"),
    ("service session", "export CORVANE_SERVER_URL=http://a.example", "must use https", "SERVER_URL=URL"),
    ("sign-in", f"{LOST} $(dirname $SSL_CERT_FILE)/service.db 'DELETE FROM wallets'", "refuses 0x", "register --inv"),
]


@pytest.mark.parametrize(("checks", "spoil", "problem", "step"), REPAIRED)
def test_what_is_wrong_is_found_and_the_step_repairs_it(patient, service, checks, spoil, problem, step):
    if "chown" in spoil and os.getuid() != 0:
        pytest.skip("only root can give a file away")
    patient.run(spoil)
    before, report = patient.tree(), patient.examine()
    findings = {finding.check: finding for finding in reversed(report.findings)}
    assert patient.tree() == before and findings.keys() == set(checks.split()), text(report)
    assert len(report.findings) == len(checks.split())
    found = findings[checks.split()[0]]
    assert re.search(problem, found.problem) and re.search(step, found.next_step), found
    assert found.reason and found.severity in (doctor.ERROR, doctor.WARNING)
    assert not found.next_step.startswith("`rm") or "wallet.key" not in found.next_step
    for secret in (FIRST, SECOND, "abc"):
        assert secret not in text(report)
    patient.follow(found)
    assert patient.examine().findings == [], found.next_step
    if checks.startswith("sign-in"):
        service.sign_up(int(SECOND, 16))


def test_it_sees_what_it_cannot_repair(patient, tmp_path):
    host, extension = tmp_path / "bin/openclaw", next(Path(kit.__path__[0]).glob("agent_onboarding*.so"))
    unread = "does not read HEARTBEAT.md"
    versions = {"2026.8.1": unread, "2026.7.2-beta.5": unread, "?": "does not report its version"}
    for version, problem in versions.items():
        host.write_text(f"#!/bin/sh\necho OpenClaw {version}")
        host.chmod(0o755)
        assert problem in text(patient.examine(online=False))
    for version in ("2026.7.35", "2026.7.2-beta.4"):
        host.write_text(f"#!/bin/sh\necho OpenClaw {version}")
        assert f"openclaw, {version[:8]}" in text(patient.examine(online=False))
    other = tmp_path / "site/corvane"
    shutil.copytree(extension.parent, other)
    (other / extension.name).rename(other / "agent_onboarding.so.1")
    env, command = patient.env | {"PYTHONPATH": str(tmp_path / "site")}, ["corvane", "doctor", "--offline"]
    done = subprocess.run(command, env=env, stdout=-1, text=True)
    assert done.returncode == Exit.ERRORS and "agent_onboarding cannot be loaded" in done.stdout
    assert "-m pip install WHEEL` with" in done.stdout


OPTIONS = [
    ("--data-dir {home}/wallet.key", "corvane doctor --data-dir {home}"),
    ("--data-dir {home}/new", "corvane register --invite-code CODE --data-dir {home}/new --server-url {url}"),
    ("--data-dir {home} --server-url https://127.0.0.1:1", "corvane doctor --data-dir {home}"),
    ("--data-dir {home}/session.json", "corvane doctor --data-dir {home}"),
]


@pytest.mark.parametrize(("options", "step"), OPTIONS)
def test_steps_name_the_options_that_were_given(patient, service, options, step):
    for name in ("CORVANE_DATA_DIR", "CORVANE_SERVER_URL"):
        del patient.env[name]
    options = options if "server" in options else options + " --server-url {url}"
    named = {"home": patient.home, "url": service.url}
    command = ["corvane", "doctor", "--json", *options.format(**named).split()]
    findings = json.loads(subprocess.run(command, env=patient.env, stdout=-1).stdout)["findings"]
    found = next(one for one in findings if one["check"] != "service")
    assert f"`{step.format(**named)}`" in found["next_step"]
    if "CODE" not in step:  # typed with what it names, all is well
        assert subprocess.run(["sh", "-c", step.format(**named)], env=patient.env, stdout=-3).returncode == 0


def in_child(act, *arguments):
    """Runs it in a process that may be spoilt, with mounts, say."""
    if (child := os.fork()) == 0:
        try:
            act(*arguments)
            os._exit(0)
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(1)
    assert os.waitpid(child, 0)[1] == 0


def mounted(patient, options, spoil, problem, free):
    os.unshare(os.CLONE_NEWNS)
    other = patient.work / "mount"
    other.mkdir(mode=0o700)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"mode=700,{options}", "none", other], check=True)
    shutil.copytree(patient.home, other / "home")
    patient.home = other / "home"
    patient.env["CORVANE_DATA_DIR"] = str(patient.home)
    assert patient.examine().findings == []
    patient.run(spoil)
    [found] = patient.examine().findings
    assert problem in found.problem and found.check == "directory"
    patient.follow(found)
    patient.run(free)
    assert patient.examine().findings == []


MOUNTED = [
    ("size=4m", "head -c 9999999 /dev/zero >../fill 2>/dev/null || true", "No space left", "rm ../fill"),
    ("size=4m", "mount -o remount,ro ..", "Read-only file system", "true"),
]


@pytest.mark.skipif(os.getuid() != 0, reason="only root can mount")
@pytest.mark.parametrize(("options", "spoil", "problem", "free"), MOUNTED)
def test_a_full_or_read_only_disk_is_seen(patient, options, spoil, problem, free):
    in_child(mounted, patient, options, spoil, problem, free)


LIMITED = [
    ("ulimit -S -f 0", "File too large", "ulimit -f unlimited"),
    ("chmod 500 .", "Permission denied", "chmod 700"),
    ("chmod 000 session.json", "session.json: Permission denied", "chmod u\\+rwX"),
    ("chmod 000 wallet.key", "wallet.key cannot be opened", "chmod 600"),
    ("chmod 000 .", "Permission denied", "chmod 700"),
]


@pytest.mark.parametrize(("spoil", "problem", "step"), LIMITED)
def test_what_this_user_may_not_do_is_seen(patient, spoil, problem, step):
    # Root, too, is stopped by permissions without the capability to pass over them.
    examine = "setpriv --bounding-set=-dac_override,-dac_read_search " * (os.getuid() == 0) + "corvane doctor --offline"

    def run(step):
        script, where = f"({spoil}; {step}) | cat", {"env": patient.env, "cwd": patient.home}
        return subprocess.run(["sh", "-c", script], stdout=-1, text=True, **where).stdout

    [found, *others] = json.loads(run(f"{examine} --json"))["findings"]
    assert re.search(problem, found["problem"]) and re.search(step, found["next_step"]) and not others
    step = re.search("`(.+?)`", found["next_step"])[1]
    assert run(f"{step}; {examine}").endswith("errors: 0, warnings: 0\n")


@pytest.fixture
def far_off(tmp_path, monkeypatch):
    """A TLS server with a certificate and a clock of its own; `timedatectl` sets both right."""
    now, state = datetime.now(UTC), tmp_path / "far-off"
    state.mkdir(mode=0o700)

    class Handler(BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response_only(200)
            self.send_header("Date", format_datetime(server.date, usegmt=True))
            self.end_headers()
            self.wfile.write(b'{"status": "ok"}')

        def log_message(self, *args):
            pass

    with ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:

        def arrange(begins, lasts, off, address=None):
            """A certificate that begins so many days from now, and a clock that is off by so many."""
            server.date = now + timedelta(days=off)
            with monkeypatch.context() as patch:
                patch.setattr(certificates, "_SERVER_LIFE", timedelta(days=lasts))
                certificates.ensure_certificates(state)
                clock = SimpleNamespace(now=lambda zone: now + timedelta(days=begins))
                patch.setattr(certificates, "dt", SimpleNamespace(datetime=clock, timedelta=timedelta, UTC=UTC))
                if address:
                    other = SimpleNamespace(ip_address=lambda _: ipaddress.ip_address(address))
                    patch.setattr(certificates, "ipaddress", other)
                paths = [state / name for name in ("ca.pem", "ca.key", "server.pem", "server.key")]
                certificates._make_server(*paths)
            context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            context.load_cert_chain(*paths[2:])
            server.context = context
            return {"SSL_CERT_FILE": str(state / "ca.pem"), "CORVANE_SERVER_URL": server.url}

        plain = server.get_request
        server.get_request = lambda: (
            lambda pair: (server.context.wrap_socket(pair[0], True, do_handshake_on_connect=False), pair[1])
        )(plain())
        server.handle_error = lambda *_: None
        server.url, server.arrange = f"https://127.0.0.1:{server.server_port}", arrange
        threading.Thread(target=server.serve_forever, args=(0.05,), daemon=True).start()
        yield server
        server.shutdown()


CLOCKS = [
    # begins, lasts, off (days): what is found, and how it goes on
    (-1, 30, 0, None, ""),
    (3000, 30, 3010, "clock", "This clock is 3,010 days behind"),
    (-3000, 30, -2990, "clock", "This clock is 2,990 days ahead"),
    (-1, 30, -0.3, "clock", "This clock is 2592. s ahead"),
    (-1, 30, 0.001, "clock", "This clock is 8. s behind"),
    (-3000, 30, 0, "service", "certificate has expired"),
    (3000, 30, 0, "service", "certificate is not yet valid"),
]


@pytest.mark.parametrize(("begins", "lasts", "off", "check", "problem"), CLOCKS)
def test_the_clock_comes_before_the_certificate(patient, far_off, begins, lasts, off, check, problem):
    patient.run("rm session.json wallet.key")
    patient.env |= {"CORVANE_PRIVATE_KEY": ""} | far_off.arrange(begins, lasts, off)
    found = [one for one in patient.examine().findings if one.check != "key"]
    assert [one.check for one in found] == [check] * bool(check)
    if found:
        assert re.search(problem, found[0].problem)
        assert found[0].severity == (doctor.WARNING if off == 0.001 else doctor.ERROR)
    if check == "clock":
        set_clock = patient.work / "bin/timedatectl"
        set_clock.write_text("#!/bin/sh\n[ \"$*\" = 'set-ntp true' ]\n")
        set_clock.chmod(0o755)
        patient.follow(found[0])
        far_off.arrange(-1, 30, 0)
        assert [one.check for one in patient.examine().findings] == ["key"]


def test_a_certificate_of_another_host_means_the_address(patient, far_off):
    patient.env |= far_off.arrange(-1, 30, 0, "192.0.2.1")
    [_, found] = patient.examine().findings
    assert "IP address mismatch" in found.problem and "for another host" in found.next_step
    patient.env["SSL_CERT_FILE"] = f"{patient.service.state}/ca.pem"
    patient.follow(found)
    assert patient.examine().findings == []


ANSWERS = [
    (http(b"<html>Welcome to the hotel", Content_Type="text/html"), "error", "a web page", "CORVANE_SERVER_URL=URL"),
    (http([]), "error", "not a JSON object", "CORVANE_SERVER_URL=URL"),
    (http({"status": "well"}), "error", "is not a Corvane service", "CORVANE_SERVER_URL=URL"),
    (http(b"<html>", 404), "error", "no Corvane service", "Correct the address"),
    (http({"error": "unknown"}, 404), "error", "is not a Corvane service", "CORVANE_SERVER_URL=URL"),
    (http(b"", 302, Location="https://h.example/"), "error", "redirects to https://h", "CORVANE_SERVER_URL=URL"),
    (http(b"<html>", 502, Content_Type="text/html"), "warning", "away or busy", "corvane doctor"),
]


@pytest.mark.parametrize(("answer", "severity", "problem", "step"), ANSWERS)
def test_what_answers_is_looked_at(patient, scripted, answer, severity, problem, step):
    scripted.script = iter([answer])
    patient.env["CORVANE_SERVER_URL"] = scripted.url
    [session, found] = patient.examine().findings
    assert (session.check, found.check, found.severity) == ("session", "service", severity)
    assert problem in found.problem and step in found.next_step and len(scripted.requests) == 1
    if severity == "error":
        patient.follow(found)
        assert patient.examine().findings == []


def test_a_key_is_used_only_where_it_has_signed_in(patient, scripted, service):
    scripted.script = iter([http({"status": "ok"}), http({"status": "ok"}), http(b"", 501)])
    patient.env["CORVANE_SERVER_URL"], ask = scripted.url, socket.getaddrinfo
    with mock.patch.object(
        socket, "getaddrinfo", lambda *of, **how: ask("127.0.0.9", *of[1:], **how) + ask(*of, **how)
    ):
        report = patient.examine()  # at the second address of that name
    assert [one.check for one in report.findings] == ["session"]  # and nothing but /health was asked for
    patient.run(f"sed -i 's,https://127.0.0.1:[0-9]*,{scripted.url},' session.json")
    [found] = patient.examine().findings
    assert (found.check, found.severity) == ("sign-in", "warning") and "`corvane doctor`" in found.next_step
    assert [request.split()[1] for request in scripted.requests] == ["/health", "/health", "/auth/challenge"]


def test_a_sign_in_that_no_service_answers_is_not_a_refused_wallet(patient, scripted):
    patient.run(f"export CORVANE_SERVER_URL={scripted.url}; sed -i 's,https://127.0.0.1:[0-9]*,{scripted.url},' *.json")
    scripted.script = iter([http({"status": "ok"}), http({}, 404)])
    [found] = patient.examine().findings
    assert "HTTP 404" in found.problem and "refuses" not in found.problem and "CODE" not in found.next_step


@pytest.mark.parametrize("more", ["", " --json"])
def test_out_of_time_it_still_says_what_it_has_found(patient, scripted, more):
    patient.run(f"export CORVANE_SERVER_URL={scripted.url}; mkdir session.json.new")
    scripted.script = iter([slowly(http(bytes(5_000)))] * 2)
    # Long enough that a slow machine gets as far as the service.
    command = ["corvane", "doctor", "--timeout", "6", *more.split()]
    done = subprocess.run(command, env=patient.env, stdout=-1, stderr=-1, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (Exit.ERRORS, "")
    for part in ("session.json.new is a directory", "running: service", "`corvane doctor --timeout 300"):
        assert part in done.stdout
    if more:
        assert [one["check"] for one in json.loads(done.stdout)["findings"]] == ["names", "session", "time"]


def test_foreign_text_and_secrets_stay_out_of_the_report(patient):
    evil = "runtime/\x1b[2J\nerror: forged\n  next: `rm -rf /`\x9b"
    entry = {"kind": "k", "size": 2, "sha256": "0" * 64}
    patient.run("rm manifest.json")
    manifest = json.dumps({"era_id": 3, "version": 1, "files": {evil: entry}})
    (patient.home / "manifest.json").write_text(manifest)
    (patient.home / "evil\x1b]0;\n.py").write_text("")
    (patient.home / "a\nb.new").mkdir()
    with mock.patch.object(display, "_secrets", set()):
        display.remember(f"x{FIRST}")
        patient.env["CORVANE_SERVER_URL"] = f"https://user:pa55word@{FIRST}.example"
        report = patient.examine()
        shown = text(report)
    assert {"names", "manifest", "session", "service"} == {one.check for one in report.findings}
    assert shown.replace("\n", "").isprintable() and "\\x1b[2J\\n" in shown and "pa55word" not in shown
    assert FIRST not in shown and "<hidden>" in shown
    lines = len(report.looked_at) + 3 * len(report.findings) + 1
    assert len(shown.splitlines()) == lines and not [
        line for line in shown.splitlines() if line.startswith("error: forged")
    ]


def test_a_search_that_is_under_way_is_no_damage(patient):
    with closing(sqlite3.connect(patient.home / "search.db")) as db:
        db.execute("PRAGMA journal_mode = WAL")
        db.execute("CREATE TABLE a (b)")
        db.execute("BEGIN IMMEDIATE")
        db.execute("INSERT INTO a VALUES (1)")
        assert patient.examine(online=False).findings == []
    before = patient.tree()
    assert "with the found signals" in text(patient.examine(online=False)) and patient.tree() == before

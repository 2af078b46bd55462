"""The doctor: what is wrong is found, and the step that it gives, typed to the letter, puts it right."""

import itertools
import json
import os
import re
import shlex
import shutil
import ssl
import subprocess
import sys
from datetime import UTC, datetime, timedelta
from email.utils import format_datetime
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

import pytest

import corvane as kit
from corvane.auth import AuthManager
from corvane_cli import doctor, doctor_wallet
from corvane_cli.command import Exit
from corvane_cli.identity import Agent
from corvane_local import certificates
from localkit.tests.conftest import http
from localkit.tests.test_cli import Shell

FIRST, SECOND = f"{21:064x}", f"{22:064x}"
PYTHON = shlex.quote(sys.executable)
BACKUP = "wallet.key.backup-20260101T000000.000000Z"


class Patient(Shell):
    """An agent in whose shell the doctor's next steps are typed."""

    def __init__(self, service, work):
        super().__init__(service.url, work)
        self.service, self.secrets = service, [FIRST, SECOND]
        self.env["PATH"] = f"{work}/bin:/usr/bin:/bin"
        (work / "bin").mkdir()
        self.write("corvane", f'exec {PYTHON} -BP -m corvane_cli "$@"')
        (work / "copy").write_text(FIRST)

    def write(self, command, script):
        """Puts a command on the path."""
        (path := self.work / "bin" / command).write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def run(self, script):
        """Runs it in the home; what it exports stays."""
        seen = self.work / "environment"
        script = f"set -e; cd {shlex.quote(str(self.home))}; {script}\nenv -0 >{shlex.quote(str(seen))}"
        subprocess.run(["sh", "-c", script], env=self.env, check=True, stdout=-3)
        self.env = dict(item.split("=", 1) for item in seen.read_text().split("\0") if item)

    def examine(self, online=True):
        with mock.patch.dict(os.environ, self.env, clear=True):
            return doctor.diagnose(Agent(self.env["CORVANE_DATA_DIR"], self.env.get("CORVANE_SERVER_URL")), online)

    def follow(self, finding):
        """Types the first thing between backquotes, with our values for the words in capitals."""
        step = re.search("`([^`]+)`", finding.next_step)[1]
        values = {"FILE": f"{self.work}/copy", "URL": self.service.url, "CA": f"{self.service.state}/ca.pem"}
        values |= {"CODE": self.service.invite()}
        self.run(re.sub(r"\b(FILE|URL|CA|CODE)\b", lambda word: values[word[0]], step))


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
    expected = ["extension", "directory", "names", "key", "session", "files", "copies", "host", "trust"]
    report = patient.examine()
    assert [one.check for one in report.looked_at] == [*expected, "service", "sign-in"] and report.findings == []
    for part in (str(patient.home), service.url, "4 files of the manifest", "accepts 0x", "errors: 0, warnings: 0"):
        assert part in str(report.lines())
    before, asked = patient.tree(), service.rows("SELECT count(*) FROM tokens")
    assert [one["check"] for one in patient.json("doctor --offline")["looked_at"]] == expected
    assert patient.tree() == before and service.rows("SELECT count(*) FROM tokens") == asked


ENTRY = """echo '{"era_id": 3, "version": 1, "files": {"%s": {"kind": "k", "size": 2%s}}}' >manifest.json"""
DIGEST = f', "sha256": "{"0" * 64}"'
LOST = f"{PYTHON} -c 'import sqlite3, sys; d = sqlite3.connect(sys.argv[1]); d.execute(sys.argv[2]); d.commit()'"
OTHER_NAME = "echo $CORVANE_SERVER_URL | sed s/127.0.0.1/127.1/"
# Check (and which others see the same), spoiling, what the problem says, what the step says.
REPAIRED = [
    ("directory", "chmod 777 ..", "can be written by everybody", "chmod go-w"),
    ("directory", "chmod 775 .", "can be written by its group", "chmod 700"),
    ("directory", "chmod 750 .", "can be read by other users", "chmod 700"),
    ("directory", "export CORVANE_DATA_DIR=$PWD/wallet.key", "is not a directory", "export CORVANE_DATA_DIR="),
    ("names", "ln -sf /etc/passwd wallet.lock", "wallet.lock is a symbolic link", "mv .*aside"),
    ("names", "mkdir runtime/x.part runtime/x.part.aside", "x.part is a directory", "mv .*aside-1"),
    ("names", "rm session.json; mkdir session.json", "session.json is a directory", "mv .* && corvane register"),
    ("names files files", "rm -r runtime; echo >runtime", "runtime is not a directory", "mv .* && corvane sync"),
    ("names", "echo 'evil()' >json.py", "json.py can be imported", "mv .*aside"),
    ("key", ": >wallet.key", "is empty", "login < .* of the wallet 0x[0-9a-f]{40}: .* no copy anywhere"),
    ("key", f"rm session.json; cp -p wallet.key {BACKUP}; echo >wallet.key", "is empty", f"login < .*{BACKUP}. with"),
    ("key", "echo abc >wallet.key", "contains no key", "login --replace <"),
    ("key", "chmod 644 wallet.key", "is open to other users .mode 644", "chmod 600"),
    ("key", "ln wallet.key second", "has 2 names", "cp -p .* && mv"),
    ("key", "mv wallet.key k; ln -s k wallet.key", "it is a symbolic link", "mv .* && corvane login < FILE"),
    ("key", "chown 12345 wallet.key", "it belongs to user 12345", "mv .* && corvane login < FILE"),
    ("key", "rm wallet.key session.json", "There is no wallet key", "register --invite-code CODE"),
    ("key", f"cp wallet.key {BACKUP}; chmod 640 {BACKUP}", f"{BACKUP} is open to other users", "chmod 600"),
    ("key", "export CORVANE_PRIVATE_KEY=abc", "CORVANE_PRIVATE_KEY contains no key", "unset CORVANE_PRIVATE_KEY"),
    ("session", "rm session.json", "There is no session", "register"),
    ("session", 'sed -i \'s/"signed_in_at":[^}]*/"signed_in_at": null/\' session.json', "not accepted", "-code CODE"),
    ("session", "echo '{' >session.json", "is not a session", "register"),
    ("session", f"echo {SECOND} >wallet.key", "The session is for 0x[0-9a-f]{40}", "register"),
    ("session service", "export CORVANE_SERVER_URL=https://127.0.0.1:1", "127.0.0.1:1 is asked for", "unset"),
    ("manifest", ENTRY % ("era_config.json", ""), "era_config.json sha256 Field required", "rm .* && corvane sync"),
    ("manifest", ENTRY % (r"../\u001b[2J\u000aerror: forged", DIGEST), "is not allowed", "rm .* && corvane sync"),
    ("manifest", ENTRY % ("runtime/x", DIGEST) + "; mv runtime ../r; ln -s .. runtime", "by the link ", "rm .*sync"),
    ("files", ENTRY % ("era_config.json", DIGEST), "is damaged", "corvane sync"),
    ("files", "rm features/*/*.json; mkdir features/us_large/vocabulary.json", "is missing", "mv .* && corvane sync"),
    ("copies", f"echo x >.corvane-runtime-x-{'0' * 16}.so", "does not hold", "rm "),
    ("searches", "echo x >search.db; cp search.db search.db-wal", "file is not a database", "mv .* && mv .*-wal"),
    ("searches", ": >search.db", "not a record of searches: no such table", "mv .*aside"),
    ("trust", "export SSL_CERT_FILE=/nowhere", "/nowhere. does not exist", "export SSL_CERT_FILE=CA"),
    ("trust", "export SSL_CERT_FILE=/etc", "is a directory", "export SSL_CERT_FILE=CA"),
    ("trust", "export SSL_CERT_FILE=/dev/null", "holds no certificate", "export SSL_CERT_FILE=CA"),
    ("service", "unset SSL_CERT_FILE", "CERTIFICATE_VERIFY_FAILED", "export SSL_CERT_FILE=CA"),
    ("service session", "export CORVANE_SERVER_URL=https://127.0.0.1:1", "Connection refused", "SERVER_URL=URL"),
    ("service session", "export CORVANE_SERVER_URL=https://a..b", "cannot be reached: ", "SERVER_URL=URL"),
    ("service session", f"export CORVANE_SERVER_URL=$({OTHER_NAME})", "mismatch", "for another host"),
    ("sign-in", f"{LOST} $(dirname $SSL_CERT_FILE)/service.db 'DELETE FROM wallets'", "refuses 0x", "register --inv"),
]


@pytest.mark.parametrize(("checks", "spoil", "problem", "step"), REPAIRED)
def test_what_is_wrong_is_found_and_the_step_repairs_it(patient, service, checks, spoil, problem, step):
    if "chown" in spoil and os.getuid() != 0:
        pytest.skip("only root can give a file away")
    patient.run(spoil)
    before, report = patient.tree(), patient.examine()
    assert patient.tree() == before and sorted(one.check for one in report.findings) == sorted(checks.split())
    found = next(one for one in report.findings if one.check == checks.split()[0])
    assert re.search(problem, found.problem) and re.search(step, found.next_step), found
    assert found.reason and found.severity in (doctor.ERROR, doctor.WARNING)
    assert not found.next_step.startswith("`rm") or "wallet.key" not in found.next_step
    said = report.lines()
    assert len(said) == len(report.looked_at) + 3 * len(report.findings) + 1 and "".join(said).isprintable()
    assert not [secret for secret in (FIRST, SECOND, "abc") if secret in "".join(said)]
    patient.follow(found)
    assert patient.examine().findings == [], found.next_step
    if checks == "sign-in":
        service.sign_up(int(SECOND, 16))


def test_it_sees_what_it_cannot_repair(patient, tmp_path):
    unread, known = "does not read HEARTBEAT.md", "openclaw, 2026.7.35"
    hosts = {"2026.8.1": unread, "2026.7.2-beta.5": unread, "2026.7.35": known, "?": "does not report its version"}
    for version, said in hosts.items():
        patient.write("openclaw", f"echo OpenClaw {version}")
        assert said in str(patient.examine(online=False).lines())
    patient.write("openclaw", "sleep 9")
    assert "Not everything was examined in time" in patient("doctor --timeout 2", expect=Exit.ERRORS).stdout
    extension = next(Path(kit.__path__[0]).glob("agent_onboarding*.so"))
    other = shutil.copytree(extension.parent, tmp_path / "site/corvane")
    (other / extension.name).rename(other / "agent_onboarding.so.1")
    patient.env["PYTHONPATH"] = str(tmp_path / "site")
    said = patient("doctor --offline", expect=Exit.ERRORS).stdout
    assert "agent_onboarding cannot be loaded" in said and "-m pip install WHEEL` with" in said


def test_steps_name_the_options_that_were_given(patient, service):
    del patient.env["CORVANE_DATA_DIR"], patient.env["CORVANE_SERVER_URL"]
    options = f"--data-dir {patient.home}/new --server-url {service.url}"
    [found] = patient.json(f"doctor {options}", expect=Exit.WARNINGS)["findings"]
    assert f"`corvane register --invite-code CODE {options}`" in found["next_step"]
    [found] = patient.json(f"doctor --offline --data-dir {patient.home}/wallet.key", expect=Exit.ERRORS)["findings"]
    assert f"`corvane doctor --data-dir {patient.home}`" in found["next_step"]


LIMITED = [
    ("ulimit -S -f 0", "File too large", "ulimit -f unlimited"),
    ("chmod 500 .", "Permission denied", "chmod 700"),
    ('mount -B . . && mount -o remount,bind,ro "$PWD"', "Read-only file system", "remount,rw /.*/home`"),
    ("chmod 000 session.json", "session.json: Permission denied", "chmod u\\+rwX"),
]


@pytest.mark.parametrize(("spoil", "problem", "step"), LIMITED)
def test_what_this_user_may_not_do_is_seen(patient, spoil, problem, step):
    if "mount" in spoil and subprocess.run(["unshare", "-m", "true"], stderr=-3).returncode:
        pytest.skip("only root can mount something, and not everywhere")
    # Root, too, is stopped by permissions without the capability to pass over them.
    examine = "setpriv --bounding-set=-dac_override,-dac_read_search " * (os.getuid() == 0) + "corvane doctor --offline"

    def run(step):
        shell = [*["unshare", "-m"] * ("mount" in spoil), "sh", "-c", f"({spoil}; {step}) | cat"]
        return subprocess.run(shell, env=patient.env, cwd=patient.home, stdout=-1, text=True).stdout

    [found] = json.loads(run(f"{examine} --json"))["findings"]
    assert re.search(problem, found["problem"]) and re.search(step, found["next_step"])
    assert run(f"{re.search('`(.+?)`', found['next_step'])[1]}; {examine}").endswith("errors: 0, warnings: 0\n")


OK = {"body": {"status": "ok"}}
HOTEL = {"body": b"<html>Welcome to the hotel", "Content_Type": "text/html"}
# When the certificate begins, by how much the service's clock is off (days), what it answers, and what is found.
SERVICES = [
    (-1, 0, OK, "", ""),
    (3000, 3010, OK, "error: This clock is 3,010 days behind", "timedatectl set-ntp true"),
    (-3000, -2990, OK, "error: This clock is 2,990 days ahead", "timedatectl set-ntp true"),
    (-1, 0.001, OK, "warning: This clock is 8. s behind", "timedatectl set-ntp true"),
    (-3000, 0, OK, "error: .*certificate has expired", "Tell the operator"),
    (-1, 0, HOTEL, "error: .*a web page", "CORVANE_SERVER_URL=URL"),
    (-1, 0, {"body": {"status": "well"}}, "error: .*is not a Corvane service", "CORVANE_SERVER_URL=URL"),
    (-1, 0, {"status": 302, "Location": "https://h.example/"}, "error: .*redirects to https://h", "SERVER_URL=URL"),
    (-1, 0, {"status": 502}, "warning: .*away or busy", "corvane doctor"),
]


@pytest.mark.parametrize(("begins", "off", "answer", "problem", "step"), SERVICES)
def test_another_service_is_looked_at_and_gets_no_key(patient, scripted, begins, off, answer, problem, step):
    now, made = datetime.now(UTC), [patient.work / name for name in ("server.pem", "server.key")]
    clock = SimpleNamespace(now=lambda zone: now + timedelta(days=begins))
    with mock.patch.object(certificates, "dt", SimpleNamespace(datetime=clock, timedelta=timedelta, UTC=UTC)):
        certificates._make_server(*(patient.service.state / name for name in ("ca.pem", "ca.key")), *made)
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(*made)
    scripted.socket = context.wrap_socket(scripted.socket, server_side=True)
    date = format_datetime(now + timedelta(days=off), usegmt=True)
    scripted.script = itertools.repeat(http(**answer, Date=date))
    patient.env["CORVANE_SERVER_URL"] = scripted.url.replace("http", "https")
    session, *found = patient.examine().findings
    assert session.check == "session" and len(found) == bool(problem)
    for one in found:
        assert re.match(problem, f"{one.severity}: {one.problem}") and step in one.next_step
    assert {request.split()[1] for request in scripted.requests} <= {"/health"}


@pytest.mark.parametrize("ours", [11, 12])
def test_the_backup_to_restore_is_that_of_the_session_not_the_newest(ours, tmp_path):
    for number in (11, 12):
        backup = tmp_path / BACKUP.replace("20260101", f"202601{number}")
        backup.write_text(f"{number:064x}")
        backup.chmod(0o600)
    agent = Agent(str(tmp_path), "https://h.example")
    agent.begin_session(AuthManager(f"0x{ours:064x}", agent.server_url).get_wallet_address())
    assert f"202601{ours}" in doctor_wallet._best_backup(agent)

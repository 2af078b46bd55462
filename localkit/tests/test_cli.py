"""The command `corvane` as processes of its own, against the real service; looked at from outside."""

import fcntl
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

import corvane as kit
from corvane.auth import AuthManager
from corvane_cli.command import Exit

NOBODY, NO_CERTIFICATES = "https://127.0.0.1:1", {"SSL_CERT_FILE": "/dev/null"}


class Shell:
    """Runs commands for one data directory; what they print never holds a key that was used."""

    command = (sys.executable, "-P", "-m", "corvane_cli")

    def __init__(self, url, work):
        self.work, self.home, self.secrets = work, work / "home", []
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("CORVANE_")} | {"HOME": str(work)}
        self.env |= {"CORVANE_SERVER_URL": url, "CORVANE_DATA_DIR": str(self.home)}

    def __call__(self, line, text="", expect=0, env=(), **options):
        options = options if "stdin" in options else {"input": text} | options
        options |= {"cwd": self.work, "env": {**self.env, **dict(env)}, "timeout": 60}
        done = subprocess.run([*self.command, *line.split(" ")], capture_output=True, text=True, **options)
        assert done.returncode == expect, done.stdout + done.stderr
        assert not any(secret in done.stdout + done.stderr for secret in self.secrets)
        if 0 < expect < 7 and "status" not in line:
            assert done.stdout == "" and re.search("\\nNext: |next_step", done.stderr)
        return done

    def json(self, line, *arguments, **options):
        return json.loads(self(line + " --json", *arguments, **options).stdout)

    def tree(self):
        return {p: (p.stat().st_mtime_ns, p.read_bytes()) for p in self.work.rglob("*") if p.is_file()}


@pytest.fixture
def corvane(service, tmp_path):
    return Shell(service.url, tmp_path)


@pytest.fixture
def keys(service, corvane):
    """Two keys that the service knows, and one that it does not."""
    corvane.secrets += [f"{number:064x}" for number in (11, 12, 13)]
    for number in (11, 12):
        service.sign_up(number)
    return corvane.secrets


def mode(path):
    return f"{path.lstat().st_mode & 0o7777:o}"


def address(key):
    return AuthManager("0x" + key, NOBODY).get_wallet_address()


def test_a_day_with_the_command(service, corvane):
    home, heartbeat, drawn = corvane.home, corvane.work / "HEARTBEAT.md", corvane.work / "best.png"
    heartbeat.write_text("# Mine")
    before, code = corvane.tree(), service.command("invite")[0]
    plan = corvane.json(f"register --invite-code {code} --dry-run")["would"]
    assert plan[0].endswith("wallet.key") and plan[-1].endswith(str(heartbeat)) and corvane.tree() == before
    corvane("register", expect=2)
    corvane("register --invite-code CORV-2222-2222-2222", expect=4)
    corvane.secrets.append((home / "wallet.key").read_text())
    made = corvane.json("register --bootstrap --verbose", env={"CORVANE_INVITE_CODE": code})
    assert service.rows(f"SELECT used_by FROM invites WHERE code = '{code}'") == [(made["address"],)]
    assert made["reused"] and len(made["changed_files"]) == 4
    assert [mode(home), mode(home / "wallet.key"), mode(home / "session.json")] == ["700", "600", "600"]
    assert heartbeat.read_text().startswith("# Mine\n\n## [Corvane] Search Monitoring\n")

    corvane.env["CORVANE_SERVER_URL"] = ""  # from now on the session knows the service
    status = {"address": made["address"], "server_url": service.url, "accepted": True, "key": f"{home}/wallet.key"}
    assert status.items() <= corvane.json("status --online").items()
    assert corvane.json(f"status --data-dir {home}/other", expect=3)["address"] is None
    searched = corvane("search --max-evaluations 1500 --no-heartbeat --json")
    [first, *_] = json.loads(searched.stdout)["signals"]
    assert searched.stderr == "" and "First signal" not in heartbeat.read_text()
    assert corvane.json(f"simulate 1 --picture {drawn}")["expression"] == first["expression"] and drawn.exists()
    corvane("simulate nonsense(", expect=2)
    assert corvane.json("simulate 1 --picture x.png --dry-run")["would"][-1] == "draw x.png"
    assert "search: 100%" in corvane("search --max-evaluations 50 --progress").stderr
    assert corvane("heartbeat").stdout.endswith("has the checklist.\n")
    command = [*corvane.command, "search", "--max-evaluations", "9999999", "--progress"]
    with subprocess.Popen(command, stderr=-1, env=corvane.env, text=True, cwd=corvane.work) as endless:
        while "search:" not in endless.stderr.readline(40):
            assert endless.poll() is None
        endless.send_signal(signal.SIGINT)
        assert "Next: Run it again" in endless.communicate(timeout=30)[1] and endless.returncode == 130

    (home / "era_config.json").write_text("{}")
    assert not corvane.json("sync --check", expect=7)["intact"]
    assert corvane.json("sync")["changed_files"] == ["era_config.json"] and corvane.json("sync --check")["intact"]
    assert corvane.json("doctor") == {"findings": [], "errors": 0}
    assert "Nothing is revoked" in corvane("logout").stdout and (home / "wallet.key").exists()
    for line in ("sync", "search", "simulate 1", "status", "status --online"):
        corvane(line, expect=3, env={"CORVANE_SERVER_URL": service.url})
    corvane(f"logout --delete-key {address('5' * 64)}", expect=2)
    assert corvane.json("register", env={"CORVANE_SERVER_URL": service.url})["address"] == made["address"]
    corvane(f"logout --delete-key {made['address']}")
    assert not (home / "wallet.key").exists()


def test_login_never_loses_a_wallet(corvane, keys):
    (first, second, unknown), path = keys, corvane.home / "wallet.key"
    assert "would" in corvane.json("login --dry-run", first)
    for key, env, status in ((unknown, {}, 4), (first, {"CORVANE_SERVER_URL": NOBODY}, 5), (first, NO_CERTIFICATES, 6)):
        corvane("login", key, env=env, expect=status)
    assert not corvane.home.exists()
    assert corvane.json("login --verbose", first)["stored"] and path.read_text() == first
    before = corvane.tree()
    refused = json.loads(corvane("login --json", second, expect=6).stderr)
    assert refused["exit_status"] == 6 and "--replace" in refused["next_step"]
    for key, status in ((unknown, 4), ("0x" + "g" * 64, 4), ("", 2)):
        corvane("login --replace", key, expect=status)
    corvane("login --replace --dry-run", second)
    with open(corvane.home / "wallet.lock") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        corvane("login --replace", second, expect=5)
    assert corvane.tree() == before
    assert corvane.json("login", "0x" + first)["stored"] is False and path.read_text() == first
    replaced = corvane.json("login --replace", second)
    assert path.read_text() == second and Path(replaced["backup"]).read_text() == first
    assert mode(Path(replaced["backup"])) == mode(path) == "600" and replaced["address"] == address(second)
    read, write = os.pipe()
    os.write(write, first.encode() + b"\n")  # and nobody closes it
    assert corvane.json(f"login --replace --key-fd {read}", pass_fds=[read])["address"] == address(first)
    before, began = corvane.tree(), time.monotonic()
    corvane("login", expect=2, stdin=read)
    assert 9 < time.monotonic() - began < 40 and len(list(corvane.home.glob("wallet.key.backup-*"))) == 2
    corvane("login", expect=2, stdin=os.openpty()[1])
    for line in ("login --prompt", "login --key-fd 77", f"login {first}", first):
        corvane(line, first, expect=2)
    assert corvane.tree() == before


def test_a_key_from_the_environment_comes_first_and_touches_no_file(corvane, keys):
    corvane("login", keys[0])
    before, env = corvane.tree(), {"CORVANE_PRIVATE_KEY": keys[1]}
    for line in ("status --online", "register"):
        assert corvane.json(line, keys[0], env=env)["address"] == address(keys[1])
    assert len(corvane.json("sync", env=env)["changed_files"]) == 4 and before.items() <= corvane.tree().items()
    assert "CORVANE_PRIVATE_KEY is set" in corvane("logout", env=env).stdout
    corvane("login", keys[0], env=env, expect=2)
    corvane("status", env={"CORVANE_PRIVATE_KEY": "x" * 64}, expect=4)


def put(name, text, bits=0o600):
    return lambda home: ((home / name).write_text(text), (home / name).chmod(bits))


ENTRY, DIGEST = '{"era_id": 3, "version": 1, "files": {"%s": {"kind": "k", "size": 2%s}}}', f', "sha256": "{"0" * 64}"'
HOST = "#!/bin/sh\necho 'OpenClaw %s (abc)'\n"
DOCTOR = [
    ("directory", 9, lambda home: home.parent.chmod(0o777), "can be written by everybody"),
    ("directory", 8, lambda home: home.chmod(0o750), "can be read by other users"),
    ("key", 9, put("wallet.key", ""), "is empty"),
    ("key", 9, put("wallet.key", "abc"), "holds no key"),
    ("key", 9, lambda home: (home / "wallet.key").chmod(0o644), "is open to other users"),
    ("key", 9, lambda home: os.link(home / "wallet.key", home / "second"), "has 2 names"),
    ("key", 9, lambda home: (home / "wallet.key").symlink_to((home / "wallet.key").rename(home / "k")), "symbolic"),
    ("key", 9, lambda home: os.chown(home / "wallet.key", 12345, -1), "it belongs to user 12345"),
    ("key", 8, lambda home: (home / "wallet.key").unlink(), "There is no wallet key"),
    ("session", 8, put("wallet.key", "1" * 64), "The session is of"),
    ("manifest", 9, put("manifest.json", ENTRY % ("era_config.json", "")), "era_config.json sha256 Field required"),
    ("manifest", 9, put("manifest.json", ENTRY % ("runtime/../../x", DIGEST)), "is not allowed"),
    ("manifest", 9, put("manifest.json", "{"), "is malformed"),
    ("files", 9, lambda home: (home / "manifest.json").mkdir(), "Is a directory"),
    ("files", 9, put("manifest.json", ENTRY % ("era_config.json", DIGEST)), "is missing"),
    ("copies", 9, put(f".corvane-runtime-x-{'0' * 16}.so", "x"), "does not hold"),
    ("host", 8, put("../openclaw", HOST % "2026.8.1", 0o755), "openclaw 2026.8.1 does not read HEARTBEAT.md"),
    ("host", 8, put("../openclaw", HOST % "?", 0o755), "does not tell its version"),
    (None, 0, put("../openclaw", HOST % "2026.7.35", 0o755), "an older host"),
]


@pytest.mark.parametrize(("check", "status", "spoil", "problem"), DOCTOR)
def test_doctor_finds_what_is_wrong_on_this_machine(corvane, keys, check, status, spoil, problem):
    corvane("login", keys[0])
    corvane.env["PATH"] = f"{corvane.work}:/usr/bin:/bin"
    if "user 12345" in problem and os.getuid() != 0:
        pytest.skip("only root can give a file away")
    spoil(corvane.home)
    before = corvane.tree()
    findings = corvane.json("doctor --offline", expect=status)["findings"]
    assert [finding["check"] for finding in findings] == [check] * bool(check) and corvane.tree() == before
    assert all(problem in found["problem"] and found["reason"] and found["next_step"] for found in findings)
    for line in ("status", "register", "sync") if problem in ("is empty", "holds no key", "symbolic") else ():
        corvane(line, expect=6)
    if "read by other users" in problem:
        corvane.home.chmod(0o770)
        corvane("login", keys[0], expect=6)


def test_doctor_asks_the_service(corvane, planned):
    planned.RequestHandlerClass.date_time_string = lambda self, timestamp=None: "Thu, 01 Jan 2026 00:00:00 GMT"
    for status, checks in {302: ["key", "service", "clock"], 200: ["key", "clock"]}.items():
        planned.plan = [(status, {"Location": "https://a.example/health"}, b"")]
        findings = corvane.json(f"doctor --server-url {planned.url}", expect=9)["findings"]
        assert [finding["check"] for finding in findings] == checks
    assert "cannot be reached" in corvane(f"doctor --server-url {NOBODY}", expect=9).stdout


def test_doctor_explains_an_extension_for_another_interpreter(corvane):
    package = corvane.work / "lib/corvane"
    shutil.copytree(Path(kit.__file__).parent, package, ignore=shutil.ignore_patterns("*.so", "__pycache__"))
    (package / "agent_onboarding.cpython-311-x86_64-linux-gnu.so").write_bytes(b"")
    [finding, _] = corvane.json("doctor --offline", expect=9, env={"PYTHONPATH": package.parent})["findings"]
    corvane("register", expect=6, env={"PYTHONPATH": package.parent})
    assert finding["check"] == "extension" and "agent_onboarding.cpython-311" in finding["reason"]


def test_help_completion_and_documented_statuses(corvane):
    listed = corvane("--help").stdout.partition("Commands:")[2].partition("Examples:")[0]
    for name in (names := re.findall("^  ([a-z-]+)  ", listed, re.M)):
        text = corvane(f"{name} --help").stdout
        assert f"Examples:\n    corvane {name}" in text and "--json" in text
    assert len(names) == 11 and corvane("--version").stdout == "corvane, version 0.1.0\n"
    corvane.command = [Path(sys.executable).with_name("corvane")]
    for shell in ("bash", "zsh", "fish"):
        assert "_corvane_completion" in corvane("status", env={"_CORVANE_COMPLETE": f"{shell}_source"}).stdout
    documented = re.findall(r"^\| (\d+) \| (.+) \|$", Path(__file__).parents[1].joinpath("README.md").read_text(), re.M)
    assert dict(documented) == {str(int(status)): status.meaning for status in Exit}
    assert corvane.json("agents-md")["fragment"].startswith("## Corvane Integration\n")
    assert corvane("heartbeat --print").stdout.count("- [ ] **") == 5
    corvane("heartbeat", expect=6)
    assert json.loads(corvane("login --json --bogus", expect=2).stderr)["exit_status"] == 2

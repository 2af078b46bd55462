"""The command `corvane` as processes of its own, against the real service; looked at from outside."""

import fcntl
import json
import os
import pty
import re
import signal
import subprocess
import sys
import time
from functools import partial
from pathlib import Path

import pytest

import corvane as kit
from corvane_cli.command import Exit

CORVANE = (sys.executable, "-BP", "-m", "corvane_cli")
CATCH = partial(signal.signal, signal.SIGINT, signal.SIG_DFL)  # whoever runs the tests may ignore it


class Shell:
    """Runs commands for one data directory; what they print never holds a key that was used."""

    def __init__(self, url, work, forks):
        self.work, self.home, self.forks = work, work / "home", forks
        self.secrets = [f"{number:064x}" for number in (11, 12, 13)]
        self.env = {k: v for k, v in os.environ.items() if not k.startswith(("CORVANE_", "COLUMNS"))}
        self.env |= {"HOME": str(work), "PATH": f"{work}:/usr/bin:/bin", "PYTHONPATH": str(work)}
        self.env |= {"CORVANE_SERVER_URL": url, "CORVANE_DATA_DIR": str(self.home)}

    def __call__(self, line, text="", expect=0, env=(), command=CORVANE, **options):
        env = {**self.env, **dict(env)}
        if options or command != CORVANE:
            options = options if "stdin" in options else {"input": text} | options
            options |= {"cwd": self.work, "env": env, "timeout": 60, "capture_output": True, "text": True}
            done = subprocess.run([*command, *line.split(" ")], **options)
        else:
            done = self.forks(line.split(" "), text, env, self.work)
        assert done.returncode == expect, done.stdout + done.stderr
        assert not any(secret in done.stdout + done.stderr for secret in self.secrets)
        if 0 < expect < 7 and "status" not in line:
            assert done.stdout == "" and re.search("\\nNext: |next_step", done.stderr)
        return done

    def json(self, line, *arguments, **options):
        return json.loads(self(line + " --json", *arguments, **options).stdout)

    def tree(self):
        return {p: (p.stat().st_mtime_ns, p.read_bytes()) for p in self.work.rglob("*") if p.is_file()}


def limited(size):
    """The command, which cannot write more than so many bytes into any file."""
    return "prlimit", f"--fsize={size}", *CORVANE


def hurried(seconds):
    """The command with a second in the place of a longer time."""
    program = f"from corvane_cli import shared, wallet_commands; {seconds} = 1.0; "
    return sys.executable, "-BPc", program + "from corvane_cli.__main__ import run; run()"


@pytest.fixture
def corvane(service, tmp_path, forks):
    """A shell with three keys, of which the service knows two."""
    shell = Shell(service.url, tmp_path, forks)
    shell.addresses = [service.sign_up(int(key, 16)).get_wallet_address() for key in shell.secrets[:2]]
    return shell


def test_a_day_with_the_command(service, corvane):
    home, heartbeat, drawn, code = corvane.home, corvane.work / "HEARTBEAT.md", corvane.work / "a.png", service.invite()
    heartbeat.write_text("# Mine")
    assert corvane.json(f"register --invite-code {code} --dry-run")["would"] and not home.exists()
    corvane("register --invite-code CORV-2222-2222-2222", expect=4)
    corvane.secrets.append((home / "wallet.key").read_text())
    made = corvane.json("register --bootstrap --verbose", env={"CORVANE_INVITE_CODE": code})
    assert service.rows(f"SELECT used_by FROM invites WHERE code = '{code}'") == [(made["address"],)]
    assert made["reused"] and len(made["changed_files"]) == 4 and made["heartbeat"] == str(heartbeat)
    assert heartbeat.read_text().startswith("# Mine\n\n## [Corvane] Search Monitoring\n")
    assert corvane("heartbeat").stdout.endswith("has the checklist.\n")
    corvane.env["CORVANE_SERVER_URL"] = ""  # from now on the session knows the service
    status = {"address": made["address"], "server_url": service.url, "accepted": True, "key": f"{home}/wallet.key"}
    assert status.items() <= corvane.json("status --online").items()
    searched = corvane("search --max-evaluations 1500 --no-heartbeat --json --progress")
    assert "search: 100%" in searched.stderr and "First signal" not in heartbeat.read_text()
    [first, *_] = json.loads(searched.stdout)["signals"]
    assert corvane.json(f"simulate 1 --picture {drawn}")["expression"] == first["expression"]
    (own := corvane.work / "a.png.new").write_text("mine")
    for name, beginning in {"a.png": b"\x89PNG", "b.SVG": b"<?xml", "b.svg": b"<?xml"}.items():  # one was there
        corvane(f"simulate 1 --picture {corvane.work}/{name}")
        assert (corvane.work / name).read_bytes().startswith(beginning) and own.read_text() == "mine"
    corvane("simulate 1 --picture a.png", command=limited(33_000), expect=6)  # which is enough for all but that
    assert [*corvane.work.glob("*.png")] == [drawn] and drawn.read_bytes().endswith(b"IEND\xaeB`\x82")
    assert "disk I/O error" in corvane("search --no-heartbeat", command=limited(0), expect=6).stderr
    corvane("simulate nonsense(", expect=2)
    table = corvane("search --max-evaluations 1000 --seed 9 --no-heartbeat").stdout
    assert re.search(r"^number +traded +pool +Sharpe +expression$\n^\d+ +[A-Z]+ +", table, re.M)
    private = [home / name for name in ("wallet.key", "session.json", "search.db")]
    assert [path.stat().st_mode & 0o777 for path in (home, *private)] == [0o700, 0o600, 0o600, 0o600]
    command = [*CORVANE, "search", "--max-evaluations", "9999999", "--progress"]
    options = {"stderr": -1, "text": True, "env": corvane.env, "cwd": corvane.work, "preexec_fn": CATCH}
    with subprocess.Popen(command, **options) as endless:
        while "search:" not in endless.stderr.readline(40):
            assert endless.poll() is None
        endless.send_signal(signal.SIGINT)
        assert "Next: Run it again" in endless.communicate(timeout=30)[1] and endless.returncode == 130
    (home / "era_config.json").write_text("{}")
    assert not corvane.json("sync --check", expect=7)["intact"]
    repaired = corvane("sync --json")  # no bars where there is no terminal
    assert repaired.stderr == "" and json.loads(repaired.stdout)["changed_files"] == ["era_config.json"]
    assert corvane.json("sync --check")["intact"] and corvane.json("doctor")["findings"] == []
    corvane(f"logout --delete-key {corvane.addresses[0]}", expect=2)
    corvane(f"logout --delete-key {made['address']}")
    assert not (home / "wallet.key").exists()


def test_login_never_loses_a_wallet(corvane):
    (first, second, unknown), path = corvane.secrets, corvane.home / "wallet.key"
    corvane("login", unknown, expect=4)
    corvane("login", first, expect=5, env={"CORVANE_SERVER_URL": "https://127.0.0.1:1"})
    corvane("login", first, expect=6, env={"SSL_CERT_FILE": "/dev/null"})
    assert not corvane.home.exists()
    assert corvane.json("login", first)["stored"] and path.read_text() == first
    (corvane.work / "HEARTBEAT.md").write_text("# Mine")
    corvane(f"login --data-dir {corvane.work}/another", second)
    before, delete = corvane.tree(), f"logout --delete-key {corvane.addresses[0]}"
    for line in ("register", "login", delete, "sync", "search", "simulate 1", "heartbeat"):
        assert corvane.json(f"{line} --dry-run", first)["dry_run"]
    refused = json.loads(corvane("login --json", second, expect=6).stderr)
    assert refused["exit_status"] == 6 and "--replace" in refused["next_step"]
    for key, status in ((unknown, 4), ("0x" + "g" * 64, 4), ("", 2)):
        corvane("login --replace", key, expect=status)
    corvane("login --replace --dry-run", second)
    corvane.home.chmod(0o770)
    corvane("login --replace", second, expect=6)
    corvane.home.chmod(0o700)
    with open(corvane.home / "wallet.lock") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        corvane("login --replace", second, expect=5)
    odd = "login --key-fd 99999999999", "--timeout 1e300 status"
    for line in ("login --prompt", "login --key-fd 77", f"login {first}", "--bogus", *odd):
        corvane(line, first, expect=2)
    assert corvane.tree() == before
    assert corvane.json("login", "0x" + first)["stored"] is False and path.read_text() == first
    assert [corvane.json("heartbeat")["added"] != "" for _ in "12"] == [True, False]
    assert corvane.json("logout")["revoked"] is False and path.exists()
    for line in ("sync", "sync --dry-run", "search --dry-run", "simulate 1 --dry-run", "status", "status --online"):
        corvane(line, expect=3)
    read, write = os.pipe()
    os.write(write, second.encode() + b"\n")  # and nobody closes it
    replaced = corvane(f"login --replace --json --key-fd {read}", pass_fds=[read])
    backup = Path(json.loads(replaced.stdout)["backup"])
    assert [backup.read_text(), path.read_text()] == [first, second] and f"is kept in {backup}" in replaced.stderr
    assert backup.stat().st_mode & 0o777 == 0o600
    for source, why in ((read, "No key has arrived"), (pty.openpty()[1], "No key is read from a terminal")):
        began = time.monotonic()
        assert why in corvane("login", command=hurried("wallet_commands._KEY_SECONDS"), expect=2, stdin=source).stderr
        took = time.monotonic() - began
        assert took < 40 and (took > 0.9 or source != read)


def test_a_key_from_the_environment_comes_first_and_touches_no_file(corvane):
    corvane("login", corvane.secrets[0])
    before, env = corvane.tree(), {"CORVANE_PRIVATE_KEY": corvane.secrets[1]}
    for line in ("status --online", "register"):
        assert corvane.json(line, corvane.secrets[0], env=env)["address"] == corvane.addresses[1]
    assert len(corvane.json("sync", env=env)["changed_files"]) == 4 and before.items() <= corvane.tree().items()
    assert "CORVANE_PRIVATE_KEY is set" in corvane("logout", env=env).stdout
    corvane("login", corvane.secrets[0], env=env, expect=2)
    corvane("status", env={"CORVANE_PRIVATE_KEY": "x" * 64}, expect=4)


def test_help_completion_and_documented_statuses(corvane):
    listed = corvane("--help").stdout.partition("Commands:")[2].partition("Examples:")[0]
    for name in (names := re.findall("^  ([a-z-]+)  ", listed, re.M)):
        text = corvane(f"{name} --help").stdout
        assert f"Examples:\n    corvane {name}" in text and "--json" in text
    assert len(names) == 16 and corvane("--version").stdout == f"corvane, version {kit.__version__}\n"
    for shell in ("bash", "zsh", "fish"):
        assert corvane(f"completion {shell}").stdout.count("_corvane_completion") > 1
    assert corvane.json("agents-md")["fragment"].startswith("## Corvane Integration\n")
    assert corvane("heartbeat --print").stdout.count("- [ ] **") == 5
    corvane("heartbeat", expect=6)
    (corvane.work / "corvane_local.py").touch()  # found before the kit's
    assert "The demo has failed." in corvane("demo", expect=1).stderr
    documented = re.findall(r"^\| (\d+) \| (.+) \|$", Path(__file__).parents[1].joinpath("README.md").read_text(), re.M)
    assert dict(documented) == {str(int(status)): status.meaning for status in Exit}

"""The whole journey through separate processes: an operator, a service, an agent and again; looked at from outside."""

import json
import os
import sqlite3
import subprocess
import sys
from contextlib import closing
from hashlib import sha256

AGENT = """import logging, sys; from corvane import agent_onboarding, search_templates
logging.getLogger("corvane").addHandler(logging.StreamHandler(sys.stdout))  # warnings and errors
agent_onboarding.configure(server_url=sys.argv[1], data_dir="home")
try:
    print(agent_onboarding.register(bootstrap_runtime=True).address)
    print(len(search_templates.start_search(seed=7, max_evaluations=2000).signals))
except Exception as exc:
    print(f"{type(exc).__name__}: {exc}")
"""


def agent(url, work, code=""):
    command, environment = [sys.executable, "-Pc", AGENT, url], {**os.environ, "CORVANE_INVITE_CODE": code}
    return subprocess.check_output(command, cwd=work, env=environment, text=True).splitlines()


def test_the_whole_journey(service, tmp_path):
    home, heartbeat = tmp_path / "home", tmp_path / "HEARTBEAT.md"
    heartbeat.write_text("# Mine")
    code = service.command("invite")[0]
    address, found = agent(service.url, tmp_path, code)
    assert service.rows(f"SELECT used_by FROM invites WHERE code = '{code}'") == [(address,)]
    assert service.rows("SELECT address FROM wallets") == [(address,)]
    modes = {p.relative_to(home).as_posix(): p.stat().st_mode & 0o777 for p in home.rglob("*") if p.is_file()}
    assert modes["wallet.key"] == modes["search.db"] == 0o600 and len((home / "wallet.key").read_text()) == 64
    assert not [path for path in modes if path.endswith((".part", ".new"))]
    files = json.loads((home / "manifest.json").read_bytes())["files"]
    for path, entry in files.items():
        content = (home / path).read_bytes()
        assert (sha256(content).hexdigest(), len(content)) == (entry["sha256"], entry["size"]), path
    with closing(sqlite3.connect(home / "search.db")) as db:
        assert db.execute("SELECT count(*) FROM signals").fetchall() == [(int(found),)] != [(0,)]
        assert db.execute("SELECT outcome, evaluations FROM runs").fetchall() == [("finished", 2000)]
    text = heartbeat.read_text()
    assert text.startswith("# Mine\n\n## [Corvane] Search Monitoring\n") and text.count("First signal found!") == 1

    (home / "era_config.json").write_text("{}")  # a second process, the same wallet; what is spoilt is mended
    assert agent(service.url, tmp_path) == [address, "0"] and heartbeat.read_text().startswith(text)
    assert sha256((home / "era_config.json").read_bytes()).hexdigest() == files["era_config.json"]["sha256"]
    message = "ConnectionError: Cannot reach Corvane server. Check your network connection and try again."
    assert agent("https://127.0.0.1:1", tmp_path) == [message]

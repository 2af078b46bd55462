"""The whole journey through separate processes: an operator, a service, two agents; looked at from outside."""

import json
import os
import sqlite3
import stat
import subprocess
import sys
from contextlib import closing
from hashlib import sha256

AGENT = """
import logging, sys
import corvane
from corvane import agent_onboarding, search_templates
logging.basicConfig(level=logging.DEBUG, format="%(levelname)s %(name)s %(message)s", stream=sys.stderr)
agent_onboarding.configure(server_url=sys.argv[1], data_dir="home")
try:
    print(agent_onboarding.register(bootstrap_runtime=sys.argv[2] == "strict").address)
    if agent_onboarding.ensure_runtime_bootstrapped(strict=False) is not None:
        result = search_templates.start_search(seed=7, max_evaluations=2000)
        corvane.simulate_signal(1, picture="best.png")
        print(len(result.signals))
except Exception as exc:
    print(f"{type(exc).__name__}: {exc}")
"""


def agent(url, work, mode, **environment):
    command = [sys.executable, "-Pc", AGENT, url, mode]
    environment = {**os.environ, **environment}
    done = subprocess.run(command, cwd=work, env=environment, capture_output=True, text=True, check=True)
    ours = [line for line in done.stderr.splitlines() if " corvane.agent_onboarding " in line]
    return done.stdout.splitlines(), ours


def rows(path, query):
    with closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as db:
        return db.execute(query).fetchall()


def test_the_whole_journey(service, tmp_path):
    work, home = tmp_path, tmp_path / "home"
    (work / "HEARTBEAT.md").write_text("# Mine")
    code = service.command("invite")[0]
    (address, found), logged = agent(service.url, work, "strict", CORVANE_INVITE_CODE=code)
    assert service.rows(f"SELECT used_by FROM invites WHERE code = '{code}'") == [(address,)]
    assert service.rows("SELECT count(*) FROM wallets") == [(1,)]
    assert [line for line in logged if not line.startswith("INFO")] == []
    assert logged[0].endswith(f"Loaded per-era backtester from manifest in {home}")

    modes = {p.relative_to(home).as_posix(): stat.S_IMODE(p.stat().st_mode) for p in home.rglob("*") if p.is_file()}
    assert modes["wallet.key"] == modes["search.db"] == 0o600 and len((home / "wallet.key").read_text()) == 64
    manifest = json.loads((home / "manifest.json").read_bytes())
    for path, entry in manifest["files"].items():
        content = (home / path).read_bytes()
        assert (sha256(content).hexdigest(), len(content)) == (entry["sha256"], entry["size"]), path
    copies = [path for path in modes if "/.corvane-runtime-" in path]
    assert sorted(sha256((home / path).read_bytes()).hexdigest()[:16] for path in copies) == sorted(
        entry["sha256"][:16] for entry in manifest["files"].values() if entry["kind"].startswith("runtime_module:")
    )
    assert not [path for path in modes if path.endswith((".part", ".new"))]
    assert rows(home / "search.db", "SELECT count(*) FROM signals") == [(int(found),)]
    assert rows(home / "search.db", "SELECT outcome, evaluations FROM runs") == [("finished", 2000)]
    text = (work / "HEARTBEAT.md").read_text()
    assert text.startswith("# Mine\n\n## [Corvane] Search Monitoring\n") and text.count("First signal found!") == 1
    assert (work / "best.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"

    (home / "era_config.json").write_text("{}")  # a second process, the same wallet; what is spoilt is mended
    (again, more), logged = agent(service.url, work, "tolerant")
    assert (again, more) == (address, "0") and logged[0].startswith("INFO")
    assert sha256((home / "era_config.json").read_bytes()).hexdigest() == manifest["files"]["era_config.json"]["sha256"]
    assert (work / "HEARTBEAT.md").read_text().startswith(text)

    [refused], logged = agent("https://127.0.0.1:1", work, "strict")
    message = "ConnectionError: Cannot reach Corvane server. Check your network connection and try again."
    assert refused == message and logged == []

"""The whole journey through separate processes: an operator, a service, an agent and again; looked at from outside."""

import json
import os
import sqlite3
import subprocess
import sys
from contextlib import closing, contextmanager
from hashlib import sha256
from itertools import takewhile

AGENT = """import logging, sys; import corvane
from corvane import _runtime, agent_onboarding as onboarding, search_templates
logging.basicConfig(stream=sys.stdout, format="%(levelname)s %(message)s")  # warnings and errors
onboarding.configure(server_url=sys.argv[1], data_dir="home")
for line in sys.stdin:
    try:
        print(eval(line))
    except Exception as exc:
        print(f"{type(exc).__name__}: {exc}")
    print(flush=True)
"""
REGISTER = "onboarding.register(bootstrap_runtime=True).address"
EARNED = "corvane.simulate_signal('IBM').total_return"
SEARCH = "len(search_templates.start_search(seed=7, max_evaluations=2000).signals)"


@contextmanager
def agent(url, work, code=""):
    """A process of its own that evaluates an expression, and returns the lines that it printed and logged."""
    command, environment = [sys.executable, "-Pc", AGENT, url], {**os.environ, "CORVANE_INVITE_CODE": code}
    with subprocess.Popen(command, cwd=work, env=environment, text=True, stdin=-1, stdout=-1) as process:

        def ask(expression):
            print(expression, file=process.stdin, flush=True)
            return [line.rstrip("\n") for line in takewhile("\n".__ne__, process.stdout)]

        yield ask


def test_the_whole_journey(service, tmp_path):
    home, heartbeat = tmp_path / "home", tmp_path / "HEARTBEAT.md"
    heartbeat.write_text("# Mine")
    code = service.invite()
    with agent(service.url, tmp_path, code) as ask:
        [address], [found] = ask(REGISTER), ask(SEARCH)
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

    (home / "era_config.json").write_text("{}")  # a second process, the same wallet; what is damaged is repaired
    with agent(service.url, tmp_path) as ask:
        assert (ask(REGISTER), ask(SEARCH)) == ([address], ["0"]) and heartbeat.read_text().startswith(text)
        assert float((earned := ask(EARNED))[0]) != 0
    assert sha256((home / "era_config.json").read_bytes()).hexdigest() == files["era_config.json"]["sha256"]

    with agent(service.url, tmp_path) as ask:  # a third one, and the service goes away under it
        assert ask("onboarding.configure(named_universe='us_large') or onboarding.register().address") == [address]
        assert ask("_runtime.get_runtime()") == ["None"]
        service.process.kill()
        service.process.wait()
        refused = "[Errno 111] Connection refused"
        away = f"{service.url} cannot be reached: {refused}"
        log = f"WARNING Failed to bootstrap corvane runtime: {away}"
        bootstrap = "onboarding.ensure_runtime_bootstrapped(strict=False)"
        assert ask(f"{bootstrap}.sync_manager.request_for_sync()") == [log, "[]"] and ask(EARNED) == earned
        failure = "RuntimeError: Corvane registration authenticated, but runtime data bootstrap failed: "
        chain = f"{failure}ConnectionError: {away}; caused by ConnectError: {refused}"
        assert ask("_runtime.close_runtime() or onboarding.ensure_runtime_bootstrapped()") == [log, chain]

        [module] = home.glob("runtime/*/backtester-*.so")
        content, expected = bytearray(module.read_bytes()), sha256(module.read_bytes()).hexdigest()
        content[len(content) // 2] ^= 1
        module.unlink()  # the bytes of a file that is loaded must never change
        module.write_bytes(content)
        mismatch = f"hash mismatch at {module}: expected {expected}, got {sha256(content).hexdigest()}."
        answer = ask(f"onboarding.logger.setLevel('DEBUG') or {bootstrap}")
        assert f"DEBUG Failed to bootstrap local corvane runtime: Runtime module 'backtester' {mismatch}" in answer
        assert answer[-1] == "None"

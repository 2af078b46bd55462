"""examples/fleet.py with Ray: services that go away, processes that are killed, bad invites, and the run after that."""

import contextlib
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from corvane import auth
from corvane_local.store import Store

pytestmark = pytest.mark.fleet
COMMAND = [sys.executable, "-P", Path(__file__).parents[2] / "examples/fleet.py"]
AGENTS = int(os.environ.get("FLEET_AGENTS", "12"))
AT_ONCE = max(4, AGENTS // 12)
REFUSED = ("is unknow", "has been ", "required.")  # what follows "invite code", by kind of bad code


def fleet(agents, base, url):
    agents_file = base.with_suffix(".txt")
    agents_file.write_text("".join(f"{name},{code}\n" for name, code in agents.items()))
    command = [*COMMAND, agents_file, base, "--server-url", url, "--at-once", str(AT_ONCE)]
    return subprocess.Popen(command, stdout=-1, stderr=-1, text=True)


def outcomes(process, status):
    """The address or the error of each agent."""
    out, err = process.communicate()
    assert process.returncode == status, err
    return dict(line.split(maxsplit=1) for line in out.splitlines())


def at_work(base, driver):
    """The processes that have the lock file of an agent open, while the example runs."""
    assert driver.poll() is None, driver.communicate()[1]
    found = set()
    for descriptor in Path("/proc").glob("[0-9]*/fd/*"):
        with contextlib.suppress(OSError):
            if os.readlink(descriptor).startswith(f"{base}/.locks/"):
                found.add(int(descriptor.parts[2]))
    return found - {driver.pid}


def test_nothing_is_lost_and_no_wallet_made_twice(start, tmp_path):
    base, killed, most = tmp_path / "agents", set(), 0
    with contextlib.ExitStack() as stack:
        service = stack.enter_context(start())
        stores = Store(tmp_path / "elsewhere.db"), Store(tmp_path / "service.db")
        bad = {f"agent-{number}": number // 4 % 3 for number in range(1, AGENTS, 4)}
        for number, (name, kind) in enumerate(bad.items(), 1):
            bad[name] = f"junk-{number}" if kind == 2 else stores[kind].make_invite()
            if kind == 1:
                service.sign_in(number, bad[name])
        used = dict(service.rows("SELECT code, used_by FROM invites WHERE used_by IS NOT NULL"))
        good = {f"agent-{number}": service.invite() for number in range(AGENTS)}
        process = fleet(good | bad, base, service.url)
        for wanted in range(2, AGENTS // 2, 6):
            while len(service.rows("SELECT * FROM wallets")) < len(used) + wanted:
                most = max(most, len(at_work(base, process)))
            service.process.kill()
            while not (working := at_work(base, process) - killed):
                pass
            killed.add(victim := working.pop())
            os.kill(victim, signal.SIGKILL)
            service = stack.enter_context(start("--port", service.url.rpartition(":")[2]))
        first = outcomes(process, 1)
        assert [first.pop(name).partition("nvite code ")[2][:9] for name in bad] == [*REFUSED * AGENTS][: len(bad)]
        second = outcomes(fleet(good, base, service.url), 0)
        service.process.kill()
        assert outcomes(fleet(good, base, service.url), 0) == second  # without anybody that would miss the service
        assert len(second) == AGENTS and second | first == second
        for name, address in second.items():
            key = base / name / "wallet.key"
            assert key.stat().st_mode == 0o100600 and [key] == list((base / name).iterdir())
            assert auth.AuthManager("0x" + key.read_text(), service.url).get_wallet_address() == address
        used |= {good[name]: address for name, address in second.items()}
        assert dict(service.rows("SELECT code, used_by FROM invites")) == used
        assert sorted(service.rows("SELECT address FROM wallets")) == sorted((address,) for address in used.values())
    assert 1 < most <= AT_ONCE and killed


@pytest.mark.parametrize("text", ["a,CORV-1\nb,corv-1", "a,x\na,y", "../a,x", ",x\n.locks,y", "a/b,x"])
def test_bad_lists_start_nothing(text, tmp_path):
    (tmp_path / "list").write_text(text)
    command = [*COMMAND, tmp_path / "list", tmp_path / "base", "--server-url", "https://127.0.0.1:1"]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 2 and "line " in done.stderr and not (tmp_path / "base").exists()

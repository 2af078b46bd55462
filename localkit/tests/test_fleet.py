"""examples/fleet.py with Ray: services that go away, processes that are killed, bad invites, and the run after that."""

import contextlib
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from corvane import auth
from corvane_local.store import Store

pytestmark = pytest.mark.fleet
COMMAND = [sys.executable, "-P", Path(__file__).parents[2] / "examples/fleet.py"]
AGENTS = int(os.environ.get("FLEET_AGENTS", "12"))
AT_ONCE = max(4, AGENTS // 12)
REFUSED = (" is unknow", " has been ", " required.")  # what follows "invite code", by kind of bad code


def fleet(agents, base, url):
    agents_file = base.with_suffix(".txt")
    agents_file.write_text("".join(f"{name},{code}\n" for name, code in agents.items()))
    command = [*COMMAND, agents_file, base, "--server-url", url, "--at-once", str(AT_ONCE)]
    return subprocess.Popen(command, stdout=-1, stderr=-1, text=True)


def table(process):
    out, err = process.communicate()
    return dict(line.split(maxsplit=1) for line in out.splitlines()), err


def at_work(base, driver):
    """The processes that have the lock file of an agent open."""
    found = set()
    for descriptor in Path("/proc").glob("[0-9]*/fd/*"):
        with contextlib.suppress(OSError):
            if os.readlink(descriptor).startswith(f"{base}/.locks/"):
                found.add(int(descriptor.parts[2]))
    return found - {driver.pid}


def test_nothing_is_lost_and_no_wallet_made_twice(start, tmp_path):
    base, killed, most, started = tmp_path / "agents", set(), 0, time.monotonic()
    with contextlib.ExitStack() as stack:
        service = stack.enter_context(start())
        store, elsewhere = Store(tmp_path / "service.db"), Store(tmp_path / "elsewhere.db")
        bad = {f"agent-{number}": number // 4 % 3 for number in range(1, AGENTS, 4)}
        for number, (name, kind) in enumerate(bad.items(), 1):
            bad[name] = f"junk-{number}" if kind == 2 else (elsewhere, store)[kind].make_invite()
            if kind == 1:
                service.sign_in(number, bad[name])
        used = dict(service.rows("SELECT code, used_by FROM invites WHERE used_by IS NOT NULL"))
        good = {f"agent-{number}": store.make_invite() for number in range(AGENTS)}
        process = fleet(good | bad, base, service.url)
        for wanted in range(2, AGENTS // 2, 6):
            while len(service.rows("SELECT * FROM wallets")) < len(used) + wanted:
                most = max(most, len(at_work(base, process)))
                assert process.poll() is None
            service.process.kill()
            while not (working := at_work(base, process) - killed):
                assert process.poll() is None
            killed.add(victim := working.pop())
            os.kill(victim, signal.SIGKILL)
            service = stack.enter_context(start("--port", service.url.rpartition(":")[2]))
        first, error = table(process)
        assert error.endswith(
            f"Error: {len(bad)} of {AGENTS} agents are not onboarded; mend the cause and run again.\n"
        )
        assert [first.pop(name).partition("nvite code")[2][:10] for name in bad] == [*REFUSED * AGENTS][: len(bad)]
        keys = {name: (base / name / "wallet.key").read_bytes() for name in first}
        print(f"{len(killed)} kills, {len(bad)} bad, at most {most} at once, {time.monotonic() - started:.0f} s")

        second, error = table(process := fleet(good, base, service.url))
        assert (process.returncode, len(second)) == (0, AGENTS) and second | first == second, error
        for name, address in second.items():
            key = base / name / "wallet.key"
            assert key.stat().st_mode == 0o100600 and [key] == list((base / name).iterdir())
            assert auth.AuthManager("0x" + key.read_text(), service.url).get_wallet_address() == address
            assert keys.get(name, key.read_bytes()) == key.read_bytes()
        wallets = [address for (address,) in service.rows("SELECT address FROM wallets")]
        assert sorted(wallets) == sorted([*used.values(), *second.values()])
        used |= {good[name]: address for name, address in second.items()}
        assert dict(service.rows("SELECT code, used_by FROM invites")) == used
    assert 1 < most <= AT_ONCE and killed


@pytest.mark.parametrize("text", ["a,CORV-1\nb,corv-1", "a,x\na,y", "../a,x", ",x\n.locks,y", "a/b,x"])
def test_bad_lists_start_nothing(text, tmp_path):
    (tmp_path / "list").write_text(text)
    command = [*COMMAND, tmp_path / "list", tmp_path / "base", "--server-url", "https://127.0.0.1:1"]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 2 and "line " in done.stderr and not (tmp_path / "base").exists()

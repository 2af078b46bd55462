"""wallet.key on a real file system: umasks, other users, races; and its text, which is never shown."""

import os
import subprocess
import sys

import pytest

from support.comparison import same
from support.scenarios import KEY, base, call, file, other_os

READ, WRITE = call("_read_wallet_key", "d"), call("_write_wallet_key", "d", KEY)
VICTIM = file("d/wallet.key", "victim", 0o666)
NOBODY = 65534


@pytest.mark.parametrize("umask", [0, 0o077, 0o777])
def test_new_key_is_owner_only_whatever_the_umask(umask):
    seen = same(WRITE, file("d/other"), lambda undo: undo.callback(os.umask, os.umask(umask)))
    assert seen["files"]["d/wallet.key"] == ("0o100600", KEY.encode())


def nobody(undo):
    undo.callback(base().chmod, 0o700)
    base().chmod(0o755)
    undo.callback(os.setresuid, 0, 0, 0)
    os.setresuid(NOBODY, NOBODY, 0)


def given_away(undo):
    os.chown("d/wallet.key", NOBODY, NOBODY)


@pytest.mark.skipif(os.getuid() != 0, reason="needs root to become somebody else")
@pytest.mark.parametrize("user", [nobody, given_away])
@pytest.mark.parametrize("act", [READ, WRITE], ids=["read", "write"])
def test_another_users_key_is_refused_both_ways(act, user):
    seen = same(act, VICTIM, lambda undo: os.chmod("d", 0o777), user)
    refusal = "Unsafe wallet key at /work/d/wallet.key. Refusing to use wallet.key with unsafe ownership, type, or perm"
    assert refusal in seen["raised"]["text"].replace(str(base()), "")
    assert seen["files"]["d/wallet.key"] == ("0o100666", b"victim")


@pytest.mark.parametrize("act", [READ, WRITE], ids=["read", "write"])
def test_swapped_for_a_link_between_check_and_open(act):
    """The race that the check of the open descriptor and O_NOFOLLOW are there for, for reading and for writing."""

    def swapping(path, *args):
        os.unlink(path)
        os.symlink("victim", path)
        return os.open(path, *args)

    seen = same(act, VICTIM, file("d/victim", "secret"), other_os(open=swapping))
    assert seen["raised"]["context"]["attributes"][0] == "40" and seen["files"]["d/victim"][1] == b"secret"


def test_no_key_text_in_any_message(tmp_path):
    """Not in tracebacks, not in the log, not in a representation, whatever fails."""
    secret = "deadbeef" * 8
    (tmp_path / "wallet.key").mkdir()
    script = f"""
import logging, sys, traceback
logging.basicConfig(level=0)
import corvane.agent_onboarding as m
m.configure(server_url="http://127.0.0.1:9")
for directory in ({str(tmp_path)!r}, {str(tmp_path / "other")!r}):
    m.configure(data_dir=directory)
    try:
        m.login(sys.stdin.readline().strip())
    except Exception:
        traceback.print_exc()
"""
    done = subprocess.run([sys.executable, "-c", script], input=f"{secret}\n{secret}\n", capture_output=True, text=True)
    assert "Cannot reach Corvane server" in done.stderr and "Unsafe wallet key" in done.stderr
    assert secret not in done.stderr + done.stdout

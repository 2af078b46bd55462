"""wallet.key on a real file system: umasks, other users, links in between; and its text, which is never shown."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

from support import promises as p
from support import scenarios as e
from support.comparison import story

VICTIM = e.file("d/wallet.key", "victim", 0o666)
NOBODY = 65534
READ, WRITE = e.call("_read_wallet_key", "d"), e.call("_write_wallet_key", "d", e.KEY)
ACTS = pytest.mark.parametrize(("act", "seen"), [(READ, (p.LSTAT,)), (WRITE, (p.MADE, p.LSTAT))], ids=["read", "write"])


def told(act, *prepare):
    return story(e.Call(act, "", prepare))


def nobody(undo):
    undo.callback(e.base().chmod, 0o700)
    e.base().chmod(0o755)
    undo.callback(os.setresuid, 0, 0, 0)
    os.setresuid(NOBODY, NOBODY, 0)


def given_away(undo):
    os.chown("d/wallet.key", NOBODY, NOBODY)


@pytest.mark.parametrize("umask", [0, 0o077, 0o777])
def test_a_key_is_written_for_its_owner_alone_whatever_the_umask(umask):
    assert told(lambda: (os.umask(umask), WRITE()), e.file("d/other"))[-1] == p.left(e.KEY)


needs_root = pytest.mark.skipif(os.getuid() != 0, reason="needs root to become somebody else")


@needs_root
@pytest.mark.parametrize("user", [nobody, given_away])
@ACTS
def test_the_key_of_another_user_is_refused(act, seen, user):
    assert told(act, VICTIM, lambda undo: os.chmod("d", 0o777), user) == (*seen, f"raised {p.UNSAFE}")


@needs_root
def test_a_user_who_is_not_root_reads_and_replaces_the_own_key():
    def owned(undo):
        for path in ".", "d", "d/wallet.key":
            os.chown(path, NOBODY, NOBODY)

    there = e.file("d/wallet.key", "old", 0o640), owned, nobody
    closed = p.LSTAT, p.OPEN_READ, p.FSTAT, p.FCHMOD, "returned 'old'", p.left("old", " of 0")
    assert told(READ, *there) == closed
    replaced = p.MADE, p.LSTAT, p.OPEN_WRITE, p.FSTAT, p.FCHMOD, *p.saved(e.KEY)[2:], "returned None", p.left(e.KEY)
    assert told(WRITE, *there) == replaced


@ACTS
def test_a_link_that_is_swapped_in_between_check_and_open_is_refused(act, seen):
    def swapping(path, *args):
        os.unlink(path)
        os.symlink("victim", path)
        return os.open(path, *args)

    refusal, opened = (p.UNSAFE, p.OPEN_READ) if act is READ else (p.NOT_WRITTEN, p.OPEN_WRITE)
    loop = f" while [OSError: [Errno 40] Too many levels of symbolic links: '{p.K}']"
    swapped = e.other_os(open=swapping), VICTIM, e.file("d/victim", "secret")
    assert told(act, *swapped) == (*seen, opened, f"raised {refusal}{loop}", "d/wallet.key: 120777 'victim'")


def test_no_message_shows_a_key(tmp_path):
    """Not in tracebacks, not in the log, not in a representation, whatever fails."""
    secret = "deadbeef" * 8
    (tmp_path / "wallet.key").mkdir()
    command = sys.executable, Path(__file__).with_name("programs") / "failing_logins.py", tmp_path, tmp_path / "other"
    done = subprocess.run(command, input=f"{secret}\n{secret}\n", capture_output=True, text=True)
    assert "Cannot reach Corvane server" in done.stderr and "Unsafe wallet key" in done.stderr
    assert secret not in done.stderr + done.stdout

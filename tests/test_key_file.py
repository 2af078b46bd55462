"""wallet.key on a real file system: modes, umasks, other users, objects that must not hang or be touched."""

import os
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

from corvane import agent_onboarding as m

KEY = "5a" * 32
as_root = pytest.mark.skipif(os.getuid() != 0, reason="needs root to become somebody else")


@pytest.fixture(autouse=True)
def no_hang():
    signal.alarm(5)
    yield
    signal.alarm(0)


@pytest.mark.parametrize("umask", [0, 0o077, 0o777])
def test_new_key_is_owner_only_whatever_the_umask(tmp_path, umask):
    old = os.umask(umask)
    try:
        m._write_wallet_key(tmp_path, KEY)
    finally:
        os.umask(old)
    key = tmp_path / "wallet.key"
    assert stat.S_IMODE(key.stat().st_mode) == 0o600 and key.read_bytes() == KEY.encode()


def in_child(action):
    """Runs action in a forked child and answers what it printed with its exit status."""
    read, write = os.pipe()
    if (pid := os.fork()) == 0:
        try:
            os.write(write, repr(action()).encode())
        except BaseException as exc:
            os.write(write, f"{type(exc).__name__}: {exc}".encode())
        os._exit(0)
    os.close(write)
    with open(read, "rb") as pipe:
        answer = pipe.read().decode()
    assert os.waitpid(pid, 0)[1] == 0
    return answer


@as_root
def test_another_users_key_is_refused_both_ways(request):
    directory = Path(tempfile.mkdtemp())  # where another user can get at it, unlike tmp_path
    request.addfinalizer(lambda: shutil.rmtree(directory))
    directory.chmod(0o777)
    key = directory / "wallet.key"
    key.write_text("victim")
    key.chmod(0o666)

    def as_nobody():
        os.setresuid(65534, 65534, 65534)
        return m._write_wallet_key(directory, KEY)

    refusal = (
        f"OSError: Unsafe wallet key at {key}. Refusing to use wallet.key with unsafe ownership, type, or permissions."
    )
    assert in_child(as_nobody) == refusal
    os.chown(key, 65534, 65534)
    for call in (lambda: m._read_wallet_key(directory), lambda: m._write_wallet_key(directory, KEY)):
        assert in_child(call) == refusal
    assert key.read_text() == "victim" and stat.S_IMODE(key.stat().st_mode) == 0o666


def test_swapped_for_a_link_between_check_and_open(tmp_path, monkeypatch):
    """The race that the check of the open descriptor and O_NOFOLLOW are there for, for reading and for writing."""
    key, victim = tmp_path / "wallet.key", tmp_path / "victim"

    class SwappingOs:
        def __getattr__(self, name):
            return getattr(os, name)

        def open(self, path, *args):
            key.unlink()
            key.symlink_to(victim)
            return os.open(path, *args)

    for call in (lambda: m._read_wallet_key(tmp_path), lambda: m._write_wallet_key(tmp_path, KEY)):
        key.unlink(missing_ok=True)
        key.write_text(KEY)
        victim.write_text("secret")
        with monkeypatch.context() as patch:
            patch.setattr(m, "os", SwappingOs())
            with pytest.raises(OSError, match=r"Unsafe wallet key at|Cannot write wallet to") as info:
                call()
        assert info.value.__context__.errno == 40 and victim.read_text() == "secret"


def test_disk_full_leaves_the_documented_state(tmp_path):
    """A write that fails is reported, the descriptor is closed, the file stays truncated."""

    def full():
        import resource

        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))
        before = len(os.listdir("/proc/self/fd"))
        try:
            m._write_wallet_key(tmp_path, KEY)
        except OSError as exc:
            return str(exc), exc.__context__.errno, len(os.listdir("/proc/self/fd")) - before

    expected = (f"Cannot write wallet to {tmp_path}/wallet.key. Check directory permissions.", 27, 0)
    assert in_child(full) == repr(expected)
    assert (tmp_path / "wallet.key").read_bytes() == b""


def test_no_key_text_in_any_message(tmp_path):
    """Not in tracebacks, not in the log, not in a representation, whatever fails."""
    secret = "deadbeef" * 8
    (tmp_path / "wallet.key").mkdir()
    script = f"""
import logging, sys, traceback
logging.basicConfig(level=0)
import corvane.agent_onboarding as m
m.configure(data_dir={str(tmp_path)!r}, server_url="http://127.0.0.1:9")
for directory in (m._config["data_dir"], {str(tmp_path / "other")!r}):
    m.configure(data_dir=directory)
    try:
        m.login(sys.stdin.readline().strip())
    except Exception:
        traceback.print_exc()
"""
    done = subprocess.run([sys.executable, "-c", script], input=f"{secret}\n{secret}\n", capture_output=True, text=True)
    assert "Cannot reach Corvane server" in done.stderr and "Unsafe wallet key" in done.stderr
    assert secret not in done.stderr + done.stdout

"""The main job end to end, in processes of its own, and broken on purpose in five ways."""

import os
import subprocess
import sys

import pytest


@pytest.mark.parametrize(
    ("options", "status", "last_line"),
    [
        ([], 0, "demo: all 22 steps hold"),
        (["--sabotage", "service"], 1, "demo: FAILED in this step"),
        (["--sabotage", "key-file"], 1, "demo: FAILED in this step"),
        (["--sabotage", "invite"], 1, "demo: FAILED in this step"),
        (["--sabotage", "module"], 1, "demo: FAILED in this step"),
        (["--sabotage", "database"], 1, "demo: FAILED in this step"),
    ],
)
def test_demo(options, status, last_line, tmp_path):
    environment = {**os.environ, "TMPDIR": str(tmp_path), "HOME": str(tmp_path)}
    command = [sys.executable, "-P", "-m", "corvane_local.demo", *options]
    done = subprocess.run(command, capture_output=True, text=True, env=environment, cwd=tmp_path)
    assert (done.returncode, done.stdout.splitlines()[-1]) == (status, last_line), done.stdout + done.stderr
    assert not list(tmp_path.iterdir())
    left = subprocess.run(["pgrep", "-f", str(tmp_path)], capture_output=True, text=True).stdout
    assert left == ""

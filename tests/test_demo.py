"""The main job end to end, in processes of its own, and damaged in ways that the steps must see."""

import os
import re
import subprocess
import sys

import pytest


@pytest.fixture
def demo(tmp_path, monkeypatch):
    def run(*options):
        command = [sys.executable, "-P", "-m", "corvane_local.demo", *options]
        return subprocess.run(command, capture_output=True, text=True, cwd=tmp_path)

    monkeypatch.setenv("TMPDIR", str(tmp_path))
    monkeypatch.setenv("HOME", str(tmp_path))
    yield run
    monkeypatch.setenv("LD_PRELOAD", "")  # pgrep never ends with a sanitizer's library
    assert subprocess.run(["pgrep", "-f", tmp_path], capture_output=True, text=True).stdout == ""


def test_demo(demo, tmp_path):
    done = demo("--keep", "kept")
    assert (done.returncode, done.stdout.splitlines()[-1]) == (0, "demo: all 22 steps hold"), done.stdout + done.stderr
    [picture] = re.findall("; the picture is (.*)", done.stdout)
    assert os.listdir(tmp_path) == ["kept"] and os.path.samefile(picture, tmp_path / "kept/workspace/best.png")
    assert os.stat(tmp_path / "kept").st_mode & 0o777 == 0o700 and (tmp_path / "kept/agent/wallet.key").exists()


@pytest.mark.parametrize(
    ("sabotage", "step", "claim"),
    [
        ("key-file", 3, "wallet.key is there: 64 digits, mode 600"),
        ("heartbeat", 10, "one line was added, nothing else changed"),
        ("module", 14, "nothing is raised here. RuntimeError: Corvane registration authenticated, but "),
        ("picture", 16, "the curve in the picture is this capital"),
    ],
)
def test_sabotage(demo, sabotage, step, claim, tmp_path):
    done = demo("--sabotage", sabotage)
    *_, fault, _, removed, last = done.stdout.splitlines()
    assert (done.returncode, last) == (1, f"demo: FAILED in step {step}"), done.stdout + done.stderr
    assert removed.startswith("Everything was removed; --keep DIR ") and not list(tmp_path.iterdir())
    assert fault.startswith(f"   NOT TRUE: {claim}") and done.stdout.count("NOT TRUE") == 1
    assert re.findall(r"^(\d+)\. ", done.stdout, re.M)[-1] == str(step)

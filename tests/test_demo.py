"""The main job end to end, in processes of its own, and damaged in five ways: four silently, one that the kit sees."""

import os
import re
import subprocess
import sys

import pytest


@pytest.fixture
def demo(tmp_path):
    def run(*options):
        environment = {**os.environ, "TMPDIR": str(tmp_path), "HOME": str(tmp_path)}
        command = [sys.executable, "-P", "-m", "corvane_local.demo", *options]
        return subprocess.run(command, capture_output=True, text=True, env=environment, cwd=tmp_path)

    yield run
    plain = {**os.environ, "LD_PRELOAD": ""}  # pgrep never ends with a sanitizer's library
    left = subprocess.run(["pgrep", "-f", str(tmp_path)], capture_output=True, text=True, env=plain).stdout
    assert left == ""


def test_demo(demo, tmp_path):
    done = demo("--keep", "kept")
    assert (done.returncode, done.stdout.splitlines()[-1]) == (0, "demo: all 22 steps hold"), done.stdout + done.stderr
    for step in done.stdout.split("\n\n"):
        assert ("Error: " in step) <= ("Next step: " in step), step
    assert not re.search(r"\.\d{5}", done.stdout)
    [picture] = re.findall("; the picture is (.*)", done.stdout)
    assert os.listdir(tmp_path) == ["kept"] and os.path.samefile(picture, tmp_path / "kept/workspace/best.png")
    assert os.stat(tmp_path / "kept").st_mode & 0o777 == 0o700 and (tmp_path / "kept/agent/wallet.key").exists()
    again = demo("--keep", "kept")
    assert again.returncode == 2 and "This directory cannot be made: " in again.stderr and again.stdout == ""


@pytest.mark.parametrize(
    ("sabotage", "step", "claim"),
    [
        ("key-file", 3, "wallet.key is there: 64 digits, mode 600"),
        ("invite", 4, "the service has used the invite for this wallet"),
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

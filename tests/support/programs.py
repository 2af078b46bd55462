"""Runs the programs of tests/programs, each in an interpreter of its own."""

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).parents[1]
SECONDS = float(os.environ.get("TEST_PROGRAM_SECONDS", "100"))  # an emulator needs more


def run(program, *arguments, status=0, errors=""):
    """What a program prints that ends as it should; what is no name is code."""
    file = TESTS / f"programs/{program}.py"
    which = [file] if program.isidentifier() else ["-c", program]
    if "test.support" in (file.read_text() if program.isidentifier() else program):
        pytest.importorskip("test", reason="the interpreter comes without its own tests")
    command = [sys.executable, "-X", "dev", "-P", *which, *arguments]
    environment = {**os.environ, "PYTHONPATH": f"{os.environ.get('PYTHONPATH', '')}:{TESTS}"}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=SECONDS)
    seen = done.returncode, re.search(errors, done.stderr) is not None if errors else done.stderr
    assert seen == (status, bool(errors) or ""), (seen, done.stdout[-500:], done.stderr[-2000:])
    return done.stdout.strip()

"""Where the module can be built, and what is said where it cannot."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[1]
PRETEND = "import sys, sysconfig; sys.argv = ['check_python.py']; {}; exec(open('tools/check_python.py').read())"
SUPPORTED = "corvane.agent_onboarding supports CPython 3.12, 3.13 and 3.14 with the GIL, on 64-bit Linux with glibc"
VARIABLE = "sysconfig.get_config_vars()[{!r}] = {!r}".format
REFUSED = {
    "sys.version_info = (3, 11, 9)": "is CPython 3.11.9.",
    "sys.version_info = (3, 15, 0)": "is CPython 3.15.0.",
    "sys.implementation.name = 'pypy'": "is PyPy 3.",
    VARIABLE("Py_GIL_DISABLED", 1): "is free-threaded.",
    "sys.maxsize = 2**31 - 1": "is a 32-bit build.",
    VARIABLE("EXT_SUFFIX", ".cpython-312-x86_64-linux-musl.so"): "with musl.",
    VARIABLE("EXT_SUFFIX", ".cpython-312-darwin.so"): "is for linux-",
    "sysconfig.get_config_vars(); sysconfig.get_paths = lambda: {'include': '/nowhere'}": "(/nowhere/Python.h).",
}


@pytest.mark.parametrize("pretend", ["pass", *REFUSED])
def test_an_interpreter_that_is_not_supported_is_refused_in_one_sentence(pretend):
    command = [sys.executable, "-c", PRETEND.format(pretend)]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if pretend == "pass":
        assert (done.returncode, done.stderr) == (0, "")
    else:
        assert done.returncode == 1 and done.stderr.startswith(SUPPORTED) and REFUSED[pretend] in done.stderr
        assert done.stderr.count("\n") == 1


NO_INDEX = {"PIP_INDEX_URL": "https://127.0.0.1:9/", "PIP_RETRIES": "0", "PIP_NO_CACHE_DIR": "1"}
MISSING = {
    "No C++20 compiler: apt-get install g++\n": ({"CXX": "no-such-compiler"}, False),
    "\npip could not install it: is a package index reachable?\n": (NO_INDEX, True),
}


@pytest.mark.parametrize("said", MISSING)
def test_make_says_what_is_missing(tmp_path, said):
    surroundings, sets_up = MISSING[said]
    command = ["make", "demo", f"VENV={tmp_path / 'venv'}", f"PYTHON={sys.executable}"]
    done = subprocess.run(command, cwd=ROOT, env=os.environ | surroundings, capture_output=True, text=True)
    assert done.returncode != 0 and said in done.stderr
    assert (tmp_path / "venv").exists() is sets_up

"""Where the module can be built, and what is said where it cannot."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

from corvane import agent_onboarding as m

ROOT = Path(__file__).parents[1]
PRETEND = "import sys, sysconfig; sys.argv = ['check_python.py']; {}; exec(open('tools/check_python.py').read())"


@pytest.mark.parametrize(
    ("pretend", "refusal"),
    [
        ("sys.version_info = (3, 11, 9)", "is CPython 3.11.9."),
        ("sys.version_info = (3, 15, 0)", "is CPython 3.15.0."),
        ("sys.implementation.name = 'pypy'", "is PyPy 3."),
        ("sysconfig.get_config_vars()['Py_GIL_DISABLED'] = 1", "is free-threaded."),
        ("sys.maxsize = 2**31 - 1", "is a 32-bit build."),
        ("sysconfig.get_config_vars()['EXT_SUFFIX'] = '.cpython-312-x86_64-linux-musl.so'", "with musl."),
        ("sysconfig.get_config_vars()['EXT_SUFFIX'] = '.cpython-312-darwin.so'", "is for linux-"),
        (
            "sysconfig.get_config_vars(); sysconfig.get_paths = lambda: {'include': '/nowhere'}",
            "is without its headers (/nowhere/Python.h).",
        ),
        ("pass", None),
    ],
)
def test_an_interpreter_that_is_not_supported_is_refused_in_one_sentence(pretend, refusal):
    command = [sys.executable, "-c", PRETEND.format(pretend)]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if refusal is None:
        assert (done.returncode, done.stderr) == (0, "")
    else:
        said = "corvane.agent_onboarding supports CPython 3.12, 3.13 and 3.14 with the GIL, on 64-bit Linux with glibc"
        assert done.returncode == 1 and done.stderr.startswith(said) and refusal in done.stderr
        assert done.stderr.count("\n") == 1


@pytest.mark.parametrize(
    ("surroundings", "said", "sets_up"),
    [
        ({"CXX": "no-such-compiler"}, "No C++20 compiler: apt-get install g++\n", False),
        (
            {"PIP_INDEX_URL": "https://127.0.0.1:9/", "PIP_RETRIES": "0", "PIP_NO_CACHE_DIR": "1"},
            "\npip could not install it: is a package index reachable?\n",
            True,
        ),
    ],
)
def test_make_says_what_is_missing(tmp_path, surroundings, said, sets_up):
    command = ["make", "demo", f"VENV={tmp_path / 'venv'}", f"PYTHON={sys.executable}"]
    done = subprocess.run(command, cwd=ROOT, env=os.environ | surroundings, capture_output=True, text=True)
    assert done.returncode != 0 and said in done.stderr
    assert (tmp_path / "venv").exists() is sets_up


def test_a_compiler_that_does_not_work_is_passed_over(tmp_path):
    (tmp_path / "c++").symlink_to("/bin/false")
    surroundings = os.environ | {"PATH": f"{tmp_path}:{os.environ['PATH']}", "CXX": ""}
    done = subprocess.run(["tools/check-compiler"], cwd=ROOT, env=surroundings, stdout=subprocess.PIPE, text=True)
    assert done.stdout in ("g++\n", "clang++\n")


def test_docstrings_are_as_they_are_written():
    """Hosts read them to the letter; from 3.13 on a compiler strips the indent of what it compiles."""
    assert m.update_nudge.__doc__.endswith(
        "\n\n    trigger: one of 'discovery_rate_declining', 'era_change', 'first_signal',\n"
        "             '10_signals', 'strategy_unlock'\n"
    )

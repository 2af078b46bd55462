"""What is shipped: one wheel and one sdist, whoever builds them; installed beside the kit in every order."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import zipfile
from pathlib import Path

import pytest

pytestmark = pytest.mark.wheel
ROOT, BIN = Path(__file__).parents[1], Path(sys.executable).parent
ENVIRONMENT = {**os.environ, "PATH": f"{BIN}:{os.environ['PATH']}"}
BUILD = [sys.executable, "-m", "pip", "wheel", "-q", "--no-index", "--no-build-isolation", "--no-deps", "-w"]
WITHOUT_KIT = "ImportError: cannot import name 'auth' from 'corvane' (unknown location)"
WITHOUT_US = "ImportError: cannot import name 'agent_onboarding' from 'corvane' ("
SCRIPT = "from corvane import agent_onboarding, list_skills; agent_onboarding.configure(auto_heartbeat=False)"
LIBRARY = "corvane/agent_onboarding.cpython-312-x86_64-linux-gnu.so"


def run(command, cwd=ROOT, **environment):
    done = subprocess.run(command, cwd=cwd, env=ENVIRONMENT | environment, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def built(tmp_path_factory):
    """The wheel and the sdist of two copies of the checkout, in folders of different names and depths."""
    copies = [tmp_path_factory.mktemp("one") / "a", tmp_path_factory.mktemp("other") / "some where" / "deeper"]
    for copy in copies:
        for name in run(["git", "ls-files"]).splitlines():
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, copy / name)
        (copy / ".venv").symlink_to(BIN.parent)
        run(["make", "wheel"], copy, PYTHONHASHSEED=str(len(copy.name)), TZ="Asia/Tokyo")
    return [sorted((copy / "dist").iterdir(), key=lambda file: file.suffix, reverse=True) for copy in copies]


def test_two_builds_give_the_same_bytes(built):
    assert [file.suffix for file in built[0]] == [".whl", ".gz"]
    for one, other in zip(*built, strict=True):
        assert (one.name, one.read_bytes()) == (other.name, other.read_bytes())


def test_the_wheel_is_small_and_runs_on_old_systems(built):
    wheel = built[0][0]
    names = [name for name in zipfile.ZipFile(wheel).namelist() if not name.endswith("/")]
    metadata = [f"corvane_agent_onboarding-0.1.0.dist-info/{name}" for name in ("METADATA", "RECORD", "WHEEL")]
    assert sorted(names) == [LIBRARY, "corvane/agent_onboarding.pyi", "corvane/py.typed", *metadata]
    verdict = " ".join(run([sys.executable, "-m", "auditwheel", "show", str(wheel)]).split())
    oldest = re.search(r'consistent with the following platform tag: "(manylinux_2_(\d+)_x86_64)"', verdict)
    assert oldest and int(oldest[2]) <= 28 and wheel.name.endswith(f"{oldest[1]}.whl"), verdict
    library = zipfile.ZipFile(wheel).read(LIBRARY)
    assert b".dynsym\0" in library and b".symtab\0" not in library and b".debug_" not in library
    assert os.fsencode(tempfile.gettempdir()) + b"/" not in library and wheel.stat().st_size < 250_000


def test_the_sdist_builds_offline_to_the_same_extension(built, tmp_path):
    files = {name.partition("/")[2] for name in run(["tar", "tf", built[0][1]]).splitlines()}
    assert files == {*run(["git", "ls-files"]).splitlines(), "PKG-INFO"} - {".ci/run"}
    run([*BUILD, tmp_path, built[0][1]])
    contents = [zipfile.ZipFile(wheel).read(LIBRARY) for wheel in (built[0][0], *tmp_path.glob("*.whl"))]
    assert len(contents) == 2 and contents[0] == contents[1]


def test_beside_the_kit_in_every_order(built, tmp_path):
    run([*BUILD, tmp_path, "./localkit"])
    [kit], ours = tmp_path.glob("*.whl"), built[0][0]
    run([sys.executable, "-m", "venv", tmp_path / "fresh"])
    for library in (BIN.parent / "lib/python3.12/site-packages").iterdir():  # what the kit needs, without our packages
        if not library.name.startswith("corvane"):
            (tmp_path / "libraries").mkdir(exist_ok=True)
            (tmp_path / "libraries" / library.name).symlink_to(library)

    python, environment = tmp_path / "fresh/bin/python", {"PYTHONPATH": str(tmp_path / "libraries")}

    def after(*arguments):
        run([python, "-m", "pip", "-q", "--disable-pip-version-check", *arguments], tmp_path)
        return subprocess.run([python, "-c", SCRIPT], stderr=-1, text=True, env=environment).stderr.strip()

    install, uninstall = ("install", "--no-index", "--no-deps"), ("uninstall", "-y")
    assert after(*install, ours).endswith(WITHOUT_KIT) and after(*install, kit) == ""
    assert after(*uninstall, "corvane-local-kit").endswith(WITHOUT_KIT) and after(*install, kit) == ""
    assert WITHOUT_US in after(*uninstall, "corvane-agent-onboarding") and after(*install, ours) == ""
    tests = [f"tests/test_{name}.py" for name in ("differential", "surface", "key_file", "eras", "runtime")]
    assert " passed" in run([python, "-P", "-m", "pytest", "-p", "no:cacheprovider", *tests], **environment)

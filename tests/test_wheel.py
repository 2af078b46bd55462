"""What is shipped: a wheel for each interpreter and processor, an sdist, the same bytes whoever builds them."""

import ast
import io
import itertools
import os
import platform
import runpy
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest

pytestmark = pytest.mark.wheel
ROOT, BIN = Path(__file__).parents[1], Path(sys.executable).parent
ENVIRONMENT = {**os.environ, "PATH": f"{BIN}:{os.environ['PATH']}"}
WITHOUT_KIT = "ImportError: cannot import name 'auth' from 'corvane' (unknown location)"
WITHOUT_US = "ImportError: cannot import name 'agent_onboarding' from 'corvane' ("
SCRIPT = "from corvane import agent_onboarding, list_skills; agent_onboarding.configure(auto_heartbeat=False)"
HOOK = "corvane_agent_onboarding_pyinstaller"
INSTALL, UNINSTALL = ("install", "--no-index", "--no-deps"), ("uninstall", "-y")
HERE = platform.python_version()


def run(command, cwd=ROOT, **environment):
    done = subprocess.run(command, cwd=cwd, env=ENVIRONMENT | environment, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def name_of(version, processor="x86_64"):
    """Of the library in the wheel for that version of Python."""
    return f"corvane/agent_onboarding.cpython-{''.join(version.split('.')[:2])}-{processor}-linux-gnu.so"


def wheel_in(folder, version, processor="x86_64"):
    python = "cp" + "".join(version.split(".")[:2])
    [wheel] = folder.glob(f"*-{python}-{python}-*{processor}.whl")
    return wheel


@pytest.fixture(scope="module")
def interpreters():
    """By version, the interpreters that wheels are built for: the one at hand and those of other versions."""
    found = {HERE: sys.executable}
    for python in run(["tools/find-python", "--all"]).splitlines():
        version = run([python, "tools/check_python.py", "version"]).strip()
        if version.rpartition(".")[0] not in [one.rpartition(".")[0] for one in found]:
            found[version] = python
    return found


@pytest.fixture(scope="module")
def processors():
    cross = shutil.which("aarch64-linux-gnu-g++")
    return [platform.machine(), *(["aarch64"] if cross and platform.machine() != "aarch64" else [])]


@pytest.fixture(scope="module")
def built(tmp_path_factory, interpreters):
    """What is built in two copies of the checkout, in folders of different names and depths."""
    copies = [tmp_path_factory.mktemp("one") / "a", tmp_path_factory.mktemp("other") / "some where" / "deeper"]
    wanted = " ".join(interpreters.values()), sys.executable
    for copy, pythons in zip(copies, wanted, strict=True):
        for name in run(["git", "ls-files"]).splitlines():
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, copy / name)
        (ROOT / ".venvs").mkdir(exist_ok=True)
        for shared in (BIN.parent, ROOT / ".venvs"):
            (copy / shared.relative_to(ROOT)).symlink_to(shared)
        run(["make", "wheels", f"PYTHONS={pythons}"], copy, PYTHONHASHSEED=str(len(copy.name)), TZ="Asia/Tokyo")
    return [copy / "dist" for copy in copies]


class Fresh:
    """An environment of that interpreter with nothing in it; what the kit needs is lent to it by another."""

    def __init__(self, folder, version, interpreter):
        run([interpreter, "-m", "venv", folder / "fresh"])
        self.python = folder / "fresh" / "bin" / "python"
        lender = BIN.parent
        if interpreter != sys.executable:
            run(["make", f"VENV=.venvs/{version}", f"PYTHON={interpreter}", "test-tools"])
            lender = ROOT / ".venvs" / version
        (folder / "libraries").mkdir()
        for library in next(lender.glob("lib/python3.*/site-packages")).iterdir():
            if not library.name.startswith("corvane"):
                (folder / "libraries" / library.name).symlink_to(library)
        self.environment = {"PYTHONPATH": str(folder / "libraries")}
        pip = [lender / "bin" / "python", "-m", "pip", "wheel", "-q", "--no-index", "--no-build-isolation"]
        run([*pip, "--no-deps", "-w", folder, "./localkit"], PATH=f"{lender / 'bin'}:{os.environ['PATH']}")
        [self.kit] = folder.glob("corvane_local_kit*.whl")

    def pip(self, *arguments):
        return run([self.python, "-m", "pip", "-q", "--disable-pip-version-check", *arguments], self.python.parent)

    def tried(self, *arguments):
        """What an import says after pip has done this, if anything."""
        if arguments:
            self.pip(*arguments)
        command = [self.python, "-c", SCRIPT]
        return subprocess.run(command, stderr=-1, text=True, env=self.environment, cwd="/").stderr.strip()

    def passes(self, *names):
        tests = [f"tests/test_{name}.py" for name in names]
        command = [self.python, "-P", "-m", "pytest", "-p", "no:cacheprovider", *tests]
        assert " passed" in run(command, **self.environment)


def test_two_builds_give_the_same_bytes(built, interpreters, processors):
    one, other = ({file.name: file.read_bytes() for file in folder.iterdir()} for folder in built)
    assert len(one) == 1 + len(interpreters) * len(processors) and len(other) == 1 + len(processors)
    for name, content in other.items():
        assert one[name] == content, name


def test_each_wheel_is_small_and_runs_on_old_systems(built, interpreters, processors):
    from elftools.elf.elffile import ELFFile

    for version, processor in itertools.product(interpreters, processors):
        wheel = wheel_in(built[0], version, processor)
        assert wheel.name.endswith(f"-manylinux2014_{processor}.manylinux_2_17_{processor}.whl")
        assert wheel.stat().st_size < 250_000
        names = [name for name in zipfile.ZipFile(wheel).namelist() if not name.endswith("/")]
        metadata = "entry_points.txt", "METADATA", "RECORD", "WHEEL"
        assert sorted(names) == sorted(
            [name_of(version, processor), "corvane/agent_onboarding.pyi", "corvane/py.typed"]
            + [f"{HOOK}/__init__.py", f"{HOOK}/hook-corvane.agent_onboarding.py"]
            + [f"corvane_agent_onboarding-0.1.0.dist-info/{name}" for name in metadata]
        )
        library = zipfile.ZipFile(wheel).read(name_of(version, processor))
        elf = ELFFile(io.BytesIO(library))
        assert elf.get_machine_arch() == {"x86_64": "x64", "aarch64": "AArch64"}[processor]
        needed = {tag.needed for tag in elf.get_section_by_name(".dynamic").iter_tags("DT_NEEDED")}
        assert {name for name in needed if not name.startswith("ld-linux")} == {"libgcc_s.so.1", "libc.so.6"}, wheel
        wanted = elf.get_section_by_name(".gnu.version_r").iter_versions()
        for kind, _, number in (symbol.name.partition("_") for _, symbols in wanted for symbol in symbols):
            assert tuple(map(int, number.split("."))) <= {"GLIBC": (2, 17), "GCC": (4, 2, 0)}[kind]


def test_the_sdist_builds_offline_to_the_same_extension(built, tmp_path):
    [sdist] = built[0].glob("*.tar.gz")
    files = {name.partition("/")[2] for name in run(["tar", "tf", sdist]).splitlines()}
    assert files == {*run(["git", "ls-files"]).splitlines(), "PKG-INFO"} - {".ci/run"}
    run([sys.executable, "-m", "build", "--no-isolation", "--wheel", "--outdir", tmp_path / "built", "."])
    wheels = [wheel_in(built[0], HERE), *(tmp_path / "built").iterdir()]
    contents = [zipfile.ZipFile(wheel).read(name_of(HERE)) for wheel in wheels]
    assert len(contents) == 2 and contents[0] == contents[1]


def test_the_wheels_pass_the_tests_beside_the_kit(built, interpreters, tmp_path_factory):
    for version, interpreter in interpreters.items():
        fresh = Fresh(tmp_path_factory.mktemp("beside"), version, interpreter)
        assert fresh.tried(*INSTALL, wheel_in(built[0], version), fresh.kit) == ""
        fresh.passes("surface", "key_file", "promises", "eras")


def test_wheel_and_kit_are_installed_in_any_order(built, interpreters, tmp_path):
    fresh, ours = Fresh(tmp_path, HERE, sys.executable), wheel_in(built[0], HERE)
    for other in [version for version in interpreters if version != HERE]:
        with pytest.raises(AssertionError, match="is not a supported wheel on this platform"):
            fresh.pip(*INSTALL, wheel_in(built[0], other))
    assert fresh.tried(*INSTALL, ours).endswith(WITHOUT_KIT) and fresh.tried(*INSTALL, fresh.kit) == ""
    assert WITHOUT_US in fresh.tried(*UNINSTALL, "corvane-agent-onboarding")
    for other in [version for version in interpreters if version != HERE]:  # and copied by hand
        copy = next((tmp_path / "fresh").glob("lib/python3.*/site-packages/corvane")) / "agent_onboarding.so"
        copy.write_bytes(zipfile.ZipFile(wheel_in(built[0], other)).read(name_of(other)))
        assert "ImportError: " in fresh.tried()
        copy.unlink()
    assert fresh.tried(*INSTALL, ours) == ""


def test_bundles(built, tmp_path):
    """PyInstaller's, as one file and as a folder; the hook of the wheel says what the extension imports."""
    hook = runpy.run_path(str(ROOT / "src" / HOOK / "hook-corvane.agent_onboarding.py"))["hiddenimports"]
    declared = list(ast.walk(ast.parse((ROOT / "src/agent_onboarding/declarations.py").read_text())))
    modules = {node.module for node in declared if isinstance(node, ast.ImportFrom)}
    modules |= {alias.name for node in declared if isinstance(node, ast.Import) for alias in node.names}
    assert modules <= set(hook), "the hook lacks an import"

    fresh = Fresh(tmp_path, HERE, sys.executable)
    assert fresh.tried(*INSTALL, wheel_in(built[0], HERE), fresh.kit) == ""
    spec = ROOT / "tests/programs/bundled_agent.spec"
    run([fresh.python, "-m", "PyInstaller", "--noconfirm", spec], tmp_path, **fresh.environment)
    local, state = fresh.python.with_name("corvane-local"), tmp_path / "state"
    serve = [local, "serve", "--state", state, "--port", "0"]
    with subprocess.Popen(serve, env=ENVIRONMENT | fresh.environment, stdout=subprocess.PIPE, text=True) as service:
        try:
            address = service.stdout.readline().strip()
            for number, program in enumerate(("dist/file", "dist/folder/folder-starter")):
                data = tmp_path / f"agent {number}"
                data.mkdir(mode=0o700)
                invite = run([local, "invite", "--state", state], **fresh.environment).strip()
                said = run([tmp_path / program, address, data, invite], "/", SSL_CERT_FILE=str(state / "ca.pem"))
                registered, *sources = said.splitlines()
                assert registered.startswith("WalletRegistration(address='0x") and (data / "wallet.key").is_file()
                assert sources[0] in ("def register(", "no source") and sources[1:] == ["no source"]
        finally:
            service.terminate()

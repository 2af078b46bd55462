"""What a caller sees of the module without its effects: names, signatures, argument errors, records, tracebacks."""

import ast
import copy
import dataclasses
import hashlib
import inspect
import linecache
import os
import pickle
import re
import subprocess
import sys
import sysconfig
import traceback
import types
import typing
from pathlib import Path

import pytest

from corvane import agent_onboarding as m
from support import scenarios, twin
from support.comparison import same, tried
from support.programs import run
from support.scenarios import Clash

NAMES = [n for n in vars(m) if not n.startswith("__")]  # before any test patches one
TWINS = [n for n, f in vars(twin).items() if isinstance(f, types.FunctionType) and f.__module__ == twin.__name__]
FUNCTIONS = {n: f for n, f in vars(m).items() if isinstance(f, types.FunctionType) and f.__module__ == m.__name__}
PUBLIC = [name for name in FUNCTIONS if not name.startswith("_")]
FIXED_SIGNATURE_LINES = {
    "inject_heartbeat": "inject_heartbeat(working_dir: str = None) -> None",
    "register": "register(invite_code: Optional[str] = None, data_dir: Optional[str] = None,"  # 3.14 writes str | None
    " bootstrap_runtime: bool = False) -> corvane.agent_onboarding.WalletRegistration",
    "update_nudge": "update_nudge(trigger: str, **context) -> None",
}
OTHER_NAMES = """importlib hashlib json logging os secrets shutil _stat sys urllib dataclass field SimpleNamespace List
    Optional auth RuntimeModuleDownloadIncomplete RuntimeModuleHashMismatch RuntimeModuleReloadFailed
    RuntimeFreshnessGuard is_runtime_module_kind runtime_module_name_from_kind list_skills CURRENT_PLATFORM logger
    WalletRegistration AuthToken _HEARTBEAT_STATIC_SECTION _NUDGE_TEXTS _AGENTS_MD_FRAGMENT _config _auth_manager
    _VALID_OPTIONS _LocalRuntimeSyncManager"""


def test_names_in_their_order():
    assert [name for name in NAMES if name not in FUNCTIONS] == OTHER_NAMES.split()
    assert [*FUNCTIONS] == TWINS and len(TWINS) == 41
    public = "create_runtime_freshness_guard register login configure ensure_runtime_bootstrapped inject_heartbeat"
    assert [*public.split(), "update_nudge", "get_agents_md_fragment"] == PUBLIC
    assert m.__doc__ == "Agent onboarding subcomponent -- register, login, configure, heartbeat."
    server = "https://api.corvane.example"
    options = {"auto_heartbeat": True, "data_dir": "~/.corvane/", "server_url": server, "named_universe": ""}
    assert list(m._config.items()) == list(options.items())
    assert list(m._VALID_OPTIONS.items()) == [(name, type(value)) for name, value in options.items()]
    assert m.logger.name == "corvane.agent_onboarding" and m._auth_manager is None


def test_texts_are_unchanged():
    """Agents and their hosts search for these texts; whoever changes one on purpose changes its digest here."""
    nudge = m.update_nudge.__doc__  # with its indentation, which a compiler strips from 3.13 on
    texts = m._HEARTBEAT_STATIC_SECTION, repr(list(m._NUDGE_TEXTS.items())), nudge
    assert [hashlib.sha256(text.encode()).hexdigest() for text in texts] == [
        "e91142ac9eda4043a746a94b43e6b403980cde88f1250e84c199d33b82cd6acc",
        "3fd54e0178a5379df8d7f17e4d34a9287cc6ecde7281acf5b121143e585948e8",
        "cee266eb8f677f627c052a0c8dea7b2b9a632b37eacaec6929ceb649e04a60a8",
    ]


@pytest.mark.parametrize("name", FUNCTIONS)
def test_real_functions(name):
    f, python = FUNCTIONS[name], getattr(twin, name)
    assert f.__qualname__ == python.__qualname__ == name
    assert str(inspect.signature(f)).replace(m.__name__, twin.__name__) == str(inspect.signature(python))
    assert pickle.loads(pickle.dumps(f)) is f and copy.deepcopy(f) is f
    assert inspect.getsource(f).startswith(f"def {name}(")
    signature_line = FIXED_SIGNATURE_LINES.get(name, f"{name}{inspect.signature(f)}")
    assert f.__doc__.split("\n")[0] == signature_line and len(f.__doc__.split("\n")) > 1
    if name in PUBLIC:
        assert set(typing.get_type_hints(f)) == {*inspect.signature(f).parameters, "return"}


WRONG = [
    ((), {}), ((1,) * 9, {}), ((), {"nonsense": 1}), ((), {"data_dirr": 1, "bootstrap": 2}), ((), {1: 2}),
    ((1,), {"invite_code": 2, "private_key": 2, "exc": 2, "trigger": 2, "working_dir": 2, "data_dir": 2}),
    ((), {Clash("nonsense"): 1}),
]  # fmt: skip


@pytest.mark.parametrize("name", FUNCTIONS)
def test_errors_in_arguments_are_the_interpreters(name):
    calls = lambda: [tried(lambda a=a, k=k: getattr(scenarios.m, name)(*a, **k)) for a, k in WRONG]  # noqa: E731
    seen = same(calls, scenarios.config(server_url="http://127.0.0.1:1"), scenarios.kit())
    assert seen["outcome"].count(f"{name}() ") >= 2


def test_well_formed_calls_bind_like_python(monkeypatch):
    """Positional, keyword, mixed, unpacked, as a method, with changed defaults, with another code object."""

    def bound():
        inject, prune, seen = scenarios.m.inject_heartbeat, scenarios.m._prune_runtime_extension_copies, []
        inject(), inject("p"), inject(working_dir="k"), inject(*["u"], **{})
        inject(**{type("Word", (str,), {})("working_dir"): "s"}), type("Holder", (), {"method": inject})().method()
        code = (lambda working_dir: repr(working_dir)).__code__
        for name, value in ("__defaults__", ("changed",)), ("__defaults__", None), ("__code__", code):
            monkeypatch.setattr(inject, name, value)
            seen += tried(inject), inject("x")
        for value in None, {}, {"max_copies": 5}:
            monkeypatch.setattr(prune, "__kwdefaults__", value)
            seen.append(tried(lambda: prune("x", "nowhere/y")))
        return seen

    same(bound, scenarios.ours(_find_heartbeat=lambda path: scenarios.note(repr(path))))


def test_the_stub_says_the_same():
    stub = ast.parse((Path(m.__file__).parent / "agent_onboarding.pyi").read_text())
    documented = {
        n.name: inspect.cleandoc(ast.get_docstring(n)) for n in stub.body if getattr(n, "name", "_")[0] != "_"
    }
    assert set(documented) == {*PUBLIC, "WalletRegistration", "AuthToken"}
    for name in PUBLIC:
        assert inspect.cleandoc(FUNCTIONS[name].__doc__.split("\n", 1)[1]) == documented[name]


def test_records():
    token, wallet = m.AuthToken("secret", 1.5), m.WalletRegistration("0xab")
    assert (repr(token), repr(wallet)) == (
        "AuthToken(token='<redacted>', expires_at=1.5)",
        "WalletRegistration(address='0xab')",
    )
    assert dataclasses.asdict(token) == {"token": "secret", "expires_at": 1.5}
    assert token == m.AuthToken("secret", 1.5) != m.AuthToken("other", 1.5) and wallet != m.WalletRegistration("0x")
    assert m.AuthToken.__doc__ == "Returned by login() on successful authentication."
    assert m.WalletRegistration.__doc__ == "Returned by register() on successful wallet creation/re-auth."
    assert pickle.loads(pickle.dumps(wallet)) == wallet


def test_traceback_names_function_file_and_line():
    with pytest.raises(ValueError) as info:
        m.configure(colour=1)
    *_, entry = traceback.extract_tb(info.tb)
    assert entry.name == "configure" and entry.filename == "src/agent_onboarding/entry_points.cpp"
    source = Path(__file__).parents[1] / entry.filename
    assert "raise(" in source.read_text().splitlines()[entry.lineno - 1]
    assert info.tb.tb_next.tb_frame.f_globals is vars(m)
    assert linecache.getline("<corvane.agent_onboarding.configure>", 1).startswith("def configure(**kwargs")


BAD_IMPORTS = {
    "missing_sibling": "cannot import name 'list_skills' from 'corvane.skills' (unknown location)",
    "kept_function": "native body not reached",
    "two_modules": "corvane.agent_onboarding is already initialised",
    "another_name": "corvane.agent_onboarding is being initialised already",
    "no_room_at_the_exit": "the interpreter takes no more exit functions",
}


@pytest.mark.parametrize("moment", BAD_IMPORTS)
def test_after_an_import_at_a_bad_moment_the_next_one_succeeds(moment):
    assert run("bad_imports", moment) == BAD_IMPORTS[moment]


def test_another_interpreter_is_refused():
    missing = "cannot import name 'CURRENT_PLATFORM' from 'corvane.sync' (unknown location)"
    refused = "corvane.agent_onboarding can be loaded into only one interpreter per process"
    assert run("other_interpreters").splitlines() == [missing, *3 * [refused]]


EMBEDDING = """
#include <Python.h>
int main(int, char** arguments) {
    for (int round = 0; round < 4; ++round) {
        Py_Initialize();
        if (PyRun_SimpleString(arguments[1]) != 0 || Py_FinalizeEx() != 0)
            return 1;
    }
}
"""


def test_an_interpreter_that_is_started_again(tmp_path):
    (tmp_path / "embed.cpp").write_text(EMBEDDING)
    # Also of an interpreter that lies elsewhere than it was built for.
    folders = sysconfig.get_config_var("LIBDIR"), sys.base_prefix, f"{sys.base_prefix}/lib"
    name = f"libpython{sysconfig.get_config_var('LDVERSION')}.*"
    found = [path for folder in folders for path in sorted(Path(folder).glob(name), reverse=True)]
    if not found:
        pytest.skip("the interpreter comes without its library")
    link = [f"-I{sysconfig.get_paths()['include']}", found[0], f"-Wl,-rpath,{found[0].parent}", "-rdynamic"]
    subprocess.run(["c++", "embed.cpp", "-o", "embed", *link, "-ldl", "-lm"], cwd=tmp_path, check=True)
    script = Path(__file__).with_name("programs").joinpath("embedded.py").read_text()
    environment = {**os.environ, "PYTHONHOME": sys.base_prefix, "MODULE": m.__file__}
    done = subprocess.run([tmp_path / "embed", script], capture_output=True, text=True, env=environment)
    assert (done.returncode, done.stderr) == (0, "")


IMPORT = "import atexit, gc, importlib, sys, threading, time; import corvane.agent_onboarding as m; gc.disable()\n"
ENDS = {
    "in a cycle": "a = [m.register, m._LocalRuntimeSyncManager(1)]; a.append(a); del a",
    "in a generator": "g = m._runtime_module_manifest_entries({'files': {'a': {'kind': 'runtime_module:x'}}}); next(g)",
    "at exit": "atexit.register(m._normalize_key, 'ab'); atexit.register(lambda: m.configure(data_dir='d'))",
    "by a daemon thread": "threading.Thread(target=lambda: [m._normalize_key('ab') for _ in iter(int, 1)], daemon=True)"
    ".start(); time.sleep(0.05)",
    "by a finaliser": "class C:\n    def __del__(self, f=m._normalize_key): f('ab')\nsys.kept = C(); kept = C()",
    "after the module is gone": "f = m._normalize_key; del sys.modules[m.__name__], m; gc.collect(); f('ab')",
    "after its namespace was emptied": "f = m._find_heartbeat; vars(m).clear()\ntry: f()\nexcept NameError: pass",
    "after reloading": "try: importlib.reload(m)\nexcept ImportError: pass",
    "after fifty imports": "for _ in range(50):\n    del sys.modules[m.__name__]\n"
    "    assert importlib.import_module(m.__name__) is m and m._normalize_key('a') == '0xa'",
    "in a pool": "import multiprocessing as p\nwith p.get_context('fork').Pool(2) as pool:\n"
    "    assert pool.map(m._normalize_key, ['ab', '0xcd']) == ['0xab', '0xcd']",
}


@pytest.mark.parametrize("how", ENDS)
def test_the_interpreter_ends_well(how):
    assert run(IMPORT + ENDS[how]) == ""


def test_only_the_entry_point_is_exported():
    listed = subprocess.run(["nm", "-D", "--defined-only", m.__file__], capture_output=True, text=True, check=True)
    assert re.findall(r"\S+$", listed.stdout, re.M) == ["PyInit_agent_onboarding"]

"""What a caller sees of the module without its effects: names, signatures, argument errors, records, tracebacks."""

import ast
import contextlib
import copy
import dataclasses
import gc
import hashlib
import inspect
import itertools
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

import twin
from corvane import agent_onboarding as m

FUNCTIONS = {name: f for name, f in vars(m).items() if getattr(f, "__module__", "") == m.__name__ and callable(f)
             and isinstance(f, types.FunctionType)}  # fmt: skip
PUBLIC = (
    "register",
    "login",
    "configure",
    "ensure_runtime_bootstrapped",
    "create_runtime_freshness_guard",
    "inject_heartbeat",
    "update_nudge",
    "get_agents_md_fragment",
)
FIXED_SIGNATURE_LINES = {
    "inject_heartbeat": "inject_heartbeat(working_dir: str = None) -> None",
    "update_nudge": "update_nudge(trigger: str, **context) -> None",
}


NAMES = [n for n in vars(m) if not n.startswith("__")]  # before any test patches one


def test_names_in_their_order():
    expected = """
        importlib hashlib json logging os secrets shutil _stat sys urllib dataclass field SimpleNamespace List Optional
        auth RuntimeModuleDownloadIncomplete RuntimeModuleHashMismatch RuntimeModuleReloadFailed RuntimeFreshnessGuard
        is_runtime_module_kind runtime_module_name_from_kind list_skills CURRENT_PLATFORM logger
        _exception_chain_detail _sha256_file _content_addressed_extension_path _prune_runtime_extension_copies
        _load_extension_from_path _read_manifest _manifest_files _runtime_module_manifest_entries
        _select_runtime_module_manifest_entry _load_manifest_runtime_module _load_runtime_modules_from_manifest
        create_runtime_freshness_guard _load_per_era_backtester WalletRegistration AuthToken _HEARTBEAT_STATIC_SECTION
        _NUDGE_TEXTS _AGENTS_MD_FRAGMENT _config _auth_manager _VALID_OPTIONS _find_heartbeat _fetch_eras_payload
        _safe_named_universe _append_unique_named_universe _append_allowed_named_universes
        _active_era_named_universe_candidates _first_allowed_named_universe_from_era_config
        _resolve_active_named_universe _canonical_data_dir _wallet_key_path _unsafe_wallet_error _check_wallet_fd
        _read_wallet_key _write_wallet_key _LocalRuntimeSyncManager _read_json_if_present _local_vocabulary_path
        _bootstrap_local_runtime_from_config _propagate_auth _normalize_key _resolve_invite_code
        _resolve_optional_invite_code register login configure ensure_runtime_bootstrapped inject_heartbeat update_nudge
        get_agents_md_fragment"""
    assert expected.split() == NAMES
    assert m.__doc__ == "Agent onboarding subcomponent -- register, login, configure, heartbeat."
    server = "https://api.corvane.example"
    options = {"auto_heartbeat": True, "data_dir": "~/.corvane/", "server_url": server, "named_universe": ""}
    assert list(m._config.items()) == list(options.items())
    assert list(m._VALID_OPTIONS.items()) == list(twin._VALID_OPTIONS.items())
    assert m.logger.name == "corvane.agent_onboarding" and m._auth_manager is None


def test_texts_are_unchanged():
    """Agents and their hosts search for these texts; whoever changes one on purpose changes its digest here."""
    texts = m._HEARTBEAT_STATIC_SECTION, repr(list(m._NUDGE_TEXTS.items())), m._AGENTS_MD_FRAGMENT
    assert [hashlib.sha256(text.encode()).hexdigest() for text in texts] == [
        "e91142ac9eda4043a746a94b43e6b403980cde88f1250e84c199d33b82cd6acc",
        "3fd54e0178a5379df8d7f17e4d34a9287cc6ecde7281acf5b121143e585948e8",
        "328fe7796ec48ef62d742dbd5546a98f64ae719a32d1efcad4923d4f36afb907",
    ]


@pytest.mark.parametrize("name", FUNCTIONS)
def test_real_functions(name):
    f, python = FUNCTIONS[name], getattr(twin, name)
    assert isinstance(f, types.FunctionType) and f.__qualname__ == python.__qualname__ == name
    assert str(inspect.signature(f)).replace(m.__name__, "twin") == str(inspect.signature(python))
    assert f.__defaults__ == python.__defaults__ and f.__kwdefaults__ == python.__kwdefaults__
    assert pickle.loads(pickle.dumps(f)) is f and copy.deepcopy(f) is f
    assert inspect.getsource(f).startswith(f"def {name}(")
    signature_line = FIXED_SIGNATURE_LINES.get(name, f"{name}{inspect.signature(f)}")
    assert f.__doc__.split("\n")[0] == signature_line and len(f.__doc__.split("\n")) > 1
    if name in PUBLIC:
        hints = typing.get_type_hints(f)
        assert set(hints) == {*inspect.signature(f).parameters, "return"}


class Keyword(str):
    """A keyword that is text, but not exactly `str`."""

    def __hash__(self):
        return super().__hash__()

    def __eq__(self, other):
        return super().__eq__(other)


class Clash(Keyword):
    def __eq__(self, other):
        raise LookupError("compared")

    __hash__ = Keyword.__hash__


CALLS = [
    ((), {}),
    ((1,), {}),
    ((1,) * 9, {}),
    ((), {"nonsense": 1}),
    ((), {"data_dirr": 1, "bootstrap": 2}),
    ((1,), {"invite_code": 2, "private_key": 2, "exc": 2, "trigger": 2, "working_dir": 2, "data_dir": 2}),
    ((), {1: 2}),
    ((), {Keyword("nonsense"): 1}),
    ((1, 2, 3), {"nonsense": 1}),
]


@pytest.mark.parametrize("name", FUNCTIONS)
def test_argument_errors_are_the_interpreters(name):
    compared = 0
    for args, kwargs in CALLS:
        try:
            inspect.signature(FUNCTIONS[name]).bind(*args, **kwargs)
        except TypeError:
            texts = []
            for function in (getattr(twin, name), FUNCTIONS[name]):
                with pytest.raises(TypeError) as info:
                    function(*args, **kwargs)
                frames = [f.name for f in traceback.extract_tb(info.tb)]
                texts.append((str(info.value).replace("twin.", m.__name__ + "."), frames))
            assert texts[0] == texts[1]
            compared += 1
    assert compared >= 2


def test_well_formed_calls_bind_like_python(monkeypatch):
    """Positional, keyword, mixed, unpacked, as a method, with changed defaults, with another code object."""

    seen = []

    def describe(working_dir=None):
        return repr(working_dir)

    for module in (m, twin):
        monkeypatch.setattr(module, "_find_heartbeat", seen.append)
        monkeypatch.setattr(module, "_config", {})
    for inject in (twin.inject_heartbeat, m.inject_heartbeat):
        seen.clear()
        inject(), inject("p"), inject(working_dir="k"), inject(*["u"], **{}), inject(**{Keyword("working_dir"): "s"})
        type("Holder", (), {"method": inject})().method()
        assert seen[:5] == [None, "p", "k", "u", "s"] and type(seen[5]).__name__ == "Holder"
        with monkeypatch.context() as patch:
            patch.setattr(inject, "__defaults__", ("changed",))
            inject()
            assert seen[6:] == ["changed"]
            patch.setattr(inject, "__defaults__", None)
            with pytest.raises(TypeError, match="missing 1 required positional argument: 'working_dir'"):
                inject()
            patch.setattr(inject, "__code__", describe.__code__)
            assert inject("x") == "'x'"
        with pytest.raises(LookupError, match="compared"):
            inject(**{Clash("nonsense"): 1})
    for module, defaults in itertools.product((twin, m), (None, {}, {"max_copies": 5})):
        prune = module._prune_runtime_extension_copies
        monkeypatch.setattr(prune, "__kwdefaults__", defaults)
        with (
            contextlib.nullcontext() if defaults else pytest.raises(TypeError, match="missing 1 required keyword-only")
        ):
            prune("x", "nowhere/y")


def test_the_stub_says_the_same():
    stub = ast.parse((Path(m.__file__).parent / "agent_onboarding.pyi").read_text())
    documented = {n.name: inspect.cleandoc(ast.get_docstring(n)) for n in stub.body if hasattr(n, "name")}
    assert set(documented) == {*PUBLIC, "WalletRegistration", "AuthToken"}
    for name in PUBLIC:
        assert inspect.cleandoc(FUNCTIONS[name].__doc__.split("\n", 1)[1]) == documented[name]


def test_records():
    token, wallet = m.AuthToken("secret", expires_at=1.5), m.WalletRegistration("0xab")
    assert repr(token) == str(token) == f"{token}" == "AuthToken(token='<redacted>', expires_at=1.5)"
    assert repr(wallet) == "WalletRegistration(address='0xab')"
    assert token == m.AuthToken("secret", 1.5) != m.AuthToken("other", 1.5)
    assert dataclasses.asdict(token) == {"token": "secret", "expires_at": 1.5}
    assert [(f.name, f.type, f.repr) for f in dataclasses.fields(token)] == [
        ("token", str, False),
        ("expires_at", float, True),
    ]
    assert m.AuthToken.__doc__ == "Returned by login() on successful authentication."
    assert m.WalletRegistration.__doc__ == "Returned by register() on successful wallet creation/re-auth."
    assert m.AuthToken.__repr__.__qualname__ == "AuthToken.__repr__" and m.AuthToken.__module__ == m.__name__
    assert pickle.loads(pickle.dumps(wallet)) == wallet and m.AuthToken.__hash__ is None
    for call in (
        m.AuthToken,
        lambda: m.AuthToken("a"),
        lambda: m.WalletRegistration("a", "b"),
        m.AuthToken.__repr__,
    ):
        with pytest.raises(TypeError, match=r"__(init|repr)__\(\) (missing|takes)"):
            call()
    with pytest.raises(AttributeError, match="expires_at"):
        m.AuthToken.__repr__(wallet)


def test_traceback_names_function_file_and_line():
    with pytest.raises(ValueError) as info:
        m.configure(colour=1)
    *_, entry = traceback.extract_tb(info.tb)
    assert entry.name == "configure" and entry.filename == "src/agent_onboarding/entry_points.cpp"
    source = Path(__file__).parents[1] / entry.filename
    assert "raise(" in source.read_text().splitlines()[entry.lineno - 1]
    frame = info.value.__traceback__.tb_next.tb_frame
    assert frame.f_globals is vars(m)
    assert linecache.getline("<corvane.agent_onboarding.configure>", 1).startswith("def configure(**kwargs")


def test_endless_recursion(monkeypatch):
    monkeypatch.setattr(m, "_find_heartbeat", m.inject_heartbeat)
    with pytest.raises(RecursionError):
        m.inject_heartbeat()
    monkeypatch.setattr(m, "auth", types.SimpleNamespace(_normalize_invite_code=m._resolve_optional_invite_code))
    with pytest.raises(RecursionError):
        m._resolve_optional_invite_code("c")
    monkeypatch.setattr(m, "_find_heartbeat", lambda d: m.inject_heartbeat(d))
    with pytest.raises(RecursionError):
        m.inject_heartbeat()


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the frames of an instrumented build need a larger stack")
def test_endless_recursion_on_a_small_stack():
    run("""
import threading, corvane.agent_onboarding as m
m._find_heartbeat = m.inject_heartbeat
def work():
    try: m.inject_heartbeat()
    except RecursionError: print("refused")
threading.stack_size(256 * 1024)
thread = threading.Thread(target=work); thread.start(); thread.join()
""", "refused")  # fmt: skip


def run(script, expected="", options=(), **kwargs):
    done = subprocess.run(
        [sys.executable, "-X", "dev", *options, "-c", script], capture_output=True, text=True, **kwargs
    )
    assert (done.returncode, done.stderr, done.stdout.strip()) == (0, "", expected)


def test_imported_again():
    run("""
import importlib, sys
import corvane.agent_onboarding as first
first._config["data_dir"] = "kept"; first.__doc__ = "kept"
for _ in range(50):
    del sys.modules["corvane.agent_onboarding"], sys.modules["corvane"].agent_onboarding
    import corvane.agent_onboarding as again
    assert again is first and again.__spec__.name == first.__name__
assert importlib.reload(first) is first and (first._config["data_dir"], first.__doc__) == ("kept", "kept")
assert first.inject_heartbeat() is None
""")


SWAPPED = """
from corvane import agent_onboarding as m
class Swapping(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        f.__code__ = (lambda: 5).__code__
        return str.__eq__(self, other)
f = m._prune_runtime_extension_copies
print(f("a", **{Swapping("keep_path"): "/nowhere/x"}), f())
"""


def test_code_that_changes_while_arguments_are_bound():
    done = subprocess.run([sys.executable, "-P", "-c", SWAPPED], capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "None 5\n", "")


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
EMBEDDED = """
import importlib.machinery, importlib.util, sys, types
# Stubs for what the interpreter itself cannot import a second time, and for the siblings.
names = "hashlib secrets urllib urllib.error urllib.request corvane corvane.auth corvane.errors corvane.skills"
for name in (*names.split(), "corvane.sync", "corvane.runtime_module_freshness"):
    module = sys.modules[name] = types.ModuleType(name)
    module.__path__, module.__getattr__ = [], lambda wanted: sys.modules.get("corvane." + wanted, Exception)
loader = importlib.machinery.ExtensionFileLoader("corvane.agent_onboarding", PATH)
m = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
loader.exec_module(m)
assert m._normalize_key("ab") == "0xab"
"""


def test_an_interpreter_that_is_started_again(tmp_path):
    (tmp_path / "embed.cpp").write_text(EMBEDDING)
    library = sysconfig.get_config_var("LIBDIR")
    link = [f"-I{sysconfig.get_paths()['include']}", f"-L{library}", f"-Wl,-rpath,{library}", "-rdynamic"]
    python = f"-lpython{sysconfig.get_config_var('LDVERSION')}"
    subprocess.run(["c++", "embed.cpp", "-o", "embed", *link, python, "-ldl", "-lm"], cwd=tmp_path, check=True)
    script = EMBEDDED.replace("PATH", repr(m.__file__))
    environment = {**os.environ, "PYTHONHOME": sys.base_prefix}
    done = subprocess.run([tmp_path / "embed", script], capture_output=True, text=True, env=environment)
    assert (done.returncode, done.stderr) == (0, "")


def test_a_sibling_missing_or_failing_then_there():
    run(r"""
import sys, traceback, types
import corvane.skills
good = sys.modules["corvane.skills"]
lacking = "cannot import name 'list_skills' from 'corvane.skills' (unknown location)"
for broken, text in ((None, "import of corvane.skills halted; None in sys.modules"),
                     (types.ModuleType("corvane.skills"), lacking)):
    sys.modules["corvane.skills"] = broken
    try:
        import corvane.agent_onboarding
    except ImportError as exc:
        assert str(exc) == text, str(exc)
        frames = [f.filename for f in traceback.extract_tb(exc.__traceback__)]
        assert "<corvane.agent_onboarding>" in frames and "src/agent_onboarding/py/function.cpp" in frames, frames
        assert "corvane.agent_onboarding" not in sys.modules
    else:
        raise AssertionError("imported")
sys.modules["corvane.skills"] = good
import corvane.agent_onboarding
assert corvane.agent_onboarding.login.__module__ == "corvane.agent_onboarding"
""")


def test_a_function_kept_from_an_import_that_failed():
    run("""
import dataclasses, sys
good, kept = dataclasses.dataclass, []
def failing(cls=None, **options):
    kept.append(sys._getframe(1).f_globals.get("_sha256_file"))
    if kept[-1] is None: return good(cls, **options)
    raise ValueError("not today")
dataclasses.dataclass = failing
try: import corvane.agent_onboarding
except ValueError as exc: print(exc)
dataclasses.dataclass = good
import corvane.agent_onboarding as m
try: kept[-1]("x")
except SystemError as exc: print(exc)
assert m._sha256_file("/dev/null").startswith("e3b0")
""", "not today\nnative body not reached")  # fmt: skip


def test_two_modules_made_before_either_is_executed():
    run("""
import corvane, importlib.util
spec = importlib.util.find_spec("corvane.agent_onboarding")
first, second = map(importlib.util.module_from_spec, (spec, spec))
spec.loader.exec_module(first)
try: spec.loader.exec_module(second)
except ImportError as exc: print(exc)
assert first._normalize_key("a") == "0xa"
""", "corvane.agent_onboarding is already initialised")  # fmt: skip


IMPORT_IN_ANOTHER = r"""
import sys, textwrap
import _xxsubinterpreters as interpreters
def import_in_another(isolated, prelude=""):
    other = interpreters.create(isolated=isolated)
    interpreters.run_string(other, textwrap.dedent(f'''
        import sys
        sys.path[:] = {sys.path!r}
        {prelude}
        try:
            import corvane.agent_onboarding
        except ImportError as exc:
            print(exc, flush=True)
    '''))
    return other
"""


def test_one_interpreter_per_process():
    refusal = "corvane.agent_onboarding can be loaded into only one interpreter per process"
    run(IMPORT_IN_ANOTHER + """
import corvane.agent_onboarding as mine
for isolated in (True, False):
    interpreters.destroy(import_in_another(isolated))
assert mine.get_agents_md_fragment()
""", f"{refusal}\n{refusal}")  # fmt: skip


def test_a_failed_import_elsewhere_leaves_the_module_free():
    run(IMPORT_IN_ANOTHER + """
# without the real corvane.auth and corvane.sync: their libraries refuse other interpreters on their own
import_in_another(False, "import corvane; corvane.auth = sys; sys.modules['corvane.sync'] = type(sys)('corvane.sync')")
import corvane.agent_onboarding
assert corvane.agent_onboarding._normalize_key("a") == "0xa"
""", "cannot import name 'CURRENT_PLATFORM' from 'corvane.sync' (unknown location)")  # fmt: skip


def test_initialised_while_it_is_being_initialised():
    """Another thread, or code that runs during the import, loads the same file under another name."""
    run("""
import importlib.util, logging, corvane
path, get_logger = importlib.util.find_spec("corvane.agent_onboarding").origin, logging.getLogger
def load_again(name=None):
    if name == "corvane.agent_onboarding":
        spec = importlib.util.spec_from_file_location("another.agent_onboarding", path)
        module = importlib.util.module_from_spec(spec)
        try: spec.loader.exec_module(module)
        except ImportError as exc: print(exc)
    return get_logger(name)
logging.getLogger = load_again
import corvane.agent_onboarding as m
assert m.register and m._normalize_key("a") == "0xa"
""", "corvane.agent_onboarding is being initialised already")  # fmt: skip


@pytest.mark.parametrize(
    "script",
    [
        "import corvane.agent_onboarding as m; keep = m.register; del m",
        "import sys; sys.modules['corvane.skills'] = None\n"
        "try: import corvane.agent_onboarding\nexcept ImportError: pass",
        "import corvane.agent_onboarding as m, atexit; atexit.register(m.get_agents_md_fragment)",
        "import corvane.agent_onboarding as m\n"
        "class C:\n def __del__(self, f=m._normalize_key): f('ab')\n"
        "c = C(); c.me = c",
        # daemon threads that the interpreter ends, while it shuts down, in the middle of our handlers and destructors
        "import corvane.agent_onboarding as m, sys, threading, time, types\n"
        "m._find_heartbeat = lambda d: '/'\n"
        "m.logger = types.SimpleNamespace(warning=lambda *a: time.sleep(0.2))\n"
        "class Sleepy(Exception):\n def __del__(self, sleep=time.sleep): sleep(0.05)\n"
        "def handler():\n while True: m.inject_heartbeat()\n"
        "def destructor():\n while True: m._exception_chain_detail(Sleepy())\n"
        "for work in (handler, destructor) * 3: threading.Thread(target=work, daemon=True).start()\n"
        "class Slow:\n def __del__(self, sleep=time.sleep): sleep(0.4)\n"
        "sys.modules['held'] = types.SimpleNamespace(slow=Slow())",
    ],
)
def test_shutdown_is_silent(script):
    run(script)


def test_only_the_entry_point_is_exported():
    data = Path(m.__file__).read_bytes()
    assert data.count(b"PyInit_agent_onboarding\0") >= 1
    listed = subprocess.run(["nm", "-D", "--defined-only", m.__file__], capture_output=True, text=True, check=True)
    assert re.findall(r"\S+$", listed.stdout, re.M) == ["PyInit_agent_onboarding"]


def test_leaks_nothing(monkeypatch, tmp_path):
    """Equal batches of successful and failing calls: a leak grows in every one."""
    monkeypatch.chdir(tmp_path)
    (tmp_path / "HEARTBEAT.md").write_text("x")
    (tmp_path / "wallet.key").symlink_to("nowhere")
    blocks = []

    def batch():
        for _ in range(50):
            for function in FUNCTIONS.values():
                for args in ((), ("first_signal",), (tmp_path,), (str(tmp_path), "k"), (ValueError(), 5.0)):
                    with contextlib.suppress(Exception):
                        function(*args)
            for options in ({"colour": 1}, {"data_dir": str(tmp_path)}, {"named_universe": "/"}):
                with contextlib.suppress(ValueError):
                    m.configure(**options)
        for _ in range(3):
            gc.collect()
        blocks.append((sys.getallocatedblocks(), len(os.listdir("/proc/self/fd"))))

    monkeypatch.setattr(m, "logger", types.SimpleNamespace(warning=lambda *a: None))
    for _ in range(6):
        batch()
    growth = [later[0] - earlier[0] for earlier, later in itertools.pairwise(blocks[2:])]
    assert min(growth) < 50 and blocks[-1][1] == blocks[2][1], blocks


def test_import_without_memory():
    """Where memory runs out before the body of the module is reached, that is what the import says."""
    pytest.importorskip("_testcapi")
    script = """
import _testcapi, os, corvane.auth, corvane.runtime_module_freshness, importlib.util
held = [{} for _ in range(200)]  # more than the interpreter keeps for reuse
for number in range(250):
    if os.fork() == 0:
        _testcapi.set_nomemory(number, number + 1)
        try:
            import corvane.agent_onboarding
        except SystemError as exc:
            _testcapi.remove_mem_hooks()
            os.write(1, f"{number}: {exc}. ".encode())
        except BaseException:
            pass
        os._exit(0)
    os.wait()
"""
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (0, "")

"""docs/operating.md row by row: what is told to provoke a message does, and the advice beside it helps."""

import importlib
import json
import logging
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import urllib.error
import urllib.request
from pathlib import Path

import pytest

import corvane
from corvane import _runtime, auth
from corvane import agent_onboarding as m
from localkit.tests.conftest import http

PAGE = (Path(__file__).parents[2] / "docs/operating.md").read_text("utf-8").partition("## Messages")[2]
ROWS = dict(re.findall(r"^\| `([^`]+)`(?: \((\w+)\))? \|", PAGE, re.M))
AWAY, KEY, NOBODY = "https://127.0.0.1:9", "5a" * 32, 65534


class Agent:
    """An agent with a wallet that the service knows, all downloads on disk, and whatever a row does to it."""

    def __init__(self, service, scripted, home, patch):
        self.service, self.scripted, self.home, self.patch = service, scripted, home, patch
        self.key, self.heartbeat, self.manifest = home / "wallet.key", home / "HEARTBEAT.md", home / "manifest.json"
        self.backup, self.limit = self.key.read_bytes(), resource.getrlimit(resource.RLIMIT_FSIZE)

    def is_new(self, code=None):
        self.key.unlink()
        self.patch.setenv("CORVANE_INVITE_CODE", code or self.service.invite())

    def is_a_link(self):
        self.key.rename(self.home / "elsewhere")
        self.key.symlink_to("elsewhere")

    def restore(self, content=None):
        self.key.unlink()
        self.key.write_bytes(content or self.backup)

    def gets_a_code(self):
        self.patch.setenv("CORVANE_INVITE_CODE", self.service.invite())

    def is_busy(self):
        self.scripted.script = iter([http(status=503)])
        m.configure(server_url=self.scripted.url)

    def is_away(self):
        m.configure(server_url=AWAY, named_universe="us_large")

    def is_back(self):
        m.configure(server_url=self.service.url)

    def has_failed_before(self):
        self.is_new()
        self.is_away()
        with pytest.raises(ConnectionError):
            m.register()
        self.is_back()

    def answers(self, status, body=b""):
        """Something else answers to /eras: a server with this one answer."""
        self.scripted.script = iter([http(body, status)])
        m.configure(server_url=self.scripted.url)

    def is_between_eras(self):
        self.answers(200, b'{"eras": []}')

    def lists(self, change):
        manifest = json.loads(self.manifest.read_bytes())
        change(manifest["files"])
        self.manifest.write_text(json.dumps(manifest))

    def backtester(self):
        return next(self.home.glob("runtime/*/backtester*.so"))

    def replace_backtester(self, content):
        self.backtester().unlink()
        (self.home / "runtime" / m.CURRENT_PLATFORM / f"backtester-{m.CURRENT_PLATFORM}.so").write_bytes(content)

    def list_rubbish(self):
        self.replace_backtester(b"rubbish")
        digest = m._sha256_file(str(self.backtester()))
        self.lists(lambda files: files[str(self.backtester().relative_to(self.home))].update(sha256=digest))

    def disk_is_full(self):
        """Nothing more can be written into a file."""
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, self.limit[1]))

    def disk_has_room(self):
        resource.setrlimit(resource.RLIMIT_FSIZE, self.limit)

    def lacks(self, *names):
        for name in names:
            self.patch.setitem(sys.modules, f"corvane.{name}", None)
            self.patch.delattr(corvane, name, raising=False)

    def kit(self, owner, **others):
        for name, value in others.items():
            self.patch.setattr(owner, name, value)

    def undo(self):
        self.patch.undo()

    def nothing(self):
        pass


def raising(error):
    def function(*_args, **_kwargs):
        raise error

    return function


def register(agent):
    return m.register()


def with_the_code(agent):
    return m.register(os.environ["CORVANE_INVITE_CODE"])


def login(agent):
    return m.login(KEY)


def login_again(agent):
    return m.login(agent.backup.decode())


def option(**options):
    return lambda agent: m.configure(**options) or True


def strict(agent):
    return m.ensure_runtime_bootstrapped()


def tolerant(agent):
    return m.ensure_runtime_bootstrapped(strict=False) or True


def resolve(agent):
    return m._resolve_active_named_universe(m._auth_manager)


def load(agent):  # what the kit is given to load the native modules with
    return m._load_per_era_backtester(str(agent.home))


def load_one(agent):
    return m._load_manifest_runtime_module(str(agent.home), "backtester")


def sync(agent):
    return m.register(bootstrap_runtime=True)


def read_key(agent):
    return m._read_wallet_key(str(agent.home))


def sign_in_again(agent):
    agent.undo()
    m.register()


def behind_a_proxy(agent):
    agent.patch.delenv("NO_PROXY", raising=False)
    agent.patch.setattr(urllib.request, "_opener", None)  # it asks for the proxies once
    agent.patch.setenv("https_proxy", "http://127.0.0.1:9")
    assert m.register()  # the kit connects directly


def without_the_proxy(agent):
    agent.patch.setenv("no_proxy", "127.0.0.1,localhost")


def without_export(agent):
    agent.patch.delattr(sys.modules["corvane.simulate_signal"], "_simulate_signal_export")


def nudge(agent):
    return m.update_nudge("first_signal") or "First signal" in agent.heartbeat.read_text()


def heartbeat(agent):
    return m.inject_heartbeat() or "## [Corvane]" in agent.heartbeat.read_text()


def is_unreadable(agent):
    """To its own owner, who is not root: no permission stops root."""
    root, directory = os.getuid() == 0, Path(tempfile.mkdtemp())
    agent.key, agent.home = directory / "wallet.key", directory
    agent.key.write_bytes(agent.backup)
    agent.key.chmod(0)
    if root:
        os.chown(directory, NOBODY, NOBODY)
        os.chown(agent.key, NOBODY, NOBODY)
        os.setresuid(NOBODY, NOBODY, 0)
    agent.patch.setattr(agent, "undo", lambda: (os.setresuid(0, 0, 0) if root else None, shutil.rmtree(directory)))


def child(text):
    """Runs a program of its own, which prints why an import was refused."""
    done = subprocess.run([sys.executable, "-Pc", text], capture_output=True, text=True)
    raise ImportError(done.stdout.strip() or done.stderr)


IMPORT = """
try: import corvane.agent_onboarding
except ImportError as exc: print(exc, flush=True)
"""
LOAD = """
import corvane, logging
from importlib.util import find_spec, module_from_spec, spec_from_file_location
file, get_logger = find_spec("corvane.agent_onboarding").origin, logging.getLogger
specs = [spec_from_file_location(f"{name}.agent_onboarding", file) for name in "ab"]
def load(spec, module):
    try: spec.loader.exec_module(module)
    except ImportError as exc: print(exc)
"""
DURING = """
logging.getLogger = lambda name: load(specs[0], module_from_spec(specs[0])) or get_logger(name)
import corvane.agent_onboarding
"""


def in_another_interpreter(agent):
    child(f"from test.support import run_in_subinterp\n{IMPORT}run_in_subinterp({IMPORT!r})")


def during_the_import(agent):
    child(LOAD + DURING)


def by_two_names(agent):
    child(f"{LOAD}for spec, module in [(spec, module_from_spec(spec)) for spec in specs]: load(spec, module)")


def by_its_own_name(agent):
    return importlib.import_module("corvane.agent_onboarding") is m


def in_another_process(agent):
    return subprocess.run([sys.executable, "-Pc", "import corvane.agent_onboarding"]).returncode == 0


TWO_UNIVERSES = b'{"eras": [{"state": "active", "universes": ["us", "eu"]}]}'
REFUSED, NOTHING = raising(OSError("not today")), lambda *_args, **_kwargs: None
DIAGNOSED = type("Diagnosed", (Exception,), {"diagnostic_detail": "it rained"})("no")
DIAGNOSED.__cause__ = OSError("not today")
# The beginning of a row, what is wrong, the call that says so, the advice; and the call after it, if that is another.
CASES = [
    ("Invite", lambda a: a.is_new("CORV-O0"), register, Agent.gets_a_code, register),
    ("This wallet is not", Agent.has_failed_before, register, Agent.nothing, with_the_code),
    ("Invalid", lambda a: a.restore(b"\n"), register, Agent.restore),
    ("Cannot reach", lambda a: a.is_new() or a.is_away(), register, Agent.is_back, with_the_code),
    (
        "Registration failed",
        lambda a: a.is_new(a.used),
        register,
        Agent.gets_a_code,
        with_the_code,
    ),
    ("Authentication failed", Agent.nothing, login, Agent.restore, register),
    ("Authentication failed", Agent.is_busy, login_again, Agent.is_back, register),
    ("No wallet", lambda a: a.kit(m, _auth_manager=None), strict, lambda a: a.undo() or register(a)),
    (
        "Unsafe",
        Agent.is_a_link,
        register,
        Agent.restore,
    ),
    ("Unsafe", is_unreadable, read_key, lambda a: a.key.chmod(0o600)),
    ("Cannot write", Agent.disk_is_full, login, lambda a: a.disk_has_room() or a.restore(), register),
    ("Failed to set", lambda a: a.kit(auth, _set_active_auth_manager=REFUSED), register, Agent.undo),
    ("Unknown configuration", Agent.nothing, option(colour=1), Agent.nothing, option(auto_heartbeat=True)),
    ("Option", Agent.nothing, option(data_dir=Path("d")), Agent.nothing, option(data_dir=str(Path("d")))),
    ("data_dir", Agent.nothing, option(data_dir=""), Agent.nothing, register),
    ("named_universe cannot", Agent.nothing, option(named_universe=" "), Agent.nothing, resolve),
    ("named_universe must", Agent.nothing, option(named_universe="a/us"), Agent.nothing, option(named_universe="us")),
    ("Registration bootstrap could not", lambda a: a.kit(m._auth_manager, get_token=NOTHING), resolve, sign_in_again),
    ("Registration bootstrap failed to fetch /eras.", lambda a: a.answers(401), resolve, Agent.is_back),
    ("Registration bootstrap failed to fetch /eras.", behind_a_proxy, resolve, without_the_proxy),
    ("Registration bootstrap failed to fetch /eras: HTTP", lambda a: a.answers(204), resolve, Agent.is_back),
    ("Registration bootstrap received invalid /eras JSON", lambda a: a.answers(200, b"<p>"), resolve, Agent.is_back),
    ("Registration bootstrap received invalid /eras payload", lambda a: a.answers(200, b"[]"), resolve, Agent.is_back),
    ("Registration bootstrap /eras payload is missing", lambda a: a.answers(200, b"{}"), resolve, Agent.is_back),
    (
        "Registration bootstrap expected exactly one active era",
        Agent.is_between_eras,
        resolve,
        Agent.is_back,
    ),
    (
        "Registration bootstrap expected exactly one active named",
        lambda a: a.answers(200, TWO_UNIVERSES),
        tolerant,
        lambda a: a.is_back() or m.configure(named_universe="us_large"),
    ),
    ("Runtime manifest", lambda a: a.manifest.unlink(), load_one, sync),
    ("Per-era backtester runtime is required", lambda a: a.manifest.unlink(), load, sync),
    ("Per-era backtester runtime is missing", lambda a: a.lists(dict.clear), load, sync),
    ("Manifest does not contain", lambda a: a.lists(dict.clear), load_one, sync),
    ("Runtime module '<name>' is missing", lambda a: a.backtester().unlink(), load_one, sync),
    ("Runtime module '<name>' hash", lambda a: a.replace_backtester(b"rubbish"), load, sync),
    ("Runtime module '<name>' failed", Agent.list_rubbish, load, sync),
    ("Could not create", lambda a: a.kit(importlib.util, spec_from_file_location=NOTHING), load_one, Agent.undo),
    ("Loaded per-era", Agent.nothing, load, None),
    ("Corvane auth bootstrap", lambda a: a.kit(auth, _set_active_auth_manager=REFUSED), strict, Agent.undo),
    ("Failed to bootstrap corvane", Agent.is_away, tolerant, Agent.is_back),
    ("Corvane registration authenticated, but runtime data bootstrap failed", Agent.is_away, strict, Agent.is_back),
    (
        "Corvane registration authenticated, but runtime data bootstrap returned",
        lambda a: a.kit(_runtime, bootstrap_runtime=NOTHING),
        strict,
        Agent.undo,
    ),
    (
        "Failed to bootstrap local",
        lambda a: a.is_away() or a.replace_backtester(b"rubbish"),
        tolerant,
        Agent.is_back,
    ),
    (
        "Batch",
        lambda a: a.is_away() or a.kit(_runtime, _import_batch_runtime=REFUSED),
        tolerant,
        lambda a: a.undo() or a.is_back(),
    ),
    ("Failed to inject runtime", lambda a: a.lacks("search_templates"), tolerant, Agent.undo),
    ("Failed to inject existing", lambda a: sync(a) and a.lacks("search_templates"), tolerant, Agent.undo),
    ("Corvane search runtime", lambda a: a.lacks("search_templates"), strict, Agent.undo),
    ("Failed to initialize", lambda a: a.lacks("simulate_signal"), tolerant, Agent.undo),
    ("private", lambda a: a.is_away() or a.manifest.unlink(), tolerant, Agent.is_back),
    ("Corvane simulate_signal", lambda a: a.lacks("simulate_signal"), strict, Agent.undo),
    ("Failed to restore", without_export, tolerant, Agent.undo),
    ("Corvane simulate exports", without_export, strict, Agent.undo),
    ("local variable", lambda a: a.lacks("sync_backoff"), strict, Agent.undo),
    ("<class>", lambda a: a.kit(_runtime, bootstrap_runtime=raising(DIAGNOSED)), strict, Agent.undo),
    ("Failed to read", lambda a: a.heartbeat.write_bytes(b"\xff"), heartbeat, lambda a: a.heartbeat.write_text("")),
    ("Failed to write", Agent.disk_is_full, heartbeat, Agent.disk_has_room),
    ("update_nudge", lambda a: a.heartbeat.write_bytes(b"\xff"), nudge, lambda a: a.heartbeat.write_text("")),
    ("corvane.agent_onboarding can be", Agent.nothing, in_another_interpreter, Agent.nothing, in_another_process),
    ("corvane.agent_onboarding is being", Agent.nothing, during_the_import, Agent.nothing, in_another_process),
    ("corvane.agent_onboarding is already", Agent.nothing, by_two_names, Agent.nothing, by_its_own_name),
]


@pytest.fixture(scope="module")
def at_home(service, tmp_path_factory):
    """A directory with everything in it, the manager of its wallet, and the invite code that the wallet has used."""
    home, code = tmp_path_factory.mktemp("home"), service.invite()
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(m, "_config", {**m._config, "auto_heartbeat": False, "server_url": service.url})
        patch.setattr(m, "_auth_manager", None)
        m.register(code, data_dir=str(home), bootstrap_runtime=True)
        _runtime.close_runtime()
        yield home, m._auth_manager, code


@pytest.fixture
def agent(at_home, service, scripted, tmp_path, monkeypatch):
    home, manager, code = at_home
    home_config = {**m._config, "auto_heartbeat": True, "named_universe": ""}
    shutil.copytree(home, tmp_path, dirs_exist_ok=True)
    (tmp_path / "HEARTBEAT.md").touch()
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(m, "_config", {**home_config, "data_dir": str(tmp_path)})
    monkeypatch.setattr(m, "_auth_manager", manager)
    monkeypatch.setattr(_runtime, "_ATTEMPTS", 1)
    monkeypatch.delenv("CORVANE_INVITE_CODE", raising=False)
    with pytest.MonkeyPatch.context() as patch:
        agent = Agent(service, scripted, tmp_path, patch)
        agent.used = code
        yield agent
        agent.disk_has_room()
        agent.undo()
    _runtime.close_runtime()


def said(call, agent, caplog):
    """What a call raises and logs: pairs of the class or level and the text; and its result."""
    caplog.clear()
    result, texts, links = None, [], []
    with caplog.at_level(logging.DEBUG, m.logger.name):
        try:
            result = call(agent)
        except Exception as exc:
            links.append(exc)
    for record in caplog.records:
        texts.append((record.levelname.lower(), record.getMessage()))
        links += [value for value in record.args if isinstance(value, Exception)]
    while links:
        exc = links.pop()
        texts.append((type(exc).__name__, str(exc)))
        links += filter(None, [exc.__cause__ or exc.__context__])
        if isinstance(exc, urllib.error.HTTPError):
            exc.close()
    return texts, result


@pytest.mark.parametrize("case", CASES, ids=lambda case: case[0].replace("/", ""))
def test_the_advice_helps(case, agent, caplog):
    beginning, goes_wrong, call, advice, *then = case
    [(message, kind)] = [row for row in ROWS.items() if row[0].startswith(beginning)]
    goes_wrong(agent)
    texts, _ = said(call, agent, caplog)
    pattern = re.sub("<[a-z]+>", ".+", re.escape(message))
    assert [text for text in texts if text[0] == (kind or "RuntimeError") and re.fullmatch(pattern, text[1])], texts
    if advice:
        advice(agent)
        texts, result = said(*then or [call], agent, caplog)
        assert [text for text in texts if text[0] not in ("info", "debug")] == [] and result


def test_every_row_is_tried():
    tried = {message for case in CASES for message in ROWS if message.startswith(case[0])}
    by_races = re.findall(r"^\| `([^`]+)`[^|]*\| Only by a race: ", PAGE, re.M)
    assert tried.isdisjoint(by_races) and tried | set(by_races) == set(ROWS)


@pytest.mark.parametrize("key", [b"\x12" * 32, "", "12" * 31])
def test_login_takes_text_only(agent, key):
    """What the pages and the help say before somebody calls it."""
    with pytest.raises((AttributeError, ValueError)):
        m.login(key)
    assert agent.key.read_text() == (key if isinstance(key, str) else "")

"""docs/operating.md row by row: what is told to provoke a message does, and the advice beside it helps."""

import importlib.util
import json
import logging
import os
import re
import resource
import sys
import urllib.request
from pathlib import Path
from unittest import mock

import pytest

import corvane
from corvane import _runtime, auth
from corvane import agent_onboarding as m
from corvane.sync import SyncManager
from corvane_cli.command import _chain as chain
from localkit.tests.conftest import http

ROOT = Path(__file__).parents[2]
PAGE = (ROOT / "docs/operating.md").read_text("utf-8").partition("## Messages")[2]
ROWS = dict(re.findall(r"^\| `([^`]+)`(?: \((\w+)\))? \|", PAGE, re.M))
LIMIT = resource.getrlimit(resource.RLIMIT_FSIZE)


class Agent:
    """An agent with a wallet that the service knows, all downloads on disk, and whatever a row does to it."""

    def __init__(self, service, scripted, home, patch, used):
        self.service, self.scripted, self.home, self.patch, self.used = service, scripted, home, patch, used
        self.key, self.heartbeat, self.manifest = home / "wallet.key", home / "HEARTBEAT.md", home / "manifest.json"
        self.backup, self.replace = self.key.read_bytes(), patch.setattr

    def gets_a_code(self, code=None):
        self.patch.setenv("CORVANE_INVITE_CODE", code or self.service.invite())

    def is_new(self, code=None):
        self.key.unlink()
        self.gets_a_code(code)

    def restore(self, content=None):
        self.key.unlink()
        self.key.write_bytes(content or self.backup)

    def is_away(self):
        m.configure(server_url="https://127.0.0.1:9", named_universe="us_large")

    def is_back(self):
        m.configure(server_url=self.service.url)

    def has_failed_before(self):
        self.is_new()
        self.is_away()
        with pytest.raises(ConnectionError):
            m.register()
        self.is_back()

    def answers(self, status, body=b""):
        self.scripted.script = iter([http(body, status)])
        m.configure(server_url=self.scripted.url)

    def is_behind_a_proxy(self):
        self.patch.delenv("NO_PROXY", raising=False)
        self.patch.setattr(urllib.request, "_opener", None)  # it asks for the proxies once
        self.patch.setenv("https_proxy", "http://127.0.0.1:9")
        assert m.register()  # the kit connects directly

    def lists(self, change):
        manifest = json.loads(self.manifest.read_bytes())
        change(manifest["files"])
        self.manifest.write_text(json.dumps(manifest))

    def backtester(self):
        return next(self.home.glob("runtime/*/backtester*.so"))

    def has_rubbish(self, listed=False):
        (path := self.backtester()).unlink()
        path.write_bytes(b"rubbish")
        digest = m._sha256_file(str(path))
        if listed:
            self.lists(lambda files: files[str(path.relative_to(self.home))].update(sha256=digest))

    def disk_is_full(self):
        """Nothing more can be written into a file."""
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, LIMIT[1]))

    def disk_has_room(self):
        resource.setrlimit(resource.RLIMIT_FSIZE, LIMIT)

    def lacks(self, name):
        self.patch.setitem(sys.modules, f"corvane.{name}", None)
        self.patch.delattr(corvane, name, raising=False)

    def lacks_export(self):
        self.patch.delattr(sys.modules["corvane.simulate_signal"], "_simulate_signal_export")


def option(**options):
    return lambda agent: m.configure(**options) or True


CALLS = {
    "register": lambda a: m.register(),
    "with the code": lambda a: m.register(os.environ["CORVANE_INVITE_CODE"]),
    "sync": lambda a: m.register(bootstrap_runtime=True),
    "login": lambda a: m.login("5a" * 32),
    "eras": lambda a: m._resolve_active_named_universe(m._auth_manager),
    "strict": lambda a: m.ensure_runtime_bootstrapped(),
    "tolerant": lambda a: m.ensure_runtime_bootstrapped(strict=False) or True,
    "load": lambda a: m._load_per_era_backtester(str(a.home)),  # what the kit is given to load native modules with
    "load one": lambda a: m._load_manifest_runtime_module(str(a.home), "backtester"),
    "nudge": lambda a: m.update_nudge("first_signal") or "First signal" in a.heartbeat.read_text(),
    "heartbeat": lambda a: m.inject_heartbeat() or "## [Corvane]" in a.heartbeat.read_text(),
}
ADVICE = {
    "back": Agent.is_back,
    "undo": lambda a: a.patch.undo(),
    "restore": Agent.restore,
    "another code": Agent.gets_a_code,
    "sync": CALLS["sync"],
    "register": lambda a: a.patch.undo() or m.register(),
    "no proxy": lambda a: a.patch.setenv("no_proxy", "127.0.0.1,localhost"),
    "make room": Agent.disk_has_room,
    "make room and restore": lambda a: a.disk_has_room() or a.restore(),
    "choose": lambda a: a.is_back() or m.configure(named_universe="us_large"),
    "undo, back": lambda a: a.patch.undo() or a.is_back(),
    "as UTF-8": lambda a: a.heartbeat.write_text(""),
    "none": lambda a: None,
}
DIAGNOSED = type("Diagnosed", (Exception,), {"diagnostic_detail": "it rained"})("no")
DIAGNOSED.__cause__ = OSError("not today")
TWO = [{"state": "active", "universes": ["us", "eu"]}]
REFUSED, NOTHING = mock.Mock(side_effect=DIAGNOSED), mock.Mock(return_value=None)
# A part of the message, what is wrong, the call that says so, the advice; and the call after it, if that is another.
CASES = [
    ("Invite code required", lambda a: a.is_new("CORV-O0"), "register", "another code"),
    ("This wallet is not", Agent.has_failed_before, "register", "none", "with the code"),
    ("Invalid private key", lambda a: a.restore(b"\n"), "register", "restore"),
    ("Cannot reach", lambda a: a.is_new() or a.is_away(), "register", "back", "with the code"),
    ("Registration failed", lambda a: a.is_new(a.used), "register", "another code", "with the code"),
    ("Authentication failed", None, "login", "restore", "register"),
    ("No wallet", lambda a: a.replace(m, "_auth_manager", None), "strict", "register"),
    ("Unsafe", lambda a: a.key.rename("other") and a.key.symlink_to("other"), "register", "restore"),
    ("Cannot write", Agent.disk_is_full, "login", "make room and restore", "register"),
    ("Failed to set", lambda a: a.replace(auth, "_set_active_auth_manager", REFUSED), "register", "undo"),
    ("Unknown configuration", None, option(colour=1), "none", option(auto_heartbeat=True)),
    ("Option", None, option(data_dir=Path("d")), "none", option(data_dir=str(Path("d")))),
    ("data_dir", None, option(data_dir=""), "none", "register"),
    ("named_universe cannot", None, option(named_universe=" "), "none", "eras"),
    ("named_universe must", None, option(named_universe="a/us"), "none", option(named_universe="us")),
    ("could not fetch /eras", lambda a: a.replace(m._auth_manager, "get_token", NOTHING), "eras", "register"),
    ("failed to fetch /eras.", Agent.is_behind_a_proxy, "eras", "no proxy"),
    ("failed to fetch /eras: HTTP", lambda a: a.answers(204), "eras", "back"),
    ("invalid /eras JSON", lambda a: a.answers(200, b"<p>"), "eras", "back"),
    ("invalid /eras payload", lambda a: a.answers(200, []), "eras", "back"),
    ("missing eras list", lambda a: a.answers(200, {}), "eras", "back"),
    ("one active era", lambda a: a.answers(200, {"eras": []}), "eras", "back"),
    ("one active named", lambda a: a.answers(200, {"eras": TWO}), "tolerant", "choose"),
    ("Runtime manifest", lambda a: a.manifest.unlink(), "load one", "sync"),
    ("runtime is required", lambda a: a.manifest.unlink(), "load", "sync"),
    ("missing from manifest", lambda a: a.lists(dict.clear), "load", "sync"),
    ("Manifest does not contain", lambda a: a.lists(dict.clear), "load one", "sync"),
    ("Runtime module '<name>' is missing", lambda a: a.backtester().unlink(), "load one", "sync"),
    ("Runtime module '<name>' hash", Agent.has_rubbish, "load", "sync"),
    ("Runtime module '<name>' failed", lambda a: a.has_rubbish(listed=True), "load", "sync"),
    ("Could not create", lambda a: a.replace(importlib.util, "spec_from_file_location", NOTHING), "load one", "undo"),
    ("Loaded per-era", None, "load", "none"),
    ("auth bootstrap failed", lambda a: a.replace(auth, "_set_active_auth_manager", REFUSED), "strict", "undo"),
    ("Failed to bootstrap corvane", Agent.is_away, "tolerant", "back"),
    ("data bootstrap failed", Agent.is_away, "strict", "back"),
    ("returned no runtime", lambda a: a.replace(_runtime, "bootstrap_runtime", NOTHING), "strict", "undo"),
    ("Failed to bootstrap local", lambda a: a.is_away() or a.has_rubbish(), "tolerant", "back"),
    ("Batch", lambda a: a.is_away() or a.replace(_runtime, "_import_batch_runtime", REFUSED), "tolerant", "undo, back"),
    ("Failed to inject runtime", lambda a: a.lacks("search_templates"), "tolerant", "undo"),
    ("Failed to inject existing", lambda a: CALLS["sync"](a) and a.lacks("search_templates"), "tolerant", "undo"),
    ("Corvane search runtime", lambda a: a.lacks("search_templates"), "strict", "undo"),
    ("Failed to initialize", lambda a: a.lacks("simulate_signal"), "tolerant", "undo"),
    ("private corvane runtime", lambda a: a.is_away() or a.manifest.unlink(), "tolerant", "back"),
    ("simulate_signal bootstrap failed", lambda a: a.lacks("simulate_signal"), "strict", "undo"),
    ("Failed to restore", Agent.lacks_export, "tolerant", "undo"),
    ("simulate exports bootstrap failed", Agent.lacks_export, "strict", "undo"),
    ("local variable", lambda a: a.lacks("sync_backoff"), "strict", "undo"),
    ("<class>", lambda a: a.replace(_runtime, "bootstrap_runtime", REFUSED), "strict", "undo"),
    ("Failed to read", lambda a: a.heartbeat.write_bytes(b"\xff"), "heartbeat", "as UTF-8"),
    ("Failed to write", Agent.disk_is_full, "heartbeat", "make room"),
    ("update_nudge", lambda a: a.heartbeat.write_bytes(b"\xff"), "nudge", "as UTF-8"),
]  # fmt: skip


@pytest.fixture
def agent(service, scripted, tmp_path, monkeypatch):
    config = m._config | {"auto_heartbeat": False, "named_universe": "", "server_url": service.url}
    monkeypatch.setattr(m, "_config", config | {"data_dir": str(tmp_path)})
    monkeypatch.setattr(m, "_auth_manager", None)
    monkeypatch.setattr(_runtime, "_ATTEMPTS", 1)
    monkeypatch.delenv("CORVANE_INVITE_CODE", raising=False)
    monkeypatch.chdir(tmp_path)
    m.register(code := service.invite())
    SyncManager(m._auth_manager, str(tmp_path), service.url).sync()
    m.configure(auto_heartbeat=True)
    (tmp_path / "HEARTBEAT.md").touch()
    with pytest.MonkeyPatch.context() as patch:
        yield Agent(service, scripted, tmp_path, patch, code)
    resource.setrlimit(resource.RLIMIT_FSIZE, LIMIT)
    _runtime.close_runtime()


def said(call, agent, caplog):
    """What a call raises and logs: pairs of the class or level and the text; and its result."""
    caplog.clear()
    result, raised = None, []
    with caplog.at_level(logging.DEBUG, m.logger.name):
        try:
            result = CALLS.get(call, call)(agent)
        except Exception as exc:
            raised.append(exc)
    raised += [value for record in caplog.records for value in record.args if isinstance(value, Exception)]
    texts = [(record.levelname.lower(), record.getMessage()) for record in caplog.records]
    texts += [(type(link).__name__, str(link)) for exc in raised for link in chain(exc)]
    return texts, result


@pytest.mark.parametrize("case", CASES, ids=lambda case: case[0].replace("/", ""))
def test_the_advice_helps(case, agent, caplog):
    part, goes_wrong, call, advice, *then = case
    [(message, kind)] = [row for row in ROWS.items() if part in row[0]]
    if goes_wrong:
        goes_wrong(agent)
    texts, _ = said(call, agent, caplog)
    pattern = re.sub("<[a-z]+>", ".+", re.escape(message))
    assert [text for text in texts if text[0] == (kind or "RuntimeError") and re.fullmatch(pattern, text[1])], texts
    ADVICE[advice](agent)
    texts, result = said(*then or [call], agent, caplog)
    assert [text for text in texts if text[0] not in ("info", "debug")] == [] and result


def test_every_row_is_tried():
    tried = {message for case in CASES for message in ROWS if case[0] in message}
    by_races = re.findall(r"^\| `([^`]+)`[^|]*\| Only by a race: ", PAGE, re.M)
    imports = (ROOT / "tests/test_surface.py").read_text("utf-8")  # has a program for each
    tried |= {message for message in ROWS if message.startswith("corvane.agent_onboarding ") and message in imports}
    assert tried.isdisjoint(by_races) and tried | set(by_races) == set(ROWS)

"""Odd values, replaced names and strikes in mid-call, beside plain Python; support/promises.py has what is usual."""

import contextlib
import functools
import itertools
import secrets
from pathlib import Path

import pytest

from support import scenarios as e
from support.comparison import STRIKES, same, same_at_each_step, tried
from support.promises import CALLS


class Text(str):
    """A text that says something else of itself; it is taken as it is."""

    def __str__(self):
        return "something else"


class Awkward:
    """A value whose every use raises."""

    __str__ = __bool__ = __eq__ = __fspath__ = e.raising(LookupError, "no text")
    __hash__ = None


def several(*acts):
    """All of them one after the other, whatever is raised."""
    return lambda: [tried(act) for act in acts]


READ, INJECT, NUDGE = (
    e.call("_read_wallet_key", "d"),
    e.call("inject_heartbeat"),
    e.call("update_nudge", "first_signal"),
)
CHECKLIST, VICTIM = e.file("HEARTBEAT.md", "x"), (e.LINK, e.file("d/victim", "secret"))
ODD = (
    None, "", "abc", "0Xab", "a/b/c/d", "d\0", "\udc80", "x" * 100_000, "~nobody-there/x", "10_signals", " t\n",
    Text("era_change"), Path("d"), b"d", False, [], {}, ["x"], Awkward(),
    5000,  # not the number of an open descriptor, which would be read and closed
)  # fmt: skip
TAKING = """
    login _normalize_key register _resolve_invite_code _canonical_data_dir _wallet_key_path _unsafe_wallet_error
    _find_heartbeat inject_heartbeat update_nudge _read_json_if_present _exception_chain_detail"""
PATCHED = """
    _read_wallet_key _write_wallet_key _canonical_data_dir _unsafe_wallet_error _normalize_key inject_heartbeat
    WalletRegistration open isinstance OSError Exception hasattr sorted _config _VALID_OPTIONS logger _find_heartbeat
    _check_wallet_fd secrets IOError RuntimeError _fetch_eras_payload urllib json str len"""
REPLACEMENTS = e.MISSING, None, "text", ValueError, lambda *args, **kwargs: "patched"
RESOLVE = e.call("_resolve_active_named_universe", e.manager(get_token=str))
REFUSED = several(e.call("configure", x=1), e.register(data_dir="e"), e.register(), e.LOGIN, INJECT, RESOLVE)
STRANGE_FILES = (
    type("NoExit", (), {"__enter__": dict}),
    functools.partial(contextlib.suppress, AttributeError),  # its reading fails, and it swallows that
)
STRANGE_ERRORS = OSError, type("NoInstance", (OSError,), {"__new__": lambda cls, *args: 5})
FAILING = {"_runtime.bootstrap_runtime()": ConnectionError}
KITS = [
    *({"_runtime._import_batch_runtime()": batch, **FAILING} for batch in ((1,) * 5, None, "abcd")),
    {"sync_backoff.SyncBackoffCancelled": 5, **FAILING},
    *({"_runtime.get_runtime()": LookupError}, {"simulate_signal.init_simulate_signal()": e.Cancelled}),
    *({name: None} for name in e.SIBLINGS),
]


def loader_without_its_directory():
    load = e.m.create_runtime_freshness_guard("d")._load
    del load.__closure__[0].cell_contents
    load("backtester", "0")


def rows():
    """Name, what is called, what is there before."""
    for value, name in itertools.product(ODD, TAKING.split()):
        yield f"{name} {type(value)} {value!r:.20}", e.call(name, value), CHECKLIST
    for value in ODD:
        more = e.register(data_dir=value), e.call("_local_vocabulary_path", ".", value)
        set_all = (e.call("configure", **{name: value}) for name in e.DEFAULTS)
        yield f"in {type(value)} {value!r:.20}", several(*more, *set_all), CHECKLIST
    yield "options of another kind", several(e.call("configure", **{Text("data_dir"): "e", "\udc80": 1}))
    no_option = lambda undo: e.m._config.pop("auto_heartbeat")  # noqa: E731
    yield "no option to opt out", several(e.register(), INJECT, NUDGE), CHECKLIST, no_option
    for number, make in enumerate(STRANGE_FILES):
        opened = e.ours(open=lambda *args, make=make, **kwargs: make())
        yield f"strange file {number}", several(INJECT, NUDGE), CHECKLIST, opened
    for kind in STRANGE_ERRORS:
        yield f"{kind} is raised", READ, *VICTIM, e.ours(_unsafe_wallet_error=lambda p, kind=kind: kind)
    yield "a loader without its directory", loader_without_its_directory
    yield "a module without the function", e.register(), e.patched(secrets, token_hex=e.MISSING)
    for exc in e.Anything("x", {"x.diagnostic_detail": KeyError}), e.Anything(__str__=1):
        yield f"chain {exc}", e.call("_exception_chain_detail", exc)
    # The module's namespace is the seam: a replaced name is used, a deleted one is a NameError.
    for name, value in itertools.product(PATCHED.split(), REPLACEMENTS):
        other = e.ours(**{name: value})
        yield f"{name} {value!r:.9}", REFUSED, *VICTIM, e.file("HEARTBEAT.md", b"\xff"), other
    for number, manifest in enumerate(value for files in e.FILES for value in ({"files": files}, e.chain)):
        choose = "_select_runtime_module_manifest_entry"
        select = (e.call(choose, manifest, name) for name in ("backtester", "era_data", None, []))
        entries = lambda m=manifest: list(e.m._runtime_module_manifest_entries(m))  # noqa: E731
        load = e.call("_load_runtime_modules_from_manifest", "d", manifest)
        yield f"manifest {number}", several(*select, entries, load)
    for path in ("../x", "/nowhere/x", "a\0b", "x" * 300, "a\nb", "\udc80", "", "."):
        listed = {"files": {path: e.entry("runtime_module:x")}}
        yield f"path {path!r:.9}", e.call("_load_manifest_runtime_module", "d", "x", manifest=listed)
    for value in ({"b": 1, 2: 2}, [{"name": Awkward()}], Awkward(), [None, ["x"]]):
        found = e.ours(_fetch_eras_payload=lambda am, v=value: {"eras": [{"state": "active", "universes": v}, 5]})
        yield f"universes {type(value)}", RESOLVE, found
    for era_id, files in itertools.product(("x", 2.5, []), ("[]", '{"files": 5}')):
        there = e.on_disk({"d/manifest.json": files}, era_config={"era_id": era_id})
        yield f"local {era_id} {files}", e.call("_bootstrap_local_runtime_from_config", "am"), *there, e.kit()
    for strict, changes in itertools.product((True, []), KITS):
        for act in e.call("_propagate_auth", "am", strict=strict), e.call("ensure_runtime_bootstrapped", strict):
            yield f"{changes}, {strict}", act, *e.on_disk(named_universe="u"), e.kit(changes), e.MANAGER


@pytest.mark.parametrize(("act", "prepare"), [pytest.param(act, rest, id=name) for name, act, *rest in rows()])
def test_an_odd_value_comes_to_the_same_as_in_python(act, prepare):
    assert same(act, *prepare)["descriptors"] == 0


STEPWISE = (
    *("read loose", "write", "register", "register: the stored key again, without a code", "login", "inject", "nudge"),
    *("configure: {'server_url': 'https://x/'}", "load", "prune: the kept and the newest stay"),
    *("import: a module is registered before it is executed, and marked after it", "import: another build replaces it"),
    *("propagate", "propagate: a local runtime", "propagate: the kit fails strictly", "ensure: new, False"),
)


@pytest.mark.parametrize("strike", STRIKES)
@pytest.mark.parametrize("name", STEPWISE)
def test_a_failure_or_a_change_at_each_step_comes_to_the_same_as_in_python(name, strike):
    same_at_each_step(STRIKES[strike], CALLS[name].act, *CALLS[name].prepare)

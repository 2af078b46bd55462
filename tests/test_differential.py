"""Odd values, replaced names and strikes in mid-call, beside plain Python; support/promises.py has what is usual."""

import contextlib
import itertools
from pathlib import Path

import pytest

from support import scenarios as e
from support.comparison import STRIKES, same, tried
from support.promises import CALLS


class Awkward:
    """A value whose every use raises."""

    __str__ = __bool__ = __eq__ = __fspath__ = e.raising(LookupError, "no text")
    __hash__ = None


ODD = None, "", "d\0", "\udc80", "x" * 100_000, "~nobody-there/x", Path("d"), b"d", False, [], ["x"], Awkward()
TAKING = """
    login _normalize_key register _resolve_invite_code _canonical_data_dir _wallet_key_path _unsafe_wallet_error
    _find_heartbeat inject_heartbeat update_nudge _read_json_if_present _exception_chain_detail"""
REPLACED = """
    _read_wallet_key _write_wallet_key _canonical_data_dir _unsafe_wallet_error _normalize_key inject_heartbeat
    WalletRegistration open isinstance OSError Exception hasattr sorted _config _VALID_OPTIONS logger _find_heartbeat
    _check_wallet_fd secrets IOError RuntimeError _fetch_eras_payload urllib json str len"""
REPLACEMENTS = e.MISSING, None, "text", ValueError, lambda *args, **kwargs: "patched"
RESOLVE = e.call("_resolve_active_named_universe", e.manager(get_token=str))
REFUSED = e.call("configure", x=1), e.register(), e.LOGIN, e.call("inject_heartbeat"), RESOLVE
CHECKLIST, VICTIM = e.file("HEARTBEAT.md", "x"), (e.LINK, e.file("d/victim", "secret"))


def several(*acts):
    """All of them one after the other, whatever is raised."""
    return lambda: [tried(act) for act in acts]


def rows():
    """Name, what is called, what is there before."""
    for value, name in itertools.product(ODD, TAKING.split()):
        yield f"{name} {type(value)} {value!r:.20}", e.call(name, value), CHECKLIST
    # The module's namespace is the seam: a replaced name is used, a deleted one is a NameError.
    for name, value in itertools.product(REPLACED.split(), REPLACEMENTS):
        other = e.ours(**{name: value})
        yield f"{name} {value!r:.9}", several(*REFUSED), *VICTIM, e.file("HEARTBEAT.md", b"\xff"), other
    for number, files in enumerate(e.FILES):
        listed = e.call("_load_runtime_modules_from_manifest", "d", {"files": files})
        select = (e.call("_select_runtime_module_manifest_entry", {"files": files}, name) for name in ("era_data", []))
        yield f"manifest {number}", several(listed, *select)
    swallowing = e.ours(open=lambda *args, **kwargs: contextlib.suppress(AttributeError))  # its reading fails
    yield "a file that swallows an error", e.call("inject_heartbeat"), CHECKLIST, swallowing
    for batch in "abcd", (1, 2, 3, 4, 5):
        given = e.kit({"_runtime._import_batch_runtime()": batch, "_runtime.bootstrap_runtime()": OSError})
        yield f"batch runtime {batch}", e.call("_propagate_auth", "am"), *e.on_disk(named_universe="u"), given


@pytest.mark.parametrize(("act", "prepare"), [pytest.param(act, rest, id=name) for name, act, *rest in rows()])
def test_an_odd_value_comes_to_the_same_as_in_python(act, prepare):
    assert same(act, *prepare)["descriptors"] == 0


STEPWISE = (
    "read loose", "write", "register", "register: the stored key again, without a code", "login", "inject", "nudge",
    "configure: {'server_url': 'https://x/'}", "load", "prune: the kept and the newest stay",
    "import: a module is registered before it is executed, and marked after it", "import: another build replaces it",
    "propagate", "propagate: a local runtime", "propagate: the kit fails strictly", "ensure: new, False",
)  # fmt: skip


@pytest.mark.parametrize("strike", STRIKES)
@pytest.mark.parametrize("name", STEPWISE)
def test_a_failure_or_a_change_at_each_step_comes_to_the_same_as_in_python(name, strike):
    act, prepare = CALLS[name].act, CALLS[name].prepare
    steps = len(same(act, *prepare)["events"])
    for step in range(1, steps + 1):
        same(act, *prepare, strike_at=step, strike=STRIKES[strike])
    assert steps >= 2

"""An agent's first day as plain functions for a model to call: what the examples for the frameworks share.

Each returns a short text, and the text of an exception says what to do. They take no invite code, no key and no service
address: whoever starts the agent sets those, with `CORVANE_INVITE_CODE` and `configure`. Calls block for seconds, a
search for up to two minutes: let the framework run them in threads.
"""

import functools
import os
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Literal, get_args

import corvane
from corvane import agent_onboarding
from corvane.agent_onboarding import get_agents_md_fragment
from corvane.search_templates import start_search
from corvane.search_tracking import FoundSignal

Trigger = Literal["discovery_rate_declining", "era_change", "first_signal", "10_signals", "strategy_unlock"]
_one_at_a_time = threading.Lock()  # the module has no lock of its own, and a model may call several tools at once
MOST_EVALUATIONS, MOST_SECONDS, MOST_SHOWN = 20_000, 120, 10


def register() -> str:
    """Sign this agent's wallet in to the Corvane service and download what searching needs. Call it first.

    It makes a wallet if there is none. Call it again after a ConnectionError; the wallet is kept. After a
    RegistrationError, ask your operator for another invite code. It takes up to a minute.

    Returns:
        The address of the wallet.
    """
    # As an argument: after a ConnectionError there is a wallet.key, and the module no longer reads the variable.
    code = os.environ.get("CORVANE_INVITE_CODE") or None
    with _one_at_a_time:
        address = agent_onboarding.register(code, bootstrap_runtime=True).address
    return f"Signed in. The address of the wallet is {address}."


def search(seed: int, max_evaluations: int = 2000) -> str:
    """Search for signals in the prices of the active era. Call it after register, with another seed each time.

    It stops by itself after max_evaluations expressions or two minutes. Only one search can run at a time. Whatever it
    finds is stored, and milestones are noted in HEARTBEAT.md.

    Args:
        seed: The seed of the random numbers, 0 or more. A seed that has been used finds nothing new.
        max_evaluations: How many expressions to try, from 1 to 20000.

    Returns:
        How many expressions were tried, and the new signals with their numbers. A signal may have fitted by chance; it
        is not advice to trade.
    """
    if not 1 <= max_evaluations <= MOST_EVALUATIONS:
        raise ValueError(f"max_evaluations must be from 1 to {MOST_EVALUATIONS}, got {max_evaluations}.")
    result = start_search(seed=seed, max_evaluations=max_evaluations, seconds=MOST_SECONDS, progress=False)
    return f"Tried {result.evaluations} expressions, found {_listed(result.signals)}"


def search_status() -> str:
    """Report how the search for signals is going: status and analytics. Call it at each heartbeat.

    Returns:
        Whether a search is running, why the latest one ended early if it did, how many signals are stored, how many
        are found per hour of searching and whether that is rising or falling, and what to look at next.
    """
    status, velocity = corvane.search_status(), corvane.get_search_velocity()
    state = "A search is running" if status.running else "No search is running"
    problem = f"; the latest one ended early: {status.error}" if status.error else ""
    rate = f"{velocity.signals_per_hour:.1f} per hour of searching, trend {velocity.trend}"
    hints = [f"{hint.use.kind} {hint.use.name} ({hint.reason})" for hint in corvane.get_suggestions()[:MOST_SHOWN]]
    return f"{state}{problem}. Signals stored: {status.signals}, {rate}. Look at: {', '.join(hints) or 'nothing new'}."


def simulate(signal_id: int) -> str:
    """Show what trading a found signal would have earned over the active era, after costs. Call it after search.

    Args:
        signal_id: The number of the signal, as search returned it.

    Returns:
        The Sharpe ratio on the days that the search did not select by (the one to judge by) and on those that it did,
        and the total return and the greatest fall as fractions of the capital.
    """
    result = corvane.simulate_signal(signal_id)
    return (
        f"{result.expression} on {result.instrument}: Sharpe ratio {result.rest_sharpe:.2f} on other days, "
        f"{result.train_sharpe:.2f} on the days of the search; return {result.total_return:.1%}, "
        f"greatest fall {result.max_drawdown:.1%}. The past of a few stocks proves little."
    )


def inject_heartbeat() -> str:
    """Add the checklist for the search to HEARTBEAT.md of the workspace, once. register does this as well.

    Returns:
        Where the checklist is.
    """
    with _one_at_a_time:
        agent_onboarding.inject_heartbeat()
    path = _heartbeat()
    if "## [Corvane]" not in path.read_text(encoding="utf-8"):
        raise RuntimeError(f"The checklist was not added to {path}: it is switched off or failed, see the log.")
    return f"The checklist is in {path}."


def update_nudge(trigger: Trigger) -> str:
    """Add a line about a milestone to HEARTBEAT.md, once. search does this itself for the signals that it finds.

    Args:
        trigger: What has happened.

    Returns:
        Whether a line was added.
    """
    if trigger not in get_args(Trigger):
        raise ValueError(f"Unknown trigger {trigger!r}. Triggers: {', '.join(get_args(Trigger))}")
    path = _heartbeat()
    with _one_at_a_time:
        before = path.read_bytes()
        agent_onboarding.update_nudge(trigger)
        was_added = path.read_bytes() != before
    if was_added:
        return f"The line was added to {path}."
    return f"{path} is unchanged: the line is there already, or writing is switched off or failed (see the log)."


def _heartbeat() -> Path:
    """The file that the module edits: in the working directory or one of three parents."""
    here = Path.cwd()
    for directory in (here, *here.parents[:3]):
        if (path := directory / "HEARTBEAT.md").exists():
            return path
    raise FileNotFoundError(f"There is no HEARTBEAT.md in {here} or its three parents; ask your operator to make one.")


def _listed(signals: tuple[FoundSignal, ...]) -> str:
    lines = [
        f"{s.id}: {s.expression} on {s.instrument}, Sharpe ratio {s.rest_sharpe:.2f}" for s in signals[:MOST_SHOWN]
    ]
    return "\n".join([f"{len(signals)} new signals{':' * bool(signals)}", *lines])


FUNCTIONS: tuple[Callable[..., str], ...] = (
    register,
    search,
    search_status,
    simulate,
    inject_heartbeat,
    update_nudge,
    get_agents_md_fragment,
)


def explained(error: BaseException) -> str:
    """What a model reads about a failure: its kind and what to do. The text never contains a key or an invite code."""
    return f"{type(error).__name__}: {error}"


def raising[**P](kind: Callable[[str], Exception], function: Callable[P, str]) -> Callable[P, str]:
    """The function, with its exceptions turned into a kind whose text the framework passes to the model."""

    @functools.wraps(function)
    def call(*args: P.args, **kwargs: P.kwargs) -> str:
        try:
            return function(*args, **kwargs)
        except Exception as error:
            raise kind(explained(error)) from error

    return call

"""Agent onboarding subcomponent -- register, login, configure, heartbeat."""

from dataclasses import dataclass, field
from logging import Logger
from typing import Literal, TypedDict, Unpack, type_check_only

from corvane.runtime_module_freshness import RuntimeFreshnessGuard

CURRENT_PLATFORM: str
logger: Logger

@dataclass
class WalletRegistration:
    """Returned by register() on successful wallet creation/re-auth."""

    address: str

@dataclass
class AuthToken:
    """Returned by login() on successful authentication."""

    token: str = field(repr=False)
    expires_at: float

@type_check_only
class _Options(TypedDict, total=False):
    auto_heartbeat: bool
    data_dir: str
    server_url: str
    named_universe: str

def register(
    invite_code: str | None = None, data_dir: str | None = None, bootstrap_runtime: bool = False
) -> WalletRegistration:
    """Create this agent's wallet and sign it up, or sign in again with the wallet already stored.

    The private key is kept in the file wallet.key of the data directory (owner-only, mode 0600). A new key is 32
    random bytes from the operating system, stored as 64 hexadecimal digits before the service sees it; keep a
    backup of the file, because nothing else can restore the wallet. The directory becomes the option data_dir of
    this process. Afterwards the monitoring checklist is added to HEARTBEAT.md unless the option auto_heartbeat is
    off. The call blocks while it waits for the service: run it in a thread if you have an event loop.

    Args:
        invite_code: Invite code for a new wallet. None reads the environment variable CORVANE_INVITE_CODE, but only
            while the directory holds no wallet.key. A wallet that the service knows needs no code.
        data_dir: Directory of the wallet and the runtime files, created if missing. None takes the option
            data_dir, "~/.corvane/" by default.
        bootstrap_runtime: Whether to download the era and build the local search runtime as well.

    Returns:
        The wallet's address, as the service knows it.

    Raises:
        ValueError: There is no invite code for a new wallet, or it is malformed; or the key in wallet.key is.
        OSError: wallet.key is a link, not a regular file, or belongs to somebody else; or the file or its directory
            cannot be read or written.
        ConnectionError: The service cannot be reached. A new key stays on disk, but the service does not know it
            yet: call again with the code as an argument, register(os.environ["CORVANE_INVITE_CODE"]). This is a kind
            of OSError, so catch it first.
        corvane.auth.RegistrationError: The service refuses the invite code. Call again with another one as an
            argument; the key is kept.
        corvane.auth.AuthError: The service does not know the stored wallet, and no invite code was passed as an
            argument; or whatever answers is not a Corvane service. The two other classes are kinds of this one.
        corvane.auth.AuthBusyError: The service is signing nobody in at the moment, or has seen too many failures of
            this wallet. Try again later.
        RuntimeError: The active universe cannot be found, or the runtime cannot be built (only with
            bootstrap_runtime). The wallet is signed in.
    """

def login(private_key: str, bootstrap_runtime: bool = False) -> AuthToken:
    """Adopt a private key that the caller holds, and sign in with it.

    The key replaces the one in wallet.key of the data directory before the service has accepted it: back up the file
    of any other wallet first. A key that is not text, or is empty, leaves wallet.key empty: check it before you call.
    The result holds a secret, so never offer this function to a language model as a tool. The call blocks while it
    waits for the service.

    Args:
        private_key: The key as text: the 64 hexadecimal digits of its 32 bytes, with or without 0x in front. It is
            stored as given. Bytes are not accepted: pass key.hex().
        bootstrap_runtime: Whether to download the era and build the local search runtime as well.

    Returns:
        The service's token and its expiry in seconds since 1970-01-01 UTC.

    Raises:
        ValueError: The key is None, which changes nothing; or it is malformed or empty, and has been stored.
        AttributeError: The key is not text, such as bytes. wallet.key is empty now.
        OSError: wallet.key is a link, not a regular file, or belongs to somebody else; or it cannot be written.
        ConnectionError: The service cannot be reached. The key is stored: register() signs it in later. This is a
            kind of OSError, so catch it first.
        corvane.auth.AuthError: The service does not know the key, or is too busy to sign it in; __context__ has the
            service's own reason.
        RuntimeError: The runtime cannot be built (only with bootstrap_runtime). The wallet is signed in.
    """

def configure(**kwargs: Unpack[_Options]) -> None:
    """Set options of this process, one at a time in the order given.

    When an option is refused, those before it in the same call are already set. Nothing is sent and nothing is
    written to disk.

    Args:
        **kwargs: auto_heartbeat (bool, True by default): whether HEARTBEAT.md may be edited. data_dir (str,
            "~/.corvane/"): directory of the wallet and the runtime files. server_url (str): base address of the
            service; https, or http on this machine. named_universe (str, found from the active era by default):
            universe to search in, one path segment.

    Raises:
        ValueError: The option is unknown, its value has another type, or the value is not acceptable.
    """

def ensure_runtime_bootstrapped(strict: bool = True) -> object:
    """Bootstrap the shared SDK runtime from cached register/login auth.

    Builds the search runtime for the wallet that this process has signed in, or returns the one it has built already.
    It downloads what is missing, so it can take minutes. With strict=False, failures to build the runtime are logged
    and not raised, and where the service is away the runtime is built from the files on disk; but a universe that is
    not known yet must still be asked for, which raises. Set the option named_universe to avoid that.

    Args:
        strict: Whether a failure to build the runtime raises.

    Returns:
        The runtime. None, only with strict=False, if nobody is signed in or the runtime cannot be built.

    Raises:
        corvane.auth.AuthError: Nobody is signed in (only with strict).
        RuntimeError: The active universe cannot be found (also with strict=False), or the runtime cannot be built.
    """

def create_runtime_freshness_guard(data_dir: str) -> RuntimeFreshnessGuard:
    """Make a guard that reloads runtime modules of a data directory when their manifest entry changes.

    Call the guard's refresh() between two pieces of work. It loads a changed module as the manifest on disk says at
    that moment, after comparing its SHA-256.

    Args:
        data_dir: The directory that holds manifest.json and the runtime files. Nothing is read until the guard loads
            a module.

    Returns:
        A corvane.runtime_module_freshness.RuntimeFreshnessGuard. Its loader raises the errors of corvane.errors:
        RuntimeModuleDownloadIncomplete, RuntimeModuleHashMismatch, RuntimeModuleReloadFailed.
    """

def inject_heartbeat(working_dir: str | None = None) -> None:
    """Called by register() and search_templates during search startup.

    Searches cwd + up to 3 parents for HEARTBEAT.md and appends the
    Corvane checklist section if not already present.
    Respects auto_heartbeat=False opt-out.
    """

def update_nudge(
    trigger: Literal["discovery_rate_declining", "era_change", "first_signal", "10_signals", "strategy_unlock"],
    **context: object,
) -> None:
    """Called by search_templates when nudge trigger conditions are met.

    trigger: one of 'discovery_rate_declining', 'era_change', 'first_signal',
             '10_signals', 'strategy_unlock'
    """

def get_agents_md_fragment() -> str:
    """Returns ready-made AGENTS.md fragment for OpenClaw workspace setup."""

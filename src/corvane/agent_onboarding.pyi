"""Agent onboarding subcomponent -- register, login, configure, heartbeat."""

from dataclasses import dataclass, field
from logging import Logger

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

def register(
    invite_code: str | None = None, data_dir: str | None = None, bootstrap_runtime: bool = False
) -> WalletRegistration:
    """Create this agent's wallet and sign it up, or sign in again with the wallet already stored.

    The private key is kept in the file wallet.key of the data directory (owner-only, mode 0600). A new key is 32
    random bytes from the operating system, stored as 64 hexadecimal digits before the service sees it; keep a
    backup of the file, for nothing else can restore the wallet. The directory becomes the option data_dir of this
    process. Afterwards the monitoring checklist is added to HEARTBEAT.md unless the option auto_heartbeat is off.

    Args:
        invite_code: Invite code for a new wallet. None takes the environment variable CORVANE_INVITE_CODE. Not
            needed when the directory already holds a wallet.
        data_dir: Directory of the wallet and the runtime files, created if missing. None takes the option
            data_dir, "~/.corvane/" by default.
        bootstrap_runtime: Whether to build the local search runtime as well.

    Returns:
        The wallet's address, as the service knows it.

    Raises:
        ValueError: There is no invite code for a new wallet, or the service rejects the stored key's format.
        OSError: The key file is a link, not a regular file, or somebody else's; or it cannot be read or written.
        ConnectionError: The service cannot be reached. A new key stays on disk; call again.
        corvane.auth.RegistrationError: The service refuses the sign-up.
        corvane.auth.AuthError: The service does not know the stored wallet.
        corvane.auth.AuthBusyError: The service signs nobody in just now; a kind of AuthError.
        RuntimeError: The runtime cannot be built (only with bootstrap_runtime).
    """

def login(private_key: str, bootstrap_runtime: bool = False) -> AuthToken:
    """Adopt a private key that the caller holds, and sign in with it.

    The key replaces the one in wallet.key of the data directory before the service has accepted it: keep a backup
    of another wallet's file first. The result holds a secret, so this function is no tool for a language model.

    Args:
        private_key: The key as hexadecimal text of 32 bytes, with or without 0x in front; stored as given.
        bootstrap_runtime: Whether to build the local search runtime as well.

    Returns:
        The service's token and its expiry in seconds since 1970-01-01 UTC.

    Raises:
        ValueError: The key is None or the service rejects its format.
        OSError: The key file is a link, not a regular file, or somebody else's; or it cannot be written.
        ConnectionError: The service cannot be reached.
        corvane.auth.AuthError: The service refuses the key.
        RuntimeError: The runtime cannot be built (only with bootstrap_runtime).
    """

def configure(**kwargs: object) -> None:
    """Set options of this process, one at a time in the order given.

    When an option is refused, those before it in the same call are already set.

    Args:
        **kwargs: auto_heartbeat (bool, True by default): whether HEARTBEAT.md may be edited. data_dir (str,
            "~/.corvane/"): directory of the wallet and the runtime files. server_url (str): base address of the
            service; https, or http on this machine. named_universe (str): universe to search in, one path segment.

    Raises:
        ValueError: The option is unknown, its value has another type, or the value is not acceptable.
    """

def ensure_runtime_bootstrapped(strict: bool = True) -> object:
    """Bootstrap the shared SDK runtime from cached register/login auth."""

def create_runtime_freshness_guard(data_dir: str) -> RuntimeFreshnessGuard:
    """Make a guard that reloads runtime modules of a data directory when their manifest entry changes.

    The guard calls back with a module name and the digest that the module must have; the module is then loaded as the
    manifest on disk says at that moment, after its SHA-256 was compared.

    Args:
        data_dir: The directory that holds manifest.json and the runtime files.

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

def update_nudge(trigger: str, **context: object) -> None:
    """Called by search_templates when nudge trigger conditions are met.

    trigger: one of 'discovery_rate_declining', 'era_change', 'first_signal',
             '10_signals', 'strategy_unlock'
    """

def get_agents_md_fragment() -> str:
    """Returns ready-made AGENTS.md fragment for OpenClaw workspace setup."""

"""What the interpreter compiles of this module: its imports, and each function's declaration and docstring.

Nothing here runs as it stands. The imports are the first thing that an import of the module executes; each function
gets a native body from one of the C++ files. The order in which names are created is module.cpp's.
"""

import importlib
import importlib.util
import hashlib
import json
import logging
import os
import secrets
import shutil
import stat as _stat
import sys
import urllib.error
import urllib.request
from dataclasses import dataclass, field
from types import SimpleNamespace
from typing import List, Optional

from corvane import auth
from corvane.errors import RuntimeModuleDownloadIncomplete, RuntimeModuleHashMismatch, RuntimeModuleReloadFailed
from corvane.runtime_module_freshness import (
    RuntimeFreshnessGuard,
    is_runtime_module_kind,
    runtime_module_name_from_kind,
)
from corvane.skills import list_skills
from corvane.sync import CURRENT_PLATFORM

# -- Statements that the interpreter executes, for its own words above all where they fail ----------------------------


@statement
def offer_sources(sources):
    # For inspect.getsource and for the lines of tracebacks. Somebody may have put anything in the place of the cache.
    try:
        import linecache

        linecache.cache.update(sources)
    except Exception:
        pass


@statement
def unpack_two(value):
    first, second = value
    return first, second


@statement
def unpack_three(value):
    first, second, third = value
    return first, second, third


@statement
def unpack_four(value):
    first, second, third, fourth = value
    return first, second, third, fourth


@statement
def raise_exception(value):
    raise value


@statement
def raise_from(value, cause):
    raise value from cause


@statement
def enter(value):
    with value:
        pass


# -- Failures -------------------------------------------------------------------------------------------------------


def _exception_chain_detail(exc):
    """An exception and up to three of its explicit causes on one line of text."""


# -- Runtime loading ------------------------------------------------------------------------------------------------


def _sha256_file(path):
    """The SHA-256 of the file's bytes as 64 lower-case hexadecimal digits, read in blocks of 1 MiB."""


def _content_addressed_extension_path(module_name, path, digest):
    """The path of the copy that is imported, named by the digest; made beside the file if it is missing."""


def _prune_runtime_extension_copies(module_name, keep_path, *, max_copies=2):
    """Deletes all copies of the module but the one at keep_path and the newest others."""
    by_time = lambda item: item[0]


def _load_extension_from_path(module_name, path):
    """Imports a native module from its content-addressed copy; the same build is imported once."""


def _read_manifest(data_dir):
    """The record of manifest.json: era_id, version, files."""


def _manifest_files(manifest):
    """The file entries of a manifest record or mapping; empty if there are none."""


@step
def sorted_files(manifest):
    """The files of the manifest as pairs, by relative path."""


@step
def runtime_module(relative_path, file_info):
    """The entry as (module name, relative path, file entry) if it is a runtime module of this platform, or None."""


@steps(runtime_module, sorted_files)
def _runtime_module_manifest_entries(manifest):
    """Yields (module name, relative path, file entry) for each runtime module of this platform, by relative path."""
    for relative_path, file_info in sorted_files(manifest):
        if (entry := runtime_module(relative_path, file_info)) is not None:
            yield entry


def _select_runtime_module_manifest_entry(manifest, module_name):
    """The (relative path, file entry) of a runtime module, or (None, None)."""


def _load_manifest_runtime_module(data_dir, module_name, *, expected_sha256=None, manifest=None):
    """Loads one runtime module after its bytes were found to be those that the manifest promises."""


def _load_runtime_modules_from_manifest(data_dir, manifest):
    """Loads all runtime modules of the manifest, the era data first; a dict by import name."""
    era_data_first = lambda item: (0 if item[0] == "era_data" else 1, item[0], item[1])


@signature("create_runtime_freshness_guard(data_dir: str) -> corvane.runtime_module_freshness.RuntimeFreshnessGuard")
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

    def _load(module_name, expected_sha256):
        return _load_manifest_runtime_module(data_dir, module_name, expected_sha256=expected_sha256)


def _load_per_era_backtester(data_dir):
    """Loads all runtime modules of the data directory and returns the backtester."""


# -- Records --------------------------------------------------------------------------------------------------------


@dataclass
class WalletRegistration:
    """Returned by register() on successful wallet creation/re-auth."""

    address: str


@dataclass
class AuthToken:
    """Returned by login() on successful authentication."""

    token: str = field(repr=False)
    expires_at: float

    def __repr__(self):
        """The record without its token, which must not get into logs."""


# -- Workspace ------------------------------------------------------------------------------------------------------


@indented("_find_heartbeat(working_dir=None)")
def _find_heartbeat(working_dir=None):
    """Search for HEARTBEAT.md in cwd + up to 3 parent directories.

    Returns the path to HEARTBEAT.md if found, None otherwise.
    """


# -- Eras -----------------------------------------------------------------------------------------------------------


def _fetch_eras_payload(am):
    """The JSON object that the service returns for GET /eras."""


def _safe_named_universe(value):
    """The value as text without blanks around it, or None if it could not be one path segment."""


def _append_unique_named_universe(candidates, value):
    """Appends the cleaned name unless it is there or unusable."""


def _append_allowed_named_universes(candidates, values):
    """Appends each name of a list, or the single name."""


def _active_era_named_universe_candidates(era):
    """The distinct usable names that an era mentions anywhere, in order."""


def _first_allowed_named_universe_from_era_config(era_config):
    """The first usable name of an era configuration, or None."""


def _resolve_active_named_universe(am):
    """The configured named universe, or else the only one of the only active era; stored as the option."""


# -- Wallet store ---------------------------------------------------------------------------------------------------


def _canonical_data_dir(data_dir):
    """The data directory with the home directory expanded and every symbolic link resolved."""


def _wallet_key_path(data_dir):
    """The path of wallet.key in the canonical data directory."""


def _unsafe_wallet_error(wallet_path):
    """The IOError, not raised, that refuses a key file."""


def _check_wallet_fd(wallet_path, fd):
    """Refuses an open key file of another type or owner; tightens its permission bits to 0600."""


def _read_wallet_key(data_dir):
    """The stored key, or None when there is no key file."""


def _write_wallet_key(data_dir, key_content):
    """Stores the key with permission bits 0600."""


# -- Local runtime --------------------------------------------------------------------------------------------------


class _LocalRuntimeSyncManager:
    def __init__(self, manifest, runtime_freshness_guard=None):
        """Keeps the manifest record and the guard; there is nothing to synchronise."""

    def get_manifest(self):
        """The manifest record."""

    def acquire(self):
        """Does nothing: no synchronisation runs beside."""

    def release(self):
        """Does nothing."""

    def request_for_sync(self):
        """A new empty list: nothing has changed."""

    def register_era_callback(self, callback):
        """Does nothing: the era of a local runtime never changes."""

    def unregister_era_callback(self, callback):
        """Does nothing."""


def _read_json_if_present(path):
    """The JSON value of a file, or None without a path or a file."""


def _local_vocabulary_path(data_dir, named_universe):
    """The vocabulary file of the universe, else that of the data directory, else None."""


def _bootstrap_local_runtime_from_config(am):
    """A search runtime built from the files on disk, installed as the kit's; None if the configuration lacks a part."""
    from corvane import _runtime
    from corvane.search_tracking import SearchTracker


def _propagate_auth(am, strict=False):
    """Set _auth and runtime singletons on search_templates and simulate_signal."""
    from corvane import sync_backoff
    from corvane import _runtime
    import corvane.search_templates as search_templates
    import corvane


# -- Registration, login, options -----------------------------------------------------------------------------------


def _normalize_key(raw_key):
    """The key with 0x in front."""


def _resolve_invite_code(invite_code):
    """The canonical invite code, from the argument or CORVANE_INVITE_CODE; ValueError without one."""


def _resolve_optional_invite_code(invite_code):
    """The canonical invite code, or None."""


@signature(
    "register(invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False)"
    " -> corvane.agent_onboarding.WalletRegistration"
)
def register(
    invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False
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


@signature("login(private_key: str, bootstrap_runtime: bool = False) -> corvane.agent_onboarding.AuthToken")
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


def configure(**kwargs: object) -> None:
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


@signature("ensure_runtime_bootstrapped(strict: bool = True) -> object")
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
    from corvane import _runtime
    import corvane.search_templates as search_templates


@indented("inject_heartbeat(working_dir: str = None) -> None")
def inject_heartbeat(working_dir: Optional[str] = None) -> None:
    """Called by register() and search_templates during search startup.

    Searches cwd + up to 3 parents for HEARTBEAT.md and appends the
    Corvane checklist section if not already present.
    Respects auto_heartbeat=False opt-out.
    """


@indented("update_nudge(trigger: str, **context) -> None")
def update_nudge(trigger: str, **context: object) -> None:
    """Called by search_templates when nudge trigger conditions are met.

    trigger: one of 'discovery_rate_declining', 'era_change', 'first_signal',
             '10_signals', 'strategy_unlock'
    """


def get_agents_md_fragment() -> str:
    """Returns ready-made AGENTS.md fragment for OpenClaw workspace setup."""

"""The module once more, as plain Python: what the native functions must be indistinguishable from."""

import hashlib  # noqa: F401
import logging
import os
import secrets
import stat as _stat
from dataclasses import dataclass, field
from typing import Optional

from corvane import auth

logger = logging.getLogger("corvane.agent_onboarding")
_DEFAULT = "~/.corvane/"
_UNREACHABLE = "Cannot reach Corvane server. Check your network connection and try again."
_INVALID = "Invalid private key format. Expected hex string (64 characters) or 32 bytes."


def _exception_chain_detail(exc):
    details, seen, current = [], {}, exc
    while current is not None and len(details) < 4 and id(current) not in seen:
        seen[id(current)] = current
        text = str(current).strip()
        item = f"{type(current).__name__}: {text}" if text else type(current).__name__
        diagnostic = getattr(current, "diagnostic_detail", None)
        if diagnostic:
            item = f"{item}; diagnostic: {diagnostic}"
        if item not in details:
            details.append(item)
        current = getattr(current, "__cause__", None)
    return "; caused by ".join(details)


@dataclass
class WalletRegistration:
    address: str


@dataclass
class AuthToken:
    token: str = field(repr=False)
    expires_at: float

    def __repr__(self):
        return f"AuthToken(token='<redacted>', expires_at={self.expires_at!r})"


_HEARTBEAT_STATIC_SECTION = _AGENTS_MD_FRAGMENT = ""  # the tests hand over the module's own texts
_NUDGE_TEXTS: dict = {}
_config: dict = {}
_auth_manager = None
_VALID_OPTIONS = {"auto_heartbeat": bool, "data_dir": str, "server_url": str, "named_universe": str}


def _find_heartbeat(working_dir=None):
    current = working_dir
    if current is None:
        current = os.getcwd()
    for _ in range(4):
        path = os.path.join(current, "HEARTBEAT.md")
        if os.path.exists(path):
            return path
        parent = os.path.dirname(current)
        if parent == current:
            return None
        current = parent
    return None


def _canonical_data_dir(data_dir):
    if not data_dir:
        data_dir = _DEFAULT
    return os.path.realpath(os.path.expanduser(data_dir))


def _wallet_key_path(data_dir):
    return os.path.join(_canonical_data_dir(data_dir), "wallet.key")


def _unsafe_wallet_error(wallet_path):
    return IOError(
        f"Unsafe wallet key at {wallet_path!s}. Refusing to use wallet.key with unsafe ownership, type, or permissions."
    )


def _check_wallet_fd(wallet_path, fd):
    st = os.fstat(fd)
    if not _stat.S_ISREG(st.st_mode):
        raise _unsafe_wallet_error(wallet_path)
    if hasattr(os, "getuid") and st.st_uid != os.getuid():
        raise _unsafe_wallet_error(wallet_path)
    if st.st_mode & 0o077:
        os.fchmod(fd, 0o600)


def _read_wallet_key(data_dir):
    wallet_path = _wallet_key_path(data_dir)
    if not os.path.exists(wallet_path):
        return None
    try:
        st = os.lstat(wallet_path)
    except OSError:
        raise IOError(f"Cannot read wallet from {wallet_path!s}. Check file permissions.")
    if _stat.S_ISLNK(st.st_mode) or not _stat.S_ISREG(st.st_mode):
        raise _unsafe_wallet_error(wallet_path)
    if hasattr(os, "getuid") and st.st_uid != os.getuid():
        raise _unsafe_wallet_error(wallet_path)
    flags = os.O_RDONLY
    if hasattr(os, "O_NOFOLLOW"):
        flags = flags | os.O_NOFOLLOW
    try:
        fd = os.open(wallet_path, flags)
    except OSError:
        raise _unsafe_wallet_error(wallet_path)
    try:
        _check_wallet_fd(wallet_path, fd)
        with os.fdopen(fd, "r") as f:
            fd = None
            return f.read().strip()
    finally:
        if fd is not None:
            os.close(fd)


def _write_wallet_key(data_dir, key_content):
    data_dir = _canonical_data_dir(data_dir)
    os.makedirs(data_dir, exist_ok=True)
    wallet_path = _wallet_key_path(data_dir)
    if os.path.exists(wallet_path):
        try:
            st = os.lstat(wallet_path)
        except OSError:
            raise IOError(f"Cannot write wallet to {wallet_path!s}. Check directory permissions.")
        if _stat.S_ISLNK(st.st_mode) or not _stat.S_ISREG(st.st_mode):
            raise _unsafe_wallet_error(wallet_path)
        if hasattr(os, "getuid") and st.st_uid != os.getuid():
            raise _unsafe_wallet_error(wallet_path)
    try:
        flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
        if hasattr(os, "O_NOFOLLOW"):
            flags = flags | os.O_NOFOLLOW
        fd = os.open(wallet_path, flags, 0o600)
        try:
            _check_wallet_fd(wallet_path, fd)
            os.fchmod(fd, 0o600)
            os.write(fd, key_content.encode("utf-8"))
        finally:
            os.close(fd)
        os.chmod(wallet_path, 0o600)
    except (IOError, OSError):
        raise IOError(f"Cannot write wallet to {wallet_path!s}. Check directory permissions.")


def _normalize_key(raw_key):
    if raw_key.startswith("0x") or raw_key.startswith("0X"):
        return raw_key
    return "0x" + raw_key


def _resolve_invite_code(invite_code):
    if invite_code is None:
        invite_code = os.environ.get("CORVANE_INVITE_CODE")
    canonical = auth._normalize_invite_code(invite_code)
    if canonical is None:
        raise ValueError(
            "Invite code required. Pass --invite-code, set CORVANE_INVITE_CODE, or call register(invite_code=...)."
        )
    return canonical


def _resolve_optional_invite_code(invite_code):
    return auth._normalize_invite_code(invite_code)


def register(
    invite_code: Optional[str] = None, data_dir: Optional[str] = None, bootstrap_runtime: bool = False
) -> WalletRegistration:
    global _auth_manager
    selected_data_dir = data_dir if data_dir is not None else _config["data_dir"]
    canonical_data_dir = _canonical_data_dir(selected_data_dir)
    _config["data_dir"] = canonical_data_dir
    os.makedirs(canonical_data_dir, exist_ok=True)
    private_key = _read_wallet_key(canonical_data_dir)
    if private_key is None:
        invite_code = _resolve_invite_code(invite_code)
        private_key = secrets.token_hex(32)
        _write_wallet_key(canonical_data_dir, private_key)
    else:
        invite_code = _resolve_optional_invite_code(invite_code)
    key_for_auth = _normalize_key(private_key)
    try:
        am = auth.AuthManager(key_for_auth, _config["server_url"], invite_code=invite_code)
        am.authenticate()
    except ConnectionError:
        raise ConnectionError(_UNREACHABLE)
    except auth.RegistrationError as e:
        raise auth.RegistrationError("Registration failed: " + str(e) + ". Contact support if this persists.")
    except auth.InvalidKeyError:
        raise ValueError(_INVALID)
    _auth_manager = am
    if bootstrap_runtime:
        _resolve_active_named_universe(am)
        _propagate_auth(am, strict=True)
    try:
        auth._set_active_auth_manager(am)
    except Exception as e:
        logger.warning("Failed to set active auth manager: %s", e)
    address = am.get_wallet_address()
    if _config.get("auto_heartbeat", True):
        inject_heartbeat()
    return WalletRegistration(address=address)


def login(private_key: str, bootstrap_runtime: bool = False) -> AuthToken:
    global _auth_manager
    if private_key is None:
        raise ValueError(_INVALID)
    data_dir = _canonical_data_dir(_config["data_dir"])
    _config["data_dir"] = data_dir
    os.makedirs(data_dir, exist_ok=True)
    _write_wallet_key(data_dir, private_key)
    key_for_auth = _normalize_key(private_key)
    try:
        am = auth.AuthManager(key_for_auth, _config["server_url"])
        am.authenticate()
    except auth.InvalidKeyError:
        raise ValueError(_INVALID)
    except ConnectionError:
        raise ConnectionError(_UNREACHABLE)
    except auth.AuthError:
        raise auth.AuthError("Authentication failed. Verify your private key is correct.")
    _auth_manager = am
    if bootstrap_runtime:
        _propagate_auth(am, strict=True)
    try:
        auth._set_active_auth_manager(am)
    except Exception as e:
        logger.warning("Failed to set active auth manager: %s", e)
    return AuthToken(token=am.get_token(), expires_at=am.get_token_expiry())


def configure(**kwargs: object) -> None:
    for key, value in kwargs.items():
        if key not in _VALID_OPTIONS:
            valid = ", ".join(sorted(_VALID_OPTIONS))
            raise ValueError(f"Unknown configuration option: '{key}'. Valid options: {valid}")
        expected_type = _VALID_OPTIONS[key]
        if not isinstance(value, expected_type):
            raise ValueError(f"Option '{key}' expects {expected_type.__name__}, got {type(value).__name__}.")
        if key == "data_dir" and value == "":
            raise ValueError("data_dir cannot be empty.")
        if key == "server_url":
            value = auth._validate_server_url(value)
        if key == "named_universe":
            value = value.strip()
            if not value:
                raise ValueError("named_universe cannot be empty.")
            if value in (".", "..") or "/" in value or "\\" in value or "\0" in value:
                raise ValueError("named_universe must be a single safe path segment.")
        _config[key] = value


def inject_heartbeat(working_dir: Optional[str] = None) -> None:
    if not _config.get("auto_heartbeat", True):
        return
    hb_path = _find_heartbeat(working_dir)
    if hb_path is None:
        return
    try:
        with open(hb_path, "r", encoding="utf-8") as f:
            content = f.read()
    except Exception as e:
        logger.warning("Failed to read HEARTBEAT.md at %s: %s", hb_path, e)
        return
    if "## [Corvane]" in content:
        return
    if content and not content.endswith("\n"):
        content = content + "\n"
    content = content + "\n" + _HEARTBEAT_STATIC_SECTION
    try:
        with open(hb_path, "w", encoding="utf-8") as f:
            f.write(content)
    except Exception as e:
        logger.warning("Failed to write HEARTBEAT.md at %s: %s", hb_path, e)


def update_nudge(trigger: str, **context: object) -> None:
    if not _config.get("auto_heartbeat", True):
        return
    if trigger not in _NUDGE_TEXTS:
        return
    nudge_text = _NUDGE_TEXTS[trigger]
    try:
        hb_path = _find_heartbeat()
        if hb_path is None:
            return
        with open(hb_path, "r", encoding="utf-8") as f:
            content = f.read()
        if nudge_text in content:
            return
        if not content.endswith("\n"):
            content = content + "\n"
        content = content + nudge_text + "\n"
        with open(hb_path, "w", encoding="utf-8") as f:
            f.write(content)
    except Exception as e:
        logger.warning("update_nudge failed: %s", e)


def get_agents_md_fragment() -> str:
    return _AGENTS_MD_FRAGMENT

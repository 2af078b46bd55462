"""Proves to the service that this agent holds a wallet key.

The key is a secp256k1 scalar. The service hands out a challenge, the agent signs it, and the service returns a
token that is good for a while. Neither key nor token shows in a representation, a message or a log line.
"""

import re
import time
from typing import TYPE_CHECKING, Any

# What takes long to import is imported where it is used: whoever imports the kit does not always sign in.
if TYPE_CHECKING:
    from cryptography.hazmat.primitives.asymmetric import ec

    from corvane._http import Service

_INVITE_CODE = re.compile(r"CORV(-[2-9A-HJ-NP-Z]{4}){3}")
_TOKEN = re.compile(r"[!-~]{1,4096}")  # what can stand in a header
_RENEW_EARLIER = 3.0  # seconds; a token must not run out on its way to the service
_LONGEST_REASON = 500  # characters of what the service says


class AuthError(Exception):
    """The service refuses the wallet, or its answer cannot be understood."""


class RegistrationError(AuthError):
    """The service refuses to sign the wallet up."""


class AuthBusyError(AuthError):
    """The service is signing nobody in at the moment, or not this wallet after too many failures. Try again later."""


class NotTheServiceError(AuthError):
    """What answers at the service's address is not a Corvane service."""


class PortalError(NotTheServiceError):
    """The answer is a redirect or a web page, as in a network that wants its own sign-in first."""


class RequestRefusedError(AuthError):
    """The service has signed the wallet in, and refuses what it asks for then."""


class InvalidKeyError(AuthError):
    """The key is not the hexadecimal text of a secp256k1 private key."""


def public_key_text(key: "ec.EllipticCurvePublicKey") -> str:
    """The compressed point (SEC 1, 2.3.3) in hexadecimal digits, as it travels to the service."""
    # Not by public_bytes(): to import its constants takes a tenth of the time in which a command starts.
    point = key.public_numbers()
    return f"{2 + point.y % 2:02x}{point.x:064x}"


def wallet_address(public_key: str) -> str:
    """The address of a wallet: the first 20 bytes of the SHA-256 of its compressed public key."""
    import hashlib

    return "0x" + hashlib.sha256(bytes.fromhex(public_key)).hexdigest()[:40]


def signed_message(challenge: str) -> bytes:
    """What is signed for a challenge; the prefix keeps the signature from being of use elsewhere."""
    return b"corvane-local-login:" + challenge.encode("ascii")


class AuthManager:
    """Signs one wallet up or in, and keeps its token fresh.

    Args:
        private_key: 64 hexadecimal digits behind 0x or 0X.
        server_url: Base address of the service.
        invite_code: For a wallet that the service does not know yet. A wallet that it knows does not use it up.

    Raises:
        InvalidKeyError: The key is malformed.
    """

    def __init__(self, private_key: str, server_url: str, invite_code: str | None = None) -> None:
        is_hexadecimal = isinstance(private_key, str) and bool(re.fullmatch(r"0[xX][0-9a-fA-F]{64}", private_key))
        key = _private_key(private_key) if is_hexadecimal else None
        self._invite_code = _normalize_invite_code(invite_code) or invite_code
        del private_key, invite_code  # a traceback that is shown with its locals must not show them
        if not is_hexadecimal:
            raise InvalidKeyError("The private key is not 64 hexadecimal digits after 0x.")
        if key is None:
            raise InvalidKeyError("The private key is not valid for the curve.")
        self._key = key
        self._public_key = public_key_text(key.public_key())
        self._server_url = server_url.rstrip("/")
        self._token = ""
        self._token_expiry = 0.0

    def __repr__(self) -> str:
        if not hasattr(self, "_public_key"):  # in a traceback of what refused the key
            return "AuthManager()"
        return f"AuthManager(address={self.get_wallet_address()!r}, server_url={self._server_url!r})"

    def __reduce__(self) -> str:
        raise TypeError("an AuthManager holds a private key and cannot be pickled")

    def authenticate(self) -> None:
        """Signs in; signs up first if there is an invite code and the wallet is new.

        Raises:
            ConnectionError: The service cannot be reached, has not answered in time, or its certificate is not
                trusted.
            RegistrationError: The service refuses the invite code of a new wallet.
            AuthBusyError: The service is away or busy, or the wallet has failed too often.
            NotTheServiceError: There is something else at its address; PortalError if it may be a captive portal.
            AuthError: The service refuses the wallet (also a new one without an invite code), or its answer makes no
                sense.
        """
        from corvane._http import Service

        path = "/auth/login" if self._invite_code is None else "/auth/register"
        with Service(self._server_url) as service:
            challenge = self._post(service, "/auth/challenge").get("challenge")
            if not isinstance(challenge, str) or not challenge.isascii():
                raise AuthError("The service's answer contains no challenge.")
            answer = self._post(service, path, challenge)
        token, expiry = answer.get("token"), answer.get("expires_at", 0.0)
        # The range keeps out what is not a time: true, NaN, infinity, and what does not fit into a float.
        is_time = isinstance(expiry, int | float) and 1 < expiry < 1e12
        if is_time and isinstance(token, str) and _TOKEN.fullmatch(token):
            self._token, self._token_expiry = token, float(expiry)
            return
        del answer, token
        raise AuthError(
            "The service's answer contains no token."
            if is_time
            else "The service's answer does not say how long its token is valid."
        )

    def get_wallet_address(self) -> str:
        """The address that the service knows the wallet by."""
        return wallet_address(self._public_key)

    def get_token(self) -> str:
        """The bearer token, renewed if it has run out. Raises what `authenticate` raises."""
        if time.time() >= self._token_expiry - _RENEW_EARLIER:
            self.authenticate()
        return self._token

    def get_token_expiry(self) -> float:
        """When the token runs out, in seconds since 1970-01-01 UTC."""
        return self._token_expiry

    def _body(self, challenge: str | None) -> dict[str, str]:
        body = {"public_key": self._public_key}
        if challenge is not None:
            from cryptography.hazmat.primitives import hashes
            from cryptography.hazmat.primitives.asymmetric import ec

            signature = self._key.sign(signed_message(challenge), ec.ECDSA(hashes.SHA256()))
            body |= {"challenge": challenge, "signature": signature.hex()}
            if self._invite_code is not None:
                body["invite_code"] = self._invite_code
        return body

    def _post(self, service: "Service", path: str, challenge: str | None = None) -> dict[str, Any]:
        with service.send("POST", path, body=self._body(challenge)) as answer:
            fields = answer.fields()
        if answer.status == 200:
            return fields
        reason = answer.reason(fields)[:_LONGEST_REASON]
        if answer.is_busy:
            raise AuthBusyError(reason or f"The service is away or busy (HTTP {answer.status}).")
        kind = RegistrationError if fields.get("code") in ("bad_invite", "unknown_invite", "used_invite") else AuthError
        raise kind(reason)


_active: AuthManager | None = None


def _set_active_auth_manager(am: AuthManager) -> None:
    """Makes the manager the one that the whole kit uses."""
    global _active
    _active = am


def get_active_auth_manager() -> AuthManager | None:
    """The manager that the whole kit uses, or None before the first sign-in."""
    return _active


def _private_key(text: str) -> "ec.EllipticCurvePrivateKey | None":
    from cryptography.hazmat.primitives.asymmetric import ec

    try:
        return ec.derive_private_key(int(text, 16), ec.SECP256K1())
    except ValueError:
        return None


def _normalize_invite_code(code: object) -> str | None:
    """The code without blanks around it and in upper case, or None if it cannot be one."""
    canonical = code.strip().upper() if isinstance(code, str) else ""
    return canonical if _INVITE_CODE.fullmatch(canonical) else None


def _validate_server_url(url: str) -> str:
    """The address without trailing slashes.

    Raises:
        ValueError: It is not an https address, or an http address of this machine, of the plain form scheme://host/path.
    """
    from urllib.parse import urlsplit

    try:
        parts = urlsplit(url)
        host, port_is_valid = parts.hostname or "", parts.port != 0
    except ValueError:
        host, port_is_valid = "", False
    # Seen in the text itself: urlsplit forgives blanks, and does not tell an empty query from none.
    if not host or not port_is_valid or re.search(r"[\s\x00-\x1f\x7f\\@?#]", url):
        raise ValueError(f"server_url must look like https://host or https://host/path, got {url!r}.")
    if parts.scheme != "https" and not (parts.scheme == "http" and _is_loopback(host)):
        raise ValueError(f"server_url must use https (http only for this machine), got {url!r}.")
    return url.rstrip("/")


def _is_loopback(host: str) -> bool:
    import ipaddress

    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return host == "localhost"

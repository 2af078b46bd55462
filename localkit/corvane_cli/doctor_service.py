"""The service, its certificate, and the clock."""

import errno
import os
import re
import time
from collections.abc import Iterator

from corvane.auth import (
    AuthBusyError,
    AuthError,
    InvalidKeyError,
    NotTheServiceError,
    PortalError,
    _is_loopback,
    _validate_server_url,
)
from corvane_cli.doctor_findings import ERROR, TIMEOUT, WARNING, Finding, Looked, command_line, set_step
from corvane_cli.identity import Agent

_CLOCK_WARNING, _CLOCK_ERROR = 30.0, 1800.0  # seconds
_LONGEST_HEAD = 64 * 1024  # bytes
_NOT_VALID_NOW, _OTHER_NAME = (9, 10), (62, 64)  # what OpenSSL finds wrong with a certificate


def check_trust(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether SSL_CERT_FILE names what it should."""
    import ssl

    name = os.environ.get("SSL_CERT_FILE")
    if name is None:
        yield Looked("trust", "certificate authorities: the system's")
        return
    problem = ""
    try:
        if os.path.isdir(name):
            problem = "is a directory"
        else:
            ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT).load_verify_locations(name)
    except ssl.SSLError:
        problem = "holds no certificate"
    except OSError as exc:
        problem = "does not exist" if exc.errno == errno.ENOENT else f"cannot be read: {exc.strerror}"
    if problem:
        reason = "no certificate is trusted then, and no service can be reached"
        yield Finding("trust", ERROR, f"SSL_CERT_FILE ({name}) {problem}.", reason, _trust(agent))
    yield Looked("trust", f"certificate authorities: {name}")


def _trust(agent: Agent) -> str:
    from urllib.parse import urlsplit

    unset, right = "unset SSL_CERT_FILE", "export SSL_CERT_FILE=CA"
    if _is_loopback(urlsplit(agent.server_url).hostname or ""):
        return f"`{right}` with the path that the local service prints as it starts."
    if os.environ.get("SSL_CERT_FILE") is None:
        return f"`{right}` if the service has an authority of its own; if not, somebody is intercepting the connection."
    return f"`{unset}`; or `{right}` if the service has an authority of its own."


def check_service(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the service answers at its address itself, and agrees with our clock."""
    from corvane._http import Service

    url, began = agent.server_url, time.time()
    if not url:
        return  # the extension cannot be loaded, which another check says
    other = f"`{set_step('CORVANE_SERVER_URL', '--server-url', 'URL')}`"
    meanwhile = "nobody can sign in until then"
    try:
        _validate_server_url(url)
    except ValueError as exc:
        yield Finding("service", ERROR, str(exc), meanwhile, f"Correct the address: {other}.")
        return
    try:
        with Service(url) as service, service.send("GET", "/health") as answer:
            fields, busy, date = answer.fields(), answer.is_busy, answer.headers.get("Date", "")
    except NotTheServiceError as exc:
        next_step = f"Correct the address: {other}."
        if isinstance(exc, PortalError):
            next_step = f"If this network asks for a sign-in, open a browser; if not, correct the address: {other}."
        yield Finding("service", ERROR, str(exc), "the kit sends its tokens nowhere else", next_step)
        return
    except ConnectionError as exc:
        yield _unreachable(agent, exc, other)
        return
    if busy:
        problem, next_step = f"{url} is away or busy.", f"Try again later: `{command_line('corvane doctor', agent)}`."
        yield Finding("service", WARNING, problem, meanwhile, next_step)
    elif fields.get("status") != "ok":
        problem, reason = f"{url} is not a Corvane service.", "it does not respond to /health as one does"
        yield Finding("service", ERROR, problem, reason, f"Correct the address: {other}.")
    yield from _clock(_seconds(date), (began + time.time()) / 2)
    yield Looked("service", f"{url}, which answers in {(time.time() - began) * 1000:.0f} ms, and its clock")


def _clock(theirs: float | None, ours: float) -> Iterator[Finding]:
    if theirs is not None and abs(off := ours - theirs) > _CLOCK_WARNING:
        severity = ERROR if abs(off) > _CLOCK_ERROR else WARNING
        amount = f"{abs(off):.0f} s" if abs(off) < 2 * 86400 else f"{abs(off) / 86400:,.0f} days"
        problem = f"This clock is {amount} {'ahead of' if off > 0 else 'behind'} the service's."
        reason = "tokens and certificates seem to expire too early or too late"
        next_step = "Set the clock by NTP: `timedatectl set-ntp true`; in a container, set the host's clock."
        yield Finding("clock", severity, problem, reason, next_step)


def _seconds(date: str) -> float | None:
    from email.utils import parsedate_to_datetime

    try:
        return parsedate_to_datetime(date).timestamp()
    except (ValueError, OverflowError):
        return None


def _unreachable(agent: Agent, exc: BaseException, other: str) -> Finding:
    """Why there is no connection: the clock first, because it makes good certificates look bad."""
    import ssl

    cause: BaseException | None = exc
    while cause is not None and not isinstance(cause, ssl.SSLCertVerificationError):
        cause = cause.__cause__ or cause.__context__
    problem, meanwhile = str(exc), "nobody can sign in until then"
    if cause is None:
        next_step = f"Check the network, and try again; if the address is wrong: {other}."
    elif cause.verify_code in _NOT_VALID_NOW:
        for finding in _clock(_unverified_time(agent.server_url), time.time()):
            if finding.severity == ERROR:
                return finding
        next_step = "Tell the operator: the certificate is out of date. `corvane-local serve` renews its own at start."
    elif cause.verify_code in _OTHER_NAME:
        next_step = f"The certificate is for another host. Correct the address: {other}."
    else:
        next_step = _trust(agent)
    return Finding("service", ERROR, problem, meanwhile, next_step)


def _unverified_time(url: str) -> float | None:
    """What the server at this address takes the time to be. Nobody is trusted with this, and nothing is told."""
    import socket
    import ssl
    from urllib.parse import urlsplit

    parts, head, until = urlsplit(url), b"", time.monotonic() + TIMEOUT
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    try:
        with (
            socket.create_connection((parts.hostname or "", parts.port or 443), TIMEOUT) as plain,
            context.wrap_socket(plain, server_hostname=parts.hostname) as tls,
        ):
            tls.sendall(f"GET {parts.path}/health HTTP/1.1\r\nHost: {parts.netloc}\r\n\r\n".encode())
            while b"\r\n\r\n" not in head and len(head) < _LONGEST_HEAD and time.monotonic() < until:
                if not (more := tls.recv(4096)):
                    break
                head += more
    except OSError:
        return None
    date = re.search(rb"^date: *(.+?)\r$", head, re.M | re.I)
    return _seconds(date[1].decode("latin-1")) if date else None


def check_sign_in(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the service knows the key. It is asked only where the key has signed in before."""
    if not agent.is_logged_in():
        return
    try:
        manager = agent.manager()
        manager.authenticate()
    except InvalidKeyError:
        return  # which another check says
    except (AuthBusyError, ConnectionError) as exc:
        next_step = f"Try again later: `{command_line('corvane doctor', agent)}`."
        yield Finding("sign-in", WARNING, f"Nobody can sign in now: {exc}", "the service is away or busy", next_step)
    except NotTheServiceError as exc:
        next_step = f"Correct the address: `{set_step('CORVANE_SERVER_URL', '--server-url', 'URL')}`."
        yield Finding("sign-in", ERROR, str(exc), "nobody can sign in there", next_step)
    except AuthError as exc:
        problem = f"{agent.server_url} refuses {manager.get_wallet_address()}: {exc}"
        again = command_line("corvane register --invite-code CODE", agent)
        next_step = f"`{again}` signs this wallet up again, with a new invite code; its key stays the same."
        yield Finding("sign-in", ERROR, problem, "the service does not know the wallet, or no longer does", next_step)
    else:
        yield Looked("sign-in", f"a sign-in: {agent.server_url} accepts {manager.get_wallet_address()}")

"""What the operator of the service sees of it: a page at / and the same as JSON, for whoever has the operator's token.

The token comes in the header Authorization, or once in a form, which gives a browser a session in a cookie that
neither scripts nor other sites can use. It never stands in an address, which ends up in histories and logs.
"""

import hashlib
import hmac
import ipaddress
import json
import math
import os
import secrets
import stat
import threading
import time
from collections import Counter, deque
from dataclasses import asdict, dataclass
from datetime import UTC, datetime
from pathlib import Path
from typing import Annotated, Any, TypedDict
from urllib.parse import parse_qs

from fastapi import APIRouter, Depends, Request, Response
from fastapi.responses import HTMLResponse, RedirectResponse
from fastapi.security import HTTPAuthorizationCredentials, HTTPBearer
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from corvane_local.certificates import write_private
from corvane_local.connections import Connection
from corvane_local.failures import FailureLimit
from corvane_local.store import Refused, Store
from corvane_pages import Cell, Page, Table, growth, render

TOKEN_FILE = "operator.token"
_COOKIE = "__Host-corvane-operator"  # a browser takes a cookie of this name over TLS only, and for this host alone
_SESSION_SECONDS = 8 * 3600.0
_MOST_SESSIONS = 100
_LATELY = 3600.0  # seconds
_MOST_REFUSALS = 10_000  # that are remembered with their time
_MOST_ROWS = 1000  # of a table of the page
_BEARER = HTTPBearer(auto_error=False, scheme_name="Operator", description="The token in the file operator.token.")

Bearer = Annotated[HTTPAuthorizationCredentials | None, Depends(_BEARER)]


def ensure_token(state: Path) -> tuple[str, bool]:
    """The operator's token of a service, made if there is none, and whether it is new.

    Raises:
        ValueError: The file is a link, belongs or is open to somebody else, or holds no token.
        OSError: It cannot be read or written.
    """
    path = state / TOKEN_FILE
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError:
        token = secrets.token_urlsafe(32)
        write_private(path, f"{token}\n".encode())
        return token, True
    except OSError:
        if path.is_symlink():
            raise ValueError(f"{path} is a link. Remove it, and `serve` makes a new token.") from None
        raise
    with open(descriptor, "rb", buffering=0) as file:
        status = os.fstat(descriptor)
        is_ours = stat.S_ISREG(status.st_mode) and status.st_uid == os.getuid() and not status.st_mode & 0o077
        token = (file.read(1000) or b"").decode("ascii", "replace").strip() if is_ours else ""
    if not is_ours:
        raise ValueError(f"{path} is not a private file of this user. Remove it, and `serve` makes a new token.")
    if len(token) < 32 or not token.replace("-", "").replace("_", "").isalnum():
        raise ValueError(f"{path} holds no token. Remove it, and `serve` makes a new one.")
    return token, False


class Operator:
    """Who may see the page: whoever has the token, or a session that the token has opened.

    Args:
        token: The token.
        failure_seconds: How long it takes until all failures are forgotten.
    """

    def __init__(self, token: str, failure_seconds: float) -> None:
        self._digest = _digest(token)
        # A token of 256 bits is not guessed; what is limited is the noise. So the right token is never refused: other
        # users of this machine, who come from the same address, cannot lock the operator out.
        self._failures = FailureLimit(10, failure_seconds)
        self._sessions: dict[bytes, float] = {}  # until when each one lasts
        self._lock = threading.Lock()

    def open_session(self, client: str, token: str) -> str:
        """A new session for whoever has the token. Raises Refused."""
        self.check(client, token)
        session, now = secrets.token_urlsafe(32), time.monotonic()
        with self._lock:
            kept = [(digest, until) for digest, until in self._sessions.items() if until > now]
            self._sessions = dict(kept[-_MOST_SESSIONS + 1 :])
            self._sessions[_digest(session)] = now + _SESSION_SECONDS
        return session

    def has_session(self, session: str) -> bool:
        """Whether the session is open. It is looked up by its digest, so the time that takes tells nothing of use."""
        with self._lock:
            return self._sessions.get(_digest(session), 0.0) > time.monotonic()

    def close_session(self, session: str) -> None:
        """Ends a session."""
        with self._lock:
            self._sessions.pop(_digest(session), None)

    def check(self, client: str, token: str) -> None:
        """Raises Refused unless the token is the right one; compared in constant time."""
        if hmac.compare_digest(_digest(token), self._digest):
            return
        wait = self._failures.wait(client)
        if wait > 0:
            raise Refused(429, "too_many_failures", f"Too many failures; try again in {math.ceil(wait)} s", wait)
        self._failures.note(client)
        raise Refused(401, "bad_token", "The operator's token is missing or wrong")


def _digest(text: str) -> bytes:
    return hashlib.sha256(text.encode("utf-8", "surrogatepass")).digest()


# -- What was refused -------------------------------------------------------------------------------------------------


class Refusals:
    """How often the application has refused something, by status and code. Nothing else of a request is kept."""

    def __init__(self) -> None:
        self.totals = Counter[tuple[int, str]]()
        self._recent: deque[tuple[float, tuple[int, str]]] = deque(maxlen=_MOST_REFUSALS)

    def note(self, status: int, code: str) -> None:
        """Counts one."""
        self.totals[status, code] += 1
        self._recent.append((time.time(), (status, code)))

    def lately(self) -> Counter[tuple[int, str]]:
        """How often each occurred in the last hour."""
        since = time.time() - _LATELY
        return Counter(kind for at, kind in list(self._recent) if at > since)

    def last(self) -> dict[tuple[int, str], float]:
        """When each occurred last."""
        return {kind: at for at, kind in list(self._recent)}


class Watch:
    """ASGI middleware that notes what is refused."""

    def __init__(self, app: ASGIApp, refusals: Refusals) -> None:
        self._app, self._refusals = app, refusals

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        status = 0

        async def watch(message: Message) -> None:
            nonlocal status
            if message["type"] == "http.response.start":
                status = message["status"]
            elif message["type"] == "http.response.body" and status >= 400:
                code = scope.get("state", {}).get("code") or _code(message.get("body", b""))
                self._refusals.note(status, code)
                status = 0
            await send(message)

        await self._app(scope, receive, watch)


def _code(body: bytes) -> str:
    try:
        return str(json.loads(body)["code"])
    except (ValueError, TypeError, KeyError):
        return ""


# -- What is seen -----------------------------------------------------------------------------------------------------


class Refusal(TypedDict):
    """How often something was refused since the service was started, and when last (seconds since 1970-01-01 UTC)."""

    status: int
    code: str
    lately: int
    total: int
    last_at: float | None


@dataclass(frozen=True)
class View:
    """All that the operator sees. Of an invite code that is still good, that is the last group alone."""

    now: float
    started_at: float
    invites_used: int
    invites_free: int
    invites: list[dict[str, Any]]
    wallets: list[dict[str, Any]]
    builds: list[dict[str, Any]]
    refusals: list[Refusal]
    connections_cut_off: dict[str, int]
    database_bytes: int
    published_bytes: int


def operator_routes(store: Store, files: Path, operator: Operator, refusals: Refusals) -> APIRouter:
    """The page, its JSON and its sign-in. Requests that come from elsewhere than this machine find nothing."""
    router, started_at = APIRouter(), time.time()

    def of_this_machine(request: Request) -> None:
        try:
            is_loopback = ipaddress.ip_address(_client(request)).is_loopback
        except ValueError:
            is_loopback = False
        if not is_loopback:
            raise Refused(404, "bad_request", "Not Found")

    def is_signed_in(request: Request, bearer: HTTPAuthorizationCredentials | None) -> bool:
        """Whether the page may be shown; a wrong token in the header is refused."""
        if bearer:
            operator.check(_client(request), bearer.credentials)
            return True
        return operator.has_session(request.cookies.get(_COOKIE, ""))

    def view() -> View:
        contents, lately, last = store.contents(), refusals.lately(), refusals.last()
        used = sum(invite.used_by is not None for invite in contents.invites)
        return View(
            now=time.time(),
            started_at=started_at,
            invites_used=used,
            invites_free=len(contents.invites) - used,
            invites=[asdict(invite) for invite in contents.invites],
            wallets=[asdict(wallet) for wallet in contents.wallets],
            builds=[asdict(build) for build in contents.builds],
            refusals=[
                {"status": kind[0], "code": kind[1], "lately": lately[kind], "total": total, "last_at": last.get(kind)}
                for kind, total in sorted(refusals.totals.items())
            ],
            connections_cut_off=dict(Connection.cut_off),
            database_bytes=store.size(),
            published_bytes=sum(path.stat().st_size for path in files.glob("*")),
        )

    here = [Depends(of_this_machine)]

    @router.get("/operator.json", summary="Say how the service is doing, to its operator", dependencies=here)
    def as_json(request: Request, response: Response, bearer: Bearer) -> View:
        if not is_signed_in(request, bearer):
            operator.check(_client(request), "")  # which refuses it, and counts it as a wrong one
        response.headers["Cache-Control"] = "no-store"
        return view()

    @router.get("/", include_in_schema=False, dependencies=here)
    def page(request: Request, bearer: Bearer) -> HTMLResponse:
        return _html(_page(view()) if is_signed_in(request, bearer) else _sign_in())

    @router.post("/operator/login", include_in_schema=False, dependencies=here)
    async def login(request: Request) -> Response:
        form = parse_qs((await request.body()).decode("latin-1"))
        try:
            session = operator.open_session(_client(request), form.get("token", [""])[0].strip())
        except Refused as exc:
            request.state.code = exc.code
            wait = {"Retry-After": str(math.ceil(exc.retry_after))} if exc.retry_after else {}
            return _html(_sign_in(f"{exc}."), exc.status, wait)
        answer = RedirectResponse("/", 303, {"Cache-Control": "no-store"})
        answer.set_cookie(
            _COOKIE, session, max_age=int(_SESSION_SECONDS), secure=True, httponly=True, samesite="strict"
        )
        return answer

    @router.post("/operator/logout", include_in_schema=False, dependencies=here)
    def logout(request: Request) -> Response:
        operator.close_session(request.cookies.get(_COOKIE, ""))
        answer = RedirectResponse("/", 303, {"Cache-Control": "no-store"})
        answer.delete_cookie(_COOKIE, secure=True, httponly=True, samesite="strict")
        return answer

    return router


def _client(request: Request) -> str:
    return request.client.host if request.client else ""


def _html(page: Page, status: int = 200, headers: dict[str, str] | None = None) -> HTMLResponse:
    policy = f"{page.policy}; form-action 'self'; frame-ancestors 'none'"
    fixed = {
        "Content-Security-Policy": policy,
        "Cache-Control": "no-store",
        "Referrer-Policy": "no-referrer",
        "X-Content-Type-Options": "nosniff",
    }
    return HTMLResponse(page.text, status, {**fixed, **(headers or {})})


def _sign_in(problem: str = "") -> Page:
    return render("sign_in.html", generator="corvane-local", title="Corvane local service", problem=problem)


def _page(view: View) -> Page:
    wallets, invites = view.wallets[::-1][:_MOST_ROWS], view.invites[::-1][:_MOST_ROWS]
    codes = {invite["used_by"]: invite["code"] for invite in view.invites}
    cut_off: list[tuple[Cell, ...]] = [
        ("", f"connection cut off: {why}", "", count, "") for why, count in view.connections_cut_off.items()
    ]
    refused: list[tuple[Cell, ...]] = [
        (one["status"], one["code"], one["lately"], one["total"], _minute(one["last_at"]) if one["last_at"] else "")
        for one in view.refusals
    ]
    tables = [
        Table("wallets", ("registered", "*address", "invite"),
              [(_minute(one["registered_at"]), one["address"], codes.get(one["address"], "")) for one in wallets]),
        Table("invites", ("made", "code", "*used by"),
              [(_minute(one["made_at"]), one["code"], one["used_by"] or "") for one in invites]),
        Table("builds", ("#version", "backtester"), [(one["version"], one["backtester"]) for one in view.builds[::-1]]),
        Table("refusals", ("#status", "*reason", "#lately", "#total", "last"), refused + cut_off),
    ]  # fmt: skip
    moments = [one["registered_at"] for one in view.wallets]
    drawing = growth([moments[0], *moments], [0, *[1] * len(moments)]) if moments else ""
    ends = (_minute(moments[0]), _minute(moments[-1])) if moments else ("", "")
    totals = {
        "invites used": view.invites_used,
        "invites free": view.invites_free,
        "wallets": len(view.wallets),
        "published builds": len(view.builds),
        "refusals lately": sum(one["lately"] for one in view.refusals),
        "of database": f"{view.database_bytes / 1000:,.0f} kB",
        "of published files": f"{view.published_bytes / 1000:,.0f} kB",
    }
    return render(
        "operator.html",
        tables,
        generator="corvane-local",
        title="Corvane local service",
        made_at=_minute(view.now),
        since=_minute(view.started_at),
        totals=totals,
        registrations=("wallets signed up", len(moments), drawing, *ends),
        hidden_wallets=len(view.wallets) - len(wallets),
        hidden_invites=len(view.invites) - len(invites),
    )


def _minute(seconds: float) -> str:
    return f"{datetime.fromtimestamp(seconds, UTC):%Y-%m-%d %H:%M}"

"""The service's HTTP interface. Every refusal is JSON of the form {"error": sentence, "code": word}."""

import math
import sqlite3
from collections.abc import Callable
from pathlib import Path
from typing import Annotated, Any, TypedDict

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from fastapi import Depends, FastAPI, Request
from fastapi.exceptions import RequestValidationError
from fastapi.responses import FileResponse, JSONResponse
from fastapi.security import HTTPAuthorizationCredentials, HTTPBearer
from pydantic import BaseModel, StringConstraints
from starlette.exceptions import HTTPException
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from corvane.auth import signed_message, wallet_address
from corvane.manifest import Manifest
from corvane_local.eras import ACTIVE_ERA, ERAS, Era
from corvane_local.failures import FailureLimit
from corvane_local.operator_page import Operator, Refusals, Watch, operator_routes
from corvane_local.store import Proof, Refused, Release, Store

MAX_BODY = 64 * 1024  # bytes

PublicKey = Annotated[str, StringConstraints(pattern=r"^0[23][0-9a-f]{64}$")]
Challenge = Annotated[str, StringConstraints(pattern=r"^[0-9a-f]{64}$")]
Signature = Annotated[str, StringConstraints(pattern=r"^([0-9a-f]{2}){8,72}$")]
InviteCode = Annotated[str, StringConstraints(pattern=r"^[0-9A-Z-]{1,40}$")]


class ChallengeRequest(BaseModel):
    """Whoever wants to sign in."""

    public_key: PublicKey


class LoginRequest(ChallengeRequest):
    """The signed challenge."""

    challenge: Challenge
    signature: Signature


class RegisterRequest(LoginRequest):
    """The signed challenge, with an invite code for a wallet that may be new."""

    invite_code: InviteCode


class Health(TypedDict):
    """That the service answers."""

    status: str


class NewChallenge(TypedDict):
    """What to sign, and until when (seconds since 1970-01-01 UTC)."""

    challenge: str
    expires_at: float


class SignedIn(TypedDict):
    """A token for a wallet, and until when it is good (seconds since 1970-01-01 UTC)."""

    address: str
    token: str
    expires_at: float


class Wallet(TypedDict):
    """A wallet, and since when the service knows it (seconds since 1970-01-01 UTC)."""

    address: str
    registered_at: float


class Eras(TypedDict):
    """All eras, oldest first."""

    eras: list[Era]


class Refusal(TypedDict):
    """Why not: a sentence for people, a word for programs."""

    error: str
    code: str


def _refusals(**reasons: str) -> dict[int | str, dict[str, Any]]:
    reasons |= {"_413": "The body is too large.", "_503": "The database is busy or cannot be written; try again later."}
    return {int(name[1:]): {"model": Refusal, "description": reason} for name, reason in sorted(reasons.items())}


_MALFORMED = {"_400": "The body is not valid JSON.", "_422": "A field is missing or malformed."}
_FAILED = {
    "_401": "The challenge or its signature is not valid.",
    "_404": "The wallet or the invite code is unknown.",
    "_429": "Too many failures of this client, or of this key from it. Retry-After says how many seconds to wait.",
}
_NO_TOKEN = {"_401": "The token is missing, unknown or has expired."}
_BEARER = HTTPBearer(auto_error=False, description="A token from /auth/register or /auth/login.")
Bearer = Annotated[HTTPAuthorizationCredentials | None, Depends(_BEARER)]


def create_app(store: Store, files: Path, failure_seconds: float, operator_token: str) -> FastAPI:
    """The ASGI application over one database. Its description is served at /openapi.json.

    Args:
        store: The database.
        files: The directory of the published files, each under its digest.
        failure_seconds: How long it takes until all failures are forgotten.
        operator_token: What opens the operator's page.
    """
    app = FastAPI(title="Corvane local service", version="0.1.0", docs_url=None, redoc_url=None, redirect_slashes=False)
    refusals = Refusals()
    app.add_middleware(BodyLimit)
    app.add_middleware(Watch, refusals=refusals)  # around the other
    app.include_router(operator_routes(store, files, Operator(operator_token, failure_seconds), refusals))
    # A key is public: counted by itself, a stranger's failures would lock its owner out. A client may be the address of
    # many agents, each of which errs now and then.
    by_key, by_client = FailureLimit(10, failure_seconds), FailureLimit(300, failure_seconds)

    @app.exception_handler(Refused)
    def refused(request: Request, exc: Refused) -> JSONResponse:
        headers = {"WWW-Authenticate": "Bearer"} if exc.status == 401 else {}
        if exc.retry_after is not None:
            headers["Retry-After"] = str(math.ceil(exc.retry_after))
        return _refusal(exc.status, exc.code, str(exc), headers)

    @app.exception_handler(HTTPException)
    def http_error(request: Request, exc: HTTPException) -> JSONResponse:
        return _refusal(exc.status_code, "bad_request", str(exc.detail), dict(exc.headers or {}))

    @app.exception_handler(sqlite3.OperationalError)
    def busy(request: Request, exc: sqlite3.OperationalError) -> JSONResponse:
        return _refusal(503, "busy", "The database is busy or cannot be written.", {"Retry-After": "1"})

    @app.exception_handler(RequestValidationError)
    def invalid(request: Request, exc: RequestValidationError) -> JSONResponse:
        # The name of the field and never its value: what was sent may be a secret in the wrong place.
        if any(e["type"] == "json_invalid" for e in exc.errors()):
            return _refusal(400, "bad_request", "The body is not valid JSON.")
        fields = ", ".join(sorted({str(e["loc"][-1]) for e in exc.errors() if isinstance(e["loc"][-1], str)}))
        code = "bad_invite" if fields == "invite_code" else "bad_request"
        return _refusal(422, code, f"Missing or malformed: {fields or 'the body'}.")

    def sign(request: Request, body: LoginRequest, action: Callable[[Proof], tuple[str, float]]) -> SignedIn:
        client = request.client.host if request.client else ""
        key = f"{client} {body.public_key}"
        wait = max(by_key.wait(key), by_client.wait(client))
        if wait > 0:
            raise Refused(429, "too_many_failures", f"Too many failures; try again in {math.ceil(wait)} s", wait)
        try:
            token, expires_at = action(_proof(body))
        except Refused:
            by_key.note(key)
            by_client.note(client)
            raise
        by_key.forget(key)
        return {"address": wallet_address(body.public_key), "token": token, "expires_at": expires_at}

    def signed_in(bearer: Bearer) -> tuple[str, float]:
        return store.wallet_of(bearer.credentials if bearer else "")

    def release() -> Release:
        published = store.release()
        if published is None:
            raise Refused(404, "no_release", "Nothing is published")
        return published

    for_wallets = [Depends(signed_in)]

    @app.get("/health", summary="Say that the service is up", responses=_refusals())
    def health() -> Health:
        return {"status": "ok"}

    @app.post("/auth/challenge", summary="Get a challenge to sign", responses=_refusals(**_MALFORMED))
    def challenge(body: ChallengeRequest) -> NewChallenge:
        _load_key(body.public_key)
        text, expires_at = store.make_challenge(body.public_key)
        return {"challenge": text, "expires_at": expires_at}

    @app.post("/auth/login", summary="Sign a known wallet in", responses=_refusals(**_MALFORMED, **_FAILED))
    def login(request: Request, body: LoginRequest) -> SignedIn:
        return sign(request, body, store.sign_in)

    @app.post(
        "/auth/register",
        summary="Sign a new wallet up with an invite code, or a known one in",
        responses=_refusals(**_MALFORMED, **_FAILED, _409="The invite code has been used."),
    )
    def register(request: Request, body: RegisterRequest) -> SignedIn:
        return sign(request, body, lambda proof: store.sign_up(proof, body.invite_code))

    @app.get("/wallet", summary="Say whose token this is", responses=_refusals(**_NO_TOKEN))
    def wallet(owner: Annotated[tuple[str, float], Depends(signed_in)]) -> Wallet:
        return {"address": owner[0], "registered_at": owner[1]}

    @app.get("/eras", summary="List the eras", dependencies=for_wallets, responses=_refusals(**_NO_TOKEN))
    def eras() -> Eras:
        return {"eras": ERAS}

    @app.get(
        "/runtime/manifest",
        summary="List the files of the active era",
        dependencies=for_wallets,
        responses=_refusals(**_NO_TOKEN, _404="Nothing is published."),
        response_model_exclude_unset=True,
    )
    def manifest() -> Manifest:
        published = release()
        return {"era_id": ACTIVE_ERA["era_id"], "version": published.version, "files": published.files}

    @app.get(
        "/runtime/files/{relative_path:path}",
        summary="Download a file of the manifest, whole or in part (Range, If-Range with its SHA-256 as ETag)",
        dependencies=for_wallets,
        response_class=FileResponse,
        responses=_refusals(**_NO_TOKEN, _404="The manifest does not list this path.")
        | {
            200: {"content": {"application/octet-stream": {"schema": {"type": "string", "format": "binary"}}}},
            206: {"description": "The range that was asked for."},
            400: {"description": "The range is malformed (the answer is plain text)."},
            416: {"description": "The range begins beyond the end of the file (the answer is plain text)."},
            "default": {"model": Refusal, "description": "Any other refusal."},
        },
    )
    def runtime_file(relative_path: str) -> FileResponse:
        # The path is looked up and never joined to a directory, so that no trick with it leads anywhere.
        entry = release().files.get(relative_path)
        if entry is None:
            raise Refused(404, "unknown_file", "The manifest does not list this path")
        digest = entry["sha256"]
        return FileResponse(files / digest, media_type="application/octet-stream", headers={"ETag": f'"{digest}"'})

    return app


def _refusal(status: int, code: str, message: str, headers: dict[str, str] | None = None) -> JSONResponse:
    return JSONResponse({"error": message, "code": code}, status_code=status, headers=headers)


def _load_key(public_key: str) -> ec.EllipticCurvePublicKey:
    try:
        return ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256K1(), bytes.fromhex(public_key))
    except ValueError:
        raise Refused(422, "bad_request", "The public key is not a point of the curve") from None


def _proof(body: LoginRequest) -> Proof:
    # Verified before the store's transaction, which keeps other writers waiting; the store acts on the outcome.
    key = _load_key(body.public_key)
    try:
        key.verify(bytes.fromhex(body.signature), signed_message(body.challenge), ec.ECDSA(hashes.SHA256()))
        is_genuine = True
    except InvalidSignature:
        is_genuine = False
    return Proof(wallet_address(body.public_key), body.public_key, body.challenge, is_genuine)


class BodyLimit:
    """Refuses bodies over MAX_BODY bytes before they are read into memory, announced or not."""

    def __init__(self, app: ASGIApp) -> None:
        self._app = app

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        if scope["type"] != "http":
            await self._app(scope, receive, send)
            return
        chunks, size, more = [], 0, True
        while more:
            message = await receive()
            if message["type"] == "http.disconnect":
                return
            chunks.append(message.get("body", b""))
            size += len(chunks[-1])
            more = message.get("more_body", False)
            if size > MAX_BODY:
                await _refusal(413, "too_large", f"The body is larger than {MAX_BODY} bytes.")(scope, receive, send)
                return

        whole = iter([{"type": "http.request", "body": b"".join(chunks), "more_body": False}])

        async def replay() -> Message:
            return next(whole, None) or await receive()

        await self._app(scope, replay, send)

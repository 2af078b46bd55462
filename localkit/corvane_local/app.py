"""The service's HTTP interface. Every refusal is JSON of the form {"error": sentence, "code": word}."""

from typing import Annotated

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from fastapi import FastAPI, Header, Request
from fastapi.exceptions import RequestValidationError
from fastapi.responses import JSONResponse
from pydantic import BaseModel, StringConstraints
from starlette.exceptions import HTTPException
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from corvane.auth import signed_message, wallet_address
from corvane_local.eras import ERAS
from corvane_local.store import Proof, Refused, Store

MAX_BODY = 64 * 1024  # bytes

PublicKey = Annotated[str, StringConstraints(pattern=r"^0[23][0-9a-f]{64}$")]
Challenge = Annotated[str, StringConstraints(pattern=r"^[0-9a-f]{64}$")]
Signature = Annotated[str, StringConstraints(pattern=r"^([0-9a-f]{2}){8,72}$")]
InviteCode = Annotated[str, StringConstraints(pattern=r"^[0-9A-Z-]{1,40}$")]


class ChallengeRequest(BaseModel):
    """Who wants to sign in."""

    public_key: PublicKey


class LoginRequest(ChallengeRequest):
    """The signed challenge."""

    challenge: Challenge
    signature: Signature


class RegisterRequest(LoginRequest):
    """The signed challenge, with an invite code for a wallet that may be new."""

    invite_code: InviteCode


def create_app(store: Store) -> FastAPI:
    """The ASGI application over one database. Its description is served at /openapi.json."""
    app = FastAPI(title="Corvane local service", version="0.1.0", docs_url=None, redoc_url=None, redirect_slashes=False)
    app.add_middleware(BodyLimit)

    @app.exception_handler(Refused)
    def refused(request: Request, exc: Refused) -> JSONResponse:
        return _refusal(exc.status, exc.code, str(exc))

    @app.exception_handler(HTTPException)
    def http_error(request: Request, exc: HTTPException) -> JSONResponse:
        return _refusal(exc.status_code, "bad_request", str(exc.detail))

    @app.exception_handler(RequestValidationError)
    def invalid(request: Request, exc: RequestValidationError) -> JSONResponse:
        # The name of the field and never its value: what was sent may be a secret in the wrong place.
        fields = ", ".join(sorted({str(e["loc"][-1]) for e in exc.errors() if isinstance(e["loc"][-1], str)}))
        code = "bad_invite" if fields == "invite_code" else "bad_request"
        return _refusal(422, code, f"Missing or malformed: {fields or 'the body'}.")

    @app.get("/health")
    def health() -> dict[str, str]:
        return {"status": "ok"}

    @app.post("/auth/challenge")
    def challenge(body: ChallengeRequest) -> dict[str, object]:
        _load_key(body.public_key)
        text, expires_at = store.make_challenge(body.public_key)
        return {"challenge": text, "expires_at": expires_at}

    @app.post("/auth/login")
    def login(body: LoginRequest) -> dict[str, object]:
        return _signed_in(body, store.sign_in(_proof(body)))

    @app.post("/auth/register")
    def register(body: RegisterRequest) -> dict[str, object]:
        return _signed_in(body, store.sign_up(_proof(body), body.invite_code))

    @app.get("/wallet")
    def wallet(authorization: Annotated[str, Header()] = "") -> dict[str, object]:
        address, registered_at = store.wallet_of(_bearer_token(authorization))
        return {"address": address, "registered_at": registered_at}

    @app.get("/eras")
    def eras(authorization: Annotated[str, Header()] = "") -> dict[str, object]:
        store.wallet_of(_bearer_token(authorization))
        return {"eras": ERAS}

    return app


def _bearer_token(authorization: str) -> str:
    scheme, _, token = authorization.partition(" ")
    return token if scheme.lower() == "bearer" else ""


def _refusal(status: int, code: str, message: str) -> JSONResponse:
    return JSONResponse({"error": message, "code": code}, status_code=status)


def _signed_in(body: LoginRequest, issued: tuple[str, float]) -> dict[str, object]:
    token, expires_at = issued
    return {"address": wallet_address(body.public_key), "token": token, "expires_at": expires_at}


def _load_key(public_key: str) -> ec.EllipticCurvePublicKey:
    try:
        return ec.EllipticCurvePublicKey.from_encoded_point(ec.SECP256K1(), bytes.fromhex(public_key))
    except ValueError:
        raise Refused(422, "bad_request", "The public key is no point of the curve") from None


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

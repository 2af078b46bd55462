"""The key and the session."""

import os
import stat
from collections.abc import Iterator
from datetime import UTC, datetime
from shlex import quote

from corvane.auth import InvalidKeyError
from corvane_cli.doctor_findings import ERROR, WARNING, Finding, Looked, aside, command_line, kind_of
from corvane_cli.identity import KEY_VARIABLE, Agent, KeyFile


def check_key_file(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether there is a key, and it is safe to use."""
    key = agent.key_file()
    if agent.env_key:
        try:
            address = agent.manager().get_wallet_address()
        except InvalidKeyError:
            problem, reason = f"{KEY_VARIABLE} contains no key.", "it comes first: nothing else is tried"
            next_step = f"`unset {KEY_VARIABLE}`, or set it to 64 hexadecimal digits."
            yield Finding("key", ERROR, problem, reason, next_step)
        else:
            yield Looked("key", f"the key in {KEY_VARIABLE}, of the wallet {address}")
    if key.state != "absent" or not agent.env_key:
        yield from key_findings(key, agent)
    if key.state == "good":
        yield Looked("key", f"{key.path}, the key of the wallet {key.address}")
    for backup in (backups := _backups(agent)):
        if backup.status and backup.state not in ("unsafe", "unreadable") and backup.status.st_mode & 0o077:
            yield _open_to_others(backup)
    if backups:
        yield Looked("key", f"replaced keys beside it: {len(backups)}, closed to others")


def _backups(agent: Agent) -> list[KeyFile]:
    return [agent.key_file(path.name) for path in sorted(agent.data_dir.glob("wallet.key.backup-*"), reverse=True)]


def _open_to_others(key: KeyFile) -> Finding:
    mode = stat.S_IMODE(key.status.st_mode) if key.status else 0
    reason = "whoever has read the key can sign in with it forever"
    next_step = f"`chmod 600 {quote(str(key.path))}`; if others were here, use a new wallet."
    return Finding("key", ERROR, f"{key.path} is open to other users (mode {mode:o}).", reason, next_step)


def key_findings(key: KeyFile, agent: Agent | None = None) -> Iterator[Finding]:
    """What is wrong with a key file, of this agent or else of the one whose directory it lies in."""
    agent = agent or Agent(str(key.path.parent), os.environ.get("CORVANE_SERVER_URL"))
    path, quoted = key.path, quote(str(key.path))
    whose = agent.key_to_look_for()
    if key.state == "absent":
        login = command_line("corvane login", agent)
        register = command_line("corvane register --invite-code CODE", agent)
        step = f"`{register}` makes a wallet, `{login} < FILE` uses an existing one."
        if whose:
            step = f"`{login} < {_best_backup(agent)}` with a copy of the key.{whose}"
        yield Finding("key", WARNING, f"There is no wallet key at {path}.", "nobody can sign in without one", step)
    elif key.state in ("empty", "malformed"):
        login = command_line(f"corvane login{' --replace' * (key.state == 'malformed')}", agent)
        next_step = f"`{login} < {_best_backup(agent)}` with a copy of the key.{whose}"
        if key.state == "empty":
            problem = f"{path} is empty."
            reason = (
                "a save was interrupted; whether the key that is missing has signed up, and wallets depend on it, "
                "cannot be seen from here"
            )
            next_step += (
                " Only if there is no copy anywhere, and the wallet may be lost: "
                f"{aside(path)}, then corvane register with a new invite code."
            )
        else:
            problem, reason = f"{path} contains no key.", "a key is 64 hexadecimal digits, with or without 0x in front"
            next_step += " The present content of the file is kept as a backup."
        yield Finding("key", ERROR, problem, reason, next_step)
    elif key.state == "unreadable" and kind_of(path) is None:
        problem, reason = f"{path} {key.problem}.", "its mode or a directory above it keeps this user out"
        yield Finding("key", ERROR, problem, reason, f"`chmod 600 {quoted}`, or run as its owner.")
    elif key.state in ("unsafe", "unreadable"):
        problem, reason = (
            f"{path} is not used: {key.problem}.",
            "somebody may have put it there",
        )
        login = command_line("corvane login", agent)
        next_step = f"`{aside(path)} && {login} < FILE` with your own copy of the key. Find out who did it.{whose}"
        yield Finding("key", ERROR, problem, reason, next_step)
    if key.status is None or key.state in ("unsafe", "unreadable"):
        return
    if key.status.st_nlink > 1:
        problem, reason = f"{path} has {key.status.st_nlink} names.", "a login rewrites it under all of them"
        copy = quote(f"{path}.copy")
        next_step = f"Make it a file of its own: `cp -p {quoted} {copy} && mv {copy} {quoted}`"
        yield Finding("key", ERROR, problem, reason, next_step)
    if key.status.st_mode & 0o077:
        yield _open_to_others(key)


def _best_backup(agent: Agent) -> str:
    """The backup that the session is of, or the newest one; FILE if there is none here."""
    good = [backup for backup in _backups(agent) if backup.state == "good"]
    session = agent.session()
    good.sort(key=lambda backup: bool(session and backup.address == session.address), reverse=True)
    return quote(str(good[0].path)) if good else "FILE"


def check_session(agent: Agent) -> Iterator[Finding | Looked]:
    """Whether the session belongs to the stored key, and to the service that is asked for."""
    path, key, session = agent.data_dir / "session.json", agent.key_file(), agent.session()
    register = f"`{command_line('corvane register', agent)}`"
    if agent.env_key:
        yield Looked("session", f"no session: the key in {KEY_VARIABLE} needs none")
    elif kind_of(path) or key.state != "good":
        return  # which other checks say
    elif not path.exists():
        problem, reason = f"There is no session in {agent.data_dir}.", "without one the stored key is not used"
        unknown = "with --invite-code CODE, even one that the service does not know"
        yield Finding("session", WARNING, problem, reason, f"{register} signs the stored wallet in; {unknown}.")
    elif session is None:
        path.read_bytes()  # what cannot be read is another matter
        problem, reason = f"{path} is not a session.", "without one the stored key is not used"
        yield Finding("session", ERROR, problem, reason, f"{register} writes it again.")
    elif agent.is_pending():
        problem = f"As far as is known, the service has not accepted {session.address} yet."
        again = command_line("corvane register --invite-code CODE", agent)
        next_step = f"`{again}` signs the stored wallet up, or in if it was accepted."
        yield Finding("session", WARNING, problem, "a sign-up was refused, or interrupted", next_step)
    elif session.address != key.address:
        problem = f"The session is for {session.address}, but {key.path} is the key of {key.address}."
        reason = "the key was replaced without `corvane login`; it is not used until it has signed in"
        next_step = f"{register} signs the stored wallet in. If it is the wrong one: `corvane login --replace < FILE`."
        yield Finding("session", WARNING, problem, reason, next_step)
    elif session.server_url != agent.server_url:
        problem = f"The session is with {session.server_url}, but {agent.server_url} is asked for."
        reason = "a key is used only where it has signed in"
        own = "unset CORVANE_SERVER_URL" if os.environ.get("CORVANE_SERVER_URL") else _own_service(agent)
        next_step = f"`{own}` keeps to the session's service. If the other one is right: {register}."
        yield Finding("session", WARNING, problem, reason, next_step)
    else:
        since = f"{datetime.fromtimestamp(session.signed_in_at or 0, UTC):%Y-%m-%dT%H:%M:%SZ}"
        yield Looked("session", f"the session with {session.server_url}, since {since}")


def _own_service(agent: Agent) -> str:
    return command_line("corvane doctor", Agent(str(agent.data_dir), None))

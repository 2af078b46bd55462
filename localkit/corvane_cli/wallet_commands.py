"""Signing in and out, and who this is."""

import os
import sys
import time
from dataclasses import asdict
from typing import Any

import click

from corvane import auth
from corvane_cli.command import Exit, Failure, Result, table
from corvane_cli.display import one_line, remember
from corvane_cli.identity import KEY_VARIABLE, LONGEST_KEY, Agent, prefixed
from corvane_cli.shared import (
    bootstrap_runtime,
    command,
    download_step,
    dry_run_option,
    heartbeat_file,
    heartbeat_option,
    iso_time,
    paragraphs,
    plan,
    progress_option,
    sign_in,
    usable_key_file,
    who,
)

_KEY_SECONDS = 10.0  # for a key or a code to arrive; a pipe that nobody writes to must not hold an agent up


@command("register", "register --invite-code CORV-2222-3333-4444", "register    # signs the stored wallet in again")
@click.option(
    "--invite-code",
    envvar="CORVANE_INVITE_CODE",
    show_envvar=True,
    help="Needed for a new wallet only; - reads it from standard input.",
)
@click.option("--bootstrap", is_flag=True, help="Download the era and build the search runtime as well.")
@heartbeat_option
@progress_option
@dry_run_option
def register(
    agent: Agent, invite_code: str | None, bootstrap: bool, heartbeat: bool, progress: bool | None, dry_run: bool
) -> Result:
    """Make a wallet and sign it up, or sign the stored one in again.

    The checklist is added to HEARTBEAT.md of the working directory or one of its three parents, if there is one.
    """
    code = _read_code(invite_code)
    onboarding = agent.onboarding(heartbeat)
    found = heartbeat_file(onboarding, heartbeat)
    with agent.changing_the_wallet(dry_run):
        key = usable_key_file(agent)
        reused = bool(agent.env_key) or key.state == "good"
        before = agent.session()  # it is about to be replaced
        if not reused and code is None:
            problem = f"There is no wallet at {key.path}, and a new one needs an invite code: CORV-XXXX-XXXX-XXXX."
            next_step = "Ask the operator for an invite code, then `corvane register --invite-code CODE`."
            raise Failure(problem, Exit.USAGE, next_step)
        if dry_run:
            signs = "in" if agent.is_logged_in() or (reused and code is None) else "up"
            signs += ", or in if the service knows it," * (reused and signs == "up")
            steps = [f"make a new key in {key.path}"] * (not reused)
            steps.append(f"sign {agent.key_source} {signs} at {agent.server_url}")
            steps += [f"make sure that the checklist is in {found}"] * bool(found)
            return plan(steps + [download_step(agent)] * bootstrap)
        if agent.env_key:
            address = agent.sign_in(agent.manager(code)).get_wallet_address()
            agent.onboarding(heartbeat).inject_heartbeat()
        else:
            if not reused:
                agent.make_key()  # before the service hears of it
            address = onboarding.register(code).address
            agent.begin_session(address)
    changed = bootstrap_runtime(agent, progress) if bootstrap else None
    note = f"The wallet of {agent.key_source} existed already and was used." if reused else "A new wallet was made."
    if before and not reused:
        note += f" The session before was that of the wallet {before.address}, whose key is not here."
    if not agent.env_key:  # also of a wallet that an earlier attempt has made
        note += f" Keep a copy of {key.path}: nothing else can restore it."
    return who(agent, address, note, reused=reused, heartbeat=found, changed_files=changed)


@command(
    "login",
    "login < FILE",
    "login --key-fd 3 3< FILE",
    "login --prompt                  # on a terminal",
    "login --replace < OTHER_KEY     # keeps the old key as wallet.key.backup-TIME",
)
@click.option("--key-fd", default=0, type=click.IntRange(0), help="Read the key from this file descriptor.")
@click.option("--prompt", is_flag=True, help="Ask for the key on the terminal.")
@click.option("--replace", is_flag=True, help="Replace the key of another wallet; it is kept as a backup.")
@dry_run_option
def login(agent: Agent, key_fd: int, prompt: bool, replace: bool, dry_run: bool) -> Result:
    """Sign in with a key, and store it once the service has accepted it.

    The key comes on standard input, never as an argument, where others could see it.
    """
    if agent.env_key:
        next_step = f"`corvane status --online` verifies it. Unset {KEY_VARIABLE} to store a key."
        raise Failure(f"The key in {KEY_VARIABLE} comes first, and is never stored.", Exit.USAGE, next_step)
    instead = "`corvane login < FILE`, or --prompt on a terminal."
    secret = _ask_for_key() if prompt else _read_line(key_fd, "key", instead)
    manager = agent.sign_in(auth.AuthManager(prefixed(secret), agent.server_url))
    address, backup = manager.get_wallet_address(), None
    with agent.changing_the_wallet(dry_run):
        key = usable_key_file(agent, "unsafe", "unreadable")
        stores = key.address != address
        replaces = stores and key.state in ("good", "malformed")
        if replaces and not replace:
            next_step = "`corvane login --replace` keeps it as a backup; --data-dir keeps another identity elsewhere."
            holds = f"the wallet {key.address}" if key.address else "something that is not a key"
            raise Failure(f"{key.path} holds {holds}, and was not replaced.", Exit.MACHINE, next_step)
        if dry_run:
            steps = [f"keep {key.path} as a backup"] * replaces + [f"store the key in {key.path}"] * stores
            return plan([*steps, "begin a session"])
        if replaces:
            backup = agent.back_up_key(key)
            click.echo(one_line(f"The key that was there is kept in {backup}."), err=True)
        if stores:
            agent.store_key(secret)
        agent.begin_session(address)
    note = f"The key is in {key.path}." if stores else f"The key was in {key.path} already; the file was not touched."
    return who(agent, address, note, stored=stores, backup=backup, expires_at=iso_time(manager.get_token_expiry()))


@command("logout", "logout", "logout --delete-key 0x257014b0a5208b30b7d654c2a0d02e7a58279df8")
@click.option("--delete-key", metavar="ADDRESS", help="Also delete wallet.key for good, if it belongs to this wallet.")
@dry_run_option
def logout(agent: Agent, delete_key: str | None, dry_run: bool) -> Result:
    """Forget the session. The key stays, unless --delete-key names its wallet.

    Nothing is revoked: the service still knows the wallet, tokens that it gave out are good until they expire (an hour
    with the local one), and every copy of the key still signs in.
    """
    with agent.changing_the_wallet(dry_run or not agent.data_dir.exists()):
        key = usable_key_file(agent, "unreadable") if delete_key else agent.key_file()
        if delete_key is not None and delete_key.lower() != key.address:
            next_step = "`corvane status` shows the address; `corvane doctor` says what to do with a damaged file."
            raise Failure(f"{key.path} is not the key of {delete_key}; it was not deleted.", Exit.USAGE, next_step)
        if dry_run:
            return plan(["forget the session"] + [f"delete {key.path} for good"] * bool(delete_key))
        url, existed = agent.server_url, agent.end_session()
        if delete_key:
            key.path.unlink()
    kept, again = key.path.exists(), f"`corvane register --server-url {url}` signs in with it again."
    lines = [
        "The session is forgotten." if existed else "There was no session.",
        "Nothing is revoked: tokens are valid until they expire, and every copy of the key can sign in.",
        f"The key is still in {key.path}; {again}" if kept else f"There is no key at {key.path}.",
    ]
    files = sorted(agent.data_dir.glob("wallet.key.backup-*")) if delete_key else []
    backups = [str(file) for file in files if agent.key_file(file.name).state not in ("empty", "malformed")]
    lines += [f"Keys that were replaced are still in {' '.join(backups)}."] * bool(backups)
    if agent.env_key:
        lines.append(f"{KEY_VARIABLE} is set: commands sign in with it until it is unset.")
    data = {"had_session": existed, "key_kept": kept, "revoked": False, "environment_key": bool(agent.env_key)}
    return Result(data | {"backups": backups}, lines)


@command("whoami", "whoami", "whoami --json")
def whoami(agent: Agent) -> Result:
    """Say which wallet this is, at which service, and whether the service has accepted it. Nothing is sent."""
    key = usable_key_file(agent)
    address = agent.manager().get_wallet_address() if agent.env_key else key.address
    if address is None:
        raise Failure(f"There is no wallet key at {key.path}.", Exit.NOT_LOGGED_IN, agent.next_step())
    accepted = None if agent.env_key else agent.is_logged_in()
    data = {"address": address, "server_url": agent.server_url, "accepted": accepted}
    said = {None: "not known: `corvane status --online` asks", True: "yes"}.get(accepted)
    if said is None:
        why = "there is no session of this key with this service"
        if agent.is_pending():
            why = "the service has not accepted this key yet"
        data["next_step"] = agent.next_step()
        said = f"no, {why}. Next: {agent.next_step()}"
    return Result(data, table([*list(data.items())[:2], ("accepted", said)]))


@command("status", "status", "status --online --json")
@click.option("--online", is_flag=True, help="Sign in, to see whether the service accepts the wallet.")
def status(agent: Agent, online: bool) -> Result:
    """Say which wallet this is, which service, where the key is, and what is wrong with it. Nothing is sent."""
    from corvane_cli.doctor_findings import examine
    from corvane_cli.doctor_wallet import check_key_file, check_session

    key, session, logged_in = agent.key_file(), agent.session(), agent.is_logged_in()
    address = agent.manager().get_wallet_address() if agent.env_key else key.address
    findings = examine(agent, check_key_file, check_session)
    at = session.signed_in_at if session and logged_in and not agent.env_key else None
    since = iso_time(at) if at else None
    more: dict[str, Any] = {"data_dir": agent.data_dir, "logged_in": logged_in, "signed_in_at": since}
    if online:
        more |= {"accepted": True, "expires_at": iso_time(sign_in(agent).get_token_expiry())}
    notes = [] if logged_in or findings else [f"Next: {agent.next_step()}"]
    result = who(agent, address, *paragraphs(findings), *notes, **more)
    result.data["problems"] = [asdict(finding) for finding in findings]
    if not logged_in:
        result.status = Exit.NOT_LOGGED_IN if key.state in ("good", "absent") else Exit.MACHINE
    return result


def _read_code(code: str | None) -> str | None:
    """The invite code, from standard input if it is -; None without one."""
    if code == "-":
        code = _read_line(0, "invite code", "`corvane register --invite-code - < FILE`, or the code in place of -.")
    canonical = auth._normalize_invite_code(code)
    if code and code.strip() and canonical is None:
        next_step = "Compare it with what the operator gave out: --invite-code or CORVANE_INVITE_CODE."
        raise Failure("The invite code is malformed: codes look like CORV-XXXX-XXXX-XXXX.", Exit.USAGE, next_step)
    return canonical


def _ask_for_key() -> str:
    if not (sys.stdin and sys.stdin.isatty()):
        raise Failure("There is no terminal to prompt on.", Exit.USAGE, "`corvane login < FILE` needs none.")
    key = str(click.prompt("Private key", hide_input=True, err=True)).strip()
    remember(key)
    return key


def _read_line(source: int, what: str, instead: str) -> str:
    """One line from a descriptor. Never waits for long."""
    import select

    content, deadline = b"", time.monotonic() + _KEY_SECONDS
    try:
        if os.isatty(source):
            raise Failure(f"No {what} is read from a terminal unless that is asked for.", Exit.USAGE, instead)
        poll = select.poll()
        poll.register(source, select.POLLIN)
        while len(content) <= LONGEST_KEY and b"\n" not in content.lstrip():
            arrived = poll.poll(max(0.0, deadline - time.monotonic()) * 1000)
            if not arrived or not (chunk := os.read(source, LONGEST_KEY)):
                break
            content += chunk
    except OSError as exc:
        raise Failure(f"Descriptor {source} cannot be read: {exc.strerror}.", Exit.USAGE, instead) from None
    if not content.strip():
        raise Failure(f"No {what} has arrived on descriptor {source}.", Exit.USAGE, instead)
    text = content.decode("ascii", "replace").strip()
    remember(text)
    return text.partition("\n")[0].strip()  # whether or not more has arrived along with it

"""The commands."""

import os
import sys
import time
from collections.abc import Callable, Iterable
from dataclasses import asdict
from pathlib import Path
from shlex import quote
from types import ModuleType
from typing import TYPE_CHECKING, Any

import click
from click.shell_completion import get_completion_class

# What takes long to import is imported where it is used, so that the rest is quick: see `make bench`.
from corvane import __version__, auth
from corvane_cli.command import COMPLETION_VARIABLE, Command, Exit, Failure, Group, Result, table
from corvane_cli.display import as_json, one_line, remember
from corvane_cli.identity import KEY_VARIABLE, LONGEST_KEY, Agent, KeyFile, prefixed

if TYPE_CHECKING:
    from corvane_cli.doctor import Finding

_KEY_SECONDS = 10.0  # for a key or a code to arrive; a pipe that nobody writes to must not hold an agent up
_CHECKLIST_TITLE = "## [Corvane]"  # by it the onboarding module tells whether a file has the checklist

_progress = click.option("--progress/--no-progress", default=None, help="Progress bars; by default on a terminal only.")
_dry_run = click.option("--dry-run", is_flag=True, help="Say what would be done, and do nothing.")
_heartbeat = click.option("--heartbeat/--no-heartbeat", default=True, help="Whether HEARTBEAT.md may be edited.")


def _print_version(ctx: click.Context, parameter: click.Parameter, wanted: bool) -> None:
    if wanted and not ctx.resilient_parsing:
        in_json = "--json" in sys.argv
        click.echo(as_json({"version": __version__}, 1) if in_json else f"corvane, version {__version__}")
        ctx.exit()


@click.group(
    cls=Group,
    context_settings={"help_option_names": ["-h", "--help"], "max_content_width": 110, "show_default": True},
    epilog="""\b
Examples:
  corvane register --invite-code CORV-2222-3333-4444
  corvane login < wallet.key.backup
  corvane status --json
  eval "$(corvane completion bash)"    # zsh and fish likewise""",
)
@click.option(
    "--version", is_flag=True, is_eager=True, expose_value=False, callback=_print_version, help="Show the version."
)
def main(**_: object) -> None:
    """Join the Corvane signal-search service, and keep the wallet of this machine's agent.

    The key is the one in the environment variable CORVANE_PRIVATE_KEY, which is never stored, or else the one in
    wallet.key of the data directory.
    """


def _command(name: str, *examples: str) -> Callable[[Callable[..., Result]], click.Command]:
    text = "\b\nExamples:\n" + "\n".join(f"  corvane {example}" for example in examples)
    return main.command(name, cls=Command, epilog=text)


# -- Signing in and out -----------------------------------------------------------------------------------------------


@_command("register", "register --invite-code CORV-2222-3333-4444", "register    # signs the stored wallet in again")
@click.option(
    "--invite-code",
    envvar="CORVANE_INVITE_CODE",
    show_envvar=True,
    help="Needed for a new wallet only; - reads it from standard input.",
)
@click.option("--bootstrap", is_flag=True, help="Download the era and build the search runtime as well.")
@_heartbeat
@_progress
@_dry_run
def register(
    agent: Agent, invite_code: str | None, bootstrap: bool, heartbeat: bool, progress: bool | None, dry_run: bool
) -> Result:
    """Make a wallet and sign it up, or sign the stored one in again.

    The checklist is added to HEARTBEAT.md of the working directory or one of its three parents, if there is one.
    """
    code = _read_code(invite_code)
    onboarding = agent.onboarding(heartbeat)
    found = _heartbeat_file(onboarding, heartbeat)
    with agent.changing_the_wallet(dry_run):
        key = _usable_key_file(agent)
        reused = bool(agent.env_key) or key.state == "good"
        if not reused and code is None:
            problem = f"There is no wallet at {key.path}, and a new one needs an invite code: CORV-XXXX-XXXX-XXXX."
            next_step = "Ask the operator for an invite code, then `corvane register --invite-code CODE`."
            raise Failure(problem, Exit.USAGE, next_step)
        if dry_run:
            signs = "in" if agent.is_logged_in() or (reused and code is None) else "up"
            signs += ", or in if the service knows it," * (reused and signs == "up")
            steps = [f"make a new key in {key.path}"] * (not reused)
            steps.append(f"sign {agent.key_source} {signs} at {agent.server_url}")
            steps += [f"see to the checklist in {found}"] * bool(found)
            return _plan(steps + [_download(agent)] * bootstrap)
        if agent.env_key:
            address = agent.sign_in(agent.manager(code)).get_wallet_address()
            agent.onboarding(heartbeat).inject_heartbeat()
        else:
            if not reused:
                agent.make_key()  # before the service hears of it
            address = onboarding.register(code).address
            agent.begin_session(address)
    changed = _bootstrap(agent, progress) if bootstrap else None
    note = f"The wallet of {agent.key_source} was there already and was used." if reused else "A new wallet was made."
    if not agent.env_key:  # also of a wallet that an earlier attempt has made
        note += f" Keep a copy of {key.path}: nothing else can restore it."
    return _who(agent, address, note, reused=reused, heartbeat=found, changed_files=changed)


@_command(
    "login",
    "login < FILE",
    "login --key-fd 3 3< FILE",
    "login --prompt                  # on a terminal",
    "login --replace < OTHER_KEY     # keeps the old key as wallet.key.backup-TIME",
)
@click.option("--key-fd", default=0, type=click.IntRange(0), help="Read the key from this file descriptor.")
@click.option("--prompt", is_flag=True, help="Ask for the key on the terminal.")
@click.option("--replace", is_flag=True, help="Replace the key of another wallet; it is kept as a backup.")
@_dry_run
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
        key = _usable_key_file(agent, "unsafe", "unreadable")
        stores = key.address != address
        replaces = stores and key.state in ("good", "malformed")
        if replaces and not replace:
            next_step = "`corvane login --replace` keeps it as a backup; --data-dir keeps another identity elsewhere."
            holds = f"the wallet {key.address}" if key.address else "something that is no key"
            raise Failure(f"{key.path} holds {holds}, and was not replaced.", Exit.MACHINE, next_step)
        if dry_run:
            steps = [f"keep {key.path} as a backup"] * replaces + [f"store the key in {key.path}"] * stores
            return _plan([*steps, "begin a session"])
        if replaces:
            backup = agent.back_up_key(key)
            click.echo(one_line(f"The key that was there is kept in {backup}."), err=True)
        if stores:
            agent.store_key(secret)
        agent.begin_session(address)
    note = f"The key is in {key.path}." if stores else f"The key was in {key.path} already; the file was not touched."
    return _who(agent, address, note, stored=stores, backup=backup, expires_at=_time(manager.get_token_expiry()))


@_command("logout", "logout", "logout --delete-key 0x257014b0a5208b30b7d654c2a0d02e7a58279df8")
@click.option("--delete-key", metavar="ADDRESS", help="Delete wallet.key too, if it is of this wallet. For good.")
@_dry_run
def logout(agent: Agent, delete_key: str | None, dry_run: bool) -> Result:
    """Forget the session. The key stays, unless its deletion is asked for by its address.

    Nothing is revoked: the service still knows the wallet, tokens that it gave out are good until they expire (an hour
    with the local one), and every copy of the key still signs in.
    """
    with agent.changing_the_wallet(dry_run or not agent.data_dir.exists()):
        key = _usable_key_file(agent, "unreadable") if delete_key else agent.key_file()
        if delete_key is not None and delete_key.lower() != key.address:
            next_step = "`corvane status` tells the address; a file that holds no key is deleted with rm."
            raise Failure(f"{key.path} is not the key of {delete_key}; it was not deleted.", Exit.USAGE, next_step)
        if dry_run:
            return _plan(["forget the session"] + [f"delete {key.path} for good"] * bool(delete_key))
        url, existed = agent.server_url, agent.end_session()
        if delete_key:
            key.path.unlink()
    kept, again = key.path.exists(), f"`corvane register --server-url {url}` signs in with it again."
    lines = [
        "The session is forgotten." if existed else "There was no session.",
        "Nothing is revoked: tokens given out are good until they expire, and every copy of the key signs in.",
        f"The key is still in {key.path}; {again}" if kept else f"There is no key at {key.path}.",
    ]
    files = sorted(agent.data_dir.glob("wallet.key.backup-*")) if delete_key else []
    backups = [str(file) for file in files if agent.key_file(file.name).state not in ("empty", "malformed")]
    lines += [f"Keys that were replaced are still in {' '.join(backups)}."] * bool(backups)
    if agent.env_key:
        lines.append(f"{KEY_VARIABLE} is set: commands sign in with it until it is unset.")
    data = {"had_session": existed, "key_kept": kept, "revoked": False, "environment_key": bool(agent.env_key)}
    return Result(data | {"backups": backups}, lines)


@_command("whoami", "whoami", "whoami --json")
def whoami(agent: Agent) -> Result:
    """Say which wallet this is, at which service, and whether that has accepted it. Nothing is sent."""
    key = _usable_key_file(agent)
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


@_command("status", "status", "status --online --json")
@click.option("--online", is_flag=True, help="Sign in, to see whether the service accepts the wallet.")
def status(agent: Agent, online: bool) -> Result:
    """Say which wallet this is, which service, where the key is, and what is wrong with it. Nothing is sent."""
    from corvane_cli import doctor as examination

    key, session, logged_in = agent.key_file(), agent.session(), agent.is_logged_in()
    address = agent.manager().get_wallet_address() if agent.env_key else key.address
    findings = examination.examine(agent, examination.check_key_file, examination.check_session)
    at = session.signed_in_at if session and logged_in and not agent.env_key else None
    since = _time(at) if at else None
    more: dict[str, Any] = {"data_dir": agent.data_dir, "logged_in": logged_in, "signed_in_at": since}
    if online:
        more |= {"accepted": True, "expires_at": _time(_sign_in(agent).get_token_expiry())}
    notes = [] if logged_in or findings else [f"Next: {agent.next_step()}"]
    result = _who(agent, address, *_paragraphs(findings), *notes, **more)
    result.data["problems"] = [asdict(finding) for finding in findings]
    if not logged_in:
        result.status = Exit.NOT_LOGGED_IN if key.state in ("good", "absent") else Exit.MACHINE
    return result


# -- Searching --------------------------------------------------------------------------------------------------------


@_command("sync", "sync", "sync --check    # compares what is there with the manifest; nothing is sent")
@click.option("--check", is_flag=True, help="Only verify what was downloaded.")
@click.option("--wait", default=0.0, type=click.FloatRange(0), metavar="SECONDS", help="For another sync to end.")
@_progress
@_dry_run
def sync(agent: Agent, check: bool, wait: float, progress: bool | None, dry_run: bool) -> Result:
    """Download what has changed of the active era, and replace what is damaged."""
    from corvane_cli import doctor as examination

    changed: list[str] = []
    if check and not (agent.data_dir / "manifest.json").exists():
        raise Failure(f"Nothing was downloaded to {agent.data_dir}.", Exit.SPOILT, "`corvane sync` downloads the era.")
    if not check:
        _sign_in(agent, dry_run)
        if dry_run:
            spoilt = [f"repair: {f.problem}" for f in examination.examine(agent, examination.check_files)]
            return _plan([*spoilt, _download(agent)])
        changed = _sync(agent, progress, wait)
    # A sync has verified the files, and does not repair the copies of native modules.
    files = [examination.check_files] if check else []
    findings = examination.examine(agent, *files, examination.check_copies)
    lines = [*changed, *_paragraphs(findings)] or ["All files are what the manifest says."]
    data = {"changed_files": changed, "intact": not findings, "findings": [asdict(finding) for finding in findings]}
    return Result(data, lines, Exit.SPOILT if findings else Exit.OK)


@_command("search", "search --max-evaluations 5000", "search --seconds 60 --jobs 2 --json")
@click.option("--seed", type=click.IntRange(0), show_default="the number of searches so far")
@click.option("--max-evaluations", default=2000, type=click.IntRange(1), help="How many to try.")
@click.option("--seconds", type=click.FloatRange(0, min_open=True), help="How long at most.")
@click.option("--jobs", "n_jobs", default=1, type=click.IntRange(1), help="How many threads.")
@_heartbeat
@_progress
@_dry_run
def search(
    agent: Agent, seed: int | None, heartbeat: bool, progress: bool | None, dry_run: bool, **limits: Any
) -> Result:
    """Search the active era for signals. What was found is kept, also after Ctrl-C."""
    _sign_in(agent, dry_run)
    if dry_run:
        file = _heartbeat_file(agent.onboarding(), heartbeat)
        steps = [_download(agent), f"try {limits['max_evaluations']} expressions"]
        return _plan(steps + [f"see to the checklist in {file}"] * bool(file))
    from corvane.search_templates import search_status, start_search

    before = search_status()
    if before.running:
        raise Failure("A search is running in this directory.", Exit.TRY_AGAIN, "Wait for its end.")
    if seed is None:
        seed = before.run.id if before.run else 0
    _bootstrap(agent, progress)
    agent.onboarding(heartbeat)
    found = start_search(seed=seed, progress=progress, **limits)
    counts = f"{len(found.signals)} signals of {found.candidates} candidates in {found.evaluations} expressions"
    rows = [(s.id, s.instrument, s.pool, f"{s.rest_sharpe:.2f}", s.expression) for s in found.signals]
    signals = table([("number", "traded", "pool", "Sharpe", "expression"), *rows]) if rows else []
    lines = [f"{counts}, seed {seed}", *signals, "A found signal is a reason to look closer, never one to trade."]
    return Result({**asdict(found), "seed": seed}, lines)


@_command("simulate", "simulate 4 --picture signal-4.png", 'simulate "zscore(IBM, 20)" --instrument MSFT')
@click.argument("signal")
@click.option("--instrument", help="What is traded.", show_default="the one of the signal")
@click.option("--picture", type=click.Path(dir_okay=False), help="Draw the growth of the capital: FILE.png or .svg.")
@_progress
@_dry_run
def simulate(
    agent: Agent, signal: str, instrument: str | None, picture: str | None, progress: bool | None, dry_run: bool
) -> Result:
    """Say what trading a found signal (its number) or an expression would have earned, after costs."""
    from corvane.simulate_signal import _simulate_signal_export, check_picture

    if picture:
        check_picture(picture, agent.data_dir)
    _sign_in(agent, dry_run)
    if dry_run:
        return _plan([_download(agent), f"simulate {signal}"] + [f"draw {picture}"] * bool(picture))
    _bootstrap(agent, progress)
    number_or_text = int(signal) if signal.isdecimal() else signal
    simulation = _simulate_signal_export(number_or_text, instrument=instrument, picture=picture)
    names = ("expression", "instrument", "sharpe", "train_sharpe", "rest_sharpe", "max_drawdown", "total_return")
    values = {name: getattr(simulation, name) for name in names}
    data = {name: None if value != value else value for name, value in values.items()}  # JSON has no NaN
    return Result({**data, "picture": picture}, _lines(values))


# -- The workspace ----------------------------------------------------------------------------------------------------


@_command("heartbeat", "heartbeat --dry-run", "heartbeat --print > checklist.md    # for a host without the file")
@click.option("--workspace", default=".", type=click.Path(exists=True, file_okay=False, resolve_path=True))
@click.option("--print", "only_print", is_flag=True, help="Print the checklist instead.")
@_dry_run
def heartbeat(agent: Agent, workspace: str, only_print: bool, dry_run: bool) -> Result:
    """Add the checklist to the nearest HEARTBEAT.md (the workspace or one of three parents), once.

    The file is never made. With the checklist in it, a host that calls its model at each heartbeat (every 30 minutes,
    say) does so about 48 times a day.
    """
    onboarding = agent.onboarding(True)
    checklist = vars(onboarding)["_HEARTBEAT_STATIC_SECTION"].strip()
    if only_print:
        return Result({"checklist": checklist}, checklist.splitlines())
    found = vars(onboarding)["_find_heartbeat"](workspace)
    if found is None:
        next_step = "Make the file in the root of the workspace: touch HEARTBEAT.md"
        raise Failure("There is no HEARTBEAT.md here or in three parents.", Exit.MACHINE, next_step)
    try:
        missing = _CHECKLIST_TITLE not in Path(found).read_text(encoding="utf-8")
    except UnicodeDecodeError:
        raise Failure(f"{found} is not UTF-8.", Exit.MACHINE, "Convert it to UTF-8, such as with iconv.") from None
    if missing and not dry_run:
        onboarding.inject_heartbeat(workspace)
        if _CHECKLIST_TITLE not in Path(found).read_text(encoding="utf-8"):
            raise Failure(f"{found} cannot be written.", Exit.MACHINE, f"Make it writable: chmod u+w {quote(found)}")
    lines = [f"{found}: {'to be added' if dry_run else 'added'}", *checklist.splitlines()]
    lines = lines if missing else [f"{found} has the checklist."]
    return Result({"path": found, "added": checklist if missing else "", "dry_run": dry_run}, lines)


@_command("agents-md", "agents-md >> AGENTS.md")
def agents_md() -> Result:
    """Print the section for AGENTS.md."""
    from corvane.agent_onboarding import get_agents_md_fragment

    fragment = get_agents_md_fragment()
    return Result({"fragment": fragment}, fragment.splitlines())


# -- Looking after it -------------------------------------------------------------------------------------------------


@_command("doctor", "doctor", "doctor --offline --json")
@click.option("--offline", is_flag=True, help="Do not ask the service.")
def doctor(agent: Agent, offline: bool) -> Result:
    """Examine the wallet, what was downloaded, the service, the clock and the agent host. Nothing is changed."""
    from corvane_cli import doctor as examination

    report = examination.diagnose(agent, not offline)
    code = Exit.ERRORS if report.errors() else Exit.WARNINGS if report.findings else Exit.OK
    return Result(report.data(), report.lines(), code)


@_command("demo", "demo")
def demo() -> Result:
    """Show an agent's first day, with a real service on this machine. Your wallet is not touched."""
    import subprocess

    environment = {name: value for name, value in os.environ.items() if not name.startswith("CORVANE_")}
    command = [sys.executable, "-P", "-m", "corvane_local.demo"]
    if subprocess.run(command, env=environment, stdout=sys.stderr, check=False).returncode:
        raise Failure("The demo has failed.", Exit.FAILED, "The last lines above say at which step, and why.")
    return Result({"passed": True}, ["The demo has passed."])


@_command("completion", "completion bash > corvane.bash && . ./corvane.bash", "completion fish | source")
@click.argument("shell", type=click.Choice(["bash", "zsh", "fish"]))
def completion(shell: str) -> Result:
    """Print what makes a shell complete commands and options."""
    kind = get_completion_class(shell)
    assert kind is not None
    script = kind(main, {}, "corvane", COMPLETION_VARIABLE).source()
    return Result({"script": script}, script.splitlines())


# -- What they share --------------------------------------------------------------------------------------------------


def _who(agent: Agent, address: str | None, *notes: str, **more: Any) -> Result:
    """Which wallet it is, which service, where the key is, and what else there is to say."""
    data = {"address": address, "server_url": agent.server_url, "key": agent.key_source, **more}
    return Result(data, [*_lines(data), *notes])


def _lines(values: dict[str, Any]) -> list[str]:
    shown = {name: f"{value:.4f}" if isinstance(value, float) else value for name, value in values.items()}
    shown = {name: " ".join(value) if isinstance(value, list) else value for name, value in shown.items()}
    return table([(name, value) for name, value in shown.items() if value is not None])


def _paragraphs(findings: "Iterable[Finding]") -> list[str]:
    """The findings for people; each of their texts on one line, whatever names of files and the like it holds."""
    lines = []
    for finding in findings:
        lines += [f"{finding.severity}: {finding.problem}", f"  why: {finding.reason}", f"  next: {finding.next_step}"]
    return lines


def _time(seconds: float) -> str:
    from datetime import UTC, datetime

    return f"{datetime.fromtimestamp(seconds, UTC):%Y-%m-%dT%H:%M:%SZ}"


def _plan(steps: list[str]) -> Result:
    return Result({"dry_run": True, "would": steps}, ["Nothing was done. It would:", *(f"- {step}" for step in steps)])


def _download(agent: Agent) -> str:
    return f"download what has changed at {agent.server_url} to {agent.data_dir}"


def _heartbeat_file(onboarding: ModuleType, wanted: bool) -> str | None:
    return vars(onboarding)["_find_heartbeat"]() if wanted else None


def _usable_key_file(agent: Agent, *refused: str) -> KeyFile:
    """The key file, if the key is there, or may be put there."""
    key = agent.key_file()
    if not agent.env_key and key.state in (refused or ("empty", "malformed", "unsafe", "unreadable")):
        from corvane_cli.doctor import key_findings

        [finding, *_] = key_findings(key)
        raise Failure(f"{finding.problem} Reason: {finding.reason}.", Exit.MACHINE, finding.next_step)
    return key


def _sign_in(agent: Agent, dry_run: bool = False) -> auth.AuthManager:
    key = _usable_key_file(agent)
    if not agent.is_logged_in():
        raise Failure(f"Not logged in at {agent.server_url} with {key.path}.", Exit.NOT_LOGGED_IN, agent.next_step())
    return agent.manager() if dry_run else agent.sign_in(agent.manager())


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
        raise Failure("There is no terminal to ask on.", Exit.USAGE, "`corvane login < FILE` needs none.")
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
    line = content.decode("ascii", "replace").strip()
    remember(line)
    return line


def _sync(agent: Agent, progress: bool | None, wait: float = 0.0) -> list[str]:
    from corvane.sync import SyncManager
    from corvane.sync_backoff import SyncBackoff

    manager = auth.get_active_auth_manager() or agent.manager()

    def sync(wait: float) -> list[str]:
        syncs = SyncManager(manager, str(agent.data_dir), agent.server_url, progress, wait)
        return SyncBackoff(attempts=3, cap=2.0).run(syncs.request_for_sync)

    try:
        return sync(0.0)
    except BlockingIOError as exc:
        if not wait:
            raise
        click.echo(one_line(f"{exc} Waiting for it, {wait:g} s at most."), err=True)
        return sync(wait)


def _bootstrap(agent: Agent, progress: bool | None) -> list[str]:
    """Builds the search runtime of this process; what was downloaded for it."""
    changed = _sync(agent, progress)  # before the kit does, which takes no word about progress bars
    agent.onboarding().ensure_runtime_bootstrapped()
    return changed

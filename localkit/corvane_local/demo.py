"""An agent's first day, step by step, against a real service on this machine.

Each step calls the kit as an agent would, shows what came back, and then checks the effect from outside: the file's
mode, the row in the service's database, the difference in the workspace file. The first check that does not hold ends
the demo with exit status 1. Everything happens in a temporary directory, which is removed.
"""

import difflib
import os
import signal
import sqlite3
import stat
import subprocess
import sys
import tempfile
from collections.abc import Callable
from pathlib import Path

import click

from corvane import agent_onboarding as onboarding
from corvane import auth

WORKSPACE_TEXT = "# Heartbeat\n\n- [ ] Read the mail\n"


class Service:
    """The local service as a process of its own."""

    def __init__(self, state: Path) -> None:
        self.state = state
        self.url = ""
        self._process: subprocess.Popen[str] | None = None

    def start(self) -> None:
        port = self.url.rpartition(":")[2] or "0"  # after a stop, the same address again
        command = [sys.executable, "-P", "-m", "corvane_local", "serve", "--port", port, "--state", str(self.state)]
        self._process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout is not None
        self.url = self._process.stdout.readline().strip()
        check("the service answers with its address", self.url.startswith("https://127.0.0.1:"))

    def stop(self, number: int = signal.SIGTERM) -> None:
        if self._process is not None:
            self._process.send_signal(number)
            self._process.communicate(timeout=15)
            self._process = None

    def invite(self) -> str:
        command = [sys.executable, "-P", "-m", "corvane_local", "invite", "--state", str(self.state)]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()

    def rows(self, query: str, *values: str) -> list[tuple[object, ...]]:
        with sqlite3.connect(f"file:{self.state / 'service.db'}?mode=ro", uri=True) as db:
            return db.execute(query, values).fetchall()


class CheckFailed(Exception):
    """What the demo promised did not happen."""


def check(claim: str, holds: bool) -> None:
    """Prints the claim with its verdict; a claim that does not hold ends the demo."""
    click.echo(f"   {'ok' if holds else 'NOT SO'}: {claim}")
    if not holds:
        raise CheckFailed(claim)


def show(call: str, result: object) -> None:
    click.echo(f"   >>> {call}\n   {result!r}")


def refused(call: str, action: Callable[[], object], kind: type[Exception], message: str) -> None:
    """The action must fail with just this error; its message is what the agent sees."""
    try:
        result = action()
    except Exception as exc:
        click.echo(f"   >>> {call}\n   {type(exc).__name__}: {exc}")
        check(f"the agent sees {kind.__name__}", type(exc) is kind and message in str(exc))
    else:
        show(call, result)
        check(f"the agent sees {kind.__name__}", False)


class Day:
    """The steps of the demo; what one step makes, the next ones use.

    Args:
        root: The temporary directory.
        sabotage: What goes wrong on purpose, to see that the demo notices: "service", "key-file" or "invite".
    """

    def __init__(self, root: Path, sabotage: str | None) -> None:
        self.service = Service(root / "service")
        self.sabotage = sabotage
        self.workspace = root / "workspace"
        self.workspace.mkdir()
        self.home = root / "agent"
        self.key_file = self.home / "wallet.key"
        self.heartbeat = self.workspace / "HEARTBEAT.md"
        self.invite_code = self.address = ""

    def start_the_service(self) -> None:
        """The service starts, with a certificate authority of its own"""
        self.service.start()
        os.environ["SSL_CERT_FILE"] = str(self.service.state / "ca.pem")
        onboarding.configure(server_url=self.service.url)
        show(f"configure(server_url={self.service.url!r})", None)
        check("its directory is for its owner alone", _mode(self.service.state) == 0o700)

    def get_an_invite(self) -> None:
        """The operator makes an invite code"""
        self.invite_code = self.service.invite()
        click.echo(f"   {self.invite_code}")
        unused = self.service.rows("SELECT code FROM invites WHERE used_by IS NULL")
        check("it is in the database, unused", unused == [(self.invite_code,)])

    def register_while_the_service_is_down(self) -> None:
        """The agent registers, but the service is down: the new key is kept"""
        if self.sabotage == "invite":
            other = auth.AuthManager("0x" + "01" * 32, self.service.url, self.invite_code)
            other.authenticate()
        self.service.stop()
        call = f"register({self.invite_code!r}, data_dir='.../agent')"
        message = "Cannot reach Corvane server. Check your network connection and try again."
        refused(call, lambda: onboarding.register(self.invite_code, str(self.home)), ConnectionError, message)
        check(f"wallet.key is there, 64 digits, mode {_mode(self.key_file):o}", self._key_is_safe())
        check("nothing went into HEARTBEAT.md", self.heartbeat.read_text() == WORKSPACE_TEXT)
        self.service.start()

    def register(self) -> None:
        """The service is back: the same call registers the same key"""
        key = self.key_file.read_text()
        if self.sabotage == "service":
            self.service.stop(signal.SIGKILL)
        wallet = onboarding.register(self.invite_code, str(self.home))
        self.address = wallet.address
        show(f"register({self.invite_code!r}, data_dir='.../agent')", wallet)
        click.echo(f"   key file: {self.key_file}, mode {_mode(self.key_file):o}")
        check("the key on disk is the one from before", self._key_is_safe() and self.key_file.read_text() == key)
        users = self.service.rows("SELECT used_by FROM invites WHERE code = ?", self.invite_code)
        check("the service has used the invite for this wallet", users == [(self.address,)])
        check("the service knows the wallet", self._wallets() == [(self.address,)])

    def read_the_heartbeat(self) -> None:
        """HEARTBEAT.md has the checklist"""
        after = self.heartbeat.read_text()
        _show_difference(WORKSPACE_TEXT, after)
        check("what was there is unchanged", after.startswith(WORKSPACE_TEXT + "\n## [Corvane] Search Monitoring\n"))
        check("the checklist has its five items", after.count("- [ ] **") == 5)

    def register_again(self) -> None:
        """Registering again is the same wallet, without an invite"""
        if self.sabotage == "key-file":
            moved = self.key_file.rename(self.home / "elsewhere")
            self.key_file.symlink_to(moved)
        before = self.heartbeat.read_text()
        wallet = onboarding.register()
        show("register()", wallet)
        check("it is the same address", wallet.address == self.address and self._wallets() == [(self.address,)])
        check("HEARTBEAT.md is as it was", self.heartbeat.read_text() == before)

    def login_elsewhere(self) -> None:
        """The same key logs in from another data directory"""
        other = self.home.with_name("second-home")
        onboarding.configure(data_dir=str(other))
        key = self.key_file.read_text()
        token = onboarding.login(key)
        show("configure(data_dir='.../second-home'); login(KEY)", token)
        check("the key was stored there, owner-only", (other / "wallet.key").read_text() == key)
        check("the mode is 600", _mode(other / "wallet.key") == 0o600)
        digests = self.service.rows("SELECT count(*) FROM tokens WHERE address = ?", self.address)
        check("the service gave out one token for each sign-in", digests == [(3,)])
        check("the token does not show", token.token not in repr(token))

    def refuse_a_second_use(self) -> None:
        """Another agent tries the used invite"""
        third = str(self.home.with_name("third-home"))
        message = "Registration failed: This invite code has been used. Contact support if this persists."
        refused(
            f"register({self.invite_code!r}, data_dir='.../third-home')",
            lambda: onboarding.register(self.invite_code, third),
            auth.RegistrationError,
            message,
        )
        check("the service has no second wallet", self._wallets() == [(self.address,)])
        onboarding.configure(data_dir=str(self.home))

    def set_options(self) -> None:
        """Options are checked one by one"""
        onboarding.configure(named_universe=" us_large ")
        show("configure(named_universe=' us_large ')", None)
        check("the name is stored without blanks", _option("named_universe") == "us_large")
        message = "Option 'auto_heartbeat' expects bool, got int."
        refused("configure(auto_heartbeat=1)", lambda: onboarding.configure(auto_heartbeat=1), ValueError, message)
        check("the option is as it was", _option("auto_heartbeat") is True)

    def add_a_nudge(self) -> None:
        """A milestone leaves one line in HEARTBEAT.md, once"""
        before = self.heartbeat.read_text()
        for _ in range(2):
            onboarding.update_nudge("first_signal", count=1)
        show("update_nudge('first_signal', count=1)  # twice", None)
        after = self.heartbeat.read_text()
        _show_difference(before, after)
        nudge = "- [ ] [Corvane] First signal found! Check status for details.\n"
        check("one line was added", after == before + nudge)

    def print_the_fragment(self) -> None:
        """The fragment for AGENTS.md"""
        fragment = onboarding.get_agents_md_fragment()
        click.echo(fragment, nl=False)
        check("it is a section of its own", fragment.startswith("## Corvane Integration\n"))

    def refuse_an_unsafe_key_file(self) -> None:
        """Somebody put a link in place of the key file: it is refused and left alone"""
        victim = self.home / "victim"
        victim.write_text("precious")
        key = self.key_file.rename(self.home / "wallet.key.away")
        self.key_file.symlink_to(victim)
        message = "Refusing to use wallet.key with unsafe ownership, type, or permissions."
        refused("login(KEY)", lambda: onboarding.login(key.read_text()), OSError, message)
        refused("register()", onboarding.register, OSError, message)
        check("what the link points to is untouched", victim.read_text() == "precious")
        self.key_file.unlink()
        key.rename(self.key_file)
        check("with the file put back, register() works", onboarding.register().address == self.address)

    def steps(self) -> list[Callable[[], None]]:
        return [
            self.start_the_service,
            self.get_an_invite,
            self.register_while_the_service_is_down,
            self.register,
            self.read_the_heartbeat,
            self.register_again,
            self.login_elsewhere,
            self.refuse_a_second_use,
            self.set_options,
            self.add_a_nudge,
            self.print_the_fragment,
            self.refuse_an_unsafe_key_file,
        ]

    def _wallets(self) -> list[tuple[object, ...]]:
        return self.service.rows("SELECT address FROM wallets")

    def _key_is_safe(self) -> bool:
        status = self.key_file.lstat()
        digits = self.key_file.read_text()
        return (
            stat.S_ISREG(status.st_mode) and _mode(self.key_file) == 0o600 and len(digits) == len(digits.strip()) == 64
        )


def _option(name: str) -> object:
    return vars(onboarding)["_config"][name]  # the mapping that the kit's modules share


def _mode(path: Path) -> int:
    return stat.S_IMODE(path.lstat().st_mode)


def _show_difference(before: str, after: str) -> None:
    for line in difflib.unified_diff(before.splitlines(), after.splitlines(), "before", "after", lineterm=""):
        click.echo(f"   {line}")


@click.command()
@click.option("--sabotage", type=click.Choice(["service", "key-file", "invite"]), help="Break a step on purpose.")
def main(sabotage: str | None) -> None:
    """Show an agent's first day against a real service on this machine."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the service does not outlive the demo
    click.echo("An agent's first day, with a real service on this machine. Every step is checked from outside.")
    with tempfile.TemporaryDirectory(prefix="corvane-demo-") as temporary:
        day = Day(Path(temporary), sabotage)
        day.heartbeat.write_text(WORKSPACE_TEXT)
        os.chdir(day.workspace)
        try:
            for number, step in enumerate(day.steps(), 1):
                click.echo(f"\n{number}. {step.__doc__}")
                step()
        except Exception as exc:
            if not isinstance(exc, CheckFailed):
                click.echo(f"   {type(exc).__name__}: {exc}")
            click.echo("\ndemo: FAILED in this step")
            raise SystemExit(1) from None
        finally:
            day.service.stop()
            os.chdir("/")
    click.echo(f"\ndemo: all {number} steps hold")


if __name__ == "__main__":
    main()

"""An invite, a wallet, its key file, and the texts in the agent's workspace."""

import difflib
import os
import sqlite3
import stat
from contextlib import closing
from datetime import datetime
from pathlib import Path
from typing import Any

import click

from corvane import agent_onboarding as onboarding
from corvane import auth
from corvane_local.demo.checks import check, mode, option, refused, say, show
from corvane_local.demo.service import Service

REGISTER = "register(data_dir='.../agent')"
REGISTER_AGAIN = "register(os.environ['CORVANE_INVITE_CODE'], data_dir='.../agent')"
WORKSPACE_TEXT = "# Heartbeat\n\n- [ ] Read the mail\n"


class WalletSteps:
    """The steps around the wallet; what one step makes, the next ones use.

    Args:
        service: The service, not started yet.
        home: The agent's data directory.
        workspace: The agent's working directory; gets a HEARTBEAT.md.
        sabotage: What is damaged behind the kit's back: "key-file", "invite" or "heartbeat".
    """

    def __init__(self, service: Service, home: Path, workspace: Path, sabotage: str | None) -> None:
        self.service = service
        self.sabotage = sabotage
        self.home = home
        self.key_file = home / "wallet.key"
        self.heartbeat = workspace / "HEARTBEAT.md"
        self.heartbeat.write_text(WORKSPACE_TEXT)
        self.invite_code = self.address = ""

    def start_the_service(self) -> None:
        """The service starts, with a certificate authority of its own"""
        self.service.start()
        os.environ["SSL_CERT_FILE"] = str(self.service.state / "ca.pem")
        onboarding.configure(server_url=self.service.url)
        show(f"configure(server_url={self.service.url!r})", None)
        check("its directory is for its owner alone", mode(self.service.state) == 0o700)

    def get_an_invite(self) -> None:
        """The operator makes an invite code"""
        self.invite_code = self.service.invite()
        click.echo(f"   {self.invite_code}")
        unused = self.service.rows("SELECT code FROM invites WHERE used_by IS NULL")
        check("it is in the database, unused", unused == [(self.invite_code,)])

    def register_while_the_service_is_down(self) -> None:
        """The agent registers, but the service is down: the new key is kept"""
        self.service.stop()
        os.environ["CORVANE_INVITE_CODE"] = self.invite_code
        error = ConnectionError("Cannot reach Corvane server. Check your network connection and try again.")
        refused(
            REGISTER,
            lambda: onboarding.register(data_dir=str(self.home)),
            error,
            f"{REGISTER_AGAIN}, when the service is back.",
        )
        if self.sabotage == "key-file":
            self.key_file.chmod(0o644)
        check("wallet.key is there: 64 digits, mode 600", self._key_is_safe())
        check("nothing went into HEARTBEAT.md", self.heartbeat.read_text() == WORKSPACE_TEXT)
        self.service.start()

    def register(self) -> None:
        """The service is back: with the code as an argument, the same key is registered"""
        key = self.key_file.read_text()
        # The variable is read only while there is no key, so the same call again would not send the code.
        error, again = auth.AuthError("This wallet is not registered"), f"{REGISTER_AGAIN}."
        refused(REGISTER, lambda: onboarding.register(data_dir=str(self.home)), error, again)
        wallet = onboarding.register(os.environ["CORVANE_INVITE_CODE"], data_dir=str(self.home))
        self.address = wallet.address
        show(REGISTER_AGAIN, wallet)
        click.echo(f"   key file: {self.key_file}, mode {mode(self.key_file):o}")
        check("the key on disk is the one from before", self._key_is_safe() and self.key_file.read_text() == key)
        if self.sabotage == "invite":
            with closing(sqlite3.connect(self.service.state / "service.db")) as db, db:
                db.execute("UPDATE invites SET used_by = NULL")
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
        call = "configure(data_dir='.../second-home'); login(KEY)"
        say(call, f"signed in until {datetime.fromtimestamp(token.expires_at):%H:%M:%S}")
        check("the key was stored there, owner-only", (other / "wallet.key").read_text() == key)
        check("the mode is 600", mode(other / "wallet.key") == 0o600)
        digests = self.service.rows("SELECT count(*) FROM tokens WHERE address = ?", self.address)
        check("the service gave out one token for each sign-in", digests == [(3,)])
        check("the token does not show", token.token not in repr(token))

    def refuse_a_second_use(self) -> None:
        """Another agent tries the used invite"""
        third = str(self.home.with_name("third-home"))
        call = f"register({self.invite_code!r}, data_dir='.../third-home')"
        message = "Registration failed: This invite code has been used. Contact support if this persists."
        error, ask = auth.RegistrationError(message), "ask the operator for another invite code."
        refused(call, lambda: onboarding.register(self.invite_code, third), error, ask)
        check("the service has no second wallet", self._wallets() == [(self.address,)])
        onboarding.configure(data_dir=str(self.home))

    def set_options(self) -> None:
        """Options are checked one by one"""
        onboarding.configure(named_universe=" us_large ")
        show("configure(named_universe=' us_large ')", None)
        check("the name is stored without blanks", option("named_universe") == "us_large")
        error, call = ValueError("Option 'auto_heartbeat' expects bool, got int."), "configure(auto_heartbeat=1)"
        wrong: Any = 1  # a type checker would refuse it, too
        refused(call, lambda: onboarding.configure(auto_heartbeat=wrong), error, "configure(auto_heartbeat=True).")
        check("the option is as it was", option("auto_heartbeat") is True)

    def add_a_nudge(self) -> None:
        """A milestone leaves one line in HEARTBEAT.md, once"""
        before = self.heartbeat.read_text()
        for _ in range(2):
            onboarding.update_nudge("era_change", era=3)
        show("update_nudge('era_change', era=3)  # twice", None)
        if self.sabotage == "heartbeat":
            self.heartbeat.write_text(self.heartbeat.read_text().replace("- [ ] Read", "- [x] Read"))
        after = self.heartbeat.read_text()
        _show_difference(before, after)
        nudge = (
            "- [ ] [Corvane] New era detected. Your search will pause for re-sync. Check status after sync completes.\n"
        )
        check("one line was added, nothing else changed", after == before + nudge)

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
        error = OSError(
            f"Unsafe wallet key at {self.key_file}. "
            "Refusing to use wallet.key with unsafe ownership, type, or permissions."
        )
        put_back = "put the key file back where the link is."
        refused("login(KEY)", lambda: onboarding.login(key.read_text()), error, put_back)
        refused("register()", onboarding.register, error, put_back)
        check("what the link points to is untouched", victim.read_text() == "precious")
        self.key_file.unlink()
        key.rename(self.key_file)
        check("with the file put back, register() works", onboarding.register().address == self.address)

    def _wallets(self) -> list[tuple[object, ...]]:
        return self.service.rows("SELECT address FROM wallets")

    def _key_is_safe(self) -> bool:
        status = self.key_file.lstat()
        digits = self.key_file.read_text()
        return (
            stat.S_ISREG(status.st_mode) and mode(self.key_file) == 0o600 and len(digits) == len(digits.strip()) == 64
        )


def _show_difference(before: str, after: str) -> None:
    for line in difflib.unified_diff(before.splitlines(), after.splitlines(), "before", "after", lineterm=""):
        click.echo(f"   {line}")

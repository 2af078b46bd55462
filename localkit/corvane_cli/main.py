"""The command `corvane` and the list of its commands."""

import click
from click.shell_completion import get_completion_class

# What takes long to import is imported where it is used, so that the rest is quick: see `make bench`.
from corvane_cli.command import COMPLETION_VARIABLE, Group, Result
from corvane_cli.found_commands import report, searches, signals
from corvane_cli.machine_commands import agents_md, demo, doctor, heartbeat
from corvane_cli.search_commands import search, simulate, sync
from corvane_cli.shared import command
from corvane_cli.wallet_commands import login, logout, register, status, whoami


@click.group(
    cls=Group,
    no_args_is_help=False,  # which would be one line of escapes
    context_settings={"help_option_names": ["-h", "--help"], "max_content_width": 110, "show_default": True},
    epilog="""\b
Examples:
  corvane register --invite-code CORV-2222-3333-4444
  corvane login < wallet.key.backup
  corvane status --json
  eval "$(corvane completion bash)"    # or zsh; in fish: corvane completion fish | source""",
)
def main(**_: object) -> None:
    """Join the Corvane signal-search service, and keep the wallet of this machine's agent.

    The key is the one in the environment variable CORVANE_PRIVATE_KEY, which is never stored, or else the one in
    wallet.key of the data directory.
    """


@command("completion", "completion bash > corvane.bash && . ./corvane.bash", "completion fish | source")
@click.argument("shell", type=click.Choice(["bash", "zsh", "fish"]))
def completion(shell: str) -> Result:
    """Print what makes a shell complete commands and options."""
    kind = get_completion_class(shell)
    assert kind is not None
    script = kind(main, {}, "corvane", COMPLETION_VARIABLE).source()
    return Result({"script": script}, script.splitlines())


for _one in (
    *(register, login, logout, whoami, status),
    *(sync, search, simulate, signals, searches, report),
    *(heartbeat, agents_md, doctor, demo, completion),
):
    main.add_command(_one)

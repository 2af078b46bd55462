"""What the program `corvane` starts, also as `python -m corvane_cli`."""

import sys

from corvane_cli import interrupts


def run() -> None:
    """Runs the command and ends the process with its status."""
    interrupts.begin()
    from corvane_cli.main import main  # which takes a while

    status = main.run(sys.argv[1:])
    interrupts.end()
    sys.exit(status)


if __name__ == "__main__":
    run()

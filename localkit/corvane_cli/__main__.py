"""`python -m corvane_cli` is `corvane`."""

from corvane_cli.main import main

main(prog_name="corvane")

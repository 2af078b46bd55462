"""`python -m corvane_local` is the command `corvane-local`."""

from corvane_local.cli import main

main(prog_name="corvane-local")

"""Commands that Ctrl-C hits where its exception gets lost. Argument: which."""

import os
import signal
import sys

from corvane_cli import command, interrupts

interrupts.begin()
group = command.Group("corvane")
add = group.command(cls=command.Command)


def interrupt():
    os.kill(os.getpid(), signal.SIGINT)


class Lost:
    def __del__(self):
        interrupt()


@add
def destructor():
    Lost()


@add
def cleaning():
    try:
        interrupt()
    finally:
        os.close(99)


@add
def text():
    exec("interrupt()", globals())


status = group.run(sys.argv[1:])
interrupts.end()
sys.exit(status)

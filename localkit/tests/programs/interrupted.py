"""Commands that Ctrl-C hits where its exception gets lost. Argument: which."""

import os
import signal
import sys

from corvane_cli import command, interrupts


def interrupt(*_):
    os.kill(os.getpid(), signal.SIGINT)


def destructor():
    type("Lost", (), {"__del__": interrupt})()


def cleaning():
    try:
        interrupt()
    finally:
        os.close(99)


def text():
    exec("interrupt()", globals())


interrupts.begin()
group = command.Group("corvane")
for act in destructor, cleaning, text:
    group.command(cls=command.Command)(act)
status = group.run(sys.argv[1:])
interrupts.end()
sys.exit(status)

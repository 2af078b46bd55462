"""Ctrl-C and the deadline of a command. Imports little, since the launcher holds Ctrl-C back until `begin`.

While a command works, both raise an exception, so that it tidies up. Before and after, while Python imports modules or
ends, an exception could get lost or become a traceback: there Ctrl-C says its line and ends the process at once.
"""

import os
import signal
import sys

STATUS = 130
NEXT_STEP = "Run it again; what was found or downloaded before is kept."

was_interrupted = False
"""Whether Ctrl-C has raised KeyboardInterrupt; tidying up after it may have raised something else instead."""

_raises = False


class OutOfTime(KeyboardInterrupt):
    """The deadline has passed. Passes, as Ctrl-C does, through whatever goes on after an Exception."""


def begin() -> None:
    """Takes care of Ctrl-C, unless it is ignored, as in the background of a shell script."""
    for descriptor in range(3):  # a closed one would be given to the next file that is opened, such as a key file
        try:
            os.fstat(descriptor)
        except OSError:
            os.open(os.devnull, os.O_RDWR)
    if signal.getsignal(signal.SIGINT) is signal.default_int_handler:
        signal.signal(signal.SIGINT, _interrupted)
        sys.unraisablehook = _unraisable
    signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGINT])  # which the launcher has blocked until now


def arm(seconds: float | None) -> None:
    """From now on Ctrl-C raises KeyboardInterrupt, once, and OutOfTime is raised after so many seconds or never."""
    global _raises
    signal.signal(signal.SIGALRM, _out_of_time)
    signal.setitimer(signal.ITIMER_REAL, seconds or 0, 1.0)  # again, should it get lost in a destructor
    _raises = True


def has_deadline() -> bool:
    """Whether OutOfTime will be raised some time."""
    return bool(signal.getitimer(signal.ITIMER_REAL)[0])


def disarm() -> None:
    """Ends what `arm` began."""
    global _raises
    _raises = False
    signal.setitimer(signal.ITIMER_REAL, 0)


def end() -> None:
    """From now on, nothing may be interrupted."""
    # Python believes that nobody has handled a KeyboardInterrupt which has passed through code from a text, such as the
    # methods of a dataclass that was being imported, and would kill itself with SIGINT. More such code makes it forget.
    exec("")
    if signal.getsignal(signal.SIGINT) is _interrupted:
        signal.signal(signal.SIGINT, signal.SIG_IGN)


def report() -> None:
    """Says on stderr that the command was interrupted."""
    text = f"Interrupted. Next: {NEXT_STEP}"
    if "--json" in sys.argv:
        text = f'{{"error": "Interrupted.", "next_step": "{NEXT_STEP}", "exit_status": {STATUS}}}'
    try:
        os.write(2, f"{text}\n".encode())
    except OSError:
        return  # nobody can be told; the exit status still says it


def _interrupted(number: int, frame: object) -> None:
    global _raises, was_interrupted
    if _raises:
        _raises, was_interrupted = False, True  # the second one does not wait for the tidying up
        raise KeyboardInterrupt
    report()
    os._exit(STATUS)


def _out_of_time(number: int, frame: object) -> None:
    if _raises:
        raise OutOfTime


def _unraisable(unraisable: "sys.UnraisableHookArgs") -> None:
    if issubclass(unraisable.exc_type, OutOfTime):
        return  # the next one comes in a second
    if issubclass(unraisable.exc_type, KeyboardInterrupt):  # got lost in a destructor
        report()
        os._exit(STATUS)
    sys.__unraisablehook__(unraisable)

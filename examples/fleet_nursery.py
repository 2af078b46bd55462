"""Forks one process for each agent of a batch; fleet.py has one of Ray's processes run it on each machine.

Importing the kit takes longer than signing an agent up, and a fork has it imported already. What does not survive a
fork is kept out of the process that forks: it has no second thread, no connection and no TLS context, and it never
imports the onboarding module, of which each child needs its own: one process, one wallet.

Reads a job as JSON on standard input, and prints a line of JSON for each agent: its name, whether it is onboarded, and
its address or the error.
"""

import contextlib
import ctypes
import fcntl
import gc
import importlib
import json
import os
import signal
import sys
from collections import deque
from pathlib import Path
from typing import Any

REPLACEMENTS = 3  # how often an agent gets another process for one that was killed
LONGEST_TEXT = 5000  # characters; in JSON less than what a pipe holds, so that no child waits for its text to be read
PRELOADED = """corvane._http corvane.errors corvane.key_file corvane.runtime_module_freshness corvane.skills
    corvane.sync corvane.sync_backoff corvane_cli.identity cryptography.hazmat.primitives.asymmetric.ec dataclasses
    random shutil urllib.request"""
LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1


def end_with(parent: int) -> None:
    """Has the kernel kill this process when its parent ends, however that ends."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:  # it ended before
        os._exit(1)


def onboard(name: str, code: str, job: dict[str, Any]) -> str:
    """Onboards one agent in this process, which must end afterwards; returns the address of its wallet."""
    base, url = Path(job["base"]), job["server_url"]
    # Held until the process ends: no two processes ever work in one directory, not even of two fleets. Not made here:
    # where the file is missing, this machine does not share the base directory.
    lock = os.open(base / job["locks"] / name, os.O_RDWR)
    fcntl.lockf(lock, fcntl.LOCK_EX)
    os.ftruncate(lock, 0)  # an old note would hide that this attempt has failed
    if "corvane.agent_onboarding" in sys.modules:
        raise RuntimeError("This process has onboarded an agent before.")

    from corvane.agent_onboarding import configure, register
    from corvane.auth import AuthError, RegistrationError, _normalize_invite_code
    from corvane.key_file import make_key
    from corvane.sync_backoff import ServiceBusy, SyncBackoff
    from corvane_cli.identity import Agent

    data_dir = base / name
    # Where this process runs says nothing about where the agent will have its HEARTBEAT.md.
    configure(server_url=url, data_dir=str(data_dir), auto_heartbeat=False)

    def attempt() -> str:
        try:
            if (data_dir / "wallet.key").exists():
                try:
                    return register().address
                except AuthError:
                    pass  # a key that was stored, but never signed up, needs the code
            elif _normalize_invite_code(code):
                make_key(data_dir)  # whole on disk, whatever happens, before the service hears of it
            return register(code).address
        except RegistrationError:
            raise
        except AuthError as exc:  # too many failures, a busy database, a proxy's answer: not about the code
            raise ServiceBusy(str(exc)) from exc

    address = SyncBackoff(attempts=job["attempts"]).run(attempt)
    Agent(str(data_dir), url).begin_session(address)  # so that the command and its report know the service
    os.write(lock, f"{url} {address}\n".encode())
    return address


def fork(name: str, code: str, job: dict[str, Any]) -> tuple[int, int]:
    """The number of a new process for an agent, and the descriptor from which its outcome can be read at its end."""
    parent, (outcome, told) = os.getpid(), os.pipe()
    if pid := os.fork():
        os.close(told)
        return pid, outcome
    status = 1
    try:
        end_with(parent)
        os.close(outcome)
        signal.setitimer(signal.ITIMER_REAL, job["time_limit"])  # its signal kills, whatever the process is doing
        try:
            result = True, onboard(name, code, job)
        except Exception as exc:
            result = False, f"{type(exc).__name__}: {exc}"[:LONGEST_TEXT]
        os.write(told, json.dumps(result).encode())
        status = 0
    finally:
        os._exit(status)  # what was buffered before the fork is not flushed twice, what was registered does not run


def main() -> None:
    """Does the job."""
    job = json.load(sys.stdin)
    end_with(job["parent"])
    signal.pthread_sigmask(signal.SIG_SETMASK, ())  # Ray blocks Ctrl-C for its processes
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    os.umask(0o077)
    if job["certificates"] is not None:
        os.environ["SSL_CERT_FILE"] = job["certificates"]
    report = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)  # what a child prints does not belong in the report
    for module in PRELOADED.split():
        with contextlib.suppress(ImportError):  # a child that needs it says so
            importlib.import_module(module)
    if "corvane.agent_onboarding" in sys.modules or len(os.listdir("/proc/self/task")) > 1:
        raise RuntimeError("The kit has imported the onboarding module, or started a thread: no fork would be sound.")
    gc.collect()
    gc.freeze()  # a collection in a child would copy the memory of what is imported
    waiting = deque((name, code, REPLACEMENTS) for name, code in job["agents"])
    running = dict[int, tuple[str, str, int, int]]()
    while waiting or running:
        while waiting and len(running) < job["at_once"]:
            name, code, replacements = waiting.popleft()
            pid, outcome = fork(name, code, job)
            running[pid] = name, code, replacements, outcome
        pid, status = os.wait()
        name, code, replacements, outcome = running.pop(pid)
        with open(outcome, "rb") as pipe:
            told = pipe.read()
        if status == 0:
            onboarded, text = json.loads(told)
        elif status == signal.SIGALRM:
            onboarded, text = False, f"TimeoutError: not done within {job['time_limit']:g} s"
        elif replacements:
            waiting.append((name, code, replacements - 1))
            continue
        else:
            onboarded, text = False, f"ChildProcessError: its processes were killed, the last with status {status}"
        print(json.dumps((name, onboarded, text)), file=report, flush=True)


if __name__ == "__main__":
    main()

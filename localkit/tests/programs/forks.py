"""The command `corvane` in forks of one interpreter that has its libraries imported, which takes most of its time.

Each message on the socket of standard input is a command: arguments, environment, working directory, and the
descriptors that are to be its standard input, output and error. What comes back is its exit status.
"""

import json
import os
import socket
import sys
from importlib import import_module

# Not the onboarding module, which may look at the environment while it is imported.
OURS = "corvane_cli.main corvane_cli.doctor corvane._http corvane.sync corvane.manifest"
THEIRS = "cryptography.hazmat.primitives.asymmetric.ec numpy matplotlib.backends.backend_agg tqdm"
for name in f"{OURS} {THEIRS}".split():
    import_module(name)

requests = socket.socket(fileno=0)
while (received := socket.recv_fds(requests, 2**17, 3))[0]:
    message, descriptors, _, _ = received
    if (child := os.fork()) == 0:
        for number, descriptor in enumerate(descriptors):
            os.dup2(descriptor, number)
        os.closerange(3, 99)
        arguments, environment, directory = json.loads(message)
        os.environ.clear()
        os.environ.update(environment)
        os.chdir(directory)
        sys.argv = ["corvane", *arguments]
        try:
            import_module("corvane_cli.__main__").run()
        except SystemExit as exc:
            sys.stdout.flush()
            os._exit(exc.code)  # without tearing all of it down
    for descriptor in descriptors:
        os.close(descriptor)
    requests.send(str(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])).encode())

"""Functions without end on threads with small stacks. Says what it tries, so that the last line tells where it died."""

import functools
import itertools
import sys
import threading
from unittest import mock

from corvane import agent_onboarding as m

# A call that comes back to itself, and the name through which it does.
CALLS = {
    "sorted": functools.partial(m.configure, colour=1),
    "str": functools.partial(m._exception_chain_detail, "x"),
    "_canonical_data_dir": m.register,
    "_find_heartbeat": m.inject_heartbeat,
    "_read_manifest": functools.partial(m._load_manifest_runtime_module, "x", "x"),
    "_runtime_module_manifest_entries": functools.partial(m._select_runtime_module_manifest_entry, "x", "x"),
    "_safe_named_universe": functools.partial(m._resolve_active_named_universe, "x"),
    "_sha256_file": functools.partial(m._load_extension_from_path, "x", "x"),
    "_wallet_key_path": functools.partial(m._read_wallet_key, "x"),
}


def ends(call):
    try:
        call()
    except RecursionError:
        print("RecursionError")


for (name, call), kibibytes, limit in itertools.product(CALLS.items(), (256, 512, 2048), (1000, 1_000_000)):
    # The second takes much of the C stack on its way back.
    for again in lambda *_: call(), lambda *_: sorted([0, 1], key=lambda number: call()):  # noqa: B023
        print(name, kibibytes, limit, end=": ", flush=True)
        threading.stack_size(kibibytes * 1024)
        thread = threading.Thread(target=ends, args=[call])
        with mock.patch.object(m, name, again, create=True):
            sys.setrecursionlimit(limit)
            thread.start()
            thread.join()
            sys.setrecursionlimit(1000)

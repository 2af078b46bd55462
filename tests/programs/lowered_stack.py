"""The limit of the main thread's stack is lowered after the import, and a call never ends."""

import resource
import types

import corvane.agent_onboarding as m

resource.setrlimit(resource.RLIMIT_STACK, (512 * 1024, resource.RLIM_INFINITY))
m.auth = types.SimpleNamespace(_normalize_invite_code=lambda code: m._resolve_invite_code(code))
try:
    m._resolve_invite_code("x")
except RecursionError:
    print("RecursionError")

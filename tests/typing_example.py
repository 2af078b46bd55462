"""How programs use the module, as a type checker sees it: run by mypy in `make lint`, never executed.

A wrong call is one that mypy must refuse: an ignore that silences nothing is an error.
"""

from collections.abc import Callable
from typing import assert_type

from corvane import agent_onboarding as m

assert_type(m.register(), m.WalletRegistration)
assert_type(m.register("CORV-2222-3333-4444", data_dir="~/agents/one", bootstrap_runtime=True).address, str)
assert_type(m.login("ab" * 32, True).expires_at, float)
do_nothing: list[Callable[[], None]] = [m.inject_heartbeat, m.configure, lambda: m.update_nudge("first_signal", n=1)]

m.login(b"key")  # type: ignore[arg-type]
m.configure(colour=1)  # type: ignore[call-arg]
m.configure(auto_heartbeat=True, data_dir=1)  # type: ignore[arg-type]
m.update_nudge("first_singal")  # type: ignore[arg-type]
print(m.WalletRegistration("0xab").token)  # type: ignore[attr-defined]

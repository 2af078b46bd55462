"""How programs use the module, as a type checker sees it: run by mypy in `make lint`, never executed.

A wrong call is one that mypy must refuse: an ignore that silences nothing is an error.
"""

from collections.abc import Callable
from typing import assert_type

from corvane import agent_onboarding as m
from corvane.runtime_module_freshness import RuntimeFreshnessGuard

assert_type(m.register(), m.WalletRegistration)
assert_type(m.register("CORV-2222-3333-4444", data_dir="~/agents/one", bootstrap_runtime=True).address, str)
assert_type(m.login(private_key="ab" * 32).token, str)
assert_type(m.login("ab" * 32, True).expires_at, float)
assert_type(m.create_runtime_freshness_guard("d"), RuntimeFreshnessGuard)
assert_type(m.ensure_runtime_bootstrapped(strict=False), object)
assert_type(m.get_agents_md_fragment(), str)
assert_type(m.WalletRegistration(address="0xab") == m.WalletRegistration("0xab"), bool)
assert_type(m.AuthToken("secret", expires_at=1.5), m.AuthToken)
do_nothing: list[Callable[[], None]] = [m.inject_heartbeat, m.configure, lambda: m.update_nudge("first_signal", n=1)]

m.login(b"key")  # type: ignore[arg-type]
m.configure("server_url")  # type: ignore[call-arg, arg-type]
m.configure(colour=1)  # type: ignore[call-arg]
m.configure(auto_heartbeat=True, data_dir=1)  # type: ignore[arg-type]
m.update_nudge("first_singal")  # type: ignore[arg-type]
m.update_nudge()  # type: ignore[call-arg]
print(m.WalletRegistration("0xab").token)  # type: ignore[attr-defined]
print(m._config)  # type: ignore[attr-defined]

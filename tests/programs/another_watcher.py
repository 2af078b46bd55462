"""Somebody else watches the namespace, and code of theirs runs after a change was announced and before it is made."""

import _testcapi
import sys

import corvane.agent_onboarding as m


class Value:
    __slots__ = ("number",)


fragment = m._AGENTS_MD_FRAGMENT
_testcapi.watch_dict(_testcapi.add_dict_watcher(1), vars(m))  # a watcher that fails at each event
sys.unraisablehook = lambda unraisable: m.get_agents_md_fragment()
for _ in range(200):
    m._AGENTS_MD_FRAGMENT = value = Value()
    value.number = 7
    del value
    others = [Value() for _ in range(100)]
    assert m.get_agents_md_fragment().number == 7
m._AGENTS_MD_FRAGMENT = fragment
print("the new value")

"""Somebody else has taken every watcher of dictionaries: nothing is remembered, and a patch is seen all the same."""

import _testcapi

try:
    while True:
        _testcapi.add_dict_watcher(0)
except RuntimeError:  # the interpreter has only a few
    import corvane.agent_onboarding as m

for text in "one", "the new value":
    m._AGENTS_MD_FRAGMENT = text
    assert m.get_agents_md_fragment() == text
print(m.get_agents_md_fragment())

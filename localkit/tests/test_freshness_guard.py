"""The freshness guard, with a loader of plain modules; the search's tests and the demo use it with real ones."""

import json
from types import ModuleType, SimpleNamespace

import pytest

from corvane.errors import RuntimeModuleHashMismatch
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.sync import CURRENT_PLATFORM


def test_the_guard_goes_by_the_manifest_of_the_moment(tmp_path):
    def load(name, sha256):
        if sha256 == "broken":
            raise RuntimeModuleHashMismatch("other bytes")
        return ModuleType(name, sha256)

    def refresh(*digests):
        entry = {"kind": "runtime_module:backtester", "platform": CURRENT_PLATFORM}
        files = {f"m/{number}": entry | {"sha256": digest} for number, digest in enumerate(digests)}
        files |= {"a": 5, "b": entry | {"platform": "other", "sha256": "x"}, "c": {"kind": "any", "sha256": "x"}}
        (tmp_path / "manifest.json").write_text(json.dumps({"files": files}))
        return guard.refresh()

    guard = RuntimeFreshnessGuard(data_dir=str(tmp_path), module_loader=load)
    guard.record_loaded_module("backtester", "one")
    live, strong = ModuleType("consumer"), SimpleNamespace()
    for consumer in (strong, ModuleType("gone"), live):
        guard.register_module_consumer("backtester", consumer, "used")
    del consumer
    assert refresh("one") == refresh("one", "two") == refresh(None, "two") == []
    assert refresh("two") == ["backtester"] and live.used is strong.used and live.used.__doc__ == "two"
    with pytest.raises(RuntimeModuleHashMismatch, match="other bytes"):
        refresh("broken")
    assert live.used.__doc__ == "two" and refresh("two") == []

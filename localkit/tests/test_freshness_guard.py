"""The freshness guard, with a loader that keeps a record; the demo uses it with real modules."""

import json
from types import ModuleType, SimpleNamespace

import pytest

from corvane.errors import RuntimeModuleHashMismatch
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.sync import CURRENT_PLATFORM


def test_the_guard_goes_by_the_manifest_of_the_moment(tmp_path):
    def load(name, sha256):
        calls.append(sha256)
        if sha256 == "broken":
            raise RuntimeModuleHashMismatch("other bytes")
        return ModuleType(name, sha256)

    def refresh(*digests, **entries):
        kind = {"kind": "runtime_module:backtester", "platform": CURRENT_PLATFORM}
        files = {f"m/{number}": kind | {"sha256": digest} for number, digest in enumerate(digests)} | entries
        (tmp_path / "manifest.json").write_text(json.dumps({"files": files}))
        return guard.refresh()

    calls, guard = [], RuntimeFreshnessGuard(data_dir=str(tmp_path), module_loader=load)
    live, strong, gone = ModuleType("consumer"), SimpleNamespace(), ModuleType("gone")
    guard.record_loaded_module("backtester", "one", module=ModuleType("backtester"))
    for consumer in (strong, gone, live):
        guard.register_module_consumer("backtester", consumer, "used")
    del gone
    other = {"kind": "runtime_module:backtester", "platform": "other", "sha256": "x"}
    assert refresh("one") == refresh("one", "two", a=5, b=other, c={"kind": "runtime_module:c", "sha256": "x"}) == []
    assert refresh(None, "two") == calls == []
    assert refresh("two") == ["backtester"] and live.used is strong.used and live.used.__doc__ == "two"
    with pytest.raises(RuntimeModuleHashMismatch, match="other bytes"):
        refresh("broken")
    assert live.used.__doc__ == "two" and refresh("two") == [] and calls == ["two", "broken"]
    assert refresh("one") == ["backtester"] and live.used.__doc__ == "one"

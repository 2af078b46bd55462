"""Syncs against the real service: cut downloads, spoilt files, kills; the back-off around them, the guard behind."""

import concurrent.futures
import json
import os
import shutil
import signal
import sys
import threading
import time
from hashlib import sha256
from types import ModuleType, SimpleNamespace

import pytest

from corvane import auth, errors
from corvane.runtime_module_freshness import RuntimeFreshnessGuard
from corvane.sync import CURRENT_PLATFORM, SyncManager
from corvane.sync_backoff import ServiceBusy, SyncBackoff, SyncBackoffCancelled
from corvane_local.store import Store

ANYBODY = SimpleNamespace(get_token=lambda: "token")
OUT_OF_PLACE = ["/etc/x", "../x", "runtime/../x", "runtime\\x", "runtime/\0", "wallet.key", "manifest.json", "C:/x", "",
                "runtime/.x", "runtime//x", "runtime/x.part"]  # fmt: skip


def stored(service, content):
    return service.state / "files" / sha256(content).hexdigest()


def publish(service, files):
    listed = {}
    for path, content in files.items():
        listed[path] = {"kind": "any", "sha256": sha256(content).hexdigest(), "size": len(content)}
        stored(service, content).write_bytes(content)
    return Store(service.state / "service.db").publish("1", listed)


def checked_manifest(home):
    """What manifest.json names is there, and as it says."""
    manifest = json.loads((home / "manifest.json").read_bytes())
    for path, entry in manifest["files"].items():
        assert sha256((home / path).read_bytes()).hexdigest() == entry["sha256"], path
    return manifest


def test_a_cut_download_is_resumed(start, tmp_path):
    home, files = tmp_path / "home", {"runtime/big": os.urandom(1 << 20) * 64, "era_config.json": b"{}"}
    part = home / "runtime/big.part"
    with start() as service, concurrent.futures.ThreadPoolExecutor() as pool:
        manager = service.sign_up(1)
        publish(service, files)
        outcome = pool.submit(SyncManager(manager, home, service.url).sync)
        while not part.exists() or part.stat().st_size < 100_000:
            time.sleep(0.001)
        service.process.kill()
        with pytest.raises(ConnectionError, match="cannot be reached"):
            outcome.result()
    assert 100_000 <= part.stat().st_size < 1 << 26 and not (home / "manifest.json").exists()
    with start() as service:
        publish(service, files)
        with open(stored(service, files["runtime/big"]), "r+b") as file:
            file.write(b"?" * 100_000)  # what is held already; the rest alone is of use
        syncs = SyncManager(manager, home, service.url)
        assert syncs.request_for_sync() == ["era_config.json", "runtime/big"] and syncs.request_for_sync() == []
        assert syncs.get_manifest() == checked_manifest(home)
        (home / "era_config.json").write_bytes(b"[]")  # spoilt on disk
        assert (
            syncs.request_for_sync() == ["era_config.json"] and checked_manifest(home)["files"].keys() == files.keys()
        )


@pytest.mark.parametrize("held", [b"", b"new", b"other", b"much longer than it"])
@pytest.mark.parametrize("served", [b"new twO", b"new tw", b"new two" * 999])
def test_a_spoilt_file_is_refused_and_the_old_era_stays(service, tmp_path, served, held):
    syncs = SyncManager(service.sign_up(1), tmp_path, service.url)
    publish(service, {"runtime/a": b"old a", "runtime/b": b"old b"})
    old = syncs.sync()
    publish(service, {"runtime/a": b"new one", "runtime/b": b"new two"})
    stored(service, b"new two").write_bytes(served)
    (tmp_path / "runtime/b.part").write_bytes(held)
    error = errors.RuntimeModuleHashMismatch if len(served) == 7 else errors.RuntimeModuleDownloadIncomplete
    with pytest.raises(error, match="runtime/b: the manifest says"):
        syncs.sync()
    assert checked_manifest(tmp_path) == old
    stored(service, b"new two").write_bytes(b"new two")
    assert syncs.request_for_sync() == ["runtime/a", "runtime/b"] and checked_manifest(tmp_path) != old


def killed_at(step, syncs):
    """Whether a child of this process was killed just before its sync's n-th step that touches a file."""

    def count(event, args):
        nonlocal step
        step -= (touches := event in ("os.rename", "os.remove", "os.truncate") or str(syncs._root) in str(args[:1]))
        if touches and step < 0:
            os.kill(os.getpid(), signal.SIGKILL)

    if (child := os.fork()) == 0:
        try:
            sys.addaudithook(count)
            syncs.sync()
        finally:
            os._exit(0)  # what did not succeed shows in the manifest
    return os.WIFSIGNALED(os.waitpid(child, 0)[1])


def test_a_kill_at_any_step_leaves_a_true_manifest(service, tmp_path):
    home, step, seen = tmp_path / "home", 0, set()
    files = {"runtime/a": b"old", "runtime/b": b"same", "features/c": b"old", "era_config.json": b"old"}
    publish(service, files)
    syncs = SyncManager(service.sign_up(1), home, service.url)
    syncs.sync()
    shutil.copytree(home, tmp_path / "old")
    version = publish(service, files | {"runtime/a": b"new", "era_config.json": b"new", "features/d": b"new"})
    while killed_at(step, syncs):
        seen.add((checked_manifest(home)["version"] == version, len(checked_manifest(home)["files"])))
        assert syncs.sync() == checked_manifest(home)
        shutil.rmtree(home)
        shutil.copytree(tmp_path / "old", home)
        step += 1
    assert step > 20 and seen == {(False, 4), (False, 2), (True, 5)}
    assert checked_manifest(home)["version"] == version and not list(home.rglob("*.part"))


@pytest.mark.parametrize("path", OUT_OF_PLACE)
def test_paths_out_of_place_are_refused(planned, tmp_path, path):
    entry = {"kind": "", "sha256": "0" * 64, "size": 0}
    manifest = {"era_id": 3, "version": 1, "files": {"runtime/fine": entry, path: entry}}
    planned.plan = [(200, {}, json.dumps(manifest).encode())]
    with pytest.raises(ValueError, match="is not allowed"):
        SyncManager(ANYBODY, tmp_path, planned.url).sync()
    assert [p.name for p in tmp_path.iterdir()] == ["sync.lock"]


def test_back_off_waits_as_asked_and_ends_when_told(planned, tmp_path):
    def outcome(backoff, *plan, url=planned.url):
        planned.plan, planned.asked_at[:] = [(status, {"Retry-After": wait}, b"") for status, wait in plan], []
        with pytest.raises((auth.AuthError, ConnectionError, SyncBackoffCancelled)) as info:
            backoff.run(SyncManager(ANYBODY, tmp_path, url).sync)
        return type(info.value), len(planned.asked_at)

    patient = SyncBackoff(base=0.01, cap=2, attempts=3)
    assert outcome(patient, (503, "1"), (500, "junk"), (401, "")) == (auth.AuthError, 3)  # a refusal is final
    first, second, third = planned.asked_at
    assert 1 <= second - first < 1.8 and third - second < 0.8
    assert outcome(patient, *[(429, "0")] * 3) == (ServiceBusy, 3)
    assert outcome(patient, (429, "60")) == (ServiceBusy, 1)  # longer than we would wait
    assert outcome(patient, url="http://127.0.0.1:1") == (ConnectionError, 0)
    called_off, began = SyncBackoff(cap=60), time.monotonic()
    threading.Timer(0.5, called_off.cancel).start()
    assert outcome(called_off, (503, "60")) == (SyncBackoffCancelled, 1) and 0.4 < time.monotonic() - began < 5


def test_the_guard_goes_by_the_manifest_of_the_moment(tmp_path):
    def load(name, sha256):
        if sha256 == "broken":
            raise errors.RuntimeModuleHashMismatch("other bytes")
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
    with pytest.raises(errors.RuntimeModuleHashMismatch, match="other bytes"):
        refresh("broken")
    assert live.used.__doc__ == "two" and refresh("two") == []

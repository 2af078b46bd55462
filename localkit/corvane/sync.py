"""Keeps the files of the active era on disk as the service publishes them.

At every moment, also after a kill, each file that manifest.json names is there with the SHA-256 that it names. A sync
1. downloads what differs to `NAME.part` and verifies it there (a kill leaves the old era, whole);
2. if files that manifest.json names are to be replaced, takes them out of it first (a kill leaves the old era without
   them, as if they had never been downloaded; an old name with other bytes under it would be a promise broken);
3. renames each `NAME.part` to NAME (a kill leaves files that no manifest names);
4. writes the new manifest.json, with which the new era begins.
The next sync finds what is there and goes on. From 2 to 4 it is a few renames.
"""

import contextlib
import errno
import fcntl
import json
import os
import re
import threading
import time
from collections.abc import Callable, Iterator
from functools import partial
from hashlib import file_digest, sha256
from io import BufferedReader
from pathlib import Path
from typing import TYPE_CHECKING, Any, BinaryIO, NoReturn

from corvane.auth import AuthManager, NotTheServiceError, RequestRefusedError
from corvane.errors import RuntimeModuleDownloadIncomplete, RuntimeModuleHashMismatch
from corvane.key_file import own_file
from corvane.sync_backoff import ServiceBusy

if TYPE_CHECKING:
    from tqdm import tqdm

    from corvane._http import Answer, Service
    from corvane.manifest import FileEntry, Manifest
    from corvane.runtime_module_freshness import RuntimeFreshnessGuard

_HERE = os.uname()
CURRENT_PLATFORM = f"{_HERE.sysname}-{_HERE.machine}".lower()
"""The platform tag of the running process, such as `linux-x86_64`."""

_LONGEST_REASON = 300  # characters

LOCK_SECONDS = 60.0
"""How long a sync waits for one of another process, unless told otherwise."""


class SyncManager:
    """Downloads the files of the active era for one data directory.

    Args:
        am: Gives the token for the service.
        data_dir: The directory; made if it is missing.
        server_url: Base address of the service.
        progress: Whether to show a progress bar on stderr; None shows one on a terminal only.
        wait: How many seconds to wait for a sync of another process to end.
    """

    def __init__(
        self,
        am: AuthManager,
        data_dir: str,
        server_url: str,
        progress: bool | None = None,
        wait: float = LOCK_SECONDS,
    ) -> None:
        self._am = am
        self._root = Path(data_dir).expanduser()
        self._server_url = server_url.rstrip("/")
        self._progress = progress
        self._wait = wait
        self._lock = threading.RLock()
        self._era_callbacks: list[Callable[[int], object]] = []
        self.runtime_freshness_guard: RuntimeFreshnessGuard | None = None
        self._manifest: Manifest | None = None
        self._vocabulary: dict[str, Any] = {}
        self._load()

    def get_manifest(self) -> "Manifest | None":
        """The manifest in use, or None before the first sync."""
        return self._manifest

    def acquire(self) -> None:
        """Waits for a sync of this process to end, and keeps others from starting until `release`."""
        self._lock.acquire()

    def release(self) -> None:
        """Lets syncs start again. Called by the thread that called `acquire`, as often."""
        self._lock.release()

    def register_era_callback(self, callback: Callable[[int], object]) -> None:
        """Has `callback(era_id)` called after each sync that begins another era; its exceptions are logged."""
        self._era_callbacks.append(callback)

    def unregister_era_callback(self, callback: Callable[[int], object]) -> None:
        """Ends what `register_era_callback` began; nothing happens if it did not."""
        with contextlib.suppress(ValueError):
            self._era_callbacks.remove(callback)

    def request_for_sync(self) -> list[str]:
        """Syncs. The relative paths of the files that were new or other ones, sorted."""
        return self._sync()[1]

    def sync(self) -> "Manifest":
        """Makes the files on disk those that the service publishes for this platform.

        Returns:
            The manifest that is in use now: era_id, version, and files by relative path.

        Raises:
            ConnectionError: The service cannot be reached, is busy, or sends too slowly. What has arrived is kept; call
                again.
            BlockingIOError: Another process syncs this directory.
            corvane.auth.RequestRefusedError: The service refuses to hand out the manifest or a file.
            corvane.auth.NotTheServiceError: The manifest is a web page, say, or names a path that is none of its
                business.
            corvane.auth.AuthError: The service refuses the wallet, or its answer makes no sense.
            corvane.errors.RuntimeModuleError: A file is not what the manifest says, or a changed module cannot be
                reloaded by the freshness guard.
            OSError: A file cannot be written.
        """
        return self._sync()[0]

    def _sync(self) -> "tuple[Manifest, list[str]]":
        from corvane._http import Service

        with self._lock, _only_process(self._root, self._wait):
            self._load()  # another process may have synced
            old = self._manifest
            with Service(self._server_url) as service:
                with self._get(service, "/runtime/manifest", {}) as answer:
                    new = self._received_manifest(answer.fields())
                changed = {p: e for p, e in sorted(new["files"].items()) if _digest(self._root / p) != e["sha256"]}
                self._download(service, changed)
            if old is None:
                (self._root / "manifest.json").unlink(missing_ok=True)  # whatever it names, we cannot keep it true
            elif not changed.keys().isdisjoint(old["files"]):
                kept = {path: entry for path, entry in old["files"].items() if path not in changed}
                self._write_manifest({**old, "files": kept})
            for path in changed:
                os.replace(self._part(path), self._root / path)
            if changed or new != old:
                self._write_manifest(new)
            self._load()
        if self.runtime_freshness_guard is not None:
            self.runtime_freshness_guard.refresh()
        if old is None or new["era_id"] != old["era_id"]:
            for callback in list(self._era_callbacks):
                try:
                    callback(new["era_id"])
                except Exception:
                    import logging

                    logging.getLogger(__name__).exception("A callback for a new era failed")
        return new, list(changed)

    def _received_manifest(self, fields: dict[str, Any]) -> "Manifest":
        from pydantic import ValidationError

        try:
            return _checked_manifest(fields)
        except ValidationError as exc:
            wrong = exc.errors(include_url=False, include_input=False)[0]
            what = f"{' '.join(map(str, wrong['loc']))}: {wrong['msg']}"[:_LONGEST_REASON]
            raise NotTheServiceError(f"{self._server_url} sends a manifest that makes no sense: {what}.") from None

    def _load(self) -> None:
        self._manifest, self._vocabulary = None, {}
        with contextlib.suppress(FileNotFoundError, ValueError):  # the next sync writes a damaged one again
            with _opened(self._root / "manifest.json") as file:
                self._manifest = _checked_manifest(file.read())
            for path, entry in sorted(self._manifest["files"].items()):
                if entry["kind"] == "vocabulary":
                    with _opened(self._root / path) as file:
                        content = file.read()
                    if sha256(content).hexdigest() == entry["sha256"] and isinstance(
                        value := json.loads(content), dict
                    ):
                        self._vocabulary = value
                        break

    def _write_manifest(self, manifest: "Manifest") -> None:
        new = self._root / "manifest.json.new"
        with open(new, "wb", opener=_download) as file:
            file.write(json.dumps(manifest, indent=1).encode())
            _flush_to_disk(file)
        os.replace(new, self._root / "manifest.json")

    def _part(self, path: str) -> Path:
        return self._root / f"{path}.part"

    @contextlib.contextmanager
    def _get(self, service: "Service", path: str, headers: dict[str, str]) -> "Iterator[Answer]":
        from urllib.parse import quote

        with service.send("GET", quote(path), {"Authorization": f"Bearer {self._am.get_token()}", **headers}) as answer:
            if answer.is_busy:
                seconds = answer.headers.get("Retry-After", "")
                asked = float(seconds) if re.fullmatch("[0-9]{1,9}", seconds) else None
                raise ServiceBusy(f"The service is away or busy (HTTP {answer.status}).", asked)
            if answer.status not in (200, 206):
                reason = answer.reason(answer.fields())
                raise RequestRefusedError(f"The service refuses {path} (HTTP {answer.status}): {reason}")
            yield answer

    def _download(self, service: "Service", entries: "dict[str, FileEntry]") -> None:
        from tqdm import tqdm

        silent = None if self._progress is None else not self._progress  # None asks whether stderr is a terminal
        total = sum(entry["size"] for entry in entries.values())
        with tqdm(total=total, desc="sync", unit="B", unit_scale=True, disable=silent if entries else True) as bar:
            for path, entry in entries.items():
                self._part(path).parent.mkdir(mode=0o700, parents=True, exist_ok=True)
                # What an earlier sync left may be of another build, which shows in the digest of the whole.
                if not self._complete(service, path, entry, bar):
                    self._complete(service, path, entry, bar)

    def _complete(self, service: "Service", path: str, entry: "FileEntry", bar: "tqdm[NoReturn]") -> bool:
        """Completes and verifies a .part file; False if what an earlier sync left was of no use and is gone."""
        part, size, expected = self._part(path), entry["size"], entry["sha256"]
        held = part.stat().st_size if part.exists() else 0
        bar.update(held)
        if held < size or not part.exists():
            headers = {"Range": f"bytes={held}-", "If-Range": f'"{expected}"'} if held else {}
            with (
                self._get(service, f"/runtime/files/{path}", headers) as answer,
                open(part, "ab", opener=_download) as file,
            ):
                if answer.status == 200:
                    file.truncate(0)
                    bar.update(-held)
                for chunk in answer.chunks():
                    file.write(chunk)
                    bar.update(len(chunk))
                    if file.tell() > size:
                        break
                _flush_to_disk(file)
        received, actual = part.stat().st_size, _digest(part)
        if received == size and actual == expected:
            return True
        part.unlink()
        bar.update(-received)
        if held:
            return False
        if received != size:
            message = (
                f"{path}: the manifest says {size} bytes, the service sends {'more' * (received > size) or received}."
            )
            raise RuntimeModuleDownloadIncomplete(message, relative_path=path, expected_sha256=expected)
        message = f"{path}: the manifest says SHA-256 {expected}, the service sends {actual}."
        raise RuntimeModuleHashMismatch(message, relative_path=path, expected_sha256=expected, actual_sha256=actual)


def _checked_manifest(received: bytes | dict[str, Any]) -> "Manifest":
    """The manifest, with the files for this platform only."""
    from corvane.manifest import MANIFEST

    if isinstance(received, bytes):
        manifest = MANIFEST.validate_json(received, strict=True)
    else:
        manifest = MANIFEST.validate_python(received, strict=True)
    here = {p: e for p, e in manifest["files"].items() if e.get("platform") in (None, "", CURRENT_PLATFORM)}
    return {**manifest, "files": here}


def _digest(path: Path) -> str | None:
    try:
        with _opened(path) as file:
            return file_digest(file, "sha256").hexdigest()
    except (FileNotFoundError, NotADirectoryError):
        return None


_download = partial(own_file, mode=0o666)  # is no secret


def _opened(path: Path) -> BufferedReader:
    """A file to read. What has no end, such as a FIFO or a device, counts as missing, and a sync replaces it."""
    if not path.is_file() and not path.is_dir():
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), str(path))
    return open(path, "rb")


def _flush_to_disk(file: BinaryIO) -> None:
    file.flush()
    os.fsync(file.fileno())


@contextlib.contextmanager
def _only_process(root: Path, wait: float) -> Iterator[None]:
    root.mkdir(mode=0o700, parents=True, exist_ok=True)
    until = time.monotonic() + wait
    with open(root / "sync.lock", "ab", opener=own_file) as file:
        while True:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)  # released when the file is closed, also by a kill
                break
            except BlockingIOError:
                if time.monotonic() >= until:
                    raise BlockingIOError(f"Another sync is running in {root}.") from None
                time.sleep(0.1)
        yield

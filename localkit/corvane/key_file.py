"""Files that are whole on disk before anybody relies on them, above all wallet.key.

`corvane.agent_onboarding.register` makes a key file, too, but writes it in place: a full disk can leave half of a key
whose wallet the service knows. Who calls `make_key` before has the whole key on disk before the service hears of it.
"""

import os
from pathlib import Path


def make_key(data_dir: str | os.PathLike[str]) -> None:
    """Makes wallet.key with a new key, and the directory if it is missing.

    Raises:
        FileExistsError: There is something at its path; it was not touched.
        OSError: The key cannot be written. Then there is no wallet.key.
    """
    root = Path(data_dir)
    root.mkdir(mode=0o700, parents=True, exist_ok=True)
    write_whole(root / "wallet.key", os.urandom(32).hex().encode(), replace=False)
    _flush_directory(root.parent)


def write_whole(path: Path, content: bytes, *, replace: bool) -> None:
    """Makes a file of mode 0600, flushed to disk under its name; after a failure or a kill, all is as it was before.

    The caller sees to it that no two do so at once for the same path. A kill may leave `.NAME.new`, which the next call
    replaces.

    Raises:
        FileExistsError: There is something at the path, and it is not to be replaced.
        OSError: The file cannot be written.
    """
    unshown = memoryview(content)
    del content  # a traceback that is shown with its locals would show the key
    new = path.with_name(f".{path.name}.new")
    new.unlink(missing_ok=True)
    descriptor = os.open(new, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    try:
        with open(descriptor, "wb") as file:
            os.fchmod(descriptor, 0o600)  # whatever the umask takes away
            file.write(unshown)
            file.flush()
            os.fsync(descriptor)
        if replace:
            os.replace(new, path)
        else:
            os.link(new, path)
    finally:
        new.unlink(missing_ok=True)
    _flush_directory(path.parent)


def own_file(path: str, flags: int, mode: int = 0o600) -> int:
    """Opens a file of ours, as the `opener` of `open`: through no link, and without waiting at a FIFO."""
    return os.open(path, flags | os.O_NOFOLLOW | os.O_NONBLOCK, mode)


def _flush_directory(path: Path) -> None:
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)

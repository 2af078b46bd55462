"""Files that a caller names for a result: they replace nothing but an earlier result, and are whole or absent."""

import os
import re
import secrets
import stat
from collections.abc import Iterable, Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from typing import IO

_BEGINNING = 4096  # bytes that tell what a file is


def check_target(
    path: str | os.PathLike[str], kinds: Mapping[str, bytes], what: str, data_dirs: Iterable[str | os.PathLike[str]]
) -> None:
    """Sees to it that a result at this path takes the place of nothing but an earlier result.

    Args:
        path: Where the result is to be.
        kinds: Endings of names, each with a pattern for how such a file begins.
        what: What the result is, such as "PNG or SVG picture"; its last word stands for the whole.
        data_dirs: Directories of identities, into which nothing is written.

    Raises:
        ValueError: The name does not have one of the endings, or is one of a key file; there is something else than a
            regular file of these kinds, such as a link; or the directory is, or lies in, that of an identity.
        OSError: What is there cannot be read.
    """
    target, noun = Path(path), what.rpartition(" ")[2]
    if target.suffix.lower() not in kinds or target.name.startswith("wallet.key"):
        names = " or ".join(f"NAME{ending}" for ending in kinds)
        raise ValueError(f"The {noun} must be named {names}, not {target.name!r}.")
    place, owned = Path(os.path.realpath(target.parent)), {os.path.realpath(directory) for directory in data_dirs}
    for directory in (place, *place.parents):
        if str(directory) in owned or os.path.lexists(directory / "wallet.key"):
            raise ValueError(f"No {noun} is written to {directory}, which belongs to a wallet.")
    try:
        descriptor = os.open(target, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError:
        if place.is_dir():
            return
        raise
    except OSError:
        if not target.is_symlink():
            raise
        raise ValueError(f"{target} is a link, and was not replaced.") from None
    with open(descriptor, "rb", buffering=0) as file:
        is_regular = stat.S_ISREG(os.fstat(descriptor).st_mode)
        beginning = (file.read(_BEGINNING) or b"") if is_regular else b""
    if not any(re.match(magic, beginning) for magic in kinds.values()):
        raise ValueError(f"{target} is not a {what}, and was not replaced.")


@contextmanager
def replacing(path: Path, mode: int = 0o666) -> Iterator[IO[bytes]]:
    """A file that takes the place of the one at the path once it is whole, and leaves that one alone otherwise."""
    new = path.with_name(f".{secrets.token_hex(8)}{path.suffix}")
    descriptor = os.open(new, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, mode)
    try:
        with open(descriptor, "wb") as file:
            yield file
        os.replace(new, path)
    finally:
        new.unlink(missing_ok=True)

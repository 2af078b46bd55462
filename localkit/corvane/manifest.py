"""What a manifest must look like. Apart from `corvane.sync`, so that pydantic is imported only when one is read."""

from typing import Annotated, NotRequired, TypedDict

from pydantic import AfterValidator, NonNegativeInt, StringConstraints, TypeAdapter

_OWN_PLACES = ("runtime", "features", "era_config.json")  # all that a service may write; wallet.key lies beside them


def _check_path(path: str) -> str:
    parts = path.split("/")
    # A leading dot also keeps out "." and ".."; the onboarding module keeps copies under such names.
    has_bad_part = any(not part or part.startswith(".") or part.endswith((".part", ".new")) for part in parts)
    if has_bad_part or not path.isprintable() or "\\" in path or parts[0] not in _OWN_PLACES:
        raise ValueError(f"the path {path!r} is not allowed")
    return path


class FileEntry(TypedDict):
    """One file of a release; the platform is named for native modules only. The size is in bytes."""

    kind: str
    platform: NotRequired[str | None]
    sha256: Annotated[str, StringConstraints(pattern="^[0-9a-f]{64}$")]
    size: NonNegativeInt


class Manifest(TypedDict):
    """The files of the active era, by their relative path; the version goes up with every change."""

    era_id: int
    version: int
    files: dict[Annotated[str, AfterValidator(_check_path)], FileEntry]


MANIFEST = TypeAdapter(Manifest)

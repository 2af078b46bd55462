"""Runs the commands of the pages: each page in a shell and a home of its own, in a clone whose path has blanks.

A block of commands says behind its language what is done with it: `sh run`, `sh slow` (run only with --slow) or
`sh elsewhere` (it needs something that a clone does not have). `python run` is saved as agent.py.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).parents[1]
PAGES = [ROOT / "README.md", *sorted(ROOT.glob("docs/*.md")), ROOT / "localkit/README.md", ROOT / "CONTRIBUTING.md"]
BLOCK = re.compile(r"^```(\w+) (run|slow)\n(.*?)^```$", re.M | re.S)
BEFORE = "set -eu -o pipefail; trap 'kill $(jobs -p) 2>/dev/null || true' EXIT\n"
UNTIL_READY = "for _ in {1..300}; do (exec 3<>/dev/tcp/127.0.0.1/8443) 2>/dev/null && break; sleep 0.1; done\n"


def script_of(page: Path, slow: bool) -> tuple[str, int]:
    """The commands of a page as one script for bash, and how many there are."""
    script, count = BEFORE, 0
    for language, when, text in BLOCK.findall(page.read_text("utf-8")):
        if language == "python":
            script += f"cat >agent.py <<'END OF AGENT'\n{text}END OF AGENT\n"
        elif slow or when == "run":
            commands = re.findall(r"^[^#\s].*$", text, re.M)  # a line that goes on is indented
            script += f"set -x\n{text}{{ set +x; }} 2>/dev/null\n"
            script += UNTIL_READY * any(re.search(r" &( +#.*)?$", command) for command in commands)
            count += len(commands)
    return script, count


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--slow", action="store_true", help="run what takes minutes, too")
    parser.add_argument("pages", nargs="*", type=Path, default=PAGES, help="all by default")
    options = parser.parse_args()
    work = ROOT / "build" / "a path with blanks"
    shutil.rmtree(work, ignore_errors=True)
    subprocess.run(["git", "clone", "--quiet", str(ROOT), str(work / "clone")], check=True)
    total, failed = 0, []
    for number, page in enumerate(options.pages):
        script, count = script_of(page, options.slow)
        home = work / f"home {number}"
        home.mkdir()
        print(f"{page}: {count} commands", flush=True)
        # The interpreter is named: pyenv's are looked for in the home directory.
        environment = {**os.environ, "HOME": str(home), "PYTHON": os.path.realpath(sys.executable)}
        done = subprocess.run(["bash", "-c", script], cwd=work / "clone", env=environment)
        total += count
        failed += [page.name] * (done.returncode != 0)
    if failed:
        sys.exit(f"A command failed in: {', '.join(failed)}")
    print(f"All {total} commands work.")


if __name__ == "__main__":
    main()

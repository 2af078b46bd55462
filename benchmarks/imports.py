"""The import beside that of a plain Python module of the same names, as processor time in fresh interpreters.

Everything that both import is imported before. A second row has 200 other libraries in the process, as agents do: the
search for a handler passes through all that are loaded.
"""

import ast
import inspect
import py_compile
import shutil
import statistics
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from benchmarks.measure import Row
from corvane import agent_onboarding as native
from support import twin

LIBRARIES = 200
RUNS = 15
DECLARATIONS = Path(__file__).parents[1] / "src/agent_onboarding/declarations.py"
PROGRAM = """
import ctypes, glob, linecache, sys, time
import importlib.util, hashlib, json, logging, os, secrets, shutil, stat, urllib.error, urllib.request
import dataclasses, typing
import corvane.auth, corvane.errors, corvane.runtime_module_freshness, corvane.skills, corvane.sync
from importlib import import_module
sys.path.insert(0, sys.argv[1])
for library in glob.glob(sys.argv[1] + "/*.so"):
    ctypes.CDLL(library)
def processor(action, times=1):
    started = time.process_time()
    for _ in range(times): action()
    return (time.process_time() - started) / times
def refused():
    try: module.configure(colour=1)
    except ValueError: pass
print(processor(lambda: import_module(sys.argv[2])))
module = sys.modules[sys.argv[2]]
print(processor(refused, 2000))
"""


def write_twin(path: Path) -> None:
    """The twin as a module that needs nothing of the native one, with its .pyc beside it."""
    source = DECLARATIONS.read_text("utf-8")
    nodes = ast.parse(source).body
    imports = [ast.unparse(node) for node in nodes if isinstance(node, ast.Import | ast.ImportFrom)]
    classes = [ast.unparse(node) for node in nodes if isinstance(node, ast.ClassDef)]
    values = ("_HEARTBEAT_STATIC_SECTION", "_NUDGE_TEXTS", "_AGENTS_MD_FRAGMENT", "_config", "_auth_manager")
    state = [f"{name} = {getattr(native, name)!r}" for name in values]
    functions = inspect.getsource(twin).partition("_config = dict(native._config)")[2]
    assert functions
    path.write_text("\n\n".join([*imports, "logger = logging.getLogger('twin')", *classes, *state, functions]), "utf-8")
    py_compile.compile(str(path), doraise=True)


def import_rows(home: Path) -> Iterator[Row]:
    few, many = home / "few", home / "many"
    assert native.__file__ is not None
    extension = next(Path(native.__file__).parent.glob("*.so"))  # loaded and never initialised
    for folder in few, many:
        folder.mkdir()
        write_twin(folder / "plain_twin.py")
    for number in range(LIBRARIES):
        shutil.copy(extension, many / f"library{number}.so")
    for folder, others in (few, ""), (many, f", {LIBRARIES} other libraries"):
        times: dict[str, list[list[float]]] = {native.__name__: [], "plain_twin": []}
        for _ in range(RUNS):
            for name, taken in times.items():
                command = [sys.executable, "-P", "-c", PROGRAM, str(folder), name]
                done = subprocess.run(command, capture_output=True, text=True, check=True)
                taken.append([float(line) for line in done.stdout.split()])
        pairs = list(zip(*times.values(), strict=True))
        for place, what in enumerate(("import", "configure, refused")):
            middle = statistics.median(ours[place] for ours, _ in pairs)
            ratios = [ours[place] / other[place] for ours, other in pairs]
            yield Row(what + others, "twin, processor time", middle, ratios)

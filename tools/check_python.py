"""Says in one sentence why this interpreter cannot have the extension, if so; any Python from 3.6 on can run it.

Usage: check_python.py [build | version]; prints what a build must know of the interpreter, or its version.
"""

import os
import sys
import sysconfig
from typing import Optional

SUPPORTED = "CPython 3.12, 3.13 and 3.14 with the GIL, on 64-bit Linux with glibc"
NAMES = {"cpython": "CPython", "pypy": "PyPy"}


def what_is_wrong() -> Optional[str]:  # noqa: UP045
    implementation = NAMES.get(sys.implementation.name, sys.implementation.name)
    suffix = sysconfig.get_config_var("EXT_SUFFIX") or ""
    include = sysconfig.get_paths()["include"]
    if implementation != "CPython" or not (3, 12) <= sys.version_info[:2] <= (3, 14):
        return f"{implementation} {'.'.join(map(str, sys.version_info[:3]))}"
    if sysconfig.get_config_var("Py_GIL_DISABLED"):
        return "free-threaded"
    if sys.maxsize < 2**32:
        return "a 32-bit build"
    if sys.platform != "linux" or not suffix.endswith("-linux-gnu.so"):
        return f"for {sysconfig.get_platform()}{' with musl' if 'musl' in suffix else ''}"
    if not os.path.exists(os.path.join(include, "Python.h")):
        return f"without its headers ({include}/Python.h)"
    return None


wrong = what_is_wrong()
if wrong is not None:
    sys.exit(f"corvane.agent_onboarding supports {SUPPORTED}; {sys.executable} is {wrong}.")
if sys.argv[1:] == ["build"]:
    paths = sysconfig.get_paths()
    print(paths["include"], paths["platinclude"], sysconfig.get_config_var("SOABI"), sep=";")
elif sys.argv[1:] == ["version"]:
    print(sys.version.split()[0])

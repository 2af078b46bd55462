"""For all tests: what they write lies in memory, where there is room. Some disks take milliseconds for a directory."""

import os
import shutil
import tempfile

MEMORY = "/dev/shm"


def pytest_configure():
    if "TMPDIR" not in os.environ and os.access(MEMORY, os.W_OK):
        runs = not os.statvfs(MEMORY).f_flag & os.ST_NOEXEC  # native modules are loaded from there, too
        if runs and shutil.disk_usage(MEMORY).free > 1 << 30:
            os.environ["TMPDIR"], tempfile.tempdir = MEMORY, None

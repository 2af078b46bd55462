"""For all tests: what they write lies in memory, where there is room. Some disks take milliseconds for a directory."""

import os
import shutil
import tempfile


def pytest_configure():
    if "TMPDIR" not in os.environ and os.access(memory := "/dev/shm", os.W_OK):
        runs = not os.statvfs(memory).f_flag & os.ST_NOEXEC  # native modules are loaded from there, too
        if runs and shutil.disk_usage(memory).free > 1 << 30:
            os.environ["TMPDIR"], tempfile.tempdir = memory, None

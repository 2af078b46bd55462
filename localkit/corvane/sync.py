"""Which builds of the native runtime modules this process can load."""

import platform

CURRENT_PLATFORM = f"{platform.system()}-{platform.machine()}".lower()
"""The platform tag of the running process, such as `linux-x86_64`."""

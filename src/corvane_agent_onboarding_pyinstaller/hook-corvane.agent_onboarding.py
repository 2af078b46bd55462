"""All that the extension imports, at once or late: PyInstaller cannot look into native code."""

hiddenimports = [
    *("dataclasses", "hashlib", "importlib", "importlib.util", "json", "linecache", "logging", "os", "secrets"),
    *("shutil", "stat", "sys", "types", "typing", "urllib.error", "urllib.request"),
    *("corvane", "corvane.auth", "corvane.errors", "corvane.runtime_module_freshness", "corvane.skills"),
    *("corvane.sync", "corvane._runtime", "corvane.search_templates", "corvane.search_tracking"),
    *("corvane.simulate_signal", "corvane.sync_backoff"),
]

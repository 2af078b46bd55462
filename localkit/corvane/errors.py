"""What can go wrong with native runtime modules."""


class RuntimeModuleError(Exception):
    """A native runtime module cannot be used.

    Args:
        message: What happened.
        module_name: Import name of the module concerned.
        relative_path: Its path below the data directory.
        expected_sha256: The digest that was required, 64 lower-case hexadecimal digits.
        actual_sha256: The digest that was found.
    """

    def __init__(
        self,
        message: str,
        *,
        module_name: str | None = None,
        relative_path: str | None = None,
        expected_sha256: str | None = None,
        actual_sha256: str | None = None,
    ) -> None:
        super().__init__(message)
        self.module_name = module_name
        self.relative_path = relative_path
        self.expected_sha256 = expected_sha256
        self.actual_sha256 = actual_sha256


class RuntimeModuleDownloadIncomplete(RuntimeModuleError):
    """A required file or manifest entry is absent."""


class RuntimeModuleHashMismatch(RuntimeModuleError):
    """The bytes are not those that the manifest promises."""


class RuntimeModuleReloadFailed(RuntimeModuleError):
    """The import itself failed."""

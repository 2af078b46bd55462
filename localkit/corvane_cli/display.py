"""What may reach a terminal or a log: nothing that controls the terminal, and no secret that was handed to the command.

Texts of the service, names of files and arguments are all foreign. Each is shown on one line, whatever it holds.
"""

import json
import os
import re
from typing import Any

HIDDEN = "<hidden>"

# A digit too many or too few, or a letter in front, still shows nearly all of a key.
_KEY = re.compile("(?:0[xX])?[0-9a-fA-F]{60,}")
_CREDENTIALS = re.compile(r"""(?<=://)[^\s'"]*@|[^\s'"/:]+:(?!//)[^\s'"]*@""")

_secrets: set[str] = set()


def remember(text: str) -> None:
    """Notes what looks like a key in something that was handed to the command, so that `hide` finds it everywhere.

    Only what is noted is hidden: the digests of files have as many digits as a key, and must stay readable.
    """
    _secrets.update(match.lower() for match in _KEY.findall(text))
    before, at, _ = text.rpartition("@")
    if at and ":" in before:  # a password may hold anything, also what ends an address
        _secrets.add(before.rpartition("://")[2].lower() + at)


def remember_inputs(args: list[str]) -> None:
    """Notes the secrets among the arguments and in the environment."""
    for text in (*args, *os.environ.values()):
        remember(text)


def hide(text: str) -> str:
    """The text with every secret that was noted, and every password in an address, as `<hidden>`."""
    if "@" not in text and not _KEY.search(text):  # what is noted has one or the other
        return text
    for secret in sorted(_secrets, key=len, reverse=True):
        shown = HIDDEN + "@" * secret.endswith("@")
        text = re.sub(re.escape(secret), shown, text, flags=re.IGNORECASE)
    return _CREDENTIALS.sub(f"{HIDDEN}@", text)


def one_line(text: object) -> str:
    """The text for people: secrets hidden, what does not print escaped as in Python, such as \\n, \\x1b, \\u202e."""
    shown = hide(str(text))
    return shown if shown.isprintable() else "".join(c if c.isprintable() else repr(c)[1:-1] for c in shown)


def as_json(value: Any, indent: int | None = None) -> str:
    """The value for programs, with secrets hidden in its texts."""
    text = json.dumps(_hidden(value), indent=indent, default=lambda other: hide(str(other)), allow_nan=False)
    return text.replace("\x7f", "\\u007f")  # the one control character that JSON leaves alone


def log_to_stderr(level: str, form: str) -> None:
    """Has what the kit logs printed like everything else, unless that was asked for before."""
    import logging

    class SafeFormatter(logging.Formatter):
        def format(self, record: logging.LogRecord) -> str:
            return one_line(super().format(record))

    if not (logger := logging.getLogger("corvane")).handlers:
        handler = logging.StreamHandler()
        handler.setFormatter(SafeFormatter(form))
        logger.addHandler(handler)
        logger.setLevel(level)


def _hidden(value: Any) -> Any:
    if isinstance(value, str):
        return hide(value)
    if isinstance(value, dict):
        return {hide(str(name)): _hidden(member) for name, member in value.items()}
    return [_hidden(member) for member in value] if isinstance(value, list | tuple) else value

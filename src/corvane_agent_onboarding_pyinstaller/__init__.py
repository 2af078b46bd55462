"""Where PyInstaller finds what corvane.agent_onboarding imports; it asks through the entry point pyinstaller40."""

from pathlib import Path


def hook_directories() -> list[str]:
    return [str(Path(__file__).parent)]

"""The Corvane kit, as the local stand-in provides it. `corvane.agent_onboarding` is installed beside it."""

from corvane.skills import list_skills

__all__ = ["list_skills"]
__version__ = "0.1.0"

"""The Corvane kit, as the local stand-in provides it. `corvane.agent_onboarding` is installed beside it."""

from typing import TYPE_CHECKING, Any

from corvane.skills import list_skills

if TYPE_CHECKING:
    from corvane.search_templates import get_search_velocity, get_suggestions, search_status

__all__ = ["get_search_velocity", "get_suggestions", "list_skills", "search_status"]
__version__ = "0.1.0"


def __getattr__(name: str) -> Any:
    # Imported when it is asked for: it imports the onboarding module, which imports modules of this package.
    if name in __all__:
        from corvane import search_templates

        return getattr(search_templates, name)
    hint = ". Call register(bootstrap_runtime=True) first." if name == "simulate_signal" else ""
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}{hint}")

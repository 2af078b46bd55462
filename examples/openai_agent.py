"""An agent of the OpenAI agents SDK that joins the service. A model and its key are needed only once it runs."""

from agents import Agent, function_tool

from corvane.agent_onboarding import get_agents_md_fragment, inject_heartbeat, register, update_nudge


def explain(_context: object, error: Exception) -> str:
    """What the model reads of a failure; the SDK's own text names no cause."""
    return f"{type(error).__name__}: {error}"


strict = (register, inject_heartbeat, get_agents_md_fragment)
tools = [function_tool(function, failure_error_function=explain) for function in strict]
tools.append(function_tool(update_nudge, failure_error_function=explain, strict_mode=False))  # for its ** parameter
agent = Agent(name="corvane", instructions=get_agents_md_fragment(), tools=list(tools))

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

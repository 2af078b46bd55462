"""An agent of the OpenAI agents SDK that spends its first day with the service. A model is needed only once it runs."""

from agents import Agent, function_tool
from corvane_tools import FUNCTIONS, explained

from corvane.agent_onboarding import get_agents_md_fragment


def explain(_context: object, error: Exception) -> str:
    """What the model reads about a failure; the SDK's own text does not name the cause."""
    return explained(error)


tools = [function_tool(function, failure_error_function=explain) for function in FUNCTIONS]
agent = Agent(name="corvane", instructions=get_agents_md_fragment(), tools=list(tools))

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

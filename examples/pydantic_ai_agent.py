"""An agent of pydantic-ai. Name the model when you run it: agent.run_sync(text, model=...)."""

from corvane_tools import FUNCTIONS, raising
from pydantic_ai import Agent, ModelRetry, Tool

from corvane.agent_onboarding import get_agents_md_fragment

# A ModelRetry reaches the model, up to max_retries times in a row; any other exception would end the run.
tools = [Tool[None](raising(ModelRetry, function), max_retries=5) for function in FUNCTIONS]
agent = Agent(instructions=get_agents_md_fragment(), tools=tools)

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

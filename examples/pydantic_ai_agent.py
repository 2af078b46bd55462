"""An agent of pydantic-ai that joins the service. The model is named when it runs: agent.run_sync(text, model=...)."""

from pydantic_ai import Agent, Tool

from corvane.agent_onboarding import get_agents_md_fragment, inject_heartbeat, register, update_nudge

functions = (register, inject_heartbeat, get_agents_md_fragment, update_nudge)
tools = [Tool[None](function) for function in functions]
agent = Agent(instructions=get_agents_md_fragment(), tools=tools)

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

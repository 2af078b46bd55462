"""An agent of google-adk that joins the service. A model and its key are needed only once it runs."""

from google.adk.agents import Agent
from google.adk.tools.function_tool import FunctionTool

from corvane.agent_onboarding import get_agents_md_fragment, inject_heartbeat, register, update_nudge

functions = (register, inject_heartbeat, get_agents_md_fragment, update_nudge)
tools = [FunctionTool(function) for function in functions]
agent = Agent(name="corvane", instruction=get_agents_md_fragment(), tools=list(tools))

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

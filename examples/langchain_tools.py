"""The functions as tools of LangChain: for `model.bind_tools(tools)`, or for an agent."""

from langchain_core.tools import StructuredTool

from corvane.agent_onboarding import get_agents_md_fragment, inject_heartbeat, register, update_nudge

functions = (register, inject_heartbeat, get_agents_md_fragment, update_nudge)
tools = [StructuredTool.from_function(function) for function in functions]

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

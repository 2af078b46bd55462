"""An agent of google-adk that spends its first day with the service. A model is needed only once it runs."""

from typing import Any

from corvane_tools import FUNCTIONS, explained
from google.adk.agents import Agent
from google.adk.agents.run_config import RunConfig, ToolThreadPoolConfig
from google.adk.tools.base_tool import BaseTool
from google.adk.tools.function_tool import FunctionTool
from google.adk.tools.tool_context import ToolContext

from corvane.agent_onboarding import get_agents_md_fragment


def explain(_tool: BaseTool, _given: dict[str, Any], _context: ToolContext, error: Exception) -> dict[str, Any] | None:
    """Turns a failure into a result; otherwise the first failure would end the run."""
    return {"error": explained(error)} if isinstance(error, Exception) else None  # None: the run was cancelled


tools = [FunctionTool(function) for function in FUNCTIONS]
agent = Agent(name="corvane", instruction=get_agents_md_fragment(), tools=list(tools), on_tool_error_callback=explain)
# For runner.run_async(..., run_config=run_config): without it, each call blocks the event loop.
run_config = RunConfig(tool_thread_pool_config=ToolThreadPoolConfig())

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

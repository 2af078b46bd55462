"""A server that any MCP host can start over stdio: python examples/mcp_server.py [address of the service]"""

import functools
import sys
from collections.abc import Callable

from mcp.server import MCPServer
from mcp.server.mcpserver.exceptions import ToolError

from corvane.agent_onboarding import configure, get_agents_md_fragment, inject_heartbeat, register, update_nudge


def explained[**P, R](function: Callable[P, R]) -> Callable[P, R]:
    """Lets the model read why a call failed; of other exceptions than ToolError the SDK tells it nothing."""

    @functools.wraps(function)
    def call(*args: P.args, **kwargs: P.kwargs) -> R:
        try:
            return function(*args, **kwargs)
        except Exception as error:
            raise ToolError(f"{type(error).__name__}: {error}") from error

    return call


server = MCPServer("corvane", instructions=get_agents_md_fragment())
for function in (register, inject_heartbeat, get_agents_md_fragment, update_nudge):
    server.add_tool(explained(function))

if __name__ == "__main__":
    if sys.argv[1:]:
        configure(server_url=sys.argv[1])  # chosen by whoever starts the server, not by a model
    server.run()

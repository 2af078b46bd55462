"""A server that any MCP host can start over stdio: python examples/mcp_server.py [address of the service]"""

import sys

from corvane_tools import FUNCTIONS, raising
from mcp.server import MCPServer
from mcp.server.mcpserver.exceptions import ToolError

from corvane.agent_onboarding import configure, get_agents_md_fragment

server = MCPServer("corvane", instructions=get_agents_md_fragment())
for function in FUNCTIONS:
    server.add_tool(raising(ToolError, function))  # the SDK tells the model nothing about other exceptions

if __name__ == "__main__":
    if sys.argv[1:]:
        configure(server_url=sys.argv[1])  # chosen by whoever starts the server, not by a model
    server.run()

"""The functions as tools of LangChain: for `create_agent(model, tools)`, whose `ainvoke` runs them in threads."""

from corvane_tools import FUNCTIONS, explained, raising
from langchain_core.tools import StructuredTool, ToolException

# A ToolException reaches the model; any other exception would end the run.
tools = [
    StructuredTool.from_function(
        raising(ToolException, function), handle_tool_error=True, handle_validation_error=explained
    )
    for function in FUNCTIONS
]

if __name__ == "__main__":
    print(*(tool.name for tool in tools), sep="\n")

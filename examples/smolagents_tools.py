"""The functions as tools of smolagents, for `CodeAgent(tools=tools, model=...)`: the model sees what they raise."""

from corvane_tools import FUNCTIONS
from smolagents import tool

tools = [tool(function) for function in FUNCTIONS]

if __name__ == "__main__":
    print(*(each.name for each in tools), sep="\n")

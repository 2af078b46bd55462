"""The functions as tools of smolagents: for `CodeAgent(tools=tools, model=...)`."""

from smolagents import tool

from corvane import agent_onboarding as onboarding


@tool  # type: ignore[untyped-decorator]
def inject_heartbeat(working_dir: str | None = None) -> None:
    """Add the checklist to HEARTBEAT.md, once. smolagents wants every argument described; the original's is not.

    Args:
        working_dir: Where to look first; three parents are looked at after it. None is the current directory.
    """
    onboarding.inject_heartbeat(working_dir)


tools = [tool(onboarding.register), tool(onboarding.get_agents_md_fragment), inject_heartbeat]

if __name__ == "__main__":
    print(*(each.name for each in tools), sep="\n")

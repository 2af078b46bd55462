"""The public functions, unchanged, as tools of six agent frameworks: described to a model, called, and working."""

import json
import os
import runpy
import sys
from asyncio import run
from pathlib import Path

import agents
import pytest
import smolagents
from agents.tool_context import ToolContext
from google.adk.tools import FunctionTool
from langchain_core.tools import StructuredTool
from mcp import Client, StdioServerParameters
from mcp.server import MCPServer
from pydantic_ai import Tool

from corvane import _runtime
from corvane import agent_onboarding as native
from corvane.auth import AuthManager
from corvane_local.demo.service import Service

ANY = ToolContext(None, tool_name="any", tool_call_id="1", tool_arguments="")
EXAMPLES, KEY = Path(__file__).parent, f"{7:064x}"
ALL = ["get_agents_md_fragment", "inject_heartbeat", "register", "update_nudge"]  # never login


async def served(server, name=None, given=None):
    async with Client(server) as client:
        if name is None:
            return {tool.name: tool.model_dump() for tool in (await client.list_tools()).tools}
        return (await client.call_tool(name, given)).model_dump()


openai_tool = lambda f, strict=True: agents.function_tool(f, strict_mode=strict, failure_error_function=None)  # noqa: E731
openai_told = lambda t: (t.name, t.description, t.params_json_schema)  # noqa: E731
openai_call = lambda t, given: run(t.on_invoke_tool(ANY, json.dumps(given)))  # noqa: E731
FUNCTIONS = {  # the arguments, and whether the module, the files and the result show that it worked
    "register": ({}, lambda text, file: native._auth_manager.get_wallet_address() in text and "[Corvane]" in file),
    "ensure_runtime_bootstrapped": ({}, lambda text, file: _runtime._runtime),
    "inject_heartbeat": ({"working_dir": "."}, lambda text, file: "## [Corvane]" in file),
    "get_agents_md_fragment": ({}, lambda text, file: native._AGENTS_MD_FRAGMENT.splitlines()[0] in text),
    "configure": ({"named_universe": "one"}, lambda text, file: native._config["named_universe"] == "one"),
    "update_nudge": ({"trigger": "first_signal"}, lambda text, file: native._NUDGE_TEXTS["first_signal"] in file),
}
FRAMEWORKS = {  # what makes a tool, what a model is told of it, what calls it; the functions that it refuses, and how
    "openai": (openai_tool, openai_told, openai_call, {"configure": "strict schema", "update_nudge": "strict schema"}),
    "openai, open": (lambda f: openai_tool(f, strict=False), openai_told, openai_call, {}),
    "langchain": (StructuredTool.from_function, lambda t: (t.name, t.description, t.get_input_jsonschema()),
                  StructuredTool.invoke, {"configure": "Unknown configuration option: 'kwargs'"}),
    "mcp": (lambda f: (server := MCPServer("corvane"), server.add_tool(f))[0], lambda t: run(served(t)),
            lambda t, given: run(served(t, *run(served(t)), given)), {"configure": "Error executing tool configure"}),
    "pydantic-ai": (Tool, lambda t: (t.tool_def, t.function_schema.return_schema), lambda t, given: run(
        t.function_schema.call(t.function_schema.validator.validate_python(given), None)), {}),
    "google-adk": (FunctionTool, lambda t: t._get_declaration().model_dump(), lambda t, given: run(
        t.run_async(args=given, tool_context=None)), {"configure": "None"}),  # called without options: sets none
    "smolagents": (smolagents.tool, lambda t: (t.name, t.description, t.output_type, t.inputs), lambda t, given: t(
        **given), dict.fromkeys(set(FUNCTIONS) - {"register", "get_agents_md_fragment"}, "no description")),
}  # fmt: skip


@pytest.fixture(scope="module", autouse=True)
def service(tmp_path_factory):
    running, home = Service(tmp_path_factory.mktemp("service")), tmp_path_factory.mktemp("home")
    with pytest.MonkeyPatch.context() as patch:
        running.start()
        patch.setenv("SSL_CERT_FILE", str(running.state / "ca.pem"))
        AuthManager(f"0x{KEY}", running.url, running.invite()).authenticate()
        native.configure(server_url=running.url, data_dir=str(home))
        native.login(KEY)
        yield running
        running.stop()


@pytest.mark.parametrize("name", FUNCTIONS)
@pytest.mark.parametrize("framework", FRAMEWORKS)
def test_tool(framework, name, tmp_path, monkeypatch):
    (make, tell, call, refused), (given, worked), told = FRAMEWORKS[framework], FUNCTIONS[name], None
    function, heartbeat = getattr(native, name), tmp_path / "HEARTBEAT.md"
    heartbeat.write_text("# Mine\n")
    monkeypatch.chdir(tmp_path)
    monkeypatch.setitem(native._config, "named_universe", "")
    monkeypatch.setattr(_runtime, "_runtime", None)
    try:
        tool = make(function)
        told = repr(tell(tool))
        given = {"kwargs": given} if "'kwargs': {" in told else given
        text = str(call(tool, {**given, "context": {}} if "'context': {" in told else given))
    except Exception as error:
        text = f"{type(error).__name__}: {error}"
    assert told is None or (name in told and function.__doc__.splitlines()[0] in told)
    assert KEY not in text and native._auth_manager.get_token() not in text
    assert bool(worked(text, heartbeat.read_text())) == (name not in refused) and refused.get(name, "") in text, text


@pytest.mark.parametrize("framework", ["openai", "langchain", "pydantic-ai", "google-adk", "smolagents"])
def test_example(framework, capsys, tmp_path):
    [page] = EXAMPLES.glob(f"{framework.replace('-', '_')}_*.py")
    tools = {tool.name: tool for tool in runpy.run_path(str(page), run_name="__main__")["tools"]}
    assert sorted(capsys.readouterr().out.split()) == sorted(tools) == ALL[: 3 if framework == "smolagents" else 4]
    (tmp_path / "HEARTBEAT.md").touch()
    FRAMEWORKS[framework][2](tools["inject_heartbeat"], {"working_dir": str(tmp_path)})
    assert "## [Corvane]" in (tmp_path / "HEARTBEAT.md").read_text()


def test_example_of_a_server(service, tmp_path):
    command = [str(EXAMPLES / "mcp_server.py"), service.url]
    environment = {**os.environ, "CORVANE_INVITE_CODE": service.invite()}
    started = StdioServerParameters(command=sys.executable, args=command, env=environment, cwd=tmp_path)
    assert sorted(run(served(started))) == ALL
    answer = run(served(started, "register", {"data_dir": str(tmp_path / "new")}))["structured_content"]
    assert service.rows("SELECT 1 FROM wallets WHERE address = ?", answer["address"]) == [(1,)]
    assert len((tmp_path / "new/wallet.key").read_text()) == 64
    assert "FileExistsError: [Errno 17]" in str(run(served(started, "register", {"data_dir": "/dev/null"})))

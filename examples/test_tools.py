"""The public functions, unchanged, as tools of six agent frameworks: indistinguishable from plain Python functions."""

import json
import os
import re
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
from corvane.auth import AuthManager
from corvane_local.demo.service import Service
from support.comparison import files, native, twin

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
    "register": ({}, lambda m, tree, text: m._auth_manager.get_wallet_address() in text and "[Corvane]" in str(tree)),
    "ensure_runtime_bootstrapped": ({}, lambda m, tree, text: _runtime._runtime and "data/manifest.json" in tree),
    "inject_heartbeat": ({"working_dir": "."}, lambda m, tree, text: "## [Corvane]" in str(tree["HEARTBEAT.md"])),
    "get_agents_md_fragment": ({}, lambda m, tree, text: m._AGENTS_MD_FRAGMENT.splitlines()[0] in text),
    "configure": ({"named_universe": "one"}, lambda m, tree, text: m._config["named_universe"] == "one"),
    "update_nudge": ({"trigger": "first_signal"}, lambda m, tree, text: m._NUDGE_TEXTS["first_signal"] in str(tree)),
}  # fmt: skip
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


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    running = Service(tmp_path_factory.mktemp("service"))
    with pytest.MonkeyPatch.context() as patch:
        running.start()
        patch.setenv("SSL_CERT_FILE", str(running.state / "ca.pem"))
        AuthManager(f"0x{KEY}", running.url, running.invite()).authenticate()
        yield running
        running.stop()


@pytest.mark.parametrize("name", FUNCTIONS)
@pytest.mark.parametrize("framework", FRAMEWORKS)
def test_tool(framework, name, service, tmp_path, monkeypatch):
    (make, tell, call, refused), home = FRAMEWORKS[framework], tmp_path / "home"

    def observe(m, function):
        (home / "data").mkdir(parents=True)
        (home / "HEARTBEAT.md").write_text("# Mine\n")
        (home / "data/wallet.key").write_text(KEY)
        monkeypatch.chdir(home)
        options = {**native._config, "server_url": service.url, "data_dir": str(home / "data")}
        for owner, state, value in ((m, "_config", options), (m, "_auth_manager", None), (_runtime, "_runtime", None)):
            monkeypatch.setattr(owner, state, value)
        if name == "ensure_runtime_bootstrapped":
            m.register()
        told, (given, worked) = None, FUNCTIONS[name]
        try:
            told = tell(tool := make(function))
            given = {"kwargs": given} if "'kwargs': {" in repr(told) else given
            text = str(call(tool, {**given, "context": {}} if "'context': {" in repr(told) else given))
        except Exception as error:
            text = f"{type(error).__name__}: {error}"
        tree, token = files(), m._auth_manager.get_token() if m._auth_manager else KEY
        home.rename(tmp_path / m.__name__)  # the other one has the same place
        assert KEY not in text and token not in text
        return bool(worked(m, tree, text)), re.sub(r" at 0x\w+", "", text), told, tree, options

    ours, twins = getattr(native, name), getattr(twin, name)
    same = type(twins)(twins.__code__, vars(twin), name, twins.__defaults__)
    same.__doc__, same.__module__, same.__annotations__ = ours.__doc__, ours.__module__, twins.__annotations__
    twin.WalletRegistration.__doc__ = native.WalletRegistration.__doc__  # goes into a schema, too
    result = observe(native, ours)
    assert result == observe(twin, same) and Path(native.__file__).is_relative_to(sys.prefix)
    assert result[0] == (name not in refused) and refused.get(name, "") in result[1], result[1]


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

"""The public functions, unchanged, as tools of six agent frameworks: indistinguishable from plain Python functions."""

import json
import os
import re
import runpy
import shutil
import sys
import types
from asyncio import run
from functools import partial
from pathlib import Path

import agents
import pytest
import smolagents
from agents.tool_context import ToolContext
from google.adk.models import LlmRequest
from google.adk.tools import FunctionTool
from langchain_core.tools import StructuredTool
from mcp import Client, StdioServerParameters
from mcp.server import MCPServer
from pydantic_ai import Tool

from corvane import _runtime
from corvane_local.demo.service import Service
from differential import native, snapshot, twin

ANY = ToolContext(None, tool_name="any", tool_call_id="1", tool_arguments="")
EXAMPLES, KEY = Path(__file__).parent, f"{7:064x}"
ALL = ["get_agents_md_fragment", "inject_heartbeat", "register", "update_nudge"]  # never login


def server_of(function):
    server = MCPServer("corvane")
    server.add_tool(function)
    return server


async def served(server, name=None, given=None):
    async with Client(server) as client:
        if name is None:
            return {tool.name: tool.model_dump() for tool in (await client.list_tools()).tools}
        return (await client.call_tool(name, given)).model_dump()


def declared(tool):
    request = LlmRequest()
    run(tool.process_llm_request(tool_context=None, llm_request=request))
    return request.config.tools[0].function_declarations[0].model_dump()


openai_tool = partial(agents.function_tool, failure_error_function=None)
openai_told = lambda t: (t.name, t.description, t.params_json_schema)  # noqa: E731
openai_call = lambda t, given: run(t.on_invoke_tool(ANY, json.dumps(given)))  # noqa: E731
STRICT, UNDESCRIBED = "cannot use a strict schema", "the docstring has no description for the argument"
FRAMEWORKS = {  # what makes a tool, what a model is told of it, what calls it; the functions that it refuses, and how
    "openai": (openai_tool, openai_told, openai_call, {"configure": STRICT, "update_nudge": STRICT}),
    "openai, open": (partial(openai_tool, strict_mode=False), openai_told, openai_call, {}),
    "langchain": (
        StructuredTool.from_function, lambda t: (t.name, t.description, t.get_input_jsonschema()),
        lambda t, given: t.invoke(given), {"configure": "Unknown configuration option: 'kwargs'"}),
    "mcp": (
        server_of, lambda t: run(served(t)), lambda t, given: run(served(t, *run(served(t)), given)),
        {"configure": "Error executing tool configure"}),
    "pydantic-ai": (
        Tool, lambda t: (t.tool_def, t.function_schema.return_schema),
        lambda t, g: run(t.function_schema.call(t.function_schema.validator.validate_python(g), None)), {}),
    "google-adk": (  # drops what ** would take, and calls
        FunctionTool, declared, lambda t, given: run(t.run_async(args=given, tool_context=None)), {"configure": "None"}),
    "smolagents": (
        smolagents.tool, lambda t: (t.name, t.description, t.output_type, t.inputs), lambda t, given: t(**given),
        dict.fromkeys(("ensure_runtime_bootstrapped", "inject_heartbeat", "configure", "update_nudge"), UNDESCRIBED)),
}  # fmt: skip
FUNCTIONS = {  # the arguments, and whether the module, the files and the result show that it worked
    "register": ({"invite_code": ...}, lambda m, tree, text: m._auth_manager.get_wallet_address() in text
                 and tree["data/wallet.key"][0] == "0o100600" and "## [Corvane]" in str(tree["HEARTBEAT.md"])),
    "ensure_runtime_bootstrapped": ({}, lambda m, tree, text: _runtime._runtime and "data/manifest.json" in tree),
    "inject_heartbeat": ({"working_dir": "."}, lambda m, tree, text: "## [Corvane]" in str(tree["HEARTBEAT.md"])),
    "get_agents_md_fragment": ({}, lambda m, tree, text: m._AGENTS_MD_FRAGMENT.splitlines()[0] in text),
    "configure": ({"named_universe": "one"}, lambda m, tree, text: m._config["named_universe"] == "one"),
    "update_nudge": ({"trigger": "first_signal"}, lambda m, tree, text: m._NUDGE_TEXTS["first_signal"] in str(tree)),
}  # fmt: skip


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    running = Service(tmp_path_factory.mktemp("service"))
    with pytest.MonkeyPatch.context() as patch:
        running.start()
        patch.setenv("SSL_CERT_FILE", str(running.state / "ca.pem"))
        patch.setenv("CORVANE_INVITE_CODE", running.invite())
        yield running
        running.stop()


@pytest.mark.parametrize("name", FUNCTIONS)
@pytest.mark.parametrize("framework", FRAMEWORKS)
def test_tool(framework, name, service, tmp_path, monkeypatch):
    make, tell, call, refused = FRAMEWORKS[framework]

    def observe(m, function):
        shutil.rmtree(tmp_path)
        (tmp_path / "data").mkdir(parents=True)
        (tmp_path / "HEARTBEAT.md").write_text("# Mine\n")
        (tmp_path / "data/wallet.key").write_text(KEY)
        monkeypatch.chdir(tmp_path)
        options = {**native._config, "named_universe": "", "server_url": service.url, "data_dir": str(tmp_path / "data")}
        for owner, state, value in ((m, "_config", options), (m, "_auth_manager", None), (_runtime, "_runtime", None)):
            monkeypatch.setattr(owner, state, value)
        code, (given, worked), told = os.environ["CORVANE_INVITE_CODE"], FUNCTIONS[name], None
        if name == "ensure_runtime_bootstrapped":
            m.register(code)
        try:
            told = tell(tool := make(function))
            given = {key: code if value is ... else value for key, value in given.items()}
            given = {"kwargs": given} if "'kwargs': {" in repr(told) else given
            text = str(call(tool, {**given, "context": {}} if "'context': {" in repr(told) else given))
        except Exception as error:
            text = f"{type(error).__name__}: {error}"
        tree, token = snapshot(tmp_path), m._auth_manager.get_token() if m._auth_manager else KEY
        assert KEY not in text and token not in text
        return bool(worked(m, tree, text)), re.sub(r" at 0x\w+", "", text), told, tree, options

    ours, twins = getattr(native, name), getattr(twin, name)
    same = types.FunctionType(twins.__code__, vars(twin), name, twins.__defaults__)
    same.__doc__, same.__module__, same.__annotations__ = ours.__doc__, ours.__module__, twins.__annotations__
    twin.WalletRegistration.__doc__ = native.WalletRegistration.__doc__  # goes into a schema, too
    result = observe(native, ours)
    assert result == observe(twin, same) and Path(native.__file__).is_relative_to(sys.prefix)
    assert result[0] == (name not in refused) and refused.get(name, "") in result[1], result[1]


@pytest.mark.parametrize("page", ["openai_agent", "langchain_tools", "pydantic_ai_agent", "google_adk_agent", "smolagents_tools"])
def test_example(page, capsys, tmp_path):
    tools = runpy.run_path(str(EXAMPLES / f"{page}.py"), run_name="__main__")["tools"]
    assert sorted(capsys.readouterr().out.split()) == (ALL[:3] if page == "smolagents_tools" else ALL)
    (tmp_path / "HEARTBEAT.md").touch()
    [heartbeat] = (tool for tool in tools if tool.name == "inject_heartbeat")
    FRAMEWORKS[page.replace("_", "-").rsplit("-", 1)[0]][2](heartbeat, {"working_dir": str(tmp_path)})
    assert "## [Corvane]" in (tmp_path / "HEARTBEAT.md").read_text()


def test_example_of_a_server(service, tmp_path):
    command = [str(EXAMPLES / "mcp_server.py"), service.url]
    started = StdioServerParameters(command=sys.executable, args=command, env=dict(os.environ), cwd=tmp_path)
    assert sorted(run(served(started))) == ALL
    answer = run(served(started, "register", {"data_dir": str(tmp_path / "new")}))["structured_content"]
    assert service.rows("SELECT 1 FROM wallets WHERE address = ?", answer["address"]) == [(1,)]
    assert len((tmp_path / "new/wallet.key").read_text()) == 64
    [content] = run(served(started, "register", {"data_dir": "/dev/null"}))["content"]
    assert "FileExistsError: [Errno 17]" in content["text"]

"""The examples for six agent frameworks: what a scripted model reads on its first day, and what is then on disk."""

import contextlib
import json
import logging
import os
import re
import runpy
import sys
from asyncio import run
from pathlib import Path
from typing import get_args

import agents
import pytest
import smolagents
from google.adk.agents import LlmAgent
from google.adk.models import BaseLlm, LlmResponse
from google.adk.runners import InMemoryRunner
from google.genai import types
from langchain.agents import create_agent
from langchain_core.language_models import BaseChatModel
from langchain_core.messages import AIMessage
from langchain_core.outputs import ChatGeneration, ChatResult
from mcp import Client, StdioServerParameters
from mcp.server import MCPServer
from mcp.server.mcpserver.tools import Tool
from openai.types.responses import ResponseFunctionToolCall, ResponseOutputMessage
from pydantic_ai import Agent, ModelResponse, TextPart, ToolCallPart
from pydantic_ai.models.function import FunctionModel

from corvane import _runtime, search_templates
from corvane import agent_onboarding as native
from corvane.auth import AuthManager
from corvane_local.demo.service import Service

EXAMPLES = Path(__file__).parent
ALL = ["get_agents_md_fragment", "inject_heartbeat", "register", "search", "search_status", "simulate", "update_nudge"]


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    running = Service(tmp_path_factory.mktemp("service"))
    with pytest.MonkeyPatch.context() as patch:
        running.start()
        patch.setenv("SSL_CERT_FILE", str(running.state / "ca.pem"))
        yield running
        running.stop()


@pytest.fixture
def work(service, tmp_path, monkeypatch):
    """The workspace of an agent that has done nothing yet."""
    (tmp_path / "HEARTBEAT.md").write_text("# Mine\n")
    monkeypatch.chdir(tmp_path)
    monkeypatch.syspath_prepend(EXAMPLES)
    options = {"server_url": service.url, "data_dir": str(tmp_path / "agent"), "auto_heartbeat": True}
    monkeypatch.setattr(native, "_config", native._config | options)
    for owner, name in ((native, "_auth_manager"), (_runtime, "_runtime"), (search_templates, "_library_runtime")):
        monkeypatch.setattr(owner, name, None)
    return tmp_path


# A model reads what each call came to, then makes the next one of a script: `told` returns its name and arguments, or
# None at the end.


async def drive_openai(page, told):
    class Model(agents.Model):
        stream_response = None

        async def get_response(self, system_instructions, input, *_, **__):
            call = told(input[-1]["output"] if isinstance(input, list) and "output" in input[-1] else None)
            if call:
                given = {"name": call[0], "arguments": json.dumps(call[1]), "call_id": os.urandom(4).hex()}
                output = ResponseFunctionToolCall(type="function_call", **given)
            else:
                content = [{"annotations": [], "text": "Done.", "type": "output_text"}]
                said = {"id": "m", "content": content, "role": "assistant", "status": "completed"}
                output = ResponseOutputMessage(type="message", **said)
            return agents.ModelResponse(output=[output], usage=agents.Usage(), response_id=None)

    agents.set_tracing_disabled(True)
    await agents.Runner.run(page["agent"].clone(model=Model()), "Begin.", max_turns=30)


async def drive_langchain(page, told):
    class Model(BaseChatModel):
        _llm_type = "scripted"

        def bind_tools(self, tools, **_):
            return self

        def _generate(self, messages, *_, **__):
            call = told(messages[-1].content if messages[-1].type == "tool" else None)
            calls = [{"name": call[0], "args": call[1], "id": os.urandom(4).hex()}] if call else []
            message = AIMessage("" if call else "Done.", tool_calls=calls)
            return ChatResult(generations=[ChatGeneration(message=message)])

    await create_agent(Model(), page["tools"]).ainvoke({"messages": [("user", "Begin.")]}, {"recursion_limit": 99})


async def drive_mcp(page, told):
    async with Client(page["server"]) as client:
        call = told(None)
        while call:
            call = told("".join(part.text for part in (await client.call_tool(*call)).content))


async def drive_pydantic_ai(page, told):
    async def model(messages, info):
        part = messages[-1].parts[-1]
        call = told(part.model_response_str() if part.part_kind == "tool-return" else str(part.content))
        return ModelResponse(parts=[ToolCallPart(*call) if call else TextPart("Done.")])

    await page["agent"].run("Begin.", model=FunctionModel(model))


async def drive_google_adk(page, told):
    class Model(BaseLlm):
        async def generate_content_async(self, request, stream=False):
            answer = request.contents[-1].parts[-1].function_response
            call = told(answer and json.dumps(answer.response))
            part = types.Part.from_function_call(name=call[0], args=call[1]) if call else types.Part(text="Done.")
            yield LlmResponse(content=types.Content(role="model", parts=[part]))

    runner = InMemoryRunner(page["agent"].clone({"model": Model(model="scripted")}))
    await runner.run_debug("Begin.", run_config=page["run_config"], quiet=True)


async def drive_smolagents(page, told):
    class Model(smolagents.Model):
        def generate(self, messages, **_):
            name, given = told(str(messages[-1].content)) or ("final_answer", {"answer": "Done."})
            function = smolagents.models.ChatMessageToolCallFunction(name=name, arguments=given)
            call = smolagents.models.ChatMessageToolCall(function=function, id=os.urandom(4).hex(), type="function")
            return smolagents.ChatMessage(role="assistant", content="", tool_calls=[call])

    smolagents.ToolCallingAgent(page["tools"], Model(), max_steps=30, verbosity_level=0).run("Begin.")


REFUSED = "ValueError: Unknown|ValidationError: .*first_signal|Input should be .*first_signal|Invalid JSON input"
FIRST_DAY = [  # what happens before, what the model calls, and what it then reads
    ("", "search", {"seed": 7}, "RuntimeError: There is no runtime"),
    ("stop", "register", {}, "ConnectionError: Cannot reach Corvane server"),
    ("start", "register", {}, "RegistrationError: Registration failed: This invite code has been used"),
    ("invite", "register", {}, r"Signed in\. The address of the wallet is 0x[0-9a-f]{40}"),
    ("", "search", {"seed": 7, "max_evaluations": 1500}, "Tried 1500 expressions, found [1-9][0-9]* new signals:.*1: "),
    ("", "search_status", {}, "No search is running. Signals stored: [1-9]"),
    ("", "simulate", {"signal_id": 1}, "Sharpe ratio -?[0-9]"),
    ("", "update_nudge", {"trigger": "no_such"}, REFUSED),
    ("", "update_nudge", {"trigger": "era_change"}, "The line was added to .*HEARTBEAT.md"),
    ("", "update_nudge", {"trigger": "first_signal"}, "HEARTBEAT.md is unchanged"),
    ("", "inject_heartbeat", {}, "The checklist is in .*HEARTBEAT.md"),
]  # fmt: skip
DRIVERS = {"openai": drive_openai, "langchain": drive_langchain, "mcp": drive_mcp, "pydantic_ai": drive_pydantic_ai,
           "google_adk": drive_google_adk, "smolagents": drive_smolagents}  # fmt: skip


@pytest.mark.parametrize("framework", DRIVERS)
def test_a_model_does_the_first_day(framework, service, work, monkeypatch, caplog, capsys):
    [path] = EXAMPLES.glob(f"{framework}_*.py")
    page = runpy.run_path(str(path), run_name="page" if framework == "mcp" else "__main__")
    assert framework == "mcp" or sorted(capsys.readouterr().out.split()) == ALL
    texts = native._NUDGE_TEXTS
    assert set(get_args(sys.modules["corvane_tools"].Trigger)) == set(texts)
    codes = service.command("invite", "--count", "2").split()
    AuthManager(f"0x{os.urandom(32).hex()}", service.url, codes[0]).authenticate()
    monkeypatch.setenv("CORVANE_INVITE_CODE", codes[0])
    before = {"": lambda: None, "stop": service.stop, "start": service.start}
    before["invite"] = lambda: monkeypatch.setenv("CORVANE_INVITE_CODE", codes[1])
    read, steps = [], iter(FIRST_DAY)

    def told(text):
        read.append(text)
        if (step := next(steps, None)) is None:
            return None
        before[step[0]]()
        return step[1], step[2]

    with caplog.at_level(logging.INFO, native.__name__):
        run(DRIVERS[framework](page, told))
    for text, (_, name, given, expected) in zip(read[1:], FIRST_DAY, strict=True):
        assert re.search(expected, text, re.DOTALL), (name, given, text)
    lines = (work / "HEARTBEAT.md").read_text().splitlines()
    assert lines[0] == "# Mine" and "## [Corvane] Search Monitoring" in lines and texts["era_change"] in lines
    assert lines.count(texts["first_signal"]) == 1 and texts["strategy_unlock"] not in lines
    [address] = re.findall("0x[0-9a-f]{40}", "".join(read[4]))
    assert service.rows("SELECT address FROM wallets WHERE address = ?", address) == [(address,)]
    key, token = (work / "agent/wallet.key").read_text(), native._auth_manager.get_token()
    assert not [secret for secret in (key, token, *codes) for text in read[1:] if secret in text]
    [loaded] = (record for record in caplog.records if "Loaded per-era backtester" in record.getMessage())
    assert (loaded.threadName == "MainThread") == (framework == "smolagents")  # the others do not block the event loop


def test_example_of_a_server(service, work):
    command = [str(EXAMPLES / "mcp_server.py"), service.url]
    environment = {**os.environ, "CORVANE_INVITE_CODE": service.invite(), "HOME": str(work)}
    started = StdioServerParameters(command=sys.executable, args=command, env=environment, cwd=work)

    async def session():
        async with Client(started) as client:
            assert sorted(tool.name for tool in (await client.list_tools()).tools) == ALL
            return str(await client.call_tool("register", {}))

    address, *_ = re.findall("0x[0-9a-f]{40}", run(session()))
    assert service.rows("SELECT 1 FROM wallets WHERE address = ?", address) == [(1,)]


UNWRAPPED = {  # what an example would define, with a function of the module as its only tool
    "openai": lambda function: {"agent": agents.Agent("any", tools=[agents.function_tool(function)])},
    "langchain": lambda function: {"tools": [function]},
    "mcp": lambda function: {"server": MCPServer("any", tools=[Tool.from_function(function)])},
    "pydantic_ai": lambda function: {"agent": Agent(tools=[function])},
    "google_adk": lambda function: {"agent": LlmAgent(name="any", tools=[function]), "run_config": None},
    "smolagents": lambda function: {"tools": [smolagents.tool(function)]},
}
GIVEN = {"inject_heartbeat": {"working_dir": "."}, "update_nudge": {"trigger": "first_signal"},
         "configure": {"named_universe": "one"}}  # fmt: skip
TABLE = (EXAMPLES.parent / "docs/agents.md").read_text().partition("unwrapped\n")[2]
HEAD, _, *ROWS = [line.strip("| ").split(" | ") for line in TABLE.splitlines() if line.startswith("|")]
SAID = [(framework, name, cell == "yes") for framework, row in zip(DRIVERS, ROWS, strict=True)
        for names, cell in zip(HEAD, row, strict=True) for name in re.findall("`(.*?)`", names)]  # fmt: skip


@pytest.mark.parametrize(("framework", "name", "works"), SAID)
def test_the_page_says_which_functions_are_tools_as_they_are(framework, name, works, service, work, monkeypatch):
    monkeypatch.setenv("CORVANE_INVITE_CODE", service.invite())
    if name == "ensure_runtime_bootstrapped":
        native.register()

    def told(text):
        read.append(text)
        return next(calls, None)

    def seen():
        return dict(native._config), {path: path.read_bytes() for path in work.rglob("*") if path.is_file()}

    read, calls, before = [], iter([(name, GIVEN.get(name, {}))]), seen()
    with contextlib.suppress(Exception):  # then there is no effect
        run(DRIVERS[framework](UNWRAPPED[framework](getattr(native, name)), told))
    assert works == (seen() != before or native._AGENTS_MD_FRAGMENT.splitlines()[0] in str(read))

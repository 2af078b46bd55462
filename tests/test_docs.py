"""The documentation says what is there: messages, links, commands, keywords, an example that runs, the picture."""

import re
import runpy
from pathlib import Path

import pytest

from corvane_cli.main import main as corvane
from corvane_local.cli import main as corvane_local

ROOT = Path(__file__).parents[1]
PAGES = {page: page.read_text("utf-8") for glob in ("*.md", "docs/*.md", "localkit/*.md") for page in ROOT.glob(glob)}
SOURCES = {source.name: source.read_text("utf-8") for source in (ROOT / "src/agent_onboarding").glob("*.cpp")}
KIT_PAGE = PAGES[ROOT / "docs/developing-the-kit.md"]
COMMANDS = {"corvane": corvane.commands, "corvane-local": corvane_local.commands}
FENCE = "(cpp|json|text|python( run)?)|sh (run|slow|elsewhere)"  # see tools/run_pages.py
NO_MESSAGES = ("[Corvane]", "## Corvane", "Bearer ", "Agent onboarding subcomponent", "AuthToken(token=")


def phrases(text, placeholder):
    """The fixed words of a message, between its values."""
    return {part.strip(" :;,.'") for part in re.split(placeholder, text) if re.search("[A-Za-z]", part)}


def test_every_message_is_explained():
    said, explained = set(), set()
    for source in SOURCES.values():
        code = re.sub(r'"\s*\n\s*"', "", re.sub(r"^\s*(//|#).*| // .*", "", source, flags=re.M))
        for literal in re.findall(r'"((?:[^"\\\n]|\\.)*)"', code):
            if " " in literal and not any(text in literal for text in NO_MESSAGES):
                said |= phrases(literal, "%s")
    rows = re.findall(
        r"^\| `([^`]+)`(.*)",
        PAGES[ROOT / "docs/operating.md"].partition("## Messages")[2].partition("### From the local kit")[0],
        re.M,
    )
    for message, rest in rows:
        assert re.fullmatch(r"[^|]*\| [^| ][^|]*\| [^| ][^|]* \|", rest), f"no cause or no next step: {message}"
        explained |= phrases(message, "<[a-z]+>")
    assert explained == said and len(said) > 60


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_links_and_commands_exist(page):
    for link, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", PAGES[page]):
        target = (page.parent / link).resolve() if link else page
        assert target.exists(), link
        headings = re.findall(r"^#+ (.*)", PAGES.get(target, ""), re.M)
        assert not anchor or anchor in [re.sub(r"[^\w-]", "", h.lower().replace(" ", "-")) for h in headings], anchor
    targets = re.findall(r"^([a-z-]+):", (ROOT / "Makefile").read_text(), re.M)
    for made in re.findall(r"(?:^|`)make ((?:[a-z-]+ ?)+)", PAGES[page], re.M):
        assert set(made.split()) <= set(targets)
    called = r"(?:^|[`(/]|&& |, )(corvane(?:-local)?) ([a-z][a-z-]*)([^`#,;&|<()\n]*)"
    for program, name, arguments in re.findall(called, PAGES[page], re.M):
        assert name in COMMANDS[program], (program, name)
        parameters = COMMANDS[program][name].params
        known = {option for parameter in parameters for option in (*parameter.opts, *parameter.secondary_opts)}
        assert set(re.findall(r"--[a-z-]+", arguments)) <= known, (program, name, arguments)


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_pages_are_finished_and_fit(page):
    fences = re.findall(r"^ *```(.*)", PAGES[page], re.M)
    assert not [fence for fence in fences[::2] if not re.fullmatch(FENCE, fence)]
    assert page != ROOT / "README.md" or len(PAGES[page].split()) <= 900
    assert not re.search(r"\b(FIGURES|TODO|FIXME|TBD|XXX)\b", PAGES[page])
    assert [line for line in PAGES[page].splitlines() if len(line) > 120 and not line.startswith("|")] == []


def test_keywords_of_the_kit():
    documented = re.findall(r"^\w+\((\w+,[^)]*)\)$", KIT_PAGE, re.M)
    passed = re.findall(r"\(\{\n(.*?)\}\);", SOURCES["bootstrap.cpp"], re.S)
    assert [re.findall(r"\w+", d) for d in documented] == [re.findall(r'"(\w+)"_a', p) for p in passed] != []


def test_the_example_of_the_kit_page_runs():
    exec(re.search(r"```python\n(.*?)```", KIT_PAGE, re.S)[1], {"__name__": "example"})


def test_the_picture_is_of_these_sources():
    picture = runpy.run_path(str(ROOT / "docs/draw_architecture.py"))["picture"]()
    assert (ROOT / "docs/architecture.svg").read_text("utf-8") == picture, "run: python docs/draw_architecture.py"

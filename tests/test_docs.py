"""The documentation says what is there: messages, links, an example that runs, the picture."""

import re
import runpy
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[1]
PAGES = {page: page.read_text("utf-8") for glob in ("*.md", "docs/*.md", "localkit/*.md") for page in ROOT.glob(glob)}
NO_MESSAGES = ("[Corvane]", "## Corvane", "Bearer ", "Agent onboarding subcomponent", "AuthToken(token=")


def phrases(text, placeholder):
    """The fixed words of a message, between its values."""
    return {part.strip(" :;,.'") for part in re.split(placeholder, text) if re.search("[A-Za-z]", part)}


def test_every_message_is_explained():
    said = set()
    for source in (ROOT / "src/agent_onboarding").glob("*.cpp"):
        code = re.sub(r'"\s*\n\s*"', "", re.sub(r"^\s*(//|#).*| // .*", "", source.read_text("utf-8"), flags=re.M))
        for literal in re.findall(r'"((?:[^"\\\n]|\\.)*)"', code):
            if " " in literal and not any(text in literal for text in NO_MESSAGES):
                said |= phrases(literal, "%s")
    table = PAGES[ROOT / "docs/operating.md"].partition("## Messages")[2].partition("### From the local kit")[0]
    rows = re.findall(r"^\| `([^`]+)`[^|]*\| [^| ][^|]*\| [^| ][^|]* \|$", table, re.M)  # with a cause and a next step
    assert set().union(*(phrases(message, "<[a-z]+>") for message in rows)) == said and len(said) > 60


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_links_lead_somewhere(page):
    for link, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", PAGES[page]):
        target = (page.parent / link).resolve() if link else page
        assert target.exists(), link
        headings = re.findall(r"^#+ (.*)", PAGES.get(target, ""), re.M)
        assert not anchor or anchor in [re.sub(r"[^\w-]", "", h.lower().replace(" ", "-")) for h in headings], anchor


def test_the_example_of_the_kit_page_runs():
    page = PAGES[ROOT / "docs/developing-the-kit.md"]
    exec(re.search(r"```python\n(.*?)```", page, re.S)[1], {"__name__": "example"})


def test_the_picture_is_of_these_sources():
    picture = runpy.run_path(str(ROOT / "docs/draw_architecture.py"))["picture"]()
    assert (ROOT / "docs/architecture.svg").read_text("utf-8") == picture, "run: python docs/draw_architecture.py"

"""The skill texts that come with the kit."""


def list_skills() -> list[str]:
    """The paths of the bundled SKILL.md files, sorted; each tells an agent how to do one thing with the kit."""
    from importlib.resources import as_file, files

    with as_file(files("corvane") / "skill_texts") as folder:
        return sorted(str(path) for path in folder.glob("*/SKILL.md"))

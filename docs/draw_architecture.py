"""Draws docs/architecture.svg from the sources: who asks whom for what, through the module's namespace.

Files stand above the files they use; an arrow that leads back up is dashed. Run it again after a change of structure:
`python docs/draw_architecture.py`.
"""

import ast
import re
from dataclasses import dataclass, field
from functools import cached_property
from html import escape
from itertools import pairwise
from pathlib import Path

SOURCES = Path(__file__).parents[1] / "src" / "agent_onboarding"
WIDTH, BOX, LINE, GAP = 1180, 270, 17, 64  # pixels


@dataclass
class Box:
    """One C++ file with function bodies, and which names of the namespace it uses."""

    file: str
    uses: dict[str, set[str]] = field(default_factory=dict)  # file: names of functions and records there
    state: set[str] = field(default_factory=set)
    outside: set[str] = field(default_factory=set)
    x: float = 0
    y: float = 0

    @cached_property
    def lines(self) -> list[str]:
        """The text of its box."""
        rows = [self.file]
        for label, names in (("state", self.state), ("uses", self.outside)):
            row = f"{label}:"
            for name in sorted(names, key=lambda n: (n.startswith("corvane."), n)):
                if len(row) + len(name) > 34:
                    rows, row = [*rows, row], "\N{NO-BREAK SPACE}" * 2
                row += f" {name}"
            rows += [row] if names else []
        return rows

    @property
    def height(self) -> int:
        return LINE * len(self.lines) + 14


def imported_modules() -> dict[str, str]:
    """The module behind each name that declarations.py imports, `function.name` for imports inside functions."""
    tree = ast.parse((SOURCES / "declarations.py").read_text("utf-8"))
    found: dict[str, str] = {}
    for outer in tree.body:
        prefix = f"{outer.name}." if isinstance(outer, ast.FunctionDef) else ""
        for node in ast.walk(outer) if prefix else [outer]:
            if isinstance(node, ast.Import):
                found |= {
                    prefix + (a.asname or a.name.partition(".")[0]): a.name.removesuffix(".util") for a in node.names
                }
            elif isinstance(node, ast.ImportFrom):
                package = node.module == "corvane"
                found |= {prefix + a.name: f"corvane.{a.name}" if package else str(node.module) for a in node.names}
    return {
        name: module if module.startswith("corvane") else module.partition(".")[0] for name, module in found.items()
    }


def read_files() -> dict[str, Box]:
    """The boxes in the order of module.hpp, with what each uses."""
    sections = re.split(r"// from (\w+\.cpp)", (SOURCES / "module.hpp").read_text("utf-8"))
    home = {body: file for file, text in zip(sections[1::2], sections[2::2], strict=True)
            for body in re.findall(r"^object (\w+)\(", text, re.M)}  # fmt: skip
    table = (SOURCES / "module.cpp").read_text("utf-8")
    owner = {name: home[body] for body, name in re.findall(r'define<(\w+)>\("(\w+)"\)', table)}
    for name, methods in re.findall(r'define_(?:class|generator)\("(\w+)"(.*?)\);', table, re.S):
        bodies = re.findall(r"native<(\w+)>", methods)
        owner[name] = home[bodies[0]] if bodies else "entry_points.cpp"
    state = set(re.findall(r'set_global\("(\w+)"_n', table)) - {"__doc__"}
    modules = imported_modules()
    boxes = {file: Box(file) for file in dict.fromkeys(home.values())}
    for shown in boxes.values():
        text = (SOURCES / shown.file).read_text("utf-8")
        for name in re.findall(r'(?:global|is_instance)\((?:\w+, )?"([\w.]+)"_n', text):
            if name in owner and owner[name] != shown.file:
                shown.uses.setdefault(owner[name], set()).add(name)
            elif name in state:
                shown.state.add(name)
            elif name in modules:
                shown.outside.add(modules[name])
        # import statements inside functions, and a module imported by its name
        named = re.findall(r'"(\w+\.\w+)"_n', text)
        shown.outside |= {modules.get(n, n) for n in named if n in modules or n.startswith("corvane.")}
    return boxes


def levels_of(boxes: dict[str, Box]) -> dict[str, int]:
    """How far down each file stands: below all that use it. What would close a circle is left out."""
    level: dict[str, int] = {}

    def visit(file: str, path: tuple[str, ...]) -> None:
        level[file] = max(level.get(file, 0), len(path))
        for used in boxes[file].uses:
            if used not in path:
                visit(used, (*path, file))

    for file in boxes:
        if file not in level:
            visit(file, ())
    return level


def place(boxes: dict[str, Box]) -> tuple[dict[tuple[str, str], list[tuple[float, float]]], float]:
    """Gives each box its place; returns the points of each arrow, and where the last box ends.

    An arrow past a row of boxes gets a lane between them.
    """
    level = levels_of(boxes)
    points: dict[tuple[str, str], list[tuple[float, float]]] = {}
    x_of: dict[str, float] = {}
    top = 20.0
    for depth in range(max(level.values()) + 1):
        lanes = [
            (user, file) for user, shown in boxes.items() for file in shown.uses if level[user] < depth < level[file]
        ]
        row: list[str | tuple[str, str]] = [*(file for file in boxes if level[file] == depth), *lanes]

        def wish(node: str | tuple[str, str]) -> float:
            users = [node[0]] if isinstance(node, tuple) else [u for u in x_of if node in boxes[u].uses]
            return sum(x_of[user] for user in users) / len(users) if users else 0

        row.sort(key=wish)
        height = max(boxes[node].height for node in row if isinstance(node, str))
        left = (WIDTH - sum(BOX + 50 if isinstance(node, str) else 70 for node in row) + 50) / 2
        for node in row:
            if isinstance(node, str):
                boxes[node].x, boxes[node].y, x_of[node] = left, top, left + BOX / 2
                left += BOX + 50
            else:
                points.setdefault(node, []).extend([(left + 10, top), (left + 10, top + height)])
                left += 70
        top += height + GAP
    return points, top


def layer_includes() -> list[tuple[str, list[str]]]:
    """The files of py/ and which of them each includes."""
    files = sorted(file.name for file in (SOURCES / "py").glob("*.?pp"))
    return [(f, re.findall(r'#include "(\w+\.hpp)"', (SOURCES / "py" / f).read_text("utf-8"))) for f in files]


def box(x: float, y: float, height: float, lines: list[str], width: int = BOX) -> str:
    texts = "".join(
        f'<text x="{x + 10:.0f}" y="{y + 19 + i * LINE:.0f}"{"" if i else " font-weight='bold'"}>{escape(line)}</text>'
        for i, line in enumerate(lines)
    )
    return f'<rect x="{x:.0f}" y="{y:.0f}" width="{width}" height="{height:.0f}" rx="5"/>{texts}'


def picture() -> str:
    """The SVG document."""
    boxes = read_files()
    lanes, bottom = place(boxes)
    parts = []
    for shown in boxes.values():
        for used, names in shown.uses.items():
            to = boxes[used]
            start, end = (shown.x + BOX / 2, shown.y + shown.height), (to.x + BOX / 2, to.y)
            if to.y < shown.y:
                start, end = (shown.x + BOX / 2 + 40, shown.y), (to.x + BOX / 2 + 40, to.y + to.height)
            points = [start, *lanes.get((shown.file, used), []), end]
            curve = f"M{start[0]:.0f} {start[1]:.0f}"
            for (x1, y1), (x2, y2) in pairwise(points):
                middle = (y1 + y2) / 2
                curve += f" C{x1:.0f} {middle:.0f} {x2:.0f} {middle:.0f} {x2:.0f} {y2:.0f}"
            dashes = ' stroke-dasharray="5 4"' if to.y < shown.y else ""
            tip = f"<title>{shown.file} uses {', '.join(sorted(names))}</title>"
            parts.append(f'<path class="use" d="{curve}"{dashes}>{tip}</path>')
    parts += [box(shown.x, shown.y, shown.height, shown.lines) for shown in boxes.values()]
    layer = [f"{file} includes {', '.join(included)}" if included else file for file, included in layer_includes()]
    parts.append(box(20, bottom, LINE * (len(layer) + 1) + 14, ["py/, the layer under every file", *layer], WIDTH - 40))
    height = bottom + LINE * (len(layer) + 1) + 40
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}"'
        ' font-family="monospace" font-size="12">\n'
        '<defs><marker id="tip" viewBox="0 0 8 8" refX="8" refY="4" markerWidth="8" markerHeight="8" orient="auto">'
        '<path d="M0 0L8 4L0 8z" fill="#456" stroke="none"/></marker></defs>\n'
        "<style>rect{fill:#f4f6f8;stroke:#456}.use{fill:none;stroke:#456;marker-end:url(#tip)}</style>\n"
        '<rect width="100%" height="100%" style="fill:#fff;stroke:none"/>\n' + "\n".join(parts) + "\n</svg>\n"
    )


if __name__ == "__main__":
    Path(__file__).with_name("architecture.svg").write_text(picture(), "utf-8")

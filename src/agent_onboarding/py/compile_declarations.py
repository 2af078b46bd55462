"""Turns a file of Python declarations into one marshalled constant for C++, while the extension is built.

Compiling some dozens of declarations anew at every import would take longer than all the rest of the import, and the
compiler is not made to survive a failing allocation at every point; unmarshalling is. The bytecode is that of the
interpreter that the extension is built for.

Usage: compile_declarations.py DECLARATIONS MODULE OUTPUT
"""

import ast
import inspect
import marshal
import sys
import textwrap
from pathlib import Path
from types import CodeType

NATIVE_BODY = 'raise SystemError("native body not reached")\n'


def signature_line(text: str, name: str, module: str) -> str:
    """The name and `str(inspect.signature(...))`; a class that only the module has stands for itself by its name."""
    names: dict[str, object] = {"__name__": module}
    exec("from typing import List, Optional", names)
    while True:
        try:
            exec(text, names)
        except NameError as missing:
            unknown = str(missing.name)
            names[unknown] = type(unknown, (), {"__module__": module})
        else:
            return name + str(inspect.signature(names[name]))  # type: ignore[arg-type]


def declared_function(node: ast.FunctionDef, source: str, module: str, owner: str) -> tuple[str, str, CodeType]:
    """The key, the source and the code of one function; `@signature("...")` fixes the first line of its docstring."""
    key = f"{owner}.{node.name}" if owner else node.name
    first = node.lineno
    text = textwrap.dedent("\n".join(source.splitlines()[first - 1 : node.end_lineno])) + f"\n    {NATIVE_BODY}"
    if node.decorator_list:
        [fixed] = node.decorator_list
        assert isinstance(fixed, ast.Call)
        # A text that is given stands as written; the blanks before its closing quotes are the source's indentation.
        doc = f"{ast.literal_eval(fixed.args[0])}\n{(ast.get_docstring(node, clean=False) or '').rstrip(' ')}"
    else:
        doc = f"{signature_line(text, node.name, module)}\n{ast.get_docstring(node)}"
    if owner:
        text = f"class {owner}:\n{textwrap.indent(text, '    ')}"
    tree = ast.parse(text)
    function = tree.body[0].body[0] if isinstance(tree.body[0], ast.ClassDef) else tree.body[0]
    assert isinstance(function, ast.FunctionDef) and isinstance(function.body[0], ast.Expr)
    assert isinstance(function.body[0].value, ast.Constant)
    function.body[0].value.value = doc
    return key, text, compile(tree, f"<{module}.{key}>", "exec", dont_inherit=True, optimize=0)


def main(declarations: str, module: str, output: str) -> None:
    source = Path(declarations).read_text(encoding="utf-8")
    codes: dict[str, CodeType] = {}
    lines: dict[str, tuple[int, None, list[str], str]] = {}

    def add(key: str, text: str, code: CodeType) -> None:
        codes[key] = code
        lines[code.co_filename] = (len(text), None, text.splitlines(keepends=True), code.co_filename)

    imports = []
    for node in ast.parse(source).body:
        if isinstance(node, ast.Import | ast.ImportFrom):
            imports.append(ast.get_source_segment(source, node))
        elif isinstance(node, ast.FunctionDef):
            add(*declared_function(node, source, module, ""))
        elif isinstance(node, ast.ClassDef):
            for method in node.body:
                if isinstance(method, ast.FunctionDef):
                    add(*declared_function(method, source, module, node.name))
    text = "\n".join(filter(None, imports)) + "\n"
    add("imports", text, compile(text, f"<{module}>", "exec", dont_inherit=True, optimize=0))

    # Version 2 has no back references, whose use depends on reference counts: the same source gives the same bytes.
    data = marshal.dumps((codes, lines), 2)
    rows = [", ".join(map(str, data[i : i + 24])) for i in range(0, len(data), 24)]
    Path(output).write_text(",\n".join(rows) + "\n", encoding="ascii")


if __name__ == "__main__":
    main(*sys.argv[1:])

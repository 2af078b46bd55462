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


def signature_line(text: str, name: str, module: str, homes: dict[str, str]) -> str:
    """The name and `str(inspect.signature(...))`; a class that is not there while building is known by its home."""
    names: dict[str, object] = {"__name__": module}
    exec("from typing import List, Optional", names)
    while True:
        try:
            exec(text, names)
        except NameError as missing:
            unknown = str(missing.name)
            names[unknown] = type(unknown, (), {"__module__": homes.get(unknown, module)})
        else:
            return name + str(inspect.signature(names[name]))  # type: ignore[arg-type]


def final_docstring(node: ast.FunctionDef, text: str, source: str, module: str) -> str:
    """The docstring behind its signature line; `@signature("...")` fixes that line and keeps the text as written."""
    for decorator in node.decorator_list:
        assert isinstance(decorator, ast.Call) and isinstance(decorator.func, ast.Name)
        if decorator.func.id == "signature":
            # The blanks before the closing quotes are the source's indentation.
            written = (ast.get_docstring(node, clean=False) or "").rstrip(" ")
            return f"{ast.literal_eval(decorator.args[0])}\n{written}"
    imports = [statement for statement in ast.parse(source).body if isinstance(statement, ast.ImportFrom)]
    homes = {alias.name: str(statement.module) for statement in imports for alias in statement.names}
    return f"{signature_line(text, node.name, module, homes)}\n{ast.get_docstring(node)}"


def declared_function(node: ast.FunctionDef, source: str, module: str, owner: str) -> tuple[str, str, CodeType]:
    """The key, the source and the code of one function.

    The code is that of a module which defines the function, and for a generator function (`@steps(...)`), whose body is
    run by the interpreter, that of the function itself.
    """
    key = f"{owner}.{node.name}" if owner else node.name
    is_generator = any(isinstance(inner, ast.Yield) for inner in ast.walk(node))
    text = textwrap.dedent("\n".join(source.splitlines()[node.lineno - 1 : node.end_lineno])) + "\n"
    if not is_generator:
        text += f"    {NATIVE_BODY}"
    doc = final_docstring(node, text, source, module)
    if owner:
        text = f"class {owner}:\n{textwrap.indent(text, '    ')}"
    tree = ast.parse(text)
    for inner in ast.walk(tree):
        if isinstance(inner, ast.FunctionDef) and inner.name == node.name:
            assert isinstance(inner.body[0], ast.Expr) and isinstance(inner.body[0].value, ast.Constant)
            inner.body[0].value.value = doc
    file_name = f"<{module}.{key}>"
    if not is_generator:
        return key, text, compile(tree, file_name, "exec", dont_inherit=True, optimize=0)
    # The steps become free variables of the function, as if an outer function had them as parameters.
    outer = ast.parse(f"def outer({', '.join(step_names(node, source))}): pass")
    assert isinstance(outer.body[0], ast.FunctionDef)
    outer.body[0].body = tree.body
    code = compile(outer, file_name, "exec", dont_inherit=True, optimize=0)
    for _ in range(2):
        code = next(constant for constant in code.co_consts if isinstance(constant, CodeType))
    return key, text, code.replace(co_qualname=node.name)


def step_names(node: ast.FunctionDef, source: str) -> list[str]:
    """The methods of the class that `@steps(...)` names."""
    [decorator] = node.decorator_list
    assert isinstance(decorator, ast.Call) and isinstance(decorator.args[0], ast.Name)
    for owner in ast.parse(source).body:
        if isinstance(owner, ast.ClassDef) and owner.name == decorator.args[0].id:
            return [method.name for method in owner.body if isinstance(method, ast.FunctionDef)]
    raise ValueError(f"{decorator.args[0].id} is not declared")


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

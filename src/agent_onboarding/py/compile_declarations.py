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
import warnings
from pathlib import Path
from types import CodeType

Import = ast.Import | ast.ImportFrom
Nested = ast.FunctionDef | ast.Lambda
NATIVE_BODY = 'raise SystemError("native body not reached")'  # what the source shows


def compiled(tree: ast.Module, file_name: str) -> CodeType:
    return compile(tree, file_name, "exec", dont_inherit=True, optimize=0)


def code_in(code: CodeType, name: str) -> CodeType:
    """The code of the function of that name; from 3.14 on the code that evaluates its annotations lies beside it."""
    return next(inner for inner in code.co_consts if isinstance(inner, CodeType) and inner.co_name == name)


def functions_of(node: ast.stmt) -> list[ast.FunctionDef]:
    """The function itself, or the methods of the class."""
    statements = node.body if isinstance(node, ast.ClassDef) else [node]
    return [statement for statement in statements if isinstance(statement, ast.FunctionDef)]


def is_generator(node: ast.stmt) -> bool:
    return isinstance(node, ast.FunctionDef) and any(isinstance(inner, ast.Yield) for inner in ast.walk(node))


def native_text(node: ast.FunctionDef | ast.ClassDef, source: str) -> str:
    """The source of a function or a class, with a native body at the end of each function but a generator."""
    lines = source.splitlines()[: node.end_lineno]
    for function in reversed(functions_of(node)):
        if not is_generator(function):
            lines.insert(function.end_lineno or 0, " " * function.body[0].col_offset + NATIVE_BODY)
    # A class keeps its decorators, a function's only steer this program.
    first = min([node.lineno, *(d.lineno for d in node.decorator_list if isinstance(node, ast.ClassDef))])
    return textwrap.dedent("\n".join(lines[first - 1 :])) + "\n"


def names_of_annotations(declarations: ast.Module, module: str) -> dict[str, object]:
    """What annotations can name; a class that is not there while building is known by its home."""
    homes: dict[str, str | None] = {}
    for node in declarations.body:
        if isinstance(node, ast.ClassDef):
            homes[node.name] = module
        elif isinstance(node, ast.ImportFrom):
            homes.update((alias.name, node.module) for alias in node.names)
    names: dict[str, object] = {name: type(name, (), {"__module__": home}) for name, home in homes.items()}
    exec("from typing import List, Optional", names)
    return names


def final_docstring(written: ast.FunctionDef, function: ast.FunctionDef, names: dict[str, object]) -> str:
    """The docstring behind its signature line; `@signature("...")` fixes that line and keeps the text as written."""
    for decorator in written.decorator_list:
        if isinstance(decorator, ast.Call) and ast.unparse(decorator.func) == "signature":
            # The blanks before the closing quotes are the source's indentation.
            text = (ast.get_docstring(written, clean=False) or "").rstrip(" ")
            return f"{ast.literal_eval(decorator.args[0])}\n{text}"
    made: dict[str, object] = {}
    exec(ast.unparse(function), names, made)
    return f"{function.name}{inspect.signature(made[function.name])}\n{ast.get_docstring(written)}"  # type: ignore[arg-type]


def take_imports(function: ast.FunctionDef, file_name: str) -> dict[str, CodeType]:
    """Takes the import statements out of the function. Each becomes the code of a function that executes it and returns
    what it binds, under the name `function.bound_name`; in a traceback it looks like the line that it is."""
    codes = {}
    for statement in [statement for statement in function.body if isinstance(statement, Import)]:
        function.body.remove(statement)
        [alias] = statement.names
        if alias.asname is None and "." in alias.name:
            raise ValueError(f"import {alias.name} binds a part of its name only; give it one with `as`")
        bound = alias.asname or alias.name
        if f"{function.name}.{bound}" in codes:
            raise ValueError(f"{function.name} imports {bound} twice")
        tree = ast.parse(f"def {function.name}(): return {bound}")
        functions_of(tree.body[0])[0].body.insert(0, statement)
        codes[f"{function.name}.{bound}"] = code_in(compiled(tree, file_name), function.name)
    return codes


def call_native_body(function: ast.FunctionDef) -> None:
    """Ends the function with `return ...(a, b, c)`; at import the native body takes the place of the ellipsis."""
    for statement in function.body[1:-1]:
        # A function or lambda is made anew by the native body; anything else would never be executed.
        if not isinstance(statement.value if isinstance(statement, ast.Expr) else statement, Nested):
            raise ValueError(f"{function.name}, line {statement.lineno}: not a statement that a declaration can have")
    given = function.args
    parameters = [*given.posonlyargs, *given.args, *given.kwonlyargs, *filter(None, [given.vararg, given.kwarg])]
    values: list[ast.expr] = [ast.Name(parameter.arg, ast.Load()) for parameter in parameters]
    call = ast.Return(ast.Call(ast.Constant(...), values, []))
    function.body[-1] = ast.fix_missing_locations(ast.copy_location(call, function))


def with_docstrings(code: CodeType, docs: dict[str, str]) -> CodeType:
    """The code with the docstrings of these functions as they are given, which a compiler would change from 3.13 on."""
    constants = [with_docstrings(c, docs) if isinstance(c, CodeType) else c for c in code.co_consts]
    if code.co_name in docs:
        if not isinstance(constants[0], str):
            raise ValueError(f"{code.co_name} has no docstring")
        constants[0] = docs[code.co_name]
    return code.replace(co_consts=tuple(constants))


def declared(
    node: ast.FunctionDef | ast.ClassDef, text: str, file_name: str, names: dict[str, object]
) -> dict[str, CodeType]:
    """The code objects of a function or a class, by name. The first is the code of a module that makes it; for a
    generator function (`@steps(...)`), whose body is run by the interpreter, that of the function itself."""
    tree = ast.parse(text)
    codes, docs = {}, {}
    for written, function in zip(functions_of(node), functions_of(tree.body[0]), strict=True):
        docs[function.name] = final_docstring(written, function, names)
        codes.update(take_imports(function, file_name))
        if not is_generator(function):
            call_native_body(function)
    if is_generator(node):
        # The steps become free variables of the function, as if an outer function had them as parameters.
        steps = ", ".join(ast.unparse(step) for d in node.decorator_list if isinstance(d, ast.Call) for step in d.args)
        outer = ast.parse(f"def outer({steps}): pass")
        functions_of(outer.body[0])[0].body = tree.body
        code = code_in(code_in(compiled(outer, file_name), "outer"), node.name).replace(co_qualname=node.name)
    else:
        code = compiled(tree, file_name)
    return {**codes, node.name: with_docstrings(code, docs)}


def main(declarations: str, module: str, output: str) -> None:
    source = Path(declarations).read_text(encoding="utf-8")
    tree = ast.parse(source)
    names = names_of_annotations(tree, module)
    imports = [node for node in tree.body if isinstance(node, Import)]
    texts = {f"<{module}>": "".join(f"{ast.get_source_segment(source, node)}\n" for node in imports)}
    codes = {"imports": compiled(ast.parse(texts[f"<{module}>"]), f"<{module}>")}
    for node in tree.body:
        if isinstance(node, ast.FunctionDef) and [ast.unparse(mark) for mark in node.decorator_list] == ["statement"]:
            node.decorator_list = []  # the interpreter runs it as it is
            codes[node.name] = code_in(compiled(ast.Module([node], []), f"<{module}>"), node.name)
        elif isinstance(node, ast.FunctionDef | ast.ClassDef):
            file_name = f"<{module}.{node.name}>"
            texts[file_name] = native_text(node, source)
            codes.update(declared(node, texts[file_name], file_name, names))
        elif not isinstance(node, ast.Expr | Import):
            raise ValueError(f"line {node.lineno}: neither an import nor a function nor a class")
    # As linecache keeps them: size, no time of change, lines, name.
    lines = {name: (len(text), None, text.splitlines(keepends=True), name) for name, text in texts.items()}
    # Version 2 has no back references, whose use depends on reference counts: the same source gives the same bytes.
    data = marshal.dumps((codes, lines), 2)
    rows = [", ".join(map(str, data[i : i + 24])) for i in range(0, len(data), 24)]
    Path(output).write_text(",\n".join(rows) + "\n", encoding="ascii")


if __name__ == "__main__":
    with warnings.catch_warnings():
        warnings.filterwarnings("ignore", "'ellipsis' object is not callable")
        main(*sys.argv[1:])

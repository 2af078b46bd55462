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

NESTED = ast.FunctionDef | ast.Lambda
NATIVE_BODY = 'raise SystemError("native body not reached")'  # what the source shows


def signature_line(text: str, name: str, module: str, homes: dict[str, str]) -> str:
    """The name and `str(inspect.signature(...))`; a class that is not there while building is known by its home."""
    names: dict[str, object] = {"__name__": module}
    exec("from typing import List, Optional", names)
    while True:
        try:
            exec(text, names)
            return name + str(inspect.signature(names[name]))  # type: ignore[arg-type]
        except NameError as missing:  # while the text is executed, or from 3.14 on while its annotations are evaluated
            unknown = str(missing.name)
            names[unknown] = type(unknown, (), {"__module__": homes.get(unknown, module)})


def final_docstring(node: ast.FunctionDef, text: str, source: str, module: str) -> str:
    """The docstring behind its signature line; `@signature("...")` fixes that line and keeps the text as written."""
    for decorator in node.decorator_list:
        if isinstance(decorator, ast.Call) and ast.unparse(decorator.func) == "signature":
            # The blanks before the closing quotes are the source's indentation.
            written = (ast.get_docstring(node, clean=False) or "").rstrip(" ")
            return f"{ast.literal_eval(decorator.args[0])}\n{written}"
    imports = [statement for statement in ast.parse(source).body if isinstance(statement, ast.ImportFrom)]
    homes = {alias.name: str(statement.module) for statement in imports for alias in statement.names}
    return f"{signature_line(text, node.name, module, homes)}\n{ast.get_docstring(node)}"


def native_text(node: ast.FunctionDef | ast.ClassDef, source: str) -> str:
    """The source of a function or a class, with a native body at the end of each function but a generator."""
    lines = source.splitlines()[: node.end_lineno]
    for function in reversed(functions_of(node)):
        if not is_generator(function):
            lines.insert(function.end_lineno or 0, " " * function.body[0].col_offset + NATIVE_BODY)
    # A class keeps its decorators, a function's only steer this program.
    first = min([node.lineno, *(d.lineno for d in node.decorator_list if isinstance(node, ast.ClassDef))])
    return textwrap.dedent("\n".join(lines[first - 1 :])) + "\n"


def functions_of(node: ast.stmt) -> list[ast.FunctionDef]:
    """The function itself, or the methods of the class."""
    statements = node.body if isinstance(node, ast.ClassDef) else [node]
    return [statement for statement in statements if isinstance(statement, ast.FunctionDef)]


def is_generator(node: ast.FunctionDef) -> bool:
    return any(isinstance(inner, ast.Yield) for inner in ast.walk(node))


def complete(function: ast.FunctionDef, doc: str) -> list[ast.Import | ast.ImportFrom]:
    """Gives the function its final docstring and takes out its import statements, which it answers."""
    summary = function.body[0]
    if not isinstance(summary, ast.Expr) or not isinstance(summary.value, ast.Constant):
        raise ValueError(f"{function.name} has no docstring")
    summary.value.value = doc
    imports = [statement for statement in function.body if isinstance(statement, ast.Import | ast.ImportFrom)]
    function.body = [statement for statement in function.body if statement not in imports]
    if is_generator(function):
        return imports
    for statement in function.body[1:-1]:
        # A function or lambda is made anew by the native body; anything else would never be executed.
        if not isinstance(statement.value if isinstance(statement, ast.Expr) else statement, NESTED):
            raise ValueError(f"{function.name}, line {statement.lineno}: not a statement that a declaration can have")
    function.body[-1] = call_of_native_body(function)
    return imports


def call_of_native_body(function: ast.FunctionDef) -> ast.Return:
    """`return ...(a, b, c)` with all parameters; at import the native body takes the place of the ellipsis."""
    given = function.args
    parameters = [*given.posonlyargs, *given.args, *given.kwonlyargs, *filter(None, [given.vararg, given.kwarg])]
    values: list[ast.expr] = [ast.Name(parameter.arg, ast.Load()) for parameter in parameters]
    statement = ast.Return(ast.Call(ast.Constant(...), values, []))
    return ast.fix_missing_locations(ast.copy_location(statement, function))


def bound_name(statement: ast.Import | ast.ImportFrom) -> str:
    """The one name that the statement binds."""
    [alias] = statement.names
    if alias.asname is None and "." in alias.name:
        raise ValueError(f"import {alias.name} binds a part of its name only; give it one with `as`")
    return alias.asname or alias.name


def code_in(code: CodeType, name: str) -> CodeType:
    """The code of the function of that name; from 3.14 on the code that evaluates its annotations lies beside it."""
    return next(inner for inner in code.co_consts if isinstance(inner, CodeType) and inner.co_name == name)


def with_docstrings(code: CodeType, docs: dict[str, str]) -> CodeType:
    """The code with these docstrings of functions as they are given: from 3.13 on the compiler strips their indent."""
    constants = [with_docstrings(c, docs) if isinstance(c, CodeType) else c for c in code.co_consts]
    if code.co_name in docs:
        if not isinstance(constants[0], str):
            raise ValueError(f"{code.co_name} lost its docstring")
        constants[0] = docs[code.co_name]
    return code.replace(co_consts=tuple(constants))


def import_code(statement: ast.stmt, bound: str, function: str, file_name: str) -> CodeType:
    """The code of a function which executes the statement and returns what it binds, with the name of another."""
    tree = ast.parse(f"def {function}(): return {bound}")
    assert isinstance(tree.body[0], ast.FunctionDef)
    tree.body[0].body.insert(0, statement)
    return code_in(compile(tree, file_name, "exec", dont_inherit=True, optimize=0), function)


def declared(node: ast.FunctionDef | ast.ClassDef, source: str, module: str) -> tuple[str, dict[str, CodeType]]:
    """The text of a function or a class, and its code objects by name.

    The first is the code of a module that makes it; for a generator function (`@steps(...)`), whose body is run by the
    interpreter, that of the function itself. An import statement inside a function has code of its own, under the name
    `function.bound_name`, which looks in a traceback like the line of the function that it is.
    """
    text = native_text(node, source)
    file_name = f"<{module}.{node.name}>"
    tree = ast.parse(text)
    codes, docs = {}, {}
    for written, function in zip(functions_of(node), functions_of(tree.body[0]), strict=True):
        docs[function.name] = final_docstring(written, ast.unparse(function), source, module)
        for statement in complete(function, docs[function.name]):
            bound = bound_name(statement)
            if f"{function.name}.{bound}" in codes:
                raise ValueError(f"{function.name} imports {bound} twice")
            codes[f"{function.name}.{bound}"] = import_code(statement, bound, function.name, file_name)
    if isinstance(node, ast.FunctionDef) and is_generator(node):
        # The steps become free variables of the function, as if an outer function had them as parameters.
        outer = ast.parse(f"def outer({', '.join(step_names(node))}): pass")
        assert isinstance(outer.body[0], ast.FunctionDef)
        outer.body[0].body = tree.body
        code = compile(outer, file_name, "exec", dont_inherit=True, optimize=0)
        codes[node.name] = code_in(code_in(code, "outer"), node.name).replace(co_qualname=node.name)
    else:
        codes[node.name] = compile(tree, file_name, "exec", dont_inherit=True, optimize=0)
    codes[node.name] = with_docstrings(codes[node.name], docs)
    return text, codes


def step_names(node: ast.FunctionDef) -> list[str]:
    """The declared functions that `@steps(...)` names."""
    [decorator] = node.decorator_list
    assert isinstance(decorator, ast.Call)
    return [ast.unparse(step) for step in decorator.args]


def is_statement(node: ast.stmt) -> bool:
    """Whether it is declared as `@statement`: a function that the interpreter runs as it is."""
    return isinstance(node, ast.FunctionDef) and [ast.unparse(mark) for mark in node.decorator_list] == ["statement"]


def main(declarations: str, module: str, output: str) -> None:
    source = Path(declarations).read_text(encoding="utf-8")
    codes: dict[str, CodeType] = {}
    lines: dict[str, tuple[int, None, list[str], str]] = {}

    def add(file_name: str, text: str, made: dict[str, CodeType]) -> None:
        codes.update(made)
        lines[file_name] = (len(text), None, text.splitlines(keepends=True), file_name)

    imports = []
    for node in ast.parse(source).body:
        if isinstance(node, ast.Import | ast.ImportFrom):
            imports.append(ast.get_source_segment(source, node))
        elif isinstance(node, ast.FunctionDef) and is_statement(node):
            node.decorator_list = []
            code = compile(ast.Module([node], []), f"<{module}>", "exec", dont_inherit=True, optimize=0)
            codes[node.name] = code_in(code, node.name)
        elif isinstance(node, ast.FunctionDef | ast.ClassDef):
            add(f"<{module}.{node.name}>", *declared(node, source, module))
        elif not isinstance(node, ast.Expr):
            raise ValueError(f"line {node.lineno}: neither an import nor a function nor a class")
    text = "\n".join(filter(None, imports)) + "\n"
    add(f"<{module}>", text, {"imports": compile(text, f"<{module}>", "exec", dont_inherit=True, optimize=0)})

    # Version 2 has no back references, whose use depends on reference counts: the same source gives the same bytes.
    data = marshal.dumps((codes, lines), 2)
    rows = [", ".join(map(str, data[i : i + 24])) for i in range(0, len(data), 24)]
    Path(output).write_text(",\n".join(rows) + "\n", encoding="ascii")


if __name__ == "__main__":
    with warnings.catch_warnings():
        warnings.filterwarnings("ignore", "'ellipsis' object is not callable")
        main(*sys.argv[1:])

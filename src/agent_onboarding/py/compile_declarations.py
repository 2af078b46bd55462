"""Turns a file of Python declarations into one marshalled constant for C++, while the extension is built.

Compiling some dozens of declarations again at every import would take longer than all the rest of the import, and the
compiler is not made to survive a failing allocation at every point; unmarshalling is. The bytecode is that of the
interpreter that the extension is built for.

Usage: compile_declarations.py DECLARATIONS MODULE OUTPUT
"""

import ast
import marshal
import sys
import textwrap
import warnings
from pathlib import Path
from types import CodeType

Import = ast.Import | ast.ImportFrom
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


def marks(node: ast.FunctionDef | ast.ClassDef, kind: str) -> list[ast.expr]:
    """The arguments of the decorator `@kind(...)`; empty without one."""
    calls = [mark for mark in node.decorator_list if isinstance(mark, ast.Call) and ast.unparse(mark.func) == kind]
    return [argument for call in calls for argument in call.args]


def native_text(node: ast.FunctionDef | ast.ClassDef, source: str) -> str:
    """The source of a function or a class, with a native body at the end of each function but a generator."""
    lines = source.splitlines()[: node.end_lineno]
    for function in reversed(functions_of(node)):
        if not marks(function, "steps"):
            lines.insert(function.end_lineno or 0, " " * function.body[0].col_offset + NATIVE_BODY)
    # A class keeps its decorators, a function's only steer this program.
    first = min([node.lineno, *(d.lineno for d in node.decorator_list if isinstance(node, ast.ClassDef))])
    return textwrap.dedent("\n".join(lines[first - 1 :])) + "\n"


def final_docstring(function: ast.FunctionDef) -> str:
    """The docstring below its signature line: the declared one, or `@signature("...")`; `@indented("...")` also keeps
    the docstring's indentation."""
    indented = marks(function, "indented")
    given = [ast.literal_eval(line) for line in [*indented, *marks(function, "signature")]]
    returned = f" -> {ast.unparse(function.returns)}" if function.returns else ""
    [signature] = given or [f"{function.name}({ast.unparse(function.args)}){returned}"]
    # The blanks before the closing quotes are the source's indentation.
    return f"{signature}\n{(ast.get_docstring(function, clean=not indented) or '').rstrip(' ')}"


def maker(name: str, parameters: list[str], statement: ast.stmt, made: str, file_name: str) -> CodeType:
    """The code of a function that executes the statement and returns what it makes."""
    tree = ast.parse(f"def {name}({', '.join(parameters)}): return {made}")
    functions_of(tree.body[0])[0].body.insert(0, statement)
    return code_in(compiled(tree, file_name), name)


def take_statements(function: ast.FunctionDef, file_name: str) -> dict[str, CodeType]:
    """Ends the function with `return ...(a, b, c)`; at import the native body takes the place of the ellipsis. What
    stands before it, imports, functions and lambdas, becomes the code of functions of its own, `function.name` by
    name, which are given the parameters that it mentions and look in a traceback like the line that it is."""
    given = function.args
    parameters = [*given.posonlyargs, *given.args, *given.kwonlyargs, *filter(None, [given.vararg, given.kwarg])]
    codes = {}
    for statement in function.body[1:-1]:
        if isinstance(statement, ast.FunctionDef):
            made = statement.name
        elif isinstance(statement, ast.Assign) and isinstance(statement.value, ast.Lambda):
            made = ast.unparse(statement.targets[0])
        elif isinstance(statement, Import):
            made = statement.names[0].asname or statement.names[0].name
        else:
            raise ValueError(f"{function.name}, line {statement.lineno}: not a statement that a declaration can have")
        mentioned = {inner.id for inner in ast.walk(statement) if isinstance(inner, ast.Name)}
        enclosed = [parameter.arg for parameter in parameters if parameter.arg in mentioned]
        codes[f"{function.name}.{made}"] = maker(function.name, enclosed, statement, made, file_name)
    values: list[ast.expr] = [ast.Name(parameter.arg, ast.Load()) for parameter in parameters]
    call = ast.Return(ast.Call(ast.Constant(...), values, []))
    function.body[1:] = [ast.fix_missing_locations(ast.copy_location(call, function.body[-1]))]
    return codes


def finished(code: CodeType, docs: dict[str, str]) -> CodeType:
    """The code with the docstrings of these functions as they are given, which a compiler would change from 3.13 on,
    and without a word of the function that makes a generator function."""
    constants = [finished(c, docs) if isinstance(c, CodeType) else c for c in code.co_consts]
    if code.co_name in docs:
        if not isinstance(constants[0], str):
            raise ValueError(f"{code.co_name} has no docstring")
        constants[0] = docs[code.co_name]
    return code.replace(co_consts=tuple(constants), co_qualname=code.co_qualname.removeprefix("steps.<locals>."))


def declared(node: ast.FunctionDef | ast.ClassDef, text: str, file_name: str) -> dict[str, CodeType]:
    """The code objects of a function or a class, by name: of a module that makes it; of a function that makes the
    generator function, whose body the interpreter runs, of its steps (`@steps(...)`); and of statements inside."""
    tree = ast.parse(text)
    codes = {}
    if steps := [ast.unparse(step) for step in marks(node, "steps")]:
        codes[node.name] = maker("steps", steps, tree.body[0], node.name, file_name)
    else:
        for function in functions_of(tree.body[0]):
            codes.update(take_statements(function, file_name))
        codes[node.name] = compiled(tree, file_name)
    codes[node.name] = finished(codes[node.name], {f.name: final_docstring(f) for f in functions_of(node)})
    return codes


def main(declarations: str, module: str, output: str) -> None:
    source = Path(declarations).read_text(encoding="utf-8")
    tree = ast.parse(source)
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
            codes.update(declared(node, texts[file_name], file_name))
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

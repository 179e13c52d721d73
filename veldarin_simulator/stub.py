"""The module's functions as declared: their parameters for tools that take arguments as text, and
what is told of them for the console.

Source: the module's Python face, modules_util.pyi, which is read and not imported.
"""

from __future__ import annotations

import ast
import json
import os
import re
from dataclasses import dataclass
from pathlib import Path
from typing import Any

# The line above the declarations of one subsystem.
_HEADING = re.compile(r"# -{10,} (?P<title>\S.*)")

FACE = Path(__file__).resolve().parents[1] / "veldarin" / "modules" / "modules_util.pyi"


@dataclass(frozen=True)
class Parameter:
    """A parameter as declared. `types` are the members of its annotation, None left out."""

    name: str
    types: frozenset[str]
    keyword: bool  # may be given by name
    optional: bool = False  # has a default

    def value(self, text: str) -> Any:
        """The argument that a text on the command line stands for, by the declared type.

        `None` and `null` are None; a `str` is the text, a `bytes` the text's bytes; for every other
        declaration the text is JSON, or where it is not, itself.
        """
        if text in ("None", "null"):
            return None
        if self.types == {"bytes"}:
            return os.fsencode(text)
        if self.types == {"str"}:
            return text
        return json_or_text(text)


@dataclass(frozen=True)
class Function:
    """A function as declared."""

    name: str
    declaration: str  # one line, as in the face
    parameters: tuple[Parameter, ...]
    subsystem: str = ""  # the heading that it stands under
    documentation: str = ""

    def arguments(self, texts: list[str]) -> tuple[list[Any], dict[str, Any]]:
        """Positional and keyword arguments from the texts of a command line. Texts beyond the
        declared parameters are passed on too: the module refuses them in its own words."""
        by_keyword = {p.name: p for p in self.parameters if p.keyword}
        positional: list[Any] = []
        named: dict[str, Any] = {}
        for text in texts:
            name, equals, rest = text.partition("=")
            if equals and name in by_keyword:
                named[name] = by_keyword[name].value(rest)
            elif len(positional) < len(self.parameters):
                positional.append(self.parameters[len(positional)].value(text))
            else:
                positional.append(json_or_text(text))
        return positional, named


def json_or_text(text: str) -> Any:
    """The JSON value that the text is, else the text."""
    try:
        return json.loads(text)
    except (ValueError, RecursionError):
        return text


def functions(face: Path = FACE) -> dict[str, Function]:
    """Name to function, in the order of the face. Raises `OSError`, `SyntaxError` for a face that
    is no Python, `ValueError` for one that declares no function."""
    source = face.read_text(encoding="utf-8")
    headings = {
        number: found["title"]
        for number, line in enumerate(source.splitlines(), 1)
        if (found := _HEADING.fullmatch(line))
    }
    tree = ast.parse(source, str(face))
    declared = [node for node in tree.body if isinstance(node, ast.FunctionDef)]
    if not declared:
        raise ValueError(f"{face}: declares no function")
    return {node.name: _function(node, headings) for node in declared}


def _function(node: ast.FunctionDef, headings: dict[int, str]) -> Function:
    positional = len(node.args.posonlyargs)
    arguments = [*node.args.posonlyargs, *node.args.args]
    required = len(arguments) - len(node.args.defaults)
    parameters = tuple(
        _parameter(argument, keyword=place >= positional, optional=place >= required)
        for place, argument in enumerate(arguments)
    )
    result = f" -> {ast.unparse(node.returns)}" if node.returns else ""
    declaration = f"{node.name}({ast.unparse(node.args)}){result}"
    above = max((line for line in headings if line < node.lineno), default=0)
    documentation = ast.get_docstring(node) or ""
    return Function(node.name, declaration, parameters, headings.get(above, ""), documentation)


def _parameter(argument: ast.arg, keyword: bool, optional: bool) -> Parameter:
    annotation = ast.unparse(argument.annotation) if argument.annotation else "object"
    members = {member.strip() for member in annotation.split("|")}
    return Parameter(argument.arg, frozenset(members - {"None"}), keyword, optional)

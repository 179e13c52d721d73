"""Reader of the module's type stub, modules_util.pyi, which is parsed and not imported.

The command line, the console, the page of functions and the tests use it.
"""

from __future__ import annotations

import ast
import inspect
import itertools
import json
import os
import re
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from veldarin_simulator import native_library
from veldarin_simulator.similar import similar

_ROOT = native_library.INSTALLED / "stage" if native_library.is_installed() else native_library.ROOT
STUB = _ROOT / "veldarin" / "modules" / "modules_util.pyi"

_HEADING = re.compile(r"^# -{10,} (?P<title>\S.*)\n(?P<text>(?:#.*\n)*)", re.MULTILINE)
_REEXPORT = re.compile(r"^(?:from \S+ )?import \S+ as (\w+)$", re.MULTILINE)
_PROMPT = re.compile(r">>> (.*(?:\n\.\.\. .*)*)")
_PART = re.compile(r"^(Args|Raises|Example):\n((?:    .*\n|\n)*)", re.MULTILINE)


class ArgumentError(ValueError):
    """A text of a command line that looks like a keyword argument, but is none."""


@dataclass(frozen=True)
class Parameter:
    """A parameter. `types` are the members of its annotation without None."""

    name: str
    types: frozenset[str]
    keyword: bool  # accepted by name
    default: str | None = None
    annotation: str = ""

    @property
    def declaration(self) -> str:
        """The parameter as the stub declares it."""
        name = f"{self.name}: {self.annotation}" if self.annotation else self.name
        return name if self.default is None else f"{name} = {self.default}"

    @property
    def optional(self) -> bool:
        """Whether the parameter has a default."""
        return self.default is not None

    @property
    def usage(self) -> str:
        """The parameter as a word of a usage line."""
        shown = f"{self.name}=VALUE" if self.keyword else self.name.upper()
        return f"[{shown}]" if self.optional else shown

    def parse(self, text: str) -> Any:
        """Return the argument that a command-line text stands for.

        "None" and "null" are None. By its declared type a parameter takes the text, its bytes, or
        the JSON value of the text; a text that is not JSON stands for itself.
        """
        if text in ("None", "null"):
            return None
        if self.types == {"bytes"}:
            return os.fsencode(text)
        return text if self.types == {"str"} else json_or_text(text)


@dataclass(frozen=True)
class Entry:
    """A function, class or variable of the stub."""

    name: str
    declaration: str
    docstring: str
    line: int
    subsystem: str  # the title of its section

    @property
    def text(self) -> str:
        """The docstring without the sections "Args", "Raises" and "Example"."""
        return re.sub(r"\n{3,}", "\n\n", _PART.sub("", f"{self.docstring}\n")).strip()

    @property
    def summary(self) -> str:
        """The first line of the docstring."""
        return self.docstring.partition("\n")[0]

    @property
    def args(self) -> str:
        """The docstring's section "Args"."""
        return self._part("Args")

    @property
    def raises(self) -> str:
        """The docstring's section "Raises"."""
        return self._part("Raises")

    @property
    def example(self) -> str:
        """The docstring's section "Example"."""
        return self._part("Example")

    def _part(self, title: str) -> str:
        found = dict(_PART.findall(f"{self.docstring}\n")).get(title, "")
        return "\n".join(line[4:] for line in found.splitlines()).strip()


@dataclass(frozen=True)
class Class(Entry):
    """A class; `fields` maps names to annotations."""

    fields: dict[str, str]


@dataclass(frozen=True)
class Function(Entry):
    """A function; `result` is its return annotation."""

    parameters: tuple[Parameter, ...]
    result: str

    def example_call(self) -> tuple[list[Any], dict[str, Any]]:
        """Return positional and keyword arguments of the first call in the docstring's example."""
        for prompt in _PROMPT.findall(self.example):
            for node in ast.walk(ast.parse(prompt.replace("\n... ", "\n"))):
                if isinstance(node, ast.Call) and ast.unparse(node.func) == self.name:
                    keywords = {str(k.arg): ast.literal_eval(k.value) for k in node.keywords}
                    return [ast.literal_eval(argument) for argument in node.args], keywords
        return [], {}

    def arguments(
        self, texts: list[str], values: Iterable[str] = ()
    ) -> tuple[list[Any], dict[str, Any]]:
        """Return positional and keyword arguments for the texts of a command line.

        Surplus texts are included: the module rejects them with its own message.

        Args:
            texts: Values, and keyword arguments as NAME=VALUE.
            values: More values, which are not keyword arguments.

        Raises:
            ArgumentError: A NAME is that of a positional-only parameter, resembles that of another
                one, or occurs twice.
        """
        given: list[str] = []
        keywords: dict[str, Any] = {}
        for text in texts:
            parameter = self._keyword(text)
            if parameter is None:
                given.append(text)
            elif parameter.name in keywords:
                raise ArgumentError(f"{parameter.name} is given twice")
            else:
                keywords[parameter.name] = parameter.parse(text.partition("=")[2])
        given += values
        positional = [
            parameter.parse(text) if parameter else json_or_text(text)
            for text, parameter in zip(
                given, itertools.chain(self.parameters, itertools.repeat(None))
            )
        ]
        return positional, keywords

    def _keyword(self, text: str) -> Parameter | None:
        """Return the parameter that a text of the form NAME=VALUE names."""
        name, equals, _ = text.partition("=")
        if not equals or not name.replace("-", "_").isidentifier():
            return None
        by_name = {parameter.name: parameter for parameter in self.parameters}
        near = name if name in by_name else "".join(similar(name, by_name)[:1])
        if not near:
            return None
        if not by_name[near].keyword:
            problem = f"{near} is positional-only: write the value alone"
        elif near != name:
            problem = f"no parameter is named {name}: did you mean {near}=?"
        else:
            return by_name[name]
        raise ArgumentError(f"{problem}, or write -- before a value that has an equals sign")


@dataclass
class Section:
    """A heading of the stub, the comment below it, and the entries that follow."""

    title: str
    text: str
    line: int
    entries: list[Entry] = field(default_factory=list)


@dataclass(frozen=True)
class Stub:
    """A type stub; `names` are all names that it declares or re-exports.

    Entries above the first heading are in a section without title.
    """

    docstring: str
    sections: list[Section]
    names: set[str]

    @property
    def entries(self) -> list[Entry]:
        """All entries, in order."""
        return [entry for section in self.sections for entry in section.entries]

    @property
    def functions(self) -> dict[str, Function]:
        """Name to function, in order."""
        return {entry.name: entry for entry in self.entries if isinstance(entry, Function)}


def json_or_text(text: str) -> Any:
    """Return the JSON value of a text, or the text if it is not JSON."""
    try:
        return json.loads(text)
    except (ValueError, RecursionError):
        return text


def load(path: Path = STUB) -> Stub:
    """Read a stub from a file.

    Raises:
        OSError: The file cannot be read.
        SyntaxError: The file is not Python.
    """
    return parse(path.read_text(encoding="utf-8"), path)


def functions(path: Path = STUB) -> dict[str, Function]:
    """Read the functions of a stub: name to function, in order.

    Raises:
        OSError, SyntaxError: As `load`.
        ValueError: The stub declares no function.
    """
    found = load(path).functions
    if not found:
        raise ValueError(f"{path}: declares no function")
    return found


def parse(source: str, path: Path = STUB) -> Stub:
    """Parse the text of a stub.

    Raises:
        SyntaxError: The text is not Python.
    """
    tree = ast.parse(source, str(path))
    sections = [Section("", "", 0)]
    for heading in _HEADING.finditer(source):
        line = source.count("\n", 0, heading.start()) + 1
        text = re.sub(r"^# ?", "", heading["text"], flags=re.MULTILINE).strip()
        sections.append(Section(heading["title"], text, line))
    names = set(_REEXPORT.findall(source))
    for node, following in zip(tree.body, [*tree.body[1:], None]):
        section = [section for section in sections if section.line <= node.lineno][-1]
        entry = _entry(node, following, section.title)
        if entry is not None:
            section.entries.append(entry)
            names.add(entry.name)
    docstring = ast.get_docstring(tree) or ""
    return Stub(docstring, [s for s in sections if s.title or s.entries], names)


def _entry(node: ast.stmt, following: ast.stmt | None, subsystem: str) -> Entry | None:
    """Return the entry that a statement declares; a string may follow a variable as docstring."""
    if isinstance(node, ast.FunctionDef):
        parameters = tuple(_parameters(node.args))
        shown = [parameter.declaration for parameter in parameters]
        if node.args.posonlyargs:
            shown.insert(len(node.args.posonlyargs), "/")
        result = ast.unparse(node.returns) if node.returns else ""
        declaration = f"{node.name}({', '.join(shown)}){result and f' -> {result}'}"
        docstring = ast.get_docstring(node) or ""
        return Function(
            node.name, declaration, docstring, node.lineno, subsystem, parameters, result
        )
    if isinstance(node, ast.ClassDef):
        fields = {
            field.target.id: ast.unparse(field.annotation)
            for field in node.body
            if isinstance(field, ast.AnnAssign) and isinstance(field.target, ast.Name)
        }
        lines = [f"class {node.name}({', '.join(map(ast.unparse, node.bases))}):"]
        lines += [f"    {name}: {annotation}" for name, annotation in fields.items()]
        docstring = ast.get_docstring(node) or ""
        return Class(node.name, "\n".join(lines), docstring, node.lineno, subsystem, fields)
    if isinstance(node, (ast.AnnAssign, ast.Assign)):
        target = node.target if isinstance(node, ast.AnnAssign) else node.targets[0]
        docstring = ""
        if isinstance(following, ast.Expr) and isinstance(following.value, ast.Constant):
            docstring = inspect.cleandoc(str(following.value.value))
        return Entry(ast.unparse(target), ast.unparse(node), docstring, node.lineno, subsystem)
    return None


def _parameters(arguments: ast.arguments) -> Iterator[Parameter]:
    declared = [*arguments.posonlyargs, *arguments.args]
    defaults = [None] * (len(declared) - len(arguments.defaults)) + [*arguments.defaults]
    for position, (argument, default) in enumerate(zip(declared, defaults)):
        annotation = ast.unparse(argument.annotation) if argument.annotation else ""
        members = {member.strip() for member in (annotation or "object").split("|")}
        yield Parameter(
            argument.arg,
            frozenset(members - {"None"}),
            position >= len(arguments.posonlyargs),
            None if default is None else ast.unparse(default).replace("Ellipsis", "..."),
            annotation,
        )

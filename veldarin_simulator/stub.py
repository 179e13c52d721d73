"""Reader of the module's type stub, modules_util.pyi, which is parsed and not imported.

The command line, the console, the page of functions and the tests use it.
"""

from __future__ import annotations

import ast
import json
import os
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from veldarin_simulator import native_library

_ROOT = native_library.INSTALLED / "stage" if native_library.is_installed() else native_library.ROOT
STUB = _ROOT / "veldarin" / "modules" / "modules_util.pyi"

_HEADING = re.compile(r"^# -{10,} (?P<title>\S.*)\n(?P<text>(?:#.*\n)*)", re.MULTILINE)
_REEXPORT = re.compile(r"^(?:from \S+ )?import \S+ as (\w+)$", re.MULTILINE)
_PROMPT = re.compile(r">>> (.*(?:\n\.\.\. .*)*)")
# griffe's own parser drops a Raises section that is not a list ("Nothing.").
_PART = re.compile(r"^(Args|Raises|Example):\n((?:    .*\n|\n)*)", re.MULTILINE)


@dataclass(frozen=True)
class Parameter:
    """A parameter. `types` are the members of its annotation without None."""

    name: str
    types: frozenset[str]
    keyword: bool  # accepted by name
    default: str | None = None

    @property
    def optional(self) -> bool:
        """Whether the parameter has a default."""
        return self.default is not None

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

    def arguments(self, texts: list[str]) -> tuple[list[Any], dict[str, Any]]:
        """Return positional and keyword arguments for the texts of a command line.

        Surplus texts are included: the module rejects them with its own message.
        """
        by_keyword = {p.name: p for p in self.parameters if p.keyword}
        positional: list[Any] = []
        keywords: dict[str, Any] = {}
        for text in texts:
            name, equals, rest = text.partition("=")
            if equals and name in by_keyword:
                keywords[name] = by_keyword[name].parse(rest)
            elif len(positional) < len(self.parameters):
                positional.append(self.parameters[len(positional)].parse(text))
            else:
                positional.append(json_or_text(text))
        return positional, keywords


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
    import griffe  # slow to import, and most runs of the simulator do not need it

    module = griffe.visit(path.stem, path, source)
    sections = [Section("", "", 0)]
    for heading in _HEADING.finditer(source):
        line = source.count("\n", 0, heading.start()) + 1
        text = re.sub(r"^# ?", "", heading["text"], flags=re.MULTILINE).strip()
        sections.append(Section(heading["title"], text, line))
    names = set(_REEXPORT.findall(source))
    for member in module.members.values():
        if not member.is_alias:
            section = [section for section in sections if section.line <= (member.lineno or 0)][-1]
            section.entries.append(_entry(member, section.title))
            names.add(member.name)
    docstring = module.docstring.value if module.docstring else ""
    return Stub(docstring, [s for s in sections if s.title or s.entries], names)


def _entry(member: Any, subsystem: str) -> Entry:
    docstring = member.docstring.value if member.docstring else ""
    common = (docstring, member.lineno, subsystem)
    if member.is_function:
        parameters = tuple(_parameter(parameter) for parameter in member.parameters)
        return Function(
            member.name, member.signature(), *common, parameters, str(member.returns or "")
        )
    if member.is_class:
        fields = {name: str(field.annotation) for name, field in member.members.items()}
        lines = [f"class {member.name}({', '.join(map(str, member.bases))}):"]
        lines += [f"    {name}: {annotation}" for name, annotation in fields.items()]
        return Class(member.name, "\n".join(lines), *common, fields)
    annotation = f": {member.annotation}" if member.annotation else ""
    value = f" = {member.value}" if member.value else ""
    return Entry(member.name, f"{member.name}{annotation}{value}", *common)


def _parameter(parameter: Any) -> Parameter:
    members = {member.strip() for member in str(parameter.annotation or "object").split("|")}
    return Parameter(
        parameter.name,
        frozenset(members - {"None"}),
        parameter.kind.name != "positional_only",
        None if parameter.default is None else str(parameter.default),
    )

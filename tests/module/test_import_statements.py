"""The import statements of the module's execution compared with the same statements in Python:
errors with name and path, submodules, and the arguments of a replaced `__import__`."""

from __future__ import annotations

import builtins
import sys
from types import SimpleNamespace
from typing import Any

import pytest

from tests.support import isolated
from tests.support.fake_siblings import SiblingSandbox, create_module
from tests.support.isolated import MODULE, encode_exception

STATEMENTS = [
    "from migbase.cmdbapi.cmdbapi_util import serial_number_ascii",
    "from binascii import hexlify",
    "from collections import namedtuple",
    "from logging import getLogger",
    "from os import urandom",
    "from pathlib import Path",
    "from pyramid.compat import bytes_, text_",
    "from threading import Lock",
    "import ujson as json",
    "from util.errors import CFunctionError",
    "import copy",
]


def outcomes(statements: list[str], *breaks: str) -> list[Any]:
    """Run the statements in Python with broken siblings, then the module's execution.

    Each outcome is the error's type, text, cause, context, name and path, or None, and the values
    of the names.
    """
    import re

    sandbox = SiblingSandbox()
    bound = "serial_number_ascii hexlify namedtuple getLogger urandom Path bytes_ text_ Lock json"
    names = [*bound.split(), "CFunctionError", "copy"]

    def outcome(run: Any, namespace: Any) -> list[Any]:
        before = dict(sys.modules)
        sandbox.break_("\n".join(breaks))
        error: Any = None
        try:
            run()
        except BaseException as raised:
            error = raised
        finally:
            sandbox.restore()
            sys.modules.clear()
            sys.modules.update(before)
        described = None
        if error is not None:
            chained = [repr(error.__cause__), repr(error.__context__)]
            described = [type(error).__name__, str(error), *chained]
            described += [repr(getattr(error, field, "none")) for field in ("name", "path")]
        return [
            described,
            {
                name: re.sub(" at 0x[0-9a-f]+", "", repr(namespace[name]))
                for name in names
                if name in namespace
            },
        ]

    def run_python() -> None:
        exec(compile("\n".join(statements), "statements", "exec"), namespace)

    namespace: dict[str, Any] = {"__name__": MODULE}
    expected = outcome(run_python, namespace)
    module = create_module()
    found = outcome(lambda: module.__loader__.exec_module(module), vars(module))
    return [expected, found]


# A sibling without any names. Its repr has no address.
BARE = "m = siblings['{}'] = type('Bare', (ModuleType,), {{'__repr__': lambda self: 'm'}})('{}')"
PATH = "/somewhere/a.py"
FILE = f"m.__file__ = {PATH!r}"
INITIALIZING = "m.__spec__ = __import__('types').SimpleNamespace(_initializing={})"

BROKEN = {
    "unknown location": [],
    "file": [FILE],
    "file that is not a str": ["m.__file__ = 5"],
    "partially initialized": [FILE, INITIALIZING.format("True")],
    "initialized": [FILE, INITIALIZING.format("False")],
    "initializing, unknown location": [INITIALIZING.format("True")],
    "truth of _initializing fails": [FILE, INITIALIZING.format("type('T', (), {'__bool__': 5})()")],
    "spec without _initializing": [FILE, "m.__spec__ = 5"],
    "no spec": [FILE, "del m.__spec__"],
    "other name": ["m.__name__ = 'other.name'", FILE],
    "empty name": ["m.__name__ = ''"],
    "no name": ["del m.__name__", FILE],
    "no name, unknown location": ["del m.__name__"],
    "name that is not a str": ["m.__name__ = 5", FILE],
    "submodule of the other name is None": [
        "m.__name__ = 'other'",
        "sys.modules['other.{name}'] = None",
    ],
    "submodule in sys.modules": ["m.__name__ = 'o'", "sys.modules['o.{name}'] = '{name} of o'"],
    "failing lookup of the submodule": [
        "m.__name__ = 'o'",
        "class Key(str):",
        "    __hash__ = str.__hash__",
        "    __eq__ = raiser(OSError('compare'))",
        "sys.modules[Key('o.{name}')] = 'submodule'",
    ],
    "package without the submodule": ["m.__path__ = []", "m.__file__ = 'package'"],
    "path that is not a list": ["m.__path__ = 5"],
    "failing attribute": ["type(m).__getattr__ = raiser(OSError('attribute'))"],
    "no attribute": ["type(m).__getattr__ = raiser(AttributeError('attribute'))", FILE],
    "any attribute": ["type(m).__getattr__ = lambda self, name: 'attribute ' + name"],
    "object that is not a module": [
        "siblings['{module}'] = __import__('types').SimpleNamespace(__name__='n', __file__='f')"
    ],
    "no module": ["siblings['{module}'] = None"],
}


BOUND = {
    "submodule of the other name is None": "None",
    "submodule in sys.modules": "'{name} of o'",
    "any attribute": "'attribute {name}'",
}


@pytest.mark.parametrize("label", BROKEN)
@pytest.mark.parametrize(
    "module, name", [("util.errors", "CFunctionError"), ("pyramid.compat", "text_")]
)
def test_from_import_of_broken_sibling_ends_as_in_python(
    module: str, name: str, label: str
) -> None:
    breaks = [BARE.format(module, module), "m.bytes_ = 'bytes_'", *BROKEN[label]]
    rows = [breaks.replace("{name}", name).replace("{module}", module) for breaks in breaks]
    expected, found = isolated.value(outcomes, STATEMENTS, *rows)
    assert found == expected
    error, bound = expected
    if label in BOUND:
        assert error is None
        assert bound[name] == BOUND[label].format(name=name)
    else:
        assert error is not None
        assert name not in bound


@pytest.mark.parametrize(
    "module, missing",
    [
        *((statement.split()[1], "module") for statement in STATEMENTS),
        *((row.split()[1], "name") for row in STATEMENTS if row.startswith("from")),
        *((row.split()[1], "name of a file") for row in STATEMENTS if row.startswith("from")),
    ],
)
def test_each_statement_fails_as_in_python(module: str, missing: str) -> None:
    broken = [f"siblings['{module}'] = None"]
    if missing != "module":
        broken = [BARE.format(module, module), *[FILE] * (missing == "name of a file")]
    expected, found = isolated.value(outcomes, STATEMENTS, *broken)
    assert found == expected
    assert expected[0][0] == ("ModuleNotFoundError" if missing == "module" else "ImportError")
    assert expected[0][4:] == [repr(module), repr(PATH if missing == "name of a file" else None)]


def test_circular_import_error_has_text_name_and_path() -> None:
    rows = [BARE.format("os", "os"), *BROKEN["partially initialized"]]
    (error, _bound), found = isolated.value(outcomes, STATEMENTS, *rows)
    assert found == [error, _bound]
    assert error == [
        "ImportError",
        "cannot import name 'urandom' from partially initialized module 'os' "
        "(most likely due to a circular import) (/somewhere/a.py)",
        "None",
        "None",
        "'os'",
        "'/somewhere/a.py'",
    ]


def test_submodule_is_imported_from_its_package(tmp_path: Any) -> None:
    package = tmp_path / "compat"
    package.mkdir()
    for name in ("__init__", "bytes_", "text_"):
        package.joinpath(f"{name}.py").write_text("")
    breaks = [
        f"sys.path.insert(0, {str(tmp_path)!r})",
        "m = siblings['pyramid.compat'] = importlib.import_module('compat')",
        "m.__name__ = m.__spec__.name = 'pyramid.compat'",
    ]
    expected, found = isolated.value(outcomes, STATEMENTS, *breaks)
    assert found == expected
    error, bound = expected
    assert error is None
    assert bound["text_"].startswith("<module 'pyramid.compat.text_' from ")


def test_replaced_import_is_called_as_by_a_statement() -> None:
    def calls(statements: list[str]) -> list[Any]:
        SiblingSandbox()
        real = builtins.__import__
        recorded: list[Any] = []
        expected: dict[str, Any] = {"__name__": MODULE}
        module = create_module()

        def record(namespace: Any) -> Any:
            def replaced(*args: Any, **kwargs: Any) -> Any:
                if len(args) < 2 or args[1] is not namespace or args[3] == ["__doc__"]:
                    return real(*args, **kwargs)
                name, its_globals, its_locals, fromlist, level = args
                kinds = [type(fromlist).__name__, type(level).__name__, its_locals is its_globals]
                recorded[-1].append([name, fromlist, level, kinds, kwargs])
                if name == "os":
                    return SimpleNamespace(urandom="bound as it is")
                if name == "copy":
                    return "returned as it is"
                return real(*args, **kwargs)

            recorded.append([])
            return replaced

        builtins.__import__ = record(expected)
        exec("\n".join(statements), expected)
        builtins.__import__ = record(vars(module))
        module.__loader__.exec_module(module)
        builtins.__import__ = real
        bound = [[names["urandom"], names["copy"]] for names in (expected, vars(module))]
        return [*recorded, bound]

    expected, found, bound = isolated.value(calls, STATEMENTS)
    assert found == expected
    assert [row[:3] for row in expected[6:9]] == [
        ["pyramid.compat", ["bytes_", "text_"], 0],
        ["threading", ["Lock"], 0],
        ["ujson", None, 0],
    ]
    assert [row[0] for row in expected] == [statement.split()[1] for statement in STATEMENTS]
    assert bound == [["bound as it is", "returned as it is"]] * 2


@pytest.mark.parametrize("deleted", [False, True])
def test_failing_import_function_fails_as_in_python(deleted: bool) -> None:
    def errors(deleted: bool) -> list[Any]:
        SiblingSandbox()
        real = builtins.__import__

        def replaced(name: str, *args: Any, **kwargs: Any) -> Any:
            if name == "binascii":
                if not deleted:
                    raise OSError("import")
                del builtins.__import__
            return real(name, *args, **kwargs)

        module = create_module()
        statements = compile(
            "import binascii\nfrom collections import namedtuple", "statements", "exec"
        )
        described = []
        for run in (
            lambda: exec(statements, {"__name__": MODULE}),
            lambda: module.__loader__.exec_module(module),
        ):
            builtins.__import__ = replaced
            try:
                run()
            except Exception as error:
                described.append(encode_exception(error))
            builtins.__import__ = real
        return described

    expected, found = map(isolated.Error.of, isolated.value(errors, deleted))
    assert (found.type, found.text) == (expected.type, expected.text)
    assert found.text == ("__import__ not found" if deleted else "import")
    (entry,) = found.entries_of(f"init {isolated.MODULE}")
    assert entry.line == (5 if deleted else 4)
    assert found.entries_of("<module>") == []
    assert found.entries_of("replaced") == expected.entries_of("replaced")

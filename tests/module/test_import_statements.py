"""The import statements of the module's execution compared with the same statements in Python:
errors with name and path, submodules, and the arguments of a replaced `__import__`."""

from __future__ import annotations

import builtins
import re
import sys
from pathlib import Path
from types import SimpleNamespace
from typing import Any, Callable

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


BOUND_NAMES = """
    serial_number_ascii hexlify namedtuple getLogger urandom Path bytes_ text_ Lock json
    CFunctionError copy
""".split()


def outcome(
    run: Callable[[], object], namespace: dict[str, Any], breaks: list[str]
) -> tuple[list[str] | None, dict[str, str]]:
    """Run with broken siblings; return the error and the values of the names.

    The error is a list of type, text, cause, context, name and path, or None.
    """
    before = dict(sys.modules)
    sandbox = SiblingSandbox()
    sandbox.break_("\n".join(breaks))
    described = None
    try:
        run()
    except BaseException as error:
        described = [type(error).__name__, str(error)]
        described += [repr(error.__cause__), repr(error.__context__)]
        described += [repr(getattr(error, field, "none")) for field in ("name", "path")]
    finally:
        sandbox.restore()
        sys.modules.clear()
        sys.modules.update(before)
    held = {name: repr(namespace[name]) for name in BOUND_NAMES if name in namespace}
    return described, {name: re.sub(" at 0x[0-9a-f]+", "", held[name]) for name in held}


def outcome_as_in_python(*breaks: str) -> tuple[list[str] | None, dict[str, str]]:
    """The outcome of the module's execution, which must be that of the statements in Python."""
    namespace: dict[str, Any] = {"__name__": MODULE}
    code = compile("\n".join(STATEMENTS), "statements", "exec")
    expected = outcome(lambda: exec(code, namespace), namespace, [*breaks])
    SiblingSandbox()
    module = create_module()
    run = module.__loader__.exec_module
    assert outcome(lambda: run(module), vars(module), [*breaks]) == expected
    return expected


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


each_broken_sibling = pytest.mark.parametrize(
    "module, name", [("util.errors", "CFunctionError"), ("pyramid.compat", "text_")]
)


def import_from_broken(
    module: str, name: str, label: str
) -> tuple[list[str] | None, dict[str, str]]:
    """The outcome with a sibling broken in the way of the label."""
    breaks = [BARE.format(module, module), "m.bytes_ = 'bytes_'", *BROKEN[label]]
    rows = [row.replace("{name}", name).replace("{module}", module) for row in breaks]
    return outcome_as_in_python(*rows)


@each_broken_sibling
@isolated.test
def test_from_import_of_broken_sibling_fails_as_in_python(module: str, name: str) -> None:
    for label in BROKEN.keys() - BOUND.keys():
        error, bound = import_from_broken(module, name, label)
        assert error is not None, label
        assert name not in bound, label


@each_broken_sibling
@pytest.mark.parametrize("label", BOUND)
@isolated.test
def test_from_import_of_broken_sibling_binds_as_in_python(
    module: str, name: str, label: str
) -> None:
    error, bound = import_from_broken(module, name, label)
    assert error is None
    assert bound[name] == BOUND[label].format(name=name)


@isolated.test
def test_lack_of_memory_for_the_name_of_a_sibling_is_reported() -> None:
    """The statement in Python would report that the name cannot be imported."""
    SiblingSandbox()
    module = create_module()
    fields = "{'__name__': property(raiser(MemoryError('name')))}"
    broken = f"siblings['util.errors'] = type('Bare', (ModuleType,), {fields})('util.errors')"
    run = module.__loader__.exec_module
    described, _names = outcome(lambda: run(module), vars(module), [broken])
    assert described is not None
    assert described[:2] == ["MemoryError", "name"]


@isolated.test
def test_each_statement_fails_as_in_python() -> None:
    for kind, module, *_ in map(str.split, STATEMENTS):
        error, _bound = outcome_as_in_python(f"siblings['{module}'] = None")
        assert error is not None
        assert (error[0], *error[4:]) == ("ModuleNotFoundError", repr(module), "None")
        for path in [None, PATH] if kind == "from" else []:
            row = [FILE] if path else []
            error, _bound = outcome_as_in_python(BARE.format(module, module), *row)
            assert error is not None
            assert (error[0], *error[4:]) == ("ImportError", repr(module), repr(path))


@isolated.test
def test_circular_import_error_has_text_name_and_path() -> None:
    error, _ = outcome_as_in_python(BARE.format("os", "os"), *BROKEN["partially initialized"])
    assert error == [
        "ImportError",
        "cannot import name 'urandom' from partially initialized module 'os' "
        "(most likely due to a circular import) (/somewhere/a.py)",
        "None",
        "None",
        "'os'",
        "'/somewhere/a.py'",
    ]


@isolated.test
def test_submodule_is_imported_from_its_package(tmp_path: Path | str) -> None:
    package = Path(tmp_path) / "compat"
    package.mkdir()
    for name in ("__init__", "bytes_", "text_"):
        package.joinpath(f"{name}.py").write_text("")
    error, bound = outcome_as_in_python(
        f"sys.path.insert(0, {str(tmp_path)!r})",
        "m = siblings['pyramid.compat'] = importlib.import_module('compat')",
        "m.__name__ = m.__spec__.name = 'pyramid.compat'",
    )
    assert error is None
    assert bound["text_"].startswith("<module 'pyramid.compat.text_' from ")


@isolated.test
def test_replaced_import_is_called_as_by_a_statement() -> None:
    real = builtins.__import__

    def import_calls(namespace: dict[str, Any], run: Callable[[], object]) -> list[Any]:
        calls = []

        def replaced(*args: Any, **kwargs: Any) -> Any:
            if len(args) < 2 or args[1] is not namespace or args[3] == ["__doc__"]:
                return real(*args, **kwargs)
            name, its_globals, its_locals, fromlist, level = args
            same = its_locals is its_globals
            calls.append([name, fromlist, level, type(fromlist), type(level), same, kwargs])
            if name == "os":
                return SimpleNamespace(urandom="bound as it is")
            return "returned as it is" if name == "copy" else real(*args, **kwargs)

        builtins.__import__ = replaced
        run()
        builtins.__import__ = real
        assert (namespace["urandom"], namespace["copy"]) == ("bound as it is", "returned as it is")
        return calls

    SiblingSandbox()
    names: dict[str, Any] = {"__name__": MODULE}
    expected = import_calls(names, lambda: exec("\n".join(STATEMENTS), names))
    module = create_module()
    run = module.__loader__.exec_module
    assert import_calls(vars(module), lambda: run(module)) == expected
    assert [row[:3] for row in expected[6:9]] == [
        ["pyramid.compat", ("bytes_", "text_"), 0],
        ["threading", ("Lock",), 0],
        ["ujson", None, 0],
    ]
    assert [row[0] for row in expected] == [statement.split()[1] for statement in STATEMENTS]


@pytest.mark.parametrize("deleted", [False, True])
@isolated.test
def test_failing_import_function_fails_as_in_python(deleted: bool) -> None:
    SiblingSandbox()
    real = builtins.__import__

    def replaced(name: str, *args: Any, **kwargs: Any) -> Any:
        if name == "binascii":
            if not deleted:
                raise OSError("import")
            del builtins.__import__
        return real(name, *args, **kwargs)

    def import_error(run: Callable[[], object]) -> isolated.Error:
        builtins.__import__ = replaced
        try:
            run()
        except Exception as error:
            raised = error
        builtins.__import__ = real
        return isolated.Error.of(encode_exception(raised))

    code = compile("import binascii\nfrom collections import namedtuple", "statements", "exec")
    expected = import_error(lambda: exec(code, {"__name__": MODULE}))
    module = create_module()
    run = module.__loader__.exec_module
    found = import_error(lambda: run(module))
    assert (found.type, found.text) == (expected.type, expected.text)
    assert found.text == ("__import__ not found" if deleted else "import")
    (entry,) = found.entries_of(f"init {MODULE}")
    assert entry.line == (5 if deleted else 4)
    assert found.entries_of("<module>") == []
    assert found.entries_of("replaced") == expected.entries_of("replaced")

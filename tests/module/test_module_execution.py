"""The exec slot: its checks, imports and errors, and their order.

Each test runs in an isolated process with the sibling modules of `fake_siblings`. Most tests break
some of them with statements, see the import fail, restore them and import the module again.
"""

from __future__ import annotations

import importlib
import logging
import os
import sys
import warnings
import weakref
from types import BuiltinFunctionType, ModuleType
from typing import Any, Callable

import pytest

from tests.support import fake_siblings, isolated
from tests.support.assertions import FILE, raises_exactly
from tests.support.doubles import Failure, UncomparableStr
from tests.support.fake_siblings import (
    JSON_OBJECT_SIZE,
    LIBRARY_MODULES,
    POINTER,
    SiblingSandbox,
    create_module,
    exec_module,
)
from tests.support.isolated import MODULE, WRONG_PYTHON_MODULE, encode_exception

pytestmark = pytest.mark.slow

# (module, item, "variable" or "function", signature) of each C-level import.
C_IMPORTS = [
    ("migbase.migbase", "WARM_START_PATH", "variable", "char *"),
    ("veldarin.modules.modules", "get_preference_cookie_secret_path", "function", "char *(void)"),
    ("util.string", "strtcpy", "function", "int (char *, int, char const *)"),
]
each_c_import = pytest.mark.parametrize(("module", "item", "kind", "signature"), C_IMPORTS)

# The module-level import statements in order: module, names.
IMPORT_STATEMENTS: list[tuple[str, tuple[str, ...]]] = [
    ("migbase.cmdbapi.cmdbapi_util", ("serial_number_ascii",)),
    ("binascii", ("hexlify",)),
    ("collections", ("namedtuple",)),
    ("logging", ("getLogger",)),
    ("os", ("urandom",)),
    ("pathlib", ("Path",)),
    ("pyramid.compat", ("bytes_", "text_")),
    ("threading", ("Lock",)),
    ("ujson", ()),  # a whole module, bound as json
    ("util.errors", ("CFunctionError",)),
    ("copy", ()),
]
FROM_IMPORTS = [(module, name) for module, names in IMPORT_STATEMENTS for name in names]

# The module-level calls in order: module of the callee, callee, name of the result.
CALLS = [
    ("logging", "getLogger", "_logger"),
    ("threading", "Lock", "_interface_lock"),
    ("collections", "namedtuple", "Counters"),
]

# The sizes that instances of the imported types have.
TYPE_SIZES: dict[str, Any] = {
    **{f"builtins.{kind.__name__}": kind.__basicsize__ for kind in (type, bool, complex)},
    "util.json.JSONObject": JSON_OBJECT_SIZE,
}


def size_changed(name: str, more: int) -> str:
    """The message for an imported type whose size differs by `more` bytes."""
    expected = TYPE_SIZES[name]
    return (
        f"{name} size changed, may indicate binary incompatibility. "
        f"Expected {expected} from C header, got {expected + more} from PyObject"
    )


def resized(name: str, more: int) -> str:
    """The statement that replaces a type with one whose size differs by `more` bytes."""
    size = TYPE_SIZES[name] + more
    module, _, kind = name.rpartition(".")
    if module == "builtins":
        return f"builtins.{kind} = sized_type('{kind}', {size}, {kind})"
    return f"siblings['{module}'].{kind} = json_object({size})"


def check_import_entry(error: BaseException) -> None:
    """Fail unless the import has left one traceback entry."""
    entries = isolated.Error.of(encode_exception(error)).entries_of(f"init {MODULE}")
    assert [(entry.file, entry.first_line) for entry in entries] == [(FILE, 1)]


def import_errors(*breaks: list[str]) -> list[BaseException]:
    """Import with siblings broken by each set of statements, then with valid ones.

    Returns:
        The error of each failing import.
    """
    sandbox = SiblingSandbox()
    errors: list[BaseException] = []
    for statements in breaks:
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            sandbox.break_(*statements)
            try:
                importlib.import_module(MODULE)
            except BaseException as error:
                errors.append(error)
            else:
                raise AssertionError(f"the import succeeded in spite of {statements}")
            finally:
                sandbox.restore()
        check_import_entry(errors[-1])
        assert ([str(warning) for warning in caught], MODULE in sys.modules) == ([], False)
    module: Any = importlib.import_module(MODULE)
    assert (module.__name__, module.new_cookie_id.__name__) == (MODULE, "new_cookie_id")
    assert module.__test__ == {}
    return errors


def error_types_and_texts(*breaks: list[str]) -> list[tuple[str, str]]:
    """Type and text of the errors that `import_errors` returns."""
    return [(type(error).__name__, str(error)) for error in import_errors(*breaks)]


MISSING = "import of {} halted; None in sys.modules"
# Statement that breaks what one step needs, type and text of the error; in the order of the steps.
FAILURES = [
    ("del builtins.open", "NameError", "name 'open' is not defined"),
    ("del builtins.range", "NameError", "name 'range' is not defined"),
    *((resized(name, -POINTER), "ValueError", size_changed(name, -POINTER)) for name in TYPE_SIZES),
    (
        "siblings['util.json'].JSONObject.__pyx_vtable__ = null_capsule(None)",
        "RuntimeError",
        "invalid vtable found for imported type",
    ),
    (
        "del siblings['migbase.migbase'].__pyx_capi__['WARM_START_PATH']",
        "ImportError",
        "migbase.migbase does not export expected C variable WARM_START_PATH",
    ),
    (
        "siblings['veldarin.modules.modules'].__pyx_capi__.clear()",
        "ImportError",
        "veldarin.modules.modules does not export expected C function "
        "get_preference_cookie_secret_path",
    ),
    (
        "del siblings['util.string'].__pyx_capi__['strtcpy']",
        "ImportError",
        "util.string does not export expected C function strtcpy",
    ),
    *(
        (f"siblings['{module}'] = None", "ModuleNotFoundError", MISSING.format(module))
        for module, _names in IMPORT_STATEMENTS
    ),
]


@isolated.test
def test_failing_step_fails_import_until_repaired() -> None:
    assert error_types_and_texts(*([statement] for statement, _kind, _text in FAILURES)) == [
        (kind, text) for _statement, kind, text in FAILURES
    ]


@isolated.test
def test_import_steps_run_in_order() -> None:
    # Breaks all steps, then all but the first, and so on: the first broken step must raise. The
    # statements run in reverse order, because those that break builtins would break the others.
    statements = [statement for statement, _kind, _text in FAILURES]
    breaks = [statements[first:][::-1] for first in range(len(statements))]
    assert error_types_and_texts(*breaks) == [(kind, text) for _statement, kind, text in FAILURES]


# The imported types


@pytest.mark.parametrize("name", TYPE_SIZES)
@pytest.mark.parametrize("more", [0, 1, 10])
@isolated.test
def test_larger_type_warns_and_import_succeeds(name: str, more: int) -> None:
    sandbox = SiblingSandbox()
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        sandbox.break_(resized(name, more * POINTER))
        importlib.import_module(MODULE)
        sandbox.restore()
    expected = [(RuntimeWarning, size_changed(name, more * POINTER))] if more else []
    assert [(warning.category, str(warning.message)) for warning in caught] == expected
    for warning in caught:  # its place is the Python code that executes the module
        assert warning.filename == "<frozen importlib._bootstrap>"


@isolated.test
def test_size_warning_as_error_fails_import() -> None:
    warnings_raise = "__import__('warnings').simplefilter('error', RuntimeWarning)"
    breaks = [[resized(name, POINTER), warnings_raise] for name in TYPE_SIZES]
    assert error_types_and_texts(*breaks) == [
        ("RuntimeWarning", size_changed(name, POINTER)) for name in TYPE_SIZES
    ]


@isolated.test
def test_missing_type_or_vtable_raises_interpreter_error() -> None:
    subclass = "type('JSONObject', (siblings['util.json'].JSONObject,), {'__slots__': ()})"
    breaks = {
        "siblings['util.json'] = None": ("ModuleNotFoundError", MISSING.format("util.json")),
        "del siblings['util.json'].JSONObject": (
            "AttributeError",
            "module 'util.json' has no attribute 'JSONObject'",
        ),
        "del builtins.complex": (
            "AttributeError",
            "module 'builtins' has no attribute 'complex'",
        ),
        "del siblings['util.json'].JSONObject.__pyx_vtable__": ("KeyError", "'__pyx_vtable__'"),
        # the vtable of the base class is not used
        f"siblings['util.json'].JSONObject = {subclass}": ("KeyError", "'__pyx_vtable__'"),
    }
    assert error_types_and_texts(*([statement] for statement in breaks)) == [*breaks.values()]


@isolated.test
def test_imported_non_type_raises_type_error() -> None:
    errors = import_errors(
        ["siblings['util.json'].JSONObject = json_object()()"],
        ["siblings['util.json'].JSONObject = len"],
        ["siblings['util.json'].JSONObject = bytes(8)"],  # read as a type, its size is 0
        ["builtins.complex = 1j"],
    )
    assert [(type(error), str(error)) for error in errors] == [
        (TypeError, f"{name} is not a type object")
        for name in (*["util.json.JSONObject"] * 3, "builtins.complex")
    ]


@isolated.test
def test_vtable_that_is_not_a_capsule_fails_import() -> None:
    (error,) = import_errors(["siblings['util.json'].JSONObject.__pyx_vtable__ = 5"])
    assert type(error) in {RuntimeError, TypeError, ValueError}


# The C-level imports

# Replaces the key of the item with an equal one whose comparison fails.
UNCOMPARABLE_KEY = """
Key = type('Key', (str,), {{'__hash__': str.__hash__, '__eq__': raiser(OSError('no comparison'))}})
siblings['{module}'].__pyx_capi__ = {{Key('{item}'): 5}}
"""


@each_c_import
@isolated.test
def test_missing_capi_item_fails_import(module: str, item: str, kind: str, signature: str) -> None:
    add_other = f"siblings['{module}'].__pyx_capi__['other'] = capsule(1, {signature.encode()!r})"
    missing = f"del siblings['{module}'].__pyx_capi__['{item}']"
    errors: list[Any] = import_errors(
        [f"siblings['{module}'] = None"],
        [f"del siblings['{module}'].__pyx_capi__"],
        [
            f"del siblings['{module}'].__pyx_capi__",
            f"siblings['{module}'].__getattr__ = raiser(KeyError('no attribute'))",
        ],
        [missing],
        [add_other, missing],  # another item of the same signature is not used instead
        [UNCOMPARABLE_KEY.format(module=module, item=item)],
    )
    assert [(type(error), str(error)) for error in errors] == [
        (ModuleNotFoundError, MISSING.format(module)),
        (AttributeError, f"module '{module}' has no attribute '__pyx_capi__'"),
        (KeyError, "'no attribute'"),
        (ImportError, f"{module} does not export expected C {kind} {item}"),
        (ImportError, f"{module} does not export expected C {kind} {item}"),
        (OSError, "no comparison"),
    ]
    assert (errors[3].name, errors[3].path) == (None, None)


@each_c_import
@isolated.test
def test_capi_item_of_wrong_signature_fails_import(
    module: str, item: str, kind: str, signature: str
) -> None:
    right = signature.encode()
    exported_and_got = [
        ("capsule(1, b'int *')", "int *"),
        ("capsule(1, b'')", ""),
        (f"capsule(1, {right + b' '!r})", signature + " "),
        (f"capsule(1, {right[:-1]!r})", signature[:-1]),
        ("capsule(1, b'x' * 700)", "x" * 500),
        # not a capsule: the error names its type
        ("5", "int"),
        ("None", "NoneType"),
        ("len", "builtin_function_or_method"),
    ]
    export = f"siblings['{module}'].__pyx_capi__['{item}'] = "
    wrong = f"C {kind} {module}.{item} has wrong signature (expected {signature}, got "
    *errors, error_of_unnamed = error_types_and_texts(
        *([export + exported] for exported, _got in exported_and_got),
        [export + "capsule(1, None)"],
    )
    assert errors == [("TypeError", f"{wrong}{got})") for _exported, got in exported_and_got]
    assert error_of_unnamed[0] == "TypeError"
    assert error_of_unnamed[1].startswith(wrong)
    assert "null" not in error_of_unnamed[1]


@isolated.test
def test_imported_c_functions_are_called() -> None:
    paths = []

    class Path:
        def __init__(self, path: str) -> None:
            paths.append(path)

        def is_file(self) -> bool:
            raise OSError("end of the call")

    SiblingSandbox()
    module: Any = importlib.import_module(MODULE)
    module.decrypt_cookie(b"cookie")
    module.Path = Path
    assert str(raises_exactly(OSError, module.get_token)) == "end of the call"
    assert fake_siblings.strtcpy_calls == [(7, b"cookie")]
    assert paths == ["/nonexistent/secret"]


# The module-level statements


def without(module: str, name: str) -> str:
    """The statement that deletes one name of a module."""
    if module in LIBRARY_MODULES:
        return f"siblings['{module}'] = without_attributes('{module}', '{name}')"
    return f"del siblings['{module}'].{name}"


@isolated.test
def test_missing_name_raises_import_error() -> None:
    errors = import_errors(*([without(module, name)] for module, name in FROM_IMPORTS))
    for (_module, name), error in zip(FROM_IMPORTS, errors):
        assert type(error) is ImportError
        assert str(error).startswith("cannot import name ")
        assert name in str(error).split()[3]  # "cannot import name NAME from ..."


def bound_names(module: str, names: tuple[str, ...]) -> tuple[str, ...]:
    """The names that an import statement binds."""
    return names or ({"ujson": "json"}.get(module, module),)


# The names in the order of the statements that bind them.
BINDINGS = [name for module, names in IMPORT_STATEMENTS for name in bound_names(module, names)]
BINDINGS += ["_logger", "_INVALID_INDEX", "_interface_count", "_interface_lock", "_CHARSET"]
BINDINGS += ["Counters"]


def failing_call(module: str, name: str, error: str) -> str:
    """The statement that replaces an imported function with one that raises an error."""
    return f"siblings['{module}'] = with_attributes('{module}', {name}=raiser({error}))"


FAILING_STATEMENTS = [
    # (statement that breaks a step, first name that the import then does not bind)
    ("siblings['util.string'] = None", BINDINGS[0]),
    *(
        (f"siblings['{module}'] = None", bound_names(module, names)[0])
        for module, names in IMPORT_STATEMENTS
    ),
    *((failing_call(module, name, "OSError()"), result) for module, name, result in CALLS),
]


@isolated.test
def test_statements_bind_names_in_order() -> None:
    sandbox = SiblingSandbox()
    for statement, unbound in FAILING_STATEMENTS:
        module = create_module()
        before = {*vars(module), "__builtins__"}
        sandbox.break_(statement)
        with pytest.raises((ImportError, OSError)):
            module.__loader__.exec_module(module)
        sandbox.restore()
        bound = [name for name in vars(module) if name not in before]
        assert bound == BINDINGS[: BINDINGS.index(unbound)]
        assert MODULE not in sys.modules


@isolated.test
def test_failing_module_level_call_fails_import() -> None:
    errors = [
        (module, name, *error)
        for module, name, result in CALLS
        for error in [("OSError", f"no {result}"), ("MemoryError", "")]
    ]
    breaks = [
        [failing_call(module, name, f"{kind}({text!r})")] for module, name, kind, text in errors
    ]
    assert error_types_and_texts(*breaks) == [(kind, text) for _module, _name, kind, text in errors]


def call_in_import(function: Callable[[], object]) -> None:
    """Have the import call a function when it gets a name from `util.errors`, its last sibling."""
    SiblingSandbox()

    class Errors(ModuleType):
        def __getattr__(self, wanted: str) -> Any:
            if wanted != "CFunctionError":
                raise AttributeError(wanted)
            function()
            return Exception

    sys.modules["util.errors"] = Errors("util.errors")


def import_with_changed_globals(statement: str) -> Any:
    """Import, and change the module's globals between its imports and the calls that use them."""
    call_in_import(lambda: exec(statement, {"module": vars(sys.modules[MODULE])}))
    return importlib.import_module(MODULE)


COUNTERS = (
    "Counters",
    "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout",
)


@pytest.mark.parametrize(
    ("statement", "name", "expected"),
    [
        ("module['getLogger'] = lambda *given: given", "_logger", (MODULE,)),
        ("module['getLogger'], module['__name__'] = str, 'renamed'", "_logger", "renamed"),
        ("del module['getLogger']; __builtins__['getLogger'] = str", "_logger", MODULE),
        ("del module['__name__']; module['getLogger'] = str", "_logger", "builtins"),
        ("module['Lock'] = lambda *given: given", "_interface_lock", ()),
        ("module['namedtuple'] = lambda *given: given", "Counters", COUNTERS),
    ],
)
@isolated.test
def test_module_level_calls_read_current_globals(
    statement: str, name: str, expected: object
) -> None:
    if isinstance(expected, list):  # a tuple, which arrives here as JSON
        expected = tuple(expected)
    assert getattr(import_with_changed_globals(statement), name) == expected


@pytest.mark.parametrize("name", [name for _module, name, _result in CALLS])
@isolated.test
def test_deleted_global_raises_name_error_in_import(name: str) -> None:
    error = raises_exactly(NameError, import_with_changed_globals, f"del module['{name}']")
    assert str(error) == f"name '{name}' is not defined"
    check_import_entry(error)


@isolated.test
def test_execution_binds_new_functions() -> None:
    SiblingSandbox()
    module = create_module("another.modules_util")
    before = dict(vars(module))
    module.__loader__.exec_module(module)
    functions = [name for name, value in before.items() if isinstance(value, BuiltinFunctionType)]
    assert len(functions) == 30
    for name in functions:
        function = vars(module)[name]
        assert function is not before[name]
        assert function.__module__ == MODULE


# The module object, `sys.modules` and the re-initialization guard


def check_rejected(module: Any) -> None:
    """Fail unless the execution of the module raises the error of a second execution."""
    before = dict(vars(module))
    error = raises_exactly(RuntimeError, exec_module, module)
    assert str(error) == (
        "Module 'modules_util' has already been imported. Re-initialisation is not supported."
    )
    check_import_entry(error)
    assert vars(module) == before


@isolated.test
def test_second_module_execution_raises_and_first_stays() -> None:
    SiblingSandbox()
    first, second = create_module(), create_module()
    exec_module(first)
    check_rejected(second)
    assert first._CHARSET == "utf-8"
    assert sys.modules[MODULE] is first
    assert create_module() is first


@pytest.mark.parametrize("act", ["execute", "create", "execute another"])
@isolated.test
def test_nested_execution_or_creation_changes_nothing(act: str) -> None:
    early = create_module()  # before any execution, so the import creates another object
    unchanged: list[bool] = []

    def nested() -> None:
        module: Any = sys.modules[MODULE]
        before = dict(vars(module))
        if act == "execute":
            exec_module(module)
        elif act == "create":
            assert create_module() is module
        else:
            check_rejected(early)
        unchanged.append(vars(module) == before)

    call_in_import(nested)
    module: Any = importlib.import_module(MODULE)
    assert module is not early
    assert module.__test__ == {}
    assert unchanged == [True]
    assert not hasattr(early, "__builtins__")


@isolated.test
def test_second_execution_changes_nothing() -> None:
    SiblingSandbox()
    module: Any = importlib.import_module(MODULE)
    module._CHARSET = "rebound"
    del module.Counters
    before = dict(vars(module))
    sys.modules["ujson"] = None  # type: ignore[assignment]
    exec_module(module)
    assert list(vars(module)) == list(before)
    assert all(value is before[name] for name, value in vars(module).items())


@pytest.mark.parametrize("way", ["reload", "import after it left sys.modules"])
@isolated.test
def test_second_import_returns_same_module(way: str) -> None:
    SiblingSandbox()
    module: Any = importlib.import_module(MODULE)
    module._CHARSET = "rebound"
    if way == "reload":
        assert importlib.reload(module) is module
    else:
        del sys.modules[MODULE]
        assert importlib.import_module(MODULE) is module
    assert module._CHARSET == "rebound"
    assert sys.modules[MODULE] is module


@isolated.test
def test_import_after_failed_execution_is_new_module() -> None:
    sandbox = SiblingSandbox()
    sandbox.break_("siblings['copy'] = None")
    failed = create_module()
    raises_exactly(ModuleNotFoundError, failed.__loader__.exec_module, failed)
    sandbox.restore()
    module = importlib.import_module(MODULE)
    assert module is not failed
    assert (hasattr(failed, "__test__"), hasattr(module, "__test__")) == (False, True)


@isolated.test
def test_module_executed_as_main_is_named_main() -> None:
    SiblingSandbox()
    module = sys.modules["__main__"] = create_module()
    module.__loader__.exec_module(module)
    assert (module.__name__, module._logger.name) == ("__main__", "__main__")
    assert sys.modules[MODULE] is module


@pytest.mark.parametrize("exists", [False, True])
@isolated.test
def test_execution_keeps_existing_sys_modules_entry(exists: bool) -> None:
    SiblingSandbox()
    other = ModuleType("other")
    if exists:
        sys.modules[MODULE] = other
    module = create_module()
    module.__loader__.exec_module(module)
    assert sys.modules[MODULE] is (other if exists else module)


@pytest.mark.parametrize("exists", [False, True])
@isolated.test
def test_failing_lookup_of_main_module_fails_import(exists: bool) -> None:
    SiblingSandbox()
    if exists:
        sys.modules[MODULE] = ModuleType("other")
    sys.modules[UncomparableStr("__main__")] = sys.modules.pop("__main__")
    module = create_module()
    check_import_entry(raises_exactly(Failure, module.__loader__.exec_module, module))


@isolated.test
def test_failing_lookup_of_module_name_fails_import() -> None:
    SiblingSandbox()
    sys.modules[UncomparableStr(MODULE)] = ModuleType("other")
    module = create_module()
    check_import_entry(raises_exactly(Failure, module.__loader__.exec_module, module))


@isolated.test
def test_import_keeps_no_logger_that_it_loses() -> None:
    class Logger:
        pass

    SiblingSandbox()
    logging.getLogger = lambda *given: Logger()  # type: ignore[assignment]
    module = importlib.import_module(MODULE)
    logger = weakref.ref(module._logger)
    del module._logger
    assert logger() is None


@isolated.test
def test_import_without_main_module_succeeds() -> None:
    SiblingSandbox()
    del sys.modules["__main__"]
    module = create_module()
    module.__loader__.exec_module(module)
    assert (module.__name__, sys.modules[MODULE]) == (MODULE, module)


@isolated.test
def test_renamed_module_is_in_sys_modules_as_modules_util() -> None:
    SiblingSandbox()
    module = create_module("another.modules_util")
    module.__loader__.exec_module(module)
    assert sys.modules[MODULE] is module
    assert "another.modules_util" not in sys.modules
    assert (module.__name__, module._logger.name) == ("another.modules_util",) * 2


# The version of the interpreter

VERSION_TEXT = (
    "compiletime version 3.9 of module 'veldarin.modules.modules_util' "
    "does not match runtime version {}"
)


@isolated.test
def test_matching_python_version_gives_no_warning() -> None:
    SiblingSandbox()
    warnings.simplefilter("error")
    assert importlib.import_module(MODULE).__test__ == {}


@pytest.mark.parametrize(
    ("version", "warned"),
    [
        (None, ["3.1"]),  # the default of the variant is 3.10
        ("4.9.0", ["4.9"]),
        ("3.9.0", []),
        ("3x9 what follows", []),
        ("2.7", ["2.7"]),
    ],
)
@isolated.test
def test_version_check_compares_two_characters(version: str | None, warned: list[str]) -> None:
    if version:
        os.environ["SEEMING_VERSION"] = version
    SiblingSandbox()
    module = create_module(path=WRONG_PYTHON_MODULE)
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        exec_module(module)
        exec_module(module)  # warns no second time
    assert [(warning.category, str(warning.message)) for warning in caught] == [
        (RuntimeWarning, VERSION_TEXT.format(found)) for found in warned
    ]
    assert module._CHARSET == "utf-8"
    for warning in caught:  # its place is the Python code that executes the module
        code = exec_module.__code__
        assert warning.filename == code.co_filename
        assert warning.lineno > code.co_firstlineno


@isolated.test
def test_version_warning_as_error_fails_import_first() -> None:
    SiblingSandbox()
    warnings.simplefilter("error")
    module = create_module(path=WRONG_PYTHON_MODULE)
    error = raises_exactly(RuntimeWarning, exec_module, module)
    assert str(error) == VERSION_TEXT.format("3.1")
    check_import_entry(error)
    assert not hasattr(module, "__builtins__")
    assert MODULE not in sys.modules

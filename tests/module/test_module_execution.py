"""The exec slot: its checks, imports and errors, and their order.

Each import runs in a new process with the sibling modules of `fake_siblings`, one of which a
statement breaks. After the sibling is restored the same process imports the module.
"""

from __future__ import annotations

import importlib
import sys
import warnings
from types import BuiltinFunctionType, ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE
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

INIT = f"init {isolated.MODULE}"

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


def import_broken(*breaks: list[str]) -> dict[str, Any]:
    """Import with each set of broken siblings, then with valid ones.

    Each set is a list of statements. Returns the result of each import and of the last one.
    """
    sandbox = SiblingSandbox()
    attempts = []
    for statements in breaks:
        error = None
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            sandbox.break_(*statements)
            try:
                importlib.import_module(MODULE)
            except BaseException as raised:
                error = encode_exception(raised)
            finally:
                sandbox.restore()
        warned = [[warning.category.__name__, str(warning.message)] for warning in caught]
        attempts.append({"error": error, "warned": warned, "left behind": MODULE in sys.modules})
    module: Any = importlib.import_module(MODULE)
    repaired = [module.__name__, module.new_cookie_id.__name__, module.__test__]
    return {"attempts": attempts, "repaired": repaired}


def failures(*breaks: list[str]) -> list[isolated.Error]:
    """The errors of failing imports, after the checks that apply to each of them."""
    result = isolated.value(import_broken, *breaks)
    assert result["repaired"] == [isolated.MODULE, "new_cookie_id", {}]
    errors = []
    for statements, attempt in zip(breaks, result["attempts"]):
        assert attempt["error"] is not None, f"the import went through: {statements}"
        error = isolated.Error.of(attempt["error"])
        assert [entry.file for entry in error.entries_of(INIT)] == [FILE]
        assert (attempt["warned"], attempt["left behind"]) == ([], False)
        errors.append(error)
    return errors


def kinds_and_texts(*breaks: list[str]) -> list[tuple[str, str]]:
    """Type and text of the errors of imports that fail."""
    return [(error.type, error.text) for error in failures(*breaks)]


def kind_and_text(*statements: str) -> tuple[str, str]:
    """Type and text of the error of one failing import."""
    (result,) = kinds_and_texts([*statements])
    return result


# Each statement breaks what one step needs; the rows follow the order of the steps.
MISSING = "import of {} halted; None in sys.modules"
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


@pytest.mark.parametrize(
    ("statement", "kind", "text"),
    FAILURES,
    ids=[text.partition(" Expected")[0] for _statement, _kind, text in FAILURES],
)
def test_failing_step_fails_import_until_repaired(statement: str, kind: str, text: str) -> None:
    assert kind_and_text(statement) == (kind, text)


def test_import_steps_run_in_order() -> None:
    # All faults together, then one fewer each time; builtins are broken last.
    statements = [statement for statement, _kind, _text in FAILURES]
    fewer = [statements[first:][::-1] for first in range(len(statements))]
    assert kinds_and_texts(*fewer) == [(kind, text) for _statement, kind, text in FAILURES]


# The imported types


@pytest.mark.parametrize("name", TYPE_SIZES)
@pytest.mark.parametrize("more", [1, 10])
def test_larger_type_warns_and_import_succeeds(name: str, more: int) -> None:
    (attempt,) = isolated.value(import_broken, [resized(name, more * POINTER)])["attempts"]
    assert attempt["error"] is None
    assert attempt["warned"] == [["RuntimeWarning", size_changed(name, more * POINTER)]]


def test_size_warning_as_error_fails_import() -> None:
    raising = "__import__('warnings').simplefilter('error', RuntimeWarning)"
    assert kinds_and_texts(*([resized(name, POINTER), raising] for name in TYPE_SIZES)) == [
        ("RuntimeWarning", size_changed(name, POINTER)) for name in TYPE_SIZES
    ]


def test_expected_sizes_give_no_warning() -> None:
    (attempt,) = isolated.value(import_broken, [])["attempts"]
    assert (attempt["error"], attempt["warned"]) == (None, [])


@pytest.mark.parametrize(
    ("statement", "kind", "text"),
    [
        ("siblings['util.json'] = None", "ModuleNotFoundError", MISSING.format("util.json")),
        (
            "del siblings['util.json'].JSONObject",
            "AttributeError",
            "module 'util.json' has no attribute 'JSONObject'",
        ),
        ("del builtins.complex", "AttributeError", "module 'builtins' has no attribute 'complex'"),
        ("del siblings['util.json'].JSONObject.__pyx_vtable__", "KeyError", "'__pyx_vtable__'"),
    ],
)
def test_missing_type_or_vtable_raises_interpreter_error(
    statement: str, kind: str, text: str
) -> None:
    assert kind_and_text(statement) == (kind, text)


def test_vtable_of_base_class_is_not_used() -> None:
    heir = "type('JSONObject', (siblings['util.json'].JSONObject,), {'__slots__': ()})"
    assert kind_and_text(f"siblings['util.json'].JSONObject = {heir}") == (
        "KeyError",
        "'__pyx_vtable__'",
    )


def test_imported_non_type_raises_type_error() -> None:
    errors = failures(
        ["siblings['util.json'].JSONObject = json_object()()"],
        ["siblings['util.json'].JSONObject = len"],
        ["builtins.complex = 1j"],
    )
    assert [error.type for error in errors] == ["TypeError"] * 3


def test_vtable_that_is_not_a_capsule_fails_import() -> None:
    (error,) = failures(["siblings['util.json'].JSONObject.__pyx_vtable__ = 5"])
    assert error.type in {"RuntimeError", "TypeError", "ValueError"}


# The C-level imports


@each_c_import
def test_missing_capi_item_fails_import(module: str, item: str, kind: str, signature: str) -> None:
    another = f"siblings['{module}'].__pyx_capi__['other'] = capsule(1, {signature.encode()!r})"
    missing = f"del siblings['{module}'].__pyx_capi__['{item}']"
    assert kinds_and_texts(
        [f"siblings['{module}'] = None"],
        [f"del siblings['{module}'].__pyx_capi__"],
        [missing],
        [another, missing],  # another name of the same signature does not help
    ) == [
        ("ModuleNotFoundError", MISSING.format(module)),
        ("AttributeError", f"module '{module}' has no attribute '__pyx_capi__'"),
        ("ImportError", f"{module} does not export expected C {kind} {item}"),
        ("ImportError", f"{module} does not export expected C {kind} {item}"),
    ]


@each_c_import
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
    breaks = [
        [f"siblings['{module}'].__pyx_capi__['{item}'] = {exported}"]
        for exported, _got in exported_and_got
    ]
    wrong = f"C {kind} {module}.{item} has wrong signature"
    assert kinds_and_texts(*breaks) == [
        ("TypeError", f"{wrong} (expected {signature}, got {got})")
        for _exported, got in exported_and_got
    ]


@each_c_import
def test_unnamed_capsule_raises_without_null_in_text(
    module: str, item: str, kind: str, signature: str
) -> None:
    (error,) = failures([f"siblings['{module}'].__pyx_capi__['{item}'] = capsule(1, None)"])
    wrong = f"C {kind} {module}.{item} has wrong signature (expected {signature}, got "
    assert error.type == "TypeError"
    assert error.text.startswith(wrong)
    assert "null" not in error.text


def test_imported_c_functions_are_called() -> None:
    def call_both() -> list[object]:
        from tests.support import fake_siblings

        fake_siblings.SiblingSandbox()
        module: Any = importlib.import_module(MODULE)
        module.decrypt_cookie(b"cookie")
        paths = []

        class Path:
            def __init__(self, path: str) -> None:
                paths.append(path)

            def is_file(self) -> bool:
                raise OSError("far enough")

        module.Path = Path
        try:
            module.get_token()
        except OSError as error:
            paths.append(str(error))
        calls = [[size, text.decode()] for size, text in fake_siblings.strtcpy_calls]
        return [calls, paths]

    assert isolated.value(call_both) == [[[7, "cookie"]], ["/nonexistent/secret", "far enough"]]


# The module-level statements


def without(module: str, name: str) -> str:
    """The statement that deletes one name of a module."""
    if module in LIBRARY_MODULES:
        return f"siblings['{module}'] = without_attributes('{module}', '{name}')"
    return f"del siblings['{module}'].{name}"


def test_missing_name_raises_import_error() -> None:
    errors = failures(*([without(module, name)] for module, name in FROM_IMPORTS))
    for (_module, name), error in zip(FROM_IMPORTS, errors):
        assert error.type == "ImportError"
        assert error.text.startswith("cannot import name ")
        assert name in error.text.split()[3]


def test_missing_capi_item_error_has_no_name_or_path() -> None:
    def import_errors(items: list[list[str]]) -> list[list[Any]]:
        sandbox = SiblingSandbox()
        errors = []
        for module, item in items:
            sandbox.break_(f"del siblings[{module!r}].__pyx_capi__[{item!r}]")
            try:
                importlib.import_module(MODULE)
            except ImportError as error:
                errors.append([str(error), error.name, error.path])
            sandbox.restore()
        return errors

    assert isolated.value(import_errors, [row[:2] for row in C_IMPORTS]) == [
        [f"{module} does not export expected C {kind} {item}", None, None]
        for module, item, kind, _signature in C_IMPORTS
    ]


UNEQUAL_KEY = """
def fail(self, other):
    raise OSError('no comparison')
Key = type('Key', (str,), {{'__hash__': str.__hash__, '__eq__': fail}})
siblings['{module}'].__pyx_capi__ = {{Key('{item}'): 5}}
"""


@each_c_import
def test_capi_item_lookup_error_fails_import(
    module: str, item: str, kind: str, signature: str
) -> None:
    statement = UNEQUAL_KEY.format(module=module, item=item)
    assert kind_and_text(statement) == ("OSError", "no comparison")


def names_after_failures(*breaks: str) -> list[list[str]]:
    """The names that failed executions bound, in order, without the functions."""
    sandbox = SiblingSandbox()
    result = []
    for statement in breaks:
        module = create_module()
        before = {*vars(module), "__builtins__"}
        sandbox.break_(statement)
        try:
            module.__loader__.exec_module(module)
        except Exception:
            result.append([name for name in vars(module) if name not in before])
        finally:
            sandbox.restore()
    return result


# The names in the order of the statements that bind them.
BINDINGS = [name for module, names in IMPORT_STATEMENTS for name in names or (module,)]
BINDINGS[BINDINGS.index("ujson")] = "json"
BINDINGS += ["_logger", "_INVALID_INDEX", "_interface_count", "_interface_lock", "_CHARSET"]
BINDINGS += ["Counters"]


def failing_call(module: str, name: str, error: str) -> str:
    """The statement that makes the call of an imported name raise an error."""
    return f"siblings['{module}'] = with_attributes('{module}', {name}=raiser({error}))"


FAILING_STATEMENTS = [
    # (statement that breaks a step, first name that is not bound then)
    ("siblings['util.string'] = None", BINDINGS[0]),
    *(
        (f"siblings['{module}'] = None", {"ujson": "json"}.get(module, (*names, module)[0]))
        for module, names in IMPORT_STATEMENTS
    ),
    *((failing_call(module, name, "OSError()"), result) for module, name, result in CALLS),
]


def test_statements_bind_names_in_order() -> None:
    bound = isolated.value(
        names_after_failures, *(statement for statement, _ in FAILING_STATEMENTS)
    )
    assert bound == [BINDINGS[: BINDINGS.index(unbound)] for _, unbound in FAILING_STATEMENTS]


@pytest.mark.parametrize(("module", "name", "result"), CALLS)
def test_failing_module_level_call_fails_import(module: str, name: str, result: str) -> None:
    errors = [("OSError", f"no {result}"), ("MemoryError", "")]
    breaks = [[failing_call(module, name, f"{kind}({text!r})")] for kind, text in errors]
    assert kinds_and_texts(*breaks) == errors


def import_with_other_globals(statement: str, name: str) -> Any:
    """Changes the module's globals between its imports and the statements that use them."""
    SiblingSandbox()

    class Errors(ModuleType):
        def __getattr__(self, wanted: str) -> Any:
            if wanted != "CFunctionError":
                raise AttributeError(wanted)
            exec(statement, {"module": vars(sys.modules[MODULE])})
            return Exception

    sys.modules["util.errors"] = Errors("util.errors")
    return getattr(importlib.import_module(MODULE), name)


COUNTERS = [
    "Counters",
    "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout",
]


@pytest.mark.parametrize(
    ("statement", "name", "made"),
    [
        ("module['getLogger'] = lambda *given: given", "_logger", [isolated.MODULE]),
        ("module['getLogger'], module['__name__'] = str, 'renamed'", "_logger", "renamed"),
        ("del module['getLogger']; __builtins__['getLogger'] = str", "_logger", isolated.MODULE),
        ("del module['__name__']; module['getLogger'] = str", "_logger", "builtins"),
        ("module['Lock'] = lambda *given: given", "_interface_lock", []),
        ("module['namedtuple'] = lambda *given: given", "Counters", COUNTERS),
    ],
)
def test_module_level_calls_read_current_globals(statement: str, name: str, made: object) -> None:
    assert isolated.value(import_with_other_globals, statement, name) == made


@pytest.mark.parametrize("name", [name for _module, name, _result in CALLS])
def test_deleted_global_raises_name_error_in_import(name: str) -> None:
    error = isolated.error(import_with_other_globals, f"del module['{name}']", "_logger")
    assert (error.type, error.text) == ("NameError", f"name '{name}' is not defined")
    assert len(error.entries_of(INIT)) == 1


def test_execution_binds_new_functions() -> None:
    def functions_before_and_after() -> list[list[str]]:
        SiblingSandbox()
        module = create_module("another.modules_util")
        before = dict(vars(module))
        module.__loader__.exec_module(module)
        functions = [name for name, held in before.items() if isinstance(held, BuiltinFunctionType)]
        new = [name for name in functions if vars(module)[name] is not before[name]]
        homes = {vars(module)[name].__module__ for name in functions}
        return [functions, new, sorted(homes)]

    functions, new, homes = isolated.value(functions_before_and_after)
    assert len(functions) == 30
    assert new == functions
    assert homes == [isolated.MODULE]


# The module object, `sys.modules` and the re-initialization guard

REFUSED = (
    "RuntimeError",
    "Module 'modules_util' has already been imported. Re-initialisation is not supported.",
)


def execute_two() -> list[Any]:
    """Execute two modules; return the error of the second and the state of both."""
    SiblingSandbox()
    first, second = create_module(), create_module()
    exec_module(first)
    try:
        exec_module(second)
    except RuntimeError as raised:
        error = encode_exception(raised)
    again = create_module()
    executed = [hasattr(module, "_CHARSET") for module in (first, second)]
    return [error, executed, sys.modules[MODULE] is first, again is first]


def test_second_module_execution_raises_runtime_error() -> None:
    error = isolated.Error.of(isolated.value(execute_two)[0])
    assert (error.type, error.text) == REFUSED
    assert [entry.file for entry in error.entries_of(INIT)] == [FILE]


def test_rejected_module_is_unchanged_and_first_stays() -> None:
    assert isolated.value(execute_two)[1:] == [[True, False], True, True]


def act_during_execution(act: str) -> dict[str, Any]:
    """Import the module; during its import of `util.errors`, perform the act."""
    SiblingSandbox()
    early = create_module()  # before any execution, so another object
    seen: dict[str, Any] = {"times": 0, "error": None}

    class Errors(ModuleType):
        def __getattr__(self, wanted: str) -> Any:
            if wanted != "CFunctionError":
                raise AttributeError(wanted)
            seen["times"] += 1
            module: Any = sys.modules[MODULE]
            before = dict(vars(module))
            try:
                if act == "execute":
                    exec_module(module)
                elif act == "execute another":
                    exec_module(early)
                else:
                    seen["same"] = create_module() is module
            except Exception as error:
                seen["error"] = encode_exception(error)
            seen["added"] = [name for name in vars(module) if name not in before]
            seen["early"] = [name for name in ("__builtins__", "hexlify") if hasattr(early, name)]
            return Exception

    sys.modules["util.errors"] = Errors("util.errors")
    module: Any = importlib.import_module(MODULE)
    seen["complete"] = module is not early and module.__test__ == {}
    return seen


@pytest.mark.parametrize("act", ["execute", "create"])
def test_nested_execution_or_creation_changes_nothing(act: str) -> None:
    seen = isolated.value(act_during_execution, act)
    same = {"same": True} if act == "create" else {}
    assert seen == {"times": 1, "error": None, "added": [], "early": [], "complete": True, **same}


def test_other_module_during_execution_raises() -> None:
    seen = isolated.value(act_during_execution, "execute another")
    error = isolated.Error.of(seen.pop("error"))
    assert (error.type, error.text) == REFUSED
    assert [entry.file for entry in error.entries_of(INIT)] == [FILE]
    assert seen == {"times": 1, "added": [], "early": [], "complete": True}


def test_second_execution_changes_nothing() -> None:
    def execute_again() -> list[object]:
        SiblingSandbox()
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = "rebound"
        del module.Counters
        before = dict(vars(module))
        sys.modules["ujson"] = None  # type: ignore[assignment]
        exec_module(module)
        return [
            list(vars(module)) == list(before),
            all(held is before[name] for name, held in vars(module).items()),
        ]

    assert isolated.value(execute_again) == [True, True]


@pytest.mark.parametrize("way", ["reload", "import after it left sys.modules"])
def test_second_import_returns_same_module(way: str) -> None:
    def import_again(way: str) -> list[object]:
        SiblingSandbox()
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = "rebound"
        if way == "reload":
            again = importlib.reload(module)
        else:
            del sys.modules[MODULE]
            again = importlib.import_module(MODULE)
        return [again is module, again._CHARSET, sys.modules[MODULE] is module]

    assert isolated.value(import_again, way) == [True, "rebound", True]


def test_import_after_failed_execution_is_new_module() -> None:
    def fail_then_import() -> list[bool]:
        sandbox = SiblingSandbox()
        sandbox.break_("siblings['copy'] = None")
        failed = create_module()
        try:
            failed.__loader__.exec_module(failed)
        except ImportError:
            sandbox.restore()
        module: Any = importlib.import_module(MODULE)
        return [module is failed, hasattr(failed, "__test__"), hasattr(module, "__test__")]

    assert isolated.value(fail_then_import) == [False, False, True]


def test_module_executed_as_main_is_named_main() -> None:
    def execute_as_main() -> list[object]:
        SiblingSandbox()
        module = sys.modules["__main__"] = create_module()
        module.__loader__.exec_module(module)
        return [module.__name__, module._logger.name, sys.modules[MODULE] is module]

    assert isolated.value(execute_as_main) == ["__main__", "__main__", True]


@pytest.mark.parametrize("there_already", [False, True])
def test_execution_keeps_existing_sys_modules_entry(there_already: bool) -> None:
    def execute(there_already: bool) -> list[object]:
        SiblingSandbox()
        other = ModuleType("other")
        if there_already:
            sys.modules[MODULE] = other
        module = create_module()
        module.__loader__.exec_module(module)
        return [sys.modules[MODULE] is module, sys.modules[MODULE] is other]

    assert isolated.value(execute, there_already) == [not there_already, there_already]


def test_renamed_module_is_in_sys_modules_as_modules_util() -> None:
    def execute_renamed() -> list[object]:
        SiblingSandbox()
        module = create_module("another.modules_util")
        module.__loader__.exec_module(module)
        return [
            sys.modules[MODULE] is module,
            "another.modules_util" in sys.modules,
            module.__name__,
            module._logger.name,
        ]

    assert isolated.value(execute_renamed) == [
        True,
        False,
        "another.modules_util",
        "another.modules_util",
    ]


# The version of the interpreter

VERSION_TEXT = (
    "compiletime version 3.9 of module 'veldarin.modules.modules_util' "
    "does not match runtime version 3.1"
)


def test_matching_python_version_gives_no_warning() -> None:
    def import_strictly() -> bool:
        SiblingSandbox()
        warnings.simplefilter("error")
        return importlib.import_module(MODULE).__test__ == {}

    assert isolated.value(import_strictly) is True


def execute_under_another_release(filter_action: str) -> dict[str, Any]:
    """Execute twice the module that finds another Python version at run time."""
    SiblingSandbox()
    result: dict[str, Any] = {"error": None}
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter(filter_action)  # type: ignore[arg-type]
        module = create_module(path=WRONG_PYTHON_MODULE)
        try:
            exec_module(module)
            exec_module(module)
        except Exception as error:
            result["error"] = encode_exception(error)
    result["warnings"] = [[warning.category.__name__, str(warning.message)] for warning in caught]
    result["bound"] = [name for name in ("__builtins__", "_CHARSET") if hasattr(module, name)]
    result["in sys.modules"] = MODULE in sys.modules
    return result


def test_other_python_version_warns_once() -> None:
    result = isolated.value(execute_under_another_release, "always")
    assert result["error"] is None
    assert result["warnings"] == [["RuntimeWarning", VERSION_TEXT]]
    assert result["bound"] == ["__builtins__", "_CHARSET"]


@pytest.mark.parametrize(
    ("version", "warned"),
    [("4.9.0", ["4.9"]), ("3.9.0", []), ("3x9 what follows", []), ("2.7", ["2.7"])],
)
def test_version_check_compares_two_characters(
    monkeypatch: pytest.MonkeyPatch, version: str, warned: list[str]
) -> None:
    monkeypatch.setenv("SEEMING_VERSION", version)
    result = isolated.value(execute_under_another_release, "always")
    assert result["warnings"] == [
        ["RuntimeWarning", VERSION_TEXT.replace("3.1", kept)] for kept in warned
    ]


def test_version_warning_as_error_fails_import_first() -> None:
    result = isolated.value(execute_under_another_release, "error")
    error = isolated.Error.of(result["error"])
    assert (error.type, error.text) == ("RuntimeWarning", VERSION_TEXT)
    assert [entry.file for entry in error.entries_of(INIT)] == [FILE]
    assert (result["bound"], result["in sys.modules"]) == ([], False)


def test_version_warning_points_at_importing_code() -> None:
    def warn() -> list[bool]:
        SiblingSandbox()
        module = create_module(path=WRONG_PYTHON_MODULE)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            exec_module(module)
        (warning,) = caught
        code = exec_module.__code__
        return [warning.filename == code.co_filename, warning.lineno > code.co_firstlineno]

    assert isolated.value(warn) == [True, True]

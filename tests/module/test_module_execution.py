"""The exec slot: what it checks, imports and refuses, in which order, and how it fails.

Every import happens in a fresh process with sibling modules of `fake_siblings`, one detail spoilt
by the statement that the row shows. Each row also shows that a failed import is forgotten: with the
detail repaired, the same process imports the module.
"""

from __future__ import annotations

from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE
from tests.support.fake_siblings import JSON_OBJECT_SIZE, LIBRARY_MODULES, POINTER
from tests.support.function_table import FUNCTIONS

INIT = f"init {isolated.MODULE}"

# (module, item, "variable" or "function", signature) of what is imported at C level.
C_IMPORTS = [
    ("migbase.migbase", "WARM_START_PATH", "variable", "char *"),
    (
        "veldarin.modules.modules",
        "get_preference_cookie_secret_path",
        "function",
        "char *(void)",
    ),
    ("util.string", "strtcpy", "function", "int (char *, int, char const *)"),
]

# What the module-level statements import and bind, in order.
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


# The sizes that instances of the imported types have.
TYPE_SIZES: dict[str, Any] = {
    **{f"builtins.{kind.__name__}": kind.__basicsize__ for kind in (type, bool, complex)},
    "util.json.JSONObject": JSON_OBJECT_SIZE,
}


def size_changed(name: str, more: int) -> str:
    """What is said of an imported type whose size differs by `more` bytes."""
    expected = TYPE_SIZES[name]
    return (
        f"{name} size changed, may indicate binary incompatibility. "
        f"Expected {expected} from C header, got {expected + more} from PyObject"
    )


def resized(name: str, more: int) -> str:
    """The statement that puts a type whose size differs by `more` bytes in the place of one."""
    size = TYPE_SIZES[name] + more
    module, _, kind = name.rpartition(".")
    if module == "builtins":
        return f"builtins.{kind} = sized_type('{kind}', {size}, {kind})"
    return f"siblings['{module}'].{kind} = json_object({size})"


def import_spoilt(*spoils: list[str]) -> dict[str, Any]:
    """Imports with one set of spoilt siblings after the other, then with right ones.

    Each spoil is a list of statements; tells how each import went, and the last one.
    """
    import importlib
    import sys
    import warnings

    from tests.support.fake_siblings import Workbench
    from tests.support.isolated import MODULE, describe

    bench = Workbench()
    attempts = []
    for statements in spoils:
        error = None
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            bench.spoil(*statements)
            try:
                importlib.import_module(MODULE)
            except BaseException as raised:
                error = describe(raised)
            finally:
                bench.repair()
        warned = [[warning.category.__name__, str(warning.message)] for warning in caught]
        attempts.append({"error": error, "warned": warned, "left behind": MODULE in sys.modules})
    module: Any = importlib.import_module(MODULE)
    repaired = [module.__name__, module.new_cookie_id.__name__, module.__test__]
    return {"attempts": attempts, "repaired": repaired}


def failures(*spoils: list[str]) -> list[isolated.Error]:
    """The errors of imports that fail, each in the way that every failing import does."""
    told = isolated.value(import_spoilt, *spoils)
    assert told["repaired"] == [isolated.MODULE, "new_cookie_id", {}]
    errors = []
    for spoil, attempt in zip(spoils, told["attempts"]):
        assert attempt["error"] is not None, f"the import went through: {spoil}"
        error = isolated.Error.of(attempt["error"])
        assert [entry.file for entry in error.named(INIT)] == [FILE]
        assert (attempt["warned"], attempt["left behind"]) == ([], False)
        errors.append(error)
    return errors


def kinds_and_texts(*spoils: list[str]) -> list[tuple[str, str]]:
    """Type and text of the errors of imports that fail."""
    return [(error.type, error.text) for error in failures(*spoils)]


def kind_and_text(*statements: str) -> tuple[str, str]:
    """The same of a single import."""
    (told,) = kinds_and_texts([*statements])
    return told


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
def test_a_failing_step_fails_the_import_and_a_repaired_one_lets_it_through(
    statement: str, kind: str, text: str
) -> None:
    assert kind_and_text(statement) == (kind, text)


def test_the_steps_run_in_their_order() -> None:
    # All faults at once, then one fewer each time; those of the builtins are made last.
    statements = [statement for statement, _kind, _text in FAILURES]
    fewer = [statements[first:][::-1] for first in range(len(statements))]
    assert kinds_and_texts(*fewer) == [(kind, text) for _statement, kind, text in FAILURES]


# The imported types


@pytest.mark.parametrize("name", TYPE_SIZES)
@pytest.mark.parametrize("more", [1, 10])
def test_a_larger_type_warns_and_the_import_goes_on(name: str, more: int) -> None:
    (attempt,) = isolated.value(import_spoilt, [resized(name, more * POINTER)])["attempts"]
    assert attempt["error"] is None
    assert attempt["warned"] == [["RuntimeWarning", size_changed(name, more * POINTER)]]


def test_the_size_warning_as_an_error_fails_the_import() -> None:
    raising = "__import__('warnings').simplefilter('error', RuntimeWarning)"
    assert kinds_and_texts(*([resized(name, POINTER), raising] for name in TYPE_SIZES)) == [
        ("RuntimeWarning", size_changed(name, POINTER)) for name in TYPE_SIZES
    ]


def test_the_right_sizes_give_no_warning() -> None:
    (attempt,) = isolated.value(import_spoilt, [])["attempts"]
    assert (attempt["error"], attempt["warned"]) == (None, [])


@pytest.mark.parametrize(
    ("statement", "kind", "text"),
    [
        (
            "siblings['util.json'] = None",
            "ModuleNotFoundError",
            MISSING.format("util.json"),
        ),
        (
            "del siblings['util.json'].JSONObject",
            "AttributeError",
            "module 'util.json' has no attribute 'JSONObject'",
        ),
        ("del builtins.complex", "AttributeError", "module 'builtins' has no attribute 'complex'"),
        (
            "del siblings['util.json'].JSONObject.__pyx_vtable__",
            "KeyError",
            "'__pyx_vtable__'",
        ),
    ],
)
def test_a_missing_type_or_table_raises_the_interpreters_own_error(
    statement: str, kind: str, text: str
) -> None:
    assert kind_and_text(statement) == (kind, text)


def test_a_method_table_of_a_base_class_is_not_the_types_own() -> None:
    heir = "type('JSONObject', (siblings['util.json'].JSONObject,), {'__slots__': ()})"
    assert kind_and_text(f"siblings['util.json'].JSONObject = {heir}") == (
        "KeyError",
        "'__pyx_vtable__'",
    )


def test_an_imported_type_that_is_no_type_fails_the_import() -> None:
    errors = failures(
        ["siblings['util.json'].JSONObject = json_object()()"],
        ["siblings['util.json'].JSONObject = len"],
        ["builtins.complex = 1j"],
    )
    assert [error.type for error in errors] == ["TypeError"] * 3


def test_a_method_table_that_is_no_capsule_fails_the_import() -> None:
    (error,) = failures(["siblings['util.json'].JSONObject.__pyx_vtable__ = 5"])
    assert error.type in {"RuntimeError", "TypeError", "ValueError"}


# The C-level imports


@pytest.mark.parametrize(("module", "item", "kind", "signature"), C_IMPORTS)
def test_a_c_item_that_cannot_be_had_fails_the_import(
    module: str, item: str, kind: str, signature: str
) -> None:
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


@pytest.mark.parametrize(("module", "item", "kind", "signature"), C_IMPORTS)
def test_a_c_item_of_the_wrong_signature_fails_the_import(
    module: str, item: str, kind: str, signature: str
) -> None:
    right = signature.encode()
    exported_and_got = [
        ("capsule(1, b'int *')", "int *"),
        ("capsule(1, b'')", ""),
        (f"capsule(1, {right + b' '!r})", signature + " "),
        (f"capsule(1, {right[:-1]!r})", signature[:-1]),
        ("capsule(1, b'x' * 700)", "x" * 500),
        # no capsule at all: its type is named
        ("5", "int"),
        ("None", "NoneType"),
        ("len", "builtin_function_or_method"),
    ]
    spoils = [
        [f"siblings['{module}'].__pyx_capi__['{item}'] = {exported}"]
        for exported, _got in exported_and_got
    ]
    wrong = f"C {kind} {module}.{item} has wrong signature"
    assert kinds_and_texts(*spoils) == [
        ("TypeError", f"{wrong} (expected {signature}, got {got})")
        for _exported, got in exported_and_got
    ]


@pytest.mark.parametrize(("module", "item", "kind", "signature"), C_IMPORTS)
def test_a_capsule_without_a_name_is_refused_and_the_text_shows_no_null(
    module: str, item: str, kind: str, signature: str
) -> None:
    (error,) = failures([f"siblings['{module}'].__pyx_capi__['{item}'] = capsule(1, None)"])
    wrong = f"C {kind} {module}.{item} has wrong signature (expected {signature}, got "
    assert error.type == "TypeError"
    assert error.text.startswith(wrong)
    assert "null" not in error.text


def test_the_imported_c_functions_are_the_ones_that_are_called() -> None:
    def call_both() -> list[object]:
        import importlib

        from tests.support import fake_siblings
        from tests.support.isolated import MODULE

        fake_siblings.Workbench()
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
    """The statement that takes one name from a module."""
    if module in LIBRARY_MODULES:
        return f"siblings['{module}'] = lacking('{module}', '{name}')"
    return f"del siblings['{module}'].{name}"


def test_a_name_that_its_source_lacks_is_an_import_error() -> None:
    errors = failures(*([without(module, name)] for module, name in FROM_IMPORTS))
    for (_module, name), error in zip(FROM_IMPORTS, errors):
        assert error.type == "ImportError"
        assert error.text.startswith("cannot import name ")
        assert name in error.text.split()[3]


def import_errors(attempts: list[list[str]]) -> list[list[Any]]:
    """Type, text, `name` and `path` of import errors: the module's, and those of statements.

    Each attempt is what spoils the siblings and the import statement that fails for it, if any.
    """
    import importlib

    from tests.support.fake_siblings import Workbench
    from tests.support.isolated import MODULE

    bench = Workbench()
    errors = []
    for spoil, statement in attempts:
        seen: list[Any] = [None, None]
        bench.spoil(spoil)
        for index, source in enumerate([f"importlib.import_module({MODULE!r})", statement]):
            try:
                exec(source, {"importlib": importlib})
            except ImportError as error:
                seen[index] = [type(error).__name__, str(error), error.name, error.path]
        bench.repair()
        errors.append(seen)
    return errors


def test_failing_import_statement_raises_the_interpreters_error() -> None:
    """Compares with the same statement in Python: type, text, `name` and `path`."""
    statements = {
        module: f"from {module} import {', '.join(names)}" if names else f"import {module}"
        for module, names in IMPORT_STATEMENTS
    }
    attempts = [
        *([f"siblings['{module}'] = None", statements[module]] for module in statements),
        *([without(module, name), statements[module]] for module, name in FROM_IMPORTS),
    ]
    errors = isolated.value(import_errors, attempts)
    assert len(errors) == len(attempts) == 21
    for (spoil, _statement), (own, interpreters) in zip(attempts, errors):
        assert own is not None, spoil
        assert own == interpreters
        assert own[2], "the name of the module"
    # Modules with a file, without one, and built into the interpreter.
    paths = {name: path for (_own, (_type, _text, name, path)) in errors[len(statements) :]}
    assert paths["os"].endswith("os.py")
    assert paths["util.errors"] is None


def test_import_error_of_a_missing_c_item_has_no_name_or_path() -> None:
    attempts = [
        [f"del siblings['{module}'].__pyx_capi__['{item}']", ""]
        for module, item, _kind, _signature in C_IMPORTS
    ]
    assert isolated.value(import_errors, attempts) == [
        [
            ["ImportError", f"{module} does not export expected C {kind} {item}", None, None],
            None,
        ]
        for module, item, kind, _signature in C_IMPORTS
    ]


def compare_import_errors(statements: list[list[str]]) -> list[list[list[Any]]]:
    """Of each spoilt import statement: the module's error, and that of the same statement here."""
    import importlib

    from tests.support.fake_siblings import Workbench
    from tests.support.isolated import MODULE

    bench = Workbench()
    found: list[list[list[Any]]] = []
    for spoil, source, statement in statements:
        bench.spoil(spoil, source)
        errors: list[list[Any]] = []
        for run in (lambda: importlib.import_module(MODULE), lambda: exec(statement)):  # noqa: B023
            try:
                run()
            except ImportError as error:
                errors.append([type(error).__name__, str(error), error.name, error.path])
        bench.repair()
        found.append(errors)
    return found


@pytest.mark.parametrize("file", ["/somewhere/source.py", None])
def test_failing_from_import_has_the_interpreters_name_and_path(file: str | None) -> None:
    statements = []
    for module, name in FROM_IMPORTS:
        attributes = f"vars(siblings['{module}'])"
        source = f"{attributes}.update(__file__={file!r})"
        if file is None:
            source = f"{attributes}.pop('__file__', None)"
        copied = f"siblings['{module}'] = lacking('{module}'); " * (module in LIBRARY_MODULES)
        spoil = copied + without(module, name)
        statements.append([spoil, source, f"from {module} import {name}"])
    found = isolated.value(compare_import_errors, statements)
    for (module, name), (ours, interpreters) in zip(FROM_IMPORTS, found):
        assert ours == interpreters
        assert name in ours[1]
        assert (ours[0], ours[2], ours[3]) == ("ImportError", module, file)


UNEQUAL_KEY = """
def fail(self, other):
    raise OSError('no comparison')
Key = type('Key', (str,), {{'__hash__': str.__hash__, '__eq__': fail}})
siblings['{module}'].__pyx_capi__ = {{Key('{item}'): 5}}
"""


@pytest.mark.parametrize(("module", "item", "kind", "signature"), C_IMPORTS)
def test_error_of_a_c_item_look_up_fails_the_import(
    module: str, item: str, kind: str, signature: str
) -> None:
    statement = UNEQUAL_KEY.format(module=module, item=item)
    assert kind_and_text(statement) == ("OSError", "no comparison")


def names_after_failures(*spoils: str) -> list[list[str]]:
    """The names that modules hold whose execution failed, in order; none of the functions."""
    from tests.support.fake_siblings import Workbench, created
    from tests.support.isolated import PRODUCT

    bench = Workbench()
    told = []
    for statement in spoils:
        module = created(str(PRODUCT))
        before = {*vars(module), "__builtins__"}
        bench.spoil(statement)
        try:
            module.__loader__.exec_module(module)
        except Exception:
            told.append([name for name in vars(module) if name not in before])
        finally:
            bench.repair()
    return told


BINDINGS = [
    "serial_number_ascii",
    "hexlify",
    "namedtuple",
    "getLogger",
    "urandom",
    "Path",
    "bytes_",
    "text_",
    "Lock",
    "json",
    "CFunctionError",
    "copy",
    "_logger",
    "_INVALID_INDEX",
    "_interface_count",
    "_interface_lock",
    "_CHARSET",
    "Counters",
]


FAILING_STATEMENTS = [
    # (what is spoilt, the first name that is not bound then)
    ("siblings['util.string'] = None", "serial_number_ascii"),
    ("siblings['migbase.cmdbapi.cmdbapi_util'] = None", "serial_number_ascii"),
    ("siblings['binascii'] = None", "hexlify"),
    ("siblings['collections'] = None", "namedtuple"),
    ("siblings['logging'] = None", "getLogger"),
    ("siblings['os'] = None", "urandom"),
    ("siblings['pathlib'] = None", "Path"),
    ("siblings['pyramid.compat'] = None", "bytes_"),
    ("siblings['threading'] = None", "Lock"),
    ("siblings['ujson'] = None", "json"),
    ("siblings['util.errors'] = None", "CFunctionError"),
    ("siblings['copy'] = None", "copy"),
    ("siblings['logging'] = altered('logging', getLogger=raising(OSError()))", "_logger"),
    ("siblings['threading'] = altered('threading', Lock=raising(OSError()))", "_interface_lock"),
    (
        "siblings['collections'] = altered('collections', namedtuple=raising(OSError()))",
        "Counters",
    ),
]


def test_the_statements_bind_their_names_one_after_the_other() -> None:
    bound = isolated.value(
        names_after_failures, *(statement for statement, _ in FAILING_STATEMENTS)
    )
    assert bound == [BINDINGS[: BINDINGS.index(unbound)] for _, unbound in FAILING_STATEMENTS]


@pytest.mark.parametrize(
    ("statement", "kind", "text"),
    [
        (
            "siblings['logging'] = altered('logging', getLogger=raising(OSError('no logger')))",
            "OSError",
            "no logger",
        ),
        (
            "siblings['threading'] = altered('threading', Lock=raising(MemoryError('no lock')))",
            "MemoryError",
            "no lock",
        ),
        (
            "siblings['collections'] = altered('collections', namedtuple=raising(KeyError('no')))",
            "KeyError",
            "'no'",
        ),
    ],
)
def test_a_failing_call_of_a_module_level_statement_fails_the_import(
    statement: str, kind: str, text: str
) -> None:
    assert kind_and_text(statement) == (kind, text)


def import_with_other_globals(statement: str, name: str) -> Any:
    """Changes the module's globals between its imports and the statements that use them."""
    import importlib
    import sys
    from types import ModuleType

    from tests.support.fake_siblings import Workbench
    from tests.support.isolated import MODULE

    Workbench()

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
def test_the_module_level_calls_read_the_globals_at_that_moment(
    statement: str, name: str, made: object
) -> None:
    assert isolated.value(import_with_other_globals, statement, name) == made


@pytest.mark.parametrize("name", ["getLogger", "Lock", "namedtuple"])
def test_a_global_that_is_gone_when_a_module_level_call_needs_it_is_a_name_error(
    name: str,
) -> None:
    error = isolated.error(import_with_other_globals, f"del module['{name}']", "_logger")
    assert (error.type, error.text) == ("NameError", f"name '{name}' is not defined")
    assert len(error.named(INIT)) == 1


def test_the_execution_makes_new_functions_and_binds_them_again() -> None:
    def functions_before_and_after() -> list[list[str]]:
        from types import BuiltinFunctionType

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import PRODUCT

        Workbench()
        module = created(str(PRODUCT), "another.modules_util")
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


# The module object, `sys.modules` and the re-initialisation guard

REFUSED = (
    "RuntimeError",
    "Module 'modules_util' has already been imported. Re-initialisation is not supported.",
)


def test_of_two_modules_created_before_the_first_execution_the_second_is_refused() -> None:
    def execute_two() -> None:
        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import PRODUCT

        Workbench()
        first, second = created(str(PRODUCT)), created(str(PRODUCT))
        for module in (first, second):
            module.__loader__.exec_module(module)

    error = isolated.error(execute_two)
    assert (error.type, error.text) == REFUSED
    assert [entry.file for entry in error.named(INIT)] == [FILE]


def test_the_refused_module_is_left_alone_and_the_first_one_stays() -> None:
    def execute_two() -> list[object]:
        import sys
        from contextlib import suppress

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import MODULE, PRODUCT

        Workbench()
        first, second = created(str(PRODUCT)), created(str(PRODUCT))
        for module in (first, second):
            with suppress(RuntimeError):
                module.__loader__.exec_module(module)
        again = created(str(PRODUCT))
        return [
            hasattr(first, "_CHARSET"),
            hasattr(second, "_CHARSET"),
            sys.modules[MODULE] is first,
            again is first,
        ]

    assert isolated.value(execute_two) == [True, False, True, True]


def act_during_execution(act: str) -> dict[str, Any]:
    """Imports the module; at its import of `util.errors`, does what `act` names."""
    import importlib
    import sys
    from types import ModuleType

    from tests.support.fake_siblings import Workbench, created, execute
    from tests.support.isolated import MODULE, PRODUCT, describe

    Workbench()
    early = created(str(PRODUCT))  # before any execution, so another object
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
                    execute(module)
                elif act == "execute another":
                    execute(early)
                else:
                    seen["same"] = created(str(PRODUCT)) is module
            except Exception as error:
                seen["error"] = describe(error)
            seen["added"] = [name for name in vars(module) if name not in before]
            seen["early"] = [name for name in ("__builtins__", "hexlify") if hasattr(early, name)]
            return Exception

    sys.modules["util.errors"] = Errors("util.errors")
    module: Any = importlib.import_module(MODULE)
    seen["complete"] = module is not early and module.__test__ == {}
    return seen


@pytest.mark.parametrize("act", ["execute", "create"])
def test_module_is_the_recorded_one_during_execution(act: str) -> None:
    seen = isolated.value(act_during_execution, act)
    same = {"same": True} if act == "create" else {}
    assert seen == {
        "times": 1,
        "error": None,
        "added": [],
        "early": [],
        "complete": True,
        **same,
    }


def test_another_module_is_refused_during_execution() -> None:
    seen = isolated.value(act_during_execution, "execute another")
    error = isolated.Error.of(seen.pop("error"))
    assert (error.type, error.text) == REFUSED
    assert [entry.file for entry in error.named(INIT)] == [FILE]
    assert seen == {"times": 1, "added": [], "early": [], "complete": True}


def test_executing_the_module_again_changes_nothing() -> None:
    def execute_again() -> list[object]:
        import importlib
        import sys

        from tests.support.fake_siblings import Workbench, execute
        from tests.support.isolated import MODULE

        Workbench()
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = "rebound"
        del module.Counters
        before = dict(vars(module))
        sys.modules["ujson"] = None  # type: ignore[assignment]
        execute(module)
        return [
            list(vars(module)) == list(before),
            all(held is before[name] for name, held in vars(module).items()),
        ]

    assert isolated.value(execute_again) == [True, True]


@pytest.mark.parametrize("way", ["reload", "import after it left sys.modules"])
def test_importing_again_gives_the_same_module_unchanged(way: str) -> None:
    def import_again(way: str) -> list[object]:
        import importlib
        import sys

        from tests.support.fake_siblings import Workbench
        from tests.support.isolated import MODULE

        Workbench()
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = "rebound"
        if way == "reload":
            again = importlib.reload(module)
        else:
            del sys.modules[MODULE]
            again = importlib.import_module(MODULE)
        return [again is module, again._CHARSET, sys.modules[MODULE] is module]

    assert isolated.value(import_again, way) == [True, "rebound", True]


def test_a_module_whose_execution_failed_is_not_the_one_that_a_later_import_gives() -> None:
    def fail_then_import() -> list[bool]:
        import importlib

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import MODULE, PRODUCT

        bench = Workbench()
        bench.spoil("siblings['copy'] = None")
        failed = created(str(PRODUCT))
        try:
            failed.__loader__.exec_module(failed)
        except ImportError:
            bench.repair()
        module: Any = importlib.import_module(MODULE)
        return [module is failed, hasattr(failed, "__test__"), hasattr(module, "__test__")]

    assert isolated.value(fail_then_import) == [False, False, True]


@pytest.mark.parametrize(
    "statement",
    [
        "siblings['util.json'] = None",
        "siblings['copy'] = None",
        "siblings['collections'] = altered('collections', namedtuple=raising(OSError()))",
    ],
    ids=["types", "last import", "Counters"],
)
def test_function_after_a_failed_import_raises_runtime_error(statement: str) -> None:
    def call_all(statement: str, calls: list[list[Any]]) -> list[list[Any]]:
        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import PRODUCT

        bench = Workbench()
        failed = created(str(PRODUCT))
        bench.spoil(statement)
        try:
            failed.__loader__.exec_module(failed)
        except Exception:
            bench.repair()
        ended: list[list[Any]] = []
        for name, required in calls:
            try:
                ended.append([name, repr(getattr(failed, name)(*[None] * required))])
            except Exception as error:
                ended.append([name, type(error).__name__, "has not been imported" in str(error)])
        return ended

    calls = [[row.name, row.required] for row in FUNCTIONS]
    assert isolated.value(call_all, statement, calls) == [
        [row.name, "RuntimeError", True] for row in FUNCTIONS
    ]


def module_in_sys_modules(there_already: bool) -> list[object]:
    """Executes a module that the import system did not put into `sys.modules`."""
    import sys
    from types import ModuleType

    from tests.support.fake_siblings import Workbench, created
    from tests.support.isolated import MODULE, PRODUCT

    Workbench()
    other = ModuleType("other")
    if there_already:
        sys.modules[MODULE] = other
    module = created(str(PRODUCT))
    module.__loader__.exec_module(module)
    return [sys.modules[MODULE] is module, sys.modules[MODULE] is other]


def test_a_module_that_is_run_as_the_main_module_is_called_so() -> None:
    def execute_as_main() -> list[object]:
        import sys

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import MODULE, PRODUCT

        Workbench()
        module = sys.modules["__main__"] = created(str(PRODUCT))
        module.__loader__.exec_module(module)
        return [module.__name__, module._logger.name, sys.modules[MODULE] is module]

    assert isolated.value(execute_as_main) == ["__main__", "__main__", True]


def test_execution_puts_the_module_into_sys_modules() -> None:
    assert isolated.value(module_in_sys_modules, False) == [True, False]


def test_execution_leaves_what_sys_modules_already_holds() -> None:
    assert isolated.value(module_in_sys_modules, True) == [False, True]


def test_a_module_of_another_name_is_found_under_its_own_fixed_name() -> None:
    def execute_renamed() -> list[object]:
        import sys

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import MODULE, PRODUCT

        Workbench()
        module = created(str(PRODUCT), "another.modules_util")
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


def test_the_interpreter_it_was_built_for_gives_no_warning() -> None:
    def import_strictly() -> bool:
        import importlib
        import warnings

        from tests.support.fake_siblings import Workbench
        from tests.support.isolated import MODULE

        Workbench()
        warnings.simplefilter("error")
        return importlib.import_module(MODULE).__test__ == {}

    assert isolated.value(import_strictly) is True


def execute_under_another_release(filter_action: str) -> dict[str, Any]:
    """Executes, twice, the module that meets an interpreter which calls itself 3.10.4."""
    import sys
    import warnings

    from tests.support.fake_siblings import Workbench, created, execute
    from tests.support.isolated import MODULE, OTHER_RUNTIME, describe

    Workbench()
    told: dict[str, Any] = {"error": None}
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter(filter_action)  # type: ignore[arg-type]
        module = created(str(OTHER_RUNTIME))
        try:
            execute(module)
            execute(module)
        except Exception as error:
            told["error"] = describe(error)
    told["warnings"] = [[warning.category.__name__, str(warning.message)] for warning in caught]
    told["bound"] = [name for name in ("__builtins__", "_CHARSET") if hasattr(module, name)]
    told["in sys.modules"] = MODULE in sys.modules
    return told


def test_another_release_of_the_interpreter_gives_one_warning_and_the_import_goes_on() -> None:
    told = isolated.value(execute_under_another_release, "always")
    assert told["error"] is None
    assert told["warnings"] == [["RuntimeWarning", VERSION_TEXT]]
    assert told["bound"] == ["__builtins__", "_CHARSET"]


@pytest.mark.parametrize(
    ("said", "warned"),
    [("4.9.0", ["4.9"]), ("3.9.0", []), ("3x9 what follows", []), ("2.7", ["2.7"])],
)
def test_the_first_and_the_third_character_of_the_version_are_compared(
    monkeypatch: pytest.MonkeyPatch, said: str, warned: list[str]
) -> None:
    monkeypatch.setenv("SEEMING_VERSION", said)
    told = isolated.value(execute_under_another_release, "always")
    assert told["warnings"] == [
        ["RuntimeWarning", VERSION_TEXT.replace("3.1", kept)] for kept in warned
    ]


def test_the_version_warning_as_an_error_fails_the_import_before_anything_else_is_done() -> None:
    told = isolated.value(execute_under_another_release, "error")
    error = isolated.Error.of(told["error"])
    assert (error.type, error.text) == ("RuntimeWarning", VERSION_TEXT)
    assert [entry.file for entry in error.named(INIT)] == [FILE]
    assert (told["bound"], told["in sys.modules"]) == ([], False)


def test_the_version_warning_points_at_the_code_that_imports() -> None:
    def warn() -> list[list[object]]:
        import warnings

        from tests.support.fake_siblings import Workbench, created, execute
        from tests.support.isolated import OTHER_RUNTIME

        Workbench()
        module = created(str(OTHER_RUNTIME))
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            execute(module)
        return [
            [
                warning.filename == execute.__code__.co_filename,
                warning.lineno > execute.__code__.co_firstlineno,
            ]
            for warning in caught
        ]

    assert isolated.value(warn) == [[True, True]]

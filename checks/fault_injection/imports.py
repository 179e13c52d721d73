"""The import of the module as the subject of a sweep.

A case creates or executes the module with the siblings of tests/support/fake_siblings.py, which its
statements break. A failed execution leaves only interned strings behind and can be repeated in the
same process. Most cases therefore run after one failed attempt; some are the first attempt.
"""

from __future__ import annotations

import _imp
import _xxsubinterpreters
import gc
import importlib
import sys
import warnings
from array import array
from collections.abc import Callable, Iterator
from contextlib import suppress
from functools import partial
from importlib.util import spec_from_file_location
from pathlib import Path
from types import SimpleNamespace
from typing import Any, NamedTuple

from checks.fault_injection.call_subject import REPEATS
from checks.fault_injection.expectations import OUT_OF_MEMORY, Outcome, run
from checks.fault_injection.forks import ForkRunner
from checks.fault_injection.libfaults import (
    NO_FAILURE,
    NO_SITE,
    FaultInjector,
    InjectionPoint,
    Report,
)
from tests.module.test_module_execution import C_IMPORTS, FAILURES, FROM_IMPORTS, resized, without
from tests.support import fake_siblings
from tests.support.doubles import Failure, UncomparableStr
from tests.support.fake_siblings import POINTER, SiblingSandbox, create_module
from tests.support.function_table import FUNCTIONS, Function
from tests.support.isolated import MODULE, MODULE_PATH, WRONG_PYTHON_MODULE

INIT = f"init {MODULE}"
NO_LOCK = ("RuntimeError", "can't allocate lock")  # the import system's error for lack of memory
# Library functions that the execution calls, exempt from injected failures.
EXEMPT = (
    ("logging", "getLogger"),
    ("collections", "namedtuple"),
    ("threading", "Lock"),
    ("_frozen_importlib", "_handle_fromlist"),
)


class ImportCase(NamedTuple):
    """One step of an import under test: the execution, unless `spec` or `early_call` is set.

    Attributes:
        statements: Statements that break the siblings.
        prepare: A function that is called with the module object before the step.
        spec: A function that returns a spec; the step is the creation of the module from it.
        early_call: A function of the module; the step is its call before the execution.
        first_attempt: Whether the process has not tried the import before.
        always_fails: Whether every import of the process fails after the preparation.
    """

    label: str
    statements: tuple[str, ...] = ()
    prepare: Callable[[Any], object] | None = None
    spec: Callable[[], Any] | None = None
    path: Path = MODULE_PATH
    first_attempt: bool = False
    early_call: Function | None = None
    always_fails: bool = False

    @property
    def function(self) -> str:
        """The step, as the report names it."""
        if self.early_call:
            return "import: early call"
        return "import: execution" if self.spec is None else "import: creation"

    def __str__(self) -> str:
        return f"{self.function}: {self.label}"


WHOLE_SPEC = partial(spec_from_file_location, MODULE, MODULE_PATH)
MINIMAL_SPEC = partial(SimpleNamespace, name=MODULE, origin=str(MODULE_PATH))  # required attributes

# The numbers of keys that dictionaries hold before they grow.
CAPACITIES = [2 * 2**power // 3 for power in range(3, 20)]


def fill(names: dict[Any, Any], free: int = 0) -> None:
    """Fill a dictionary until it takes `free` more keys without growing."""
    size = sys.getsizeof(names)
    capacity = 0
    # Make it grow first, which removes the unused entries of deleted keys.
    while sys.getsizeof(names) == size or capacity - len(names) < free:
        names[f"filler {len(names)}"] = None
        capacity = next(capacity for capacity in CAPACITIES if capacity >= len(names))
    while len(names) < capacity - free:
        names[f"filler {len(names)}"] = None


def fill_up_to(name: str) -> Callable[[Any], None]:
    """Return a function that makes the module's dictionary grow when the execution binds a name."""
    bound = ["__builtins__", *(name for _module, name in FROM_IMPORTS), "json", "copy"]
    bound += ["_logger", "_INVALID_INDEX", "_interface_count", "_interface_lock", "_CHARSET"]
    return lambda module: fill(vars(module), bound.index(name))


def fail_at_end(module: Any) -> None:
    """Let an execution fail after it has bound all functions."""
    vars(module)[UncomparableStr("__test__")] = None
    with suppress(Failure):
        _imp.exec_dynamic(module)


def break_lookup(name: str) -> Callable[[Any], None]:
    """Return a function that replaces a name in `sys.modules` with an uncomparable key."""
    return lambda module: sys.modules.update({UncomparableStr(name): sys.modules.pop(name, module)})


def execute_other(module: Any) -> None:
    """Execute another module object."""
    _imp.exec_dynamic(create_module())


interpreters: list[Any] = []  # keeps them alive


def create_in_subinterpreter(module: Any) -> None:
    """Create the module in another interpreter, once per process."""
    if interpreters:
        return
    subinterpreters: Any = _xxsubinterpreters
    interpreters.append(subinterpreters.create())
    subinterpreters.run_string(
        interpreters[0],
        f"""if True:
        from importlib.util import module_from_spec, spec_from_file_location
        module_from_spec(spec_from_file_location({MODULE!r}, {str(MODULE_PATH)!r}))
        """,
    )


# Replaces util.errors with a module that runs more code when CFunctionError is imported from it.
HOOKED = """
def hook(self, name):
    if name != 'CFunctionError':
        raise AttributeError(name)
    %s
siblings['util.errors'] = type('Errors', (ModuleType,), {'__getattr__': hook})('util.errors')
"""
LEAVE_MODULES = HOOKED % "sys.modules.pop(MODULE, None); raise AttributeError(name)"
LOSE_IMPORT = HOOKED % "vars(builtins).pop('__import__'); return OSError"
LOSE_NAME = HOOKED % (  # the lookup of a global continues in the builtins
    "vars(sys.modules[MODULE]).pop('__name__'); vars(builtins).pop('__name__'); return OSError"
)
# Makes the binding of NAME fail: the module's dictionary has an equal key that cannot be compared.
BLOCK_NAME = (
    HOOKED
    % """def fail(self, other):
        raise OSError
    names = vars(sys.modules[MODULE])
    names.pop('NAME', None)
    names[type('Key', (str,), {'__hash__': str.__hash__, '__eq__': fail})('NAME')] = None
    return OSError"""
)
# Statements that replace util.errors with a module that lacks the imported name. The import then
# looks for a submodule in sys.modules, and reads __spec__._initializing for the message.
LACKING = "m = siblings['util.errors'] = ModuleType('util.errors'); "
INITIALIZING = "m.__spec__ = type('Spec', (), {'_initializing': %s}); m.__file__ = 'file'"
BREAK_SUBMODULE = """m.__name__ = 'm'
class Uncomparable(str):
    __hash__ = str.__hash__
    __eq__ = raiser(OSError())
sys.modules[Uncomparable('m.CFunctionError')] = None"""
FIND_SUBMODULE = """sys.modules['util.errors.CFunctionError'] = ModuleType('submodule')
siblings['copy'] = None"""
WARNINGS_RAISE = "__import__('warnings').simplefilter('error')"

AFTER_FAILURE = ImportCase("after a failure")
BREAKING_STATEMENTS = [
    *(statement for statement, _kind, _text in FAILURES),
    "siblings['util.json'] = None",
    "del siblings['util.json'].JSONObject",
    "siblings['util.json'].JSONObject = len",
    "del siblings['util.json'].JSONObject.__pyx_vtable__",
    "siblings['util.json'].JSONObject.__pyx_vtable__ = 5",
    "siblings['logging'] = with_attributes('logging', getLogger=raiser(OSError()))",
    "siblings['threading'] = with_attributes('threading', Lock=raiser(OSError()))",
    "siblings['collections'] = with_attributes('collections', namedtuple=raiser(OSError()))",
    *(
        statement
        for module, item, _kind, _signature in C_IMPORTS
        for statement in (
            f"siblings['{module}'] = None",
            f"del siblings['{module}'].__pyx_capi__",
            f"siblings['{module}'].__pyx_capi__ = 5",
            f"siblings['{module}'].__pyx_capi__['{item}'] = capsule(1, b'int *')",
            f"siblings['{module}'].__pyx_capi__['{item}'] = capsule(1, None)",
            f"siblings['{module}'].__pyx_capi__['{item}'] = null_capsule(None)",
            f"siblings['{module}'].__pyx_capi__['{item}'] = 5",
        )
    ),
]
CASES = [
    ImportCase("from a whole spec", spec=WHOLE_SPEC),
    ImportCase("from a minimal spec", spec=MINIMAL_SPEC),
    ImportCase("twice", spec=WHOLE_SPEC, prepare=execute_other, first_attempt=True),
    ImportCase(
        "after another interpreter",
        spec=WHOLE_SPEC,
        prepare=create_in_subinterpreter,
        first_attempt=True,
        always_fails=True,
    ),
    ImportCase("first attempt", first_attempt=True),
    AFTER_FAILURE,
    ImportCase("full dictionary", prepare=lambda module: fill(vars(module))),
    *(
        ImportCase(f"dictionary full at {name}", prepare=fill_up_to(name))
        for name in ("_INVALID_INDEX", "_interface_count", "_CHARSET")
    ),
    ImportCase("full sys.modules", prepare=lambda module: fill(sys.modules)),
    ImportCase("without a main module", prepare=lambda module: sys.modules.pop("__main__")),
    *(ImportCase(row.name, early_call=row) for row in FUNCTIONS),
    ImportCase("a bound function after a failure", early_call=FUNCTIONS[0], prepare=fail_at_end),
    ImportCase("as the main module", prepare=lambda module: sys.modules.update(__main__=module)),
    ImportCase("lookup of the main module fails", prepare=break_lookup("__main__")),
    ImportCase("lookup of the module fails", prepare=break_lookup(MODULE)),
    ImportCase("second module object", prepare=execute_other),
    ImportCase("another Python release", (WARNINGS_RAISE,), path=WRONG_PYTHON_MODULE),
    *(
        ImportCase(f"{name} has grown", (resized(name, POINTER), WARNINGS_RAISE))
        for name in ("builtins.complex", "util.json.JSONObject")
    ),
    *(
        ImportCase(label, (statement,))
        for label, statement in (
            ("the module loses its name", LOSE_NAME),
            ("the builtins lose __import__", LOSE_IMPORT),
            ("the module leaves sys.modules", LEAVE_MODULES),
            ("partially initialized sibling", LACKING + INITIALIZING % "True"),
            (
                "sibling whose progress is unknown",
                LACKING + INITIALIZING % "type('Truth', (), {'__bool__': 5})()",
            ),
            ("sibling without a spec", LACKING + "m.__file__ = 'file'; del m.__spec__"),
            (
                "sibling with a spec of another type",
                LACKING + "m.__file__ = 'file'; m.__spec__ = 5",
            ),
            ("sibling without a name", LACKING + "del m.__name__"),
            ("sibling whose name is not a str", LACKING + "m.__name__ = 5"),
            ("lookup of the submodule fails", LACKING + BREAK_SUBMODULE),
            ("submodule in place of the name", LACKING + FIND_SUBMODULE),
            *(
                (f"{name} cannot be bound", BLOCK_NAME.replace("NAME", name))
                for name in ("_logger", "Counters", "list_bfd_neighbor", "__test__")
            ),
            *((statement, statement) for statement in BREAKING_STATEMENTS),
            *((f"{name} is missing", without(module, name)) for module, name in FROM_IMPORTS),
        )
    ),
]


class ImportSubject:
    """An import case prepared in this process, which cannot be used for another one."""

    def __init__(self, injector: FaultInjector, case: ImportCase, forks: ForkRunner) -> None:
        self.case = case
        self._injector, self._forks = injector, forks
        self._sandbox = SiblingSandbox()
        self._pointers = len(fake_siblings._kept)
        for module, name in EXEMPT:
            home = sys.modules[module]
            setattr(home, name, injector.exempt(collecting(getattr(home, name))))
        if not case.first_attempt:
            self._attempt(ImportCase("fails", ("siblings['copy'] = None",)), NO_FAILURE)
        gc.collect()
        gc.freeze()
        self._baseline, calls = forks.run(self._trace, case)
        # An execution with broken siblings begins like one with valid siblings, which has a case of
        # its own: sweep only the allocations after that.
        _outcome, unbroken = forks.run(self._trace, AFTER_FAILURE)
        self._first = 1 + count_common(calls, unbroken) if case.statements else 1

    def first_points(self) -> Iterator[InjectionPoint]:
        """Yield the first allocation to fail, in both failure modes."""
        for persistent in (False, True):
            yield InjectionPoint("interpreter", self._first, persistent)

    def inject(self, point: InjectionPoint) -> tuple[bool, list[str]]:
        """Run the step with an injected failure, repeat it to find leaks, then import the module.

        Returns:
            Whether an allocation failed, and the findings.
        """
        once = self.case.first_attempt and not self.case.always_fails
        leaks = [*self._compare_leaks(point)] if once else []
        outcome = self._attempt(self.case, point)
        report = self._injector.report()
        findings = [*self._check(outcome, point, report)]
        if not outcome.returned:
            findings += leaks if once else self._find_leaks(point)
        return report.failures > 0, [*findings, *self._check_import()]

    def force(self, key: str) -> list[str]:
        """Run the step with one fallible call forced to fail; return the findings."""
        self._injector.force(key)
        outcome = self._attempt(self.case, NO_FAILURE)
        self._injector.force(None)
        findings = [] if outcome.ended == OUT_OF_MEMORY else [f"ended with {outcome.ended}"]
        return [*findings, *self._check_import()]

    def _attempt(self, case: ImportCase, point: InjectionPoint) -> Outcome:
        call = self._injector.call
        modules = dict(sys.modules)
        try:
            with warnings.catch_warnings():
                if case.spec is not None:
                    spec = case.spec()
                    if case.prepare is not None:
                        case.prepare(None)
                    return run(lambda: [*vars(call(_imp.create_dynamic, (spec,), None, point))])
                self._sandbox.break_(*case.statements)
                module = create_module(path=case.path)
                if case.prepare is not None:
                    case.prepare(module)
                function: Any = _imp.exec_dynamic
                arguments: tuple[Any, ...] = (module,)
                if case.early_call:
                    function = getattr(module, case.early_call.name)
                    arguments = (None,) * case.early_call.required
                return run(lambda: call(function, arguments, None, point))
        finally:
            self._sandbox.restore()
            del fake_siblings._kept[self._pointers :]
            sys.modules.clear()
            sys.modules.update(modules)

    def _trace(self, case: ImportCase) -> tuple[Outcome, list[int | None]]:
        outcomes: list[Outcome] = []
        calls = self._injector.trace(lambda: outcomes.append(self._attempt(case, NO_FAILURE)))
        return outcomes[0], calls

    def _check(self, outcome: Outcome, point: InjectionPoint, report: Report) -> Iterator[str]:
        expected = self._baseline.ended
        if outcome.observed == self._baseline.observed or outcome.ended == NO_LOCK:
            return
        without_message = (expected[0], "")
        if outcome.ended != OUT_OF_MEMORY and (
            outcome.returned or outcome.ended != without_message
        ):
            yield f"ended with {outcome.ended}, expected {expected} or MemoryError"
        # The interpreter's own failures, before and after the execution, have no entry.
        entries = outcome.entries.count(INIT)
        executes = self.case.spec is None and not self.case.early_call
        if entries != 1 and report.site != NO_SITE and not point.persistent and executes:
            yield f"left {entries} traceback entries"

    def _blocks_of_attempt(self, point: InjectionPoint) -> int:
        """Count the blocks that a failed and then a successful attempt leave alive."""
        gc.collect()
        before = self._injector.live_blocks()
        self._attempt(self.case, point)
        importlib.import_module(MODULE)
        gc.collect()
        return self._injector.live_blocks() - before

    def _compare_leaks(self, point: InjectionPoint) -> Iterator[str]:
        """Compare the blocks with those of a failure at the first allocation."""
        blocks, expected = (
            self._forks.run(self._blocks_of_attempt, at) for at in (point, point._replace(nth=1))
        )
        if blocks != expected:
            yield f"leaked: {blocks - expected:+} memory blocks"

    def _find_leaks(self, point: InjectionPoint) -> Iterator[str]:
        """Repeat the attempt and count the blocks that each one leaves alive."""
        blocks = array("q", [0, 0])
        for i in range(2 * REPEATS):
            if self._attempt(self.case, point).returned:
                return  # a successful import cannot be repeated
            gc.collect()
            blocks[i // REPEATS] = self._injector.live_blocks()
        if per_attempt := round((blocks[1] - blocks[0]) / REPEATS):
            yield f"leaked: {per_attempt:+} memory blocks"

    def _check_import(self) -> Iterator[str]:
        try:
            module: Any = importlib.import_module(MODULE)
        except Exception as error:
            if not (self.case.always_fails and isinstance(error, ImportError)):
                yield f"afterwards the import ended with {error!r}"
            return
        missing = [row.name for row in FUNCTIONS if not hasattr(module, row.name)]
        if missing:
            yield f"afterwards the module lacks {missing}"
        elif not isinstance(module.get_cookie_name(True), str):
            yield "afterwards the module does not work"


def collecting(function: Callable[..., Any]) -> Callable[..., Any]:
    """Wrap a function so that it ends with a collection, which clears the free list of dicts."""

    def call(*arguments: object) -> Any:
        result = function(*arguments)
        gc.collect()
        return result

    return call


def count_common(calls: list[int | None], others: list[int | None]) -> int:
    """Count the leading allocations, except the last, that two traces have in common."""
    same = (call == other for call, other in zip(calls, others))
    common = next((i for i, equal in enumerate(same) if not equal), min(len(calls), len(others)))
    return max(common - 1, 0)

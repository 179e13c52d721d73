"""The import of the module as cases: its creation, its execution, and the ways in which what it
imports can be spoilt.

The sibling modules are those of tests/support/fake_siblings.py. An execution that fails is
forgotten, so one process can try again and again; only the names are kept for the next attempt.
Hence the execution is swept twice: in a process that never tried, and in one that has.
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
from importlib.util import spec_from_file_location
from pathlib import Path
from types import SimpleNamespace
from typing import Any, NamedTuple

from checks.fault_injection.case_setup import TIMES
from checks.fault_injection.forks import Children
from checks.fault_injection.libfaults import NOWHERE, Library, Point, Report
from checks.fault_injection.results import OF_MEMORY, Found, Outcome, outcome
from tests.module.test_module_execution import C_IMPORTS, FAILURES, FROM_IMPORTS, resized, without
from tests.support import fake_siblings
from tests.support.call_cases import Failure, Unequal
from tests.support.fake_siblings import POINTER, Workbench, created
from tests.support.function_table import FUNCTIONS, Function
from tests.support.isolated import MODULE, OTHER_RUNTIME, PRODUCT

INIT = f"init {MODULE}"
# Library functions that the execution calls: sheltered, so that none fails from within.
NO_LOCK = ("RuntimeError", "can't allocate lock")  # the import system's own, for want of memory
CALLED = (
    ("logging", "getLogger"),
    ("collections", "namedtuple"),
    ("threading", "Lock"),
    ("_frozen_importlib", "_handle_fromlist"),
)


def whole_spec() -> Any:
    """An import spec with everything that the creation takes from it."""
    return spec_from_file_location(MODULE, PRODUCT)


def bare_spec() -> Any:
    """One without."""
    return SimpleNamespace(name=MODULE, origin=str(PRODUCT))


class ImportCase(NamedTuple):
    """An import: statements that spoil the siblings, and what is done to the module object first.

    `spec`: the step is the creation from this spec; `early`: it is a call of this function before
    the execution, with as many arguments as it needs; else it is the execution. `untried`: in a
    process that has not tried before. `refused`: what is done first makes every import of this
    process fail.
    """

    label: str
    spoils: tuple[str, ...] = ()
    prepare: Callable[[Any], object] | None = None
    spec: Callable[[], Any] | None = None
    path: Path = PRODUCT
    untried: bool = False
    early: Function | None = None
    refused: bool = False

    @property
    def function(self) -> str:
        """The step, for the table of points."""
        if self.early:
            return "import: before it"
        return "import: execution" if self.spec is None else "import: creation"

    def __str__(self) -> str:
        return f"{self.function}: {self.label}"


def fill(names: dict[Any, Any], left: int = 0) -> None:
    """Leaves room in a dictionary for some names and no more."""
    size = sys.getsizeof(names)
    room = 0
    while sys.getsizeof(names) == size or room - len(names) < left:  # it grows, and has no gaps
        names[f"filler {len(names)}"] = None
        room = next(room for room in ROOMS if room >= len(names))
    while len(names) < room - left:
        names[f"filler {len(names)}"] = None


# How many names a dictionary of the interpreter's takes before it grows.
ROOMS = [2 * 2**power // 3 for power in range(3, 20)]


def fill_globals(module: Any) -> None:
    """Leaves no room in the module's dictionary for the next name."""
    fill(vars(module))


def filled_up_to(name: str) -> Callable[[Any], None]:
    """Leaves room in the module's dictionary for what the execution binds before a name."""
    bound = ["__builtins__", *(name for _module, name in FROM_IMPORTS), "json", "copy"]
    bound += ["_logger", "_INVALID_INDEX", "_interface_count", "_interface_lock", "_CHARSET"]
    return lambda module: fill(vars(module), bound.index(name))


def lose_main(module: Any) -> None:
    """Leaves no main module in `sys.modules`."""
    del sys.modules["__main__"]


def fill_modules(module: Any) -> None:
    """Leaves no room in `sys.modules`."""
    fill(sys.modules)


def run_as_main(module: Any) -> None:
    """Puts the module where the interpreter has the main one."""
    sys.modules["__main__"] = module


def fail_at_its_end(module: Any) -> None:
    """Lets the execution fail when all functions are bound."""
    vars(module)[Unequal("__test__")] = None
    with suppress(Failure):
        _imp.exec_dynamic(module)


def hide_main(module: Any) -> None:
    """Lets the look-up of the main module fail."""
    sys.modules[Unequal("__main__")] = sys.modules.pop("__main__")


def hide_module(module: Any) -> None:
    """Lets the look-up of the module's own name fail."""
    sys.modules[Unequal(MODULE)] = module


def execute_one(module: Any) -> None:
    """Executes a module object before."""
    _imp.exec_dynamic(created(str(PRODUCT)))


others: list[Any] = []  # interpreters; they live as long as somebody has them


def create_elsewhere(module: Any) -> None:
    """Creates the module in another interpreter before, unless that was done."""
    if others:
        return
    interpreters: Any = _xxsubinterpreters
    others.append(interpreters.create())
    interpreters.run_string(
        others[0],
        f"""if True:
        from importlib.util import module_from_spec, spec_from_file_location
        module_from_spec(spec_from_file_location({MODULE!r}, {str(PRODUCT)!r}))
        """,
    )


def spoilt(label: str, *statements: str) -> ImportCase:
    """An execution for which the statements spoil the siblings."""
    return ImportCase(label, statements)


LEAVES = """
def leave(self, name):
    sys.modules.pop(MODULE, None)
    raise AttributeError(name)
siblings['util.errors'] = type('Errors', (ModuleType,), {'__getattr__': leave})('util.errors')
"""
# The builtins have a name as well.
LOSES_NAME = """
def lose(self, name):
    if name != 'CFunctionError':
        raise AttributeError(name)
    vars(sys.modules[MODULE]).pop('__name__')
    vars(builtins).pop('__name__')
    return OSError
siblings['util.errors'] = type('Errors', (ModuleType,), {'__getattr__': lose})('util.errors')
"""
# The binding of a name fails: a key that cannot be compared is in the way. What the import needs
# last is made by then.
BLOCKS_NAME = """
def fail(self, other):
    raise OSError
def block(self, name):
    names = vars(sys.modules[MODULE])
    names.pop({name!r}, None)
    key = type('Key', (str,), {{'__hash__': str.__hash__, '__eq__': fail}})({name!r})
    names[key] = None
    return OSError
siblings['util.errors'] = type('Errors', (ModuleType,), {{'__getattr__': block}})('util.errors')
"""
LOSES_IMPORT = """
def lose(self, name):
    if name != 'CFunctionError':
        raise AttributeError(name)
    vars(builtins).pop('__import__')
    return OSError
siblings['util.errors'] = type('Errors', (ModuleType,), {'__getattr__': lose})('util.errors')
"""
# Siblings without the name that is imported from them.
LACKING = "m = siblings['util.errors'] = ModuleType('util.errors'); "
INITIALIZING = "m.__spec__ = type('Spec', (), {'_initializing': %s}); m.__file__ = 'file'"
HIDDEN = """m.__name__ = 'm'
class Unequal(str):
    __hash__ = str.__hash__
    __eq__ = raising(OSError())
sys.modules[Unequal('m.CFunctionError')] = None"""
PLAIN = ImportCase("after a failure")
WARNINGS_RAISE = "__import__('warnings').simplefilter('error')"
CASES = [
    ImportCase("from a whole spec", spec=whole_spec),
    ImportCase("from a bare spec", spec=bare_spec),
    ImportCase("of a module that is there", spec=whole_spec, prepare=execute_one, untried=True),
    ImportCase(
        "after another interpreter's",
        spec=whole_spec,
        prepare=create_elsewhere,
        untried=True,
        refused=True,
    ),
    ImportCase("at first", untried=True),
    PLAIN,
    ImportCase("into a full dictionary", prepare=fill_globals),
    *(
        ImportCase(f"into a dictionary that is full at {name}", prepare=filled_up_to(name))
        for name in ("_INVALID_INDEX", "_interface_count", "_CHARSET")
    ),
    ImportCase("with sys.modules full", prepare=fill_modules),
    ImportCase("without a main module", prepare=lose_main),
    ImportCase("which loses its name", (LOSES_NAME,)),
    *(ImportCase(f"{row.name} is called", early=row) for row in FUNCTIONS),
    ImportCase("a bound function after a failure", early=FUNCTIONS[0], prepare=fail_at_its_end),
    ImportCase("which loses __import__", (LOSES_IMPORT,)),
    *(
        ImportCase(label, (LACKING + statement,))
        for label, statement in (
            ("from a module that is being initialized", INITIALIZING % "True"),
            (
                "from a module of unknown progress",
                INITIALIZING % "type('Truth', (), {'__bool__': 5})()",
            ),
            ("from a module without a name", "del m.__name__"),
            ("from a module whose name is not a str", "m.__name__ = 5"),
            ("the submodule cannot be looked up", HIDDEN),
        )
    ),
    ImportCase("which leaves sys.modules", (LEAVES,)),
    *(
        spoilt(f"{name} cannot be bound", BLOCKS_NAME.format(name=name))
        for name in ("_logger", "Counters", "list_bfd_neighbor", "__test__")
    ),
    ImportCase("as the main module", prepare=run_as_main),
    ImportCase("the main module cannot be looked up", prepare=hide_main),
    ImportCase("the module cannot be looked up", prepare=hide_module),
    ImportCase("of a second module object", prepare=execute_one),
    ImportCase("under another interpreter", (WARNINGS_RAISE,), path=OTHER_RUNTIME),
    *(spoilt(statement, statement) for statement, _kind, _text in FAILURES),
    *(
        spoilt(f"{name} has grown", resized(name, POINTER), WARNINGS_RAISE)
        for name in ("builtins.complex", "util.json.JSONObject")
    ),
    *(
        spoilt(statement, statement)
        for statement in (
            "siblings['util.json'] = None",
            "del siblings['util.json'].JSONObject",
            "siblings['util.json'].JSONObject = len",
            "del siblings['util.json'].JSONObject.__pyx_vtable__",
            "siblings['util.json'].JSONObject.__pyx_vtable__ = 5",
            "siblings['logging'] = altered('logging', getLogger=raising(OSError()))",
            "siblings['threading'] = altered('threading', Lock=raising(OSError()))",
            "siblings['collections'] = altered('collections', namedtuple=raising(OSError()))",
        )
    ),
    *(
        spoilt(statement, statement)
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
    *(spoilt(f"{name} is gone", without(module, name)) for module, name in FROM_IMPORTS),
]


class Import:
    """A case in this process, for good."""

    def __init__(self, library: Library, case: ImportCase, children: Children) -> None:
        self.case = case
        self._executes = case.spec is None and not case.early
        self._library, self._children = library, children
        self._bench = Workbench()
        self._pointers = len(fake_siblings._kept)
        for module, name in CALLED:
            home = sys.modules[module]
            setattr(home, name, library.sheltered(emptying(getattr(home, name))))
        if not case.untried:
            self._attempt(spoilt("at its end", "siblings['copy'] = None"), NOWHERE)
        gc.collect()
        gc.freeze()
        self._reference, calls = children.result(self._traced, case)
        _outcome, plain = children.result(self._traced, PLAIN)
        self._first = 1 + common(calls, plain) if case.spoils else 1

    def starts(self) -> Iterator[Point]:
        """The first allocation, alone and with all after it; of a spoilt execution the first that
        a plain one does not make in the same place."""
        for lasting in (False, True):
            yield Point("interpreter", self._first, lasting)

    def examine(self, point: Point) -> Found:
        """The step with its point, the same over and over, and the import with all memory again."""
        once = self.case.untried and not self.case.refused
        kept_too_much = [*self._kept_too_much(point)] if once else []
        found = self._attempt(self.case, point)
        report = self._library.report()
        complaints = [*self._complaints(found, point, report)]
        if not found.returned:
            complaints += kept_too_much if once else self._grown(point)
        complaints += self._complaints_afterwards()
        return Found(report.failed > 0, tuple(complaints))

    def force(self, key: str) -> Found:
        """The step with one fallible call failing of which memory is no reason."""
        self._library.force(key)
        found = self._attempt(self.case, NOWHERE)
        self._library.force(None)
        wrong = found.ended != OF_MEMORY
        complaints = [f"ended with {found.ended}"] if wrong else []
        return Found(True, (*complaints, *self._complaints_afterwards()))

    def _attempt(self, case: ImportCase, point: Point) -> Outcome:
        """The case's step with memory failing at the point."""
        trial = self._library.trial
        modules = dict(sys.modules)
        try:
            with warnings.catch_warnings():
                if case.spec is not None:
                    spec = case.spec()
                    if case.prepare is not None:
                        case.prepare(None)
                    return outcome(
                        lambda: [*vars(trial(_imp.create_dynamic, (spec,), None, point))]
                    )
                self._bench.spoil(*case.spoils)
                module = created(str(case.path))
                if case.prepare is not None:
                    case.prepare(module)
                if case.early:
                    early = getattr(module, case.early.name), (None,) * case.early.required
                    return outcome(lambda: trial(*early, None, point))
                return outcome(lambda: trial(_imp.exec_dynamic, (module,), None, point))
        finally:
            self._bench.repair()
            del fake_siblings._kept[self._pointers :]  # of the spoilt set
            sys.modules.clear()
            sys.modules.update(modules)

    def _traced(self, case: ImportCase) -> tuple[Outcome, list[int | None]]:
        found: list[Outcome] = []
        calls = self._library.traced(lambda: found.append(self._attempt(case, NOWHERE)))
        return found[0], calls

    def _complaints(self, found: Outcome, point: Point, report: Report) -> Iterator[str]:
        ended = self._reference.ended
        if found.same == self._reference.same or found.ended == NO_LOCK:
            return
        if found.ended != OF_MEMORY and (found.returned or found.ended != (ended[0], "")):
            yield f"ended with {found.ended}, not with {ended} or MemoryError"
        # Before the first call of the execution and after its last the failure is not its own.
        entries = found.entries.count(INIT)
        if entries != 1 and report.site is not None and not point.lasting and self._executes:
            yield f"left {entries} traceback entries"

    def _kept_by(self, point: Point) -> int:
        """Blocks that an attempt that fails at the point and one that goes through leave alive."""
        gc.collect()
        before = self._library.live()
        self._attempt(self.case, point)
        importlib.import_module(MODULE)
        gc.collect()
        return self._library.live() - before

    def _kept_too_much(self, point: Point) -> Iterator[str]:
        kept, first = (
            self._children.result(self._kept_by, at) for at in (point, point._replace(nth=1))
        )
        if kept != first:
            yield f"left behind: {kept - first:+} memory blocks"

    def _grown(self, point: Point) -> Iterator[str]:
        """What the same attempt leaves behind each time."""
        blocks = array("q", [0, 0])
        for i in range(2 * TIMES):
            if self._attempt(self.case, point).returned:
                return  # an import that has gone through cannot be tried again
            gc.collect()
            blocks[i // TIMES] = self._library.live()
        if each_time := round((blocks[1] - blocks[0]) / TIMES):
            yield f"left behind: {each_time:+} memory blocks"

    def _complaints_afterwards(self) -> Iterator[str]:
        try:
            module: Any = importlib.import_module(MODULE)
        except Exception as error:
            if self.case.refused and isinstance(error, ImportError):
                return
            yield f"afterwards the import ended with {error!r}"
            return
        missing = [row.name for row in FUNCTIONS if not hasattr(module, row.name)]
        if missing:
            yield f"afterwards the module lacks {missing}"
        elif not isinstance(module.get_cookie_name(True), str):
            yield "afterwards the module does not work"


def emptying(function: Callable[..., Any]) -> Callable[..., Any]:
    """The function; afterwards the interpreter has no dictionaries left over to use again."""

    def call(*given: object) -> Any:
        result = function(*given)
        gc.collect()
        return result

    return call


def common(calls: list[int | None], others: list[int | None]) -> int:
    """How many allocations at the beginning are made in the same calls."""
    for at, (call, other) in enumerate(zip(calls, others)):
        if call != other:
            return max(at - 1, 0)
    return max(min(len(calls), len(others)) - 1, 0)

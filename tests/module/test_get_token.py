"""The secret of the preference cookie: the file, the order of the steps, and the semantics of the
`with` statement."""

from __future__ import annotations

import builtins
import ctypes
import errno
import functools
import importlib
import io
import os
import socket
import stat
import sys
import tty
from pathlib import Path
from types import ModuleType, SimpleNamespace, TracebackType
from typing import Any, Callable

import pytest

from tests.support import isolated
from tests.support.assertions import (
    Entry,
    entry,
    fails,
    traceback_entries,
    with_types,
)
from tests.support.doubles import CountingBool, Failure, Recorder, raiser
from tests.support.fake_siblings import SiblingSandbox, c_function_capsule
from tests.support.isolated import MODULE
from veldarin_simulator import Simulator

HEX = set("0123456789abcdef")


@pytest.fixture
def secret_file(simulator: Simulator, tmp_path: Path) -> Path:
    """The path of the secret; the file does not exist yet."""
    simulator.secret_path = tmp_path / "secret"
    return simulator.secret_path


class Opener(Recorder):
    """An `open` that records its calls and keeps the files."""

    def __init__(self) -> None:
        super().__init__(self.open)
        self.files: list[Any] = []

    def open(self, *args: Any) -> Any:
        self.files.append(builtins.open(*args))  # noqa: SIM115, PTH123 - the module closes it
        return self.files[-1]


@pytest.fixture
def opened(module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Opener:
    """An `Opener` in place of the `open` that the module uses."""
    opened = Opener()
    monkeypatch.setattr(module, "open", opened, raising=False)
    return opened


# The file itself


def test_first_call_writes_64_hex_characters(module: ModuleType, secret_file: Path) -> None:
    secret = module.get_token()
    assert type(secret) is str
    assert len(secret) == 64
    assert set(secret) <= HEX
    assert secret_file.read_bytes() == secret.encode("ascii")


def test_second_call_returns_same_and_keeps_file(module: ModuleType, secret_file: Path) -> None:
    secret = module.get_token()
    before = secret_file.stat()
    assert module.get_token() == secret
    after = secret_file.stat()
    assert secret_file.read_text() == secret
    assert (after.st_mtime_ns, after.st_ino) == (before.st_mtime_ns, before.st_ino)


def test_removed_file_gives_new_secret(module: ModuleType, secret_file: Path) -> None:
    secret = module.get_token()
    secret_file.unlink()
    assert module.get_token() != secret


@pytest.mark.parametrize(
    "content, secret",
    [
        (b"  abc  \nsecond line\n", "abc"),
        (b"\n", ""),
        (b"", ""),
        (b"\nsecond line", ""),
        (b"\t placed by hand \r\nsecond", "placed by hand"),
        (b"short", "short"),
        (b"\x0b\x1c x y \x1f\n", "x y"),
        (b"one\rtwo", "one"),
        ("\u2003\u00e9\u00a0\n".encode(), "\u00e9"),
    ],
)
def test_secret_is_stripped_first_line(
    module: ModuleType, secret_file: Path, content: bytes, secret: str
) -> None:
    secret_file.write_bytes(content)
    assert module.get_token() == secret
    assert secret_file.read_bytes() == content


@pytest.mark.parametrize(
    "path, kind, number",
    [
        ("directory", IsADirectoryError, errno.EISDIR),
        ("missing/secret", FileNotFoundError, errno.ENOENT),
        ("socket", OSError, errno.ENXIO),
    ],
)
def test_unopenable_path_raises_os_error(
    simulator: Simulator,
    module: ModuleType,
    opened: Opener,
    tmp_path: Path,
    monkeypatch: pytest.MonkeyPatch,
    path: str,
    kind: type[OSError],
    number: int,
) -> None:
    monkeypatch.chdir(tmp_path)  # a socket's path has at most 107 characters
    Path("directory").mkdir()
    with socket.socket(socket.AF_UNIX) as server:
        server.bind("socket")
        simulator.secret_path = tmp_path / path
        error = fails(kind, module.get_token)
    assert (error.errno, error.filename) == (number, str(tmp_path / path))
    assert opened.positional == [(tmp_path / path, "w")]
    assert {str(path) for path in Path().rglob("*")} == {"directory", "socket"}
    assert stat.S_ISSOCK(Path("socket").stat().st_mode)


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o027, 0o077], ids=oct)
def test_new_file_permissions_follow_umask(
    module: ModuleType, secret_file: Path, umask: int
) -> None:
    before = os.umask(umask)
    try:
        module.get_token()
    finally:
        os.umask(before)
    assert stat.S_IMODE(secret_file.stat().st_mode) == 0o666 & ~umask


def test_existing_file_keeps_its_permissions(module: ModuleType, secret_file: Path) -> None:
    secret_file.write_text("secret")
    secret_file.chmod(0o640)
    module.get_token()
    assert stat.S_IMODE(secret_file.stat().st_mode) == 0o640


def test_character_device_is_written_then_read(simulator: Simulator, module: ModuleType) -> None:
    """The device is not a regular file, so a secret is written and the result is read back."""
    controller, terminal = os.openpty()
    try:
        tty.setraw(terminal)  # bytes pass unchanged both ways, and are not echoed
        os.set_blocking(controller, False)
        os.write(controller, b"  placed \nsecond line\n")
        simulator.secret_path = Path(os.ttyname(terminal))
        assert module.get_token() == "placed"
        written = os.read(controller, 1000).decode()
    finally:
        os.close(controller)
        os.close(terminal)
    assert len(written) == 64
    assert set(written) <= HEX


def test_null_device_gives_empty_secret(
    simulator: Simulator, module: ModuleType, opened: Opener
) -> None:
    simulator.secret_path = null = Path(os.devnull)
    assert module.get_token() == ""
    assert opened.positional == [(null, "w"), (null, "r")]
    assert stat.S_ISCHR(null.stat().st_mode)


def test_relative_path_is_made_absolute(
    simulator: Simulator,
    module: ModuleType,
    tmp_path: Path,
    opened: Opener,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.chdir(tmp_path)
    simulator.secret_path = Path("relative")
    secret = module.get_token()
    assert (tmp_path / "relative").read_text() == secret
    assert opened.positional == [(tmp_path / "relative", "w"), (tmp_path / "relative", "r")]


def test_link_to_file_is_read(module: ModuleType, secret_file: Path, tmp_path: Path) -> None:
    (tmp_path / "elsewhere").write_text("linked")
    secret_file.symlink_to(tmp_path / "elsewhere")
    assert module.get_token() == "linked"


def test_path_is_decoded_with_default_encoding(
    simulator: Simulator, module: ModuleType, tmp_path: Path
) -> None:
    simulator.secret_path = tmp_path / "\u00e9"
    secret = module.get_token()
    assert (tmp_path / "\u00c3\u00a9").read_text() == secret  # Latin-1 of two UTF-8 bytes
    assert not simulator.secret_path.exists()


def test_failure_before_writing_leaves_empty_file(
    module: ModuleType, secret_file: Path, opened: Opener, monkeypatch: pytest.MonkeyPatch
) -> None:
    error = OSError("no entropy")
    with monkeypatch.context() as patch:
        patch.setattr(module, "urandom", raiser(error))
        assert fails(OSError, module.get_token) is error
    assert [file.closed for file in opened.files] == [True]
    assert secret_file.read_bytes() == b""
    assert module.get_token() == ""


@pytest.mark.parametrize("exists, modes", [(True, "r"), (False, "wr")])
def test_every_opened_file_is_closed(
    module: ModuleType, secret_file: Path, opened: Opener, exists: bool, modes: str
) -> None:
    if exists:
        secret_file.write_text("secret")
    module.get_token()
    assert [(file.mode, file.closed) for file in opened.files] == [(mode, True) for mode in modes]


# The calls that the function makes, recorded by doubles


class Special:
    """A special method that records its lookup."""

    def __init__(self, name: str, method: Callable[..., object]) -> None:
        self.name = name
        self.method = method

    def __get__(self, instance: Any, owner: type) -> Callable[..., object]:
        instance.note(f"look up {self.name}")
        return functools.partial(self.method, instance)


class Manager:
    """The result of `open`: a context manager that records its use."""

    def __init__(self, steps: Steps, label: str) -> None:
        self.steps = steps
        self.label = label
        # Never called: the interpreter looks special methods up on the type.
        self.__dict__["__enter__"] = self.__dict__["__exit__"] = raiser(AssertionError("instance"))

    def note(self, event: str, *details: object) -> None:
        self.steps.note(f"{self.label}: {event}", *details)

    def _enter(self) -> object:
        self.note("enter")
        write = self.steps.step(f"{self.label}: write", "written", None)
        readline = self.steps.step(f"{self.label}: readline", "line", self.steps.line)
        entered = SimpleNamespace(write=write, readline=readline)  # not the manager itself
        return self.steps.result(f"{self.label}: entered", entered)

    def _exit(self, *triple: object) -> object:
        self.note("exit", *triple)
        return self.steps.result(f"{self.label}: exited", False)

    __enter__ = Special("__enter__", _enter)
    __exit__ = Special("__exit__", _exit)


class Steps:
    """The module with a double for every name that `get_token` looks up.

    `events` holds a tuple for each call: its name and its arguments. The result of a call has its
    own name, such as "written" for "write"; `replies` maps that name to a function that returns
    another result or raises.
    """

    def __init__(self, module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        self.get_token = module.get_token
        self.events: list[tuple[object, ...]] = []
        self.replies: dict[str, Callable[[], object]] = {}
        self.secret = object()
        self.line = SimpleNamespace(strip=self.step("strip", "secret", self.secret))
        decode = self.step("decode", "decoded", "hexadecimal text")
        path = SimpleNamespace(
            is_file=self.step("is_file", "is a file", False),
            absolute=self.step("absolute", "absolute path", "/absolute"),
        )
        self.globals = {
            "text_": self.step("text_", "text", "path text"),
            "Path": self.step("Path", "path", path),
            "open": self.open,
            "urandom": self.step("urandom", "random", b"random"),
            "hexlify": self.step("hexlify", "hexadecimal", SimpleNamespace(decode=decode)),
        }
        self.patch = functools.partial(monkeypatch.setattr, module, raising=False)
        for name, value in self.globals.items():
            self.patch(name, value)

    def note(self, *event: object) -> None:
        self.events.append(event)

    def result(self, name: str, default: object) -> object:
        return self.replies[name]() if name in self.replies else default

    def step(self, event: str, name: str, result: object) -> Callable[..., object]:
        """Return a double that records `event` and returns the result called `name`."""

        def function(*args: object) -> object:
            self.note(event, *args)
            return self.result(name, result)

        return function

    def open(self, *args: object) -> object:
        self.note("open", *args)
        return self.result(f"open {args[1]}", Manager(self, str(args[1])))

    def fail_at(self, step: str) -> Entry:
        """Fail a step; return the traceback entry of the call, whose exception must propagate."""
        error = Failure(step)
        self.replies[step] = raiser(error)
        assert fails(Failure, self.get_token) is error
        assert error.__context__ is None
        return entry(error, "get_token")

    @property
    def names(self) -> list[object]:
        """The events without their arguments."""
        return [event[0] for event in self.events]


@pytest.fixture
def steps(simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Steps:
    """Doubles for all steps."""
    simulator.secret_path = Path("/some/secret")
    return Steps(module, monkeypatch)


Events = list[tuple[object, ...]]

PATH: Events = [("text_", b"/some/secret"), ("Path", "path text"), ("is_file",)]
WRITE: Events = [
    ("absolute",),
    ("open", "/absolute", "w"),
    ("w: look up __enter__",),
    ("w: look up __exit__",),
    ("w: enter",),
    ("urandom", 32),
    ("hexlify", b"random"),
    ("decode",),
    ("w: write", "hexadecimal text"),
    ("w: exit", None, None, None),
]
READ: Events = [
    ("absolute",),
    ("open", "/absolute", "r"),
    ("r: look up __enter__",),
    ("r: look up __exit__",),
    ("r: enter",),
    ("r: readline",),
    ("strip",),
    ("r: exit", None, None, None),
]


@pytest.mark.parametrize(
    "exists, opens", [(True, READ), (False, WRITE + READ)], ids=["file exists", "no file"]
)
def test_each_step_runs_once_in_order(steps: Steps, exists: bool, opens: Events) -> None:
    truth = CountingBool(exists)
    steps.replies["is a file"] = lambda: truth
    assert steps.get_token() is steps.secret
    assert with_types(steps.events) == with_types(PATH + opens)
    assert truth.bool_calls == 1


def test_results_of_write_and_clean_exit_are_ignored(steps: Steps) -> None:
    untouchable = CountingBool(AssertionError("truth test"))
    for name in ("written", "w: exited", "r: exited"):
        steps.replies[name] = lambda: untouchable
    assert steps.get_token() is steps.secret
    assert untouchable.bool_calls == 0


def test_open_is_looked_up_for_each_with(steps: Steps) -> None:
    def only_once(*args: object) -> object:
        steps.patch("open", second)
        return steps.open(*args)

    second = Recorder(steps.open)
    steps.patch("open", only_once)
    assert steps.get_token() is steps.secret
    assert second.positional == [("/absolute", "r")]


# The exception of a failing step ends the call and propagates unchanged


# For each statement, in order: the results of its steps, by name.
STATEMENTS = [
    ["text", "path"],
    ["is a file"],
    ["absolute path", "open w", "w: entered", "w: exited"],
    ["random", "hexadecimal", "decoded", "written"],
    ["open r", "r: entered", "r: exited"],
    ["line", "secret"],
]
# The steps in the body of a `with`, each with its mode.
WITH_BODY_STEPS = {**dict.fromkeys(STATEMENTS[3], "w"), **dict.fromkeys(STATEMENTS[5], "r")}
BODY = {"w": "written", "r": "line"}  # a step in the body of each `with`
BODY_START = 5  # events of a `with` before those of its body
each_mode = pytest.mark.parametrize("mode", BODY)


@pytest.mark.parametrize("step", [step for steps in STATEMENTS for step in steps])
def test_failing_step_propagates_its_exception(steps: Steps, step: str) -> None:
    found = steps.fail_at(step)
    assert found.first_line < found.line
    exits = [event for event in steps.events if str(event[0]).endswith(": exit")]
    if step in WITH_BODY_STEPS:
        name, kind, value, traceback = exits.pop()
        assert (name, kind, str(value)) == (f"{WITH_BODY_STEPS[step]}: exit", Failure, step)
        assert isinstance(traceback, TracebackType)
        assert traceback_entries(traceback) == [found]
    assert all(event[1:] == (None, None, None) for event in exits)


@pytest.mark.parametrize("mode, method, line", [("w", "write", 66), ("r", "readline", 69)])
def test_file_without_method_fails_at_its_use(
    steps: Steps, mode: str, method: str, line: int
) -> None:
    steps.replies[f"{mode}: entered"] = object
    error = fails(AttributeError, steps.get_token)
    assert str(error) == f"'object' object has no attribute '{method}'"
    assert entry(error, "get_token").line == line


def test_is_file_truth_error_propagates(steps: Steps) -> None:
    error = Failure("no truth")
    steps.replies["is a file"] = lambda: CountingBool(error)
    assert fails(Failure, steps.get_token) is error
    assert steps.events == PATH


def test_each_statement_has_its_traceback_line(module: ModuleType, steps: Steps) -> None:
    found = []
    for statement in STATEMENTS:
        entries = set()
        for step in statement:
            steps.replies.clear()
            entries.add(steps.fail_at(step))
        found.append(entries.pop())
        assert not entries, f"{statement} fail at several lines"
    steps.replies.update({"line": raiser(Failure()), "r: exited": lambda: True})
    found.append(entry(fails(UnboundLocalError, steps.get_token), "get_token"))
    (first_line,) = {each.first_line for each in found}
    assert [first_line, *(each.line for each in found)] == [60, 62, 64, 65, 66, 68, 69, 71]


# `with` behaves like the interpreter's own statement


@each_mode
@pytest.mark.parametrize("kind", [Failure, OSError, KeyboardInterrupt, GeneratorExit, SystemExit])
def test_failing_body_propagates_when_exit_returns_false(
    steps: Steps, mode: str, kind: type[BaseException]
) -> None:
    error = kind("in the body")
    truth = CountingBool(False)
    handled: list[object] = []

    def exited() -> object:
        handled.append(sys.exc_info()[1])
        return truth

    steps.replies[BODY[mode]] = raiser(error)
    steps.replies[f"{mode}: exited"] = exited
    assert fails(kind, steps.get_token) is error
    assert steps.events[-1][:3] == (f"{mode}: exit", kind, error)
    assert truth.bool_calls == 1
    assert steps.names.count(f"{mode}: exit") == 1
    assert handled == [error]
    assert sys.exc_info() == (None, None, None)


@pytest.mark.parametrize("suppressed", [False, True])
def test_exception_of_caller_stays_handled(steps: Steps, suppressed: bool) -> None:
    outer, error = Failure("being handled by the caller"), LookupError("in the body")
    steps.replies["written"] = raiser(error)
    steps.replies["w: exited"] = lambda: suppressed
    try:
        raise outer
    except Failure:
        if suppressed:
            assert steps.get_token() is steps.secret
        else:
            assert fails(LookupError, steps.get_token) is error
        assert sys.exc_info()[1] is outer


def test_suppressed_write_error_continues_with_read(steps: Steps) -> None:
    truth = CountingBool(True)
    steps.replies["written"] = raiser(Failure())
    steps.replies["w: exited"] = lambda: truth
    assert steps.get_token() is steps.secret
    assert truth.bool_calls == 1
    assert steps.events[-len(READ) :] == READ
    assert sys.exc_info() == (None, None, None)


@pytest.mark.parametrize("step", ["line", "secret"])
def test_suppressed_read_error_raises_unbound_local(steps: Steps, step: str) -> None:
    truth = CountingBool(True)
    steps.replies[step] = raiser(Failure())
    steps.replies["r: exited"] = lambda: truth
    error = fails(UnboundLocalError, steps.get_token)
    assert str(error) == "local variable 'secret' referenced before assignment"
    assert error.__context__ is None
    assert truth.bool_calls == 1


@each_mode
@pytest.mark.parametrize("failing", ["call", "truth test"])
def test_failing_exit_keeps_body_error_as_context(steps: Steps, mode: str, failing: str) -> None:
    body_error, exit_error = Failure("in the body"), LookupError("in __exit__")
    steps.replies[BODY[mode]] = raiser(body_error)
    exits: dict[str, Callable[[], object]] = {
        "call": raiser(exit_error),
        "truth test": lambda: CountingBool(exit_error),
    }
    steps.replies[f"{mode}: exited"] = exits[failing]
    assert fails(LookupError, steps.get_token) is exit_error
    assert exit_error.__context__ is body_error


@each_mode
def test_failing_enter_does_not_call_exit(steps: Steps, mode: str) -> None:
    steps.fail_at(f"{mode}: entered")
    assert f"{mode}: exit" not in steps.names
    assert steps.names[-1] == f"{mode}: enter"


def manager_without(name: str) -> type:
    """A type without a special method; only its instances have an attribute of that name."""
    wrong = raiser(AssertionError("called"))
    (other,) = {"__enter__", "__exit__"} - {name}
    return type("Manager", (), {"__init__": lambda self: setattr(self, name, wrong), other: wrong})


@each_mode
@pytest.mark.parametrize(
    "manager, missing",
    [
        pytest.param(manager_without("__enter__"), "__enter__", id="no enter"),
        pytest.param(manager_without("__exit__"), "__exit__", id="no exit"),
        pytest.param(object, "__enter__", id="neither"),
    ],
)
def test_non_context_manager_raises_before_enter(
    steps: Steps, mode: str, manager: type, missing: str
) -> None:
    steps.replies[f"open {mode}"] = manager
    assert str(fails(AttributeError, steps.get_token)) == missing


@pytest.mark.parametrize("name", ["__enter__", "__exit__"])
def test_special_method_lookup_error_propagates(steps: Steps, name: str) -> None:
    error = Failure(name)
    unbindable = type("Unbindable", (), {"__get__": raiser(error)})
    steps.replies["open w"] = type("Odd", (io.StringIO,), {name: unbindable()})
    assert fails(Failure, steps.get_token) is error


def test_special_method_may_be_any_callable_of_the_type(steps: Steps) -> None:
    """A static method and a callable object are bound like any class attribute."""
    file = io.StringIO("first\nsecond")
    exits = Recorder()

    class Odd:
        __enter__ = staticmethod(lambda: file)
        __exit__ = exits

    steps.replies["is a file"] = lambda: True
    steps.replies["open r"] = Odd
    assert steps.get_token() == "first"
    assert exits.positional == [(None, None, None)]


class FileWithoutMethods:
    """A file without `write` and `readline`."""


@pytest.mark.parametrize(
    "mode, method, body_begins",
    [
        ("w", "write", len(PATH) + BODY_START),
        ("r", "readline", len(PATH) + len(WRITE) + BODY_START),
    ],
)
def test_file_without_method_raises_attribute_error(
    steps: Steps, mode: str, method: str, body_begins: int
) -> None:
    """The interpreter evaluates `file.write` before the argument of the call."""
    seen: list[tuple[Any, Any]] = []

    def exited() -> bool:
        _kind, value, traceback = sys.exc_info()
        assert value is not None
        seen.append((value.__traceback__, traceback))
        return False

    if mode == "w":  # as a C function it must not be called with an exception set
        steps.patch("urandom", os.urandom)
    steps.replies[f"{mode}: entered"] = FileWithoutMethods
    steps.replies[f"{mode}: exited"] = exited
    error = fails(AttributeError, steps.get_token)
    assert str(error) == f"'FileWithoutMethods' object has no attribute '{method}'"
    ((own_traceback, traceback),) = seen
    assert own_traceback is traceback
    assert traceback_entries(traceback) == [entry(error, "get_token")]
    assert steps.events == [
        *(PATH + WRITE + READ)[:body_begins],
        (f"{mode}: exit", AttributeError, error, traceback),
    ]


def test_methods_without_get_keep_reference_counts(steps: Steps) -> None:
    class Uncounted:
        """A callable without `__get__` that keeps no references."""

        def __init__(self, result: object) -> None:
            self.result = result

        def __call__(self, *args: object) -> object:
            return self.result

    enter, leave = Uncounted(io.StringIO("line")), Uncounted(None)
    steps.replies["is a file"] = lambda: True
    steps.replies["open r"] = type("Odd", (), {"__enter__": enter, "__exit__": leave})
    spare = [enter, leave] * 1000  # a missing reference must not free them
    before = sys.getrefcount(enter), sys.getrefcount(leave)
    for _ in range(100):
        steps.get_token()
    assert (sys.getrefcount(enter), sys.getrefcount(leave)) == before
    assert len(spare) == 2000


@pytest.mark.parametrize("name", ["__enter__", "__exit__"])
@isolated.test
def test_method_deleted_while_bound_stays_alive(name: str) -> None:
    """The `__get__` of the file's special method deletes the method from the type.

    `__get__` is `getattr`, called with the method, the file (a string, hence an attribute name) and
    the file's type (the default). It calls `__getattribute__`, which deletes the method and raises,
    and then `__getattr__` of the same method.
    """
    events: list[object] = []

    class Method:
        __get__ = getattr

        def __getattribute__(self, file: str) -> Any:
            events.append("deleted")
            delattr(type(file), name)
            raise AttributeError(file)

        def __getattr__(self, file: str) -> Any:
            events.append("bound")
            return lambda *args: io.StringIO("line")

        def __del__(self) -> None:
            events.append("finalized")

    special = {"__enter__": lambda file: io.StringIO("line"), "__exit__": lambda *args: None}
    file = type("File", (str,), {**special, name: Method()})
    with Simulator(live=False) as simulator:
        simulator.secret_path.write_text("there is a file")
        module: Any = simulator.module
        module.open = lambda *args: file()
        assert module.get_token() == "line"
    assert events == ["deleted", "bound", "finalized"]
    assert name not in vars(file)


@isolated.test
def test_native_path_is_read_before_class_lookup() -> None:
    text = ctypes.create_string_buffer(b"/nonexistent/secret")
    paths = Recorder(raiser(OSError("end of the call")))

    @ctypes.CFUNCTYPE(ctypes.c_void_p)
    def getter() -> int:
        module.Path = paths
        return ctypes.addressof(text)

    SiblingSandbox()
    sibling: Any = sys.modules["veldarin.modules.modules"]
    sibling.__pyx_capi__["get_preference_cookie_secret_path"] = c_function_capsule(
        getter, b"char *(void)"
    )
    module: Any = importlib.import_module(MODULE)
    module.Path = raiser(AssertionError("the earlier Path"))
    fails(OSError, module.get_token)
    assert paths.positional == [("/nonexistent/secret",)]

"""The secret of the preference cookie: the file, the order of the steps, and the semantics of the
`with` statement."""

from __future__ import annotations

import builtins
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
    is_increasing,
    line,
    raises_exactly,
    traceback_entries,
)
from tests.support.doubles import CountingBool, Failure, Recorder, raiser
from tests.support.fake_siblings import SiblingSandbox, _c_pointer, capsule
from tests.support.isolated import MODULE
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

HEX = set("0123456789abcdef")


@pytest.fixture
def secret_file(simulator: Simulator, tmp_path: Path) -> Path:
    """The path of the secret; the file does not exist yet."""
    simulator.secret_path = tmp_path / "secret"
    return simulator.secret_path


@pytest.fixture
def opened(module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Recorder:
    """The module's `open`, which records its calls."""
    opened = Recorder(builtins.open)
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


def test_directory_at_path_raises_is_a_directory_error(
    module: ModuleType, secret_file: Path
) -> None:
    secret_file.mkdir()
    error = raises_exactly(IsADirectoryError, module.get_token)
    assert error.filename == str(secret_file)
    assert entry(error, "get_token").line


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o027, 0o077])
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


def test_socket_at_path_raises_os_error(
    module: ModuleType, secret_file: Path, opened: Recorder, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(secret_file.parent)  # a socket's path has at most 107 characters
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(secret_file.name)
        error = raises_exactly(OSError, module.get_token)
    assert (error.errno, error.filename) == (errno.ENXIO, str(secret_file))
    assert opened.positional == [(secret_file, "w")]
    assert entry(error, "get_token").line
    assert stat.S_ISSOCK(secret_file.stat().st_mode)


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
    simulator: Simulator, module: ModuleType, opened: Recorder
) -> None:
    simulator.secret_path = null = Path(os.devnull)
    assert module.get_token() == ""
    assert opened.positional == [(null, "w"), (null, "r")]
    assert stat.S_ISCHR(null.stat().st_mode)


def test_missing_directory_raises_file_not_found_error(
    simulator: Simulator, module: ModuleType, tmp_path: Path
) -> None:
    simulator.secret_path = tmp_path / "missing" / "secret"
    error = raises_exactly(FileNotFoundError, module.get_token)
    assert entry(error, "get_token").line
    assert not simulator.secret_path.parent.exists()


def test_relative_path_is_made_absolute(
    simulator: Simulator,
    module: ModuleType,
    tmp_path: Path,
    opened: Recorder,
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


def opener(files: list[Any]) -> Callable[..., Any]:
    """Return an `open` that appends each file to the list."""

    def open_file(*args: Any) -> Any:
        files.append(builtins.open(*args))  # noqa: SIM115, PTH123 - the module closes it
        return files[-1]

    return open_file


def test_failure_before_writing_leaves_empty_file(
    module: ModuleType, secret_file: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    error = OSError("no entropy")
    files: list[Any] = []
    with monkeypatch.context() as patch:
        patch.setattr(module, "urandom", raiser(error))
        patch.setattr(module, "open", opener(files), raising=False)
        assert raises_exactly(OSError, module.get_token) is error
    (opened,) = files
    assert opened.closed
    assert secret_file.read_bytes() == b""
    assert module.get_token() == ""


@pytest.mark.parametrize("content", [None, b"secret"])
def test_every_opened_file_is_closed(
    module: ModuleType, secret_file: Path, monkeypatch: pytest.MonkeyPatch, content: bytes | None
) -> None:
    files: list[Any] = []
    if content is not None:
        secret_file.write_bytes(content)
    monkeypatch.setattr(module, "open", opener(files), raising=False)
    module.get_token()
    assert [(file.mode, file.closed) for file in files] == (
        [("r", True)] if content is not None else [("w", True), ("r", True)]
    )


# The steps, recorded by test doubles of everything that the function calls


class Special:
    """A special method that records that it is looked up on the type."""

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
        # A lookup must not find these: the interpreter looks special methods up on the type.
        self.__dict__["__enter__"] = self.__dict__["__exit__"] = raiser(AssertionError("instance"))

    def note(self, event: str, *details: object) -> None:
        self.steps.note(f"{self.label}: {event}", *details)

    def _enter(self) -> object:
        self.note("enter")
        write = self.steps.step(f"{self.label}: write", "written", None)
        readline = self.steps.step(f"{self.label}: readline", "line", self.steps.line)
        entered = SimpleNamespace(write=write, readline=readline)  # not the manager itself
        return self.steps.do(f"{self.label}: entered", entered)

    def _exit(self, *triple: object) -> object:
        self.note("exit", *triple)
        return self.steps.do(f"{self.label}: exited", False)

    __enter__ = Special("__enter__", _enter)
    __exit__ = Special("__exit__", _exit)


class Steps:
    """Record the steps of `get_token`; `replies` replaces results, by their names."""

    def __init__(self) -> None:
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

    def note(self, *event: object) -> None:
        self.events.append(event)

    def do(self, name: str, result: object) -> object:
        return self.replies[name]() if name in self.replies else result

    def step(self, event: str, name: str, result: object) -> Callable[..., object]:
        """Return a function that records an event and returns the result of this name."""

        def function(*args: object) -> object:
            self.note(event, *args)
            return self.do(name, result)

        return function

    def open(self, *args: object) -> object:
        self.note("open", *args)
        return self.do(f"open {args[1]}", Manager(self, str(args[1])))

    @property
    def names(self) -> list[object]:
        """The events without their details."""
        return [event[0] for event in self.events]


@pytest.fixture
def steps(simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Steps:
    """The module with a recorder for every name that the function looks up."""
    steps = Steps()
    simulator.secret_path = Path("/some/secret")
    for name, value in steps.globals.items():
        monkeypatch.setattr(module, name, value, raising=False)
    return steps


PATH: list[tuple[object, ...]] = [("text_", b"/some/secret"), ("Path", "path text"), ("is_file",)]
WRITE: list[tuple[object, ...]] = [
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
READ: list[tuple[object, ...]] = [
    ("absolute",),
    ("open", "/absolute", "r"),
    ("r: look up __enter__",),
    ("r: look up __exit__",),
    ("r: enter",),
    ("r: readline",),
    ("strip",),
    ("r: exit", None, None, None),
]


def test_each_step_runs_once_in_order(module: ModuleType, steps: Steps) -> None:
    assert module.get_token() is steps.secret
    assert steps.events == PATH + WRITE + READ
    assert type(steps.events[0][1]) is bytes
    assert type(steps.events[8][1]) is int


@pytest.mark.parametrize("exists, opens", [(True, READ), (False, WRITE + READ)])
def test_file_is_written_unless_is_file_result_is_true(
    module: ModuleType, steps: Steps, exists: bool, opens: list[tuple[object, ...]]
) -> None:
    truth = CountingBool(exists)
    steps.replies["is a file"] = lambda: truth
    assert module.get_token() is steps.secret
    assert steps.events == PATH + opens
    assert truth.bool_calls == 1


def test_results_of_write_and_clean_exit_are_ignored(module: ModuleType, steps: Steps) -> None:
    untouchable = CountingBool(AssertionError("truth test"))
    for name in ("written", "w: exited", "r: exited"):
        steps.replies[name] = lambda: untouchable
    assert module.get_token() is steps.secret
    assert untouchable.bool_calls == 0


# Names are looked up at the moment they are needed


@pytest.mark.parametrize("name", ["text_", "Path", "urandom", "hexlify"])
def test_missing_global_raises_name_error(
    module: ModuleType, steps: Steps, patch: Patch, name: str
) -> None:
    patch.delete(name)
    error = raises_exactly(NameError, module.get_token)
    assert str(error) == f"name '{name}' is not defined"
    assert entry(error, "get_token").line


def test_open_is_looked_up_in_builtins_at_call(
    module: ModuleType, steps: Steps, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delattr(module, "open")
    with monkeypatch.context() as patch:
        patch.setattr(builtins, "open", steps.open)
        secret = module.get_token()
    assert secret is steps.secret
    assert steps.events == PATH + WRITE + READ


def test_open_of_module_shadows_builtin(
    module: ModuleType, steps: Steps, monkeypatch: pytest.MonkeyPatch
) -> None:
    with monkeypatch.context() as patch:
        patch.setattr(builtins, "open", raiser(AssertionError("the builtin")))
        secret = module.get_token()
    assert secret is steps.secret


def test_missing_open_raises_name_error(
    module: ModuleType, steps: Steps, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delattr(module, "open")
    with monkeypatch.context() as patch:
        patch.delattr(builtins, "open")
        try:
            module.get_token()
        except NameError as caught:
            error = caught
    assert str(error) == "name 'open' is not defined"
    assert entry(error, "get_token").line


def test_open_is_looked_up_for_each_with(module: ModuleType, steps: Steps, patch: Patch) -> None:
    first = steps.open

    def only_once(*args: object) -> object:
        patch("open", second)
        return first(*args)

    second = Recorder(first)
    patch("open", only_once)
    assert module.get_token() is steps.secret
    assert second.positional == [("/absolute", "r")]


# A failing step ends the call: its exception propagates unchanged, from the line of the step


WITH_BODY_STEPS = {
    **dict.fromkeys(["random", "hexadecimal", "decoded", "written"], "w"),
    **dict.fromkeys(["line", "secret"], "r"),
}
OUTSIDE = ["text", "path", "is a file", "absolute path"]
WITH = [step.format(mode) for mode in "wr" for step in ("open {}", "{}: entered", "{}: exited")]
BODY = {"w": "written", "r": "line"}  # a step in the body of each `with`
each_mode = pytest.mark.parametrize("mode", BODY)


@pytest.mark.parametrize("step", [*OUTSIDE, *WITH, *WITH_BODY_STEPS])
def test_failing_step_propagates_its_exception(module: ModuleType, steps: Steps, step: str) -> None:
    error = Failure(step)
    steps.replies[step] = raiser(error)
    assert raises_exactly(Failure, module.get_token) is error
    assert error.__context__ is None
    found = entry(error, "get_token")
    assert found.first_line < found.line
    exits = [event for event in steps.events if str(event[0]).endswith(": exit")]
    if step in WITH_BODY_STEPS:
        name, kind, value, traceback = exits[-1]
        assert name == f"{WITH_BODY_STEPS[step]}: exit"
        assert kind is Failure
        assert value is error
        assert isinstance(traceback, TracebackType)
        assert traceback_entries(traceback) == [found]
        exits.pop()
    assert all(event[1:] == (None, None, None) for event in exits)


def test_is_file_truth_error_propagates(module: ModuleType, steps: Steps) -> None:
    error = Failure("no truth")
    steps.replies["is a file"] = lambda: CountingBool(error)
    assert raises_exactly(Failure, module.get_token) is error
    assert steps.events == PATH
    assert entry(error, "get_token").line


def test_traceback_lines_increase_with_statements(module: ModuleType, steps: Steps) -> None:
    found: list[Entry] = []
    for step in ("text", "is a file", "open w", "written", "open r", "line"):
        error = Failure(step)
        steps.replies = {step: raiser(error)}
        assert raises_exactly(Failure, module.get_token) is error
        found.append(entry(error, "get_token"))
    steps.replies = {"line": raiser(Failure()), "r: exited": lambda: True}
    found.append(entry(raises_exactly(UnboundLocalError, module.get_token), "get_token"))
    assert is_increasing([found[0].first_line, *(each.line for each in found)])
    assert found[-1].line < 94  # the first line of a later function
    assert len({each.first_line for each in found}) == 1


@pytest.mark.parametrize(
    "steps_of_one_statement",
    [
        ["text", "path"],
        ["absolute path", "open w"],
        ["random", "hexadecimal", "decoded", "written"],
        ["line", "secret"],
    ],
)
def test_statement_fails_at_one_line(
    module: ModuleType, steps: Steps, steps_of_one_statement: list[str]
) -> None:
    lines = set()
    for step in steps_of_one_statement:
        error = Failure(step)
        steps.replies = {step: raiser(error)}
        raises_exactly(Failure, module.get_token)
        lines.add(line(error, "get_token"))
    assert len(lines) == 1


# `with` behaves like the interpreter's own statement


@each_mode
@pytest.mark.parametrize("kind", [Failure, OSError, KeyboardInterrupt, GeneratorExit, SystemExit])
def test_failing_body_propagates_when_exit_returns_false(
    module: ModuleType, steps: Steps, mode: str, kind: type[BaseException]
) -> None:
    error = kind("in the body")
    truth = CountingBool(False)
    steps.replies[BODY[mode]] = raiser(error)
    steps.replies[f"{mode}: exited"] = lambda: truth
    assert raises_exactly(kind, module.get_token) is error
    assert steps.events[-1][:3] == (f"{mode}: exit", kind, error)
    assert truth.bool_calls == 1
    assert steps.names.count(f"{mode}: exit") == 1


def test_exit_gets_normalized_exception(module: ModuleType, steps: Steps) -> None:
    class Unreadable:
        """A line without `strip`, for which the interpreter raises AttributeError."""

    steps.replies["line"] = Unreadable
    error = raises_exactly(AttributeError, module.get_token)
    assert str(error) == "'Unreadable' object has no attribute 'strip'"
    assert steps.events[-1][:3] == ("r: exit", AttributeError, error)


def test_exit_runs_while_exception_is_handled(module: ModuleType, steps: Steps) -> None:
    handled: list[object] = []
    error = Failure("in the body")

    def exited() -> bool:
        handled.append(sys.exc_info()[1])
        return False

    steps.replies["line"] = raiser(error)
    steps.replies["r: exited"] = exited
    raises_exactly(Failure, module.get_token)
    assert handled == [error]
    assert sys.exc_info() == (None, None, None)


@pytest.mark.parametrize("swallowed", [False, True])
def test_exception_of_caller_stays_handled(
    module: ModuleType, steps: Steps, swallowed: bool
) -> None:
    outer, error = Failure("being handled by the caller"), LookupError("in the body")
    steps.replies["written"] = raiser(error)
    steps.replies["w: exited"] = lambda: swallowed
    try:
        raise outer
    except Failure:
        if swallowed:
            assert module.get_token() is steps.secret
        else:
            assert raises_exactly(LookupError, module.get_token) is error
        assert sys.exc_info()[1] is outer


def test_suppressed_write_error_goes_on_to_read(module: ModuleType, steps: Steps) -> None:
    truth = CountingBool(True)
    steps.replies["written"] = raiser(Failure())
    steps.replies["w: exited"] = lambda: truth
    assert module.get_token() is steps.secret
    assert truth.bool_calls == 1
    assert steps.events[-len(READ) :] == READ
    assert sys.exc_info() == (None, None, None)


@pytest.mark.parametrize("step", ["line", "secret"])
def test_suppressed_read_error_raises_unbound_local(
    module: ModuleType, steps: Steps, step: str
) -> None:
    truth = CountingBool(True)
    steps.replies[step] = raiser(Failure())
    steps.replies["r: exited"] = lambda: truth
    error = raises_exactly(UnboundLocalError, module.get_token)
    assert str(error) == "local variable 'secret' referenced before assignment"
    assert error.__context__ is None
    assert truth.bool_calls == 1
    assert entry(error, "get_token").line


@each_mode
@pytest.mark.parametrize("at", ["call", "truth"])
def test_failing_exit_keeps_body_error_as_context(
    module: ModuleType, steps: Steps, mode: str, at: str
) -> None:
    body, leaving = Failure("in the body"), LookupError("while leaving")
    steps.replies[BODY[mode]] = raiser(body)

    def exited() -> object:
        if at == "call":
            raise leaving
        return CountingBool(leaving)

    steps.replies[f"{mode}: exited"] = exited
    assert raises_exactly(LookupError, module.get_token) is leaving
    assert leaving.__context__ is body
    assert entry(leaving, "get_token").line


@each_mode
def test_failing_enter_does_not_call_exit(module: ModuleType, steps: Steps, mode: str) -> None:
    error = Failure("entering")
    steps.replies[f"{mode}: entered"] = raiser(error)
    assert raises_exactly(Failure, module.get_token) is error
    assert f"{mode}: exit" not in steps.names
    assert steps.names[-1] == f"{mode}: enter"


class NoEnter:
    """Has `__exit__`, but `__enter__` on the instance only, where it is not looked up."""

    def __init__(self) -> None:
        self.__enter__ = raiser(AssertionError("found on the instance"))

    def __exit__(self, *triple: object) -> None:
        raise AssertionError("left without being entered")


class NoExit:
    """Has `__enter__`, but `__exit__` on the instance only, where it is not looked up."""

    def __init__(self) -> None:
        self.__exit__ = raiser(AssertionError("found on the instance"))

    def __enter__(self) -> None:
        raise AssertionError("entered without a way to leave")


class Neither:
    """Not a context manager."""


@each_mode
@pytest.mark.parametrize(
    "manager, missing", [(NoEnter, "__enter__"), (NoExit, "__exit__"), (Neither, "__enter__")]
)
def test_non_context_manager_raises_before_enter(
    module: ModuleType, steps: Steps, mode: str, manager: type, missing: str
) -> None:
    steps.replies[f"open {mode}"] = manager
    error = raises_exactly(AttributeError, module.get_token)
    assert str(error) == missing
    assert entry(error, "get_token").line


@pytest.mark.parametrize("name", ["__enter__", "__exit__"])
def test_special_method_lookup_error_propagates(
    module: ModuleType, steps: Steps, name: str
) -> None:
    error = Failure(name)

    class Unbindable:
        def __get__(self, instance: object, owner: type) -> object:
            raise error

    manager = type("Odd", (io.StringIO,), {name: Unbindable()})
    steps.replies["open w"] = manager
    assert raises_exactly(Failure, module.get_token) is error


def test_special_method_is_any_callable_of_the_type(module: ModuleType, steps: Steps) -> None:
    """A static method and a callable object are bound like any class attribute."""
    file = io.StringIO("first\nsecond")
    exits = Recorder()

    class Odd:
        __enter__ = staticmethod(lambda: file)
        __exit__ = exits

    steps.replies["is a file"] = lambda: True
    steps.replies["open r"] = Odd
    assert module.get_token() == "first"
    assert exits.positional == [(None, None, None)]


class FileWithoutMethods:
    """A file without `write` and `readline`."""


@pytest.mark.parametrize(
    "mode, method, body_begins",
    [("w", "write", len(PATH) + 5), ("r", "readline", len(PATH) + len(WRITE) + 5)],
)
def test_file_without_method_raises_attribute_error(
    module: ModuleType, steps: Steps, patch: Patch, mode: str, method: str, body_begins: int
) -> None:
    """The interpreter evaluates `file.write` before the argument of the call."""
    if mode == "w":  # as a C function it must not be called with an exception set
        patch("urandom", os.urandom)
    steps.replies[f"{mode}: entered"] = FileWithoutMethods
    error = raises_exactly(AttributeError, module.get_token)
    assert str(error) == f"'FileWithoutMethods' object has no attribute '{method}'"
    assert steps.events[:body_begins] == (PATH + WRITE + READ)[:body_begins]
    ((event, kind, value, _traceback),) = steps.events[body_begins:]
    assert (event, kind) == (f"{mode}: exit", AttributeError)
    assert value is error


def test_methods_without_get_keep_reference_counts(module: ModuleType, steps: Steps) -> None:
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
        module.get_token()
    assert (sys.getrefcount(enter), sys.getrefcount(leave)) == before
    assert len(spare) == 2000


def remove_method_in_its_get(name: str) -> list[object]:
    """Read the secret from a file whose special method is deleted while it is bound.

    `getattr` as `__get__` gets the method, the file (a string) as name and the file's type as
    default; it uses the method again after the deletion.
    """
    import io

    from veldarin_simulator import Simulator

    events: list[object] = []

    class Method:
        __get__ = getattr

        def __getattribute__(self, file: str) -> Any:
            events.append("removed")
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
        return [module.get_token(), events, name in vars(file)]


@pytest.mark.parametrize("name", ["__enter__", "__exit__"])
def test_method_removed_by_its_own_get_stays_alive(name: str) -> None:
    assert isolated.value(remove_method_in_its_get, name) == [
        "line",
        ["removed", "bound", "finalized"],
        False,
    ]


@each_mode
def test_exit_gets_traceback_of_exception(module: ModuleType, steps: Steps, mode: str) -> None:
    seen: list[tuple[Any, Any]] = []

    def exited() -> bool:
        _kind, value, traceback = sys.exc_info()
        assert value is not None
        seen.append((value.__traceback__, traceback))
        return False

    steps.replies[f"{mode}: entered"] = FileWithoutMethods
    steps.replies[f"{mode}: exited"] = exited
    error = raises_exactly(AttributeError, module.get_token)
    ((of_the_exception, handled),) = seen
    assert of_the_exception is handled
    assert steps.events[-1][:3] == (f"{mode}: exit", AttributeError, error)
    assert steps.events[-1][3] is handled
    assert traceback_entries(handled) == [entry(error, "get_token")]


def test_native_path_is_read_before_class_lookup() -> None:
    def rebind_in_the_getter() -> list[str]:
        import ctypes

        text = ctypes.create_string_buffer(b"/nonexistent/secret")
        events = []

        def path(name: str) -> Any:
            def construct(given: str) -> Any:
                events.append(f"{name}({given!r})")
                raise OSError("end of the call")

            return construct

        @ctypes.CFUNCTYPE(ctypes.c_void_p)
        def getter() -> int:
            events.append("getter")
            module.Path = path("the later Path")
            return ctypes.addressof(text)

        sandbox = SiblingSandbox()
        sibling: Any = sandbox._right["veldarin.modules.modules"]
        sibling.__pyx_capi__["get_preference_cookie_secret_path"] = capsule(
            _c_pointer(getter), b"char *(void)"
        )
        module: Any = importlib.import_module(MODULE)
        module.Path = path("the earlier Path")
        try:
            module.get_token()
        except OSError:
            events.append("OSError")
        return events

    assert isolated.value(rebind_in_the_getter) == [
        "getter",
        "the later Path('/nonexistent/secret')",
        "OSError",
    ]

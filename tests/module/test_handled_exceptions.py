"""sys.exc_info after calls that handle an exception: each call restores the caller's exception,
also in a generator or coroutine that runs in an except clause."""

from __future__ import annotations

import asyncio
import gc
import sys
import weakref
from collections.abc import AsyncGenerator, Iterator
from functools import partial
from types import ModuleType
from typing import Callable

import pytest

from tests.support import event_loop, reference
from tests.support.doubles import failing_open
from tests.support.fake_cli import FakeCli

pytestmark = pytest.mark.usefixtures("frozen_heap")

Handle = Callable[[], object]


class Outer(Exception):
    """The exception that the caller handles; it supports weak references."""


def logging_call(cli: FakeCli, function: str) -> Handle:
    """A call in which the parser logs one exception."""
    if function == "get_bfd_neighbor":
        cli.set_output("x", "peer a", "")
        return partial(cli.parser.get_bfd_neighbor, "c", {})
    cli.patch("get_bfd_neighbor", lambda *given: None)
    call: Handle = cli.parser.list_bfd_neighbor
    return call


@pytest.fixture(
    params=[
        "module.get_bfd_neighbor",
        "module.list_bfd_neighbor",
        "module.get_token",
        "reference.get_bfd_neighbor",
        "reference.list_bfd_neighbor",
    ]
)
def handle(
    request: pytest.FixtureRequest, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> Iterator[Handle]:
    """A call in which the module or the reference model handles one exception."""
    parser, function = request.param.split(".")
    if function == "get_token":
        opener = failing_open("write", "w", suppresses=True)
        monkeypatch.setattr(module, "open", opener, raising=False)
        yield module.get_token
        return
    cli = FakeCli(reference if parser == "reference" else module, monkeypatch)
    call = logging_call(cli, function)

    def call_and_check_log() -> None:
        call()
        (text,) = cli.debug_messages
        assert text.startswith(("e:list index out", "e:dict() argument after ** must be a mapping"))
        cli.logger.debug.calls.clear()

    yield call_and_check_log
    cli.shared.clear()


def handled() -> BaseException | None:
    """The exception being handled."""
    return sys.exc_info()[1]


@pytest.mark.parametrize(
    "function, kind", [("get_bfd_neighbor", IndexError), ("list_bfd_neighbor", TypeError)]
)
def test_logged_exception_is_handled_only_while_logged(
    cli: FakeCli, function: str, kind: type[Exception]
) -> None:
    logged: list[tuple[type[BaseException], bool]] = []

    def debug(text: str) -> None:
        error, traceback = sys.exc_info()[1:]
        assert error is not None
        assert traceback is not None
        logged.append((type(error), error.__traceback__ is traceback))

    cli.logger.debug.side_effect = debug
    call = logging_call(cli, function)
    call()
    assert sys.exc_info() == (None, None, None)
    outer = Outer()
    try:
        raise outer
    except Outer:
        call()
        assert handled() is outer
    assert logged == [(kind, True)] * 2


def test_generator_resumed_outside_handler_handles_nothing(handle: Handle) -> None:
    """Nor does the caller's exception become the context of a later one; it is collected."""

    def view() -> Iterator[object]:
        handle()
        yield handled()
        yield handled()
        try:
            raise KeyError
        except KeyError as error:
            yield error.__context__

    generator = view()
    try:
        raise Outer
    except Outer as error:
        outer = weakref.ref(error)
        assert next(generator) is handled()
    gc.collect()
    assert outer() is None
    assert [*generator] == [None, None]


def test_generator_with_its_own_handler_keeps_it(handle: Handle) -> None:
    def view() -> Iterator[object]:
        try:
            raise KeyError
        except KeyError as error:
            handle()
            yield handled() is error
            handle()
            yield handled() is error
        handle()
        yield handled()
        yield handled()

    generator = view()
    try:
        raise Outer
    except Outer:
        assert next(generator) is True
        try:
            raise ValueError
        except ValueError:
            assert next(generator) is True
            assert type(handled()) is ValueError
            assert next(generator) is handled()
        assert type(handled()) is Outer
    assert handled() is None
    assert next(generator) is None


def test_delegating_generators_keep_their_handlers(handle: Handle) -> None:
    def inner() -> Iterator[object]:
        handle()
        yield handled()
        yield handled()

    def outer() -> Iterator[object]:
        delegate = inner()
        try:
            raise KeyError
        except KeyError as error:
            handle()
            yield next(delegate) is error
        yield next(delegate)

    generator = outer()
    try:
        raise Outer
    except Outer:
        assert next(generator) is True
        assert next(generator) is handled()
    assert handled() is None


def test_coroutine_resumed_outside_handler_handles_nothing(handle: Handle) -> None:
    async def view() -> object:
        handle()
        await asyncio.sleep(0)
        return handled()

    coroutine = view()
    try:
        raise Outer
    except Outer:
        coroutine.send(None)
    with pytest.raises(StopIteration) as stopped:
        coroutine.send(None)
    assert stopped.value.value is None


def test_asyncio_tasks_handle_only_their_own_exceptions(handle: Handle) -> None:
    async def view() -> AsyncGenerator[object, None]:
        while True:
            handle()
            yield handled()
            await asyncio.sleep(0)
            handle()

    async def task() -> list[object]:
        rows = view()
        seen: list[object] = []
        outer = None
        for _ in range(3):
            try:
                raise Outer
            except Outer as error:
                outer = weakref.ref(error)
                seen.append(await rows.__anext__() is error)
            await asyncio.sleep(0)
            gc.collect()
            seen += [outer(), await rows.__anext__()]
        await rows.aclose()
        return seen

    async def tasks() -> list[list[object]]:
        return [*await asyncio.gather(task(), task())]

    assert event_loop.run(tasks()) == [[True, None, None] * 3] * 2


def context_chain() -> list[type[BaseException]]:
    """The types of the exception being handled and of its contexts."""
    chain, error = [], handled()
    while error is not None:
        chain.append(type(error))
        error = error.__context__
    return chain


def test_exception_in_handler_keeps_context_chain(cli: FakeCli) -> None:
    call = logging_call(cli, "get_bfd_neighbor")
    chains: list[list[type[BaseException]]] = []
    cli.logger.debug.side_effect = lambda text: chains.append(context_chain())

    def view() -> Iterator[object]:
        call()
        yield None
        try:
            raise KeyError
        except KeyError:
            call()
        yield None
        call()
        yield None

    generator = view()
    try:
        raise Outer
    except Outer:
        next(generator)
        next(generator)
    next(generator)
    assert chains == [[IndexError, Outer], [IndexError, KeyError, Outer], [IndexError]]


def test_nested_call_from_logger_restores_handlers(cli: FakeCli) -> None:
    call = logging_call(cli, "get_bfd_neighbor")
    errors: list[BaseException | None] = []

    def debug(text: str) -> None:
        error = handled()
        errors.append(error)
        if len(errors) < 3:
            call()
        assert handled() is error

    cli.logger.debug.side_effect = debug
    call()
    assert handled() is None
    assert [error and error.__context__ for error in errors] == [None, *errors[:2]]
    assert None not in errors

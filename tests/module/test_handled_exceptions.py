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

from tests.support import reference
from tests.support.doubles import failing_open
from tests.support.fake_cli import FakeCli

Handle = Callable[[], object]


class Outer(Exception):
    """The exception that the caller handles; it supports weak references."""


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
        opener = failing_open("write", "w", swallows=True)
        monkeypatch.setattr(module, "open", opener, raising=False)
        yield module.get_token
        return
    cli = FakeCli(reference if parser == "reference" else module, monkeypatch)
    if function == "get_bfd_neighbor":
        cli.set_output("x", "peer a", "")

        def parse() -> None:
            cli.parser.get_bfd_neighbor("c", {})
            assert cli.debug_messages == ["e:list index out of range"]
            cli.logger.debug.calls.clear()

        yield parse
    else:
        cli.patch("get_bfd_neighbor", lambda *given: None)

        def list_all() -> None:
            cli.parser.list_bfd_neighbor()
            (text,) = cli.debug_messages
            assert text.startswith("e:dict() argument after ** must be a mapping")
            cli.logger.debug.calls.clear()

        yield list_all
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
    if function == "get_bfd_neighbor":
        cli.set_output("echo", "peer A")
        call = partial(cli.parser.get_bfd_neighbor, "command", {})
    else:
        cli.patch("get_bfd_neighbor", lambda *given: None)
        call = cli.parser.list_bfd_neighbor
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
    def view() -> Iterator[object]:
        handle()
        yield handled()
        yield handled()

    generator = view()
    try:
        raise Outer
    except Outer:
        assert next(generator) is handled()
    assert next(generator) is None


def test_generator_later_exception_has_no_context(handle: Handle) -> None:
    def view() -> Iterator[object]:
        handle()
        yield None
        try:
            raise KeyError
        except KeyError as error:
            yield error.__context__

    generator = view()
    try:
        raise Outer
    except Outer:
        next(generator)
    assert next(generator) is None


def test_generator_lets_exception_of_caller_be_collected(handle: Handle) -> None:
    def view() -> Iterator[object]:
        handle()
        yield None
        yield None

    generator = view()
    try:
        raise Outer
    except Outer as error:
        outer = weakref.ref(error)
        next(generator)
    gc.collect()
    assert outer() is None
    next(generator)


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

    assert asyncio.run(tasks()) == [[True, None, None] * 3] * 2


def test_exception_in_handler_keeps_context_chain(
    cli: FakeCli, monkeypatch: pytest.MonkeyPatch
) -> None:
    chains: list[list[type[BaseException]]] = []

    def debug(text: str) -> None:
        chain, error = [], handled()
        while error is not None:
            chain.append(type(error))
            error = error.__context__
        chains.append(chain)

    monkeypatch.setattr(cli.logger, "debug", debug)
    cli.set_output("x", "peer a", "")

    def view() -> Iterator[object]:
        cli.parser.get_bfd_neighbor("c", {})
        yield None
        try:
            raise KeyError
        except KeyError:
            cli.parser.get_bfd_neighbor("c", {})
        yield None
        cli.parser.get_bfd_neighbor("c", {})
        yield None

    generator = view()
    try:
        raise Outer
    except Outer:
        next(generator)
        next(generator)
    next(generator)
    assert chains == [[IndexError, Outer], [IndexError, KeyError, Outer], [IndexError]]


def test_nested_call_from_logger_restores_handlers(
    cli: FakeCli, monkeypatch: pytest.MonkeyPatch
) -> None:
    depth: list[BaseException | None] = []

    def debug(text: str) -> None:
        error = handled()
        depth.append(error)
        if len(depth) < 3:
            cli.parser.get_bfd_neighbor("c", {})
        assert handled() is error

    monkeypatch.setattr(cli.logger, "debug", debug)
    cli.set_output("x", "peer a", "")
    cli.parser.get_bfd_neighbor("c", {})
    assert handled() is None
    first, second, third = depth
    assert first is not None
    assert second is not None
    assert third is not None
    assert third.__context__ is second
    assert second.__context__ is first
    assert first.__context__ is None

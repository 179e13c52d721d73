"""The cases of tests/support/call_cases.py on one device, from many threads at once.

A case prepares the device and rebinds names of the module. What the device answers is looked up by
thread, so that cases run side by side whatever they prepare; names of the module are everybody's,
so cases that rebind the same run together, and the others before or after.
"""

from __future__ import annotations

import random
import threading
from collections.abc import Iterator, Mapping
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from typing import Any

from tests.support.call_cases import CASES, DELETED, CallCase
from tests.support.doubles import FailNth
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import Simulator


def groups() -> list[list[CallCase]]:
    """The cases, those together that rebind the same names to the same objects."""
    found: dict[object, list[CallCase]] = {}
    for case in CASES:
        patched = frozenset((name, id(value)) for name, value in case.patched.items())
        found.setdefault(patched, []).append(case)
    return list(found.values())


class Stage:
    """A device that answers each thread what its case of the moment says; with threads of its own,
    until the context is left."""

    def __init__(self, simulator: Simulator, threads: int) -> None:
        self.simulator, self.module = simulator, simulator.module
        self.threads = threads
        self.groups = groups()
        self._pool = ThreadPoolExecutor(threads)
        self._here = threading.local()
        self._one_at_a_time = threading.Lock()  # for cases that prepare files, or the device itself
        self._script()

    def __enter__(self) -> Stage:
        return self

    def __exit__(self, *error: object) -> None:
        self._pool.shutdown()

    def _script(self) -> None:
        simulator, here = self.simulator, self._here
        simulator.set_reply("get_cli_cmd_output", lambda command: here.case.cli)
        simulator.set_reply("cookieval_wrap", b"wrapped")
        simulator.set_reply("cookieval_unwrap", None)  # the text stays as it is
        for row in QUERY_CASES:
            if row.native:
                simulator.set_reply(row.native, lambda request: here.case.reply)
        simulator.on_create = lambda arguments: here.create()
        simulator.on_release = lambda text: here.release()

    def round(self, times: int, number: int) -> int:
        """Every case so many times in every thread; how many calls that made.

        `AssertionError`: a call ended otherwise than its case says.
        """
        for group in self.groups:
            with self._bound(group[0].patched):
                turns = [
                    self._pool.submit(self._turn, group, times, f"{number} {thread}")
                    for thread in range(self.threads)
                ]
                for turn in turns:
                    turn.result()
            self.simulator.clear_calls()
        return self.threads * times * len(CASES)

    def _turn(self, group: list[CallCase], times: int, seed: str) -> None:
        cases = group * times
        random.Random(seed).shuffle(cases)
        for case in cases:
            if case.before is None:
                self._call(case)
            else:
                with self._one_at_a_time:
                    self._clear()
                    case.before(self.simulator)
                    self._call(case)

    def _clear(self) -> None:
        path = self.simulator.secret_path
        if path.is_dir():
            path.rmdir()
        elif path.exists():
            path.unlink()

    def _call(self, case: CallCase) -> None:
        here = self._here
        here.case, here.create, here.release = case, FailNth(case.create), FailNth(case.release)
        arguments = [{**value} if type(value) is dict else value for value in case.args]
        raised: type[BaseException] | None = None
        try:
            getattr(self.module, case.function)(*arguments, **case.kwargs)
        except BaseException as error:  # a case may raise what is no Exception
            raised = type(error)
        if raised is not case.error:
            raise AssertionError(f"{case}: {raised} instead of {case.error}")

    @contextmanager
    def _bound(self, patched: Mapping[str, Any]) -> Iterator[None]:
        before = {name: vars(self.module).get(name, DELETED) for name in patched}
        self._bind(patched)
        try:
            yield
        finally:
            self._bind(before)

    def _bind(self, values: Mapping[str, Any]) -> None:
        for name, value in values.items():
            if value is not DELETED:
                setattr(self.module, name, value)
            elif name in vars(self.module):
                delattr(self.module, name)

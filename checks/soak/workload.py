"""The cases of tests/support/call_cases.py, called from many threads.

The simulator's replies depend on the thread, so that cases run concurrently. Globals of the module
are shared: cases that patch the same globals form a group, and the groups run one after the other.
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


def group_cases() -> list[list[CallCase]]:
    """Group the cases that patch the same globals with the same objects."""
    groups: dict[object, list[CallCase]] = {}
    for case in CASES:
        key = frozenset((name, id(value)) for name, value in case.patched.items())
        groups.setdefault(key, []).append(case)
    return list(groups.values())


class Workload:
    """A thread pool that calls the module; a context manager."""

    def __init__(self, simulator: Simulator, threads: int) -> None:
        self.simulator, self.module = simulator, simulator.module
        self.threads = threads
        self.groups = group_cases()
        self._pool = ThreadPoolExecutor(threads)
        self._local = local = threading.local()
        self._lock = threading.Lock()  # for cases that prepare files or the simulator
        simulator.set_reply("get_cli_cmd_output", lambda command: local.case.cli)
        simulator.set_reply("cookieval_wrap", b"wrapped")
        simulator.set_reply("cookieval_unwrap", None)  # returns its argument
        for row in QUERY_CASES:
            if row.native:
                simulator.set_reply(row.native, lambda request: local.case.reply)
        simulator.on_create = lambda arguments: local.create()
        simulator.on_release = lambda text: local.release()

    def __enter__(self) -> Workload:
        return self

    def __exit__(self, *error: object) -> None:
        self._pool.shutdown()

    def run_round(self, repeats: int, number: int) -> int:
        """Call every case `repeats` times in every thread.

        Returns:
            The number of calls.

        Raises:
            AssertionError: A call did not end as its case says.
        """
        for group in self.groups:
            with self._patched(group[0].patched):
                futures = [
                    self._pool.submit(self._run_group, group, repeats, f"{number} {thread}")
                    for thread in range(self.threads)
                ]
                for future in futures:
                    future.result()
            self.simulator.clear_calls()
        return self.threads * repeats * len(CASES)

    def _run_group(self, group: list[CallCase], repeats: int, seed: str) -> None:
        cases = group * repeats
        random.Random(seed).shuffle(cases)
        for case in cases:
            if case.before is None:
                self._call(case)
            else:
                with self._lock:
                    path = self.simulator.secret_path
                    if path.is_dir():
                        path.rmdir()
                    path.unlink(missing_ok=True)
                    case.before(self.simulator)
                    self._call(case)

    def _call(self, case: CallCase) -> None:
        local = self._local
        local.case, local.create, local.release = case, FailNth(case.create), FailNth(case.release)
        arguments = [{**value} if type(value) is dict else value for value in case.args]
        raised: type[BaseException] | None = None
        try:
            getattr(self.module, case.function)(*arguments, **case.kwargs)
        except BaseException as error:  # some cases raise KeyboardInterrupt
            raised = type(error)
        if raised is not case.error:
            raise AssertionError(f"{case}: raised {raised}, expected {case.error}")

    @contextmanager
    def _patched(self, values: Mapping[str, Any]) -> Iterator[None]:
        before = {name: vars(self.module).get(name, DELETED) for name in values}
        self._bind(values)
        try:
            yield
        finally:
            self._bind(before)

    def _bind(self, values: Mapping[str, Any]) -> None:
        for name, value in values.items():
            if value is not DELETED:
                setattr(self.module, name, value)
            else:
                vars(self.module).pop(name, None)

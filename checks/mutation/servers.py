"""Servers that test mutants: each has loaded and prepared everything but the module, and forks for
each request.

`python -m checks.mutation.servers tests` runs tests of the module, `faults` cases of the
fault-injection sweep. A request is a line of JSON on standard input: the file and the tests to run
first, or the cases. The reply is a line on standard output: what failed, or null. A request without
them returns the lines of the sources that each test or case reaches, in a build that logs calls.
"""

from __future__ import annotations

import atexit
import gc
import json
import mmap
import os
import pickle
import resource
import signal
import sys
import tempfile
import traceback
from collections.abc import Iterable
from contextlib import suppress
from pathlib import Path
from typing import Any, Callable

import psutil
import pytest

from checks.fault_injection import __main__ as fault_injection
from checks.fault_injection.call_subject import CallSubject
from checks.fault_injection.forks import ForkRunner
from checks.fault_injection.imports import ImportCase, ImportSubject
from checks.fault_injection.libfaults import FaultInjector, read_log
from checks.fault_injection.process_cases import ProcessCase
from checks.fault_injection.sweep import AnyCase, sweep
from checks.mutation.mutants import WORD
from tests.support import isolated
from veldarin_simulator import Simulator

# Not tests of behavior: the size and the symbols of the file.
IGNORED = "tests/module/test_shared_object.py"
CPU_SECONDS, SECONDS = 6, 60  # for one test, which takes one second at most
SWEEP_SECONDS = 300
MEMORY = 16 << 30


# pytest and the tests get other standard streams.
requests, replies = os.fdopen(os.dup(0)), os.fdopen(os.dup(1), "w")


def serve(run: Callable[[Any], object]) -> None:
    """Reply to each request with what `run` returns."""
    for line in requests:
        print(json.dumps(run(json.loads(line))), file=replies, flush=True)


class CallLog:
    """The lines of the fallible calls that the module has reached, in a build that logs them."""

    def __init__(self, path: Path) -> None:
        self._path = path
        atexit.register(path.unlink)
        self._counts: dict[str, int] = {}

    def new(self) -> set[str]:
        """The lines that were reached since the last call, as "file:line"."""
        before, self._counts = self._counts, {}
        for row in read_log(self._path):
            place = ":".join(row.key.decode().split(":", 2)[:2])
            self._counts[place] = self._counts.get(place, 0) + row.reached
        return {place for place, count in self._counts.items() if count != before.get(place)}


# ------------------------------------------------------------------ tests


def is_of_reference(item: pytest.Item) -> bool:
    """Tell whether a test runs the reference model in place of the module."""
    return isinstance(item, pytest.Function) and "[reference" in item.name


class TestServer:
    """A pytest plugin that runs the collected tests in a fork for each request."""

    def __init__(self) -> None:
        self._running = mmap.mmap(-1, 8)  # the number of the test

    def pytest_runtestloop(self, session: pytest.Session) -> bool:
        """Serve requests instead of running the tests once."""
        if session.testsfailed:
            return True
        self._items = {item.nodeid: item for item in session.items if not is_of_reference(item)}
        gc.freeze()  # the collector of the forks skips the server's objects
        serve(lambda request: self._run(session, request) if request else self._reach(session))
        return True

    def _reach(self, session: pytest.Session) -> list[tuple[str, list[str]]] | str:
        """Run all tests; return the lines of calls that each reaches, or the test that fails."""
        path = isolated.BUILD / f"call_sites.{os.getpid()}.log"
        FaultInjector().open_log(path)
        log = CallLog(path)
        items = [*self._items.values()]
        reached = []
        for item, following in zip(items, [*items[1:], None]):
            item.config.hook.pytest_runtest_protocol(item=item, nextitem=following)
            if session.testsfailed:
                return item.nodeid
            reached.append((item.nodeid, sorted(log.new())))
        return reached

    def _order(self, first: Iterable[str], words: set[str]) -> list[pytest.Item]:
        """The tests to run: the named ones, one of each function, all others, the slow ones.

        Tests that share words with the mutant precede others.
        """
        seen: dict[str, int] = {}
        keys: dict[str, tuple[int, ...]] = {}
        for place, item in enumerate(self._items.values()):
            function, _, _ = item.nodeid.partition("[")
            repeated = seen[function] = seen.get(function, -1) + 1
            distance = -len(words & {*item.path.stem.split("_"), *WORD.findall(item.nodeid)})
            slow = item.get_closest_marker("slow") is not None
            keys[item.nodeid] = (1, distance, place) if slow else (0, distance, repeated, place)
        known = sorted(
            dict.fromkeys(each for each in first if each in self._items),
            key=lambda nodeid: keys[nodeid][0],
        )
        rest = sorted(self._items.keys() - set(known), key=keys.__getitem__)
        return [self._items[nodeid] for nodeid in (*known, *rest)]

    def _run(self, session: pytest.Session, request: dict[str, Any]) -> str | None:
        isolated._server()  # for all forks: starting one takes longer than most of them live
        items = self._order(request["first"], set(request["words"]))
        chosen = {*request.get("only", self._items)} - {*request.get("skip", ())}
        items = [item for item in items if item.nodeid in chosen]
        child = os.fork()
        if child == 0:
            with suppress(BaseException):
                os.setpgid(0, 0)
                os._exit(self._run_items(session, items))
            os._exit(1)
        _pid, status = os.waitpid(child, 0)
        with suppress(ProcessLookupError):
            os.killpg(child, signal.SIGKILL)
        if status == 0:
            return None
        how = ""
        if os.WIFSIGNALED(status):
            is_timeout = os.WTERMSIG(status) in {signal.SIGPROF, signal.SIGALRM}
            how = "timeout: " if is_timeout else "crash: "
            if is_timeout:
                self._end_isolated_server()
        return how + items[int.from_bytes(self._running[:], "little")].nodeid

    def _run_items(self, session: pytest.Session, items: list[pytest.Item]) -> int:
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        for place, (item, following) in enumerate(zip(items, [*items[1:], None])):
            self._running[:] = place.to_bytes(8, "little")
            signal.setitimer(signal.ITIMER_PROF, CPU_SECONDS)
            signal.alarm(SECONDS)
            item.config.hook.pytest_runtest_protocol(item=item, nextitem=following)
            if session.testsfailed:
                return 1
        return 0

    def _end_isolated_server(self) -> None:
        """End the server of `isolated` and its fork, whose reply nothing reads any more."""
        process = psutil.Process(isolated._server().pid)
        for each in (*process.children(recursive=True), process):
            with suppress(psutil.NoSuchProcess):
                each.kill()
        isolated._server().communicate()
        isolated._server.cache_clear()


def serve_tests() -> None:
    """Collect the tests of the module and serve."""
    from hypothesis import Phase, settings

    os.environ.update(CI="1", HYPOTHESIS_EXAMPLES="20")  # the same texts in every run
    settings.register_profile("mutation", phases=[Phase.explicit, Phase.generate])
    settings.load_profile("mutation")
    # Nothing reads the reports.
    options = ["-q", "--tb=native", "--assert=plain", "-p", "no:xdist", "-p", "no:cacheprovider"]
    options += ["tests/module", f"--ignore={IGNORED}"]
    # Of each server, and without letters outside ASCII, which the path of the checkout may have.
    with tempfile.TemporaryDirectory() as folder:
        status = pytest.main([*options, f"--basetemp={folder}/tests"], plugins=[TestServer()])
    sys.exit(status)


# ------------------------------------------------------------------ fault injection


class FaultServer:
    """Sweeps the cases that reach a line of the sources."""

    def __init__(self) -> None:
        log = isolated.BUILD / f"call_sites.{os.getpid()}.log"
        self._injector = fault_injection.prepare(log)
        self._log = CallLog(log)
        self._cases = {str(case): case for case in fault_injection.select_cases()}

    def run(self, request: dict[str, Any]) -> object:
        """Return the lines that each case reaches, or the first finding in some cases."""
        if "cases" not in request:
            return [[name, self._in_fork(self._reach, each)] for name, each in self._cases.items()]
        for name in request["cases"]:
            findings = self._in_fork(self._sweep, self._cases[name])
            if findings is None or findings:
                return f"fault injection: {name}"
        return None

    def _in_fork(self, function: Callable[[AnyCase], Any], case: AnyCase) -> Any:
        reader, writer = os.pipe()
        child = os.fork()
        if child == 0:
            os.close(reader)
            os.setpgid(0, 0)
            signal.alarm(SWEEP_SECONDS)
            try:
                result = pickle.dumps(function(case))
            except BaseException:
                traceback.print_exc()
                os._exit(1)
            os.write(writer, result)
            os._exit(0)
        os.close(writer)
        with os.fdopen(reader, "rb") as pipe:
            result = pipe.read()
        os.waitpid(child, 0)
        with suppress(ProcessLookupError):
            os.killpg(child, signal.SIGKILL)
        return pickle.loads(result) if result else None

    def _sweep(self, case: AnyCase) -> bool:
        return bool(sweep(self._injector, case, run_atexit=False, one_shot=True).findings)

    def _reach(self, case: AnyCase) -> list[str]:
        """The lines of fallible calls that a case reaches without an injected failure."""
        self._log.new()
        if isinstance(case, ImportCase):
            ImportSubject(self._injector, case, ForkRunner(sys.stderr.buffer, False))
        else:
            process_case = case if isinstance(case, ProcessCase) else ProcessCase(case)
            simulator = Simulator(live=False).__enter__()
            _ = simulator.module
            self._log.new()  # the import is not part of the call
            CallSubject(self._injector, process_case, simulator)
        return sorted(self._log.new())


if __name__ == "__main__":
    os.dup2(os.open(os.devnull, os.O_RDONLY), 0)
    log = os.open(isolated.BUILD / f"{sys.argv[1]}.log", os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
    for standard in (1, 2):  # crashes write stacks
        os.dup2(log, standard)
    if sys.argv[1] == "tests":
        serve_tests()
    else:
        serve(FaultServer().run)

"""pytest plugin for runs on the target: skips the tests named in skipped.txt, each with its reason,
and accounts for every other one.

Which tests there are is asked of the workstation (cross/mips/test), so that none goes missing in
silence: a whole run has failed if a test of the workstation was neither run here nor is named in
the list. It does not begin if a name of the list fits no test: the list must not outlive what it
speaks of. Loaded on xdist's workers too.
"""

from __future__ import annotations

import os
import re
import time
from collections.abc import Iterable
from pathlib import Path

import pytest

LIST = Path(__file__).with_name("skipped.txt")
# The names of the workstation's tests, one a line, if this is a whole run; where the run's one line
# of figures goes; when to stop, in seconds since the epoch.
KNOWN_TESTS, FIGURES, UNTIL = "TARGET_TESTS", "TARGET_FIGURES", "TARGET_UNTIL"


def rows() -> list[tuple[str, str]]:
    """The list: beginnings of names with their reasons."""
    lines = LIST.read_text().splitlines()
    # A name may have a blank in it, not two.
    split = [re.split(" {2,}", line, maxsplit=1) for line in lines if line and line[0] != "#"]
    return [(name, reason) for name, reason in split]


ROWS = rows()
FILES = {name: reason for name, reason in ROWS if "::" not in name}


def known_tests() -> list[str]:
    """The workstation's tests; none if this run is of some tests only."""
    path = os.environ.get(KNOWN_TESTS)
    return Path(path).read_text().splitlines() if path else []


def pytest_configure(config: pytest.Config) -> None:
    """Refuses a list that speaks of tests that are no more."""
    tests = known_tests()
    for name, _ in ROWS:
        # The workstation itself may not have what a whole file stands on.
        there = Path(name).is_file() if name in FILES else begins_any(name, tests)
        if tests and not there:
            raise pytest.UsageError(f"{LIST.name}: no test's name begins with {name}")
    if UNTIL in os.environ and not hasattr(config, "workerinput"):
        config.pluginmanager.register(Clock(), "target-clock")


def begins_any(name: str, tests: Iterable[str]) -> bool:
    """Whether some test's name begins so."""
    return any(test.startswith(name) for test in tests)


class LeftOut(pytest.Module):
    """A file that cannot even be imported on the target."""

    def collect(self) -> list[pytest.Item]:
        """One skip in place of the file's tests."""
        raise pytest.skip.Exception(FILES[self.nodeid], allow_module_level=True)


def pytest_pycollect_makemodule(module_path: Path, parent: pytest.Collector) -> LeftOut | None:
    """Leaves out the files that the list names whole."""
    name = module_path.relative_to(parent.config.rootpath).as_posix()
    return LeftOut.from_parent(parent, path=module_path) if name in FILES else None


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Marks the tests that the list names; where time is short the module's own come first."""
    for name, reason in ROWS:
        for item in items:
            if item.nodeid.startswith(name):
                item.add_marker(pytest.mark.skip(reason=reason))
    if UNTIL in os.environ:
        items.sort(key=lambda item: "module" not in getattr(item, "fixturenames", ()))


class Clock:
    """Ends the run at the first report that comes in after the time is up.

    With the first report of all the file of figures begins: a run that was killed without one has
    tested nothing.
    """

    def __init__(self) -> None:
        self.until = float(os.environ[UNTIL])
        self.stopped = False

    @pytest.hookimpl(trylast=True)
    def pytest_runtest_logreport(self) -> None:
        """A test has got on, and has been counted."""
        if FIGURES in os.environ:
            Path(os.environ[FIGURES]).touch()
        self.stopped = time.time() > self.until
        if self.stopped:
            raise pytest.Session.Interrupted("the time was up")  # and not when the workers are done


class Account:
    """What became of the tests, by the reports that have come in."""

    def __init__(self, reporter: pytest.TerminalReporter) -> None:
        def names(*outcomes: str) -> set[str]:
            return {report.nodeid for kind in outcomes for report in reporter.stats.get(kind, ())}

        self.passed = names("passed")
        self.failed = names("failed", "error")
        reasons = {report.nodeid: reason(report) for report in reporter.stats.get("skipped", ())}
        clock = reporter.config.pluginmanager.get_plugin("target-clock")
        self.stopped = clock is not None and clock.stopped
        # Known to the list, and of these the tests where the names of all are known.
        self.listed = {
            name: {test for test in (known_tests() or reasons) if test.startswith(name)}
            for name, _ in ROWS
        }
        named = set().union(*self.listed.values())
        self.by_themselves = {
            name: why
            for name, why in reasons.items()
            if not name.startswith(tuple(name for name, _ in ROWS))
        }
        gone = {*known_tests()} - self.passed - self.failed - named - {*self.by_themselves}
        self.late, self.missing = ([], sorted(gone)) if not self.stopped else (sorted(gone), [])

    def figures(self) -> str:
        """One line."""
        parts = [
            f"{len(self.passed)} passed",
            f"{len(self.failed)} failed",
            f"{len(set().union(*self.listed.values()))} skipped by name",
            *counted(self.by_themselves, "skipped by themselves"),
            *counted(self.late, "not reached in time"),
            *counted(self.missing, "not accounted for"),
        ]
        tests = known_tests()
        return (f"{len(tests)} tests: " if tests else "") + ", ".join(parts)


def reason(report: pytest.TestReport) -> str:
    """Why a test was skipped."""
    told = report.longrepr[-1] if isinstance(report.longrepr, tuple) else str(report.longrepr)
    return told.removeprefix("Skipped: ")


def counted(tests: Iterable[str], what: str) -> list[str]:
    """A part of the figures, if there is something to tell."""
    number = len([*tests])
    return [f"{number} {what}"] if number else []


@pytest.hookimpl(tryfirst=True)
def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    """Fails a run that went to its end and missed a test; one that was stopped in time has failed
    only if a test has."""
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")
    if reporter is None or exitstatus not in (pytest.ExitCode.OK, pytest.ExitCode.INTERRUPTED):
        return
    account = Account(reporter)
    if account.missing or account.failed:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED
    elif account.stopped:
        session.exitstatus = pytest.ExitCode.OK


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    """Prints what was skipped, with reasons, then the figures."""
    if terminalreporter.config.option.collectonly:
        return
    account = Account(terminalreporter)
    terminalreporter.section("not run on the target")
    for name, why in ROWS:
        if account.listed[name]:
            terminalreporter.write_line(f"{name} ({len(account.listed[name])}): {why}")
    for name, why in sorted(account.by_themselves.items()):
        terminalreporter.write_line(f"{name}, by itself: {why}")
    for name in account.missing:
        terminalreporter.write_line(f"{name}: neither run nor in {LIST.name}", red=True)
    terminalreporter.section("figures")
    terminalreporter.write_line(account.figures())
    if FIGURES in os.environ:
        Path(os.environ[FIGURES]).write_text(account.figures() + "\n")

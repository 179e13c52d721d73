"""pytest plugin for the MIPS interpreter: skips tests that cannot run there and accounts for all.

The markers `requires` and `workstation_only` say at each test why. cross/mips/test passes the names
of the workstation's tests, so that none goes missing: a run fails if one of them neither ran nor
was skipped with a reason. xdist's workers load this plugin too.
"""

from __future__ import annotations

import ast
import os
import re
import time
from collections import Counter
from pathlib import Path

import pytest

LACKING = {
    "cryptography": "cryptography needs a Rust standard library for MIPS",
    "netlink": "pyroute2 needs OpenSSL, and netlink dumps do not end under the emulator",
}
# Environment variables: the file with the names of the workstation's tests, one a line, if this run
# is of all tests; the file to write the summary line to; when to stop, in seconds since the epoch.
TESTS, SUMMARY, DEADLINE = "MIPS_TESTS", "MIPS_SUMMARY", "MIPS_DEADLINE"

# Before a deadline these tests are skipped: their result does not depend on the processor, and they
# take half of the time. `make mips-test` runs them.
_PYTHON = "Python code that runs the same on any processor; `make mips-test` runs its tests"
_COUNTS = "references are counted the same on any processor; `make mips-test` counts them"
LEFT_OUT = {
    "tests/console/": _PYTHON,
    "tests/docs/test_readme.py": _PYTHON,
    "tests/module/test_leaks.py": _COUNTS,
    "tests/simulator/test_bfd.py": _PYTHON,
    "tests/simulator/test_cli": _PYTHON,
    "tests/simulator/test_record.py::test_large_recording": _PYTHON,
    "tests/simulator/test_record.py::test_redacted_address_": _PYTHON,
    "tests/tooling/test_lint.py": _PYTHON,
    "tests/tooling/test_setup_scripts.py": _PYTHON,
}

FILE_MARKER = re.compile(r"^pytestmark = pytest\.mark\.requires(\(.*\))$", re.MULTILINE)


def lacking(*names: str) -> str:
    """Returns why a test that requires the named things is skipped."""
    return "; ".join(LACKING[name] for name in names)


def file_skip_reason(path: Path) -> str | None:
    """Returns why a whole file is skipped, without importing it."""
    marker = FILE_MARKER.search(path.read_text())
    return marker and lacking(ast.literal_eval(marker[1]))


def workstation_tests() -> list[str]:
    """Returns the names of all tests, or nothing if this run is of some tests only."""
    return Path(os.environ[TESTS]).read_text().splitlines() if TESTS in os.environ else []


class SkippedFile(pytest.Module):
    """A file that the MIPS interpreter cannot import."""

    def collect(self) -> list[pytest.Item]:
        """Skips the file."""
        raise pytest.skip.Exception(str(file_skip_reason(self.path)), allow_module_level=True)


def pytest_pycollect_makemodule(module_path: Path, parent: pytest.Collector) -> SkippedFile | None:
    """Replaces the files that are skipped whole."""
    skipped = file_skip_reason(module_path)
    return SkippedFile.from_parent(parent, path=module_path) if skipped else None


def left_out_reason(name: str) -> str | None:
    """Returns why a test, a file or a folder (with "/" at the end) is skipped before a deadline."""
    if DEADLINE not in os.environ:
        return None
    return next((why for prefix, why in LEFT_OUT.items() if name.startswith(prefix)), None)


def pytest_ignore_collect(collection_path: Path, config: pytest.Config) -> bool | None:
    """Leaves whole files and folders out; importing them and skipping each test takes long."""
    if TESTS not in os.environ:
        return None  # only there are they accounted for
    name = collection_path.relative_to(config.rootpath).as_posix()
    return True if left_out_reason(name + "/" * collection_path.is_dir()) else None


def pytest_configure(config: pytest.Config) -> None:
    """Starts the clock where there is a deadline."""
    if DEADLINE in os.environ and not hasattr(config, "workerinput"):
        config.pluginmanager.register(Clock(), "mips-clock")


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Skips marked tests; before a deadline also others, and the module's own tests come first."""
    for item in items:
        for marker in item.iter_markers("requires"):
            item.add_marker(pytest.mark.skip(reason=lacking(*marker.args)))
        for marker in item.iter_markers("workstation_only"):
            item.add_marker(pytest.mark.skip(reason=marker.args[0]))
        if why := left_out_reason(item.nodeid):
            item.add_marker(pytest.mark.skip(reason=why))
    if DEADLINE in os.environ:
        items.sort(key=lambda item: "module" not in getattr(item, "fixturenames", ()))


class Clock:
    """Ends the run at the first report after the deadline.

    The first report creates the summary file: a run that was killed without one tested nothing.
    """

    def __init__(self) -> None:
        self.deadline = float(os.environ[DEADLINE])
        self.stopped = False

    @pytest.hookimpl(trylast=True)
    def pytest_runtest_logreport(self) -> None:
        """Checks the time once a test is counted."""
        if SUMMARY in os.environ:
            Path(os.environ[SUMMARY]).touch()
        self.stopped = time.time() > self.deadline
        if self.stopped:
            raise pytest.Session.Interrupted("the deadline has passed")


class Account:
    """Outcomes of all tests, from the reports so far."""

    def __init__(self, reporter: pytest.TerminalReporter) -> None:
        def names(*outcomes: str) -> set[str]:
            return {report.nodeid for kind in outcomes for report in reporter.stats.get(kind, ())}

        self.passed = names("passed")
        self.failed = names("failed", "error")
        reasons = {report.nodeid: reason(report) for report in reporter.stats.get("skipped", ())}
        tests = workstation_tests()
        # xdist reports only one of several files that are skipped for the same reason.
        for file in {test.partition("::")[0] for test in tests}:
            skipped = left_out_reason(file) or file_skip_reason(reporter.config.rootpath / file)
            if skipped:
                reasons[file] = skipped
        self.skipped = {
            test: why
            for test in tests or reasons
            if (why := reasons.get(test) or reasons.get(test.partition("::")[0]))
        }
        clock = reporter.config.pluginmanager.get_plugin("mips-clock")
        self.stopped = clock is not None and clock.stopped
        self.missing = sorted({*tests} - self.passed - self.failed - {*self.skipped})
        counts = [f"{len(self.passed)} passed, {len(self.failed)} failed"]
        counts.append(f"{len(self.skipped)} skipped")
        if self.missing:
            what = "not reached in time" if self.stopped else "not accounted for"
            counts.append(f"{len(self.missing)} {what}")
        self.summary = (f"{len(tests)} tests: " if tests else "") + ", ".join(counts)


def reason(report: pytest.TestReport) -> str:
    """Returns why a test was skipped."""
    text = report.longrepr[-1] if isinstance(report.longrepr, tuple) else str(report.longrepr)
    return text.removeprefix("Skipped: ")


@pytest.hookimpl(tryfirst=True)
def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    """Fails a whole run that missed a test; passes one that stopped in time without a failure."""
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")
    if reporter is None or exitstatus not in (pytest.ExitCode.OK, pytest.ExitCode.INTERRUPTED):
        return
    account = Account(reporter)
    if account.failed or (account.missing and not account.stopped):
        session.exitstatus = pytest.ExitCode.TESTS_FAILED
    elif account.stopped:
        session.exitstatus = pytest.ExitCode.OK


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    """Prints what was skipped, with reasons, then the summary line."""
    if terminalreporter.config.option.collectonly:
        return
    account = Account(terminalreporter)
    terminalreporter.section("not run on the MIPS interpreter")
    rows = Counter((test.partition("::")[0], why) for test, why in account.skipped.items())
    for (file, why), count in sorted(rows.items()):
        terminalreporter.write_line(f"{file} ({count}): {why}")
    for name in () if account.stopped else account.missing:
        terminalreporter.write_line(f"{name}: neither run nor skipped with a reason", red=True)
    terminalreporter.section("summary")
    terminalreporter.write_line(account.summary)
    if SUMMARY in os.environ:
        Path(os.environ[SUMMARY]).write_text(account.summary + "\n")

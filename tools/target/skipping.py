"""pytest plugin for runs on the target: skips the tests named in skipped.txt, each with its reason.

The list is printed at the end of the run. A whole run in which a name of the list fits no test has
failed: the list must not outlive what it speaks of. Loaded by tools/target/test, on xdist's workers
too.
"""

from __future__ import annotations

import ast
from pathlib import Path

import pytest

LIST = Path(__file__).with_name("skipped.txt")


def rows() -> list[tuple[str, str]]:
    """The list: beginnings of names with their reasons."""
    lines = LIST.read_text().splitlines()
    split = [line.split(maxsplit=1) for line in lines if line.strip() and line[0] != "#"]
    return [(name, reason) for name, reason in split]


ROWS = rows()
FILES = {name: reason for name, reason in ROWS if "::" not in name}


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
    """Marks the tests that the list names."""
    for name, reason in ROWS:
        for item in items:
            if item.nodeid.startswith(name):
                item.add_marker(pytest.mark.skip(reason=reason))


@pytest.hookimpl(tryfirst=True)
def pytest_sessionfinish(session: pytest.Session) -> None:
    """Fails a whole run with a name that fits no test."""
    whole = session.config.args == session.config.getini("testpaths")
    selected = session.config.option.keyword or session.config.option.markexpr
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")
    if reporter is None or not whole or selected or session.config.option.collectonly:
        return
    for name, _ in ROWS:
        if not count(reporter, name):
            reporter.write_line(f"{LIST.name}: no test's name begins with {name}", red=True)
            session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    """Prints what was skipped for the target's sake, with the number of tests in whole files."""
    terminalreporter.section("not run on the target")
    for name, reason in ROWS:
        skipped = count(terminalreporter, name)
        if skipped:
            tests = f"{functions(name)} test functions" if name in FILES else f"{skipped} tests"
            terminalreporter.write_line(f"{name} ({tests}): {reason}")


def count(reporter: pytest.TerminalReporter, name: str) -> int:
    """Skipped tests, and files, whose names begin so."""
    return sum(report.nodeid.startswith(name) for report in reporter.stats.get("skipped", []))


def functions(name: str) -> int:
    """The test functions written in a file."""
    tree = ast.parse(Path(name).read_text())
    return sum(
        isinstance(node, ast.FunctionDef) and node.name.startswith("test")
        for node in ast.walk(tree)
    )

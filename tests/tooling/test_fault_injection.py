"""The fault-injection sweep and the coverage report themselves: they cover every call site and
line, and report what is wrong."""

from __future__ import annotations

import io
import json
import os
from pathlib import Path

import pytest
from rich.console import Console

from checks.coverage.exclusions import Exclusion
from checks.coverage.gcov_report import evaluate, read_lines
from checks.fault_injection import call_sites, report
from checks.fault_injection.__main__ import select_cases
from checks.fault_injection.call_sites import CallSite, CallSiteCoverage
from checks.fault_injection.forks import parse_crash
from checks.fault_injection.sweep import CaseResult
from tests.support import isolated
from tests.support.function_table import FUNCTIONS


def shard(number: int, count: int) -> list[str]:
    return [str(case) for case in select_cases(shard=(number, count))]


@pytest.mark.parametrize("count", [5, 1000])
def test_sweep_shard_has_case_of_every_function(count: int) -> None:
    cases = select_cases(shard=(3, count))
    assert {row.name for row in FUNCTIONS} < {case.function for case in cases}


def test_sweep_shards_are_together_complete() -> None:
    shards = [shard(number, 60) for number in range(1, 61)]
    assert {name for names in shards for name in names} == set(shard(1, 1))


def test_sweep_case_names_are_unique() -> None:
    assert len(shard(1, 1)) == len(set(shard(1, 1)))


# Fallible calls


def test_every_called_symbol_is_fallible_or_reviewed() -> None:
    assert call_sites.find_unreviewed_calls() == []
    assert call_sites.find_unreviewed_symbols(isolated.MODULE_PATH) == []


def test_unreviewed_call_is_reported(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    source = tmp_path / "source.cpp"
    source.write_text("// PyList_Sort(no)\nPyList_New(0);\nPyList_Sort(list);\n")
    monkeypatch.setattr(call_sites, "ROOT", tmp_path)
    monkeypatch.setattr(call_sites, "SOURCES", [source])
    assert call_sites.find_fallible_calls() == [CallSite("source.cpp", 2, "PyList_New(0)")]
    assert call_sites.find_unreviewed_calls() == ["source.cpp:3:PyList_Sort(list)"]


@pytest.mark.workstation_only(
    "sys.executable is the emulator's launcher there, not the interpreter"
)
def test_unreviewed_symbol_is_reported(monkeypatch: pytest.MonkeyPatch) -> None:
    reviewed = call_sites.infallible_functions()
    del reviewed["PyErr_Clear"]
    monkeypatch.setattr(call_sites, "infallible_functions", lambda: reviewed)
    assert call_sites.find_unreviewed_symbols(isolated.MODULE_PATH) == ["PyErr_Clear"]


OF_ASSERTIONS = {"PyCallable_Check"}  # that a debug build has in the interpreter's inline functions


def test_every_reviewed_symbol_is_called() -> None:
    called = {site.function for file in call_sites.SOURCES for site in call_sites.find_calls(file)}
    referred = {
        name for _kind, name in call_sites.read_symbols(isolated.MODULE_PATH, "--undefined-only")
    }
    assert set(call_sites.infallible_functions()) - called - referred - OF_ASSERTIONS == set()
    assert call_sites.fallible_functions() - called - referred == set()


# Where a process died


DIED = """crashed in call: veldarin/modules/arp.cpp:44:PyDict_SetItem(a, b, c)
stack:
/build/libfaults.so(+0x3b2c)[0x7f]
/lib/libc.so.6(+0x3bf90)[0x7f]
/lib/libpython3.9.so.1.0(PyDict_SetItem+0x1c)[0x7f]
/stage/{module}(+0x5f10)[0x7f]
end of stack
"""


@pytest.mark.parametrize(
    ("module", "left_out", "place"),
    [
        (isolated.MODULE_PATH.name, "", "in libpython3.9.so.1.0, called by the module"),
        (isolated.MODULE_PATH.name, "/lib/libpython3.9.so.1.0(Py", "in the module"),
        ("other.so", "", "outside the module"),
    ],
    ids=["called by the module", "in the module", "outside"],
)
def test_crash_report_has_place_and_current_call(module: str, left_out: str, place: str) -> None:
    stderr = "before\n" + DIED.format(module=module).replace(left_out or "no such text", "")
    crash = parse_crash("died of SIGSEGV", stderr)
    assert (crash.how, crash.place) == ("died of SIGSEGV", place)
    assert crash.call == "veldarin/modules/arp.cpp:44:PyDict_SetItem(a, b, c)"
    if not left_out:
        functions = f"PyDict_SetItem < a function of {module}"
        assert str(crash) == f"died of SIGSEGV {place}, in the call {crash.call}: {functions}"


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the sanitizer reports crashes itself")
@pytest.mark.workstation_only("the crash handler unwinds the emulator's stack there")
def test_crashing_process_reports_place() -> None:
    def die() -> list[object]:
        import ctypes
        import os
        import tempfile

        from checks.fault_injection.forks import CrashError, ForkRunner
        from checks.fault_injection.libfaults import FaultInjector

        injector = FaultInjector()
        with tempfile.TemporaryFile() as errors:
            forks = ForkRunner(errors, run_atexit=False)
            injector.install_crash_handler()
            output: list[object] = [forks.run(os.getpid) != os.getpid()]
            for fatal in (os.abort, lambda: ctypes.string_at(0)):
                try:
                    forks.run(fatal)
                except CrashError as error:
                    output.append([error.crash.how, len(error.crash.functions) > 1])
        return output

    died = isolated.value(die)
    assert died == [True, ["died of SIGABRT", True], ["died of SIGSEGV", True]]


# The report of the sweep


def result(*findings: str) -> CaseResult:
    return CaseResult("case", "new_cookie_id", 3, 2, list(findings))


def print_report(
    results: list[CaseResult], coverage: list[CallSiteCoverage], count: int = 1
) -> tuple[int, list[str]]:
    """Return the exit status and the lines of a complete sweep's report."""
    console = Console(file=io.StringIO(), width=200)
    finished = list(report.show_progress(console, results, count))
    findings = [
        *report.print_points(console, finished, count),
        *report.print_call_sites(console, coverage, [], True),
    ]
    status = report.print_verdict(console, finished, coverage, findings, True)
    assert isinstance(console.file, io.StringIO)
    return status, console.file.getvalue().splitlines()


def test_sweep_without_finding_passes(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setattr(report, "BUILD", tmp_path)
    status, lines = print_report([result()], [])
    assert (status, lines[0]) == (0, "injecting failures: 1 of 1 cases, 5 points, 0 findings")
    assert lines[-1] == ("fault-injection: 5 points of 1 cases, 0 of 0 fallible calls: 0 findings")


@pytest.mark.parametrize(
    ("results", "coverage", "count"),
    [
        ([result("leaked")], [], 1),
        ([result()], [], 2),
        ([result()], [CallSiteCoverage(CallSite("a.cpp", 1, "PyList_New(0)"), None)], 1),
    ],
    ids=["finding", "case without result", "call that never failed"],
)
def test_sweep_with_finding_fails(
    monkeypatch: pytest.MonkeyPatch,
    tmp_path: Path,
    results: list[CaseResult],
    coverage: list[CallSiteCoverage],
    count: int,
) -> None:
    monkeypatch.setattr(report, "BUILD", tmp_path)
    status, lines = print_report(results, coverage, count)
    assert status == 1
    assert lines[-1].endswith(": 1 findings")


# Line and branch coverage


SOURCE = "int f(int a) {\n    if (a) return 1;\n    return a || never();\n    unreachable();\n}\n"
REPORT = {
    "files": [
        {
            "file": "veldarin/modules/source.cpp",
            "lines": [
                {"line_number": 2, "count": 2, "branches": [{"count": 1}, {"count": 1}]},
                {"line_number": 3, "count": 1, "branches": [{"count": 1}, {"count": 0}]},
                {"line_number": 4, "count": 0, "branches": []},
            ],
        }
    ]
}
NEVER = Exclusion("source.cpp", "|| never()", "it never is")
UNREACHABLE = Exclusion("source.cpp", "unreachable()", "nothing gets here", 0)


@pytest.mark.parametrize(
    ("exclusions", "uncovered", "unused"),
    [
        ([], [3, 4], []),
        ([NEVER], [4], []),
        ([UNREACHABLE], [3], []),
        ([NEVER, UNREACHABLE], [], []),
        ([NEVER, UNREACHABLE, NEVER._replace(text="if (a)")], [], ["if (a)"]),
        ([NEVER._replace(file="other.cpp")], [3, 4], ["|| never()"]),
    ],
)
def test_call_site_that_never_ran_is_missing(
    tmp_path: Path, exclusions: list[Exclusion], uncovered: list[int], unused: list[str]
) -> None:
    source = tmp_path / "veldarin" / "modules" / "source.cpp"
    source.parent.mkdir(parents=True)
    source.write_text(SOURCE)
    (tmp_path / "counts.json").write_text(json.dumps(REPORT))
    coverage = evaluate(read_lines(tmp_path / "counts.json", tmp_path), exclusions)
    assert [line.number for line in coverage.uncovered] == uncovered
    assert [row.text for row in coverage.unused] == unused

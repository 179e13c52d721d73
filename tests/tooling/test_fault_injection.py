"""The tools of `make fault-injection` and `make coverage`: they cover every case and call site, and
they report every finding."""

from __future__ import annotations

import io
import json
import os
from argparse import Namespace
from pathlib import Path

import pytest
from rich.console import Console

from checks.coverage.exclusions import Excluded
from checks.coverage.gcov_report import judge, lines
from checks.fault_injection import call_sites, report
from checks.fault_injection.__main__ import chosen
from checks.fault_injection.call_sites import Failed, Site
from checks.fault_injection.crashes import death
from checks.fault_injection.sweep import Swept
from tests.support import isolated
from tests.support.function_table import FUNCTIONS


def part(every: int, first: int = 1) -> list[str]:
    return [str(case) for case in chosen(Namespace(only=None, every=every, first=first))]


@pytest.mark.parametrize("every", [5, 1000])
def test_sweep_shard_has_case_of_every_function(every: int) -> None:
    cases = chosen(Namespace(only=None, every=every, first=3))
    assert {row.name for row in FUNCTIONS} < {case.function for case in cases}


def test_sweep_shards_are_together_complete() -> None:
    parts = [part(60, first) for first in range(1, 61)]
    assert {name for names in parts for name in names} == set(part(1))


def test_sweep_case_names_are_unique() -> None:
    assert len(part(1)) == len(set(part(1)))


# Fallible calls


def test_every_called_symbol_is_fallible_or_reviewed() -> None:
    assert call_sites.unknown_calls() == []
    assert call_sites.unknown_symbols(isolated.MODULE_PATH) == []


def test_unreviewed_call_is_reported(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    source = tmp_path / "source.cpp"
    source.write_text("// PyList_Sort(no)\nPyList_New(0);\nPyList_Sort(list);\n")
    monkeypatch.setattr(call_sites, "ROOT", tmp_path)
    monkeypatch.setattr(call_sites, "SOURCES", [source])
    assert call_sites.sites() == [Site("source.cpp", 2, "PyList_New(0)")]
    assert call_sites.unknown_calls() == ["source.cpp:3:PyList_Sort(list)"]


@pytest.mark.workstation_only(
    "sys.executable is the emulator's launcher there, not the interpreter"
)
def test_unreviewed_symbol_is_reported(monkeypatch: pytest.MonkeyPatch) -> None:
    reviewed = call_sites.cannot_fail()
    del reviewed["PyErr_Clear"]
    monkeypatch.setattr(call_sites, "cannot_fail", lambda: reviewed)
    assert call_sites.unknown_symbols(isolated.MODULE_PATH) == ["PyErr_Clear"]


OF_ASSERTIONS = {"PyCallable_Check"}  # that a debug build has in the interpreter's inline functions


def test_every_reviewed_symbol_is_called() -> None:
    called = {site.api for file in call_sites.SOURCES for site in call_sites.calls(file)}
    referred = {
        name for _kind, name in call_sites._symbols(isolated.MODULE_PATH, "--undefined-only")
    }
    assert set(call_sites.cannot_fail()) - called - referred - OF_ASSERTIONS == set()
    assert call_sites.fallible() - called - referred == set()


# Where a process died


DIED = """died in the call: veldarin/modules/arp.cpp:44:PyDict_SetItem(a, b, c)
died in the functions:
/build/libfaults.so(+0x3b2c)[0x7f]
/lib/libc.so.6(+0x3bf90)[0x7f]
/lib/libpython3.9.so.1.0(PyDict_SetItem+0x1c)[0x7f]
/stage/{product}(+0x5f10)[0x7f]
died.
"""


def test_crash_report_has_place_and_current_call() -> None:
    output = str(
        death("died of SIGSEGV", "before\n" + DIED.format(product=isolated.MODULE_PATH.name))
    )
    assert output.startswith("died of SIGSEGV in libpython3.9.so.1.0, called by the module, in the")
    assert (
        "arp.cpp:44:PyDict_SetItem(a, b, c): PyDict_SetItem < a function of modules_util" in output
    )


def test_crash_in_module_is_reported_as_such() -> None:
    written = DIED.format(product=isolated.MODULE_PATH.name).replace(
        "/lib/libpython3.9.so.1.0(Py", ""
    )
    assert death("died", written).place == "in the module"


def test_crash_elsewhere_is_reported_as_such() -> None:
    assert death("died", DIED.format(product="other.so")).place == "outside of the module"


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the sanitizer tells of deaths itself")
@pytest.mark.workstation_only("the crash handler unwinds the emulator's stack there")
def test_crashing_process_reports_place() -> None:
    def die() -> list[object]:
        import ctypes
        import os
        import tempfile

        from checks.fault_injection.forks import Children, DiedError
        from checks.fault_injection.libfaults import Library

        library = Library()
        with tempfile.TemporaryFile() as errors:
            children = Children(errors, orderly=False)
            library.tell_deaths()
            output: list[object] = [children.result(os.getpid) != os.getpid()]
            for fatal in (os.abort, lambda: ctypes.string_at(0)):
                try:
                    children.result(fatal)
                except DiedError as died:
                    output.append([died.death.how, len(died.death.functions) > 1])
        return output

    died = isolated.value(die)
    assert died == [True, ["died of SIGABRT", True], ["died of SIGSEGV", True]]


# The verdict of the sweep


def swept(*complaints: str) -> Swept:
    return Swept("case", "new_cookie_id", single=3, lasting=2, complaints=list(complaints))


def verdict_of(results: list[Swept], failed: list[Failed], count: int = 1) -> tuple[int, str]:
    """Return the exit status and the output."""
    console = Console(file=io.StringIO(), width=200)
    wrong = [
        *report.points(console, report.progress(console, results, count), count),
        *report.calls(console, failed, [], True),
    ]
    status = report.verdict(console, results, failed, wrong, True)
    assert isinstance(console.file, io.StringIO)
    return status, console.file.getvalue()


def test_sweep_without_finding_passes(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setattr(report, "BUILD", Path.cwd() / "build")
    status, output = verdict_of([swept()], [])
    assert (status, output.splitlines()[0]) == (
        0,
        "failing memory: 1 of 1 cases, 5 points, 0 wrong",
    )
    assert output.splitlines()[-1] == (
        "faults: 5 points of 1 cases, 0 of 0 fallible calls: nothing wrong"
    )


@pytest.mark.parametrize(
    ("results", "failed", "count"),
    [
        ([swept("left behind")], [], 1),
        ([swept()], [], 2),
        ([swept()], [Failed(Site("a.cpp", 1, "PyList_New(0)"), None)], 1),
    ],
    ids=["a complaint", "a case that has not ended", "a call that never failed"],
)
def test_sweep_with_finding_fails(
    monkeypatch: pytest.MonkeyPatch, results: list[Swept], failed: list[Failed], count: int
) -> None:
    monkeypatch.setattr(report, "BUILD", Path.cwd() / "build")
    status, output = verdict_of(results, failed, count)
    assert status == 1
    assert output.splitlines()[-1].endswith(": 1 WRONG")


# Call-site coverage


SOURCE = "int f(int a) {\n    if (a) return 1;\n    return a || never();\n    unreachable();\n}\n"
COUNTED = {
    "files": [
        {
            "file": "source.cpp",
            "lines": [
                {"line_number": 2, "count": 2, "branches": [{"count": 1}, {"count": 1}]},
                {"line_number": 3, "count": 1, "branches": [{"count": 1}, {"count": 0}]},
                {"line_number": 4, "count": 0, "branches": []},
            ],
        }
    ]
}
NEVER = Excluded("source.cpp", "|| never()", "it never is", branches=1)
UNREACHABLE = Excluded("source.cpp", "unreachable()", "nothing gets here", line=True)


@pytest.mark.parametrize(
    ("excluded", "missing", "idle"),
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
    tmp_path: Path, excluded: list[Excluded], missing: list[int], idle: list[str]
) -> None:
    (tmp_path / "source.cpp").write_text(SOURCE)
    (tmp_path / "counts.json").write_text(json.dumps(COUNTED))
    verdict = judge(lines(tmp_path / "counts.json", tmp_path), excluded)
    assert [line.number for line in verdict.missing] == missing
    assert [row.text for row in verdict.idle] == idle

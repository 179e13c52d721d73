"""The verdict on memcheck's log: a report counts, and so does a log without an end."""

from __future__ import annotations

from pathlib import Path

import pytest

from checks.sanitizers import __main__ as runner
from tests.support.isolated import ROOT

LOG = """\
==7== Memcheck, a memory error detector
==7== Invalid read of size 1
==7==    at 0x1: find (text.h:43)
==7== ERROR SUMMARY: 5 errors from 2 contexts (suppressed: 6 from 2)
"""


@pytest.mark.parametrize(
    "log, reports",
    [
        (LOG, 2),
        (LOG.replace("5 errors from 2", "0 errors from 0"), 0),
        (LOG.partition("==7== ERROR")[0], 1),
        ("", 1),
    ],
    ids=["reports", "none", "cut short", "empty"],
)
def test_log_without_report_passes(
    tmp_path: Path,
    monkeypatch: pytest.MonkeyPatch,
    capsys: pytest.CaptureFixture[str],
    log: str,
    reports: int,
) -> None:
    monkeypatch.setattr(runner, "ROOT", tmp_path)
    file = tmp_path / "memcheck.log"
    file.write_text(log)
    assert runner.report_memcheck("9 passed", file) == (reports == 0)
    first = capsys.readouterr().out.splitlines()[0]
    assert first.startswith(f"memcheck: 9 passed; {reports} report")


def test_suppressions_name_nothing_of_module() -> None:
    entries = (ROOT / "checks" / "sanitizers" / "interpreter.supp").read_text().split("{")[1:]
    assert entries
    for entry in entries:
        assert "obj:*python3.9*" in entry
        assert "modules_util" not in entry

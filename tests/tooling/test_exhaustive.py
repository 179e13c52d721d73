"""A sample of the exhaustive checks: all shorter texts and sequences, some alignments and code
points."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from checks.exhaustive.__main__ import (
    ALIGNMENTS,
    CODE_POINTS,
    PARSERS,
    Job,
    check,
    jobs,
)
from tests.support import reference
from veldarin_simulator import native_library

SAMPLE = [
    *(
        job
        for job in jobs(length=4, tokens=3, code_points=0x800)
        if job.family != "alignments" or job.first % 6 == 1
    ),
    Job("code points", 1, 0x800, 0x3001),  # all other white space
]

pytestmark = pytest.mark.skipif(
    not list(native_library.build_directory().glob("checks/exhaustive_texts.*")),
    reason="the comparison of texts is not built: make exhaustive",
)


@pytest.mark.parametrize("family", sorted({job.family for job in SAMPLE}))
def test_module_equals_python_for_all_short_texts(family: str, module: ModuleType) -> None:
    assert sum(check(job, module) for job in SAMPLE if job.family == family) >= 1800


def test_jobs_cover_every_number_once() -> None:
    for family, base in [("texts", 11), *((each.family, 12) for each in PARSERS)]:
        ranges = [job for job in jobs(4, 4, chunk=1000) if job.family == family]
        assert [job.first for job in ranges if job.length == 4] == list(
            range(0, base**4, 1000 if family == "texts" else 50)
        )
        assert sum(job.last - job.first for job in ranges) == sum(base**n for n in range(5))
    assert len({job.first for job in jobs(0, 0) if job.family == "alignments"}) == len(ALIGNMENTS)
    for family in ("code points", *(each.family for each in CODE_POINTS)):
        covered = [job.last - job.first for job in jobs(0, 0) if job.family == family]
        assert sum(covered) == 0x110000


@pytest.mark.parametrize("parser", [*PARSERS, *CODE_POINTS], ids=lambda parser: parser.family)
def test_difference_is_reported_with_its_text(
    parser: Any, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(reference, parser.function, lambda *_arguments: {"another": "result"})
    with pytest.raises(AssertionError, match=f"^{parser.function} of '"):
        check(Job(parser.family, 1, 0, 12), module)

"""What ran and what did not, from gcovr's JSON report. Every instance of a template counts on its
own: a parser has one for each width of characters."""

from __future__ import annotations

import json
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import NamedTuple

from checks.coverage.exclusions import Excluded


class Line(NamedTuple):
    """A line in one function, or in one instance of a template."""

    file: str
    number: int
    text: str
    function: str
    ran: bool
    branches: int
    untaken: int

    def __str__(self) -> str:
        what = f"{self.untaken} of {self.branches} branches not taken" if self.ran else "never ran"
        return f"{self.file}:{self.number}: {what}: {self.text}"


@dataclass
class Verdict:
    """Figures, what is missing, and how many instances of its lines each row left out."""

    lines: int = 0
    lines_run: int = 0
    branches: int = 0
    branches_taken: int = 0
    missing: list[Line] = field(default_factory=list)
    left_out: dict[Excluded, int] = field(default_factory=dict)

    @property
    def idle(self) -> list[Excluded]:
        """Rows that left nothing out."""
        return [row for row, instances in self.left_out.items() if not instances]


def lines(report: Path, root: Path) -> Iterator[Line]:
    """Every line that holds code."""
    for file in json.loads(report.read_text())["files"]:
        source = (root / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            branches = line["branches"]
            yield Line(
                file["file"],
                line["line_number"],
                source[line["line_number"] - 1].strip(),
                line.get("function_name", ""),
                line["count"] > 0,
                len(branches),
                sum(branch["count"] == 0 for branch in branches),
            )


def judge(counted: Iterator[Line], excluded: list[Excluded]) -> Verdict:
    """What is left of the lines without those left out."""
    verdict = Verdict(left_out=dict.fromkeys(excluded, 0))
    for line in counted:
        fitting = [
            row for row in excluded if line.file.startswith(row.file) and row.text in line.text
        ]
        if not line.ran and any(row.line for row in fitting):
            for row in fitting:
                verdict.left_out[row] += row.line
            continue
        allowed = 0
        for row in fitting:
            if line.untaken and row.branches:
                verdict.left_out[row] += 1
                allowed += row.branches
        branches = line.branches - min(allowed, line.untaken)
        taken = line.branches - line.untaken
        verdict.lines += 1
        verdict.lines_run += line.ran
        verdict.branches += branches
        verdict.branches_taken += taken
        if not line.ran or taken < branches:
            verdict.missing.append(line)
    return verdict

"""Read gcovr's JSON report and apply the exclusions.

gcovr reports each instance of a template on its own: a parser has one per character width.
"""

from __future__ import annotations

import json
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import NamedTuple

from checks.coverage.exclusions import Exclusion

MODULE = "veldarin/modules/"


class Line(NamedTuple):
    """A line of a function or of one template instance."""

    file: str
    number: int
    text: str
    ran: bool
    branches: int
    untaken: int

    def __str__(self) -> str:
        what = f"{self.untaken} of {self.branches} branches not taken" if self.ran else "never ran"
        return f"{self.file}:{self.number}: {what}: {self.text}"


@dataclass
class Coverage:
    """Totals, the uncovered lines, and how many lines each exclusion applies to."""

    lines: int = 0
    lines_run: int = 0
    branches: int = 0
    branches_taken: int = 0
    uncovered: list[Line] = field(default_factory=list)
    uses: dict[Exclusion, int] = field(default_factory=dict)

    @property
    def unused(self) -> list[Exclusion]:
        """The exclusions that apply to no line."""
        return [row for row, uses in self.uses.items() if not uses]


def read_lines(report: Path, root: Path) -> Iterator[Line]:
    """Read every line that holds code."""
    for file in json.loads(report.read_text())["files"]:
        source = (root / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            untaken = [branch for branch in line["branches"] if branch["count"] == 0]
            number = line["line_number"]
            yield Line(
                file["file"],
                number,
                source[number - 1].strip(),
                line["count"] > 0,
                len(line["branches"]),
                len(untaken),
            )


def evaluate(lines: Iterator[Line], exclusions: list[Exclusion]) -> Coverage:
    """Add up the lines that no exclusion applies to."""
    coverage = Coverage(uses=dict.fromkeys(exclusions, 0))
    for line in lines:
        rows = [
            row
            for row in exclusions
            if line.file.startswith(MODULE + row.file)
            and row.text in line.text
            and (line.untaken and row.branches if line.ran else not row.branches)
        ]
        for row in rows:
            coverage.uses[row] += 1
        if rows and not line.ran:
            continue
        allowed = sum(row.branches for row in rows)
        branches = line.branches - min(allowed, line.untaken)
        taken = line.branches - line.untaken
        coverage.lines += 1
        coverage.lines_run += line.ran
        coverage.branches += branches
        coverage.branches_taken += taken
        if not line.ran or taken < branches:
            coverage.uncovered.append(line)
    return coverage

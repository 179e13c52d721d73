"""Measure line and branch coverage of the module; fail on anything uncovered.

The tests of the module and the one-shot fault-injection sweep run against the coverage build. The
exit status is 1 if one of them fails or a line or branch is uncovered and not in exclusions.py.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys

from rich.console import Console
from rich.table import Table

from checks.coverage.exclusions import EXCLUSIONS
from checks.coverage.gcov_report import Coverage, evaluate, read_lines
from tests.support.isolated import ROOT

BUILD = ROOT / "build" / "coverage"
REPORT = BUILD / "coverage.json"
HTML = BUILD / "html" / "index.html"
SOURCES = ("veldarin/modules/", "util/", "migbase/")
PROGRAMS = {
    "tests": (
        "pytest", "-n", "auto", "-q", "--no-header", "tests/module",
        "tests/tooling/test_fuzz_regressions.py",
        "--ignore=tests/module/test_shared_object.py",  # inspects the release build's file
    ),
    "fault injection": ("checks.fault_injection", "--one-shot", "--run-atexit"),
}  # fmt: skip

console = Console(highlight=False, soft_wrap=True)


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.coverage", description=__doc__)
    parser.add_argument(
        "--report",
        action="store_true",
        help="report the counts of earlier runs without running anything",
    )
    return parser.parse_args()


def run_programs() -> list[str]:
    """Reset the counts, run every program, and return a message for each that fails."""
    for counts in BUILD.rglob("*.gcda"):
        counts.unlink()
    environment = {**os.environ, "MODULES_UTIL_BUILD": str(BUILD)}
    return [
        f"{name} failed"
        for name, program in PROGRAMS.items()
        if subprocess.run([sys.executable, "-m", *program], cwd=ROOT, env=environment).returncode
    ]


def run_gcovr() -> None:
    """Write the JSON report and the HTML pages."""
    HTML.parent.mkdir(exist_ok=True)
    command = [sys.executable, "-m", "gcovr", "--root", ".", "--json", str(REPORT)]
    command += ["--html-details", str(HTML)]
    command += [word for folder in SOURCES for word in ("--filter", folder)]
    done = subprocess.run([*command, str(BUILD)], cwd=ROOT, stderr=subprocess.PIPE, text=True)
    if done.returncode:
        sys.exit(f"{done.stderr}coverage: gcovr could not read the counts in {BUILD}")


def print_report(coverage: Coverage) -> list[str]:
    """Print the exclusions and the findings; return the findings."""
    table = Table("exclusion", "uses", "reason", box=None)
    for row, uses in coverage.uses.items():
        table.add_row(f"{row.file}: {row.text}", str(uses), row.reason)
    console.print(table)
    findings = [str(line) for line in coverage.uncovered]
    findings += [f"unused exclusion: {row.file}: {row.text}" for row in coverage.unused]
    for text in findings:
        console.print(text, markup=False)
    return findings


def format_ratio(part: int, whole: int) -> str:
    """Format a ratio as two counts and a percentage."""
    return f"{part} of {whole} ({100 * part / whole if whole else 0:.1f} %)"


def main() -> int:
    """Run the command and return its exit status."""
    failed = [] if parse_arguments().report else run_programs()
    run_gcovr()
    coverage = evaluate(read_lines(REPORT, ROOT), EXCLUSIONS)
    findings = [*print_report(coverage), *failed]
    console.print(f"annotated sources: {HTML.relative_to(ROOT)}")
    console.print(
        f"coverage: lines {format_ratio(coverage.lines_run, coverage.lines)}, "
        f"branches {format_ratio(coverage.branches_taken, coverage.branches)}, "
        f"{sum(coverage.uses.values())} excluded for {len(EXCLUSIONS)} reasons: "
        f"{', '.join(failed) or f'{len(findings)} findings'}"
    )
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())

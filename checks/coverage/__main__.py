"""`python -m checks.coverage`: the tests and the sweep against the build that counts, then both
figures. Exit status 1 if a line or a branch is left that no reviewed reason leaves out."""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
from pathlib import Path

from rich.console import Console
from rich.table import Table

from checks.coverage.exclusions import EXCLUDED
from checks.coverage.gcov_report import Verdict, judge, lines

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build" / "coverage"
REPORT = BUILD / "coverage.json"
PAGES = BUILD / "html" / "index.html"
SOURCES = ("veldarin/modules/", "util/", "migbase/")
# Test files of other things than what the module does when it is called or imported.
ELSEWHERE = (
    "test_*answers.py", "test_appliance_*.py", "test_artifact.py", "test_console_*.py",
    "test_documentation.py", "test_faces.py", "test_faults.py", "test_instructions.py",
    "test_readme.py", "test_sanitize.py", "test_soak.py", "test_source_rules.py",
)  # fmt: skip

console = Console(highlight=False, soft_wrap=True)


def arguments() -> argparse.Namespace:
    """What the command line asks for."""
    parser = argparse.ArgumentParser(prog="python -m checks.coverage", description=__doc__)
    parser.add_argument(
        "--report", action="store_true", help="only what the last run and those after it counted"
    )
    return parser.parse_args()


def run_everything() -> list[str]:
    """Counts anew; what of it failed."""
    for counts in BUILD.rglob("*.gcda"):
        counts.unlink()
    files = [
        str(file.relative_to(ROOT))
        for file in sorted(ROOT.glob("tests/test_*.py"))
        if not any(file.match(pattern) for pattern in ELSEWHERE)
    ]
    programs = {
        "the tests": ("pytest", "-n", "auto", "-q", "--no-header", *files),
        "the sweep": ("checks.fault_injection", "--orderly", "--single"),
    }
    environment = {**os.environ, "MODULES_UTIL_BUILD": str(BUILD)}
    return [
        f"{what} failed"
        for what, program in programs.items()
        if subprocess.run([sys.executable, "-m", *program], cwd=ROOT, env=environment).returncode
    ]


def read_counts() -> None:
    """Lets gcovr make a report for this program, and pages for people."""
    PAGES.parent.mkdir(exist_ok=True)
    filters = [word for folder in SOURCES for word in ("--filter", folder)]
    command = [
        "gcovr",
        "--root",
        ".",
        *filters,
        "--json",
        str(REPORT),
        "--html-details",
        str(PAGES),
    ]
    done = subprocess.run(
        [sys.executable, "-m", *command, str(BUILD)], cwd=ROOT, stderr=subprocess.PIPE, text=True
    )
    if done.returncode:
        sys.exit(f"{done.stderr}coverage: the counts could not be read")


def show(verdict: Verdict) -> list[str]:
    """The rows of what is left out, and what is wrong."""
    table = Table("left out", "times", "because", box=None)
    for row, instances in verdict.left_out.items():
        table.add_row(f"{row.file}: {row.text}", str(instances), row.reason)
    console.print(table)
    wrong = [str(line) for line in verdict.missing]
    wrong += [f"leaves nothing out: {row.file}: {row.text}" for row in verdict.idle]
    for text in wrong:
        console.print(text, markup=False)
    return wrong


def main() -> int:
    """The exit status."""
    failed = [] if arguments().report else run_everything()
    read_counts()
    verdict = judge(lines(REPORT, ROOT), EXCLUDED)
    wrong = [*show(verdict), *failed]
    console.print(f"every line and branch: {PAGES.relative_to(Path.cwd())}")
    console.print(
        f"coverage: lines {_share(verdict.lines_run, verdict.lines)}, "
        f"branches {_share(verdict.branches_taken, verdict.branches)}, "
        f"{sum(verdict.left_out.values())} left out for {len(EXCLUDED)} reasons: "
        f"{', '.join(failed) or (f'{len(wrong)} MISSING' if wrong else 'nothing missing')}"
    )
    return 1 if wrong else 0


def _share(part: int, whole: int) -> str:
    return f"{part} of {whole} ({100 * part / whole if whole else 0:.1f} %)"


if __name__ == "__main__":
    sys.exit(main())

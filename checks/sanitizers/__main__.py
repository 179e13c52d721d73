"""Run the tests under the sanitizers, then those of the parsers under valgrind's memcheck.

Needs the builds asan and debug. Arguments are passed on to pytest. The exit status is 1 if a test
fails or a tool reports an error. Sanitizer reports go to files, which are counted: a report in a
child process counts even if the test expects that child to fail.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from tests.support.isolated import ROOT

REPORTS = ROOT / "build" / "asan" / "reports"
MEMCHECK_LOG = ROOT / "build" / "debug" / "memcheck.log"
MAX_LINES = 12  # printed of a report

# The tests of the parsers and the command runner, without the reference model's parameters.
PARSER_TESTS = [
    *(
        f"tests/module/test_{name}.py"
        for name in ("arp", "routing", "bfd_neighbor", "bfd_neighbor_list", "cli_runner")
    ),
    "tests/tooling/test_fuzz_regressions.py",
    *("-k", "not reference or agree"),
]


def run_pytest(
    name: str, label: str, command: list[str], options: list[str], **environment: str
) -> tuple[bool, str]:
    """Run pytest with its output in a log.

    Returns:
        Whether it succeeded, and its summary line.
    """
    done = subprocess.run(
        ["tools/step", name, label, *command, "-m", "pytest", *options, *sys.argv[1:]],
        cwd=ROOT,
        env={**os.environ, **environment},
    )
    log = (ROOT / "build" / "log" / f"{name}.log").read_text(errors="replace")
    summaries = re.findall(r"^=* ?(\d+ \w+.* in .*?) ?=*$", log, re.MULTILINE)
    return done.returncode == 0, summaries[-1] if summaries else "no tests ran"


def print_result(tool: str, tests: str, reports: list[str], details: list[str]) -> None:
    """Print one line, the start of the first report, and where the reports are."""
    print(f"{tool}: {tests}; {len(reports)} report{'s' * (len(reports) != 1)}")
    for line in [*details[:MAX_LINES], *(f"in {report}" for report in dict.fromkeys(reports))]:
        print(line, flush=True)


def run_sanitizers() -> bool:
    """Run every test in the asan build; return whether it is clean."""
    shutil.rmtree(REPORTS, ignore_errors=True)
    REPORTS.mkdir(parents=True)
    passed, tests = run_pytest(
        "asan",
        "running the tests under the sanitizers",
        ["tools/with-asan", sys.executable],
        ["-p", "no:cacheprovider", "-n", "auto"],
        MODULES_UTIL_BUILD="build/asan",
        ASAN_OPTIONS=f"log_path={REPORTS / 'report'}",
        UBSAN_OPTIONS=f"log_path={REPORTS / 'report'}",
    )
    files = sorted(REPORTS.iterdir())
    details = files[0].read_text(errors="replace").splitlines() if files else []
    names = [str(file.relative_to(ROOT)) for file in files]
    print_result("AddressSanitizer, UndefinedBehaviorSanitizer", tests, names, details)
    return passed and not files


def run_memcheck() -> bool:
    """Run the tests of the parsers in the debug build; return whether it is clean."""
    valgrind = [
        "valgrind",
        f"--log-file={MEMCHECK_LOG}",
        f"--suppressions={Path(__file__).with_name('interpreter.supp')}",
        "--error-exitcode=99",
        "--num-callers=20",
        # At exit the interpreter keeps much reachable memory, but loses none.
        "--leak-check=full",
        "--show-leak-kinds=definite",
        "--errors-for-leak-kinds=definite",
        sys.executable,
    ]
    passed, tests = run_pytest(
        "memcheck",
        "running the parsers' tests under memcheck",
        valgrind,
        ["-p", "no:cacheprovider", *PARSER_TESTS],
        MODULES_UTIL_BUILD="build/debug",
        PYTHONMALLOC="malloc",
    )
    return report_memcheck(tests, MEMCHECK_LOG) and passed


def report_memcheck(tests: str, log: Path) -> bool:
    """Print the result in memcheck's log; return whether the log is complete and clean."""
    lines = [re.sub(r"^==\d+== ?", "", line) for line in log.read_text().splitlines()]
    summary = re.search(r"ERROR SUMMARY: \d+ errors from (\d+) contexts", "\n".join(lines))
    contexts = int(summary[1]) if summary else 1  # without a summary, valgrind itself crashed
    report = r"^(Invalid|Conditional|Use of|Syscall|Source and|Mismatched|.* definitely lost)"
    first = next((i for i, line in enumerate(lines) if re.match(report, line)), len(lines))
    places = [str(log.relative_to(ROOT))] * contexts
    print_result("memcheck", tests, places, lines[first:] if contexts else [])
    return not contexts


if __name__ == "__main__":
    clean = [run_sanitizers(), run_memcheck()]
    sys.exit(0 if all(clean) else 1)

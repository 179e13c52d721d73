"""`python -m checks.sanitizers`: one line a verdict; exit status 1 with a report or a failed test.

The builds asan and debug have to be there; arguments are passed on to pytest. A sanitizer ends the
process that it reports, which may be a child that a test expects to fail: so reports are files, and
are counted.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from tests.support.isolated import ROOT

HERE = ROOT / "checks" / "sanitizers"
REPORTS = ROOT / "build" / "asan" / "reports"
MEMCHECK = ROOT / "build" / "debug" / "memcheck.log"
LOGS = ROOT / "build" / "log"
SHOWN = 12  # lines of a report

# All parsers and the command runner, on success and on error, with the fuzzer's corpus; the twin in
# plain Python has nothing to check.
PARSERS = [f"tests/test_{name}.py" for name in ("arp", "routing", "bfd_neighbor", "bfd_listing")]
PARSERS += [
    "tests/module/test_cli_runner.py",
    "tests/tooling/test_fuzz_regressions.py",
    "-k",
    "not reference or agree",
]


def run(name: str, label: str, command: list[str], **environment: str) -> tuple[bool, str]:
    """Runs pytest as one line of output: whether it went well, and its own last line."""
    pytest = [*command, "-m", "pytest", "-p", "no:cacheprovider"]
    options = PARSERS if name == "memcheck" else ["-n", "auto"]
    done = subprocess.run(
        ["tools/step", name, label, *pytest, *options, *sys.argv[1:]],
        cwd=ROOT,
        env={**os.environ, **environment},
    )
    log = (LOGS / f"{name}.log").read_text(errors="replace")
    last = re.findall(r"^=* ?(\d+ \w+.* in .*?) ?=*$", log, re.MULTILINE)
    return done.returncode == 0, last[-1] if last else "no tests were run"


def verdict(what: str, tests: str, reports: list[str], details: list[str]) -> None:
    """The line; with reports also where they are, and the beginning of the first."""
    print(f"{what}: {tests}; {len(reports)} report{'s' * (len(reports) != 1)}")
    for line in [*details[:SHOWN], *(f"in {report}" for report in dict.fromkeys(reports))]:
        print(line, flush=True)


def sanitizers() -> bool:
    """The whole suite in the asan build."""
    shutil.rmtree(REPORTS, ignore_errors=True)
    REPORTS.mkdir(parents=True)
    well, tests = run(
        "asan",
        "every test under the sanitizers",
        ["tools/with-asan", sys.executable],
        MODULES_UTIL_BUILD="build/asan",
        ASAN_OPTIONS=f"log_path={REPORTS / 'report'}",
        UBSAN_OPTIONS=f"log_path={REPORTS / 'report'}",
    )
    files = sorted(REPORTS.iterdir())
    details = files[0].read_text(errors="replace").splitlines() if files else []
    names = [str(file.relative_to(ROOT)) for file in files]
    verdict("AddressSanitizer, UndefinedBehaviorSanitizer", tests, names, details)
    return well and not files


def memcheck() -> bool:
    """The parsers' tests in the debug build."""
    valgrind = [
        "valgrind",
        f"--log-file={MEMCHECK}",
        f"--suppressions={HERE / 'interpreter.supp'}",
        "--error-exitcode=99",
        "--num-callers=20",
        # The interpreter keeps much at exit, but nothing that nobody points at.
        "--leak-check=full",
        "--show-leak-kinds=definite",
        "--errors-for-leak-kinds=definite",
        sys.executable,
    ]
    well, tests = run(
        "memcheck",
        "the parsers' tests under memcheck",
        valgrind,
        MODULES_UTIL_BUILD="build/debug",
        PYTHONMALLOC="malloc",
    )
    return reported(tests, MEMCHECK) and well


def reported(tests: str, log: Path) -> bool:
    """Tells memcheck's verdict; whether it is a good one."""
    lines = [re.sub(r"^==\d+== ?", "", line) for line in log.read_text().splitlines()]
    count = re.search(r"ERROR SUMMARY: \d+ errors from (\d+) contexts", "\n".join(lines))
    contexts = int(count[1]) if count else 1  # valgrind itself did not come to its end
    begins = r"^(Invalid|Conditional|Use of|Syscall|Source and|Mismatched|.* definitely lost)"
    first = next((i for i, line in enumerate(lines) if re.match(begins, line)), len(lines))
    places = [str(log.relative_to(ROOT))] * contexts
    verdict("memcheck", tests, places, lines[first:] if contexts else [])
    return not contexts


if __name__ == "__main__":
    verdicts = [sanitizers(), memcheck()]
    sys.exit(0 if all(verdicts) else 1)

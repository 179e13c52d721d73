"""Checks the spelling of all files and finds words that this project replaced. Part of `make lint`.

    tools/check_words.py [PATH ...]      all files of the project unless named

Runs codespell, then looks for the words below. They match whole and in any case; "_" ends a word,
so that parts of names match too.
"""

from __future__ import annotations

import re
import subprocess
import sys
import tempfile
from fnmatch import fnmatch
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]

# Word, as a regular expression: what to write instead. A blank matches "_" and "-" too.
WORDS = {
    # Parts of this project.
    "stand in": "the simulator",
    "host library": "libsimulator.so",
    "tours?": "demo",
    "products?": "the module",
    "faces?": "type stub, command-line interface, bindings",
    "twins?": "reference model",
    "contenders?|compiled peers?": "competitor",
    "floor": "lower bound",
    "meter": "callgrind, repeat",
    "work(shop|bench)": "base, sandbox, workstation",
    "shelf": "store",
    "journal": "call log",
    "canned|uncan": "fixed reply",
    "misfits?": "oversized reply",
    "hand(s|ed|ing)? out": "track, allocate",
    "throwaway": "self-signed",
    "passed over": "skipped",
    "come_to": "transition_to, reach",
    "why_not": "skip_reason",
    "taken_apart": "with_types",
    "most_(parameters|lines|bytes)": "max_...",
    # Checks.
    "lasting": "persistent",
    "deaths?": "crash",
    "orderly": "run atexit",
    "shelter(s|ed)?": "exempt",
    "on trial": "under test",
    "spoil(s|t|ed|ing)?": "break, broken",
    # Prose.
    "anew": "again, a new ...",
    "nought": "zero, nothing",
    "(no|some)body|whoever": "the actor's name",
    "told|tells": "report, say, print",
    "asked": "called, queried, requested",
    "gone": "removed, deleted, closed",
    "at once": "immediately, simultaneously",
    "as ever|for ever": "always, forever",
    "(is|are|was|were) no(?! (longer|more|less|fewer)\\b)": "is not a",
    "sees to": "ensures",
}

# File patterns that are not checked: reason.
EXCEPTIONS = {
    "tools/check_words.py": "the list itself",
    "requirements/*": "names of packages",
    "checks/fuzz/corpus/*": "inputs",
    "checks/fuzz/crashes/*": "inputs",
    "veldarin_simulator/scenarios/*.json": "recorded replies",
    "veldarin_simulator/scenarios/*.txt": "recorded replies",
    "tests/data/*": "recorded output",
}

ALTERNATIVES = "|".join(f"(?P<w{number}>{word})" for number, word in enumerate(WORDS))
PATTERN = re.compile(f"(?<![a-z])(?:{ALTERNATIVES})(?![a-z])".replace(" ", "[ _-]"), re.IGNORECASE)


def project_files(*patterns: str) -> list[str]:
    """Returns the files that are in the repository or about to be, and match one of the patterns.

    An unpacked archive is not a repository: every file counts that git would not ignore.
    """
    listing = ["ls-files", "-z", "--cached", "--others", "--exclude-standard", "--", *patterns]
    with tempfile.TemporaryDirectory() as empty:
        where = []
        if not (ROOT / ".git").exists():
            subprocess.run(["git", "init", "--quiet", "--bare", empty], check=True)
            where = ["--git-dir", empty, "--work-tree", str(ROOT)]
        command = ["git", *where, *listing]
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True)
    return [name for name in done.stdout.split("\0") if name and (ROOT / name).is_file()]


def findings(file: str) -> list[str]:
    """Returns every word of the list in a file, as "file:line: word -> instead"."""
    instead = list(WORDS.values())
    lines = Path(file).read_text(encoding="utf-8", errors="replace").splitlines()
    return [
        f"{file}:{number}: {match[0]} -> {instead[int(str(match.lastgroup)[1:])]}"
        for number, line in enumerate(lines, 1)
        for match in PATTERN.finditer(line)
    ]


def main(names: list[str]) -> int:
    """Prints the findings and returns the exit status."""
    files = [
        file
        for file in names or project_files()
        if not any(fnmatch(file, pattern) for pattern in EXCEPTIONS)
    ]
    codespell = Path(sys.executable).with_name("codespell")
    misspelled = subprocess.run([codespell, *files], check=False).returncode != 0
    found = [line for file in files for line in findings(file)]
    print("\n".join(found), end="\n" if found else "")
    return misspelled or bool(found)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

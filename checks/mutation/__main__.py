"""Change the module's C++ sources in one place at a time, and check that a test fails each time.

A mutant that a test kills is a defect that the tests would find. The exit status is 1 if fewer than
98 % of the mutants that behave differently are killed, or if equivalent.txt is wrong.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import random
import shutil
import subprocess
import sys
import threading
import time
from collections import Counter, defaultdict
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from itertools import zip_longest
from pathlib import Path
from typing import Any, NamedTuple

from checks.mutation.builder import MODULE, Builder
from checks.mutation.mutants import WORD, Mutant, generate
from tests.support.isolated import ROOT

BUILD = ROOT / "build"
EQUIVALENT = Path(__file__).with_name("equivalent.txt")
REQUIRED = 98  # percent
NEAREST = 12  # tests that killed mutants nearby, which run first
MAX_TESTS = 25  # that reach calls nearby, which run next
MIN_RELATED = 20  # tests that reach a source, for others to be left out
MAX_CASES = 5  # of fault injection, which run before all other tests
# Fault injection skips what these cases have in common with other cases of the import.
WHOLE_IMPORTS = {"import: execution: after a failure", "import: creation: from a whole spec"}
COLUMNS = ("made", "invalid", "same code", "equivalent", "killed", "survived")


class Result(NamedTuple):
    """The outcome of a mutant, one of COLUMNS, and what killed it."""

    outcome: str
    killer: str = ""
    evidence: str = ""  # digest of what the outcome depends on


class Server:
    """A process of checks.mutation.servers that tests the module of a builder's folder."""

    def __init__(self, kind: str, folder: Path) -> None:
        environment = {**os.environ, "MODULES_UTIL_BUILD": str(folder)}
        self._process = subprocess.Popen(
            [sys.executable, "-m", "checks.mutation.servers", kind],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            env=environment,
            cwd=ROOT,
        )

    def request(self, **request: object) -> Any:
        """Send a request and return the reply."""
        assert self._process.stdin is not None
        assert self._process.stdout is not None
        self._process.stdin.write(json.dumps(request) + "\n")
        self._process.stdin.flush()
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(f"a server ended with exit status {self._process.wait()}")
        return json.loads(line)

    def close(self) -> None:
        """End the process."""
        self._process.communicate()


def digest_of(*folders: str) -> bytes:
    """A digest of the files in some folders."""
    digest = hashlib.sha256()
    for folder in folders:
        for file in sorted(ROOT.joinpath(folder).rglob("*.*")):
            if file.is_file() and file.suffix != ".pyc":
                digest.update(file.read_bytes())
    return digest.digest()


class Reached:
    """The lines of the fallible calls that each test and each case of fault injection reaches.

    What an earlier run stored stands until the module changes; new tests are not in it.
    """

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._locks = {kind: threading.Lock() for kind in ("tests", "faults")}

    def read(self, kind: str) -> dict[str, list[str]]:
        """Read what is stored of a kind of server, or run all that it has without a mutant."""
        with self._locks[kind]:
            store = self._folder / f"reached-{kind}.json"
            digest = digest_of("checks/fault_injection", "tests/support", "veldarin/modules").hex()
            if store.exists():
                stored, reached = json.loads(store.read_text())
                if stored == digest:
                    return dict(reached)
            server = Server(kind, BUILD / "fault-injection")
            reply = server.request()
            server.close()
            if isinstance(reply, str):
                raise RuntimeError(f"a test fails without a mutant: {reply}")
            store.write_text(json.dumps([digest, dict(reply)]))
            return dict(reply)

    def read_all(self) -> list[dict[str, list[str]]]:
        """Read both kinds at the same time."""
        with ThreadPoolExecutor() as pool:
            return [*pool.map(self.read, self._locks)]


class Worker:
    """Builds and tests mutants, one after the other."""

    def __init__(self, folder: Path, tests: dict[str, list[str]], reached: Reached) -> None:
        self._builder = Builder(BUILD / "release", folder / "release")
        self._tests = Server("tests", folder / "release")
        self._folder = folder
        self._reached = reached
        self._faulty: tuple[Builder, Server, dict[str, list[str]]] | None = None
        self._files = {
            name: {place.partition(":")[0] for place in places} for name, places in tests.items()
        }
        # Those that reach few other lines first.
        self._near_tests = _by_place(sorted(tests.items(), key=lambda row: len(row[1])))

    def test_original(self, names: list[str]) -> str | None:
        """Run some tests against the module as it is, in this order; return the one that fails."""
        self._builder.link({})
        return self._run([], names, only=names)

    def _run(self, words: list[str], first: list[str], **which: list[str]) -> str | None:
        reply: str | None = self._tests.request(first=first, words=words, **which)
        return reply

    def build(self, mutant: Mutant, source: str) -> str | None:
        """Build a mutant as `Builder.make` does."""
        return self._builder.make(mutant, source)

    def test(self, mutant: Mutant, source: str, first: list[str]) -> str | None:
        """Run tests on the mutant that was built, and fault injection; return what failed."""
        near = [name for pair in zip_longest(*_nearest(mutant, self._near_tests)) for name in pair]
        functions = {name.partition("[")[0]: name for name in reversed(near) if name}  # one of each
        first = [*first, *[*functions.values()][: -MAX_TESTS - 1 : -1]]
        path = f"veldarin/modules/{mutant.file}"
        words = _words(mutant, source)
        others: list[str] = []
        # Only one test in a process reaches what the import does.
        if sum(path in files for files in self._files.values()) >= MIN_RELATED:
            # A test that reaches no call runs the module in another process.
            others = [name for name, files in self._files.items() if files and path not in files]
        # A sample learns what the cases reach only for a mutant that no test kills.
        return (
            self._run(words, first, only=first)
            or (self._inject_faults(mutant, source) if self._files else None)
            or self._run(words, [], skip=[*others, *first])
            or (self._run(words, [], only=others) if others else None)
            or (None if self._files else self._inject_faults(mutant, source))
        )

    def _inject_faults(self, mutant: Mutant, source: str) -> str | None:
        if self._faulty is None:
            reached = sorted(self._reached.read("faults").items(), key=_case_length)
            builder = Builder(BUILD / "fault-injection", self._folder / "faults")
            self._faulty = builder, Server("faults", builder.folder), _by_place(reached)
        builder, server, near_cases = self._faulty
        cases = dict.fromkeys(
            case for near in _nearest(mutant, near_cases) for case in _choose_cases(near)
        )
        if not cases or not builder.make(mutant, source):
            return None
        reply: str | None = server.request(cases=[*cases])
        return reply

    def close(self) -> None:
        """End the servers."""
        for server in (self._tests, *(self._faulty or ())[1:2]):
            server.close()


def _words(mutant: Mutant, source: str) -> list[str]:
    """The words of the file's name, of the mutant's line and of the namespace around it."""
    lines = source.splitlines()[: mutant.line]
    scopes = [line for line in lines if line.startswith("namespace ")]
    return [*Path(mutant.file).stem.split("_"), *WORD.findall(" ".join([*scopes[-1:], lines[-1]]))]


def _by_place(reached: Iterable[tuple[str, list[str]]]) -> dict[str, list[str]]:
    """The names by the lines that they reach."""
    names: dict[str, list[str]] = defaultdict(list)
    for name, places in reached:
        for place in places:
            names[place].append(name)
    return names


def _case_length(row: tuple[str, list[str]]) -> tuple[bool, int]:
    name, places = row
    return name.startswith("import") and name not in WHOLE_IMPORTS, len(places)


def _choose_cases(near: list[str]) -> list[str]:
    """Choose from the cases of fault injection that reach a line."""
    if near[0] in WHOLE_IMPORTS:
        # These take seconds, and run all lines that most other imports run.
        return [case for case in near if case in WHOLE_IMPORTS]
    # Short and long ones: a failing allocation shows only where the call goes on.
    return [near[-1], *near[:: -(-len(near) // MAX_CASES)]]


def _nearest(mutant: Mutant, by_place: dict[str, list[str]]) -> list[list[str]]:
    """The names for each of the two lines with calls that are next to the mutant's line."""
    prefix = f"veldarin/modules/{mutant.file}:"
    lines = [int(place[len(prefix) :]) for place in by_place if place.startswith(prefix)]
    lines.sort(key=lambda line: (abs(line - mutant.line), line))
    return [by_place[f"{prefix}{line}"] for line in lines[:2]]


class Run:
    """The mutants of a run and their results, which a file keeps for the next run."""

    def __init__(self, mutants: list[Mutant], sources: dict[str, str], store: Path) -> None:
        self.mutants, self.sources = mutants, sources
        self._all_tests = digest_of("checks/fault_injection", "tests")
        self.results: dict[str, Result] = {}
        self._store = store
        self._lock = threading.Lock()
        self._by_code: dict[str, Result] = {}
        self._killers: dict[str, list[tuple[int, str]]] = defaultdict(list)
        old: dict[str, Result] = {}
        if store.exists():
            for line in store.read_text().splitlines():
                name, *result = json.loads(line)
                old[name] = Result(*result)
        for mutant in mutants:
            result = old.get(mutant.name)
            if result is None:
                continue
            self._learn(mutant, result)
            if result.evidence == self._evidence(mutant, result):
                self.results[mutant.name] = result
        # The last ones are tested first. All tests run on a survivor, so new mutants precede it.
        self._waiting = [each for each in reversed(mutants) if each.name not in self.results]
        self._waiting.sort(key=lambda each: each.name not in old or old[each.name].killer != "")
        self._shown = 0.0
        self.failure: BaseException | None = None

    def _learn(self, mutant: Mutant, result: Result) -> None:
        if "::" in result.killer:
            self._killers[mutant.file].append((mutant.line, result.killer.split(": ")[-1]))

    def _evidence(self, mutant: Mutant, result: Result) -> str:
        """A digest of the mutant's text and of what decided: one test's file, or all tests."""
        digest = hashlib.sha256(mutant.apply(self.sources[mutant.file]).encode())
        test = ROOT / result.killer.split(": ")[-1].partition("::")[0]
        if result.outcome == "survived":
            digest.update(self._all_tests)
        elif test.is_file():
            digest.update(test.read_bytes())
        return digest.hexdigest()

    def work(self, worker: Worker) -> None:
        """Test waiting mutants until none is left."""
        while self.failure is None:
            with self._lock:
                if not self._waiting:
                    return
                mutant = self._waiting.pop()
                near = sorted(
                    (abs(line - mutant.line), name) for line, name in self._killers[mutant.file]
                )
                first = [*dict.fromkeys(name for _distance, name in near)][:NEAREST]
            try:
                result = self._test(worker, mutant, first)
            except BaseException as error:
                self.failure = error
                raise
            with self._lock:
                result = result._replace(evidence=self._evidence(mutant, result))
                self.results[mutant.name] = result
                self._learn(mutant, result)
                with self._store.open("a") as file:
                    file.write(json.dumps([mutant.name, *result]) + "\n")
                self._show_progress()

    def _test(self, worker: Worker, mutant: Mutant, first: list[str]) -> Result:
        source = self.sources[mutant.file]
        code = worker.build(mutant, source)
        if not code:
            return Result("invalid" if code is None else "same code")
        if code not in self._by_code:
            killer = worker.test(mutant, source, first)
            self._by_code[code] = Result("killed", killer) if killer else Result("survived")
        return self._by_code[code]

    def _show_progress(self) -> None:
        now = time.monotonic()
        if now - self._shown > (1 if sys.stderr.isatty() else 60):
            self._shown = now
            survived = sum(each.outcome == "survived" for each in self.results.values())
            text = f"{len(self.results):,} of {len(self.mutants):,} mutants, {survived} survived"
            print(text, end="\r" if sys.stderr.isatty() else "\n", file=sys.stderr, flush=True)

    def killers(self) -> list[str]:
        """The tests that killed a mutant."""
        return [*dict.fromkeys(name for rows in self._killers.values() for _line, name in rows)]


def read_sources() -> dict[str, str]:
    """Read the C++ sources of the module, by their names in its folder."""
    files = sorted(file for pattern in ("*.cpp", "*.h", "*.def") for file in MODULE.rglob(pattern))
    return {str(file.relative_to(MODULE)): file.read_text() for file in files}


def read_equivalent(path: Path) -> dict[str, str]:
    """Read the names of equivalent mutants, each with the reason above it."""
    reasons: dict[str, str] = {}
    reason = ""
    for line in path.read_text().splitlines():
        if line.startswith("= "):
            reason = line[2:]
        elif line and not line.startswith("#"):
            reasons[line] = reason
    return reasons


def check_equivalent(
    equivalent: dict[str, str], mutants: list[Mutant], results: dict[str, Result]
) -> list[str]:
    """Return a message for each wrong entry."""
    names = {mutant.name for mutant in mutants}
    errors = []
    for name, reason in equivalent.items():
        result = results.get(name)
        if not reason:
            errors.append(f"no reason for an equivalent mutant: {name}")
        if name not in names:
            errors.append(f"no such mutant: {name}")
        elif result and result.outcome != "survived":
            errors.append(f"not equivalent, but {result.outcome} {result.killer}: {name}")
    return errors


def report(mutants: list[Mutant], results: dict[str, Result], equivalent: dict[str, str]) -> bool:
    """Print the table by file and the survivors; tell whether enough mutants were killed."""
    counts: dict[str, Counter[str]] = defaultdict(Counter)
    survivors = []
    for mutant in mutants:
        result = results[mutant.name]
        outcome = result.outcome
        if outcome == "survived":
            outcome = "equivalent" if mutant.name in equivalent else outcome
        if outcome == "survived":
            survivors.append(mutant)
        for row in (counts[mutant.file], counts["total"]):
            row.update((outcome, "made"))
    counts["total"] = counts.pop("total")  # last
    width = max(map(len, counts))
    print(f"{'file':<{width}}" + "".join(f"{column:>12}" for column in COLUMNS) + f"{'%':>8}")
    for file, row in counts.items():
        share = percentage(row)
        print(f"{file:<{width}}" + "".join(f"{row[column]:>12,}" for column in COLUMNS), end="")
        print(f"{share:>8.1f}")
    for mutant in survivors:
        old, _, new = mutant.name.partition(": ")[2].partition(" ==> ")
        print(f"{mutant.file}:{mutant.line}: - {old} / + {new}")
    return percentage(counts["total"]) >= REQUIRED


def percentage(row: Counter[str]) -> float:
    """The killed mutants of those that behave differently."""
    different = row["killed"] + row["survived"]
    return 100 * row["killed"] / different if different else 100.0


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.mutation", description=__doc__)
    parser.add_argument("--only", metavar="TEXT", help="test the mutants whose name contains TEXT")
    parser.add_argument(
        "--sample", type=int, metavar="COUNT", help="test that many, chosen at random"
    )
    parser.add_argument("--seed", type=int, default=0, help="of the choice")
    parser.add_argument("--fresh", action="store_true", help="discard the results of earlier runs")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), metavar="N")
    return parser.parse_args()


def main() -> int:
    """Run the command and return its exit status."""
    options = parse_arguments()
    started = time.monotonic()
    sources = read_sources()
    every = [mutant for file, source in sources.items() for mutant in generate(file, source)]
    chosen = [mutant for mutant in every if (options.only or "") in mutant.name]
    equivalent = read_equivalent(EQUIVALENT)
    if options.sample is not None:
        chosen = [mutant for mutant in chosen if mutant.name not in equivalent]
        places = random.Random(options.seed).sample(range(len(chosen)), options.sample)
        chosen = [chosen[place] for place in sorted(places)]
    folder = BUILD / "mutation"
    folder.mkdir(exist_ok=True)
    store = folder / "results.jsonl"
    if options.fresh:
        store.unlink(missing_ok=True)
    run = Run(chosen, sources, store)
    reached = Reached(folder)
    try:
        # A sample ends before it is known what each test reaches.
        tests = {} if options.sample else reached.read_all()[0]
    except RuntimeError as error:
        print(f"mutation: {error}")
        return 1
    workers = [Worker(folder / str(number), tests, reached) for number in range(options.jobs)]
    try:
        threads = [threading.Thread(target=run.work, args=(worker,)) for worker in workers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if run.failure is not None:
            print(f"mutation: {run.failure}")
            return 1
        if failed := workers[0].test_original(run.killers()[::-1]):
            print(f"mutation: a test that killed mutants fails without one: {failed}")
            return 1
    finally:
        for worker in workers:
            worker.close()
            shutil.rmtree(worker._folder, ignore_errors=True)
    print(f"{len(chosen):,} mutants in {time.monotonic() - started:.0f} s\n")
    errors = check_equivalent(equivalent, every, run.results)
    print(*errors, sep="\n", end="\n\n" if errors else "")
    enough = report(chosen, run.results, equivalent)
    return 0 if enough and not errors else 1


if __name__ == "__main__":
    sys.exit(main())

"""Compare every short text with Python: the text layer with `str`, the parsers with the model.

The text layer gets every text over an alphabet, every alignment and every code point. The parsers
get every sequence of tokens that matter to them, alone and after a header, and every code point at
each place that they strip or split. A mismatch is one line that shows the text.
"""

from __future__ import annotations

import argparse
import os
import sys
import time
from collections.abc import Iterator, Sequence
from concurrent.futures import ProcessPoolExecutor, as_completed
from typing import Any, Callable, NamedTuple

from tests.support import reference
from veldarin_simulator import Simulator, native_library

# Blanks, line ends, separators, the first letter of a pattern, NUL, white space of two and of three
# bytes, a lone surrogate.
ALPHABET = " \t\n\r:,p\0\xa0\u2028\ud800"
# What fills a text, and the character at each place of it.
ALIGNMENTS = tuple((fill, other) for fill in "p \x80" for other in "p \t\n:\xa0\u2028")


class CodePoints(Sequence[str]):
    """A text with every code point in place of each "?"."""

    def __init__(self, text: str) -> None:
        self._text = text

    def __len__(self) -> int:
        return sys.maxunicode + 1

    def __getitem__(self, number: Any) -> Any:
        return self._text.replace("?", chr(number))


class Tokens(NamedTuple):
    """A parser's tokens, and the texts that sequences of them follow."""

    family: str
    function: str
    arguments: tuple[str, ...]
    prefixes: tuple[str, ...]
    tokens: Sequence[str]


_WHITE_SPACE = ("\n", " ", "\t", "\r", "\xa0")
_ARP = ("get_system_arp_result", ())
_ROUTING = ("get_routing_table_result", ("10.0.0.1",))
_BFD = ("get_bfd_neighbor", ("command",))
_ROUTE = 'Routing entry for 10.0.0.0/8\n  Known via "static", distance 1, metric 2, best\n'
_PEER = "objname\n\npeer 10.0.0.1 interface port1\n"
_BFD_TOKENS = ("peer ", "objname", "Local timers", "Remote timers", "Key", "packets")
PARSERS = (
    Tokens(
        "ARP",
        *_ARP,
        ("", "Address\n", "Address\n10.0.0.1 0 02:00:00:00:00:01 port1 "),
        ("Address", "Addr", "10.0.0.1 ", "0 ", "port1", "\xe9", "\0", *_WHITE_SPACE),
    ),
    Tokens(
        "routing",
        *_ROUTING,
        ("", _ROUTE, f"{_ROUTE}  Last update 00:00:01 ago\n"),
        ("Routing", "Rout", "* ", "via port1", "1", ",", "\U0001f600", *_WHITE_SPACE),
    ),
    Tokens("BFD", *_BFD, ("", _PEER), (*_BFD_TOKENS, *":\ud800\n \t\u3000")),
    # U+03A3 and U+0130: lower case that depends on the neighbors, and that is longer.
    Tokens(
        "BFD keys and values",
        *_BFD,
        (_PEER, f"{_PEER}k:"),
        ("packets", *"Aa: \t\n\r\xa0\u03a3\u0130\ud800"),
    ),
    Tokens(
        "BFD list",
        "list_bfd_neighbor",
        (),
        (_PEER,),
        ("zebra notifications", "peer 2", " interface", *_BFD_TOKENS[1:5], *": \n\t\xa0"),
    ),
)
CODE_POINTS = (
    Tokens("ARP, code points", *_ARP, ("",), CodePoints("?Address?\n?1?2?3 4? 5?\n?")),
    Tokens(
        "routing, code points",
        *_ROUTING,
        ("",),
        CodePoints(
            "?Routing?entry for 1?\nKnown?via, distance?1?, metric 2, best?\nLast update?2?ago\n"
            "?*?10.0.0.1?, via?port1?, ?\n?"
        ),
    ),
    Tokens(
        "BFD, code points",
        *_BFD,
        ("",),
        CodePoints(
            "?objname?\n\n?peer 1 interface port1?\n?K?K ?:?v?packets?\n"
            "?Local timers?\n?A?:?1?\n?B:2?\n?C?:3\n"
        ),
    ),
)


class Job(NamedTuple):
    """Numbers `first` to `last` of one family of cases."""

    family: str
    length: int
    first: int
    last: int


class _Log(list[str]):
    def debug(self, message: str) -> None:
        """Store a message."""
        self.append(message)


# ------------------------------------------------------------------ one job, in a worker process


def _texts() -> Any:
    """Return the extension module with the comparisons of the text layer."""
    folder = str(native_library.build_directory() / "checks")
    if folder not in sys.path:
        sys.path.insert(0, folder)
    import exhaustive_texts  # type: ignore[import-not-found]

    return exhaustive_texts


def _check_sequences(parser: Tokens, job: Job, module: Any) -> int:
    log = _Log()
    text = ""
    both: tuple[Any, Any] = (module, reference)
    saved = [(each, each._logger, each.get_cli_command_output) for each in both]
    base = len(parser.tokens)

    def outcome(function: Callable[..., object], shared: dict[str, object]) -> str:
        log.clear()
        shared.clear()
        try:
            result = repr(function(*parser.arguments))
        except Exception as error:
            result = repr(error)
        return f"{result} logged {log}, left {shared}"

    try:
        for each in both:
            each._logger = log
            each.get_cli_command_output = lambda _command: text
        # The default of get_bfd_neighbor's second parameter, which a text without sessions returns.
        calls = [(getattr(each, parser.function), each.get_bfd_neighbor("")) for each in both]
        for number in range(job.first, job.last):
            rest, tokens = number, []
            for _ in range(job.length):
                rest, digit = divmod(rest, base)
                tokens.append(parser.tokens[digit])
            for prefix in parser.prefixes:
                text = prefix + "".join(tokens)
                actual, expected = (outcome(*each) for each in calls)
                if actual != expected:
                    raise AssertionError(
                        f"{parser.function} of {text!r}: {actual}, expected {expected}"
                    )
    finally:
        for each, logger, run in saved:
            each._logger, each.get_cli_command_output = logger, run
    return (job.last - job.first) * len(parser.prefixes)


def check(job: Job, module: Any) -> int:
    """Check the cases of a job and return how many there were.

    Raises:
        AssertionError: The module and Python differ.
    """
    if job.family == "texts":
        return int(_texts().check_texts(ALPHABET, job.length, job.first, job.last))
    if job.family == "code points":
        every = "".join(map(chr, range(job.first, job.last)))
        return int(_texts().check_texts(every, 1, 0, len(every)))
    if job.family == "alignments":
        pairs = ALIGNMENTS[job.first : job.last]
        return sum(_texts().check_alignments(fill, other) for fill, other in pairs)
    (parser,) = (each for each in (*PARSERS, *CODE_POINTS) if each.family == job.family)
    return _check_sequences(parser, job, module)


_simulator: Simulator | None = None


def _check_in_worker(job: Job) -> int:
    global _simulator
    if _simulator is None:
        _simulator = Simulator(live=False)
    return check(job, _simulator.module)


# ------------------------------------------------------------------ all jobs


def jobs(
    length: int, tokens: int, code_points: int = sys.maxunicode + 1, chunk: int = 200_000
) -> Iterator[Job]:
    """Return the jobs of all texts and all sequences up to these lengths, and of code points."""

    def split(family: str, length: int, cases: int, size: int) -> Iterator[Job]:
        for first in range(0, cases, size):
            yield Job(family, length, first, min(first + size, cases))

    yield from split("alignments", 0, len(ALIGNMENTS), 1)
    yield from split("code points", 1, code_points, chunk)
    for parser in CODE_POINTS:
        yield from split(parser.family, 1, code_points, chunk // 20)
    for parser in PARSERS:
        for each in range(tokens + 1):
            yield from split(parser.family, each, len(parser.tokens) ** each, chunk // 20)
    for each in range(length + 1):
        yield from split("texts", each, len(ALPHABET) ** each, chunk)


def main() -> int:
    """Run all jobs in one process for each processor, and return the exit status."""
    parser = argparse.ArgumentParser(prog="python -m checks.exhaustive", description=__doc__)
    parser.add_argument("--length", type=int, default=8, help="characters of a text")
    parser.add_argument("--tokens", type=int, default=6, help="tokens of a sequence")
    options = parser.parse_args()
    started = time.monotonic()
    checked: dict[str, int] = {}
    all_jobs = list(jobs(options.length, options.tokens))
    with ProcessPoolExecutor(os.cpu_count()) as pool:
        running = {pool.submit(_check_in_worker, job): job for job in all_jobs}
        for done, future in enumerate(as_completed(running), 1):
            job = running[future]
            try:
                checked[job.family] = checked.get(job.family, 0) + future.result()
            except AssertionError as error:
                pool.shutdown(wait=False, cancel_futures=True)
                print(f"\n{job.family}: {error}", file=sys.stderr)
                return 1
            if sys.stderr.isatty():
                share = 100 * done / len(all_jobs)
                print(f"\r{share:3.0f} %, {sum(checked.values()):,} cases", end="", file=sys.stderr)
    for family, cases in checked.items():
        print(f"{family:<26}{cases:>14,} cases, no difference")
    print(f"{sum(checked.values()):,} cases in {time.monotonic() - started:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())

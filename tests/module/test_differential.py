"""Differential tests of the module's parsers against the reference model, on plausible and hostile
text.

Results are equal if values, types and the order of keys are equal, or exceptions of the same type
and text come from the same statement; and if log lines, commands and dictionaries are equal.
`HYPOTHESIS_EXAMPLES` sets the number of texts for each test; with `CI` set they do not change.
"""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterable, Iterator
from copy import deepcopy
from itertools import cycle
from types import ModuleType
from typing import Any

import pytest
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from benchmarks.hostile import RUNNER, SIZES, TEXTS, HostileText
from tests.support import reference
from tests.support.assertions import assert_same, line, raises_exactly, with_types
from tests.support.doubles import Recorder, StrSubclass
from tests.support.fake_cli import FakeCli
from veldarin_simulator import Simulator

pytestmark = pytest.mark.slow

settings.register_profile(
    "differential",
    max_examples=int(os.environ.get("HYPOTHESIS_EXAMPLES", "250")),
    derandomize="CI" in os.environ,
    database=None,
    deadline=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow],
)
compared = settings.get_profile("differential")


# The two parsers side by side

CALLS: dict[str, tuple[object, ...]] = {
    "get_system_arp_result": (),
    "get_routing_table_result": ("a",),
    "get_bfd_neighbor": ("command", {}),
}
# Lines after which every line is a row, a next hop or a field.
HEADS = {
    "get_system_arp_result": "Address\n",
    "get_routing_table_result": "Routing a b c\na,b c,d e,f\na b c\n",
    "get_bfd_neighbor": "echo\npeer a b c\n",
}


def in_turn(replies: Iterable[object]) -> Callable[..., object]:
    """A function that returns or raises one reply after the other, again and again."""
    following = cycle(replies)

    def reply(*args: object) -> object:
        value = next(following)
        if isinstance(value, BaseException):
            raise value
        return value

    return reply


def called(function: Callable[..., object], *arguments: object) -> object:
    """The result or the exception of a call."""
    try:
        return function(*arguments)
    except Exception as error:
        return error


class Pair:
    """Fake command lines of the module and of the reference model with the same output."""

    def __init__(self, native: FakeCli, reference: FakeCli) -> None:
        self.native = native
        self.reference = reference

    def print(self, *outputs: object) -> None:
        """Set the outputs of successive commands; they repeat."""
        for cli in (self.native, self.reference):
            cli.run.calls.clear()
            cli.logger.debug.calls.clear()
            cli.shared.clear()
            cli.run.side_effect = in_turn(outputs)

    def check(self, function: str, *arguments: object) -> Any:
        """Call both functions with copies of the arguments and compare everything.

        Returns the module's value or exception.
        """
        our_arguments, their_arguments = deepcopy(arguments), deepcopy(arguments)
        ours = called(getattr(self.native.parser, function), *our_arguments)
        theirs = called(getattr(self.reference.parser, function), *their_arguments)
        assert_same(our_arguments, their_arguments, "the arguments")
        assert_same(self.native.debug_messages, self.reference.debug_messages, "the log")
        assert_same(self.native.commands, self.reference.commands, "the commands")
        assert_same(self.native.shared, self.reference.shared, "the shared dictionary")
        if isinstance(ours, Exception) and isinstance(theirs, Exception):
            assert (type(ours).__name__, str(ours)) == (type(theirs).__name__, str(theirs))
            same_statement(function, ours, theirs)
        else:
            assert_same(ours, theirs, "the result")
        return ours


@pytest.mark.parametrize(
    "ours, theirs, message",
    [
        ([{"a": 1}], [{"a": True}], "it[0]['a']: int 1 instead of bool True"),
        ({"a": 1, "b": 2}, {"b": 2, "a": 1}, "it, a key: 'a' instead of 'b' at character 0"),
        (["a" * 9999 + "b"], ["a" * 9999], "it[0]: 'b' instead of '' at character 9999"),
        ([["a"], []], [["a"]], "it: 2 items instead of 1"),
        ((), [], "it: tuple () instead of list []"),
        (StrSubclass("a"), "a", "it: StrSubclass 'a' instead of str 'a'"),
        (None, {"a": "b" * 9999}, None),
    ],
)
def test_assert_same_difference_gives_short_message(
    ours: object, theirs: object, message: str | None
) -> None:
    assert_same(ours, deepcopy(ours), "it")
    found = str(raises_exactly(AssertionError, assert_same, ours, theirs, "it"))
    assert len(found) < 200
    assert message in (None, found)


# (function, line in the reference model) -> line in the module
LINES: dict[tuple[str, int], int] = {}


def same_statement(function: str, ours: Exception, theirs: Exception) -> None:
    """Each statement of the reference model maps to one line of the module, in the same order."""
    traceback = theirs.__traceback__
    while traceback is not None and traceback.tb_frame.f_code.co_name != function:
        traceback = traceback.tb_next
    assert traceback is not None
    native_line = line(ours, function)
    assert LINES.setdefault((function, traceback.tb_lineno), native_line) == native_line
    known = sorted(item for item in LINES.items() if item[0][0] == function)
    assert [found for _, found in known] == sorted({found for _, found in known})


@pytest.fixture
def pair(native_cli: FakeCli) -> Iterator[Pair]:
    """Both parsers, each with a command line of its own."""
    with pytest.MonkeyPatch.context() as patch:
        yield Pair(native_cli, FakeCli(reference, patch))


# Characters, words, lines

BLANK = [chr(code) for code in range(sys.maxunicode + 1) if chr(code).isspace()]
INLINE_BLANK = [blank for blank in BLANK if blank != "\n"]
NEARLY_BLANK = ["\u200b", "\u180e", "\ufeff", "\xad", "\u2060", "\0", "\x1b", "\x7f"]
TRICKY = [
    *["\u0130", "\u03a3", "\u03c3", "\xdf", "\u1e9e", "\u01c5", "\u0345", "\u0307", "\u2126"],
    *["\U00010400", "\U0001e900", "\U0001f600", "\ud800", "\udfff", "\uffff"],
]
WIDEST = [0x7F, 0x7F, 0xFF, 0xFFFF, sys.maxunicode, sys.maxunicode]
WIDENERS = ["", "", "", "\xe9", "\u0101", "\U0001f600"]

any_character = st.characters(exclude_categories=())
WORDS = [
    *["a", "B", "10.0.0.2", "fe80::1", "port1", "port2", "02:00:00:aa:bb:cc", "0", "*", "via"],
    *["packets", "52 packets", "peer", "Address", "Routing", "--More--", "{}", "%s", "\\", "'"],
    *["", ":", "::", "x:y", "a,b", "_", "\u0130stanbul", "\u039f\u03a3", "\xc9t\xe9", "\u20ac"],
    *TRICKY,
    *NEARLY_BLANK,
]
GAPS = [*[" "] * 60, *["\t"] * 8, *["  "] * 8, "", "", *INLINE_BLANK, "\r ", " \x1c\u2028"]
SPACED = [word + GAPS[(7 * number) % len(GAPS)] for number, word in enumerate(WORDS * 12)]

words = st.sampled_from(WORDS)
gaps = st.sampled_from(["", "", "  ", "\t", "    ", *INLINE_BLANK])
ends = st.sampled_from(["", "", "", "\r", " ", "\t", " --More-- ", "\r\r"])


def spaced(least: int, most: int) -> st.SearchStrategy[str]:
    """Words with a gap after each."""
    return st.lists(st.sampled_from(SPACED), min_size=least, max_size=most).map("".join)


def rows(least: int = 0, most: int = 7) -> st.SearchStrategy[str]:
    """Words with gaps around and between them."""
    return st.builds("{}{}{}".format, gaps, spaced(least, most), ends)


def fields(least: int = 1, most: int = 6) -> st.SearchStrategy[str]:
    """Words in gaps with commas between them."""
    return st.lists(spaced(0, 4), min_size=least, max_size=most).map(",".join)


blank_lines = st.text(st.sampled_from(INLINE_BLANK), max_size=3)


@st.composite
def outputs(draw: st.DrawFn, lines: st.SearchStrategy[Iterable[str]]) -> str:
    """Lines as one text: ASCII, or stored in one, two or four bytes a character, with or without
    need; `str` or its subclass."""
    text = "\n".join(draw(lines))
    widest = draw(st.sampled_from(WIDEST))
    text = "".join(each if ord(each) <= widest else "x "[each.isspace()] for each in text)
    widener = draw(st.sampled_from(WIDENERS))
    if widener:
        at = draw(st.integers(0, len(text)))
        text = text[:at] + widener + text[at:]
    return StrSubclass(text) if draw(st.integers(0, 9)) == 0 else text


def hostile(openings: list[str], pieces: list[str]) -> st.SearchStrategy[str]:
    """Random text in which the parser's keywords are frequent."""
    piece = st.one_of(
        st.sampled_from(pieces),
        st.sampled_from([*pieces, "\n", "\n", "\r", "\t", " ", ":", ","]),
        st.sampled_from(BLANK),
        st.sampled_from(TRICKY + NEARLY_BLANK),
        any_character,
    )
    return outputs(st.tuples(st.sampled_from(openings), st.lists(piece, max_size=60).map("".join)))


def encode(text: str) -> bytes:
    """Encode output like the appliance, with lone surrogates."""
    return str(text).encode("utf-8", "surrogatepass")


# ARP


arp_lines = st.one_of(
    rows(4, 6),
    rows(4, 6),
    rows(),
    blank_lines,
    st.sampled_from(["Address Age Mac Interface", "--More--", "prompt # "]),
)


@st.composite
def arp_outputs(draw: st.DrawFn) -> list[str]:
    """A table with some lines before it."""
    before = draw(st.lists(rows(), max_size=2))
    header = draw(gaps) + draw(st.sampled_from(["Address Age", "Address", "Addresses", "address"]))
    good = draw(st.booleans())
    return [*before, header, *draw(st.lists(rows(4, 6) if good else arp_lines, max_size=8))]


@compared
@given(outputs(arp_outputs()))
@example("")
@example("Address")
def test_arp_tables_match_reference(pair: Pair, text: str) -> None:
    pair.print(text)
    pair.check("get_system_arp_result")


@compared
@given(hostile(["", "Address", "Address"], ["Address", "\n", "a b c d", "Addr", "\na b c d e\n"]))
def test_arp_hostile_text_matches_reference(pair: Pair, text: str) -> None:
    pair.print(text)
    pair.check("get_system_arp_result")


# Routing


@st.composite
def routing_outputs(draw: st.DrawFn) -> list[str]:
    """A header block, complete or not, and next hops."""
    good = draw(st.booleans())
    header = draw(gaps) + "Routing" + draw(st.sampled_from([" ", " ", "\u2003", "-"]))
    header += draw(rows(3, 5) if good else rows(1, 5))
    info = draw(st.lists(spaced(2, 4), min_size=4, max_size=6).map(",".join) if good else fields())
    update = draw(rows(3, 5) if good else rows(2, 5))
    lines = [*draw(st.lists(rows(), max_size=2)), header, info, update]
    if not good and draw(st.booleans()):
        return lines[: draw(st.integers(0, len(lines)))]
    hop = st.builds("{},{}".format, rows(1, 3), spaced(1, 3))
    hops = st.one_of(hop, hop, blank_lines)
    if draw(st.booleans()):
        hops = st.one_of(hops, fields())
    return [*lines, *draw(st.lists(hops, max_size=6))]


addresses = st.one_of(st.none(), words, st.sampled_from([5, b"x", StrSubclass("x"), True]))


@compared
@given(outputs(routing_outputs()), addresses)
@example("", None)
@example("Routing a b c\n,b c,d e,f\na b c", "a")
def test_routing_entries_match_reference(pair: Pair, text: str, address: object) -> None:
    pair.print(text)
    pair.check("get_routing_table_result", address)


@compared
@given(
    hostile(
        [
            "",
            "Routing a b c",
            "Routing a b c\na,b c,d e,f",
            *[HEADS["get_routing_table_result"][:-1]] * 2,
        ],
        ["Routing", "a,b c,d e,f\n", "a b c\n", "x y,z w", "\nx,y\n", "Rout", "\r\n", "\n"],
    )
)
def test_routing_hostile_text_matches_reference(pair: Pair, text: str) -> None:
    pair.print(text)
    pair.check("get_routing_table_result", "a")


# BFD


pairs = st.builds("{}{}{}:{}{}{}".format, gaps, words, gaps, gaps, words, ends)
bfd_words = st.sampled_from(["peer", "peer ", "10.0.0.2", "interface", "port1", "", " "])
bfd_headers = st.one_of(
    st.builds("{}peer {} is {}{}".format, gaps, words, words, ends),
    st.builds("{}peer 10.0.0.2 interface port{}{}".format, gaps, st.integers(1, 2), ends),
    st.lists(st.one_of(bfd_words, words), max_size=5).map(" ".join),
)
bfd_timers = st.builds(
    lambda *parts: "\n".join([parts[0] + parts[1] + parts[2], *parts[3]]),
    gaps,
    st.sampled_from(["Local timers", "Remote timers", "local timers"]),
    ends,
    st.one_of(st.lists(pairs, min_size=3, max_size=4), st.lists(pairs, max_size=4)),
)
bfd_keys = st.sampled_from(["Local Diag", "Zebra Notifications", "Packets received", "Up Time"])
bfd_fields = st.builds("{}{}: {}{}".format, gaps, bfd_keys, words, ends)
bfd_lines = st.one_of(
    bfd_headers,
    bfd_timers,
    bfd_timers,
    pairs,
    bfd_fields,
    rows(),
    blank_lines,
    st.sampled_from(["objname", "peer", "Local timers", "Remote timers", ":"]),
)


@st.composite
def bfd_outputs(draw: st.DrawFn) -> list[str]:
    """An echo, usually a peer line, then lines of a session."""
    lines = [draw(rows())]
    if draw(st.integers(0, 4)):
        lines.append(draw(bfd_headers))
    return [*lines, *draw(st.lists(bfd_lines, max_size=10))]


KNOWN = {"10.0.0.2_port1": {"local_diag": "old", "z": "old"}, "a_b": None}
list_bfds: st.SearchStrategy[Any] = st.sampled_from(
    [{}, {}, KNOWN, KNOWN, [], (), "", set(), None, 5]
)


@compared
@given(outputs(bfd_outputs()), list_bfds)
def test_bfd_sessions_match_reference(pair: Pair, text: str, list_bfd: object) -> None:
    pair.print(text)
    pair.check("get_bfd_neighbor", "command", list_bfd)


@compared
@given(st.lists(outputs(bfd_outputs()), min_size=1, max_size=4))
def test_bfd_shared_dictionary_matches_reference(pair: Pair, texts: list[str]) -> None:
    pair.print(*texts)
    for _ in texts:
        pair.check("get_bfd_neighbor", "command")


@compared
@given(
    hostile(
        ["peer", "peer", "echo\npeer a b c", "echo\npeer a b c\nLocal timers"],
        [
            *["peer ", "peer", "peer a b c\n", "objname", "Local timers", "\nRemote timers\n"],
            *["a:1\n", "\nk: v packets\n", "packets", "timers", "p\teer ", "a:b\nc:d\ne:f\n"],
        ],
    )
)
@example("peer")
@example("peer\nobjname")
@example("peer\npeer \n\n")
def test_bfd_hostile_text_matches_reference(pair: Pair, text: str) -> None:
    pair.print(text)
    pair.check("get_bfd_neighbor", "command", {})


@compared
@given(st.lists(outputs(bfd_outputs()), min_size=1, max_size=6))
def test_bfd_lists_match_reference(pair: Pair, texts: list[str]) -> None:
    pair.print(*texts)
    pair.check("list_bfd_neighbor")


entries = st.fixed_dictionaries(
    {},
    optional={
        "neighbor_ip": st.one_of(words, words, st.just(5)),
        "interface": st.one_of(words, words, st.none()),
        "zebra_notifications": words,
    },
)
whole_entries = st.fixed_dictionaries(
    {"neighbor_ip": words, "interface": words}, optional={"zebra_notifications": words}
)
neighbor_replies: st.SearchStrategy[Any] = st.one_of(
    st.dictionaries(st.sampled_from(["k", "l", "m"]), whole_entries, max_size=3),
    st.dictionaries(st.sampled_from(["k", "l", "m"]), st.one_of(entries, whole_entries)),
    st.sampled_from([None, 5, [], [("k", {})], {5: {}}, {"k": None}, {"k": "text"}, "ab", ()]),
    st.sampled_from([ValueError("text"), KeyError("k"), Exception()]),
)


@compared
@given(st.lists(neighbor_replies, min_size=2, max_size=8))
def test_bfd_lists_of_any_sessions_match_reference(pair: Pair, replies: list[Any]) -> None:
    pair.print("")
    calls = [Recorder(in_turn(replies)), Recorder(in_turn(replies))]
    for cli, recorder in zip((pair.native, pair.reference), calls):
        cli.patch("get_bfd_neighbor", recorder)
    pair.check("list_bfd_neighbor")
    assert_same(calls[0].positional, calls[1].positional, "the calls")


# Values that are not strings


@compared
@given(
    st.recursive(
        st.one_of(st.none(), st.integers(), st.booleans(), st.sampled_from(["peer", "objname"])),
        lambda inner: st.one_of(
            st.lists(inner, max_size=3),
            st.lists(inner, max_size=3).map(tuple),
            st.dictionaries(st.sampled_from(["peer", "objname", "x"]), inner),
        ),
    ).filter(lambda value: not isinstance(value, str))
)
@example(bytearray(b"peer"))
@example({"peer", "objname"})
def test_non_str_values_match_reference(pair: Pair, value: object) -> None:
    for function, arguments in {**CALLS, "list_bfd_neighbor": ()}.items():
        pair.print(value)
        pair.check(function, *arguments)


# Every character, in each storage width that can hold it

BLANKS_AND_OTHERS = [chr(code) for code in [*range(10), *range(11, 0x3100)]]
BLANKS_AND_OTHERS += [chr(code) for code in range(0x3100, sys.maxunicode, 251)]
CASED_AND_OTHERS = [chr(code) for code in [*range(10), *range(11, 0x20000)]]


@pytest.mark.slow
@pytest.mark.parametrize("widest", [0x7F, 0xFF, 0xFFFF, sys.maxunicode])
@pytest.mark.parametrize(
    "function, template, tried, size",
    [
        ("get_system_arp_result", "?a?b c d?e f g?", BLANKS_AND_OTHERS, len),
        (
            "get_routing_table_result",
            "?a?b?,?c?d? e,",
            [each for each in BLANKS_AND_OTHERS if each != ","],
            lambda entry: len(entry["table"]),
        ),
        (
            "get_bfd_neighbor",
            "?A?\u03a3?:?A?\u03a3?",
            CASED_AND_OTHERS,
            lambda sessions: 2 * len(sessions["a_c"]),  # many keys differ in case only
        ),
    ],
    ids=CALLS,
)
def test_every_character_around_words_matches_reference(
    pair: Pair,
    function: str,
    template: str,
    tried: list[str],
    size: Callable[[Any], int],
    widest: int,
) -> None:
    template = "".join(each for each in template if ord(each) <= widest)
    lines = [template.replace("?", each) for each in tried if ord(each) <= widest]
    pair.print(HEADS[function] + "\n".join([*lines, template.replace("?", chr(widest))]))
    assert size(pair.check(function, *CALLS[function])) > len(lines)


# Words of every length that begin and end equally

LENGTHS = [*range(1, 140), 255, 256, 257, 5000]


def alike(length: int, variety: int) -> str:
    """A word that differs from others of its length in the middle only; of variety 4, a word that
    is the beginning of all longer ones."""
    word = ["Ab9."[at % 4] for at in range(length)]
    if variety < 4:
        word[length // 2] = "abcZ"[variety]
    return "".join(word)


@pytest.mark.parametrize("stored_with", ["", "\xe9", "\u0101", "\U0001f600"], ids=ascii)
@pytest.mark.parametrize(
    "function, template",
    [
        ("get_system_arp_result", "1? 2? ? ? ?"),
        ("get_routing_table_result", "? 1?,? 2?\n?,?"),
        ("get_bfd_neighbor", "? ?: packets? ?packets packets"),
    ],
    ids=CALLS,
)
def test_words_alike_at_both_ends_match_reference(
    pair: Pair, function: str, template: str, stored_with: str
) -> None:
    words = [alike(length, variety) for length in LENGTHS for variety in (0, 1, 2, 3, 0, 4)]
    words += [alike(length, 4) for length in reversed(LENGTHS)]
    lines = [template.replace("?", word) for word in [*words, stored_with or "x"]]
    pair.print(HEADS[function] + "\n".join(lines))
    result = pair.check(function, *CALLS[function])
    assert alike(5000, 4) in repr(result)


# Texts on which a scan within a scan would show


@pytest.mark.parametrize(
    "text", [each for each in TEXTS if each.function != RUNNER], ids=lambda text: text.name
)
def test_large_hostile_texts_match_reference(pair: Pair, text: HostileText) -> None:
    pair.print(text.output(SIZES[0]))
    result = pair.check(text.function, *text.arguments())
    assert isinstance(result, IndexError) == text.fails


# The command runner, and output from the native service


@compared
@given(
    st.one_of(
        st.none(),
        st.binary(max_size=40),
        hostile([""], ["--More--", "--More", "More--", "--"]).map(encode),
    ),
    st.one_of(st.text(any_character, max_size=200), addresses),
)
@example(b"--More----More--", "x" * 130)
def test_command_runner_matches_reference(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    output: bytes | None,
    command: object,
) -> None:
    simulator.clear_calls()
    simulator.set_reply("get_cli_cmd_output", output)
    run = Recorder(lambda command: output)
    monkeypatch.setattr(reference, "run", run)
    ours, theirs = (
        outcome(parser.get_cli_command_output, command) for parser in (module, reference)
    )
    assert ours == theirs
    assert [(call.text,) for call in simulator.call_log] == run.positional
    assert simulator.live_objects.text_buffers == 0


def outcome(function: Callable[..., object], *arguments: object) -> object:
    """The result of a call with types, or the type and text of its exception."""
    ended = called(function, *arguments)
    if isinstance(ended, Exception):
        return type(ended).__name__, str(ended)
    return with_types(ended)


@compared
@given(
    st.lists(
        st.one_of(
            outputs(arp_outputs()), outputs(routing_outputs()), outputs(bfd_outputs()), st.none()
        ),
        min_size=1,
        max_size=4,
    )
)
def test_native_output_matches_reference(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    texts: list[str | None],
) -> None:
    encoded = [None if text is None else encode(text) for text in texts]
    outcomes = []
    for parser in (module, reference):
        run = Recorder(in_turn(encoded))
        simulator.set_reply("get_cli_cmd_output", run)
        monkeypatch.setattr(reference, "run", run)
        ended = [
            outcome(getattr(parser, name), *deepcopy(arguments))
            for name, arguments in CALLS.items()
        ]
        outcomes.append([*ended, *run.positional])
    assert outcomes[0] == outcomes[1]

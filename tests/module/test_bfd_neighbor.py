"""The BFD detail parser, in the native module and in its twin: sessions, timers, the lines that
fail and are logged, and the dictionary that all calls share."""

from __future__ import annotations

import sys
from collections.abc import Iterator, MutableMapping
from types import ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import (
    Recorder,
    ascending,
    entry,
    failure,
    line,
    raising,
    taken_apart,
    traceback_entries,
)
from tests.support.fake_cli import CommandLine

FUNCTION = "get_bfd_neighbor"
OUT_OF_RANGE = "e:list index out of range"
NOT_ITERABLE = "e:argument of type 'type' is not iterable"


class Text(str):
    """A subclass of str."""


class Failed(Exception):
    """Only the tests raise it."""


def parsed(cli: CommandLine, *lines: str) -> Any:
    """The sessions of an output with these lines, the echo of the command before them."""
    cli.prints("echo", *lines)
    return cli.parser.get_bfd_neighbor("command", {})


def session(cli: CommandLine, *lines: str) -> list[tuple[str, Any]]:
    """The items of the one session that starts with the header 'peer A is B'."""
    sessions = parsed(cli, "peer A is B", *lines)
    assert list(sessions) == ["A_B"]
    items = list(sessions["A_B"].items())
    assert items[:3] == [("neighbor_ip", "A"), ("interface", "B"), ("name", "A_B")]
    return items[3:]


TIMERS = {"detect_multiplier": "3", "receive_interval": "250", "transmit_interval": "250"}


def test_a_whole_session(cli: CommandLine) -> None:
    cli.prints(
        "(echo line, skipped)",
        "peer 10.0.0.2 interface port1",
        "    Local Diag: 0",
        "    Packets received: 52 packets",
        "    Local timers",
        "        Detect Multiplier: 3",
        "        Receive Interval: 250",
        "        Transmit Interval: 250",
        "    Remote timers",
        "        Detect Multiplier: 3",
        "        Receive Interval: 250",
        "        Transmit Interval: 250",
    )
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert taken_apart(sessions) == taken_apart(
        {
            "10.0.0.2_port1": {
                "neighbor_ip": "10.0.0.2",
                "interface": "port1",
                "name": "10.0.0.2_port1",
                "local_diag": "0",
                "packets_received": "52 ",
                "local_timers": TIMERS,
                "remote_timers": TIMERS,
            }
        }
    )
    assert cli.logged == []


# The output as a whole


def test_the_command_is_handed_on_unchanged_and_its_output_decoded(cli: CommandLine) -> None:
    command, output, character_set = object(), object(), object()
    decode = Recorder(lambda value, encoding: "echo\npeer A is B")
    cli.prints(output)
    cli.rebind("text_", decode)
    cli.rebind("_CHARSET", character_set)
    assert list(cli.parser.get_bfd_neighbor(command, {})) == ["A_B"]
    assert cli.commands == [command]
    assert decode.positional == [(output, character_set)]


def test_bytes_of_the_runner_are_decoded(cli: CommandLine) -> None:
    cli.prints(b"echo\npeer A is \xc3\xa9")
    assert list(cli.parser.get_bfd_neighbor("command", {})) == ["A_\u00e9"]


@pytest.mark.parametrize("output", ["", "\n\n", "pee r", "PEER a b c", "echo\nLocal Diag: 0"])
def test_output_without_peer_leaves_the_dictionary_alone(cli: CommandLine, output: str) -> None:
    cli.prints(output)
    given = {"old": {"a": "1"}}
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert given == {"old": {"a": "1"}}
    assert cli.parser.get_bfd_neighbor("command", 5) == 5, "it is not even looked at"
    assert cli.logged == []


@pytest.mark.parametrize(
    "lines, names",
    [
        (["peer 1 is a", "peer 2 is b", "peer 3 is c"], ["2_b"]),
        (["objname", "peer 2 is b", "peer 3 is c"], ["3_c"]),
        (["peer 1 is a", "objname", "peer 3 is c"], ["3_c"]),
        (["peer 1 is a", "x", "peer 3 is c", "the objname"], ["3_c"]),
        (["objname peer 1 is a", "peer 2 is b"], []),
        (["Objname", "peer 2 is b", "peer 3 is c"], ["2_b"]),
    ],
)
def test_one_line_is_skipped_or_two_with_objname_anywhere(
    cli: CommandLine, lines: list[str], names: list[str]
) -> None:
    cli.prints(*lines)
    assert list(cli.parser.get_bfd_neighbor("command", {})) == names


@pytest.mark.parametrize(
    "output, logged",
    [
        ("peer 1 is a", [OUT_OF_RANGE]),
        ("peer", [OUT_OF_RANGE]),
        ("peer objname", [OUT_OF_RANGE]),
        ("objname\npeer 1 is a", [OUT_OF_RANGE]),
        ("peer\n", []),
    ],
)
def test_output_of_skipped_lines_only_is_an_index_error_in_the_log(
    cli: CommandLine, output: str, logged: list[str]
) -> None:
    cli.prints(output)
    given: dict[str, Any] = {}
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert given == {}
    assert cli.logged == logged


def test_lines_end_at_line_feeds_only(cli: CommandLine) -> None:
    items = session(cli, "a: 1\rb: 2", "c: 3\x0bd: 4\x1ce: 5\x85f: 6\u2028g: 7", "h: 8\r")
    assert items == [("a", "1\rb"), ("c", "3\x0bd"), ("h", "8")]


# The header line


@pytest.mark.parametrize(
    "header, neighbor_ip, interface, name",
    [
        ("peer 10.0.0.2 interface port1", "10.0.0.2", "port1", "10.0.0.2_port1"),
        ("  \t peer fe80::1 interface port1", "fe80::1", "port1", "fe80::1_port1"),
        ("peer A is B\r", "A", "B", "A_B\r"),
        ("peer A is B \r", "A", "B", "A_B"),
        ("peer A is B\u3000\x1f", "A", "B", "A_B\u3000\x1f"),
        ("peer A is B more words", "A", "B", "A_B"),
        ("peer A is \x0bB\x0b", "A", "\x0bB", "A_\x0bB\x0b"),
        ("peer A is \u2003B\u2003", "A", "\u2003B", "A_\u2003B\u2003"),
        ("peer  is B", "", "B", "_B"),
        ("peer A  B", "A", "B", "A_B"),
        ("peer A B ", "A", "", "A_"),
        ("the peer is B", "peer", "B", "peer_B"),
        ("xpeer A is B", "A", "B", "A_B"),
        ("peer A\tx is B\t2", "Ax", "B2", "Ax_B2"),
        ("peer A: is B: x", "A:", "B:", "A:_B:"),
        ("Local timers of peer B", "timers", "peer", "timers_peer"),
        ("peer \u00e9 is \U0001f600", "\u00e9", "\U0001f600", "\u00e9_\U0001f600"),
    ],
)
def test_a_header_names_its_session(
    cli: CommandLine, header: str, neighbor_ip: str, interface: str, name: str
) -> None:
    sessions = parsed(cli, header)
    expected = {"neighbor_ip": neighbor_ip, "interface": interface, "name": name}
    assert taken_apart(sessions) == taken_apart({name: expected})
    assert cli.logged == []


# Short texts are built in a buffer of 64 characters; longer ones are not.
AROUND_BUFFER_SIZE = pytest.mark.parametrize("size", [63, 64, 65, 66])


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("address_size", [1, 31, 60])
def test_session_name_around_buffer_size_is_whole(
    cli: CommandLine, size: int, address_size: int
) -> None:
    address, interface = "a" * address_size, "i" * (size - address_size - 1)
    name = f"{address}_{interface}"
    assert len(name) == size
    assert parsed(cli, f"peer {address} is {interface}") == {
        name: {"neighbor_ip": address, "interface": interface, "name": name}
    }


def test_tabs_are_gone_before_a_header_is_recognised(cli: CommandLine) -> None:
    assert list(parsed(cli, "p\te\ter\t A is B", "peer")) == ["A_B"]
    assert parsed(cli, "peer\tA is B") == {}


@pytest.mark.parametrize("line_", ["peer", "peer:", "xpeer", "peer\tA", "peerA is B", "peer\xa0A"])
def test_without_a_blank_after_peer_a_line_is_no_header(cli: CommandLine, line_: str) -> None:
    assert parsed(cli, line_) == {}
    assert cli.logged == []


def test_fields_before_the_first_header_stay_in_front(cli: CommandLine) -> None:
    sessions = parsed(cli, "a: 1", "neighbor ip: x", "peer A is B", "c: 3")
    assert list(sessions["A_B"].items()) == [
        ("a", "1"),
        ("neighbor_ip", "A"),
        ("interface", "B"),
        ("name", "A_B"),
        ("c", "3"),
    ]


@pytest.mark.parametrize("header", ["peer ", "peer A", "peer A is", "peer  "])
def test_a_header_that_is_too_short_is_logged_and_names_nothing(
    cli: CommandLine, header: str
) -> None:
    assert parsed(cli, header, "a: 1") == {}
    assert cli.logged == [OUT_OF_RANGE]


def test_after_a_header_that_is_too_short_the_next_one_is_the_first(cli: CommandLine) -> None:
    sessions = parsed(cli, "peer X is", "a: 1", "peer A is B", "b: 2")
    assert list(sessions) == ["A_B"]
    assert list(sessions["A_B"].items()) == [
        ("neighbor_ip", "A"),
        ("a", "1"),
        ("interface", "B"),
        ("name", "A_B"),
        ("b", "2"),
    ]
    assert cli.logged == [OUT_OF_RANGE]


def test_later_headers_are_logged_and_their_fields_overwrite_those_of_the_first(
    cli: CommandLine,
) -> None:
    sessions = parsed(
        cli,
        "peer A is B",
        "x: 1",
        "y: 1",
        "Local timers",
        *("a: 1", "b: 1", "c: 1"),
        "peer C is D",
        "Local timers",
        *("d: 2", "e: 2", "f: 2"),
        "y: 2",
        "z: 2",
        "peer",
        "peer E",
    )
    assert taken_apart(sessions) == taken_apart(
        {
            "A_B": {
                "neighbor_ip": "A",
                "interface": "B",
                "name": "A_B",
                "x": "1",
                "y": "2",
                "local_timers": {"d": "2", "e": "2", "f": "2"},
                "z": "2",
            }
        }
    )
    assert cli.logged == [NOT_ITERABLE, NOT_ITERABLE]


# Key-value lines


@pytest.mark.parametrize(
    "line_, key, value",
    [
        ("Local Diag: 0", "local_diag", "0"),
        ("\t  Local Diag\t:\t0 \r", "local_diag", "0"),
        ("Up Time: 0:01:02", "up_time", "0"),
        ("a:b:c", "a", "b"),
        (":", "", ""),
        (": x", "", "x"),
        ("a :", "a", ""),
        ("a::b", "a", ""),
        ("a  b : c  d", "a__b", "c  d"),
        ("Packets received: 52 packets", "packets_received", "52 "),
        ("a\x0bB\x1cc: \x1dx\x0cy\x1f", "a\x0bb\x1cc", "x\x0cy"),
        ("\x1e A B\x0b:", "a_b", ""),
        ("a: packets", "a", ""),
        ("a: packets 5 packets", "a", " 5 "),
        ("a: papacketsckets", "a", "packets"),
        ("a: Packets", "a", "Packets"),
        ("a:packetspackets1", "a", "1"),
        ("\xa0\u2003A\xa0B\u3000: \x1f\x85x\u2029", "a\xa0b", "x"),
        ("\u0130\u03a3 \u0391\u03a3: \u0130", "i\u0307\u03c2_\u03b1\u03c2", "\u0130"),
        ("\U00010400: \U0001f600", "\U00010428", "\U0001f600"),
        ("\u00c9T\u00c9: \u00c9", "\u00e9t\u00e9", "\u00c9"),
        ("\u1e9e\u01c5: 1", "\u00df\u01c6", "1"),
        ("\u200bA\u180e: \ufeffx", "\u200ba\u180e", "\ufeffx"),
        ("NUL\0: a\0b", "nul\0", "a\0b"),
        ("\ud800A: \udfff", "\ud800a", "\udfff"),
        ("local timers: 1", "local_timers", "1"),
        ("Peer: 1", "peer", "1"),
        ("a Local timers: 1", "a_local_timers", "1"),
    ],
)
def test_a_line_with_a_colon_is_a_field(cli: CommandLine, line_: str, key: str, value: str) -> None:
    assert taken_apart(session(cli, line_)) == taken_apart([(key, value)])
    assert cli.logged == []


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("word", ["", "packets"])
@pytest.mark.parametrize("before", [0, 20, None], ids=["first", "inside", "last"])
def test_value_around_buffer_size_is_whole(
    cli: CommandLine, size: int, word: str, before: int | None
) -> None:
    rest = "v" * (size - len(word))
    value = rest + word if before is None else rest[:before] + word + rest[before:]
    assert len(value) == size
    assert session(cli, f"a: {value}") == [("a", rest)]


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("word", ["", "packets"])
def test_key_around_buffer_size_is_whole(cli: CommandLine, size: int, word: str) -> None:
    key = (word + "K " * size)[: size - 1] + "k"
    assert session(cli, f" {key} : 1") == [(key.lower().replace(" ", "_"), "1")]


@AROUND_BUFFER_SIZE
def test_timer_around_buffer_size_is_whole(cli: CommandLine, size: int) -> None:
    key, value = "k" * size, ("v" * size + "packets")[-size:]
    lines = [f"{key}: {value}", f"b: {value}", f"{key}: 3"]
    assert session(cli, "Local timers", *lines) == [("local_timers", {key: "3", "b": value})]


# What a blank-skipping scan of several characters at a time may take for blanks.
NO_SPACES = [chr(code) for code in range(128) if not chr(code).isspace() and chr(code) != ":"]


@pytest.mark.parametrize("size", [4, 8, 16, 19])
def test_text_of_one_repeated_character_is_not_stripped(cli: CommandLine, size: int) -> None:
    repeated = [character * size for character in NO_SPACES]
    values = [f"key {number}: {text}" for number, text in enumerate(repeated)]
    assert session(cli, *values) == [
        (f"key_{number}", text) for number, text in enumerate(repeated)
    ]
    keys = [f"{text}x: {number}" for number, text in enumerate(repeated)]
    fields = {f"{text}x".lower(): str(number) for number, text in enumerate(repeated)}
    assert session(cli, *keys) == list(fields.items())


def test_text_with_hash_of_the_last_slot_is_kept(cli: CommandLine) -> None:
    """The hash of this text, found by a search, is one of the 256 largest on any byte order."""
    text = "&((&xxxxx7aa7"
    assert session(cli, f"{text}: {text}", f"b: {text}") == [(text, text), ("b", text)]


@pytest.mark.parametrize("line_", ["", " ", "\t", "\r", "\x1c \u2028", "no colon", "Local Timers"])
def test_other_lines_are_ignored(cli: CommandLine, line_: str) -> None:
    assert session(cli, line_, "a: 1") == [("a", "1")]
    assert cli.logged == []


def test_a_repeated_field_keeps_its_place_and_takes_the_later_value(cli: CommandLine) -> None:
    assert session(cli, "a: 1", "b: 2", "A: 3") == [("a", "3"), ("b", "2")]


def test_fields_may_overwrite_the_headers(cli: CommandLine) -> None:
    sessions = parsed(cli, "peer A is B", "Name: other", "Interface: x")
    assert sessions == {"A_B": {"neighbor_ip": "A", "interface": "x", "name": "other"}}


def test_a_field_may_be_called_like_the_keywords_of_dict(cli: CommandLine) -> None:
    given = {"A_B": {"self": "0"}}
    cli.prints("echo", "peer A is B", "self: 1", "iterable: 2")
    cli.parser.get_bfd_neighbor("command", given)
    assert given["A_B"]["self"] == "1"
    assert given["A_B"]["iterable"] == "2"


# Timers

KEYS = pytest.mark.parametrize(
    "title, key", [("Local timers", "local_timers"), ("Remote timers", "remote_timers")]
)


@KEYS
@pytest.mark.parametrize("before, after", [("", ""), (" \t ", " of: the peer"), ("\u2003\t", ":")])
def test_three_lines_after_the_title_are_the_timers(
    cli: CommandLine, title: str, key: str, before: str, after: str
) -> None:
    items = session(
        cli,
        before + title + after,
        "\tDetect Multiplier\t: 3",
        " B b :\t4 packets:5",
        "c:\r",
        "d: 6",
    )
    assert taken_apart(items) == taken_apart(
        [(key, {"detect_multiplier": "3", "b_b": "4 packets", "c": ""}), ("d", "6")]
    )
    assert cli.logged == []


@KEYS
def test_timer_lines_are_not_looked_at_otherwise(cli: CommandLine, title: str, key: str) -> None:
    items = session(cli, title, "peer C is D: 1", title + ": 2", ":", "Remote x: y")
    assert items == [
        (key, {"peer_c_is_d": "1", title.lower().replace(" ", "_"): "2", "": ""}),
        ("remote_x", "y"),
    ]
    assert cli.logged == []


@KEYS
def test_equal_timer_keys_fall_together(cli: CommandLine, title: str, key: str) -> None:
    assert session(cli, title, "a: 1", "A : 2", "b: 3") == [(key, {"a": "2", "b": "3"})]


@KEYS
@pytest.mark.parametrize("present", [0, 1, 2])
def test_timers_that_the_output_ends_in_are_logged_and_their_lines_become_fields(
    cli: CommandLine, title: str, key: str, present: int
) -> None:
    lines = ["a: 1", "b: 2"][:present]
    assert session(cli, title, *lines) == [("a", "1"), ("b", "2")][:present]
    assert cli.logged == [OUT_OF_RANGE]


@KEYS
@pytest.mark.parametrize("faulty", [0, 1, 2])
def test_a_timer_line_without_a_colon_is_logged_and_the_lines_become_fields(
    cli: CommandLine, title: str, key: str, faulty: int
) -> None:
    lines = ["a: 1", "b: 2", "c: 3 packets"]
    fields = [("a", "1"), ("b", "2"), ("c", "3 ")]
    lines[faulty] = "none"
    del fields[faulty]
    assert session(cli, title, *lines) == fields
    assert cli.logged == [OUT_OF_RANGE]


def test_timers_after_timers(cli: CommandLine) -> None:
    three = ["a: 1", "b: 2", "c: 3"]
    items = session(cli, "Local timers", *three, "Remote timers", *three, "Local timers", *three)
    timers = {"a": "1", "b": "2", "c": "3"}
    assert items == [("local_timers", timers), ("remote_timers", timers)]
    local, remote = (value for _, value in items)
    assert local is not remote


def test_a_failed_timer_block_leaves_the_earlier_one_standing(cli: CommandLine) -> None:
    items = session(cli, "Local timers", "a: 1", "b: 2", "c: 3", "Local timers", "d: 4")
    assert items == [("local_timers", {"a": "1", "b": "2", "c": "3"}), ("d", "4")]
    assert cli.logged == [OUT_OF_RANGE]


# Where the session goes


def test_the_dictionary_given_is_filled_and_returned(cli: CommandLine) -> None:
    given: dict[str, Any] = {"Z": {"z": "1"}}
    cli.prints("echo", "peer A is B", "a: 1")
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert list(given) == ["Z", "A_B"]
    assert cli.shared == {}


def test_both_arguments_may_be_given_by_keyword(cli: CommandLine) -> None:
    given: dict[str, Any] = {}
    cli.prints("echo", "peer A is B")
    assert cli.parser.get_bfd_neighbor(list_bfd=given, cmd="the command") is given
    assert cli.commands == ["the command"]
    assert list(given) == ["A_B"]


def test_a_known_session_becomes_a_new_dictionary_with_the_new_fields_after_the_old(
    cli: CommandLine,
) -> None:
    old = {"b": "old", "name": "old", "z": "old"}
    given: dict[str, Any] = {"A_B": old, "Z": {}}
    cli.prints("echo", "peer A is B", "a: new", "b: new")
    cli.parser.get_bfd_neighbor("command", given)
    assert list(given) == ["A_B", "Z"]
    assert given["A_B"] is not old
    assert list(given["A_B"].items()) == [
        ("b", "new"),
        ("name", "A_B"),
        ("z", "old"),
        ("neighbor_ip", "A"),
        ("interface", "B"),
        ("a", "new"),
    ]
    assert old == {"b": "old", "name": "old", "z": "old"}


def test_calls_without_a_dictionary_share_one_that_grows(cli: CommandLine) -> None:
    cli.prints("echo", "peer A is B", "a: 1", "b: 1")
    first = cli.parser.get_bfd_neighbor("command")
    entry_ = first["A_B"]
    cli.prints("echo", "peer C is D", "c: 1")
    assert cli.parser.get_bfd_neighbor("command") is first
    cli.prints("echo", "peer A is B", "b: 2", "c: 2")
    assert cli.parser.get_bfd_neighbor(cmd="command") is first
    cli.prints("nothing")
    assert cli.parser.get_bfd_neighbor("command") is first
    assert list(first) == ["A_B", "C_D"]
    assert list(first["A_B"].items())[3:] == [("a", "1"), ("b", "2"), ("c", "2")]
    assert entry_["b"] == "1", "the merged entry is a new dictionary"


class Mapping(MutableMapping):
    """A mapping that is no dict and notes what is done with it."""

    def __init__(self, **items: Any) -> None:
        self.items_ = items
        self.events: list[tuple[object, ...]] = []

    def __contains__(self, key: object) -> bool:
        self.events.append(("contains", key))
        return key in self.items_

    def __getitem__(self, key: Any) -> Any:
        self.events.append(("get", key))
        return self.items_[key]

    def __setitem__(self, key: Any, value: Any) -> None:
        self.events.append(("set", key))
        self.items_[key] = value

    def __delitem__(self, key: Any) -> None:
        raise AssertionError("deleted")

    def __iter__(self) -> Iterator[Any]:
        raise AssertionError("iterated")

    def __len__(self) -> int:
        raise AssertionError("measured")


class NotingDict(dict):
    """A dict that notes what is done with it."""

    def __init__(self, **items: Any) -> None:
        super().__init__(**items)
        self.events: list[tuple[object, ...]] = []

    def __contains__(self, key: object) -> bool:
        self.events.append(("contains", key))
        return super().__contains__(key)

    def __getitem__(self, key: Any) -> Any:
        self.events.append(("get", key))
        return super().__getitem__(key)

    def __setitem__(self, key: Any, value: Any) -> None:
        self.events.append(("set", key))
        super().__setitem__(key, value)


@pytest.mark.parametrize("kind", [Mapping, NotingDict])
def test_any_mapping_takes_the_session_through_the_object_protocol(
    cli: CommandLine, kind: Any
) -> None:
    cli.prints("echo", "peer A is B", "a: 1")
    new = kind()
    assert cli.parser.get_bfd_neighbor("command", new) is new
    assert new.events == [("contains", "A_B"), ("set", "A_B")]
    known = kind(A_B={"z": "0"})
    assert cli.parser.get_bfd_neighbor("command", known) is known
    assert known.events == [("contains", "A_B"), ("get", "A_B"), ("set", "A_B")]
    assert list(known["A_B"]) == ["z", "neighbor_ip", "interface", "name", "a"]


@pytest.mark.parametrize(
    "given, kind, text",
    [
        (None, TypeError, "argument of type 'NoneType' is not iterable"),
        (5, TypeError, "argument of type 'int' is not iterable"),
        (list, TypeError, "argument of type 'type' is not iterable"),
        ([], TypeError, "list indices must be integers or slices, not str"),
        (["A_B"], TypeError, "list indices must be integers or slices, not str"),
        ((), TypeError, "'tuple' object does not support item assignment"),
        ("", TypeError, "'str' object does not support item assignment"),
        ("A_B", TypeError, "string indices must be integers"),
        (frozenset(["A_B"]), TypeError, "'frozenset' object is not subscriptable"),
        (set(), TypeError, "'set' object does not support item assignment"),
        ({"A_B": None}, TypeError, "'NoneType' object is not iterable"),
        ({"A_B": 5}, TypeError, "'int' object is not iterable"),
        (
            {"A_B": "text"},
            ValueError,
            "dictionary update sequence element #0 has length 1; 2 is required",
        ),
    ],
    ids=repr,
)
def test_what_cannot_take_the_session_is_the_interpreters_own_error(
    cli: CommandLine, given: object, kind: type[Exception], text: str
) -> None:
    cli.prints("echo", "peer A is B")
    error = failure(kind, cli.parser.get_bfd_neighbor, "command", given)
    assert str(error) == text
    assert cli.logged == []


def test_a_known_session_may_be_anything_that_makes_a_dictionary(cli: CommandLine) -> None:
    cli.prints("echo", "peer A is B")
    given: dict[str, Any] = {"A_B": [("x", 1), (5, "five")]}
    cli.parser.get_bfd_neighbor("command", given)
    assert list(given["A_B"].items()) == [
        ("x", 1),
        (5, "five"),
        ("neighbor_ip", "A"),
        ("interface", "B"),
        ("name", "A_B"),
    ]


@pytest.mark.parametrize("step", ["contains", "get", "set"])
def test_a_failing_step_of_storing_propagates(cli: CommandLine, step: str) -> None:
    error = Failed(step)

    class Fails(NotingDict):
        def __contains__(self, key: object) -> bool:
            if step == "contains":
                raise error
            return True

        def __getitem__(self, key: object) -> Any:
            if step == "get":
                raise error
            return {}

        def __setitem__(self, key: object, value: object) -> None:
            raise error

    cli.prints("echo", "peer A is B")
    assert failure(Failed, cli.parser.get_bfd_neighbor, "command", Fails()) is error
    assert cli.logged == []


# What is no text


@pytest.mark.parametrize(
    "value, kind, text",
    [
        (None, TypeError, "argument of type 'NoneType' is not iterable"),
        (5, TypeError, "argument of type 'int' is not iterable"),
        (bytearray(b"peer"), TypeError, "a bytes-like object is required, not 'str'"),
        (["peer"], TypeError, 'can only concatenate str (not "list") to str'),
        ({"peer": 1}, TypeError, 'can only concatenate str (not "dict") to str'),
        (("peer", "objname"), AttributeError, "'tuple' object has no attribute 'split'"),
        pytest.param(
            {"peer", "objname"}, AttributeError, "'set' object has no attribute 'split'", id="set"
        ),
    ],
    ids=repr,
)
def test_what_is_no_text_is_the_interpreters_own_error(
    cli: CommandLine, value: object, kind: type[Exception], text: str
) -> None:
    cli.prints(value)
    error = failure(kind, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == text
    assert cli.logged == []


@pytest.mark.parametrize("value", [[], ["no such"], {}, ()], ids=repr)
def test_what_has_no_peer_in_it_is_not_looked_at_further(cli: CommandLine, value: object) -> None:
    cli.prints(value)
    assert cli.parser.get_bfd_neighbor("command", {"a": 1}) == {"a": 1}


@pytest.mark.parametrize("output", ["echo\npeer A is B\nc: 1", "objname\necho\npeer A is B\nc: 1"])
def test_a_subclass_of_text_is_text(cli: CommandLine, output: str) -> None:
    cli.prints(Text(output))
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert taken_apart(sessions) == taken_apart(
        {"A_B": {"neighbor_ip": "A", "interface": "B", "name": "A_B", "c": "1"}}
    )


class RightAddable:
    """No text, but "\\n" + this is one."""

    def __contains__(self, word: object) -> bool:
        return word == "peer"

    def __radd__(self, before: str) -> str:
        return before + "a: 0\nb: 1\npeer A is B\nc: 2"


def test_output_that_becomes_text_skips_two_lines(cli: CommandLine) -> None:
    cli.prints(RightAddable())
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert list(sessions) == ["A_B"]
    assert list(sessions["A_B"]) == ["b", "neighbor_ip", "interface", "name", "c"]
    assert cli.logged == []


def test_output_that_becomes_only_two_lines_is_logged(cli: CommandLine) -> None:
    class TwoLines(RightAddable):
        def __radd__(self, before: str) -> str:
            return before + "peer A is B"

    cli.prints(TwoLines())
    assert cli.parser.get_bfd_neighbor("command", {}) == {}
    assert cli.logged == [OUT_OF_RANGE]


@pytest.mark.parametrize("word", ["peer", "objname"])
@pytest.mark.parametrize("kind", [Failed, KeyboardInterrupt])
def test_text_whose_membership_test_fails_propagates(
    cli: CommandLine, word: str, kind: type[BaseException]
) -> None:
    error = kind(word)

    class FailingText(Text):
        def __contains__(self, wanted: object) -> bool:
            if wanted == word:
                raise error
            return str(wanted) in str(self)

    cli.prints(FailingText("echo\npeer A is B\nc: 1"))
    given: dict[str, Any] = {}
    assert failure(kind, cli.parser.get_bfd_neighbor, "command", given) is error
    assert given == {}
    assert cli.logged == []


def test_bytes_that_stay_bytes_are_the_interpreters_own_error(cli: CommandLine) -> None:
    cli.prints(b"peer")
    cli.rebind("text_", lambda value, encoding: value)
    error = failure(TypeError, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == "a bytes-like object is required, not 'str'"


# Failures outside the lines, and in the log


@pytest.mark.parametrize("name", ["get_cli_command_output", "text_"])
@pytest.mark.parametrize("kind", [Failed, KeyboardInterrupt])
def test_a_failing_fetch_propagates_unlogged(
    cli: CommandLine, name: str, kind: type[BaseException]
) -> None:
    error = kind()
    cli.rebind(name, raising(error))
    given: dict[str, Any] = {}
    assert failure(kind, cli.parser.get_bfd_neighbor, "command", given) is error
    assert given == {}
    assert cli.logged == []


@pytest.mark.parametrize("name", ["get_cli_command_output", "text_", "_CHARSET"])
def test_a_missing_global_is_a_name_error(cli: CommandLine, name: str) -> None:
    cli.unbind(name)
    error = failure(NameError, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == f"name '{name}' is not defined"


def test_the_log_is_looked_up_when_it_is_written(cli: CommandLine) -> None:
    later = Recorder()

    def debug(text: str) -> None:
        cli.logger.debug.answer = later

    cli.logger.debug.answer = debug
    parsed(cli, "peer A is B", "peer C is D", "peer E is F", "Local timers")
    assert later.positional == [(NOT_ITERABLE,), (OUT_OF_RANGE,)]
    assert cli.logged == [NOT_ITERABLE, NOT_ITERABLE, OUT_OF_RANGE]


@pytest.mark.parametrize("kind", [Failed, KeyboardInterrupt])
def test_a_failing_log_propagates(cli: CommandLine, kind: type[BaseException]) -> None:
    error = kind("the log")
    cli.logger.debug.answer = raising(error)
    given: dict[str, Any] = {}
    cli.prints("echo", "peer A is B", "peer C is D", "peer E is F")
    assert failure(kind, cli.parser.get_bfd_neighbor, "command", given) is error
    assert cli.logged == [NOT_ITERABLE]
    assert given == {}


def test_without_a_logger_the_log_line_is_a_name_error(cli: CommandLine) -> None:
    cli.unbind("_logger")
    cli.prints("echo", "peer A")
    error = failure(NameError, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == "name '_logger' is not defined"


def test_a_logger_without_debug_is_an_attribute_error(cli: CommandLine) -> None:
    cli.rebind("_logger", object())
    cli.prints("echo", "peer A")
    error = failure(AttributeError, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == "'object' object has no attribute 'debug'"


def test_the_caught_exception_is_handled_while_it_is_logged_and_no_longer(
    cli: CommandLine,
) -> None:
    handled: list[object] = []
    cli.logger.debug.answer = lambda text: handled.append(type(sys.exc_info()[1]))
    parsed(cli, "peer A")
    assert handled == [IndexError]
    assert sys.exc_info() == (None, None, None)
    outer = Failed("being handled by the caller")
    try:
        raise outer
    except Failed:
        parsed(cli, "peer A")
        assert sys.exc_info()[1] is outer
    assert handled == [IndexError, IndexError]


def test_logged_exception_has_its_traceback_set(cli: CommandLine) -> None:
    seen: list[tuple[Any, Any]] = []

    def debug(text: str) -> None:
        _kind, value, traceback = sys.exc_info()
        assert value is not None
        seen.append((value.__traceback__, traceback))

    cli.logger.debug.answer = debug
    parsed(cli, "peer A")
    ((of_the_exception, handled),) = seen
    assert handled is not None
    assert of_the_exception is handled


# Memory, of the native module only


def _starved() -> list[list[Any]]:
    """Parses in which the interpreter's first, second, third … request for memory fails.

    Of each: what was raised, what was logged, the fields of the one session, if it is there. The
    last parse is the first in which nothing fails.
    """
    import _testcapi

    from tests.support.assertions import RecordingLogger
    from veldarin_simulator import Simulator

    told: list[list[Any]] = []
    with Simulator(live=False) as simulator:
        module: Any = simulator.module
        output = "echo\npeer A is B\nx: 1\nLocal timers\na: 1\nb: 2\nc: 3\ny: 2\nz: 3"
        module.get_cli_command_output = lambda command: output
        call = module.get_bfd_neighbor
        for start in range(1000):
            logger = module._logger = RecordingLogger()
            sessions: dict[str, Any] = {}
            raised = None
            _testcapi.set_nomemory(start, start + 1)
            try:
                call("command", sessions)
            except BaseException as error:
                raised = type(error).__name__
            finally:
                _testcapi.remove_mem_hooks()
            fields = list(sessions["A_B"].items()) if "A_B" in sessions else None
            told.append([raised, logger.debugged, fields])
            if raised is None and not logger.debugged:
                break
    return told


def test_memory_that_fails_within_a_line_is_logged_and_the_parse_goes_on() -> None:
    whole = [
        *(("neighbor_ip", "A"), ("interface", "B"), ("name", "A_B"), ("x", "1")),
        *(("local_timers", {"a": "1", "b": "2", "c": "3"}), ("y", "2"), ("z", "3")),
    ]
    *starved, well_fed = isolated.value(_starved)
    assert [tuple(field) for field in well_fed[2]] == whole
    logged_instead = [fields for raised, _, fields in starved if raised is None]
    assert len(logged_instead) >= 6
    for raised, logged, fields in starved:
        if raised is not None:
            assert (raised, logged, fields) == ("MemoryError", [], None)
        else:
            assert logged == ["e:"], "the one failure, and its empty text"
            kept = None if fields is None else [tuple(field) for field in fields]
            assert kept is None or kept[-1] == ("z", "3") or kept == whole[:-1]


# Lines, of the native module only


def test_lines_ascend_with_the_statements(native_cli: CommandLine) -> None:
    cli = native_cli
    call = cli.parser.get_bfd_neighbor

    def line_of(kind: type[BaseException], given: object = None) -> int:
        return line(failure(kind, call, "command", given), FUNCTION)

    cli.prints(None)
    in_first = line_of(TypeError)
    cli.prints(["peer"])
    prefix = line_of(TypeError)
    cli.prints(("peer", "objname"))
    split = line_of(AttributeError)
    cli.prints("echo", "peer A")
    cli.logger.debug.answer = raising(Failed())
    log = line_of(Failed)
    cli.prints("echo", "peer A is B")
    member = line_of(TypeError)
    known = line_of(TypeError, {"A_B": None})
    new = line_of(TypeError, ())
    cli.rebind("text_", raising(Failed()))
    fetch = line_of(Failed)
    binding = failure(TypeError, call)
    assert line(binding, FUNCTION) == entry(binding, FUNCTION).first_line
    lines = [line(binding, FUNCTION), fetch, in_first, prefix, split, log, member, known, new]
    assert ascending([250, *lines, 352])


def test_the_runners_failure_shows_both_functions(
    simulator: Any, module: ModuleType, native_cli: CommandLine
) -> None:
    native_cli.monkeypatch.undo()
    simulator.set_reply("get_cli_cmd_output", None)
    error = failure(module.CFunctionError, module.get_bfd_neighbor, "command", {})
    assert error.args == ("get_cli_command_output's result is null.",)
    names = [found.function for found in traceback_entries(error.__traceback__)]
    assert names == [FUNCTION, "get_cli_command_output"]


def test_the_text_comes_from_the_host(simulator: Any, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", "echo\r\npeer A is B\r\n--More--\r c: 1\r\n")
    sessions = module.get_bfd_neighbor("get router info bfd neighbor", {})
    assert sessions == {"A_B\r": {"neighbor_ip": "A", "interface": "B", "name": "A_B\r", "c": "1"}}
    assert [call.text for call in simulator.call_log] == [b"get router info bfd neighbor"]

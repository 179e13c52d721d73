"""The BFD detail parser of the module and of the reference model: sessions, timers, lines that fail
and are logged, and the shared default dictionary."""

from __future__ import annotations

from collections.abc import Iterator, MutableMapping
from types import ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import entry, is_increasing, line, raises_exactly, with_types
from tests.support.doubles import Failure, Recorder, RightAddable, StrSubclass, raiser
from tests.support.fake_cli import FakeCli

FUNCTION = "get_bfd_neighbor"
OUT_OF_RANGE = "e:list index out of range"
NOT_ITERABLE = "e:argument of type 'type' is not iterable"


def parsed(cli: FakeCli, *lines: str) -> Any:
    """The sessions of an output with these lines, the echo of the command before them."""
    cli.set_output("echo", *lines)
    return cli.parser.get_bfd_neighbor("command", {})


def session(cli: FakeCli, *lines: str) -> list[tuple[str, Any]]:
    """The items of the one session that starts with the header 'peer A is B'."""
    sessions = parsed(cli, "peer A is B", *lines)
    assert list(sessions) == ["A_B"]
    items = list(sessions["A_B"].items())
    assert items[:3] == [("neighbor_ip", "A"), ("interface", "B"), ("name", "A_B")]
    return items[3:]


TIMERS = {"detect_multiplier": "3", "receive_interval": "250", "transmit_interval": "250"}


def test_session_with_timers_is_parsed(cli: FakeCli) -> None:
    cli.set_output(
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
    assert with_types(sessions) == with_types(
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
    assert cli.debug_messages == []


# Whole output


def test_command_is_passed_and_output_decoded(cli: FakeCli) -> None:
    command, output, character_set = object(), object(), object()
    decode = Recorder(lambda value, encoding: "echo\npeer A is B")
    cli.set_output(output)
    cli.patch("text_", decode)
    cli.patch("_CHARSET", character_set)
    assert list(cli.parser.get_bfd_neighbor(command, {})) == ["A_B"]
    assert cli.commands == [command]
    assert decode.positional == [(output, character_set)]


def test_bytes_output_is_decoded(cli: FakeCli) -> None:
    cli.set_output(b"echo\npeer A is \xc3\xa9")
    assert list(cli.parser.get_bfd_neighbor("command", {})) == ["A_\u00e9"]


@pytest.mark.parametrize("output", ["", "\n\n", "pee r", "PEER a b c", "echo\nLocal Diag: 0"])
def test_output_without_peer_keeps_dictionary(cli: FakeCli, output: str) -> None:
    cli.set_output(output)
    given = {"old": {"a": "1"}}
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert given == {"old": {"a": "1"}}
    assert cli.parser.get_bfd_neighbor("command", 5) == 5, "it is not even looked at"
    assert cli.debug_messages == []


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
def test_one_header_line_is_skipped_or_two_with_objname(
    cli: FakeCli, lines: list[str], names: list[str]
) -> None:
    cli.set_output(*lines)
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
def test_output_of_header_lines_only_logs_index_error(
    cli: FakeCli, output: str, logged: list[str]
) -> None:
    cli.set_output(output)
    given: dict[str, Any] = {}
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert given == {}
    assert cli.debug_messages == logged


def test_only_line_feed_ends_line(cli: FakeCli) -> None:
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
def test_peer_line_names_session(
    cli: FakeCli, header: str, neighbor_ip: str, interface: str, name: str
) -> None:
    sessions = parsed(cli, header)
    expected = {"neighbor_ip": neighbor_ip, "interface": interface, "name": name}
    assert with_types(sessions) == with_types({name: expected})
    assert cli.debug_messages == []


# Short texts are built in a buffer of 64 characters; longer ones are not.
AROUND_BUFFER_SIZE = pytest.mark.parametrize("size", [63, 64, 65, 66])


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("address_size", [1, 31, 60])
def test_session_name_around_buffer_size_is_complete(
    cli: FakeCli, size: int, address_size: int
) -> None:
    address, interface = "a" * address_size, "i" * (size - address_size - 1)
    name = f"{address}_{interface}"
    assert len(name) == size
    assert parsed(cli, f"peer {address} is {interface}") == {
        name: {"neighbor_ip": address, "interface": interface, "name": name}
    }


def test_tabs_are_removed_before_peer_line_is_recognized(cli: FakeCli) -> None:
    assert list(parsed(cli, "p\te\ter\t A is B", "peer")) == ["A_B"]
    assert parsed(cli, "peer\tA is B") == {}


@pytest.mark.parametrize("line_", ["peer", "peer:", "xpeer", "peer\tA", "peerA is B", "peer\xa0A"])
def test_peer_without_space_is_not_peer_line(cli: FakeCli, line_: str) -> None:
    assert parsed(cli, line_) == {}
    assert cli.debug_messages == []


def test_fields_before_first_peer_line_come_first(cli: FakeCli) -> None:
    sessions = parsed(cli, "a: 1", "neighbor ip: x", "peer A is B", "c: 3")
    assert list(sessions["A_B"].items()) == [
        ("a", "1"),
        ("neighbor_ip", "A"),
        ("interface", "B"),
        ("name", "A_B"),
        ("c", "3"),
    ]


@pytest.mark.parametrize("header", ["peer ", "peer A", "peer A is", "peer  "])
def test_short_peer_line_logs_and_names_nothing(cli: FakeCli, header: str) -> None:
    assert parsed(cli, header, "a: 1") == {}
    assert cli.debug_messages == [OUT_OF_RANGE]


def test_peer_line_after_short_one_starts_session(cli: FakeCli) -> None:
    sessions = parsed(cli, "peer X is", "a: 1", "peer A is B", "b: 2")
    assert list(sessions) == ["A_B"]
    assert list(sessions["A_B"].items()) == [
        ("neighbor_ip", "A"),
        ("a", "1"),
        ("interface", "B"),
        ("name", "A_B"),
        ("b", "2"),
    ]
    assert cli.debug_messages == [OUT_OF_RANGE]


def test_later_peer_line_logs_and_keeps_first_session(cli: FakeCli) -> None:
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
    assert with_types(sessions) == with_types(
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
    assert cli.debug_messages == [NOT_ITERABLE, NOT_ITERABLE]


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
def test_line_with_colon_is_field(cli: FakeCli, line_: str, key: str, value: str) -> None:
    assert with_types(session(cli, line_)) == with_types([(key, value)])
    assert cli.debug_messages == []


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("word", ["", "packets"])
@pytest.mark.parametrize("before", [0, 20, None], ids=["first", "inside", "last"])
def test_value_around_buffer_size_is_complete(
    cli: FakeCli, size: int, word: str, before: int | None
) -> None:
    rest = "v" * (size - len(word))
    value = rest + word if before is None else rest[:before] + word + rest[before:]
    assert len(value) == size
    assert session(cli, f"a: {value}") == [("a", rest)]


@AROUND_BUFFER_SIZE
@pytest.mark.parametrize("word", ["", "packets"])
def test_key_around_buffer_size_is_complete(cli: FakeCli, size: int, word: str) -> None:
    key = (word + "K " * size)[: size - 1] + "k"
    assert session(cli, f" {key} : 1") == [(key.lower().replace(" ", "_"), "1")]


@AROUND_BUFFER_SIZE
def test_timer_around_buffer_size_is_complete(cli: FakeCli, size: int) -> None:
    key, value = "k" * size, ("v" * size + "packets")[-size:]
    lines = [f"{key}: {value}", f"b: {value}", f"{key}: 3"]
    assert session(cli, "Local timers", *lines) == [("local_timers", {key: "3", "b": value})]


# A scan that skips spaces several characters at a time could mistake these for spaces.
NO_SPACES = [chr(code) for code in range(128) if not chr(code).isspace() and chr(code) != ":"]


@pytest.mark.parametrize("size", [4, 8, 16, 19])
def test_repeated_nonspace_character_is_not_stripped(cli: FakeCli, size: int) -> None:
    repeated = [character * size for character in NO_SPACES]
    values = [f"key {number}: {text}" for number, text in enumerate(repeated)]
    assert session(cli, *values) == [
        (f"key_{number}", text) for number, text in enumerate(repeated)
    ]
    keys = [f"{text}x: {number}" for number, text in enumerate(repeated)]
    fields = {f"{text}x".lower(): str(number) for number, text in enumerate(repeated)}
    assert session(cli, *keys) == list(fields.items())


def test_text_in_last_cache_slot_is_returned(cli: FakeCli) -> None:
    """The hash of this text, found by a search, is one of the 256 largest on any byte order."""
    text = "&((&xxxxx7aa7"
    assert session(cli, f"{text}: {text}", f"b: {text}") == [(text, text), ("b", text)]


@pytest.mark.parametrize("line_", ["", " ", "\t", "\r", "\x1c \u2028", "no colon", "Local Timers"])
def test_line_without_colon_is_ignored(cli: FakeCli, line_: str) -> None:
    assert session(cli, line_, "a: 1") == [("a", "1")]
    assert cli.debug_messages == []


def test_repeated_field_keeps_position_and_last_value(cli: FakeCli) -> None:
    assert session(cli, "a: 1", "b: 2", "A: 3") == [("a", "3"), ("b", "2")]


def test_field_overwrites_peer_line_value(cli: FakeCli) -> None:
    sessions = parsed(cli, "peer A is B", "Name: other", "Interface: x")
    assert sessions == {"A_B": {"neighbor_ip": "A", "interface": "x", "name": "other"}}


def test_field_named_like_dict_parameter_is_merged(cli: FakeCli) -> None:
    given = {"A_B": {"self": "0"}}
    cli.set_output("echo", "peer A is B", "self: 1", "iterable: 2")
    cli.parser.get_bfd_neighbor("command", given)
    assert given["A_B"]["self"] == "1"
    assert given["A_B"]["iterable"] == "2"


# Timers

KEYS = pytest.mark.parametrize(
    "title, key", [("Local timers", "local_timers"), ("Remote timers", "remote_timers")]
)


@KEYS
@pytest.mark.parametrize("before, after", [("", ""), (" \t ", " of: the peer"), ("\u2003\t", ":")])
def test_three_lines_after_title_are_timers(
    cli: FakeCli, title: str, key: str, before: str, after: str
) -> None:
    items = session(
        cli,
        before + title + after,
        "\tDetect Multiplier\t: 3",
        " B b :\t4 packets:5",
        "c:\r",
        "d: 6",
    )
    assert with_types(items) == with_types(
        [(key, {"detect_multiplier": "3", "b_b": "4 packets", "c": ""}), ("d", "6")]
    )
    assert cli.debug_messages == []


@KEYS
def test_timer_lines_have_no_other_meaning(cli: FakeCli, title: str, key: str) -> None:
    items = session(cli, title, "peer C is D: 1", title + ": 2", ":", "Remote x: y")
    assert items == [
        (key, {"peer_c_is_d": "1", title.lower().replace(" ", "_"): "2", "": ""}),
        ("remote_x", "y"),
    ]
    assert cli.debug_messages == []


@KEYS
def test_repeated_timer_key_keeps_last_value(cli: FakeCli, title: str, key: str) -> None:
    assert session(cli, title, "a: 1", "A : 2", "b: 3") == [(key, {"a": "2", "b": "3"})]


@KEYS
@pytest.mark.parametrize(
    "lines, fields",
    [
        ([], []),
        (["a: 1"], [("a", "1")]),
        (["a: 1", "b: 2"], [("a", "1"), ("b", "2")]),
        (["none", "b: 2", "c: 3 packets"], [("b", "2"), ("c", "3 ")]),
        (["a: 1", "none", "c: 3 packets"], [("a", "1"), ("c", "3 ")]),
        (["a: 1", "b: 2", "none"], [("a", "1"), ("b", "2")]),
    ],
)
def test_incomplete_timers_log_and_become_fields(
    cli: FakeCli, title: str, key: str, lines: list[str], fields: list[tuple[str, str]]
) -> None:
    assert session(cli, title, *lines) == fields
    assert cli.debug_messages == [OUT_OF_RANGE]


def test_adjacent_timer_blocks_are_separate(cli: FakeCli) -> None:
    three = ["a: 1", "b: 2", "c: 3"]
    items = session(cli, "Local timers", *three, "Remote timers", *three, "Local timers", *three)
    timers = {"a": "1", "b": "2", "c": "3"}
    assert items == [("local_timers", timers), ("remote_timers", timers)]
    local, remote = (value for _, value in items)
    assert local is not remote


def test_failed_timer_block_keeps_earlier_one(cli: FakeCli) -> None:
    items = session(cli, "Local timers", "a: 1", "b: 2", "c: 3", "Local timers", "d: 4")
    assert items == [("local_timers", {"a": "1", "b": "2", "c": "3"}), ("d", "4")]
    assert cli.debug_messages == [OUT_OF_RANGE]


# Where the session goes


def test_given_dictionary_is_filled_and_returned(cli: FakeCli) -> None:
    given: dict[str, Any] = {"Z": {"z": "1"}}
    cli.set_output("echo", "peer A is B", "a: 1")
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert list(given) == ["Z", "A_B"]
    assert cli.shared == {}


def test_arguments_by_keyword_are_accepted(cli: FakeCli) -> None:
    given: dict[str, Any] = {}
    cli.set_output("echo", "peer A is B")
    assert cli.parser.get_bfd_neighbor(list_bfd=given, cmd="the command") is given
    assert cli.commands == ["the command"]
    assert list(given) == ["A_B"]


def test_known_session_is_merged_into_new_dictionary(cli: FakeCli) -> None:
    old = {"b": "old", "name": "old", "z": "old"}
    given: dict[str, Any] = {"A_B": old, "Z": {}}
    cli.set_output("echo", "peer A is B", "a: new", "b: new")
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


def test_calls_without_dictionary_share_one(cli: FakeCli) -> None:
    cli.set_output("echo", "peer A is B", "a: 1", "b: 1")
    first = cli.parser.get_bfd_neighbor("command")
    entry_ = first["A_B"]
    cli.set_output("echo", "peer C is D", "c: 1")
    assert cli.parser.get_bfd_neighbor("command") is first
    cli.set_output("echo", "peer A is B", "b: 2", "c: 2")
    assert cli.parser.get_bfd_neighbor(cmd="command") is first
    cli.set_output("nothing")
    assert cli.parser.get_bfd_neighbor("command") is first
    assert list(first) == ["A_B", "C_D"]
    assert list(first["A_B"].items())[3:] == [("a", "1"), ("b", "2"), ("c", "2")]
    assert entry_["b"] == "1", "the merged entry is a new dictionary"


class RecordingMapping(MutableMapping):
    """A mapping that is not a dict and records its use."""

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


class RecordingDict(dict):
    """A dict that records its use."""

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


@pytest.mark.parametrize("kind", [RecordingMapping, RecordingDict])
def test_mapping_is_filled_through_object_protocol(cli: FakeCli, kind: Any) -> None:
    cli.set_output("echo", "peer A is B", "a: 1")
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
def test_unsuitable_mapping_raises_interpreter_error(
    cli: FakeCli, given: object, kind: type[Exception], text: str
) -> None:
    cli.set_output("echo", "peer A is B")
    error = raises_exactly(kind, cli.parser.get_bfd_neighbor, "command", given)
    assert str(error) == text
    assert cli.debug_messages == []


def test_known_session_of_pairs_is_merged(cli: FakeCli) -> None:
    cli.set_output("echo", "peer A is B")
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
def test_mapping_error_propagates(cli: FakeCli, step: str) -> None:
    error = Failure(step)

    class Fails(RecordingDict):
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

    cli.set_output("echo", "peer A is B")
    assert raises_exactly(Failure, cli.parser.get_bfd_neighbor, "command", Fails()) is error
    assert cli.debug_messages == []


# Output that is not a string


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
def test_non_str_output_raises_interpreter_error(
    cli: FakeCli, value: object, kind: type[Exception], text: str
) -> None:
    cli.set_output(value)
    error = raises_exactly(kind, cli.parser.get_bfd_neighbor, "command", {})
    assert str(error) == text
    assert cli.debug_messages == []


@pytest.mark.parametrize("value", [[], ["no such"], {}, ()], ids=repr)
def test_container_without_peer_is_not_parsed(cli: FakeCli, value: object) -> None:
    cli.set_output(value)
    assert cli.parser.get_bfd_neighbor("command", {"a": 1}) == {"a": 1}


@pytest.mark.parametrize("output", ["echo\npeer A is B\nc: 1", "objname\necho\npeer A is B\nc: 1"])
def test_str_subclass_output_is_parsed(cli: FakeCli, output: str) -> None:
    cli.set_output(StrSubclass(output))
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert with_types(sessions) == with_types(
        {"A_B": {"neighbor_ip": "A", "interface": "B", "name": "A_B", "c": "1"}}
    )


def test_right_addable_output_skips_two_lines(cli: FakeCli) -> None:
    cli.set_output(RightAddable("a: 0\nb: 1\npeer A is B\nc: 2"))
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert list(sessions) == ["A_B"]
    assert list(sessions["A_B"]) == ["b", "neighbor_ip", "interface", "name", "c"]
    assert cli.debug_messages == []


def test_right_addable_output_of_two_lines_logs(cli: FakeCli) -> None:
    cli.set_output(RightAddable("peer A is B"))
    assert cli.parser.get_bfd_neighbor("command", {}) == {}
    assert cli.debug_messages == [OUT_OF_RANGE]


@pytest.mark.parametrize("word", ["peer", "objname"])
@pytest.mark.parametrize("kind", [Failure, KeyboardInterrupt])
def test_membership_error_of_output_propagates(
    cli: FakeCli, word: str, kind: type[BaseException]
) -> None:
    error = kind(word)

    class FailingText(StrSubclass):
        def __contains__(self, wanted: object) -> bool:
            if wanted == word:
                raise error
            return str(wanted) in str(self)

    cli.set_output(FailingText("echo\npeer A is B\nc: 1"))
    given: dict[str, Any] = {}
    assert raises_exactly(kind, cli.parser.get_bfd_neighbor, "command", given) is error
    assert given == {}
    assert cli.debug_messages == []


# Failures outside the lines, and in the log


def test_debug_is_looked_up_for_each_log_line(cli: FakeCli) -> None:
    later = Recorder()

    def debug(text: str) -> None:
        cli.logger.debug.side_effect = later

    cli.logger.debug.side_effect = debug
    parsed(cli, "peer A is B", "peer C is D", "peer E is F", "Local timers")
    assert later.positional == [(NOT_ITERABLE,), (OUT_OF_RANGE,)]
    assert cli.debug_messages == [NOT_ITERABLE, NOT_ITERABLE, OUT_OF_RANGE]


@pytest.mark.parametrize("kind", [Failure, KeyboardInterrupt])
def test_logger_error_propagates(cli: FakeCli, kind: type[BaseException]) -> None:
    error = kind("the log")
    cli.logger.debug.side_effect = raiser(error)
    given: dict[str, Any] = {}
    cli.set_output("echo", "peer A is B", "peer C is D", "peer E is F")
    assert raises_exactly(kind, cli.parser.get_bfd_neighbor, "command", given) is error
    assert cli.debug_messages == [NOT_ITERABLE]
    assert given == {}


def test_missing_logger_raises_name_error(cli: FakeCli) -> None:
    cli.delete("_logger")
    error = raises_exactly(NameError, parsed, cli, "peer A")
    assert str(error) == "name '_logger' is not defined"


def test_logger_without_debug_raises_attribute_error(cli: FakeCli) -> None:
    cli.patch("_logger", object())
    error = raises_exactly(AttributeError, parsed, cli, "peer A")
    assert str(error) == "'object' object has no attribute 'debug'"


# Memory, of the native module only


def _parse_without_memory() -> list[list[Any]]:
    """Parse while the first, second, third … allocation fails, until no allocation fails.

    Returns the exception, the log and the fields of the session, if any, of each call.
    """
    import _testcapi

    from tests.support.doubles import RecordingLogger
    from veldarin_simulator import Simulator

    results: list[list[Any]] = []
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
            results.append([raised, logger.debug_messages, fields])
            if raised is None and not logger.debug_messages:
                break
    return results


def test_memory_error_in_line_is_logged_and_parsing_goes_on() -> None:
    whole = [
        *(("neighbor_ip", "A"), ("interface", "B"), ("name", "A_B"), ("x", "1")),
        *(("local_timers", {"a": "1", "b": "2", "c": "3"}), ("y", "2"), ("z", "3")),
    ]
    *failed, complete = isolated.value(_parse_without_memory)
    assert [tuple(field) for field in complete[2]] == whole
    logged_instead = [fields for raised, _, fields in failed if raised is None]
    assert len(logged_instead) >= 6
    for raised, logged, fields in failed:
        if raised is not None:
            assert (raised, logged, fields) == ("MemoryError", [], None)
        else:
            assert logged == ["e:"], "the one failure, and its empty text"
            kept = None if fields is None else [tuple(field) for field in fields]
            assert kept is None or kept[-1] == ("z", "3") or kept == whole[:-1]


# Lines, of the native module only


def test_traceback_lines_increase_with_statements(native_cli: FakeCli) -> None:
    cli = native_cli
    call = cli.parser.get_bfd_neighbor

    def line_of(kind: type[BaseException], given: object = None) -> int:
        return line(raises_exactly(kind, call, "command", given), FUNCTION)

    cli.set_output(None)
    in_first = line_of(TypeError)
    cli.set_output(["peer"])
    prefix = line_of(TypeError)
    cli.set_output(("peer", "objname"))
    split = line_of(AttributeError)
    cli.set_output("echo", "peer A")
    cli.logger.debug.side_effect = raiser(Failure())
    log = line_of(Failure)
    cli.set_output("echo", "peer A is B")
    member = line_of(TypeError)
    known = line_of(TypeError, {"A_B": None})
    new = line_of(TypeError, ())
    cli.patch("text_", raiser(Failure()))
    fetch = line_of(Failure)
    binding = raises_exactly(TypeError, call)
    assert line(binding, FUNCTION) == entry(binding, FUNCTION).first_line
    lines = [line(binding, FUNCTION), fetch, in_first, prefix, split, log, member, known, new]
    assert is_increasing([250, *lines, 352])


def test_native_output_is_parsed(simulator: Any, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", "echo\r\npeer A is B\r\n--More--\r c: 1\r\n")
    sessions = module.get_bfd_neighbor("get router info bfd neighbor", {})
    assert sessions == {"A_B\r": {"neighbor_ip": "A", "interface": "B", "name": "A_B\r", "c": "1"}}
    assert [call.text for call in simulator.call_log] == [b"get router info bfd neighbor"]

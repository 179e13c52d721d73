"""The BFD detail parser of the module and of the reference model: sessions, timers, lines that fail
and are logged, and the shared default dictionary. test_parsers.py covers what all parsers have in
common."""

from __future__ import annotations

from collections import UserDict
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import entry, line, raises_exactly, with_types
from tests.support.doubles import Failure, Recorder, RightAddable, StrSubclass, fail, raiser
from tests.support.fake_cli import FakeCli

FUNCTION = "get_bfd_neighbor"
OUT_OF_RANGE = "e:list index out of range"
NOT_ITERABLE = "e:argument of type 'type' is not iterable"
HEADER = {"neighbor_ip": "A", "interface": "B", "name": "A_B"}


def parsed(cli: FakeCli, *lines: str) -> Any:
    """The sessions of an output with these lines, the echo of the command before them."""
    cli.set_output("echo", *lines)
    return cli.parser.get_bfd_neighbor("command", {})


def session(cli: FakeCli, *lines: str) -> dict[str, Any]:
    """The fields below the header of the only session, which starts with 'peer A is B'."""
    ((name, fields),) = parsed(cli, "peer A is B", *lines).items()
    assert name == "A_B"
    assert list(fields.items())[:3] == list(HEADER.items())
    return {key: fields[key] for key in [*fields][3:]}


# Whole output


@pytest.mark.parametrize(
    "output", ["", "\n\n", "pee r", "PEER a b c", "echo\nLocal Diag: 0", [], ["no such"], {}, ()]
)
def test_output_without_peer_keeps_dictionary(cli: FakeCli, output: object) -> None:
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
        (["peer", ""], []),
    ],
)
@pytest.mark.parametrize("kind", [str, StrSubclass])
def test_one_header_line_is_skipped_or_two_with_objname(
    cli: FakeCli, lines: list[str], names: list[str], kind: type[str]
) -> None:
    cli.set_output(kind("\n".join(lines)))
    assert list(cli.parser.get_bfd_neighbor("command", {})) == names


def test_right_addable_output_skips_two_lines(cli: FakeCli) -> None:
    cli.set_output(RightAddable("a: 0\nb: 1\npeer A is B\nc: 2"))
    sessions = cli.parser.get_bfd_neighbor("command", {})
    assert list(sessions) == ["A_B"]
    assert list(sessions["A_B"]) == ["b", "neighbor_ip", "interface", "name", "c"]
    assert cli.debug_messages == []


@pytest.mark.parametrize(
    "output",
    ["peer 1 is a", "peer", "peer objname", "objname\npeer 1 is a", RightAddable("peer A is B")],
)
def test_output_of_header_lines_only_logs_index_error(cli: FakeCli, output: object) -> None:
    cli.set_output(output)
    given: dict[str, Any] = {}
    assert cli.parser.get_bfd_neighbor("command", given) is given
    assert given == {}
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
        ("p\te\ter\t A is B", "A", "B", "A_B"),
        ("peer A\tx is B\t2", "Ax", "B2", "Ax_B2"),
        ("peer A: is B: x", "A:", "B:", "A:_B:"),
        ("Local timers of peer B", "timers", "peer", "timers_peer"),
        ("peer \u00e9 is \U0001f600", "\u00e9", "\U0001f600", "\u00e9_\U0001f600"),
    ],
)
def test_peer_line_names_session(
    cli: FakeCli, header: str, neighbor_ip: str, interface: str, name: str
) -> None:
    sessions = parsed(cli, header, "peer")
    expected = {"neighbor_ip": neighbor_ip, "interface": interface, "name": name}
    assert with_types(sessions) == with_types({name: expected})
    assert cli.debug_messages == []


@pytest.mark.parametrize(
    "line_", ["peer", "peer:", "xpeer", "peer\tA", "peer\tA is B", "peerA is B", "peer\xa0A"]
)
def test_peer_without_space_is_not_peer_line(cli: FakeCli, line_: str) -> None:
    assert parsed(cli, line_, "peer") == {}
    assert cli.debug_messages == []


@pytest.mark.parametrize("header", ["peer ", "peer A", "peer A is", "peer  "])
def test_short_peer_line_logs_and_names_nothing(cli: FakeCli, header: str) -> None:
    assert parsed(cli, header, "a: 1") == {}
    assert cli.debug_messages == [OUT_OF_RANGE]


THREE = ["a: 1", "b: 1", "c: 1"]


@pytest.mark.parametrize(
    "lines, fields, logged",
    [
        pytest.param(
            ["a: 1", "neighbor ip: x", "peer A is B", "c: 3"],
            {"a": "1", **HEADER, "c": "3"},
            [],
            id="fields before the first peer line come first",
        ),
        pytest.param(
            ["peer X is", "a: 1", "peer A is B", "b: 2"],
            {"neighbor_ip": "A", "a": "1", "interface": "B", "name": "A_B", "b": "2"},
            [OUT_OF_RANGE],
            id="peer line after a short one starts the session",
        ),
        pytest.param(
            ["peer A is B", "Name: other", "Interface: x"],
            {"neighbor_ip": "A", "interface": "x", "name": "other"},
            [],
            id="field overwrites a value of the peer line",
        ),
        pytest.param(
            [
                *("peer A is B", "x: 1", "y: 1", "Local timers", *THREE),
                *("peer C is D", "Local timers", "d: 2", "e: 2", "f: 2", "y: 2", "z: 2"),
                *("peer", "peer E"),
            ],
            {
                **HEADER,
                "x": "1",
                "y": "2",
                "local_timers": {"d": "2", "e": "2", "f": "2"},
                "z": "2",
            },
            [NOT_ITERABLE, NOT_ITERABLE],
            id="later peer line is logged and keeps the first session",
        ),
    ],
)
def test_peer_line_among_fields_starts_one_session(
    cli: FakeCli, lines: list[str], fields: dict[str, object], logged: list[str]
) -> None:
    sessions = parsed(cli, *lines)
    assert with_types(sessions) == with_types({"A_B": fields})
    assert cli.debug_messages == logged


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
        ("a: 1\rb: 2", "a", "1\rb"),
        ("a: 3\x0bd: 4\x1ce: 5\x85f: 6\u2028g: 7", "a", "3\x0bd"),
        ("Packets received: 52 packets", "packets_received", "52 "),
        ("a\x0bB\x1cc: \x1dx\x0cy\x1f", "a\x0bb\x1cc", "x\x0cy"),
        ("\x1e A B\x0b:", "a_b", ""),
        ("a\x0b\tb: 1", "a\x0bb", "1"),
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
        ("Local timer: 1", "local_timer", "1"),
        ("Remote timer: 1", "remote_timer", "1"),
    ],
)
def test_line_with_colon_is_field(cli: FakeCli, line_: str, key: str, value: str) -> None:
    assert with_types(session(cli, line_)) == with_types({key: value})
    assert cli.debug_messages == []


@pytest.mark.parametrize("line_", ["", " ", "\t", "\r", "\x1c \u2028", "no colon", "Local Timers"])
def test_line_without_colon_is_ignored(cli: FakeCli, line_: str) -> None:
    assert session(cli, line_, "a: 1") == {"a": "1"}
    assert cli.debug_messages == []


def test_repeated_field_keeps_position_and_last_value(cli: FakeCli) -> None:
    assert [*session(cli, "a: 1", "b: 2", "A: 3").items()] == [("a", "3"), ("b", "2")]


# Short texts are built in a buffer of 64 characters; longer ones are not.
@pytest.mark.parametrize("size", [63, 64, 65, 66])
def test_text_around_buffer_size_is_complete(cli: FakeCli, size: int) -> None:
    for address_size in (1, 31, 60):
        address, interface = "a" * address_size, "i" * (size - address_size - 1)
        name = f"{address}_{interface}"
        assert len(name) == size
        assert parsed(cli, f"peer {address} is {interface}") == {
            name: {"neighbor_ip": address, "interface": interface, "name": name}
        }
    for word in ("", "packets"):
        rest = "v" * (size - len(word))
        for at in (0, 20, len(rest)):
            assert session(cli, f"a: {rest[:at]}{word}{rest[at:]}") == {"a": rest}
        key = (word + "K " * size)[: size - 1] + "k"
        assert session(cli, f" {key} : 1") == {key.lower().replace(" ", "_"): "1"}
    key, value = "k" * size, ("v" * size + "packets")[-size:]
    lines = [f"{key}: {value}", f"b: {value}", f"{key}: 3"]
    assert session(cli, "Local timers", *lines) == {"local_timers": {key: "3", "b": value}}


# A scan that skips spaces several characters at a time could mistake these for spaces.
NO_SPACES = [chr(code) for code in range(128) if not chr(code).isspace() and chr(code) != ":"]


@pytest.mark.parametrize("size", [4, 8, 16, 19])
def test_repeated_nonspace_character_is_not_stripped(cli: FakeCli, size: int) -> None:
    values = {f"key_{number}": text * size for number, text in enumerate(NO_SPACES)}
    assert session(cli, *(f"{key}: {text}" for key, text in values.items())) == values
    keys = {f"{text * size}x": str(number) for number, text in enumerate(NO_SPACES)}
    fields = {key.lower(): number for key, number in keys.items()}
    assert session(cli, *(f"{key}: {number}" for key, number in keys.items())) == fields


def test_text_in_last_cache_slot_is_returned(cli: FakeCli) -> None:
    """The hash of this text, found by a search, is one of the 256 largest on any byte order."""
    text = "&((&xxxxx7aa7"
    assert session(cli, f"{text}: {text}", f"b: {text}") == {text: text, "b": text}


# Timers

KEYS = pytest.mark.parametrize(
    "title, key", [("Local timers", "local_timers"), ("Remote timers", "remote_timers")]
)


@KEYS
@pytest.mark.parametrize("before, after", [("", ""), (" \t ", " of: the peer"), ("\u2003\t", ":")])
@pytest.mark.parametrize(
    "lines, timers",
    [
        pytest.param(
            ["\tDetect Multiplier\t: 3", " B b :\t4 packets:5", "c:\r"],
            {"detect_multiplier": "3", "b_b": "4 packets", "c": ""},
            id="fields",
        ),
        pytest.param(
            ["peer C is D: 1", "Local timers: 2", ":"],
            {"peer_c_is_d": "1", "local_timers": "2", "": ""},
            id="lines without their other meaning",
        ),
        pytest.param(["a: 1", "A : 2", "b: 3"], {"a": "2", "b": "3"}, id="repeated key"),
    ],
)
def test_three_lines_after_title_are_timers(
    cli: FakeCli,
    title: str,
    key: str,
    before: str,
    after: str,
    lines: list[str],
    timers: dict[str, str],
) -> None:
    fields = session(cli, before + title + after, *lines, "Remote x: y")
    assert with_types(fields) == with_types({key: timers, "remote_x": "y"})
    assert cli.debug_messages == []


@KEYS
@pytest.mark.parametrize(
    "lines, fields",
    [
        ([], {}),
        (["a: 1"], {"a": "1"}),
        (["a: 1", "b: 2"], {"a": "1", "b": "2"}),
        (["none", "b: 2", "c: 3 packets"], {"b": "2", "c": "3 "}),
        (["a: 1", "none", "c: 3 packets"], {"a": "1", "c": "3 "}),
        (["a: 1", "b: 2", "none"], {"a": "1", "b": "2"}),
    ],
)
def test_incomplete_timers_log_and_become_fields(
    cli: FakeCli, title: str, key: str, lines: list[str], fields: dict[str, str]
) -> None:
    timers = {"a": "1", "b": "1", "c": "1"}
    for block, earlier in (([], {}), ([title, *THREE], {key: timers})):
        cli.logger.debug.calls.clear()
        assert with_types(session(cli, *block, title, *lines)) == with_types({**earlier, **fields})
        assert cli.debug_messages == [OUT_OF_RANGE]


def test_adjacent_timer_blocks_are_separate(cli: FakeCli) -> None:
    fields = session(cli, *(["Local timers", *THREE, "Remote timers", *THREE] * 2))
    timers = {"a": "1", "b": "1", "c": "1"}
    assert with_types(fields) == with_types({"local_timers": timers, "remote_timers": timers})
    assert fields["local_timers"] is not fields["remote_timers"]


# Where the session goes


def test_given_dictionary_is_filled_and_returned(cli: FakeCli) -> None:
    given: dict[str, Any] = {"Z": {"z": "1"}}
    cli.set_output("echo", "peer A is B", "a: 1")
    assert cli.parser.get_bfd_neighbor(list_bfd=given, cmd="the command") is given
    assert cli.commands == ["the command"]
    assert list(given) == ["Z", "A_B"]
    assert cli.shared == {}


@pytest.mark.parametrize(
    "known, merged",
    [
        (
            {"b": "old", "name": "old", "z": "old"},
            {"b": "new", "name": "A_B", "z": "old", "neighbor_ip": "A", "interface": "B"},
        ),
        ([("x", 1), (5, "five")], dict([("x", 1), (5, "five"), *HEADER.items()])),
        # The names of the parameters of dict.update
        ({"self": "old", "iterable": "old"}, {"self": "old", "iterable": "old", **HEADER}),
    ],
    ids=["dictionary", "pairs", "parameter names"],
)
def test_known_session_is_merged_into_new_dictionary(
    cli: FakeCli, known: Any, merged: dict[object, object]
) -> None:
    given: dict[str, Any] = {"A_B": known, "Z": {}}
    cli.set_output("echo", "peer A is B", "b: new", "self: new", "iterable: new")
    before = with_types(known)
    cli.parser.get_bfd_neighbor("command", given)
    assert list(given) == ["A_B", "Z"]
    fields = {**merged, "b": "new", "self": "new", "iterable": "new"}
    assert with_types(given["A_B"]) == with_types(fields)
    assert given["A_B"] is not known
    assert with_types(known) == before


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


def recording(base: Any) -> Any:
    """A subclass of a mapping class that records its use; it cannot be iterated or measured."""

    class Recording(base):  # type: ignore[misc]
        __delitem__ = __iter__ = __len__ = fail

        def __init__(self, **items: Any) -> None:
            self.events: list[tuple[object, ...]] = []
            super().__init__(items)
            self.events.clear()

        def __contains__(self, key: object) -> Any:
            self.events.append(("contains", key))
            return super().__contains__(key)

        def __getitem__(self, key: Any) -> Any:
            self.events.append(("get", key))
            return super().__getitem__(key)

        def __setitem__(self, key: Any, value: Any) -> None:
            self.events.append(("set", key))
            super().__setitem__(key, value)

    return Recording


@pytest.mark.parametrize("base", [UserDict, dict])
def test_mapping_is_filled_through_object_protocol(cli: FakeCli, base: Any) -> None:
    cli.set_output("echo", "peer A is B", "a: 1")
    new = recording(base)()
    assert cli.parser.get_bfd_neighbor("command", new) is new
    assert new.events == [("contains", "A_B"), ("set", "A_B")]
    known = recording(base)(A_B={"z": "0"})
    assert cli.parser.get_bfd_neighbor("command", known) is known
    assert known.events == [("contains", "A_B"), ("get", "A_B"), ("set", "A_B")]
    assert list(known["A_B"]) == ["z", "neighbor_ip", "interface", "name", "a"]


@pytest.mark.parametrize("step", ["__contains__", "__getitem__", "__setitem__"])
def test_mapping_error_propagates(cli: FakeCli, step: str) -> None:
    error = Failure(step)
    cli.set_output("echo", "peer A is B")
    given = type("Fails", (dict,), {step: raiser(error)})(A_B={})
    assert raises_exactly(Failure, cli.parser.get_bfd_neighbor, "command", given) is error
    assert cli.debug_messages == []


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


# Failures of the log


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


def test_missing_logger_or_method_raises(cli: FakeCli) -> None:
    cli.patch("_logger", object())
    error: Exception = raises_exactly(AttributeError, parsed, cli, "peer A")
    assert str(error) == "'object' object has no attribute 'debug'"
    cli.delete("_logger")
    error = raises_exactly(NameError, parsed, cli, "peer A")
    assert str(error) == "name '_logger' is not defined"


# Memory and lines, of the native module only


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
        *([key, value] for key, value in HEADER.items()),
        *(["x", "1"], ["local_timers", {"a": "1", "b": "2", "c": "3"}], ["y", "2"], ["z", "3"]),
    ]
    *failed, complete = isolated.value(_parse_without_memory)
    assert complete[2] == whole
    assert len([raised for raised, _, _ in failed if raised is None]) >= 6
    for raised, logged, fields in failed:
        if raised is not None:
            assert (raised, logged, fields) == ("MemoryError", [], None)
        else:
            assert logged == ["e:"], "the one failure, and its empty text"
            assert fields is None or fields[-1] == ["z", "3"] or fields == whole[:-1]


def logged_error(native_cli: FakeCli, *lines: str) -> Any:
    """The exception that the parser handles while it logs, the only one."""
    handled = native_cli.collect_handled()
    native_cli.set_output(*lines)
    native_cli.parser.get_bfd_neighbor("command", {})
    (error,) = handled
    return error


@pytest.mark.parametrize(
    "lines, failing",
    [
        (["Local timers"], 301),
        (["Local timers", "a: 1", "b: 2"], 301),
        (["Local timers", "a"], 302),
        (["Remote timers", "a: 1"], 310),
        (["Remote timers", "a: 1", "b"], 311),
    ],
)
def test_broken_timers_fail_at_their_line(
    native_cli: FakeCli, lines: list[str], failing: int
) -> None:
    error = logged_error(native_cli, "echo", "peer A is B", *lines)
    assert (type(error), line(error, FUNCTION)) == (IndexError, failing)


@pytest.mark.parametrize(
    "lines, kind, failing",
    [
        (["peer"], IndexError, 283),  # only the line that is skipped
        (["echo", "peer A"], IndexError, 294),
        (["echo", "peer A is B", "peer C is D"], TypeError, 286),
    ],
)
def test_broken_header_fails_at_its_line(
    native_cli: FakeCli, lines: list[str], kind: type[Exception], failing: int
) -> None:
    error = logged_error(native_cli, *lines)
    assert (type(error), line(error, FUNCTION)) == (kind, failing)


def test_each_statement_has_its_traceback_line(native_cli: FakeCli) -> None:
    call = native_cli.parser.get_bfd_neighbor
    binding = entry(raises_exactly(TypeError, call), FUNCTION)
    assert binding.line == binding.first_line
    lines = [binding.line]

    class OnlyPeer:
        def __contains__(self, word: object) -> bool:
            return word == "peer" or bool(fail())

    def fail_at_next_line(kind: type[BaseException], output: object, given: object = None) -> None:
        native_cli.set_output(output)
        lines.append(line(raises_exactly(kind, call, "command", given), FUNCTION))

    with native_cli.monkeypatch.context() as patch:
        patch.setattr(native_cli.parser, "text_", raiser(Failure()))
        fail_at_next_line(Failure, "")
    fail_at_next_line(TypeError, None)
    fail_at_next_line(Failure, OnlyPeer())
    fail_at_next_line(TypeError, ["peer"])
    fail_at_next_line(AttributeError, ("peer", "objname"))
    native_cli.logger.debug.side_effect = raiser(Failure())
    fail_at_next_line(Failure, "echo\npeer A")
    for given in (None, {"A_B": None}, ()):
        fail_at_next_line(TypeError, "echo\npeer A is B", given)
    assert lines == [268, 269, 270, 272, 273, 274, 320, 323, 324, 326]

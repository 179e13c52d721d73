"""The BFD neighbor list of the module and of the reference model: the commands for each neighbor,
the entries of the result, and the errors that end the list early."""

from __future__ import annotations

from collections.abc import Iterator
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.support.assertions import (
    raises_exactly,
    traceback_entries,
    with_types,
)
from tests.support.doubles import (
    Failure,
    Recorder,
    RecordingLogger,
    UncomparableStr,
    fail,
    raiser,
)
from tests.support.fake_cli import FakeCli
from tests.support.module_patch import Patch

IPV4 = "get router info bfd neighbor"
IPV6 = "get router info6 bfd neighbor"


def output(*sessions: str) -> str:
    """A summary or detail output; a session is its address and interface, then its fields."""
    lines = ["echo"]
    for session in sessions:
        address, interface, *fields = session.split(" ", 2)
        lines.append(f"peer {address} interface {interface}")
        lines.extend(field for text in fields for field in text.split(","))
    return "\n".join(lines)


def named(address: str, interface: str, **fields: str) -> dict[str, str]:
    """The entry of a session."""
    name = f"{address}_{interface}"
    return {"neighbor_ip": address, "interface": interface, "name": name, **fields}


# With the parser itself


def test_both_families_are_listed_with_details(cli: FakeCli) -> None:
    cli.set_outputs(
        {
            IPV4: output("10.0.0.2 port1 Status: up"),
            IPV6: output("fe80::2 port2"),
            f"{IPV4} 10.0.0.2 port1": output("10.0.0.2 port1 Zebra Notifications: 7"),
            f"{IPV6} fe80::2 port2": output("fe80::2 port2 Zebra Notifications: 9,Status: down"),
        }
    )
    listed = cli.parser.list_bfd_neighbor()
    assert with_types(listed) == with_types(
        [
            named("10.0.0.2", "port1", status="up", zebra_notifications="7"),
            named("fe80::2", "port2", zebra_notifications="9", status="down"),
        ]
    )
    assert cli.commands == [
        IPV4,
        IPV6,
        f"{IPV4} 10.0.0.2 port1",
        f"{IPV6} 10.0.0.2 port1",
        f"{IPV4} fe80::2 port2",
        f"{IPV6} fe80::2 port2",
    ]
    assert cli.debug_messages == []


def test_no_sessions_give_new_empty_list(cli: FakeCli) -> None:
    listed = cli.parser.list_bfd_neighbor()
    assert listed == []
    assert cli.commands == [IPV4, IPV6]
    assert cli.debug_messages == []
    assert cli.parser.list_bfd_neighbor() is not listed


@pytest.mark.parametrize(
    "field, kept",
    [
        ("Zebra Notifications: 0", True),
        ("zebra notifications:", True),
        ("ZEBRA NOTIFICATIONS : 1", True),
        ("Zebra  Notifications: 0", False),
        ("Zebra Notification: 0", False),
        ("Zebra Notifications", False),
    ],
)
def test_only_neighbor_with_notifications_is_listed(cli: FakeCli, field: str, kept: bool) -> None:
    cli.set_outputs({IPV4: output("A B"), f"{IPV4} A B": output(f"A B {field}")})
    assert len(cli.parser.list_bfd_neighbor()) == (1 if kept else 0)


def test_details_of_other_family_are_merged_last(cli: FakeCli) -> None:
    cli.set_outputs(
        {
            IPV4: output("A B x: summary"),
            f"{IPV4} A B": output("A B x: four,zebra notifications: 4"),
            f"{IPV6} A B": output("A B x: six"),
        }
    )
    (listed,) = cli.parser.list_bfd_neighbor()
    assert with_types(listed) == with_types(named("A", "B", x="six", zebra_notifications="4"))


def test_neighbor_of_earlier_call_is_queried_again(cli: FakeCli) -> None:
    cli.set_outputs({IPV4: output("A B"), f"{IPV4} A B": output("A B zebra notifications: 1")})
    (listed,) = cli.parser.list_bfd_neighbor()
    listed.clear()
    assert cli.shared == {"A_B": named("A", "B")}, "neither details nor the result's changes"
    cli.run.calls.clear()
    cli.set_outputs({IPV4: output("C D"), f"{IPV4} C D": output("C D zebra notifications: 2")})
    assert [found["name"] for found in cli.parser.list_bfd_neighbor()] == ["C_D"]
    assert cli.commands == [IPV4, IPV6, f"{IPV4} A B", f"{IPV6} A B", f"{IPV4} C D", f"{IPV6} C D"]
    assert list(cli.shared) == ["A_B", "C_D"]


@pytest.mark.parametrize("failing, listed", [(IPV4, []), (f"{IPV6} C D", ["A_B"])])
def test_failing_command_logs_and_ends_list(cli: FakeCli, failing: str, listed: list[str]) -> None:
    outputs = {
        IPV4: output("A B"),
        IPV6: output("C D"),
        f"{IPV4} A B": output("A B zebra notifications: 1"),
    }

    def run(command: str) -> str:
        if command == failing:
            raise Failure("no output")
        return outputs.get(command, "")

    cli.run.side_effect = run
    assert [found["name"] for found in cli.parser.list_bfd_neighbor()] == listed
    assert cli.debug_messages == ["e:no output"]


# With the parser replaced: each call and each object by itself


class Neighbors:
    """Replace `get_bfd_neighbor`: call number n returns, calls or raises reply number n."""

    def __init__(self, cli: FakeCli, *replies: Any) -> None:
        self.replies = list(replies)
        self.calls = Recorder(self._reply)
        cli.patch("get_bfd_neighbor", self.calls)

    def _reply(self, *args: object) -> object:
        reply = self.replies[len(self.calls.calls) - 1]
        if isinstance(reply, BaseException):
            raise reply
        return reply(*args) if callable(reply) else reply


ENTRY = {"neighbor_ip": "A", "interface": "B", "zebra_notifications": "1"}
KEPT = {"k": ENTRY}


def same(command: str, given: Any) -> Any:
    """A reply that finds no details."""
    return given


def test_each_query_gets_expected_arguments(cli: FakeCli) -> None:
    first: dict[str, Any] = {"k": dict(ENTRY), "l": dict(ENTRY, neighbor_ip="C", interface="D")}
    second = {"l": first["l"], "m": dict(ENTRY, neighbor_ip="E", interface="F")}
    detail_1 = {"k": {"zebra_notifications": "from the detail"}}
    detail_2 = {"k": {"zebra_notifications": "replaced"}, "l": {}, "m": {}}
    neighbors = Neighbors(
        cli,
        first,
        second,
        detail_1,
        detail_2,
        *(same, same, same),
        lambda command, given: {**given, "m": dict(ENTRY)},
    )
    listed = cli.parser.list_bfd_neighbor()
    calls = neighbors.calls.positional
    details = [
        f"{family} {session}" for session in ("A B", "C D", "E F") for family in (IPV4, IPV6)
    ]
    assert [args[0] for args in calls] == [IPV4, IPV6, *details]
    assert [len(args) for args in calls] == [1, 1] + [2] * 6
    working = calls[2][1]
    assert type(working) is dict
    assert working is not first
    assert list(working) == ["k", "l", "m"]
    assert working["k"] is first["k"], "a shallow copy"
    assert calls[3][1] is detail_1, "the result of the call before"
    assert calls[4][1] == {**detail_1, **detail_2}
    assert calls[4][1] is not detail_1
    assert calls[5][1] is calls[4][1]
    assert calls[6][1] is not calls[5][1], "a new dictionary after each neighbor"
    assert calls[6][1] == calls[5][1]
    assert listed[0] is detail_2["k"]
    assert listed[1] == ENTRY
    assert len(listed) == 2


def test_shared_dictionary_is_deep_copied(cli: FakeCli) -> None:
    shared = {"k": dict(ENTRY)}

    def detail(command: str, given: dict[str, Any]) -> dict[str, Any]:
        given["k"] = {"zebra_notifications": command}
        return given

    Neighbors(cli, shared, shared, detail, detail)
    (listed,) = cli.parser.list_bfd_neighbor()
    assert listed == {"zebra_notifications": f"{IPV6} A B"}
    assert shared == {"k": ENTRY}


def test_detail_arguments_come_from_one_deep_copy(cli: FakeCli) -> None:
    summary = {"k": dict(ENTRY), "missing": dict(ENTRY)}
    working: list[Any] = []

    def deepcopy(value: Any) -> Any:
        working.append(value)
        return {"k": {"neighbor_ip": "copied", "interface": "too"}}

    def detail(command: str, given: Any) -> Any:
        given["added"] = dict(ENTRY)
        given["k"]["neighbor_ip"] = "changed"
        return given

    cli.patch("copy", SimpleNamespace(deepcopy=Recorder(deepcopy)))
    neighbors = Neighbors(cli, summary, summary, detail, detail)
    assert cli.parser.list_bfd_neighbor() == [summary["k"]]
    commands = [args[0] for args in neighbors.calls.positional]
    assert commands == [IPV4, IPV6, f"{IPV4} copied too", f"{IPV6} copied too"]
    (copied,) = working
    assert copied is neighbors.calls.positional[2][1], "the working dictionary"


@pytest.mark.parametrize("missing", ["neighbor_ip", "interface"])
def test_entry_without_address_logs_and_ends_list(cli: FakeCli, missing: str) -> None:
    incomplete = {key: value for key, value in ENTRY.items() if key != missing}
    summary = {"k": dict(ENTRY), "l": incomplete, "m": dict(ENTRY)}
    neighbors = Neighbors(cli, summary, summary, same, same)
    assert cli.parser.list_bfd_neighbor() == [ENTRY]
    assert len(neighbors.calls.calls) == 4
    assert cli.debug_messages == [f"e:'{missing}'"]


@pytest.mark.parametrize(
    "replies, logged",
    [
        ([KEPT, None], "dict() argument after ** must be a mapping, not NoneType"),
        ([KEPT, [("k", 1)]], "dict() argument after ** must be a mapping, not list"),
        ([5, None], "dict() argument after ** must be a mapping, not NoneType"),
        ([5, {}], "'int' object is not iterable"),
        ([None, {}], "'NoneType' object is not iterable"),
        (["ab", {}], "dictionary update sequence element #0 has length 1; 2 is required"),
        ([{}, {1: ENTRY}], "keywords must be strings"),
        ([{1: ENTRY}, {}, {}, {}], "1"),
        ([{"k": 5}, {}], "'int' object is not subscriptable"),
        ([{"k": None}, {}], "'NoneType' object is not subscriptable"),
        ([{"k": []}, {}], "list indices must be integers or slices, not str"),
        *(
            ([{"k": {**ENTRY, key: value}}, {}], f'can only concatenate str (not "{kind}") to str')
            for key, value, kind in [
                ("neighbor_ip", 5, "int"),
                ("interface", None, "NoneType"),
                ("neighbor_ip", b"x", "bytes"),
            ]
        ),
        ([KEPT, KEPT, {}, None], "dict() argument after ** must be a mapping, not NoneType"),
        ([KEPT, KEPT, None, {}], "'NoneType' object is not iterable"),
        ([KEPT, KEPT, {}, {}], "'k'"),
        ([KEPT, KEPT, {}, {"k": None}], "argument of type 'NoneType' is not iterable"),
        ([KEPT, KEPT, {}, {"k": 5}], "argument of type 'int' is not iterable"),
        ([KEPT, Failure("second")], "second"),
        ([KEPT, KEPT, Failure("third")], "third"),
        ([KEPT, KEPT, {}, Failure("")], ""),
    ],
    ids=repr,
)
def test_failing_step_logs_interpreter_message(
    cli: FakeCli, replies: list[Any], logged: str
) -> None:
    Neighbors(cli, *replies)
    assert cli.parser.list_bfd_neighbor() == []
    assert cli.debug_messages == [f"e:{logged}"]


@pytest.mark.parametrize(
    "replies, listed",
    [
        ([[("k", ENTRY)], {}, {}, KEPT], [ENTRY]),
        ([KEPT, KEPT, {}, {"k": ["zebra_notifications"]}], [["zebra_notifications"]]),
        ([KEPT, KEPT, {}, {"k": "the zebra_notifications"}], ["the zebra_notifications"]),
        ([KEPT, KEPT, {}, {"k": ()}], []),
        ([[], {}], []),
        (["", {}], []),
        ([[("k", ENTRY)], KEPT, [("k", ENTRY)], {}], [ENTRY]),
    ],
    ids=repr,
)
def test_dict_like_sessions_are_accepted(
    cli: FakeCli, replies: list[Any], listed: list[Any]
) -> None:
    Neighbors(cli, *replies)
    assert cli.parser.list_bfd_neighbor() == listed
    assert cli.debug_messages == []


class Listing:
    """A mapping for `dict(…)` and `**` that is not a dict: it lists these keys, or fails."""

    def __init__(self, *keys: object, fails: str = "", error: Exception | None = None) -> None:
        self.listed, self.fails, self.error = keys, fails, error
        self.fetched: list[object] = []

    def keys(self) -> tuple[object, ...]:
        return self._step("keys", self.listed)

    def __getitem__(self, key: object) -> object:
        self.fetched.append(key)
        return self._step("item", dict(ENTRY))

    def _step(self, name: str, value: Any) -> Any:
        if self.error is not None and name == self.fails:
            raise self.error
        return value


class ListingDict(dict):
    """A dict whose keys and items are not those of a dict."""

    def __init__(self, *keys: str, **items: object) -> None:
        super().__init__(items)
        self.listed = keys
        self.fetched: list[str] = []

    def __iter__(self) -> Iterator[str]:
        return iter(self.listed)

    def keys(self) -> Any:
        return iter(self)

    def __getitem__(self, key: str) -> Any:
        self.fetched.append(key)
        return {**super().__getitem__(key), "interface": "own"}


@pytest.mark.parametrize(
    "mapping", [Listing("k"), ListingDict("k", k=ENTRY)], ids=["object", "dict"]
)
@pytest.mark.parametrize("place", [0, 1])
def test_mapping_is_expanded_as_in_python(cli: FakeCli, mapping: Any, place: int) -> None:
    replies: list[Any] = [{"z": dict(ENTRY)}, {"z": dict(ENTRY)}]
    replies[place] = mapping
    expected = dict(replies[0], **replies[1])
    neighbors = Neighbors(cli, *replies, *[same] * 4)
    cli.parser.list_bfd_neighbor()
    working = neighbors.calls.positional[2][1]
    assert with_types(working) == with_types(expected)
    assert "k" in working


NO_MAPPING = "dict() argument after ** must be a mapping, not Listing"
MULTIPLE = "dict() got multiple values for keyword argument "


@pytest.mark.parametrize(
    "mapping, as_argument, after_asterisks",
    [
        (Listing(fails="keys", error=AttributeError("own")), "own", NO_MAPPING),
        (Listing("k", fails="item", error=AttributeError("own")), "own", NO_MAPPING),
        (Listing(fails="keys", error=Failure("own")), "own", "own"),
        (Listing("k", fails="item", error=KeyError("own")), "'own'", "'own'"),
        (ListingDict("missing", k=1), "'missing'", f"{MULTIPLE}'missing'"),
    ],
    ids=["keys without attribute", "item without attribute", "keys", "item", "missing key"],
)
def test_failing_mapping_logs_interpreter_message(
    cli: FakeCli, mapping: object, as_argument: str, after_asterisks: str
) -> None:
    for replies in ([mapping, {}], [{}, mapping]):
        Neighbors(cli, *replies)
        assert cli.parser.list_bfd_neighbor() == []
    assert cli.debug_messages == [f"e:{as_argument}", f"e:{after_asterisks}"]


class Key(str):
    """A key with its own `__str__`."""

    def __str__(self) -> str:
        return "own text"


class Unprintable(str):
    """A key whose `__str__` fails."""

    __str__ = fail


@pytest.mark.parametrize(
    "mapping, text",
    [
        (Listing("k", "k"), f"{MULTIPLE}'k'"),
        (Listing("a", "b", "a", "b"), f"{MULTIPLE}'a'"),
        (Listing("k", Key("k")), f"{MULTIPLE}'own text'"),
        (Listing("k", Unprintable("k")), ""),  # a TypeError without a text
        (Listing("k", UncomparableStr("k")), ""),  # a Failure
        (Listing(1, 1.0), f"{MULTIPLE}'1.0'"),
        (Listing(("a", "b"), ("a", "b")), f"{MULTIPLE}'('a', 'b')'"),
        (Listing((), ()), f"{MULTIPLE}'()'"),
        (Listing([], []), "unhashable type: 'list'"),
        (Listing("", ""), f"{MULTIPLE}''"),
        (Listing(1, 2), "keywords must be strings"),
        (ListingDict("k", "k", k=ENTRY), f"{MULTIPLE}'k'"),
    ],
)
@pytest.mark.parametrize("detail", [False, True])
def test_mapping_with_repeated_key_logs_type_error(
    cli: FakeCli, mapping: Any, text: str, detail: bool
) -> None:
    mapping.fetched = []
    with pytest.raises((TypeError, Failure)) as expected:
        dict({}, **mapping)
    assert str(expected.value) == text
    fetched, mapping.fetched = mapping.fetched, []
    Neighbors(cli, *([KEPT, {}, {}, mapping] if detail else [{}, mapping]))
    assert cli.parser.list_bfd_neighbor() == []
    assert cli.debug_messages == [f"e:{text}"]
    assert mapping.fetched == fetched


def test_first_mapping_with_repeated_key_is_accepted(cli: FakeCli) -> None:
    Neighbors(cli, Listing("k", "k"), {}, same, same)
    cli.parser.list_bfd_neighbor()
    assert cli.debug_messages == []


def test_base_exception_propagates_unlogged(cli: FakeCli) -> None:
    error = KeyboardInterrupt()
    Neighbors(cli, KEPT, KEPT, {}, error)
    assert raises_exactly(KeyboardInterrupt, cli.parser.list_bfd_neighbor) is error
    assert cli.debug_messages == []


@pytest.mark.parametrize(
    "name, value, logged",
    [
        ("get_bfd_neighbor", None, "name 'get_bfd_neighbor' is not defined"),
        ("copy", None, "name 'copy' is not defined"),
        ("copy", SimpleNamespace(), "'types.SimpleNamespace' object has no attribute 'deepcopy'"),
        ("copy", SimpleNamespace(deepcopy=raiser(Failure("no copy"))), "no copy"),
    ],
)
def test_missing_or_failing_global_is_logged(
    cli: FakeCli, name: str, value: object, logged: str
) -> None:
    Neighbors(cli, KEPT, KEPT)
    if value is None:
        cli.delete(name)
    else:
        cli.patch(name, value)
    assert cli.parser.list_bfd_neighbor() == []
    assert cli.debug_messages == [f"e:{logged}"]


def test_parser_is_looked_up_for_each_call(cli: FakeCli) -> None:
    later = Recorder(lambda *args: {})

    def first(*args: object) -> Any:
        cli.patch("get_bfd_neighbor", later)
        return {}

    cli.patch("get_bfd_neighbor", first)
    assert cli.parser.list_bfd_neighbor() == []
    assert later.positional == [(IPV6,)]


def test_copy_is_not_looked_up_without_sessions(cli: FakeCli) -> None:
    cli.delete("copy")
    Neighbors(cli, {}, {}, None)
    assert cli.parser.list_bfd_neighbor() == []
    assert cli.debug_messages == []


@pytest.mark.parametrize("kind", [Failure, KeyboardInterrupt])
def test_logger_error_propagates(cli: FakeCli, kind: type[BaseException]) -> None:
    error = kind("the log")
    cli.logger.debug.side_effect = raiser(error)
    Neighbors(cli, KEPT, None)
    assert raises_exactly(kind, cli.parser.list_bfd_neighbor) is error


def test_missing_logger_raises_name_error(cli: FakeCli) -> None:
    Neighbors(cli, KEPT, None)
    cli.delete("_logger")
    error = raises_exactly(NameError, cli.parser.list_bfd_neighbor)
    assert str(error) == "name '_logger' is not defined"


def test_exception_with_failing_str_raises_that_error(cli: FakeCli) -> None:
    textless = Failure()

    class Odd(Exception):
        def __str__(self) -> str:
            raise textless

    Neighbors(cli, Odd())
    assert raises_exactly(Failure, cli.parser.list_bfd_neighbor) is textless
    assert cli.debug_messages == []


# Lines, of the native module only


def test_each_statement_has_its_traceback_line(native_cli: FakeCli) -> None:
    """Only a BaseException propagates, so each statement raises one."""
    cli = native_cli
    stop = KeyboardInterrupt()

    class Interrupts(dict):
        """A dictionary in which a search interrupts, and one item."""

        def __getitem__(self, key: str) -> Any:
            return raiser(stop)() if key == self.get("interrupting") else super().__getitem__(key)

        __contains__ = raiser(stop)

    class Uniterable:
        __iter__ = raiser(stop)

    def line_of(*replies: Any) -> int:
        Neighbors(cli, *replies)
        error = raises_exactly(KeyboardInterrupt, cli.parser.list_bfd_neighbor)
        (found,) = traceback_entries(error.__traceback__)
        error.__traceback__ = None
        assert found.function == "list_bfd_neighbor"
        assert found.first_line < found.line
        return found.line

    def with_copy(deepcopy: Any) -> int:
        with pytest.MonkeyPatch.context() as patch:
            patch.setattr(cli.parser, "copy", SimpleNamespace(deepcopy=deepcopy))
            return line_of(KEPT, KEPT, same, same)

    lines = [
        line_of(stop),
        line_of({}, stop),
        with_copy(raiser(stop)),
        with_copy(lambda value: Uniterable()),
        with_copy(lambda value: map(raiser(stop), [1])),
        with_copy(lambda value: {"k": Interrupts(ENTRY, interrupting="neighbor_ip")}),
        with_copy(lambda value: {"k": Interrupts(ENTRY, interrupting="interface")}),
        line_of(KEPT, KEPT, stop),
        line_of(KEPT, KEPT, {}, stop),
        line_of(KEPT, KEPT, {}, {"k": Interrupts(ENTRY)}),
    ]
    cli.logger.debug.side_effect = raiser(stop)
    lines.append(line_of(KEPT, None))
    assert lines == [333, 334, 338, 339, 339, 340, 341, 342, 343, 345, 348]


def test_session_without_details_is_logged_at_its_line(native_cli: FakeCli) -> None:
    handled = native_cli.collect_handled()
    native_cli.patch("copy", SimpleNamespace(deepcopy=lambda value: {"other": ENTRY}))
    Neighbors(native_cli, KEPT, KEPT, {}, {})
    assert native_cli.parser.list_bfd_neighbor() == []
    (error,) = handled
    assert isinstance(error, KeyError)
    assert [entry.line for entry in traceback_entries(error.__traceback__)] == [345]


def test_native_output_is_listed(simulator: Any, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", "")
    shared = module.get_bfd_neighbor("the shared dictionary")
    shared.clear()
    outputs = {IPV4: output("A B"), f"{IPV4} A B": output("A B zebra --More--notifications: 1")}
    simulator.clear_calls()
    simulator.set_reply("get_cli_cmd_output", lambda command: outputs.get(command.decode(), ""))
    try:
        assert module.list_bfd_neighbor() == [named("A", "B", zebra_notifications="1")]
    finally:
        shared.clear()
    commands = [call.text.decode() for call in simulator.call_log]
    assert commands == [IPV4, IPV6, f"{IPV4} A B", f"{IPV6} A B"]


def test_runner_failure_is_logged(simulator: Any, module: ModuleType, patch: Patch) -> None:
    logger = RecordingLogger()
    patch("_logger", logger)
    simulator.set_reply("get_cli_cmd_output", None)
    assert module.list_bfd_neighbor() == []
    assert logger.debug_messages == ["e:get_cli_command_output's result is null."]

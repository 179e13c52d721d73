"""Argument binding of the thirty functions: the whole text of each error, the order of the checks,
and the traceback entries."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from types import MappingProxyType, ModuleType
from typing import Any, Union

import pytest

from tests.support.assertions import Entry, raises_exactly, traceback_entries, wrong_type_message
from tests.support.doubles import BytesSubclass, MishashedStr, StrSubclass
from tests.support.function_table import FUNCTIONS, NAMED, Function
from veldarin_simulator import Simulator


def rows(*kinds: str) -> Any:
    """Parametrize a test over the functions of some kinds."""
    chosen = [row for row in FUNCTIONS if row.kind in kinds]
    return pytest.mark.parametrize("function", chosen, ids=lambda row: row.name)


def call_error(function: Any, args: Iterable[Any], kwargs: Mapping[Any, Any]) -> TypeError:
    """The `TypeError` of a call; the lambda passes keywords that are not strings."""
    return raises_exactly(TypeError, lambda: function(*args, **kwargs))


def error_text(
    module: ModuleType,
    function: Function | str,
    args: Iterable[Any] = (),
    kwargs: Mapping[Any, Any] = MappingProxyType({}),
) -> str:
    """The text of the `TypeError` that the call raises."""
    name = function if isinstance(function, str) else function.name
    return str(call_error(getattr(module, name), args, kwargs))


# Functions without parameters and functions of one argument: the interpreter's own rules.


@rows("none")
@pytest.mark.parametrize("given", [1, 2, 5])
def test_no_args_function_rejects_arguments(
    module: ModuleType, function: Function, given: int
) -> None:
    assert error_text(module, function, range(given)) == (
        f"{function.qualified}() takes no arguments ({given} given)"
    )


@rows("one")
@pytest.mark.parametrize("given", [0, 2, 3])
def test_one_arg_function_takes_exactly_one(
    module: ModuleType, function: Function, given: int
) -> None:
    assert error_text(module, function, range(given)) == (
        f"{function.qualified}() takes exactly one argument ({given} given)"
    )


@rows("one")
def test_one_arg_function_rejects_keyword(module: ModuleType, function: Function) -> None:
    (parameter,) = function.parameters
    assert error_text(module, function, (), {parameter.name: None}) == (
        f"{function.qualified}() takes no keyword arguments"
    )


@rows("none", "one")
@pytest.mark.parametrize("positional", [0, 1, 2])
def test_keywords_are_rejected_before_arguments_are_counted(
    module: ModuleType, function: Function, positional: int
) -> None:
    assert error_text(module, function, range(positional), {"other": 1}) == (
        f"{function.qualified}() takes no keyword arguments"
    )


@rows("none", "one", "keywords")
def test_empty_keywords_are_ignored(module: ModuleType, function: Function) -> None:
    held = getattr(module, function.name)
    without = raises_exactly(TypeError, lambda: held(1, 2, 3, 4))
    empty: dict[str, object] = {}
    assert str(raises_exactly(TypeError, lambda: held(1, 2, 3, 4, **empty))) == str(without)
    assert "(4 given)" in str(without)


@rows("none", "one")
def test_interpreter_argument_error_has_no_module_entry(
    module: ModuleType, function: Function
) -> None:
    for args, kwargs in [((1, 2), {}), ((), {"other": 1})]:
        error = call_error(getattr(module, function.name), args, kwargs)
        assert traceback_entries(error.__traceback__) == []


@rows("none", "one", "keywords")
def test_rejected_call_makes_no_native_call(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    many = range(5)
    error_text(module, function, many)
    error_text(module, function, many, {"other": 1})
    assert simulator.call_log == []


# Functions with keywords: the count of positional arguments.

ANY = object()

COUNTS = [
    # function, positional arguments, words, bound
    *(
        (row.name, given, "at most", 1)
        for row in FUNCTIONS
        if row.kind == "keywords" and len(row.parameters) == 1
        for given in (2, 3, 10)
    ),
    ("get_bfd_neighbor", 0, "at least", 1),
    ("get_bfd_neighbor", 3, "at most", 2),
    ("get_bfd_neighbor", 7, "at most", 2),
    ("capture_sniffer_profile", 0, "exactly", 2),
    ("capture_sniffer_profile", 1, "exactly", 2),
    ("capture_sniffer_profile", 3, "exactly", 2),
    ("capture_sniffer_profile", 12, "exactly", 2),
]


def count_error(name: str, words: str, bound: int, given: int) -> str:
    plural = "" if bound == 1 else "s"
    return f"{name}() takes {words} {bound} positional argument{plural} ({given} given)"


@pytest.mark.parametrize(("name", "given", "words", "bound"), COUNTS)
def test_wrong_argument_count_raises_type_error(
    module: ModuleType, name: str, given: int, words: str, bound: int
) -> None:
    assert error_text(module, name, [ANY] * given) == count_error(name, words, bound, given)


@pytest.mark.parametrize(
    ("name", "given", "words", "bound"), [row for row in COUNTS if row[1] > row[3]]
)
def test_too_many_arguments_are_rejected_before_keywords(
    module: ModuleType, name: str, given: int, words: str, bound: int
) -> None:
    keyword: object
    for keyword in (NAMED[name].parameters[0].name, "other", 7):
        keywords = {keyword: 1}
        assert error_text(module, name, [ANY] * given, keywords) == (
            count_error(name, words, bound, given)
        )


@pytest.mark.parametrize(
    ("name", "args", "kwargs", "words", "bound"),
    [
        ("get_bfd_neighbor", (), {"list_bfd": {}}, "at least", 1),
        ("capture_sniffer_profile", (), {"profile_name": "p"}, "exactly", 2),
        ("capture_sniffer_profile", (), {"event": "Stop"}, "exactly", 2),
    ],
)
def test_missing_argument_raises_positional_count_error(
    module: ModuleType, name: str, args: Any, kwargs: Any, words: str, bound: int
) -> None:
    assert error_text(module, name, args, kwargs) == count_error(name, words, bound, len(args))


# Functions with keywords: the keywords.


class SameHash:
    """An object that hashes and compares like a string, but is not one."""

    def __init__(self, text: str) -> None:
        self.text = text

    def __hash__(self) -> int:
        return hash(self.text)

    def __eq__(self, other: object) -> bool:
        return other == self.text


Key = Union[str, int, bytes, None, SameHash]


def unexpected(name: str, keyword: str) -> str:
    return f"{name}() got an unexpected keyword argument '{keyword}'"


def multiple(name: str, keyword: str) -> str:
    return f"{name}() got multiple values for keyword argument '{keyword}'"


def not_strings(name: str) -> str:
    return f"{name}() keywords must be strings"


LONG = "x" * 300


@rows("keywords")
@pytest.mark.parametrize(
    "keyword",
    [
        "other",
        "",
        "Policy_id",
        "policy_id ",
        "profile-name",
        "größe",
        LONG,
        StrSubclass("other"),
        "\x00",
    ],
    ids=ascii,
)
def test_unknown_keyword_is_named_in_error(
    module: ModuleType, function: Function, keyword: str
) -> None:
    bound: dict[Any, object] = {parameter.name: None for parameter in function.parameters}
    assert error_text(module, function, (), {**bound, keyword: 1}) == unexpected(
        function.name, keyword
    )


@rows("keywords")
@pytest.mark.parametrize(
    "keyword",
    [7, b"policy_id", None, (), 1.5, object()],
    ids=lambda keyword: type(keyword).__name__,
)
def test_non_str_keyword_raises_type_error(
    module: ModuleType, function: Function, keyword: Any
) -> None:
    bound: dict[Any, object] = {parameter.name: None for parameter in function.parameters}
    assert error_text(module, function, (), {**bound, keyword: 1}) == not_strings(function.name)


@rows("keywords")
@pytest.mark.parametrize("kind", [str, StrSubclass])
def test_parameter_bound_twice_raises_type_error(
    module: ModuleType, function: Function, kind: type[str]
) -> None:
    positional: list[None] = []
    for parameter in function.parameters:
        positional.append(None)
        keyword = kind(parameter.name)
        assert error_text(module, function, positional, {keyword: None}) == (
            multiple(function.name, parameter.name)
        )


# (function, positional arguments, keywords in their order, text): several errors in one call.
ACL, TRUNK, MCLAG = (
    "switch_acl_ingress_counter",
    "list_switch_trunk_state",
    "list_switch_mclag_list",
)
BFD, CAPTURE = "get_bfd_neighbor", "capture_sniffer_profile"
SEVERAL_FAULTS: list[tuple[str, tuple[Any, ...], dict[Key, Any], str]] = [
    # the error names the first faulty keyword in the dictionary's order
    (ACL, (), {"b": 1, "a": 2}, unexpected(ACL, "b")),
    (ACL, (), {"a": 1, "b": 2}, unexpected(ACL, "a")),
    (ACL, (), {"a": 1, 7: 2}, unexpected(ACL, "a")),
    (ACL, (), {7: 1, "a": 2}, not_strings(ACL)),
    (ACL, (1,), {"a": 1, "policy_id": 2}, unexpected(ACL, "a")),
    (ACL, (1,), {"policy_id": 1, "a": 2}, multiple(ACL, "policy_id")),
    (ACL, (1,), {7: 1, "policy_id": 2}, not_strings(ACL)),
    (ACL, (1,), {"policy_id": 1, 7: 2}, multiple(ACL, "policy_id")),
    (CAPTURE, ("p", "e"), {"event": 1, "profile_name": 2}, multiple(CAPTURE, "event")),
    (CAPTURE, ("p", "e"), {"profile_name": 2, "event": 1}, multiple(CAPTURE, "profile_name")),
    (BFD, ("c", {}), {"list_bfd": 1, "x": 2, 3: 4}, multiple(BFD, "list_bfd")),
    # keywords that bind are skipped, in any position
    (ACL, (), {"policy_id": 1, "a": 2}, unexpected(ACL, "a")),
    (ACL, (), {"a": 2, "policy_id": 1}, unexpected(ACL, "a")),
    (TRUNK, (), {"trunk_name": 1, 7: 2}, not_strings(TRUNK)),
    (MCLAG, (), {"mkey": 1, "trunk_name": 2}, unexpected(MCLAG, "trunk_name")),
    (CAPTURE, ("p",), {"event": 1, "profile_name": 2}, multiple(CAPTURE, "profile_name")),
    (BFD, ("c",), {"list_bfd": {}, "cmd": "c"}, multiple(BFD, "cmd")),
    # faulty keywords are named before a required parameter is missed
    (BFD, (), {"x": 1}, unexpected(BFD, "x")),
    (BFD, (), {"list_bfd": {}, "x": 1}, unexpected(BFD, "x")),
    (BFD, (), {7: 1}, not_strings(BFD)),
    (CAPTURE, (), {"x": 1}, unexpected(CAPTURE, "x")),
    (CAPTURE, (), {"profile_name": "p", "x": 1}, unexpected(CAPTURE, "x")),
    (CAPTURE, (), {"event": "Stop", 7: 1}, not_strings(CAPTURE)),
    (CAPTURE, ("p",), {"x": 1}, unexpected(CAPTURE, "x")),
    (CAPTURE, ("p",), {7: 1}, not_strings(CAPTURE)),
    (CAPTURE, ("p",), {"profile_name": "q"}, multiple(CAPTURE, "profile_name")),
    # types are tested when everything is bound
    (CAPTURE, (1,), {}, count_error(CAPTURE, "exactly", 2, 1)),
    (CAPTURE, (1, 2, 3), {}, count_error(CAPTURE, "exactly", 2, 3)),
    (CAPTURE, (1,), {"x": 2}, unexpected(CAPTURE, "x")),
    (CAPTURE, (1,), {"profile_name": "p"}, multiple(CAPTURE, "profile_name")),
    (CAPTURE, (1, 2), {"x": 3}, unexpected(CAPTURE, "x")),
    (CAPTURE, (), {"event": 1}, count_error(CAPTURE, "exactly", 2, 0)),
    (CAPTURE, (), {"event": 1, 7: 1}, not_strings(CAPTURE)),
    # and then in the order of the parameters
    (CAPTURE, (1, 2), {}, wrong_type_message("profile_name", "str", 1)),
    (
        CAPTURE,
        (),
        {"event": 1, "profile_name": 2.5},
        wrong_type_message("profile_name", "str", 2.5),
    ),
    (CAPTURE, ("p", 2), {}, wrong_type_message("event", "str", 2)),
    (CAPTURE, (None,), {"event": b"Stop"}, wrong_type_message("event", "str", b"")),
]


@pytest.mark.parametrize(("name", "args", "kwargs", "text"), SEVERAL_FAULTS)
def test_first_failed_check_is_reported(
    module: ModuleType, name: str, args: Any, kwargs: Any, text: str
) -> None:
    assert error_text(module, name, args, kwargs) == text


@rows("keywords")
def test_binding_error_has_one_entry_at_first_line(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    first = function.parameters[0].name
    faulty: list[tuple[tuple[Any, ...], dict[Any, Any]]] = [
        ((None,) * 5, {}),
        ((), {"other": 1}),
        ((), {7: 1}),
        ((None,), {first: None}),
    ]
    if function.required:
        faulty += [((), {}), ((), {function.parameters[1].name: None})]
    low, high = function.first_line
    for args, kwargs in faulty:
        error = call_error(getattr(module, function.name), args, kwargs)
        (entry,) = traceback_entries(error.__traceback__)
        assert entry == Entry(function.name, entry.first_line, entry.first_line)
        assert low <= entry.first_line <= high
    assert simulator.call_log == []


# Results of binding, as the request or the command shows them


def sent_policy(simulator: Simulator, module: ModuleType, args: Any, kwargs: Any) -> str:
    """The request of an ACL query."""
    module.switch_acl_ingress_counter(*args, **kwargs)
    (call,) = (call for call in simulator.call_log if call.service.startswith("build_"))
    assert call.request is not None
    return "".join(call.request.split())


@pytest.mark.parametrize(
    ("args", "kwargs", "request_text"),
    [
        ((), {}, "{}"),
        ((7,), {}, '{"policy_id":7}'),
        ((), {"policy_id": 7}, '{"policy_id":7}'),
        ((), {StrSubclass("policy_id"): 7}, '{"policy_id":7}'),
        ((), {SameHash("policy_id"): 7}, '{"policy_id":7}'),
        ((), {"".join(["policy", "_id"]): 7}, '{"policy_id":7}'),
        ((None,), {}, "{}"),
    ],
    ids=[
        "nothing",
        "by position",
        "by name",
        "by a subclass of str",
        "by an equal key",
        "by a name that is not interned",
        "None",
    ],
)
def test_optional_parameter_binds_by_position_or_name(
    simulator: Simulator, module: ModuleType, args: Any, kwargs: Any, request_text: str
) -> None:
    assert sent_policy(simulator, module, args, kwargs) == request_text


@pytest.mark.parametrize(
    ("kwargs", "request_text"),
    [
        ({MishashedStr("policy_id"): 7}, '{"policy_id":7}'),
        ({"policy_id": 7, MishashedStr("policy_id"): 8}, '{"policy_id":7}'),
        ({MishashedStr("policy_id"): 8, "policy_id": 7}, '{"policy_id":7}'),
    ],
    ids=["equal alone", "equal after the exact", "equal before the exact"],
)
def test_identical_keyword_wins_over_equal_one(
    simulator: Simulator, module: ModuleType, kwargs: Any, request_text: str
) -> None:
    assert sent_policy(simulator, module, (), kwargs) == request_text


def test_identical_keywords_win_with_two_parameters(
    simulator: Simulator, module: ModuleType
) -> None:
    exact: dict[str, str] = {"event": "Stop", "profile_name": "p"}
    equal: dict[str, str] = {MishashedStr("event"): "Pause", MishashedStr("profile_name"): "q"}
    for kwargs in ({**exact, **equal}, {**equal, **exact}):
        module.capture_sniffer_profile(**kwargs)
    calls = [call for call in simulator.call_log if call.service.startswith("build_")]
    assert [call.service for call in calls] == ["build_stop_sniffer_profile_capture"] * 2
    assert ["".join(str(call.request).split()) for call in calls] == ['{"profile-name":"p"}'] * 2


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [
        (("p", "Stop"), {}),
        (("p",), {"event": "Stop"}),
        ((), {"profile_name": "p", "event": "Stop"}),
        ((), {"event": "Stop", "profile_name": "p"}),
    ],
)
def test_required_parameters_bind_in_any_order(
    simulator: Simulator, module: ModuleType, args: Any, kwargs: Any
) -> None:
    module.capture_sniffer_profile(*args, **kwargs)
    (call,) = (call for call in simulator.call_log if call.service.startswith("build_"))
    assert call.service == "build_stop_sniffer_profile_capture"
    assert call.request is not None
    assert "".join(call.request.split()) == '{"profile-name":"p"}'


HELD: dict[str, str] = {}


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [
        (("command", HELD), {}),
        (("command",), {"list_bfd": HELD}),
        ((), {"list_bfd": HELD, "cmd": "command"}),
    ],
)
def test_list_bfd_binds_by_position_or_name(
    simulator: Simulator, module: ModuleType, args: Any, kwargs: Any
) -> None:
    simulator.set_reply("get_cli_cmd_output", "nothing")
    assert module.get_bfd_neighbor(*args, **kwargs) is HELD
    assert [call.text for call in simulator.call_log] == [b"command"]


def test_keyword_dictionary_of_caller_is_unchanged(module: ModuleType) -> None:
    keywords = {"policy_id": 7}
    module.switch_acl_egress_counter(**keywords)
    assert keywords == {"policy_id": 7}
    faulty = {"policy_id": 7, "other": 1}
    error_text(module, "switch_acl_egress_counter", (), faulty)
    assert faulty == {"policy_id": 7, "other": 1}


class FailingKey(SameHash):
    """A keyword whose comparison fails."""

    __hash__ = SameHash.__hash__

    def __eq__(self, other: object) -> bool:
        raise OverflowError


@pytest.mark.parametrize("name", ["switch_acl_egress_counter", "list_switch_mclag_list"])
def test_keyword_comparison_error_propagates(module: ModuleType, name: str) -> None:
    function, keyword = getattr(module, name), FailingKey(NAMED[name].parameters[0].name)
    keywords: dict[Any, object] = {keyword: 1}
    error = raises_exactly(OverflowError, lambda: function(**keywords))
    (entry,) = traceback_entries(error.__traceback__)
    assert entry == Entry(name, entry.first_line, entry.first_line)


# Typed parameters


def of_type_named(name: str) -> object:
    """An object whose type has this name."""
    return type(name, (), {})()


TYPED = [
    (function, position)
    for function in FUNCTIONS
    for position, parameter in enumerate(function.parameters)
    if parameter.type is not None
]
WRONG: dict[type, list[object]] = {
    bytes: [
        "text",
        BytesSubclass(b"text"),
        bytearray(b"text"),
        memoryview(b""),
        0,
        True,
        [],
        object(),
    ],
    str: [b"text", StrSubclass("text"), bytearray(b""), 0, False, (), {}, ["text"], object()],
}


def arguments_around(function: Function, position: int, value: object) -> list[object]:
    """Arguments that are valid except for the one at `position`."""
    arguments: list[object] = [None] * len(function.parameters)
    arguments[position] = value
    return arguments


@pytest.mark.parametrize(
    ("function", "position"),
    TYPED,
    ids=[f"{function.name}-{function.parameters[at].name}" for function, at in TYPED],
)
def test_typed_parameter_accepts_exact_type_only(
    simulator: Simulator, module: ModuleType, function: Function, position: int
) -> None:
    parameter = function.parameters[position]
    assert parameter.type is not None
    made: list[object] = []
    simulator.on_create = made.append
    for value in [*WRONG[parameter.type], of_type_named("größe")]:
        given = arguments_around(function, position, value)
        calls: list[tuple[Any, dict[str, object]]] = [(given, {})]
        if function.kind == "keywords":
            calls.append(((), dict(zip([each.name for each in function.parameters], given))))
        for args, kwargs in calls:
            error = call_error(getattr(module, function.name), args, kwargs)
            assert str(error) == wrong_type_message(parameter.name, parameter.type.__name__, value)
            (entry,) = traceback_entries(error.__traceback__)
            assert entry == Entry(function.name, entry.first_line, entry.first_line)
            assert function.first_line[0] <= entry.first_line <= function.first_line[1]
    assert (made, simulator.call_log) == ([], [])


@pytest.mark.parametrize(
    ("function", "position"),
    TYPED,
    ids=[f"{function.name}-{function.parameters[at].name}" for function, at in TYPED],
)
def test_type_name_in_error_is_cut_at_200_characters(
    module: ModuleType, function: Function, position: int
) -> None:
    value = of_type_named(LONG)
    text = error_text(module, function, arguments_around(function, position, value))
    assert text.endswith(f", got {LONG[:200]})")


# The error of each bytes function for None; functions that expect str accept None.
NONE_REFUSED = {
    "aps_unsigned_int_hash": "expected bytes, NoneType found",
    "encrypt_cookie": "expected bytes, NoneType found",
    "decrypt_cookie": "object of type 'NoneType' has no len()",
    "check_cert_expiration": "expected bytes, NoneType found",
}


@pytest.mark.parametrize(("name", "text"), NONE_REFUSED.items())
def test_none_for_bytes_raises_type_error(
    simulator: Simulator, module: ModuleType, name: str, text: str
) -> None:
    error = call_error(getattr(module, name), [None], {})
    assert str(error) == text
    (entry,) = traceback_entries(error.__traceback__)
    assert (entry.function, entry.line < 94) == (name, True)
    assert simulator.call_log == []


@pytest.mark.parametrize(
    "function",
    [
        row
        for row in FUNCTIONS
        if row.kind == "one" and row.parameters[0].type is str and row.name.startswith("list_")
    ],
    ids=lambda row: row.name,
)
def test_none_for_str_is_accepted(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    simulator.set_reply("build_system_interface_physical", [{"interface": [{"name": None}]}])
    getattr(module, function.name)(None)
    assert len([call for call in simulator.call_log if call.service.startswith("build_")]) == 1


@pytest.mark.parametrize(
    "name",
    [
        row.name
        for row in FUNCTIONS
        if row.kind != "none"
        and row.parameters[0].type is None
        and row.name.startswith(("list_", "switch_"))
    ],
)
@pytest.mark.parametrize(
    "value", [0, 7, "text", StrSubclass("text"), None, [], [1], {"a": 1}, True, 1.5], ids=repr
)
def test_untyped_query_parameter_accepts_anything(
    simulator: Simulator, module: ModuleType, name: str, value: object
) -> None:
    made: list[tuple[Any, ...]] = []
    simulator.on_create = made.append
    assert getattr(module, name)(value) is None
    (request,) = made[0]
    assert made[1:] == [()]
    assert all(held is value for held in request.values())


def test_cookie_name_argument_accepts_anything(module: ModuleType) -> None:
    values: list[object] = ["", "text", b"", None, 7, [], {}, object]
    named = [module.get_cookie_name(value) for value in values]
    assert [name.partition("_")[0] for name in named] == [
        "APCOOKIE",
        "APSCOOKIE",
        "APCOOKIE",
        "APCOOKIE",
        "APSCOOKIE",
        "APCOOKIE",
        "APCOOKIE",
        "APSCOOKIE",
    ]

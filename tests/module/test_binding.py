"""Argument binding of the thirty functions: the whole text of each error, the order of the checks,
and the traceback entries."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from types import MappingProxyType, ModuleType
from typing import Any, Union

import pytest

from tests.support.assertions import (
    Entry,
    fails,
    raises_exactly,
    traceback_entries,
    wrong_type_message,
)
from tests.support.doubles import BytesSubclass, MishashedStr, StrSubclass
from tests.support.function_table import FUNCTIONS, NAMED, Function
from veldarin_simulator import Simulator


def rows(*kinds: str) -> Any:
    """Parametrize a test over the functions of some kinds."""
    chosen = [row for row in FUNCTIONS if row.kind in kinds]
    return pytest.mark.parametrize("function", chosen, ids=lambda row: row.name)


def binding_error(
    module: ModuleType,
    name: str,
    args: Iterable[Any] = (),
    kwargs: Mapping[Any, Any] = MappingProxyType({}),
) -> str:
    """The text of the call's TypeError, which the module raises at the function's first line."""
    function, row = getattr(module, name), NAMED[name]
    # The lambda passes keywords that are not strings.
    error = raises_exactly(TypeError, lambda: function(*args, **kwargs))
    (entry,) = traceback_entries(error.__traceback__)
    assert entry == Entry(name, entry.first_line, entry.first_line)
    assert row.first_line[0] <= entry.first_line <= row.first_line[1]
    return str(error)


# Functions without parameters and functions of one argument: the interpreter's own rules.


NO_KEYWORDS = "takes no keyword arguments"


@rows("none", "one")
def test_interpreter_rejects_wrong_arguments(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    """Keywords are rejected before arguments are counted. The module adds no traceback entry."""
    if function.kind == "none":
        texts = {given: f"takes no arguments ({given} given)" for given in (1, 2, 5)}
    else:
        texts = {given: f"takes exactly one argument ({given} given)" for given in (0, 2, 3)}
    calls: list[tuple[int, dict[str, None], str]]
    calls = [(given, {}, text) for given, text in texts.items()]
    calls += [(given, {"other": None}, NO_KEYWORDS) for given in (0, 1, 2)]
    calls += [(0, {parameter.name: None}, NO_KEYWORDS) for parameter in function.parameters]
    for given, kwargs, text in calls:
        error = raises_exactly(TypeError, getattr(module, function.name), *range(given), **kwargs)
        assert str(error) == f"{function.qualified}() {text}"
        assert traceback_entries(error.__traceback__) == []
    assert simulator.call_log == []


@rows("none", "one", "keywords")
def test_empty_keywords_are_ignored(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    held = getattr(module, function.name)
    without = raises_exactly(TypeError, lambda: held(1, 2, 3, 4))
    empty: dict[str, object] = {}
    assert str(raises_exactly(TypeError, lambda: held(1, 2, 3, 4, **empty))) == str(without)
    assert "(4 given)" in str(without)
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
    simulator: Simulator, module: ModuleType, name: str, given: int, words: str, bound: int
) -> None:
    """Too many arguments are rejected before keywords."""
    keywords: list[Any] = [NAMED[name].parameters[0].name, "other", 7] if given > bound else []
    for kwargs in ({}, *({keyword: 1} for keyword in keywords)):
        text = binding_error(module, name, [ANY] * given, kwargs)
        assert text == count_error(name, words, bound, given)
    assert simulator.call_log == []


@pytest.mark.parametrize(
    ("name", "keyword", "words", "bound"),
    [
        ("get_bfd_neighbor", "list_bfd", "at least", 1),
        ("capture_sniffer_profile", "profile_name", "exactly", 2),
        ("capture_sniffer_profile", "event", "exactly", 2),
    ],
)
def test_missing_argument_raises_positional_count_error(
    module: ModuleType, name: str, keyword: str, words: str, bound: int
) -> None:
    text = binding_error(module, name, (), {keyword: None})
    assert text == count_error(name, words, bound, 0)


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
# Type names, and what is left of 200 bytes of them; U+FFFD replaces a character that is cut.
TRUNCATED = [
    (LONG, LONG[:200]),
    ("x" * 199 + "ß", "x" * 199 + "\ufffd"),
    ("x" * 198 + "€", "x" * 198 + "\ufffd"),
    ("x" * 197 + "😀", "x" * 197 + "\ufffd"),
    ("€" * 100, "€" * 66 + "\ufffd"),
]


UNKNOWN = ["other", "", "Policy_id", "policy_id ", "profile-name", "größe", LONG, "\x00"]


@rows("keywords")
def test_faulty_keyword_raises_type_error(
    simulator: Simulator, module: ModuleType, function: Function
) -> None:
    name = function.name
    bound: dict[Any, object] = {parameter.name: None for parameter in function.parameters}
    keyword: Any
    for keyword in (*UNKNOWN, StrSubclass("other")):
        text = unexpected(name, keyword)
        assert binding_error(module, name, (), {**bound, keyword: 1}) == text
    for keyword in (7, b"policy_id", None, (), 1.5, object()):
        assert binding_error(module, name, (), {**bound, keyword: 1}) == not_strings(name)
    assert simulator.call_log == []


@rows("keywords")
@pytest.mark.parametrize("kind", [str, StrSubclass])
def test_parameter_bound_twice_raises_type_error(
    module: ModuleType, function: Function, kind: type[str]
) -> None:
    positional: list[None] = []
    for parameter in function.parameters:
        positional.append(None)
        keyword = kind(parameter.name)
        assert binding_error(module, function.name, positional, {keyword: None}) == (
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
    assert binding_error(module, name, args, kwargs) == text


# Results of binding, as the request or the command shows them


def sent(simulator: Simulator) -> list[tuple[str, str]]:
    """The native services of queries with their requests, without white space."""
    calls = [call for call in simulator.call_log if call.service.startswith("build_")]
    return [(call.service, "".join(str(call.request).split())) for call in calls]


POLICY_ID, EQUAL = "policy_id", MishashedStr("policy_id")


@pytest.mark.parametrize(
    ("args", "kwargs", "request_text"),
    [
        pytest.param((), {}, "{}", id="nothing"),
        pytest.param((7,), {}, '{"policy_id":7}', id="by position"),
        pytest.param((), {POLICY_ID: 7}, '{"policy_id":7}', id="by name"),
        pytest.param((), {StrSubclass(POLICY_ID): 7}, '{"policy_id":7}', id="by a str subclass"),
        pytest.param((), {SameHash(POLICY_ID): 7}, '{"policy_id":7}', id="by an equal key"),
        pytest.param((), {"".join(["policy", "_id"]): 7}, '{"policy_id":7}', id="not interned"),
        pytest.param((None,), {}, "{}", id="None"),
        # an identical keyword wins over an equal one
        pytest.param((), {EQUAL: 7}, '{"policy_id":7}', id="equal alone"),
        pytest.param((), {POLICY_ID: 7, EQUAL: 8}, '{"policy_id":7}', id="equal after the exact"),
        pytest.param((), {EQUAL: 8, POLICY_ID: 7}, '{"policy_id":7}', id="equal before the exact"),
    ],
)
def test_optional_parameter_binds_by_position_or_name(
    simulator: Simulator, module: ModuleType, args: Any, kwargs: Any, request_text: str
) -> None:
    module.switch_acl_ingress_counter(*args, **kwargs)
    assert [request for _service, request in sent(simulator)] == [request_text]


EXACT: dict[str, str] = {"event": "Stop", "profile_name": "p"}
EQUAL_KEYS: dict[str, str] = {MishashedStr("event"): "Pause", MishashedStr("profile_name"): "q"}


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [
        (("p", "Stop"), {}),
        (("p",), {"event": "Stop"}),
        ((), {"profile_name": "p", "event": "Stop"}),
        ((), EXACT),
        ((), {**EXACT, **EQUAL_KEYS}),
        ((), {**EQUAL_KEYS, **EXACT}),
    ],
    ids=["positions", "position and name", "names", "other order", "equal after", "equal before"],
)
def test_required_parameters_bind_in_any_order(
    simulator: Simulator, module: ModuleType, args: Any, kwargs: Any
) -> None:
    module.capture_sniffer_profile(*args, **kwargs)
    assert sent(simulator) == [("build_stop_sniffer_profile_capture", '{"profile-name":"p"}')]


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
    binding_error(module, "switch_acl_egress_counter", (), faulty)
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
            text = binding_error(module, function.name, args, kwargs)
            assert text == wrong_type_message(parameter.name, parameter.type.__name__, value)
    for name, shown in TRUNCATED:
        given = arguments_around(function, position, of_type_named(name))
        assert binding_error(module, function.name, given).endswith(f", got {shown})")
    assert (made, simulator.call_log) == ([], [])


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
    assert str(fails(TypeError, getattr(module, name), None)) == text
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
    assert len(sent(simulator)) == 1


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
def test_untyped_query_parameter_accepts_anything(
    simulator: Simulator, module: ModuleType, name: str
) -> None:
    made: list[tuple[Any, ...]] = []
    simulator.on_create = made.append
    for value in (0, 7, "text", StrSubclass("text"), None, [], [1], {"a": 1}, True, 1.5):
        made.clear()
        assert getattr(module, name)(value) is None
        (request,), *more = made
        assert more == [()]
        assert all(held is value for held in request.values())


def test_cookie_name_argument_accepts_anything(module: ModuleType) -> None:
    values: list[object] = ["", "text", b"", None, 7, [], {}, object]
    for value in values:
        prefix = "APSCOOKIE_" if value else "APCOOKIE_"
        assert module.get_cookie_name(value).startswith(prefix)

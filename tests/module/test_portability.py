"""Behavior that depends on the processor: word size, byte order, signedness of char, alignment. The
same tests pass on the workstation and on the MIPS target, which differ in all of them."""

from __future__ import annotations

import struct
from types import ModuleType

import pytest

from tests.support.assertions import raises_exactly
from tests.support.fake_cli import FakeCli
from veldarin_simulator import RawJSON, Simulator

POINTER = struct.calcsize("P")
EVERY_BYTE = bytes(range(1, 256))
# The limits of signed and unsigned integers of 32 and 64 bits and of exact floats.
BOUNDS = [
    *(2**31 - 1, 2**31, -(2**31), -(2**31) - 1, 2**32 - 1, 2**32),
    *(2**53 - 1, 2**53 + 1, 2**63 - 1, -(2**63), 2**64 - 1),
]


# Numbers


@pytest.mark.parametrize("number", BOUNDS)
def test_64_bit_counter_is_returned_exactly(
    simulator: Simulator, module: ModuleType, number: int
) -> None:
    simulator.set_reply("build_switch_port_statistics", [{"bytes_recv": number}])
    assert module.list_switch_port_statistics("port1") == [{"bytes_recv": number}]


@pytest.mark.parametrize("number", BOUNDS)
def test_64_bit_request_number_is_sent_exactly(
    simulator: Simulator, module: ModuleType, number: int
) -> None:
    simulator.set_reply("build_switch_acl_ingress_stats", lambda request: request["policy_id"])
    assert module.switch_acl_ingress_counter(number) == number


def test_number_beyond_64_bits_raises_without_native_call(
    simulator: Simulator, module: ModuleType
) -> None:
    for number in (2**64, -(2**63) - 1):
        raises_exactly(OverflowError, module.switch_acl_ingress_counter, number)
    assert [call for call in simulator.call_log if call.service.startswith("build_")] == []


@pytest.mark.parametrize("number", [0.1, -2.5e-7, 1e300, 5e-324, 2.0**53, 1 / 3])
def test_float_is_returned_exactly(simulator: Simulator, module: ModuleType, number: float) -> None:
    simulator.set_reply("build_switch_lg_state", RawJSON(repr(number)))
    assert struct.pack(">d", module.list_switch_lg_state()) == struct.pack(">d", number)


# Characters, which may have a sign


def test_every_byte_value_reaches_native_services(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("cookieval_wrap", lambda text: text[::-1])
    simulator.set_reply("cookieval_unwrap", lambda text: text[::-1])
    assert module.encrypt_cookie(EVERY_BYTE) == EVERY_BYTE[::-1]
    assert module.decrypt_cookie(EVERY_BYTE) == EVERY_BYTE[::-1]
    module.aps_unsigned_int_hash(EVERY_BYTE)
    module.check_cert_expiration(EVERY_BYTE)
    assert [call.text for call in simulator.call_log] == [EVERY_BYTE] * 4


def test_every_command_character_is_sent(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", lambda command: command)
    for first in range(1, 0x900, 40):
        text = "".join(map(chr, range(first, first + 40)))
        assert module.get_cli_command_output(text) == text
    for text in ("\u20ac\uffff" * 15, "\U0001f600\U0010ffff" * 15):
        assert module.get_cli_command_output(text) == text


@pytest.mark.parametrize("wide", ["a", "\xe9", "\u20ac", "\U0001f600"], ids=ascii)
def test_pager_prompt_at_any_offset_is_removed(
    simulator: Simulator, module: ModuleType, wide: str
) -> None:
    for before in range(9):
        for after in range(9):
            simulator.set_reply("get_cli_cmd_output", f"{wide * before}--More--{wide * after}")
            assert module.get_cli_command_output("command") == wide * (before + after)


# Text that is read in machine words


@pytest.mark.parametrize("wide", ["", "\xe9", "\u20ac", "\U0001f600"], ids=ascii)
def test_values_differing_in_one_character_are_kept_apart(cli: FakeCli, wide: str) -> None:
    # The cache of short strings reads machine words at any address of the text.
    values = ["", *("x" * n for n in range(1, 70))]
    values += ["x" * n + "y" + "x" * (size - n - 1) for size in (1, 7, 8, 9, 16, 17, 64, 65)
               for n in range(size)]  # fmt: skip
    rows = [f"{value}1 {value}2 {value}3 {value}4{wide}" for value in (*values, *values[::-1])]
    cli.set_output("Address", *rows)
    assert [" ".join(row.values()) for row in cli.parser.get_system_arp_result()] == rows


@pytest.mark.parametrize("offset", range(9))
def test_text_at_any_alignment_is_parsed(
    simulator: Simulator, module: ModuleType, offset: int
) -> None:
    # The native buffer is aligned; text within it need not be.
    lead = "l" * offset
    simulator.set_reply("get_cli_cmd_output", f"{lead}\nAddress\n{lead} 192.0.2.1 0 aa:bb port1\n")
    (row,) = module.get_system_arp_result()
    assert [*row.values()] == [*f"{lead} 192.0.2.1 0 aa:bb port1".split(maxsplit=3)]


# Memory layout


def test_json_object_is_header_and_two_pointers(simulator: Simulator) -> None:
    from util.json import JSONObject

    assert JSONObject.__basicsize__ == object.__basicsize__ + 2 * POINTER

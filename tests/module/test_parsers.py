"""The three parsers of command output call the command runner and the decoder in the same way."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.support.assertions import raises_exactly, traceback_entries, with_types
from tests.support.doubles import Failure, OwnMethodsStr, Recorder, raiser
from tests.support.fake_cli import FakeCli
from veldarin_simulator import Simulator

OUTPUTS = {
    "get_bfd_neighbor": "echo\npeer a b c\n\tk: v",
    "get_routing_table_result": "Routing a b c\r\na,b c,d e,f\na b c",
    "get_system_arp_result": "Address\na b c d",
}

every_parser = pytest.mark.parametrize("function", OUTPUTS)


def parse(parser: Any, function: str) -> Any:
    """Call a parser of the module or of the reference model."""
    arguments: dict[str, tuple[Any, ...]] = {
        "get_bfd_neighbor": ("command", {}),
        "get_routing_table_result": ("address",),
    }
    return getattr(parser, function)(*arguments.get(function, ()))


@every_parser
@pytest.mark.parametrize("name", ["get_cli_command_output", "text_"])
@pytest.mark.parametrize("kind", [Failure, KeyboardInterrupt])
def test_runner_or_decoder_error_propagates_unlogged(
    cli: FakeCli, function: str, name: str, kind: type[BaseException]
) -> None:
    error = kind()
    cli.patch(name, raiser(error))
    assert raises_exactly(kind, parse, cli.parser, function) is error
    assert cli.debug_messages == []
    assert cli.shared == {}


@every_parser
@pytest.mark.parametrize("name", ["get_cli_command_output", "text_", "_CHARSET"])
def test_missing_global_raises_name_error(cli: FakeCli, function: str, name: str) -> None:
    cli.delete(name)
    error = raises_exactly(NameError, parse, cli.parser, function)
    assert str(error) == f"name '{name}' is not defined"


@every_parser
def test_undecoded_bytes_raise_type_error(cli: FakeCli, function: str) -> None:
    cli.set_output(b"peer Routing Address")
    cli.patch("text_", lambda value, encoding: value)
    error = raises_exactly(TypeError, parse, cli.parser, function)
    assert str(error) == "a bytes-like object is required, not 'str'"


@every_parser
def test_runner_failure_has_entries_of_both_functions(
    simulator: Simulator, module: ModuleType, function: str
) -> None:
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(module.CFunctionError, parse, module, function)
    assert error.args == ("get_cli_command_output's result is null.",)
    names = [found.function for found in traceback_entries(error.__traceback__)]
    assert names == [function, "get_cli_command_output"]


@every_parser
def test_parser_looks_names_up_in_statement_order(cli: FakeCli, function: str) -> None:
    """text_(get_cli_command_output(command), _CHARSET): first text_, last _CHARSET."""

    def run(command: str) -> str:
        cli.patch("text_", raiser(AssertionError("looked up too late")))
        cli.patch("_CHARSET", "rebound while the command ran")
        return OUTPUTS[function]

    decode = Recorder(lambda value, encoding: value)
    cli.patch("text_", decode)
    cli.run.side_effect = run
    parse(cli.parser, function)
    assert decode.positional == [(OUTPUTS[function], "rebound while the command ran")]


@every_parser
def test_parser_reads_characters_of_str_subclass(native_cli: FakeCli, function: str) -> None:
    output = OUTPUTS[function]
    called: list[str] = []
    native_cli.set_output(output)
    expected = parse(native_cli.parser, function)
    assert expected
    native_cli.patch("text_", lambda value, encoding: OwnMethodsStr(output, called))
    assert with_types(parse(native_cli.parser, function)) == with_types(expected)
    assert called == []

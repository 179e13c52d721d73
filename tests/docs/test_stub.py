"""The module, its function table in C++, its type stub and the page of functions agree: functions,
order, names and parameters."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path
from types import ModuleType
from typing import Any, Callable

import pytest

from tests.support import isolated
from tests.support.assertions import MODULE, raises_exactly
from tests.support.stub import (
    FUNCTIONS,
    NAMED,
    STUB,
    Function,
    Parameter,
    every_function,
)
from tools import generate_function_docs
from veldarin_simulator import Simulator, stub

TABLE = stub.STUB.with_name("function_table.def")

# A parameter's constructor in the table: its type and default.
CONSTRUCTORS: dict[str, tuple[str | None, str | None]] = {
    "ANY": (None, None),
    "BYTES": ("bytes", None),
    "TEXT": ("str", None),
    "OPTIONAL": (None, "None"),
    "SHARED_DICT": (None, "..."),
}


def table() -> list[Function]:
    """The rows of the table of functions in C++."""
    rows = re.findall(
        r"^(?:FUNCTION|QUERY|SELECT|CAPTURE) *\((\w+), *(\w+), *([^,]+),",
        TABLE.read_text(),
        re.MULTILINE,
    )
    return [
        Function(
            name,
            kind,
            [
                Parameter(parameter, *CONSTRUCTORS[constructor])
                for constructor, parameter in re.findall(r"(\w+)\((\w+)\)", parameters)
            ],
        )
        for kind, name, parameters in rows
    ]


with_keywords = pytest.mark.parametrize(
    "function", [row for row in FUNCTIONS if row.kind == "keywords"], ids=lambda row: row.name
)


def own_functions() -> list[str]:
    """The functions of the module in the order of its namespace, before any test touched it."""
    import importlib

    from tests.support.isolated import MODULE

    return [
        name
        for name, held in vars(importlib.import_module(MODULE)).items()
        if getattr(held, "__module__", None) == MODULE and type(held) is type(len)
    ]


def test_stub_declares_functions_in_module_order() -> None:
    assert [function.name for function in FUNCTIONS] == isolated.value(own_functions)
    assert len(FUNCTIONS) == 30


def held_to(parameter: Parameter) -> Parameter:
    # The stub declares str for a command: the module accepts anything, the runner str only.
    return parameter._replace(type=None) if parameter.name == "cmd" else parameter


def test_stub_matches_cpp_function_table() -> None:
    assert [
        Function(name, kind, [*map(held_to, parameters)])
        for name, kind, parameters, _result in FUNCTIONS
    ] == table()


# Parameters, as calls show them


def error_text(function: Callable[..., object], *given: object, **named: object) -> str:
    return str(raises_exactly(TypeError, function, *given, **named))


@every_function
def test_declared_kind_matches_keyword_handling(module: ModuleType, function: Function) -> None:
    text = error_text(getattr(module, function.name), unheard_of=1)
    if function.kind == "keywords":
        assert text == f"{function.name}() got an unexpected keyword argument 'unheard_of'"
    else:
        assert text == f"{MODULE}.{function.name}() takes no keyword arguments"


@every_function
def test_declared_parameter_count_matches_error(module: ModuleType, function: Function) -> None:
    text = error_text(getattr(module, function.name), *range(9))
    words = {"no arguments": 0, "exactly one argument": 1}
    found = re.search(r"takes (no arguments|exactly one argument) \(9 given\)", text)
    if found is None:
        found = re.search(r"takes (?:exactly|at most) (\d) positional arguments? \(9 given\)", text)
    assert found is not None, text
    assert words.get(found[1], found[1]) in (
        len(function.parameters),
        str(len(function.parameters)),
    )


@with_keywords
def test_declared_name_is_accepted_as_keyword(module: ModuleType, function: Function) -> None:
    for parameter in function.parameters:
        text = error_text(getattr(module, function.name), **{parameter.name: 1}, unheard_of=1)
        assert text == f"{function.name}() got an unexpected keyword argument 'unheard_of'"


@every_function
def test_parameter_without_default_is_required(module: ModuleType, function: Function) -> None:
    required = sum(parameter.default is None for parameter in function.parameters)
    called = getattr(module, function.name)
    if function.kind == "keywords" and required:
        words = "exactly" if required == len(function.parameters) else "at least"
        assert f" {words} {required} positional argument" in error_text(called)
    elif function.kind == "keywords":
        called()
    else:
        assert required == len(function.parameters)


def test_default_none_equals_omitted_argument(simulator: Simulator, module: ModuleType) -> None:
    made: list[tuple[Any, ...]] = []
    simulator.on_create = made.append
    for function in FUNCTIONS:
        if [parameter.default for parameter in function.parameters] == ["None"]:
            for arguments in ((), (None,)):
                getattr(module, function.name)(*arguments)
    requests = [arguments for arguments in made if arguments]
    assert requests == [({},)] * 10


def test_elided_default_is_one_shared_dictionary(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", "nothing")
    default = module.get_bfd_neighbor("command")
    assert type(default) is dict
    assert module.get_bfd_neighbor("command") is default
    assert NAMED["get_bfd_neighbor"].parameters[1].default == "..."


@every_function
def test_declared_type_matches_type_check(module: ModuleType, function: Function) -> None:
    for position, parameter in enumerate(map(held_to, function.parameters)):
        if parameter.type is None:
            continue
        arguments: list[object] = [None] * len(function.parameters)
        arguments[position] = 7
        assert error_text(getattr(module, function.name), *arguments) == (
            f"Argument '{parameter.name}' has incorrect type (expected {parameter.type}, got int)"
        )


# Other names

# Names that the stub defines for annotations only.
FOR_ANNOTATIONS = {"BFDSession", "ARPEntry", "Route", "RoutingTable"}


def own_names() -> list[str]:
    import importlib

    from tests.support.isolated import MODULE

    return list(vars(importlib.import_module(MODULE)))


def test_stub_names_match_module_names() -> None:
    interpreters_own = set(vars(ModuleType("any"))) | {"__file__", "__builtins__"}
    present = set(isolated.value(own_names)) - interpreters_own
    assert STUB.names - FOR_ANNOTATIONS == present


def run(*command: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, *command], cwd=isolated.ROOT, capture_output=True, text=True, timeout=300
    )


@pytest.mark.workstation_only("mypy runs on the workstation")
def test_stubtest_finds_no_difference(tmp_path: Path) -> None:
    allowed = tmp_path / "allowed"
    # An alias does not exist at run time; the function that creates locks also stands for the type.
    allowed.write_text(f"{MODULE}.BFDSession\n{MODULE}.Lock\n")
    # stubtest imports the module, so the simulator's libraries are loaded first.
    source = (
        "from veldarin_simulator import native_library; native_library.load()\n"
        "from mypy.stubtest import main, parse_options\n"
        "import sys; sys.exit(main())"
    )
    settings = tmp_path / "mypy.ini"
    settings.write_text("[mypy]\nignore_missing_imports = True\n")
    done = run(
        "-c", source, MODULE, "--allowlist", str(allowed), "--mypy-config-file", str(settings)
    )
    assert done.returncode == 0, done.stdout + done.stderr


# A caller's file: each line that mypy must reject names the error code.
AUTHORS_FILE = """\
from __future__ import annotations

from typing import TYPE_CHECKING

from veldarin.modules import modules_util as device

if TYPE_CHECKING:
    from veldarin.modules.modules_util import ARPEntry, BFDSession, RoutingTable

name: str = device.get_cookie_name(https=True)  # type: ignore[call-arg]
name = device.get_cookie_name(True)
device.encrypt_cookie("text")  # type: ignore[arg-type]
value: bytes = device.decrypt_cookie(device.encrypt_cookie(b"text"))
device.get_token(1)  # type: ignore[call-arg]
good: bool = device.check_cert_expiration(b"/path")
device.switch_acl_ingress_counter(policy_id=7)
device.switch_acl_ingress_counter(policy=7)  # type: ignore[call-arg]
device.list_switch_port_statistics(None)
device.list_switch_port_statistics()  # type: ignore[call-arg]
device.list_switch_port_statistics(b"port1")  # type: ignore[arg-type]
device.capture_sniffer_profile(event="Stop", profile_name="p")
device.capture_sniffer_profile("p")  # type: ignore[call-arg]
sessions: dict[str, BFDSession] = device.get_bfd_neighbor("command")
mine: dict[str, BFDSession] = {}
device.get_bfd_neighbor("command", list_bfd=mine)
entries: list[ARPEntry] = device.get_system_arp_result()
entries[0]["mac"].lower()
entries[0]["adress"]  # type: ignore[typeddict-item]
routing: RoutingTable = device.get_routing_table_result("192.0.2.1")
[route["interface"] for route in routing["table"]]
counters = device.Counters(1, 2, 3, 4, 5, 6, 7, 8)
device.json.loads("1")
device.no_such_function()  # type: ignore[attr-defined]
try:
    device.get_cli_command_output("command")
except device.CFunctionError:
    pass
"""


@pytest.mark.workstation_only("mypy runs on the workstation")
def test_mypy_accepts_stub_and_its_declarations(tmp_path: Path) -> None:
    file = tmp_path / "author.py"
    file.write_text(AUTHORS_FILE)
    done = run("-m", "mypy", "--no-error-summary", str(stub.STUB), str(file))
    assert (done.returncode, done.stdout) == (0, "")


# The page


def test_function_page_is_up_to_date() -> None:
    done = run("-m", "tools.generate_function_docs", "--check")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_function_page_has_section_per_function() -> None:
    headings = re.findall(r"^### (\w+)$", generate_function_docs.PAGE.read_text(), re.MULTILINE)
    names = [function.name for function in FUNCTIONS]
    assert [heading for heading in headings if heading in names] == names


def test_stale_function_page_is_reported_and_rewritten(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.setattr(generate_function_docs, "ROOT", tmp_path)
    monkeypatch.setattr(generate_function_docs, "PAGE", tmp_path / "docs" / "functions.md")
    assert generate_function_docs.main(["--check"]) == 1
    assert capsys.readouterr().err == "docs/functions.md is stale: make docs\n"
    assert generate_function_docs.main([]) == 0
    assert generate_function_docs.main(["--check"]) == 0
    generate_function_docs.PAGE.write_text(
        generate_function_docs.PAGE.read_text().replace("list_bfd", "list_bdf")
    )
    assert generate_function_docs.main(["--check"]) == 1
    assert capsys.readouterr().err == "docs/functions.md is stale: make docs\n"


@pytest.mark.parametrize(
    ("source", "output"),
    [
        ("def f() -> int:\n    'Text.'\n", "line 1: f has no heading above"),
        ("# ---------- Heading\ndef f() -> int: ...\n", "line 2: f has no docstring"),
        ("# ---------- Heading\nx: int\ny: str\n'Text.'\n", "line 2: x has no docstring"),
    ],
)
def test_stub_without_headings_or_docs_is_rejected(source: str, output: str) -> None:
    assert (
        str(raises_exactly(generate_function_docs.StubError, generate_function_docs.page, source))
        == output
    )

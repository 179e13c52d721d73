"""The type stub agrees with the function table in C++, with the one that the tests expect, and with
the page of functions. The tests of binding and of the namespace hold the module to the expected
table."""

from __future__ import annotations

import re
import subprocess
import sys
from itertools import zip_longest
from pathlib import Path
from types import ModuleType
from typing import Optional

import pytest

from tests.support import function_table, isolated
from tests.support.assertions import MODULE, raises_exactly
from tests.support.stub import FUNCTIONS, STUB
from tools import generate_function_docs
from veldarin_simulator import stub

# A function's name and kind, and the name, type and default of each parameter.
Row = tuple[str, str, list[tuple[str, Optional[str], Optional[str]]]]

# A parameter's constructor in the table in C++: its type and default.
CONSTRUCTORS: dict[str, tuple[str | None, str | None]] = {
    "ANY": (None, None),
    "BYTES": ("bytes", None),
    "TEXT": ("str", None),
    "OPTIONAL": (None, "None"),
    "SHARED_DICT": (None, "..."),
}


def cpp_table() -> list[Row]:
    """The rows of the function table in C++."""
    rows = re.findall(
        r"^(?:FUNCTION|QUERY|SELECT|CAPTURE) *\((\w+), *(\w+), *([^,]+),",
        stub.STUB.with_name("function_table.def").read_text(),
        re.MULTILINE,
    )
    return [
        (name, kind, [(p, *CONSTRUCTORS[made]) for made, p in re.findall(r"(\w+)\((\w+)\)", given)])
        for kind, name, given in rows
    ]


def declared(function: stub.Function) -> Row:
    """The row that the stub declares."""
    by_keyword = {parameter.keyword for parameter in function.parameters}
    kind = "keywords" if by_keyword == {True} else "one_arg" if by_keyword else "no_args"
    parameters = []
    for p in function.parameters:
        # The stub declares str for a command: the module accepts anything, the runner str only.
        is_checked = p.types <= {"bytes", "str"} and p.name != "cmd"
        parameters.append((p.name, next(iter(p.types)) if is_checked else None, p.default))
    return function.name, kind, parameters


def test_stub_matches_cpp_function_table() -> None:
    assert [*map(declared, FUNCTIONS)] == cpp_table()


def test_stub_matches_expected_function_table() -> None:
    kinds = {"none": "no_args", "one": "one_arg", "keywords": "keywords"}
    for function, expected in zip_longest(FUNCTIONS, function_table.FUNCTIONS):
        name, kind, parameters = declared(function)
        assert (name, kind) == (expected.name, kinds[expected.kind])
        assert [(p, of_type, default is not None) for p, of_type, default in parameters] == [
            (p.name, p.type and p.type.__name__, p.optional) for p in expected.parameters
        ]
    assert len(FUNCTIONS) == 30


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
    error = raises_exactly(generate_function_docs.StubError, generate_function_docs.page, source)
    assert str(error) == output

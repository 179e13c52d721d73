"""The command line as a person types it: help, suggestions, completion, unwritable output."""

from __future__ import annotations

import json
import os
import pty
import re
import select
import shlex
import shutil
import subprocess
import sys
import time
from pathlib import Path
from typing import Any

import pytest

from tests.support.function_table import FUNCTIONS
from tests.support.netns import ROOT
from veldarin_simulator import stub
from veldarin_simulator.__main__ import TOOLS, main
from veldarin_simulator.cli import demo
from veldarin_simulator.similar import did_you_mean, similar

TOOL = (sys.executable, "-m", "veldarin_simulator")
# A script with this name, as an installation creates it.
SCRIPT = "import sys\nfrom veldarin_simulator.__main__ import main\nsys.exit(main())\n"


@pytest.fixture
def run(capsys: pytest.CaptureFixture[str]) -> Any:
    """Run a tool in this process: (exit status, standard output, standard error)."""

    def run(*texts: str) -> tuple[int, str, str]:
        capsys.readouterr()
        status = main(list(texts))
        out, err = capsys.readouterr()
        return status, out, err

    return run


NAMES = ["list_switch_lldp_state", "list_switch_trunk_state", "get_bfd_neighbor", "get_token"]


@pytest.mark.parametrize(
    ("word", "found"),
    [
        ("lldp", NAMES[:1]),
        ("LLDP", NAMES[:1]),
        ("lldb", NAMES[:1]),
        ("switch", NAMES[:2]),
        ("list_switch_lldp", NAMES[:1]),
        ("list_switch_trunks_state", [NAMES[1], NAMES[0]]),
        ("trunks", NAMES[1:2]),
        ("get_tokens", NAMES[3:]),
        ("xy", []),
        ("", []),
        ("quantum", []),
    ],
)
def test_similar_names_contain_or_resemble_the_word(word: str, found: list[str]) -> None:
    assert similar(word, NAMES) == found


def test_did_you_mean_lists_three_names() -> None:
    assert did_you_mean("one", ["one", "two"]) == "did you mean one?"
    assert did_you_mean("a_b", ["a_b1", "a_b2"]) == "did you mean a_b1 or a_b2?"
    assert did_you_mean("a_b", [f"a_b{n}" for n in range(9)]) == "did you mean a_b0, a_b1 or a_b2?"
    assert did_you_mean("zz", ["one"]) == ""


@pytest.mark.parametrize(
    ("texts", "message"),
    [
        (("call", "lldp"), "no function lldp: did you mean list_switch_lldp_state?"),
        (("call", "arp"), "did you mean get_system_arp_result?"),
        (("call", "bfd"), "did you mean get_bfd_neighbor or list_bfd_neighbor?"),
        (("call", "list_switch_lldp"), "did you mean list_switch_lldp_state?"),
        (("call", "build_switch_lldp_state"), "did you mean list_switch_lldp_state"),
        (("cal",), "cal is not a tool: did you mean call?"),
        (("recordd",), "recordd is not a tool: did you mean record?"),
        (("list_functions",), "list_functions is not a tool: expected a tool: demo, "),
        (
            ("call", "list_switch_lldp_state", "port_name=port1"),
            "list_switch_lldp_state: port_name is positional-only: write the value alone",
        ),
        (
            ("call", "switch_acl_ingress_counter", "polcy_id=7"),
            "no parameter is named polcy_id: did you mean policy_id=?",
        ),
        (("call", "switch_acl_ingress_counter", "policy-id=7"), "did you mean policy_id=?"),
        (("call", "list_switch_trunk_state", "trunk=uplink"), "did you mean trunk_name=?"),
        (
            ("call", "switch_acl_ingress_counter", "policy_id=1", "policy_id=2"),
            "switch_acl_ingress_counter: policy_id is given twice",
        ),
        (("completion",), "the following arguments are required: shell"),
        (("completion", "fish"), "choose from 'bash', 'zsh'"),
        (("record",), "one of the arguments --into --check is required"),
        (("list", "a", "b"), "unrecognized arguments: b"),
    ],
)
def test_usage_error_suggests_what_to_write(run: Any, texts: Any, message: str) -> None:
    status, out, err = run(*texts)
    assert (status, out) == (2, "")
    assert err.startswith("veldarin_simulator: ")
    assert message in err
    assert err.count("\n") == 1


def test_value_with_equals_sign_is_passed_after_dashes(run: Any, tmp_path: Path) -> None:
    name = "build_switch_port_statistics port_name=port_name=port1.json"
    (tmp_path / name).write_text('"found"')
    call = ("call", "--scenario", str(tmp_path), "list_switch_port_statistics")
    assert run(*call, "--", "port_name=port1")[:2] == (0, '"found"\n')
    assert run(*call[:-1], "--", call[-1], "port_name=port1")[:2] == (0, '"found"\n')


def test_value_with_unrelated_name_is_a_value() -> None:
    functions = stub.functions()
    assert functions["encrypt_cookie"].arguments(["user=admin"]) == ([b"user=admin"], {})
    assert functions["get_bfd_neighbor"].arguments(["--x=1", "=", "a b=c"])[1] == {}
    given = functions["capture_sniffer_profile"].arguments(["event=Stop"], ["event=x"])
    assert given == (["event=x"], {"event": "Stop"})


@pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)
def test_call_help_shows_signature_and_docstring(run: Any, function: Any) -> None:
    declared = stub.functions()[function.name]
    for texts in (("call", function.name, "--help"), ("call", "-h", function.name)):
        status, out, err = run(*texts)
        assert (status, err) == (0, "")
        usage, blank, declaration, *rest = out.splitlines()
        assert usage.startswith("usage: ")
        assert f" {function.name}" in usage
        assert (blank, declaration) == ("", declared.declaration)
        assert "\n".join(rest).strip() == declared.docstring
    for parameter in function.parameters:
        word = f"{parameter.name}=VALUE" if function.kind == "keywords" else parameter.name.upper()
        assert (f"[{word}]" if parameter.optional else f" {word}") in usage


def test_list_prints_functions_with_summaries(run: Any) -> None:
    status, out, err = run("list")
    assert (status, err) == (0, "")
    declared = stub.functions()
    assert [line.split(None, 1) for line in out.splitlines()] == [
        [name, function.summary] for name, function in declared.items()
    ]
    assert [line.split()[0] for line in run("list", "trunk")[1].splitlines()] == [
        "list_switch_trunk_state"
    ]
    assert run("list", "quantum") == (
        *(1, "", "veldarin_simulator: no function has a name like quantum\n"),
    )


def test_version_is_that_of_the_project(run: Any) -> None:
    status, out, err = run("--version")
    assert (status, err) == (0, "")
    (version,) = re.findall(
        r"project\(modules_util VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text()
    )
    assert out == f"veldarin-simulator {version}\n"


@pytest.mark.requires("cryptography", "netlink")
def test_demo_prints_json(run: Any) -> None:
    status, out, err = run("demo", "--json")
    assert (status, err) == (0, "")
    rows = json.loads(out)
    assert [row["function"] for row in rows] == [function.name for function in FUNCTIONS]
    by_name = {row["function"]: row for row in rows}
    assert by_name["decrypt_cookie"]["result"] == "user=admin"
    assert by_name["list_switch_lg_state"]["result"][0]["group"] == "lg1"
    assert by_name["list_switch_lg_state"]["source"] == "recorded"
    assert by_name["switch_mclag_icl"] == {
        "function": "switch_mclag_icl",
        "call": "switch_mclag_icl()",
        "source": "no call",
        "result": None,
    }
    assert len(by_name["get_token"]["result"]) < 16


@pytest.mark.requires("cryptography", "netlink")
def test_demo_json_has_the_errors(run: Any, tmp_path: Path) -> None:
    (tmp_path / "build_system_interface_physical.json").write_text("[]")
    status, out, _ = run("demo", "--json", "--scenario", str(tmp_path))
    (row,) = [row for row in json.loads(out) if "error" in row]
    assert (status, row["source"]) == (1, "raised")
    assert row["error"] == "IndexError: list index out of range"
    assert "result" not in row


@pytest.mark.parametrize("width", range(1, 12))
def test_demo_value_is_cut_to_the_width(width: int) -> None:
    for text in ("", "abc", "abcdefghijkl", "日本語日本語", "a日b本c語", "…" * 12):
        cut = demo._cut(text, width)
        assert demo._columns(cut) <= width
        assert cut == text or cut == f"{text[: len(cut) - 1]}…"
        if demo._columns(text) <= width:
            assert cut == text


def start(*command: str, **settings: Any) -> subprocess.Popen[str]:
    return subprocess.Popen(command, cwd=ROOT, text=True, **{"stderr": subprocess.PIPE, **settings})


ARP = ROOT / "tests" / "data" / "cli_output" / "route-connected.txt"
PRINTING = [
    (),
    ("--help",),
    ("--version",),
    ("list",),
    ("call", "--help"),
    ("call", "get_system_arp_result", "--help"),
    ("call", "switch_mclag_icl"),
    ("parse", "routing", str(ARP)),
    ("completion", "bash"),
    ("record", "--help"),
]


@pytest.mark.parametrize("texts", PRINTING[1:], ids=" ".join)
def test_output_that_cannot_be_written_exits_1(texts: tuple[str, ...]) -> None:
    with Path("/dev/full").open("w") as full:
        process = start(*TOOL, *texts, stdout=full)
        error = process.communicate(timeout=120)[1]
    assert (process.returncode, error) == (
        *(1, "veldarin_simulator: standard output: no space left on device\n"),
    )


@pytest.mark.parametrize("texts", [*PRINTING[1:5], PRINTING[8]], ids=" ".join)
def test_closed_pipe_exits_1_with_one_line(texts: tuple[str, ...]) -> None:
    reader, writer = os.pipe()
    os.close(reader)
    process = start(*TOOL, *texts, stdout=writer)
    os.close(writer)
    error = process.communicate(timeout=120)[1]
    assert (process.returncode, error) == (
        *(1, "veldarin_simulator: standard output: broken pipe\n"),
    )


@pytest.mark.requires("cryptography", "netlink")
def test_demo_into_a_closed_pipe_exits_1() -> None:
    command = f"{shlex.join(TOOL)} demo | head -n 1"
    process = start("bash", "-c", f"set -o pipefail; {command}", stdout=subprocess.PIPE)
    out, error = process.communicate(timeout=120)
    # Whether the demo is still writing when `head` ends is a matter of time.
    assert (process.returncode, error) in (
        (1, "veldarin_simulator: standard output: broken pipe\n"),
        (0, ""),
    )
    assert out.count("\n") == 1


def test_standard_output_that_is_closed_exits_1() -> None:
    process = start("bash", "-c", f"{shlex.join(TOOL)} list >&-")
    assert process.communicate(timeout=120)[1] == (
        "veldarin_simulator: standard output is closed\n"
    )
    assert process.returncode == 1


@pytest.mark.parametrize("redirection", ["2>/dev/full", "2>&-"])
def test_messages_that_cannot_be_written_are_lost(redirection: str) -> None:
    process = start(
        *("bash", "-c", f"{shlex.join(TOOL)} call list_switch_lg_state {redirection}"),
        stdout=subprocess.PIPE,
    )
    out, error = process.communicate(timeout=120)
    assert process.returncode == 0
    assert json.loads(out)[0]["group"] == "lg1"
    assert error == ""


@pytest.mark.parametrize("redirection", ["2>/dev/full", "2>&-"])
def test_exception_that_cannot_be_written_exits_1(redirection: str) -> None:
    call = f"{shlex.join(TOOL)} call switch_mclag_icl 1 {redirection}"
    process = start("bash", "-c", call, stdout=subprocess.PIPE)
    out, error = process.communicate(timeout=120)
    assert (process.returncode, out, error) == (1, "", "")


def test_closed_standard_input_is_one_line() -> None:
    process = start("bash", "-c", f"{shlex.join(TOOL)} parse arp - <&-", stdout=subprocess.PIPE)
    assert process.communicate(timeout=120) == (
        *("", "veldarin_simulator: standard input is closed\n"),
    )
    assert process.returncode == 2


def test_libraries_of_the_development_tools_are_not_needed() -> None:
    block = "import sys; sys.modules.update(dict.fromkeys(['rich', 'griffe', 'waitress'])); "
    source = "from veldarin_simulator.__main__ import main; sys.exit(main(sys.argv[1:]))"
    for texts in (
        ("list",),
        ("call", "switch_mclag_icl"),
        ("demo", "--help"),
        ("completion", "zsh"),
    ):
        process = start(sys.executable, "-c", block + source, *texts, stdout=subprocess.PIPE)
        out, error = process.communicate(timeout=120)
        assert (process.returncode, error) == (0, ""), texts
        assert out


def test_console_without_its_libraries_names_the_extra() -> None:
    block = "import sys; sys.modules.update(dict.fromkeys(['waitress'])); "
    source = "from veldarin_simulator.__main__ import main; sys.exit(main(['console']))"
    process = start(sys.executable, "-c", block + source, stdout=subprocess.PIPE)
    out, error = process.communicate(timeout=120)
    assert (process.returncode, out) == (1, "")
    assert error.count("\n") == 1
    assert "pip install 'veldarin-simulator[console]'" in error


def test_program_is_called_as_it_was_started(tmp_path: Path) -> None:
    script = tmp_path / "veldarin-simulator"
    script.write_text(SCRIPT)
    process = start(
        *(sys.executable, str(script), "call", "nothing_like_it"),
        env={**os.environ, "PYTHONPATH": str(ROOT)},
    )
    assert "see veldarin-simulator call --help" in process.communicate(timeout=120)[1]
    assert process.returncode == 2


def completions(shell_script: str, line: str) -> list[str]:
    """Return what bash's completion function offers for a line that ends at the cursor."""
    words = line.split(" ")
    source = (
        f"{shell_script}\nCOMP_WORDS=({' '.join(repr(word) for word in words)}); "
        f"COMP_CWORD={len(words) - 1}; _veldarin_simulator; printf '%s\\n' \"${{COMPREPLY[@]}}\""
    )
    done = subprocess.run(
        ["bash", "--norc", "-c", source], capture_output=True, text=True, timeout=60, check=True
    )
    assert done.stderr == ""
    return done.stdout.split("\n")[:-1]


def test_bash_completes_tools_functions_options_and_files(run: Any, tmp_path: Path) -> None:
    status, script, err = run("completion", "bash")
    assert (status, err) == (0, "")
    (tmp_path / "a folder").mkdir()
    (tmp_path / "a file").write_text("")
    prefix = "veldarin-simulator"
    assert completions(script, f"{prefix} ")[: len(TOOLS)] == list(TOOLS)
    assert completions(script, f"{prefix} c") == ["call", "console", "completion"]
    assert completions(script, f"{prefix} call list_switch_ll") == ["list_switch_lldp_state"]
    assert len(completions(script, f"{prefix} call list_")) == 13
    assert completions(script, f"{prefix} demo --") == ["--help", "--json", "--scenario"]
    assert completions(script, f"{prefix} parse a") == ["arp"]
    assert completions(script, f"{prefix} record --ca") == ["--capture"]
    assert completions(script, f"{prefix} record --into {tmp_path}/a") == [f"{tmp_path}/a folder"]
    assert sorted(completions(script, f"{prefix} parse {tmp_path}/a")) == [
        *(f"{tmp_path}/a file", f"{tmp_path}/a folder"),
    ]
    assert completions(script, f"{prefix} record --port ") == [""]


SHELLS = {
    "bash": ("bash", "--norc", "--noprofile", "-i"),
    "zsh": ("zsh", "-f", "-i"),
}


@pytest.mark.workstation_only("an interactive shell of the workstation")
@pytest.mark.parametrize("shell", SHELLS)
def test_interactive_shell_completes_on_a_terminal(run: Any, tmp_path: Path, shell: str) -> None:
    if shutil.which(shell) is None:
        pytest.skip(f"{shell} is not installed")
    script = tmp_path / "completion"
    script.write_text(run("completion", shell)[1])
    process_id, terminal = pty.fork()
    if process_id == 0:
        environment = {**os.environ, "TERM": "dumb", "HOME": str(tmp_path), "PS1": "> "}
        os.execvpe(SHELLS[shell][0], SHELLS[shell], environment)
    try:
        setup = "autoload -Uz compinit; compinit -u -D; " if shell == "zsh" else ""
        os.write(terminal, f"{setup}source {script}; echo rea''dy\n".encode())
        read_until(terminal, "ready")
        os.write(terminal, b"veldarin-simulator rec\t--che\t")
        read_until(terminal, "veldarin-simulatorrecord--check")
        os.write(terminal, b"\x15veldarin-simulator call get_system_a\t")
        read_until(terminal, "callget_system_arp_result")
    finally:
        os.close(terminal)
        os.waitpid(process_id, 0)


def read_until(terminal: int, text: str) -> None:
    """Read what a terminal shows until the text appears, without white space and controls."""
    shown = ""
    deadline = time.monotonic() + 120
    while text not in re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]|[\x00-\x20]", "", shown):
        assert time.monotonic() < deadline, repr(shown)
        if select.select([terminal], [], [], 1)[0]:
            shown += os.read(terminal, 65536).decode("utf-8", "replace")

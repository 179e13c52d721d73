"""BFD sessions of a routing daemon's shell."""

from __future__ import annotations

import os
import sys
from collections.abc import Callable
from pathlib import Path
from types import ModuleType

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from veldarin_simulator import Simulator
from veldarin_simulator.providers import bfd
from veldarin_simulator.reply import Reply

CLI_OUTPUT = Path(__file__).parents[1] / "data" / "cli_output"
SHELL = f"""#!/bin/sh
"exec" "{sys.executable}" "$0" "$@"
import sys
from pathlib import Path
assert sys.argv[1] == "-c" and not sys.stdin.read()
name = {{"show bfd peers": "bfd-peers", "show bfd peers counters": "bfd-peers-counters"}}
print(Path({str(CLI_OUTPUT)!r}, name[sys.argv[2]] + ".txt").read_text(), end="")
"""


@pytest.fixture
def shell(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A routing daemon's shell that prints the recorded texts; a test may rewrite it."""
    path = tmp_path / "bin" / "vtysh"
    path.parent.mkdir()
    path.write_text(SHELL)
    path.chmod(0o755)
    monkeypatch.setenv("PATH", str(path.parent), prepend=os.pathsep)
    return path


def test_live_session_parses_completely(
    simulator: Simulator, module: ModuleType, shell: Path
) -> None:
    text = bfd.neighbor(4, "198.51.100.2", "port1")
    simulator.set_reply("get_cli_cmd_output", text)
    (session,) = module.get_bfd_neighbor("bfd", {}).values()
    intervals = {"receive_interval": "300ms", "transmission_interval": "300ms"}
    timers = {"detect-multiplier": "3", **intervals}
    expected = {
        "neighbor_ip": "198.51.100.2",
        "interface": "port1",
        "name": "198.51.100.2_port1",
        "vrf": "default",
        "status": "up",
        "diagnostics": "ok",
        "session_up_events": "1",
        "zebra_notifications": "1",
        "local_echo_receive_interval": "50ms",
        "local_echo_transmission_interval": "disabled",
        "remote_echo_receive_interval": "50ms",
        "local_timers": timers,
        "remote_timers": timers,
    }
    assert session["control_packet_input"].strip().isdigit()  # the parser removes "packets"
    assert {key: session[key] for key in expected} == expected


@pytest.mark.usefixtures("shell", "no_bfd_sessions")
def test_list_finds_live_sessions_of_both_families() -> None:
    with Simulator(live=True) as simulator:
        listed = simulator.module.list_bfd_neighbor()
        sources = {call.source for call in simulator.call_log}
    assert sources == {"live"}
    # The parser keeps the first session of a summary, and there is a summary for each family.
    assert [session["name"] for session in listed] == ["198.51.100.77_default", "2001:db8::2_port1"]
    first, second = listed
    # It has no fields of the other sessions.
    assert first["status"] == "down"
    assert not {"uptime", "multihop", "minimum_ttl"} & set(first)
    assert second["status"] == "up"
    assert "downtime" not in second


def test_session_key_is_family_address_and_name(shell: Path) -> None:
    summary = bfd.neighbors(4) or ""
    headers = [line for line in summary.splitlines() if line.startswith("peer ")]
    assert sorted(headers) == [
        "peer 198.51.100.2 interface port1",
        "peer 198.51.100.77 vrf default",
        "peer 203.0.113.9 vrf default",
    ]
    assert "peer 2001:db8::2 interface port1\n" in (bfd.neighbors(6) or "")
    assert (bfd.neighbors(6) or "").count("peer ") == 1
    assert "Multihop: yes" in (bfd.neighbor(4, "203.0.113.9", "default") or "")
    for version, address, name in (
        (6, "198.51.100.2", "port1"),
        (4, "198.51.100.2", "port2"),
        (4, "198.51.100.3", "port1"),
        (4, "2001:db8::2", "port1"),
    ):
        assert bfd.neighbor(version, address, name) == "BFD Peers:\n"


def recorded(name: str) -> str:
    """Return the recorded output of the routing daemon's shell."""
    return (CLI_OUTPUT / f"{name}.txt").read_text()


def test_rendered_text_renders_unchanged() -> None:
    once = bfd.render(bfd.parse(recorded("bfd-peers")))
    assert bfd.render(bfd.parse(once)) == once


def test_render_keeps_every_line_of_the_daemon() -> None:
    text = recorded("bfd-peers")
    rendered = bfd.render(bfd.parse(text)).lower()
    for line in text.splitlines():
        content = line.strip().rstrip(":").lower()
        if content and not content.startswith("peer "):
            assert content in rendered


def test_short_timer_block_becomes_fields() -> None:
    text = "BFD Peers:\n\tpeer 192.0.2.1 vrf x\n\t\tLocal timers:\n\t\t\tA: 1\n\t\tStatus: up\n"
    lines = [line.strip() for line in bfd.render(bfd.parse(text)).splitlines()]
    assert lines == ["BFD Peers:", "peer 192.0.2.1 vrf x", "Status: up", "Local a: 1"]


@settings(max_examples=300, deadline=None)
@given(
    st.lists(
        st.one_of(
            st.sampled_from(recorded("bfd-peers").splitlines()),
            st.sampled_from(["peer", "peer ", "peer x", "\tpeer 1.2.3.4 multihop", "peer a vrf"]),
            st.text(max_size=20),
        ),
        max_size=30,
    )
)
def test_render_of_hostile_output_never_raises(lines: list[str]) -> None:
    rendered = bfd.render(bfd.parse("\n".join(lines)))
    assert rendered.startswith("BFD Peers:\n")
    assert bfd.render(bfd.parse(rendered)) == rendered


FAILING_SHELLS = {
    "rejects the login": "#!/bin/sh\necho 'Password: ' >&2\n",
    "has no daemon": "#!/bin/sh\necho 'Exiting: failed to connect to any daemons.' >&2\nexit 1\n",
    "does not know the command": "#!/bin/sh\necho '% Unknown command: show bfd peers'\n",
    "is not a program": "\x7fELF",
}


@pytest.mark.parametrize("script", FAILING_SHELLS.values(), ids=FAILING_SHELLS)
def test_failing_shell_falls_back_to_the_recording(
    shell: Path, script: str, run_command: Callable[[bytes], Reply]
) -> None:
    shell.write_text(script)
    reply = run_command(b"get router info bfd neighbor")
    assert reply.source == "recorded"
    assert isinstance(reply.reply, bytes)
    assert b"peer 198.51.100.2 interface port1" in reply.reply


def test_shell_without_daemon_runs_once_in_a_while(
    shell: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    runs = shell.with_name("runs")
    shell.write_text(f"#!/bin/sh\necho run >>{runs}\n")
    for version in (4, 6, 4):
        assert bfd.neighbors(version) is None
        assert bfd.neighbor(version, "198.51.100.2", "port1") is None
    assert runs.read_text() == "run\n"
    monkeypatch.setattr(bfd, "_RETRY_AFTER", 0)
    monkeypatch.setattr(bfd, "_retry_at", {})
    assert bfd.neighbors(4) is None
    shell.write_text(SHELL)  # the daemon has started
    assert bfd.neighbors(4) is not None


def test_hanging_shell_times_out(shell: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    shell.write_text("#!/bin/sh\nexec sleep 60\n")
    monkeypatch.setattr(bfd, "_TIMEOUT", 0.2)
    assert bfd.neighbors(4) is None


@pytest.mark.usefixtures("shell")
def test_shell_does_not_inherit_standard_input() -> None:
    # A shell that asks for a password would wait for this input forever.
    reading, writing = os.pipe()
    before = os.dup(0)
    os.dup2(reading, 0)
    try:
        assert (bfd.neighbors(6) or "").startswith("BFD Peers:\npeer ")
    finally:
        os.dup2(before, 0)
        for descriptor in (before, reading, writing):
            os.close(descriptor)


def test_daemon_without_sessions_replies_live(
    shell: Path, run_command: Callable[[bytes], Reply]
) -> None:
    shell.write_text("#!/bin/sh\necho 'BFD Peers:'\n")
    assert run_command(b"get router info6 bfd neighbor") == Reply("BFD Peers:\n", "live")


@pytest.mark.usefixtures("no_bfd_sessions")
def test_recorded_list_has_a_session_of_each_family(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bfd, "_vtysh", lambda command: None)
    with Simulator(live=True) as simulator:
        listed = simulator.module.list_bfd_neighbor()
        assert simulator.source("get_cli_cmd_output") == "recorded"
    names = [session["name"] for session in listed]
    assert names == ["198.51.100.2_port1", "2001:db8::2_port1"]
    assert all(set(session["local_timers"]) == set(session["remote_timers"]) for session in listed)

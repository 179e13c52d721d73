"""The stand-in's answers: what they say against what the system's own tools say, and through the
module's parsers; recordings and their files; hostile input."""

from __future__ import annotations

import json
import os
import signal
import string
import subprocess
import sys
import zlib
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from types import ModuleType
from typing import Any

import psutil
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from tests.support.netns import PORTS, ROOT, Message, ip_json, needs_ip, run_in_namespace
from veldarin_simulator import Simulator, scenario, state_dir
from veldarin_simulator.providers import (
    ScenarioError,
    bfd,
    certificates,
    cookies,
    default_answers,
    links,
    multicast,
    ports,
    serial_number,
    storage,
)
from veldarin_simulator.reply import Reply

CAPTURES = Path(__file__).parents[1] / "data" / "cli_output"


@pytest.fixture(autouse=True)
def state_directory(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """No test leaves anything in the user's state directory."""
    path = tmp_path / "state"
    monkeypatch.setenv("APPLIANCE_STATE", str(path))
    return path


@pytest.fixture
def no_sessions_yet() -> Iterator[None]:
    """The one dictionary of all BFD calls is empty before the test and after it."""

    def clear() -> None:
        with Simulator(live=False) as simulator:
            simulator.set_reply("get_cli_cmd_output", "")
            simulator.module.get_bfd_neighbor("").clear()

    clear()
    yield
    clear()


def asked(answers: dict[str, Reply], service: str, *arguments: object) -> Any:
    """A service's reply, made as the appliance makes it."""
    reply = answers[service].reply
    return reply(*arguments) if callable(reply) else reply


def command(answers: dict[str, Reply], text: bytes) -> Reply:
    """The command line's answer."""
    answer = asked(answers, "get_cli_cmd_output", text)
    assert isinstance(answer, Reply)
    return answer


# Interfaces, ports, links


def test_physical_interfaces_are_those_of_ip_link(simulator: Simulator, module: ModuleType) -> None:
    """The kernel adds link-local addresses a while after a link is up: the tool is run before and
    after the call, until both runs show the same."""
    result, expected = run_in_namespace(
        (
            *PORTS,
            "ip link add port9 mtu 1280 address 02:00:00:00:00:99 type veth peer name port10",
            "ip -6 address add 2001:db8::1/64 dev port1 nodad",
        ),
        "import json\n"
        "from veldarin_simulator.providers import links\n"
        "from tests.support.netns import ip_json\n"
        "before, result, after = None, None, ip_json('addr', 'show')\n"
        "while before != after:\n"
        "    before = after\n"
        "    result = links.physical_interfaces({})\n"
        "    after = ip_json('addr', 'show')\n"
        "print(json.dumps([result, after]))",
    )
    simulator.set_reply("build_system_interface_physical", result)
    assert module.list_system_interface_physical("port9") == {
        "name": "port9",
        "type": "veth",
        "status": "down",
        "link": False,
        "speed": 10000,
        "duplex": "full",
        "mtu": 1280,
        "mac": "02:00:00:00:00:99",
        "addresses": [],
    }
    named = {entry["name"]: entry for entry in result[0]["interface"]}
    outward = [link for link in expected if link["ifname"] != "lo"]
    assert set(named) == {link["ifname"] for link in outward}
    for link in outward:
        entry = named[link["ifname"]]
        assert entry["mac"] == link["address"]
        assert entry["mtu"] == link["mtu"]
        assert (entry["status"] == "up") == ("UP" in link["flags"])
        assert set(entry["addresses"]) == {
            f"{address['local']}/{address['prefixlen']}" for address in link["addr_info"]
        }


def test_a_machine_with_nothing_but_its_loopback_shows_that() -> None:
    (entry,) = run_in_namespace(
        ("ip link set lo up",),
        "import json; from veldarin_simulator.providers import links\n"
        "print(json.dumps(links.physical_interfaces()[0]['interface']))",
    )
    assert entry["name"] == "lo"
    assert entry["type"] == "loopback"
    assert entry["addresses"] == ["127.0.0.1/8", "::1/128"]
    assert entry["speed"] is None


def test_links_with_a_device_behind_them_hide_the_virtual_ones() -> None:
    with_device = {path.parent.name for path in Path("/sys/class/net").glob("*/device")}
    if not with_device:
        pytest.skip("no interface of this machine has a device behind it")
    entries = links.physical_interfaces()[0]["interface"]
    assert {entry["name"] for entry in entries} == with_device
    assert {entry["type"] for entry in entries} == {"device"}


def test_the_link_monitor_counts_as_sysfs_counts() -> None:
    for entry in links.link_monitor_status():
        folder = Path("/sys/class/net") / entry["name"]
        assert entry["carrier_changes"] == int((folder / "carrier_changes").read_text())
        assert entry["carrier_up_count"] == int((folder / "carrier_up_count").read_text())
        assert entry["carrier_down_count"] == int((folder / "carrier_down_count").read_text())
        assert entry["status"] == (folder / "operstate").read_text().strip()


@pytest.mark.parametrize(("flags", "carrier"), [(0, 1), (1, 0), (0, 0)])
def test_a_link_has_a_carrier_only_while_it_is_up(flags: int, carrier: int) -> None:
    # Some drivers leave the carrier's last word standing when the link is taken down.
    assert links._has_carrier(Message({"flags": flags}, {"IFLA_CARRIER": carrier})) is False
    assert links._has_carrier(Message({"flags": 1}, {"IFLA_CARRIER": 1})) is True


def test_a_link_that_was_lost_twice_has_flapped_twice() -> None:
    flap = ("ip link set port2 down", "sleep 0.1", "ip link set port2 up", "sleep 0.1")
    monitor, status = run_in_namespace(
        PORTS + flap + flap,
        "import json; from veldarin_simulator.providers import links\n"
        "print(json.dumps([links.link_monitor_status(), links.flap_status()]))",
    )
    (port1,) = (entry for entry in monitor if entry["name"] == "port1")
    assert port1["carrier"] is True
    assert port1["status"] == "up"
    # The link starts down, which counts as lost once.
    assert (port1["carrier_up_count"], port1["carrier_down_count"]) == (3, 3)
    (flaps,) = (entry for entry in status if entry["port_name"] == "port1")
    assert flaps == {"port_name": "port1", "link": "up", "flaps": 3, "guard": "none"}


def test_port_statistics_are_the_kernels_counters() -> None:
    before = psutil.net_io_counters(pernic=True, nowrap=False)
    entries = {entry["port_name"]: entry for entry in ports.statistics({})}
    after = psutil.net_io_counters(pernic=True, nowrap=False)
    assert set(entries) == set(before)
    assert "lo" in entries
    for name, entry in entries.items():
        for counter in ("bytes_sent", "bytes_recv", "packets_sent", "packets_recv", "errin"):
            low, high = getattr(before[name], counter), getattr(after[name], counter)
            assert low <= entry[counter] <= high
    fields = "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout"
    assert list(entries["lo"]) == ["port_name", *fields.split()]


@pytest.mark.parametrize("service", [ports.statistics, multicast.groups])
def test_a_request_for_a_port_is_answered_for_that_port(service: Any) -> None:
    everything = service({})
    assert everything == service({"port_name": None}) or service is ports.statistics
    lo = [entry for entry in everything if entry["port_name"] == "lo"]
    assert [entry["port_name"] for entry in service({"port_name": "lo"})] == ["lo"] * len(lo)
    assert service({"port_name": "no-such-port"}) == []
    assert service({"port_name": ""}) == []


@needs_ip
def test_multicast_groups_are_those_of_ip_maddress() -> None:
    expected = {
        (link["ifname"], entry["address"])
        for link in ip_json("-4", "maddress", "show")
        for entry in link["maddr"]
        if entry.get("family") == "inet"
    }
    assert {(entry["port_name"], entry["group"]) for entry in multicast.groups({})} == expected


def test_the_igmp_table_is_read_with_long_names_and_many_groups() -> None:
    # The kernel prints a word of its own, whose bytes lie in memory in the network's order.
    words = {"little": ("010000E0", "FB0000E0"), "big": ("E0000001", "E00000FB")}
    everybody, names = words[sys.byteorder]
    table = (
        "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
        "1\tlo        :     1      V3\n"
        f"\t\t\t\t{everybody}     1 0:00000000\t\t0\n"
        "12\tlongest-name.12:     2      V2\n"
        f"\t\t\t\t{names}     3 0:00000000\t\t0\n"
        f"\t\t\t\t{everybody}     1 0:00000000\t\t0\n"
    )
    assert multicast.parsed(table) == [
        {"port_name": "lo", "group": "224.0.0.1", "users": 1, "version": "V3"},
        {"port_name": "longest-name.12", "group": "224.0.0.251", "users": 3, "version": "V2"},
        {"port_name": "longest-name.12", "group": "224.0.0.1", "users": 1, "version": "V2"},
    ]


# Storage


def test_flash_partitions_are_the_mounted_file_systems_each_once() -> None:
    entries = storage.flash_list()
    mounts = [line.split()[:2] for line in Path("/proc/mounts").read_text().splitlines()]
    assert entries
    assert len({entry["device"] for entry in entries}) == len(entries)
    for entry in entries:
        assert [entry["device"], entry["mountpoint"]] in mounts
        status = os.statvfs(entry["mountpoint"])
        assert entry["size"] == status.f_blocks * status.f_frsize
        assert 0 <= entry["free"] <= entry["size"]
        assert entry["read_only"] == bool(status.f_flag & os.ST_RDONLY)


class _Mount:
    def __init__(self, device: str, mountpoint: str, opts: str = "rw") -> None:
        self.device, self.mountpoint, self.opts = device, mountpoint, opts
        self.fstype = "ext4"


def test_a_file_system_that_cannot_be_asked_is_listed_without_sizes(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    mounts = [_Mount("/dev/gone", "/no/such/mount", "ro,noatime"), _Mount("/dev/gone", "/again")]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts)
    (entry,) = storage.flash_list()
    assert entry["mountpoint"] == "/no/such/mount"
    assert entry["read_only"] is True
    assert (entry["size"], entry["used"], entry["free"]) == (None, None, None)


def test_a_container_shows_its_root(monkeypatch: pytest.MonkeyPatch) -> None:
    mounts = [_Mount("overlay", "/"), _Mount("proc", "/proc")]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts if all else [])
    (entry,) = storage.flash_list()
    assert entry["device"] == "overlay"
    assert entry["size"] > 0


def test_a_mount_point_that_is_no_text_still_makes_json(monkeypatch: pytest.MonkeyPatch) -> None:
    mounts = [_Mount("/dev/x", os.fsdecode(b"/m\xff"))]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts)
    (entry,) = storage.flash_list()
    assert json.dumps(entry, ensure_ascii=False).encode()
    assert entry["mountpoint"] == "/m\N{REPLACEMENT CHARACTER}"


# Certificates


@contextmanager
def within(seconds: int) -> Iterator[None]:
    """Ends what hangs with a `RuntimeError`, which no check takes for an unreadable file."""

    def late(*_: object) -> None:
        raise RuntimeError(f"not done within {seconds} s")

    before = signal.signal(signal.SIGALRM, late)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)


def test_a_path_that_is_no_readable_file_is_unreadable(tmp_path: Path) -> None:
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    paths = (b"", b"/no/such/file", os.fsencode(tmp_path), os.fsencode(pipe), b"/dev/zero")
    with within(10):
        for path in (*paths, b"x" * 5000, b"a\0b"):
            assert certificates.check(path) is certificates.Status.UNREADABLE


# Cookies, state, identity


def test_a_cookie_value_comes_back_through_the_module(
    simulator: Simulator, module: ModuleType
) -> None:
    cipher = cookies.ValueCipher()
    simulator.set_reply("cookieval_wrap", cipher.wrap)
    simulator.set_reply("cookieval_unwrap", cipher.unwrap)
    for plain in (b"", b"a", b"user=admin; level=7", bytes(range(1, 256)), b"x" * 100_000):
        wrapped = module.encrypt_cookie(plain)
        assert wrapped != plain
        assert set(wrapped) <= set((string.ascii_letters + string.digits + "-_").encode())
        assert len(wrapped) > len(plain)
        assert module.decrypt_cookie(wrapped) == plain


def test_the_same_value_is_never_wrapped_alike() -> None:
    cipher = cookies.ValueCipher()
    assert len({cipher.wrap(b"value") for _ in range(100)}) == 100


@pytest.mark.parametrize("plain", [b"admin", b"admins", b"adminis"])  # spare bits: 0, 4, 2
def test_every_damaged_cookie_unwraps_to_the_empty_text(
    simulator: Simulator, module: ModuleType, plain: bytes
) -> None:
    cipher = cookies.ValueCipher()
    simulator.set_reply("cookieval_unwrap", cipher.unwrap)
    wrapped = cipher.wrap(plain)
    damaged = [wrapped[:n] for n in range(len(wrapped))]
    damaged += [wrapped + more for more in (b"A", b"=", b"==", b"\n", b" ", b"AAAA", b"\xff")]
    damaged += [b" " + wrapped, wrapped[::-1], b"----", b"\xc3\xa9" * 20]
    alphabet = (string.ascii_uppercase + string.ascii_lowercase + string.digits + "-_").encode()
    for place in range(len(wrapped)):
        other = alphabet[(alphabet.index(wrapped[place]) + 1) % len(alphabet)]
        damaged.append(wrapped[:place] + bytes([other]) + wrapped[place + 1 :])
        damaged.append(wrapped[:place] + b"." + wrapped[place:])
    assert [module.decrypt_cookie(bad) for bad in damaged] == [b""] * len(damaged)
    assert module.decrypt_cookie(wrapped) == plain


def test_another_processs_cipher_reads_the_cookie_and_another_keys_does_not(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    wrapped = cookies.ValueCipher().wrap(b"value")
    assert cookies.ValueCipher().unwrap(wrapped) == b"value"
    monkeypatch.setenv("APPLIANCE_STATE", str(tmp_path / "elsewhere"))
    assert cookies.ValueCipher().unwrap(wrapped) == b""


def test_the_key_is_its_owners_alone(state_directory: Path) -> None:
    cookies.ValueCipher().wrap(b"")
    assert [path.name for path in state_directory.iterdir()] == ["cookie-key"]
    assert (state_directory / "cookie-key").stat().st_mode & 0o777 == 0o600
    assert state_directory.stat().st_mode & 0o777 == 0o700


def test_a_key_of_the_wrong_size_is_refused_with_its_path(state_directory: Path) -> None:
    state_directory.mkdir()
    (state_directory / "cookie-key").write_bytes(b"short")
    with pytest.raises(ValueError, match="cookie-key: holds 5 bytes in place of 32; remove"):
        cookies.ValueCipher().wrap(b"value")


def test_processes_that_race_for_the_key_all_get_the_winners(state_directory: Path) -> None:
    source = "from veldarin_simulator import state_dir; print(state_dir.secret('race', 32).hex())"
    racers = [
        subprocess.Popen(
            [sys.executable, "-c", source], cwd=ROOT, stdout=subprocess.PIPE, text=True
        )
        for _ in range(6)
    ]
    printed = {racer.communicate(timeout=60)[0] for racer in racers}
    assert printed == {(state_directory / "race").read_bytes().hex() + "\n"}
    assert [path.name for path in state_directory.iterdir()] == ["race"]


def test_state_is_kept_below_the_xdg_directory_or_home(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delenv("APPLIANCE_STATE")
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.delenv("XDG_STATE_HOME", raising=False)
    assert state_dir.directory() == tmp_path / ".local" / "state" / "veldarin-appliance"
    monkeypatch.setenv("XDG_STATE_HOME", str(tmp_path / "xdg"))
    assert state_dir.directory() == tmp_path / "xdg" / "veldarin-appliance"


def test_the_hash_is_the_crc_32_of_the_standard() -> None:
    assert cookies.text_hash(b"123456789") == 0xCBF43926
    assert cookies.text_hash(b"") == 0


def test_cookie_identifiers_are_32_bits_and_fresh() -> None:
    made = [cookies.new_identifier() for _ in range(1000)]
    assert all(0 <= identifier < 2**32 for identifier in made)
    assert len(set(made)) > 990
    assert max(made) > 2**31


def test_the_cookie_name_is_the_hash_of_the_serial_number() -> None:
    with Simulator(live=True) as simulator:
        serial = simulator.serial_number
        assert simulator.source("serial_number_ascii") == "live"
        name = simulator.module.get_cookie_name(True)
    assert serial == serial_number.read()
    assert name == f"APSCOOKIE_{zlib.crc32(serial)}"


def test_the_serial_number_follows_the_machine_and_hides_its_identifier(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    first, second = tmp_path / "first", tmp_path / "second"
    first.write_text("0123456789abcdef0123456789abcdef\n")
    second.write_text("00000000000000000000000000000000\n")
    made = []
    for path in (first, second, first):
        monkeypatch.setattr(serial_number, "_MACHINE_IDS", (tmp_path / "missing", path))
        made.append(serial_number.read())
    assert made[0] == made[2] != made[1]
    assert len(made[0]) == 16
    assert made[0].decode().startswith("STAND-")
    assert made[0].decode()[6:].lower() not in first.read_text()


def test_a_machine_without_identifier_gets_one_and_keeps_it(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    blank = tmp_path / "blank"
    blank.write_text("uninitialized\n")
    monkeypatch.setattr(serial_number, "_MACHINE_IDS", (blank,))
    first = serial_number.read()
    assert serial_number.read() == first
    monkeypatch.setenv("APPLIANCE_STATE", str(tmp_path / "another machine"))
    assert serial_number.read() != first


# BFD


def captured(name: str) -> str:
    """What the routing daemon's shell printed, recorded."""
    return (CAPTURES / f"{name}.txt").read_text()


SHELL = f"""#!{sys.executable}
import sys
from pathlib import Path
assert sys.argv[1] == "-c" and not sys.stdin.read()
name = {{"show bfd peers": "bfd-peers", "show bfd peers counters": "bfd-peers-counters"}}
print(Path({str(CAPTURES)!r}, name[sys.argv[2]] + ".txt").read_text(), end="")
"""


@pytest.fixture
def shell(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A routing daemon's shell that prints the recorded texts; rewrite it for other behaviour."""
    path = tmp_path / "bin" / "vtysh"
    path.parent.mkdir()
    path.write_text(SHELL)
    path.chmod(0o755)
    monkeypatch.setenv("PATH", str(path.parent), prepend=os.pathsep)
    return path


def test_a_live_session_goes_through_the_parser_whole(
    simulator: Simulator, module: ModuleType, shell: Path
) -> None:
    text = bfd.neighbor(4, "198.51.100.2", "port1")
    simulator.set_reply("get_cli_cmd_output", text)
    (session,) = module.get_bfd_neighbor("bfd", {}).values()
    expected = {
        "neighbor_ip": "198.51.100.2",
        "interface": "port1",
        "name": "198.51.100.2_port1",
        "vrf": "default",
        "status": "up",
        "diagnostics": "ok",
        "control_packet_input": "",
        "session_up_events": "1",
        "zebra_notifications": "1",
        "local_echo_receive_interval": "50ms",
        "local_echo_transmission_interval": "disabled",
        "remote_echo_receive_interval": "50ms",
        "local_timers": {
            "detect-multiplier": "3",
            "receive_interval": "300ms",
            "transmission_interval": "300ms",
        },
        "remote_timers": {
            "detect-multiplier": "3",
            "receive_interval": "300ms",
            "transmission_interval": "300ms",
        },
    }
    counted = session.pop("control_packet_input")
    expected.pop("control_packet_input")
    assert counted.strip().isdigit()  # "packets" is cut off its value
    assert {key: session[key] for key in expected} == expected


@pytest.mark.usefixtures("shell", "no_sessions_yet")
def test_the_listing_finds_the_live_sessions_of_both_families() -> None:
    with Simulator(live=True) as simulator:
        listed = simulator.module.list_bfd_neighbor()
        sources = {call.source for call in simulator.call_log}
    assert sources == {"live"}
    # Of several sessions in one summary the parser keeps the first: one for each family is found.
    assert [session["name"] for session in listed] == ["198.51.100.77_default", "2001:db8::2_port1"]
    first, second = listed
    # The first is down and the others' fields are not among its own.
    assert first["status"] == "down"
    assert not {"uptime", "multihop", "minimum_ttl"} & set(first)
    assert second["status"] == "up"
    assert "downtime" not in second


def test_sessions_are_told_apart_by_family_address_and_place(shell: Path) -> None:
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
    for version, address, place in (
        (6, "198.51.100.2", "port1"),
        (4, "198.51.100.2", "port2"),
        (4, "198.51.100.3", "port1"),
        (4, "2001:db8::2", "port1"),
    ):
        assert bfd.neighbor(version, address, place) == "BFD Peers:\n"


def test_a_text_in_the_parsers_layout_stays_as_it_is() -> None:
    once = bfd.rendered(bfd.parsed(captured("bfd-peers")))
    assert bfd.rendered(bfd.parsed(once)) == once


def test_every_line_of_the_daemon_is_kept() -> None:
    text = captured("bfd-peers")
    kept = bfd.rendered(bfd.parsed(text)).lower()
    for line in text.splitlines():
        content = line.strip().rstrip(":").lower()
        if content and not content.startswith("peer "):
            assert content in kept


def test_a_timer_block_that_is_too_short_for_the_parser_is_no_block() -> None:
    text = "BFD Peers:\n\tpeer 192.0.2.1 vrf x\n\t\tLocal timers:\n\t\t\tA: 1\n\t\tStatus: up\n"
    lines = [line.strip() for line in bfd.rendered(bfd.parsed(text)).splitlines()]
    assert lines == ["BFD Peers:", "peer 192.0.2.1 vrf x", "Status: up", "Local a: 1"]


@settings(max_examples=300, deadline=None)
@given(
    st.lists(
        st.one_of(
            st.sampled_from(captured("bfd-peers").splitlines()),
            st.sampled_from(["peer", "peer ", "peer x", "\tpeer 1.2.3.4 multihop", "peer a vrf"]),
            st.text(max_size=20),
        ),
        max_size=30,
    )
)
def test_hostile_daemon_output_is_rendered_without_error(lines: list[str]) -> None:
    rendered = bfd.rendered(bfd.parsed("\n".join(lines)))
    assert rendered.startswith("BFD Peers:\n")
    assert bfd.rendered(bfd.parsed(rendered)) == rendered


SILENT_SHELLS = {
    "refuses the login": "#!/bin/sh\necho 'Password: ' >&2\n",
    "has no daemon": "#!/bin/sh\necho 'Exiting: failed to connect to any daemons.' >&2\nexit 1\n",
    "does not know the command": "#!/bin/sh\necho '% Unknown command: show bfd peers'\n",
    "is no program": "\x7fELF",
}


@pytest.mark.parametrize("script", SILENT_SHELLS.values(), ids=SILENT_SHELLS)
def test_a_shell_that_says_nothing_of_bfd_leaves_the_answer_to_the_recording(
    shell: Path, script: str
) -> None:
    shell.write_text(script)
    answer = command(default_answers(None, live=True), b"get router info bfd neighbor")
    assert answer.source == "recorded"
    assert isinstance(answer.reply, bytes)
    assert b"peer 198.51.100.2 interface port1" in answer.reply


def test_a_shell_that_hangs_is_given_up(shell: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    shell.write_text("#!/bin/sh\nexec sleep 60\n")
    monkeypatch.setattr(bfd, "_PATIENCE", 0.2)
    assert bfd.neighbors(4) is None


@pytest.mark.usefixtures("shell")
def test_a_shell_is_not_given_the_callers_input() -> None:
    # Input that never comes: a shell that asks for a password would wait for it.
    reading, writing = os.pipe()
    before = os.dup(0)
    os.dup2(reading, 0)
    try:
        assert (bfd.neighbors(6) or "").startswith("BFD Peers:\npeer ")
    finally:
        os.dup2(before, 0)
        for descriptor in (before, reading, writing):
            os.close(descriptor)


def test_a_daemon_without_sessions_is_a_live_answer(shell: Path) -> None:
    shell.write_text("#!/bin/sh\necho 'BFD Peers:'\n")
    answer = command(default_answers(None, live=True), b"get router info6 bfd neighbor")
    assert answer == Reply("BFD Peers:\n", "live")


@pytest.mark.usefixtures("no_sessions_yet")
def test_the_recorded_listing_has_a_session_of_each_family(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bfd, "_shell", lambda command: None)
    with Simulator(live=True) as simulator:
        listed = simulator.module.list_bfd_neighbor()
        assert simulator.source("get_cli_cmd_output") == "recorded"
    names = [session["name"] for session in listed]
    assert names == ["198.51.100.2_port1", "2001:db8::2_port1"]
    assert all(set(session["local_timers"]) == set(session["remote_timers"]) for session in listed)


# Everything together


LIVE = {
    "aps_get_new_cookie_id",
    "__get_aps_hash",
    "cookieval_wrap",
    "cookieval_unwrap",
    "gui_chk_cert_expiration",
    "serial_number_ascii",
    "get_cli_cmd_output",
    "build_system_interface_physical",
    "build_system_link_monitor_status",
    "build_system_flash_list",
    "build_switch_flapguard_status",
    "build_switch_port_statistics",
    "build_switch_igmp_snooping_group",
}
RECORDED = {
    "build_switch_acl_ingress_stats",
    "build_switch_stp_state",
    "build_switch_lg_state",
    "build_switch_lldp_state",
    "build_switch_trunk_state",
    "build_switch_modules_summary",
    "build_system_sniffer_profile_summary",
    "build_start_sniffer_profile_capture",
    "build_stop_sniffer_profile_capture",
    "build_pause_sniffer_profile_capture",
    "build_delete_sniffer_profile_capture",
}


def test_every_service_says_whether_it_is_live_or_recorded() -> None:
    answers = default_answers(None, live=True)
    assert {name for name, answer in answers.items() if answer.source == "live"} == LIVE
    assert {name for name, answer in answers.items() if answer.source == "recorded"} == RECORDED
    assert set(answers) == LIVE | RECORDED


def test_there_is_an_answer_for_every_service_of_the_native_library(simulator: Simulator) -> None:
    answers = default_answers(None, live=True)
    for name, answer in answers.items():
        simulator.set_reply(name, answer)  # an unknown name, or a value of another form, is refused
    assert {name for name in simulator._host.forms if simulator.source(name) == "none"} == set()


def test_without_live_answers_and_scenario_nothing_answers() -> None:
    assert default_answers(None, live=False) == {}


def test_a_command_that_nobody_knows_has_no_output() -> None:
    answers = default_answers(None, live=True)
    for text in (b"", b" ", b"get system", b"get system arp now", b"GET SYSTEM ARP", b"\xff\xfe"):
        assert command(answers, text) == Reply(None, "none")
    with Simulator(live=True) as simulator:
        error = simulator.module.CFunctionError
        with pytest.raises(error, match="result is null"):
            simulator.module.get_cli_command_output("get system nonsense")


def test_the_words_of_a_command_may_be_apart_by_any_white_space() -> None:
    answers = default_answers(None, live=True)
    assert command(answers, b" get\tsystem   arp\r\n").source == "live"


def test_the_module_reads_the_live_commands_of_this_machine() -> None:
    with Simulator(live=True) as simulator:
        assert isinstance(simulator.module.get_system_arp_result(), list)
        assert simulator.source("get_cli_cmd_output") == "live"
        loopback = simulator.module.get_routing_table_result("127.0.0.1")
        for bad in ("", "no address", "300.1.1.1", None):
            with pytest.raises(IndexError):
                simulator.module.get_routing_table_result(bad)
    assert loopback["entry"] == "127.0.0.1/32"
    assert loopback["other"] == '  Known via "local",  best'


# Recordings


def write(folder: Path, files: dict[str, Any]) -> Path:
    """A scenario directory; texts and bytes are written as they are, other values as JSON."""
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            content = content.encode()
        path.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
    return folder


def test_a_scenario_overrides_live_answers_and_recorded_ones(tmp_path: Path) -> None:
    scenario = write(
        tmp_path / "mine",
        {
            "build_switch_lg_state.json": {"mine": True},
            "build_system_flash_list.json": [1, 2],
            "build_switch_stp_state.json": "null",
            "gui_chk_cert_expiration.json": -7,
            "aps_get_new_cookie_id.json": 4294967295,
            "serial_number_ascii.json": '"SER-1"',
            "cookieval_wrap.json": '"wrapped"',
            "cli/get system arp.txt": "Address\r\n192.0.2.1 0 02:00:00:00:00:01 --More--port1\r\n",
        },
    )
    with Simulator(scenario=scenario) as simulator:
        module = simulator.module
        assert module.list_switch_lg_state() == {"mine": True}
        assert module.list_system_flash_list_status() == [1, 2]
        assert module.list_switch_stp_state(0) is None
        assert module.check_cert_expiration(b"/etc/hostname") is False
        assert module.new_cookie_id() == 4294967295
        assert module.get_cookie_name(False) == f"APCOOKIE_{zlib.crc32(b'SER-1')}"
        assert module.encrypt_cookie(b"plain") == b"wrapped"
        (row,) = module.get_system_arp_result()
        assert row["interface"] == "port1"
        assert {
            call.source for call in simulator.call_log if call.service == "get_cli_cmd_output"
        } == {"recorded"}
        # What it does not hold comes from this machine, or from everybody's recordings.
        joined = multicast.groups({"port_name": "lo"})
        assert module.list_switch_igmp_snooping_group("lo") == joined
        assert simulator.source("build_switch_igmp_snooping_group") == "live"
        assert module.list_switch_trunk_state("uplink")[0]["mode"] == "lacp-active"


def test_a_scenario_alone_answers_with_its_files_and_nothing_else(tmp_path: Path) -> None:
    scenario = write(tmp_path / "mine", {"build_switch_lg_state.json": [1]})
    answers = default_answers(scenario, live=False)
    assert set(answers) == {"build_switch_lg_state"}
    assert answers["build_switch_lg_state"].source == "recorded"


ROWS = [
    {"port_name": "port1", "id": 7},
    {"port_name": "port2", "id": "7"},
    {"no_port": True},
    "text",
    None,
]


@pytest.mark.parametrize(
    ("request_", "left"),
    [
        ({}, ROWS),
        (None, ROWS),
        ({"port_name": None}, ROWS),
        ({"port_name": "port1"}, [ROWS[0], *ROWS[2:]]),
        ({"port_name": "port9"}, ROWS[2:]),
        ({"id": 7}, ROWS),
        ({"id": "8"}, ROWS[2:]),
    ],
)
def test_rows_that_contradict_the_request_are_left_out(request_: Any, left: list[Any]) -> None:
    assert scenario.row_filter(ROWS)(request_) == left


def test_recorded_rows_are_picked_through_the_module() -> None:
    with Simulator(live=True) as simulator:
        module = simulator.module
        assert [row["policy_id"] for row in module.switch_acl_ingress_counter()] == [1, 2, 7]
        assert [row["policy_id"] for row in module.switch_acl_ingress_counter("2")] == [2]
        assert [row["instance_id"] for row in module.list_switch_stp_state(0)] == [0]
        assert module.list_switch_lldp_state("port9") == []
        assert len(module.list_switch_lldp_state(None)) == 2


BROKEN = {
    # files: what the message says
    "bad JSON": ({"build_switch_lg_state.json": '{\n"a": 1,\n}'}, "lg_state.json:3: not JSON"),
    "empty": ({"build_switch_lg_state.json": ""}, "lg_state.json:1: not JSON"),
    "not UTF-8": ({"build_switch_lg_state.json": b'[\n"\xff"]'}, "lg_state.json:2: not UTF-8"),
    "NaN": ({"build_switch_lg_state.json": "[NaN]"}, "NaN is no JSON number"),
    "too deep": ({"build_switch_lg_state.json": "[" * 100_000}, "lg_state.json: not JSON"),
    "surrogate": ({"build_switch_lg_state.json": '"\\ud800"'}, "surrogate"),
    "typing error": (
        {"build_switch_lg_stat.json": "[]"},
        r"no service has this name \(did you mean build_switch_lg_state.json\?\)",
    ),
    "another suffix": ({"build_switch_lg_state.txt": "[]"}, "no service has this name"),
    "no service": ({"notes.json": "[]"}, r"notes.json: no service has this name$"),
    "text for a number": ({"gui_chk_cert_expiration.json": '"0"'}, "answers an integer"),
    "truth for a number": ({"gui_chk_cert_expiration.json": "true"}, "answers an integer"),
    "too large": ({"aps_get_new_cookie_id.json": "4294967296"}, "integer, 0 to 4294967295"),
    "negative": ({"__get_aps_hash.json": "-1"}, "integer, 0 to 4294967295"),
    "number for a text": ({"cookieval_wrap.json": "1"}, "answers a text without NUL"),
    "NUL": ({"cookieval_wrap.json": '"a\\u0000b"'}, "answers a text without NUL"),
    "NUL printed": ({"cli/get x.txt": b"one\ntwo\0"}, r"get x.txt:2: a NUL byte would end"),
    "no text": ({"cli/get x.json": b"[]"}, "kept in COMMAND.txt"),
}


@pytest.mark.parametrize(("files", "message"), BROKEN.values(), ids=BROKEN)
def test_a_scenario_that_cannot_be_used_is_refused_with_file_and_line(
    tmp_path: Path, files: dict[str, Any], message: str
) -> None:
    with pytest.raises(ScenarioError, match=message) as caught:
        default_answers(write(tmp_path / "broken", files), live=False)
    assert str(caught.value).startswith(str(tmp_path / "broken"))
    assert "\n" not in str(caught.value)


def test_a_scenario_directory_that_is_none_is_refused(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")
    for path in (tmp_path / "missing", tmp_path / "file"):
        with pytest.raises(ScenarioError, match=path.name):
            default_answers(path, live=True)
    (tmp_path / "folder" / "build_switch_lg_state.json").mkdir(parents=True)
    with pytest.raises(ScenarioError, match="is a directory"):
        default_answers(tmp_path / "folder", live=True)


def test_readmes_and_hidden_files_are_passed_over(tmp_path: Path) -> None:
    scenario = write(tmp_path / "mine", {"README.md": "words", ".hidden": "", "cli/.x": ""})
    assert default_answers(scenario, live=False) == {}


def test_a_command_file_for_the_very_command_is_preferred_to_a_pattern(tmp_path: Path) -> None:
    files = {
        "cli/show {} {}.txt": "any",
        "cli/show {} x.txt": "any x",
        "cli/show a x.txt": "a x",
        "cli/show%20slash %2f.txt": "slash",
        "cli/empty.txt": "",
    }
    answers = default_answers(write(tmp_path / "mine", files), live=False)
    printed = {
        text: command(answers, text.encode()).reply
        for text in ("show a x", "show b x", "show b y", "show slash /", "show a", "empty", "{}")
    }
    assert printed == {
        "show a x": b"a x",
        "show b x": b"any x",
        "show b y": b"any",
        "show slash /": b"slash",
        "show a": None,
        "empty": b"",
        "{}": None,
    }


# Packet captures


def test_a_captures_state_follows_its_events() -> None:
    with Simulator(live=True) as simulator:
        module = simulator.module

        def state_of(name: str) -> tuple[Any, Any]:
            (row,) = (
                row
                for row in module.get_system_sniffer_profile_summary()
                if row["profile-name"] == name
            )
            return row["state"], row["packets"]

        assert state_of("lan-trace") == ("Stop", 214)
        for event, after in (
            ("Pause", "Stop"),  # nothing runs that could be held
            ("Running", "Running"),
            ("Pause", "Pause"),
            ("Running", "Running"),
            ("Stop", "Stop"),
        ):
            reply = module.capture_sniffer_profile("lan-trace", event)
            assert reply["result"] == ("done" if after == event else "refused")
            assert state_of("lan-trace") == (after, 214)
        module.capture_sniffer_profile("lan-trace", "Delete")
        assert state_of("lan-trace") == ("None", 0)
        assert module.capture_sniffer_profile("lan-trace", "Stop")["result"] == "refused"
        assert state_of("uplink-errors") == ("None", 0)
        for name in ("no such", "", None):
            assert module.capture_sniffer_profile(name, "Running") == {
                "profile-name": name,
                "result": "refused",
                "reason": "no such profile",
            }
    with Simulator(live=True) as simulator:  # a new device begins as recorded
        assert state_of("lan-trace") == ("Stop", 214)


def test_a_recorded_control_answer_stands_in_for_the_state(tmp_path: Path) -> None:
    scenario = write(
        tmp_path / "mine",
        {
            "build_system_sniffer_profile_summary.json": [{"profile-name": "p", "state": "None"}],
            "build_stop_sniffer_profile_capture.json": {"code": 5},
        },
    )
    with Simulator(scenario=scenario) as simulator:
        module = simulator.module
        assert module.capture_sniffer_profile("p", "Stop") == {"code": 5}
        assert module.capture_sniffer_profile("p", "Running")["state"] == "Running"
        assert module.get_system_sniffer_profile_summary() == [
            {"profile-name": "p", "state": "Running"}
        ]


@pytest.mark.parametrize("summary", [None, {}, "text", 5, [], [1, None], [{"profile-name": 5}]])
def test_a_summary_of_another_form_is_answered_as_it_is(tmp_path: Path, summary: Any) -> None:
    files = {"build_system_sniffer_profile_summary.json": json.dumps(summary)}
    with Simulator(scenario=write(tmp_path / "mine", files), live=False) as simulator:
        assert simulator.module.get_system_sniffer_profile_summary() == summary
        assert simulator.module.capture_sniffer_profile("p", "Running")["result"] == "refused"

"""Records what a device replies, as a scenario for the simulator.

This file needs CPython 3.9 and the module, and nothing else of the simulator. Copy it to a device
and run it there, or call `main` in the management process:

    python3 record.py --into FOLDER

It writes each reply as it comes, to a folder beside FOLDER that it renames at the end, and changes
nothing else on the device. scenarios/README.md describes the files.
"""

from __future__ import annotations

import argparse
import contextlib
import errno
import functools
import hashlib
import importlib
import itertools
import json
import os
import re
import shutil
import signal
import socket
import sys
import threading
from collections.abc import Iterable, Iterator
from pathlib import Path
from typing import Any, Callable, NamedTuple, NoReturn

MODULE = "veldarin.modules.modules_util"
CALLS = ".calls.jsonl"  # the recorded calls, with a digest of each result
_CLI = "get_cli_command_output"
_BFD_COMMANDS = ("get router info bfd neighbor", "get router info6 bfd neighbor")
_MAX_COMMAND = 127  # bytes; the module cuts off the rest
_PAGER_PROMPT = "--More--"

DESCRIPTION = """\
Record the replies to all queries and commands, as a scenario for the simulator.
The recording holds what the functions of the module return: status queries, also
for each port, trunk, policy, instance and interface that the device lists; the
ARP table; the BFD sessions; routes to the given addresses.

It changes nothing on the device: captures and certificates are left alone unless
they are named, cookies and secrets are never recorded.
"""
_EXIT_STATUS = "exit status: 0 recorded, 1 some calls failed or nothing was written, 2 usage"


class Query(NamedTuple):
    """A status query: its function, native service (None: not wired) and key of the request."""

    function: str
    service: str | None
    key: str = ""


QUERIES = (
    # The transceivers come first: --redact looks for their serial numbers in all later replies.
    Query("list_switch_module_summary", "build_switch_modules_summary"),
    Query("switch_acl_ingress_counter", "build_switch_acl_ingress_stats", "policy_id"),
    Query("switch_acl_egress_counter", None),
    Query("switch_acl_prelookup_counter", None),
    Query("list_switch_stp_state", "build_switch_stp_state", "instance_id"),
    Query("list_system_interface_physical", "build_system_interface_physical", "name"),
    Query("list_switch_lg_state", "build_switch_lg_state"),
    Query("list_switch_flapguard_status", "build_switch_flapguard_status"),
    Query("list_switch_port_statistics", "build_switch_port_statistics", "port_name"),
    Query("list_switch_lldp_state", "build_switch_lldp_state", "port_name"),
    Query("list_switch_trunk_state", "build_switch_trunk_state", "trunk_name"),
    Query("list_switch_mclag_list", None),
    Query("switch_mclag_icl", None),
    Query("list_switch_igmp_snooping_group", "build_switch_igmp_snooping_group", "port_name"),
    Query("list_system_flash_list_status", "build_system_flash_list"),
    Query("list_system_link_monitor_status", "build_system_link_monitor_status"),
    Query("get_system_sniffer_profile_summary", "build_system_sniffer_profile_summary"),
)
_INTERFACE = "list_system_interface_physical"
_INTERFACE_NAMES = "list_system_link_monitor_status"  # its rows have the names of the interfaces
_CAPTURE_SERVICES = {
    "Running": "build_start_sniffer_profile_capture",
    "Stop": "build_stop_sniffer_profile_capture",
    "Pause": "build_pause_sniffer_profile_capture",
    "Delete": "build_delete_sniffer_profile_capture",
}
# Option: key of the requests, help.
_SELECTIONS = {
    "port": ("port_name", "a switch port"),
    "trunk": ("trunk_name", "a trunk"),
    "policy": ("policy_id", "an ACL policy"),
    "instance": ("instance_id", "a spanning-tree instance"),
    "interface": ("name", "a physical interface"),
}


class RecordError(Exception):
    """The recording cannot be written; the message is one line."""


class Recorder:
    """Calls the module and writes a scenario.

    Args:
        module: The module.
        folder: An existing empty folder.
        redactor: Replaces identifying texts in all that is written.
        check: Raises what a call of the module could not report; runs after each.
        report: Receives a line for each call.

    Attributes:
        failures: A line for each failed call.
        calls: The number of calls.
    """

    def __init__(
        self,
        module: Any,
        folder: Path,
        redactor: Redactor | None = None,
        check: Callable[[], object] = lambda: None,
        report: Callable[[str], object] = lambda line: None,
    ) -> None:
        self.failures: list[str] = []
        self.calls = 0
        self._module = module
        self._folder = folder
        self._redactor = redactor
        self._check = check
        self._report = report
        self._run = getattr(module, _CLI)
        self._thread = threading.get_ident()
        self._command_errors: dict[str, Exception] = {}
        self._found: dict[str, dict[str, Any]] = {key: {} for key, _ in _SELECTIONS.values()}
        (folder / "cli").mkdir()

    def record(self, options: argparse.Namespace) -> None:
        """Make all calls.

        Raises:
            OSError: A file cannot be written.
        """
        self._identity()
        for query in QUERIES:
            self._query(query, *([None] if query.key else []))
        for option, (key, _) in _SELECTIONS.items():
            given = getattr(options, option)
            listed = self._found[key].values() or ([0] if key == "instance_id" else [])
            values = listed if given is None else dict.fromkeys(given)
            for query in QUERIES:
                if query.key == key:
                    for value in values:
                        self._query(query, _identifier(value, query))
        with self._recorded_commands():
            self._parse("get_system_arp_result")
            for address in dict.fromkeys(options.address):
                self._parse("get_routing_table_result", self._redact(address))
            self._bfd_sessions()
            for command in options.command:
                self._parse(_CLI, self._redact(command))
        for path in dict.fromkeys(options.certificate):
            self._certificate(path)
        for profile, event in dict.fromkeys(map(tuple, options.capture)):
            query = Query("capture_sniffer_profile", _CAPTURE_SERVICES[event], "profile-name")
            self._query(query, profile, event)
        self._write_readme()

    def _identity(self) -> None:
        """Record the serial number and its hash, which the name of the cookie has."""

        def identity() -> tuple[str, int, list[str]]:
            serial = self._module.serial_number_ascii().decode()
            names = [self._module.get_cookie_name(https) for https in (False, True)]
            if self._redactor:
                self._redactor.add_serial_number(serial)
                names = [self._redactor.cookie_name(name) for name in names]
            return serial, int(names[0].rpartition("_")[2]), names

        outcome = self._try("get_cookie_name", [], identity)
        if outcome is None:
            return
        serial, number, names = self._redact(outcome[0]), *outcome[1:]
        self._write_json("serial_number_ascii.json", serial)
        self._write_json(_reply_file("__get_aps_hash", "text", serial), number)
        for https, name in zip((False, True), names):
            self._log("get_cookie_name", [https], name)

    def _query(self, query: Query, *arguments: Any) -> None:
        function = getattr(self._module, query.function)
        outcome = self._try(query.function, arguments, lambda: (function(*arguments),))
        if outcome is None:
            return
        (result,) = outcome
        self._find(query, result)
        result = self._redact(result)
        shown = self._redact(list(arguments))
        if query.service is None:
            if result is not None:
                self._fail(query.function, "not wired, but its result is not None")
                return
        else:
            argument = shown[0] if shown else None
            key = "" if argument is None else query.key
            reply = [{"interface": [result]}] if query.function == _INTERFACE else result
            name = _reply_file(query.service, key, argument)
            if not self._try_write(query.function, lambda: self._write_json(name, reply)):
                return
        self._log(query.function, shown, result)

    def _find(self, query: Query, value: Any) -> None:
        """Collect the identifiers in a reply."""
        for item in value if isinstance(value, list) else []:
            self._find(query, item)
        for key, item in value.items() if isinstance(value, dict) else ():
            wanted = key in self._found and (key != "name" or query.function == _INTERFACE_NAMES)
            if wanted and isinstance(item, (str, int)):
                self._found[key].setdefault(str(item), item)
            self._find(query, item)

    def _parse(self, function: str, *arguments: Any) -> Any:
        """Call a function that runs commands, whose outputs `run_command` records.

        Log its result, or an error that the outputs cause.
        """
        bound = getattr(self._module, function)
        shown = json.loads(json.dumps(arguments))  # the call may change them
        outcome = self._try(function, shown, lambda: (bound(*arguments),), log_errors=True)
        if outcome is None:
            return None
        self._log(function, shown, outcome[0])
        return outcome[0]

    def _bfd_sessions(self) -> None:
        for command in _BFD_COMMANDS:
            self._parse("get_bfd_neighbor", command, {})
        sessions = []
        for command in _BFD_COMMANDS:
            # The parser returns the first session of an output only.
            words = [line.split() for line in (self._parse(_CLI, command) or "").splitlines()]
            sessions += [(line[1], line[3]) for line in words if line[:1] == ["peer"] and line[3:]]
        for address, interface in dict.fromkeys(sessions):
            for command in _BFD_COMMANDS:
                self._parse("get_bfd_neighbor", f"{command} {address} {interface}", {})
        with own_bfd_sessions(self._module):
            self._parse("list_bfd_neighbor")

    def _certificate(self, path: str) -> None:
        function = "check_cert_expiration"
        check = getattr(self._module, function)
        outcome = self._try(function, [path], lambda: (check(os.fsencode(path)),))
        if outcome is not None:
            path = self._redact(path)
            name = _reply_file("gui_chk_cert_expiration", "text", path)
            status = 0 if outcome[0] else 1
            if self._try_write(function, lambda: self._write_json(name, status)):
                self._log(function, [path], outcome[0])

    @contextlib.contextmanager
    def _recorded_commands(self) -> Iterator[None]:
        """Let the module's functions run commands through `run_command`."""
        setattr(self._module, _CLI, self.run_command)
        try:
            yield
        finally:
            setattr(self._module, _CLI, self._run)

    def run_command(self, command: str) -> str:
        """Return the output of a command, which the device runs once and the recording keeps.

        Later calls return the recorded text, so that the results of all functions are those that
        the recording will give. With a redactor, command and output are redacted. Other threads,
        such as those of the management process, get the device's output.
        """
        if threading.get_ident() != self._thread:
            return str(self._run(command))
        words = b" ".join(command.encode()[:_MAX_COMMAND].split())
        name = f"cli/{_quote(words)}.txt"
        if name in self._command_errors:
            raise self._command_errors[name]
        try:
            return (self._folder / name).read_bytes().decode()
        except FileNotFoundError:
            pass
        except OSError as error:  # the name is too long
            raise ValueError(f"cannot be recorded: {error.strerror}") from error
        try:
            with self._checked():
                restored = self._redactor.restore(command) if self._redactor else command
                output = str(self._run(restored))
            if _PAGER_PROMPT in output:
                raise ValueError("the output has a pager prompt that the module would remove")
            output.encode()
        except Exception as error:
            self._command_errors[name] = error
            raise
        output = str(self._redact(output))
        try:
            self._write(name, [output])
        except OSError as error:
            raise _Fatal(error) from error
        return output

    def _try(
        self,
        function: str,
        arguments: Iterable[Any],
        call: Callable[[], tuple[Any, ...]],
        log_errors: bool = False,
    ) -> tuple[Any, ...] | None:
        """Return the result of a call of the module, or None after reporting its failure."""
        arguments = list(arguments)
        self.calls += 1
        shown = f"{function}({', '.join(map(repr, arguments))})"
        try:
            with self._checked():
                outcome = call()
            _digest(outcome)  # fails for what JSON cannot hold
        except _Fatal as fatal:
            raise fatal.error from None
        except Exception as error:
            self._fail(shown, f"{type(error).__name__}: {error}")
            # These repeat from the recording: no output, or output that the parser rejects.
            if log_errors and type(error).__name__ in ("CFunctionError", "IndexError"):
                self._log(function, arguments, _error_text(error))
            return None
        self._report(f"{self.calls:>5}  {shown}")
        return outcome

    @contextlib.contextmanager
    def _checked(self) -> Iterator[None]:
        """Raise what the calls inside could not report, instead of the error that it caused."""
        try:
            yield
        finally:
            self._check()

    def _try_write(self, shown: str, write: Callable[[], None]) -> bool:
        """Write a file, unless its name is too long for the file system."""
        try:
            write()
        except OSError as error:
            if error.errno not in (errno.ENAMETOOLONG, errno.EEXIST):
                raise
            self._fail(shown, f"cannot be recorded: {os.strerror(error.errno).lower()}")
            return False
        return True

    def _fail(self, call: str, problem: str) -> None:
        line = f"{call}: {problem}".replace("\n", " ")
        self.failures.append(line)
        self._report(f"{self.calls:>5}  {line}")

    def _redact(self, value: Any) -> Any:
        return self._redactor.value(value) if self._redactor else value

    def _log(self, function: str, arguments: list[Any], result: Any) -> None:
        call = {"function": function, "arguments": arguments, "sha256": _digest(result)}
        with (self._folder / CALLS).open("a") as file:
            file.write(json.dumps(call) + "\n")

    def _write_json(self, name: str, value: Any) -> None:
        encoder = json.JSONEncoder(ensure_ascii=False, allow_nan=False, indent=2)
        self._write(name, encoder.iterencode(value))

    def _write(self, name: str, parts: Iterable[str]) -> None:
        with (self._folder / name).open("x", encoding="utf-8", newline="") as file:
            file.writelines(parts)

    def _write_readme(self) -> None:
        redacted = ", serial numbers and addresses replaced" if self._redactor else ""
        failed = [f"    {self._redact(line)}\n" for line in self.failures]
        title = ["\nThese failed:\n\n"] if failed else []
        first = f"Recorded by record.py: {self.calls} calls{redacted}.\n"
        self._write("README.md", [first, *title, *failed])


class _Fatal(BaseException):
    """Carries an error of writing through the module's functions, which catch `Exception`."""

    def __init__(self, error: OSError) -> None:
        super().__init__(error)
        self.error = error


class Redactor:
    """Replaces serial numbers, MAC addresses and IP addresses in texts.

    Equal addresses become equal, different ones different. An address keeps its kind: unicast or
    multicast, link-local or global. Addresses with equal leading octets keep that property, and
    zero octets of IP addresses stay zero, so that a network of whole octets stays one. Loopback,
    unspecified, broadcast and reserved addresses, netmasks and link-local multicast stay as they
    are. A random key, which is not stored, determines all replacements.
    """

    _MAC = (
        r"[0-9A-Fa-f]{2}(?P<separator>[:-])[0-9A-Fa-f]{2}(?:(?P=separator)[0-9A-Fa-f]{2}){4}"
        r"(?![0-9A-Fa-f]|(?P=separator)[0-9A-Fa-f])"
        r"|[0-9A-Fa-f]{4}\.[0-9A-Fa-f]{4}\.[0-9A-Fa-f]{4}(?![0-9A-Fa-f]|\.[0-9A-Fa-f])"
        # Without separators: in a bridge identifier, or as a word that is not a decimal number.
        r"|(?:(?<=[0-9A-Fa-f]{4}\.)|(?<![0-9A-Za-z])(?=[0-9]*[A-Fa-f]))"
        r"[0-9A-Fa-f]{12}(?![0-9A-Za-z])"
    )
    _IPV4 = r"(?<!\d)(?<!\d\.)\d{1,3}(?:\.\d{1,3}){3}(?!\d|\.\d)"
    _IPV6 = (
        r"(?:[0-9A-Fa-f]{0,4}:){2,8}"
        r"(?:\d{1,3}(?:\.\d{1,3}){3}(?!\d|\.\d)|[0-9A-Fa-f]{0,4}(?![0-9A-Fa-f:]))"
    )
    _ADDRESS = (
        rf"(?<![0-9A-Za-z])(?P<mac>{_MAC})|(?<![0-9A-Za-z])(?P<ipv6>{_IPV6})|(?P<ipv4>{_IPV4})"
    )
    _SERIAL_KEY = re.compile(r"serial|^sn$", re.IGNORECASE)
    _SERIAL_LINE = re.compile(
        r"\bserial(?:[ _-]*(?:number|num|no\.?))?[ \t]*[:=][ \t]*(\S+)", re.IGNORECASE
    )
    _MIN_SERIAL = 4  # characters; a shorter text is part of too many others

    def __init__(self, key: bytes | None = None) -> None:
        self._key = os.urandom(32) if key is None else key
        self._serials: dict[str, str] = {}
        self._pattern = re.compile(self._ADDRESS)
        self._order = functools.lru_cache(maxsize=1024)(self._make_order)

    def add_serial_number(self, serial: str) -> None:
        """Replace a serial number from now on."""
        if len(serial) >= self._MIN_SERIAL and serial not in self._serials:
            packed = serial.encode()
            pools = [
                next((pool for pool in _CHARACTERS if octet in pool), bytes([octet]))
                for octet in packed
            ]
            self._serials[serial] = self._permute(b"serial", packed, pools, False).decode()
            known = "|".join(map(re.escape, sorted(self._serials, key=len, reverse=True)))
            self._pattern = re.compile(f"(?P<serial>{known})|{self._ADDRESS}")

    def cookie_name(self, name: str) -> str:
        """Replace the hash in a cookie's name."""
        prefix, _, number = name.rpartition("_")
        image = hashlib.blake2b(number.encode(), key=self._key, digest_size=4).digest()
        return f"{prefix}_{int.from_bytes(image, 'big')}"

    def value(self, value: Any) -> Any:
        """Return a JSON value with all its texts redacted."""
        if isinstance(value, str):
            return self.text(value)
        if isinstance(value, list):
            return [self.value(item) for item in value]
        if isinstance(value, dict):
            for key, item in value.items():
                if isinstance(item, str) and self._SERIAL_KEY.search(key):
                    self.add_serial_number(item)
            return {self.text(key): self.value(item) for key, item in value.items()}
        return value

    def text(self, text: str) -> str:
        """Return a redacted text."""
        for match in self._SERIAL_LINE.finditer(text):
            self.add_serial_number(match[1])
        return self._replace(text, self._pattern, inverse=False)

    def restore(self, text: str) -> str:
        """Return the text of which `text` made this one."""
        images = {image: serial for serial, image in self._serials.items()}
        for image in images:
            text = text.replace(image, images[image])
        return self._replace(text, re.compile(self._ADDRESS), inverse=True)

    def _replace(self, text: str, pattern: re.Pattern[str], inverse: bool) -> str:
        def replacement(match: re.Match[str]) -> str:
            found = match[0]
            if match.lastgroup == "serial":
                return self._serials[found]
            if match["mac"]:
                return self._mac(found, inverse)
            if match["ipv4"]:
                return self._ipv4(found, inverse)
            try:
                packed = socket.inet_pton(socket.AF_INET6, found)
            except OSError:  # a time, for example; an address may follow
                head, colon, rest = found.partition(":")
                return head + colon + self._replace(rest, pattern, inverse)
            return socket.inet_ntop(socket.AF_INET6, self._ipv6(packed, inverse))

        return pattern.sub(replacement, text)

    def _mac(self, text: str, inverse: bool) -> str:
        packed = bytes.fromhex(re.sub(r"[:.-]", "", text))
        image = packed
        while not _is_fixed_mac(packed):
            parity = bytes(range(image[0] % 2, 256, 2))
            image = self._permute(b"mac", image, [parity, *[_OCTETS] * 5], inverse)
            if not _is_fixed_mac(image):
                break
        digits = iter(image.hex().upper() if re.search("[A-F]", text) else image.hex())
        return re.sub("[0-9A-Fa-f]", lambda _: next(digits), text)

    def _ipv4(self, text: str, inverse: bool) -> str:
        octets = [int(octet) for octet in text.split(".")]
        if max(octets) > 255:
            return text
        return ".".join(map(str, self._ipv4_octets(bytes(octets), inverse)))

    def _ipv4_octets(self, packed: bytes, inverse: bool) -> bytes:
        first = packed[0]
        if first in (0, 127) or first >= 240 or packed[:3] == b"\xe0\0\0":
            return packed
        begin = bytes([first]) if first >= 224 else _IPV4_FIRST
        rest = [_NONZERO[:-1] if 0 < octet < 255 else bytes([octet]) for octet in packed[1:]]
        return self._permute(b"ipv4", packed, [begin, *rest], inverse)

    def _ipv6(self, packed: bytes, inverse: bool) -> bytes:
        if packed[:10] == bytes(10) and packed[10:12] in (b"\0\0", b"\xff\xff"):
            return packed[:12] + self._ipv4_octets(packed[12:], inverse)
        if packed[:14] == b"\xff\x02" + bytes(12):
            return packed
        pools = [_NONZERO if octet else b"\0" for octet in packed]
        pools[0] = _IPV6_GLOBAL if packed[0] in _IPV6_GLOBAL else packed[:1]
        if packed[0] in (0xFE, 0xFF):
            pools[1] = packed[1:2]
        return self._permute(b"ipv6", packed, pools, inverse)

    def _permute(self, kind: bytes, symbols: bytes, pools: list[bytes], inverse: bool) -> bytes:
        """Replace each symbol with one of its pool, by an order that all symbols before determine.

        An image has the pools of its original, so that this is a permutation.
        """
        original, image = bytearray(), bytearray()
        for symbol, pool in zip(symbols, pools):
            order = self._order(kind + bytes([len(kind)]) + bytes(original), pool)
            other = pool[order.index(symbol)] if inverse else order[pool.index(symbol)]
            original.append(other if inverse else symbol)
            image.append(other)
        return bytes(image)

    def _make_order(self, prefix: bytes, pool: bytes) -> bytes:
        def rank(symbol: int) -> bytes:
            return hashlib.blake2b(prefix + bytes([symbol]), key=self._key).digest()

        order: list[int] = sorted(pool, key=rank)
        return bytes(order)


_OCTETS = bytes(range(256))
_NONZERO = _OCTETS[1:]
_IPV4_FIRST = bytes([*range(1, 127), *range(128, 224)])
_IPV6_GLOBAL = bytes(range(0x20, 0x40))
_CHARACTERS = (
    b"0123456789",
    b"ABCDEFGHIJKLMNOPQRSTUVWXYZ",
    b"abcdefghijklmnopqrstuvwxyz",
)


def _is_fixed_mac(packed: bytes) -> bool:
    """Return whether an address is unspecified, broadcast, or of a link-layer protocol."""
    return packed in (bytes(6), b"\xff" * 6) or packed.startswith(b"\x01\x80\xc2")


def replay(module: Any, folder: Path) -> Iterator[tuple[str, bool]]:
    """Repeat the calls of a recording, and yield each with whether its outcome is equal.

    Args:
        module: The module, on a simulator that replies from the recording alone.
        folder: The recording.

    Raises:
        OSError, ValueError, KeyError: The folder is not a recording.
    """
    with (folder / CALLS).open() as file:
        for line in file:
            call = json.loads(line)
            function, arguments, digest = call["function"], call["arguments"], call["sha256"]
            if function == "check_cert_expiration":
                arguments = [os.fsencode(argument) for argument in arguments]
            with own_bfd_sessions(module):
                try:
                    outcome = getattr(module, function)(*arguments)
                except Exception as error:
                    outcome = _error_text(error)
            shown = f"{function}({', '.join(map(repr, arguments))})"
            yield shown, _digest(outcome) == digest


@contextlib.contextmanager
def own_bfd_sessions(module: Any) -> Iterator[None]:
    """Empty the dictionary that BFD calls share; restore it at the end."""
    run = getattr(module, _CLI)
    setattr(module, _CLI, lambda command: "")
    shared = module.get_bfd_neighbor("")  # from no output: the dictionary itself
    setattr(module, _CLI, run)
    before = dict(shared)
    shared.clear()
    try:
        yield
    finally:
        shared.clear()
        shared.update(before)


def _digest(value: Any) -> str:
    """Return a digest that differs for values of another type, order or spelling."""
    text = json.dumps(value, ensure_ascii=False, allow_nan=False)
    return hashlib.sha256(text.encode()).hexdigest()


def _error_text(error: Exception) -> str:
    return f"{type(error).__name__}: {error}"


def _identifier(value: Any, query: Query) -> Any:
    """Return a number for digits where the module accepts one, else a string."""
    if query.key in ("policy_id", "instance_id"):
        return int(value) if isinstance(value, str) and value.isdecimal() else value
    return str(value)


def _reply_file(service: str, key: str, value: Any) -> str:
    if not key:
        return f"{service}.json"
    text = value if isinstance(value, str) else json.dumps(value)
    return f"{service} {key}={_quote(os.fsencode(text))}.json"


def _quote(text: bytes) -> str:
    """Return a file name: printable ASCII, percent signs and two digits for what is not."""
    pattern = rb"[^ !-$&-.0-~]|^\.|^ | $"
    return re.sub(pattern, lambda match: b"%%%02X" % match[0][0], text).decode()


def add_options(parser: argparse.ArgumentParser) -> None:
    """Add the options of a recording, except the folder."""
    parser.add_argument(
        "--replace",
        action="store_true",
        help="if FOLDER has files, rename it to FOLDER.1 (or .2, ...) instead of failing",
    )
    parser.add_argument(
        "--redact",
        action="store_true",
        help="replace serial numbers, MAC addresses and IP addresses, the same by the same",
    )
    for option, (_, meaning) in _SELECTIONS.items():
        parser.add_argument(
            f"--{option}",
            action="append",
            metavar="NAME",
            help=f"{meaning}; may be repeated (default: all that the device lists)",
        )
    for option, metavar, meaning in (
        ("address", "ADDRESS", "an address to record the route to"),
        ("command", "TEXT", "a command to run as well"),
        ("certificate", "PATH", "a certificate to check"),
    ):
        parser.add_argument(
            f"--{option}",
            action="append",
            default=[],
            metavar=metavar,
            help=f"{meaning}; may be repeated",
        )
    parser.add_argument(
        "--capture",
        action="append",
        default=[],
        nargs=2,
        metavar=("PROFILE", "EVENT"),
        help="change a packet capture of the device and record the reply; EVENT is "
        + ", ".join(_CAPTURE_SERVICES),
    )
    parser.add_argument("--quiet", action="store_true", help="print no line for each call")


def run(
    options: argparse.Namespace,
    module: Any,
    check: Callable[[], object] = lambda: None,
    report: Callable[[str], object] = print,
) -> int:
    """Make a recording and return the exit status.

    Args:
        options: Of `add_options`, and `into`.
        module: The module.
        check: As in `Recorder`.
        report: Receives the lines for a person.

    Raises:
        RecordError: Nothing was written.
    """
    target = Path(os.path.realpath(options.into))
    _check_target(target, options.replace)
    redactor = Redactor() if options.redact else None
    draft = target.with_name(f".{target.name[:200]}.{os.urandom(4).hex()}")
    try:
        draft.mkdir()
        try:
            progress: Callable[[str], object] = (lambda line: None) if options.quiet else report
            recorder = Recorder(module, draft, redactor, check, progress)
            recorder.record(options)
            _check_target(target, options.replace)
            _move(draft, target, report)
        except BaseException:
            shutil.rmtree(draft, ignore_errors=True)
            raise
    except OSError as error:
        raise RecordError(f"{target}: {(error.strerror or str(error)).lower()}") from error
    report(f"{target}: {recorder.calls} calls, {len(recorder.failures)} failed")
    for line in recorder.failures:
        report(f"failed: {line}")
    return 1 if recorder.failures else 0


def _check_target(target: Path, replace: bool) -> None:
    try:
        if any(target.iterdir()) and not replace:
            raise RecordError(f"{target}: has files already; --replace renames it first")
    except FileNotFoundError:
        if not target.parent.is_dir():
            raise RecordError(f"{target.parent}: no such directory") from None
    except OSError as error:
        raise RecordError(f"{target}: {(error.strerror or str(error)).lower()}") from error


def _move(draft: Path, target: Path, report: Callable[[str], object]) -> None:
    former = None
    if target.is_dir() and any(target.iterdir()):
        numbered = (target.with_name(f"{target.name}.{number}") for number in itertools.count(1))
        former = next(path for path in numbered if not os.path.lexists(path))
        target.rename(former)
    try:
        draft.rename(target)  # over an empty folder, too
    except OSError:
        if former is not None:
            former.rename(target)
        raise
    if former is not None:
        report(f"{target}: the former folder is now {former}")


def _say(line: str) -> None:
    # The line is for a person: a closed or full stream must not end the recording.
    with contextlib.suppress(OSError, ValueError, AttributeError):
        sys.stderr.write(f"record: {line}\n")
        sys.stderr.flush()


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        _say(f"{message} (see {self.prog} --help)")
        sys.exit(2)


def check_options(options: argparse.Namespace, parser: argparse.ArgumentParser) -> None:
    """End the process with a usage error if an event does not exist."""
    for _, event in options.capture:
        if event not in _CAPTURE_SERVICES:
            parser.error(f"expected the event {', '.join(_CAPTURE_SERVICES)}, not {event}")


def main(arguments: list[str] | None = None, module: Any = None) -> int:
    """Record from the device that this process runs on, and return the exit status.

    Args:
        arguments: The command line, default that of the process.
        module: The module, default the one that can be imported.
    """
    parser = _Parser(
        description=DESCRIPTION,
        epilog=_EXIT_STATUS,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--into", required=True, metavar="FOLDER", help="the new scenario")
    add_options(parser)
    options = parser.parse_args(arguments)
    check_options(options, parser)
    try:
        return run(options, module or importlib.import_module(MODULE), report=_say)
    except (ImportError, RecordError) as error:
        _say(str(error).replace("\n", " "))
        return 1


if __name__ == "__main__":
    # A terminated recording removes its files, as an interrupted one does.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        if __package__:  # python -m veldarin_simulator.record: this machine is the device
            from veldarin_simulator.__main__ import main as simulator_main

            sys.exit(simulator_main(["record", *sys.argv[1:]]))
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)

"""The management interface's way to the appliance's native services, as Python sees it.

For GUI authors: what each of the thirty functions takes, asks for, gives back and raises. At run
time the functions are native and have no docstrings; these are for editors, type checkers, the
tools and the page of functions, which is written from this file.

What all functions have in common:

- A parameter before the `/` is given by position only. A parameter of type `bytes` or `str` takes
  that very type: a subclass is refused, as is everything else, with a text like "Argument 'path'
  has incorrect type (expected bytes, got str)". `None` passes this test; what comes of it is said
  where it matters.
- Too many arguments, too few, or an unknown keyword raise `TypeError`. That is not repeated below,
  nor is `MemoryError`, which every call may raise.
- An exception carries a traceback entry of the module: the function's dotted name, the file
  `veldarin/modules/modules_util` and the line of the statement that failed. The interpreter's own
  refusals (any argument of a function without parameters, two arguments of a function of one) come
  without it.
- What a function uses of the module (`json`, `text_`, `_logger`, `get_cli_command_output`, ...) it
  looks up in the module's namespace when it is called. A name rebound there counts from the next
  call on; a name deleted there is a `NameError`.
- The interpreter lock is held throughout, also while a native service works. A slow service holds
  up every thread of the management process.
- Nothing is kept from call to call but the sessions of `get_bfd_neighbor`.
- The parsers `get_bfd_neighbor`, `get_routing_table_result` and `get_system_arp_result` read the
  characters of an instance of a subclass of `str` as those of a `str`: they do not call a `split`
  or `replace` that the subclass defines. `get_cli_command_output` calls such a `replace`.
- Compare the strings in a result with `==`. One of a single character need not be the object that
  the interpreter shares for that character.
- The interpreter creates the module once per process. A second import, after the module was removed
  from `sys.modules`, gives the same module object; the interpreter then binds all thirty functions
  again, so a function that was rebound or deleted is back. Every other name but `__spec__` stays as
  it was.

The examples show the stand-in appliance's answers: on the appliance the layout of a status reply is
that of its native service.
"""

import copy as copy
from binascii import hexlify as hexlify
from collections import namedtuple as namedtuple
from logging import Logger
from logging import getLogger as getLogger
from os import urandom as urandom
from pathlib import Path as Path
from threading import Lock as Lock
from types import ModuleType
from typing import Any, NamedTuple, TypedDict, type_check_only

from migbase.cmdbapi.cmdbapi_util import serial_number_ascii as serial_number_ascii
from pyramid.compat import bytes_ as bytes_
from pyramid.compat import text_ as text_
from util.errors import CFunctionError as CFunctionError

# ------------------------------------------------------------------ Types of results
# For annotations only: the module has no such names at run time. Import them under
# `if TYPE_CHECKING:`.

@type_check_only
class ARPEntry(TypedDict):
    """One row of the ARP table. All values are text, as the command line printed them.

    `age` is in the unit of the listing's header line, minutes on the stand-in. `interface` is the
    fourth column, or the fourth and the fifth with one blank between them.
    """

    ipAddress: str
    age: str
    mac: str
    interface: str

@type_check_only
class Route(TypedDict):
    """One next hop. `main` is the word in front of the address, as "*", or "" if there is none."""

    main: str
    ip: str
    interface: str

@type_check_only
class RoutingTable(TypedDict):
    """The routing table's entry for an address.

    `entry` is the prefix, `distance` and `metric` are numbers as text, `lastUpdate` is a word as
    "01:02:03". `other` is what else the line of distance and metric says, with the line's own
    blanks: it begins with the indentation, and two blanks usually follow its comma.
    """

    entry: str
    distance: str
    metric: str
    lastUpdate: str
    other: str
    table: list[Route]

BFDSession = dict[str, str | dict[str, str]]
"""One BFD session: `neighbor_ip` and `interface`, which are the second and the fourth word of the
"peer" line, and `name`, the two joined by "_"; then, in the order of the output, a key for each
"key: value" line, and `local_timers` and `remote_timers`, dictionaries of three texts each.

A key is the text before the colon in lower case, with "_" for a blank. A value is the text up to
the next colon and always a `str`: of "Uptime: 0:01:02" it is "0", and "343 packets" is "343 ", the
word taken out and its blank left.
"""

# ------------------------------------------------------------------ Sessions and cookies
# Cookies, the secret behind the preference cookie, and certificates. Text that crosses to the
# native services is `bytes` and ends at its first NUL byte.

def new_cookie_id() -> int:
    """A new cookie identifier, a number of 32 bits on the appliance and never negative.

    Asks `aps_get_new_cookie_id`.

    Raises:
        Nothing.

    Example:
        >>> new_cookie_id()
        2882400018
    """

def aps_unsigned_int_hash(characters: bytes, /) -> int:
    """The appliance's hash of a text, a number of 32 bits and never negative.

    Asks `__get_aps_hash`. Bytes after the first NUL take no part: `b"ab\\0cd"` hashes as `b"ab"`.

    Raises:
        TypeError: `characters` is not exactly `bytes`; `None` is refused with "expected bytes,
            NoneType found".

    Example:
        >>> aps_unsigned_int_hash(b"STANDIN000000001")
        1880949718
    """

def get_cookie_name(https: object, /) -> str:
    """The name of the session cookie: a prefix, "_" and the hash of the device's serial number.

    `https` counts by its truth: the prefix is "APSCOOKIE" for a true value and "APCOOKIE" for a
    false one. The name stays the same as long as the serial number does. Calls
    `serial_number_ascii` and, for the hash, `aps_unsigned_int_hash`, which asks `__get_aps_hash`.

    Raises:
        TypeError: the serial number is not exactly `bytes`.

    An exception of the truth test of `https` goes to the caller.

    Example:
        >>> get_cookie_name(True)
        'APSCOOKIE_1880949718'
        >>> get_cookie_name("")
        'APCOOKIE_1880949718'
    """

def encrypt_cookie(plain: bytes, /) -> bytes:
    """A cookie value wrapped for the browser.

    Asks `cookieval_wrap`, whose cipher is the appliance's. The value ends at its first NUL byte and
    so does the result.

    Raises:
        TypeError: `plain` is not exactly `bytes`; `None` is refused with "expected bytes, NoneType
            found".

    Example:
        >>> encrypt_cookie(b"user=admin")
        b'BnSS1xEG6iUw7oviSHidWkBOO15ysCRb2d7BBYbxm9K12LE6UAo'
    """

def decrypt_cookie(encrypted: bytes, /) -> bytes:
    """A cookie value that came back from the browser, unwrapped.

    Asks `cookieval_unwrap`. There is no error for a value that was tampered with: whatever text the
    native service leaves is returned, which may be empty. Check the result before you trust it.

    Raises:
        TypeError: `encrypted` is not exactly `bytes`; `None` is refused with "object of type
            'NoneType' has no len()".
        OverflowError: `encrypted` has 2147483647 bytes or more.
        CFunctionError: "PyMem_Malloc", there is no memory for the working buffer; logged as an
            error before.

    Example:
        >>> decrypt_cookie(b"BnSS1xEG6iUw7oviSHidWkBOO15ysCRb2d7BBYbxm9K12LE6UAo")
        b'user=admin'
    """

def get_token() -> str:
    """The secret behind the preference cookie, made on the first call.

    If there is no regular file at the path that `get_preference_cookie_secret_path` of
    `veldarin.modules.modules` gives, a file with 64 lower-case hexadecimal digits (32 bytes of the
    system's random source) is written there. Then, in every case, the first line of the file is
    read, and returned without the white space around it.

    - The content is not checked: an empty file gives "", a file that somebody else wrote gives its
      first line.
    - The path is decoded by `text_` with its own default, Latin-1.
    - Test and creation are two steps without a lock: two processes that call it for the first time
      at once may get two secrets. Call it once at start-up.

    Raises:
        OSError: the file cannot be read or made: no such directory, no permission, a directory at
            the path.
        UnicodeDecodeError: the file is no text in the system's encoding.

    Example:
        >>> get_token()
        '8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d'
    """

def check_cert_expiration(path: bytes, /) -> bool:
    """Whether the certificate file is good: `True` if the appliance's check gives status 0.

    Asks `gui_chk_cert_expiration` with the path, up to its first NUL byte. `False` says only that
    the check did not pass: expired, not yet valid, no such file and no certificate are alike.

    Raises:
        TypeError: `path` is not exactly `bytes`; `None` is refused with "expected bytes, NoneType
            found".

    Example:
        >>> check_cert_expiration(b"/etc/ssl/certs/gui.pem")
        True
        >>> check_cert_expiration(b"/no/such/file")
        False
    """

# ------------------------------------------------------------------ Switch and system status
# A query sends a request, a dictionary, to a native service and returns the reply parsed from JSON,
# unchanged unless said otherwise. A service that replies nothing makes the query return `None`.
#
# Four queries are wired to no native service, on purpose: they make a request and drop it, and
# return what a `JSONObject` of `util.json` holds when it is made without an argument. They fail
# only if their request cannot be made.
#
# What a request can hold is settled by `util.json`. The stand-in's takes what JSON has, and raises
# `TypeError` for anything else and `OverflowError` for an `int` of more than 64 bits. Where it
# counts whether an argument is true, an exception of its truth test goes to the caller.

def switch_acl_ingress_counter(policy_id: object = None) -> Any:
    """Counters of the switch's ingress ACL policies.

    Asks `build_switch_acl_ingress_stats` with `{"policy_id": policy_id}`, or with `{}` if
    `policy_id` is false: 0 and "" ask for all policies, as `None` does.

    Raises:
        TypeError: a request cannot hold `policy_id`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> switch_acl_ingress_counter(policy_id=7)
        [{'policy_id': 7, 'name': 'block-legacy-smb', 'packets': 0, 'bytes': 0}]
    """

def switch_acl_egress_counter(policy_id: object = None) -> Any:
    """Counters of the egress ACL policies: not wired, the same for every argument.

    Asks no native service.

    Raises:
        TypeError: a request cannot hold `policy_id`.

    Example:
        >>> print(switch_acl_egress_counter(7))
        None
    """

def switch_acl_prelookup_counter(policy_id: object = None) -> Any:
    """Counters of the pre-lookup ACL policies: not wired, the same for every argument.

    Asks no native service.

    Raises:
        TypeError: a request cannot hold `policy_id`.

    Example:
        >>> print(switch_acl_prelookup_counter(7))
        None
    """

def list_switch_stp_state(instance_id: object, /) -> Any:
    """Spanning-tree state of an instance: its root, and role and state of its ports.

    Asks `build_switch_stp_state` with `{"instance_id": instance_id}`, always: 0 and `None` are sent
    as they are.

    Raises:
        TypeError: a request cannot hold `instance_id`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_stp_state(1)
        [{'instance_id': 1, 'protocol': 'mstp', 'root_bridge': '1000.020000000a02',
          'root_path_cost': 0, 'root_port': None,
          'ports': [{'port_name': 'port2', 'role': 'designated', 'state': 'forwarding',
                     'cost': 20000, 'edge': True}]}]
    """

def list_system_interface_physical(name: str | None, /) -> Any:
    """One physical interface of the system: the entry of the reply that has this name.

    Asks `build_system_interface_physical` with `{"name": name}`, always, and looks through the list
    `reply[0]["interface"]` for the first entry whose `"name"` equals `name`.

    An unknown name is no error: **the last entry of the list is returned**. Compare the entry's
    `"name"` with the one you asked for. Speeds are in Mbit/s on the stand-in, the MTU in bytes.

    Raises:
        TypeError: `name` is neither exactly `str` nor `None`; or the reply is not laid out as
            above, as when the service replies nothing.
        IndexError: the reply is an empty list.
        KeyError: the reply has no "interface", or one of the entries passed has no "name".
        UnboundLocalError: the list of interfaces is empty.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_system_interface_physical("port1")
        {'name': 'port1', 'type': 'device', 'status': 'up', 'link': True, 'speed': 1000,
         'duplex': 'full', 'mtu': 1500, 'mac': '02:00:00:00:00:01',
         'addresses': ['192.0.2.1/24']}
        >>> list_system_interface_physical("no such port")["name"]
        'port2'
    """

def list_switch_lg_state() -> Any:
    """State of the switch's link groups.

    Asks `build_switch_lg_state` with `{}`.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_lg_state()
        [{'group': 'lg1', 'state': 'up', 'active': 'port1', 'standby': ['port2'], 'changes': 3},
         {'group': 'lg2', 'state': 'down', 'active': None, 'standby': ['port3', 'port4'],
          'changes': 1}]
    """

def list_switch_flapguard_status() -> Any:
    """Flap guard of the switch ports: how often a link was lost, and whether the port is guarded.

    Asks `build_switch_flapguard_status` with `{}`.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_flapguard_status()
        [{'port_name': 'port1', 'link': 'up', 'flaps': 1, 'guard': 'none'}]
    """

def list_switch_port_statistics(port_name: str | None, /) -> Any:
    """Counters of a switch port, or of all: bytes and packets each way, errors, drops.

    Asks `build_switch_port_statistics` with `{"port_name": port_name}`, or with `{}` for `None`
    only: an empty name is sent, and names no port.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_port_statistics("port1")
        [{'port_name': 'port1', 'bytes_sent': 1924362, 'bytes_recv': 1347998920,
          'packets_sent': 21607, 'packets_recv': 31942, 'errin': 0, 'errout': 0, 'dropin': 0,
          'dropout': 0}]
        >>> list_switch_port_statistics("")
        []
    """

def list_switch_lldp_state(port_name: str | None, /) -> Any:
    """LLDP neighbours of a switch port, or of all. Times to live are in seconds.

    Asks `build_switch_lldp_state` with `{"port_name": port_name}`, or with `{}` for `None` only: an
    empty name is sent, and names no port.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_lldp_state("port2")
        [{'port_name': 'port2', 'chassis_id': '02:00:00:00:0b:17', 'port_id': 'eth0',
          'system_name': 'desk-phone-17', 'capabilities': ['telephone'],
          'management_address': None, 'ttl': 60}]
    """

def list_switch_trunk_state(trunk_name: object = None) -> Any:
    """State of a trunk and its member ports, or of all trunks.

    Asks `build_switch_trunk_state` with `{"trunk_name": trunk_name}`, or with `{}` if `trunk_name`
    is false: "" asks for all trunks, as `None` does.

    Raises:
        TypeError: a request cannot hold `trunk_name`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_trunk_state("storage")
        [{'trunk_name': 'storage', 'mode': 'static', 'state': 'degraded',
          'members': [{'port_name': 'port9', 'state': 'bundled', 'partner': None},
                      {'port_name': 'port10', 'state': 'down', 'partner': None}]}]
    """

def list_switch_mclag_list(mkey: object = None) -> Any:
    """The MCLAG trunks: not wired, the same for every argument.

    Asks no native service.

    Raises:
        TypeError: a request cannot hold `mkey`.

    Example:
        >>> print(list_switch_mclag_list("uplink"))
        None
    """

def switch_mclag_icl() -> Any:
    """The MCLAG inter-chassis link: not wired.

    Asks no native service.

    Raises:
        Nothing.

    Example:
        >>> print(switch_mclag_icl())
        None
    """

def list_switch_igmp_snooping_group(port_name: str | None, /) -> Any:
    """Multicast groups that IGMP snooping knows on a switch port, or on all.

    Asks `build_switch_igmp_snooping_group` with `{"port_name": port_name}`, or with `{}` if
    `port_name` is false: "" asks for all ports here, as `None` does.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_igmp_snooping_group("port1")
        [{'port_name': 'port1', 'group': '224.0.0.1', 'users': 1, 'version': 'V3'}]
    """

def list_system_flash_list_status() -> Any:
    """The system's flash partitions; on the stand-in its file systems, sizes in bytes.

    Asks `build_system_flash_list` with `{}`.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_system_flash_list_status()
        [{'device': '/dev/mmcblk0p1', 'mountpoint': '/', 'filesystem': 'ext4', 'read_only': False,
          'size': 3848208384, 'used': 912261120, 'free': 2719965184}]
    """

def list_system_link_monitor_status() -> Any:
    """What the link monitor sees of each link: state, carrier, and how often the carrier changed.

    Asks `build_system_link_monitor_status` with `{}`.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_system_link_monitor_status()
        [{'name': 'port1', 'status': 'up', 'carrier': True, 'carrier_up_count': 1,
          'carrier_down_count': 1, 'carrier_changes': 2}]
    """

def list_switch_module_summary() -> Any:
    """The switch's transceiver modules: type, readings, alarms.

    Asks `build_switch_modules_summary` with `{}`; the native name has an "s" more. On the stand-in
    temperatures are in degrees Celsius, voltages in volts, optical powers in dBm.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> list_switch_module_summary()[0]
        {'port_name': 'port25', 'present': True, 'type': 'SFP+ 10GBASE-SR', 'temperature': 41.3,
         'voltage': 3.29, 'tx_power': -2.4, 'rx_power': -3.1, 'alarms': []}
    """

# ------------------------------------------------------------------ Command line and BFD
# Commands of the appliance's command line, and the BFD sessions parsed from their output.

def get_cli_command_output(cmd_s: str, /) -> str:
    """The output of a command of the appliance's command line.

    Asks `get_cli_cmd_output`; the command is run anew on each call. Every pager prompt "--More--"
    is taken out of the output and nothing else: carriage returns and blanks stay. All parsers of
    this module get their text through this function.

    The command is sent as UTF-8 in a buffer of 128 bytes: **a longer one is cut to 127 bytes**
    without an error.

    Raises:
        TypeError: `cmd_s` is not exactly `str`; `None` is refused with "expected bytes, NoneType
            found".
        CFunctionError: "get_cli_command_output's result is null.", the command failed.
        UnicodeError: the command cannot be written in UTF-8, or the output is not UTF-8.

    Example:
        >>> print(get_cli_command_output("get system arp"))
        Address          Age(min)   Hardware address    Interface
        192.0.2.10       0          02:00:00:aa:bb:cc   port1
        192.0.2.11       3          02:00:00:aa:bb:cd   port1 vlan10
    """

def get_bfd_neighbor(cmd: str, list_bfd: dict[str, BFDSession] = ...) -> dict[str, BFDSession]:
    """The BFD sessions in a command's output, by neighbour address and interface joined by "_".

    `cmd` is "get router info bfd neighbor" or "get router info6 bfd neighbor", as it stands or with
    the address and the interface of one session after it. Goes through `get_cli_command_output`,
    which asks `get_cli_cmd_output`. The sessions are added to `list_bfd`, which is returned; one
    that is there already is replaced by a new dictionary of its old and new fields.

    - **Without `list_bfd` all calls share one dictionary**, which nobody empties: sessions of
      earlier calls are in the result, also those that are gone. Pass `{}` for a result of your own.
    - **Only the first session of an output counts.** A second "peer" line is refused with a debug
      message, and the lines after it overwrite fields of the first session. Ask for one session at
      a time.
    - The first line of an output is never read, and neither is the second if "objname" occurs
      anywhere in the output. Output without "peer" leaves `list_bfd` as it is.
    - A line that cannot be read is logged at level debug ("e:" and the exception's text) and passed
      over. A timers line needs its three "key: value" lines; else the timers are left out.

    Raises:
        TypeError: `cmd` is not exactly `str`; or `list_bfd` is no dictionary and there is a session
            to add.
        CFunctionError: the command failed.
        UnicodeError: the command cannot be written in UTF-8, or the output is not UTF-8.

    Example:
        >>> get_bfd_neighbor("get router info bfd neighbor 10.0.0.2 port1", {})
        {'10.0.0.2_port1': {'neighbor_ip': '10.0.0.2', 'interface': 'port1',
                            'name': '10.0.0.2_port1', 'local_diag': '0',
                            'packets_received': '52 ',
                            'local_timers': {'detect_multiplier': '3', 'receive_interval': '250',
                                             'transmit_interval': '250'},
                            'remote_timers': {'detect_multiplier': '3', 'receive_interval': '250',
                                              'transmit_interval': '250'}}}
    """

def list_bfd_neighbor() -> list[BFDSession]:
    """The BFD sessions of both address families with their details, for the list of neighbours.

    Calls `get_bfd_neighbor`, which asks `get_cli_cmd_output`: for the summary of each family, with
    the shared dictionary, then for each session found for its detail in both families. A session
    is in the result if it has a field `zebra_notifications`, which only a detail brings.

    - Sessions that earlier calls left in the shared dictionary are asked for too: two more commands
      for each, at every call.
    - **A failure is not raised.** It is logged at level debug ("e:" and the exception's text), and
      the sessions collected so far are returned: an empty list may mean that a command failed.
    - A summary of several sessions gives the first one only; see `get_bfd_neighbor`.

    Raises:
        Nothing. What is no `Exception`, as `KeyboardInterrupt`, goes to the caller.

    Example:
        >>> for session in list_bfd_neighbor():
        ...     print(session["name"], session["status"], session["local_timers"])
        198.51.100.2_port1 up {'detect-multiplier': '3', 'receive_interval': '300ms',
                               'transmission_interval': '300ms'}
        2001:db8::2_port1 up {'detect-multiplier': '3', 'receive_interval': '300ms',
                              'transmission_interval': '300ms'}
    """

# ------------------------------------------------------------------ Packet sniffer
# Status queries as above, for the sniffer's profiles and their captures.

def get_system_sniffer_profile_summary() -> Any:
    """The packet sniffer's profiles and the state of their captures.

    Asks `build_system_sniffer_profile_summary` with `{}`.

    Raises:
        ValueError: the reply is no valid JSON.

    Example:
        >>> get_system_sniffer_profile_summary()[0]
        {'profile-name': 'lan-trace', 'interface': 'port2',
         'filter': 'udp port 67 or udp port 68', 'max-packets': 1000, 'packets': 214,
         'state': 'Stop'}
    """

def capture_sniffer_profile(profile_name: str | None, event: str | None) -> Any:
    """Starts, stops, pauses or deletes the capture of a sniffer profile.

    Sends `{"profile-name": profile_name}` (with a hyphen) to the native service that `event` names,
    in exactly this spelling:

    - "Running" starts: `build_start_sniffer_profile_capture`
    - "Stop" stops: `build_stop_sniffer_profile_capture`
    - "Pause" pauses: `build_pause_sniffer_profile_capture`
    - "Delete" deletes: `build_delete_sniffer_profile_capture`

    The event that starts is "Running", the state that the capture enters. **Any other event is no
    error and does nothing**: "running" and `None` ask no native service, and the result is what a
    query that is not wired returns.

    Raises:
        TypeError: `profile_name` or `event` is neither exactly `str` nor `None`.
        ValueError: the reply is no valid JSON.

    Example:
        >>> capture_sniffer_profile("lan-trace", "Running")
        {'profile-name': 'lan-trace', 'result': 'done', 'state': 'Running'}
        >>> print(capture_sniffer_profile("lan-trace", event="running"))
        None
    """

# ------------------------------------------------------------------ Routing and ARP tables
# Tables parsed from command line output. Every value stays the text that was printed. Output that
# does not have the expected form ends the call with `IndexError`, and what was parsed before is
# lost with it; the tool `python -m veldarin_simulator parse` tells the line.

def get_routing_table_result(ip_address: str | None, /) -> RoutingTable:
    """The routing table's entry for an address, with its next hops.

    Sends "get router info routing-table detail " and the address through `get_cli_command_output`,
    which asks `get_cli_cmd_output`. The address is not checked; `None` is sent as "None".

    The header is the first line that begins with "Routing", lines before it are ignored. Each line
    from the third after it that is not blank is a next hop: fields between commas, the first with
    the address, the second with the interface. Of two words or more in the first field the first
    is `main` and the second `ip`; of the second field it is the second word that counts, or the
    only one ("via port1" is "port1"). A second "Routing" block is read as next hops.

    Raises:
        IndexError: there is no "Routing" line (no route to the address, for one), one of the three
            header lines is short of words or fields, or a next hop lacks one of its two fields.
        TypeError: `ip_address` is neither exactly `str` nor `None`.
        CFunctionError: the command failed.
        UnicodeError: the command cannot be written in UTF-8, or the output is not UTF-8.

    Example:
        >>> get_routing_table_result("192.0.2.7")
        {'entry': '192.0.2.0/24', 'distance': '10', 'metric': '0', 'lastUpdate': '01:02:03',
         'other': '  Known via static,  best',
         'table': [{'main': '*', 'ip': '198.51.100.1', 'interface': 'port1'},
                   {'main': 'directly', 'ip': 'connected', 'interface': 'port2'}]}
    """

def get_system_arp_result() -> list[ARPEntry]:
    """The system's ARP table, a dictionary for each row.

    Sends "get system arp" through `get_cli_command_output`, which asks `get_cli_cmd_output`. The
    header is the first line that begins with "Address", lines before it are ignored. Each line
    after it that is not blank is a row of at least four columns; a sixth and further ones are
    ignored.

    Raises:
        IndexError: there is no "Address" line, or a line after it has fewer than four columns (a
            prompt or a message at the end, for one).
        CFunctionError: the command failed.
        UnicodeError: the output is not UTF-8.

    Example:
        >>> get_system_arp_result()
        [{'ipAddress': '192.0.2.10', 'age': '0', 'mac': '02:00:00:aa:bb:cc',
          'interface': 'port1'},
         {'ipAddress': '192.0.2.11', 'age': '3', 'mac': '02:00:00:aa:bb:cd',
          'interface': 'port1 vlan10'}]
    """

# ------------------------------------------------------------------ Other names
# Names that the module's namespace holds besides the functions. It imports `hexlify`, `namedtuple`,
# `getLogger`, `urandom`, `Path`, `Lock` and `copy` from the standard library, `bytes_` and `text_`
# from `pyramid.compat`, `serial_number_ascii` from `migbase.cmdbapi.cmdbapi_util` and
# `CFunctionError`, the exception of a native service that failed, from `util.errors`. The rest:

json: ModuleType
"""The module `ujson`, whose `loads` parses the replies of status queries."""

_logger: Logger
"""The logger "veldarin.modules.modules_util"."""

_CHARSET: str
"""The encoding of commands and their output, "utf-8"."""

_INVALID_INDEX: str
"""A message for other modules, "Invalid index %s requested (count: %s)"; not used here."""

_interface_count: int
"""For other modules, 0 at first; not used here."""

_interface_lock: Lock
"""For other modules; no function of this one takes it."""

class Counters(NamedTuple):
    """Counters of an interface, for other modules; not used here.

    `Counters.__module__` is the name that `namedtuple` finds when it is called from C: that of the
    Python code that runs the import, usually "importlib._bootstrap". `pickle` does not find the
    class there.
    """

    bytes_sent: Any
    bytes_recv: Any
    packets_sent: Any
    packets_recv: Any
    errin: Any
    errout: Any
    dropin: Any
    dropout: Any

__test__: dict[str, Any]
"""Empty: there is nothing for doctest to find in the module itself."""

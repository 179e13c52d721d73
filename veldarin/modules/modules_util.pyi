"""Type stub of veldarin.modules.modules_util.

The module gives the management interface access to the appliance's native services.

The functions have no docstrings at run time. Those in this file are for editors, type checkers,
the tools, and the page of functions, which is generated from it.

Common to all functions:

- A parameter before the `/` is positional-only. A parameter of type `bytes` or `str` accepts
  exactly this type: for any other, a subclass included, the function raises a TypeError such as
  "Argument 'path' has incorrect type (expected bytes, got str)". `None` passes this test; the
  functions describe its effect where it matters.
- A wrong number of arguments and an unknown keyword raise `TypeError`, and every call can raise
  `MemoryError`. The functions do not list these.
- An exception has a traceback entry of the module: the function's dotted name, the file
  `veldarin/modules/modules_util` and the line of the failing statement. Errors that the interpreter
  itself detects (an argument of a function without parameters, two arguments of a function with
  one) have none.
- Each call looks up the names that it uses (`json`, `text_`, `_logger`, `get_cli_command_output`,
  ...) in the module's namespace. Rebinding a name there takes effect from the next call; a deleted
  name is a `NameError`.
- The functions hold the interpreter lock throughout, also during native services. A slow service
  blocks every thread of the management process.
- Only `get_bfd_neighbor` keeps results between calls: the sessions in the default of `list_bfd`.
- The parsers `get_bfd_neighbor`, `get_routing_table_result` and `get_system_arp_result` read an
  instance of a subclass of `str` as a `str`: they do not call a `split` or `replace` that the
  subclass defines. `get_cli_command_output` calls such a `replace`.
- Compare the strings in a result with `==`. A string of one character need not be the object that
  the interpreter shares for that character.
- The interpreter creates the module once per process. A second import, after the module was removed
  from `sys.modules`, returns the same module object, and the interpreter binds all functions again,
  so that a rebound or deleted function is back. All other names except `__spec__` stay as they are.

The examples show replies of the simulator: on the appliance the layout of a status reply is that of
its native service.
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
# For annotations only: the module does not have these names at run time. Import them under
# `if TYPE_CHECKING:`.

@type_check_only
class ARPEntry(TypedDict):
    """A row of the ARP table. All values are strings, as the command printed them.

    `age` is in the unit of the table's header line, minutes in the simulator. `interface` is the
    fourth column, or the fourth and fifth with a space between them.
    """

    ipAddress: str
    age: str
    mac: str
    interface: str

@type_check_only
class Route(TypedDict):
    """A next hop. `main` is the word before the address, such as "*", or "" without one."""

    main: str
    ip: str
    interface: str

@type_check_only
class RoutingTable(TypedDict):
    """The routing table's entry for an address.

    `entry` is the prefix, `distance` and `metric` are numbers as strings, `lastUpdate` is a word
    such as "01:02:03". `other` consists of the first and the fourth comma-separated field of the
    line with distance and metric, joined by ", ". Both fields keep their white space:
    "  Known via static,  best".
    """

    entry: str
    distance: str
    metric: str
    lastUpdate: str
    other: str
    table: list[Route]

BFDSession = dict[str, str | dict[str, str]]
"""A BFD session.

Its first keys are `neighbor_ip` and `interface`, the second and fourth word of the "peer" line, and
`name`, those two words joined by "_". In the order of the output follow a key for each "key: value"
line, and `local_timers` and `remote_timers`, dictionaries of three strings each.

A key is the text before the colon in lower case, with "_" for each space. A value is the text up to
the next colon: "Uptime: 0:01:02" gives "0". The word "packets" is removed, the space before it is
not: "343 packets" gives "343 ".
"""

# ------------------------------------------------------------------ Cookies and certificates
# Session cookies, the secret of the preference cookie, and certificates. The native services take
# text as `bytes`, which ends at the first NUL byte.

def new_cookie_id() -> int:
    """Return a new cookie identifier: a non-negative number, of 32 bits on the appliance.

    Calls `aps_get_new_cookie_id`.

    Raises:
        Nothing.

    Example:
        >>> new_cookie_id()
        2882400018
    """

def aps_unsigned_int_hash(characters: bytes, /) -> int:
    """Return the appliance's hash of a text: a non-negative number of 32 bits.

    Calls `__get_aps_hash`.

    Args:
        characters: The text. It ends at the first NUL byte: `b"ab\\0cd"` hashes as `b"ab"`.

    Raises:
        TypeError: `characters` is not exactly `bytes`; for `None` the message is "expected bytes,
            NoneType found".

    Example:
        >>> aps_unsigned_int_hash(b"SIMULATOR0000001")
        2161986457
    """

def get_cookie_name(https: object, /) -> str:
    """Return the name of the session cookie: a prefix, "_" and the hash of the serial number.

    The prefix is "APSCOOKIE" for HTTPS and "APCOOKIE" otherwise. A device always has the same name.
    Calls `serial_number_ascii` and, for the hash, `aps_unsigned_int_hash`, which calls
    `__get_aps_hash`. An exception of the truth test of `https` propagates.

    Args:
        https: Any object; only its truth value counts.

    Raises:
        TypeError: The serial number is not exactly `bytes`.

    Example:
        >>> get_cookie_name(True)
        'APSCOOKIE_2161986457'
        >>> get_cookie_name("")
        'APCOOKIE_2161986457'
    """

def encrypt_cookie(plain: bytes, /) -> bytes:
    """Encrypt a cookie value for the browser.

    Calls `cookieval_wrap`, which implements the cipher.

    Args:
        plain: The value. It ends at the first NUL byte, and so does the result.

    Raises:
        TypeError: `plain` is not exactly `bytes`; for `None` the message is "expected bytes,
            NoneType found".

    Example:
        >>> encrypt_cookie(b"user=admin")
        b'BnSS1xEG6iUw7oviSHidWkBOO15ysCRb2d7BBYbxm9K12LE6UAo'
    """

def decrypt_cookie(encrypted: bytes, /) -> bytes:
    """Decrypt a cookie value that the browser sent back.

    Calls `cookieval_unwrap`, which reports no errors: for a value that was tampered with it may
    return any text, also an empty one. Check the result before you trust it.

    Args:
        encrypted: The value. It ends at the first NUL byte.

    Raises:
        TypeError: `encrypted` is not exactly `bytes`; for `None` the message is "object of type
            'NoneType' has no len()".
        OverflowError: `encrypted` has 2147483647 bytes or more.
        CFunctionError: "PyMem_Malloc": the working buffer cannot be allocated. The module also
            logs an error.

    Example:
        >>> decrypt_cookie(b"BnSS1xEG6iUw7oviSHidWkBOO15ysCRb2d7BBYbxm9K12LE6UAo")
        b'user=admin'
    """

def get_token() -> str:
    """Return the secret of the preference cookie; create it on the first call.

    The path of the file comes from `get_preference_cookie_secret_path` of
    `veldarin.modules.modules`. If no regular file exists at the path, the function writes one
    with 64 lower-case hexadecimal digits (32 bytes of the system's random source). Then it reads
    the first line of the file and returns it without the white space around it.

    - The function does not check the content: an empty file gives "".
    - `text_` decodes the path with its own default, Latin-1.
    - No lock protects the test and the creation: two processes that make the first call
      simultaneously may get different secrets. Call the function once at start-up.

    Raises:
        OSError: The file cannot be read or created: its directory does not exist, a permission is
            missing, the path is a directory.
        UnicodeDecodeError: The file is not text in the system's encoding.

    Example:
        >>> get_token()
        '8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d8f4b1c2d'
    """

def check_cert_expiration(path: bytes, /) -> bool:
    """Return whether the appliance accepts a certificate file.

    Calls `gui_chk_cert_expiration` and returns `True` for status 0. The result is `False` for a
    certificate that is expired or not yet valid, for a file that does not exist and for one that is
    not a certificate.

    Args:
        path: The path of the file. It ends at the first NUL byte.

    Raises:
        TypeError: `path` is not exactly `bytes`; for `None` the message is "expected bytes,
            NoneType found".

    Example:
        >>> check_cert_expiration(b"/etc/ssl/certs/gui.pem")
        True
        >>> check_cert_expiration(b"/no/such/file")
        False
    """

# ------------------------------------------------------------------ Switch and system status
# A query sends a request, a dictionary, to a native service and returns the reply, parsed from
# JSON. The result is unchanged unless the description says otherwise, and `None` if the service
# returns nothing.
#
# Four queries are deliberately not wired: they create a request, call no native service, and return
# what a new `JSONObject` of `util.json` holds. They fail only if the request cannot be created.
#
# `util.json` determines what a request can hold. That of the simulator accepts the types of JSON,
# and raises `TypeError` for anything else and `OverflowError` for an `int` of more than 64 bits.
# Where the truth value of an argument counts, an exception of its truth test propagates.

def switch_acl_ingress_counter(policy_id: object = None) -> Any:
    """Return the counters of the switch's ingress ACL policies.

    Calls `build_switch_acl_ingress_stats` with `{"policy_id": policy_id}`, or with `{}` if
    `policy_id` is false.

    Args:
        policy_id: A policy. 0 and "" select all policies, as `None` does.

    Raises:
        TypeError: A request cannot hold `policy_id`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> switch_acl_ingress_counter(policy_id=7)
        [{'policy_id': 7, 'name': 'block-legacy-smb', 'packets': 0, 'bytes': 0}]
    """

def switch_acl_egress_counter(policy_id: object = None) -> Any:
    """Return the counters of the egress ACL policies; not wired.

    Calls no native service.

    Args:
        policy_id: Does not affect the result.

    Raises:
        TypeError: A request cannot hold `policy_id`.

    Example:
        >>> print(switch_acl_egress_counter(7))
        None
    """

def switch_acl_prelookup_counter(policy_id: object = None) -> Any:
    """Return the counters of the pre-lookup ACL policies; not wired.

    Calls no native service.

    Args:
        policy_id: Does not affect the result.

    Raises:
        TypeError: A request cannot hold `policy_id`.

    Example:
        >>> print(switch_acl_prelookup_counter(7))
        None
    """

def list_switch_stp_state(instance_id: object, /) -> Any:
    """Return the spanning-tree state of an instance: its root, and role and state of its ports.

    Calls `build_switch_stp_state` with `{"instance_id": instance_id}`.

    Args:
        instance_id: An instance. The request holds every value, also 0 and `None`.

    Raises:
        TypeError: A request cannot hold `instance_id`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_stp_state(1)
        [{'instance_id': 1, 'protocol': 'mstp', 'root_bridge': '1000.020000000a02',
          'root_path_cost': 0, 'root_port': None,
          'ports': [{'port_name': 'port2', 'role': 'designated', 'state': 'forwarding',
                     'cost': 20000, 'edge': True}]}]
    """

def list_system_interface_physical(name: str | None, /) -> Any:
    """Return a physical interface of the system.

    Calls `build_system_interface_physical` with `{"name": name}` and searches the list
    `reply[0]["interface"]` for the first entry whose `"name"` equals `name`. The simulator reports
    speeds in Mbit/s and the MTU in bytes.

    **For an unknown name the function returns the last entry of the list.** Compare the `"name"` of
    the result with yours.

    Args:
        name: The name of the interface.

    Raises:
        TypeError: `name` is neither exactly `str` nor `None`; or the reply does not have the layout
            above, for example because the service returns nothing.
        IndexError: The reply is an empty list.
        KeyError: The reply has no "interface", or an entry before the match has no "name".
        UnboundLocalError: The list of interfaces is empty.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_system_interface_physical("port1")
        {'name': 'port1', 'type': 'device', 'status': 'up', 'link': True, 'speed': 1000,
         'duplex': 'full', 'mtu': 1500, 'mac': '02:00:00:00:00:01',
         'addresses': ['192.0.2.1/24']}
        >>> list_system_interface_physical("no such port")["name"]
        'port2'
    """

def list_switch_lg_state() -> Any:
    """Return the state of the switch's link groups.

    Calls `build_switch_lg_state` with `{}`.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_lg_state()
        [{'group': 'lg1', 'state': 'up', 'active': 'port1', 'standby': ['port2'], 'changes': 3},
         {'group': 'lg2', 'state': 'down', 'active': None, 'standby': ['port3', 'port4'],
          'changes': 1}]
    """

def list_switch_flapguard_status() -> Any:
    """Return the flap-guard status of the switch ports: lost links and the state of the guard.

    Calls `build_switch_flapguard_status` with `{}`.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_flapguard_status()
        [{'port_name': 'port1', 'link': 'up', 'flaps': 1, 'guard': 'none'}]
    """

def list_switch_port_statistics(port_name: str | None, /) -> Any:
    """Return the counters of switch ports: bytes and packets in each direction, errors, drops.

    Calls `build_switch_port_statistics` with `{"port_name": port_name}`, or with `{}` for `None`.

    Args:
        port_name: A port; `None` selects all ports. "" is sent as a name, which no port has.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_port_statistics("port1")
        [{'port_name': 'port1', 'bytes_sent': 1924362, 'bytes_recv': 1347998920,
          'packets_sent': 21607, 'packets_recv': 31942, 'errin': 0, 'errout': 0, 'dropin': 0,
          'dropout': 0}]
        >>> list_switch_port_statistics("")
        []
    """

def list_switch_lldp_state(port_name: str | None, /) -> Any:
    """Return the LLDP neighbors of switch ports. Times to live are in seconds.

    Calls `build_switch_lldp_state` with `{"port_name": port_name}`, or with `{}` for `None`.

    Args:
        port_name: A port; `None` selects all ports. "" is sent as a name, which no port has.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_lldp_state("port2")
        [{'port_name': 'port2', 'chassis_id': '02:00:00:00:0b:17', 'port_id': 'eth0',
          'system_name': 'desk-phone-17', 'capabilities': ['telephone'],
          'management_address': None, 'ttl': 60}]
    """

def list_switch_trunk_state(trunk_name: object = None) -> Any:
    """Return the state of trunks and their member ports.

    Calls `build_switch_trunk_state` with `{"trunk_name": trunk_name}`, or with `{}` if `trunk_name`
    is false.

    Args:
        trunk_name: A trunk. "" selects all trunks, as `None` does.

    Raises:
        TypeError: A request cannot hold `trunk_name`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_trunk_state("storage")
        [{'trunk_name': 'storage', 'mode': 'static', 'state': 'degraded',
          'members': [{'port_name': 'port9', 'state': 'bundled', 'partner': None},
                      {'port_name': 'port10', 'state': 'down', 'partner': None}]}]
    """

def list_switch_mclag_list(mkey: object = None) -> Any:
    """Return the MCLAG trunks; not wired.

    Calls no native service.

    Args:
        mkey: Does not affect the result.

    Raises:
        TypeError: A request cannot hold `mkey`.

    Example:
        >>> print(list_switch_mclag_list("uplink"))
        None
    """

def switch_mclag_icl() -> Any:
    """Return the MCLAG inter-chassis link; not wired.

    Calls no native service.

    Raises:
        Nothing.

    Example:
        >>> print(switch_mclag_icl())
        None
    """

def list_switch_igmp_snooping_group(port_name: str | None, /) -> Any:
    """Return the multicast groups that IGMP snooping knows on switch ports.

    Calls `build_switch_igmp_snooping_group` with `{"port_name": port_name}`, or with `{}` if
    `port_name` is false.

    Args:
        port_name: A port. "" selects all ports, as `None` does.

    Raises:
        TypeError: `port_name` is neither exactly `str` nor `None`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_igmp_snooping_group("port1")
        [{'port_name': 'port1', 'group': '224.0.0.1', 'users': 1, 'version': 'V3'}]
    """

def list_system_flash_list_status() -> Any:
    """Return the system's flash partitions; the simulator returns file systems with sizes in bytes.

    Calls `build_system_flash_list` with `{}`.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_system_flash_list_status()
        [{'device': '/dev/mmcblk0p1', 'mountpoint': '/', 'filesystem': 'ext4', 'read_only': False,
          'size': 3848208384, 'used': 912261120, 'free': 2719965184}]
    """

def list_system_link_monitor_status() -> Any:
    """Return what the link monitor knows of each link: state, carrier, and changes of the carrier.

    Calls `build_system_link_monitor_status` with `{}`.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_system_link_monitor_status()
        [{'name': 'port1', 'status': 'up', 'carrier': True, 'carrier_up_count': 1,
          'carrier_down_count': 1, 'carrier_changes': 2}]
    """

def list_switch_module_summary() -> Any:
    """Return the switch's transceiver modules: type, readings, alarms.

    Calls `build_switch_modules_summary` with `{}`. The simulator reports temperatures in degrees
    Celsius, voltages in volts and optical powers in dBm.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> list_switch_module_summary()[0]
        {'port_name': 'port25', 'present': True, 'type': 'SFP+ 10GBASE-SR', 'temperature': 41.3,
         'voltage': 3.29, 'tx_power': -2.4, 'rx_power': -3.1, 'alarms': []}
    """

# ------------------------------------------------------------------ Command line and BFD
# Commands of the appliance's command-line interface, and the BFD sessions in their output.

def get_cli_command_output(cmd_s: str, /) -> str:
    """Return the output of a command of the appliance's command line.

    Every call runs the command with `get_cli_cmd_output`. The function removes each pager prompt
    "--More--" from the output and nothing else: carriage returns and spaces stay. All parsers of
    this module get their text from this function.

    Args:
        cmd_s: The command. It is encoded as UTF-8; **a command of more than 127 bytes is
            truncated** without an error.

    Raises:
        TypeError: `cmd_s` is not exactly `str`; for `None` the message is "expected bytes, NoneType
            found".
        CFunctionError: "get_cli_command_output's result is null.": the command failed.
        UnicodeError: The command cannot be encoded as UTF-8, or the output is not UTF-8.

    Example:
        >>> print(get_cli_command_output("get system arp"))
        Address          Age(min)   Hardware address    Interface
        192.0.2.10       0          02:00:00:aa:bb:cc   port1
        192.0.2.11       3          02:00:00:aa:bb:cd   port1 vlan10
    """

def get_bfd_neighbor(cmd: str, list_bfd: dict[str, BFDSession] = ...) -> dict[str, BFDSession]:
    """Return the BFD sessions in a command's output.

    The key of a session is its address and interface, joined by "_". Runs the command with
    `get_cli_command_output`, which calls `get_cli_cmd_output`. The function adds the sessions to
    `list_bfd` and returns it. It replaces an existing session by a new dictionary of the old and
    new fields.

    - **Without `list_bfd` all calls share one dictionary**, which nothing clears: the result has
      the sessions of earlier calls, also those that no longer exist. Pass `{}` to get a result of
      your own.
    - **Only the first session of an output counts.** A second "peer" line causes a debug message,
      and the lines after it overwrite fields of the first session. Query one session at a time.
    - The parser skips the first line of an output, and the second if "objname" occurs anywhere in
      the output. Output without "peer" leaves `list_bfd` as it is.
    - The function logs an invalid line at level debug ("e:" and the exception's text) and skips it.
      A timers line needs three "key: value" lines after it, or the session gets no such timers.

    Args:
        cmd: "get router info bfd neighbor" or "get router info6 bfd neighbor", alone or followed by
            the address and the interface of a session.
        list_bfd: The dictionary to add to.

    Raises:
        TypeError: `cmd` is not exactly `str`; or `list_bfd` is not a dictionary and there is a
            session to add.
        CFunctionError: The command failed.
        UnicodeError: The command cannot be encoded as UTF-8, or the output is not UTF-8.

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
    """Return the BFD sessions of both address families with their details.

    Calls `get_bfd_neighbor`, which calls `get_cli_cmd_output`: for the summary of each family, with
    the shared dictionary, then for the details of each session in both families. The result has the
    sessions with a field `zebra_notifications`, which only details have.

    - The function also queries sessions that earlier calls left in the shared dictionary: two more
      commands for each, at every call.
    - **The function does not raise exceptions.** It logs them at level debug ("e:" and the
      exception's text) and returns the sessions that it has so far: an empty list may mean that a
      command failed.
    - From a summary of several sessions the result has only the first; see `get_bfd_neighbor`.

    Raises:
        Nothing. Only exceptions that are not an `Exception`, such as `KeyboardInterrupt`,
            propagate.

    Example:
        >>> for session in list_bfd_neighbor():
        ...     print(session["name"], session["status"], session["local_timers"])
        198.51.100.2_port1 up {'detect-multiplier': '3', 'receive_interval': '300ms',
                               'transmission_interval': '300ms'}
        2001:db8::2_port1 up {'detect-multiplier': '3', 'receive_interval': '300ms',
                              'transmission_interval': '300ms'}
    """

# ------------------------------------------------------------------ Packet sniffer
# Status queries for the sniffer's profiles and their captures.

def get_system_sniffer_profile_summary() -> Any:
    """Return the packet sniffer's profiles and the state of their captures.

    Calls `build_system_sniffer_profile_summary` with `{}`.

    Raises:
        ValueError: The reply is not valid JSON.

    Example:
        >>> get_system_sniffer_profile_summary()[0]
        {'profile-name': 'lan-trace', 'interface': 'port2',
         'filter': 'udp port 67 or udp port 68', 'max-packets': 1000, 'packets': 214,
         'state': 'Stop'}
    """

def capture_sniffer_profile(profile_name: str | None, event: str | None) -> Any:
    """Start, stop, pause or delete the capture of a sniffer profile.

    Sends `{"profile-name": profile_name}` (with a hyphen) to the native service of the event:

    - "Running" starts: `build_start_sniffer_profile_capture`
    - "Stop" stops: `build_stop_sniffer_profile_capture`
    - "Pause" pauses: `build_pause_sniffer_profile_capture`
    - "Delete" deletes: `build_delete_sniffer_profile_capture`

    The event that starts is named after the state that the capture enters. **Any other event does
    nothing and is not an error**: for "running" and `None` the function calls no native service and
    returns the same as a query that is not wired.

    Args:
        profile_name: The name of the profile.
        event: One of the four events, in exactly this spelling.

    Raises:
        TypeError: `profile_name` or `event` is neither exactly `str` nor `None`.
        ValueError: The reply is not valid JSON.

    Example:
        >>> capture_sniffer_profile("lan-trace", "Running")
        {'profile-name': 'lan-trace', 'result': 'done', 'state': 'Running'}
        >>> print(capture_sniffer_profile("lan-trace", event="running"))
        None
    """

# ------------------------------------------------------------------ Routing and ARP tables
# Parsers for the output of commands. Every value stays the text that the command printed. Output of
# an unexpected form ends the call with `IndexError`, and the entries parsed before are lost;
# `python -m veldarin_simulator parse` reports the line.

def get_routing_table_result(ip_address: str | None, /) -> RoutingTable:
    """Return the routing table's entry for an address, with its next hops.

    Sends "get router info routing-table detail " and the address through `get_cli_command_output`,
    which calls `get_cli_cmd_output`.

    The header begins with the first line that starts with "Routing"; the parser ignores lines
    before it. Each line from the third after it that is not blank is a next hop: fields separated
    by commas, the first with the address, the second with the interface. If the first field has two
    words or more, the first word is `main` and the second `ip`. The interface is the second word of
    its field, or the only one ("via port1" is "port1"). The parser reads a second "Routing" block
    as next hops.

    Args:
        ip_address: The address, which is not checked; `None` is sent as "None".

    Raises:
        IndexError: No line begins with "Routing" (if no route leads to the address, for example), a
            header line lacks words or fields, or a next hop lacks one of its two fields.
        TypeError: `ip_address` is neither exactly `str` nor `None`.
        CFunctionError: The command failed.
        UnicodeError: The command cannot be encoded as UTF-8, or the output is not UTF-8.

    Example:
        >>> get_routing_table_result("192.0.2.7")
        {'entry': '192.0.2.0/24', 'distance': '10', 'metric': '0', 'lastUpdate': '01:02:03',
         'other': '  Known via static,  best',
         'table': [{'main': '*', 'ip': '198.51.100.1', 'interface': 'port1'},
                   {'main': 'directly', 'ip': 'connected', 'interface': 'port2'}]}
    """

def get_system_arp_result() -> list[ARPEntry]:
    """Return the system's ARP table as one dictionary a row.

    Sends "get system arp" through `get_cli_command_output`, which calls `get_cli_cmd_output`. The
    header is the first line that starts with "Address"; the parser ignores lines before it. Each
    line after it that is not blank is a row of at least four columns; the parser ignores the sixth
    and later ones.

    Raises:
        IndexError: No line begins with "Address", or a line after it has fewer than four columns (a
            prompt or a message at the end, for example).
        CFunctionError: The command failed.
        UnicodeError: The output is not UTF-8.

    Example:
        >>> get_system_arp_result()
        [{'ipAddress': '192.0.2.10', 'age': '0', 'mac': '02:00:00:aa:bb:cc',
          'interface': 'port1'},
         {'ipAddress': '192.0.2.11', 'age': '3', 'mac': '02:00:00:aa:bb:cd',
          'interface': 'port1 vlan10'}]
    """

# ------------------------------------------------------------------ Other names
# The other names in the module's namespace. It imports `hexlify`, `namedtuple`,
# `getLogger`, `urandom`, `Path`, `Lock` and `copy` from the standard library, `bytes_` and `text_`
# from `pyramid.compat`, `serial_number_ascii` from `migbase.cmdbapi.cmdbapi_util` and
# `CFunctionError`, the exception for a failed native service, from `util.errors`. The rest:

json: ModuleType
"""The module `ujson`, whose `loads` parses the replies of status queries."""

_logger: Logger
"""The logger "veldarin.modules.modules_util"."""

_CHARSET: str
"""The encoding of commands and their output: "utf-8"."""

_INVALID_INDEX: str
"""A message for other modules: "Invalid index %s requested (count: %s)". Not used here."""

_interface_count: int
"""For other modules; initially 0. Not used here."""

_interface_lock: Lock
"""For other modules; no function of this one acquires it."""

class Counters(NamedTuple):
    """Counters of an interface, for other modules. Not used here.

    `Counters.__module__` is the name that `namedtuple` finds when C code calls it: that of the
    Python code that runs the import, usually "importlib._bootstrap". `pickle` cannot find the class
    there.
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
"""Empty: the module has no doctests."""

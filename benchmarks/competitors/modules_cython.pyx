"""The functions of veldarin.modules.modules_util once more, as a Cython module would have them:
written statement by statement, compiled with Cython's own defaults, over the same siblings and the
same native services. A peer of the benchmarks.
"""
from cpython.mem cimport PyMem_Free, PyMem_Malloc

from util.json cimport JSONObject, json_object
from util.string cimport strtcpy
from veldarin.modules.modules cimport get_preference_cookie_secret_path

from migbase.cmdbapi.cmdbapi_util import serial_number_ascii
from binascii import hexlify
from collections import namedtuple
from logging import getLogger
from os import urandom
from pathlib import Path
from pyramid.compat import bytes_, text_
from threading import Lock
import ujson as json
from util.errors import CFunctionError
import copy


cdef extern from "json-c/json.h":
    const char *json_object_to_json_string(json_object *value)


cdef extern from *:
    """
    extern unsigned long aps_get_new_cookie_id(void);
    extern unsigned long __get_aps_hash(const char *text);
    extern char *cookieval_wrap(const char *text);
    extern int cookieval_unwrap(char *text);
    extern int gui_chk_cert_expiration(const char *path);
    extern char *get_cli_cmd_output(void *first, const char *command);
    #define STATUS(name) extern struct json_object *name(void *context, struct json_object *request);
    STATUS(build_switch_acl_ingress_stats) STATUS(build_switch_stp_state)
    STATUS(build_switch_lg_state) STATUS(build_switch_flapguard_status)
    STATUS(build_switch_port_statistics) STATUS(build_switch_lldp_state)
    STATUS(build_switch_trunk_state) STATUS(build_switch_igmp_snooping_group)
    STATUS(build_switch_modules_summary) STATUS(build_system_interface_physical)
    STATUS(build_system_flash_list) STATUS(build_system_link_monitor_status)
    STATUS(build_system_sniffer_profile_summary)
    #define CAPTURE(name) \\
        extern struct json_object *name(void *context, struct json_object *request, void *third);
    CAPTURE(build_start_sniffer_profile_capture) CAPTURE(build_stop_sniffer_profile_capture)
    CAPTURE(build_pause_sniffer_profile_capture) CAPTURE(build_delete_sniffer_profile_capture)
    """
    unsigned long aps_get_new_cookie_id()
    unsigned long get_aps_hash "__get_aps_hash"(const char *text)
    char *cookieval_wrap(const char *text)
    int cookieval_unwrap(char *text)
    int gui_chk_cert_expiration(const char *path)
    char *get_cli_cmd_output(void *first, const char *command)
    json_object *build_switch_acl_ingress_stats(void *context, json_object *request)
    json_object *build_switch_stp_state(void *context, json_object *request)
    json_object *build_switch_lg_state(void *context, json_object *request)
    json_object *build_switch_flapguard_status(void *context, json_object *request)
    json_object *build_switch_port_statistics(void *context, json_object *request)
    json_object *build_switch_lldp_state(void *context, json_object *request)
    json_object *build_switch_trunk_state(void *context, json_object *request)
    json_object *build_switch_igmp_snooping_group(void *context, json_object *request)
    json_object *build_switch_modules_summary(void *context, json_object *request)
    json_object *build_system_interface_physical(void *context, json_object *request)
    json_object *build_system_flash_list(void *context, json_object *request)
    json_object *build_system_link_monitor_status(void *context, json_object *request)
    json_object *build_system_sniffer_profile_summary(void *context, json_object *request)
    json_object *build_start_sniffer_profile_capture(
        void *context, json_object *request, void *third)
    json_object *build_stop_sniffer_profile_capture(
        void *context, json_object *request, void *third)
    json_object *build_pause_sniffer_profile_capture(
        void *context, json_object *request, void *third)
    json_object *build_delete_sniffer_profile_capture(
        void *context, json_object *request, void *third)


_logger = getLogger(__name__)

_INVALID_INDEX = "Invalid index %s requested (count: %s)"
_interface_count = 0
_interface_lock = Lock()

_CHARSET = "utf-8"

Counters = namedtuple("Counters", "bytes_sent bytes_recv packets_sent packets_recv "
                                  "errin errout dropin dropout")


def new_cookie_id():
    return aps_get_new_cookie_id()


def aps_unsigned_int_hash(bytes characters):
    return get_aps_hash(characters)


def get_cookie_name(https):
    return "{0}_{1}".format(
        text_(b"APSCOOKIE" if https else b"APCOOKIE", "utf-8"),
        aps_unsigned_int_hash(serial_number_ascii()),
    )


def encrypt_cookie(bytes plain):
    cdef char *encrypted = cookieval_wrap(plain)
    cdef bytes encrypted_bytes = encrypted
    PyMem_Free(encrypted)
    return encrypted_bytes


def decrypt_cookie(bytes encrypted):
    cdef int decrypted_length = len(encrypted) + 1
    cdef char *decrypted = <char *>PyMem_Malloc(decrypted_length)
    if decrypted == NULL:
        _logger.error("Could not allocate memory for decreypt_cookie decrypted")
        raise CFunctionError("PyMem_Malloc")
    strtcpy(decrypted, decrypted_length, encrypted)
    cookieval_unwrap(decrypted)
    cdef bytes decrypted_bytes = decrypted
    PyMem_Free(decrypted)
    return decrypted_bytes


def get_token():
    cdef char *preference_cookie_secret_pathname = get_preference_cookie_secret_path()
    preference_cookie_secret_path = Path(text_(preference_cookie_secret_pathname))
    if not preference_cookie_secret_path.is_file():
        with open(preference_cookie_secret_path.absolute(), "w") as secret_file:
            secret_file.write(hexlify(urandom(32)).decode())
    with open(preference_cookie_secret_path.absolute(), "r") as secret_file:
        secret = secret_file.readline().strip()
    return secret


def check_cert_expiration(bytes path):
    return gui_chk_cert_expiration(path) == 0


def switch_acl_ingress_counter(policy_id=None):
    cdef JSONObject request = JSONObject({"policy_id": policy_id} if policy_id else {})
    cdef JSONObject ingress_counter = JSONObject()
    ingress_counter.held = build_switch_acl_ingress_stats(NULL, request.held)
    ingress_counter_data = json.loads(json_object_to_json_string(ingress_counter.held))
    request.release()
    ingress_counter.release()
    return ingress_counter_data


def switch_acl_egress_counter(policy_id=None):
    cdef JSONObject request = JSONObject({"policy_id": policy_id} if policy_id else {})
    cdef JSONObject egress_counter = JSONObject()
    egress_counter_data = json.loads(json_object_to_json_string(egress_counter.held))
    request.release()
    egress_counter.release()
    return egress_counter_data


def switch_acl_prelookup_counter(policy_id=None):
    cdef JSONObject request = JSONObject({"policy_id": policy_id} if policy_id else {})
    cdef JSONObject prelookup_counter = JSONObject()
    prelookup_counter_data = json.loads(json_object_to_json_string(prelookup_counter.held))
    request.release()
    prelookup_counter.release()
    return prelookup_counter_data


def list_switch_stp_state(instance_id):
    cdef JSONObject request = JSONObject({"instance_id": instance_id})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_stp_state(NULL, request.held)
    data = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return data


def list_system_interface_physical(str name):
    cdef JSONObject request = JSONObject({"name": name})
    cdef JSONObject response = JSONObject()
    response.held = build_system_interface_physical(NULL, request.held)
    interface = json.loads(json_object_to_json_string(response.held))
    for data in interface[0]["interface"]:
        if data["name"] == name:
            break
    request.release()
    response.release()
    return data


def list_switch_lg_state():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_lg_state(NULL, request.held)
    statuses = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return statuses


def list_switch_flapguard_status():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_flapguard_status(NULL, request.held)
    statuses = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return statuses


def list_switch_port_statistics(str port_name):
    cdef JSONObject request
    if port_name is None:
        request = JSONObject({})
    else:
        request = JSONObject({"port_name": port_name})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_port_statistics(NULL, request.held)
    data = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return data


def list_switch_lldp_state(str port_name):
    cdef JSONObject request
    if port_name is None:
        request = JSONObject({})
    else:
        request = JSONObject({"port_name": port_name})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_lldp_state(NULL, request.held)
    statuses = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return statuses


def list_switch_trunk_state(trunk_name=None):
    cdef JSONObject request = JSONObject({"trunk_name": trunk_name} if trunk_name else {})
    cdef JSONObject trunk_state = JSONObject()
    trunk_state.held = build_switch_trunk_state(NULL, request.held)
    trunks = json.loads(json_object_to_json_string(trunk_state.held))
    request.release()
    trunk_state.release()
    return trunks


def list_switch_mclag_list(mkey=None):
    cdef JSONObject request = JSONObject({"mkey": mkey} if mkey else {})
    cdef JSONObject trunk_mclag = JSONObject()
    mclag_list = json.loads(json_object_to_json_string(trunk_mclag.held))
    request.release()
    trunk_mclag.release()
    return mclag_list


def switch_mclag_icl():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject trunk_mclag_icl = JSONObject()
    mclag_icl = json.loads(json_object_to_json_string(trunk_mclag_icl.held))
    request.release()
    trunk_mclag_icl.release()
    return mclag_icl


def list_switch_igmp_snooping_group(str port_name):
    cdef JSONObject request = JSONObject({"port_name": port_name} if port_name else {})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_igmp_snooping_group(NULL, request.held)
    data = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return data


def list_system_flash_list_status():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_system_flash_list(NULL, request.held)
    flashes = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return flashes


def list_system_link_monitor_status():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_system_link_monitor_status(NULL, request.held)
    statuses = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return statuses


def list_switch_module_summary():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_switch_modules_summary(NULL, request.held)
    statuses = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return statuses


def get_cli_command_output(str cmd_s):
    cdef char cmd[128]
    strtcpy(cmd, 128, bytes_(cmd_s, _CHARSET))
    cdef char *output = get_cli_cmd_output(NULL, cmd)
    try:
        if output == NULL:
            raise CFunctionError("get_cli_command_output's result is null.")
        result = text_(output, _CHARSET)
        return result.replace("--More--", "")
    finally:
        PyMem_Free(output)


def get_bfd_neighbor(cmd, list_bfd={}):
    result = text_(get_cli_command_output(cmd), _CHARSET)
    if "peer" not in result:
        return list_bfd
    if "objname" not in result:
        result = "\n" + result
    result = result.split("\n")
    i = 0
    tmp = {}
    name = None
    size = len(result)
    while i < size:
        try:
            if i <= 1:
                i = 2
            data = result[i].replace("\t", "").lstrip()
            if "peer " in data:
                if tmp and name is not None:
                    if name in list:
                        list_bfd[name] = dict(list_bfd[name], **tmp)
                    else:
                        list_bfd[name] = tmp
                    tmp = {}
                else:
                    data = data.split(" ")
                    tmp["neighbor_ip"] = data[1]
                    tmp["interface"] = data[3].rstrip()
                    name = data[1] + "_" + data[3]
                    tmp["name"] = name
            elif data.startswith("Local timers"):
                local_timers = {}
                j = i + 1
                for _ in range(3):
                    val = result[j].replace("\t", "").split(":")
                    local_timers[val[0].strip().lower().replace(" ", "_")] = val[1].strip()
                    j = j + 1
                tmp["local_timers"] = local_timers
                i = j - 1
            elif data.startswith("Remote timers"):
                remote_timers = {}
                j = i + 1
                for _ in range(3):
                    val = result[j].replace("\t", "").split(":")
                    remote_timers[val[0].strip().lower().replace(" ", "_")] = val[1].strip()
                    j = j + 1
                tmp["remote_timers"] = remote_timers
                i = j - 1
            elif data != "" and ":" in data:
                val = data.split(":")
                value = val[1].strip().replace("packets", "")
                tmp[val[0].strip().lower().replace(" ", "_")] = value
        except Exception as e:
            _logger.debug("e:" + str(e))
        i = i + 1
    if tmp and name is not None:
        if name in list_bfd:
            list_bfd[name] = dict(list_bfd[name], **tmp)
        else:
            list_bfd[name] = tmp
    return list_bfd


def list_bfd_neighbor():
    holder = []
    try:
        info = get_bfd_neighbor("get router info bfd neighbor")
        info6 = get_bfd_neighbor("get router info6 bfd neighbor")
        list_bfd = dict(info, **info6)
        if len(list_bfd) == 0:
            return holder
        tmp = copy.deepcopy(list_bfd)
        for key in tmp:
            neighbor_ip = tmp[key]["neighbor_ip"]
            interface = tmp[key]["interface"]
            info = get_bfd_neighbor(
                "get router info bfd neighbor " + neighbor_ip + " " + interface, list_bfd)
            info6 = get_bfd_neighbor(
                "get router info6 bfd neighbor " + neighbor_ip + " " + interface, info)
            list_bfd = dict(info, **info6)
            if "zebra_notifications" in list_bfd[key]:
                holder.append(list_bfd[key])
    except Exception as e:
        _logger.debug("e:" + str(e))
    return holder


def get_system_sniffer_profile_summary():
    cdef JSONObject request = JSONObject({})
    cdef JSONObject response = JSONObject()
    response.held = build_system_sniffer_profile_summary(NULL, request.held)
    data = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return data


def capture_sniffer_profile(str profile_name, str event):
    cdef JSONObject request = JSONObject({"profile-name": profile_name})
    cdef JSONObject response = JSONObject()
    if event == "Running":
        response.held = build_start_sniffer_profile_capture(NULL, request.held, NULL)
    elif event == "Stop":
        response.held = build_stop_sniffer_profile_capture(NULL, request.held, NULL)
    elif event == "Pause":
        response.held = build_pause_sniffer_profile_capture(NULL, request.held, NULL)
    elif event == "Delete":
        response.held = build_delete_sniffer_profile_capture(NULL, request.held, NULL)
    data = json.loads(json_object_to_json_string(response.held))
    request.release()
    response.release()
    return data


def get_routing_table_result(str ip_address):
    routing_table = {}
    table = []
    result = text_(
        get_cli_command_output("get router info routing-table detail {}".format(ip_address)),
        _CHARSET)
    result = result.replace("\r", "").split("\n")
    count = len(result)
    index = 0
    while not result[index].strip().startswith("Routing"):
        index += 1
    routing_table["entry"] = result[index].split()[3]
    info = result[index + 1].split(",")
    routing_table["distance"] = info[1].split()[1]
    routing_table["metric"] = info[2].split()[1]
    routing_table["lastUpdate"] = result[index + 2].split()[2]
    routing_table["other"] = "{}, {}".format(info[0], info[3])
    index += 3
    while index < count:
        row = result[index].strip()
        if row:
            route = {}
            data = row.split(",")
            ip = data[0].split()
            route["main"] = ""
            route["ip"] = ip[0]
            if len(ip) > 1:
                route["main"] = ip[0]
                route["ip"] = ip[1]
            interface = data[1].split()
            route["interface"] = interface[0]
            if len(interface) > 1:
                route["interface"] = interface[1]
            table.append(route)
        index += 1
    routing_table["table"] = table
    return routing_table


def get_system_arp_result():
    result = []
    system_arp = text_(get_cli_command_output("get system arp"), _CHARSET)
    system_arp = system_arp.split("\n")
    count = len(system_arp)
    index = 0
    while not system_arp[index].strip().startswith("Address"):
        index += 1
    index += 1
    while index < count:
        row = system_arp[index].strip()
        if row:
            data = row.split()
            arp = {}
            arp["ipAddress"] = data[0]
            arp["age"] = data[1]
            arp["mac"] = data[2]
            arp["interface"] = data[3]
            if len(data) >= 5:
                arp["interface"] = "{} {}".format(data[3], data[4])
            result.append(arp)
        index += 1
    return result

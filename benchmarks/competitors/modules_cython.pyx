"""The functions of veldarin.modules.modules_util in Cython, statement by statement.

Compiled with Cython's defaults, with the same siblings and native services as the module. The build
generates the parsers and most status queries (generate_cython.py).
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
    """
    unsigned long aps_get_new_cookie_id()
    unsigned long get_aps_hash "__get_aps_hash"(const char *text)
    char *cookieval_wrap(const char *text)
    int cookieval_unwrap(char *text)
    int gui_chk_cert_expiration(const char *path)
    char *get_cli_cmd_output(void *first, const char *command)


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


def list_system_interface_physical(str name):
    cdef JSONObject request = JSONObject({"name": name})
    cdef JSONObject response = JSONObject()
    response.value = build_system_interface_physical(NULL, request.value)
    interface = json.loads(json_object_to_json_string(response.value))
    for data in interface[0]["interface"]:
        if data["name"] == name:
            break
    request.release()
    response.release()
    return data


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


def capture_sniffer_profile(str profile_name, str event):
    cdef JSONObject request = JSONObject({"profile-name": profile_name})
    cdef JSONObject response = JSONObject()
    if event == "Running":
        response.value = build_start_sniffer_profile_capture(NULL, request.value, NULL)
    elif event == "Stop":
        response.value = build_stop_sniffer_profile_capture(NULL, request.value, NULL)
    elif event == "Pause":
        response.value = build_pause_sniffer_profile_capture(NULL, request.value, NULL)
    elif event == "Delete":
        response.value = build_delete_sniffer_profile_capture(NULL, request.value, NULL)
    data = json.loads(json_object_to_json_string(response.value))
    request.release()
    response.release()
    return data


include "modules_cython.pxi"

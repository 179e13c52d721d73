// The names and texts that the module hands to the interpreter, made once at import and kept for
// the life of the process: identifiers and dictionary keys interned, so that look-ups compare
// pointers.
#pragma once

#include <Python.h>

namespace modules_util {

// Identifiers: the name in C++ is the text.
#define MODULES_UTIL_IDENTIFIERS(X)                                                               \
    X(CFunctionError) X(Counters) X(JSONObject) X(Lock) X(Path) X(absolute) X(age)                \
    X(aps_unsigned_int_hash)                                                                      \
    X(binascii) X(builtins) X(bytes_) X(characters) X(cmd) X(cmd_s) X(collections) X(complex)     \
    X(copy) X(debug) X(decode) X(deepcopy) X(distance) X(encrypted) X(entry) X(error) X(event)    \
    X(format) X(getLogger) X(get_bfd_neighbor) X(get_cli_command_output)                          \
    X(get_preference_cookie_secret_path) X(hexlify) X(https) X(instance_id) X(interface) X(ip)    \
    X(ipAddress) X(ip_address) X(is_file) X(json) X(lastUpdate) X(list_bfd) X(loads)              \
    X(local_timers) X(logging) X(lower) X(mac) X(main) X(metric) X(mkey) X(name) X(namedtuple)    \
    X(neighbor_ip) X(open) X(os) X(other) X(path) X(pathlib) X(plain) X(policy_id) X(port_name)   \
    X(profile_name) X(range) X(readline) X(remote_timers) X(replace) X(serial_number_ascii)       \
    X(split) X(strip) X(strtcpy) X(table) X(text_) X(threading) X(trunk_name) X(type) X(ujson)    \
    X(urandom) X(write) X(zebra_notifications)

// Texts that are no identifiers of C++, each under a name of its own.
#define MODULES_UTIL_TEXTS(X)                                                                     \
    X(CHARSET, "_CHARSET")                                                                        \
    X(INVALID_INDEX, "_INVALID_INDEX")                                                            \
    X(WARM_START_PATH, "WARM_START_PATH")                                                         \
    X(bool_, "bool")                                                                              \
    X(dunder_builtins, "__builtins__")                                                            \
    X(dunder_enter, "__enter__")                                                                  \
    X(dunder_exit, "__exit__")                                                                    \
    X(dunder_import, "__import__")                                                                \
    X(dunder_main, "__main__")                                                                    \
    X(dunder_name, "__name__")                                                                    \
    X(dunder_pyx_capi, "__pyx_capi__")                                                            \
    X(dunder_pyx_vtable, "__pyx_vtable__")                                                        \
    X(dunder_spec, "__spec__")                                                                    \
    X(dunder_test, "__test__")                                                                    \
    X(initializing, "_initializing")                                                              \
    X(interface_count, "_interface_count")                                                        \
    X(interface_lock, "_interface_lock")                                                          \
    X(logger, "_logger")                                                                          \
    X(module_name, "veldarin.modules.modules_util")                                               \
    X(migbase_migbase, "migbase.migbase")                                                         \
    X(migbase_cmdbapi_util, "migbase.cmdbapi.cmdbapi_util")                                       \
    X(pyramid_compat, "pyramid.compat")                                                           \
    X(util_errors, "util.errors")                                                                 \
    X(util_json, "util.json")                                                                     \
    X(util_string, "util.string")                                                                 \
    X(veldarin_modules_modules, "veldarin.modules.modules")                                       \
    X(profile_name_key, "profile-name")                                                           \
    X(Running, "Running")                                                                         \
    X(Stop, "Stop")                                                                               \
    X(Pause, "Pause")                                                                             \
    X(Delete, "Delete")                                                                           \
    X(charset, "utf-8")                                                                           \
    X(invalid_index, "Invalid index %s requested (count: %s)")                                    \
    X(cookie_name_format, "{0}_{1}")                                                              \
    X(read_mode, "r")                                                                             \
    X(write_mode, "w")                                                                            \
    X(no_cookie_memory, "Could not allocate memory for decreypt_cookie decrypted")                \
    X(PyMem_Malloc_, "PyMem_Malloc")                                                              \
    X(no_cli_output, "get_cli_command_output's result is null.")                                  \
    X(arp_command, "get system arp")                                                              \
    X(routing_command, "get router info routing-table detail {}")                                 \
    X(bfd_command, "get router info bfd neighbor")                                                \
    X(bfd6_command, "get router info6 bfd neighbor")                                              \
    X(bfd_detail_command, "get router info bfd neighbor ")                                        \
    X(bfd6_detail_command, "get router info6 bfd neighbor ")                                      \
    X(unknown_location, "unknown location")                                                       \
    X(unknown_module_name, "<unknown module name>")                                               \
    X(peer, "peer")                                                                               \
    X(objname, "objname")                                                                         \
    X(newline, "\n")                                                                              \
    X(blank, " ")                                                                                 \
    X(empty, "")

// A name in a constant table: `names[row.key]` is the object.
enum class Name : unsigned char {
    none,
#define MODULES_UTIL_IDENTIFIER(name) name,
#define MODULES_UTIL_TEXT(name, text) name,
    MODULES_UTIL_IDENTIFIERS(MODULES_UTIL_IDENTIFIER) MODULES_UTIL_TEXTS(MODULES_UTIL_TEXT)
#undef MODULES_UTIL_IDENTIFIER
#undef MODULES_UTIL_TEXT
};

struct Names {
#define MODULES_UTIL_IDENTIFIER(name) PyObject *name;
#define MODULES_UTIL_TEXT(name, text) PyObject *name;
    MODULES_UTIL_IDENTIFIERS(MODULES_UTIL_IDENTIFIER)
    MODULES_UTIL_TEXTS(MODULES_UTIL_TEXT)
#undef MODULES_UTIL_IDENTIFIER
#undef MODULES_UTIL_TEXT

    // The members lie as the names are counted.
    PyObject *&operator[](Name which) {
        return reinterpret_cast<PyObject **>(this)[static_cast<size_t>(which) - 1];
    }
};

extern Names names;

// Makes all of them. False with an exception set; what was made is kept for the next attempt.
bool make_names();

}  // namespace modules_util

// The strings that the module passes to the interpreter: identifiers, dictionary keys, commands and
// messages. They are interned once, at import, so that lookups compare pointers.
#pragma once

#include <Python.h>

#include <string_view>

namespace modules_util {

// Strings that are named like their text.
#define MODULES_UTIL_IDENTIFIERS(X)                                                               \
    X(CFunctionError) X(Counters) X(JSONObject) X(Lock) X(WARM_START_PATH) X(absolute) X(age)     \
    X(aps_unsigned_int_hash) X(binascii) X(builtins) X(bytes_) X(collections) X(complex) X(copy)  \
    X(debug) X(decode) X(deepcopy) X(distance) X(entry) X(error) X(format) X(getLogger)           \
    X(get_bfd_neighbor) X(get_cli_command_output) X(get_preference_cookie_secret_path)            \
    X(hexlify) X(interface) X(ip) X(ipAddress) X(is_file) X(json) X(lastUpdate) X(loads)          \
    X(local_timers) X(logging) X(lower) X(mac) X(main) X(metric) X(name) X(namedtuple)            \
    X(neighbor_ip) X(objname) X(open) X(os) X(other) X(pathlib) X(peer) X(range) X(readline)      \
    X(remote_timers) X(replace) X(serial_number_ascii) X(split) X(strip) X(strtcpy) X(table)      \
    X(text_) X(threading) X(type) X(ujson) X(urandom) X(write) X(zebra_notifications)             \
    X(Delete) X(Pause) X(Running) X(Stop)

// Strings whose text is not an identifier, is a keyword, or differs from another one only by case.
#define MODULES_UTIL_TEXTS(X)                                                                     \
    X(Path_class, "Path")                                                                         \
    X(bool_, "bool")                                                                              \
    X(charset_global, "_CHARSET")                                                                 \
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
    X(invalid_index_global, "_INVALID_INDEX")                                                     \
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
    X(utf8, "utf-8")                                                                              \
    X(invalid_index_text, "Invalid index %s requested (count: %s)")                               \
    X(counters_fields,                                                                            \
      "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout")              \
    X(cookie_name_format, "{0}_{1}")                                                              \
    X(read_mode, "r")                                                                             \
    X(write_mode, "w")                                                                            \
    X(no_cookie_memory, "Could not allocate memory for decreypt_cookie decrypted")                \
    X(pymem_malloc_text, "PyMem_Malloc")                                                          \
    X(no_cli_output, "get_cli_command_output's result is null.")                                  \
    X(arp_command, "get system arp")                                                              \
    X(routing_command, "get router info routing-table detail {}")                                 \
    X(bfd_command, "get router info bfd neighbor")                                                \
    X(bfd6_command, "get router info6 bfd neighbor")                                              \
    X(bfd_detail_command, "get router info bfd neighbor ")                                        \
    X(bfd6_detail_command, "get router info6 bfd neighbor ")                                      \
    X(unknown_location, "unknown location")                                                       \
    X(unknown_module_name, "<unknown module name>")                                               \
    X(pager_prompt, "--More--")                                                                   \
    X(carriage_return, "\r")                                                                      \
    X(tab, "\t")                                                                                  \
    X(packets, "packets")                                                                         \
    X(newline, "\n")                                                                              \
    X(space, " ")                                                                                 \
    X(underscore, "_")                                                                            \
    X(empty, "")

namespace id {

enum StringId : unsigned char {
    none,
#define IDENTIFIER(name) name,
#define STRING(name, text) name,
    MODULES_UTIL_IDENTIFIERS(IDENTIFIER) MODULES_UTIL_TEXTS(STRING)
#undef IDENTIFIER
#undef STRING
};

}  // namespace id

using id::StringId;

// All strings in the order of their ids, each with its NUL. The names of the functions' parameters
// follow the strings above.
#define IDENTIFIER(name) #name "\0"
#define STRING(name, text) text "\0"
#define PARAMETER(name, type, default_kind) #name "\0"
#define FUNCTION(kind, name, parameters, first_line) parameters
#define QUERY_ROW(query, kind, name, parameters, ...) parameters
inline constexpr char interned_texts[] =
    MODULES_UTIL_IDENTIFIERS(IDENTIFIER) MODULES_UTIL_TEXTS(STRING)
#include "veldarin/modules/function_table.def"
    ;
#undef IDENTIFIER
#undef STRING

// One more than the last id.
inline constexpr int string_count = [] {
    int count = 0;
    for (const char each : interned_texts) count += each == '\0';
    return count;  // the literal's own NUL counts for id::none
}();

// The id of a text, in a constant expression.
constexpr StringId string_id(std::string_view text) {
    int id = id::none + 1;
    const char *at = interned_texts;
    while (std::string_view(at) != text) {
        at += std::string_view(at).size() + 1;
        ++id;
    }
    return static_cast<StringId>(id);
}

// Owned; null for id::none.
extern PyObject *interned[string_count];

// Interns all strings. False with an exception set; the next attempt keeps the strings that exist.
bool intern_strings();

}  // namespace modules_util

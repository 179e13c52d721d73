// The module's state: one copy for the process, since the module lives in one interpreter only. A
// successful import fills it; nothing releases it afterwards.
#pragma once

#include <Python.h>

#include "util/string.h"
#include "veldarin/modules/interned.h"
#include "veldarin/modules/modules.h"

namespace modules_util {

inline constexpr char module_name[] = "veldarin.modules.modules_util";

// Objects and addresses from other modules. The objects are owned; the addresses belong to the
// sibling modules.
struct Imports {
    PyObject *open, *range, *type, *bool_, *complex, *JSONObject;
    modules::GetPreferenceCookieSecretPath get_preference_cookie_secret_path;
    util::Strtcpy strtcpy;
};

// Pairs of arguments for `str.replace`; owned. All but `spaces` remove something.
struct ReplaceArgs {
    PyObject *pager_prompt, *tabs, *spaces, *packets, *carriage_returns;
};

// Owned.
struct Constants {
    PyObject *zero;
    PyObject *token_bytes;  // how many random bytes a new secret has
    ReplaceArgs replace_args;
    PyObject *split_args;     // for `str.split`: a newline
    PyObject *exit_args;      // for `__exit__` without an exception
    PyObject *counters_args;  // for namedtuple()
};

// A global of the module as of one version of the module's dictionary. The interpreter gives a
// dictionary a new version, unique in the process, with every change. The dictionary keeps the
// value alive while it has that version.
struct CachedGlobal {
    uint64_t version;  // never 0 for a dictionary
    PyObject *value;
};

struct State {
    PyObject *module;            // owned
    PyObject *globals;           // the module's dictionary, kept alive by it
    PyObject *builtins;          // owned
    PyObject *default_list_bfd;  // owned: the default of get_bfd_neighbor's list_bfd in all calls
    PyObject *code_objects;      // owned: a list in the order of their first lines
    int64_t interpreter_id;      // of the first interpreter that created the module
    bool has_interpreter_id;
    enum : unsigned char { not_imported, importing, imported } progress;
    Constants constants;
    Imports imports;
    CachedGlobal global_cache[string_count];  // by id
};

inline State state;

}  // namespace modules_util

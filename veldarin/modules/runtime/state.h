// What the module keeps between calls: one copy for the process, since the module lives in one
// interpreter only. Filled by a successful import and never released afterwards.
#pragma once

#include <Python.h>

#include "migbase/migbase.h"
#include "util/json.h"
#include "util/string.h"
#include "veldarin/modules/modules.h"

namespace modules_util {

// What the import found in other modules, kept for the life of the process. The objects are owned;
// what the pointers below them point at belongs to the sibling modules.
struct Imports {
    PyObject *open, *range, *type, *bool_, *complex, *JSONObject;
    const JSONObjectMethods *json_methods;
    modules::GetPreferenceCookieSecretPath get_preference_cookie_secret_path;
    util::Strtcpy strtcpy;
    migbase::WarmStartPath WARM_START_PATH;
};

inline constexpr char module_name[] = "veldarin.modules.modules_util";

// What goes from the texts of the command line.
inline constexpr char pager_prompt[] = "--More--";
inline constexpr char carriage_return[] = "\r";
inline constexpr char tab[] = "\t";
inline constexpr char packets_word[] = "packets";

// Owned. Those named `remove_…` and `replace_…` are argument pairs of `str.replace`.
struct Constants {
    PyObject *zero;
    PyObject *token_size;
    PyObject *remove_pager, *remove_tabs, *replace_blanks, *remove_packets, *remove_returns;
    PyObject *newline;  // the arguments of `split`
    PyObject *three_nones;
    PyObject *counters;
};

struct State {
    PyObject *module;        // owned
    PyObject *globals;       // the module's dictionary, kept alive by it
    PyObject *builtins;      // owned
    PyObject *sessions;      // owned: the one default of every get_bfd_neighbor call
    PyObject *code_objects;  // owned: a list, in the order of their first lines
    enum : unsigned char { not_imported, importing, imported } progress;
    Constants constants;
    Imports imports;
};

extern State state;

}  // namespace modules_util

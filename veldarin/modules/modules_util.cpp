// The extension module veldarin.modules.modules_util: its creation, its execution step by step, and
// its definition, for the interpreter that imports it. The functions are in functions.cpp.
#include <Python.h>

#include "functions.h"
#include "lines.h"
#include "runtime/errors.h"
#include "runtime/globals.h"
#include "runtime/imports.h"
#include "runtime/names.h"
#include "runtime/ref.h"
#include "runtime/state.h"
#include "runtime/traceback.h"
#include "util/json.h"

namespace modules_util {

namespace {

// ------------------------------------------------------------------ creation

// The module lives in the interpreter that first asked for it, for the life of the process.
bool is_first_interpreter() {
    static int64_t first = -1;
    const int64_t current = PyInterpreterState_GetID(PyInterpreterState_Get());
    if (current < 0) return false;
    if (first < 0) first = current;
    if (first == current) return true;
    PyErr_SetString(PyExc_ImportError,
                    "Interpreter change detected - this module can only be loaded into one "
                    "interpreter per process.");
    return false;
}

struct ImportAttribute {
    const char *attribute, *name;
    bool none_counts;
};

constexpr ImportAttribute import_attributes[] = {
    {"loader",                     "__loader__",  true },
    {"origin",                     "__file__",    true },
    {"parent",                     "__package__", true },
    {"submodule_search_locations", "__path__",    false},
};

// Copies one attribute of the import spec, if it has it.
bool copy_attribute(PyObject *spec, PyObject *globals, const ImportAttribute &row) {
    const Ref value = Ref::steal(PyObject_GetAttrString(spec, row.attribute));
    if (!value) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return false;
        PyErr_Clear();
        return true;
    }
    if (value.get() == Py_None && !row.none_counts) return true;
    return PyDict_SetItemString(globals, row.name, value.get()) == 0;
}

PyObject *create(PyObject *spec, PyModuleDef *) {
    if (!is_first_interpreter()) return nullptr;
    if (state.module) return Ref::borrow(state.module).release();

    const Ref name = Ref::steal(PyObject_GetAttrString(spec, "name"));
    if (!name) return nullptr;
    Ref module = Ref::steal(PyModule_NewObject(name.get()));
    if (!module) return nullptr;
    PyObject *globals = PyModule_GetDict(module.get());
    for (const ImportAttribute &row : import_attributes) {
        if (!copy_attribute(spec, globals, row)) return nullptr;
    }
    return module.release();
}

// ------------------------------------------------------------------ execution

// Each step is true, or false with an exception set.

// Compares only what a version's first and third characters tell.
bool check_version() {
    char built[4];
    char running[4];
    PyOS_snprintf(built, sizeof built, "%d.%d", PY_MAJOR_VERSION, PY_MINOR_VERSION);
    PyOS_snprintf(running, sizeof running, "%s", Py_GetVersion());
    if (built[0] == running[0] && built[2] == running[2]) return true;
    char message[200];
    PyOS_snprintf(message, sizeof message,
                  "compiletime version %s of module '%.100s' does not match runtime version %s",
                  built, module_name, running);
    return PyErr_WarnFormat(PyExc_RuntimeWarning, 1, "%s", message) == 0;
}

bool record(PyObject *module) {
    state.module = Ref::borrow(module).release();
    state.globals = PyModule_GetDict(module);
    PyObject *builtins = PyImport_AddModule("builtins");
    if (!builtins) return false;
    Py_INCREF(builtins);
    Py_XSETREF(state.builtins, builtins);
    return PyDict_SetItem(state.globals, names.dunder_builtins, builtins) == 0;
}

bool keep(PyObject *&constant, PyObject *made) {
    Py_XSETREF(constant, made);
    return made != nullptr;
}

bool make_constants() {
    Constants &made = state.constants;
    return keep(made.zero, PyLong_FromLong(0)) && keep(made.token_size, PyLong_FromLong(32)) &&
           keep(made.remove_pager, Py_BuildValue("(ss)", pager_prompt, "")) &&
           keep(made.remove_tabs, Py_BuildValue("(ss)", tab, "")) &&
           keep(made.replace_blanks, Py_BuildValue("(ss)", " ", "_")) &&
           keep(made.remove_packets, Py_BuildValue("(ss)", packets_word, "")) &&
           keep(made.remove_returns, Py_BuildValue("(ss)", carriage_return, "")) &&
           keep(made.newline, Py_BuildValue("(s)", "\n")) &&
           keep(made.three_nones, PyTuple_Pack(3, Py_None, Py_None, Py_None)) &&
           keep(made.counters, Py_BuildValue("(ss)", "Counters",
                                             "bytes_sent bytes_recv packets_sent packets_recv "
                                             "errin errout dropin dropout"));
}

// Makes sure that `sys.modules` holds the module under its own name. `added` tells whether it did
// not before.
bool register_module(bool &added) {
    PyObject *modules = PyImport_GetModuleDict();
    const PyObject *main = PyDict_GetItemWithError(modules, names.dunder_main);
    if (!main && PyErr_Occurred()) return false;
    if (main == state.module &&
        PyDict_SetItem(state.globals, names.dunder_name, names.dunder_main) < 0) {
        return false;
    }
    if (PyDict_GetItemWithError(modules, names.module_name)) return true;
    if (PyErr_Occurred()) return false;
    added = PyDict_SetItem(modules, names.module_name, state.module) == 0;
    return added;
}

bool keep_builtins() {
    return keep(state.imports.open, builtin(names.open).release()) &&
           keep(state.imports.range, builtin(names.range).release());
}

bool make_code_objects() {
    if (!keep(state.code_objects, PyList_New(0))) return false;
    for (size_t row = 0; row < function_count; ++row) {
        if (!add_code_object(methods[row].ml_name, functions[row].first_line)) return false;
    }
    return true;
}

struct TypeImport {
    Name module, name;
    size_t size;
    PyObject *Imports::*type;
};

constexpr TypeImport checked_types[] = {
    {Name::builtins,  Name::type,       sizeof(PyHeapTypeObject), &Imports::type      },
    {Name::builtins,  Name::bool_,      sizeof(PyLongObject),     &Imports::bool_     },
    {Name::builtins,  Name::complex,    sizeof(PyComplexObject),  &Imports::complex   },
    {Name::util_json, Name::JSONObject, sizeof(JSONObject),       &Imports::JSONObject},
};

bool import_types() {
    Imports &imports = state.imports;
    for (const TypeImport &row : checked_types) {
        const auto size = static_cast<Py_ssize_t>(row.size);
        Ref type = import_type(names[row.module], names[row.name], size);
        if (!keep(imports.*row.type, type.release())) return false;
    }
    void *methods = import_method_table(imports.JSONObject);
    imports.json_methods = static_cast<const JSONObjectMethods *>(methods);
    return methods != nullptr;
}

bool import_c_items() {
    Imports &imports = state.imports;
    void *variable = import_c_item(CItem::variable, names.migbase_migbase, names.WARM_START_PATH,
                                   migbase::warm_start_path_signature);
    if (!variable) return false;
    imports.WARM_START_PATH = static_cast<migbase::WarmStartPath>(variable);
    void *path = import_c_item(CItem::function, names.veldarin_modules_modules,
                               names.get_preference_cookie_secret_path,
                               modules::get_preference_cookie_secret_path_signature);
    if (!path) return false;
    imports.get_preference_cookie_secret_path =
        reinterpret_cast<modules::GetPreferenceCookieSecretPath>(path);
    void *copy =
        import_c_item(CItem::function, names.util_string, names.strtcpy, util::strtcpy_signature);
    if (!copy) return false;
    imports.strtcpy = reinterpret_cast<util::Strtcpy>(copy);
    return true;
}

// from module import name, second        (or, with no name: import module as `as`)
struct ImportStatement {
    Name module, name, second, as;
    int line;
};

// clang-format off
constexpr ImportStatement import_statements[] = {
    {Name::migbase_cmdbapi_util, Name::serial_number_ascii, Name::none,  Name::none, line::init::serial_number_ascii},
    {Name::binascii,             Name::hexlify,             Name::none,  Name::none, line::init::hexlify},
    {Name::collections,          Name::namedtuple,          Name::none,  Name::none, line::init::namedtuple},
    {Name::logging,              Name::getLogger,           Name::none,  Name::none, line::init::get_logger},
    {Name::os,                   Name::urandom,             Name::none,  Name::none, line::init::urandom},
    {Name::pathlib,              Name::Path,                Name::none,  Name::none, line::init::path},
    {Name::pyramid_compat,       Name::bytes_,              Name::text_, Name::none, line::init::compat},
    {Name::threading,            Name::Lock,                Name::none,  Name::none, line::init::lock},
    {Name::ujson,                Name::none,                Name::none,  Name::json, line::init::json},
    {Name::util_errors,          Name::CFunctionError,      Name::none,  Name::none, line::init::c_function_error},
    {Name::copy,                 Name::none,                Name::none,  Name::copy, line::init::copy},
};
// clang-format on

bool bind_global(Name name, const Ref &value) {
    return value && PyDict_SetItem(state.globals, names[name], value.get()) == 0;
}

// The tuple of the names to import, or None for a whole module.
Ref import_list(const ImportStatement &row) {
    if (row.name == Name::none) return Ref::borrow(Py_None);
    if (row.second == Name::none) return Ref::steal(PyTuple_Pack(1, names[row.name]));
    return Ref::steal(PyTuple_Pack(2, names[row.name], names[row.second]));
}

bool run_import(const ImportStatement &row) {
    const Ref list = import_list(row);
    if (!list) return false;
    const Ref module = import_module(names[row.module], list.get());
    if (!module) return false;
    if (row.as != Name::none) return bind_global(row.as, module);
    for (const Name name : {row.name, row.second}) {
        if (name == Name::none) break;
        if (!bind_global(name, import_from(module.get(), names[name]))) return false;
    }
    return true;
}

// getLogger(__name__)
Ref new_logger() {
    const Ref get_logger = global(names.getLogger);
    if (!get_logger) return {};
    const Ref name = global(names.dunder_name);
    if (!name) return {};
    return Ref::steal(PyObject_CallOneArg(get_logger.get(), name.get()));
}

Ref new_counters() {
    const Ref namedtuple = global(names.namedtuple);
    if (!namedtuple) return {};
    return Ref::steal(PyObject_Call(namedtuple.get(), state.constants.counters, nullptr));
}

// New function objects, of a fixed module and of no object. The one default dictionary is made just
// before the function that it belongs to.
bool bind_functions(int &line) {
    for (size_t row = 0; row < function_count; ++row) {
        line = functions[row].first_line;
        if (functions[row].parameters[1].fallback == Parameter::sessions) {
            Py_XSETREF(state.sessions, PyDict_New());
            if (!state.sessions) return false;
        }
        const Ref function = Ref::steal(PyCFunction_NewEx(const_cast<PyMethodDef *>(&methods[row]),
                                                          nullptr, names.module_name));
        if (!function) return false;
        if (PyDict_SetItemString(state.globals, methods[row].ml_name, function.get()) < 0) {
            return false;
        }
    }
    return true;
}

// The module-level statements; `line` is the one that is run.
bool run_statements(int &line) {
    namespace at = line::init;
    for (const ImportStatement &row : import_statements) {
        line = row.line;
        if (!run_import(row)) return false;
    }
    line = at::logger;
    if (!bind_global(Name::logger, new_logger())) return false;
    line = at::invalid_index;
    if (!bind_global(Name::INVALID_INDEX, Ref::borrow(names.invalid_index))) return false;
    line = at::interface_count;
    if (!bind_global(Name::interface_count, Ref::borrow(state.constants.zero))) return false;
    line = at::interface_lock;
    if (!bind_global(Name::interface_lock, call_global(names.Lock))) return false;
    line = at::charset;
    if (!bind_global(Name::CHARSET, Ref::borrow(names.charset))) return false;
    line = at::counters;
    if (!bind_global(Name::Counters, new_counters())) return false;
    if (!bind_functions(line)) return false;
    line = at::module;
    return bind_global(Name::dunder_test, Ref::steal(PyDict_New()));
}

// Every step of the import, in order. `registered`: `sys.modules` has got the module from us.
bool import(PyObject *module, bool &registered, int &line) {
    return check_version() && make_names() && record(module) && make_constants() &&
           register_module(registered) && keep_builtins() && make_code_objects() &&
           import_types() && import_c_items() && run_statements(line);
}

// Forgets a module whose import has failed, so that it can be imported once the cause is removed.
// The exception stays.
void forget_module(bool registered) {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyObject *modules = PyImport_GetModuleDict();
    if (registered && PyDict_DelItem(modules, names.module_name) < 0) PyErr_Clear();
    state.progress = State::not_imported;
    state.globals = nullptr;
    Py_CLEAR(state.module);
    PyErr_Restore(type, value, traceback);
}

int execute(PyObject *module) {
    if (state.module == module) return 0;
    int line = line::init::module;
    if (state.module) {
        PyErr_SetString(PyExc_RuntimeError,
                        "Module 'modules_util' has already been imported. Re-initialisation is "
                        "not supported.");
        failed_import(PyModule_GetDict(module), line);
        return -1;
    }
    bool registered = false;
    state.progress = State::importing;
    if (import(module, registered, line)) {
        state.progress = State::imported;
        return 0;
    }
    failed_import(PyModule_GetDict(module), line);
    forget_module(registered);
    return -1;
}

// ------------------------------------------------------------------ definition

// The interpreter takes its tables as if it wrote to them; it does not.
const PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void *>(create) },
    {Py_mod_exec,   reinterpret_cast<void *>(execute)},
    {0,             nullptr                          },
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    module_name,
    nullptr,  // no docstring
    0,        // the state is the process's, not the module object's
    nullptr,  // the methods, which PyInit puts here
    const_cast<PyModuleDef_Slot *>(slots),
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

}  // namespace modules_util

PyMODINIT_FUNC PyInit_modules_util() {
    modules_util::definition.m_methods = const_cast<PyMethodDef *>(modules_util::methods);
    return PyModuleDef_Init(&modules_util::definition);
}

// The extension module veldarin.modules.modules_util: its creation, its execution step by step, and
// its definition. function_table.def lists its functions.
#include <Python.h>

#include "migbase/migbase.h"
#include "util/json.h"
#include "veldarin/modules/dispatch.h"
#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/imports.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

// ------------------------------------------------------------------ creation

// The first interpreter that creates the module keeps it for the life of the process. False with
// ImportError in another one.
bool check_interpreter() {
    const int64_t current = PyInterpreterState_GetID(PyInterpreterState_Get());
    if (current < 0) return false;
    if (!state.has_interpreter_id) state.interpreter_id = current;
    state.has_interpreter_id = true;
    if (state.interpreter_id == current) return true;
    PyErr_SetString(PyExc_ImportError,
                    "Interpreter change detected - this module can only be loaded into one "
                    "interpreter per process.");
    return false;
}

struct SpecAttribute {
    const char *attribute, *name;
    bool copy_none;
};

constexpr SpecAttribute spec_attributes[] = {
    {"loader",                     "__loader__",  true },
    {"origin",                     "__file__",    true },
    {"parent",                     "__package__", true },
    {"submodule_search_locations", "__path__",    false},
};

// Copies one attribute of the import spec if the spec has it.
bool copy_attribute(PyObject *spec, PyObject *globals, const SpecAttribute &row) {
    const Ref value = Ref::steal(PyObject_GetAttrString(spec, row.attribute));
    if (!value) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return false;
        PyErr_Clear();
        return true;
    }
    if (value.get() == Py_None && !row.copy_none) return true;
    return PyDict_SetItemString(globals, row.name, value.get()) == 0;
}

PyObject *create_module(PyObject *spec, PyModuleDef *) {
    if (!check_interpreter()) return nullptr;
    if (state.module) return Ref::borrow(state.module).release();

    const Ref name = Ref::steal(PyObject_GetAttrString(spec, "name"));
    if (!name) return nullptr;
    Ref module = Ref::steal(PyModule_NewObject(name.get()));
    if (!module) return nullptr;
    PyObject *globals = PyModule_GetDict(module.get());
    for (const SpecAttribute &row : spec_attributes) {
        if (!copy_attribute(spec, globals, row)) return nullptr;
    }
    return module.release();
}

// ------------------------------------------------------------------ execution

// Each step returns true, or false with an exception set.

// Compares the first and the third character of the versions only.
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

bool record_module(PyObject *module) {
    state.module = Ref::borrow(module).release();
    state.globals = PyModule_GetDict(module);
    PyObject *builtins = PyImport_AddModule("builtins");
    if (!builtins) return false;
    Py_INCREF(builtins);
    Py_XSETREF(state.builtins, builtins);
    return PyDict_SetItem(state.globals, interned[id::dunder_builtins], builtins) == 0;
}

// Takes over a new object, or null with an exception set.
bool set_constant(PyObject *&constant, PyObject *value) {
    Py_XSETREF(constant, value);
    return value != nullptr;
}

PyObject *new_pair(StringId first, StringId second) {
    return PyTuple_Pack(2, interned[first], interned[second]);
}

bool make_constants() {
    Constants &constants = state.constants;
    ReplaceArgs &replace = constants.replace_args;
    return set_constant(constants.zero, PyLong_FromLong(0)) &&
           set_constant(constants.token_bytes, PyLong_FromLong(32)) &&
           set_constant(replace.pager_prompt, new_pair(id::pager_prompt, id::empty)) &&
           set_constant(replace.tabs, new_pair(id::tab, id::empty)) &&
           set_constant(replace.spaces, new_pair(id::space, id::underscore)) &&
           set_constant(replace.packets, new_pair(id::packets, id::empty)) &&
           set_constant(replace.carriage_returns, new_pair(id::carriage_return, id::empty)) &&
           set_constant(constants.split_args, PyTuple_Pack(1, interned[id::newline])) &&
           set_constant(constants.exit_args, PyTuple_Pack(3, Py_None, Py_None, Py_None)) &&
           set_constant(constants.counters_args, new_pair(id::Counters, id::counters_fields));
}

// Adds the module to `sys.modules` under its own name if it is absent; `added` reports that.
bool register_module(bool &added) {
    PyObject *modules = PyImport_GetModuleDict();
    const PyObject *main = PyDict_GetItemWithError(modules, interned[id::dunder_main]);
    if (!main && PyErr_Occurred()) return false;
    if (main == state.module &&
        PyDict_SetItem(state.globals, interned[id::dunder_name], interned[id::dunder_main]) < 0) {
        return false;
    }
    if (PyDict_GetItemWithError(modules, interned[id::module_name])) return true;
    if (PyErr_Occurred()) return false;
    added = PyDict_SetItem(modules, interned[id::module_name], state.module) == 0;
    return added;
}

bool import_builtins() {
    return set_constant(state.imports.open, builtin(interned[id::open]).release()) &&
           set_constant(state.imports.range, builtin(interned[id::range]).release());
}

bool make_code_objects() {
    if (!set_constant(state.code_objects, PyList_New(0))) return false;
    for (size_t row = 0; methods[row].ml_name; ++row) {
        if (!add_code_object(methods[row].ml_name, functions[row].first_line)) return false;
    }
    return true;
}

struct TypeImport {
    StringId module, name;
    size_t size;
    PyObject *Imports::*type;
};

constexpr TypeImport type_imports[] = {
    {id::builtins,  id::type,       sizeof(PyHeapTypeObject), &Imports::type      },
    {id::builtins,  id::bool_,      sizeof(PyLongObject),     &Imports::bool_     },
    {id::builtins,  id::complex,    sizeof(PyComplexObject),  &Imports::complex   },
    {id::util_json, id::JSONObject, sizeof(JSONObject),       &Imports::JSONObject},
};

bool import_types() {
    Imports &imports = state.imports;
    for (const TypeImport &row : type_imports) {
        const auto size = static_cast<Py_ssize_t>(row.size);
        Ref type = import_type(interned[row.module], interned[row.name], size);
        if (!set_constant(imports.*row.type, type.release())) return false;
    }
    return check_vtable(imports.JSONObject);
}

bool import_capsules() {
    Imports &imports = state.imports;
    // Only checked: no function uses the variable.
    if (!import_capsule(CapiItem::variable, interned[id::migbase_migbase],
                        interned[id::WARM_START_PATH], migbase::warm_start_path_signature)) {
        return false;
    }
    void *path = import_capsule(CapiItem::function, interned[id::veldarin_modules_modules],
                                interned[id::get_preference_cookie_secret_path],
                                modules::get_preference_cookie_secret_path_signature);
    if (!path) return false;
    imports.get_preference_cookie_secret_path =
        reinterpret_cast<modules::GetPreferenceCookieSecretPath>(path);
    void *copy = import_capsule(CapiItem::function, interned[id::util_string],
                                interned[id::strtcpy], util::strtcpy_signature);
    if (!copy) return false;
    imports.strtcpy = reinterpret_cast<util::Strtcpy>(copy);
    return true;
}

// from module import name, second; or, without a name: import module as `as`
struct ImportStatement {
    StringId module, name, second, as;
    int line;
};

// clang-format off
constexpr ImportStatement import_statements[] = {
    {id::migbase_cmdbapi_util, id::serial_number_ascii, id::none,  id::none, source_line::init::serial_number_ascii},
    {id::binascii,             id::hexlify,             id::none,  id::none, source_line::init::hexlify},
    {id::collections,          id::namedtuple,          id::none,  id::none, source_line::init::namedtuple},
    {id::logging,              id::getLogger,           id::none,  id::none, source_line::init::get_logger},
    {id::os,                   id::urandom,             id::none,  id::none, source_line::init::urandom},
    {id::pathlib,              id::Path_class,                id::none,  id::none, source_line::init::path},
    {id::pyramid_compat,       id::bytes_,              id::text_, id::none, source_line::init::compat},
    {id::threading,            id::Lock,                id::none,  id::none, source_line::init::lock},
    {id::ujson,                id::none,                id::none,  id::json, source_line::init::json},
    {id::util_errors,          id::CFunctionError,      id::none,  id::none, source_line::init::c_function_error},
    {id::copy,                 id::none,                id::none,  id::copy, source_line::init::copy},
};
// clang-format on

bool bind_global(StringId name, const Ref &value) {
    return value && PyDict_SetItem(state.globals, interned[name], value.get()) == 0;
}

// The tuple of the names to import; None to import the module itself.
Ref import_list(const ImportStatement &row) {
    if (row.name == id::none) return Ref::borrow(Py_None);
    if (row.second == id::none) return Ref::steal(PyTuple_Pack(1, interned[row.name]));
    return Ref::steal(PyTuple_Pack(2, interned[row.name], interned[row.second]));
}

bool run_import(const ImportStatement &row) {
    const Ref list = import_list(row);
    if (!list) return false;
    const Ref module = import_module(interned[row.module], list.get());
    if (!module) return false;
    if (row.as != id::none) return bind_global(row.as, module);
    for (const StringId name : {row.name, row.second}) {
        if (name == id::none) break;
        if (!bind_global(name, import_from(module.get(), interned[name]))) return false;
    }
    return true;
}

// getLogger(__name__)
Ref new_logger() {
    const Ref get_logger = global(id::getLogger);
    if (!get_logger) return {};
    const Ref name = global(id::dunder_name);
    if (!name) return {};
    return Ref::steal(PyObject_CallOneArg(get_logger.get(), name.get()));
}

Ref new_counters() {
    const Ref namedtuple = global(id::namedtuple);
    if (!namedtuple) return {};
    return Ref::steal(PyObject_Call(namedtuple.get(), state.constants.counters_args, nullptr));
}

// Creates the function objects with a fixed `__module__` and no `__self__`. Creates the shared
// default dictionary just before the function that it belongs to.
bool bind_functions(int &line) {
    for (size_t row = 0; methods[row].ml_name; ++row) {
        line = functions[row].first_line;
        if (functions[row].parameters[1].default_kind == Parameter::shared_dict) {
            Py_XSETREF(state.default_list_bfd, PyDict_New());
            if (!state.default_list_bfd) return false;
        }
        const Ref function = Ref::steal(PyCFunction_NewEx(const_cast<PyMethodDef *>(&methods[row]),
                                                          nullptr, interned[id::module_name]));
        if (!function) return false;
        if (PyDict_SetItemString(state.globals, methods[row].ml_name, function.get()) < 0) {
            return false;
        }
    }
    return true;
}

// Runs the module-level statements; `line` is that of the current one.
bool run_statements(int &line) {
    namespace at = source_line::init;
    for (const ImportStatement &row : import_statements) {
        line = row.line;
        if (!run_import(row)) return false;
    }
    line = at::logger;
    if (!bind_global(id::logger, new_logger())) return false;
    line = at::invalid_index;
    if (!bind_global(id::invalid_index_global, Ref::borrow(interned[id::invalid_index_text])))
        return false;
    line = at::interface_count;
    if (!bind_global(id::interface_count, Ref::borrow(state.constants.zero))) return false;
    line = at::interface_lock;
    if (!bind_global(id::interface_lock, call_global(id::Lock))) return false;
    line = at::charset;
    if (!bind_global(id::charset_global, Ref::borrow(interned[id::utf8]))) return false;
    line = at::counters;
    if (!bind_global(id::Counters, new_counters())) return false;
    if (!bind_functions(line)) return false;
    line = at::module;
    return bind_global(id::dunder_test, Ref::steal(PyDict_New()));
}

// Runs the steps of the import in order. `registered` reports that they added the module to
// `sys.modules`.
bool run_import_steps(PyObject *module, bool &registered, int &line) {
    return check_version() && intern_strings() && record_module(module) && make_constants() &&
           register_module(registered) && import_builtins() && make_code_objects() &&
           import_types() && import_capsules() && run_statements(line);
}

// Drops a module whose import failed, so that a later import can succeed. Keeps the exception.
void forget_module(bool registered) {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyObject *modules = PyImport_GetModuleDict();
    if (registered && PyDict_DelItem(modules, interned[id::module_name]) < 0) PyErr_Clear();
    state.progress = State::not_imported;
    state.globals = nullptr;
    Py_CLEAR(state.module);
    PyErr_Restore(type, value, traceback);
}

int exec_module(PyObject *module) {
    if (state.module == module) return 0;
    int line = source_line::init::module;
    if (state.module) {
        PyErr_SetString(PyExc_RuntimeError,
                        "Module 'modules_util' has already been imported. Re-initialisation is "
                        "not supported.");
        add_import_traceback(PyModule_GetDict(module), line);
        return -1;
    }
    bool registered = false;
    state.progress = State::importing;
    if (run_import_steps(module, registered, line)) {
        state.progress = State::imported;
        return 0;
    }
    add_import_traceback(PyModule_GetDict(module), line);
    forget_module(registered);
    return -1;
}

// ------------------------------------------------------------------ definition

// The interpreter takes its tables as non-const pointers but does not write to them.
const PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void *>(create_module)},
    {Py_mod_exec,   reinterpret_cast<void *>(exec_module)  },
    {0,             nullptr                                },
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    module_name,
    nullptr,  // no docstring
    0,        // the state belongs to the process, not to the module object
    nullptr,  // PyInit sets the methods
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

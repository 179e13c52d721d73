// Imports Python names and C-level interfaces.
#include "veldarin/modules/python/imports.h"

#include "veldarin/modules/interned.h"
#include "veldarin/modules/state.h"

namespace modules_util {

namespace {

// Whether source.__spec__._initializing is true. Ignores errors, as the interpreter does.
bool is_initializing(PyObject *source) {
    const Ref spec = Ref::steal(PyObject_GetAttr(source, interned[id::dunder_spec]));
    const Ref value =
        spec ? Ref::steal(PyObject_GetAttr(spec.get(), interned[id::initializing])) : Ref();
    const bool result = value && PyObject_IsTrue(value.get()) > 0;
    PyErr_Clear();
    return result;
}

// Raises the ImportError of `from source import name` with the interpreter's message, in place of
// any other exception. `source_name` is null for a source without a name.
void raise_cannot_import(PyObject *source, PyObject *source_name, PyObject *name) {
    const Ref path = Ref::steal(PyModule_GetFilenameObject(source));
    PyErr_Clear();
    const bool is_partial = path && is_initializing(source);
    const Ref message = Ref::steal(
        PyUnicode_FromFormat("cannot import name %R from %s%R %s(%S)", name,
                             is_partial ? "partially initialized module " : "",
                             source_name ? source_name : interned[id::unknown_module_name],
                             is_partial ? "(most likely due to a circular import) " : "",
                             path ? path.get() : interned[id::unknown_location]));
    if (message) PyErr_SetImportError(message.get(), source_name, path.get());
}

// Compares an instance size with the one that this module was built for. False: the import must
// stop.
bool check_size(PyObject *module, PyObject *name, Py_ssize_t size, Py_ssize_t found) {
    constexpr char message[] =
        "%.200U.%.200U size changed, may indicate binary incompatibility. "
        "Expected %zd from C header, got %zd from PyObject";
    if (found == size) return true;
    if (found > size) {
        return PyErr_WarnFormat(PyExc_RuntimeWarning, 1, message, module, name, size, found) == 0;
    }
    PyErr_Format(PyExc_ValueError, message, module, name, size, found);
    return false;
}

struct CapiMessages {
    const char *missing, *wrong_signature;
};

// clang-format off
constexpr CapiMessages function_messages = {
    "%.200U does not export expected C function %.200U",
    "C function %.200U.%.200U has wrong signature (expected %.500s, got %.500s)",
};
constexpr CapiMessages variable_messages = {
    "%.200U does not export expected C variable %.200U",
    "C variable %.200U.%.200U has wrong signature (expected %.500s, got %.500s)",
};
// clang-format on

// The signature that names a capsule; the type's name for any other object. May leave an exception
// set, which PyErr_Format replaces.
const char *signature_of(PyObject *item) {
    const char *signature = PyCapsule_CheckExact(item) ? PyCapsule_GetName(item) : nullptr;
    return signature ? signature : Py_TYPE(item)->tp_name;
}

}  // namespace

Ref import_module(PyObject *module, PyObject *names_or_none) {
    PyObject *builtins = PyModule_GetDict(state.builtins);
    const Ref function =
        Ref::borrow(PyDict_GetItemWithError(builtins, interned[id::dunder_import]));
    if (!function) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_ImportError, "__import__ not found");
        return {};
    }
    PyObject *const arguments[] = {module, state.globals, state.globals, names_or_none,
                                   state.constants.zero};
    return Ref::steal(PyObject_VectorcallDict(function.get(), arguments, 5, nullptr));
}

Ref import_from(PyObject *source, PyObject *name) {
    PyObject *value = nullptr;
    if (_PyObject_LookupAttr(source, name, &value) != 0) return Ref::steal(value);
    const Ref source_name = Ref::steal(PyObject_GetAttr(source, interned[id::dunder_name]));
    if (!source_name && PyErr_ExceptionMatches(PyExc_MemoryError)) return {};
    if (!source_name || !PyUnicode_Check(source_name.get())) {
        raise_cannot_import(source, nullptr, name);
        return {};
    }
    const Ref full_name = Ref::steal(PyUnicode_FromFormat("%U.%U", source_name.get(), name));
    if (!full_name) return {};
    Ref submodule = Ref::steal(PyImport_GetModule(full_name.get()));
    if (!submodule && !PyErr_Occurred()) raise_cannot_import(source, source_name.get(), name);
    return submodule;
}

Ref import_type(PyObject *module, PyObject *name, Py_ssize_t size) {
    const Ref source = Ref::steal(PyImport_Import(module));
    if (!source) return {};
    Ref type = Ref::steal(PyObject_GetAttr(source.get(), name));
    if (!type) return {};
    if (!PyType_Check(type.get())) {
        PyErr_Format(PyExc_TypeError, "%.200U.%.200U is not a type object", module, name);
        return {};
    }
    const Py_ssize_t found = reinterpret_cast<PyTypeObject *>(type.get())->tp_basicsize;
    if (!check_size(module, name, size, found)) return {};
    return type;
}

bool check_vtable(PyObject *type) {
    PyObject *dictionary = reinterpret_cast<PyTypeObject *>(type)->tp_dict;
    const Ref capsule = Ref::steal(PyObject_GetItem(dictionary, interned[id::dunder_pyx_vtable]));
    if (!capsule) return false;
    // PyCapsule_GetName fails only if the capsule's pointer is null.
    if (PyCapsule_CheckExact(capsule.get()) && !PyCapsule_GetName(capsule.get()) &&
        PyErr_Occurred()) {
        PyErr_SetString(PyExc_RuntimeError, "invalid vtable found for imported type");
        return false;
    }
    return PyCapsule_GetPointer(capsule.get(), nullptr) != nullptr;
}

void *import_capsule(CapiItem kind, PyObject *module, PyObject *name, const char *signature) {
    const CapiMessages &messages =
        kind == CapiItem::function ? function_messages : variable_messages;
    const Ref source = Ref::steal(PyImport_Import(module));
    if (!source) return nullptr;
    const Ref items = Ref::steal(PyObject_GetAttr(source.get(), interned[id::dunder_pyx_capi]));
    if (!items) return nullptr;
    const Ref item = Ref::steal(PyObject_GetItem(items.get(), name));
    if (!item) {
        if (PyErr_ExceptionMatches(PyExc_KeyError)) {
            PyErr_Format(PyExc_ImportError, messages.missing, module, name);
        }
        return nullptr;
    }
    if (!PyCapsule_IsValid(item.get(), signature)) {
        PyErr_Format(PyExc_TypeError, messages.wrong_signature, module, name, signature,
                     signature_of(item.get()));
        return nullptr;
    }
    return PyCapsule_GetPointer(item.get(), signature);
}

}  // namespace modules_util

// Imports from Python and from C.
#include "imports.h"

namespace modules_util {

namespace {

// The ImportError of `from module import name`, worded as the interpreter does.
void raise_cannot_import(PyObject *module, PyObject *module_name, PyObject *name) {
    const Ref path = Ref::steal(PyModule_GetFilenameObject(module));
    if (!path) PyErr_Clear();
    const Ref message =
        Ref::steal(path ? PyUnicode_FromFormat("cannot import name %R from %R (%S)", name,
                                               module_name, path.get())
                        : PyUnicode_FromFormat("cannot import name %R from %R (unknown location)",
                                               name, module_name));
    if (!message) return;
    const Ref error = Ref::steal(PyErr_SetImportError(message.get(), module_name, path.get()));
}

// Reports an instance size that is not the one this module was built for. False: stop the import.
bool report_size(PyObject *module, PyObject *name, Py_ssize_t size, Py_ssize_t found) {
    constexpr char message[] =
        "%.200U.%.200U size changed, may indicate binary incompatibility. "
        "Expected %zd from C header, got %zd from PyObject";
    if (found > size) {
        return PyErr_WarnFormat(PyExc_RuntimeWarning, 1, message, module, name, size, found) == 0;
    }
    PyErr_Format(PyExc_ValueError, message, module, name, size, found);
    return false;
}

struct CItemTexts {
    const char *missing, *wrong_signature;
};

// clang-format off
constexpr CItemTexts function_texts = {
    "%.200U does not export expected C function %.200U",
    "C function %.200U.%.200U has wrong signature (expected %.500s, got %.500s)",
};
constexpr CItemTexts variable_texts = {
    "%.200U does not export expected C variable %.200U",
    "C variable %.200U.%.200U has wrong signature (expected %.500s, got %.500s)",
};
// clang-format on

// The signature that a capsule carries; the type's name for anything without one.
const char *signature_of(PyObject *item) {
    const char *signature = PyCapsule_CheckExact(item) ? PyCapsule_GetName(item) : nullptr;
    PyErr_Clear();
    return signature ? signature : Py_TYPE(item)->tp_name;
}

}  // namespace

Ref import_module(PyObject *module) { return Ref::steal(PyImport_Import(module)); }

Ref import_name(const Ref &module, PyObject *module_name, PyObject *name) {
    Ref value = Ref::steal(PyObject_GetAttr(module.get(), name));
    if (!value && PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Clear();
        raise_cannot_import(module.get(), module_name, name);
    }
    return value;
}

Ref import_type(PyObject *module, PyObject *name, Py_ssize_t size) {
    const Ref source = import_module(module);
    if (!source) return {};
    Ref type = Ref::steal(PyObject_GetAttr(source.get(), name));
    if (!type) return {};
    if (!PyType_Check(type.get())) {
        PyErr_Format(PyExc_TypeError, "%.200U.%.200U is not a type object", module, name);
        return {};
    }
    const Py_ssize_t found = reinterpret_cast<PyTypeObject *>(type.get())->tp_basicsize;
    if (found != size && !report_size(module, name, size, found)) return {};
    return type;
}

void *import_method_table(PyObject *type) {
    PyObject *dictionary = reinterpret_cast<PyTypeObject *>(type)->tp_dict;
    const Ref capsule = Ref::steal(PyObject_GetItem(dictionary, names.dunder_pyx_vtable));
    if (!capsule) return nullptr;
    // A capsule that cannot tell even its name holds a null pointer.
    if (PyCapsule_CheckExact(capsule.get()) && !PyCapsule_GetName(capsule.get()) &&
        PyErr_Occurred()) {
        PyErr_SetString(PyExc_RuntimeError, "invalid vtable found for imported type");
        return nullptr;
    }
    return PyCapsule_GetPointer(capsule.get(), nullptr);
}

void *import_c_item(CItem kind, PyObject *module, PyObject *name, const char *signature) {
    const CItemTexts &texts = kind == CItem::function ? function_texts : variable_texts;
    const Ref source = import_module(module);
    if (!source) return nullptr;
    const Ref items = Ref::steal(PyObject_GetAttr(source.get(), names.dunder_pyx_capi));
    if (!items) return nullptr;
    const Ref item = Ref::steal(PyObject_GetItem(items.get(), name));
    if (!item) {
        if (PyErr_ExceptionMatches(PyExc_KeyError)) {
            PyErr_Format(PyExc_ImportError, texts.missing, module, name);
        }
        return nullptr;
    }
    if (!PyCapsule_IsValid(item.get(), signature)) {
        PyErr_Format(PyExc_TypeError, texts.wrong_signature, module, name, signature,
                     signature_of(item.get()));
        return nullptr;
    }
    return PyCapsule_GetPointer(item.get(), signature);
}

}  // namespace modules_util

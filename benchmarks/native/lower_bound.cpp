// The lower bound of the module's cost: the work that no implementation can avoid. The functions
// copy a parser's result from its own strings, call a trivial service and convert its reply, or
// make the calls to JSONObject, json-c and ujson that a status query needs. They look up, search
// and check nothing.
#include <Python.h>

#include <cstring>

#include "util/json.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/ref.h"

namespace {

using modules_util::Ref;

// ------------------------------------------------------------------ results

// Returns a copy of a value, or null with an exception set.
using Copy = Ref(PyObject *value);

Ref copy_text(PyObject *text) {
    Ref copied =
        Ref::steal(PyUnicode_New(PyUnicode_GET_LENGTH(text), PyUnicode_MAX_CHAR_VALUE(text)));
    if (copied && PyUnicode_GET_LENGTH(text) > 0) {
        const Py_ssize_t size = PyUnicode_GET_LENGTH(text) * PyUnicode_KIND(text);
        std::memcpy(PyUnicode_DATA(copied.get()), PyUnicode_DATA(text), static_cast<size_t>(size));
    }
    return copied;
}

Ref same(PyObject *object) { return Ref::borrow(object); }

template <Copy copy_key>
Ref copy(PyObject *value);

template <Copy copy_key>
Ref copy_dict(PyObject *dictionary) {
    Ref copied = Ref::steal(PyDict_New());
    if (!copied) return copied;
    Py_ssize_t position = 0;
    PyObject *key = nullptr;
    PyObject *value = nullptr;
    while (PyDict_Next(dictionary, &position, &key, &value)) {
        const Ref new_key = copy_key(key);
        if (!new_key) return {};
        const Ref new_value = copy<copy_key>(value);
        if (!new_value) return {};
        if (PyDict_SetItem(copied.get(), new_key.get(), new_value.get()) < 0) return {};
    }
    return copied;
}

template <Copy copy_key>
Ref copy_list(PyObject *list) {
    const Py_ssize_t size = PyList_GET_SIZE(list);
    Ref copied = Ref::steal(PyList_New(size));
    if (!copied) return copied;
    for (Py_ssize_t i = 0; i < size; ++i) {
        Ref element = copy<copy_key>(PyList_GET_ITEM(list, i));
        if (!element) return {};
        PyList_SET_ITEM(copied.get(), i, element.release());
    }
    return copied;
}

template <Copy copy_key>
Ref copy(PyObject *value) {
    if (PyUnicode_CheckExact(value)) return copy_text(value);
    if (PyDict_CheckExact(value)) return copy_dict<copy_key>(value);
    if (PyList_CheckExact(value)) return copy_list<copy_key>(value);
    PyErr_Format(PyExc_TypeError, "no lower bound for %.200s", Py_TYPE(value)->tp_name);
    return {};
}

PyObject *rebuild(PyObject *, PyObject *result) { return copy<same>(result).release(); }

PyObject *rebuild_with_keys(PyObject *, PyObject *result) {
    return copy<copy_text>(result).release();
}

// ------------------------------------------------------------------ trivial calls

PyObject *empty_none(PyObject *, PyObject *) { Py_RETURN_NONE; }
PyObject *empty_one(PyObject *, PyObject *) { Py_RETURN_NONE; }
PyObject *empty_keywords(PyObject *, PyObject *, PyObject *) { Py_RETURN_NONE; }

// Each calls the service and converts its reply.
PyObject *new_cookie_id(PyObject *, PyObject *) {
    return PyLong_FromUnsignedLong(aps_get_new_cookie_id());
}

PyObject *aps_unsigned_int_hash(PyObject *, PyObject *characters) {
    return PyLong_FromUnsignedLong(__get_aps_hash(PyBytes_AS_STRING(characters)));
}

PyObject *check_cert_expiration(PyObject *, PyObject *path) {
    return PyBool_FromLong(gui_chk_cert_expiration(PyBytes_AS_STRING(path)) == 0);
}

PyObject *encrypt_cookie(PyObject *, PyObject *plain) {
    char *encrypted = cookieval_wrap(PyBytes_AS_STRING(plain));
    PyObject *reply = PyBytes_FromString(encrypted);
    PyMem_Free(encrypted);
    return reply;
}

// The command's output as a string, without the module's conversions by global functions.
PyObject *get_cli_command_output(PyObject *, PyObject *command) {
    char *output = get_cli_cmd_output(nullptr, PyUnicode_AsUTF8(command));
    PyObject *reply = PyUnicode_FromString(output);
    PyMem_Free(output);
    return reply;
}

// ------------------------------------------------------------------ JSON bridge

// Strong references, and the type's vtable.
struct {
    PyObject *type, *loads, *request;
    const JSONObjectVTable *methods;
} prepared;

// prepare_bridge(JSONObject, loads): sets what the other functions call.
PyObject *prepare_bridge(PyObject *, PyObject *const *arguments, Py_ssize_t count) {
    if (count != 2 || !PyType_Check(arguments[0])) {
        PyErr_SetString(PyExc_TypeError, "prepare_bridge(JSONObject, loads)");
        return nullptr;
    }
    PyObject *attributes = reinterpret_cast<PyTypeObject *>(arguments[0])->tp_dict;
    PyObject *table = PyDict_GetItemString(attributes, "__pyx_vtable__");
    if (!table) {
        PyErr_SetString(PyExc_TypeError, "the type has no __pyx_vtable__");
        return nullptr;
    }
    void *methods = PyCapsule_GetPointer(table, PyCapsule_GetName(table));
    if (!methods) return nullptr;
    prepared.methods = static_cast<const JSONObjectVTable *>(methods);
    Py_XSETREF(prepared.type, Ref::borrow(arguments[0]).release());
    Py_XSETREF(prepared.loads, Ref::borrow(arguments[1]).release());
    Py_XSETREF(prepared.request, PyDict_New());
    return prepared.request ? Ref::borrow(Py_None).release() : nullptr;
}

bool release(const Ref &instance) {
    auto *object = reinterpret_cast<JSONObject *>(instance.get());
    return bool(Ref::steal(prepared.methods->release(object)));
}

// Makes both JSONObjects, calls the native service, serializes, parses and releases. `to_bytes`
// makes the bytes for `loads`.
template <typename ToBytes>
PyObject *exchange(ToBytes &&to_bytes) {
    const Ref request = Ref::steal(PyObject_CallOneArg(prepared.type, prepared.request));
    if (!request) return nullptr;
    const Ref response = Ref::steal(PyObject_CallNoArgs(prepared.type));
    if (!response) return nullptr;
    auto *request_object = reinterpret_cast<JSONObject *>(request.get());
    auto *response_object = reinterpret_cast<JSONObject *>(response.get());
    response_object->object = build_switch_lg_state(nullptr, request_object->object);
    const Ref bytes = to_bytes(json_object_to_json_string(response_object->object));
    if (!bytes) return nullptr;
    Ref data = Ref::steal(PyObject_CallOneArg(prepared.loads, bytes.get()));
    if (!data || !release(request) || !release(response)) return nullptr;
    return data.release();
}

// list_switch_lg_state, with new bytes for `loads`.
PyObject *bridge(PyObject *, PyObject *) {
    return exchange([](const char *text) { return Ref::steal(PyBytes_FromString(text)); });
}

// The same, with the argument as the bytes.
PyObject *bridge_with_bytes(PyObject *, PyObject *bytes) {
    return exchange([bytes](const char *) { return Ref::borrow(bytes); });
}

// ------------------------------------------------------------------ definition

template <typename Function>
PyCFunction cfunction(Function *function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"rebuild",                rebuild,                   METH_O,                       nullptr},
    {"rebuild_with_keys",      rebuild_with_keys,         METH_O,                       nullptr},
    {"empty_none",             empty_none,                METH_NOARGS,                  nullptr},
    {"empty_one",              empty_one,                 METH_O,                       nullptr},
    {"empty_keywords",         cfunction(empty_keywords), METH_VARARGS | METH_KEYWORDS, nullptr},
    {"new_cookie_id",          new_cookie_id,             METH_NOARGS,                  nullptr},
    {"aps_unsigned_int_hash",  aps_unsigned_int_hash,     METH_O,                       nullptr},
    {"check_cert_expiration",  check_cert_expiration,     METH_O,                       nullptr},
    {"encrypt_cookie",         encrypt_cookie,            METH_O,                       nullptr},
    {"get_cli_command_output", get_cli_command_output,    METH_O,                       nullptr},
    {"prepare_bridge",         cfunction(prepare_bridge), METH_FASTCALL,                nullptr},
    {"bridge",                 bridge,                    METH_NOARGS,                  nullptr},
    {"bridge_with_bytes",      bridge_with_bytes,         METH_O,                       nullptr},
    {nullptr,                  nullptr,                   0,                            nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "bench_lower_bound",
    nullptr,
    0,
    methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_bench_lower_bound() { return PyModuleDef_Init(&definition); }

// The floor under the module's cost, for the benchmarks: what a call cannot do without. A result is
// built again from strings that are ready; a trivial service is called and its answer made into an
// object; a status query does what belongs to JSONObject, json-c and ujson. Nothing is looked up,
// searched, bound or checked on the way.
#include <Python.h>

#include <cstring>

#include "util/json.h"
#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/ref.h"

namespace {

using modules_util::Ref;

// ------------------------------------------------------------------ results

// The copy of a value, or null with an exception set.
using Build = Ref(PyObject *value);

Ref new_text(PyObject *text) {
    Ref made =
        Ref::steal(PyUnicode_New(PyUnicode_GET_LENGTH(text), PyUnicode_MAX_CHAR_VALUE(text)));
    if (made && PyUnicode_GET_LENGTH(text) > 0) {
        const Py_ssize_t size = PyUnicode_GET_LENGTH(text) * PyUnicode_KIND(text);
        std::memcpy(PyUnicode_DATA(made.get()), PyUnicode_DATA(text), static_cast<size_t>(size));
    }
    return made;
}

Ref same(PyObject *object) { return Ref::borrow(object); }

template <Build key_of>
Ref rebuilt(PyObject *value);

template <Build key_of>
Ref new_dictionary(PyObject *dictionary) {
    Ref made = Ref::steal(PyDict_New());
    if (!made) return made;
    Py_ssize_t position = 0;
    PyObject *key = nullptr;
    PyObject *value = nullptr;
    while (PyDict_Next(dictionary, &position, &key, &value)) {
        const Ref new_key = key_of(key);
        if (!new_key) return {};
        const Ref new_value = rebuilt<key_of>(value);
        if (!new_value) return {};
        if (PyDict_SetItem(made.get(), new_key.get(), new_value.get()) < 0) return {};
    }
    return made;
}

template <Build key_of>
Ref new_list(PyObject *list) {
    const Py_ssize_t size = PyList_GET_SIZE(list);
    Ref made = Ref::steal(PyList_New(size));
    if (!made) return made;
    for (Py_ssize_t i = 0; i < size; ++i) {
        Ref element = rebuilt<key_of>(PyList_GET_ITEM(list, i));
        if (!element) return {};
        PyList_SET_ITEM(made.get(), i, element.release());
    }
    return made;
}

template <Build key_of>
Ref rebuilt(PyObject *value) {
    if (PyUnicode_CheckExact(value)) return new_text(value);
    if (PyDict_CheckExact(value)) return new_dictionary<key_of>(value);
    if (PyList_CheckExact(value)) return new_list<key_of>(value);
    PyErr_Format(PyExc_TypeError, "no floor for %.200s", Py_TYPE(value)->tp_name);
    return {};
}

PyObject *rebuild(PyObject *, PyObject *result) { return rebuilt<same>(result).release(); }

PyObject *rebuild_with_keys(PyObject *, PyObject *result) {
    return rebuilt<new_text>(result).release();
}

// ------------------------------------------------------------------ trivial calls

PyObject *empty_none(PyObject *, PyObject *) { Py_RETURN_NONE; }
PyObject *empty_one(PyObject *, PyObject *) { Py_RETURN_NONE; }
PyObject *empty_keywords(PyObject *, PyObject *, PyObject *) { Py_RETURN_NONE; }

// The service and the object of its answer.
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
    PyObject *made = PyBytes_FromString(encrypted);
    PyMem_Free(encrypted);
    return made;
}

// The command's text as a string: what get_cli_command_output returns, without the conversions by
// module globals that lead there.
PyObject *get_cli_command_output(PyObject *, PyObject *command) {
    char *output = get_cli_cmd_output(nullptr, PyUnicode_AsUTF8(command));
    PyObject *made = PyUnicode_FromString(output);
    PyMem_Free(output);
    return made;
}

// ------------------------------------------------------------------ the bridge

// What the exchange is made of. Owned, but for the method table.
struct {
    PyObject *type, *loads, *request;
    const JSONObjectVTable *methods;
} prepared;

// prepare_bridge(JSONObject, loads): the pieces of the calls that follow.
PyObject *prepare_bridge(PyObject *, PyObject *const *arguments, Py_ssize_t count) {
    if (count != 2 || !PyType_Check(arguments[0])) {
        PyErr_SetString(PyExc_TypeError, "prepare_bridge(JSONObject, loads)");
        return nullptr;
    }
    PyObject *attributes = reinterpret_cast<PyTypeObject *>(arguments[0])->tp_dict;
    PyObject *table = PyDict_GetItemString(attributes, "__pyx_vtable__");
    if (!table) {
        PyErr_SetString(PyExc_TypeError, "the type has no method table");
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

// JSONObject, the native service, json-c's text, ujson.loads, the two releases. `text_of` makes the
// bytes that are parsed.
template <typename TextOf>
PyObject *exchange(TextOf &&text_of) {
    const Ref request = Ref::steal(PyObject_CallOneArg(prepared.type, prepared.request));
    if (!request) return nullptr;
    const Ref response = Ref::steal(PyObject_CallNoArgs(prepared.type));
    if (!response) return nullptr;
    auto *asked = reinterpret_cast<JSONObject *>(request.get());
    auto *answered = reinterpret_cast<JSONObject *>(response.get());
    answered->object = build_switch_lg_state(nullptr, asked->object);
    const Ref bytes = text_of(json_object_to_json_string(answered->object));
    if (!bytes) return nullptr;
    Ref data = Ref::steal(PyObject_CallOneArg(prepared.loads, bytes.get()));
    if (!data || !release(request) || !release(response)) return nullptr;
    return data.release();
}

// list_switch_lg_state with nothing of our own but the bytes that `loads` is to be given.
PyObject *bridge(PyObject *, PyObject *) {
    return exchange([](const char *text) { return Ref::steal(PyBytes_FromString(text)); });
}

// The same, and the bytes (the argument) are ready.
PyObject *bridge_with_bytes(PyObject *, PyObject *bytes) {
    return exchange([bytes](const char *) { return Ref::borrow(bytes); });
}

// ------------------------------------------------------------------ definition

// A function of three or four parameters in the interpreter's table.
template <typename Function>
PyCFunction entry(Function *function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"rebuild",                rebuild,                METH_O,                       nullptr},
    {"rebuild_with_keys",      rebuild_with_keys,      METH_O,                       nullptr},
    {"empty_none",             empty_none,             METH_NOARGS,                  nullptr},
    {"empty_one",              empty_one,              METH_O,                       nullptr},
    {"empty_keywords",         entry(empty_keywords),  METH_VARARGS | METH_KEYWORDS, nullptr},
    {"new_cookie_id",          new_cookie_id,          METH_NOARGS,                  nullptr},
    {"aps_unsigned_int_hash",  aps_unsigned_int_hash,  METH_O,                       nullptr},
    {"check_cert_expiration",  check_cert_expiration,  METH_O,                       nullptr},
    {"encrypt_cookie",         encrypt_cookie,         METH_O,                       nullptr},
    {"get_cli_command_output", get_cli_command_output, METH_O,                       nullptr},
    {"prepare_bridge",         entry(prepare_bridge),  METH_FASTCALL,                nullptr},
    {"bridge",                 bridge,                 METH_NOARGS,                  nullptr},
    {"bridge_with_bytes",      bridge_with_bytes,      METH_O,                       nullptr},
    {nullptr,                  nullptr,                0,                            nullptr},
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

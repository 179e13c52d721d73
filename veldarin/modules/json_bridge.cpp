// The JSON bridge: request dictionary -> JSONObject -> native service -> JSON text -> Python
// objects.
#include "veldarin/modules/json_bridge.h"

#include "veldarin/modules/native_services.h"
#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/python/globals.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"
#include "veldarin/modules/traceback_lines.h"

namespace modules_util {

namespace {

JSONObject *json_object_of(const Ref &instance) {
    return reinterpret_cast<JSONObject *>(instance.get());
}

// Whether the request holds the argument: 1 or 0, or -1 with an exception set if the truth test of
// the argument fails.
int sends_argument(Query::When when, PyObject *argument) {
    switch (when) {
        case Query::never: return 0;
        case Query::always: return 1;
        case Query::if_true: return PyObject_IsTrue(argument);
        case Query::unless_none: return argument != Py_None;
    }
    Py_UNREACHABLE();
}

// JSONObject({key: value}), or JSONObject({}) without a value.
Ref new_request(PyObject *key, PyObject *value) {
    const Ref dictionary = Ref::steal(PyDict_New());
    if (!dictionary) return {};
    if (value && PyDict_SetItem(dictionary.get(), key, value) < 0) return {};
    return Ref::steal(PyObject_CallOneArg(state.imports.JSONObject, dictionary.get()));
}

struct CaptureEvent {
    StringId event;
    int line;
    json_object *(*build)(void *context, json_object *request, void *unused);
};

namespace capture_line = source_line::capture_event;

constexpr CaptureEvent capture_events[] = {
    {id::Running, capture_line::running, build_start_sniffer_profile_capture },
    {id::Stop,    capture_line::stop,    build_stop_sniffer_profile_capture  },
    {id::Pause,   capture_line::pause,   build_pause_sniffer_profile_capture },
    {id::Delete,  capture_line::erase,   build_delete_sniffer_profile_capture},
};

// Calls the service of the event; an unknown event leaves the response as it is. Returns false with
// an exception and its traceback entry.
bool build_capture(PyObject *event, JSONObject *request, JSONObject *response) {
    for (const CaptureEvent &row : capture_events) {
        const int equal = PyObject_RichCompareBool(event, interned[row.event], Py_EQ);
        if (equal < 0) return fail(row.line);
        if (equal) {
            response->object = row.build(nullptr, request->object, nullptr);
            return true;
        }
    }
    return true;
}

// json.loads(<the object as JSON text, in bytes>)
Ref parse(json_object *object) {
    const Ref json = global(id::json);
    if (!json) return {};
    const Ref loads = Ref::steal(PyObject_GetAttr(json.get(), interned[id::loads]));
    if (!loads) return {};
    const char *text = json_object_to_json_string(object);
    if (!text) return Ref::steal(PyErr_NoMemory());
    const Ref bytes = Ref::steal(PyBytes_FromString(text));
    if (!bytes) return {};
    return Ref::steal(PyObject_CallOneArg(loads.get(), bytes.get()));
}

// Whether `_PyUnicode_EQ` can compare the object: it must not have a subclass's own `__eq__`.
bool is_ready_str(PyObject *object) {
    return PyUnicode_CheckExact(object) && PyUnicode_IS_READY(object);
}

// Returns entry["name"] == name as 1 or 0, or -1 with an exception set.
int has_name(PyObject *entry, PyObject *name) {
    const Ref entry_name = Ref::steal(PyObject_GetItem(entry, interned[id::name]));
    if (!entry_name) return -1;
    if (is_ready_str(entry_name.get()) && is_ready_str(name)) {
        return _PyUnicode_EQ(entry_name.get(), name);
    }
    const Ref equal = Ref::steal(PyObject_RichCompare(entry_name.get(), name, Py_EQ));
    return equal ? PyObject_IsTrue(equal.get()) : -1;
}

// Selects the first entry of reply[0]["interface"] that has the name, or else the last entry.
// Leaves `entry` null if there are none. Returns false with an exception and its traceback entry.
bool select_interface(PyObject *reply, PyObject *name, Ref &entry) {
    namespace at = source_line::interface_selection;
    const Ref first = Ref::steal(PyObject_GetItem(reply, state.constants.zero));
    if (!first) return fail(at::entries);
    const Ref interfaces = Ref::steal(PyObject_GetItem(first.get(), interned[id::interface]));
    if (!interfaces) return fail(at::entries);
    const Ref entries = Ref::steal(PyObject_GetIter(interfaces.get()));
    if (!entries) return fail(at::entries);

    while (Ref next = Ref::steal(PyIter_Next(entries.get()))) {
        entry = std::move(next);
        const int found = has_name(entry.get(), name);
        if (found < 0) return fail(at::name);
        if (found) return true;
    }
    return !PyErr_Occurred() || fail(at::entries);
}

// Calls the release method through the instance's method table. Returns false with an exception set
// if it fails.
bool release(const Ref &instance) {
    JSONObject *object = json_object_of(instance);
    return bool(Ref::steal(object->vtable->release(object)));
}

}  // namespace

PyObject *run_query(const Query &query, PyObject *const *arguments) {
    const QueryLines &at = query.at;
    const int send_argument = sends_argument(query.when, arguments[0]);
    if (send_argument < 0) return fail(at.keyed_request);
    const Ref request = send_argument ? new_request(interned[query.key], arguments[0])
                                      : new_request(nullptr, nullptr);
    if (!request) return fail(send_argument ? at.keyed_request : at.empty_request);
    const Ref response = Ref::steal(PyObject_CallNoArgs(state.imports.JSONObject));
    if (!response) return fail(at.response);

    JSONObject *request_object = json_object_of(request);
    JSONObject *response_object = json_object_of(response);
    if (query.build) response_object->object = query.build(nullptr, request_object->object);
    if (query.kind == Query::capture &&
        !build_capture(arguments[1], request_object, response_object)) {
        return nullptr;
    }

    const Ref reply = parse(response_object->object);
    if (!reply) return fail(at.parse);
    Ref data = Ref::borrow(reply.get());
    if (query.kind == Query::select) {
        data = {};
        if (!select_interface(reply.get(), arguments[0], data)) return nullptr;
    }

    if (!release(request)) return fail(at.release_request);
    if (!release(response)) return fail(at.release_response);
    if (!data) {  // no entries: as if a loop over them had never assigned its variable `data`
        raise_unbound_local("data");
        return fail(source_line::interface_selection::result);
    }
    return data.release();
}

}  // namespace modules_util

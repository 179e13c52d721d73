// The fault-injection build force-includes this file into every source of the module: each fallible
// call into the interpreter logs its outcome and can be forced to fail.
// checks/fault_injection/call_sites.py parses the macros below; a function that is neither here nor
// in infallible_calls.txt is a finding.
#pragma once

#include <Python.h>

#include <frameobject.h>

#include <cstddef>

#include "faults.h"
#include "veldarin/modules/native_services.h"  // declares functions that become macros below

namespace faults {

// Failure modes: how a result shows that the call failed, and how to force that.
struct null {
    static bool failed(const void *result) { return !result; }
    static std::nullptr_t fail() { return PyErr_NoMemory(), nullptr; }
};
struct null_without_error : null {
    static std::nullptr_t fail() { return nullptr; }
};
struct null_with_error : null {  // null without an exception is a valid result
    static bool failed(const void *result) { return !result && PyErr_Occurred(); }
};
struct negative {
    static bool failed(long long result) { return result < 0; }
    static int fail() { return PyErr_NoMemory(), -1; }
};
struct negative_with_error : negative {  // a negative number without one is a valid result
    static bool failed(long long result) { return result < 0 && PyErr_Occurred(); }
};
struct zero_without_error {
    static bool failed(long long result) { return result == 0; }
    static int fail() { return 0; }
};

class TrackedCall {
public:
    TrackedCall(faults_site &site, const char *function)
        : site_(site), outer_(faults_enter(&site, function, &forced_)) {}

    [[nodiscard]] bool forced() const { return forced_; }
    void end(bool failed) { faults_leave(&site_, outer_, failed); }

private:
    faults_site &site_;
    bool forced_ = false;
    faults_site *outer_;
};

template <typename FailureMode, typename Function>
auto call(TrackedCall tracked, Function &&function) -> decltype(function()) {
    using Result = decltype(function());
    const Result result = tracked.forced() ? static_cast<Result>(FailureMode::fail()) : function();
    tracked.end(FailureMode::failed(result));
    return result;
}

// A function that raises fails by raising a different exception, or one without its message.
inline bool raised_other(PyObject *expected) {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_Restore(type, value, traceback);
    return type != expected || !value;
}
template <typename Function>
std::nullptr_t raise(TrackedCall tracked, PyObject *type, Function &&function) {
    if (tracked.forced()) PyErr_NoMemory();
    else function();
    tracked.end(raised_other(type));
    return nullptr;
}

// PyErr_NormalizeException fails by replacing the exception.
template <typename Function>
void normalize(TrackedCall tracked, PyObject **type, Function &&function) {
    PyObject *const before = *type;
    if (!tracked.forced()) function();
    tracked.end(*type != before);
}

}  // namespace faults

#define FAULTS_TRACKED(api, text)                                                          \
    faults::TrackedCall(                                                                   \
        []() -> faults_site & {                                                            \
            static faults_site site{__FILE__, __LINE__, #api "(" text ")", nullptr};       \
            return site;                                                                   \
        }(),                                                                               \
        __func__)
#define FAULTS_CALL(mode, api, arguments, text) \
    faults::call<faults::mode>(FAULTS_TRACKED(api, text), [&] { return api arguments; })
#define FAULTS_RAISE(api, type, arguments, text) \
    faults::raise(FAULTS_TRACKED(api, text), type, [&] { api arguments; })
#define FAULTS_NORMALIZE(api, type, arguments, text) \
    faults::normalize(FAULTS_TRACKED(api, text), type, [&] { api arguments; })

// clang-format off
#define PyBytes_FromString(...)           FAULTS_CALL(null, PyBytes_FromString, (__VA_ARGS__), #__VA_ARGS__)
#define PyCapsule_GetName(...)            FAULTS_CALL(null_with_error, PyCapsule_GetName, (__VA_ARGS__), #__VA_ARGS__)
#define PyCapsule_GetPointer(...)         FAULTS_CALL(null, PyCapsule_GetPointer, (__VA_ARGS__), #__VA_ARGS__)
#define PyCapsule_IsValid(...)            FAULTS_CALL(zero_without_error, PyCapsule_IsValid, (__VA_ARGS__), #__VA_ARGS__)
#define PyCode_NewEmpty(...)              FAULTS_CALL(null, PyCode_NewEmpty, (__VA_ARGS__), #__VA_ARGS__)
#define PyDict_DelItem(...)               FAULTS_CALL(negative, PyDict_DelItem, (__VA_ARGS__), #__VA_ARGS__)
#define PyDict_GetItemWithError(...)      FAULTS_CALL(null_with_error, PyDict_GetItemWithError, (__VA_ARGS__), #__VA_ARGS__)
#define PyDict_New(...)                   FAULTS_CALL(null, PyDict_New, (__VA_ARGS__), #__VA_ARGS__)
#define PyDict_SetItem(...)               FAULTS_CALL(negative, PyDict_SetItem, (__VA_ARGS__), #__VA_ARGS__)
#define PyDict_SetItemString(...)         FAULTS_CALL(negative, PyDict_SetItemString, (__VA_ARGS__), #__VA_ARGS__)
#define PyErr_Format(type, ...)           FAULTS_RAISE(PyErr_Format, type, (type, __VA_ARGS__), #type ", " #__VA_ARGS__)
#define PyErr_NormalizeException(type, ...) FAULTS_NORMALIZE(PyErr_NormalizeException, type, (type, __VA_ARGS__), #type ", " #__VA_ARGS__)
#define PyErr_SetImportError(...)         FAULTS_RAISE(PyErr_SetImportError, PyExc_ImportError, (__VA_ARGS__), #__VA_ARGS__)
#define PyErr_SetObject(type, ...)        FAULTS_RAISE(PyErr_SetObject, type, (type, __VA_ARGS__), #type ", " #__VA_ARGS__)
#define PyErr_SetString(type, ...)        FAULTS_RAISE(PyErr_SetString, type, (type, __VA_ARGS__), #type ", " #__VA_ARGS__)
#define PyErr_WarnFormat(...)             FAULTS_CALL(negative, PyErr_WarnFormat, (__VA_ARGS__), #__VA_ARGS__)
#define PyFrame_New(...)                  FAULTS_CALL(null, PyFrame_New, (__VA_ARGS__), #__VA_ARGS__)
#define PyImport_AddModule(...)           FAULTS_CALL(null, PyImport_AddModule, (__VA_ARGS__), #__VA_ARGS__)
#define PyImport_GetModule(...)           FAULTS_CALL(null_with_error, PyImport_GetModule, (__VA_ARGS__), #__VA_ARGS__)
#define PyImport_Import(...)              FAULTS_CALL(null, PyImport_Import, (__VA_ARGS__), #__VA_ARGS__)
#define PyInterpreterState_GetID(...)     FAULTS_CALL(negative, PyInterpreterState_GetID, (__VA_ARGS__), #__VA_ARGS__)
#define PyIter_Next(...)                  FAULTS_CALL(null_with_error, PyIter_Next, (__VA_ARGS__), #__VA_ARGS__)
#define PyList_Append(...)                FAULTS_CALL(negative, PyList_Append, (__VA_ARGS__), #__VA_ARGS__)
#define PyList_New(...)                   FAULTS_CALL(null, PyList_New, (__VA_ARGS__), #__VA_ARGS__)
#define PyLong_FromLong(...)              FAULTS_CALL(null, PyLong_FromLong, (__VA_ARGS__), #__VA_ARGS__)
#define PyLong_FromUnsignedLong(...)      FAULTS_CALL(null, PyLong_FromUnsignedLong, (__VA_ARGS__), #__VA_ARGS__)
#define PyMem_Malloc(...)                 FAULTS_CALL(null_without_error, PyMem_Malloc, (__VA_ARGS__), #__VA_ARGS__)
#define PyModule_GetFilenameObject(...)   FAULTS_CALL(null, PyModule_GetFilenameObject, (__VA_ARGS__), #__VA_ARGS__)
#define PyModule_NewObject(...)           FAULTS_CALL(null, PyModule_NewObject, (__VA_ARGS__), #__VA_ARGS__)
#define PyNumber_Add(...)                 FAULTS_CALL(null, PyNumber_Add, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_Call(...)                FAULTS_CALL(null, PyObject_Call, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_CallMethodNoArgs(...)    FAULTS_CALL(null, PyObject_CallMethodNoArgs, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_CallMethodOneArg(...)    FAULTS_CALL(null, PyObject_CallMethodOneArg, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_CallNoArgs(...)          FAULTS_CALL(null, PyObject_CallNoArgs, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_CallOneArg(...)          FAULTS_CALL(null, PyObject_CallOneArg, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_GetAttr(...)             FAULTS_CALL(null, PyObject_GetAttr, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_GetAttrString(...)       FAULTS_CALL(null, PyObject_GetAttrString, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_GetItem(...)             FAULTS_CALL(null, PyObject_GetItem, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_GetIter(...)             FAULTS_CALL(null, PyObject_GetIter, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_IsTrue(...)              FAULTS_CALL(negative, PyObject_IsTrue, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_RichCompare(...)         FAULTS_CALL(null, PyObject_RichCompare, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_RichCompareBool(...)     FAULTS_CALL(negative, PyObject_RichCompareBool, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_SetItem(...)             FAULTS_CALL(negative, PyObject_SetItem, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_Vectorcall(...)          FAULTS_CALL(null, PyObject_Vectorcall, (__VA_ARGS__), #__VA_ARGS__)
#define PyObject_VectorcallDict(...)      FAULTS_CALL(null, PyObject_VectorcallDict, (__VA_ARGS__), #__VA_ARGS__)
#define PySequence_Contains(...)          FAULTS_CALL(negative, PySequence_Contains, (__VA_ARGS__), #__VA_ARGS__)
#define PyTuple_Pack(...)                 FAULTS_CALL(null, PyTuple_Pack, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_Compare(...)            FAULTS_CALL(negative_with_error, PyUnicode_Compare, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_FromFormat(...)         FAULTS_CALL(null, PyUnicode_FromFormat, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_InternFromString(...)   FAULTS_CALL(null, PyUnicode_InternFromString, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_New(...)                FAULTS_CALL(null, PyUnicode_New, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_Replace(...)            FAULTS_CALL(null, PyUnicode_Replace, (__VA_ARGS__), #__VA_ARGS__)
#define PyUnicode_Resize(...)             FAULTS_CALL(negative, PyUnicode_Resize, (__VA_ARGS__), #__VA_ARGS__)
#define _PyDict_MergeEx(...)              FAULTS_CALL(negative, _PyDict_MergeEx, (__VA_ARGS__), #__VA_ARGS__)
#define _PyObject_LookupAttr(...)         FAULTS_CALL(negative, _PyObject_LookupAttr, (__VA_ARGS__), #__VA_ARGS__)
#define _PyType_Lookup(...)               FAULTS_CALL(null_without_error, _PyType_Lookup, (__VA_ARGS__), #__VA_ARGS__)

// The interpreter's macros that expand to fallible calls.
#undef PyCFunction_NewEx
#define PyCFunction_NewEx(method, self, module) \
    FAULTS_CALL(null, PyCMethod_New, (method, self, module, nullptr), #method ", " #self ", " #module)
#undef PyObject_GC_New
#define PyObject_GC_New(type, object) \
    reinterpret_cast<type *>(FAULTS_CALL(null, _PyObject_GC_New, (object), #type ", " #object))
#undef PyUnicode_READY
#define PyUnicode_READY(text) \
    (PyUnicode_IS_READY(text) ? 0 : FAULTS_CALL(negative, _PyUnicode_Ready, (text), #text))

// The only native service that can fail for lack of memory.
#define json_object_to_json_string(...)   FAULTS_CALL(null_without_error, json_object_to_json_string, (__VA_ARGS__), #__VA_ARGS__)
// clang-format on

// Builds traceback entries from a code object, a frame and a line.
#include "veldarin/modules/python/traceback.h"

#include <frameobject.h>

#include <algorithm>
#include <cstring>

#include "veldarin/modules/state.h"

namespace modules_util {

namespace {

constexpr char source_file[] = "veldarin/modules/modules_util";

// The last code object that begins no later than `line`, borrowed. There is one: functions run only
// after the import, and no line comes before that of the first function.
PyObject *find_code(int line) {
    PyObject **const codes = reinterpret_cast<PyListObject *>(state.code_objects)->ob_item;
    const auto is_before = [](int each, PyObject *code) {
        return each < reinterpret_cast<PyCodeObject *>(code)->co_firstlineno;
    };
    return std::upper_bound(codes, codes + PyList_GET_SIZE(state.code_objects), line,
                            is_before)[-1];
}

// A code object for a function, or for the import (null).
Ref new_code(const char *function, int first_line) {
    char name[80];  // longer than any: the import creates one for every function, so no snprintf
    char *end = stpcpy(name, function ? module_name : "init ");
    if (function) *end++ = '.';
    stpcpy(end, function ? function : module_name);
    return Ref::steal(reinterpret_cast<PyObject *>(PyCode_NewEmpty(source_file, name, first_line)));
}

// A traceback entry in front of `next`, which may be null.
Ref new_traceback(PyObject *code, PyObject *globals, PyObject *next, int line) {
    PyFrameObject *frame =
        PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject *>(code), globals, nullptr);
    Ref owned_frame = Ref::steal(reinterpret_cast<PyObject *>(frame));
    if (!owned_frame) return {};
    auto *traceback = PyObject_GC_New(PyTracebackObject, &PyTraceBack_Type);
    if (!traceback) return {};
    traceback->tb_next = reinterpret_cast<PyTracebackObject *>(Ref::borrow(next).release());
    traceback->tb_frame = reinterpret_cast<PyFrameObject *>(owned_frame.release());
    traceback->tb_lasti = frame->f_lasti;
    // Set tb_lineno directly: a frame that never ran reports only its first line.
    traceback->tb_lineno = line;
    PyObject_GC_Track(traceback);
    return Ref::steal(reinterpret_cast<PyObject *>(traceback));
}

// Adds an entry to the current exception. `code` is borrowed; null stands for a new code object of
// `function`.
void push_frame(PyObject *code, const char *function, int first_line, PyObject *globals, int line) {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    const Ref owned_code = code ? Ref::borrow(code) : new_code(function, first_line);
    const Ref owned_globals = globals ? Ref::borrow(globals) : Ref::steal(PyDict_New());
    if (owned_code && owned_globals) {
        if (Ref entry = new_traceback(owned_code.get(), owned_globals.get(), traceback, line)) {
            Py_XDECREF(traceback);
            traceback = entry.release();
        }
    }
    PyErr_Restore(type, value, traceback);  // drops an error of the lines above
}

}  // namespace

ErrorResult fail(int line) {
    push_frame(find_code(line), nullptr, 0, state.globals, line);
    return {};
}

void add_import_traceback(PyObject *globals, int line) {
    push_frame(nullptr, nullptr, 1, globals, line);
}

void add_early_traceback(PyObject *globals, const char *function, int first_line) {
    push_frame(nullptr, function, first_line, globals, first_line);
}

bool add_code_object(const char *function, int first_line) {
    const Ref code = new_code(function, first_line);
    return code && PyList_Append(state.code_objects, code.get()) == 0;
}

}  // namespace modules_util

// Makes traceback entries out of a code object, a frame and a line.
#include "traceback.h"

#include <frameobject.h>

#include "state.h"

namespace modules_util {

namespace {

constexpr char source_file[] = "veldarin/modules/modules_util";

// Borrowed, or null for a line before every function: the last code object that begins no later.
PyObject *code_of(int line) {
    PyObject *found = nullptr;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(state.code_objects); ++i) {
        PyObject *code = PyList_GET_ITEM(state.code_objects, i);
        if (reinterpret_cast<PyCodeObject *>(code)->co_firstlineno > line) break;
        found = code;
    }
    return found;
}

// The code object of a function, or of the import (null).
Ref new_code(const char *function, int first_line) {
    char name[80];
    PyOS_snprintf(name, sizeof name, function ? "%s.%s" : "init %s", module_name, function);
    return Ref::steal(reinterpret_cast<PyObject *>(PyCode_NewEmpty(source_file, name, first_line)));
}

// A traceback in front of `next` (null: none), or null with an exception set. The line is the
// traceback's own: a frame that never ran has none but its first.
Ref new_entry(PyObject *code, PyObject *globals, PyObject *next, int line) {
    PyFrameObject *frame =
        PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject *>(code), globals, nullptr);
    Ref owned_frame = Ref::steal(reinterpret_cast<PyObject *>(frame));
    if (!owned_frame) return {};
    auto *entry = PyObject_GC_New(PyTracebackObject, &PyTraceBack_Type);
    if (!entry) return {};
    entry->tb_next = reinterpret_cast<PyTracebackObject *>(Ref::borrow(next).release());
    entry->tb_frame = reinterpret_cast<PyFrameObject *>(owned_frame.release());
    entry->tb_lasti = frame->f_lasti;
    entry->tb_lineno = line;
    PyObject_GC_Track(entry);
    return Ref::steal(reinterpret_cast<PyObject *>(entry));
}

// Adds the entry of `code`, or (null) of a new code object.
void add_entry(PyObject *code, const char *function, int first_line, PyObject *globals, int line) {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    const Ref owned_code = code ? Ref::borrow(code) : new_code(function, first_line);
    const Ref owned_globals = globals ? Ref::borrow(globals) : Ref::steal(PyDict_New());
    if (owned_code && owned_globals) {
        if (Ref entry = new_entry(owned_code.get(), owned_globals.get(), traceback, line)) {
            Py_XDECREF(traceback);
            traceback = entry.release();
        }
    }
    PyErr_Restore(type, value, traceback);  // also drops what went wrong on the way
}

}  // namespace

Failed failed(int line) {
    add_entry(code_of(line), nullptr, 0, state.globals, line);
    return {};
}

void failed_import(PyObject *globals, int line) { add_entry(nullptr, nullptr, 1, globals, line); }

void failed_early(PyObject *globals, const char *function, int first_line) {
    add_entry(nullptr, function, first_line, globals, first_line);
}

bool add_code_object(const char *function, int first_line) {
    const Ref code = new_code(function, first_line);
    return code && PyList_Append(state.code_objects, code.get()) == 0;
}

}  // namespace modules_util

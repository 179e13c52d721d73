// Raises and handles exceptions.
#include "veldarin/modules/python/errors.h"

#include "veldarin/modules/python/globals.h"

namespace modules_util {

ErrorResult fail_with_index_error(int line) {
    PyErr_SetString(PyExc_IndexError, "list index out of range");
    return fail(line);
}

void raise_not_bytes(PyObject *object) {
    PyErr_Format(PyExc_TypeError, "expected bytes, %.200s found", Py_TYPE(object)->tp_name);
}

void raise_unbound_local(const char *variable) {
    PyErr_Format(PyExc_UnboundLocalError, "local variable '%s' referenced before assignment",
                 variable);
}

void raise_undefined_name(PyObject *name) {
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
}

void raise_from_global(StringId exception, PyObject *message) {
    Ref raised = call_global(exception, message);
    if (!raised) return;
    if (PyExceptionClass_Check(raised.get())) {
        Ref instance = Ref::steal(PyObject_CallNoArgs(raised.get()));
        if (!instance) return;
        if (!PyExceptionInstance_Check(instance.get())) {
            PyErr_Format(PyExc_TypeError,
                         "calling %R should have returned an instance of BaseException, not %R",
                         raised.get(), Py_TYPE(instance.get()));
            return;
        }
        raised = std::move(instance);
    }
    if (PyExceptionInstance_Check(raised.get())) {
        PyErr_SetObject(PyExceptionInstance_Class(raised.get()), raised.get());
    } else {
        PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    }
}

HandledException::HandledException() {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback) PyException_SetTraceback(value, traceback);
    type_ = Ref::steal(type);
    value_ = Ref::steal(value);
    traceback_ = Ref::steal(traceback);

    saved_ = {Ref::borrow(type).release(), Ref::borrow(value).release(),
              Ref::borrow(traceback).release(), nullptr};
    swap_handled();
}

HandledException::~HandledException() {
    swap_handled();
    Py_XDECREF(saved_.exc_type);
    Py_XDECREF(saved_.exc_value);
    Py_XDECREF(saved_.exc_traceback);
}

void HandledException::swap_handled() {
    _PyErr_StackItem &own = *PyThreadState_Get()->exc_info;
    std::swap(own.exc_type, saved_.exc_type);
    std::swap(own.exc_value, saved_.exc_value);
    std::swap(own.exc_traceback, saved_.exc_traceback);
}

void HandledException::reraise() {
    PyErr_Restore(type_.release(), value_.release(), traceback_.release());
}

}  // namespace modules_util

// The parts of the `with` statement that do not depend on its body.
#include "veldarin/modules/python/with_statement.h"

#include "veldarin/modules/python/errors.h"

namespace modules_util {

Ref special_method(PyObject *object, PyObject *name) {
    PyObject *method = _PyType_Lookup(Py_TYPE(object), name);  // borrowed
    if (!method) {
        PyErr_SetObject(PyExc_AttributeError, name);
        return {};
    }
    const Ref owned_method = Ref::borrow(method);
    const descrgetfunc bind = Py_TYPE(method)->tp_descr_get;
    if (!bind) return Ref::borrow(method);
    return Ref::steal(bind(method, object, reinterpret_cast<PyObject *>(Py_TYPE(object))));
}

bool exit_with_exception(PyObject *exit, int line) {
    HandledException exception;
    PyObject *const arguments[] = {exception.type(), exception.value(), exception.traceback()};
    const Ref result = Ref::steal(PyObject_VectorcallDict(exit, arguments, 3, nullptr));
    if (!result) return fail(line);
    const int swallowed = PyObject_IsTrue(result.get());
    if (swallowed < 0) return fail(line);
    if (!swallowed) exception.reraise();
    return swallowed;
}

}  // namespace modules_util

// Looks up and calls global names.
#include "veldarin/modules/python/globals.h"

#include "veldarin/modules/python/errors.h"
#include "veldarin/modules/state.h"

namespace modules_util {

Ref global(PyObject *name) {
    if (PyObject *own = PyDict_GetItemWithError(state.globals, name)) return Ref::borrow(own);
    return PyErr_Occurred() ? Ref() : builtin(name);
}

Ref builtin(PyObject *name) {
    Ref value = Ref::steal(PyObject_GetAttr(state.builtins, name));
    if (!value && PyErr_ExceptionMatches(PyExc_AttributeError)) raise_undefined_name(name);
    return value;
}

Ref call_global(PyObject *callee, PyObject *argument) {
    const Ref function = global(callee);
    if (!function) return {};
    return Ref::steal(PyObject_CallOneArg(function.get(), argument));
}

Ref call_global(PyObject *callee) {
    const Ref function = global(callee);
    if (!function) return {};
    return Ref::steal(PyObject_CallNoArgs(function.get()));
}

}  // namespace modules_util

// The parts of text handling that work on whole objects.
#include "text.h"

namespace modules_util {

Ref replaced(PyObject *text, PyObject *pair) {
    return Ref::steal(
        PyUnicode_Replace(text, PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1), -1));
}

bool is_text(PyObject *object, PyObject *method, PyObject *arguments) {
    if (PyUnicode_Check(object)) return PyUnicode_READY(object) == 0;
    const Ref bound = Ref::steal(PyObject_GetAttr(object, method));
    if (!bound) return false;
    const Ref answer = Ref::steal(PyObject_Call(bound.get(), arguments, nullptr));
    if (!answer) return false;
    const Ref refused = Ref::steal(
        PyObject_CallMethodOneArg(reinterpret_cast<PyObject *>(&PyUnicode_Type), method, object));
    return false;
}

}  // namespace modules_util

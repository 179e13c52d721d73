/* Linked into a variant of the module with --wrap, for tests only. The interpreter reports another
 * version there: $SEEMING_VERSION, or 3.10. And of the comparisons made since $FAILING_COMPARISON
 * was set to a number, the one of that number fails: two exact strings compare without an error
 * otherwise. */
#include <Python.h>
#include <stdlib.h>

const char *__wrap_Py_GetVersion(void);
int __real_PyObject_RichCompareBool(PyObject *left, PyObject *right, int operation);
int __wrap_PyObject_RichCompareBool(PyObject *left, PyObject *right, int operation);

const char *__wrap_Py_GetVersion(void) {
    const char *version = getenv("SEEMING_VERSION");
    return version ? version : "3.10.4 (test)";
}

int __wrap_PyObject_RichCompareBool(PyObject *left, PyObject *right, int operation) {
    static int comparisons = 0;
    const char *failing = getenv("FAILING_COMPARISON");
    if (failing && ++comparisons == atoi(failing)) {
        PyErr_NoMemory();
        return -1;
    }
    return __real_PyObject_RichCompareBool(left, right, operation);
}

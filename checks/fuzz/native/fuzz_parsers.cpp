// The parser target: an embedded interpreter passes every input to checks/fuzz/differential.py. An
// exception there is a finding and aborts the process, as a sanitizer's report does.
#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

PyObject *check = nullptr;  // Comparison().__enter__().check, never released

PyObject *require(PyObject *object) {
    if (!object) {
        PyErr_Print();
        std::abort();
    }
    return object;
}

// The program name lets the interpreter find the packages of the virtual environment.
void start_interpreter() {
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.install_signal_handlers = 0;  // libFuzzer installs its own
    PyStatus status = PyConfig_SetBytesString(&config, &config.program_name, ENVIRONMENT_PYTHON);
    if (!PyStatus_Exception(status)) status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) Py_ExitStatusException(status);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    start_interpreter();
    PyObject *module = require(PyImport_ImportModule("checks.fuzz.differential"));
    PyObject *comparison = require(PyObject_CallMethod(module, "Comparison", nullptr));
    PyObject *entered = require(PyObject_CallMethod(comparison, "__enter__", nullptr));
    check = require(PyObject_GetAttrString(entered, "check"));
    Py_DECREF(entered);
    Py_DECREF(comparison);
    Py_DECREF(module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto *bytes = reinterpret_cast<const char *>(data);
    PyObject *input = require(PyBytes_FromStringAndSize(bytes, static_cast<Py_ssize_t>(size)));
    Py_DECREF(require(PyObject_CallOneArg(check, input)));
    Py_DECREF(input);
    return 0;
}

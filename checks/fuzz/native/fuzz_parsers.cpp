// The parsers under libFuzzer, in an embedded interpreter: every input goes to
// checks/fuzz/differential.py. An exception there is a finding and ends the process, as a
// sanitizer's report does.
#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

PyObject *check = nullptr;  // Comparison().__enter__().check, for the life of the process

[[noreturn]] void finding() {
    PyErr_Print();
    std::abort();
}

PyObject *or_finding(PyObject *made) {
    if (!made) finding();
    return made;
}

// The project's own environment: its interpreter's path leads to its packages.
void start_interpreter() {
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.install_signal_handlers = 0;  // they are the fuzzer's
    PyStatus status = PyConfig_SetBytesString(&config, &config.program_name, ENVIRONMENT_PYTHON);
    if (!PyStatus_Exception(status)) status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) Py_ExitStatusException(status);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    start_interpreter();
    PyObject *module = or_finding(PyImport_ImportModule("checks.fuzz.differential"));
    PyObject *comparison = or_finding(PyObject_CallMethod(module, "Comparison", nullptr));
    PyObject *entered = or_finding(PyObject_CallMethod(comparison, "__enter__", nullptr));
    check = or_finding(PyObject_GetAttrString(entered, "check"));
    Py_DECREF(entered);
    Py_DECREF(comparison);
    Py_DECREF(module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto *bytes = reinterpret_cast<const char *>(data);
    PyObject *input = or_finding(PyBytes_FromStringAndSize(bytes, static_cast<Py_ssize_t>(size)));
    Py_DECREF(or_finding(PyObject_CallOneArg(check, input)));
    Py_DECREF(input);
    return 0;
}

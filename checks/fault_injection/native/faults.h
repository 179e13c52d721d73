// C interface of libfaults: allocation-failure injection for checks/fault_injection, and the log of
// the module's fallible calls for instrumented_calls.h. The caller holds the GIL.
#pragma once

#include <Python.h>

#define FAULTS_EXPORT extern "C" __attribute__((visibility("default")))

// A fallible call in the module's source, constant-initialized.
struct faults_site {
    const char *file;
    int line;
    const char *call;        // as written, in one line
    struct faults_row *row;  // in the log, set on first use
};

// The log's row of a call site.
struct faults_row {
    char key[384];            // "file:line:call"
    char function[64];        // the function that contains the call
    unsigned long reached;    // times the call was reached
    unsigned long triggered;  // allocation failures injected within the call
    unsigned long oom;        // times it failed after an injected failure
    unsigned long other;      // times it failed without one
    unsigned long forced;     // times it was forced to fail
};

// Begins a call and returns the enclosing one, for faults_leave. Sets `forced` if the call must
// fail instead of being made.
FAULTS_EXPORT struct faults_site *faults_enter(struct faults_site *site, const char *function,
                                               bool *forced);
FAULTS_EXPORT void faults_leave(struct faults_site *site, struct faults_site *outer, bool failed);

// Maps the log's file, which all processes of a run share. Returns false on failure.
FAULTS_EXPORT int faults_open_log(const char *path);
// Forces the call with this key to fail in this process; null forces none. Returns false if no such
// call has been reached.
FAULTS_EXPORT int faults_force(const char *key);

// NOLINTNEXTLINE(performance-enum-size): C has no smaller enumerations
enum faults_allocator {
    FAULTS_INTERPRETER,  // the interpreter's three domains
    FAULTS_JSON_C,       // what json-c requests from the C library
};

// The result of the last faults_call.
struct faults_report {
    long allocations;
    long failures;
    const char *site;  // key of the call site of the first failure, or null
};

// Hooks the interpreter's allocators. `set_nomemory` is _testcapi's function, which fails them.
// Returns None, or null with an exception set.
FAULTS_EXPORT PyObject *faults_install(PyObject *set_nomemory);
// Replaces json-c's imported allocation functions. Returns false if they are not found.
FAULTS_EXPORT int faults_hook_json_c(void);

// Calls callable(*arguments, **keywords) with injection enabled: the nth allocation fails, or with
// `persistent` the nth and all later ones; none if n is 0. `keywords` may be None.
FAULTS_EXPORT PyObject *faults_call(PyObject *callable, PyObject *arguments, PyObject *keywords,
                                    int allocator, int nth, int persistent);
FAULTS_EXPORT void faults_get_report(struct faults_report *report);

// Stores the row of the innermost fallible call, or null, at each allocation of later calls.
FAULTS_EXPORT void faults_trace_into(const void **rows, long size);

// From now on, a process that crashes prints its stack to standard error.
FAULTS_EXPORT void faults_install_crash_handler(void);

// Returns the number of live blocks of the interpreter's domains since faults_install.
FAULTS_EXPORT long faults_live_blocks(void);

// Returns a wrapper that calls a callable with injection suspended. The call itself counts as one
// allocation, so that it can fail.
FAULTS_EXPORT PyObject *faults_exempt(PyObject *callable);
// Exempts, for the life of the process, the instantiation of a type, the first function of a
// C-level vtable, and a C callback that takes two strings.
FAULTS_EXPORT void faults_exempt_type(PyObject *type);
FAULTS_EXPORT void faults_exempt_vtable(PyObject *capsule);
FAULTS_EXPORT void *faults_exempt_callback(void *callback);

namespace faults {

// Counts an injected failure for the innermost fallible call; returns its key, or null.
const char *log_triggered();
// Returns the row of the innermost fallible call, or null.
const faults_row *current_row();
// Returns whether an allocation has failed in the current faults_call.
bool has_failure();

}  // namespace faults

// The C interface of libfaults: memory that fails on purpose while the module is on trial, for the
// sweep in checks/fault_injection, and the record of the module's fallible calls, for
// instrumented_calls.h. Everything here runs with the interpreter lock held.
#pragma once

#include <Python.h>

#define FAULTS_EXPORT extern "C" __attribute__((visibility("default")))

// A fallible call in the module's source: one for each place, constant-initialised.
struct faults_site {
    const char *file;
    int line;
    const char *call;        // as written, in one line
    struct faults_row *row;  // where it is recorded, found on first use
};

// A row of the record.
struct faults_row {
    char key[384];            // "file:line:call"
    char function[64];        // that the call is in
    unsigned long reached;    // times
    unsigned long fired;      // allocations that failed within the call
    unsigned long of_memory;  // times the call failed after memory had failed
    unsigned long otherwise;  // times it failed with memory to spare
    unsigned long forced;     // times it was made to fail
};

// The call begins. Gives the one that is under way around it, for its end; `forced`: it shall fail
// without being made.
FAULTS_EXPORT struct faults_site *faults_enter(struct faults_site *site, const char *function,
                                               bool *forced);
FAULTS_EXPORT void faults_leave(struct faults_site *site, struct faults_site *outer, bool failed);

// The record is a file that all processes of a run share. False: no memory for it.
FAULTS_EXPORT int faults_record_in(const char *path);
// The call with this key fails in this process, each time; null: none does. False: no such call was
// reached so far.
FAULTS_EXPORT int faults_force(const char *key);

// Which allocations fail.
// NOLINTNEXTLINE(performance-enum-size): C has no smaller enumerations
enum faults_allocator {
    FAULTS_INTERPRETER,  // those of the interpreter's three domains
    FAULTS_JSON_C,       // those that json-c asks of the C library
};

struct faults_report {
    long counted;      // allocations of the last trial
    long failed;       // of these, how many failed
    const char *site;  // the key of the place where the first one failed, or null
};

// Stands in front of the interpreter's allocators from here on. `set_nomemory` is the interpreter's
// own function of that name: it decides which allocations fail; a gate before it decides which are
// its business. None, or null with an exception set.
FAULTS_EXPORT PyObject *faults_install(PyObject *set_nomemory);
// Lets json-c's allocations go by a counter. False: json-c is not there, or not as expected.
FAULTS_EXPORT int faults_follow_json_c(void);

// callable(*arguments, **keywords) with the gate open; `keywords` may be None. The nth allocation
// fails, or all from the nth on; none if n is 0. Afterwards nothing fails any more.
FAULTS_EXPORT PyObject *faults_trial(PyObject *callable, PyObject *arguments, PyObject *keywords,
                                     int allocator, int nth, int lasting);
FAULTS_EXPORT void faults_report_of(struct faults_report *report);

// The row of the call under way at each allocation of the next trials is put down there, or null.
FAULTS_EXPORT void faults_trace_into(const void **rows, long size);

// From here on a process that dies tells on its standard error in which functions.
FAULTS_EXPORT void faults_tell_deaths();

// Blocks of the interpreter's domains made minus freed, since faults_install.
FAULTS_EXPORT long faults_live(void);

// A stand-in for a callable that belongs to somebody else: the gate is closed while it runs. The
// call itself counts as one allocation, so that it fails like any other.
FAULTS_EXPORT PyObject *faults_sheltered(PyObject *callable);
// The same for the making of a type's instances, for the first operation of its C-level method
// table, and for a C callback that takes two texts; for the life of the process.
FAULTS_EXPORT void faults_shelter_type(PyObject *type);
FAULTS_EXPORT void faults_shelter_method_table(PyObject *capsule);
FAULTS_EXPORT void *faults_shelter_callback(void *callback);

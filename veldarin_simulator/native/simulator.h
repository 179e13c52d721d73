// The C interface of libsimulator beside the native services themselves: how Python (through
// ctypes) answers them and reads the journal, and what the stand-in util.json reports and asks.
// Plain C, since the Cython siblings include it. Everything here runs with the interpreter lock
// held.
#pragma once

#include <json-c/json.h>
#include <stddef.h>

#ifdef __cplusplus
#define APPLIANCE_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define APPLIANCE_EXPORT extern
#endif

// What a service hands back to its caller.
// NOLINTNEXTLINE(performance-enum-size): C has no smaller enumerations
enum simulator_form {
    APPLIANCE_FORM_JSON,      // a json-c object, or null
    APPLIANCE_FORM_TEXT,      // a buffer from PyMem_Malloc that the caller frees, or null
    APPLIANCE_FORM_WRAPPED,   // the same, never null
    APPLIANCE_FORM_IN_PLACE,  // the caller's own buffer, overwritten
    APPLIANCE_FORM_COUNT,     // unsigned long
    APPLIANCE_FORM_STATUS,    // int
};

// An answer on its way from Python to a service. The text is copied, never kept.
// NOLINTNEXTLINE(performance-enum-size)
enum simulator_reply_kind {
    APPLIANCE_REPLY_NULL,      // a null pointer; for a buffer in place: left as it is
    APPLIANCE_REPLY_TEXT,      // bytes; for a json-c object: JSON text, parsed
    APPLIANCE_REPLY_VERBATIM,  // the text that the json-c object shall render as, valid or not
    APPLIANCE_REPLY_NUMBER,
};

struct simulator_reply {
    int kind;
    int source;  // carried into the journal, the meaning is Python's
    const char *text;
    size_t length;
    unsigned long number;
};

// One journal entry; the texts are the journal's and live until it is forgotten.
struct simulator_call {
    const char *service;
    void *context;
    void *third;
    const char *request;  // JSON text, or null where the service takes no request
    const char *text;     // the text argument, or null where the service takes none
    int source;
};

struct simulator_counts {
    long json_objects;
    long text_buffers;
};

// Asked on each call of a service that holds no canned reply; answers through simulator_answer.
typedef void (*simulator_callback)(const char *service, const char *input);

// Starts afresh: empty journal, nothing canned, counts at zero, no blank. False: out of memory.
APPLIANCE_EXPORT int simulator_open(simulator_callback callback, int counting);
APPLIANCE_EXPORT void simulator_close(void);

// The row of the services' table, or null after the last.
APPLIANCE_EXPORT const char *simulator_service(size_t index, int *form);

// Both give null, or the reason why the reply was not taken.
APPLIANCE_EXPORT const char *simulator_answer(const struct simulator_reply *reply);
APPLIANCE_EXPORT const char *simulator_can(size_t service, const struct simulator_reply *reply);
APPLIANCE_EXPORT void simulator_uncan(size_t service);

// Calls answered from the reply canned for the service; and calls since the last question whose
// buffer a canned text did not fit into.
APPLIANCE_EXPORT unsigned long simulator_canned_calls(size_t service);
APPLIANCE_EXPORT unsigned long simulator_canned_misfits(void);

APPLIANCE_EXPORT size_t simulator_journal_size(void);
APPLIANCE_EXPORT int simulator_journal_read(size_t index, struct simulator_call *call);
APPLIANCE_EXPORT void simulator_journal_forget(void);
APPLIANCE_EXPORT void simulator_count(struct simulator_counts *counts);

// Also journals the calls of json_object_to_json_string, with the object's text as request. Off
// until set, and again when an appliance is opened.
APPLIANCE_EXPORT void simulator_record_serializer(int record);

// Makes every service and json_object_to_json_string wait in C, with whatever locks its caller
// holds, for the time or until `counter` changes. Another Python thread increments the counter: a
// change shows that the caller released the interpreter lock. Null ends it, as does opening an
// appliance.
APPLIANCE_EXPORT void simulator_probe_gil(const unsigned long *counter, unsigned milliseconds);
// Calls that waited since the probe was set, and those of them in which the counter changed.
APPLIANCE_EXPORT void simulator_gil_probes(unsigned long *calls, unsigned long *released);

// What a JSONObject made without argument holds; borrowed, lives as long as the library.
APPLIANCE_EXPORT const char *simulator_set_blank(const struct simulator_reply *reply);
APPLIANCE_EXPORT struct json_object *simulator_blank(void);
APPLIANCE_EXPORT int simulator_is_blank(const struct json_object *object);

// A request's json-c object, an object or array, is counted from here until json-c frees it.
APPLIANCE_EXPORT void simulator_watch(struct json_object *request);
// The method-table release of a JSONObject that holds this object.
APPLIANCE_EXPORT void simulator_note_release(struct json_object *held);

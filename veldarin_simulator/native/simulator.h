// The C interface of libsimulator.so besides the native services: Python (through ctypes) sets the
// replies and reads the call log, the simulated util.json reports its objects. Plain C, because the
// Cython siblings include it. All functions need the interpreter lock.
#pragma once

#include <json-c/json.h>
#include <stddef.h>

#ifdef __cplusplus
#define SIMULATOR_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define SIMULATOR_EXPORT extern
#endif

// The form of a service's result.
// NOLINTNEXTLINE(performance-enum-size): C has no smaller enumerations
enum simulator_form {
    SIMULATOR_FORM_JSON,      // a json-c object, or null
    SIMULATOR_FORM_TEXT,      // a buffer from PyMem_Malloc that the caller frees, or null
    SIMULATOR_FORM_WRAPPED,   // the same, never null
    SIMULATOR_FORM_IN_PLACE,  // the caller's own buffer, overwritten
    SIMULATOR_FORM_COUNT,     // unsigned long
    SIMULATOR_FORM_STATUS,    // int
};

// NOLINTNEXTLINE(performance-enum-size)
enum simulator_reply_kind {
    SIMULATOR_REPLY_NULL,      // a null pointer; in place: leave the buffer as it is
    SIMULATOR_REPLY_TEXT,      // bytes; for a json-c object: JSON text to parse
    SIMULATOR_REPLY_VERBATIM,  // the text that the json-c object renders as, valid JSON or not
    SIMULATOR_REPLY_NUMBER,
};

// A reply from Python. The library copies the text.
struct simulator_reply {
    int kind;
    int source;  // copied into the call log; only Python interprets it
    const char *text;
    size_t length;
    unsigned long number;
};

// An entry of the call log, which owns the texts until it is cleared.
struct simulator_call {
    const char *service;
    void *context;
    void *third;
    const char *request;  // JSON text, or null if the service has no request
    const char *text;     // the text argument, or null if the service has none
    int source;
};

struct simulator_live_counts {
    long json_objects;
    long text_buffers;
};

// Called for each call of a service without fixed reply; it replies through simulator_set_reply.
typedef void (*simulator_callback)(const char *service, const char *input);

// Resets everything and starts the simulator. Returns 0 if memory runs out.
SIMULATOR_EXPORT int simulator_open(simulator_callback callback, int track_buffers);
SIMULATOR_EXPORT void simulator_close(void);

// Returns the name of a service, or null after the last one.
SIMULATOR_EXPORT const char *simulator_service(size_t index, int *form);

// Both return null, or the reason why the reply was rejected. The first one replies to the pending
// call of this thread.
SIMULATOR_EXPORT const char *simulator_set_reply(const struct simulator_reply *reply);
SIMULATOR_EXPORT const char *simulator_set_fixed_reply(size_t service,
                                                       const struct simulator_reply *reply);
SIMULATOR_EXPORT void simulator_clear_fixed_reply(size_t service);
SIMULATOR_EXPORT unsigned long simulator_fixed_reply_calls(size_t service);
// Returns and resets the number of calls whose buffer was too small for a fixed reply.
SIMULATOR_EXPORT unsigned long simulator_oversized_replies(void);

// Makes each call of a service sleep first, with whatever locks its caller holds; 0 ends that, as
// does simulator_open.
SIMULATOR_EXPORT void simulator_set_delay(size_t service, unsigned long long microseconds);

SIMULATOR_EXPORT size_t simulator_call_log_size(void);
SIMULATOR_EXPORT int simulator_call_log_read(size_t index, struct simulator_call *call);
SIMULATOR_EXPORT void simulator_clear_calls(void);
SIMULATOR_EXPORT void simulator_live_objects(struct simulator_live_counts *counts);

// Also logs the calls of json_object_to_json_string, with the object's text as request. Off until
// set; simulator_open resets it.
SIMULATOR_EXPORT void simulator_record_serializer(int record);

// Makes every service and json_object_to_json_string wait in C, with whatever locks its caller
// holds, for the time or until `counter` changes. Another Python thread increments the counter: a
// change shows that the caller released the interpreter lock. Null ends it, as does simulator_open.
SIMULATOR_EXPORT void simulator_probe_gil(const unsigned long *counter, unsigned milliseconds);
// Calls that waited since the probe was set, and those of them in which the counter changed.
SIMULATOR_EXPORT void simulator_gil_probes(unsigned long *calls, unsigned long *released);

// The value of a JSONObject created without arguments: borrowed, never freed.
SIMULATOR_EXPORT const char *simulator_set_default_response(const struct simulator_reply *reply);
SIMULATOR_EXPORT struct json_object *simulator_default_response(void);
SIMULATOR_EXPORT int simulator_is_default_response(const struct json_object *object);

// Counts a request's json-c object, an object or array, until json-c frees it.
SIMULATOR_EXPORT void simulator_track_request(struct json_object *request);
// Logs the method-table release of a JSONObject that holds `value`.
SIMULATOR_EXPORT void simulator_log_release(struct json_object *value);

// The JSON bridge: runs a status query. It sends a request to a native service of the appliance and
// returns the parsed reply. The queries are rows of the function table.
#pragma once

#include <Python.h>

#include "util/json.h"
#include "veldarin/modules/interned.h"

namespace modules_util {

using BuildReply = json_object *(void *context, json_object *request);

// The source lines of a query's statements. Two queries write the empty and the keyed request on
// different lines.
struct QueryLines {
    short first, empty_request, keyed_request, response, parse, release_request, release_response;
};

struct Query {
    // The condition for the request {key: argument} instead of {}.
    enum When : char { never, always, if_true, unless_none };
    // capture: the second argument chooses the native service. select: the result is the entry of
    // the reply that the argument names.
    enum Kind : char { plain, capture, select };

    BuildReply *build;  // null: the query is not wired to a native service
    QueryLines at;
    When when;
    Kind kind;
    StringId key;
};

// Runs a query. The arguments are borrowed and have passed the type tests: the one that the request
// may hold, then a capture's event. Returns a new reference, or null with an exception and its
// traceback entry.
PyObject *run_query(const Query &query, PyObject *const *arguments);

}  // namespace modules_util

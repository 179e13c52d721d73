// The JSON bridge: runs a status query. It sends a request to a native service of the appliance and
// returns the parsed reply. The queries are rows of the function table.
#pragma once

#include <Python.h>

#include "util/json.h"
#include "veldarin/modules/interned.h"

namespace modules_util {

using BuildReply = json_object *(void *context, json_object *request);

// The source lines of a query's statements. The lines of the empty request, {}, and of the keyed
// request, {key: argument}, differ in two queries only.
struct QueryLines {
    short first, empty_request, keyed_request, response, parse, release_request, release_response;
};

struct Query {
    // The condition on the argument for the keyed request.
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

// Runs a query. The arguments are borrowed and their types have been checked. The first is the one
// that the request may hold, the second a capture's event. Returns a new reference, or null with an
// exception and its traceback entry.
PyObject *run_query(const Query &query, PyObject *const *arguments);

}  // namespace modules_util

// Allocates json-c objects and text buffers for callers, and counts each until json-c or PyMem_Free
// frees it.
#pragma once

#include <string>
#include <string_view>

#include "simulator.h"

namespace simulator {

enum class Tracked : bool { no, yes };

// Resets the counts. Counts text buffers only if `track_buffers`. Returns false if memory runs out.
bool start_tracking(bool track_buffers);
void stop_tracking();
simulator_live_counts live_counts();

// Returns a new object for a reply, or null; with a reason if there is an error. JSON text `null`
// is a null pointer without a reason, as in json-c.
json_object *new_object(const simulator_reply &reply, Tracked tracked, const char **reason);

// Returns a buffer from PyMem_Malloc with the text and a NUL, or null.
char *new_text(std::string_view text);
// Returns the same, or an empty text from the reserve if memory runs out.
char *new_text_never_null(std::string_view text);

// Tracks an object or array that util.json created.
void track_object(json_object *root);

}  // namespace simulator

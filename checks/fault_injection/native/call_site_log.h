// The record of the module's fallible calls, for the gate: where a failing allocation strikes.
#pragma once

namespace faults {

// An allocation fails in the innermost call under way; its key, or null.
const char *note_fired();

// The row of the innermost call under way, or null.
const void *row_under_way();

// The key of the innermost call under way, or null.
const char *call_under_way();

// Memory has failed since the last trial began.
bool memory_has_failed();

}  // namespace faults

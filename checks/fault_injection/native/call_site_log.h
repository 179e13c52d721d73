// The log of the module's fallible calls, as seen by the failing allocators.
#pragma once

#include "faults.h"

namespace faults {

// Counts an injected failure for the innermost call; returns its key, or null.
const char *log_triggered();

// Returns the row of the innermost call, or null.
const faults_row *current_row();

// Returns whether an allocation has failed in the current faults_call.
bool has_failure();

}  // namespace faults

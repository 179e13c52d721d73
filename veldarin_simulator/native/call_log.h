// The call log: every call of a native service and every method-table release of a JSONObject, in
// order. It copies texts into the library's own memory, which the tests' measurements of the
// interpreter's memory do not include.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "simulator.h"

namespace simulator {

struct LogEntry {
    const char *service;  // static
    void *context = nullptr;
    void *third = nullptr;
    std::optional<std::string> request = std::nullopt;
    std::optional<std::string> text = std::nullopt;
    int source = 0;
};

using LogIndex = std::size_t;

LogIndex log_call(LogEntry entry);
// Does nothing if the log was cleared since.
void set_source(LogIndex index, int source);

// Returns the JSON text of an object (or null) without spaces and with `/` not escaped.
std::string to_json(json_object *object);

}  // namespace simulator

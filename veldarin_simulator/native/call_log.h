// The journal: every call of a native service, and every method-table release of a JSONObject, in
// the order in which they came. It holds copies in the library's own memory, so that keeping it
// does not disturb what tests measure of the interpreter.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "simulator.h"

namespace simulator {

struct Entry {
    const char *service;  // static
    void *context = nullptr;
    void *third = nullptr;
    std::optional<std::string> request = std::nullopt;
    std::optional<std::string> text = std::nullopt;
    int source = 0;
};

using EntryId = std::size_t;

EntryId journal_add(Entry entry);
// An answer may come after the journal was forgotten; then there is nothing to mark.
void journal_mark(EntryId id, int source);
void journal_forget();

// The JSON text of an object (null included) as the journal keeps it: no spaces, `/` as it is.
std::string rendered(json_object *object);

}  // namespace simulator

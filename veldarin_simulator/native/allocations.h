// What the library hands out: json-c objects and text buffers. Every allocation that reaches a
// caller is made here, and here it is counted until json-c or PyMem_Free gives it back.
#pragma once

#include <string>
#include <string_view>

#include "simulator.h"

namespace simulator {

enum class Counted : bool { no, yes };

// Counts start at zero; text buffers are followed only while `counting`. False: out of memory.
bool open_handout(bool counting);
void close_handout();
simulator_counts counts();

// A new object for a reply (owned by the caller), null with a reason where there can be none.
// JSON text `null` is a null pointer without a reason, as json-c itself has it.
json_object *new_object(const simulator_reply &reply, Counted counted, const char **reason);

// A buffer from PyMem_Malloc holding the text and a NUL, or null.
char *new_text(std::string_view text);
// The same for a caller that takes no null: if memory fails, an empty text set aside before.
char *new_text_never_null(std::string_view text);

// Follows an object or array that someone else made.
void watch(json_object *root);

}  // namespace simulator

// Makes the interned names from their tables.
#include "veldarin/modules/interned.h"

#include <cstring>

namespace modules_util {

PyObject *interned[id::count];

namespace {

// The texts in the order of the members, each with its end.
constexpr char texts[] =
#define MODULES_UTIL_IDENTIFIER(name) #name "\0"
#define MODULES_UTIL_TEXT(name, text) text "\0"
    MODULES_UTIL_IDENTIFIERS(MODULES_UTIL_IDENTIFIER) MODULES_UTIL_TEXTS(MODULES_UTIL_TEXT);
#undef MODULES_UTIL_IDENTIFIER
#undef MODULES_UTIL_TEXT

}  // namespace

bool intern_strings() {
    const char *text = texts;
    for (int i = id::none + 1; i < id::count; ++i) {
        PyObject *&string = interned[i];
        if (!string && !(string = PyUnicode_InternFromString(text))) return false;
        text += std::strlen(text) + 1;
    }
    return true;
}

}  // namespace modules_util

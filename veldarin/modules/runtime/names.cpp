// Makes the interned names from their tables.
#include "names.h"

#include <cstring>

namespace modules_util {

Names names;

namespace {

// The texts in the order of the members, each with its end.
constexpr char texts[] =
#define MODULES_UTIL_IDENTIFIER(name) #name "\0"
#define MODULES_UTIL_TEXT(name, text) text "\0"
    MODULES_UTIL_IDENTIFIERS(MODULES_UTIL_IDENTIFIER) MODULES_UTIL_TEXTS(MODULES_UTIL_TEXT);
#undef MODULES_UTIL_IDENTIFIER
#undef MODULES_UTIL_TEXT

}  // namespace

bool make_names() {
    const char *text = texts;
    for (size_t i = 1; i <= sizeof names / sizeof(PyObject *); ++i) {
        PyObject *&name = names[static_cast<Name>(i)];
        if (!name && !(name = PyUnicode_InternFromString(text))) return false;
        text += std::strlen(text) + 1;
    }
    return true;
}

}  // namespace modules_util

// Makes the interned names from their tables.
#include "names.h"

namespace modules_util {

Names names;

namespace {

struct Row {
    Name name;
    const char *text;
};

constexpr Row rows[] = {
#define MODULES_UTIL_IDENTIFIER(name) {&Names::name, #name},
#define MODULES_UTIL_TEXT(name, text) {&Names::name, text},
    MODULES_UTIL_IDENTIFIERS(MODULES_UTIL_IDENTIFIER) MODULES_UTIL_TEXTS(MODULES_UTIL_TEXT)
#undef MODULES_UTIL_IDENTIFIER
#undef MODULES_UTIL_TEXT
};

}  // namespace

bool make_names() {
    for (const Row &row : rows) {
        PyObject *&name = names.*row.name;
        if (!name && !(name = PyUnicode_InternFromString(row.text))) return false;
    }
    return true;
}

}  // namespace modules_util

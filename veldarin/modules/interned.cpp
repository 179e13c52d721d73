// Interns the strings.
#include "veldarin/modules/interned.h"

#include <climits>
#include <cstring>

namespace modules_util {

static_assert(string_count <= UCHAR_MAX + 1, "a StringId is an unsigned char");

PyObject *interned[string_count];

bool intern_strings() {
    const char *text = interned_texts;
    for (int id = id::none + 1; id < string_count; ++id) {
        PyObject *&string = interned[id];
        if (!string && !(string = PyUnicode_InternFromString(text))) return false;
        text += std::strlen(text) + 1;
    }
    return true;
}

}  // namespace modules_util

// Gives the parsers the characters of a `str` as UTF-8, and replaces text in a `str` without
// calling methods that a subclass may define.
#pragma once

#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/text/scan.h"

namespace modules_util {

// A whole `str` as UTF-8. An ASCII string, which the output of a command usually is, is scanned in
// its own storage; any other one in a copy. The copy encodes surrogates like all other code points:
// the interpreter's codecs would call an error handler, which a program may replace.
struct Utf8Text {
    Ref owner;  // the `str`, or the object whose storage holds the copy
    bool is_ascii;
    TextView view;
};

// Accepts a `str` or an instance of a subclass, and makes it ready for `as_utf8`. Otherwise sets
// the exception that `object.method(*arguments)` raises; if that call succeeds, the TypeError of
// `str.method(object)`.
bool check_str(PyObject *object, PyObject *method, PyObject *arguments);

// The characters of a compact ASCII string, as this module and PyUnicode_New create them.
inline char *ascii_data(PyObject *string) {
    return reinterpret_cast<char *>(reinterpret_cast<PyASCIIObject *>(string) + 1);
}

// The text of an object that `check_str` accepted. No owner: MemoryError is set.
Utf8Text as_utf8(PyObject *text);

// text.replace(*pair) for a `str`.
Ref str_replace(PyObject *text, PyObject *pair);

// The same for a pair of an ASCII string and "". Returns the text itself if there is nothing to
// remove.
Ref str_remove(PyObject *text, PyObject *pair);

}  // namespace modules_util

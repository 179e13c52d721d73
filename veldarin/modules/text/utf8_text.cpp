// Converts between `str` and UTF-8 text.
#include "veldarin/modules/text/utf8_text.h"

namespace modules_util {

namespace {

TextView ascii_view(PyObject *text, const void *data) {
    const auto *begin = static_cast<const char *>(data);
    return {begin, begin + PyUnicode_GET_LENGTH(text)};
}

// Writes one code point and returns the end of what it wrote.
char *encode(Py_UCS4 character, char *to) {
    if (character < 0x80U) {
        *to = static_cast<char>(character);
        return to + 1;
    }
    unsigned rest = 1U + (character >= 0x800U) + (character >= 0x10000U);
    *to++ = static_cast<char>(0xFF80U >> rest | character >> 6U * rest);
    while (rest-- > 0) *to++ = static_cast<char>(0x80U | (character >> 6U * rest & 0x3FU));
    return to;
}

[[gnu::cold]] Utf8Text encode_text(PyObject *text) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    // A string of wider characters serves as the buffer: UTF-8 needs two bytes for a code point
    // that is stored in one, and at most four for any other.
    Ref copy = Ref::steal(
        PyUnicode_New(length, PyUnicode_KIND(text) == PyUnicode_1BYTE_KIND ? 0xFFFF : 0x10FFFF));
    if (!copy) return {};
    auto *const to = static_cast<char *>(PyUnicode_DATA(copy.get()));
    char *end = to;
    const auto kind = PyUnicode_KIND(text);
    const void *const data = PyUnicode_DATA(text);
    for (Py_ssize_t i = 0; i < length; ++i) end = encode(PyUnicode_READ(kind, data, i), end);
    return {
        std::move(copy), false, {to, end}
    };
}

}  // namespace

bool check_str(PyObject *object, PyObject *method, PyObject *arguments) {
    if (PyUnicode_Check(object)) return PyUnicode_READY(object) == 0;
    const Ref bound = Ref::steal(PyObject_GetAttr(object, method));
    if (!bound) return false;
    const Ref result = Ref::steal(PyObject_Call(bound.get(), arguments, nullptr));
    if (!result) return false;
    const Ref refused = Ref::steal(
        PyObject_CallMethodOneArg(reinterpret_cast<PyObject *>(&PyUnicode_Type), method, object));
    return false;
}

Utf8Text as_utf8(PyObject *text) {
    if (!PyUnicode_IS_ASCII(text)) return encode_text(text);
    return {Ref::borrow(text), true, ascii_view(text, PyUnicode_DATA(text))};
}

Ref str_replace(PyObject *text, PyObject *pair) {
    return Ref::steal(
        PyUnicode_Replace(text, PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1), -1));
}

Ref str_remove(PyObject *text, PyObject *pair) {
    if (!PyUnicode_IS_COMPACT_ASCII(text)) return str_replace(text, pair);
    PyObject *const removed = PyTuple_GET_ITEM(pair, 0);
    const TextView view = ascii_view(text, ascii_data(text));
    const TextView unwanted = ascii_view(removed, ascii_data(removed));
    if (find(view, unwanted) == view.end) return Ref::borrow(text);
    PyObject *result = PyUnicode_New(view.size(), 127);
    if (!result) return {};
    const char *const end = copy_without(view, unwanted, ascii_data(result));
    if (PyUnicode_Resize(&result, end - ascii_data(result)) < 0) Py_CLEAR(result);
    return Ref::steal(result);
}

}  // namespace modules_util

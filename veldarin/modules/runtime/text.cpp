// Opens and scans texts. All the time that a parser spends on characters is spent here.
#include "text.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace modules_util {

namespace {

Slice storage_of(PyObject *ascii) {
    const auto *data = reinterpret_cast<const char *>(PyUnicode_1BYTE_DATA(ascii));
    return {data, data + PyUnicode_GET_LENGTH(ascii)};
}

Py_ssize_t length_without(Slice text, Slice unwanted) {
    Py_ssize_t length = text.size();
    while ((text.begin = find(text, unwanted)) != text.end) {
        text.begin += unwanted.size();
        length -= unwanted.size();
    }
    return length;
}

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// Whether a byte outside of ASCII belongs to a character that is white space.
[[gnu::cold]] bool is_rare_white(const char *at) {
    while (is_continuation(*at)) --at;
    const Py_UCS4 character = next_code_point(at);
    return Py_UNICODE_ISSPACE(character) != 0;
}

// Appends a code point in UTF-8.
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

[[gnu::cold]] Text encoded(PyObject *text) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    // A string of wider characters is the buffer: a code point needs twice its own byte in UTF-8,
    // or at most four.
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

inline bool is_white(const char *at) {
    // Hardly any character of a table is a blank or below; as a signed one, all of a rare one are.
    const auto character = static_cast<signed char>(*at);
    if (character > ' ') return false;
    return character < 0 ? is_rare_white(at) : _Py_ascii_whitespace[character] != 0;
}

// A machine word full of one character.
constexpr size_t filled_with(unsigned char character) { return SIZE_MAX / UCHAR_MAX * character; }

// Whether none of a machine word of characters is a blank or below, or outside of ASCII.
inline bool are_plain(size_t characters) {
    const size_t above_blank = characters - filled_with(' ' + 1);
    return ((above_blank | characters) & filled_with(0x80)) == 0;
}

inline size_t machine_word(const char *at) {
    size_t characters = 0;
    std::memcpy(&characters, at, sizeof characters);
    return characters;
}

inline const char *skip_white(const char *at, const char *end) {
    constexpr Py_ssize_t width = sizeof(size_t);
    while (end - at >= width && machine_word(at) == filled_with(' ')) at += width;
    while (at != end && (*at == ' ' || is_white(at))) ++at;
    return at;
}

inline const char *skip_plain(const char *at, const char *end) {
    constexpr Py_ssize_t width = sizeof(size_t);
    while (end - at >= width && are_plain(machine_word(at))) at += width;
    while (at != end && !is_white(at)) ++at;
    return at;
}

}  // namespace

bool is_text(PyObject *object, PyObject *method, PyObject *arguments) {
    if (PyUnicode_Check(object)) return PyUnicode_READY(object) == 0;
    const Ref bound = Ref::steal(PyObject_GetAttr(object, method));
    if (!bound) return false;
    const Ref answer = Ref::steal(PyObject_Call(bound.get(), arguments, nullptr));
    if (!answer) return false;
    const Ref refused = Ref::steal(
        PyObject_CallMethodOneArg(reinterpret_cast<PyObject *>(&PyUnicode_Type), method, object));
    return false;
}

Text open(PyObject *text) {
    if (PyUnicode_IS_ASCII(text)) return {Ref::borrow(text), true, storage_of(text)};
    return encoded(text);
}

Ref replaced(PyObject *text, PyObject *pair) {
    return Ref::steal(
        PyUnicode_Replace(text, PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1), -1));
}

Ref removed(PyObject *text, PyObject *pair) {
    if (!PyUnicode_IS_ASCII(text)) return replaced(text, pair);
    const Slice all = storage_of(text);
    const Slice unwanted = storage_of(PyTuple_GET_ITEM(pair, 0));
    const Py_ssize_t length = length_without(all, unwanted);
    if (length == all.size()) return Ref::borrow(text);
    Ref made = Ref::steal(PyUnicode_New(length, 127));
    if (!made) return made;
    copy_without(all, unwanted, reinterpret_cast<char *>(PyUnicode_1BYTE_DATA(made.get())));
    return made;
}

bool is_space(const char *at) { return is_white(at); }

Slice left_stripped(Slice text) { return {skip_white(text.begin, text.end), text.end}; }

Slice right_stripped(Slice text) {
    while (!text.empty() && is_white(text.end - 1)) --text.end;
    return text;
}

Slice stripped(Slice text) { return right_stripped({skip_white(text.begin, text.end), text.end}); }

const char *find(Slice text, char wanted) {
    const void *found = std::memchr(text.begin, wanted, static_cast<size_t>(text.size()));
    return found ? static_cast<const char *>(found) : text.end;
}

const char *find(Slice text, Slice wanted) {
    const Py_ssize_t last = wanted.size() - 1;
    while (true) {
        text.begin = find(text, *wanted.begin);
        if (text.size() <= last) return text.end;
        // Of what begins alike, little ends alike.
        if (text.begin[last] == wanted.begin[last] && starts_with(text, wanted)) return text.begin;
        ++text.begin;
    }
}

bool Lines::next(Slice &line) {
    if (done_) return false;
    line = {rest_.begin, find(rest_, '\n')};
    done_ = line.end == rest_.end;
    rest_.begin = done_ ? rest_.end : line.end + 1;
    return true;
}

int split(Slice text, Slice *words, int most) {
    int count = 0;
    const char *at = skip_white(text.begin, text.end);
    while (count < most && at != text.end) {
        const char *const end = skip_plain(at, text.end);
        words[count++] = {at, end};
        at = skip_white(end, text.end);
    }
    return count;
}

int split(Slice text, char separator, Slice *fields, int most) {
    int count = 0;
    while (count < most) {
        const char *const end = find(text, separator);
        fields[count++] = {text.begin, end};
        if (end == text.end) break;
        text.begin = end + 1;
    }
    return count;
}

char *copy_without(Slice text, Slice unwanted, char *copy) {
    while (true) {
        const char *found = find(text, unwanted);
        const auto kept = static_cast<size_t>(found - text.begin);
        std::memcpy(copy, text.begin, kept);
        copy += kept;
        if (found == text.end) return copy;
        text.begin = found + unwanted.size();
    }
}

}  // namespace modules_util

// Text, scanned where it lies: what `str.split`, `strip`, `startswith` and `in` would find, as
// slices of the text in UTF-8, with no object made before a value is known.
#pragma once

#include <Python.h>

#include <cstring>

#include "ref.h"

namespace modules_util {

// Part of a text, of whole characters; does not own it.
struct Slice {
    const char *begin = nullptr;
    const char *end = nullptr;

    Slice() = default;
    Slice(const char *first, const char *last) : begin(first), end(last) {}
    template <size_t size>
    explicit Slice(const char (&text)[size]) : begin(text), end(text + size - 1) {}

    [[nodiscard]] Py_ssize_t size() const { return end - begin; }
    [[nodiscard]] bool empty() const { return begin == end; }
};

// The whole of a `str`. What is ASCII, as the output of a command is as a rule, is scanned in the
// string's own storage, anything else in a copy. In the copy a surrogate is encoded like every
// other code point: the interpreter's codecs would call an error handler, which a program may
// replace.
struct Text {
    Ref owner;  // of what `all` is a slice of: the `str`, or an object whose storage holds the copy
    bool ascii;
    Slice all;
};

// True for a `str`, a subclass included, that is ready to be opened. Anything else raises what the
// interpreter raises for `object.method(*arguments)` on it; an object that answers all the same is
// refused by str's own method.
bool is_text(PyObject *object, PyObject *method, PyObject *arguments);

// Opens what `is_text`. No owner: MemoryError.
Text open(PyObject *text);

// text.replace(*pair) of a `str`.
Ref replaced(PyObject *text, PyObject *pair);

// The same for a pair (ASCII, "") of what `is_text`; the text itself if there is nothing to remove.
Ref removed(PyObject *text, PyObject *pair);

// The code point that begins at `at`, which moves behind it.
inline Py_UCS4 next_code_point(const char *&at) {
    const Py_UCS4 lead = static_cast<unsigned char>(*at++);
    if (lead < 0x80U) return lead;
    unsigned rest = 1U + (lead >= 0xE0U) + (lead >= 0xF0U);
    Py_UCS4 character = lead & 0x7FU >> rest;  // the bit left of these is 0
    while (rest-- > 0) {
        character = character << 6U | (static_cast<unsigned char>(*at++) & 0x3FU);
    }
    return character;
}

// Whether the byte at `at` belongs to a character that is white space, as str.isspace has it.
bool is_space(const char *at);

Slice left_stripped(Slice text);
Slice right_stripped(Slice text);
Slice stripped(Slice text);

inline bool starts_with(Slice text, Slice prefix) {
    return text.size() >= prefix.size() &&
           std::memcmp(text.begin, prefix.begin, static_cast<size_t>(prefix.size())) == 0;
}

// The first `wanted`, or the end.
const char *find(Slice text, char wanted);
const char *find(Slice text, Slice wanted);

// Copies the text, but for every `unwanted`, and gives the end of the copy.
char *copy_without(Slice text, Slice unwanted, char *copy);

// The lines of `text.split("\n")`, one after the other. There is always one.
class Lines {
public:
    explicit Lines(Slice text) : rest_(text) {}
    bool next(Slice &line);

private:
    Slice rest_;
    bool done_ = false;
};

// The first words of `text.split()`, or the first fields of `text.split(separator)`: as many as
// there are, and no more than `most`. Gives their number.
int split(Slice text, Slice *words, int most);
int split(Slice text, char separator, Slice *fields, int most);

template <int most>
int split(Slice text, Slice (&words)[most]) {
    return split(text, words, most);
}
template <int most>
int split(Slice text, char separator, Slice (&fields)[most]) {
    return split(text, separator, fields, most);
}

}  // namespace modules_util

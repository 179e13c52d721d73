// Makes strings, and remembers the short ones.
#include "strings.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace modules_util {

namespace {

// Where the characters of an ASCII string lie.
char *characters_of(PyObject *made) {
    return reinterpret_cast<char *>(reinterpret_cast<PyASCIIObject *>(made) + 1);
}

bool is(PyObject *made, Slice text) {
    const Py_ssize_t size = PyUnicode_GET_LENGTH(made);
    return size == text.size() &&
           std::memcmp(characters_of(made), text.begin, static_cast<size_t>(size)) == 0;
}

char *copy(Slice text, char *to) {
    std::memcpy(to, text.begin, static_cast<size_t>(text.size()));
    return to + text.size();
}

[[gnu::cold]] PyObject *decoded(Slice text) {
    Py_ssize_t length = 0;
    Py_UCS4 widest = 0;
    for (const char *at = text.begin; at != text.end; ++length) {
        widest = std::max(widest, next_code_point(at));
    }
    PyObject *made = PyUnicode_New(length, widest);
    if (!made) return nullptr;
    const auto kind = PyUnicode_KIND(made);
    void *const data = PyUnicode_DATA(made);
    const char *at = text.begin;
    for (Py_ssize_t i = 0; i < length; ++i) PyUnicode_WRITE(kind, data, i, next_code_point(at));
    return made;
}

}  // namespace

PyObject *Strings::made(Slice text) const {
    if (!ascii_) return decoded(text);
    PyObject *made = PyUnicode_New(text.size(), 127);
    if (made) copy(text, characters_of(made));
    return made;
}

PyObject *Strings::made_or_repeated(Slice text) {
    if (!ascii_ || text.size() > longest) return made(text);
    Ref &lately = lately_[slot(text)];
    if (!lately || !is(lately.get(), text)) {
        Ref fresh = make(text);
        if (!fresh) return nullptr;
        lately = std::move(fresh);
    }
    return Ref::borrow(lately.get()).release();
}

Ref Strings::join(Slice left, Slice between, Slice right) {
    char joined[longest];
    if (left.size() + between.size() + right.size() <= longest) {
        return make_or_repeat({joined, copy(right, copy(between, copy(left, joined)))});
    }
    const Ref first = make(left);
    if (!first) return {};
    const Ref second = make(right);
    if (!second) return {};
    return Ref::steal(PyUnicode_FromFormat("%U%s%U", first.get(), between.begin, second.get()));
}

// Of the length and the ends: what differs in a table differs there.
size_t Strings::slot(Slice text) {
    uint32_t first = 0;
    uint32_t last = 0;
    if (text.size() >= static_cast<Py_ssize_t>(sizeof last)) {
        std::memcpy(&first, text.begin, sizeof first);
        std::memcpy(&last, text.end - sizeof last, sizeof last);
    } else {
        for (const char *at = text.begin; at != text.end; ++at) {
            first = first * 256 + static_cast<unsigned char>(*at);
        }
    }
    const auto size = static_cast<uint32_t>(text.size());
    const uint32_t mixed = ((first * 31 + last) * 31 + size) * 0x165667B1;
    return mixed / (UINT32_MAX / slots + 1);
}

}  // namespace modules_util

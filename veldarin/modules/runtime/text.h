// Text, scanned where it lies: what `str.split`, `strip`, `startswith` and `in` would find, as
// slices of the string's own storage, with no object made before a value is known. One template
// serves every storage: `char` is ASCII, the others are the interpreter's one, two and four byte
// characters.
#pragma once

#include <Python.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "ref.h"

namespace modules_util {

// Part of a text; does not own it.
template <typename Char>
struct Slice {
    using Character = Char;

    const Char *begin = nullptr;
    const Char *end = nullptr;

    [[nodiscard]] Py_ssize_t size() const { return end - begin; }
    [[nodiscard]] bool empty() const { return begin == end; }
};

// str.isspace of one character.
template <typename Char>
bool is_space(Char character) {
    return Py_UNICODE_ISSPACE(static_cast<Py_UCS4>(character)) != 0;
}
inline bool is_space(char character) {
    // Hardly any character of a table is a blank or below.
    return character <= ' ' && _Py_ascii_whitespace[static_cast<unsigned char>(character)] != 0;
}

// The first `wanted`, or the end.
template <typename Char>
const Char *find(Slice<Char> text, char wanted) {
    if constexpr (sizeof(Char) == 1) {
        const void *found = std::memchr(text.begin, wanted, static_cast<size_t>(text.size()));
        return found ? static_cast<const Char *>(found) : text.end;
    } else {
        const Char *at = text.begin;
        while (at != text.end && *at != static_cast<Char>(wanted)) ++at;
        return at;
    }
}

template <typename Char, size_t size>
bool starts_with(Slice<Char> text, const char (&prefix)[size]) {
    constexpr size_t length = size - 1;
    if (text.size() < static_cast<Py_ssize_t>(length)) return false;
    for (size_t i = 0; i < length; ++i) {
        if (text.begin[i] != static_cast<Char>(prefix[i])) return false;
    }
    return true;
}

// The first `wanted`, or the end.
template <typename Char, size_t size>
const Char *search(Slice<Char> text, const char (&wanted)[size]) {
    while (true) {
        text.begin = find(text, wanted[0]);
        if (text.empty() || starts_with(text, wanted)) return text.begin;
        ++text.begin;
    }
}

// `wanted in text`
template <typename Char, size_t size>
bool contains(Slice<Char> text, const char (&wanted)[size]) {
    return search(text, wanted) != text.end;
}

template <typename Char>
Slice<Char> left_stripped(Slice<Char> text) {
    while (!text.empty() && is_space(*text.begin)) ++text.begin;
    return text;
}

template <typename Char>
Slice<Char> right_stripped(Slice<Char> text) {
    while (!text.empty() && is_space(text.end[-1])) --text.end;
    return text;
}

template <typename Char>
Slice<Char> stripped(Slice<Char> text) {
    return right_stripped(left_stripped(text));
}

// The fields of `text.split(separator)`, one after the other. There is always one.
template <typename Char>
class Fields {
public:
    Fields(Slice<Char> text, char separator) : rest_(text), separator_(separator) {}

    bool next(Slice<Char> &field) {
        if (done_) return false;
        field = {rest_.begin, find(rest_, separator_)};
        done_ = field.end == rest_.end;
        rest_.begin = done_ ? rest_.end : field.end + 1;
        return true;
    }

private:
    Slice<Char> rest_;
    char separator_;
    bool done_ = false;
};

// The words of `text.split()`, one after the other. There may be none.
template <typename Char>
class Words {
public:
    explicit Words(Slice<Char> text) : rest_(text) {}

    bool next(Slice<Char> &word) {
        const Slice<Char> rest = left_stripped(rest_);
        if (rest.empty()) return false;
        const Char *end = rest.begin;
        while (end != rest.end && !is_space(*end)) ++end;
        word = {rest.begin, end};
        rest_.begin = end;
        return true;
    }

private:
    Slice<Char> rest_;
};

// Element `index` of a split; false where a list would raise IndexError.
template <typename Parts, typename Char>
bool element(Parts parts, int index, Slice<Char> &part) {
    for (int i = 0; i <= index; ++i) {
        if (!parts.next(part)) return false;
    }
    return true;
}

// A new `str` of a slice; null with MemoryError.
template <typename Char>
Ref to_str(Slice<Char> text) {
    return Ref::steal(PyUnicode_FromKindAndData(sizeof(Char), text.begin, text.size()));
}
inline Ref to_str(Slice<char> text) {
    Ref made = Ref::steal(PyUnicode_New(text.size(), 127));
    if (made && !text.empty()) {
        std::memcpy(PyUnicode_1BYTE_DATA(made.get()), text.begin, static_cast<size_t>(text.size()));
    }
    return made;
}

// Makes strings, and gives the same object again for a short ASCII text that it has made lately:
// values repeat within a table. Null with MemoryError.
template <typename Char>
class Pool {
public:
    Ref to_str(Slice<Char> text) { return modules_util::to_str(text); }
};

template <>
class Pool<char> {
public:
    static constexpr Py_ssize_t longest = 64;

    Ref to_str(Slice<char> text) {
        return text.size() <= longest ? short_str(text) : modules_util::to_str(text);
    }

    // The same of a text that is not longer than `longest`.
    Ref short_str(Slice<char> text) {
        Ref &made = made_[slot(text)];
        if (!made || !is(made.get(), text)) {
            Ref fresh = modules_util::to_str(text);
            if (!fresh) return fresh;
            made = std::move(fresh);
        }
        return Ref::borrow(made.get());
    }

private:
    static constexpr size_t slots = 256;
    static constexpr Py_ssize_t word = sizeof(uint64_t);

    // Of the length and the ends: what differs in a table differs there.
    static size_t slot(Slice<char> text) {
        uint64_t first = 0;
        uint64_t last = 0;
        if (text.size() >= word) {
            std::memcpy(&first, text.begin, word);
            std::memcpy(&last, text.end - word, word);
        } else {
            for (const char *at = text.begin; at != text.end; ++at) {
                first = first * 256 + static_cast<unsigned char>(*at);
            }
        }
        const uint64_t mixed = (first ^ last * 31) * 0x9E3779B97F4A7C15;
        return static_cast<size_t>(mixed / (UINT64_MAX / slots + 1));
    }

    static bool is(PyObject *made, Slice<char> text) {
        return PyUnicode_GET_LENGTH(made) == text.size() &&
               std::memcmp(PyUnicode_1BYTE_DATA(made), text.begin,
                           static_cast<size_t>(text.size())) == 0;
    }

    Ref made_[slots];
};

// Texts of the command line are ASCII as a rule: code for the others is made small.
template <typename Look, typename Char>
[[gnu::cold, gnu::noinline]] auto look_at_rarity(Look &look, Slice<Char> text) {
    return look(text);
}

// Calls `look` with the whole text, which `is_text`, as a slice of its own storage.
template <typename Look>
auto scan(PyObject *text, Look &&look) {
    const void *data = PyUnicode_DATA(text);
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    const auto slice = [data, length](auto character) {
        const auto *begin = static_cast<const decltype(character) *>(data);
        return Slice<decltype(character)>{begin, begin + length};
    };
    if (PyUnicode_IS_ASCII(text)) return look(slice(char{}));
    switch (PyUnicode_KIND(text)) {
        case PyUnicode_1BYTE_KIND: return look_at_rarity(look, slice(Py_UCS1{}));
        case PyUnicode_2BYTE_KIND: return look_at_rarity(look, slice(Py_UCS2{}));
        default: return look_at_rarity(look, slice(Py_UCS4{}));
    }
}

// text.replace(*pair) of a `str`.
Ref replaced(PyObject *text, PyObject *pair);

// Copies the text, but for every `unwanted`, and gives the end of the copy. Without a copy (null)
// only the length counts.
template <typename Char, size_t size>
Py_ssize_t copy_without(Slice<Char> text, const char (&unwanted)[size], Char *copy) {
    Py_ssize_t length = 0;
    while (true) {
        const Char *found = search(text, unwanted);
        const Py_ssize_t kept = found - text.begin;
        if (copy) std::memcpy(copy + length, text.begin, static_cast<size_t>(kept) * sizeof(Char));
        length += kept;
        if (found == text.end) return length;
        text.begin = found + size - 1;
    }
}

// text.replace(unwanted, "") of what `is_text`; the text itself if there is nothing to remove.
template <size_t size>
Ref without(PyObject *text, const char (&unwanted)[size]) {
    const auto remove = [text, &unwanted](auto slice) -> PyObject * {
        using Char = std::remove_const_t<std::remove_pointer_t<decltype(slice.begin)>>;
        const Py_ssize_t length = copy_without(slice, unwanted, static_cast<Char *>(nullptr));
        if (length == slice.size()) return Ref::borrow(text).release();
        Ref made = Ref::steal(PyUnicode_New(length, PyUnicode_MAX_CHAR_VALUE(text)));
        if (!made) return nullptr;
        copy_without(slice, unwanted, static_cast<Char *>(PyUnicode_DATA(made.get())));
        return made.release();
    };
    return Ref::steal(scan(text, remove));
}

// "{left}{between}{right}"
template <typename Char>
Ref joined(Slice<Char> left, const char *between, Slice<Char> right) {
    const Ref first = to_str(left);
    if (!first) return {};
    const Ref second = to_str(right);
    if (!second) return {};
    return Ref::steal(PyUnicode_FromFormat("%U%s%U", first.get(), between, second.get()));
}

// True for a `str`, a subclass included, that is ready to be scanned. Anything else raises what the
// interpreter raises for `object.method(*arguments)` on it; an object that answers all the same is
// refused by str's own method.
bool is_text(PyObject *object, PyObject *method, PyObject *arguments);

}  // namespace modules_util

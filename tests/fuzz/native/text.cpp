// The text layer's scanning under libFuzzer, and in the tests, over storage that ends where the
// text ends: a `str` has a NUL behind it, which would hide a step too far. It needs the
// interpreter's tables of characters, and no interpreter; what makes objects (Pool, to_str, scan)
// is under the other target.
//
// The first byte of an input is the width of a character, the second what is searched for. What is
// found is held against what defines it, not against another way to find it.
#include <Python.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "veldarin/modules/runtime/text.h"

namespace {

using namespace modules_util;

void require(bool holds, const char *what, int line) {
    if (holds) return;
    std::fprintf(stderr, "ERROR: does not hold, in line %d: %s\n", line, what);
    std::abort();
}
#define REQUIRE(...) require((__VA_ARGS__), #__VA_ARGS__, __LINE__)

// A wide character is a blank beyond Latin-1, or has a low byte that means something.
template <typename Char>
Char character(uint8_t byte) {
    if constexpr (sizeof(Char) == 1) return static_cast<Char>(byte);
    if (byte < 0x80) return byte;
    const auto wide = byte & 0x40 ? 0x2000 | (byte & 0x3f) : 0x100 | (byte & 0x3f);
    return static_cast<Char>(sizeof(Char) == 4 && (byte & 0x20) ? wide | 0x10000 : wide);
}
template <>
char character<char>(uint8_t byte) {
    return static_cast<char>(byte & 0x7f);
}

template <typename Char>
bool blank(Char each) {
    return Py_UNICODE_ISSPACE(static_cast<Py_UCS4>(each)) != 0;
}

template <typename Char, size_t size>
bool at(Slice<Char> text, const Char *place, const char (&word)[size]) {
    return text.end - place >= static_cast<Py_ssize_t>(size - 1) &&
           std::equal(word, word + size - 1, place, [](char expected, Char found) {
               return found == static_cast<Char>(expected);
           });
}

template <typename Char, size_t size>
const Char *first(Slice<Char> text, const char (&word)[size]) {
    const Char *place = text.begin;
    while (place != text.end && !at(text, place, word)) ++place;
    return place;
}

template <typename Char, size_t size>
void check_word(Slice<Char> text, const char (&word)[size]) {
    const Char *found = first(text, word);
    REQUIRE(search(text, word) == found);
    REQUIRE(contains(text, word) == (found != text.end));
    REQUIRE(starts_with(text, word) == at(text, text.begin, word));

    std::vector<Char> left;
    for (Slice<Char> rest = text; !rest.empty();) {
        const bool skipped = at(rest, rest.begin, word);
        if (!skipped) left.push_back(*rest.begin);
        rest.begin += skipped ? size - 1 : 1;
    }
    const auto length = static_cast<Py_ssize_t>(left.size());
    std::vector<Char> copy(left.size());
    REQUIRE(copy_without(text, word, static_cast<Char *>(nullptr)) == length);
    if (copy.empty()) return;
    REQUIRE(copy_without(text, word, copy.data()) == length && copy == left);
}

// The fields and the separators between them are the text, and no field has a separator.
template <typename Char>
void check_fields(Slice<Char> text, char separator) {
    Fields<Char> fields(text, separator);
    Slice<Char> field;
    const Char *expected = text.begin;
    int count = 0;
    for (; fields.next(field); ++count) {
        REQUIRE(field.begin == expected && field.begin <= field.end && field.end <= text.end);
        REQUIRE(find(field, separator) == field.end);
        const Char wanted = static_cast<Char>(separator);
        REQUIRE(std::find(field.begin, field.end, wanted) == field.end);
        if (field.end != text.end) REQUIRE(*field.end == wanted);
        expected = field.end == text.end ? text.end : field.end + 1;
        Slice<Char> again;
        REQUIRE(element(Fields<Char>(text, separator), count, again));
        REQUIRE(again.begin == field.begin && again.end == field.end);
    }
    const auto separators = std::count(text.begin, text.end, static_cast<Char>(separator));
    REQUIRE(count == separators + 1 && !element(Fields<Char>(text, separator), count, field));
}

// Words are not blank, and what lies around and between them is.
template <typename Char>
void check_words(Slice<Char> text) {
    Words<Char> words(text);
    Slice<Char> word;
    const Char *expected = text.begin;
    while (words.next(word)) {
        REQUIRE(!word.empty() && word.end <= text.end);
        REQUIRE(expected == text.begin || word.begin != expected);
        REQUIRE(std::all_of(expected, word.begin, blank<Char>));
        REQUIRE(std::none_of(word.begin, word.end, blank<Char>));
        expected = word.end;
    }
    REQUIRE(std::all_of(expected, text.end, blank<Char>));
}

template <typename Char>
void check_stripped(Slice<Char> text) {
    const Slice<Char> left = left_stripped(text);
    const Slice<Char> right = right_stripped(text);
    const Slice<Char> both = stripped(text);
    REQUIRE(left.end == text.end && right.begin == text.begin);
    REQUIRE(std::all_of(text.begin, left.begin, blank<Char>));
    REQUIRE(std::all_of(right.end, text.end, blank<Char>));
    REQUIRE(left.empty() || !blank(*left.begin));
    REQUIRE(right.empty() || !blank(right.end[-1]));
    REQUIRE(both.begin == left.begin && both.end == (left.empty() ? left.end : right.end));
}

template <typename Char>
void check(uint8_t choice, const uint8_t *data, size_t size) {
    const std::unique_ptr<Char[]> storage(new Char[size]);
    std::transform(data, data + size, storage.get(), character<Char>);
    const Slice<Char> text{storage.get(), storage.get() + size};

    check_fields(text, "\n:, "[choice % 4]);
    check_words(text);
    check_stripped(text);
    check_word(text, "packets");
    check_word(text, "--More--");
    check_word(text, "\t");
    check_word(text, "aab");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    switch (data[0] % 4) {
        case 0: check<char>(data[1], data + 2, size - 2); break;
        case 1: check<Py_UCS1>(data[1], data + 2, size - 2); break;
        case 2: check<Py_UCS2>(data[1], data + 2, size - 2); break;
        default: check<Py_UCS4>(data[1], data + 2, size - 2); break;
    }
    return 0;
}

// Scans UTF-8 text in place: what `str.split`, `strip`, `startswith` and `in` would find, as views
// of the text. A parser creates an object only once it knows a value. Needs no interpreter.
#pragma once

#include <cstddef>
#include <cstring>

namespace modules_util {

// Part of a text: whole characters, not owned.
struct TextView {
    const char *begin = nullptr;
    const char *end = nullptr;

    TextView() = default;
    TextView(const char *first, const char *last) : begin(first), end(last) {}
    template <size_t size>
    explicit TextView(const char (&text)[size]) : begin(text), end(text + size - 1) {}

    [[nodiscard]] ptrdiff_t size() const { return end - begin; }
    [[nodiscard]] bool empty() const { return begin == end; }
};

// Decodes the code point at `at` and moves `at` past it. Decodes a surrogate like any other.
inline char32_t next_code_point(const char *&at) {
    const char32_t lead = static_cast<unsigned char>(*at++);
    if (lead < 0x80U) return lead;
    unsigned rest = 1U + (lead >= 0xE0U) + (lead >= 0xF0U);
    char32_t character = lead & 0x7FU >> rest;  // the highest of these bits is 0 in valid UTF-8
    while (rest-- > 0) {
        character = character << 6U | (static_cast<unsigned char>(*at++) & 0x3FU);
    }
    return character;
}

// Whether the byte at `at` belongs to a character that is white space by `str.isspace`.
bool is_space(const char *at);

TextView left_stripped(TextView text);
TextView right_stripped(TextView text);
TextView stripped(TextView text);

inline bool starts_with(TextView text, TextView prefix) {
    return text.size() >= prefix.size() &&
           std::memcmp(text.begin, prefix.begin, static_cast<size_t>(prefix.size())) == 0;
}

// Return the first occurrence, or the end of the text.
const char *find(TextView text, char wanted);
const char *find(TextView text, TextView wanted);

// Copies the text without any `unwanted` and returns the end of the copy.
char *copy_without(TextView text, TextView unwanted, char *copy);

// Reads the lines of `text.split("\n")` one by one. An empty text has one line.
class LineReader {
public:
    explicit LineReader(TextView text) : rest_(text) {}
    bool next(TextView &line);

private:
    TextView rest_;
    bool done_ = false;
};

// Stores the first words of `text.split()`, or the first fields of `text.split(separator)`, and
// returns how many it has stored: at most `max_fields`.
int split(TextView text, TextView *words, int max_fields);
int split(TextView text, char separator, TextView *fields, int max_fields);

template <int max_fields>
int split(TextView text, TextView (&words)[max_fields]) {
    return split(text, words, max_fields);
}
template <int max_fields>
int split(TextView text, char separator, TextView (&fields)[max_fields]) {
    return split(text, separator, fields, max_fields);
}

}  // namespace modules_util

// The text layer's scanning under libFuzzer, and in the tests, over storage that ends where the
// text ends: a `str` has a NUL behind it, which would hide a step too far. It needs the
// interpreter's tables of characters, and no interpreter; what makes objects (Strings, open,
// removed) is under the other target.
//
// The first byte of an input is how wide its characters are, the second what is searched for. What
// is found is held against what defines it, not against another way to find it.
#include <Python.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
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

// ASCII, Latin-1, and wider characters: those are a blank, or have a low byte that means something,
// or are a surrogate.
Py_UCS4 character(int width, uint8_t byte) {
    if (width == 0) return byte & 0x7fU;
    if (width == 1 || byte < 0x80) return byte;
    const Py_UCS4 wide = byte & 0x40 ? 0x2000U | (byte & 0x3fU) : 0x100U | (byte & 0x3fU);
    if (width == 3 && (byte & 0x20)) return wide | 0x10000;
    return byte == 0x9f ? 0xd800 : wide;
}

std::string encoded(Py_UCS4 each) {
    const auto last = [](Py_UCS4 bits) { return static_cast<char>(0x80 | (bits & 0x3f)); };
    const auto lead = [](Py_UCS4 mark, Py_UCS4 bits) { return static_cast<char>(mark | bits); };
    if (each < 0x80) return {lead(0, each)};
    if (each < 0x800) return {lead(0xc0, each >> 6), last(each)};
    if (each < 0x10000) return {lead(0xe0, each >> 12), last(each >> 6), last(each)};
    return {lead(0xf0, each >> 18), last(each >> 12), last(each >> 6), last(each)};
}

// The text by its characters: where each begins, and whether it is white space.
struct Sample {
    std::unique_ptr<char[]> storage;
    Slice text;
    std::vector<const char *> begins;  // and the end of the text
    std::vector<bool> blank;           // of every byte

    Sample(int width, const uint8_t *data, size_t size) {
        std::string bytes;
        std::vector<size_t> places;
        for (size_t i = 0; i < size; ++i) {
            const Py_UCS4 each = character(width, data[i]);
            places.push_back(bytes.size());
            bytes += encoded(each);
            blank.resize(bytes.size(), Py_UNICODE_ISSPACE(each) != 0);
        }
        storage.reset(new char[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), storage.get());
        text = Slice(storage.get(), storage.get() + bytes.size());
        for (const size_t place : places) begins.push_back(text.begin + place);
        begins.push_back(text.end);
    }

    [[nodiscard]] bool is_blank(const char *at) const {
        return blank[static_cast<size_t>(at - text.begin)];
    }
    [[nodiscard]] bool are(bool blanks, const char *begin, const char *end) const {
        for (; begin != end; ++begin) {
            if (is_blank(begin) != blanks) return false;
        }
        return true;
    }
    [[nodiscard]] bool is_whole(Slice part) const {
        const auto begins_at = [this](const char *at) {
            return std::find(begins.begin(), begins.end(), at) != begins.end();
        };
        return part.begin <= part.end && begins_at(part.begin) && begins_at(part.end);
    }
};

bool same(Slice one, Slice other) { return one.begin == other.begin && one.end == other.end; }

bool at(Slice text, const char *place, Slice word) {
    return text.end - place >= word.size() && std::equal(word.begin, word.end, place);
}

void check_word(Slice text, Slice word) {
    const char *place = text.begin;
    while (place != text.end && !at(text, place, word)) ++place;
    REQUIRE(find(text, word) == place);
    REQUIRE(starts_with(text, word) == at(text, text.begin, word));

    std::vector<char> left;
    for (Slice rest = text; !rest.empty();) {
        const bool skipped = at(rest, rest.begin, word);
        if (!skipped) left.push_back(*rest.begin);
        rest.begin += skipped ? word.size() : 1;
    }
    const std::unique_ptr<char[]> copy(new char[left.size()]);
    const char *end = copy_without(text, word, copy.get());
    REQUIRE(end == copy.get() + left.size() && std::equal(left.begin(), left.end(), copy.get()));
}

// The fields and the separators between them are the text, and no field has a separator.
void check_fields(Slice text, char separator) {
    const auto expected = 1 + std::count(text.begin, text.end, separator);
    std::vector<Slice> fields(static_cast<size_t>(expected) + 1);
    REQUIRE(split(text, separator, fields.data(), static_cast<int>(expected) + 1) == expected);
    const char *begin = text.begin;
    Lines lines(text);
    for (int i = 0; i < expected; ++i) {
        const Slice &field = fields[static_cast<size_t>(i)];
        REQUIRE(field.begin == begin && field.begin <= field.end && field.end <= text.end);
        REQUIRE(find(field, separator) == field.end);
        REQUIRE(std::find(field.begin, field.end, separator) == field.end);
        REQUIRE((field.end == text.end) == (i == expected - 1));
        begin = field.end + 1;
        Slice line;
        if (separator == '\n') REQUIRE(lines.next(line) && same(line, field));
    }
    Slice none;
    if (separator == '\n') REQUIRE(!lines.next(none));

    Slice first[2];
    REQUIRE(split(text, separator, first) == std::min<Py_ssize_t>(expected, 2));
    REQUIRE(same(first[0], fields[0]) && (expected == 1 || same(first[1], fields[1])));
}

// Words are not blank, and what lies around and between them is.
void check_words(const Sample &sample) {
    const Slice text = sample.text;
    std::vector<Slice> words(sample.begins.size());
    const int count = split(text, words.data(), static_cast<int>(words.size()));
    const char *expected = text.begin;
    for (int i = 0; i < count; ++i) {
        const Slice &word = words[static_cast<size_t>(i)];
        REQUIRE(sample.is_whole(word) && !word.empty());
        REQUIRE(expected == text.begin || word.begin != expected);
        REQUIRE(sample.are(true, expected, word.begin) && sample.are(false, word.begin, word.end));
        expected = word.end;
    }
    REQUIRE(sample.are(true, expected, text.end));

    Slice first[2];
    REQUIRE(split(text, first) == std::min(count, 2));
    for (int i = 0; i < std::min(count, 2); ++i) {
        REQUIRE(same(first[i], words[static_cast<size_t>(i)]));
    }
}

void check_stripped(const Sample &sample) {
    const Slice text = sample.text;
    const Slice left = left_stripped(text);
    const Slice right = right_stripped(text);
    const Slice both = stripped(text);
    REQUIRE(left.end == text.end && right.begin == text.begin);
    REQUIRE(sample.is_whole(left) && sample.is_whole(right));
    REQUIRE(sample.are(true, text.begin, left.begin) && sample.are(true, right.end, text.end));
    REQUIRE(left.empty() || !sample.is_blank(left.begin));
    REQUIRE(right.empty() || !sample.is_blank(right.end - 1));
    REQUIRE(both.begin == left.begin && both.end == (left.empty() ? left.end : right.end));
    for (const char *at = text.begin; at != text.end; ++at) {
        REQUIRE(is_space(at) == sample.is_blank(at));
    }
}

void check(int width, uint8_t choice, const uint8_t *data, size_t size) {
    const Sample sample(width, data, size);
    check_fields(sample.text, "\n:, "[choice % 4]);
    check_words(sample);
    check_stripped(sample);
    check_word(sample.text, Slice("packets"));
    check_word(sample.text, Slice("--More--"));
    check_word(sample.text, Slice("\t"));
    check_word(sample.text, Slice("aab"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= 2) check(data[0] % 4, data[1], data + 2, size - 2);
    return 0;
}

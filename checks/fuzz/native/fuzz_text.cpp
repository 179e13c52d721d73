// The text target: the scanning functions on heap blocks that end where the text ends. A `str` has
// a trailing NUL, which would hide an overread. The target needs no interpreter; the parser target
// covers the functions that create objects.
//
// The first byte of an input selects the width of the characters, the second the separator. The
// checks compare results with their definitions, not with another implementation.
#include "veldarin/modules/text/scan.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace modules_util;

void require(bool condition, const char *text, int line) {
    if (condition) return;
    std::fprintf(stderr, "ERROR: line %d: expected %s\n", line, text);
    std::abort();
}
#define REQUIRE(...) require((__VA_ARGS__), #__VA_ARGS__, __LINE__)

// White space by `str.isspace`.
constexpr std::u32string_view white_space =
    U"\t\n\v\f\r\x1c\x1d\x1e\x1f \x85\xa0\u1680\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007"
    U"\u2008\u2009\u200a\u2028\u2029\u202f\u205f\u3000";

// Maps a byte to ASCII, Latin-1 or a wider character: a space, a character whose low byte is a
// separator, or a surrogate.
char32_t character(int width, uint8_t byte) {
    if (width == 0) return byte & 0x7fU;
    if (width == 1 || byte < 0x80) return byte;
    const char32_t wide = byte & 0x40 ? 0x2000U | (byte & 0x3fU) : 0x100U | (byte & 0x3fU);
    if (width == 3 && (byte & 0x20)) return wide | 0x10000;
    return byte == 0x9f ? 0xd800 : wide;
}

std::string encode(char32_t each) {
    const auto last = [](char32_t bits) { return static_cast<char>(0x80 | (bits & 0x3f)); };
    const auto lead = [](char32_t mark, char32_t bits) { return static_cast<char>(mark | bits); };
    if (each < 0x80) return {lead(0, each)};
    if (each < 0x800) return {lead(0xc0, each >> 6), last(each)};
    if (each < 0x10000) return {lead(0xe0, each >> 12), last(each >> 6), last(each)};
    return {lead(0xf0, each >> 18), last(each >> 12), last(each >> 6), last(each)};
}

// A text with the start of each character and whether it is a space.
struct Sample {
    std::unique_ptr<char[]> storage;
    TextView text;
    std::vector<const char *> begins;  // and the end of the text
    std::vector<bool> spaces;          // for every byte

    Sample(int width, const uint8_t *data, size_t size) {
        std::string bytes;
        std::vector<size_t> places;
        for (size_t i = 0; i < size; ++i) {
            const char32_t each = character(width, data[i]);
            places.push_back(bytes.size());
            bytes += encode(each);
            spaces.resize(bytes.size(), white_space.find(each) != white_space.npos);
        }
        storage.reset(new char[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), storage.get());
        text = TextView(storage.get(), storage.get() + bytes.size());
        for (const size_t place : places) begins.push_back(text.begin + place);
        begins.push_back(text.end);
    }

    [[nodiscard]] bool is_space_at(const char *at) const {
        return spaces[static_cast<size_t>(at - text.begin)];
    }
    [[nodiscard]] bool all_spaces(bool expected, const char *begin, const char *end) const {
        for (; begin != end; ++begin) {
            if (is_space_at(begin) != expected) return false;
        }
        return true;
    }
    [[nodiscard]] bool has_whole_characters(TextView part) const {
        const auto begins_at = [this](const char *at) {
            return std::find(begins.begin(), begins.end(), at) != begins.end();
        };
        return part.begin <= part.end && begins_at(part.begin) && begins_at(part.end);
    }
};

bool same(TextView one, TextView other) { return one.begin == other.begin && one.end == other.end; }

bool at(TextView text, const char *place, TextView word) {
    return text.end - place >= word.size() && std::equal(word.begin, word.end, place);
}

void check_word(TextView text, TextView word) {
    const char *place = text.begin;
    while (place != text.end && !at(text, place, word)) ++place;
    REQUIRE(find(text, word) == place);
    REQUIRE(starts_with(text, word) == at(text, text.begin, word));

    std::vector<char> remaining;
    for (TextView rest = text; !rest.empty();) {
        const bool skipped = at(rest, rest.begin, word);
        if (!skipped) remaining.push_back(*rest.begin);
        rest.begin += skipped ? word.size() : 1;
    }
    const std::unique_ptr<char[]> copy(new char[remaining.size()]);
    const char *end = copy_without(text, word, copy.get());
    REQUIRE(end == copy.get() + remaining.size() &&
            std::equal(remaining.begin(), remaining.end(), copy.get()));
}

// The fields and the separators between them make up the text; no field contains a separator.
void check_fields(TextView text, char separator) {
    const auto expected = 1 + std::count(text.begin, text.end, separator);
    std::vector<TextView> fields(static_cast<size_t>(expected) + 1);
    REQUIRE(split(text, separator, fields.data(), static_cast<int>(expected) + 1) == expected);
    const char *begin = text.begin;
    LineReader lines(text);
    for (int i = 0; i < expected; ++i) {
        const TextView &field = fields[static_cast<size_t>(i)];
        REQUIRE(field.begin == begin && field.begin <= field.end && field.end <= text.end);
        REQUIRE(find(field, separator) == field.end);
        REQUIRE(std::find(field.begin, field.end, separator) == field.end);
        REQUIRE((field.end == text.end) == (i == expected - 1));
        begin = field.end + 1;
        TextView line;
        if (separator == '\n') REQUIRE(lines.next(line) && same(line, field));
    }
    TextView none;
    if (separator == '\n') REQUIRE(!lines.next(none));

    TextView first[2];
    REQUIRE(split(text, separator, first) == std::min<ptrdiff_t>(expected, 2));
    REQUIRE(same(first[0], fields[0]) && (expected == 1 || same(first[1], fields[1])));
}

// Words contain no spaces; everything around and between them is spaces.
void check_words(const Sample &sample) {
    const TextView text = sample.text;
    std::vector<TextView> words(sample.begins.size());
    const int count = split(text, words.data(), static_cast<int>(words.size()));
    const char *expected = text.begin;
    for (int i = 0; i < count; ++i) {
        const TextView &word = words[static_cast<size_t>(i)];
        REQUIRE(sample.has_whole_characters(word) && !word.empty());
        REQUIRE(expected == text.begin || word.begin != expected);
        REQUIRE(sample.all_spaces(true, expected, word.begin) &&
                sample.all_spaces(false, word.begin, word.end));
        expected = word.end;
    }
    REQUIRE(sample.all_spaces(true, expected, text.end));

    TextView first[2];
    REQUIRE(split(text, first) == std::min(count, 2));
    for (int i = 0; i < std::min(count, 2); ++i) {
        REQUIRE(same(first[i], words[static_cast<size_t>(i)]));
    }
}

void check_stripped(const Sample &sample) {
    const TextView text = sample.text;
    const TextView left = left_stripped(text);
    const TextView right = right_stripped(text);
    const TextView both = stripped(text);
    REQUIRE(left.end == text.end && right.begin == text.begin);
    REQUIRE(sample.has_whole_characters(left) && sample.has_whole_characters(right));
    REQUIRE(sample.all_spaces(true, text.begin, left.begin) &&
            sample.all_spaces(true, right.end, text.end));
    REQUIRE(left.empty() || !sample.is_space_at(left.begin));
    REQUIRE(right.empty() || !sample.is_space_at(right.end - 1));
    REQUIRE(both.begin == left.begin && both.end == (left.empty() ? left.end : right.end));
    for (const char *at = text.begin; at != text.end; ++at) {
        REQUIRE(is_space(at) == sample.is_space_at(at));
    }
}

void check(int width, uint8_t choice, const uint8_t *data, size_t size) {
    const Sample sample(width, data, size);
    check_fields(sample.text, "\n:, "[choice % 4]);
    check_words(sample);
    check_stripped(sample);
    check_word(sample.text, TextView("packets"));
    check_word(sample.text, TextView("--More--"));
    check_word(sample.text, TextView("\t"));
    check_word(sample.text, TextView("aab"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= 2) check(data[0] % 4, data[1], data + 2, size - 2);
    return 0;
}

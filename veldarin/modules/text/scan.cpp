// Scans UTF-8 text. The parsers spend nearly all of their time per character here.
#include "veldarin/modules/text/scan.h"

#include <climits>
#include <cstdint>

namespace modules_util {

namespace {

struct CodePointRange {
    char32_t first, last;
};

// White space outside ASCII, in ascending order.
constexpr CodePointRange unicode_spaces[] = {
    {0x0085, 0x0085},
    {0x00A0, 0x00A0},
    {0x1680, 0x1680},
    {0x2000, 0x200A},
    {0x2028, 0x2029},
    {0x202F, 0x202F},
    {0x205F, 0x205F},
    {0x3000, 0x3000},
};

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// Whether a non-ASCII byte belongs to a character that is white space.
[[gnu::cold]] bool is_unicode_space(const char *at) {
    while (is_continuation(*at)) --at;
    const char32_t character = next_code_point(at);
    for (const CodePointRange &range : unicode_spaces) {
        if (character <= range.last) return character >= range.first;
    }
    return false;
}

inline bool is_space_inline(const char *at) {
    // Fast path: most characters are above ' '. Read as signed char, non-ASCII bytes are negative,
    // so one comparison filters both.
    const auto byte = static_cast<signed char>(*at);
    if (byte > ' ') return false;
    if (byte >= '\x1C') return true;  // ' ' and the four separators below it
    return byte < 0 ? is_unicode_space(at) : byte >= '\t' && byte <= '\r';
}

// A machine word with the same byte everywhere.
constexpr size_t repeat_byte(unsigned char byte) { return SIZE_MAX / UCHAR_MAX * byte; }

inline size_t load_word(const char *at) {
    size_t bytes = 0;
    std::memcpy(&bytes, at, sizeof bytes);
    return bytes;
}

// True only if all bytes of a machine word are ASCII characters above ' '.
inline bool has_no_space(size_t bytes) {
    const size_t above_space = bytes - repeat_byte(' ' + 1);
    return ((above_space | bytes) & repeat_byte(0x80)) == 0;
}

inline const char *skip_space(const char *at, const char *end) {
    constexpr ptrdiff_t width = sizeof(size_t);
    while (end - at >= width && load_word(at) == repeat_byte(' ')) at += width;
    while (at != end && (*at == ' ' || is_space_inline(at))) ++at;
    return at;
}

inline const char *skip_nonspace(const char *at, const char *end) {
    constexpr ptrdiff_t width = sizeof(size_t);
    while (end - at >= width && has_no_space(load_word(at))) at += width;
    while (at != end && !is_space_inline(at)) ++at;
    return at;
}

// Whether `wanted` is at `at`. Compares its last byte first: a cheap filter before memcmp.
inline bool is_at(const char *at, TextView wanted) {
    const ptrdiff_t last = wanted.size() - 1;
    return at[last] == wanted.begin[last] &&
           std::memcmp(at, wanted.begin, static_cast<size_t>(last)) == 0;
}

#if UINTPTR_MAX <= UINT32_MAX
// Skips as many bytes as `wanted` has, if the last of them does not occur in it.
const char *find_by_skipping(TextView text, TextView wanted) {
    const auto bit = [](char byte) { return 1U << (static_cast<unsigned char>(byte) & 31U); };
    unsigned bits = 0;
    for (const char *at = wanted.begin; at != wanted.end; ++at) bits |= bit(*at);
    const ptrdiff_t last = wanted.size() - 1;
    for (; text.size() > last; ++text.begin) {
        if (!(bits & bit(text.begin[last]))) text.begin += last;
        else if (is_at(text.begin, wanted)) return text.begin;
    }
    return text.end;
}
#endif

}  // namespace

bool is_space(const char *at) { return is_space_inline(at); }

TextView left_stripped(TextView text) { return {skip_space(text.begin, text.end), text.end}; }

TextView right_stripped(TextView text) {
    while (!text.empty() && is_space_inline(text.end - 1)) --text.end;
    return text;
}

TextView stripped(TextView text) {
    return right_stripped({skip_space(text.begin, text.end), text.end});
}

const char *find(TextView text, char wanted) {
    const void *found = std::memchr(text.begin, wanted, static_cast<size_t>(text.size()));
    return found ? static_cast<const char *>(found) : text.end;
}

const char *find(TextView text, TextView wanted) {
#if UINTPTR_MAX <= UINT32_MAX
    // Without vector instructions memchr takes twice as long as skipping.
    if (wanted.size() > 1) return find_by_skipping(text, wanted);
#endif
    const ptrdiff_t last = wanted.size() - 1;
    while (true) {
        text.begin = find(text, *wanted.begin);
        if (text.size() <= last) return text.end;
        if (is_at(text.begin, wanted)) return text.begin;
        ++text.begin;
    }
}

char *copy_without(TextView text, TextView unwanted, char *copy) {
    while (true) {
        const char *found = find(text, unwanted);
        const auto size = static_cast<size_t>(found - text.begin);
        std::memcpy(copy, text.begin, size);
        copy += size;
        if (found == text.end) return copy;
        text.begin = found + unwanted.size();
    }
}

bool LineReader::next(TextView &line) {
    if (done_) return false;
    line = {rest_.begin, find(rest_, '\n')};
    done_ = line.end == rest_.end;
    rest_.begin = line.end + (done_ ? 0 : 1);
    return true;
}

int split(TextView text, TextView *words, int max_fields) {
    int count = 0;
    const char *at = skip_space(text.begin, text.end);
    while (count < max_fields && at != text.end) {
        const char *const end = skip_nonspace(at, text.end);
        words[count++] = {at, end};
        at = skip_space(end, text.end);
    }
    return count;
}

int split(TextView text, char separator, TextView *fields, int max_fields) {
    int count = 0;
    while (count < max_fields) {
        const char *const end = find(text, separator);
        fields[count++] = {text.begin, end};
        if (end == text.end) break;
        text.begin = end + 1;
    }
    return count;
}

}  // namespace modules_util

// Creates strings and caches the short ones.
#include "veldarin/modules/text/string_cache.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace modules_util {

namespace {

bool equals(PyObject *string, TextView text) {
    const Py_ssize_t size = PyUnicode_GET_LENGTH(string);
    return size == text.size() &&
           std::memcmp(ascii_data(string), text.begin, static_cast<size_t>(size)) == 0;
}

char *copy(TextView text, char *to) {
    std::memcpy(to, text.begin, static_cast<size_t>(text.size()));
    return to + text.size();
}

// Makes a string that may have non-ASCII characters, as wide as the widest of them.
[[gnu::cold]] PyObject *decode(TextView text) {
    Py_ssize_t length = 0;
    Py_UCS4 widest = 0;
    for (const char *at = text.begin; at != text.end; ++length) {
        widest = std::max<Py_UCS4>(widest, next_code_point(at));
    }
    PyObject *string = PyUnicode_New(length, widest);
    if (!string) return nullptr;
    const auto kind = PyUnicode_KIND(string);
    void *const data = PyUnicode_DATA(string);
    const char *at = text.begin;
    for (Py_ssize_t i = 0; i < length; ++i) PyUnicode_WRITE(kind, data, i, next_code_point(at));
    return string;
}

}  // namespace

// About one slot for 32 bytes of text.
StringCache::StringCache(const Utf8Text &text) : is_ascii_(text.is_ascii), slot_bits_(1) {
    const auto size = static_cast<size_t>(text.view.size());
    while (slot_bits_ < max_slot_bits && size >> slot_bits_ > 32) ++slot_bits_;
    std::fill_n(slots_, 1U << slot_bits_, nullptr);
}

StringCache::~StringCache() {
    for (unsigned i = 0; i < 1U << slot_bits_; ++i) Py_XDECREF(slots_[i]);
}

PyObject *StringCache::new_string(TextView text) const {
    if (!is_ascii_) return decode(text);
    PyObject *string = PyUnicode_New(text.size(), 127);
    if (string) copy(text, ascii_data(string));
    return string;
}

PyObject *StringCache::cached_string(TextView text) {
    if (!is_ascii_ || text.size() > max_cached) return new_string(text);
    PyObject *&cached = slot(text);
    // A failure empties the slot.
    if (!cached || !equals(cached, text)) Py_XSETREF(cached, new_string(text));
    return Ref::borrow(cached).release();
}

Ref StringCache::join(TextView left, TextView between, TextView right) {
    char joined[max_cached];
    if (left.size() + between.size() + right.size() <= max_cached) {
        return make_cached({joined, copy(right, copy(between, copy(left, joined)))});
    }
    const Ref first = make(left);
    if (!first) return {};
    const Ref second = make(right);
    if (!second) return {};
    return Ref::steal(PyUnicode_FromFormat("%U%s%U", first.get(), between.begin, second.get()));
}

// Hashes the length and the first and last four bytes; table values usually differ there.
PyObject *&StringCache::slot(TextView text) {
    uint32_t first = 0;
    uint32_t last = 0;
    if (text.size() >= static_cast<ptrdiff_t>(sizeof last)) {
        std::memcpy(&first, text.begin, sizeof first);
        std::memcpy(&last, text.end - sizeof last, sizeof last);
    } else {
        for (const char *at = text.begin; at != text.end; ++at) {
            first = first * 256 + static_cast<unsigned char>(*at);
        }
    }
    const auto size = static_cast<uint32_t>(text.size());
    // A large odd factor spreads the differences into the upper bits.
    const uint32_t mixed = ((first * 31 + last) * 31 + size) * 0x165667B1;
    return slots_[mixed >> (32U - slot_bits_)];
}

}  // namespace modules_util

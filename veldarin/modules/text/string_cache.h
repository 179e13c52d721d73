// Creates the strings that a parser returns from views of its text.
#pragma once

#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/text/utf8_text.h"

namespace modules_util {

// Every method that returns a Ref returns a new reference, or nothing with MemoryError set.
class StringCache {
public:
    // Strings up to this length are built on the stack and cached.
    static constexpr ptrdiff_t max_cached = 64;

    explicit StringCache(const Utf8Text &text);
    ~StringCache();
    StringCache(const StringCache &) = delete;
    StringCache &operator=(const StringCache &) = delete;

    // Whether the text, and so every view of it, is ASCII.
    [[nodiscard]] bool is_ascii() const { return is_ascii_; }

    [[nodiscard]] Ref make(TextView text) const { return Ref::steal(new_string(text)); }

    // Returns the same object again for a short ASCII text that was made recently: values repeat
    // within a table.
    Ref make_cached(TextView text) { return Ref::steal(cached_string(text)); }

    // left + between + right; `between` is a string literal, so a NUL follows it.
    Ref join(TextView left, TextView between, TextView right);

private:
    static constexpr unsigned max_slot_bits = 8;

    [[nodiscard]] PyObject *&slot(TextView text);

    // make() and make_cached(), with the result in a register: a Ref is returned in memory.
    [[nodiscard]] PyObject *new_string(TextView text) const;
    PyObject *cached_string(TextView text);

    bool is_ascii_;
    // Few for a short text: clearing 256 slots takes longer than parsing it.
    unsigned slot_bits_;
    PyObject *slots_[1U << max_slot_bits];  // the first 2 ** slot_bits_ are in use: owned, or null
};

}  // namespace modules_util

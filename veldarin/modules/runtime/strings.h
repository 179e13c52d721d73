// Makes the strings that a parser returns, of slices of one text.
#pragma once

#include "ref.h"
#include "text.h"

namespace modules_util {

// Each string is a new reference, or null with MemoryError.
class Strings {
public:
    // What is not longer than this is made in a buffer, and kept to be given again.
    static constexpr Py_ssize_t longest = 64;

    explicit Strings(const Text &text) : ascii_(text.ascii) {}

    // Whether the text is ASCII, and so every slice of it.
    [[nodiscard]] bool ascii() const { return ascii_; }

    [[nodiscard]] Ref make(Slice text) const { return Ref::steal(made(text)); }

    // The same object again for a short ASCII text that was made lately: values repeat within a
    // table.
    Ref make_or_repeat(Slice text) { return Ref::steal(made_or_repeated(text)); }

    // "{left}{between}{right}"
    Ref join(Slice left, Slice between, Slice right);

private:
    static constexpr size_t slots = 256;
    static size_t slot(Slice text);

    [[nodiscard]] PyObject *made(Slice text) const;
    PyObject *made_or_repeated(Slice text);

    bool ascii_;
    Ref lately_[slots];
};

}  // namespace modules_util

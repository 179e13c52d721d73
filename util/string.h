// The C-level interface of `util.string`.
#pragma once

namespace util {

// strtcpy: copies NUL-terminated text, at most `size` bytes with the terminating NUL.
using Strtcpy = int (*)(char *destination, int size, const char *source);
inline constexpr char strtcpy_signature[] = "int (char *, int, char const *)";

}  // namespace util

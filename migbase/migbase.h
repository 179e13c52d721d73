// The C-level interface of `migbase.migbase`.
#pragma once

namespace migbase {

// WARM_START_PATH: the address of the variable, a char *.
inline constexpr char warm_start_path_signature[] = "char *";

}  // namespace migbase

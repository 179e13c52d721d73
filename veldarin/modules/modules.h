// The C-level interface of `veldarin.modules.modules`.
#pragma once

namespace modules {

// get_preference_cookie_secret_path: a path that the module owns; never null.
using GetPreferenceCookieSecretPath = char *(*)();
inline constexpr char get_preference_cookie_secret_path_signature[] = "char *(void)";

}  // namespace modules

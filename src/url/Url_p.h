#pragma once

// Shared between the URL parser and renderer.

#include <string>

namespace qz::url_impl {

inline const std::string kKeyValueSeparator = "=";
inline const std::string kItemSeparator = "&";
inline const std::string kSecretMask = "********";
inline const std::string kPathSeparator = "/";

// Overwrites the string's whole buffer with zero bytes, then empties it.
void WipeString(std::string& s);

} // namespace qz::url_impl

#pragma once

#include <HttpTools/platform/Export.h>

#include <cstring>
#include <string>

namespace qz::qzOpenSSL {

/// Loads OpenSSL's error strings (when `loadErrorStrings`) and registers its version.
HTTPTOOLS_API void initializeLibrary(bool loadErrorStrings);
/// Undoes one initializeLibrary(); the last one unregisters the version (OpenSSL frees its own state at exit).
HTTPTOOLS_API void finalizeLibrary();

/// "1.1.1k" -> 0x101010bf, "3.0.11" -> 0x300000b0 (OpenSSL's OPENSSL_VERSION_NUMBER layout).
/// Returns 0 when the text is not such a version.
HTTPTOOLS_API int ParseOpenSSLVersionString(const std::string& text);

/// Version text of the OpenSSL library in use ("OpenSSL 3.0.x ...").
HTTPTOOLS_API std::string VersionText();

/// Overwrites the whole buffer of `s` (capacity, not only size) with zeros and empties it; for
/// strings that held a secret.
inline void WipeString(std::string& s) {
  // A string always owns capacity() + 1 bytes. An inline buffer (names, ports, short secrets)
  // is one constant-size fill. The barrier keeps the compiler from dropping stores to a string
  // about to be cleared. Inline: every Url copy, move and destruction wipes four strings.
  char* p = s.data();
  const size_t n = s.capacity() + 1;
  constexpr size_t kInline = 16; // libstdc++'s, terminator included
  if (n == kInline)
    std::memset(p, 0, kInline);
  else
    std::memset(p, 0, n);
  __asm__ __volatile__("" : : "r"(p) : "memory");
  s.clear();
}

} // namespace qz::qzOpenSSL

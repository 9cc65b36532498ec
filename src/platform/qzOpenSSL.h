#pragma once

#include <HttpTools/platform/Export.h>

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
HTTPTOOLS_API void WipeString(std::string& s);

} // namespace qz::qzOpenSSL

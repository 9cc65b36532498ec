#pragma once

// Internal accessors of the library frame.

#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzThread.h>

namespace qz::impl {

// OpenSSL version number found in libcurl's version text at initialisation (0 = unknown).
int GetCurlOpenSSLVersion();
// Finds the "openssl/x.y.z" piece of a libcurl version text and parses it; 0 when absent.
int FindOpenSSLVersionInCurlVersion(const char* curlVersionText);
// The process-wide periodic updater; null while the library is not initialised.
qzThreadPeriodicalUpdater* GetPeriodicalUpdater();
// Replaces the version text used by the next first initialisation (null: libcurl's own).
void SetCurlVersionTextForTest(const char* text);

} // namespace qz::impl

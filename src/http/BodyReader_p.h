#pragma once

// The request-body reader of the set-up callbacks that set libcurl options themselves (the view
// option installer), and the text of an exceeded body limit.

#include <HttpTools/platform/Export.h>

#include <curl/curl.h>

#include <cstddef>
#include <string>

namespace qz::http {

// Text of a failed body-size limit, shared by every writer that enforces maxBodyBytes.
std::string BodyLimitMessage(long long maxBodyBytes);

// A request body sent from memory. install() makes it the handle's read and seek source; the
// same reader serves every set-up callback of the library, so a rewind always reaches the body
// of the current request.
struct BodyReader {
  const char* data = nullptr;
  size_t size = 0;
  size_t offset = 0;
  const bool* cancel = nullptr;

  int install(CURL* handle);
  static size_t Read(char* buffer, size_t size, size_t count, void* reader);
  static int Seek(void* reader, curl_off_t offset, int origin);
};

} // namespace qz::http

#pragma once

#include <HttpTools/platform/Export.h>

#include <string>

namespace qz::http {

// Concurrent requests over one libcurl multi handle. Only its header-line splitter is provided
// here; the helpers' header capture shares it.
class HTTPTOOLS_API HttpMultiConnection {
public:
  // Splits "Name: value\r\n" at the first ':' into a lower-case name and a value, both trimmed
  // of white space. A line without ':' (status line, blank end of headers) gives two empty
  // strings.
  static void ParseHttpHeader(const char* line, unsigned long length, std::string& name, std::string& value);
};

} // namespace qz::http

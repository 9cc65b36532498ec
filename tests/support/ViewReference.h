#pragma once

// The view row cutting rule applied byte by byte to a whole response: the reference that the
// streaming cutter must agree with, whatever the chunking (used by tests and the fuzz target).

#include <cstdint>
#include <string>
#include <vector>

namespace qztest {

// The rows' texts; the final brace and square-bracket depths go to `braces` / `squares` when given.
inline std::vector<std::string> ReferenceCutViewRows(const std::string& text, int32_t* braces = nullptr,
                                                     int32_t* squares = nullptr) {
  std::vector<std::string> rows;
  int32_t b = 0, q = 0;
  bool inString = false;
  size_t rowStart = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\')
      ++i;
    else if (c == '"')
      inString = !inString;
    else if (inString)
      continue;
    else if (c == '[' || c == ']')
      q += c == '[' ? 1 : -1;
    else if (c == '{' && ++b == 2 && q == 1)
      rowStart = i;
    else if (c == '}') {
      if (b-- == 2 && q == 1) {
        rows.push_back(text.substr(rowStart, i - rowStart + 1));
        rowStart = i;
      }
    }
  }
  if (braces)
    *braces = b;
  if (squares)
    *squares = q;
  return rows;
}

} // namespace qztest

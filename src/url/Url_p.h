#pragma once

// Shared between the URL parser and renderer.

#include <HttpTools/platform/Export.h>

#include <cstring>
#include <string>

namespace qz {
class Url;
}

namespace qz::url_impl {

// True when every field holds the same value, the IP address byte for byte (port included):
// a copy of one would not change the other. Stricter than Url::operator==.
bool IsSameUrlValue(const Url& a, const Url& b);

// Parses `text` into `url` and takes its last path segment off into `last` (cleared first); a
// URL without path is cleared. False on a null `url`, a parse failure or an invalid result.
bool SplitLastSegment(Url* url, std::string* last, const std::string& text);

inline const std::string kKeyValueSeparator = "=";
inline const std::string kItemSeparator = "&";
inline const std::string kSecretMask = "********";
inline const std::string kPathSeparator = "/";

constexpr int HexValue(unsigned char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return -1;
}

// The first `c` in [first, last), or last. Short ranges (most keys and values) are cheaper to
// walk than to hand to memchr.
inline const char* FindOrLast(const char* first, const char* last, char c) {
  if (last - first < 24) {
    while (first < last && *first != c)
      ++first;
    return first;
  }
  auto* hit = static_cast<const char*>(std::memchr(first, c, static_cast<size_t>(last - first)));
  return hit ? hit : last;
}

// Appends [first, last) to `out` with %XX escapes decoded (an invalid escape is kept as written)
// and, when plusToSpace is true, '+' turned into a blank. Same rules as uriparser's
// uriUnescapeInPlaceExA with line breaks untouched, done here so that a zero byte inside the text
// neither ends it nor cuts it short. Inline: it is the inner loop of parsing.
inline void AppendDecoded(std::string& out, const char* first, const char* last, bool plusToSpace) {
  // memchr scans many bytes at a time; the next '%' and '+' are looked up only once passed.
  auto find = [last](const char* from, char c) { return FindOrLast(from, last, c); };
  const char* nextPercent = find(first, '%');
  const char* nextPlus = plusToSpace ? find(first, '+') : last;
  const char* p = first;
  while (p < last) {
    if (nextPercent < p)
      nextPercent = find(p, '%');
    if (nextPlus < p)
      nextPlus = find(p, '+');
    const char* q = nextPercent < nextPlus ? nextPercent : nextPlus;
    out.append(p, static_cast<size_t>(q - p));
    if (q == last)
      break;
    if (*q == '+') {
      out += ' ';
      p = q + 1;
    } else if (last - q >= 3 && HexValue(static_cast<unsigned char>(q[1])) >= 0 &&
               HexValue(static_cast<unsigned char>(q[2])) >= 0) {
      out += static_cast<char>(HexValue(static_cast<unsigned char>(q[1])) * 16 +
                               HexValue(static_cast<unsigned char>(q[2])));
      p = q + 3;
    } else {
      out += '%';
      p = q + 1;
    }
  }
}

} // namespace qz::url_impl

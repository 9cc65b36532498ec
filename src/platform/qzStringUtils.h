#pragma once

#include <HttpTools/platform/Export.h>

#include <cstdint>
#include <locale>
#include <string>
#include <string_view>

namespace qz {

/// Small string helpers the library shares; byte-wise, no locale.
class HTTPTOOLS_API qzStringUtils {
public:
  /// Byte-wise prefix, suffix and substring tests.
  ///@{
  static bool StartsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }
  static bool EndsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
  }
  static bool Contains(std::string_view s, std::string_view part) { return s.find(part) != std::string_view::npos; }
  ///@}

  /// Decimal text of `value`, left-padded with zeros to at least `width` digits (the sign, if
  /// any, comes first).
  static std::string fromInt(int64_t value, int width = 0);

  /// A locale-independent C locale, for number parsing and formatting.
  static const std::locale& CLocale();

  /// Duration in milliseconds as text in the largest unit that fits (ms, s, min, h, d), with up
  /// to `precision` decimals, trailing zeros dropped. `shortUnits` selects "s" over "seconds".
  static std::string humanizeDurationMs(double ms, int precision, bool shortUnits);
  /// humanizeDurationMs for any arithmetic type.
  template <typename T> static std::string humanizeDuration(T ms, int precision, bool shortUnits) {
    return humanizeDurationMs(static_cast<double>(ms), precision, shortUnits);
  }
};

} // namespace qz

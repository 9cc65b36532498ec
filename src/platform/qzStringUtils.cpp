#include <HttpTools/platform/qzStringUtils.h>

#include <cmath>
#include <cstdio>

namespace qz {

std::string qzStringUtils::fromInt(int64_t value, int width) {
  std::string digits = std::to_string(value < 0 ? -(value + 1) + uint64_t(1) : uint64_t(value));
  if (width > 0 && digits.size() < size_t(width))
    digits.insert(0, size_t(width) - digits.size(), '0');
  return value < 0 ? "-" + digits : digits;
}

const std::locale& qzStringUtils::CLocale() {
  static const std::locale c = std::locale::classic();
  return c;
}

std::string qzStringUtils::humanizeDurationMs(double ms, int precision, bool shortUnits) {
  struct Unit {
    double ms;
    const char* shortName;
    const char* longName;
  };
  static const Unit units[] = {{86400000.0, "d", " days"},
                               {3600000.0, "h", " hours"},
                               {60000.0, "min", " minutes"},
                               {1000.0, "s", " seconds"},
                               {1.0, "ms", " milliseconds"}};
  if (!std::isfinite(ms))
    ms = 0;
  if (precision < 0)
    precision = 0;
  if (precision > 6)
    precision = 6;
  const char* sign = ms < 0 ? "-" : "";
  double a = std::fabs(ms);
  const Unit* u = &units[4];
  for (const auto& cand : units)
    if (a >= cand.ms) {
      u = &cand;
      break;
    }
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", u == &units[4] ? 0 : precision, a / u->ms);
  std::string num = buf;
  if (num.find('.') != std::string::npos) {
    while (num.back() == '0')
      num.pop_back();
    if (num.back() == '.')
      num.pop_back();
  }
  return sign + num + (shortUnits ? u->shortName : u->longName);
}

} // namespace qz

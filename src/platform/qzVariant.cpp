#include <HttpTools/platform/qzVariant.h>

#include <HttpTools/platform/qzJson.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace qz {

namespace {
const qzVariantMapImpl kEmptyMap;
const qzVariantListImpl kEmptyList;

// Shortest text that reads back as the same double.
std::string doubleText(double d) {
  if (!std::isfinite(d))
    return "0";
  char buf[32];
  for (int prec = 15; prec <= 17; ++prec) {
    snprintf(buf, sizeof buf, "%.*g", prec, d);
    if (std::strtod(buf, nullptr) == d)
      break;
  }
  return buf;
}
} // namespace

std::string qzVariant::toString() const {
  switch (type()) {
  case Null:
    return {};
  case Bool:
    return std::get<bool>(m_v) ? "true" : "false";
  case Int64:
    return std::to_string(std::get<int64_t>(m_v));
  case Double:
    return doubleText(std::get<double>(m_v));
  case String:
    return std::get<std::string>(m_v);
  case Map: {
    std::string out;
    json::Json2Variant::Convert(std::get<qzVariantMapImpl>(m_v), out, false);
    return out;
  }
  case List: {
    std::string out;
    json::Json2Variant::Convert(std::get<qzVariantListImpl>(m_v), out, false);
    return out;
  }
  }
  return {};
}

int64_t qzVariant::toInt64(bool* ok) const {
  bool good = true;
  int64_t r = 0;
  switch (type()) {
  case Bool:
    r = std::get<bool>(m_v) ? 1 : 0;
    break;
  case Int64:
    r = std::get<int64_t>(m_v);
    break;
  case Double: {
    double d = std::get<double>(m_v);
    // Out-of-range doubles would be undefined behaviour in the cast.
    if (std::isfinite(d) && d >= -9.2233720368547758e18 && d < 9.2233720368547758e18)
      r = static_cast<int64_t>(d);
    else
      good = false;
    break;
  }
  case String: {
    const std::string& s = std::get<std::string>(m_v);
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(s.c_str(), &end, 10);
    good = !s.empty() && end && *end == '\0' && errno == 0;
    r = good ? v : 0;
    break;
  }
  default:
    good = false;
  }
  if (ok)
    *ok = good;
  return r;
}

double qzVariant::toDouble(bool* ok) const {
  bool good = true;
  double r = 0;
  switch (type()) {
  case Bool:
    r = std::get<bool>(m_v) ? 1 : 0;
    break;
  case Int64:
    r = double(std::get<int64_t>(m_v));
    break;
  case Double:
    r = std::get<double>(m_v);
    break;
  case String: {
    const std::string& s = std::get<std::string>(m_v);
    char* end = nullptr;
    r = std::strtod(s.c_str(), &end);
    good = !s.empty() && end && *end == '\0';
    if (!good)
      r = 0;
    break;
  }
  default:
    good = false;
  }
  if (ok)
    *ok = good;
  return r;
}

bool qzVariant::toBool() const {
  switch (type()) {
  case Bool:
    return std::get<bool>(m_v);
  case Int64:
    return std::get<int64_t>(m_v) != 0;
  case Double:
    return std::get<double>(m_v) != 0;
  case String: {
    const std::string& s = std::get<std::string>(m_v);
    return s == "true" || s == "1";
  }
  default:
    return false;
  }
}

const qzVariantMapImpl& qzVariant::toMap() const {
  const auto* m = std::get_if<qzVariantMapImpl>(&m_v);
  return m ? *m : kEmptyMap;
}

const qzVariantListImpl& qzVariant::toList() const {
  const auto* l = std::get_if<qzVariantListImpl>(&m_v);
  return l ? *l : kEmptyList;
}

qzVariantMapImpl& qzVariant::asMap() {
  if (!isMap())
    m_v = qzVariantMapImpl{};
  return std::get<qzVariantMapImpl>(m_v);
}

qzVariantListImpl& qzVariant::asList() {
  if (!isList())
    m_v = qzVariantListImpl{};
  return std::get<qzVariantListImpl>(m_v);
}

} // namespace qz

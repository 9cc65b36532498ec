#pragma once
// The references' DOM path: a RapidJSON value walked into the library's variant, as a client that
// parses a whole body would do.

#include <HttpTools/platform/qzVariant.h>

#include <rapidjson/document.h>

#include <string>

namespace bench {

inline qz::qzVariant ToVariant(const rapidjson::Value& v) {
  switch (v.GetType()) {
  case rapidjson::kNullType:
    return {};
  case rapidjson::kFalseType:
    return false;
  case rapidjson::kTrueType:
    return true;
  case rapidjson::kStringType:
    return std::string(v.GetString(), v.GetStringLength());
  case rapidjson::kNumberType:
    if (v.IsInt64())
      return qz::qzVariant(static_cast<long long>(v.GetInt64()));
    return v.GetDouble();
  case rapidjson::kArrayType: {
    qz::qzVariantListImpl list;
    list.reserve(v.Size());
    for (const auto& e : v.GetArray())
      list.push_back(ToVariant(e));
    return list;
  }
  case rapidjson::kObjectType: {
    qz::qzVariantMapImpl map;
    for (const auto& m : v.GetObject())
      map[std::string(m.name.GetString(), m.name.GetStringLength())] = ToVariant(m.value);
    return map;
  }
  }
  return {};
}

} // namespace bench

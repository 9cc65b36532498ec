#include <HttpTools/river/RiverMapping_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>

#include <zlib.h>

#include <cstdlib>
#include <vector>

namespace qz::river::detail {

bool ParseMapping(const std::string& json, qzVariant& out, std::string* error) {
  qzVariant parsed;
  const std::string text = json.empty() ? std::string("{}") : json;
  if (!qz::json::Json2Variant::Convert(text.data(), text.size(), parsed) || !parsed.isMap()) {
    if (error)
      *error = "the mapping is not a JSON object";
    return false;
  }
  out = std::move(parsed);
  return true;
}

std::string PackMapping(const qzVariant& mapping) {
  std::string json;
  qz::json::Json2Variant::Convert(mapping, json, false);
  uLongf size = compressBound(uLong(json.size()));
  std::vector<unsigned char> deflated(size);
  if (compress2(deflated.data(), &size, reinterpret_cast<const Bytef*>(json.data()), uLong(json.size()),
                Z_BEST_COMPRESSION) != Z_OK)
    return {};
  std::string out;
  qz::qzOpenSSL::base64Encode(reinterpret_cast<const char*>(deflated.data()), size, out, qz::qzOpenSSL::B64_Standard);
  return out;
}

bool UnpackMapping(const std::string& packed, qzVariant& out) {
  std::vector<char> deflated;
  if (packed.empty() || !qz::qzOpenSSL::base64Decode(packed, deflated, qz::qzOpenSSL::B64_Standard))
    return false;
  z_stream z{};
  if (inflateInit(&z) != Z_OK)
    return false;
  z.next_in = reinterpret_cast<Bytef*>(deflated.data());
  z.avail_in = uInt(deflated.size());
  std::string json;
  char buffer[16384];
  int rc = Z_OK;
  while (rc == Z_OK && json.size() < (16u << 20)) {
    z.next_out = reinterpret_cast<Bytef*>(buffer);
    z.avail_out = sizeof buffer;
    rc = inflate(&z, Z_NO_FLUSH);
    json.append(buffer, sizeof buffer - z.avail_out);
  }
  inflateEnd(&z);
  if (rc != Z_STREAM_END)
    return false;
  std::string error;
  return ParseMapping(json, out, &error);
}

namespace {

// Scalars as the server may echo them: "true" for true, "256" for 256.
bool scalarsEqual(const qzVariant& a, const qzVariant& b) {
  if (a == b)
    return true;
  auto asText = [](const qzVariant& v) -> std::string {
    if (v.isBool())
      return v.toBool() ? "true" : "false";
    return v.toString();
  };
  if (a.isNumber() || b.isNumber()) {
    bool okA = false, okB = false;
    const double x = a.toDouble(&okA), y = b.toDouble(&okB);
    if (okA && okB && (a.isNumber() || a.isString()) && (b.isNumber() || b.isString()))
      return x == y;
  }
  if ((a.isBool() && b.isString()) || (a.isString() && b.isBool()))
    return asText(a) == asText(b);
  return false;
}

// Keys the server fills in when they are left out, with the value it fills in.
bool isServerDefault(const std::string& key, const qzVariant& value, const qzVariantMapImpl& wanted) {
  static const qzVariantMapImpl defaults{
      {"dynamic", true},       {"enabled", true}, {"index", true},  {"doc_values", true},
      {"store", false},        {"norms", true},   {"coerce", true}, {"ignore_malformed", false},
      {"include_in_all", true}};
  if (key == "properties") // fields added by dynamic mapping
    return true;
  if (key == "type" && value.toString() == "object")
    return wanted.count("properties") || wanted.empty();
  auto it = defaults.find(key);
  return it != defaults.end() && scalarsEqual(it->second, value);
}

bool equivalent(const qzVariant& wanted, const qzVariant& live, bool inProperties) {
  if (wanted.isMap() && live.isMap()) {
    const auto& w = wanted.toMap();
    const auto& l = live.toMap();
    for (const auto& [key, value] : w) {
      auto it = l.find(key);
      if (it == l.end()) {
        if (!isServerDefault(key, value, w))
          return false;
        continue;
      }
      if (!equivalent(value, it->second, key == "properties" && !inProperties))
        return false;
    }
    for (const auto& [key, value] : l)
      if (!w.count(key) && !inProperties && !isServerDefault(key, value, w))
        return false;
    return true;
  }
  if (wanted.isList() && live.isList()) {
    const auto& w = wanted.toList();
    const auto& l = live.toList();
    if (w.size() != l.size())
      return false;
    for (size_t i = 0; i < w.size(); ++i)
      if (!equivalent(w[i], l[i], false))
        return false;
    return true;
  }
  if (wanted.isMap() || live.isMap() || wanted.isList() || live.isList())
    return false;
  return scalarsEqual(wanted, live);
}

} // namespace

bool MappingsEquivalent(const qzVariant& wanted, const qzVariant& live) {
  qzVariantMapImpl w = wanted.toMap(), l = live.toMap();
  w.erase("_meta");
  l.erase("_meta");
  return equivalent(qzVariant(std::move(w)), qzVariant(std::move(l)), false);
}

} // namespace qz::river::detail

// JSON text to variants: never crashes; what parses writes back to text that parses equal.
#include <HttpTools/platform/qzJson.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qz::qzVariant v;
  if (!qz::json::Json2Variant::Convert(reinterpret_cast<const char*>(data), size, v))
    return 0;
  std::string text;
  if (!qz::json::Json2Variant::Convert(v, text, false))
    return 0; // e.g. a number that overflowed to infinity
  qz::qzVariant back;
  if (!qz::json::Json2Variant::Convert(text.data(), text.size(), back) || !(back == v))
    std::abort();
  return 0;
}

#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzIoDevice.h>
#include <HttpTools/platform/qzVariant.h>

#include <memory>
#include <string>
#include <vector>

namespace qz::json {

/// JSON text to variants and back. Parsing fills the output only on success; malformed text
/// returns false and leaves it untouched. Nesting deeper than MaxDepth is refused.
class HTTPTOOLS_API Json2Variant {
public:
  static constexpr unsigned MaxDepth = 512; ///< deepest nesting parsed; deeper text is refused

  /// The text must be an object, a list, or any value, by the output's type.
  ///@{
  static bool Convert(const char* text, size_t length, qzVariantMapImpl& out);
  static bool Convert(const std::string& text, qzVariantMapImpl& out);
  static bool Convert(const char* text, size_t length, qzVariantListImpl& out);
  static bool Convert(const std::string& text, qzVariantListImpl& out);
  static bool Convert(const char* text, size_t length, qzVariant& out);
  ///@}

  /// Writes compact text, or indented text when `pretty`. Returns false for values JSON cannot
  /// hold (NaN, infinities).
  ///@{
  static bool Convert(const qzVariantMapImpl& in, std::string& text, bool pretty);
  static bool Convert(const qzVariantListImpl& in, std::string& text, bool pretty);
  static bool Convert(const qzVariant& in, std::string& text, bool pretty);
  ///@}
};

/// Writes JSON step by step to a device, without building a document.
class HTTPTOOLS_API JsonStreamer {
public:
  /// Writes to `device`, which must outlive the streamer.
  explicit JsonStreamer(qzIoDevice& device);
  ~JsonStreamer();
  JsonStreamer(const JsonStreamer&) = delete;
  JsonStreamer& operator=(const JsonStreamer&) = delete;

  /// Exact size of `s` written as a JSON string, quotes included.
  static size_t ConvertToJsonStringSize(const std::string& s);
  /// Exact size of {"arrayName":["s1","s2",...]}.
  static size_t ConvertToJsonStringSize(const std::string& arrayName, const std::vector<std::string>& strings);

  bool begin();                                                     ///< {
  bool arrayBegin(const std::string& key);                          ///< "key":[
  bool arrayString(const std::string& s);                           ///< "s" as an array element
  bool arrayEnd();                                                  ///< ]
  bool addString(const std::string& key, const std::string& value); ///< "key":"value"
  bool addInt(const std::string& key, int64_t value);               ///< "key":value
  bool end();                                                       ///< }
  bool good() const;                                                ///< false once a step or the device failed

private:
  struct Impl;
  std::unique_ptr<Impl> d;
};

} // namespace qz::json

#pragma once

#include <HttpTools/platform/Export.h>

#include <list>
#include <map>
#include <string>

namespace qz {

/// Name/value round trip of a plain integer enumeration, driven by the enum's declaration text.
class HTTPTOOLS_API EnumHelperInterface {
public:
  /// Each value with its names, the first one canonical.
  using EnumMap = std::map<int, std::list<std::string>>;

  /// Parses "A = 0, B, C = 7, D": names separated by commas, an optional "= n" setting the
  /// running value (decimal, 0x hex or 0 octal), each further name taking the previous value + 1.
  /// Malformed pieces (empty names, unreadable values) are skipped.
  static EnumMap GetEnumToStringMap(const char* declaration);

  /// A value the map lacks leaves the helper invalid (value kept). `vals` and `typeName` must outlive the helper.
  EnumHelperInterface(int value, const EnumMap& vals, const std::string& typeName);
  /// An unknown name leaves the helper invalid with value 0.
  EnumHelperInterface(const std::string& name, const EnumMap& vals, const std::string& typeName);
  virtual ~EnumHelperInterface();

  /// Whether the value is one of the enum's, and the value.
  ///@{
  bool isValid() const { return m_valid; }
  int getValue() const { return m_value; }
  ///@}
  /// The value's first name, or "" for a value the enum does not have.
  std::string toString() const;
  /// "qz::http::ProxyPolicy::PP_NoProxy" style, or "" when invalid.
  std::string toQualifiedString() const;
  /// The enum's name and its map, as given to the constructor.
  ///@{
  const std::string& getTypeName() const { return m_typeName; }
  const EnumMap& getValues() const { return m_vals; }
  ///@}

private:
  const EnumMap& m_vals;
  const std::string& m_typeName;
  int m_value = 0;
  bool m_valid = false;
};

} // namespace qz

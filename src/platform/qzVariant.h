#pragma once

#include <HttpTools/platform/Export.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qz {

/// A dynamic value: null, bool, 64-bit integer, double, string, map or list. Maps keep their
/// keys sorted, so JSON written from them comes out in key order.
class HTTPTOOLS_API qzVariant {
public:
  /// A map sorted by key, and a list.
  ///@{
  using qzVariantMapImpl = std::map<std::string, qzVariant>;
  using qzVariantListImpl = std::vector<qzVariant>;
  ///@}

  /// The stored alternative; type() returns it.
  enum Type { Null, Bool, Int64, Double, String, Map, List };

  /// Null by default; integers are stored as int64, strings copied or moved in.
  ///@{
  qzVariant() = default;
  qzVariant(std::nullptr_t) {}
  qzVariant(bool v) : m_v(v) {}
  qzVariant(int v) : m_v(int64_t(v)) {}
  qzVariant(unsigned v) : m_v(int64_t(v)) {}
  qzVariant(long v) : m_v(int64_t(v)) {}
  qzVariant(long long v) : m_v(int64_t(v)) {}
  ///@}
  /// uint64_t and size_t: values above the int64 range are kept as doubles.
  qzVariant(unsigned long v) : qzVariant(static_cast<unsigned long long>(v)) {}
  /// Up to INT64_MAX as Int64, above as Double.
  qzVariant(unsigned long long v) {
    if (v <= static_cast<unsigned long long>(INT64_MAX))
      m_v = int64_t(v);
    else
      m_v = double(v);
  }
  /// A double, a string (copied or moved; a null char pointer gives ""), a map or a list.
  ///@{
  qzVariant(double v) : m_v(v) {}
  qzVariant(const std::string& v) : m_v(v) {}
  qzVariant(std::string&& v) : m_v(std::move(v)) {}
  qzVariant(const char* v) : m_v(std::string(v ? v : "")) {}
  qzVariant(std::string_view v) : m_v(std::string(v)) {}
  qzVariant(const qzVariantMapImpl& v) : m_v(v) {}
  qzVariant(qzVariantMapImpl&& v) : m_v(std::move(v)) {}
  qzVariant(const qzVariantListImpl& v) : m_v(v) {}
  qzVariant(qzVariantListImpl&& v) : m_v(std::move(v)) {}
  ///@}

  /// The stored type; isNumber is true for Int64 and Double.
  ///@{
  Type type() const { return static_cast<Type>(m_v.index()); }
  bool isNull() const { return type() == Null; }
  bool isBool() const { return type() == Bool; }
  bool isInt64() const { return type() == Int64; }
  bool isDouble() const { return type() == Double; }
  bool isNumber() const { return isInt64() || isDouble(); }
  bool isString() const { return type() == String; }
  bool isMap() const { return type() == Map; }
  bool isList() const { return type() == List; }
  ///@}

  /// Conversions never throw: a value that has no sensible conversion gives 0, false or "".
  /// toString of a map or list gives its compact JSON text.
  ///@{
  std::string toString() const;
  int64_t toInt64(bool* ok = nullptr) const;
  double toDouble(bool* ok = nullptr) const;
  bool toBool() const;
  ///@}

  /// Access to the stored map or list; the non-const forms turn any other value into an
  /// empty one first.
  ///@{
  const qzVariantMapImpl& toMap() const;
  const qzVariantListImpl& toList() const;
  qzVariantMapImpl& asMap();
  qzVariantListImpl& asList();
  ///@}
  /// The stored string without a copy, or null for any other type.
  const std::string* stringPtr() const { return std::get_if<std::string>(&m_v); }

  /// Same type and same value (an Int64 1 differs from a Double 1.0).
  bool operator==(const qzVariant& o) const { return m_v == o.m_v; }

private:
  std::variant<std::monostate, bool, int64_t, double, std::string, qzVariantMapImpl, qzVariantListImpl> m_v;
};

/// qzVariant's map and list types, at namespace level.
///@{
using qzVariantMapImpl = qzVariant::qzVariantMapImpl;
using qzVariantListImpl = qzVariant::qzVariantListImpl;
///@}

} // namespace qz

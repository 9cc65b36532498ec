#pragma once

#include <HttpTools/platform/Export.h>

#include <map>
#include <mutex>
#include <string>

namespace qz::impl {

/// Counts the users of a library: only the first increment and the last decrement do the work.
class HTTPTOOLS_API LibInitCounter {
public:
  /// A counter at 0 for the library `name`; `flags` are kept for the caller. Thread-safe.
  LibInitCounter(const char* name, int flags);
  /// True only for the first user.
  bool incrementInitCounter();
  /// True only for the last user; an extra decrement is ignored and returns false.
  bool decrementInitCounter();
  /// Whether users remain, and how many.
  ///@{
  bool isInitialized() const;
  int count() const;
  ///@}
  /// As given to the constructor.
  ///@{
  const std::string& name() const { return m_name; }
  int flags() const { return m_flags; }
  ///@}

private:
  mutable std::mutex m_mutex;
  std::string m_name;
  int m_flags;
  int m_count = 0;
};

/// Process-wide registry of the third-party libraries in use and their versions: register (or
/// replace) a name's version, remove it, and a copy of the whole registry. Thread-safe.
///@{
HTTPTOOLS_API void RegisterThirdPartyLibVersionInfo(const std::string& name, const std::string& version);
HTTPTOOLS_API void UnRegisterThirdPartyLibVersionInfo(const std::string& name);
HTTPTOOLS_API std::map<std::string, std::string> GetThirdPartyLibVersionInfo();
///@}

} // namespace qz::impl

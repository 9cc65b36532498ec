#pragma once

#include <HttpTools/platform/Export.h>

#include <functional>
#include <sstream>
#include <string>
#include <string_view>

namespace qz {

/// Process-wide logger. Each line has a log type (level) and a category. The host may replace
/// the sink; categories are switches that long operations consult before writing their lines.
class HTTPTOOLS_API qzLog {
public:
  /// Levels, most urgent first but for Debug; the sink gets them as ints.
  enum LogType { Warning = 0, Info = 1, Notice = 2, Error = 3, Debug = 4 };
  /// Receives every line; called on the logging thread, so it must be thread-safe.
  using Sink = std::function<void(int logType, const std::string& category, const std::string& text)>;

  /// Installs the sink; an empty function restores the default one (stderr).
  static void SetSink(Sink sink);
  /// Categories start disabled; enabling one turns on its optional lines. Thread-safe.
  ///@{
  static void SetCategoryEnabled(const std::string& category, bool enabled);
  static bool IsCategoryEnabled(const std::string& category);
  ///@}
  /// The sink always gets one line: control characters are escaped (EscapeControls) and the
  /// text is cut at kMaxLineLength bytes, so no logged value can forge or flood lines.
  static void Write(int logType, const std::string& category, const std::string& text);
  static constexpr size_t kMaxLineLength = 8192; ///< longer texts are cut to this many bytes
  /// CR, LF, TAB as `\r` `\n` `\t`, other bytes below 0x20 and DEL as `\xHH`; the rest as is.
  static std::string EscapeControls(std::string_view text);
  /// "warning", "info", "notice", "error", "debug"; "log" for any other value.
  static const char* TypeName(int logType);
};

/// One log statement: gathers text with << and writes it as one line when destroyed.
class HTTPTOOLS_API qzLogObject {
public:
  /// Lines without a category have an empty one.
  explicit qzLogObject(int logType, std::string category = {}) : m_type(logType), m_category(std::move(category)) {}
  ~qzLogObject();
  qzLogObject(const qzLogObject&) = delete;
  qzLogObject& operator=(const qzLogObject&) = delete;

  /// Appends `v` as an std::ostream would print it.
  template <typename T> qzLogObject& operator<<(const T& v) {
    m_text << v;
    return *this;
  }

private:
  int m_type;
  std::string m_category;
  std::ostringstream m_text;
};

} // namespace qz

#pragma once

#include <HttpTools/platform/Export.h>

#include <functional>
#include <sstream>
#include <string>

namespace qz {

// Process-wide logger. Each line has a log type (level) and a category. The host may replace
// the sink; categories are switches that long operations consult before writing their lines.
class HTTPTOOLS_API qzLog {
public:
  enum LogType { Warning = 0, Info = 1, Notice = 2, Error = 3, Debug = 4 };
  using Sink = std::function<void(int logType, const std::string& category, const std::string& text)>;

  // Installs the sink; an empty function restores the default one (stderr).
  static void SetSink(Sink sink);
  static void SetCategoryEnabled(const std::string& category, bool enabled);
  static bool IsCategoryEnabled(const std::string& category);
  static void Write(int logType, const std::string& category, const std::string& text);
  static const char* TypeName(int logType);
};

// One log statement: gathers text with << and writes it as one line when destroyed.
class HTTPTOOLS_API qzLogObject {
public:
  explicit qzLogObject(int logType, std::string category = {}) : m_type(logType), m_category(std::move(category)) {}
  ~qzLogObject();
  qzLogObject(const qzLogObject&) = delete;
  qzLogObject& operator=(const qzLogObject&) = delete;

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

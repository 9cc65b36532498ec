#pragma once

#include <HttpTools/platform/qzLog.h>

#include <mutex>
#include <string>
#include <vector>

namespace qztest {

struct LogLine {
  int type;
  std::string category;
  std::string text;
};

// Installs a capturing log sink for its lifetime; restores the default sink afterwards.
class LogCapture {
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  // True when some line has exactly this text (and category, when given).
  bool has(const std::string& text) const;
  bool has(const std::string& category, const std::string& text) const;
  bool hasPrefix(const std::string& prefix) const;
  size_t size() const;
  void clear();
  std::string dump() const;

private:
  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;
};

} // namespace qztest

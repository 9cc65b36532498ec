#include "support/LogCapture.h"

#include <algorithm>

namespace qztest {

LogCapture::LogCapture() {
  qz::qzLog::SetSink([this](int type, const std::string& category, const std::string& text) {
    std::lock_guard lock(m_mutex);
    m_lines.push_back({type, category, text});
  });
}

LogCapture::~LogCapture() { qz::qzLog::SetSink({}); }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> out;
  for (const auto& l : lines())
    out.push_back(l.text);
  return out;
}

bool LogCapture::has(const std::string& text) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(), [&](const LogLine& l) { return l.text == text; });
}

bool LogCapture::has(const std::string& category, const std::string& text) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(),
                     [&](const LogLine& l) { return l.category == category && l.text == text; });
}

bool LogCapture::hasPrefix(const std::string& prefix) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(), [&](const LogLine& l) { return l.text.starts_with(prefix); });
}

size_t LogCapture::size() const { return lines().size(); }

void LogCapture::clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
}

std::string LogCapture::dump() const {
  std::string out;
  for (const auto& l : lines())
    out += "[" + std::to_string(l.type) + "] " + l.category + ": " + l.text + "\n";
  return out;
}

} // namespace qztest

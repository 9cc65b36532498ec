#include "support/LogCapture.h"

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
  std::lock_guard lock(m_mutex);
  std::vector<std::string> out;
  for (const auto& l : m_lines)
    out.push_back(l.text);
  return out;
}

bool LogCapture::has(const std::string& text) const {
  std::lock_guard lock(m_mutex);
  for (const auto& l : m_lines)
    if (l.text == text)
      return true;
  return false;
}

bool LogCapture::has(const std::string& category, const std::string& text) const {
  std::lock_guard lock(m_mutex);
  for (const auto& l : m_lines)
    if (l.category == category && l.text == text)
      return true;
  return false;
}

bool LogCapture::hasPrefix(const std::string& prefix) const {
  std::lock_guard lock(m_mutex);
  for (const auto& l : m_lines)
    if (l.text.compare(0, prefix.size(), prefix) == 0)
      return true;
  return false;
}

size_t LogCapture::size() const {
  std::lock_guard lock(m_mutex);
  return m_lines.size();
}

void LogCapture::clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
}

std::string LogCapture::dump() const {
  std::lock_guard lock(m_mutex);
  std::string out;
  for (const auto& l : m_lines)
    out += "[" + std::to_string(l.type) + "] " + l.category + ": " + l.text + "\n";
  return out;
}

} // namespace qztest

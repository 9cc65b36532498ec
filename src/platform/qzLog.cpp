#include <HttpTools/platform/qzLog.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>

namespace qz {

namespace {
struct LogState {
  std::shared_mutex mutex;
  qzLog::Sink sink;
  std::set<std::string, std::less<>> enabled;
};

LogState& state() {
  static LogState* s = new LogState; // never destroyed: logging stays valid during unload
  return *s;
}

void defaultSink(int logType, const std::string& category, const std::string& text) {
  if (category.empty())
    std::fprintf(stderr, "[%s] %s\n", qzLog::TypeName(logType), text.c_str());
  else
    std::fprintf(stderr, "[%s] %s: %s\n", qzLog::TypeName(logType), category.c_str(), text.c_str());
}
} // namespace

void qzLog::SetSink(Sink sink) {
  auto& s = state();
  std::unique_lock lock(s.mutex);
  s.sink = std::move(sink);
}

void qzLog::SetCategoryEnabled(const std::string& category, bool enabled) {
  auto& s = state();
  std::unique_lock lock(s.mutex);
  if (enabled)
    s.enabled.insert(category);
  else
    s.enabled.erase(category);
}

bool qzLog::IsCategoryEnabled(const std::string& category) {
  auto& s = state();
  std::shared_lock lock(s.mutex);
  return s.enabled.count(category) != 0;
}

std::string qzLog::EscapeControls(std::string_view text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c != 0x7f) {
      out += ch;
      continue;
    }
    out += '\\';
    if (c == '\r')
      out += 'r';
    else if (c == '\n')
      out += 'n';
    else if (c == '\t')
      out += 't';
    else
      out.append({'x', hex[c >> 4], hex[c & 15]});
  }
  return out;
}

void qzLog::Write(int logType, const std::string& category, const std::string& text) {
  const auto unsafe = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
  const bool clean = text.size() <= kMaxLineLength && std::none_of(text.begin(), text.end(), unsafe) &&
                     std::none_of(category.begin(), category.end(), unsafe);
  std::string line, cat;
  if (!clean) {
    const std::string_view kept(text.data(), std::min(text.size(), kMaxLineLength));
    line = EscapeControls(kept);
    if (line.size() > kMaxLineLength)
      line.resize(kMaxLineLength);
    if (text.size() > kMaxLineLength)
      line += " [" + std::to_string(text.size() - kMaxLineLength) + " bytes cut]";
    cat = EscapeControls(category);
  }
  auto& s = state();
  std::shared_lock lock(s.mutex);
  if (s.sink)
    s.sink(logType, clean ? category : cat, clean ? text : line);
  else
    defaultSink(logType, clean ? category : cat, clean ? text : line);
}

const char* qzLog::TypeName(int logType) {
  switch (logType) {
  case Warning:
    return "warning";
  case Info:
    return "info";
  case Notice:
    return "notice";
  case Error:
    return "error";
  case Debug:
    return "debug";
  default:
    return "log";
  }
}

qzLogObject::~qzLogObject() { qzLog::Write(m_type, m_category, m_text.str()); }

} // namespace qz

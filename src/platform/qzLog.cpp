#include <HttpTools/platform/qzLog.h>

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

void qzLog::Write(int logType, const std::string& category, const std::string& text) {
  auto& s = state();
  std::shared_lock lock(s.mutex);
  if (s.sink)
    s.sink(logType, category, text);
  else
    defaultSink(logType, category, text);
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

#include <HttpTools/platform/LibInit.h>

namespace qz::impl {

LibInitCounter::LibInitCounter(const char* name, int flags) : m_name(name ? name : ""), m_flags(flags) {}

bool LibInitCounter::incrementInitCounter() {
  std::lock_guard lock(m_mutex);
  return ++m_count == 1;
}

bool LibInitCounter::decrementInitCounter() {
  std::lock_guard lock(m_mutex);
  if (m_count == 0)
    return false;
  return --m_count == 0;
}

bool LibInitCounter::isInitialized() const {
  std::lock_guard lock(m_mutex);
  return m_count > 0;
}

int LibInitCounter::count() const {
  std::lock_guard lock(m_mutex);
  return m_count;
}

namespace {
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::string> versions;
};
Registry& registry() {
  static Registry* r = new Registry; // outlives every static user
  return *r;
}
} // namespace

void RegisterThirdPartyLibVersionInfo(const std::string& name, const std::string& version) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.versions[name] = version;
}

void UnRegisterThirdPartyLibVersionInfo(const std::string& name) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.versions.erase(name);
}

std::map<std::string, std::string> GetThirdPartyLibVersionInfo() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return r.versions;
}

} // namespace qz::impl

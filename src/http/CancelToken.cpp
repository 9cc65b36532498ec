#include <HttpTools/http/CancelToken.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace qz::http {

struct CancelToken::State {
  std::atomic<bool> cancelled{false};
  const bool* flag = nullptr; // the caller's, read atomically
  std::mutex mutex;           // guards the fields below
  std::condition_variable changed;
  std::vector<std::pair<uint64_t, std::function<void()>>> wakes;
  uint64_t nextId = 1;
  uint64_t running = 0; // the id whose wake runs now, 0: none
  std::thread::id runner;
};

CancelToken::CancelToken() : m_state(std::make_shared<State>()) {}

CancelToken CancelToken::Watching(const bool* flag) {
  CancelToken token;
  token.m_state->flag = flag;
  return token;
}

bool CancelToken::watchesFlag() const { return m_state->flag != nullptr; }

bool CancelToken::isCancelled() const {
  if (m_state->cancelled.load(std::memory_order_acquire))
    return true;
  return IsSet(m_state->flag);
}

void CancelToken::cancel() const {
  State& s = *m_state;
  std::unique_lock<std::mutex> lock(s.mutex);
  if (s.cancelled.exchange(true))
    return;
  s.changed.notify_all();
  // Each wake runs once, outside the lock, so that it may take locks of its own; one removed
  // meanwhile no longer runs.
  s.runner = std::this_thread::get_id();
  while (!s.wakes.empty()) {
    auto [id, wake] = std::move(s.wakes.front());
    s.wakes.erase(s.wakes.begin());
    s.running = id;
    lock.unlock();
    try {
      if (wake)
        wake();
    } catch (...) {
    }
    lock.lock();
    s.changed.notify_all();
  }
  s.running = 0;
  s.changed.notify_all();
}

bool CancelToken::waitFor(std::chrono::milliseconds ms) const {
  State& s = *m_state;
  const auto end = std::chrono::steady_clock::now() + ms;
  std::unique_lock<std::mutex> lock(s.mutex);
  for (;;) {
    if (isCancelled())
      return false;
    const auto now = std::chrono::steady_clock::now();
    if (now >= end)
      return true;
    auto until = end;
    if (s.flag) // nobody notifies the caller's flag
      until = std::min(end, now + std::chrono::milliseconds(PollMs));
    s.changed.wait_until(lock, until);
  }
}

uint64_t CancelToken::onCancel(std::function<void()> wake) const {
  State& s = *m_state;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.cancelled.load()) {
      s.wakes.emplace_back(s.nextId, std::move(wake));
      return s.nextId++;
    }
  }
  if (wake)
    wake();
  return 0;
}

void CancelToken::removeOnCancel(uint64_t id) const {
  if (id == 0)
    return;
  State& s = *m_state;
  std::unique_lock<std::mutex> lock(s.mutex);
  std::erase_if(s.wakes, [id](const auto& w) { return w.first == id; });
  // A wake running on another thread may still use what the caller is about to destroy.
  s.changed.wait(lock, [&] { return s.running != id || s.runner == std::this_thread::get_id(); });
}

} // namespace qz::http

#include <HttpTools/platform/qzThread.h>
#include <HttpTools/platform/qzThread_p.h>

#include <chrono>
#include <system_error>
#include <vector>

namespace qz {

bool qzWaitCondition::wait(qzMutexLocker& locker, unsigned long ms) {
  if (ms == 0) {
    m_cv.wait(locker.native());
    return true;
  }
  return m_cv.wait_for(locker.native(), std::chrono::milliseconds(ms)) == std::cv_status::no_timeout;
}

qzThread::~qzThread() { wait(); }

void qzThread::start() {
  if (!m_thread.joinable())
    m_thread = std::thread([this] { run(); });
}

void qzThread::wait() {
  if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
    m_thread.join();
}

void qzThread::msleep(unsigned long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

qzThreadPeriodicalUpdater::qzThreadPeriodicalUpdater(unsigned periodSec)
    : m_periodMs(periodSec ? periodSec * 1000 : 1000), m_thread([this] { loop(); }) {}

qzThreadPeriodicalUpdater::~qzThreadPeriodicalUpdater() {
  {
    std::lock_guard lock(m_mutex);
    m_stop = true;
  }
  m_cv.notify_all();
  if (m_thread.joinable())
    m_thread.join();
}

void qzThreadPeriodicalUpdater::addCallback(Callback cb, void* data) {
  std::lock_guard lock(m_mutex);
  m_entries.push_back({cb, data});
}

void qzThreadPeriodicalUpdater::removeCallback(Callback cb, void* data) {
  std::unique_lock lock(m_mutex);
  for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
    if (it->cb == cb && it->data == data) {
      if (m_running == &*it && std::this_thread::get_id() == m_thread.get_id()) {
        // A callback removing itself: the loop erases it once it returns.
        m_runningRemoved = true;
        return;
      }
      m_cv.wait(lock, [&] { return m_running != &*it; });
      m_entries.erase(it);
      return;
    }
  }
}

void qzThreadPeriodicalUpdater::setPeriodMs(unsigned ms) {
  {
    std::lock_guard lock(m_mutex);
    m_periodMs = ms ? ms : 1;
  }
  m_cv.notify_all();
}

unsigned qzThreadPeriodicalUpdater::periodMs() const {
  std::lock_guard lock(m_mutex);
  return m_periodMs;
}

void qzThreadPeriodicalUpdater::loop() {
  std::unique_lock lock(m_mutex);
  unsigned period = m_periodMs;
  auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(period);
  while (!m_stop) {
    if (m_cv.wait_until(lock, next) != std::cv_status::timeout) {
      // Woken early (a stop, a new period or a spurious wake-up): a new period restarts the wait.
      if (period != m_periodMs) {
        period = m_periodMs;
        next = std::chrono::steady_clock::now() + std::chrono::milliseconds(period);
      }
      continue;
    }
    // Run each entry with the lock released; removeCallback waits on m_running.
    for (auto it = m_entries.begin(); it != m_entries.end() && !m_stop;) {
      const Entry* e = &*it;
      m_running = e;
      Callback cb = e->cb;
      void* data = e->data;
      lock.unlock();
      cb(data);
      lock.lock();
      m_running = nullptr;
      // `it` is still valid: removeCallback waits while this entry runs, or defers to us.
      if (m_runningRemoved) {
        m_runningRemoved = false;
        it = m_entries.erase(it);
      } else {
        ++it;
      }
      m_cv.notify_all();
    }
    period = m_periodMs;
    next = std::chrono::steady_clock::now() + std::chrono::milliseconds(period);
  }
}

} // namespace qz

namespace qz::impl {

void RunOnThreads(unsigned n, const std::function<void(unsigned)>& work) {
  if (n == 0)
    return;
  std::vector<std::thread> threads;
  std::vector<unsigned> late;
  struct Joiner {
    std::vector<std::thread>& threads;
    ~Joiner() {
      for (auto& t : threads)
        t.join();
    }
  } joiner{threads};
  for (unsigned i = 1; i < n; ++i) {
    try {
      threads.emplace_back(work, i);
    } catch (const std::system_error&) {
      late.push_back(i);
    }
  }
  work(0);
  for (unsigned i : late)
    work(i);
}

} // namespace qz::impl

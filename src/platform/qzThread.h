#pragma once

#include <HttpTools/platform/Export.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace qz {

class HTTPTOOLS_API qzMutex {
public:
  void lock() { m_m.lock(); }
  void unlock() { m_m.unlock(); }
  bool tryLock() { return m_m.try_lock(); }
  std::mutex& native() { return m_m; }

private:
  std::mutex m_m;
};

class qzMutexLocker {
public:
  explicit qzMutexLocker(qzMutex& m) : m_lock(m.native()) {}
  explicit qzMutexLocker(qzMutex* m) : m_lock(m->native()) {}
  std::unique_lock<std::mutex>& native() { return m_lock; }

private:
  std::unique_lock<std::mutex> m_lock;
};

class HTTPTOOLS_API qzWaitCondition {
public:
  // Waits until woken or `ms` milliseconds pass (0: no limit). Returns false on time-out.
  bool wait(qzMutexLocker& locker, unsigned long ms = 0);
  void wakeOne() { m_cv.notify_one(); }
  void wakeAll() { m_cv.notify_all(); }

private:
  std::condition_variable m_cv;
};

class HTTPTOOLS_API qzThread {
public:
  qzThread() = default;
  virtual ~qzThread();
  qzThread(const qzThread&) = delete;
  qzThread& operator=(const qzThread&) = delete;

  void start();
  void wait(); // joins; no-op if not started
  bool isRunning() const { return m_thread.joinable(); }
  static void msleep(unsigned long ms);

protected:
  virtual void run() = 0;

private:
  std::thread m_thread;
};

// One thread that calls each registered (callback, data) pair every period (in seconds).
class HTTPTOOLS_API qzThreadPeriodicalUpdater {
public:
  using Callback = void (*)(void* data);

  explicit qzThreadPeriodicalUpdater(unsigned periodSec);
  virtual ~qzThreadPeriodicalUpdater();
  qzThreadPeriodicalUpdater(const qzThreadPeriodicalUpdater&) = delete;
  qzThreadPeriodicalUpdater& operator=(const qzThreadPeriodicalUpdater&) = delete;

  void addCallback(Callback cb, void* data);
  // Returns only when the pair is not running; after it returns it is never called again.
  void removeCallback(Callback cb, void* data);
  // Period in milliseconds; tests shorten it.
  void setPeriodMs(unsigned ms);
  unsigned periodMs() const;

private:
  void loop();

  struct Entry {
    Callback cb;
    void* data;
  };
  mutable std::mutex m_mutex;
  std::condition_variable m_cv;
  std::list<Entry> m_entries;
  const Entry* m_running = nullptr;
  bool m_runningRemoved = false;
  unsigned m_periodMs;
  bool m_stop = false;
  std::thread m_thread; // last: started after every member above exists
};

} // namespace qz

#pragma once

#include <HttpTools/platform/Export.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace qz {

/// A std::mutex under the platform's name.
class HTTPTOOLS_API qzMutex {
public:
  /// Lock, unlock, try to lock (false when taken), and the std::mutex for std::unique_lock.
  ///@{
  void lock() { m_m.lock(); }
  void unlock() { m_m.unlock(); }
  bool tryLock() { return m_m.try_lock(); }
  std::mutex& native() { return m_m; }
  ///@}

private:
  std::mutex m_m;
};

/// Holds a qzMutex locked for its scope (a std::unique_lock, so that qzWaitCondition can wait on it).
class qzMutexLocker {
public:
  /// Locks `m` until destroyed; native() gives the lock for condition waits.
  ///@{
  explicit qzMutexLocker(qzMutex& m) : m_lock(m.native()) {}
  explicit qzMutexLocker(qzMutex* m) : m_lock(m->native()) {}
  std::unique_lock<std::mutex>& native() { return m_lock; }
  ///@}

private:
  std::unique_lock<std::mutex> m_lock;
};

/// A std::condition_variable under the platform's name. Waits may wake spuriously: callers re-check their condition.
class HTTPTOOLS_API qzWaitCondition {
public:
  /// Waits until woken or `ms` milliseconds pass (0: no limit). Returns false on time-out.
  bool wait(qzMutexLocker& locker, unsigned long ms = 0);
  /// Wakes one waiting thread, or all of them.
  ///@{
  void wakeOne() { m_cv.notify_one(); }
  void wakeAll() { m_cv.notify_all(); }
  ///@}

private:
  std::condition_variable m_cv;
};

/// A thread that runs run() once; the destructor waits for it.
class HTTPTOOLS_API qzThread {
public:
  qzThread() = default;
  virtual ~qzThread();
  qzThread(const qzThread&) = delete;
  qzThread& operator=(const qzThread&) = delete;

  /// Starts run() on a new thread; no-op while one runs.
  void start();
  void wait(); ///< joins; no-op if not started
  /// True from start() until wait() has joined.
  bool isRunning() const { return m_thread.joinable(); }
  /// Sleeps the calling thread.
  static void msleep(unsigned long ms);

protected:
  /// The thread's work.
  virtual void run() = 0;

private:
  std::thread m_thread;
};

/// One thread that calls each registered (callback, data) pair every period (in seconds).
class HTTPTOOLS_API qzThreadPeriodicalUpdater {
public:
  /// A callback and its `data` are registered as a pair.
  using Callback = void (*)(void* data);

  /// Starts the thread at once; a period of 0 means 1 s. The destructor stops and joins it.
  explicit qzThreadPeriodicalUpdater(unsigned periodSec);
  virtual ~qzThreadPeriodicalUpdater();
  qzThreadPeriodicalUpdater(const qzThreadPeriodicalUpdater&) = delete;
  qzThreadPeriodicalUpdater& operator=(const qzThreadPeriodicalUpdater&) = delete;

  /// Registers the pair; it is first called within one period. Any thread.
  void addCallback(Callback cb, void* data);
  /// Returns only when the pair is not running; after it returns it is never called again.
  void removeCallback(Callback cb, void* data);
  /// Period in milliseconds; tests shorten it.
  void setPeriodMs(unsigned ms);
  unsigned periodMs() const; ///< the current period, in milliseconds

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
  std::thread m_thread; ///< last: started after every member above exists
};

} // namespace qz

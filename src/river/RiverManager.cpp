// RiverManager: the rivers' scheduling on worker threads.
#include <HttpTools/river/River.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/river/RiverRunner_p.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace qz::river {

using detail::RiverOutcome;
using detail::RiverRunner;

class RiverManager::Private {
public:
  Private(http::HttpConnectionPool& p, unsigned threads) : pool(p), workerThreads(std::max(1u, threads)) {
    static std::atomic<unsigned> counter{0};
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    owner = std::string(host) + ":" + std::to_string(::getpid()) + ":" + std::to_string(++counter);
  }

  http::HttpConnectionPool& pool;
  const unsigned workerThreads;
  std::string owner;
  std::vector<std::unique_ptr<RiverRunner>> rivers;
  std::vector<std::thread> workers;
  detail::StopSignal stop;
  std::atomic<bool> running{false};

  // The pause before the next step of a river that did nothing: short while it holds its lease,
  // a quarter of the lease time while another process does.
  unsigned idlePause(const RiverRunner& r, unsigned heldMs) const {
    return r.holdsLease() ? heldMs : std::max(100u, r.definition().leaseMs / 4);
  }

  // Runs `river` until it is caught up. A failure that retrying cannot fix ends it at once; a
  // transient one after a few tries while nothing was written yet, else once failures in a row
  // have lasted `retryMaxMs`. False with the failure in `firstError` (if still empty).
  bool runRiverOnce(RiverRunner& r, std::string& firstError, std::mutex& errorMutex, const bool* cancel) {
    r.setRunning(true);
    const auto written = [&] {
      const auto s = r.status();
      return s.indexed + s.deleted + s.skipped + s.failed;
    };
    const size_t writtenBefore = written();
    unsigned failures = 0;
    int64_t failingSince = 0;
    bool ok = true;
    while (!stop.stopped(cancel)) {
      const RiverOutcome outcome = r.step(cancel);
      r.record(outcome);
      if (outcome.ok())
        break;
      if (outcome.failed() && !failures++)
        failingSince = detail::SteadyMs();
      const bool started = written() > writtenBefore;
      const int64_t failingMs = detail::SteadyMs() - failingSince;
      if (outcome.failed() && (outcome.permanent || (!started && failures > 8) ||
                               (started && failingMs >= int64_t(r.definition().retryMaxMs)))) {
        std::lock_guard<std::mutex> lock(errorMutex);
        if (firstError.empty())
          firstError = r.definition().name + ": " + outcome.message +
                       (outcome.permanent ? ""
                                          : " (gave up after " + std::to_string(failures) + " tries in " +
                                                std::to_string(failingMs / 1000) + " s)");
        ok = false;
        break;
      }
      if (!outcome.failed())
        failures = 0;
      stop.pause(outcome.failed() ? detail::StopSignal::BackoffMs(failures + 3) : idlePause(r, 100), cancel);
    }
    r.release();
    r.setRunning(false);
    return ok && !stop.stopped(cancel);
  }

  // Follows worker `w`'s rivers (i % n == w) until stopped: a river alone on its worker on a
  // live feed, several in turn, each polled once per flushIntervalMs.
  void followRivers(unsigned w, unsigned n) {
    std::vector<RiverRunner*> mine;
    for (size_t i = w; i < rivers.size(); i += n)
      mine.push_back(rivers[i].get());
    for (RiverRunner* r : mine)
      r->setRunning(true);
    std::vector<unsigned> failures(mine.size(), 0);
    while (!stop.stopped(nullptr)) {
      unsigned wait = 60000;
      for (size_t i = 0; i < mine.size() && !stop.stopped(nullptr); ++i) {
        RiverRunner& r = *mine[i];
        const bool live = mine.size() == 1;
        const RiverOutcome outcome = r.step(nullptr, live);
        r.record(outcome);
        failures[i] = outcome.failed() ? failures[i] + 1 : 0;
        wait = std::min(wait, failures[i] ? detail::StopSignal::BackoffMs(failures[i] + 3)
                                          : idlePause(r, live ? 20 : r.definition().flushIntervalMs));
      }
      stop.pause(wait, nullptr);
    }
    for (RiverRunner* r : mine) {
      r->release();
      r->setRunning(false);
    }
  }

  // Runs the rivers on up to `workerThreads` threads, river i on worker i % workerThreads.
  bool runAll(bool follow, std::string* error, const bool* cancel) {
    std::string firstError;
    std::mutex errorMutex;
    std::atomic<bool> ok{true};
    const unsigned n = std::max(1u, std::min<unsigned>(workerThreads, unsigned(rivers.size())));
    auto work = [&](unsigned w) {
      if (follow)
        return followRivers(w, n);
      for (size_t i = w; i < rivers.size(); i += n)
        if (!runRiverOnce(*rivers[i], firstError, errorMutex, cancel))
          ok = false;
    };
    std::vector<std::thread> threads;
    for (unsigned w = 1; w < n; ++w)
      threads.emplace_back(work, w);
    work(0);
    for (auto& t : threads)
      t.join();
    if (!ok && error)
      *error = firstError.empty() ? std::string("cancelled") : firstError;
    return ok;
  }
};

RiverManager::RiverManager(http::HttpConnectionPool& pool, unsigned workerThreads)
    : d(std::make_unique<Private>(pool, workerThreads)) {
  pool.ensureAtLeastMaxConcurrentConnection(d->workerThreads + 1);
}

RiverManager::~RiverManager() { stop(); }

bool RiverManager::addRiver(RiverDefinition definition, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };
  if (d->running.load())
    return fail("the rivers are running");
  if (definition.name.empty() || definition.database.empty() || definition.index.empty())
    return fail("a river needs a name, a database and an index alias");
  if (definition.stateIndex.empty() || definition.stateIndex == definition.index)
    return fail("the state index must be a name of its own");
  for (const auto& r : d->rivers)
    if (r->definition().name == definition.name)
      return fail("a river named " + definition.name + " exists already");
  definition.batchDocs = std::max<size_t>(1, definition.batchDocs);
  definition.leaseMs = std::max(1000u, definition.leaseMs);
  auto river = std::make_unique<RiverRunner>(d->pool, std::move(definition), d->owner, d->stop);
  if (!river->valid(error))
    return false;
  d->rivers.push_back(std::move(river));
  return true;
}

bool RiverManager::runOnce(std::string* error, const bool* cancel) {
  if (d->running.exchange(true)) {
    if (error)
      *error = "the rivers are running";
    return false;
  }
  d->stop.reset();
  // A cancel becomes a stop, which also ends the waits that poll an atomic flag.
  std::mutex mutex;
  std::condition_variable cv;
  bool finished = false;
  std::thread watcher;
  if (cancel)
    watcher = std::thread([&] {
      std::unique_lock<std::mutex> lock(mutex);
      while (!cv.wait_for(lock, std::chrono::milliseconds(20), [&] { return finished; }))
        if (std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load()) {
          d->stop.stop();
          return;
        }
    });
  const bool ok = d->runAll(false, error, cancel);
  {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
  }
  cv.notify_all();
  if (watcher.joinable())
    watcher.join();
  d->running = false;
  return ok;
}

bool RiverManager::start() {
  if (d->running.exchange(true))
    return false;
  d->stop.reset();
  d->workers.emplace_back([this] { d->runAll(true, nullptr, nullptr); });
  return true;
}

void RiverManager::stop() {
  d->stop.stop();
  for (auto& t : d->workers)
    if (t.joinable())
      t.join();
  if (!d->workers.empty()) {
    d->workers.clear();
    d->running = false;
  }
}

std::vector<RiverStatus> RiverManager::status() const {
  std::vector<RiverStatus> out;
  for (const auto& r : d->rivers)
    out.push_back(r->status());
  return out;
}

} // namespace qz::river

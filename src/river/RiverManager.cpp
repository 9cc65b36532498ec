// RiverManager: the rivers' scheduling on worker threads.
#include <HttpTools/river/River.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzThread_p.h>
#include <HttpTools/river/RiverRunner_p.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace qz::river {

using detail::RiverOutcome;
using detail::RiverRunner;

class RiverManager::Private {
public:
  Private(http::HttpConnectionPool& p, unsigned threads)
      : pool(p), workerThreads(std::max(1u, threads)), use(p, workerThreads + 1) {
    static std::atomic<unsigned> counter{0};
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    owner = std::string(host) + ":" + std::to_string(::getpid()) + ":" + std::to_string(++counter);
  }

  http::HttpConnectionPool& pool;
  const unsigned workerThreads;
  // The workers and the heartbeat keep their connections while the manager lives; the pool's own
  // cap stays as the caller set it.
  const http::HttpConnectionPool::ParallelUse use;
  std::string owner;
  std::vector<std::unique_ptr<RiverRunner>> rivers;
  std::vector<std::thread> workers;
  detail::StopSignal stop;
  std::atomic<bool> running{false};

  // The pause before the next step of a river that did nothing: short while it holds its lease;
  // while another process does, until that lease expires, but at most a quarter of the lease time.
  unsigned idlePause(const RiverRunner& r, unsigned heldMs) const {
    const int64_t quarter = std::max(100u, r.definition().leaseMs / 4);
    return r.holdsLease() ? heldMs : unsigned(std::clamp<int64_t>(r.leaseFreeInMs() + 20, 100, quarter));
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
        const RiverOutcome outcome = stepShared(r, live);
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
    qz::impl::RunOnThreads(n, work);
    if (!ok && error)
      *error = firstError.empty() ? std::string("cancelled") : firstError;
    return ok;
  }

  // Sharing with other processes: this process's share of the rivers, the leases it holds, and
  // which rivers hold one (by position in `rivers`).
  bool sharing = false;
  std::atomic<unsigned> share{0};
  std::atomic<unsigned> held{0};
  std::deque<std::atomic<bool>> holding;

  // A following step within this process's share: a river beyond it is given back (or not
  // taken); one taken counts from the step that took it.
  RiverOutcome stepShared(RiverRunner& r, bool live) {
    const size_t i =
        size_t(std::find_if(rivers.begin(), rivers.end(), [&](auto& p) { return p.get() == &r; }) - rivers.begin());
    std::atomic<bool>& holds = holding[i];
    if (!sharing) {
      RiverOutcome outcome = r.step(nullptr, live);
      holds = r.holdsLease();
      return outcome;
    }
    if (holds.load() && held.load() > share.load()) {
      r.release();
      holds = false;
      --held;
      qzLogObject(qzLog::Info, "river") << "River " << r.definition().name << " given back: " << share.load()
                                        << " rivers are this process's share";
      return RiverOutcome::Idle("given back to the other processes");
    }
    if (!holds.load() && held.fetch_add(1) >= share.load()) {
      --held;
      return RiverOutcome::Idle("this process holds its share");
    }
    RiverOutcome outcome = r.step(nullptr, live);
    holds = r.holdsLease();
    if (!holds.load())
      --held;
    return outcome;
  }

  // Heartbeats and their expiry follow the shortest lease of the rivers.
  unsigned shortestLeaseMs() const {
    unsigned leaseMs = 30000;
    for (const auto& r : rivers)
      leaseMs = std::min(leaseMs, r->definition().leaseMs);
    return leaseMs;
  }
  // One heartbeat; the share follows the live processes. False when it failed.
  bool beat(detail::ProcessRegistry& registry) {
    const RiverOutcome beaten = registry.beat(false, nullptr);
    if (beaten.ok())
      share = detail::ProcessRegistry::Share(unsigned(rivers.size()), registry.processes(), registry.rank());
    else if (!stop.stopped(nullptr))
      qzLogObject(qzLog::Warning, "river") << "Heartbeat: " << beaten.message;
    return beaten.ok();
  }
  // Beats every third of the shortest lease time (10 s at the default 30 s, as often as a lease
  // is renewed) until stopped, then removes the heartbeat.
  void beatUntilStopped(detail::ProcessRegistry& registry, unsigned failures) {
    while (stop.pause(failures ? detail::StopSignal::BackoffMs(failures + 3) : shortestLeaseMs() / 3, nullptr))
      failures = beat(registry) ? 0 : failures + 1;
    registry.beat(true, nullptr);
  }

  // The heartbeat document's name: one per set of rivers.
  std::string processesDocument() const {
    std::vector<std::string> names;
    for (const auto& r : rivers)
      names.push_back(r->definition().name);
    std::sort(names.begin(), names.end());
    uint64_t hash = 1469598103934665603ull; // FNV-1a
    for (const auto& name : names)
      for (const char c : name + '\n')
        hash = (hash ^ uint8_t(c)) * 1099511628211ull;
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
    return std::string("httptools-processes-") + hex;
  }

  void startSharing() {
    const RiverDefinition& first = rivers.front()->definition();
    detail::StateLocation where{first.elastic, first.stateIndex, processesDocument(), {}, {}};
    registryStore = std::make_unique<detail::CheckpointStore>(pool, where);
    // A heartbeat lives two beats: a process gone is seen before its leases expire.
    registry = std::make_unique<detail::ProcessRegistry>(*registryStore, pool, where, owner, shortestLeaseMs() / 3 * 2);
    // The first beat before the rivers start, so that they start with this process's share.
    const unsigned failures = beat(*registry) ? 0 : 1;
    workers.emplace_back([this, failures] { beatUntilStopped(*registry, failures); });
  }
  std::unique_ptr<detail::CheckpointStore> registryStore;
  std::unique_ptr<detail::ProcessRegistry> registry;
};

RiverManager::RiverManager(http::HttpConnectionPool& pool, unsigned workerThreads)
    : d(std::make_unique<Private>(pool, workerThreads)) {}

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
  if (definition.maxDocsPerSecond) // a checkpoint at least every second of a throttled load
    definition.batchDocs = std::min<size_t>(definition.batchDocs, definition.maxDocsPerSecond);
  if (definition.name.rfind("httptools-processes-", 0) == 0)
    return fail("river names starting with httptools-processes- are kept for the processes' heartbeats");
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
  d->holding.clear();
  for (size_t i = 0; i < d->rivers.size(); ++i)
    d->holding.emplace_back(false);
  d->held = 0;
  d->share = 0;
  if (d->sharing && !d->rivers.empty())
    d->startSharing();
  d->workers.emplace_back([this] { d->runAll(true, nullptr, nullptr); });
  return true;
}

void RiverManager::stop() {
  d->stop.stop();
  for (auto& t : d->workers)
    if (t.joinable())
      t.join();
  for (auto& holds : d->holding)
    holds = false; // released by the workers
  if (!d->workers.empty()) {
    d->workers.clear();
    d->running = false;
  }
}

std::vector<RiverStatus> RiverManager::status() const {
  std::vector<RiverStatus> out;
  for (size_t i = 0; i < d->rivers.size(); ++i) {
    out.push_back(d->rivers[i]->status());
    // Sharing, a river this process does not hold is left to the others.
    if (d->sharing && i < d->holding.size() && !d->holding[i].load())
      out.back().waitingForLease = true;
  }
  return out;
}

void RiverManager::shareWithOtherProcesses(bool share) { d->sharing = share; }

size_t RiverManager::heldRivers() const {
  size_t n = 0;
  for (const auto& holds : d->holding)
    n += holds.load() ? 1 : 0;
  return n;
}

} // namespace qz::river

#include <HttpTools/river/RiverRunner_p.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <chrono>
#include <condition_variable>
#include <thread>

namespace qz::river::detail {

RiverRunner::RiverRunner(http::HttpConnectionPool& pool, RiverDefinition definition, const std::string& owner,
                         StopSignal& stop)
    : m_pool(pool), m_def(std::move(definition)), m_stop(stop),
      m_store(pool, {m_def.elastic, m_def.stateIndex, m_def.name, m_def.index, m_def.database}),
      m_lease(m_store, owner, m_def.leaseMs), m_indices(pool, m_def.elastic, m_def.index, m_def.mappingJson),
      m_source(pool, m_def.couch, m_def.database, m_def.name), m_transform(RiverTransform(m_def)) {
  m_sender = MakeBulkSender(
      pool, m_def.elastic, m_def.name, stop,
      [this](const BulkProgress& p) {
        updateStatus([&](RiverStatus& s) {
          s.indexed += p.indexed;
          s.deleted += p.deleted;
          s.failed += p.failed;
          s.retries += p.retried;
          s.error = p.retrying;
          s.caughtUp = s.caughtUp && p.retrying.empty();
          s.rejected += p.rejected;
        });
      },
      5, m_def.deadLetter);
  m_sender = RouteIfNeeded(pool, m_def, std::move(m_sender));
  m_status.name = m_def.name;
}

RiverOutcome RiverRunner::step(const bool* cancel, bool follow) {
  auto run = [&] {
    if (!m_lease.held()) {
      auto lease = m_lease.acquire(m_state, cancel);
      updateStatus([&](RiverStatus& s) {
        s.waitingForLease = lease.idle();
        if (lease.idle())
          s.error = lease.message;
      });
      if (!lease.ok())
        return lease;
      m_prepared = false;
      qzLogObject(qzLog::Info, "river") << "River " << m_def.name << " runs here (" << m_lease.owner() << ") from seq "
                                        << m_state.seq;
    }
    if (!m_prepared) {
      if (auto prepared = prepare(cancel); !prepared.ok())
        return prepared;
      m_prepared = true;
    }
    // A feed that went quiet has seen no deletion of the database: no request needed.
    const bool resumed = std::exchange(m_quietEnd, false);
    if (!resumed)
      if (auto checked = checkSource(cancel); !checked.ok())
        return checked;
    // A river that was following opens its live feed again at once: one request per quiet spell.
    const bool reads = !(resumed && follow && m_state.building.empty());
    while (reads) {
      if (auto caughtUp = catchUp(cancel, !resumed); !caughtUp.ok())
        return caughtUp;
      if (m_state.building.empty())
        break;
      if (auto swapped = swap(cancel); !swapped.ok())
        return swapped;
    }
    if (follow)
      return this->follow(cancel);
    return m_lease.renewDue() ? save(cancel) : RiverOutcome::Done();
  };
  RiverOutcome outcome = run();
  // A request cut short by stop or cancel is no failure.
  return outcome.failed() && m_stop.stopped(cancel) ? RiverOutcome::Idle() : outcome;
}

RiverOutcome RiverRunner::prepare(const bool* cancel) {
  const std::string building = m_state.building;
  if (auto prepared = m_indices.prepare(m_state, cancel); !prepared.ok())
    return prepared;
  if (!m_state.building.empty() && m_state.building != building)
    qzLogObject(qzLog::Info, "river") << "River " << m_def.name << ": the mapping changed, filling "
                                      << m_state.building;
  return save(cancel);
}

RiverOutcome RiverRunner::checkSource(const bool* cancel) {
  const std::string known = m_state.marker;
  bool recreated = false;
  if (auto checked = m_source.check(m_state, recreated, cancel); !checked.ok())
    return checked;
  if (!recreated)
    return m_state.marker == known ? RiverOutcome::Done() : save(cancel);
  qzLogObject(qzLog::Warning, "river") << "River " << m_def.name << ": " << m_def.database
                                       << " was deleted and created again, filling a new index";
  m_headSeq = -1; // the old database's seqs say nothing of the new one's
  // Until the rebuild is stored, the next check must still see a marker other than the state's.
  auto forget = [&](RiverOutcome failed) {
    m_state.marker = known;
    return failed;
  };
  if (auto marked = m_source.mark(m_state, cancel); !marked.ok())
    return forget(marked);
  if (auto rebuilt = m_indices.rebuild(m_state, cancel); !rebuilt.ok())
    return forget(rebuilt);
  auto saved = save(cancel);
  return saved.ok() ? saved : forget(saved);
}

RiverOutcome RiverRunner::swap(const bool* cancel) {
  const std::string old = m_state.index;
  if (auto swapped = m_indices.swap(m_state, cancel); !swapped.ok())
    return swapped;
  if (auto saved = save(cancel); !saved.ok())
    return saved;
  qzLogObject(qzLog::Info, "river") << "River " << m_def.name << ": " << m_def.index << " now points to "
                                    << m_state.index;
  m_indices.drop(old, cancel); // a leftover is dropped by the next build anyway
  return RiverOutcome::Done();
}

RiverOutcome RiverRunner::FeedFailure(const std::string& error, uint64_t reconnectsSinceDelivery, unsigned maxRetries) {
  return RiverOutcome::Failure(Side::Couch, reconnectsSinceDelivery < maxRetries, "CouchDB: " + error);
}

bool RiverRunner::take(BulkPipeline& pipeline, const qz::couch::Change& change, const std::string& index) {
  if (const int64_t seq = IntegerSeq(change.seq); seq > m_headSeq.load())
    m_headSeq = seq;
  BulkOp op;
  bool skipped = false;
  const bool needsOp = ChangeToOp(change, index, m_transform, op, skipped);
  if (skipped)
    updateStatus([](RiverStatus& s) { ++s.skipped; });
  return pipeline.add(needsOp ? &op : nullptr, change.seq);
}

RiverOutcome RiverRunner::commit(const std::string& seq, bool following, const bool* cancel) {
  if (!seq.empty())
    m_state.targetSeq() = seq;
  m_ackedSeq = IntegerSeq(m_state.targetSeq());
  if (following)
    m_lastCaughtUpMs = SteadyMs();
  if (following && !m_lease.renewDue() && SteadyMs() - m_savedMs < 1000) {
    m_dirty = true;
    return RiverOutcome::Done();
  }
  return save(cancel);
}

void RiverRunner::attach(const BulkPipeline* pipeline) {
  std::lock_guard<std::mutex> lock(m_statusMutex);
  m_pipeline = pipeline;
  m_status.live = pipeline && pipeline == m_livePipeline;
}

void RiverRunner::readHead(const bool* cancel) {
  qz::couch::detail::Reply reply;
  qz::couch::detail::RequestWithRetry(m_pool, m_def.couch.toDatabaseUrl(m_def.database, {}), http::Method::Get, nullptr,
                                      reply, cancel);
  qzVariantMapImpl info;
  if (reply.code == 200 && qz::json::Json2Variant::Convert(reply.body, info))
    if (const int64_t head = IntegerSeq(info["update_seq"].toString()); head > m_headSeq.load())
      m_headSeq = head;
}

RiverOutcome RiverRunner::catchUp(const bool* cancel, bool readsHead) {
  const std::string index = m_state.target();
  m_ackedSeq = IntegerSeq(m_state.targetSeq());
  if (readsHead)
    readHead(cancel);
  qz::couch::ChangesOptions options;
  options.since = m_state.targetSeq();
  options.includeDocs = true;
  options.allLeafRevs = true; // every leaf's generation goes into the version
  options.batchLimit = unsigned(m_def.batchDocs);
  // An index filled from the start holds no document that stopped matching: the server may filter.
  if (!m_def.selectorJson.empty() && options.since == "0" && ServerFiltersBySelector(m_pool, m_def.couch, cancel))
    options.selector = m_def.selectorJson;
  options.backoffInitialMs = 200;
  options.backoffMaxMs = 1000;
  options.maxRetries = 3;
  qz::couch::ChangesFeedListener feed(m_pool, m_def.couch, m_def.database, options);
  BulkPipeline pipeline(
      *m_sender, m_def.batchDocs, [&](const std::string& seq) { return commit(seq, false, cancel); }, cancel);
  attach(&pipeline);
  const std::unique_ptr<RiverRunner, void (*)(RiverRunner*)> detach(this, [](RiverRunner* r) { r->attach(nullptr); });
  bool interrupted = false;
  uint64_t reconnectsAtDelivery = 0;
  std::string feedError;
  const bool read = feed.run(
      [&](const qz::couch::Change& change) {
        reconnectsAtDelivery = feed.reconnectCount();
        m_serverPending = feed.pending();
        interrupted = !m_throttle.take(m_stop, cancel) || m_stop.stopped(cancel) || !take(pipeline, change, index);
        return !interrupted;
      },
      &feedError, cancel);
  m_serverPending = feed.pending();
  if (auto sent = pipeline.wait(); !sent.ok())
    return sent;
  if (interrupted || m_stop.stopped(cancel))
    return RiverOutcome::Idle();
  // Whatever was read is written even when the feed failed: the checkpoint only gets closer.
  if (auto rest = pipeline.flush(); !rest.ok())
    return rest;
  if (!read)
    return FeedFailure(feedError, feed.reconnectCount() - reconnectsAtDelivery, options.maxRetries);
  const std::string end = feed.lastSeq();
  if (const int64_t seq = IntegerSeq(end); seq > m_headSeq.load())
    m_headSeq = seq;
  m_ackedSeq = IntegerSeq(end.empty() ? m_state.targetSeq() : end);
  if (end.empty() || end == m_state.targetSeq())
    return RiverOutcome::Done();
  m_state.targetSeq() = end;
  return save(cancel);
}

RiverOutcome RiverRunner::follow(const bool* cancel) {
  const std::string index = m_state.target();
  qz::couch::ChangesOptions options;
  options.since = m_state.targetSeq();
  options.includeDocs = true;
  options.allLeafRevs = true;
  options.continuous = true;
  options.heartbeatMs = std::max(100u, m_def.heartbeatMs);
  options.backoffInitialMs = 200;
  options.backoffMaxMs = 1000;
  options.maxRetries = 3;
  qz::couch::ChangesFeedListener feed(m_pool, m_def.couch, m_def.database, options);
  BulkPipeline pipeline(
      *m_sender, m_def.batchDocs, [&](const std::string& seq) { return commit(seq, true, cancel); }, cancel);
  m_livePipeline = &pipeline;
  attach(&pipeline);
  const std::unique_ptr<RiverRunner, void (*)(RiverRunner*)> detach(this, [](RiverRunner* r) {
    r->m_livePipeline = nullptr;
    r->attach(nullptr);
  });
  m_lastCaughtUpMs = SteadyMs();
  updateStatus([](RiverStatus& s) {
    s.caughtUp = true;
    s.failures = 0;
    s.lagMs = 0;
    s.waitingForLease = false;
    s.error.clear();
  });

  // Beside the feed, a watch ends it on stop, cancel, a failed batch or a quiet spell, and stores
  // the state between batches while it is quiet (the lease renewal at most every leaseMs / 3).
  std::mutex mutex;
  std::condition_variable wake;
  bool finished = false;
  std::atomic<int64_t> lastChangeMs{SteadyMs()};
  std::atomic<bool> ending{false};
  bool quiet = false;
  std::thread watch([&] {
    std::unique_lock<std::mutex> lock(mutex);
    while (!wake.wait_for(lock, std::chrono::milliseconds(50), [&] { return finished; })) {
      lock.unlock();
      if (!ending.load()) {
        if (SteadyMs() - lastChangeMs.load() >= int64_t(m_def.feedIdleMs))
          quiet = true;
        const RiverOutcome kept = pipeline.between([&] {
          const bool due = m_lease.renewDue() || (m_dirty && SteadyMs() - m_savedMs >= 1000);
          return due && !m_stop.stopped(cancel) ? save(cancel) : RiverOutcome::Done();
        });
        ending = quiet || !kept.ok() || m_stop.stopped(cancel);
      }
      if (ending.load())
        feed.stop(); // again until the run sees it: it may not have begun
      lock.lock();
    }
  });

  bool interrupted = false;
  uint64_t reconnectsAtDelivery = 0;
  std::string feedError;
  const bool read = feed.runBatches(
      [&](std::vector<qz::couch::Change>& batch, const std::string&) {
        lastChangeMs = SteadyMs();
        reconnectsAtDelivery = feed.reconnectCount();
        for (const auto& change : batch)
          if (m_stop.stopped(cancel) || !take(pipeline, change, index)) {
            interrupted = true;
            return false;
          }
        pipeline.handOver();
        return !ending.load();
      },
      &feedError, cancel);
  {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
  }
  wake.notify_all();
  watch.join();

  auto keep = [&](RiverOutcome outcome) { // what was acknowledged is stored on the way out
    if (m_dirty && !outcome.failed())
      if (auto saved = save(cancel); !saved.ok() && !m_stop.stopped(cancel))
        return saved;
    return outcome;
  };
  if (auto sent = pipeline.wait(); !sent.ok())
    return sent.idle() ? sent : keep(sent);
  if (interrupted || m_stop.stopped(cancel))
    return keep(RiverOutcome::Idle());
  if (auto rest = pipeline.flush(); !rest.ok())
    return rest;
  if (!read)
    return keep(FeedFailure(feedError, feed.reconnectCount() - reconnectsAtDelivery, options.maxRetries));
  m_quietEnd = quiet;
  return keep(RiverOutcome::Done());
}

RiverOutcome RiverRunner::save(const bool* cancel) {
  for (unsigned attempt = 0;; ++attempt) {
    RiverOutcome saved = m_lease.renew(m_state, cancel);
    if (saved.ok()) {
      m_dirty = false;
      m_savedMs = SteadyMs();
      updateStatus([&](RiverStatus& s) {
        s.lastSeq = m_state.targetSeq();
        s.liveIndex = m_state.index;
        s.buildingIndex = m_state.building;
      });
      return saved;
    }
    if (saved.idle())
      m_prepared = false;
    setError(saved.message);
    if (saved.idle() || saved.permanent || !m_stop.pause(StopSignal::BackoffMs(attempt), cancel))
      return saved;
  }
}

void RiverRunner::record(const RiverOutcome& outcome) {
  if (outcome.ok())
    m_lastCaughtUpMs = SteadyMs();
  if (outcome.failed()) {
    m_prepared = m_prepared && outcome.side == Side::Couch;
    qzLogObject(qzLog::Warning, "river") << "River " << m_def.name << ": " << outcome.message;
  }
  // One update, so that a reader never sees the error beside a caught-up state.
  updateStatus([&](RiverStatus& s) {
    if (outcome.failed())
      s.error = outcome.message;
    s.caughtUp = outcome.ok();
    s.failures = outcome.failed() ? s.failures + 1 : outcome.ok() ? 0 : s.failures;
    s.lagMs = outcome.ok() || !m_lastCaughtUpMs ? 0 : SteadyMs() - m_lastCaughtUpMs;
    if (outcome.ok()) {
      s.waitingForLease = false;
      s.error.clear();
    }
  });
}

RiverStatus RiverRunner::status() const {
  std::lock_guard<std::mutex> lock(m_statusMutex);
  RiverStatus s = m_status;
  const int64_t since = m_pipeline ? m_pipeline->unackedSinceMs() : 0;
  s.lagSeconds = since ? double(SteadyMs() - since) / 1000 : 0;
  if (s.live && since)
    s.caughtUp = false;
  const int64_t head = m_headSeq.load(), acked = m_ackedSeq.load();
  if (head >= 0 && acked >= 0)
    s.behindChanges = std::max<int64_t>(0, head - acked);
  else if (const int64_t pending = m_serverPending.load(); pending >= 0) // opaque seqs: CouchDB 2 and later
    s.behindChanges = pending + int64_t(m_pipeline ? m_pipeline->unackedChanges() : 0);
  return s;
}

void RiverRunner::setRunning(bool running) {
  updateStatus([&](RiverStatus& s) { s.running = running; });
}

void RiverRunner::setError(const std::string& error) {
  updateStatus([&](RiverStatus& s) {
    s.error = error;
    s.caughtUp = s.caughtUp && error.empty();
  });
  if (!error.empty())
    qzLogObject(qzLog::Warning, "river") << "River " << m_def.name << ": " << error;
}

} // namespace qz::river::detail

#pragma once

#include <HttpTools/river/River.h>
#include <HttpTools/river/RiverIndices_p.h>
#include <HttpTools/river/RiverLease_p.h>
#include <HttpTools/river/RiverPipeline_p.h>
#include <HttpTools/river/RiverSource_p.h>

#include <memory>
#include <mutex>
#include <string>

namespace qz::river::detail {

// One river: its parts, the state they share and the status it reports. Worked by one thread at
// a time; status() may be read from any.
class RiverRunner {
public:
  RiverRunner(http::HttpConnectionPool& pool, RiverDefinition definition, const std::string& owner, StopSignal& stop);
  bool valid(std::string* error) const {
    const std::string selector = SelectorError(m_def.selectorJson);
    if (!selector.empty() && error)
      *error = selector;
    return selector.empty() && m_indices.valid(error);
  }
  const RiverDefinition& definition() const { return m_def; }

  // One round: the lease, the index to write, the feed from the checkpoint to its end (and the
  // alias swap after a build). Done when caught up; Idle when nothing could be done (the lease
  // held elsewhere or lost, stopped, cancelled); Failed otherwise.
  RiverOutcome step(const bool* cancel);
  // Reports a step's outcome in the status; a failure on Elasticsearch's side makes the next
  // step look at the index again.
  void record(const RiverOutcome& outcome);
  void release() { m_lease.release(m_state); }
  bool holdsLease() const { return m_lease.held(); }
  // Until the lease held elsewhere expires, as last read (negative: expired or unknown).
  int64_t leaseFreeInMs() const { return m_lease.holderExpiresMs() - NowMs(); }

  RiverStatus status() const;
  void setRunning(bool running);
  void setError(const std::string& error);

  // A failed feed run as an outcome. The feed reports its failures as text only, but it gives
  // up only after more than `maxRetries` failures in a row, each but the last followed by a
  // reconnection: fewer reconnections since the last change delivered mean the server refused
  // the feed (or sent something else) at once, and asking again will not change that.
  static RiverOutcome FeedFailure(const std::string& error, uint64_t reconnectsSinceDelivery, unsigned maxRetries);

private:
  RiverOutcome prepare(const bool* cancel);
  RiverOutcome catchUp(const bool* cancel);
  RiverOutcome swap(const bool* cancel);
  // A source database created again since the checkpoint is filled into a new index.
  RiverOutcome checkSource(const bool* cancel);
  // Stores the state (renewing the lease), trying again while the failure is transient.
  RiverOutcome save(const bool* cancel);
  template <typename F> void updateStatus(F f) {
    std::lock_guard<std::mutex> lock(m_statusMutex);
    f(m_status);
  }

  http::HttpConnectionPool& m_pool;
  const RiverDefinition m_def;
  StopSignal& m_stop;
  CheckpointStore m_store;
  RiverLease m_lease;
  IndexManager m_indices;
  SourceWatch m_source;
  std::unique_ptr<BulkSender> m_sender;

  RiverState m_state;
  bool m_prepared = false; // the index to write is known for this lease
  int64_t m_lastCaughtUpMs = 0;

  mutable std::mutex m_statusMutex;
  RiverStatus m_status;

  Throttle m_throttle{m_def.maxDocsPerSecond};
};

} // namespace qz::river::detail

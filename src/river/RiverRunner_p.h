#pragma once

#include <HttpTools/river/River.h>
#include <HttpTools/river/RiverIndices_p.h>
#include <HttpTools/river/RiverLease_p.h>
#include <HttpTools/river/RiverPipeline_p.h>
#include <HttpTools/river/RiverSource_p.h>

#include <atomic>
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
  // held elsewhere or lost, stopped, cancelled); Failed otherwise. With `follow`, once caught up
  // it keeps a continuous feed open until it stays quiet for feedIdleMs (Done), or stop.
  RiverOutcome step(const bool* cancel, bool follow = false);
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
  // Reads the feed from the checkpoint to its end; `readsHead` first asks for the database's seq.
  RiverOutcome catchUp(const bool* cancel, bool readsHead);
  // Follows the live feed from the checkpoint (see step()).
  RiverOutcome follow(const bool* cancel);
  // Reads the database's integer update_seq for behindChanges (best effort).
  void readHead(const bool* cancel);
  // Feeds one change to `pipeline`; false once it refuses.
  bool take(BulkPipeline& pipeline, const qz::couch::Change& change, const std::string& index);
  // The checkpoint reached by an acknowledged batch. Following, it is stored at most once a
  // second (the lease renewal stores it too): changes read again after a crash are harmless.
  RiverOutcome commit(const std::string& seq, bool following, const bool* cancel);
  void attach(const BulkPipeline* pipeline);
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
  const Transform m_transform; // the selector, then the definition's transform

  RiverState m_state;
  bool m_prepared = false; // the index to write is known for this lease
  int64_t m_lastCaughtUpMs = 0;
  bool m_quietEnd = false;                  // the last step ended on a quiet feed: no need to look at the source again
  bool m_dirty = false;                     // following: a checkpoint reached but not stored yet
  int64_t m_savedMs = 0;                    // when the state was last stored
  std::atomic<int64_t> m_headSeq{-1};       // highest integer seq the server reported (-1: none)
  std::atomic<int64_t> m_ackedSeq{-1};      // integer seq acknowledged (-1: none, or opaque)
  std::atomic<int64_t> m_serverPending{-1}; // changes after those read, as the feed's server counts them
  const BulkPipeline* m_livePipeline = nullptr; // set while following (worker thread only)

  // Status figures read at status() time: the pipeline at work (null between steps).
  const BulkPipeline* m_pipeline = nullptr; // guarded by m_statusMutex

  mutable std::mutex m_statusMutex;
  RiverStatus m_status;

  Throttle m_throttle{m_def.maxDocsPerSecond};
};

} // namespace qz::river::detail

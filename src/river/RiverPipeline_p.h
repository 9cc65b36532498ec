#pragma once

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/river/RiverSupport_p.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qz::river::detail {

// One bulk operation: its action line and, for an index, its source line (NDJSON).
struct BulkOp {
  std::string id;
  std::string line;
  bool remove = false;
};

using Transform = std::function<bool(qzVariantMapImpl& doc)>;

// The bulk operation a change asks for in `index`: the document, transformed, at the revision's
// generation as its external version, so that a change delivered again never replaces a newer
// revision; or a delete, for deleted and design documents and those the transform leaves out
// (`skipped`). False when the change carries no revision.
bool ChangeToOp(const qz::couch::Change& change, const std::string& index, const Transform& transform, BulkOp& op,
                bool& skipped);

// What a sender reports after each request.
struct BulkProgress {
  size_t indexed = 0, deleted = 0, failed = 0, retried = 0;
  std::string retrying; // why some went again; "" when all went through
};

// Where batches go. The only part that knows how a bulk travels.
class BulkSender {
public:
  virtual ~BulkSender() = default;
  // Sends `ops` until each one is acknowledged: written, a delete of a missing document, an older
  // revision refused; items refused for good are counted as failed. 429, 503 and lost requests
  // are sent again after a growing pause. Idle on stop or cancel; Failed when the server refuses
  // the whole request.
  virtual RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) = 0;
};

std::unique_ptr<BulkSender> MakeBulkSender(http::HttpConnectionPool& pool,
                                           qz::elasticsearch::ElasticConnectionParameters elastic, std::string river,
                                           StopSignal& stop, std::function<void(const BulkProgress&)> progress);

// Gathers operations into batches of `batchDocs` (or `batchBytes`) and writes each full batch
// on a thread of its own while the next one fills: one batch in flight at most, add() waits for
// it (the feed is read no faster than Elasticsearch takes it). Once a batch is acknowledged,
// `commit` stores the seq it reached.
class BulkPipeline {
public:
  using Commit = std::function<RiverOutcome(const std::string& seq)>;
  BulkPipeline(BulkSender& sender, size_t batchDocs, Commit commit, const bool* cancel,
               size_t batchBytes = size_t(8) << 20);
  ~BulkPipeline(); // waits for the batch in flight
  BulkPipeline(const BulkPipeline&) = delete;
  BulkPipeline& operator=(const BulkPipeline&) = delete;

  // Adds the operation of the change at `seq` (none when `op` is null). False once a batch
  // failed or was interrupted: flush() says how.
  bool add(BulkOp* op, const std::string& seq);
  // Waits for the batch in flight: the outcome of the batches handed over so far.
  RiverOutcome wait();
  // Then writes what is left: the outcome of every batch.
  RiverOutcome flush();

private:
  RiverOutcome write(std::vector<BulkOp>& ops, const std::string& seq);
  void loop();
  bool waitIdle();

  BulkSender& m_sender;
  const size_t m_batchDocs, m_batchBytes;
  const Commit m_commit;
  const bool* m_cancel;

  std::vector<BulkOp> m_batch; // being filled (by the caller's thread)
  size_t m_bytes = 0;
  std::string m_seq;      // reached by m_batch
  bool m_pending = false; // changes came since the last hand-over

  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<BulkOp> m_flight; // handed over
  std::string m_flightSeq;
  bool m_busy = false, m_done = false;
  RiverOutcome m_outcome; // of the batches written so far
  std::thread m_thread;
};

} // namespace qz::river::detail

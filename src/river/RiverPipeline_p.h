#pragma once

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/river/River.h>
#include <HttpTools/river/RiverSupport_p.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qz::river::detail {

// One operation of a batch: the document (or its removal) at the winning revision `rev`.
// `version` is the sum of the generations of all the document's leaf revisions: every edit,
// replicated conflict and deletion raises it, and it stays flat only while the winner does, so
// Elasticsearch (external versioning) never lets an older state replace a newer one.
struct BulkOp {
  std::string index, id, rev;
  int64_t version = 0; // negative: written above whatever version is stored
  bool remove = false;
  std::string source;   // index: the document as JSON, `kRevField` included
  std::string seq = {}; // the change that asked for it
  size_t size() const { return index.size() + id.size() + source.size() + 96; }
};

using Transform = std::function<bool(qzVariantMapImpl& doc)>;

// The operation a change (read with every leaf revision) asks for in `index`: the document,
// transformed; or a delete, for deleted and design documents and those the transform leaves out
// (`skipped`). False when the change carries no revision.
bool ChangeToOp(const qz::couch::Change& change, const std::string& index, const Transform& transform, BulkOp& op,
                bool& skipped);

// The definition's transform behind its selector: a document the selector leaves out is
// skipped. SelectorError() tells a selector that cannot be read ("" when it can).
Transform RiverTransform(const RiverDefinition& def);
std::string SelectorError(const std::string& selectorJson);
// Whether the server's welcome answer (GET /) shows CouchDB 2 or later, which filters a feed by
// a selector. Never asked otherwise: pouchdb-server fails on filter=_selector.
bool ServerFiltersBySelector(http::HttpConnectionPool& pool, const qz::couch::CouchConnectionParameters& couch,
                             const bool* cancel);

// What a sender reports after each batch.
struct BulkProgress {
  size_t indexed = 0, deleted = 0, failed = 0, retried = 0;
  size_t rejected = 0;  // refused for good, handed to the dead-letter callback
  std::string retrying; // why some items went again; "" when all went through
};

// Where batches go. The only part that knows how a bulk travels.
class BulkSender {
public:
  virtual ~BulkSender() = default;
  // Sends `ops` until each one is acknowledged: written, a delete of a missing document, or a
  // version conflict with the same revision stored; a conflict with another revision stored is
  // written again above it. A request refused as too large (413) is sent again in halves. Items
  // refused for good (a 4xx other than 408, 409 and 429) go to the dead-letter callback; without
  // one (or when it fails) they fail the send for good, counted as failed. Idle on stop or
  // cancel; a transient failure when items are still rejected (408, 429, 5xx, no answer) after
  // the retries; Failed for good when the server refuses the whole request.
  virtual RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) = 0;
};

// A sender onto the library's BulkIndexer; `retries` attempts per item beyond the first.
std::unique_ptr<BulkSender> MakeBulkSender(http::HttpConnectionPool& pool,
                                           qz::elasticsearch::ElasticConnectionParameters elastic, std::string river,
                                           StopSignal& stop, std::function<void(const BulkProgress&)> progress,
                                           unsigned retries = 5,
                                           std::function<bool(const RiverDeadLetter&)> deadLetter = {});

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

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
  std::string routing = {};
  // Removes a routed document's copy at its old place: a conflict means a copy at least as new
  // is held there, which is done; not counted as a deletion.
  bool relocation = false;
  size_t size() const { return index.size() + id.size() + source.size() + routing.size() + 96; }
};

// Edits a document and sets its route; false leaves it out.
using Transform = std::function<bool(qzVariantMapImpl& doc, RiverRoute& route)>;

// The operation a change (read with every leaf revision) asks for in `index` (or in the index of
// its route's suffix): the document, transformed; or a delete, for deleted and design documents
// and those the transform leaves out (`skipped`). False when the change carries no revision.
bool ChangeToOp(const qz::couch::Change& change, const std::string& index, const Transform& transform, BulkOp& op,
                bool& skipped);

// The definition's selector, transform and route in one: a document the selector leaves out is
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

// For rivers with a route: before `inner` sends a batch, creates the suffix indices it writes
// to (with the wanted mapping, and the alias when their river index has it), then finds where
// the batch's documents are held in their river index and its suffix indices, and deletes the
// copies at other places. A delete goes to every place the document is held.
std::unique_ptr<BulkSender> MakeRoutedSender(http::HttpConnectionPool& pool,
                                             qz::elasticsearch::ElasticConnectionParameters elastic,
                                             const RiverDefinition& def, std::unique_ptr<BulkSender> inner);
// `inner`, routed when `def` has a route.
std::unique_ptr<BulkSender> RouteIfNeeded(http::HttpConnectionPool& pool, const RiverDefinition& def,
                                          std::unique_ptr<BulkSender> inner);
// Where a repair or replay writes: the alias, or for a routed river the live river index.
RiverOutcome WriteIndex(http::HttpConnectionPool& pool, const RiverDefinition& def, std::string& index,
                        const bool* cancel);
// "<alias>-<n>" for "<alias>-<n>" and its suffix indices "<alias>-<n>-<suffix>"; "" otherwise.
std::string RiverIndexOf(const std::string& alias, const std::string& index);

// Gathers operations into batches of `batchDocs` (or `batchBytes`) and writes each full batch
// on a thread of its own while the next one fills: one batch in flight at most, add() waits for
// it (the feed is read no faster than Elasticsearch takes it). Once a batch is acknowledged,
// `commit` stores the seq it reached. Following a live feed (after handOver()), a batch also goes
// once no change came for `quietMs`, or `maxDelayMs` after its first change, whichever is first;
// what arrives while a batch is in flight goes with the next one.
class BulkPipeline {
public:
  using Commit = std::function<RiverOutcome(const std::string& seq)>;
  BulkPipeline(BulkSender& sender, size_t batchDocs, Commit commit, const bool* cancel,
               size_t batchBytes = size_t(8) << 20, unsigned quietMs = 3, unsigned maxDelayMs = 25);
  ~BulkPipeline(); // waits for the batch in flight
  BulkPipeline(const BulkPipeline&) = delete;
  BulkPipeline& operator=(const BulkPipeline&) = delete;

  // Adds the operation of the change at `seq` (none when `op` is null). False once a batch
  // failed or was interrupted: flush() says how.
  bool add(BulkOp* op, const std::string& seq);
  // From now on batches also go when the feed goes quiet (see above); called after each read.
  void handOver();
  // Runs `task` (e.g. a lease renewal) between two batches, on the calling thread; its failure
  // fails the pipeline as a batch's would.
  RiverOutcome between(const std::function<RiverOutcome()>& task);
  // Waits for the batch in flight: the outcome of the batches handed over so far.
  RiverOutcome wait();
  // Then writes what is left: the outcome of every batch.
  RiverOutcome flush();

  // When the oldest change read and not yet acknowledged was read (SteadyMs; 0: none), and
  // how many such changes there are. Any thread.
  int64_t unackedSinceMs() const;
  size_t unackedChanges() const;

private:
  RiverOutcome write(std::vector<BulkOp>& ops, const std::string& seq);
  void loop();
  // Under m_mutex: the batch being filled becomes the one in flight.
  void handOverLocked();
  // Moves the open batch out: its operations and seq into the arguments, its figures to the flight's.
  void takeBatchLocked(std::vector<BulkOp>& ops, std::string& seq);
  // Under m_mutex (held by `lock`): waits until no batch is being written.
  void waitFree(std::unique_lock<std::mutex>& lock);

  BulkSender& m_sender;
  const size_t m_batchDocs, m_batchBytes;
  const int64_t m_quietMs, m_maxDelayMs;
  const Commit m_commit;
  const bool* m_cancel;

  mutable std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<BulkOp> m_batch; // being filled
  size_t m_bytes = 0;
  std::string m_seq;      // reached by m_batch
  bool m_pending = false; // changes came since the last hand-over
  int64_t m_batchReadMs = 0, m_lastAddMs = 0;
  size_t m_batchChanges = 0;
  std::vector<BulkOp> m_flight; // handed over
  std::string m_flightSeq;
  int64_t m_flightReadMs = 0; // of the batch being written (0: none)
  size_t m_flightChanges = 0;
  bool m_busy = false;     // the writer thread has a batch
  bool m_occupied = false; // the calling thread writes (flush) or runs a task (between)
  bool m_eager = false;    // following: batches go when the feed is quiet
  bool m_done = false;
  RiverOutcome m_outcome; // of the batches written so far
  std::thread m_thread;
};

} // namespace qz::river::detail

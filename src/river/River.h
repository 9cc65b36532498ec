#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::river {

/// One CouchDB database kept in step with one Elasticsearch alias.
struct HTTPTOOLS_API RiverDefinition {
  std::string name;                                       ///< unique among the rivers sharing `stateIndex`
  qz::couch::CouchConnectionParameters couch;             ///< the CouchDB server
  std::string database;                                   ///< the database read
  qz::elasticsearch::ElasticConnectionParameters elastic; ///< the Elasticsearch server
  std::string index;       ///< an alias name; the river writes into `<index>-<n>` behind it
  std::string mappingJson; ///< the wanted mapping ("{}" = dynamic)
  std::function<bool(qzVariantMapImpl& doc)> transform; ///< edit the document; false skips it
  size_t batchDocs = 1000;                              ///< changes per batch, each written with one _bulk request
  unsigned flushIntervalMs = 1000; ///< following several rivers on one worker: how often each feed is polled

  /// Where the river keeps its checkpoint and lease (one document named after the river).
  std::string stateIndex = "httptools-river";
  /// A lease not renewed for this long may be taken over by another process.
  unsigned leaseMs = 30000;
  /// runOnce(): how long failures in a row are retried once the river has written something
  /// (before that, a few quick tries); then it fails with the last cause. Following never gives up.
  unsigned retryMaxMs = 120000;
  /// Following alone on its worker, the river keeps a continuous feed open (heartbeats every
  /// `heartbeatMs`) and sends each change once the feed goes quiet, a full batch at once; the feed
  /// is opened again after `feedIdleMs` without a change.
  ///@{
  unsigned heartbeatMs = 10000;
  unsigned feedIdleMs = 60000;
  ///@}
};

/// A river's progress, as RiverManager::status() reports it.
struct HTTPTOOLS_API RiverStatus {
  std::string name;    ///< the definition's name
  std::string lastSeq; ///< the checkpoint last stored
  std::string error;   ///< the last error; empty while all is well
  /// Documents indexed, deleted from the index, skipped by the transform, and failed, since start.
  ///@{
  size_t indexed = 0, deleted = 0, skipped = 0, failed = 0;
  ///@}
  bool caughtUp = false;        ///< the feed's end was reached and everything before it acknowledged
  bool running = false;         ///< the river is being run
  std::string liveIndex;        ///< the index behind the alias
  std::string buildingIndex;    ///< the index being filled for a new mapping, if any
  bool waitingForLease = false; ///< another process holds the lease
  size_t retries = 0;           ///< items sent again after 429/503 or a lost connection
  size_t failures = 0;          ///< steps failed in a row (retried; the cause is in `error`)
  int64_t lagMs = 0;            ///< time since the river was last caught up (0 when it is)
  /// Seconds since the oldest change read and not yet acknowledged by Elasticsearch was read;
  /// 0 when everything read is acknowledged.
  double lagSeconds = 0;
  /// Changes of the database not yet acknowledged, where the server tells (an integer update_seq);
  /// -1 where it does not (opaque seqs).
  int64_t behindChanges = -1;
  /// A change feed stays open while following (false: the feed is polled once per flushIntervalMs).
  bool live = false;
};

/// What VerifyRiver found: CouchDB winners missing from the index or held there at another
/// revision (or without one, as an earlier release wrote them), and documents the index holds
/// that the database has not (or that the river leaves out), with the first few ids of each.
struct HTTPTOOLS_API RiverDrift {
  size_t documents = 0; ///< CouchDB documents compared
  /// Documents missing from the index, held at another revision, and held but not wanted.
  ///@{
  size_t missing = 0, stale = 0, extra = 0;
  ///@}
  /// Up to 10 ids of each kind.
  ///@{
  std::vector<std::string> missingIds, staleIds, extraIds;
  ///@}
  size_t repaired = 0;                                       ///< documents written or deleted by a repair
  bool none() const { return missing + stale + extra == 0; } ///< no drift
};

/// Compares every winner of `definition`'s database (id and _rev, design documents and those the
/// transform leaves out aside) with the documents under its alias: `_all_docs` page by page
/// against _mget, then a point-in-time scan (a scroll where the server has none) of the alias
/// against `_all_docs` by keys; memory stays at one page whatever the sizes. With `repair`, writes
/// exactly the missing and stale documents (as the river does) and deletes the extra ones. A
/// river running meanwhile shows as drift of the documents it is writing. False with `error` when
/// a side cannot be read; true otherwise, drift or not.
HTTPTOOLS_API bool VerifyRiver(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition, bool repair,
                               RiverDrift& drift, std::string* error, const bool* cancel);

/// Runs rivers: reads each database's change feed (documents included) in batches of `batchDocs`,
/// writes each batch with one _bulk request and, once every item is acknowledged, stores the seq
/// it reached as the checkpoint. Each document carries its winning revision in `httptools_rev`
/// and, as its external version, the sum of the generations of all its leaf revisions: every
/// edit, replicated conflict and deletion raises it, so a change delivered again never replaces a
/// newer state. A version conflict with another revision stored (after a purge, or an index of an
/// earlier release) is written again above it. Deleted documents, design documents and documents
/// the transform skips are deleted from the index. Every index written (the state index too) is
/// created by the river with its mapping.
///
/// The checkpoint and a lease live in one document of `stateIndex`, written with if_seq_no /
/// if_primary_term: a process that loses the lease stops that river, and a river whose lease is
/// held elsewhere waits until it expires. When the wanted mapping differs from the one that built
/// the live index, a new index `<alias>-<n+1>` is filled from seq 0 and the alias moves to it in
/// one _aliases request; the old index is deleted.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
///
/// @code
/// qz::river::RiverManager rivers(pool, 2);
/// rivers.addRiver(definition, &error);
/// rivers.start();   // follow; rivers.status() reports progress
/// ...
/// rivers.stop();
/// @endcode
class HTTPTOOLS_API RiverManager {
public:
  /// Talks to both servers through `pool` (which must outlive the manager); start() runs the rivers on `workerThreads`
  /// threads.
  RiverManager(qz::http::HttpConnectionPool& pool, unsigned workerThreads);
  ~RiverManager(); ///< stops
  RiverManager(const RiverManager&) = delete;
  RiverManager& operator=(const RiverManager&) = delete;

  /// False (nothing added) on a missing name, database or alias, a duplicate name, an invalid
  /// mapping or while the rivers run.
  bool addRiver(RiverDefinition definition, std::string* error);
  /// Every river catches up (waiting for its lease if need be), then returns. Lost connections,
  /// 429 and 503 are retried for up to `retryMaxMs` (see RiverDefinition) or until `*cancel` or
  /// stop(); false with the first river's error otherwise.
  bool runOnce(std::string* error, const bool* cancel);
  /// Follows every river on the worker threads until stop(); false when already running.
  bool start();
  void stop();                             ///< prompt; releases the leases held
  std::vector<RiverStatus> status() const; ///< one per river, in the order added; any thread

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::river

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

/// An item Elasticsearch refused for good (a 4xx other than 408, 409 and 429 carrying an error:
/// a mapping error, a document too large even alone), as the river hands it on.
struct HTTPTOOLS_API RiverDeadLetter {
  std::string id;        ///< the document
  std::string rev;       ///< the winning revision sent
  std::string seq;       ///< the change that carried it
  int status = 0;        ///< Elasticsearch's status for the item
  std::string errorType; ///< Elasticsearch's `error.type`
  std::string reason;    ///< Elasticsearch's `error.reason`
  int64_t timeMs = 0;    ///< when it was refused, milliseconds since the epoch
  std::string source;    ///< the document sent (JSON); empty for a delete
};

/// Where one document goes, as RiverDefinition::route sets it.
struct HTTPTOOLS_API RiverRoute {
  std::string routing; ///< Elasticsearch's routing value; "": the default
  /// "": the river's index; "x": the index `<river index>-x` beside it, behind the same alias,
  /// made with the same mapping. Lower case letters, digits, `_`, `-` and `.`.
  std::string indexSuffix;
};

/// One CouchDB database kept in step with one Elasticsearch alias.
struct HTTPTOOLS_API RiverDefinition {
  std::string name;                                       ///< unique among the rivers sharing `stateIndex`
  qz::couch::CouchConnectionParameters couch;             ///< the CouchDB server
  std::string database;                                   ///< the database read
  qz::elasticsearch::ElasticConnectionParameters elastic; ///< the Elasticsearch server
  std::string index;       ///< an alias name; the river writes into `<index>-<n>` behind it
  std::string mappingJson; ///< the wanted mapping ("{}" = dynamic)
  std::function<bool(qzVariantMapImpl& doc)> transform; ///< edit the document; false skips it
  /// Sets each document's route, after the transform. A document whose route changes is deleted
  /// at its old place when it is written at the new one; a deleted or skipped one is deleted
  /// wherever it is held. Changing the function itself re-routes documents as they are next
  /// edited; ResetRiver() re-routes them all.
  std::function<void(const qzVariantMapImpl& doc, RiverRoute& route)> route;
  size_t batchDocs = 1000;         ///< changes per batch, each written with one _bulk request
  unsigned flushIntervalMs = 1000; ///< following several rivers on one worker: how often each feed is polled

  /// Where the river keeps its checkpoint and lease (one document named after the river).
  std::string stateIndex = "httptools-river";
  /// A lease not renewed for this long may be taken over by another process.
  unsigned leaseMs = 30000;
  /// runOnce(): how long failures in a row are retried once the river has written something
  /// (before that, a few quick tries); then it fails with the last cause. Following never gives up.
  unsigned retryMaxMs = 120000;

  /// Documents read per second at most (0: no limit), to spare a busy cluster a first load.
  unsigned maxDocsPerSecond = 0;
  /// Takes each item Elasticsearch refuses for good; returning true lets the river go on and
  /// its checkpoint move past the item. Unset, or returning false, the river stops before its
  /// checkpoint passes that change, naming the id and Elasticsearch's reason. Called on the
  /// river's worker thread. DeadLetterFile() makes one that appends to a file.
  std::function<bool(const RiverDeadLetter&)> deadLetter;
  /// A Mango selector (JSON; empty: every document): documents that do not match it, before the
  /// transform, are left out of the index like those the transform skips, and removed when an
  /// edit makes them stop matching. Filling an index from the start on CouchDB 2 or later, the
  /// feed itself is filtered (filter=_selector).
  std::string selectorJson;
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
  bool waitingForLease = false; ///< another process holds the lease (sharing: or it is beyond this one's share)
  size_t retries = 0;           ///< items sent again after 429/503 or a lost connection
  size_t failures = 0;          ///< steps failed in a row (retried; the cause is in `error`)
  int64_t lagMs = 0;            ///< time since the river was last caught up (0 when it is)
  size_t rejected = 0;          ///< items refused for good and handed to the dead-letter callback
  /// Seconds since the oldest change read and not yet acknowledged by Elasticsearch was read;
  /// 0 when everything read is acknowledged.
  double lagSeconds = 0;
  /// Changes of the database not yet acknowledged, where the server tells (an integer update_seq,
  /// or the `pending` count of CouchDB's feed pages); -1 where it does not.
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

/// A RiverDefinition::deadLetter that appends each letter to `path` as one JSON object per line
/// (id, rev, seq, status, type, reason, time as ISO 8601 UTC, source as the document object or
/// null); false when the line cannot be written. Safe to share between rivers and threads.
HTTPTOOLS_API std::function<bool(const RiverDeadLetter&)> DeadLetterFile(const std::string& path);

/// Reads the letters of a file DeadLetterFile() wrote. False with `error` when the file cannot
/// be read or a line is no letter; a missing file holds none.
HTTPTOOLS_API bool ReadDeadLetters(const std::string& path, std::vector<RiverDeadLetter>& letters, std::string* error);

/// What ReplayDeadLetters did.
struct HTTPTOOLS_API RiverReplay {
  size_t ids = 0;     ///< distinct documents listed in the file
  size_t written = 0; ///< indexed or deleted as CouchDB holds them now
  size_t refused = 0; ///< refused again, left in the file
};

/// Writes the documents listed in the dead-letter file `path` again from CouchDB's current
/// state (as the river writes them, under `definition`'s alias), then rewrites the file with the
/// letters of those Elasticsearch still refuses. A listed document gone from CouchDB is deleted
/// from the index. False with `error` when a side cannot be reached or the file cannot be
/// read or rewritten (the file is then left as it was).
HTTPTOOLS_API bool ReplayDeadLetters(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition,
                                     const std::string& path, RiverReplay& replay, std::string* error,
                                     const bool* cancel);

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

  /// Following: share the rivers with the other processes that run the same ones on the same
  /// state index. Each process keeps a heartbeat there and holds ⌊N/P⌋ or ⌈N/P⌉ of the N rivers
  /// among P live processes, giving back leases beyond its share; the rivers of a process that
  /// stops beating are taken over once its heartbeat and leases have expired. Call before start().
  void shareWithOtherProcesses(bool share);
  /// The rivers whose lease this process holds now (following).
  size_t heldRivers() const;

  class Private;

private:
  std::unique_ptr<Private> d;
};

/// A river's state as stored in its state index.
struct HTTPTOOLS_API RiverStoredState {
  bool found = false;         ///< the river has a stored state
  std::string owner;          ///< the process holding the lease ("" when free)
  int64_t leaseExpiresMs = 0; ///< when the lease expires, ms since the epoch
  bool leaseLive = false;     ///< the lease is held and has not expired
  std::string liveIndex;      ///< the index behind the alias
  std::string seq;            ///< the live index's checkpoint
  std::string buildingIndex;  ///< the index being filled, if any
  std::string buildSeq;       ///< its checkpoint
};

/// Reads `definition`'s stored state; false with `error` when the state index cannot be read.
HTTPTOOLS_API bool ReadRiverState(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition,
                                  RiverStoredState& state, std::string* error);
/// Makes the river fill a new index behind its alias from seq 0; the alias moves to it once it
/// has caught up (the process holding the river does it, or the next run). False with `error`
/// when the river has no stored state or a side fails.
HTTPTOOLS_API bool ResetRiver(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition,
                              std::string* error);
/// Deletes the river's stored state and, with `deleteIndices`, the indices behind its alias (the
/// alias goes with them). Refused while a live lease is held by a process.
HTTPTOOLS_API bool RemoveRiver(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition,
                               bool deleteIndices, std::string* error);

} // namespace qz::river

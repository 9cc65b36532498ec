#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::elasticsearch {

/// Counts of a BulkIndexer's items since it was made.
struct HTTPTOOLS_API BulkStats {
  size_t indexed = 0;   ///< items indexed, created or updated
  size_t deleted = 0;   ///< deletes acknowledged (a document not found included)
  size_t failed = 0;    ///< items that failed for good
  size_t retried = 0;   ///< items sent again after a transient failure
  size_t cancelled = 0; ///< reported cancelled by stop() or the destructor (not counted in `failed`)
};

/// The _bulk action of an item.
enum class BulkOp { Index, Create, Update, Delete };
/// How an item's version is compared with the stored document's: Elasticsearch's own, or the
/// caller's (external: greater than the stored one; external_gte: greater or equal).
enum class BulkVersionType { Internal, External, ExternalGte };

/// One operation of a _bulk request with Elasticsearch's per-item options. Elasticsearch refuses a
/// whole request for one invalid item, so BulkIndexer::add() refuses such an item alone: an external
/// version on create, any version on update, a version without an external type, half a
/// compare-and-set pair, or compare-and-set beside an external version.
struct HTTPTOOLS_API BulkItem {
  BulkOp op = BulkOp::Index; ///< the _bulk action
  /// The target index and the document id, both required: a retried item never duplicates a document.
  ///@{
  std::string index, id;
  ///@}
  std::string routing;                                     ///< "": none
  int64_t version = -1;                                    ///< with an external version type, >= 0
  BulkVersionType versionType = BulkVersionType::Internal; ///< how `version` is compared
  /// Compare-and-set on the stored document: both or neither; -1: none.
  ///@{
  int64_t ifSeqNo = -1, ifPrimaryTerm = -1;
  ///@}
  std::string json;         ///< index, create: the document; update: the partial document (one object, no line break)
  bool docAsUpsert = false; ///< update: create the document from `json` when it is missing
};

/// What became of one item. Success is a 2xx status, or a delete that found nothing (404 not_found).
struct HTTPTOOLS_API BulkOutcome {
  int status = 0;     ///< the item's status; 0 when no answer came (see errorType)
  std::string result; ///< created, updated, deleted, not_found or noop; "" on error
  /// Elasticsearch's error type and reason; "cancelled" for an item stop() reported unsent.
  ///@{
  std::string errorType, errorReason;
  ///@}
  /// The document's version, sequence number and primary term after the operation; -1 when unknown.
  ///@{
  int64_t version = -1, seqNo = -1, primaryTerm = -1;
  ///@}
  bool ok() const { return errorType.empty(); } ///< true unless the item failed
};

/// Options of every _bulk request an indexer sends.
struct HTTPTOOLS_API BulkRequestOptions {
  std::string refresh;  ///< "true", "false" or "wait_for"; "": left to the server
  std::string pipeline; ///< the ingest pipeline; "": the index's default
  int gzipLevel = 0;    ///< gzip request bodies (Content-Encoding: gzip) at this zlib level, 1..9; 0: plain
};

/// Collects index and delete operations into NDJSON _bulk requests sent by `threads` worker
/// threads. A batch goes out when it holds `maxDocs` operations or `maxBytes` bytes, when the flush
/// interval has passed since its first operation, or on flush(). _bulk answers 200 even when items
/// fail, so every item is read: items answered 429 or 503 (and whole requests answered 429, 502,
/// 503, 504 or not answered at all) are sent again, alone, after an exponential backoff; every
/// other failure, and a retried item that runs out of attempts, goes to the item-failure callback
/// with its status and reason. Ids are always given, so a retry never duplicates a document.
/// Thread-safe. The destructor stops (see stop()): call flush() first to send what is queued.
///
/// @code
/// qz::elasticsearch::BulkIndexer indexer(pool, server);
/// indexer.onItemFailure([](auto& index, auto& id, int status, auto& reason) { ... });
/// for (auto& [id, doc] : docs)
///   indexer.index("orders", id, doc);
/// if (!indexer.flush(&error)) ...
/// @endcode
class HTTPTOOLS_API BulkIndexer {
public:
  /// Sends to `server` through `pool` (which must outlive the indexer) with `threads` parallel requests; a batch is
  /// sent once it holds `maxDocs` items or `maxBytes` bytes.
  BulkIndexer(qz::http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads = 2,
              size_t maxDocs = 1000, size_t maxBytes = 5 << 20);
  ~BulkIndexer();
  BulkIndexer(const BulkIndexer&) = delete;
  BulkIndexer& operator=(const BulkIndexer&) = delete;

  /// Queues an operation; blocks while `2 × threads` batches wait to be sent. False (nothing
  /// queued) on an empty index or id.
  bool index(const std::string& index, const std::string& id, const qzVariantMapImpl& doc);
  /// As index(), with the document already as JSON text (one object, no line break).
  bool indexJson(const std::string& index, const std::string& id, const std::string& json);
  /// Queues a delete; false (nothing queued) on an empty index or id.
  bool remove(const std::string& index, const std::string& id);
  /// Queues one item with its options; false (nothing queued, `error` says why) when Elasticsearch
  /// would refuse it, or after stop().
  bool add(const BulkItem& item, std::string* error = nullptr);
  /// As add(), with the document (or partial document) as a variant instead of item.json.
  bool add(const BulkItem& item, const qzVariantMapImpl& document, std::string* error = nullptr);

  /// Stops within 100 ms whatever the retry state (a request on the wire is cut): nothing more is
  /// sent, and every item not yet acknowledged is reported cancelled through the outcome and
  /// failure callbacks. Later add() calls return false.
  void stop();

  /// Sends what is queued and waits for every request; true when every item since the last flush
  /// succeeded, else false with `error` saying how many failed and the first reason.
  bool flush(std::string* error);
  /// As flush(), returning false ("interrupted") soon after `cancel` becomes true, or after stop()
  /// from another thread; the items not yet acknowledged stay queued.
  bool flush(std::string* error, const std::atomic<bool>* cancel);
  BulkStats stats() const; ///< the counts so far; any thread

  /// Called for every item that failed for good (cancelled ones included), with Elasticsearch's status and reason. Set
  /// it before adding items.
  void onItemFailure(
      std::function<void(const std::string& index, const std::string& id, int status, const std::string& reason)>);
  /// Called once for every item when its fate is known: acknowledged, failed for good, or cancelled;
  /// `item` is the item as sent. Setting it makes every item's answer read (not only failures).
  void onItemOutcome(std::function<void(const BulkItem& item, const BulkOutcome& outcome)>);
  void setFlushIntervalMs(unsigned ms);                      ///< 0 (the default): no timed flush
  void setRequestOptions(const BulkRequestOptions& options); ///< set it before adding items
  /// Attempts per item beyond the first (default 5) and the first backoff (default 100 ms,
  /// doubled each time, at most 5 s).
  void setRetries(unsigned retries, unsigned firstBackoffMs);

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::elasticsearch

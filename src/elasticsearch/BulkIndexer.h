#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::elasticsearch {

struct HTTPTOOLS_API BulkStats {
  size_t indexed = 0, deleted = 0, failed = 0, retried = 0;
};

// Collects index and delete operations into NDJSON _bulk requests sent by `threads` worker
// threads. A batch goes out when it holds `maxDocs` operations or `maxBytes` bytes, when the flush
// interval has passed since its first operation, or on flush(). _bulk answers 200 even when items
// fail, so every item is read: items answered 429 or 503 (and whole requests answered 429, 502,
// 503, 504 or not answered at all) are sent again, alone, after an exponential backoff; every
// other failure, and a retried item that runs out of attempts, goes to the item-failure callback
// with its status and reason. Ids are always given, so a retry never duplicates a document.
// Thread-safe; the destructor flushes.
//
//   qz::elasticsearch::BulkIndexer indexer(pool, server);
//   indexer.onItemFailure([](auto& index, auto& id, int status, auto& reason) { ... });
//   for (auto& [id, doc] : docs)
//     indexer.index("orders", id, doc);
//   if (!indexer.flush(&error)) ...
class HTTPTOOLS_API BulkIndexer {
public:
  BulkIndexer(qz::http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads = 2,
              size_t maxDocs = 1000, size_t maxBytes = 5 << 20);
  ~BulkIndexer();
  BulkIndexer(const BulkIndexer&) = delete;
  BulkIndexer& operator=(const BulkIndexer&) = delete;

  // Queues an operation; blocks while `2 × threads` batches wait to be sent. False (nothing
  // queued) on an empty index or id.
  bool index(const std::string& index, const std::string& id, const qzVariantMapImpl& doc);
  // As index(), with the document already as JSON text (one object, no line break).
  bool indexJson(const std::string& index, const std::string& id, const std::string& json);
  bool remove(const std::string& index, const std::string& id);

  // Sends what is queued and waits for every request; true when every item since the last flush
  // succeeded, else false with `error` saying how many failed and the first reason.
  bool flush(std::string* error);
  BulkStats stats() const;

  void onItemFailure(
      std::function<void(const std::string& index, const std::string& id, int status, const std::string& reason)>);
  void setFlushIntervalMs(unsigned ms); // 0 (the default): no timed flush
  // Attempts per item beyond the first (default 5) and the first backoff (default 100 ms,
  // doubled each time, at most 5 s).
  void setRetries(unsigned retries, unsigned firstBackoffMs);

  class Private;

private:
  std::unique_ptr<Private> d;
};

} // namespace qz::elasticsearch

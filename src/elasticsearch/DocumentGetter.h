#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <functional>
#include <string>
#include <vector>

namespace qz::http {
class HttpConnectionPool;
}

namespace qz::elasticsearch {

/// Fetches documents by id from one index with _mget requests of `batchSize` ids, spread over
/// `threads` threads that borrow connections from the pool. Answers are cut document by document
/// while they arrive.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
class HTTPTOOLS_API DocumentGetter {
public:
  /// Reads `index` of `server` through `pool`, which must outlive the getter.
  DocumentGetter(qz::http::HttpConnectionPool& pool, const ElasticConnectionParameters& server,
                 const std::string& index, unsigned threads);

  void setBatchSize(size_t ids); ///< per request; default 500, 0 counts as 1

  /// Calls `onDoc` for every id found (one call at a time, from the worker threads, in no set
  /// order); `missing` (may be null) gets the ids not found, in the order of `ids`. True when every
  /// request was answered; false with `error` on an error answer, a transport error or a cancel.
  bool get(const std::vector<std::string>& ids,
           const std::function<void(const std::string& id, qzVariant& source)>& onDoc,
           std::vector<std::string>* missing, std::string* error, const bool* cancel);

private:
  qz::http::HttpConnectionPool& m_pool;
  ElasticConnectionParameters m_server;
  std::string m_index;
  unsigned m_threads;
  size_t m_batchSize = 500;
};

} // namespace qz::elasticsearch

#include <HttpTools/elasticsearch/DocumentGetter.h>

#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace qz::elasticsearch {

DocumentGetter::DocumentGetter(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server,
                               const std::string& index, unsigned threads)
    : m_pool(pool), m_server(server), m_index(index), m_threads(std::max(1u, threads)) {}

void DocumentGetter::setBatchSize(size_t ids) { m_batchSize = std::max<size_t>(1, ids); }

bool DocumentGetter::get(const std::vector<std::string>& ids,
                         const std::function<void(const std::string& id, qzVariant& source)>& onDoc,
                         std::vector<std::string>* missing, std::string* error, const bool* cancel) {
  static const bool notCancelled = false;
  const bool* userCancel = cancel ? cancel : &notCancelled;
  if (missing)
    missing->clear();
  if (error)
    error->clear();
  const size_t batches = (ids.size() + m_batchSize - 1) / m_batchSize;
  std::vector<std::vector<std::string>> missingPerBatch(batches);
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};
  std::mutex mutex; // guards firstError and the calls of onDoc
  std::string firstError;
  const ElasticConnectionParameters url = m_server.toApiUrl({m_index, "_mget"}, {});

  auto fail = [&](const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!failed.exchange(true))
      firstError = message;
  };

  auto worker = [&] {
    qzVariantMapImpl doc;
    std::string problem;
    std::vector<std::string>* batchMissing = nullptr;
    size_t answeredDocs = 0; // documents in the current answer
    ResponseItemCutter cutter("docs", "", [&](const char* text, size_t length) {
      doc.clear();
      if (!json::Json2Variant::Convert(text, length, doc)) {
        problem = "malformed document in the _mget answer";
        return false;
      }
      const std::string id = doc["_id"].toString();
      ++answeredDocs;
      if (auto e = doc.find("error"); e != doc.end()) {
        std::string json;
        json::Json2Variant::Convert(e->second, json, false);
        problem = "cannot get " + id + ": " + json;
        return false;
      }
      auto found = doc.find("found");
      if (found == doc.end() || !found->second.toBool()) {
        batchMissing->push_back(id);
        return true;
      }
      std::lock_guard<std::mutex> lock(mutex);
      onDoc(id, doc["_source"]);
      return true;
    });
    std::string body;
    http::HttpConnectionLocker connection(m_pool, url);
    for (;;) {
      const size_t b = next++;
      if (b >= batches || failed || http::CancelToken::IsSet(userCancel))
        break;
      batchMissing = &missingPerBatch[b];
      answeredDocs = 0;
      const size_t end = std::min(ids.size(), (b + 1) * m_batchSize);
      body = json::JsonStringArray("ids", ids.data() + b * m_batchSize, ids.data() + end);
      ElasticResponse r;
      const bool answered = ElasticCall(*connection, "POST", url, &body, "application/json", r, &cutter, userCancel);
      if (!answered) {
        fail(http::CancelToken::IsSet(userCancel) ? "cancelled" : (problem.empty() ? ErrorText(r) : problem));
        break;
      }
      if (r.status != 200) {
        fail("_mget on " + m_index + " failed: " + ErrorText(r));
        break;
      }
      if (answeredDocs != end - b * m_batchSize) { // an id neither found, missing nor failed
        fail("_mget on " + m_index + " answered " + std::to_string(answeredDocs) + " of " +
             std::to_string(end - b * m_batchSize) + " ids");
        break;
      }
    }
  };

  const size_t threads = std::min<size_t>(m_threads, batches);
  const http::HttpConnectionPool::ParallelUse use(m_pool, unsigned(threads));
  if (threads <= 1) {
    worker();
  } else {
    std::vector<std::thread> pool;
    for (size_t t = 0; t < threads; ++t)
      pool.emplace_back(worker);
    for (auto& t : pool)
      t.join();
  }
  if (http::CancelToken::IsSet(userCancel) && !failed) {
    failed = true;
    firstError = "cancelled";
  }
  if (failed) {
    if (error)
      *error = firstError;
    return false;
  }
  if (missing)
    for (auto& batch : missingPerBatch)
      missing->insert(missing->end(), batch.begin(), batch.end());
  return true;
}

} // namespace qz::elasticsearch

#include <HttpTools/elasticsearch/BulkIndexer.h>

#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace qz::elasticsearch {

namespace {

struct Op {
  std::string index, id;
  size_t begin = 0, end = 0; // its lines in the batch body
  bool remove = false;
};

struct Batch {
  std::string body;
  std::vector<Op> ops;
  unsigned attempt = 0;
  std::chrono::steady_clock::time_point firstAt;
};

struct ItemResult {
  int status = 0;
  std::string reason;
};

bool retryable(int status) { return status == 429 || status == 503; }

} // namespace

class BulkIndexer::Private {
public:
  Private(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads, size_t maxDocs,
          size_t maxBytes)
      : m_pool(pool), m_url(server.toApiUrl({"_bulk"}, {})), m_threads(std::max(1u, threads)),
        m_maxDocs(std::max<size_t>(1, maxDocs)), m_maxBytes(std::max<size_t>(1, maxBytes)) {
    for (unsigned i = 0; i < m_threads; ++i)
      m_workers.emplace_back([this] { work(); });
  }

  ~Private() {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      if (!m_current.ops.empty())
        enqueueLocked(lock);
      m_closing = true;
    }
    m_cv.notify_all();
    for (auto& t : m_workers)
      t.join();
    if (m_timer.joinable())
      m_timer.join();
  }

  bool add(const std::string& index, const std::string& id, const std::string* json) {
    if (index.empty() || id.empty())
      return false;
    std::unique_lock<std::mutex> lock(m_mutex);
    Batch& batch = m_current;
    if (batch.ops.empty()) {
      batch.firstAt = std::chrono::steady_clock::now();
      // A body the workers gave back, or one sized like the last batch: no growth copies (nor fresh
      // pages) while it fills.
      if (batch.body.capacity() == 0 && !m_spareBodies.empty()) {
        batch.body = std::move(m_spareBodies.back());
        m_spareBodies.pop_back();
      }
      batch.body.reserve(std::min(m_maxBytes, m_lastBatchBytes) + (json ? json->size() : 0) + 256);
    }
    Op op{index, id, batch.body.size(), 0, json == nullptr};
    batch.body += json ? "{\"index\":{\"_index\":" : "{\"delete\":{\"_index\":";
    AppendJsonString(batch.body, index);
    batch.body += ",\"_id\":";
    AppendJsonString(batch.body, id);
    batch.body += "}}\n";
    if (json) {
      batch.body += *json;
      batch.body += '\n';
    }
    op.end = batch.body.size();
    batch.ops.push_back(std::move(op));
    if (batch.ops.size() >= m_maxDocs || batch.body.size() >= m_maxBytes)
      enqueueLocked(lock);
    return true;
  }

  bool flush(std::string* error) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_current.ops.empty())
      enqueueLocked(lock);
    m_cv.wait(lock, [this] { return m_queue.empty() && m_busy == 0 && m_current.ops.empty(); });
    const size_t failed = m_failedSinceFlush;
    const std::string first = m_firstFailure;
    m_failedSinceFlush = 0;
    m_firstFailure.clear();
    if (failed && error)
      *error = std::to_string(failed) + " bulk item(s) failed; first: " + first;
    else if (error)
      error->clear();
    return failed == 0;
  }

  BulkStats stats() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
  }

  void setFailureFunction(std::function<void(const std::string&, const std::string&, int, const std::string&)> f) {
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    m_onFailure = std::move(f);
  }

  void setInterval(unsigned ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_intervalMs = ms;
    if (ms && !m_timer.joinable())
      m_timer = std::thread([this] { timer(); });
    m_cv.notify_all();
  }

  void setRetries(unsigned retries, unsigned firstBackoffMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_retries = retries;
    m_firstBackoffMs = firstBackoffMs;
  }

private:
  // Hands the current batch to the workers; waits while 2 × threads batches are queued.
  void enqueueLocked(std::unique_lock<std::mutex>& lock) {
    m_cv.wait(lock, [this] { return m_queue.size() < 2 * m_threads || m_closing; });
    m_lastBatchBytes = std::max(m_lastBatchBytes, m_current.body.size());
    m_queue.push_back(std::move(m_current));
    m_current = Batch();
    m_cv.notify_all();
  }

  void timer() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_closing) {
      const auto wait = std::chrono::milliseconds(std::max(1u, m_intervalMs / 4));
      m_cv.wait_for(lock, wait);
      if (m_closing || !m_intervalMs)
        continue;
      if (!m_current.ops.empty() &&
          std::chrono::steady_clock::now() - m_current.firstAt >= std::chrono::milliseconds(m_intervalMs))
        enqueueLocked(lock);
    }
  }

  void work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_cv.wait(lock, [this] { return !m_queue.empty() || m_closing; });
      if (m_queue.empty())
        return;
      Batch batch = std::move(m_queue.front());
      m_queue.pop_front();
      ++m_busy;
      m_cv.notify_all(); // room in the queue
      lock.unlock();
      std::string body = send(std::move(batch));
      lock.lock();
      if (m_spareBodies.size() < 2 * m_threads + 2) {
        body.clear();
        m_spareBodies.push_back(std::move(body));
      }
      --m_busy;
      m_cv.notify_all();
    }
  }

  void fail(const Op& op, int status, const std::string& reason) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      ++m_stats.failed;
      if (m_failedSinceFlush++ == 0)
        m_firstFailure = op.index + "/" + op.id + ": " + std::to_string(status) + " " + reason;
    }
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    if (m_onFailure)
      m_onFailure(op.index, op.id, status, reason);
  }

  unsigned backoffMs(unsigned attempt) {
    unsigned first, ms;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      first = m_firstBackoffMs;
    }
    ms = first;
    for (unsigned i = 1; i < attempt && ms < 5000; ++i)
      ms *= 2;
    ms = std::min(ms, 5000u);
    thread_local std::minstd_rand jitter(std::random_device{}());
    return ms / 2 + (ms ? unsigned(jitter() % (ms / 2 + 1)) : 0);
  }

  // Sends one batch and everything that must be sent again, until no item is left to retry.
  // Gives back the first body for reuse.
  std::string send(Batch batch) {
    std::string first;
    sendAll(std::move(batch), first);
    return first;
  }

  void sendAll(Batch batch, std::string& firstBody) {
    http::HttpConnectionLocker connection(m_pool, m_url);
    std::vector<ItemResult> results;
    qzVariantMapImpl item;
    ResponseItemCutter* cutterPtr = nullptr;
    ResponseItemCutter cutter("items", "", [&](const char* text, size_t length) {
      ItemResult r;
      if (cutterPtr->errors() == 0) {
        r.status = 200; // no item failed: the statuses need not be read
      } else {
        item.clear();
        if (!json::Json2Variant::Convert(text, length, item) || item.size() != 1 || !item.begin()->second.isMap())
          return false;
        const auto& m = item.begin()->second.toMap();
        auto status = m.find("status");
        r.status = status == m.end() ? 0 : int(status->second.toInt64());
        if (auto e = m.find("error"); e != m.end()) {
          if (e->second.isMap()) {
            const auto& em = e->second.toMap();
            auto type = em.find("type");
            auto reason = em.find("reason");
            r.reason = (type != em.end() ? type->second.toString() : std::string("error")) +
                       (reason != em.end() ? ": " + reason->second.toString() : std::string());
          } else {
            r.reason = e->second.toString();
          }
        }
      }
      results.push_back(std::move(r));
      return true;
    });
    cutterPtr = &cutter;

    while (!batch.ops.empty()) {
      results.clear();
      ElasticResponse response;
      const bool answered =
          ElasticCall(*connection, "POST", m_url, &batch.body, "application/x-ndjson", response, &cutter, nullptr);
      const int status = int(response.status);
      std::vector<size_t> again;
      std::vector<ItemResult> againWhy;
      if (!answered || status == 429 || status == 502 || status == 503 || status == 504) {
        // The whole request is sent again.
        const std::string why = answered ? ErrorText(response) : "no answer: " + response.transportError;
        for (size_t i = 0; i < batch.ops.size(); ++i) {
          again.push_back(i);
          againWhy.push_back({answered ? status : 0, why});
        }
      } else if (status != 200) {
        const std::string why = ErrorText(response);
        for (const Op& op : batch.ops)
          fail(op, status, why);
      } else {
        size_t indexed = 0, deleted = 0;
        for (size_t i = 0; i < batch.ops.size(); ++i) {
          const Op& op = batch.ops[i];
          if (i >= results.size()) {
            fail(op, 0, "no item for this operation in the _bulk answer");
            continue;
          }
          const ItemResult& r = results[i];
          if ((r.status >= 200 && r.status < 300) || (op.remove && r.status == 404)) {
            (op.remove ? deleted : indexed)++;
          } else if (retryable(r.status)) {
            again.push_back(i);
            againWhy.push_back(r);
          } else {
            fail(op, r.status, r.reason);
          }
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stats.indexed += indexed;
        m_stats.deleted += deleted;
      }
      if (again.empty()) {
        if (batch.attempt == 0)
          firstBody = std::move(batch.body);
        return;
      }
      unsigned retries;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        retries = m_retries;
      }
      if (batch.attempt >= retries) {
        for (size_t k = 0; k < again.size(); ++k)
          fail(batch.ops[again[k]], againWhy[k].status, againWhy[k].reason);
        if (batch.attempt == 0)
          firstBody = std::move(batch.body);
        return;
      }
      Batch next;
      next.attempt = batch.attempt + 1;
      for (size_t i : again) {
        Op op = batch.ops[i];
        const size_t length = op.end - op.begin;
        next.body.append(batch.body, op.begin, length);
        op.begin = next.body.size() - length;
        op.end = next.body.size();
        next.ops.push_back(std::move(op));
      }
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stats.retried += next.ops.size();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(backoffMs(next.attempt)));
      if (batch.attempt == 0)
        firstBody = std::move(batch.body);
      batch = std::move(next);
    }
  }

  http::HttpConnectionPool& m_pool;
  const qz::Url m_url;
  const unsigned m_threads;
  const size_t m_maxDocs, m_maxBytes;

  mutable std::mutex m_mutex; // guards everything below
  std::condition_variable m_cv;
  Batch m_current;
  std::deque<Batch> m_queue;
  std::vector<std::string> m_spareBodies; // sent bodies kept for their capacity
  size_t m_busy = 0;
  bool m_closing = false;
  BulkStats m_stats;
  size_t m_failedSinceFlush = 0;
  std::string m_firstFailure;
  size_t m_lastBatchBytes = 0;
  unsigned m_intervalMs = 0;
  unsigned m_retries = 5;
  unsigned m_firstBackoffMs = 100;
  std::vector<std::thread> m_workers;
  std::thread m_timer;

  std::mutex m_callbackMutex; // one failure callback at a time
  std::function<void(const std::string&, const std::string&, int, const std::string&)> m_onFailure;
};

BulkIndexer::BulkIndexer(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads,
                         size_t maxDocs, size_t maxBytes)
    : d(std::make_unique<Private>(pool, server, threads, maxDocs, maxBytes)) {}

BulkIndexer::~BulkIndexer() = default;

bool BulkIndexer::index(const std::string& index, const std::string& id, const qzVariantMapImpl& doc) {
  thread_local std::string json; // its capacity is reused from call to call
  json.clear();
  AppendJson(json, doc);
  return d->add(index, id, &json);
}

bool BulkIndexer::indexJson(const std::string& index, const std::string& id, const std::string& json) {
  if (json.empty() || json.find('\n') != std::string::npos)
    return false;
  return d->add(index, id, &json);
}

bool BulkIndexer::remove(const std::string& index, const std::string& id) { return d->add(index, id, nullptr); }

bool BulkIndexer::flush(std::string* error) { return d->flush(error); }

BulkStats BulkIndexer::stats() const { return d->stats(); }

void BulkIndexer::onItemFailure(
    std::function<void(const std::string& index, const std::string& id, int status, const std::string& reason)> f) {
  d->setFailureFunction(std::move(f));
}

void BulkIndexer::setFlushIntervalMs(unsigned ms) { d->setInterval(ms); }

void BulkIndexer::setRetries(unsigned retries, unsigned firstBackoffMs) { d->setRetries(retries, firstBackoffMs); }

} // namespace qz::elasticsearch

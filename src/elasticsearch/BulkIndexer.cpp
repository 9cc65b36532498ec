#include <HttpTools/elasticsearch/BulkIndexer.h>

#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/elasticsearch/Gzip_p.h>
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/RetryPolicy.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace qz::elasticsearch {

namespace bulk { // named: BulkIndexer::Private holds these

struct Op {
  BulkItem item;             // as added, without its source (that is in the body)
  size_t begin = 0, end = 0; // its lines in the batch body
  size_t source = 0;         // where its source line starts (== end for a delete)
};

struct Batch {
  std::string body;
  std::vector<Op> ops;
  unsigned attempt = 0;
  std::chrono::steady_clock::time_point firstAt;
};

struct ItemResult {
  BulkOutcome outcome;
  std::string reason; // "type: reason", for the failure callback
};

const char* const kOpNames[] = {"index", "create", "update", "delete"};

// Why Elasticsearch would refuse the whole request for this item; "" when it would not.
std::string invalidItem(const BulkItem& it, const std::string* json) {
  if (it.index.empty() || it.id.empty())
    return "an item needs an index and an id";
  const bool external = it.versionType != BulkVersionType::Internal;
  if (it.op == BulkOp::Create && external)
    return "create operations only support internal versioning. use index instead";
  if (it.op == BulkOp::Update && (external || it.version >= 0))
    return "update requests do not support versioning; use ifSeqNo and ifPrimaryTerm";
  if (external && it.version < 0)
    return "an external version type needs a version >= 0";
  if (!external && it.version >= 0)
    return "a version needs an external version type; use ifSeqNo and ifPrimaryTerm otherwise";
  if ((it.ifSeqNo >= 0) != (it.ifPrimaryTerm >= 0))
    return "ifSeqNo and ifPrimaryTerm go together";
  if (it.ifSeqNo >= 0 && (external || it.op == BulkOp::Create))
    return "compare-and-set goes with neither an external version nor create";
  if (it.op != BulkOp::Delete && (!json || json->empty() || json->find('\n') != std::string::npos))
    return "the document must be one JSON object on one line";
  return {};
}

// Appends the item's action line and source line.
void appendItem(std::string& body, const BulkItem& it, const std::string* json) {
  body += "{\"";
  body += kOpNames[int(it.op)];
  body += "\":{\"_index\":";
  AppendJsonString(body, it.index);
  body += ",\"_id\":";
  AppendJsonString(body, it.id);
  if (!it.routing.empty()) {
    body += ",\"routing\":";
    AppendJsonString(body, it.routing);
  }
  if (it.versionType != BulkVersionType::Internal) {
    body += ",\"version\":" + std::to_string(it.version) + ",\"version_type\":";
    body += it.versionType == BulkVersionType::External ? "\"external\"" : "\"external_gte\"";
  }
  if (it.ifSeqNo >= 0)
    body += ",\"if_seq_no\":" + std::to_string(it.ifSeqNo) + ",\"if_primary_term\":" + std::to_string(it.ifPrimaryTerm);
  body += "}}\n";
  if (it.op == BulkOp::Update) {
    body += "{\"doc\":";
    body += *json;
    body += it.docAsUpsert ? ",\"doc_as_upsert\":true}\n" : "}\n";
  } else if (it.op != BulkOp::Delete) {
    body += *json;
    body += '\n';
  }
}

// One item of a _bulk answer ({"index":{"status":..,"result":..,"error":{..}}}).
bool readItem(const qzVariantMapImpl& answer, ItemResult& r) {
  if (answer.size() != 1 || !answer.begin()->second.isMap())
    return false;
  const auto& m = answer.begin()->second.toMap();
  auto number = [&](const char* key, int64_t fallback) {
    auto it = m.find(key);
    return it == m.end() ? fallback : it->second.toInt64();
  };
  BulkOutcome& o = r.outcome;
  o.status = int(number("status", 0));
  o.version = number("_version", -1);
  o.seqNo = number("_seq_no", -1);
  o.primaryTerm = number("_primary_term", -1);
  if (auto it = m.find("result"); it != m.end())
    o.result = it->second.toString();
  if (auto e = m.find("error"); e != m.end()) {
    if (e->second.isMap()) {
      const auto& em = e->second.toMap();
      auto type = em.find("type");
      auto reason = em.find("reason");
      o.errorType = type != em.end() ? type->second.toString() : std::string("error");
      o.errorReason = reason != em.end() ? reason->second.toString() : std::string();
    } else {
      o.errorType = "error";
      o.errorReason = e->second.toString();
    }
    r.reason = o.errorType + (o.errorReason.empty() ? "" : ": " + o.errorReason);
  }
  return true;
}

bool retryable(int status) { return status == 429 || status == 503; }

} // namespace bulk
using namespace bulk;

class BulkIndexer::Private {
public:
  Private(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads, size_t maxDocs,
          size_t maxBytes)
      : m_pool(pool), m_url(server.toApiUrl({"_bulk"}, {})), m_threads(std::max(1u, threads)),
        m_maxDocs(std::max<size_t>(1, maxDocs)), m_maxBytes(std::max<size_t>(1, maxBytes)), m_use(pool, m_threads) {
    for (unsigned i = 0; i < m_threads; ++i)
      m_workers.emplace_back([this] { work(); });
  }

  ~Private() {
    stop();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_closing = true;
    }
    m_cv.notify_all();
    for (auto& t : m_workers)
      t.join();
    if (m_timer.joinable())
      m_timer.join();
  }

  bool add(const BulkItem& item, const std::string* json, std::string* error) {
    const std::string why = m_stopping ? "the indexer is stopped" : invalidItem(item, json);
    if (!why.empty()) {
      if (error)
        *error = why;
      return false;
    }
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
    Op op;
    op.item.op = item.op;
    op.item.index = item.index;
    op.item.id = item.id;
    op.item.routing = item.routing;
    op.item.version = item.version;
    op.item.versionType = item.versionType;
    op.item.ifSeqNo = item.ifSeqNo;
    op.item.ifPrimaryTerm = item.ifPrimaryTerm;
    op.item.docAsUpsert = item.docAsUpsert;
    op.begin = batch.body.size();
    appendItem(batch.body, item, json);
    op.end = batch.body.size();
    op.source = item.op == BulkOp::Delete ? op.end : batch.body.find('\n', op.begin) + 1;
    batch.ops.push_back(std::move(op));
    ++m_pending;
    if (batch.ops.size() >= m_maxDocs || batch.body.size() >= m_maxBytes)
      enqueueLocked(lock);
    return true;
  }

  bool flush(std::string* error, const std::atomic<bool>* cancel) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_current.ops.empty())
      enqueueLocked(lock);
    auto settled = [&] { return m_pending == 0 || m_stopping || (cancel && cancel->load()); };
    while (!settled())
      m_cv.wait_for(lock, std::chrono::milliseconds(cancel ? 10 : 1000), settled);
    const size_t pending = m_pending;
    const size_t failed = m_failedSinceFlush;
    const std::string first = m_firstFailure;
    m_failedSinceFlush = 0;
    m_firstFailure.clear();
    std::string text;
    if (pending)
      text = (m_stopping ? "stopped" : "interrupted") + std::string(" with ") + std::to_string(pending) +
             " bulk item(s) not yet acknowledged";
    if (failed)
      text += (text.empty() ? "" : "; ") + std::to_string(failed) + " bulk item(s) failed; first: " + first;
    if (error)
      *error = text;
    return text.empty();
  }

  // Takes every unsent batch and reports its items cancelled; cuts the workers' requests and
  // backoffs.
  void stop() {
    std::vector<Batch> unsent;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
      for (auto& b : m_queue)
        unsent.push_back(std::move(b));
      m_queue.clear();
      if (!m_current.ops.empty())
        unsent.push_back(std::move(m_current));
      m_current = Batch();
    }
    m_cv.notify_all();
    m_stop.cancel();
    for (const Batch& b : unsent)
      for (const Op& op : b.ops)
        cancel(b, op);
  }

  BulkStats stats() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
  }

  void setFailureFunction(std::function<void(const std::string&, const std::string&, int, const std::string&)> f) {
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    m_onFailure = std::move(f);
  }

  void setOutcomeFunction(std::function<void(const BulkItem&, const BulkOutcome&)> f) {
    std::lock_guard<std::mutex> lock(m_callbackMutex);
    m_wantOutcomes = bool(f);
    m_onOutcome = std::move(f);
  }

  void setInterval(unsigned ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_intervalMs = ms;
    if (ms && !m_timer.joinable())
      m_timer = std::thread([this] { timer(); });
    m_cv.notify_all();
  }

  void setRequestOptions(const BulkRequestOptions& o) {
    m_url.queryParameters.clear();
    if (!o.refresh.empty())
      m_url.queryParameters.emplace_back("refresh", o.refresh);
    if (!o.pipeline.empty())
      m_url.queryParameters.emplace_back("pipeline", o.pipeline);
    m_gzipUrl = m_url;
    m_gzipUrl.extraHeaders.emplace_back("Content-Encoding: gzip");
    m_gzipLevel = std::clamp(o.gzipLevel, 0, 9);
  }

  void setRetries(unsigned retries, unsigned firstBackoffMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_retry.attempts = retries + 1;
    m_retry.initialBackoffMs = firstBackoffMs;
  }

private:
  // Hands the current batch to the workers; waits while 2 × threads batches are queued.
  void enqueueLocked(std::unique_lock<std::mutex>& lock) {
    m_cv.wait(lock, [this] { return m_queue.size() < 2 * m_threads || m_closing || m_stopping; });
    if (m_stopping)
      return; // stop() took the current batch
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
      m_cv.wait(lock, [this] { return !m_queue.empty() || m_closing || m_stopping; });
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

  // The item as sent: its options and the source from the batch body.
  static BulkItem sentItem(const Batch& b, const Op& op) {
    BulkItem item = op.item;
    if (op.source < op.end) {
      std::string_view line(b.body.data() + op.source, op.end - op.source - 1);
      if (op.item.op == BulkOp::Update) // {"doc":JSON} or {"doc":JSON,"doc_as_upsert":true}
        line = line.substr(7, line.size() - 8 - (op.item.docAsUpsert ? 21 : 0));
      item.json.assign(line);
    }
    return item;
  }

  // One item's final word: counted, then given to the callbacks.
  void settle(const Batch& b, const Op& op, const ItemResult& r, bool success, bool cancelled = false) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (success) {
        ++(op.item.op == BulkOp::Delete ? m_stats.deleted : m_stats.indexed);
      } else {
        ++(cancelled ? m_stats.cancelled : m_stats.failed);
        if (m_failedSinceFlush++ == 0)
          m_firstFailure = op.item.index + "/" + op.item.id + ": " +
                           (r.outcome.status ? std::to_string(r.outcome.status) + " " : "") + r.reason;
      }
    }
    {
      std::lock_guard<std::mutex> lock(m_callbackMutex);
      if (!success && m_onFailure)
        m_onFailure(op.item.index, op.item.id, r.outcome.status, r.reason);
      if (m_onOutcome)
        m_onOutcome(sentItem(b, op), r.outcome);
    }
    { // settled only once its callbacks have run: flush() returns after them
      std::lock_guard<std::mutex> lock(m_mutex);
      --m_pending;
    }
    m_cv.notify_all();
  }

  void fail(const Batch& b, const Op& op, int status, const std::string& reason) {
    ItemResult r;
    r.outcome.status = status;
    r.outcome.errorType = status ? "http_error" : "no_answer";
    r.outcome.errorReason = reason;
    r.reason = reason;
    settle(b, op, r, false);
  }

  void cancel(const Batch& b, const Op& op) {
    ItemResult r;
    r.outcome.errorType = "cancelled";
    r.outcome.errorReason = "the indexer stopped before this item was acknowledged";
    r.reason = "cancelled: " + r.outcome.errorReason;
    settle(b, op, r, false, true);
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
    qzVariantMapImpl answer;
    const bool everyItem = m_wantOutcomes;
    ResponseItemCutter* cutterPtr = nullptr;
    ResponseItemCutter cutter("items", "", [&](const char* text, size_t length) {
      ItemResult r;
      if (cutterPtr->errors() == 0 && !everyItem) {
        r.outcome.status = 200; // no item failed and nobody asked for the details
      } else {
        answer.clear();
        if (!json::Json2Variant::Convert(text, length, answer) || !readItem(answer, r))
          return false;
      }
      results.push_back(std::move(r));
      return true;
    });
    cutterPtr = &cutter;
    auto keepBody = [&] {
      if (batch.attempt == 0)
        firstBody = std::move(batch.body);
    };

    while (!batch.ops.empty()) {
      if (m_stopping) {
        for (const Op& op : batch.ops)
          cancel(batch, op);
        return keepBody();
      }
      results.clear();
      ElasticResponse response;
      std::string packed;
      const bool gzip = m_gzipLevel > 0 && GzipCompress(batch.body, m_gzipLevel, packed);
      const bool answered = ElasticCall(*connection, "POST", gzip ? m_gzipUrl : m_url, gzip ? &packed : &batch.body,
                                        "application/x-ndjson", response, &cutter, &m_stop);
      if (!answered && m_stop.isCancelled())
        continue; // cut by stop(): the loop's first check cancels
      const int status = int(response.status);
      std::vector<size_t> again;
      std::vector<ItemResult> againWhy;
      if (!answered || status == 429 || status == 502 || status == 503 || status == 504) {
        // The whole request is sent again.
        ItemResult why;
        why.outcome.status = answered ? status : 0;
        why.outcome.errorType = answered ? "http_error" : "no_answer";
        why.reason = why.outcome.errorReason = answered ? ErrorText(response) : "no answer: " + response.transportError;
        for (size_t i = 0; i < batch.ops.size(); ++i) {
          again.push_back(i);
          againWhy.push_back(why);
        }
      } else if (status != 200) {
        const std::string why = ErrorText(response);
        for (const Op& op : batch.ops)
          fail(batch, op, status, why);
      } else {
        for (size_t i = 0; i < batch.ops.size(); ++i) {
          const Op& op = batch.ops[i];
          if (i >= results.size()) {
            fail(batch, op, 0, "no item for this operation in the _bulk answer");
            continue;
          }
          const int s = results[i].outcome.status;
          if ((s >= 200 && s < 300) || (op.item.op == BulkOp::Delete && s == 404 && results[i].outcome.ok())) {
            settle(batch, op, results[i], true);
          } else if (retryable(s)) {
            again.push_back(i);
            againWhy.push_back(results[i]);
          } else {
            settle(batch, op, results[i], false);
          }
        }
      }
      if (again.empty())
        return keepBody();
      http::RetryPolicy retry;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        retry = m_retry;
      }
      if (batch.attempt + 1 >= retry.attempts) {
        for (size_t k = 0; k < again.size(); ++k)
          settle(batch, batch.ops[again[k]], againWhy[k], false);
        return keepBody();
      }
      Batch next;
      next.attempt = batch.attempt + 1;
      for (size_t i : again) {
        Op op = batch.ops[i];
        const size_t length = op.end - op.begin;
        next.body.append(batch.body, op.begin, length);
        op.source = next.body.size() - length + (op.source - op.begin);
        op.begin = next.body.size() - length;
        op.end = next.body.size();
        next.ops.push_back(std::move(op));
      }
      keepBody();
      batch = std::move(next);
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stats.retried += batch.ops.size();
      }
      // The backoff ends early when stop() is called; the loop's first check then cancels.
      m_stop.waitFor(std::chrono::milliseconds(retry.backoffMs(batch.attempt)));
    }
  }

  http::HttpConnectionPool& m_pool;
  ElasticConnectionParameters m_url, m_gzipUrl; // read by the workers once items arrive
  int m_gzipLevel = 0;
  const unsigned m_threads;
  const size_t m_maxDocs, m_maxBytes;
  const http::HttpConnectionPool::ParallelUse m_use; // the workers keep their connections

  mutable std::mutex m_mutex; // guards everything below
  std::condition_variable m_cv;
  Batch m_current;
  std::deque<Batch> m_queue;
  std::vector<std::string> m_spareBodies; // sent bodies kept for their capacity
  size_t m_busy = 0;
  bool m_closing = false;
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_wantOutcomes{false};
  size_t m_pending = 0; // items added and not yet settled
  BulkStats m_stats;
  size_t m_failedSinceFlush = 0;
  std::string m_firstFailure;
  size_t m_lastBatchBytes = 0;
  unsigned m_intervalMs = 0;
  http::RetryPolicy m_retry{.attempts = 6, .initialBackoffMs = 100, .maxBackoffMs = 5000, .jitter = 0.5};
  const http::CancelToken m_stop; // cancelled by stop(): cuts requests on the wire and backoffs
  std::vector<std::thread> m_workers;
  std::thread m_timer;

  std::mutex m_callbackMutex; // one callback at a time
  std::function<void(const std::string&, const std::string&, int, const std::string&)> m_onFailure;
  std::function<void(const BulkItem&, const BulkOutcome&)> m_onOutcome;
};

BulkIndexer::BulkIndexer(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server, unsigned threads,
                         size_t maxDocs, size_t maxBytes)
    : d(std::make_unique<Private>(pool, server, threads, maxDocs, maxBytes)) {}

BulkIndexer::~BulkIndexer() = default;

namespace {

BulkItem itemOf(BulkOp op, const std::string& index, const std::string& id) {
  BulkItem item;
  item.op = op;
  item.index = index;
  item.id = id;
  return item;
}

} // namespace

bool BulkIndexer::index(const std::string& index, const std::string& id, const qzVariantMapImpl& doc) {
  thread_local std::string json; // its capacity is reused from call to call
  json.clear();
  AppendJson(json, doc);
  return d->add(itemOf(BulkOp::Index, index, id), &json, nullptr);
}

bool BulkIndexer::indexJson(const std::string& index, const std::string& id, const std::string& json) {
  return d->add(itemOf(BulkOp::Index, index, id), &json, nullptr);
}

bool BulkIndexer::remove(const std::string& index, const std::string& id) {
  return d->add(itemOf(BulkOp::Delete, index, id), nullptr, nullptr);
}

bool BulkIndexer::add(const BulkItem& item, std::string* error) { return d->add(item, &item.json, error); }

bool BulkIndexer::add(const BulkItem& item, const qzVariantMapImpl& document, std::string* error) {
  thread_local std::string json;
  json.clear();
  AppendJson(json, document);
  return d->add(item, &json, error);
}

void BulkIndexer::stop() { d->stop(); }

bool BulkIndexer::flush(std::string* error) { return d->flush(error, nullptr); }

bool BulkIndexer::flush(std::string* error, const std::atomic<bool>* cancel) { return d->flush(error, cancel); }

BulkStats BulkIndexer::stats() const { return d->stats(); }

void BulkIndexer::onItemFailure(
    std::function<void(const std::string& index, const std::string& id, int status, const std::string& reason)> f) {
  d->setFailureFunction(std::move(f));
}

void BulkIndexer::onItemOutcome(std::function<void(const BulkItem& item, const BulkOutcome& outcome)> f) {
  d->setOutcomeFunction(std::move(f));
}

void BulkIndexer::setFlushIntervalMs(unsigned ms) { d->setInterval(ms); }

void BulkIndexer::setRetries(unsigned retries, unsigned firstBackoffMs) { d->setRetries(retries, firstBackoffMs); }
void BulkIndexer::setRequestOptions(const BulkRequestOptions& options) { d->setRequestOptions(options); }

} // namespace qz::elasticsearch

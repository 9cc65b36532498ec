#include <HttpTools/couch/CouchDocuments.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/couch/StoredDocuments_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>
#include <HttpTools/platform/qzThread_p.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace qz::couch {

namespace {

// Runs work(i) for i in [0, count) on up to `threads` threads; stops handing out work after the
// first false. True when every call returned true.
bool RunBatches(unsigned threads, size_t count, const std::function<bool(size_t)>& work) {
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};
  auto loop = [&] {
    for (size_t i = next++; i < count && !failed.load(); i = next++)
      if (!work(i))
        failed = true;
  };
  qz::impl::RunOnThreads(unsigned(std::min<size_t>(std::max(1u, threads), count)), [&](unsigned) { loop(); });
  return !failed.load();
}

using detail::FetchedRow;

} // namespace

// ---------------------------------------------------------------------------------------------

class DocumentGetter::Private {
public:
  http::HttpConnectionPool& pool;
  CouchConnectionParameters server;
  std::string db;
  unsigned threads;
  size_t batch = 200;
};

DocumentGetter::DocumentGetter(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                               const std::string& db, unsigned threads)
    : d(new Private{pool, server, db, std::max(1u, threads)}) {}
DocumentGetter::~DocumentGetter() = default;
void DocumentGetter::setBatchSize(size_t ids) { d->batch = std::max<size_t>(1, ids); }

bool DocumentGetter::get(const std::vector<std::string>& ids,
                         const std::function<void(const std::string& id, qzVariant& doc)>& onDoc,
                         std::vector<std::string>* missing, std::string* error, const bool* cancel) {
  const http::HttpConnectionPool::ParallelUse use(d->pool, d->threads);
  const size_t batches = (ids.size() + d->batch - 1) / d->batch;
  std::vector<std::vector<std::string>> missingPerBatch(batches);
  std::mutex mutex;
  std::string firstError;
  size_t unread = 0; // ids answered with an error, or not answered at all
  const bool ok = RunBatches(d->threads, batches, [&](size_t b) {
    if (http::CancelToken::IsSet(cancel))
      return false;
    std::vector<FetchedRow> rows;
    std::string err;
    const size_t begin = b * d->batch;
    if (!detail::FetchDocuments(d->pool, d->server, d->db, ids, begin, std::min(ids.size(), begin + d->batch), rows,
                                err, cancel)) {
      std::lock_guard<std::mutex> lock(mutex);
      if (firstError.empty())
        firstError = err;
      return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (FetchedRow& row : rows) {
      if (!row.error.empty()) {
        if (unread++ == 0)
          firstError = "reading documents of " + d->db + ": " + row.id + ": " + row.error;
      } else if (row.doc.isNull()) {
        missingPerBatch[b].push_back(row.id);
      } else if (onDoc) {
        onDoc(row.id, row.doc);
      }
    }
    return true;
  });
  if (ok && unread > 0 && error)
    *error = firstError + (unread > 1 ? " (and " + std::to_string(unread - 1) + " more id(s) not read)" : "");
  if (missing) {
    missing->clear();
    for (auto& m : missingPerBatch)
      missing->insert(missing->end(), m.begin(), m.end());
  }
  if (!ok && error)
    *error = http::CancelToken::IsSet(cancel) && firstError.empty() ? "cancelled" : firstError;
  return ok && unread == 0 && !http::CancelToken::IsSet(cancel);
}

// ---------------------------------------------------------------------------------------------

class DocumentUpdater::Private {
public:
  http::HttpConnectionPool& pool;
  CouchConnectionParameters server;
  std::string db;
  unsigned threads;
  size_t batch = 100;
  unsigned maxRetries = 20;
};

DocumentUpdater::DocumentUpdater(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                 const std::string& db, unsigned threads)
    : d(new Private{pool, server, db, std::max(1u, threads)}) {}
DocumentUpdater::~DocumentUpdater() = default;
void DocumentUpdater::setBatchSize(size_t ids) { d->batch = std::max<size_t>(1, ids); }
void DocumentUpdater::setMaxConflictRetries(unsigned n) { d->maxRetries = n; }

bool DocumentUpdater::update(const std::vector<std::string>& ids,
                             const std::function<bool(qzVariantMapImpl& doc)>& change, size_t* written,
                             std::string* error, const bool* cancel) {
  std::atomic<size_t> count{0};
  std::mutex mutex; // serialises change() and guards firstError
  std::string firstError;
  auto failWith = [&](const std::string& why) {
    std::lock_guard<std::mutex> lock(mutex);
    if (firstError.empty())
      firstError = why;
    return false;
  };
  const qz::Url bulk = d->server.toDatabaseUrl(d->db, {}).toUrl(std::vector<std::string>{"_bulk_docs"}, {});
  const size_t batches = (ids.size() + d->batch - 1) / d->batch;
  const http::HttpConnectionPool::ParallelUse use(d->pool, d->threads);
  const bool ok = RunBatches(d->threads, batches, [&](size_t b) {
    const size_t begin = b * d->batch;
    std::vector<std::string> pending(ids.begin() + long(begin),
                                     ids.begin() + long(std::min(ids.size(), begin + d->batch)));
    for (unsigned round = 0; !pending.empty(); ++round) {
      if (http::CancelToken::IsSet(cancel))
        return failWith("cancelled");
      if (round > d->maxRetries)
        return failWith("document " + pending.front() + " still in conflict after " + std::to_string(round) +
                        " attempts");
      std::vector<FetchedRow> rows;
      std::string err;
      if (!detail::FetchDocuments(d->pool, d->server, d->db, pending, 0, pending.size(), rows, err, cancel))
        return failWith(err);
      std::string body = "{\"docs\":[";
      std::map<std::string, qzVariantMapImpl> sent; // each written document, on the _rev it read
      for (const FetchedRow& row : rows)
        if (!row.error.empty())
          return failWith("document " + row.id + ": " + row.error);
      {
        std::lock_guard<std::mutex> lock(mutex);
        for (FetchedRow& row : rows) {
          if (!row.doc.isMap() || !change(row.doc.asMap()))
            continue;
          std::string text;
          if (!json::Json2Variant::Convert(row.doc.toMap(), text, false))
            continue;
          body += (sent.empty() ? "" : ",") + text;
          sent.emplace(row.id, std::move(row.doc.asMap()));
        }
      }
      body += "]}";
      pending.clear();
      if (sent.empty())
        break;
      detail::Reply reply;
      if (!detail::RequestWithRetry(d->pool, bulk, http::Method::Post, &body, reply, cancel) || reply.code != 201) {
        return failWith("writing documents of " + d->db + ": " + reply.reason());
      }
      qzVariantListImpl results;
      if (!json::Json2Variant::Convert(reply.body, results))
        return failWith("writing documents of " + d->db + ": invalid json answer");
      std::map<std::string, qzVariantMapImpl> conflicted;
      for (const qzVariant& r : results) {
        const qzVariantMapImpl& m = r.toMap();
        auto e = m.find("error");
        auto id = m.find("id");
        if (e == m.end()) {
          ++count;
        } else if (e->second.toString() == "conflict" && id != m.end() && sent.count(id->second.toString())) {
          conflicted.emplace(id->second.toString(), std::move(sent[id->second.toString()]));
        } else {
          failWith("document " + (id != m.end() ? id->second.toString() : std::string()) + ": " +
                   json::ErrorReasonOf(m));
        }
      }
      // A conflict is either another writer (change it again on what it wrote) or this write,
      // applied by an attempt whose answer was lost (done: changing it again would apply the
      // change twice).
      std::set<std::string> ours;
      if (!conflicted.empty() && !detail::AlreadyStored(d->pool, d->server, d->db, conflicted, ours, err, cancel))
        return failWith(err);
      count += ours.size();
      for (const auto& entry : conflicted)
        if (!ours.count(entry.first))
          pending.push_back(entry.first);
    }
    return true;
  });
  if (written)
    *written = count.load();
  if (!firstError.empty() && error)
    *error = firstError;
  return ok && firstError.empty();
}

// ---------------------------------------------------------------------------------------------

class DocumentUploader::Private {
public:
  struct Batch {
    std::string body;
    std::vector<std::string> ids;
  };

  Private(http::HttpConnectionPool& p, const CouchConnectionParameters& s, const std::string& name, unsigned t,
          size_t docs, size_t bytes)
      : pool(p), server(s), db(name), threads(std::max(1u, t)), batchDocs(std::max<size_t>(1, docs)),
        batchBytes(std::max<size_t>(1, bytes)), use(p, threads) {}
  ~Private() { finish(); }

  void push(std::string json, std::string id);
  void closeCurrent(); // with mutex held
  void worker();
  void send(Batch& batch);
  // Of the documents refused as conflicts, those an earlier attempt stored (its answer lost):
  // taken out of `failed` and counted.
  size_t storedEarlier(const Batch& batch, const std::set<std::string>& conflicts,
                       std::vector<std::pair<std::string, std::string>>& failed);
  void waitIdle();
  void finish();

  http::HttpConnectionPool& pool;
  const CouchConnectionParameters server;
  const std::string db;
  const unsigned threads;
  const size_t batchDocs;
  const size_t batchBytes;
  const http::HttpConnectionPool::ParallelUse use; // the workers keep their connections
  bool newEdits = true;

  std::mutex mutex;
  std::condition_variable changed;
  Batch current;
  std::deque<Batch> queue;
  size_t inFlight = 0;
  bool quitting = false;
  std::vector<std::thread> workers;
  std::atomic<size_t> uploaded{0};
  std::vector<std::pair<std::string, std::string>> failures;
};

void DocumentUploader::Private::push(std::string json, std::string id) {
  std::unique_lock<std::mutex> lock(mutex);
  if (workers.empty())
    for (unsigned t = 0; t < threads; ++t)
      workers.emplace_back([this] { worker(); });
  if (!current.ids.empty() && current.body.size() + json.size() + 2 > batchBytes)
    closeCurrent();
  if (current.ids.empty())
    current.body = "{\"docs\":[";
  else
    current.body.push_back(',');
  current.body += json;
  current.ids.push_back(std::move(id));
  if (current.ids.size() >= batchDocs || current.body.size() >= batchBytes)
    closeCurrent();
  // Back-pressure: the caller waits while the threads have enough work queued.
  changed.wait(lock, [this] { return queue.size() < size_t(threads) * 2; });
}

void DocumentUploader::Private::closeCurrent() {
  if (current.ids.empty())
    return;
  current.body += "]";
  if (!newEdits)
    current.body += ",\"new_edits\":false";
  current.body += "}";
  queue.push_back(std::move(current));
  current = Batch();
  changed.notify_all();
}

void DocumentUploader::Private::worker() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    changed.wait(lock, [this] { return quitting || !queue.empty(); });
    if (queue.empty())
      return;
    Batch batch = std::move(queue.front());
    queue.pop_front();
    ++inFlight;
    changed.notify_all();
    lock.unlock();
    send(batch);
    lock.lock();
    --inFlight;
    changed.notify_all();
  }
}

void DocumentUploader::Private::send(Batch& batch) {
  const qz::Url url = server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_bulk_docs"}, {});
  detail::Reply reply;
  std::vector<std::pair<std::string, std::string>> failed;
  size_t stored = 0;
  // Transient answers are retried for a while; a batch that still fails is reported whole.
  if (!detail::RequestWithRetry(pool, url, http::Method::Post, &batch.body, reply, nullptr, 10) || reply.code != 201) {
    for (const std::string& id : batch.ids)
      failed.emplace_back(id, reply.reason());
  } else {
    qzVariantListImpl results;
    if (!json::Json2Variant::Convert(reply.body, results)) {
      for (const std::string& id : batch.ids)
        failed.emplace_back(id, "invalid json answer");
    } else {
      std::set<std::string> conflicts;
      for (const qzVariant& r : results) {
        const qzVariantMapImpl& m = r.toMap();
        auto e = m.find("error");
        if (e == m.end()) {
          ++stored;
          continue;
        }
        auto id = m.find("id");
        failed.emplace_back(id != m.end() ? id->second.toString() : std::string(), json::ErrorReasonOf(m));
        if (newEdits && e->second.toString() == "conflict")
          conflicts.insert(failed.back().first);
      }
      stored += storedEarlier(batch, conflicts, failed);
      // new_edits=false answers only the failures.
      if (!newEdits)
        stored = batch.ids.size() - failed.size();
    }
  }
  uploaded += stored;
  if (!failed.empty()) {
    std::lock_guard<std::mutex> lock(mutex);
    failures.insert(failures.end(), failed.begin(), failed.end());
  }
}

size_t DocumentUploader::Private::storedEarlier(const Batch& batch, const std::set<std::string>& conflicts,
                                                std::vector<std::pair<std::string, std::string>>& failed) {
  if (conflicts.empty())
    return 0;
  qzVariantMapImpl sentBatch;
  json::Json2Variant::Convert(batch.body, sentBatch);
  std::map<std::string, qzVariantMapImpl> sent;
  for (const qzVariant& doc : sentBatch["docs"].toList())
    if (auto id = doc.toMap().find("_id"); id != doc.toMap().end() && conflicts.count(id->second.toString()))
      sent.emplace(id->second.toString(), doc.toMap());
  std::set<std::string> ours;
  std::string error;
  if (!detail::AlreadyStored(pool, server, db, sent, ours, error, nullptr))
    return 0; // they stay reported as conflicts
  std::erase_if(failed, [&](const auto& f) { return ours.count(f.first) != 0; });
  return ours.size();
}

void DocumentUploader::Private::waitIdle() {
  std::unique_lock<std::mutex> lock(mutex);
  closeCurrent();
  changed.wait(lock, [this] { return queue.empty() && inFlight == 0; });
}

void DocumentUploader::Private::finish() {
  waitIdle();
  {
    std::lock_guard<std::mutex> lock(mutex);
    quitting = true;
    changed.notify_all();
  }
  for (auto& t : workers)
    t.join();
  workers.clear();
}

DocumentUploader::DocumentUploader(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                   const std::string& db, unsigned threads, size_t batchDocs, size_t batchBytes)
    : d(std::make_unique<Private>(pool, server, db, threads, batchDocs, batchBytes)) {}
DocumentUploader::~DocumentUploader() = default;

void DocumentUploader::setNewEdits(bool newEdits) { d->newEdits = newEdits; }

bool DocumentUploader::add(qzVariantMapImpl doc) {
  // An id given now, not by the server, so that a retry cannot store the document twice.
  auto id = doc.find("_id");
  if (id == doc.end())
    id = doc.emplace("_id", detail::NewDocumentId()).first;
  std::string text;
  if (!json::Json2Variant::Convert(doc, text, false))
    return false;
  d->push(std::move(text), id->second.toString());
  return true;
}

bool DocumentUploader::addJson(std::string json, const std::string& id) {
  qzVariantMapImpl doc;
  if (id.empty() && json::Json2Variant::Convert(json, doc))
    return add(std::move(doc));
  d->push(std::move(json), id);
  return true;
}

bool DocumentUploader::flush(std::string* error) {
  d->waitIdle();
  std::lock_guard<std::mutex> lock(d->mutex);
  if (d->failures.empty())
    return true;
  if (error)
    *error = std::to_string(d->failures.size()) + " document(s) not stored, first " + d->failures.front().first + ": " +
             d->failures.front().second;
  return false;
}

size_t DocumentUploader::uploaded() const { return d->uploaded.load(); }

std::vector<std::pair<std::string, std::string>> DocumentUploader::failures() const {
  std::lock_guard<std::mutex> lock(d->mutex);
  return d->failures;
}

} // namespace qz::couch

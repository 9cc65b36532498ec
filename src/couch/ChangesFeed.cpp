#include <HttpTools/couch/ChangesFeed.h>

#include <HttpTools/couch/ChangesFeedParser_p.h>
#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/Transfer.h>
#include <HttpTools/platform/qzJson_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <thread>

namespace qz::couch {

class ChangesFeedListener::Private {
public:
  Private(http::HttpConnectionPool& p, const CouchConnectionParameters& s, const std::string& name, ChangesOptions o)
      : pool(p), server(s), db(name), options(std::move(o)), since(options.since) {}

  // One of onChange and onBatch is set.
  bool runFeed(const std::function<bool(const Change&)>& onChange,
               const std::function<bool(std::vector<Change>&, const std::string&)>& onBatch, std::string* error,
               const bool* cancel);
  qz::Url feedUrl(const std::string& from) const;
  std::string checkpoint() const {
    std::lock_guard<std::mutex> lock(mutex);
    return since;
  }
  void setCheckpoint(const std::string& seq) {
    std::lock_guard<std::mutex> lock(mutex);
    since = seq;
  }

  http::HttpConnectionPool& pool;
  const CouchConnectionParameters server;
  const std::string db;
  const ChangesOptions options;

  mutable std::mutex mutex; // guards since, runError
  std::string since;
  std::string runError;
  bool runOk = true;

  std::atomic<bool> stopRequested{false};
  std::atomic<bool> running{false};
  std::atomic<uint64_t> changes{0};
  std::atomic<uint64_t> reconnects{0};
  std::atomic<int64_t> serverPending{-1}; // the last answer's `pending`
  std::atomic<uint64_t> changesAtPending{0};
  std::thread thread;
  // The running run()'s token: it watches the caller's flag, and stop() cancels it from any thread.
  std::mutex tokenMutex;
  http::CancelToken token;

  http::CancelToken newRun(const bool* cancel) {
    std::lock_guard<std::mutex> lock(tokenMutex);
    token = http::CancelToken::Watching(cancel);
    return token;
  }
};

namespace {

// The answer of one request of the feed: a 200 body goes to the parser, any other is kept (the
// first 64 KiB) for its error text.
class FeedSink : public http::ResponseSink {
public:
  FeedSink(ChangesFeedParser& parser, const http::CancelToken& token, std::function<bool()> afterChunk)
      : m_parser(parser), m_token(token), m_afterChunk(std::move(afterChunk)) {}
  void onStatus(long status, std::string_view) override { m_status = status; }
  bool onBody(const char* data, size_t size) override {
    if (m_status != 200) {
      if (errorBody.size() < 65536)
        errorBody.append(data, std::min<size_t>(size, 65536));
      return true;
    }
    return !m_token.isCancelled() && m_parser.feed(data, size) && (!m_afterChunk || m_afterChunk());
  }
  std::string errorBody;

private:
  ChangesFeedParser& m_parser;
  const http::CancelToken& m_token;
  std::function<bool()> m_afterChunk;
  long m_status = 0;
};

bool IsFatalStatus(long code) { return code >= 400 && code < 500 && code != 408 && code != 429; }

} // namespace

qz::Url ChangesFeedListener::Private::feedUrl(const std::string& from) const {
  CouchConnectionParameters::Query query;
  query.emplace_back("feed", options.continuous ? "continuous" : options.longpoll ? "longpoll" : "normal");
  if (!from.empty())
    query.emplace_back("since", from);
  if (options.includeDocs)
    query.emplace_back("include_docs", "true");
  if (options.allLeafRevs)
    query.emplace_back("style", "all_docs");
  if (options.continuous)
    query.emplace_back("heartbeat", std::to_string(std::max(1u, options.heartbeatMs)));
  else if (options.batchLimit > 0)
    query.emplace_back("limit", std::to_string(options.batchLimit));
  if (options.seqInterval > 0)
    query.emplace_back("seq_interval", std::to_string(options.seqInterval));
  if (!options.docIds.empty())
    query.emplace_back("filter", "_doc_ids");
  else if (!options.selector.empty())
    query.emplace_back("filter", "_selector");
  else if (!options.filter.empty())
    query.emplace_back("filter", options.filter);
  return server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_changes"}, query);
}

bool ChangesFeedListener::Private::runFeed(const std::function<bool(const Change&)>& onChange,
                                           const std::function<bool(std::vector<Change>&, const std::string&)>& onBatch,
                                           std::string* error, const bool* cancel) {
  const http::HttpConnectionPool::ParallelUse use(pool, 1); // its connection stays between reconnects
  const http::CancelToken run = newRun(cancel);
  auto stopped = [&] { return stopRequested.load() || run.isCancelled(); };
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };
  http::TransferRequest request;
  request.headers = {"Accept: application/json",
                     // A compressing server holds changes back until its buffer fills.
                     "Accept-Encoding: identity"};
  if (!options.docIds.empty()) {
    request.method = http::Method::Post;
    request.setBody(
        json::JsonStringArray("doc_ids", options.docIds.data(), options.docIds.data() + options.docIds.size()));
    request.contentType = "application/json";
  } else if (!options.selector.empty()) {
    request.method = http::Method::Post;
    request.setBody("{\"selector\":" + options.selector + "}");
    request.contentType = "application/json";
  }
  // Heartbeats are a byte now and then: the silence watch replaces the low-speed guard and the
  // total time-out of a followed feed.
  request.streaming = options.continuous || options.longpoll;
  if (options.continuous)
    request.idleTimeoutMs = 2 * long(std::max(1u, options.heartbeatMs));
  // The policy gives the delays; every failure of a feed is worth another try (maxRetries 0: no end).
  const http::RetryPolicy retry{.attempts = options.maxRetries > 0 ? options.maxRetries + 1 : UINT_MAX,
                                .initialBackoffMs = options.backoffInitialMs,
                                .maxBackoffMs = options.backoffMaxMs,
                                .retryAfterCapMs = std::max(1u, options.backoffMaxMs)};

  unsigned failures = 0;
  std::string lastReason;
  for (;;) {
    if (stopped())
      return true;
    size_t delivered = 0;
    // Batch delivery: changes wait here until the answer's last_seq, the end of a read, or a
    // full batch (a limited page stays whole, so that its last_seq comes with it).
    std::vector<Change> pending;
    bool batchRefused = false;
    const size_t maxBatch = options.batchLimit > 0 ? size_t(options.batchLimit) + 1 : 1000;
    auto flush = [&](const std::string& lastSeq) {
      if (pending.empty() || batchRefused) {
        if (!lastSeq.empty() && !batchRefused)
          setCheckpoint(lastSeq);
        return !batchRefused;
      }
      std::string next = lastSeq;
      for (auto it = pending.rbegin(); next.empty() && it != pending.rend(); ++it)
        next = it->seq; // null seqs (seq_interval) are empty
      if (!onBatch(pending, next)) {
        batchRefused = true;
        return false;
      }
      changes += pending.size();
      delivered += pending.size();
      pending.clear();
      if (!next.empty())
        setCheckpoint(next);
      return !stopped();
    };
    ChangesFeedParser parser(
        [&](Change& change) {
          if (onBatch) {
            pending.push_back(std::move(change));
            return pending.size() < maxBatch || flush({});
          }
          if (!onChange(change))
            return false;
          if (!change.seq.empty()) // null under seq_interval: not a checkpoint
            setCheckpoint(change.seq);
          ++changes;
          ++delivered;
          return !stopped();
        },
        [&](const std::string& lastSeq) {
          if (onBatch)
            flush(lastSeq);
          else
            setCheckpoint(lastSeq);
        });
    request.url = feedUrl(checkpoint());
    std::function<bool()> afterChunk;
    if (onBatch && options.continuous)
      afterChunk = [&] { return flush({}); };
    FeedSink sink(parser, run, afterChunk);
    http::TransferOutcome outcome;
    const int64_t started = qzSystemUtils::GetTimeBaseMs();
    bool ok = false;
    {
      http::HttpConnectionLocker conn(pool, request.url);
      ok = http::PerformTransfer(*conn, request, sink, outcome, &run);
    }
    if (parser.pending() >= 0) { // what follows the answer, and what of it was not handed over
      changesAtPending = changes.load();
      serverPending = parser.pending() + int64_t(parser.changeCount() - std::min(delivered, parser.changeCount()));
    }
    const long status = outcome.status;
    if (parser.refused() || batchRefused || stopped())
      return true;
    if (status == 200 && !parser.error().empty())
      return fail("change feed of " + db + ": " + parser.error());
    if (!ok && outcome.error.kind == http::ErrorKind::LocalIo)
      return fail("change feed callback failed");
    detail::Reply reply;
    reply.code = status;
    reply.body = sink.errorBody;
    if (IsFatalStatus(status))
      return fail("change feed of " + db + ": " + reply.reason());
    if (delivered > 0)
      failures = 0;
    if (ok && status == 200) {
      if (!options.continuous) {
        if (options.batchLimit > 0 && parser.changeCount() >= options.batchLimit)
          continue; // the next batch
        if (options.longpoll && parser.changeCount() == 0 && parser.sawLastSeq()) {
          // The server's wait ended without a change: wait again (a pause if it did not wait).
          if (qzSystemUtils::GetTimeBaseMs() - started < 100 &&
              (!run.waitFor(std::chrono::milliseconds(100)) || stopped()))
            return true;
          continue;
        }
        if (parser.sawLastSeq() && parser.pendingBytes() == 0)
          return true;
        lastReason = "change feed ended early";
      } else if (delivered > 0 || qzSystemUtils::GetTimeBaseMs() - started >= int64_t(options.heartbeatMs)) {
        ++reconnects; // the server closed a feed that had been live: take it up again at once
        continue;
      } else {
        lastReason = "continuous feed closed at once";
      }
    } else if (!ok && outcome.error.kind == http::ErrorKind::Timeout && request.idleTimeoutMs > 0) {
      lastReason = "no heartbeat for " + std::to_string(request.idleTimeoutMs) + " ms";
    } else if (status != 200 && status != 0) {
      lastReason = reply.reason();
    } else {
      lastReason = outcome.error.message();
    }

    ++failures;
    if (options.maxRetries > 0 && failures > options.maxRetries)
      return fail("change feed of " + db + ": giving up after " + std::to_string(failures) +
                  " failed attempts, last: " + lastReason);
    if (qzLog::IsCategoryEnabled("couchdb"))
      qzLogObject(qzLog::Warning, "couchdb")
          << "Change feed of " << db << " reconnects from " << checkpoint() << ": " << lastReason;
    ++reconnects;
    http::TransferError why{.kind = http::ErrorKind::Timeout, .httpStatus = status};
    if (status == 429 || status == 503)
      why.kind = http::ErrorKind::HttpStatus;
    const int64_t delayMs = retry.nextDelayMs(why, outcome.header("retry-after"), failures, 0);
    if (!run.waitFor(std::chrono::milliseconds(std::max<int64_t>(0, delayMs))) || stopped())
      return true;
  }
}

ChangesFeedListener::ChangesFeedListener(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                         const std::string& db, ChangesOptions options)
    : d(std::make_unique<Private>(pool, server, db, std::move(options))) {}

ChangesFeedListener::~ChangesFeedListener() { stop(); }

bool ChangesFeedListener::run(const std::function<bool(const Change&)>& onChange, std::string* error,
                              const bool* cancel) {
  d->stopRequested = false;
  return d->runFeed(onChange, nullptr, error, cancel);
}

bool ChangesFeedListener::runBatches(
    const std::function<bool(std::vector<Change>& batch, const std::string& checkpoint)>& onBatch, std::string* error,
    const bool* cancel) {
  d->stopRequested = false;
  return d->runFeed(nullptr, onBatch, error, cancel);
}

bool ChangesFeedListener::start(std::function<bool(const Change&)> onChange) {
  if (d->running.load())
    return false;
  if (d->thread.joinable())
    d->thread.join();
  d->stopRequested = false;
  d->running = true;
  d->thread = std::thread([this, f = std::move(onChange)] {
    std::string error;
    const bool ok = d->runFeed(f, nullptr, &error, nullptr);
    {
      std::lock_guard<std::mutex> lock(d->mutex);
      d->runOk = ok;
      d->runError = error;
    }
    if (!ok)
      qzLogObject(qzLog::Error, "couchdb") << error;
    d->running = false;
  });
  return true;
}

void ChangesFeedListener::stop() {
  d->stopRequested = true;
  {
    std::lock_guard<std::mutex> lock(d->tokenMutex);
    d->token.cancel();
  }
  if (d->thread.joinable() && d->thread.get_id() != std::this_thread::get_id())
    d->thread.join();
}

bool ChangesFeedListener::isRunning() const { return d->running.load(); }
bool ChangesFeedListener::lastRunOk() const {
  std::lock_guard<std::mutex> lock(d->mutex);
  return d->runOk;
}
std::string ChangesFeedListener::lastError() const {
  std::lock_guard<std::mutex> lock(d->mutex);
  return d->runError;
}
std::string ChangesFeedListener::lastSeq() const { return d->checkpoint(); }
void ChangesFeedListener::setSince(const std::string& seq) { d->setCheckpoint(seq); }
uint64_t ChangesFeedListener::changeCount() const { return d->changes.load(); }
uint64_t ChangesFeedListener::reconnectCount() const { return d->reconnects.load(); }

int64_t ChangesFeedListener::pending() const {
  const uint64_t at = d->changesAtPending.load();
  const int64_t pending = d->serverPending.load();
  return pending < 0 ? -1 : std::max<int64_t>(0, pending - int64_t(d->changes.load() - at));
}

} // namespace qz::couch

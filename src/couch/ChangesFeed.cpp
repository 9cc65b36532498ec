#include <HttpTools/couch/ChangesFeed.h>

#include <HttpTools/couch/ChangesFeedParser_p.h>
#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <curl/curl.h>

#include <ctime>
#include <mutex>
#include <string_view>
#include <strings.h>

namespace qz::couch {

namespace {
// How often a waiting transfer looks at the caller's cancel flag; stop() wakes it at once.
constexpr int kCancelPollMs = 50;
} // namespace

class ChangesFeedListener::Private {
public:
  Private(http::HttpConnectionPool& p, const CouchConnectionParameters& s, const std::string& name, ChangesOptions o)
      : pool(p), server(s), db(name), options(std::move(o)), since(options.since) {}

  bool runFeed(const std::function<bool(const Change&)>& onChange, std::string* error, const bool* cancel);
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
  std::thread thread;
  const bool* runCancel = nullptr; // the running run()'s flag; read on its thread only
  // Lives as long as the listener, so that stop() may wake it from any thread.
  http::InterruptibleTransfer transfer{[this] { return stopRequested.load() || detail::IsCancelled(runCancel); },
                                       kCancelPollMs};
};

namespace {

// One request of the feed: the curl callbacks' state.
struct FeedTransfer {
  ChangesFeedListener::Private* d = nullptr;
  const bool* cancel = nullptr;
  CURL* curl = nullptr;
  ChangesFeedParser* parser = nullptr;
  const std::string* body = nullptr;
  long status = 0;
  std::string errorBody;
  std::string retryAfter; // the last answer's Retry-After value
  int64_t lastDataMs = 0;
  int64_t silenceLimitMs = 0; // 0: not watched
  bool quietAllowed = false;  // the server may say nothing for long (continuous, longpoll)
  bool silent = false;
  bool gotData = false;
  bool failed = false; // an exception was caught in a callback

  bool stopped() const { return d->stopRequested.load() || detail::IsCancelled(cancel); }
};

size_t WriteFeed(char* data, size_t size, size_t nmemb, void* userData) {
  auto* t = static_cast<FeedTransfer*>(userData);
  const size_t length = size * nmemb;
  try {
    t->lastDataMs = qzSystemUtils::GetTimeBaseMs();
    t->gotData = true;
    if (t->status == 0)
      curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &t->status);
    if (t->status != 200) {
      if (t->errorBody.size() < 65536)
        t->errorBody.append(data, std::min<size_t>(length, 65536));
      return length;
    }
    if (t->stopped() || !t->parser->feed(data, length))
      return 0;
    return length;
  } catch (...) {
    t->failed = true;
    return 0;
  }
}

size_t FeedHeader(char* data, size_t size, size_t nmemb, void* userData) {
  auto* t = static_cast<FeedTransfer*>(userData);
  const size_t length = size * nmemb;
  try {
    const std::string_view line(data, length);
    static constexpr std::string_view name = "retry-after:";
    if (line.size() >= 5 && line.compare(0, 5, "HTTP/") == 0)
      t->retryAfter.clear(); // a new answer (after a redirect or an interim one)
    else if (line.size() > name.size() && strncasecmp(data, name.data(), name.size()) == 0)
      t->retryAfter.assign(line.substr(name.size()));
    return length;
  } catch (...) {
    t->failed = true;
    return 0;
  }
}

int FeedProgress(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* t = static_cast<FeedTransfer*>(userData);
  if (t->stopped())
    return 1;
  // Until the first byte the connection and the server's first answer get more time.
  const int64_t limit = t->gotData ? t->silenceLimitMs : std::max<int64_t>(t->silenceLimitMs, 10000);
  if (t->silenceLimitMs > 0 && qzSystemUtils::GetTimeBaseMs() - t->lastDataMs > limit) {
    t->silent = true;
    return 1;
  }
  return 0;
}

int SetupFeed(void* curlHandle, void* userData, std::list<std::string>& headers) {
  auto* t = static_cast<FeedTransfer*>(userData);
  CURL* h = static_cast<CURL*>(curlHandle);
  t->curl = h;
  headers.emplace_back("Accept: application/json");
  curl_write_callback write = &WriteFeed;
  curl_xferinfo_callback progress = &FeedProgress;
  curl_write_callback header = &FeedHeader;
  int rc = 0;
  rc |= curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, write);
  rc |= curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, progress);
  rc |= curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  // A compressing server holds changes back until its buffer fills.
  rc |= curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, static_cast<char*>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_NOBODY, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_UPLOAD, 0L);
  rc |= curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr));
  rc |= curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, header);
  rc |= curl_easy_setopt(h, CURLOPT_HEADERDATA, userData);
  if (t->body) {
    headers.emplace_back("Content-Type: application/json");
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, long(t->body->size()));
    rc |= curl_easy_setopt(h, CURLOPT_POSTFIELDS, t->body->c_str());
  } else {
    rc |= curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  }
  if (t->quietAllowed) {
    // Heartbeats are a byte now and then: the low-speed guard would cut a quiet feed.
    rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, 0L);
    rc |= curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, 0L); // a followed feed has no end
  }
  return rc;
}

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
  if (!options.docIds.empty())
    query.emplace_back("filter", "_doc_ids");
  else if (!options.filter.empty())
    query.emplace_back("filter", options.filter);
  return server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_changes"}, query);
}

bool ChangesFeedListener::Private::runFeed(const std::function<bool(const Change&)>& onChange, std::string* error,
                                           const bool* cancel) {
  runCancel = cancel;
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };
  std::string body;
  if (!options.docIds.empty()) {
    body = "{\"doc_ids\":[";
    for (size_t i = 0; i < options.docIds.size(); ++i)
      body += (i ? "," : "") + detail::JsonString(options.docIds[i]);
    body += "]}";
  }

  unsigned failures = 0;
  std::string lastReason;
  for (;;) {
    FeedTransfer t;
    t.d = this;
    t.cancel = cancel;
    if (t.stopped())
      return true;
    size_t delivered = 0;
    ChangesFeedParser parser(
        [&](Change& change) {
          if (!onChange(change))
            return false;
          if (!change.seq.empty()) // null under seq_interval: not a checkpoint
            setCheckpoint(change.seq);
          ++changes;
          ++delivered;
          return !t.stopped();
        },
        [&](const std::string& lastSeq) { setCheckpoint(lastSeq); });
    t.parser = &parser;
    t.body = body.empty() ? nullptr : &body;
    t.lastDataMs = qzSystemUtils::GetTimeBaseMs();
    if (options.continuous)
      t.silenceLimitMs = 2 * int64_t(std::max(1u, options.heartbeatMs));
    t.quietAllowed = options.continuous || options.longpoll;

    const qz::Url url = feedUrl(checkpoint());
    const int64_t started = qzSystemUtils::GetTimeBaseMs();
    bool ok = false;
    std::string transportError;
    {
      http::HttpConnectionLocker conn(pool, url);
      http::ScopedInterruptibleTransfer interruptible(*conn, transfer);
      ok = conn->getHttpData(url, std::string(), 0, &SetupFeed, &t);
      if (t.status == 0)
        t.status = conn->getLastHttpReturnCode();
      if (!ok)
        transportError = conn->getLastErrorMsg();
      // The handle carries this feed's callbacks and body: nobody else should inherit them.
      conn->clearConnection();
    }
    if (t.failed)
      return fail("change feed callback failed");
    if (parser.refused() || t.stopped())
      return true;

    if (t.status == 200 && !parser.error().empty())
      return fail("change feed of " + db + ": " + parser.error());
    if (IsFatalStatus(t.status)) {
      detail::Reply reply;
      reply.code = t.status;
      reply.body = t.errorBody;
      return fail("change feed of " + db + ": " + reply.reason());
    }
    if (delivered > 0)
      failures = 0;
    if (ok && t.status == 200) {
      if (!options.continuous) {
        if (options.batchLimit > 0 && parser.changeCount() >= options.batchLimit)
          continue; // the next batch
        if (options.longpoll && parser.changeCount() == 0 && parser.sawLastSeq()) {
          // The server's wait ended without a change: wait again (a pause if it did not wait).
          if (qzSystemUtils::GetTimeBaseMs() - started < 100 &&
              !detail::SleepUnlessCancelled(100, cancel, &stopRequested))
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
    } else if (t.silent) {
      lastReason = "no heartbeat for " + std::to_string(t.silenceLimitMs) + " ms";
    } else if (t.status != 200 && t.status != 0) {
      detail::Reply reply;
      reply.code = t.status;
      reply.body = t.errorBody;
      lastReason = reply.reason();
    } else {
      lastReason = transportError;
    }

    ++failures;
    if (options.maxRetries > 0 && failures > options.maxRetries)
      return fail("change feed of " + db + ": giving up after " + std::to_string(failures) +
                  " failed attempts, last: " + lastReason);
    if (qzLog::IsCategoryEnabled("couchdb"))
      qzLogObject(qzLog::Warning, "couchdb")
          << "Change feed of " << db << " reconnects from " << checkpoint() << ": " << lastReason;
    ++reconnects;
    unsigned delayMs = detail::BackoffMs(failures, options.backoffInitialMs, options.backoffMaxMs);
    if (t.status == 429 || t.status == 503) {
      const int64_t asked = detail::RetryAfterMs(t.retryAfter, std::time(nullptr));
      if (asked >= 0)
        delayMs = unsigned(std::min<int64_t>(asked, std::max(1u, options.backoffMaxMs)));
    }
    if (!detail::SleepUnlessCancelled(delayMs, cancel, &stopRequested))
      return true;
  }
}

ChangesFeedListener::ChangesFeedListener(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                                         const std::string& db, ChangesOptions options)
    : d(std::make_unique<Private>(pool, server, db, std::move(options))) {
  pool.ensureAtLeastMaxConcurrentConnection(1);
}

ChangesFeedListener::~ChangesFeedListener() { stop(); }

bool ChangesFeedListener::run(const std::function<bool(const Change&)>& onChange, std::string* error,
                              const bool* cancel) {
  d->stopRequested = false;
  return d->runFeed(onChange, error, cancel);
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
    const bool ok = d->runFeed(f, &error, nullptr);
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
  d->transfer.wakeup();
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

} // namespace qz::couch

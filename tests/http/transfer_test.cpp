#include <HttpTools/http/Transfer.h>

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/platform/qzIoDevice.h>

#include "support/Loopback.h"
#include "support/SilentListener.h"
#include "support/TestHttpServer.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <thread>

using namespace qz::http;

namespace {

using Clock = std::chrono::steady_clock;
int64_t elapsedMs(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

class Transfer : public testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(srv.isRunning()); }
  TransferRequest request(const std::string& target, Method m = Method::Get) {
    TransferRequest r;
    r.method = m;
    r.url = qz::Url(target[0] == '/' ? srv.url(target) : target);
    return r;
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
};

// Every failure gets its kind from codes, not texts, and the same words from the connection, the
// outcome and the multi connection (which runs the rows it can take all at once).
TEST_F(Transfer, FailuresAreClassifiedFromCodesNotTexts) {
  qztest::SilentListener silent;
  CancelToken cancelled;
  cancelled.cancel();
  struct Case {
    std::string url;
    ErrorKind kind;
    bool transient;
    long timeoutMs = 0;
    std::vector<std::string> headers = {};
    const CancelToken* token = nullptr;
    size_t maxBody = 0;
    long idleMs = 0;
    bool failingDevice = false;
  } cases[] = {
      {"http://127.0.0.1:" + std::to_string(qztest::FreeLoopbackPort()) + "/", ErrorKind::Connect, true},
      {"http://" + qztest::kUnresolvableHost + "/", ErrorKind::Resolve, true},
      {silent.url(), ErrorKind::Timeout, true, 300},
      {"https://127.0.0.1:" + std::to_string(srv.port()) + "/echo", ErrorKind::Tls, false},
      {"/status/404", ErrorKind::HttpStatus, false},
      {"/status/503", ErrorKind::HttpStatus, true},
      {"/status/501", ErrorKind::HttpStatus, false},
      {"/truncated", ErrorKind::Protocol, true},
      {"/redirect/9", ErrorKind::Protocol, false},
      {"/stall?ms=5000", ErrorKind::Cancelled, false, 0, {}, &cancelled},
      {"/bytes?n=5000", ErrorKind::BodyTooLarge, false, 0, {}, nullptr, 100},                  // announced length
      {"/slow?blocks=3&size=10&delay=5000", ErrorKind::Timeout, true, 0, {}, nullptr, 0, 300}, // idle
      {"/echo", ErrorKind::BadRequest, false, 0, {"X-A: 1\r\nX-Injected: yes"}},
      {"ftp://127.0.0.1/x", ErrorKind::BadRequest, false},
      {"/bytes?n=100", ErrorKind::LocalIo, false, 0, {}, nullptr, 0, 0, true},
      {"/echo", ErrorKind::None, false},
  };
  struct Full : qz::qzIoDevice {
    int64_t writeBytes(const char*, unsigned long n) override { return int64_t(n); }
    bool hasError() const override { return true; }
  } full;
  HttpMultiConnection multi(4);
  std::map<uint64_t, HttpMultiConnection::Response> answers;
  std::vector<std::tuple<uint64_t, ErrorKind, std::string>> expected; // the single engine's kind and words
  auto viaMulti = [&](const qz::Url& url, const std::vector<std::string>& headers, long timeoutMs, long status,
                      ErrorKind kind, const std::string& message) {
    auto done = [&answers](HttpMultiConnection::Response& a) { answers[a.id] = a; };
    const uint64_t id = multi.addRequest({1, url, {headers.begin(), headers.end()}, "", status, done, timeoutMs});
    expected.emplace_back(id, kind, message);
  };
  for (const Case& c : cases) {
    HttpConnection conn;
    conn.editConnectionParameters().maxBodyBytes = c.maxBody;
    TransferRequest r = request(c.url);
    r.successStatuses = {200};
    r.timeoutMs = c.timeoutMs;
    r.headers = c.headers;
    r.idleTimeoutMs = c.idleMs;
    StringSink strings;
    DeviceSink device(full);
    TransferOutcome out;
    const bool ok =
        PerformTransfer(conn, r, c.failingDevice ? static_cast<ResponseSink&>(device) : strings, out, c.token);
    SCOPED_TRACE(c.url + " -> " + out.error.message());
    EXPECT_EQ(std::tuple(ok, std::string(ErrorKindName(out.error.kind)), out.error.transient()),
              std::tuple(c.kind == ErrorKind::None, std::string(ErrorKindName(c.kind)), c.transient));
    // The connection reports what the outcome says, in the designed words.
    EXPECT_EQ(conn.getLastError().kind, out.error.kind);
    EXPECT_TRUE(ok || conn.getLastErrorMsg() == out.error.message()) << conn.getLastErrorMsg();
    EXPECT_TRUE(!c.failingDevice ||
                out.error.message().find("Output device failed after 100 bytes") != std::string::npos);
    // The multi connection has no per-request form of these.
    if (!c.token && !c.maxBody && !c.idleMs && !c.failingDevice)
      viaMulti(r.url, c.headers, c.timeoutMs, 200, out.error.kind, ok ? "" : out.error.message());
  }
  viaMulti(qz::Url(srv.url("/status/404")), {}, 0, 0, ErrorKind::None, ""); // 0 accepts any status
  ASSERT_TRUE(multi.perform());
  auto untimed = [](const std::string& s) {
    return std::regex_replace(s, std::regex("[0-9]+(\\.[0-9]+)? ?(milliseconds|ms|s)\\b"), "T");
  };
  for (const auto& [id, kind, message] : expected) {
    const HttpMultiConnection::Response& a = answers.at(id);
    SCOPED_TRACE(a.errorMessage);
    EXPECT_EQ(std::tuple(std::string(ErrorKindName(a.error.kind)), a.success, a.timedOut, a.cancelled),
              std::tuple(std::string(ErrorKindName(kind)), kind == ErrorKind::None, kind == ErrorKind::Timeout, false));
    EXPECT_EQ(untimed(a.success ? "" : a.errorMessage), untimed(message));
  }
  const auto& notFound = answers.at(std::get<0>(expected[4]));
  EXPECT_EQ(notFound.body + " " + std::to_string(notFound.error.httpStatus), "status 404 404");
  EXPECT_EQ(answers.at(std::get<0>(expected[0])).error.curlCode, CURLE_COULDNT_CONNECT);
  const auto seen = srv.requests();
  EXPECT_TRUE(std::none_of(seen.begin(), seen.end(), [](const auto& q) { return q.headerCount("X-Injected") > 0; }));
}

// The outcome carries the raw lines, the effective URL and timings. Requests go out as built: none
// of the helpers' header rules, no Expect, any method, any body source.
TEST_F(Transfer, OutcomeAndRequestsAsBuilt) {
  HttpConnection conn;
  StringSink sink;
  TransferOutcome out;
  ASSERT_TRUE(PerformTransfer(conn, request("/redirect/2"), sink, out)) << out.error.message();
  EXPECT_EQ(sink.body + "|" + std::to_string(out.status) + "|" + out.statusLine + "|" +
                std::to_string(out.redirectCount) + "|" + out.effectiveUrl + "|" + out.header("CONTENT-TYPE") + "|" +
                out.contentType + "|" + std::to_string(out.bytesDown), // bytes decoded
            "landed|200|HTTP/1.1 200 OK|2|" + srv.url("/redirect/0") + "|text/plain|text/plain|6");
  EXPECT_TRUE(out.timings.totalUs > 0 && out.timings.firstByteUs <= out.timings.totalUs);

  // Bodies and methods as built: libcurl's own type for a POST body (as curl -d sends it), a
  // streamed PATCH in chunks without Expect (libcurl's own rule would ask for 100 Continue), a
  // custom method, an empty POST that still says its length, and a HEAD that inherits nothing.
  const std::string text = "streamed body";
  size_t sent = 0;
  TransferRequest post = request("/echo", Method::Post), patch = request("/echo", Method::Patch),
                  custom = request("/echo", Method::Delete);
  post.setBody("abc");
  patch.contentType = "text/plain";
  patch.setBodyReader([&](char* buf, size_t n) {
    const size_t k = std::min(n, text.size() - sent);
    std::copy_n(text.data() + sent, k, buf);
    sent += k;
    return k;
  });
  custom.customMethod = "OPTIONS";
  std::string seen;
  for (const TransferRequest& r :
       {post, patch, custom, request("/echo", Method::Post), request("/echo", Method::Head)}) {
    ASSERT_TRUE(PerformTransfer(conn, r, sink, out)) << out.error.message();
    const qztest::RecordedRequest q = srv.lastRequest();
    seen += q.method + "|" + q.header("Content-Type") + "|" + q.header("Content-Length") + "|" +
            q.header("Transfer-Encoding") + "|" + std::to_string(q.headerCount("Expect")) + "|" + q.body + "|" +
            std::to_string(out.bytesUp) + "\n";
  }
  EXPECT_EQ(seen, "POST|application/x-www-form-urlencoded|3||0|abc|3\nPATCH|text/plain||chunked|0|streamed body|23\n"
                  "OPTIONS||||0||0\nPOST|application/x-www-form-urlencoded|0||0||0\nHEAD||||0||0\n");
}

// cancel() from another thread ends a transfer that waits for data, a helper's flag is polled,
// and a backoff wait ends too; all well before the stalled answer or the wait would.
TEST_F(Transfer, CancelFromAnotherThreadEndsWaitsPromptly) {
  constexpr int64_t kBoundMs = 600; // 100 ms plus room for a loaded machine under sanitizers
  const std::string stall = srv.url("/stall?ms=20000");
  struct Case {
    const char* name;
    bool viaFlag, sendsRequest;
    std::function<bool(CancelToken&, bool*)> wait; // true when it did not end as cancelled
  };
  auto backoff = [](CancelToken& token, bool*) { return token.waitFor(std::chrono::seconds(20)); };
  const Case cases[] = {
      {"transfer", false, true,
       [&](CancelToken& token, bool*) {
         HttpConnection conn;
         StringSink sink;
         TransferOutcome out;
         return PerformTransfer(conn, request(stall), sink, out, &token) || out.error.kind != ErrorKind::Cancelled;
       }},
      {"helper", true, true,
       [&](CancelToken&, bool* flag) {
         HttpConnection conn;
         HttpHelpers::HttpResult result;
         return HttpHelpers::HttpGet(conn, qz::Url(stall), &result, nullptr, nullptr, flag) ||
                result.error.kind != ErrorKind::Cancelled;
       }},
      {"backoff", false, false, backoff},
      {"backoff on a flag", true, false, backoff},
  };
  for (const Case& k : cases) {
    bool flag = false;
    CancelToken token = k.viaFlag ? CancelToken::Watching(&flag) : CancelToken();
    const size_t before = srv.requestCount();
    std::atomic<bool> waiting{false};
    Clock::time_point cancelledAt;
    std::thread canceller([&] {
      while (!waiting.load() || (k.sendsRequest && srv.requestCount() == before))
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      cancelledAt = Clock::now();
      k.viaFlag ? std::atomic_ref<bool>(flag).store(true) : token.cancel();
    });
    waiting = true;
    EXPECT_FALSE(k.wait(token, &flag)) << k.name;
    canceller.join();
    EXPECT_LT(elapsedMs(cancelledAt), kBoundMs) << k.name;
  }
}

TEST(RetryPolicy, RetryAfterBackoffAndClassification) {
  const std::time_t now = 784111777; // Sun, 06 Nov 1994 08:49:37 GMT
  // The RFC 850 date is already past.
  const std::pair<std::string, int64_t> afters[] = {{" 120 \r\n", 120000},
                                                    {"0", 0},
                                                    {"00000000000000000003", 3000},
                                                    {"99999999999999999999", 999999999000},
                                                    {"Sun, 06 Nov 1994 08:50:07 GMT", 30000},
                                                    {"Sunday, 06-Nov-94 08:49:07 GMT", 0},
                                                    {"soon", -1},
                                                    {"-5", -1},
                                                    {"1.5", -1},
                                                    {"", -1}};
  for (const auto& [value, ms] : afters)
    EXPECT_EQ(RetryPolicy::RetryAfterMs(value, now), ms) << value;

  RetryPolicy p{.attempts = 5, .initialBackoffMs = 100, .maxBackoffMs = 400, .jitter = 0};
  for (auto [failures, ms] : {std::pair{1u, 100u}, {2u, 200u}, {3u, 400u}, {9u, 400u}})
    EXPECT_EQ(p.backoffMs(failures), ms) << failures;
  p.jitter = 0.5;
  std::set<unsigned> jittered;
  for (int i = 0; i < 50; ++i)
    jittered.insert(p.backoffMs(2));
  EXPECT_TRUE(*jittered.begin() >= 100 && *jittered.rbegin() <= 200 && jittered.size() > 1);

  const TransferError busy{.kind = ErrorKind::HttpStatus, .httpStatus = 503},
      gone{.kind = ErrorKind::HttpStatus, .httpStatus = 404};
  p = {.attempts = 5, .initialBackoffMs = 100, .maxBackoffMs = 400, .jitter = 0, .retryAfterCapMs = 1500};
  EXPECT_EQ(p.nextDelayMs(busy, "1", 1, 0), 1000);                        // asked for
  EXPECT_EQ(p.nextDelayMs(busy, "60", 1, 0), 1500);                       // capped
  EXPECT_EQ(p.nextDelayMs(busy, "", 2, 0), 200);                          // backoff
  EXPECT_EQ(p.nextDelayMs(gone, "1", 1, 0), -1);                          // permanent
  EXPECT_EQ(p.nextDelayMs({.kind = ErrorKind::Connect}, "1", 1, 0), 100); // Retry-After only on 429 and 503
  EXPECT_EQ(p.nextDelayMs(busy, "1", 5, 0), -1);                          // attempts used up
  p.totalTimeMs = 1000;
  EXPECT_EQ(p.nextDelayMs(busy, "", 1, 950), -1); // past the total time
  EXPECT_EQ(RetryPolicy::None().nextDelayMs(busy, "", 1, 0), -1);
}

TEST_F(Transfer, PoolCallRepeatsTransientAnswersOnly) {
  qztest::TestHttpServer own;
  std::atomic<int> calls{0};
  own.route("GET", "/flaky", [&](const httplib::Request&, httplib::Response& res) {
    res.status = ++calls < 3 ? 503 : 200;
    res.set_header("Retry-After", "0");
    res.set_content("ok", "text/plain");
  });
  ASSERT_TRUE(own.start()) << own.lastError();
  HttpConnectionPool pool;
  StringSink sink;
  TransferOutcome out;
  TransferRequest r = request(own.url("/flaky"));
  ASSERT_TRUE(PerformTransfer(pool, r, sink, out, RetryPolicy{.initialBackoffMs = 1}));
  EXPECT_EQ(std::to_string(out.attempts) + sink.body, "3ok"); // the sink was reset before each repetition
  r.url = qz::Url(own.url("/missing"));
  EXPECT_TRUE(PerformTransfer(pool, r, sink, out, RetryPolicy{.initialBackoffMs = 1})); // any status answers
  EXPECT_EQ(std::pair(out.status, out.attempts), std::pair(404L, 1u));
}

} // namespace

#include <HttpTools/http/HttpMultiConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpHelpers.h>

#include "support/LogCapture.h"
#include "support/NginxFixture.h"
#include "support/TestHttpServer.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using namespace qz::http;
using testing::HasSubstr;
using testing::StartsWith;
using Multi = HttpMultiConnection;
using Clock = std::chrono::steady_clock;

namespace {

// Cancellation against 20 s stalls, with room for a loaded machine under sanitizers.
constexpr int64_t kPromptMs = 1000;

int64_t msSince(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// Collects every callback, keyed by request id, from whichever thread runs perform().
struct Collector {
  std::mutex mutex;
  std::map<uint64_t, Multi::Response> byId;
  size_t calls = 0;

  std::function<void(Multi::Response&)> sink() {
    return [this](Multi::Response& r) {
      std::lock_guard<std::mutex> lock(mutex);
      ++calls;
      byId[r.id] = r;
    };
  }
  size_t count(uint64_t id = 0) {
    std::lock_guard<std::mutex> lock(mutex);
    return id ? byId.count(id) : byId.size();
  }
  // Adds the requests with this collector's callback; their ids in order.
  std::vector<uint64_t> add(Multi& multi, std::vector<Multi::Request> requests) {
    std::vector<uint64_t> ids;
    for (Multi::Request& r : requests)
      ids.push_back(multi.addRequest((r.onFinished = sink(), std::move(r))));
    return ids;
  }
};

Multi::Request get(const std::string& url, std::function<void(Multi::Response&)> done = nullptr, long expected = 200,
                   long timeoutMs = 0, int method = 1, const std::string& body = "") {
  return {method, qz::Url(url), {}, body, expected, std::move(done), timeoutMs};
}

// Bytes on the heap now. Sanitizers keep a heap of their own, which shows none here: the check
// that uses this bites in the plain build.
size_t heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Waits until `done()` or the time is up.
template <typename F> bool waitFor(F done, int ms) {
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (!done() && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}

// Each test has a server of its own: its counts start from zero, and the requests it leaves
// stalled end with it.
class MultiConnection : public testing::Test {
protected:
  // cpp-httplib (not built with ThreadSanitizer) builds static regexes on first use; one request
  // of each kind first keeps their publication out of the concurrent tests, where TSan would see
  // a race inside the library.
  static void SetUpTestSuite() {
    qztest::TestHttpServer s;
    s.installStandardRoutes();
    ASSERT_TRUE(s.start()) << s.lastError();
    for (int method : {1, 2, 3, 4, 5})
      for (const char* path : {"/echo", "/headers", "/status/404", "/bytes?n=3", "/stall?ms=1"}) {
        Multi multi(1);
        multi.addRequest(get(s.url(path), nullptr, 0, 0, method, method == 2 || method == 3 ? "x" : ""));
        multi.perform();
      }
  }
  void SetUp() override {
    srv.installStandardRoutes();
    ASSERT_TRUE(srv.start()) << srv.lastError();
  }
  qztest::TestHttpServer srv;
};

TEST_F(MultiConnection, ManyRequestsKeepAtMostMaxInFlightConnectionsAcrossRuns) {
  Multi multi(16);
  Collector c;
  std::map<uint64_t, size_t> sizeOf;
  for (size_t i = 0; i < 1000; ++i) {
    const size_t n = i % 97 + (i % 5 == 0 ? 70000 : 0);
    sizeOf[multi.addRequest(get(srv.url("/bytes?n=" + std::to_string(n)), c.sink()))] = n;
  }
  EXPECT_EQ(multi.pendingCount(), 1000u);
  ASSERT_TRUE(multi.perform());
  ASSERT_EQ(std::tuple(c.count(), c.calls, multi.pendingCount()), std::tuple(1000u, 1000u, 0u));
  for (const auto& [id, r] : c.byId) {
    std::string expected(sizeOf[id], 'a');
    for (size_t i = 0; i < expected.size(); ++i)
      expected[i] = char('a' + i % 26);
    ASSERT_EQ(r.body + " " + r.headers.at("content-length"), expected + " " + std::to_string(sizeOf[id]))
        << r.errorMessage;
  }
  EXPECT_LE(srv.connectionCount(), 16u);
  EXPECT_EQ(multi.connectionsOpened(), srv.connectionCount());

  // A second run goes over the kept connections.
  const size_t before = srv.connectionCount();
  c.add(multi, std::vector<Multi::Request>(100, get(srv.url("/bytes?n=3"))));
  ASSERT_TRUE(multi.perform());
  EXPECT_EQ(std::pair(c.count(), srv.connectionCount()), std::pair(size_t(1100), before));
}

TEST_F(MultiConnection, MethodsBodiesAndHeaders) {
  const std::string octet = "application/octet-stream", json = "application/json";
  auto request = [&](int method, const std::string& body, std::list<std::string> headers = {}) {
    return Multi::Request{method, qz::Url(srv.url(method == 5 ? "/headers" : "/echo")), headers, body, 200, {}, 0};
  };
  // Methods: 1 GET, 2 PUT, 3 POST, 4 DELETE, 5 HEAD; each with the Content-Type the server sees.
  std::vector<std::pair<Multi::Request, std::string>> cases = {
      {request(1, "", {"X-A: 1", "Authorization: Basic c2VjcmV0"}), ""},
      {request(4, "gone"), octet},
      {request(2, "put body"), octet},
      {request(2, ""), octet},
      {request(3, "{\"a\":1}", {"Content-Type: " + json}), json},
      {request(4, "", {"X-B: 2", "X-C: 3"}), ""},
      {request(5, ""), ""}};
  Multi multi(1);    // one handle, in this order: each request must undo what the one before set
  std::string lines; // debug lines as the connection reports them
  multi.editConnectionParameters().debugLines = [&lines](DebugLineKind k, std::string_view l) {
    lines.append(k == DebugLineKind::HeaderOut ? "> " : k == DebugLineKind::HeaderIn ? "< " : "* ").append(l) += '\n';
  };
  Collector c;
  std::vector<uint64_t> ids;
  for (auto& [request, type] : cases)
    ids.push_back(multi.addRequest((request.onFinished = c.sink(), request)));
  ASSERT_TRUE(multi.perform());
  // Each line as it comes, without its line end, credentials redacted, no data.
  EXPECT_THAT(lines, testing::AllOf(StartsWith("* "), HasSubstr("\n> Authorization: Basic [redacted]\n"),
                                    HasSubstr("\n> HEAD /headers"), HasSubstr("\n< X-One: 1\n"), HasSubstr("\n< \n"),
                                    testing::Not(testing::ContainsRegex("c2VjcmV0|put body|\r"))));
  const char* names[] = {"", "GET", "PUT", "POST", "DELETE"};
  for (size_t i = 0; i + 1 < cases.size(); ++i) {
    const auto& [k, type] = cases[i];
    const Multi::Response& r = c.byId[ids[i]];
    ASSERT_TRUE(r.success) << i << " " << r.errorMessage;
    EXPECT_THAT(r.body,
                testing::AllOf(StartsWith(std::string(names[k.method]) + "\n"), testing::EndsWith("\n\n" + k.body)));
    for (const std::string& line : k.headers)
      EXPECT_THAT(r.body, HasSubstr(line)) << i;
    EXPECT_EQ(r.body.find("Content-Type: " + type) == std::string::npos, type.empty()) << i << r.body;
  }
  // HEAD: headers of the response, no body; a repeated header keeps its first value.
  Multi::Response h = c.byId[ids.back()];
  EXPECT_EQ(std::to_string(h.success) + h.body + "|" + h.headers["x-one"] + "|" + h.headers["x-dup"], "1|1|first");
}

// One handle answers every request in turn: each map holds exactly its own response's headers,
// whatever the responses before sent and whatever a callback did with the map it was handed.
TEST_F(MultiConnection, EachResponseHasItsOwnHeadersOnAKeptHandle) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"X-A:1,X-C:3", "x-a=1 x-c=3 "},
      {"X-A:10,X-C:333", "x-a=10 x-c=333 "},       // values of other lengths
      {"X-A:1,X-B:2,X-C:3", "x-a=1 x-b=2 x-c=3 "}, // a name between the ones before
      {"X-A:1,X-B:2,X-C:3", "x-a=1 x-b=2 x-c=3 "}, // its callback takes the map, leaves another
      {"X-C:3", "x-c=3 "},                         // names gone
      {"x-c:4,X-C:5", "x-c=4 "},                   // another case; a repeated name keeps the first
      {"X-A:1,X-C:3", "x-a=1 x-c=3 "}};
  Multi multi(1);
  std::vector<std::string> got, expected;
  for (size_t i = 0; i < cases.size(); ++i) {
    expected.push_back(cases[i].second + "headers");
    multi.addRequest(get(srv.url("/headers?set=" + cases[i].first), [&got, i](Multi::Response& r) {
      std::string seen;
      for (const auto& [name, value] : r.headers)
        seen += name.rfind("x-", 0) == 0 ? name + "=" + value + " " : "";
      got.push_back(seen + r.body);
      if (i == 3) {
        const std::map<std::string, std::string> taken = std::move(r.headers);
        r.headers = {{"x-left", "behind"}};
      }
    }));
  }
  ASSERT_TRUE(multi.perform());
  EXPECT_EQ(got, expected);
}

// Parameters edited between runs reach a handle that already holds the same URL.
TEST_F(MultiConnection, EditedParametersReachAKeptHandle) {
  Multi multi(1);
  Collector c;
  std::vector<uint64_t> ids = c.add(multi, {get(srv.url("/redirect/1"), nullptr, 0)});
  ASSERT_TRUE(multi.perform());
  multi.editConnectionParameters().followLocation = false;
  ids.push_back(c.add(multi, {get(srv.url("/redirect/1"), nullptr, 0)}).at(0));
  ASSERT_TRUE(multi.perform());
  EXPECT_EQ(std::pair(c.byId[ids[0]].httpCode, c.byId[ids[1]].httpCode), std::pair(200L, 302L));
}

// Queued requests wait here, and a request's time-out would expire while it waits if its clock
// started there. The parameters' limits hold per request.
// A finished request's buffers go with it: the engine's memory follows what is in flight.
TEST_F(MultiConnection, FinishedRequestsLeaveNoBuffersBehind) {
  const size_t kMiB = 1 << 20;
  Multi multi(4);
  multi.addRequest(get(srv.url("/bytes?n=10"))); // handles and connections made
  ASSERT_TRUE(multi.perform());
  size_t received = 0;
  const auto before = int64_t(heapInUse());
  for (int i = 0; i < 48; ++i)
    multi.addRequest(
        get(srv.url("/bytes?n=" + std::to_string(kMiB)), [&](Multi::Response& r) { received += r.body.size(); }));
  ASSERT_TRUE(multi.perform());
  // The server's last answers may still be on their way out of its threads: a few MiB of slack.
  const int64_t grown = int64_t(heapInUse()) - before;
  EXPECT_TRUE(received == 48 * kMiB && grown < int64_t(8 * kMiB)) << received << " bytes, heap grown by " << grown;
}

TEST_F(MultiConnection, LimitsCountFromTheTransferStart) {
  Multi multi(1);                                        // one transfer at a time
  multi.editConnectionParameters().totalTimeoutMs = 800; // less than the three stalls in a row
  multi.editConnectionParameters().maxBodyBytes = 1000;
  Collector c;
  const auto stall = get(srv.url("/stall?ms=300"));
  const auto ids = c.add(multi, {stall, stall, stall, get(srv.url("/bytes?n=1000")), get(srv.url("/stall?ms=3000")),
                                 get(srv.url("/bytes?n=1001")),
                                 get(srv.url("/stall?ms=900"), nullptr, 200, 2000)}); // its own time-out wins
  ASSERT_TRUE(multi.perform());
  for (size_t i : {0, 1, 2, 3, 6})
    EXPECT_TRUE(c.byId[ids[i]].success) << i << c.byId[ids[i]].errorMessage;
  EXPECT_TRUE(c.byId[ids[4]].timedOut);
  const Multi::Response& tooBig = c.byId[ids[5]];
  EXPECT_FALSE(tooBig.success || tooBig.timedOut);
  EXPECT_THAT(tooBig.errorMessage, HasSubstr("larger than the limit of 1000 bytes"));

  // Two per host: five rounds of two, each 700 ms time-out long expired had it run while queued.
  Multi perHost(16);
  perHost.setMaxConnectionsPerHost(2);
  const size_t before = srv.connectionCount();
  Collector queued;
  queued.add(perHost, std::vector<Multi::Request>(10, get(srv.url("/stall?ms=200"), nullptr, 200, 700)));
  ASSERT_TRUE(perHost.perform());
  const auto succeeded =
      std::count_if(queued.byId.begin(), queued.byId.end(), [](auto& r) { return r.second.success; });
  EXPECT_EQ(std::pair(succeeded, srv.connectionCount() - before), std::pair(10L, size_t(2)));
}

// Cancellation from other threads, while requests are added from three more threads and from a
// callback: one request, the whole run, the caller's flag, and the run's last pending request.
TEST_F(MultiConnection, ThreadedAddAndCancelEndPromptly) {
  Multi multi(8);
  Collector c;
  const auto stall = get(srv.url("/stall?ms=20000"));
  std::vector<uint64_t> stalled = c.add(multi, std::vector<Multi::Request>(5, stall));
  uint64_t queuedLater = 0;
  const uint64_t first = multi.addRequest(get(srv.url("/echo"), [&](Multi::Response& r) {
    c.sink()(r);
    queuedLater = multi.addRequest(get(srv.url("/stall?ms=20000"), c.sink())); // from a callback
  }));
  bool result = true;
  std::thread runner([&] { result = multi.perform(); });
  std::vector<std::thread> adders;
  std::vector<uint64_t> added[3];
  for (int t = 0; t < 3; ++t)
    adders.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i)
        added[t].push_back(multi.addRequest(get(srv.url("/bytes?n=" + std::to_string(t * 40 + i)), c.sink())));
    });
  for (auto& t : adders)
    t.join();
  ASSERT_TRUE(waitFor([&] { return c.count() == 121 && srv.requestCount() >= 127; }, 10000));

  auto t0 = Clock::now();
  EXPECT_TRUE(multi.cancelRequest(stalled[0]));
  ASSERT_TRUE(waitFor([&] { return c.count(stalled[0]); }, 2000));
  EXPECT_LT(msSince(t0), kPromptMs);
  const Multi::Response& cancelled = c.byId[stalled[0]];
  EXPECT_TRUE(cancelled.cancelled && !cancelled.success && cancelled.error.kind == ErrorKind::Cancelled &&
              cancelled.errorMessage.find("Request cancelled") != std::string::npos);
  EXPECT_FALSE(multi.cancelRequest(stalled[0]) || multi.cancelRequest(first)); // both already called back

  t0 = Clock::now();
  multi.cancelPerform();
  runner.join();
  EXPECT_LT(msSince(t0), kPromptMs);
  EXPECT_EQ(std::tuple(result, c.count(), c.calls, multi.pendingCount()), std::tuple(false, 127u, 127u, 0u));
  stalled.push_back(queuedLater);
  for (uint64_t id : stalled)
    EXPECT_TRUE(c.byId[id].cancelled) << id;
  for (const auto& ids : added)
    for (uint64_t id : ids)
      EXPECT_TRUE(c.byId[id].success) << c.byId[id].errorMessage;

  // The caller's flag, set from another thread, stops the run within the poll interval.
  c.add(multi, {stall, stall});
  bool cancel = false;
  size_t seen = srv.requestCount();
  std::thread flagged([&] { result = multi.perform(&cancel); });
  ASSERT_TRUE(waitFor([&] { return srv.requestCount() >= seen + 2; }, 5000));
  t0 = Clock::now();
  std::atomic_ref<bool>(cancel).store(true);
  flagged.join();
  EXPECT_LT(msSince(t0), kPromptMs);
  EXPECT_EQ(std::pair(result, c.count()), std::pair(false, size_t(129)));

  // Still usable; cancelling the last pending request ends the run as a success.
  const auto ids = c.add(multi, {get(srv.url("/echo")), stall});
  seen = srv.requestCount();
  std::thread last([&] { result = multi.perform(); });
  ASSERT_TRUE(waitFor([&] { return c.count(ids[0]) && srv.requestCount() >= seen + 2; }, 5000));
  EXPECT_TRUE(multi.cancelRequest(ids[1]));
  last.join();
  EXPECT_TRUE(result && c.byId[ids[0]].success && c.byId[ids[1]].cancelled);
}

// Before the library is initialised nothing runs, on either engine: each request of the multi
// connection still gets its callback, with the reason.
TEST_F(MultiConnection, RequestsFailWithTheReasonBeforeInitialisation) {
  Multi multi(2);
  Collector c;
  c.add(multi, {get(srv.url("/echo")), get(srv.url("/echo"))});
  qz::terminateHttpTools();
  qztest::LogCapture cap;
  const bool ran = multi.perform();
  HttpConnection single;
  HttpHelpers::HttpResult quiet; // with a result record the helper does not log
  EXPECT_FALSE(ran || HttpHelpers::HttpGet(single, qz::Url(srv.url("/echo")), &quiet));
  qz::initializeHttpTools(true, HNRP_Whatever, PP_NoProxy);
  const std::string reason = "HttpTools library not initialized.";
  EXPECT_TRUE(cap.size() == 2 && cap.lines()[0].text == reason && cap.lines()[1].text == reason) << cap.dump();
  ASSERT_EQ(c.count() + srv.requestCount(), 2u);
  for (const auto& [id, r] : c.byId)
    EXPECT_TRUE(!r.success && r.errorMessage.find(reason) != std::string::npos) << r.errorMessage;
}

// One nginx with HTTP/2, started on first use and stopped at exit.
class MultiConnectionNginx : public testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(nginx.isRunning() || nginx.start()) << nginx.lastError(); }
  static inline qztest::NginxFixture nginx{qztest::NginxFixture::Options{.http2 = true}};
};

// A name that fails under a preferred address family is tried again with any family, for that
// request only: the engine's parameters stay as the caller set them.
TEST_F(MultiConnectionNginx, FamilyFallbackLeavesTheParametersAsSet) {
  for (const auto& [policy, connections] : {std::pair{HNRP_PreferIpv4, 2L}, {HNRP_Whatever, 1L}}) {
    SCOPED_TRACE(policy);
    const long before = nginx.connectionCount();
    Multi multi(2);
    multi.editConnectionParameters().hostNameResolutionPolicy = policy;
    Collector c;
    // The self-signed certificate fails verification, one of the failures that allow the retry.
    const auto ids = c.add(multi, {get("https://localhost:" + std::to_string(nginx.httpsPort()) + "/small")});
    ASSERT_TRUE(multi.perform());
    EXPECT_THAT(c.byId[ids[0]].errorMessage,
                HasSubstr("Curl error : " + std::to_string(CURLE_PEER_FAILED_VERIFICATION) + " "));
    EXPECT_EQ(nginx.connectionCount() - before, connections);
    EXPECT_EQ(multi.editConnectionParameters().hostNameResolutionPolicy, policy);
  }
}

TEST_F(MultiConnectionNginx, Http2MultiplexesOneConnection) {
  for (bool multiplex : {true, false}) {
    SCOPED_TRACE(multiplex);
    // Without multiplexing, 16 handshakes at once are enough to show several connections. Under
    // a sanitizer on a loaded machine they can outlast the default 10 s connect time-out: what
    // is checked here is how requests share connections, not how fast they open.
    Multi multi(multiplex ? 100 : 16);
    multi.setMultiplexing(multiplex);
    multi.editConnectionParameters().connectTimeoutSec = 120;
    std::set<std::string> statusLines;
    multi.editConnectionParameters().debugLines = [&statusLines](DebugLineKind k, std::string_view l) {
      if (k == DebugLineKind::HeaderIn && l.starts_with("HTTP/"))
        statusLines.emplace(l);
    };
    const long before = nginx.connectionCount();
    Collector c;
    c.add(multi, std::vector<Multi::Request>(100, get(nginx.httpsUrl("/json"))));
    ASSERT_TRUE(multi.perform());
    ASSERT_EQ(c.count(), 100u);
    for (const auto& [id, r] : c.byId)
      ASSERT_EQ(r.body, "{\"ok\":true}") << r.errorMessage;
    const long connections = nginx.connectionCount() - before;
    EXPECT_EQ(connections == 1, multiplex) << connections;
    EXPECT_EQ(statusLines, std::set<std::string>{multiplex ? "HTTP/2 200 " : "HTTP/1.1 200 OK"});
  }
}

} // namespace

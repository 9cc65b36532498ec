#include <HttpTools/http/HttpConnectionPool.h>

#include <HttpTools/frame/HttpToolsLib_p.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/platform/qzSystemUtils_p.h>

#include "support/LogCapture.h"
#include "support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace qz::http;

namespace {

class Pool : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(srv.isRunning());
    srv.resetCounters();
  }
  // A connection that has talked to `path` on the shared server.
  HttpConnection* used(HttpConnectionPool& pool, const std::string& path = "/echo") {
    HttpConnection* c = take(pool);
    EXPECT_TRUE(HttpHelpers::HttpGet(*c, qz::Url(srv.url(path)))) << c->getLastErrorMsg();
    return c;
  }
  HttpConnection* take(HttpConnectionPool& pool, int port = 0) {
    return pool.getHttpConnection("127.0.0.1", uint16_t(port ? port : srv.port()));
  }
  qztest::TestHttpServer& srv = qztest::TestHttpServer::Shared();
};

// Most recently released first, keyed by host text and port exactly, the oldest trimmed to the cap.
TEST_F(Pool, IdleListOrderKeyAndCap) {
  HttpConnectionPool pool;
  EXPECT_EQ(pool.getMaxConcurrentConnection(), 1u);
  pool.releaseHttpConnection(take(pool)); // never made a call: deleted, not pooled
  EXPECT_EQ(pool.idleCount(), 0u);
  HttpConnection *a = used(pool), *b = used(pool);
  pool.releaseHttpConnection(a);
  pool.releaseHttpConnection(b); // default cap 1: a is deleted at once
  EXPECT_EQ(pool.idleCount(), 1u);
  // The cap: at least 1, raised (never lowered) by ensureAtLeast...
  for (auto [pending, atLeast, cap] : {std::tuple{0, 0, 1u}, {5, 3, 5u}, {5, 7, 7u}}) {
    pool.setMaxPendingConnection(pending);
    pool.ensureAtLeastMaxConcurrentConnection(atLeast);
    EXPECT_EQ(pool.getMaxConcurrentConnection(), cap) << pending << " " << atLeast;
  }
  std::vector<HttpConnection*> many;
  for (int i = 0; i < 7; ++i)
    many.push_back(used(pool));
  EXPECT_EQ(many[0], b);
  for (auto* c : many)
    pool.releaseHttpConnection(c);
  EXPECT_EQ(pool.idleCount(), 7u);
  for (HttpConnection* other :
       {pool.getHttpConnection("localhost", uint16_t(srv.port())), take(pool, srv.port() + 1)}) {
    EXPECT_EQ(std::count(many.begin(), many.end(), other), 0);
    delete other;
  }
  pool.setMaxPendingConnection(2); // trims now, oldest first
  EXPECT_EQ(pool.idleCount(), 2u);
  std::unique_ptr<HttpConnection> newest(take(pool)), next(take(pool));
  EXPECT_TRUE(newest.get() == many[6] && next.get() == many[5]);
}

// The set-up runs on new connections only, with their host and port: a pooled one keeps what
// it was given. Ageing out takes strictly longer than the keep-open time, in every kind of pass.
TEST_F(Pool, SetupOnNewConnectionsAndAgeing) {
  static std::atomic<int64_t> now{1000000}; // the library's monotonic time while this test runs
  qz::impl::SetTimeBaseMsHook([] { return now.load(); });
  struct Restore {
    ~Restore() { qz::impl::SetTimeBaseMsHook(nullptr); }
  } restore;
  HttpConnectionPool pool;
  int runs = 0;
  pool.setConnectionSetup([&](HttpConnection& c, const std::string& host, unsigned short port) {
    ++runs;
    EXPECT_EQ(host + ":" + std::to_string(port), "127.0.0.1:" + std::to_string(srv.port()));
    c.addCommonHeader("X-From-Pool: 1");
  });
  pool.setMaxPendingConnection(10);
  pool.setKeepOpenDurationSec(2);
  HttpConnection *old = used(pool), *young = used(pool);
  EXPECT_EQ(srv.lastRequest().header("X-From-Pool"), "1");
  pool.releaseHttpConnection(old);
  now += 1000;
  pool.releaseHttpConnection(young);
  now += 1000; // old idle exactly 2000 ms: stays
  HttpConnectionPool::UpdatePool(&pool);
  EXPECT_EQ(pool.idleCount(), 2u);
  now += 1;                                     // 2001 ms: goes; young (1001 ms) stays
  pool.ensureAtLeastMaxConcurrentConnection(1); // runs no pass
  EXPECT_EQ(pool.idleCount(), 2u);
  HttpConnectionPool::UpdatePool(&pool);
  EXPECT_EQ(pool.idleCount(), 1u);
  EXPECT_TRUE(take(pool) == young && runs == 2);
  pool.releaseHttpConnection(young);
  now += 2001;
  pool.setKeepOpenDurationSec(3); // the setter runs a pass too: 2001 <= 3000 keeps it
  EXPECT_EQ(pool.idleCount(), 1u);
  pool.setKeepOpenDurationSec(2);
  EXPECT_EQ(pool.idleCount(), 0u);
  // The periodic updater runs the same pass.
  auto* updater = qz::impl::GetPeriodicalUpdater();
  ASSERT_NE(updater, nullptr);
  const unsigned period = updater->periodMs();
  updater->setPeriodMs(20);
  pool.releaseHttpConnection(used(pool));
  now += 2001;
  for (int i = 0; i < 500 && pool.idleCount() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  updater->setPeriodMs(period);
  EXPECT_EQ(pool.idleCount(), 0u);
}

TEST_F(Pool, LockersBorrowReturnAndWarnWhenUsedElsewhere) {
  const std::string elsewhere = "http://localhost:" + std::to_string(srv.port()) + "/echo"; // another host text
  HttpConnectionPool pool;
  pool.setMaxPendingConnection(4);
  HttpConnection* first = nullptr;
  {
    HttpConnectionLocker lk(pool, qz::Url(srv.url("/echo")));
    first = lk;
    ASSERT_TRUE(HttpHelpers::HttpGet(*lk, qz::Url(srv.url("/echo"))));
  }
  auto borrowAndGet = [&](const std::string& target) { // returned when the locker ends
    HttpConnectionLocker lk(pool, "127.0.0.1", uint16_t(srv.port()));
    EXPECT_TRUE(HttpHelpers::HttpGet(*lk, qz::Url(target)));
    return static_cast<HttpConnection*>(lk);
  };
  qztest::LogCapture cap;
  EXPECT_EQ(borrowAndGet(srv.url("/status/200")), first);
  EXPECT_EQ(cap.size() + srv.connectionCount(), 1u) << cap.dump();
  borrowAndGet(elsewhere);
  // This one and the connection's own host:port change.
  EXPECT_TRUE(cap.has("http", "Http connection from pool was used with an other host/port '" + elsewhere +
                                  "' than the one declared 127.0.0.1:" + std::to_string(srv.port())))
      << cap.dump();
  std::unique_ptr<HttpConnection> pooled(pool.getHttpConnection("localhost", uint16_t(srv.port())));
  EXPECT_EQ(pooled.get(), first); // pooled where it really talked
  // A new connection (nothing borrowed) used elsewhere does not warn; an adopted one is deleted.
  cap.clear();
  {
    HttpConnectionLocker lk(pool, "example.invalid", 1);
    ASSERT_TRUE(HttpHelpers::HttpGet(*lk, qz::Url(srv.url("/echo"))));
    HttpConnectionLocker adopted(new HttpConnection);
    ASSERT_TRUE(HttpHelpers::HttpGet(*adopted, qz::Url(srv.url("/echo"))));
  }
  EXPECT_EQ(cap.size() + pool.idleCount(), 1u) << cap.dump();
}

// Nested calls keep what each needs while it runs; the cap rules again after.
TEST_F(Pool, ParallelUseKeepsConnectionsForItsCallOnly) {
  HttpConnectionPool pool;
  pool.setMaxPendingConnection(2);
  auto idleAfter = [&](int n) { // borrows n connections, then returns them all
    std::vector<HttpConnection*> lent;
    for (int i = 0; i < n; ++i)
      lent.push_back(used(pool));
    for (HttpConnection* c : lent)
      pool.releaseHttpConnection(c);
    return std::to_string(pool.idleCount());
  };
  std::string counts;
  {
    HttpConnectionPool::ParallelUse outer(pool, 3);
    {
      HttpConnectionPool::ParallelUse inner(pool, 2); // two calls at once: five kept
      counts += idleAfter(6);
    }
    counts += std::to_string(pool.idleCount()) + std::to_string(pool.getMaxConcurrentConnection());
  }
  counts += std::to_string(pool.idleCount());
  {
    HttpConnectionPool::ParallelUse below(pool, 1); // under the cap: the cap rules
    counts += idleAfter(3);
  }
  EXPECT_EQ(counts + std::to_string(pool.getMaxConcurrentConnection()), "532222");
}

// Threads borrow and return connections of one pool at once.
TEST_F(Pool, ThreadsShareOnePool) {
  HttpConnectionPool pool;
  pool.ensureAtLeastMaxConcurrentConnection(8);
  const qz::Url url(srv.url("/bytes?n=64"));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] {
      std::string body;
      HttpHelpers::HttpResult r;
      r.body = &body;
      for (int i = 0; i < 200; ++i) {
        HttpConnectionLocker lk(pool, url);
        failures += !HttpHelpers::HttpGet(*lk, url, &r) || body.size() != 64;
      }
    });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(std::to_string(failures) + " requests " + std::to_string(srv.requestCount()), "0 requests 1600");
  EXPECT_TRUE(srv.connectionCount() <= 8u + pool.getMaxConcurrentConnection() &&
              pool.idleCount() <= pool.getMaxConcurrentConnection());
}

} // namespace

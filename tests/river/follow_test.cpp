// Following a live feed: an idle river stays quiet, and writes still arrive without polling.
#include "RiverFixture.h"

using namespace rivertest;
using qztest::FaultProxy;

namespace {

using FollowTest = RiverTest;

// While idle: one open feed (heartbeats, no new request until the feed has been quiet for
// feedIdleMs) and no Elasticsearch request but the lease renewal every leaseMs / 3.
TEST_F(FollowTest, AnIdleRiverOnlyRenewsItsLease) {
  FaultProxy proxy(couch.port()); // CouchDB through a proxy that counts the requests
  ASSERT_TRUE(proxy.start()) << proxy.error();
  const size_t couchRequests = proxy.addRule(FaultProxy::Match("", "").repeat(0));
  ASSERT_TRUE(qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, proxy.baseUrl() + "/db"));
  def.flushIntervalMs = 60000; // a poll would come too late for every bound below
  def.heartbeatMs = 300;
  def.leaseMs = 1800; // renewed every 600 ms
  load(0, 5);
  for (const auto& [feedIdleMs, minCouch, maxCouch] : {std::tuple(60000u, 0u, 0u), std::tuple(600u, 2u, 4u)}) {
    SCOPED_TRACE("feedIdleMs " + std::to_string(feedIdleMs));
    def.feedIdleMs = feedIdleMs;
    auto rivers = manager(def);
    rivers->start();
    auto settled = [&] {
      auto s = rivers->status().at(0);
      return s.live && s.caughtUp && s.lastSeq == couchSeq();
    };
    ASSERT_TRUE(waitFor(settled));
    const size_t couchBefore = proxy.matched(couchRequests), esBefore = elastic.stats().requests;
    std::this_thread::sleep_for(std::chrono::milliseconds(2100)); // the idle spell is what is measured
    const size_t couchIdle = proxy.matched(couchRequests) - couchBefore, esIdle = elastic.stats().requests - esBefore;
    EXPECT_TRUE(couchIdle >= minCouch && couchIdle <= maxCouch) << couchIdle;
    EXPECT_TRUE(esIdle >= 2 && esIdle <= 5) << esIdle; // the lease is kept
    // The feed is still alive after its heartbeats: a write arrives far below flushIntervalMs.
    const std::string late = "late" + std::to_string(feedIdleMs);
    put({{"_id", late}});
    EXPECT_TRUE(waitFor([&] { return es("GET", "/docs/_doc/" + late) == 200; }, 5));
    const auto t0 = Clock::now();
    rivers->stop(); // ends the open feed at once
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(3));
  }
}

} // namespace

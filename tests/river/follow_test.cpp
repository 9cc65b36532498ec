// Following a live feed: writes arrive without polling, an idle river stays quiet.
#include "RiverFixture.h"

#include <HttpTools/river/RiverLease_p.h>

using namespace rivertest;
using qztest::FaultProxy;

namespace {

class FollowTest : public RiverTest {
protected:
  void SetUp() override {
    RiverTest::SetUp();
    ASSERT_FALSE(HasFatalFailure());
    // CouchDB through a proxy that counts the requests.
    proxy = std::make_unique<FaultProxy>(couch.port());
    ASSERT_TRUE(proxy->start()) << proxy->error();
    couchRequests = proxy->addRule(FaultProxy::Match("", "").repeat(0));
    ASSERT_TRUE(
        qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, proxy->baseUrl() + "/db"));
    def.flushIntervalMs = 60000; // a poll would come too late for every bound below
    def.heartbeatMs = 300;
  }
  bool indexed(const std::string& id) { return es("GET", "/docs/_doc/" + id) == 200; }
  bool settled(qz::river::RiverManager& rivers) {
    auto s = rivers.status().at(0);
    return s.live && s.caughtUp && s.lastSeq == couchSeq();
  }

  std::unique_ptr<FaultProxy> proxy;
  size_t couchRequests = 0;
};

TEST_F(FollowTest, WritesArriveAtOnceAndBurstsTravelInBulks) {
  load(0, 10);
  auto managed = manager(def);
  auto& rivers = *managed;
  rivers.start();
  ASSERT_TRUE(waitFor([&] { return settled(rivers); })) << rivers.status().at(0).error;
  struct Case {
    const char* what;  // the write
    const char* probe; // the document whose arrival ends the case
    bool gone;         // it arrives as a deletion
    size_t maxBulks;
  } cases[] = {{"one new document", "solo", false, 1},
               {"a deletion", "d3", true, 1},
               {"a burst of 300", "b399", false, 100}}; // never one bulk per change
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const size_t bulksBefore = elastic.stats().bulkRequests;
    if (c.maxBulks > 1)
      load(100, 400, "b");
    else if (c.gone)
      remove("d3");
    else
      edit("solo", {{"v", c.what}});
    // Far below flushIntervalMs, with room for sanitizers on a loaded machine.
    ASSERT_TRUE(waitFor([&] { return indexed(c.probe) != c.gone; }, 5));
    ASSERT_TRUE(waitFor([&] { return settled(rivers); }));
    const size_t bulks = elastic.stats().bulkRequests - bulksBefore;
    EXPECT_TRUE(bulks >= 1 && bulks <= c.maxBulks) << bulks;
  }

  // (lag and backlog while Elasticsearch refuses: MetricsTest)
  rivers.stop();
  expectIndexEqualsDatabase();
}

// While idle: one open feed (heartbeats, no new request until the feed has been quiet for
// feedIdleMs) and no Elasticsearch request but the lease renewal every leaseMs / 3.
TEST_F(FollowTest, AnIdleRiverOnlyRenewsItsLease) {
  load(0, 5);
  struct Case {
    unsigned feedIdleMs;
    size_t minCouch, maxCouch; // requests in the window
  } cases[] = {{60000, 0, 0}, {600, 2, 4}};
  const auto window = std::chrono::milliseconds(2100);
  def.leaseMs = 1800; // renewed every 600 ms
  for (const auto& c : cases) {
    SCOPED_TRACE("feedIdleMs " + std::to_string(c.feedIdleMs));
    def.feedIdleMs = c.feedIdleMs;
    auto managed = manager(def);
    auto& rivers = *managed;
    rivers.start();
    ASSERT_TRUE(waitFor([&] { return settled(rivers); }));
    const size_t couchBefore = proxy->matched(couchRequests), esBefore = elastic.stats().requests;
    std::this_thread::sleep_for(window); // the idle spell is what is measured
    const size_t couchIdle = proxy->matched(couchRequests) - couchBefore, esIdle = elastic.stats().requests - esBefore;
    EXPECT_TRUE(couchIdle >= c.minCouch && couchIdle <= c.maxCouch) << couchIdle;
    EXPECT_TRUE(esIdle >= 2 && esIdle <= 5) << esIdle; // the lease is kept
    EXPECT_GT(stateField("expires"), qz::river::detail::NowMs());
    // The feed is still alive after its heartbeats.
    const std::string late = "late" + std::to_string(c.feedIdleMs);
    put({{"_id", late}});
    EXPECT_TRUE(waitFor([&] { return indexed(late); }, 5));
    const auto t0 = Clock::now();
    rivers.stop(); // ends the open feed at once
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(3));
  }
}

} // namespace

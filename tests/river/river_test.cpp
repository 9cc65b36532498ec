#include "RiverFixture.h"

using namespace rivertest;

namespace {

TEST_F(RiverTest, LoadsThenFollowsUpdatesDeletesAndSkipsThenRebuildsForANewMapping) {
  load(0, 3000);
  ASSERT_EQ(couch.request("PUT", "/db/_design/v", R"({"views":{}})"), 201);
  // Even numbers in group 0 are left out; the others gain a field.
  auto transform = [](qzVariantMapImpl& doc) {
    doc["seen"] = true;
    return doc["group"].toInt64() != 0 || doc["n"].toInt64() % 2 != 0;
  };
  def.transform = transform;
  def.leaseMs = 3000; // renewed in time on a loaded machine under sanitizers too
  qz::river::RiverManager rivers(pool, 2);
  std::string error;
  ASSERT_TRUE(rivers.addRiver(def, &error)) << error;
  EXPECT_FALSE(rivers.addRiver(def, &error)); // same name
  auto s = ran(rivers);
  EXPECT_EQ(std::tuple(s.caughtUp, s.lastSeq, s.indexed, s.skipped, s.liveIndex),
            std::tuple(true, couchSeq(), 3000u - 215u, 215u, "docs-1")); // skipped: n % 14 == 0
  expectIndexEqualsDatabase(transform);

  ASSERT_TRUE(rivers.start());
  EXPECT_FALSE(rivers.start());
  for (int i = 1; i < 40; i += 3) // n + 7 keeps the parity, 14 | n + 7 for i = 7
    edit("d" + std::to_string(i), {{"n", i + 7}});
  edit("d14", {{"group", 1}});          // skipped so far: now kept
  edit("d3", {{"group", 0}, {"n", 4}}); // kept so far: now skipped
  for (int i = 100; i < 120; ++i)
    remove("d" + std::to_string(i));
  load(3000, 3100, "new");
  const std::string seq = couchSeq();
  ASSERT_TRUE(waitFor([&] { return caughtUpTo(rivers, seq); })) << rivers.status().at(0).lastSeq << " vs " << seq;
  expectIndexEqualsDatabase(transform);
  rivers.stop(); // gives the lease back (taken over: RiverServiceTest, RiverElasticTest.OneHolderAtATime...)
  EXPECT_EQ(std::tuple(rivers.status().at(0).running, rivers.status().at(0).failed), std::tuple(false, 0u));

  // A new mapping fills docs-2: searches through the alias see the whole old index during the
  // rebuild, then the whole new one.
  def.mappingJson = R"({"properties":{"n":{"type":"long"},"group":{"type":"keyword"},"text":{"type":"text"}}})";
  def.batchDocs = 200;
  std::string before;
  ASSERT_EQ(es("GET", "/docs/_count", {}, &before), 200);
  std::atomic<bool> done{false};
  std::vector<std::string> counts;
  std::thread searcher([&] {
    for (std::string text; !done; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      const int status = es("GET", "/docs/_count", {}, &text);
      counts.push_back(std::to_string(status) + " " + text.substr(0, text.find(',')));
    }
  });
  s = runOnce(def);
  done = true;
  searcher.join();
  EXPECT_EQ(std::tuple(s.liveIndex, s.indexed + s.skipped), std::tuple("docs-2", 3080u));
  ASSERT_GT(counts.size(), 3u);
  EXPECT_EQ(std::set(counts.begin(), counts.end()), std::set<std::string>{"200 " + before.substr(0, before.find(','))});
  EXPECT_EQ(es("GET", "/docs-1"), 404);
  expectIndexEqualsDatabase(transform);
}

TEST_F(RiverTest, RunOnceEndsAtOnceOnWhatRetryingCannotFix) {
  ASSERT_EQ(es("PUT", "/plain", "{}"), 200);
  load(0, 3);
  // Ends a run at once, or refused up front when it cannot work at all.
  const struct {
    std::function<void(qz::river::RiverDefinition&)> edit;
    const char* says;
    bool upFront = false;
  } cases[] = {
      {[](auto& d) { d.database = "missing"; }, "not_found"},
      {[](auto& d) { d.index = "plain"; }, "plain is an index, not an alias"},
      {[](auto& d) { // d1 routed to an index suffix no index name may carry
         d.route = [](const qzVariantMapImpl& doc, auto& route) {
           route.indexSuffix = doc.at("_id") == "d1" ? "Up" : "";
         };
       },
       "document d1: its route's index suffix \"Up\" makes no valid index name"},
      {[](auto& d) { d.mappingJson = "[1]"; }, "", true},
      {[](auto& d) { d.index = d.stateIndex; }, "", true},
      {[](auto& d) { d.selectorJson = R"({"group":{"$bogus":1}})"; }, "$bogus", true},
  };
  for (const auto& c : cases) {
    qz::river::RiverDefinition d = def;
    c.edit(d);
    d.name += std::to_string(&c - cases); // no state of an earlier case
    qz::river::RiverManager rivers(pool, 1);
    std::string error;
    const auto started = Clock::now();
    const bool added = rivers.addRiver(d, &error);
    EXPECT_EQ(added, !c.upFront) << error;
    EXPECT_FALSE(added && rivers.runOnce(&error, nullptr));
    EXPECT_TRUE(error.find(c.says) != std::string::npos && Clock::now() - started < std::chrono::seconds(5)) << error;
  }
}

TEST_F(RiverTest, RidesOut429s503sAndACouchDbRestart) {
  qztest::FaultProxy door(couch.port()); // CouchDB's address, shut and opened again as a restart does
  ASSERT_TRUE(door.start()) << door.error();
  ASSERT_TRUE(qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, door.baseUrl() + "/db"));
  load(0, 1500);
  // The first batch: every item once, half of them twice.
  elastic.setFaults({.rejectItems = 750, .unavailable = 3, .unavailablePath = "_bulk"});
  auto rivers = manager(def);
  ASSERT_TRUE(rivers->start());
  ASSERT_TRUE(waitFor([&] { return caughtUpTo(*rivers, couchSeq()); }));
  EXPECT_EQ(std::tuple(rivers->status().at(0).retries, rivers->status().at(0).indexed),
            std::tuple(3 * 500u + 500u + 250u, 1500u)); // items sent again
  door.stop();
  load(1500, 2000);
  ASSERT_TRUE(waitFor([&] { return !rivers->status().at(0).error.empty(); })) << "the river did not notice the outage";
  EXPECT_FALSE(rivers->status().at(0).caughtUp);
  ASSERT_TRUE(door.start()) << door.error();
  const std::string seq = couchSeq();
  ASSERT_TRUE(waitFor([&] { return caughtUpTo(*rivers, seq) && rivers->status().at(0).error.empty(); }, 30))
      << rivers->status().at(0).error;
  rivers->stop();
  expectIndexEqualsDatabase();
}

} // namespace

// The river under CouchDB's revision trees, lost answers from Elasticsearch, and drift made behind
// its back (VerifyRiver).
#include "RiverFixture.h"

using namespace rivertest;
using qz::river::RiverDrift;
using qztest::FaultProxy;

namespace {

using RiverFaultTest = RiverTest;

TEST_F(RiverFaultTest, WinnersThatChangeWithoutARisingGenerationReachTheIndex) {
  // Each step as replication writes it (new_edits=false) or as a client deletes a leaf.
  auto replicated = [](const char* id, int generation, const char* hash, const char* parent, const char* value) {
    return std::string(R"({"new_edits":false,"docs":[{"_id":")") + id + "\",\"_rev\":\"" + std::to_string(generation) +
           "-" + hash + R"(","_revisions":{"start":)" + std::to_string(generation) + ",\"ids\":[\"" + hash + "\",\"" +
           parent + "\"]},\"v\":\"" + value + "\"}]}";
  };
  // The document, a replicated branch (a bulk) or the revision deleted, the winner afterwards.
  const std::tuple<const char*, std::string, const char*> steps[] = {
      {"c", replicated("c", 2, "aaa", "r", "a"), "2-aaa"},
      {"c", replicated("c", 2, "fff", "r", "f"), "2-fff"}, // a conflict of the same generation wins
      {"c", "2-fff", "2-aaa"},                             // the winner deleted: the loser wins again
      {"x", replicated("x", 3, "ccc", "bbb", "c"), "3-ccc"},
      {"x", replicated("x", 2, "zzz", "r", "z"), "3-ccc"},
      {"x", "3-ccc", "2-zzz"}, // a lower generation wins
      {"x", "2-zzz", ""},      // every leaf deleted
  };
  auto rivers = manager(def);
  for (const auto& [id, write, winner] : steps) {
    SCOPED_TRACE(std::string(id) + " won by " + winner);
    if (write[0] == '{')
      ASSERT_EQ(couch.request("POST", "/db/_bulk_docs", write), 201);
    else
      ASSERT_EQ(couch.request("DELETE", std::string("/db/") + id + "?rev=" + write), 200);
    ASSERT_EQ(couchDoc(id)["_rev"].toString(), winner);
    EXPECT_EQ(ran(*rivers).failed, 0u);
    expectIndexEqualsDatabase();
  }
}

// A mapping change with one answer lost or refused: the alias, the documents and the state come
// out right, and every index is created by the river on a cluster that creates none by itself;
// then endless 429s, which a one-shot run gives up.
TEST_F(RiverFaultTest, LostAnswersNeverCostTheLiveIndex) {
  FaultProxy proxy(uint16_t(elastic.port()));
  ASSERT_TRUE(proxy.start()) << proxy.error();
  // What is lost, by the rules that lose it.
  const std::pair<const char*, std::vector<FaultProxy::Rule>> cases[] = {
      {"the alias swap's answer", {FaultProxy::Match("POST", "/_aliases", FaultProxy::DropAnswer)}},
      {"the alias swap's answer, then its read-back",
       {FaultProxy::Match("POST", "/_aliases", FaultProxy::DropAnswer),
        FaultProxy::Match("GET", "/_alias/docs", FaultProxy::Refuse).from(3)}}, // after two findings
      {"a bulk answer", {FaultProxy::Match("POST", "/_bulk", FaultProxy::DropAnswer)}},
      {"a state write's answer", {FaultProxy::Match("PUT", "/httptools-river/_doc/", FaultProxy::DropAnswer)}},
      {"the state's creation", {FaultProxy::Match("PUT", "/httptools-river/_create/", FaultProxy::DropAnswer)}},
  };
  load(0, 300);
  def.elastic = qz::elasticsearch::ElasticConnectionParameters(qz::Url(proxy.baseUrl()));
  for (const auto& [what, faults] : cases) {
    SCOPED_TRACE(what);
    elastic.reset();
    elastic.setFaults({.noAutoCreate = true});
    proxy.clearRules();
    std::vector<size_t> rules;
    for (const auto& rule : faults)
      rules.push_back(proxy.addRule(rule));
    def.mappingJson = "{}";
    runOnce(def);
    def.mappingJson = R"({"properties":{"n":{"type":"long"}}})";
    EXPECT_EQ(runOnce(def).liveIndex, "docs-2");
    for (size_t rule : rules)
      EXPECT_EQ(proxy.acted(rule), 1u) << proxy.matched(rule);
    EXPECT_EQ(es("GET", "/docs-1"), 404);
    expectIndexEqualsDatabase();
  }

  // Endless 429s after a first bulk: a one-shot run gives up once they have lasted retryMaxMs.
  proxy.clearRules();
  proxy.addRule(FaultProxy::Match("POST", "/_bulk", FaultProxy::Refuse).answer(429).from(2).repeat(0));
  elastic.reset();
  def.batchDocs = 100;
  def.retryMaxMs = 2000;
  std::string error;
  const auto started = Clock::now();
  auto rivers = manager(def);
  EXPECT_FALSE(rivers->runOnce(&error, nullptr));
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(60));
  EXPECT_TRUE(error.find("429") != std::string::npos && error.find("gave up") != std::string::npos) << error;
  EXPECT_EQ(rivers->status().at(0).indexed, 100u);
}

TEST_F(RiverFaultTest, ADatabaseCreatedAgainIsFilledIntoANewIndex) {
  FaultProxy proxy(uint16_t(couch.port()));
  ASSERT_TRUE(proxy.start()) << proxy.error();
  ASSERT_TRUE(qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, proxy.baseUrl() + "/db"));
  for (const bool markerRefused : {false, true}) { // told by the marker, or by the seq only
    SCOPED_TRACE(markerRefused ? "the marker refused" : "told by the marker");
    elastic.reset();
    proxy.clearRules();
    if (markerRefused)
      proxy.addRule(FaultProxy::Match("PUT", "/_local/", FaultProxy::Refuse).answer(403).repeat(0));
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(couch.request("DELETE", "/db"), 200);
      ASSERT_EQ(couch.request("PUT", "/db"), 201);
      load(0, round ? 10 : 50, round ? "again" : "d"); // the seqs start over below the checkpoint
      EXPECT_EQ(runOnce(def).liveIndex, round ? "docs-2" : "docs-1");
      expectIndexEqualsDatabase();
    }
  }
}

using RiverVerifyTest = RiverTest;

TEST_F(RiverVerifyTest, DriftOfEveryKindIsFoundAndRepairedExactly) {
  auto verify = [&](bool repair) {
    RiverDrift drift;
    std::string error;
    const uint64_t cap = pool.getMaxConcurrentConnection();
    EXPECT_TRUE(qz::river::VerifyRiver(pool, def, repair, drift, &error, nullptr)) << error;
    EXPECT_EQ(pool.getMaxConcurrentConnection(), cap); // the caller's pool keeps its cap
    return drift;
  };
  load(0, 2100); // pages of 1000 on both sides, the last one short
  ASSERT_EQ(couch.request("PUT", "/db/_design/v", R"({"views":{}})"), 201);
  runOnce(def);
  RiverDrift drift = verify(false);
  EXPECT_EQ(std::pair(drift.none(), drift.documents), std::pair(true, size_t(2100)));

  ASSERT_EQ(es("DELETE", "/docs-1/_doc/d5"), 200);                      // missing
  edit("d1500", {{"n", -1}});                                           // stale: updated in CouchDB only
  ASSERT_EQ(es("PUT", "/docs-1/_doc/d7", R"({"n":7,"group":0})"), 200); // stale: by an earlier release (no revision)
  ASSERT_EQ(es("PUT", "/docs-1/_doc/ghost", R"({"n":0})"), 201);        // extra: left in the index
  remove("d2050");                                                      // extra: deleted in CouchDB only
  ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
  const size_t scans = elastic.stats().pitsOpened;
  drift = verify(false);
  EXPECT_EQ(elastic.stats().pitsOpened, scans + 1); // no second scan for the ids CouchDB listed
  EXPECT_EQ(std::vector<size_t>({drift.missing, drift.stale, drift.extra, drift.repaired}),
            std::vector<size_t>({1, 2, 2, 0}));
  auto sorted = [](std::vector<std::string> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
  };
  EXPECT_EQ(std::vector({drift.missingIds, sorted(drift.staleIds), sorted(drift.extraIds)}),
            (std::vector<std::vector<std::string>>{{"d5"}, {"d1500", "d7"}, {"d2050", "ghost"}}));

  EXPECT_EQ(verify(true).repaired, 5u);
  ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
  EXPECT_TRUE(verify(false).none());
  expectIndexEqualsDatabase();
}

} // namespace

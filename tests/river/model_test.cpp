// Random CouchDB histories (edits, replicated conflicts, deleted winners and losers, a database
// created again) interleaved with river runs, killed runs and lost answers; after each history
// the index holds exactly the winners. HTTPTOOLS_RIVER_SEEDS=N runs N histories (the soak),
// from HTTPTOOLS_RIVER_FIRST_SEED on.
#include "RiverFixture.h"

#include <random>

using namespace rivertest;
using qztest::FaultProxy;

namespace {

#ifdef HTTPTOOLS_CLI
using RiverModelTest = RiverTest;

TEST_F(RiverModelTest, RandomHistoriesEndWithTheWinnersIndexed) {
  const char* soak = std::getenv("HTTPTOOLS_RIVER_SEEDS");
  const unsigned seeds = soak ? unsigned(std::max(1, std::atoi(soak))) : 3;
  const char* from = std::getenv("HTTPTOOLS_RIVER_FIRST_SEED"); // to replay a failed soak history
  const unsigned first = from ? unsigned(std::max(1, std::atoi(from))) : 1;
  FaultProxy proxy(uint16_t(elastic.port()));
  ASSERT_TRUE(proxy.start()) << proxy.error();
  def.elastic = qz::elasticsearch::ElasticConnectionParameters(qz::Url(proxy.baseUrl()));
  def.batchDocs = 3;
  // One random write to document `id`: an edit of the winner (or a creation), a replicated branch
  // of a generation near the winner's, the winner deleted, or a losing leaf deleted.
  auto write = [&](std::mt19937& rng, const std::string& id) {
    qzVariantMapImpl doc = couchDoc(id + "?conflicts=true");
    const int generation = doc.empty() ? 0 : std::atoi(doc["_rev"].toString().c_str());
    const qz::qzVariantListImpl losers(doc.count("_conflicts") ? doc["_conflicts"].toList() : qz::qzVariantListImpl());
    char hash[9];
    std::snprintf(hash, sizeof hash, "%08x", unsigned(rng()));
    const unsigned what = rng() % 4;
    if (what == 0) {
      edit(id, {{"v", int64_t(rng() % 1000)}});
    } else if (what == 1) {
      const std::string g = std::to_string(1 + int(rng() % unsigned(generation + 2)));
      couch.request("POST", "/db/_bulk_docs",
                    R"({"new_edits":false,"docs":[{"_id":")" + id + "\",\"_rev\":\"" + g + "-" + hash +
                        R"(","_revisions":{"start":)" + g + ",\"ids\":[\"" + hash + "\"]},\"v\":\"" + hash + "\"}]}");
    } else if (what == 2 && generation) {
      couch.request("DELETE", "/db/" + id + "?rev=" + doc["_rev"].toString());
    } else if (what == 3 && !losers.empty()) {
      couch.request("DELETE", "/db/" + id + "?rev=" + losers.front().toString());
    }
  };
  for (unsigned seed = first; seed < first + seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    elastic.reset();
    proxy.clearRules();
    ASSERT_EQ(couch.request("DELETE", "/db"), 200);
    ASSERT_EQ(couch.request("PUT", "/db"), 201);
    std::string error;
    for (int step = 0; step < 40; ++step) {
      const unsigned what = rng() % 20;
      if (what < 14) {
        write(rng, "m" + std::to_string(rng() % 12));
      } else if (what < 16) { // a run, one answer lost
        const char* paths[] = {"/_bulk", "/_aliases", "/httptools-river/_doc/", "/_mget", "/_doc/m"};
        proxy.addRule(FaultProxy::Match("", paths[rng() % 5], FaultProxy::DropAnswer).from(1 + rng() % 3));
        manager(def)->runOnce(&error, nullptr); // a lost answer may end it with an error: the next run resumes
        proxy.clearRules();
      } else if (what < 18) { // `httptools river --once` killed at a random point of its run
        const pid_t pid = spawn({couch.baseUrl() + "/db", proxy.baseUrl() + "/docs", "--once", "--name", "r", "--batch",
                                 "3", "--lease-ms", "1000"});
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 60));
        end(pid, SIGKILL);
      } else if (what == 18 && rng() % 3 == 0) { // the database deleted and created again
        ASSERT_EQ(couch.request("DELETE", "/db"), 200);
        ASSERT_EQ(couch.request("PUT", "/db"), 201);
      }
    }
    runOnce(def);
    expectIndexEqualsDatabase(); // every winner at its revision, nothing else
  }
}
#endif

} // namespace

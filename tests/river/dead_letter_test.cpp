// Documents Elasticsearch refuses for good: dead letters, their replay, bulks too large; the
// documents a selector leaves out; CouchDB versions as their welcome, feeds and seqs tell them.
#include "RiverFixture.h"

#include "support/TestHttpServer.h"

#include <regex>

using namespace rivertest;

namespace {

class RiverDeadLetterTest : public RiverTest {
protected:
  std::vector<qz::river::RiverDeadLetter> letters() {
    std::vector<qz::river::RiverDeadLetter> read;
    std::string error;
    EXPECT_TRUE(qz::river::ReadDeadLetters(file, read, &error)) << error;
    return read;
  }
  const std::string file = scratch("dead-letters.jsonl");
};

TEST_F(RiverDeadLetterTest, RefusedDocumentsAreLettersWithADestinationAndStopTheRiverWithout) {
  def.mappingJson = R"({"properties":{"n":{"type":"long"}}})";
  load(0, 5);
  put({{"_id", "bad"}, {"n", "x"}});
  const std::string badSeq = couchSeq(), badRev = couchDoc("bad")["_rev"].toString();
  load(5, 10);
  put({{"_id", "huge"}, {"text", std::string(6000, 'h')}}); // over the bulk limit alone
  load(10, 30);
  // (without a destination the river stops before the refused change: ReplayKeepsOnlyTheDocumentsStillRefused)
  elastic.setFaults({.maxBulkBytes = 4000}); // about 20 documents of the load
  def.deadLetter = qz::river::DeadLetterFile(file);
  auto rivers = manager(def); // batches of 500: bulks too large go in halves down to one document
  std::string error;
  const int64_t before = int64_t(std::time(nullptr)) * 1000 - 1000;
  ASSERT_TRUE(rivers->runOnce(&error, nullptr)) << error;
  const auto s = rivers->status().at(0);
  EXPECT_EQ(std::tuple(s.rejected, s.indexed, s.lastSeq), std::tuple(2u, 30u, couchSeq())); // past both
  EXPECT_GE(elastic.stats().tooLargeBulks, 3u); // the batch, a half, ... down to the huge document alone
  std::map<std::string, qz::river::RiverDeadLetter> read;
  for (auto& l : letters())
    read[l.id] = l;
  ASSERT_EQ(read.size(), 2u);
  const auto& l = read["bad"];
  EXPECT_EQ(l.id + " " + l.rev + " " + l.seq + " " + std::to_string(l.status) + " " + l.errorType + " " + l.source,
            "bad " + badRev + " " + badSeq + " 400 mapper_parsing_exception " + R"({"httptools_rev":")" + badRev +
                R"(","n":"x"})");
  EXPECT_TRUE(!l.reason.empty() && l.timeMs >= before && l.timeMs <= before + 120000) << l.timeMs;
  EXPECT_EQ(read["huge"].status, 413);
  expectIndexEqualsDatabase(
      [](qzVariantMapImpl& doc) { return doc["_id"].toString() != "bad" && doc["_id"].toString() != "huge"; });
}

#ifdef HTTPTOOLS_CLI
TEST_F(RiverDeadLetterTest, ReplayKeepsOnlyTheDocumentsStillRefused) {
  def.mappingJson = R"({"properties":{"n":{"type":"long"}}})";
  load(0, 5);
  for (const char* id : {"fixed", "still", "gone"})
    put({{"_id", id}, {"n", "x"}});
  auto run = [&](std::vector<std::string> flags) {
    flags.insert(flags.begin(), {couch.baseUrl() + "/db", elastic.baseUrl() + "/docs", "--name", "r", "--mapping",
                                 scratch("mapping.json", def.mappingJson)});
    return cli(flags);
  };
  // No destination: stops before the first refused document, so the next run still finds all three.
  EXPECT_EQ(run({"--once"}), 1);
  ASSERT_EQ(run({"--once", "--dead-letter", file}), 0);
  ASSERT_EQ(letters().size(), 3u);
  // Fixed and removed in CouchDB before the replay; its exit code; the ids left in the file.
  using Ids = std::vector<std::string>;
  const std::tuple<Ids, Ids, int, Ids> steps[] = {
      {{"fixed"}, {"gone"}, 1, {"still"}},
      {{}, {}, 1, {"still"}}, // nothing changed: the rewritten file is rewritten alike
      {{"still"}, {}, 0, {}},
  };
  for (const auto& [fixed, removed, exitCode, left] : steps) {
    for (const auto& id : fixed)
      edit(id, {{"n", int64_t(7)}});
    for (const auto& id : removed)
      remove(id);
    Ids ids;
    EXPECT_EQ(run({"--replay", file}), exitCode);
    for (const auto& l : letters())
      ids.push_back(l.id);
    EXPECT_EQ(ids, left);
  }
  expectIndexEqualsDatabase();
}
#endif

// The river in front of a proxy whose welcome answer names the server; the proxy answers a
// filtered feed unfiltered (pouchdb-server cannot), so only the river's own match removes. As
// CouchDB 3 it also makes the seqs opaque ("7-g1x") and adds the feed's `pending` count: the
// figure of changes behind comes from that count.
TEST_F(RiverDeadLetterTest, SelectorLeavesOutAndRemovesDocumentsAndFiltersTheFeedWhereTheServerCan) {
  def.selectorJson = R"({"group":{"$lt":3}})";
  auto matches = [](qzVariantMapImpl& doc) { return doc["group"].toInt64() < 3; };
  // The welcome answer; whether the first run asks for filter=_selector (the seqs then opaque).
  const std::pair<const char*, bool> cases[] = {
      {R"({"couchdb":"Welcome","version":"3.3.3"})", true},
      {R"({"express-pouchdb":"Welcome!","version":"4.2.0"})", false},
  };
  for (const auto& [welcome, filtered] : cases) {
    SCOPED_TRACE(welcome);
    elastic.reset();
    ASSERT_EQ(couch.request("DELETE", "/db"), 200);
    ASSERT_EQ(couch.request("PUT", "/db"), 201);
    load(0, 30);
    std::mutex mutex;
    std::vector<std::string> feeds;       // per _changes request: filter=_selector asked, the selector sent
    std::atomic<int64_t> lastPending{-1}; // written on the proxy's threads
    qztest::TestHttpServer proxy;
    proxy.route("GET", "/", [&, welcome = welcome](const httplib::Request&, httplib::Response& res) {
      res.set_content(welcome, "application/json");
    });
    proxy.route("*", "/db.*", [&, filtered = filtered](const httplib::Request& req, httplib::Response& res) {
      httplib::Params params = req.params;
      if (auto since = params.find("since"); since != params.end())
        since->second = since->second.substr(0, since->second.find('-'));
      if (req.path == "/db/_changes") {
        std::lock_guard<std::mutex> lock(mutex);
        feeds.push_back(std::to_string(req.get_param_value("filter") == "_selector") +
                        std::to_string(req.body.find(R"("$lt":3)") != std::string::npos));
        params.erase("filter");
      }
      // The feed as GET: the selector body left out.
      toCouch(req, res, req.path + "?" + httplib::detail::params_to_query_str(params),
              req.method == "PUT" ? "PUT" : "GET");
      std::smatch last;
      if (filtered && req.path == "/db/_changes" &&
          std::regex_search(res.body, last, std::regex(R"re("last_seq":(\d+))re"))) {
        lastPending = std::stoll(couchSeq()) - std::stoll(last[1]);
        res.body.insert(res.body.rfind('}'), ",\"pending\":" + std::to_string(lastPending));
      }
      if (filtered)
        res.body =
            std::regex_replace(res.body, std::regex(R"re("(seq|last_seq|update_seq)":(\d+))re"), "\"$1\":\"$2-g1x\"");
    });
    ASSERT_TRUE(proxy.start()) << proxy.lastError();
    qz::river::RiverDefinition d = def;
    ASSERT_TRUE(qz::couch::CouchConnectionParameters::BuildFromDbUrl(&d.couch, &d.database, proxy.url("/db")));
    qz::http::HttpConnectionPool local; // its connections to the proxy close before the proxy stops
    qz::river::RiverManager rivers(local, 1);
    std::string error;
    ASSERT_TRUE(rivers.addRiver(d, &error)) << error;
    ran(rivers);
    expectIndexEqualsDatabase(matches);
    edit("d1", {{"group", int64_t(5)}}); // stops matching
    const auto s = ran(rivers);
    expectIndexEqualsDatabase(matches);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(std::tuple(s.lastSeq, s.behindChanges), std::tuple(couchSeq() + (filtered ? "-g1x" : ""), 0));
    EXPECT_EQ(lastPending.load(), filtered ? 0 : -1); // -1 for behindChanges unless the count was read
    ASSERT_GE(feeds.size(), 2u);
    // Filtered on the server from the start only: from a checkpoint the feed is read whole.
    EXPECT_EQ(feeds.front() + " " + feeds.back(), filtered ? "11 00" : "00 00");
  }
}

} // namespace

#include <HttpTools/river/RiverIndices_p.h>

#include <HttpTools/http/HttpConnectionPool.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

using namespace qz::river::detail;

namespace {

class RiverIndicesTest : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(elastic.start()) << "the Elasticsearch emulator cannot start: " << elastic.lastError();
  }
  IndexManager indices(const std::string& mapping) {
    return IndexManager(pool, qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl())), "docs",
                        mapping);
  }
  int es(const std::string& method, const std::string& path, const std::string& body = {}) {
    httplib::Client client("127.0.0.1", elastic.port());
    auto res = method == "GET" ? client.Get(path) : client.Put(path, body, "application/json");
    return res ? res->status : 0;
  }

  qztest::ElasticEmulator elastic;
  qz::http::HttpConnectionPool pool;
};

TEST_F(RiverIndicesTest, ANewMappingIsFilledBesideTheLiveIndexThenTakesTheAlias) {
  const std::string v1 = R"({"properties":{"n":{"type":"long"},"g":{"type":"integer"}}})";
  const std::string v1Reordered = R"({"properties":{"g":{"type":"integer"},"n":{"type":"long"}}})";
  const std::string v2 = R"({"properties":{"n":{"type":"keyword"}}})";
  struct Step {
    std::string mapping, index, building, buildSeq;
  } steps[] = {
      {v1, "docs-1", "", "0"},          // first run: created with the alias on it
      {v1Reordered, "docs-1", "", "0"}, // the same mapping
      {v2, "docs-1", "docs-2", "0"},    // a new one: filled beside the live index
      {v2, "docs-1", "docs-2", "5"},    // resumed where it was
      {v1, "docs-1", "", "0"},          // back to the live one's: the build is dropped
      {v2, "docs-1", "docs-2", "0"},
  };
  RiverState state;
  for (const auto& step : steps) {
    const RiverOutcome prepared = indices(step.mapping).prepare(state, nullptr);
    ASSERT_TRUE(prepared.ok()) << prepared.message;
    EXPECT_EQ(state.index, step.index) << step.mapping;
    EXPECT_EQ(state.building, step.building) << step.mapping;
    EXPECT_EQ(state.buildSeq, step.buildSeq) << step.mapping;
    if (!state.building.empty() && state.buildSeq == "0")
      state.buildSeq = "5";
  }
  EXPECT_EQ(es("GET", "/docs-2"), 200);
  ASSERT_TRUE(indices(v2).swap(state, nullptr).ok());
  EXPECT_EQ(state.index, "docs-2");
  EXPECT_EQ(state.seq, "5");
  EXPECT_TRUE(state.building.empty());
  httplib::Client client("127.0.0.1", elastic.port());
  EXPECT_EQ(client.Get("/_alias/docs")->body, R"({"docs-2":{"aliases":{"docs":{}}}})");

  // A rebuild for a recreated database is resumed, not taken for a mapping gone back.
  ASSERT_TRUE(indices(v2).rebuild(state, nullptr).ok());
  state.buildSeq = "4";
  ASSERT_TRUE(indices(v2).prepare(state, nullptr).ok());
  EXPECT_EQ(state.building, "docs-3");
  EXPECT_EQ(state.buildSeq, "4");
  EXPECT_TRUE(state.recreated);
}

TEST_F(RiverIndicesTest, AnAliasNotLeftAsTheRiverLeavesItFailsForGood) {
  struct Case {
    std::vector<std::pair<std::string, std::string>> indices; // name, body
    std::string failure;                                      // "": prepared, into `live`
    std::string live;
  } cases[] = {
      {{{"docs", "{}"}}, "docs is an index, not an alias", ""},
      {{{"a", R"({"aliases":{"docs":{}}})"}, {"b", R"({"aliases":{"docs":{}}})"}},
       "the alias docs points to more than one index",
       ""},
      {{{"docs-1", "{}"}}, "", "docs-2"}, // a leftover without the alias: the next free name
  };
  for (const auto& c : cases) {
    elastic.reset();
    for (const auto& [name, body] : c.indices)
      ASSERT_EQ(es("PUT", "/" + name, body), 200);
    RiverState state;
    const RiverOutcome prepared = indices("{}").prepare(state, nullptr);
    EXPECT_EQ(prepared.message, c.failure);
    EXPECT_EQ(prepared.permanent, !c.failure.empty());
    EXPECT_EQ(state.index, c.live);
  }
}

TEST(RiverIndices, GenerationIsTheNumberAfterTheAlias) {
  const std::pair<const char*, unsigned> cases[] = {{"docs-3", 3}, {"docs-12", 12}, {"docs-", 0},  {"docs", 0},
                                                    {"docs-x", 0}, {"docs-3-1", 0}, {"other-3", 0}};
  for (const auto& [index, generation] : cases)
    EXPECT_EQ(IndexManager::Generation("docs", index), generation) << index;
}

} // namespace

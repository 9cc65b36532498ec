#include <HttpTools/river/RiverIndices_p.h>
#include <HttpTools/river/RiverMapping_p.h>

#include <HttpTools/http/HttpConnectionPool.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

using qz::qzVariant;
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

qzVariant parse(const std::string& json) {
  qzVariant v;
  std::string error;
  EXPECT_TRUE(ParseMapping(json, v, &error)) << json << ": " << error;
  return v;
}

TEST(RiverMapping, PackedMappingComesBackIdenticalWhateverTheKeyOrder) {
  const qzVariant a = parse(R"({"properties":{"n":{"type":"long"},"name":{"type":"text","analyzer":"french"}}})");
  const qzVariant b = parse(R"({"properties":{"name":{"analyzer":"french","type":"text"},"n":{"type":"long"}}})");
  const std::string packed = PackMapping(a);
  EXPECT_EQ(packed, PackMapping(b));
  EXPECT_EQ(packed.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
            std::string::npos);
  qzVariant back;
  ASSERT_TRUE(UnpackMapping(packed, back));
  EXPECT_EQ(back, a);

  for (const std::string& bad : std::vector<std::string>{"", "not base64 !", "aGVsbG8=" /* "hello", not deflate */,
                                                         packed.substr(0, packed.size() / 2)})
    EXPECT_FALSE(UnpackMapping(bad, back)) << bad;
  for (const std::string bad : {"[]", "3", "{\"a\":", "\"text\""})
    EXPECT_FALSE(ParseMapping(bad, back, nullptr)) << bad;
}

TEST(RiverMapping, LiveMappingComparedIgnoringOrderEchoesAndDefaults) {
  struct Case {
    const char* wanted;
    const char* live;
    bool same;
  };
  const Case cases[] = {
      {R"({})", R"({"properties":{"a":{"type":"text","fields":{"keyword":{"type":"keyword","ignore_above":256}}}}})",
       true}, // dynamic: fields the documents brought
      {R"({"properties":{"a":{"type":"long"},"b":{"type":"keyword"}}})",
       R"({"properties":{"b":{"type":"keyword"},"a":{"type":"long"}},"_meta":{"x":1}})", true},
      {R"({"dynamic":"strict","properties":{"k":{"type":"keyword","ignore_above":256,"index":true}}})",
       R"({"dynamic":"strict","properties":{"k":{"type":"keyword","ignore_above":"256","doc_values":true}}})", true},
      {R"({"dynamic":false,"properties":{"o":{"properties":{"x":{"type":"date"}}}}})",
       R"({"dynamic":"false","properties":{"o":{"type":"object","properties":{"x":{"type":"date"}}}}})", true},
      {R"({"properties":{"a":{"type":"long"}}})", R"({"properties":{"a":{"type":"integer"}}})", false},
      {R"({"properties":{"a":{"type":"long"},"b":{"type":"text"}}})", R"({"properties":{"a":{"type":"long"}}})", false},
      {R"({"properties":{"a":{"type":"text"}}})", R"({"properties":{"a":{"type":"text","analyzer":"french"}}})", false},
      {R"({"properties":{"a":{"type":"text","index":false}}})", R"({"properties":{"a":{"type":"text"}}})", false},
      {R"({"properties":{"a":{"type":"text","copy_to":["x","y"]}}})",
       R"({"properties":{"a":{"type":"text","copy_to":["y","x"]}}})", false},
      {R"({"dynamic":"strict"})", R"({"dynamic":"true"})", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(MappingsEquivalent(parse(c.wanted), parse(c.live)), c.same) << c.wanted << " vs " << c.live;
}

} // namespace

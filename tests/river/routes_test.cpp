#include "RiverFixture.h"

using namespace rivertest;

namespace {

class RiverRouteTest : public RiverTest {
protected:
  // The indices the alias points to, sorted.
  std::vector<std::string> aliased() {
    std::string text;
    std::vector<std::string> names;
    for (const auto& entry : es("GET", "/_alias/docs", {}, &text) == 200 ? parsed(text) : qzVariantMapImpl())
      names.push_back(entry.first);
    return names;
  }
  int docStatus(const std::string& index, const std::string& id, const std::string& routing) {
    return es("GET", "/" + index + "/_doc/" + id + "?routing=" + routing);
  }
};

TEST_F(RiverRouteTest, EachDocumentIsHeldOnceWhereItsRouteSaysThroughEditsRepairsAndANewMapping) {
  // Groups 0-2 go to an index of their own; routing by the parity of n.
  def.route = [](const qzVariantMapImpl& doc, qz::river::RiverRoute& route) {
    const int64_t group = doc.at("group").toInt64();
    route.indexSuffix = group < 3 ? "g" + std::to_string(group) : "";
    route.routing = "o" + std::to_string(doc.at("n").toInt64() % 2);
  };
  load(0, 30);
  EXPECT_TRUE(runOnce(def).caughtUp);
  expectIndexEqualsDatabase();
  const std::vector<std::string> family1{"docs-1", "docs-1-g0", "docs-1-g1", "docs-1-g2"};
  EXPECT_EQ(aliased(), family1);
  EXPECT_EQ(std::pair(docStatus("docs-1-g1", "d1", "o1"), docStatus("docs-1", "d4", "o0")), std::pair(200, 200));

  // Moves out of a suffix index, into one, between routings, and a deletion.
  edit("d1", {{"group", 5}});
  edit("d3", {{"group", 0}});
  edit("d6", {{"n", 7}}); // routing o0 -> o1 in the river index
  remove("d2");
  EXPECT_TRUE(runOnce(def).caughtUp);
  expectIndexEqualsDatabase();
  EXPECT_EQ(std::tuple(docStatus("docs-1", "d1", "o1"), docStatus("docs-1-g0", "d3", "o1"),
                       docStatus("docs-1-g2", "d2", "o0"), docStatus("docs-1", "d6", "o1")),
            std::tuple(200, 200, 404, 200));

  // A stray copy and a missing document, found and repaired.
  ASSERT_EQ(es("PUT", "/docs-1-g0/_doc/d4?routing=o0", R"({"httptools_rev":"x"})"), 201);
  ASSERT_EQ(es("DELETE", "/docs-1-g2/_doc/d9?routing=o1"), 200);
  qz::river::RiverDrift drift;
  std::string error;
  ASSERT_TRUE(qz::river::VerifyRiver(pool, def, true, drift, &error, nullptr)) << error;
  EXPECT_EQ(std::tuple(drift.stale, drift.missing, drift.extra), std::tuple(1u, 1u, 0u));
  expectIndexEqualsDatabase();

  // A new mapping fills a second family; the alias moves with it and the first one goes.
  def.mappingJson = R"({"properties":{"n":{"type":"long"}}})";
  EXPECT_EQ(runOnce(def).liveIndex, "docs-2");
  expectIndexEqualsDatabase();
  EXPECT_EQ(aliased(), (std::vector<std::string>{"docs-2", "docs-2-g0", "docs-2-g1", "docs-2-g2"}));
  for (const auto& index : family1)
    EXPECT_EQ(es("GET", "/" + index), 404) << index;

  ASSERT_TRUE(qz::river::RemoveRiver(pool, def, true, &error)) << error;
  EXPECT_TRUE(aliased().empty());
  EXPECT_EQ(es("GET", "/docs-2-g1"), 404);
}

} // namespace

// VerifyRiver and `httptools river --verify [--repair]` against drift made behind the river's back.
#include "RiverFixture.h"

using namespace rivertest;
using qz::river::RiverDrift;

namespace {

class RiverVerifyTest : public RiverTest {
protected:
  RiverDrift verify(bool repair) {
    RiverDrift drift;
    std::string error;
    EXPECT_TRUE(qz::river::VerifyRiver(pool, def, repair, drift, &error, nullptr)) << error;
    return drift;
  }
};

TEST_F(RiverVerifyTest, DriftOfEveryKindIsFoundAndRepairedExactly) {
  load(0, 2500); // pages of 1000 on both sides, the last one short
  ASSERT_EQ(couch.request("PUT", "/db/_design/v", R"({"views":{}})"), 201);
  {
    qz::river::RiverManager rivers(pool, 1);
    std::string error;
    ASSERT_TRUE(rivers.addRiver(def, &error)) << error;
    ASSERT_TRUE(rivers.runOnce(&error, nullptr)) << error;
  }
  RiverDrift drift = verify(false);
  EXPECT_TRUE(drift.none());
  EXPECT_EQ(drift.documents, 2500u);

  struct Case {
    const char* what;
    std::function<void()> make;
    const char* id;
    std::vector<std::string> RiverDrift::*ids;
  } cases[] = {
      {"deleted from the index", [&] { ASSERT_EQ(es("DELETE", "/docs-1/_doc/d5"), 200); }, "d5",
       &RiverDrift::missingIds},
      {"updated in CouchDB only",
       [&] {
         auto doc = couchDoc("d1500");
         doc["n"] = -1;
         put(doc);
       },
       "d1500", &RiverDrift::staleIds},
      {"written by an earlier release (no revision)",
       [&] { ASSERT_EQ(es("PUT", "/docs-1/_doc/d7", R"({"n":7,"group":0})"), 200); }, "d7", &RiverDrift::staleIds},
      {"left in the index", [&] { ASSERT_EQ(es("PUT", "/docs-1/_doc/ghost", R"({"n":0})"), 201); }, "ghost",
       &RiverDrift::extraIds},
      {"deleted in CouchDB only", [&] { remove("d2400"); }, "d2400", &RiverDrift::extraIds},
  };
  for (const auto& c : cases)
    c.make();
  ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
  drift = verify(false);
  EXPECT_EQ(drift.missing, 1u);
  EXPECT_EQ(drift.stale, 2u);
  EXPECT_EQ(drift.extra, 2u);
  EXPECT_EQ(drift.repaired, 0u);
  for (const auto& c : cases) {
    const auto& ids = drift.*c.ids;
    EXPECT_NE(std::find(ids.begin(), ids.end(), c.id), ids.end()) << c.what;
  }

  drift = verify(true);
  EXPECT_EQ(drift.repaired, 5u);
  ASSERT_EQ(es("POST", "/docs/_refresh"), 200);
  EXPECT_TRUE(verify(false).none());
  expectIndexEqualsDatabase();
}

} // namespace

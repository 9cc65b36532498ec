// The river's Elasticsearch side on its own: indices and their mappings, the checkpoint and its
// lease, and the bulk sender.
#include <HttpTools/river/RiverIndices_p.h>
#include <HttpTools/river/RiverLease_p.h>
#include <HttpTools/river/RiverMapping_p.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include "RiverFixture.h"

using qz::qzVariant;
using namespace qz::river::detail;

namespace {

class RiverElasticTest : public rivertest::RiverTest {
protected:
  IndexManager indices(const std::string& mapping) { return IndexManager(pool, def.elastic, "docs", mapping); }
  StateLocation where() { return {def.elastic, "state", "r", "docs", "db"}; }
  static auto fields(RiverState& s) { return std::tie(s.index, s.seq, s.building, s.buildSeq, s.marker, s.recreated); }
};

TEST_F(RiverElasticTest, ANewMappingIsFilledBesideTheLiveIndexThenTakesTheAlias) {
  const std::string v1 = R"({"properties":{"n":{"type":"long"},"g":{"type":"integer"}}})";
  const std::string v1Reordered = R"({"properties":{"g":{"type":"integer"},"n":{"type":"long"}}})";
  const std::string v2 = R"({"properties":{"n":{"type":"keyword"}}})";
  // The mapping asked for; the live index, the one being built and where its build is, afterwards.
  const std::tuple<std::string, std::string, std::string, std::string> steps[] = {
      {v1, "docs-1", "", "0"},          // first run: created with the alias on it
      {v1Reordered, "docs-1", "", "0"}, // the same mapping
      {v2, "docs-1", "docs-2", "0"},    // a new one: filled beside the live index
      {v2, "docs-1", "docs-2", "5"},    // resumed where it was
      {v1, "docs-1", "", "0"},          // back to the live one's: the build is dropped
      {v2, "docs-1", "docs-2", "0"},
  };
  RiverState state;
  for (const auto& [mapping, index, building, buildSeq] : steps) {
    const RiverOutcome prepared = indices(mapping).prepare(state, nullptr);
    ASSERT_TRUE(prepared.ok()) << prepared.message;
    EXPECT_EQ(std::tie(state.index, state.building, state.buildSeq), std::tie(index, building, buildSeq)) << mapping;
    if (!state.building.empty() && state.buildSeq == "0")
      state.buildSeq = "5";
  }
  EXPECT_EQ(es("GET", "/docs-2"), 200);
  ASSERT_TRUE(indices(v2).swap(state, nullptr).ok());
  EXPECT_EQ(std::tuple(state.index, state.seq, state.building), std::tuple("docs-2", "5", ""));
  std::string aliases;
  ASSERT_EQ(es("GET", "/_alias/docs", {}, &aliases), 200);
  EXPECT_EQ(aliases, R"({"docs-2":{"aliases":{"docs":{}}}})");

  // A rebuild for a recreated database is resumed, not taken for a mapping gone back.
  ASSERT_TRUE(indices(v2).rebuild(state, nullptr).ok());
  state.buildSeq = "4";
  ASSERT_TRUE(indices(v2).prepare(state, nullptr).ok());
  EXPECT_EQ(std::tuple(state.building, state.buildSeq, state.recreated), std::tuple("docs-3", "4", true));
}

TEST_F(RiverElasticTest, OneHolderAtATimeUntilReleasedOrExpired) {
  CheckpointStore storeA(pool, where()), storeB(pool, where()), blind(pool, where());
  RiverLease a(storeA, "A", 60000), b(storeB, "B", 1500);
  RiverState stateA, stateB;
  using Kind = RiverOutcome::Kind;
  auto acquire = [](RiverLease& lease, RiverState& state) { return lease.acquire(state, nullptr).kind; };
  auto renew = [](RiverLease& lease, RiverState& state) { return lease.renew(state, nullptr).kind; };

  ASSERT_EQ(acquire(a, stateA), Kind::Done);
  EXPECT_EQ(acquire(b, stateB), Kind::Idle);
  EXPECT_EQ(b.holder(), "A");
  EXPECT_TRUE(blind.write(stateB, nullptr).idle()); // a create never overwrites
  // The whole checkpoint travels with the lease, an opaque seq (CouchDB 2+) too.
  fields(stateA) = std::tuple("docs-1", "17-g1AAAAB7eJzLYWBg4M\"\\", "docs-2", "7", "5f0c", true);
  EXPECT_EQ(renew(a, stateA), Kind::Done);
  a.release(stateA);
  EXPECT_FALSE(a.held());
  ASSERT_EQ(acquire(b, stateB), Kind::Done); // given back: taken at once, with the checkpoint
  EXPECT_EQ(fields(stateB), fields(stateA));
  EXPECT_EQ(renew(a, stateA), Kind::Idle); // A's version is stale: it holds nothing
  EXPECT_FALSE(a.held());
  EXPECT_EQ(acquire(a, stateA), Kind::Idle);
  EXPECT_EQ(a.holder(), "B");

  // B stops renewing: once its lease has expired, A takes over and B's next renewal fails.
  while (NowMs() <= stateB.expires)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(acquire(a, stateA), Kind::Done);
  EXPECT_EQ(renew(b, stateB), Kind::Idle);
  EXPECT_EQ(std::pair(a.held(), b.held()), std::pair(true, false));
}

TEST_F(RiverElasticTest, SenderAcknowledgesEveryItemOnceAndSettlesConflictsByTheStoredRevision) {
  ASSERT_EQ(es("PUT", "/i", R"({"mappings":{"properties":{"n":{"type":"long"}}}})"), 200);
  // What the index holds before the batch, each at external version 9; "gone" deleted at 10.
  for (const auto& [id, rev] : {std::pair{"same", "5-s"}, {"older", "5-o"}, {"stale", "5-o"}, {"gone", ""}})
    ASSERT_EQ(es("PUT", std::string("/i/_doc/") + id + "?version=9&version_type=external",
                 std::string(R"({"n":9,"httptools_rev":")") + rev + "\"}"),
              201);
  ASSERT_EQ(es("DELETE", "/i/_doc/gone?version=10&version_type=external"), 200);
  elastic.setFaults({.rejectItems = 2, .unavailable = 1, .unavailablePath = "_bulk"});
  // The operation; the stored revision afterwards ("-" when the document is absent).
  const std::pair<BulkOp, std::string> cases[] = {
      {{"i", "a", "1-a", 1, false, R"({"n":1,"httptools_rev":"1-a"})"}, "1-a"},
      {{"i", "same", "5-s", 5, false, R"({"n":5,"httptools_rev":"5-s"})"}, "5-s"},  // sent again: done
      {{"i", "older", "6-n", 8, false, R"({"n":8,"httptools_rev":"6-n"})"}, "6-n"}, // stored is not the winner
      {{"i", "stale", "5-o", 3, true, ""}, "-"}, // deleted since: the deletion wins over the stored state
      {{"i", "gone", "3-g", 4, false, R"({"n":4,"httptools_rev":"3-g"})"}, "3-g"}, // recreated below a deletion
      {{"i", "nothing", "2-x", 2, true, ""}, "-"},                                 // nothing to delete
      {{"i-gone", "moved", "4-m", -1, true, "", "", "", true}, "-"}, // an old copy's index dropped meanwhile
  };
  std::vector<BulkOp> ops;
  for (const auto& [op, after] : cases)
    ops.push_back(op);
  StopSignal stop;
  size_t indexed = 0, deleted = 0, retried = 0;
  auto sender = MakeBulkSender(pool, def.elastic, "r", stop, [&](const BulkProgress& p) {
    std::tie(indexed, deleted, retried) = std::tuple(indexed + p.indexed, deleted + p.deleted, retried + p.retried);
  });
  const RiverOutcome sent = sender->send(ops, nullptr);
  ASSERT_TRUE(sent.ok()) << sent.message;
  // a, then older and gone written again; stale deleted; the rejected items retried at least.
  EXPECT_EQ(std::tuple(ops.size(), indexed, deleted, retried >= 2), std::tuple(0u, 3u, 1u, true));
  for (const auto& [op, after] : cases) {
    std::string text;
    es("GET", "/i/_doc/" + op.id, {}, &text);
    auto doc = parsed(text);
    EXPECT_EQ(doc["found"].toBool() ? doc["_source"].asMap()["httptools_rev"].toString() : "-", after) << op.id;
  }
}

qzVariant parse(const std::string& json) {
  qzVariant v;
  std::string error;
  EXPECT_TRUE(ParseMapping(json, v, &error)) << json << ": " << error;
  return v;
}

TEST(RiverMapping, PackedMappingComesBackIdenticalWhateverTheKeyOrder) {
  const qzVariant a = parse(R"({"properties":{"n":{"type":"long"},"name":{"type":"text","analyzer":"french"}}})");
  const std::string packed = PackMapping(a);
  EXPECT_EQ(packed,
            PackMapping(parse(R"({"properties":{"name":{"analyzer":"french","type":"text"},"n":{"type":"long"}}})")));
  qzVariant back;
  ASSERT_TRUE(UnpackMapping(packed, back));
  EXPECT_EQ(back, a);
  for (const std::string& bad : std::vector<std::string>{"", "not base64 !", "aGVsbG8=" /* "hello", not deflate */,
                                                         packed.substr(0, packed.size() / 2)})
    EXPECT_FALSE(UnpackMapping(bad, back)) << bad;
  for (const std::string bad : {"[]", "{\"a\":"})
    EXPECT_FALSE(ParseMapping(bad, back, nullptr)) << bad;

  // An index made by hand or by an older release: compared with what the server shows, defaults aside.
  EXPECT_TRUE(MappingsEquivalent(parse(R"({"dynamic":false,"properties":{"k":{"type":"keyword","ignore_above":256}}})"),
                                 parse(R"({"dynamic":"false","properties":{"k":{"type":"keyword","ignore_above":"256",)"
                                       R"("doc_values":true}},"_meta":{}})")));
  EXPECT_FALSE(MappingsEquivalent(parse(R"({"properties":{"a":{"type":"long"},"b":{"type":"text"}}})"),
                                  parse(R"({"properties":{"a":{"type":"long"}}})")));
}

} // namespace

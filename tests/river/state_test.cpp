#include <HttpTools/river/RiverLease_p.h>

#include <HttpTools/http/HttpConnectionPool.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

using namespace qz::river::detail;

namespace {

class RiverStateTest : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(elastic.start()) << "the Elasticsearch emulator cannot start: " << elastic.lastError();
  }
  StateLocation where() {
    return {qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl())), "state", "r", "docs", "db"};
  }
  static auto fields(const RiverState& s) {
    return std::tie(s.owner, s.expires, s.index, s.seq, s.building, s.buildSeq, s.marker, s.recreated);
  }

  qztest::ElasticEmulator elastic;
  qz::http::HttpConnectionPool pool;
};

TEST_F(RiverStateTest, CheckpointComesBackAsWrittenAndNeverOverwritesAnotherWrite) {
  CheckpointStore writer(pool, where()), reader(pool, where());
  RiverState read;
  bool found = true;
  ASSERT_TRUE(reader.read(read, found, nullptr).ok());
  EXPECT_FALSE(found);
  const RiverState states[] = {
      {"me", 123, "docs-1", "0", "", "0", "", false},
      {"me", 456, "docs-1", "42", "docs-2", "7", "5f0c", true},
      {"", 0, "docs-3", "17-g1AAAAB7eJzLYWBg4MhgTmHgz8tPSTV0MDQy0TM0\"\\", "", "0", "5f0c",
       false}, // CouchDB 2+: opaque
  };
  for (const auto& state : states) {
    ASSERT_TRUE(writer.write(state, nullptr).ok());
    ASSERT_TRUE(reader.read(read, found, nullptr).ok());
    EXPECT_TRUE(found);
    EXPECT_EQ(fields(read), fields(state));
  }
  // Written since the reader read it: the reader's write is refused, as is a blind create.
  ASSERT_TRUE(writer.write(states[0], nullptr).ok());
  EXPECT_TRUE(reader.write(states[1], nullptr).idle());
  CheckpointStore blind(pool, where());
  EXPECT_TRUE(blind.write(states[1], nullptr).idle());
  ASSERT_TRUE(reader.read(read, found, nullptr).ok());
  EXPECT_EQ(fields(read), fields(states[0]));
}

TEST_F(RiverStateTest, OneHolderAtATimeUntilReleasedOrExpired) {
  CheckpointStore storeA(pool, where()), storeB(pool, where());
  RiverLease a(storeA, "A", 60000), b(storeB, "B", 1500);
  RiverState stateA, stateB;
  using Kind = RiverOutcome::Kind;
  auto acquire = [](RiverLease& lease, RiverState& state) { return lease.acquire(state, nullptr).kind; };
  auto renew = [](RiverLease& lease, RiverState& state) { return lease.renew(state, nullptr).kind; };

  ASSERT_EQ(acquire(a, stateA), Kind::Done);
  EXPECT_EQ(acquire(b, stateB), Kind::Idle);
  EXPECT_EQ(b.holder(), "A");
  stateA.seq = "5";
  EXPECT_EQ(renew(a, stateA), Kind::Done);
  a.release(stateA);
  EXPECT_FALSE(a.held());
  ASSERT_EQ(acquire(b, stateB), Kind::Done); // given back: taken at once, with the checkpoint
  EXPECT_EQ(stateB.seq, "5");
  EXPECT_EQ(renew(a, stateA), Kind::Idle); // A's version is stale: it holds nothing
  EXPECT_FALSE(a.held());
  EXPECT_EQ(acquire(a, stateA), Kind::Idle);
  EXPECT_EQ(a.holder(), "B");

  // B stops renewing: once its lease has expired, A takes over and B's next renewal fails.
  while (NowMs() <= stateB.expires)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(acquire(a, stateA), Kind::Done);
  EXPECT_EQ(renew(b, stateB), Kind::Idle);
  EXPECT_FALSE(b.held());
  EXPECT_TRUE(a.held());
}

} // namespace

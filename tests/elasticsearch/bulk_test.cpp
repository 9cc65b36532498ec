#include <HttpTools/elasticsearch/BulkIndexer.h>

#include "EsFixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

using qz::elasticsearch::BulkIndexer;

namespace {

struct Failure {
  std::string index, id;
  int status;
  std::string reason;
};

class BulkTest : public EsFixture {
protected:
  void watch(BulkIndexer& indexer) {
    indexer.onItemFailure(
        [this](const std::string& index, const std::string& id, int status, const std::string& reason) {
          std::lock_guard<std::mutex> lock(mutex);
          failures.push_back({index, id, status, reason});
        });
  }
  static qz::qzVariantMapImpl doc(int n) {
    return {{"n", n}, {"name", "item \"" + std::to_string(n) + "\"\n"}, {"tags", qz::qzVariantListImpl{"a", n % 3}}};
  }
  // Waits up to 5 s for `done`.
  template <typename F> static bool eventually(F done) {
    for (int i = 0; i < 500 && !done(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
  }

  std::mutex mutex;
  std::vector<Failure> failures;
};

TEST_F(BulkTest, IndexesDeletesAndCountsInNdjson) {
  BulkIndexer indexer(pool, server, 3, 100);
  watch(indexer);
  for (int i = 0; i < 1050; ++i)
    ASSERT_TRUE(indexer.index("things", "t" + std::to_string(i), doc(i)));
  std::string error;
  ASSERT_TRUE(indexer.flush(&error)) << error;
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(indexer.remove("things", "t" + std::to_string(i)));
  ASSERT_TRUE(indexer.remove("things", "never-there")); // a 404 delete is not a failure
  ASSERT_TRUE(indexer.flush(&error)) << error;
  EXPECT_EQ(emulator.docCount("things"), 1000u);
  const auto stats = indexer.stats();
  EXPECT_EQ(stats.indexed, 1050u);
  EXPECT_EQ(stats.deleted, 51u);
  EXPECT_EQ(stats.failed + stats.retried, 0u);
  EXPECT_EQ(emulator.stats().bulkRequests, 11u + 1u);
  EXPECT_EQ(emulator.stats().lastBulkContentType, "application/x-ndjson");
  EXPECT_TRUE(failures.empty());
  EXPECT_FALSE(indexer.index("", "x", doc(1)));
  EXPECT_FALSE(indexer.remove("things", ""));

  std::string back;
  ASSERT_EQ(call("GET", "/things/_doc/t77", "", &back), 200);
  EXPECT_NE(back.find(R"("name":"item \"77\"\n")"), std::string::npos) << back;
}

TEST_F(BulkTest, RejectedItemsAreRetriedWithoutDuplicates) {
  auto f = emulator.faults();
  f.rejectItems = 7; // spread over the first request and its retries
  emulator.setFaults(f);
  BulkIndexer indexer(pool, server, 2, 5);
  indexer.setRetries(5, 1);
  watch(indexer);
  for (int i = 0; i < 20; ++i)
    indexer.index("r", "id" + std::to_string(i), doc(i));
  std::string error;
  EXPECT_TRUE(indexer.flush(&error)) << error;
  EXPECT_EQ(emulator.docCount("r"), 20u);
  EXPECT_EQ(emulator.stats().bulkItems, 27u); // each rejected item went again, alone
  const auto stats = indexer.stats();
  EXPECT_EQ(stats.indexed, 20u);
  EXPECT_EQ(stats.retried, 7u);
  EXPECT_TRUE(failures.empty());
}

TEST_F(BulkTest, RetriesRunOutAndMapperErrorsAreReportedWithIds) {
  ASSERT_EQ(call("PUT", "/typed", R"({"mappings":{"properties":{"n":{"type":"long"}}}})"), 200);
  auto f = emulator.faults();
  f.rejectItems = 3; // the first item is rejected three times: more than its two retries
  emulator.setFaults(f);
  BulkIndexer indexer(pool, server, 1, 10);
  indexer.setRetries(2, 1);
  watch(indexer);
  indexer.indexJson("typed", "first", R"({"n":1})");
  std::string error;
  EXPECT_FALSE(indexer.flush(&error));
  EXPECT_NE(error.find("1 bulk item(s) failed; first: typed/first: 429 es_rejected_execution_exception"),
            std::string::npos)
      << error;
  indexer.indexJson("typed", "bad-1", R"({"n":"not a number"})");
  indexer.indexJson("typed", "good", R"({"n":"42"})");
  indexer.indexJson("typed", "bad-2", R"({"n":[1,true]})");
  EXPECT_FALSE(indexer.flush(&error));
  EXPECT_NE(error.find("2 bulk item(s) failed"), std::string::npos) << error;
  std::map<std::string, Failure> byId;
  for (const auto& fl : failures)
    byId[fl.id] = fl;
  ASSERT_EQ(byId.size(), 3u);
  EXPECT_EQ(byId["first"].status, 429);
  for (const char* id : {"bad-1", "bad-2"}) {
    EXPECT_EQ(byId[id].index, "typed");
    EXPECT_EQ(byId[id].status, 400);
    EXPECT_NE(byId[id].reason.find("mapper_parsing_exception"), std::string::npos) << byId[id].reason;
  }
  EXPECT_EQ(emulator.docCount("typed"), 1u);
  const auto stats = indexer.stats();
  EXPECT_EQ(stats.failed, 3u);
  EXPECT_EQ(stats.retried, 2u);
  EXPECT_EQ(stats.indexed, 1u);
  // The failures were the previous flush's: a clean batch flushes true again.
  indexer.indexJson("typed", "later", R"({"n":2})");
  EXPECT_TRUE(indexer.flush(&error)) << error;
}

TEST_F(BulkTest, WholeRequestAnswered503IsSentAgain) {
  auto f = emulator.faults();
  f.unavailable = 2;
  f.unavailablePath = "_bulk";
  emulator.setFaults(f);
  BulkIndexer indexer(pool, server, 1, 1000);
  indexer.setRetries(3, 1);
  watch(indexer);
  for (int i = 0; i < 30; ++i)
    indexer.index("u", std::to_string(i), doc(i));
  std::string error;
  EXPECT_TRUE(indexer.flush(&error)) << error;
  EXPECT_EQ(emulator.docCount("u"), 30u);
  EXPECT_EQ(indexer.stats().retried, 60u);
  EXPECT_EQ(emulator.stats().bulkRequests, 1u); // the two refused requests never reached the bulk handler
}

TEST_F(BulkTest, BatchesLeaveByCountBytesAndInterval) {
  {
    BulkIndexer byCount(pool, server, 1, 10, 1 << 30);
    for (int i = 0; i < 35; ++i)
      byCount.index("c", std::to_string(i), doc(i));
    EXPECT_TRUE(eventually([&] { return emulator.docCount("c") == 30; })) << emulator.docCount("c");
    EXPECT_EQ(emulator.stats().bulkRequests, 3u);
  }
  EXPECT_EQ(emulator.docCount("c"), 35u); // the destructor flushed the rest
  emulator.reset();
  {
    BulkIndexer byBytes(pool, server, 1, 100000, 2000);
    const std::string pad(300, 'x');
    for (int i = 0; i < 20; ++i) // about 350 bytes each: a batch leaves every 6 documents
      byBytes.indexJson("b", std::to_string(i), R"({"pad":")" + pad + "\"}");
    EXPECT_TRUE(eventually([&] { return emulator.docCount("b") == 18; })) << emulator.docCount("b");
    EXPECT_EQ(emulator.stats().bulkRequests, 3u);
  }
  emulator.reset();
  BulkIndexer byTime(pool, server, 1, 100000, 1 << 30);
  byTime.setFlushIntervalMs(50);
  byTime.index("t", "1", doc(1));
  byTime.index("t", "2", doc(2));
  EXPECT_TRUE(eventually([&] { return emulator.docCount("t") == 2; }));
  EXPECT_EQ(emulator.stats().bulkRequests, 1u);
}

TEST_F(BulkTest, UnreachableServerFailsEveryItemAfterRetries) {
  emulator.stop();
  BulkIndexer indexer(pool, server, 1, 10);
  indexer.setRetries(1, 1);
  watch(indexer);
  indexer.index("x", "a", doc(1));
  indexer.index("x", "b", doc(2));
  std::string error;
  EXPECT_FALSE(indexer.flush(&error));
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].status, 0);
  EXPECT_NE(failures[0].reason.find("no answer"), std::string::npos) << failures[0].reason;
}

} // namespace

#include <HttpTools/elasticsearch/BulkIndexer.h>

#include "EsFixture.h"
#include "support/SilentListener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

using namespace qz::elasticsearch;

namespace {

class BulkTest : public EsFixture {
protected:
  // Failures as "index/id status reason's first 6 bytes".
  void watch(BulkIndexer& indexer) {
    indexer.onItemFailure([this](const std::string& index, const std::string& id, int status, const std::string& why) {
      std::lock_guard<std::mutex> lock(mutex);
      failures.push_back(index + "/" + id + " " + std::to_string(status) + " " + why.substr(0, 6));
    });
  }
  static qz::qzVariantMapImpl doc(int n) {
    return {{"n", n}, {"name", "item \"" + std::to_string(n) + "\"\n"}, {"tags", qz::qzVariantListImpl{"a", n % 3}}};
  }
  static std::string counts(const BulkStats& s) {
    return "indexed " + std::to_string(s.indexed) + ", deleted " + std::to_string(s.deleted) + ", failed " +
           std::to_string(s.failed) + ", retried " + std::to_string(s.retried) + ", cancelled " +
           std::to_string(s.cancelled);
  }
  std::mutex mutex;
  std::vector<std::string> failures;
};

TEST_F(BulkTest, IndexesDeletesAndCountsInNdjsonWithRequestOptionsAndGzip) {
  const struct {
    int gzipLevel;
    const char *refresh, *pipeline, *query, *encoding;
  } cases[] = {{0, "", "", "", ""}, {1, "wait_for", "geo", "pipeline=geo&refresh=wait_for", "gzip"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    emulator.reset();
    BulkIndexer indexer(pool, server, 3, 100);
    indexer.setRequestOptions({c.refresh, c.pipeline, c.gzipLevel});
    watch(indexer);
    std::string error, stored;
    for (int i = 0; i < 1050; ++i)
      ASSERT_TRUE(indexer.index("things", "t" + std::to_string(i), doc(i)));
    ASSERT_TRUE(indexer.flush(&error)) << error;
    for (int i = 0; i < 50; ++i)
      ASSERT_TRUE(indexer.remove("things", "t" + std::to_string(i)));
    ASSERT_TRUE(indexer.remove("things", "never-there")); // a 404 delete is not a failure
    ASSERT_TRUE(indexer.flush(&error)) << error;
    EXPECT_EQ(counts(indexer.stats()), "indexed 1050, deleted 51, failed 0, retried 0, cancelled 0");
    const auto s = emulator.stats();
    EXPECT_EQ(std::tuple(emulator.docCount("things"), s.bulkRequests, s.lastBulkContentType, s.lastBulkQuery,
                         s.lastBulkContentEncoding, call("GET", "/things/_doc/t1049", "", &stored)),
              std::tuple(1000u, 11u + 1u, "application/x-ndjson", c.query, c.encoding, 200));
    EXPECT_NE(stored.find(R"("name":"item \"1049\"\n")"), std::string::npos) << stored;
  }
  EXPECT_TRUE(failures.empty());
}

// Refused items and refused requests are sent again until their retries run out; nothing is stored
// twice. The last row has no server at all.
TEST_F(BulkTest, RetriesOfRejectedItemsUnavailableServerAndNoServer) {
  const struct {
    int rejectItems, unavailable;
    unsigned threads, batch, retries, docs;
    const char* error; // the start of flush()'s, "" when it succeeds
    const char* counts;
    size_t stored, bulkItems;
    int bulkRequests; // -1: any
  } rows[] = {
      // Items rejected, spread over the first request and its retries.
      {7, 0, 2, 5, 5, 20, "", "indexed 20, deleted 0, failed 0, retried 7, cancelled 0", 20, 27, -1},
      // One item rejected more often than it is retried.
      {3, 0, 1, 10, 2, 1, "1 bulk item(s) failed; first: r/0: 429 es_rejected_execution_exception",
       "indexed 0, deleted 0, failed 1, retried 2, cancelled 0", 0, 3, 3},
      // The whole request answered 503 twice.
      {0, 2, 1, 1000, 3, 30, "", "indexed 30, deleted 0, failed 0, retried 60, cancelled 0", 30, 30, 1},
      // No server.
      {0, 0, 1, 10, 1, 2, "2 bulk item(s) failed; first: r/0: no answer: ",
       "indexed 0, deleted 0, failed 2, retried 2, cancelled 0", 0, 0, 0},
  };
  const ElasticConnectionParameters nowhere(qz::Url("http://127.0.0.1:1")); // nothing listens on port 1
  for (const auto& r : rows) {
    SCOPED_TRACE(r.counts);
    emulator.reset();
    inject([&](auto& f) { f.rejectItems = r.rejectItems, f.unavailable = r.unavailable, f.unavailablePath = "_bulk"; });
    failures.clear();
    BulkIndexer indexer(pool, r.bulkRequests ? server : nowhere, r.threads, r.batch);
    indexer.setRetries(r.retries, 1);
    watch(indexer);
    for (unsigned i = 0; i < r.docs; ++i)
      indexer.index("r", std::to_string(i), doc(i));
    std::string error;
    EXPECT_EQ(indexer.flush(&error), !*r.error);
    EXPECT_TRUE(error.starts_with(r.error)) << error;
    EXPECT_EQ(counts(indexer.stats()), r.counts);
    const auto s = emulator.stats(); // -1: as the threads' timing makes it
    EXPECT_EQ(
        std::tuple(failures.size(), emulator.docCount("r"), s.bulkItems, r.bulkRequests < 0 ? -1 : int(s.bulkRequests)),
        std::tuple(size_t(indexer.stats().failed), r.stored, r.bulkItems, r.bulkRequests));
  }
}

// A batch leaves when it holds enough items, or bytes, or at the interval; the destructor cancels
// what has not left.
TEST_F(BulkTest, BatchesLeaveByCountBytesAndInterval) {
  const struct {
    unsigned batch, bytes, intervalMs;
    size_t docs, stored, requests;
  } rows[] = {{10, 1u << 30, 0, 35, 30, 3}, {100000, 2000, 0, 20, 18, 3}, {100000, 1u << 30, 50, 2, 2, 1}};
  for (const auto& r : rows) {
    emulator.reset();
    std::atomic<size_t> cancelled{0}, acknowledged{0};
    {
      BulkIndexer indexer(pool, server, 1, r.batch, r.bytes);
      indexer.setFlushIntervalMs(r.intervalMs);
      indexer.onItemOutcome(
          [&](const BulkItem&, const BulkOutcome& o) { ++(o.errorType == "cancelled" ? cancelled : acknowledged); });
      for (size_t i = 0; i < r.docs; ++i) // about 350 bytes each: 6 of them pass 2000 bytes
        indexer.indexJson("b", std::to_string(i), R"({"pad":")" + std::string(300, 'x') + "\"}");
      // Acknowledged, not only stored: the destructor cuts a request whose answer is not yet read.
      EXPECT_TRUE(eventually([&] { return acknowledged == r.stored; })) << acknowledged;
    }
    EXPECT_EQ(std::tuple(emulator.docCount("b"), emulator.stats().bulkRequests, size_t(cancelled)),
              std::tuple(r.stored, r.requests, r.docs - r.stored));
  }
}

using V = BulkVersionType;
// An item of index "o" with the options given.
BulkItem item(BulkOp op, const std::string& id, const std::string& json = "", int64_t version = -1,
              V type = V::Internal, const std::string& routing = "", int64_t ifSeqNo = -1, int64_t ifPrimaryTerm = -1,
              bool upsert = false, const std::string& index = "o") {
  return {op, index, id, routing, version, type, ifSeqNo, ifPrimaryTerm, json, upsert};
}

// Each op type and option reaches Elasticsearch in one request, applied in order, and each item's
// outcome comes back with the item as sent; a data stream takes creates only. Items Elasticsearch
// would refuse with the whole request never leave.
TEST_F(BulkTest, EveryOpAndOptionHasItsOutcomeAndItemsElasticsearchRefusesNeverLeave) {
  ASSERT_EQ(call("PUT", "/_index_template/logs", R"({"index_patterns":["logs-*"],"data_stream":{}})"), 200);
  auto stream = [](BulkOp op, const char* id, const char* json) {
    return item(op, id, json, -1, V::Internal, "", -1, -1, false, "logs-x");
  };
  const struct {
    BulkItem item;
    int status;
    const char* result; // or the error type
    int64_t version;
  } cases[] = {
      {item(BulkOp::Index, "a", R"({"n":1})"), 201, "created", 1},
      {item(BulkOp::Create, "a", R"({"n":2})"), 409, "version_conflict_engine_exception", -1},
      {item(BulkOp::Update, "a", R"({"m":2})"), 200, "updated", 2},
      {item(BulkOp::Update, "a", R"({"m":2})"), 200, "noop", 2},
      {item(BulkOp::Update, "b", R"({"m":3})"), 404, "document_missing_exception", -1},
      {item(BulkOp::Update, "b", R"({"m":3})", -1, V::Internal, "", -1, -1, true), 201, "created", 1},
      {item(BulkOp::Index, "a", "{}", -1, V::Internal, "", 1, 1), 200, "updated", 3},
      {item(BulkOp::Index, "a", "{}", -1, V::Internal, "", 1, 1), 409, "version_conflict_engine_exception", -1},
      {item(BulkOp::Index, "x", R"({"v":7})", 7, V::External, "r1"), 201, "created", 7},
      {item(BulkOp::Index, "x", "{}", 7, V::External), 409, "version_conflict_engine_exception", -1},
      {item(BulkOp::Index, "x", R"({"v":"gte"})", 7, V::ExternalGte, "r2"), 200, "updated", 7},
      {item(BulkOp::Delete, "b"), 200, "deleted", 2},
      {item(BulkOp::Delete, "never"), 404, "not_found", 1},
      {stream(BulkOp::Create, "1", R"({"@timestamp":5})"), 201, "created", 1},
      {stream(BulkOp::Index, "2", R"({"@timestamp":5})"), 400, "illegal_argument_exception", -1},
      {stream(BulkOp::Create, "3", R"({"n":3})"), 400, "mapper_parsing_exception", -1},
  };
  // What Elasticsearch would refuse for the whole request is refused alone, before sending.
  const std::pair<BulkItem, const char*> refused[] = {
      {item(BulkOp::Create, "c", "{}", 2, V::External), "create operations only support internal versioning"},
      {item(BulkOp::Update, "u", "{}", 2, V::External), "update requests do not support versioning"},
      {item(BulkOp::Index, "i", "{}", 2), "a version needs an external version"},
      {item(BulkOp::Index, "i", "{}", -1, V::External), "needs a version >= 0"},
      {item(BulkOp::Index, "i", "{}", -1, V::Internal, "", 3), "go together"},
      {item(BulkOp::Index, "", "{}"), "needs an index and an id"},
      {item(BulkOp::Update, "u", "{\n}"), "one JSON object on one line"},
  };
  BulkIndexer indexer(pool, server, 1, 1000);
  watch(indexer);
  std::vector<std::pair<BulkItem, BulkOutcome>> got;
  indexer.onItemOutcome([&](const BulkItem& i, const BulkOutcome& o) { got.emplace_back(i, o); });
  for (const auto& c : cases)
    ASSERT_TRUE(indexer.add(c.item));
  for (const auto& [it, message] : refused) {
    std::string why;
    EXPECT_FALSE(indexer.add(it, &why)) << message;
    EXPECT_NE(why.find(message), std::string::npos) << why;
  }
  std::string error, back;
  EXPECT_FALSE(indexer.flush(&error)); // the expected conflicts
  EXPECT_TRUE(error.starts_with("6 bulk item(s) failed; first: o/a: 409 version_conflict_engine_exception")) << error;
  ASSERT_EQ(got.size(), std::size(cases));
  for (size_t i = 0; i < got.size(); ++i) {
    const auto& [sent, o] = got[i];
    const auto& c = cases[i];
    EXPECT_EQ(std::tuple(sent.op, sent.id, sent.json, sent.routing, o.status, o.ok() ? o.result : o.errorType,
                         o.version, o.seqNo >= 0),
              std::tuple(c.item.op, c.item.id, c.item.json, c.item.routing, c.status, c.result, c.version, o.ok()))
        << "case " << i << " " << o.errorReason;
  }
  EXPECT_EQ(call("GET", "/o/_doc/x", "", &back), 200); // the routing went with the item
  EXPECT_NE(back.find(R"("_routing":"r2","found":true,"_source":{"v":"gte"})"), std::string::npos) << back;
  EXPECT_EQ(failures, (std::vector<std::string>{"o/a 409 versio", "o/b 404 docume", "o/a 409 versio", "o/x 409 versio",
                                                "logs-x/2 400 illega", "logs-x/3 400 mapper"}));
  ASSERT_TRUE(indexer.add(item(BulkOp::Index, "later", "{}"))); // the next clean batch flushes true again
  EXPECT_TRUE(indexer.flush(&error)) << error;
  EXPECT_EQ(counts(indexer.stats()) + ", requests " + std::to_string(emulator.stats().bulkRequests),
            "indexed 9, deleted 2, failed 6, retried 0, cancelled 0, requests 2");
}

// stop() and the destructor end a retry backoff, or a request on the wire, at once; what was not
// acknowledged is reported cancelled. The bounds leave room for sanitizers on a loaded machine.
TEST_F(BulkTest, StopAndDestructorEndBackoffAndCancelTheRest) {
  // onTheWire: the first batch waits for a server that never answers
  for (const auto& [byDestructor, onTheWire] : {std::pair{false, false}, {true, false}, {true, true}}) {
    SCOPED_TRACE(std::string(byDestructor ? "~BulkIndexer" : "stop()") + (onTheWire ? " during a request" : ""));
    emulator.reset();
    inject([](auto& f) { f.rejectItems = 1000; }); // every attempt is refused: the first batch waits in a 10 s backoff
    qztest::SilentListener silent;
    std::atomic<size_t> cancelled{0}, others{0};
    auto indexer = std::make_unique<BulkIndexer>(
        pool, onTheWire ? ElasticConnectionParameters(qz::Url(silent.url())) : server, 1, 4);
    indexer->setRetries(3, 10000);
    indexer->onItemOutcome(
        [&](const BulkItem&, const BulkOutcome& o) { ++(o.errorType == "cancelled" ? cancelled : others); });
    for (int i = 0; i < 10; ++i) // a batch of 4 sent, one queued, 2 not yet full
      ASSERT_TRUE(indexer->index("s", std::to_string(i), doc(i)));
    ASSERT_TRUE(eventually([&, onTheWire = onTheWire] { // a binding is captured by name for clang before 16
      return onTheWire ? silent.accepted() == 1 : indexer->stats().retried == 4;
    }));
    const auto t0 = std::chrono::steady_clock::now();
    if (byDestructor)
      indexer.reset();
    else
      indexer->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    EXPECT_TRUE(eventually([&] { return cancelled == 10; })) << cancelled;
    EXPECT_EQ(std::tuple(size_t(others), emulator.stats().bulkRequests), std::tuple(0u, onTheWire ? 0u : 1u));
    std::string error;
    if (indexer) {
      EXPECT_FALSE(indexer->index("s", "late", doc(1)) || indexer->flush(&error));
      EXPECT_TRUE(error.starts_with("10 bulk item(s) failed")) << error;
    }
  }
}

// flush() waits through retries, and returns when its cancel flag is set from another thread (once
// the batch that flush() sent was refused: flush() is waiting).
TEST_F(BulkTest, FlushIsInterruptedByItsFlag) {
  inject([](auto& f) { f.rejectItems = 1000; });
  BulkIndexer indexer(pool, server, 1, 100);
  indexer.setRetries(3, 10000);
  for (int i = 0; i < 3; ++i)
    indexer.index("i", std::to_string(i), doc(i));
  std::atomic<bool> cancel{false};
  std::thread canceller([&] {
    eventually([&] { return indexer.stats().retried == 3; });
    cancel = true;
  });
  std::string error;
  EXPECT_FALSE(indexer.flush(&error, &cancel));
  canceller.join();
  // Still in their backoff: neither failed nor cancelled.
  EXPECT_EQ(std::tuple(error, indexer.stats().failed + indexer.stats().cancelled),
            std::tuple("interrupted with 3 bulk item(s) not yet acknowledged", 0u));
}

} // namespace

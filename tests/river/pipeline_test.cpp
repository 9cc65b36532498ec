#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverRunner_p.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>

using namespace qz::river::detail;

namespace {

qz::couch::Change MakeChange(const std::string& id, const std::string& rev, const std::string& doc,
                             bool deleted = false) {
  qz::couch::Change c;
  c.id = id;
  c.revs = {rev};
  c.deleted = deleted;
  qz::json::Json2Variant::Convert(doc.data(), doc.size(), c.doc);
  return c;
}

TEST(RiverPipeline, EachChangeBecomesTheOperationItAsksFor) {
  const Transform transform = [](qz::qzVariantMapImpl& doc) {
    if (doc.count("boom"))
      throw std::runtime_error("boom");
    doc["seen"] = 1;
    return !doc.count("drop");
  };
  // An operation's action line and source line (if any), written here with ' for ".
  auto lines = [](const char* action, const char* id, int version, std::string source = {}) {
    std::string out = std::string("{'") + action + "':{'_index':'i-1','_id':'" + id +
                      "','version':" + std::to_string(version) + ",'version_type':'external'}}\n" + source +
                      (source.empty() ? "" : "\n");
    std::replace(out.begin(), out.end(), '\'', '"');
    return out;
  };
  struct Case {
    qz::couch::Change change;
    bool needsOp, skipped;
    std::string line;
  } cases[] = {
      {MakeChange("a", "3-x", R"({"_id":"a","_rev":"3-x","_conflicts":["2-y"],"n":1})"), true, false,
       lines("index", "a", 3, "{'n':1,'seen':1}")},
      {MakeChange("q\\", "4-x", "null", true), true, false, lines("delete", "q\\\\", 4)},
      {MakeChange("_design/v", "1-x", R"({"views":{}})"), true, false, lines("delete", "_design/v", 1)},
      {MakeChange("d", "2-x", R"({"drop":true})"), true, true, lines("delete", "d", 2)}, // left out
      {MakeChange("t", "12-x", R"({"boom":1})"), true, true, lines("delete", "t", 12)},  // transform threw
      {MakeChange("r", "", R"({"n":2})"), false, false, ""},                             // no revision
  };
  for (const auto& c : cases) {
    BulkOp op;
    bool skipped = true;
    EXPECT_EQ(ChangeToOp(c.change, "i-1", transform, op, skipped), c.needsOp) << c.change.id;
    EXPECT_EQ(skipped, c.skipped) << c.change.id;
    EXPECT_EQ(op.line, c.line) << c.change.id;
  }
}

// Holds each batch until the producer has started the add() that must wait for it.
class GatedSender : public BulkSender {
public:
  RiverOutcome send(std::vector<BulkOp>& ops, const bool*) override {
    std::unique_lock<std::mutex> lock(mutex);
    const size_t k = batches.size() + 1;
    batches.push_back(ops.size());
    cv.wait(lock, [&] { return producerDone || started >= k * batchDocs + batchDocs; });
    returnedWhileInFlight.push_back(returned.load());
    ops.clear();
    return k == failAt ? RiverOutcome::Failure(Side::Elastic, true, "refused") : RiverOutcome::Done();
  }
  void progress(std::atomic<size_t>& counter) {
    std::lock_guard<std::mutex> lock(mutex);
    ++counter;
    cv.notify_all();
  }

  size_t batchDocs = 3, failAt = 0;
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<size_t> started{0}, returned{0};
  bool producerDone = false;
  std::vector<size_t> batches, returnedWhileInFlight;
};

TEST(RiverPipeline, BatchesTravelOneAtATimeAndCommitInOrderUntilOneFails) {
  struct Case {
    size_t noOpEvery, failAt;
    std::vector<size_t> batches;
    std::vector<std::string> commits;
    bool ok;
  } cases[] = {
      {0, 0, {3, 3, 3, 1}, {"s2", "s5", "s8", "s9"}, true},
      {4, 2, {3, 3}, {"s2"}, false}, // s3 and s7 carry no operation; the batch up to s6 fails
  };
  for (const auto& c : cases) {
    GatedSender sender;
    sender.failAt = c.failAt;
    std::vector<std::string> commits;
    BulkPipeline pipeline(
        sender, 3,
        [&](const std::string& seq) {
          commits.push_back(seq);
          return RiverOutcome::Done();
        },
        nullptr);
    bool accepted = true;
    for (size_t i = 0; i < 10 && accepted; ++i) {
      BulkOp op{"d", std::string(10, 'x')};
      sender.progress(sender.started);
      accepted = pipeline.add(c.noOpEvery && i % c.noOpEvery == 3 ? nullptr : &op, "s" + std::to_string(i));
      sender.progress(sender.returned);
    }
    {
      std::lock_guard<std::mutex> lock(sender.mutex);
      sender.producerDone = true;
    }
    sender.cv.notify_all();
    const RiverOutcome outcome = pipeline.flush();
    EXPECT_EQ(outcome.ok(), c.ok) << outcome.message;
    EXPECT_EQ(sender.batches, c.batches);
    EXPECT_EQ(commits, c.commits);
    // While batch k is written, the producer fills batch k+1 and waits in the add that completes it.
    for (size_t k = 0; !c.noOpEvery && k + 1 < sender.returnedWhileInFlight.size(); ++k)
      EXPECT_LE(sender.returnedWhileInFlight[k], (k + 2) * 3 - 1) << "batch " << k + 1;
  }
}

TEST(RiverPipeline, SenderAcknowledgesEveryItemOnceThroughRejectionsAndRefusals) {
  qztest::ElasticEmulator elastic;
  ASSERT_TRUE(elastic.start()) << "the Elasticsearch emulator cannot start: " << elastic.lastError();
  httplib::Client es("127.0.0.1", elastic.port());
  ASSERT_EQ(es.Put("/i", R"({"mappings":{"properties":{"n":{"type":"long"}}}})", "application/json")->status, 200);
  ASSERT_EQ(es.Put("/i/_doc/newer?version=9&version_type=external", R"({"n":9})", "application/json")->status, 201);
  qztest::ElasticEmulator::Faults faults;
  faults.rejectItems = 2;
  faults.unavailable = 1;
  faults.unavailablePath = "_bulk";
  elastic.setFaults(faults);

  auto op = [](const char* id, bool remove, const char* source) {
    std::string line = std::string("{\"") + (remove ? "delete" : "index") + "\":{\"_index\":\"i\",\"_id\":\"" + id +
                       "\",\"version\":1,\"version_type\":\"external\"}}\n";
    return BulkOp{id, remove ? line : line + source + "\n", remove};
  };
  std::vector<BulkOp> ops{op("a", false, R"({"n":1})"), op("b", false, R"({"n":2})"), op("newer", false, R"({"n":1})"),
                          op("gone", true, ""), op("bad", false, R"({"n":"x"})")};
  qz::http::HttpConnectionPool pool;
  StopSignal stop;
  BulkProgress total;
  auto sender = MakeBulkSender(pool, qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl())), "r",
                               stop, [&](const BulkProgress& p) {
                                 total.indexed += p.indexed;
                                 total.deleted += p.deleted;
                                 total.failed += p.failed;
                                 total.retried += p.retried;
                               });
  const RiverOutcome sent = sender->send(ops, nullptr);
  ASSERT_TRUE(sent.ok()) << sent.message;
  EXPECT_TRUE(ops.empty());
  EXPECT_EQ(total.indexed, 2u); // a, b: "newer" keeps its version 9, "gone" had nothing to delete
  EXPECT_EQ(total.failed, 1u);  // "bad" does not fit the mapping
  EXPECT_EQ(total.retried, 3u); // the whole request once, then a and b
  EXPECT_NE(es.Get("/i/_doc/newer")->body.find("\"n\":9"), std::string::npos);
}

TEST(RiverPipeline, FeedFailureIsPermanentUnlessTheFeedUsedUpItsRetries) {
  EXPECT_TRUE(RiverRunner::FeedFailure("404", 0, 3).permanent);
  EXPECT_TRUE(RiverRunner::FeedFailure("404 after a reconnection", 2, 3).permanent);
  EXPECT_FALSE(RiverRunner::FeedFailure("unreachable", 3, 3).permanent);
  EXPECT_EQ(RiverRunner::FeedFailure("x", 3, 3).side, Side::Couch);
}

TEST(RiverPipeline, PausesEndAtOnceOnStopOrCancel) {
  for (const bool viaCancel : {false, true}) {
    StopSignal stop;
    bool cancel = false;
    std::atomic<bool> ended{false};
    const auto started = std::chrono::steady_clock::now();
    std::thread sleeper([&] { ended = !stop.pause(60000, &cancel); });
    if (viaCancel)
      std::atomic_ref<bool>(cancel).store(true);
    else
      stop.stop();
    sleeper.join();
    EXPECT_TRUE(ended);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5)); // not the minute asked
  }
}

} // namespace

#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverRunner_p.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>
#include <tuple>

using namespace qz::river::detail;

namespace {

// A change read with every leaf revision (`revs`); the document carries the winner's _rev.
qz::couch::Change MakeChange(const std::string& id, std::vector<std::string> revs, const std::string& doc,
                             bool deleted = false) {
  qz::couch::Change c;
  c.id = id;
  c.revs = std::move(revs);
  c.deleted = deleted;
  qz::json::Json2Variant::Convert(doc.data(), doc.size(), c.doc);
  return c;
}

TEST(RiverPipeline, EachChangeBecomesTheOperationItAsksFor) {
  const Transform transform = [](qz::qzVariantMapImpl& doc, qz::river::RiverRoute& route) {
    if (doc.count("boom"))
      throw std::runtime_error("boom");
    doc["seen"] = 1;
    route.routing = doc["owner"].toString();
    route.indexSuffix = doc["tenant"].toString();
    doc.erase("owner");
    doc.erase("tenant");
    return !doc.count("drop");
  };
  struct Case {
    qz::couch::Change change;
    bool needsOp, skipped, remove;
    std::string rev;
    int64_t version;
    std::string source, index = "i-1", routing = "";
  } cases[] = {
      {MakeChange("o", {"1-x"}, R"({"_rev":"1-x","owner":"ann","tenant":"t1"})"), true, false, false, "1-x", 1,
       R"({"httptools_rev":"1-x","seen":1})", "i-1-t1", "ann"},
      {MakeChange("p", {"1-x"}, R"({"_rev":"1-x","owner":"bob","drop":1})"), true, true, true, "1-x", 1, ""},
      {MakeChange("a", {"3-x"}, R"({"_id":"a","_rev":"3-x","_revisions":{},"n":1})"), true, false, false, "3-x", 3,
       R"({"httptools_rev":"3-x","n":1,"seen":1})"},
      // A lower leaf won after the winner was deleted: the leaves in feed order, the sum rises.
      {MakeChange("c", {"4-d", "3-b"}, R"({"_id":"c","_rev":"3-b","n":2})"), true, false, false, "3-b", 7,
       R"({"httptools_rev":"3-b","n":2,"seen":1})"},
      {MakeChange("q", {"4-x", "2-y"}, R"({"_id":"q","_rev":"4-x","_deleted":true})", true), true, false, true, "4-x",
       6, ""},
      {MakeChange("_design/v", {"1-x"}, R"({"_rev":"1-x","views":{}})"), true, false, true, "1-x", 1, ""},
      {MakeChange("d", {"2-x"}, R"({"_rev":"2-x","drop":true})"), true, true, true, "2-x", 2, ""},  // left out
      {MakeChange("t", {"12-x"}, R"({"_rev":"12-x","boom":1})"), true, true, true, "12-x", 12, ""}, // threw
      {MakeChange("r", {}, R"({"n":2})"), false, false, false, "", 0, ""},                          // no revision
  };
  for (const auto& c : cases) {
    BulkOp op;
    bool skipped = true;
    const bool needsOp = ChangeToOp(c.change, "i-1", transform, op, skipped);
    EXPECT_EQ(std::tuple(needsOp, skipped), std::tuple(c.needsOp, c.skipped)) << c.change.id;
    if (!needsOp)
      continue;
    EXPECT_EQ(std::tuple(op.remove, op.rev, op.version, op.source, op.index, op.routing),
              std::tuple(c.remove, c.rev, c.version, c.source, c.index, c.routing))
        << c.change.id;
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
  void progress(std::atomic<size_t>* counter) { // nullptr: the producer is done
    std::lock_guard<std::mutex> lock(mutex);
    counter ? void(++*counter) : void(producerDone = true);
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
      BulkOp op{"i", "d", "1-x", 1, false, std::string(10, 'x')};
      sender.progress(&sender.started);
      accepted = pipeline.add(c.noOpEvery && i % c.noOpEvery == 3 ? nullptr : &op, "s" + std::to_string(i));
      sender.progress(&sender.returned);
    }
    sender.progress(nullptr);
    const RiverOutcome outcome = pipeline.flush();
    EXPECT_EQ(outcome.ok(), c.ok) << outcome.message;
    EXPECT_EQ(sender.batches, c.batches);
    EXPECT_EQ(commits, c.commits);
    // While batch k is written, the producer fills batch k+1 and waits in the add that completes it.
    for (size_t k = 0; !c.noOpEvery && k + 1 < sender.returnedWhileInFlight.size(); ++k)
      EXPECT_LE(sender.returnedWhileInFlight[k], (k + 2) * 3 - 1) << "batch " << k + 1;
  }
}

TEST(RiverPipeline, FeedFailureIsPermanentUnlessTheFeedUsedUpItsRetries) {
  EXPECT_TRUE(RiverRunner::FeedFailure("404", 0, 3).permanent);
  EXPECT_TRUE(RiverRunner::FeedFailure("404 after a reconnection", 2, 3).permanent);
  EXPECT_FALSE(RiverRunner::FeedFailure("unreachable", 3, 3).permanent);
  EXPECT_EQ(RiverRunner::FeedFailure("x", 3, 3).side, Side::Couch);
}

TEST(RiverPipeline, PausesEndAtOnceOnStopOrCancelFromAnotherThread) {
  for (const bool viaCancel : {false, true}) {
    StopSignal stop;
    bool cancel = false;
    const auto started = std::chrono::steady_clock::now();
    std::thread other([&] { viaCancel ? std::atomic_ref<bool>(cancel).store(true) : stop.stop(); });
    EXPECT_FALSE(stop.pause(60000, &cancel));
    other.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5)); // not the minute asked
  }
}

} // namespace

#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverRunner_p.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

using namespace qz::river::detail;

namespace {

// A change read with every leaf revision (`revs`); the document carries the winner's _rev.
qz::couch::Change MakeChange(const std::string& id, std::vector<std::string> revs, const std::string& doc,
                             bool deleted = false) {
  qz::couch::Change c{.id = id, .revs = std::move(revs), .deleted = deleted};
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
  // The operation asked for ("-" for none), then whether the transform left the document out.
  const std::pair<qz::couch::Change, std::string> cases[] = {
      {MakeChange("o", {"1-x"}, R"({"_rev":"1-x","owner":"ann","tenant":"t1"})"),
       R"(put 1-x@1 i-1-t1 routing=ann {"httptools_rev":"1-x","seen":1})"},
      {MakeChange("p", {"1-x"}, R"({"_rev":"1-x","owner":"bob","drop":1})"), "del 1-x@1 i-1 skipped"}, // left out
      // A lower leaf won after the winner was deleted: the leaves in feed order, the sum rises.
      {MakeChange("c", {"4-d", "3-b"}, R"({"_id":"c","_rev":"3-b","_revisions":{},"n":2})"),
       R"(put 3-b@7 i-1 {"httptools_rev":"3-b","n":2,"seen":1})"},
      {MakeChange("q", {"4-x", "2-y"}, R"({"_id":"q","_rev":"4-x","_deleted":true})", true), "del 4-x@6 i-1"},
      {MakeChange("t", {"12-x"}, R"({"_rev":"12-x","boom":1})"), "del 12-x@12 i-1 skipped"}, // threw
      {MakeChange("r", {}, R"({"n":2})"), "-"},                                              // no revision
  };
  for (const auto& [change, expected] : cases) {
    BulkOp op;
    bool skipped = true;
    std::string got = "-";
    if (ChangeToOp(change, "i-1", transform, op, skipped))
      got = (op.remove ? "del " : "put ") + op.rev + "@" + std::to_string(op.version) + " " + op.index +
            (op.routing.empty() ? "" : " routing=" + op.routing) + (op.source.empty() ? "" : " " + op.source);
    EXPECT_EQ(got + (skipped ? " skipped" : ""), expected) << change.id;
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
  // Every noOpEvery-th change carries no operation; batch failAt fails (0: none); the batches and commits.
  const std::tuple<size_t, size_t, std::vector<size_t>, std::vector<std::string>> cases[] = {
      {0, 0, {3, 3, 3, 1}, {"s2", "s5", "s8", "s9"}},
      {4, 2, {3, 3}, {"s2"}}, // s3 and s7 carry no operation; the batch up to s6 fails
  };
  for (const auto& [noOpEvery, failAt, batches, committed] : cases) {
    GatedSender sender;
    sender.failAt = failAt;
    std::vector<std::string> commits;
    auto commit = [&](const std::string& seq) {
      commits.push_back(seq);
      return RiverOutcome::Done();
    };
    BulkPipeline pipeline(sender, 3, commit, nullptr);
    bool accepted = true;
    for (size_t i = 0; i < 10 && accepted; ++i) {
      BulkOp op{"i", "d", "1-x", 1, false, std::string(10, 'x')};
      sender.progress(&sender.started);
      accepted = pipeline.add(noOpEvery && i % noOpEvery == 3 ? nullptr : &op, "s" + std::to_string(i));
      sender.progress(&sender.returned);
    }
    sender.progress(nullptr);
    const RiverOutcome outcome = pipeline.flush();
    EXPECT_EQ(std::tuple(outcome.ok(), sender.batches, commits), std::tuple(failAt == 0, batches, committed))
        << outcome.message;
    // While batch k is written, the producer fills batch k+1 and waits in the add that completes it.
    for (size_t k = 0; !noOpEvery && k + 1 < sender.returnedWhileInFlight.size(); ++k)
      EXPECT_LE(sender.returnedWhileInFlight[k], (k + 2) * 3 - 1) << "batch " << k + 1;
  }
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

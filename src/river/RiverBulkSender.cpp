// The river's batches through the library's BulkIndexer, with version conflicts settled.
#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/elasticsearch/BulkIndexer.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace qz::river::detail {

namespace {

using qz::elasticsearch::BulkItem;
using qz::elasticsearch::BulkOutcome;

class ElasticBulkSender final : public BulkSender {
public:
  ElasticBulkSender(http::HttpConnectionPool& pool, qz::elasticsearch::ElasticConnectionParameters elastic,
                    std::string river, StopSignal& stop, std::function<void(const BulkProgress&)> progress,
                    unsigned retries)
      : m_pool(pool), m_elastic(std::move(elastic)), m_river(std::move(river)), m_stop(stop),
        m_progress(std::move(progress)), m_retries(retries) {}

  RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) override {
    // A conflict settled by writing again goes in a second round, without a version of its own.
    for (unsigned round = 0; !ops.empty(); ++round) {
      std::vector<BulkOp> conflicts;
      if (auto sent = sendRound(ops, round > 0, conflicts, cancel); !sent.ok())
        return sent;
      ops.clear();
      for (auto& op : conflicts) {
        bool again = false;
        if (auto settled = settle(op, again, cancel); !settled.ok())
          return settled;
        if (again)
          ops.push_back(std::move(op));
      }
      if (round > 0 && !ops.empty())
        return RiverOutcome::Failure(Side::Elastic, false, "version conflicts on " + ops.front().id + " persist");
    }
    return RiverOutcome::Done();
  }

private:
  // One pass of `ops` through a BulkIndexer of its own (one request, items retried inside it).
  // Version conflicts go to `conflicts`.
  RiverOutcome sendRound(std::vector<BulkOp>& ops, bool overwrite, std::vector<BulkOp>& conflicts, const bool* cancel) {
    std::unordered_map<std::string, size_t> byId;
    for (size_t i = 0; i < ops.size(); ++i)
      byId[ops[i].id] = i; // a document twice in a batch: its later state wins
    std::mutex mutex;
    BulkProgress progress;
    std::vector<size_t> conflicted;
    size_t transient = 0, cancelled = 0;
    std::string firstTransient, refusal;
    // Declared after what its callback touches: its destructor still reports items.
    qz::elasticsearch::BulkIndexer indexer(m_pool, m_elastic, 1, ops.size() + 1, size_t(1) << 40);
    indexer.setRetries(m_retries, 100);
    indexer.onItemOutcome([&](const BulkItem& item, const BulkOutcome& out) {
      std::lock_guard<std::mutex> lock(mutex);
      const size_t i = byId.at(item.id);
      if (out.ok()) {
        if (out.result != "not_found")
          ++(ops[i].remove ? progress.deleted : progress.indexed);
      } else if (out.errorType == "cancelled") {
        ++cancelled;
      } else if (out.status == 409) {
        conflicted.push_back(i);
      } else if (out.errorType == "http_error" && !TransientStatus(out.status)) {
        refusal = "bulk request refused: " + std::to_string(out.status) + " " + out.errorReason;
      } else if (TransientStatus(out.status)) {
        if (!transient++)
          firstTransient = std::to_string(out.status) + " " + out.errorType + ": " + out.errorReason;
      } else {
        ++progress.failed;
        qzLogObject(qzLog::Warning, "river")
            << "River " << m_river << ": document " << item.id << " not " << (ops[i].remove ? "deleted" : "indexed")
            << " (" << out.status << " " << out.errorType << ": " << out.errorReason << ")";
      }
    });
    for (size_t i = 0; i < ops.size(); ++i) {
      const BulkOp& op = ops[i];
      BulkItem item;
      item.op = op.remove ? qz::elasticsearch::BulkOp::Delete : qz::elasticsearch::BulkOp::Index;
      item.index = op.index;
      item.id = op.id;
      if (!overwrite && op.version >= 0) { // a negative version: above whatever is stored
        item.version = op.version;
        item.versionType = qz::elasticsearch::BulkVersionType::External;
      }
      item.json = op.source;
      std::string error;
      if (!indexer.add(item, &error))
        return RiverOutcome::Failure(Side::Elastic, true, "document " + op.id + ": " + error);
    }
    std::string error;
    const bool flushed = indexer.flush(&error, m_stop.flag());
    if (m_stop.stopped(cancel))
      return RiverOutcome::Idle();
    indexer.stop(); // reports what is still unacknowledged before the locals go
    std::lock_guard<std::mutex> lock(mutex);
    progress.retried = indexer.stats().retried;
    if (transient)
      progress.retrying = std::to_string(transient) + " items still rejected (" + firstTransient + ")";
    m_progress(progress);
    if (!refusal.empty())
      return RiverOutcome::Failure(Side::Elastic, true, refusal);
    if (transient || (!flushed && cancelled))
      return RiverOutcome::Failure(Side::Elastic, false,
                                   "bulk request: " + (transient ? progress.retrying : "interrupted: " + error));
    std::sort(conflicted.begin(), conflicted.end());
    conflicted.erase(std::unique(conflicted.begin(), conflicted.end()), conflicted.end());
    for (size_t i : conflicted)
      conflicts.push_back(std::move(ops[i]));
    return RiverOutcome::Done();
  }

  // A version conflict: done when the index holds this very revision, or nothing for a delete;
  // otherwise the stored state is older (a purge, a recreated database, an index of the earlier
  // versioning) and `op` goes `again`, written above it.
  RiverOutcome settle(const BulkOp& op, bool& again, const bool* cancel) {
    const auto resp = CallElastic(m_pool, "GET", m_elastic.toDocumentUrl(op.index, op.id, {}), nullptr, cancel);
    if (resp.status != 200 && resp.status != 404)
      return ElasticFailure("reading " + op.id + " after a version conflict", resp);
    qzVariantMapImpl doc;
    if (resp.status == 200 && (!qz::json::Json2Variant::Convert(resp.body, doc) || !doc["_source"].isMap()))
      return RiverOutcome::Failure(Side::Elastic, false, "reading " + op.id + ": malformed answer");
    const bool found = resp.status == 200 && doc["found"].toBool();
    const std::string stored = found ? doc["_source"].asMap()[kRevField].toString() : std::string();
    again = op.remove ? found : !found || stored != op.rev;
    if (again)
      qzLogObject(qzLog::Info, "river") << "River " << m_river << ": " << op.id << " at " << op.rev
                                        << " conflicts with " << (found ? stored : "a deletion")
                                        << " in the index, writing it again";
    return RiverOutcome::Done();
  }

  http::HttpConnectionPool& m_pool;
  const qz::elasticsearch::ElasticConnectionParameters m_elastic;
  const std::string m_river;
  StopSignal& m_stop;
  const std::function<void(const BulkProgress&)> m_progress;
  const unsigned m_retries;
};

} // namespace

std::unique_ptr<BulkSender> MakeBulkSender(http::HttpConnectionPool& pool,
                                           qz::elasticsearch::ElasticConnectionParameters elastic, std::string river,
                                           StopSignal& stop, std::function<void(const BulkProgress&)> progress,
                                           unsigned retries) {
  return std::make_unique<ElasticBulkSender>(pool, std::move(elastic), std::move(river), stop, std::move(progress),
                                             retries);
}

} // namespace qz::river::detail

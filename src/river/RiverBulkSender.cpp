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
                    unsigned retries, std::function<bool(const RiverDeadLetter&)> deadLetter)
      : m_pool(pool), m_elastic(std::move(elastic)), m_river(std::move(river)), m_stop(stop),
        m_progress(std::move(progress)), m_retries(retries), m_deadLetter(std::move(deadLetter)) {}

  RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) override {
    std::vector<RiverDeadLetter> letters;
    // A conflict settled by writing again goes in a second round, without a version of its own.
    for (unsigned round = 0; !ops.empty(); ++round) {
      std::vector<BulkOp> conflicts;
      if (auto sent = sendHalving(ops, round > 0, conflicts, letters, cancel); !sent.ok())
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
    return deliver(letters);
  }

private:
  // Items refused for good: their letters go to the callback, or the send fails naming the first.
  RiverOutcome deliver(std::vector<RiverDeadLetter>& letters) {
    BulkProgress progress;
    RiverOutcome outcome = RiverOutcome::Done();
    for (auto& letter : letters) {
      const std::string what = "document " + letter.id + " refused by Elasticsearch (" + std::to_string(letter.status) +
                               " " + letter.errorType + ": " + letter.reason + ")";
      if (m_deadLetter && m_deadLetter(letter)) {
        ++progress.rejected;
        qzLogObject(qzLog::Warning, "river") << "River " << m_river << ": " << what << ", a dead letter";
        continue;
      }
      ++progress.failed;
      outcome = RiverOutcome::Failure(Side::Elastic, true,
                                      m_deadLetter ? what + ": its dead letter could not be stored" : what);
      break;
    }
    if (progress.rejected || progress.failed)
      m_progress(progress);
    return outcome;
  }

  // sendRound(), with a request refused as too large sent again in halves; a document refused
  // so even alone is a dead letter.
  RiverOutcome sendHalving(std::vector<BulkOp>& ops, bool overwrite, std::vector<BulkOp>& conflicts,
                           std::vector<RiverDeadLetter>& letters, const bool* cancel) {
    RiverDeadLetter tooLarge;
    if (auto sent = sendRound(ops, overwrite, conflicts, letters, tooLarge, cancel); !sent.ok() || !tooLarge.status)
      return sent;
    if (ops.size() == 1) {
      letters.push_back(Letter(ops.front(), tooLarge));
      return RiverOutcome::Done();
    }
    qzLogObject(qzLog::Info, "river") << "River " << m_river << ": a bulk of " << ops.size()
                                      << " documents is too large, sending it in halves";
    const auto middle = ops.begin() + std::ptrdiff_t(ops.size() / 2);
    std::vector<BulkOp> first(std::make_move_iterator(ops.begin()), std::make_move_iterator(middle));
    std::vector<BulkOp> second(std::make_move_iterator(middle), std::make_move_iterator(ops.end()));
    for (auto* half : {&first, &second})
      if (auto sent = sendHalving(*half, overwrite, conflicts, letters, cancel); !sent.ok())
        return sent;
    return RiverOutcome::Done();
  }

  // The letter of `op` refused as `refusal` says (its status, type and reason).
  static RiverDeadLetter Letter(const BulkOp& op, const RiverDeadLetter& refusal) {
    RiverDeadLetter letter = refusal;
    letter.id = op.id;
    letter.rev = op.rev;
    letter.seq = op.seq;
    letter.source = op.remove ? std::string() : op.source;
    letter.timeMs = NowMs();
    return letter;
  }

  // Refused for good: a 4xx other than 408, 409 and 429, with an error.
  static bool RefusedForGood(const BulkOutcome& out) {
    return out.status >= 400 && out.status < 500 && out.status != 408 && out.status != 409 && out.status != 429 &&
           !out.errorType.empty();
  }

  // One pass of `ops` through a BulkIndexer of its own (one request, items retried inside it).
  // Version conflicts go to `conflicts`, items refused for good to `letters`; a request refused
  // as too large is Done with `tooLarge` holding the refusal and nothing else kept.
  RiverOutcome sendRound(std::vector<BulkOp>& ops, bool overwrite, std::vector<BulkOp>& conflicts,
                         std::vector<RiverDeadLetter>& letters, RiverDeadLetter& tooLarge, const bool* cancel) {
    // By place and id: a routed document's old copy is deleted beside its new one.
    auto key = [](const std::string& index, const std::string& routing, const std::string& id) {
      return index + '\n' + routing + '\n' + id;
    };
    std::unordered_map<std::string, size_t> byId;
    for (size_t i = 0; i < ops.size(); ++i)
      byId[key(ops[i].index, ops[i].routing, ops[i].id)] = i; // a document twice in a batch: its later state wins
    std::mutex mutex;
    BulkProgress progress;
    std::vector<size_t> conflicted, refused;
    std::vector<RiverDeadLetter> refusals;
    size_t transient = 0, cancelled = 0;
    std::string firstTransient, refusal;
    // Declared after what its callback touches: its destructor still reports items.
    qz::elasticsearch::BulkIndexer indexer(m_pool, m_elastic, 1, ops.size() + 1, size_t(1) << 40);
    indexer.setRetries(m_retries, 100);
    indexer.onItemOutcome([&](const BulkItem& item, const BulkOutcome& out) {
      std::lock_guard<std::mutex> lock(mutex);
      const size_t i = byId.at(key(item.index, item.routing, item.id));
      // A delete answered 404 holds nothing there, even when the index itself went meanwhile.
      if (out.ok() || (ops[i].remove && out.status == 404) || (out.status == 409 && ops[i].relocation)) {
        if (out.ok() && out.result != "not_found" && !ops[i].relocation)
          ++(ops[i].remove ? progress.deleted : progress.indexed);
      } else if (out.errorType == "cancelled") {
        ++cancelled;
      } else if (out.status == 409) {
        conflicted.push_back(i);
      } else if (out.errorType == "http_error" && out.status == 413) {
        tooLarge.status = 413;
        tooLarge.errorType = "request_entity_too_large";
        tooLarge.reason = out.errorReason;
      } else if (out.errorType == "http_error" && out.status != 408 && !TransientStatus(out.status)) {
        refusal = "bulk request refused: " + std::to_string(out.status) + " " + out.errorReason;
      } else if (RefusedForGood(out)) {
        refused.push_back(i);
        refusals.push_back({{}, {}, {}, int(out.status), out.errorType, out.errorReason, 0, {}});
      } else { // 408, 429, 5xx, no answer: the river tries again
        if (!transient++)
          firstTransient = std::to_string(out.status) + " " + out.errorType + ": " + out.errorReason;
      }
    });
    for (size_t i = 0; i < ops.size(); ++i) {
      const BulkOp& op = ops[i];
      BulkItem item;
      item.op = op.remove ? qz::elasticsearch::BulkOp::Delete : qz::elasticsearch::BulkOp::Index;
      item.index = op.index;
      item.id = op.id;
      item.routing = op.routing;
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
    if (tooLarge.status)
      return RiverOutcome::Done(); // nothing else counts: the halves go again
    if (!refusal.empty())
      return RiverOutcome::Failure(Side::Elastic, true, refusal);
    if (transient || (!flushed && cancelled))
      return RiverOutcome::Failure(Side::Elastic, false,
                                   "bulk request: " + (transient ? progress.retrying : "interrupted: " + error));
    std::sort(conflicted.begin(), conflicted.end());
    conflicted.erase(std::unique(conflicted.begin(), conflicted.end()), conflicted.end());
    for (size_t i = 0; i < refused.size(); ++i)
      letters.push_back(Letter(ops[refused[i]], refusals[i]));
    for (size_t i : conflicted)
      conflicts.push_back(std::move(ops[i]));
    return RiverOutcome::Done();
  }

  // A version conflict: done when the index holds this very revision, or nothing for a delete;
  // otherwise the stored state is older (a purge, a recreated database, an index of the earlier
  // versioning) and `op` goes `again`, written above it.
  RiverOutcome settle(const BulkOp& op, bool& again, const bool* cancel) {
    qz::Url::QueryParameters query;
    if (!op.routing.empty())
      query.emplace_back("routing", op.routing);
    const auto resp = CallElastic(m_pool, "GET", m_elastic.toDocumentUrl(op.index, op.id, query), nullptr, cancel);
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
  const std::function<bool(const RiverDeadLetter&)> m_deadLetter;
};

} // namespace

std::unique_ptr<BulkSender> MakeBulkSender(http::HttpConnectionPool& pool,
                                           qz::elasticsearch::ElasticConnectionParameters elastic, std::string river,
                                           StopSignal& stop, std::function<void(const BulkProgress&)> progress,
                                           unsigned retries, std::function<bool(const RiverDeadLetter&)> deadLetter) {
  return std::make_unique<ElasticBulkSender>(pool, std::move(elastic), std::move(river), stop, std::move(progress),
                                             retries, std::move(deadLetter));
}

} // namespace qz::river::detail

// The river's own _bulk sender, behind the BulkSender interface.
#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <algorithm>

namespace qz::river::detail {

namespace {

class ElasticBulkSender final : public BulkSender {
public:
  ElasticBulkSender(http::HttpConnectionPool& pool, qz::elasticsearch::ElasticConnectionParameters elastic,
                    std::string river, StopSignal& stop, std::function<void(const BulkProgress&)> progress)
      : m_pool(pool), m_url(elastic.toApiUrl({"_bulk"}, {})), m_river(std::move(river)), m_stop(stop),
        m_progress(std::move(progress)) {}

  RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) override {
    for (unsigned failures = 0; !ops.empty();) {
      std::string body;
      size_t size = 0;
      for (const auto& op : ops)
        size += op.line.size();
      body.reserve(size);
      for (const auto& op : ops)
        body += op.line;
      const auto resp = CallElastic(m_pool, "POST", m_url, &body, cancel, "application/x-ndjson");
      if (m_stop.stopped(cancel))
        return RiverOutcome::Idle();
      BulkProgress progress;
      if (resp.status != 200) {
        RiverOutcome failure = ElasticFailure("bulk request", resp);
        if (failure.permanent)
          return failure;
        progress.retried = 1;
        progress.retrying = failure.message + ", sending again";
      } else if (!tally(resp, ops, progress)) {
        return RiverOutcome::Failure(Side::Elastic, false, "bulk request: malformed answer");
      }
      m_progress(progress);
      if (!ops.empty() && !m_stop.pause(StopSignal::BackoffMs(failures++), cancel))
        return RiverOutcome::Idle();
    }
    return RiverOutcome::Done();
  }

private:
  // Counts the items of an answer and leaves in `ops` those to send again (429, 503).
  bool tally(const qz::elasticsearch::ElasticResponse& resp, std::vector<BulkOp>& ops, BulkProgress& progress) {
    // Without deletes (whose "not found" is no error) an answer without errors needs no reading.
    const size_t errorsAt = resp.body.find("\"errors\":false");
    if (errorsAt != std::string::npos && errorsAt < resp.body.find("\"items\"") &&
        std::none_of(ops.begin(), ops.end(), [](const BulkOp& op) { return op.remove; })) {
      progress.indexed = ops.size();
      ops.clear();
      return true;
    }
    qzVariantMapImpl answer;
    if (!qz::json::Json2Variant::Convert(resp.body, answer) || answer["items"].toList().size() != ops.size())
      return false;
    std::vector<BulkOp> again;
    const auto& items = answer["items"].toList();
    for (size_t i = 0; i < ops.size(); ++i) {
      const auto& item = items[i].toMap();
      if (item.empty() || !item.begin()->second.isMap())
        continue;
      const auto& result = item.begin()->second.toMap();
      const long status = long(result.count("status") ? result.at("status").toInt64() : 0);
      if (status >= 200 && status < 300)
        ++(ops[i].remove ? progress.deleted : progress.indexed);
      else if ((status == 404 && ops[i].remove) || status == 409)
        continue; // nothing to delete, or a newer (or the same) revision is there already
      else if (status == 429 || status == 503)
        again.push_back(std::move(ops[i]));
      else
        refused(ops[i], status, result, progress);
    }
    progress.retried = again.size();
    if (!again.empty())
      progress.retrying = std::to_string(again.size()) + " items rejected (429/503), sending again";
    ops = std::move(again);
    return true;
  }

  void refused(const BulkOp& op, long status, const qzVariantMapImpl& result, BulkProgress& progress) {
    ++progress.failed;
    auto field = [](const qzVariantMapImpl& m, const char* key, const char* otherwise) {
      return m.count(key) ? m.at(key).toString() : std::string(otherwise);
    };
    const qzVariantMapImpl err = result.count("error") ? result.at("error").toMap() : qzVariantMapImpl{};
    qzLogObject(qzLog::Warning, "river") << "River " << m_river << ": document " << op.id << " not "
                                         << (op.remove ? "deleted" : "indexed") << " (" << status << " "
                                         << field(err, "type", "error") << ": " << field(err, "reason", "") << ")";
  }

  http::HttpConnectionPool& m_pool;
  const qz::elasticsearch::ElasticConnectionParameters m_url;
  const std::string m_river;
  StopSignal& m_stop;
  const std::function<void(const BulkProgress&)> m_progress;
};

} // namespace

std::unique_ptr<BulkSender> MakeBulkSender(http::HttpConnectionPool& pool,
                                           qz::elasticsearch::ElasticConnectionParameters elastic, std::string river,
                                           StopSignal& stop, std::function<void(const BulkProgress&)> progress) {
  return std::make_unique<ElasticBulkSender>(pool, std::move(elastic), std::move(river), stop, std::move(progress));
}

} // namespace qz::river::detail

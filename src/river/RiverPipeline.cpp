#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>

#include <algorithm>
#include <cstdlib>

namespace qz::river::detail {

bool ChangeToOp(const qz::couch::Change& change, const std::string& index, const Transform& transform, BulkOp& op,
                bool& skipped) {
  skipped = false;
  op.version = 0;
  for (const auto& rev : change.revs) // "3-abc" -> 3
    op.version += std::max<int64_t>(0, std::atoll(rev.c_str()));
  // The winner is the document's _rev; the feed lists the leaves in no set order.
  const qzVariant* rev =
      change.doc.isMap() && change.doc.toMap().count("_rev") ? &change.doc.toMap().at("_rev") : nullptr;
  op.rev = rev ? rev->toString() : change.revs.empty() ? std::string() : change.revs.front();
  if (op.version <= 0 || std::atoll(op.rev.c_str()) <= 0)
    return false;
  op.index = index;
  op.id = change.id;
  op.seq = change.seq;
  op.source.clear();
  op.remove = change.deleted || change.id.rfind("_design/", 0) == 0 || !change.doc.isMap();
  if (op.remove)
    return true;
  qzVariantMapImpl doc = change.doc.toMap();
  bool keep = true;
  if (transform) {
    try {
      keep = transform(doc);
    } catch (...) {
      keep = false;
    }
  }
  op.remove = skipped = !keep;
  if (op.remove)
    return true;
  for (const char* meta : {"_id", "_rev", "_attachments", "_conflicts", "_deleted", "_revisions"})
    doc.erase(meta);
  doc[kRevField] = op.rev;
  return qz::json::Json2Variant::Convert(doc, op.source, false);
}

BulkPipeline::BulkPipeline(BulkSender& sender, size_t batchDocs, Commit commit, const bool* cancel, size_t batchBytes)
    : m_sender(sender), m_batchDocs(std::max<size_t>(1, batchDocs)), m_batchBytes(batchBytes),
      m_commit(std::move(commit)), m_cancel(cancel) {}

BulkPipeline::~BulkPipeline() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_done = true;
  }
  m_cv.notify_all();
  if (m_thread.joinable())
    m_thread.join();
}

RiverOutcome BulkPipeline::write(std::vector<BulkOp>& ops, const std::string& seq) {
  if (!ops.empty())
    if (auto sent = m_sender.send(ops, m_cancel); !sent.ok())
      return sent;
  return m_commit(seq);
}

void BulkPipeline::loop() {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_cv.wait(lock, [&] { return m_busy || m_done; });
    if (!m_busy)
      return;
    std::vector<BulkOp> ops = std::move(m_flight);
    const std::string seq = std::move(m_flightSeq);
    lock.unlock();
    RiverOutcome written = write(ops, seq);
    lock.lock();
    m_busy = false;
    if (m_outcome.ok())
      m_outcome = std::move(written);
    m_cv.notify_all();
  }
}

bool BulkPipeline::waitIdle() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_cv.wait(lock, [&] { return !m_busy; });
  return m_outcome.ok();
}

bool BulkPipeline::add(BulkOp* op, const std::string& seq) {
  if (op) {
    m_bytes += op->size();
    m_batch.push_back(std::move(*op));
  }
  m_seq = seq;
  m_pending = true;
  if (m_batch.size() < m_batchDocs && m_bytes < m_batchBytes)
    return true;
  if (!waitIdle())
    return false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_flight = std::move(m_batch);
    m_flightSeq = std::move(m_seq);
    m_busy = true;
  }
  if (!m_thread.joinable())
    m_thread = std::thread([this] { loop(); });
  m_cv.notify_all();
  m_batch.clear();
  m_pending = false;
  m_bytes = 0;
  return true;
}

RiverOutcome BulkPipeline::wait() {
  waitIdle();
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_outcome;
}

RiverOutcome BulkPipeline::flush() {
  if (auto sent = wait(); !sent.ok())
    return sent;
  if (!m_pending)
    return RiverOutcome::Done();
  RiverOutcome written = write(m_batch, m_seq);
  m_batch.clear();
  m_pending = false;
  m_bytes = 0;
  return written;
}

} // namespace qz::river::detail

#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>

#include <algorithm>
#include <chrono>
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
  op.routing.clear();
  op.remove = change.deleted || change.id.rfind("_design/", 0) == 0 || !change.doc.isMap();
  if (op.remove)
    return true;
  qzVariantMapImpl doc = change.doc.toMap();
  bool keep = true;
  RiverRoute route;
  if (transform) {
    try {
      keep = transform(doc, route);
    } catch (...) {
      keep = false;
    }
  }
  op.remove = skipped = !keep;
  if (op.remove)
    return true;
  op.routing = std::move(route.routing);
  if (!route.indexSuffix.empty())
    op.index += "-" + route.indexSuffix;
  for (const char* meta : {"_id", "_rev", "_attachments", "_conflicts", "_deleted", "_revisions"})
    doc.erase(meta);
  doc[kRevField] = op.rev;
  return qz::json::Json2Variant::Convert(doc, op.source, false);
}

BulkPipeline::BulkPipeline(BulkSender& sender, size_t batchDocs, Commit commit, const bool* cancel, size_t batchBytes,
                           unsigned quietMs, unsigned maxDelayMs)
    : m_sender(sender), m_batchDocs(std::max<size_t>(1, batchDocs)), m_batchBytes(batchBytes), m_quietMs(quietMs),
      m_maxDelayMs(maxDelayMs), m_commit(std::move(commit)), m_cancel(cancel) {}

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
    while (!m_busy && !m_done) {
      if (!m_eager || !m_pending || m_occupied || !m_outcome.ok()) {
        m_cv.wait(lock);
        continue;
      }
      // Following: the batch goes once the feed is quiet, or when its first change has waited enough.
      const int64_t due = std::min(m_lastAddMs + m_quietMs, m_batchReadMs + m_maxDelayMs);
      if (const int64_t now = SteadyMs(); now < due)
        m_cv.wait_for(lock, std::chrono::milliseconds(due - now));
      else
        handOverLocked();
    }
    if (!m_busy)
      return;
    std::vector<BulkOp> ops = std::move(m_flight);
    const std::string seq = std::move(m_flightSeq);
    lock.unlock();
    RiverOutcome written = write(ops, seq);
    lock.lock();
    m_busy = false;
    m_flightReadMs = 0;
    m_flightChanges = 0;
    if (m_outcome.ok())
      m_outcome = std::move(written);
    m_cv.notify_all();
  }
}

void BulkPipeline::takeBatchLocked(std::vector<BulkOp>& ops, std::string& seq) {
  ops = std::move(m_batch);
  seq = std::move(m_seq);
  m_flightReadMs = m_batchReadMs;
  m_flightChanges = m_batchChanges;
  m_batch.clear();
  m_seq.clear();
  m_pending = false;
  m_bytes = 0;
  m_batchReadMs = 0;
  m_batchChanges = 0;
}

void BulkPipeline::handOverLocked() {
  takeBatchLocked(m_flight, m_flightSeq);
  m_busy = true;
  if (!m_thread.joinable())
    m_thread = std::thread([this] { loop(); });
  m_cv.notify_all();
}

void BulkPipeline::waitFree(std::unique_lock<std::mutex>& lock) {
  m_cv.wait(lock, [&] { return !m_busy && !m_occupied; });
}

bool BulkPipeline::add(BulkOp* op, const std::string& seq) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_outcome.ok())
    return false;
  m_lastAddMs = SteadyMs();
  if (!m_pending)
    m_batchReadMs = m_lastAddMs;
  ++m_batchChanges;
  if (op) {
    m_bytes += op->size();
    m_batch.push_back(std::move(*op));
  }
  if (!seq.empty())
    m_seq = seq;
  m_pending = true;
  if (m_batch.size() < m_batchDocs && m_bytes < m_batchBytes)
    return true;
  waitFree(lock);
  if (!m_outcome.ok())
    return false;
  if (m_pending) // unless the writer took it meanwhile
    handOverLocked();
  return true;
}

void BulkPipeline::handOver() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_eager = true;
  if (!m_thread.joinable())
    m_thread = std::thread([this] { loop(); });
  m_cv.notify_all();
}

RiverOutcome BulkPipeline::between(const std::function<RiverOutcome()>& task) {
  std::unique_lock<std::mutex> lock(m_mutex);
  waitFree(lock);
  if (!m_outcome.ok())
    return m_outcome;
  m_occupied = true;
  lock.unlock();
  RiverOutcome done = task();
  lock.lock();
  m_occupied = false;
  if (m_outcome.ok())
    m_outcome = done;
  m_cv.notify_all();
  return done;
}

RiverOutcome BulkPipeline::wait() {
  std::unique_lock<std::mutex> lock(m_mutex);
  waitFree(lock);
  return m_outcome;
}

RiverOutcome BulkPipeline::flush() {
  std::unique_lock<std::mutex> lock(m_mutex);
  waitFree(lock);
  if (!m_outcome.ok() || !m_pending)
    return m_outcome;
  std::vector<BulkOp> ops;
  std::string seq;
  takeBatchLocked(ops, seq);
  m_occupied = true;
  lock.unlock();
  RiverOutcome written = write(ops, seq);
  lock.lock();
  m_occupied = false;
  m_flightReadMs = 0;
  m_flightChanges = 0;
  if (m_outcome.ok())
    m_outcome = written;
  m_cv.notify_all();
  return m_outcome;
}

int64_t BulkPipeline::unackedSinceMs() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_flightReadMs ? m_flightReadMs : m_pending ? m_batchReadMs : 0;
}

size_t BulkPipeline::unackedChanges() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_flightChanges + (m_pending ? m_batchChanges : 0);
}

} // namespace qz::river::detail

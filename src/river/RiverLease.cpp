#include <HttpTools/river/RiverLease_p.h>

#include <HttpTools/platform/qzJson.h>

#include <algorithm>

namespace qz::river::detail {

RiverOutcome RiverLease::acquire(RiverState& state, const bool* cancel) {
  RiverState current;
  bool found = false;
  if (auto read = m_store.read(current, found, cancel); !read.ok())
    return read;
  if (found && !current.owner.empty() && current.owner != m_owner && current.expires > NowMs()) {
    m_holder = current.owner;
    m_holderExpires = current.expires;
    return RiverOutcome::Idle("waiting for the lease held by " + current.owner);
  }
  state = found ? current : RiverState();
  auto taken = renew(state, cancel);
  if (taken.idle())
    m_holder.clear(); // taken by another process meanwhile: the next read names it
  return taken;
}

RiverOutcome RiverLease::renew(RiverState& state, const bool* cancel) {
  state.owner = m_owner;
  state.expires = NowMs() + int64_t(m_leaseMs);
  auto written = m_store.write(state, cancel);
  m_held = written.ok() || (written.failed() && m_held);
  if (written.ok()) {
    m_holder = m_owner;
    m_renewedMs = SteadyMs();
  } else if (written.idle()) {
    written.message = "the lease was taken over by another process";
  }
  return written;
}

void RiverLease::release(RiverState& state) {
  if (!m_held)
    return;
  m_held = false;
  state.owner.clear();
  state.expires = 0;
  m_store.write(state, nullptr);
}

bool RiverLease::renewDue() const { return SteadyMs() - m_renewedMs > int64_t(m_leaseMs) / 3; }

} // namespace qz::river::detail

namespace qz::river::detail {

RiverOutcome ProcessRegistry::beat(bool leaving, const bool* cancel) {
  if (auto created = m_store.createIndex(cancel); !created.ok())
    return created;
  const auto& es = m_where.elastic;
  for (unsigned attempt = 0;; ++attempt) {
    const auto got =
        CallElastic(m_pool, "GET", es.toDocumentUrl(m_where.stateIndex, m_where.river, {}), nullptr, cancel);
    if (got.status != 200 && got.status != 404)
      return ElasticFailure("reading the processes", got);
    qzVariantMapImpl doc;
    if (got.status == 200 && (!qz::json::Json2Variant::Convert(got.body, doc) || !doc["_source"].isMap()))
      return RiverOutcome::Failure(Side::Elastic, false, "reading the processes: malformed answer");
    const int64_t now = NowMs();
    std::vector<std::pair<std::string, int64_t>> live;
    if (got.status == 200)
      for (const auto& entry : doc["_source"].asMap()["processes"].toList()) {
        const auto& e = entry.toMap();
        const std::string owner = e.count("owner") ? e.at("owner").toString() : "";
        const int64_t expires = e.count("expires") ? e.at("expires").toInt64() : 0;
        if (!owner.empty() && owner != m_owner && expires > now)
          live.emplace_back(owner, expires);
      }
    if (!leaving)
      live.emplace_back(m_owner, now + int64_t(m_leaseMs));
    std::sort(live.begin(), live.end());
    qzVariantListImpl list;
    for (const auto& [owner, expires] : live)
      list.push_back(qzVariantMapImpl{{"owner", owner}, {"expires", expires}});
    const std::string body = JsonText(qzVariantMapImpl{{"processes", std::move(list)}});
    const auto url = got.status == 200
                         ? es.toDocumentUrl(m_where.stateIndex, m_where.river,
                                            {{"if_seq_no", std::to_string(doc["_seq_no"].toInt64())},
                                             {"if_primary_term", std::to_string(doc["_primary_term"].toInt64())}})
                         : es.toApiUrl({m_where.stateIndex, "_create", m_where.river}, {});
    const auto put = CallElastic(m_pool, "PUT", url, &body, cancel);
    if (put.status == 409 && attempt < 20)
      continue; // another process beat meanwhile
    if (put.status != 200 && put.status != 201)
      return ElasticFailure("writing the processes", put);
    m_processes = std::max<unsigned>(1, unsigned(live.size()));
    m_rank = 0;
    for (size_t i = 0; i < live.size(); ++i)
      if (live[i].first == m_owner)
        m_rank = unsigned(i);
    return RiverOutcome::Done();
  }
}

unsigned ProcessRegistry::Share(unsigned rivers, unsigned processes, unsigned rank) {
  processes = std::max(1u, processes);
  return rivers / processes + (rank < rivers % processes ? 1 : 0);
}

bool Throttle::take(StopSignal& stop, const bool* cancel) {
  if (!m_perSecond)
    return true;
  const double now = double(SteadyMs()), step = 1000.0 / m_perSecond;
  m_nextMs = std::max(m_nextMs, now - 100.0) + step; // unused time beyond a tenth of a second is lost
  return m_nextMs - step <= now || stop.pause(unsigned(m_nextMs - step - now), cancel);
}

} // namespace qz::river::detail

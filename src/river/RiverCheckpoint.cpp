#include <HttpTools/river/RiverCheckpoint_p.h>

#include <HttpTools/platform/qzJson.h>

namespace qz::river::detail {

RiverOutcome CheckpointStore::read(RiverState& out, bool& found, const bool* cancel) {
  const auto resp =
      CallElastic(m_pool, "GET", m_where.elastic.toDocumentUrl(m_where.stateIndex, m_where.river, {}), nullptr, cancel);
  found = resp.status == 200;
  if (resp.status == 404) {
    m_seqNo = m_primaryTerm = -1;
    return RiverOutcome::Done();
  }
  if (resp.status != 200)
    return ElasticFailure("reading the river state", resp);
  qzVariantMapImpl doc;
  if (!qz::json::Json2Variant::Convert(resp.body, doc) || !doc["_source"].isMap())
    return RiverOutcome::Failure(Side::Elastic, false, "reading the river state: malformed answer");
  m_seqNo = doc["_seq_no"].toInt64();
  m_primaryTerm = doc["_primary_term"].toInt64();
  auto& src = doc["_source"].asMap();
  auto seqOf = [&](const char* key) { return src[key].isNull() ? std::string("0") : src[key].toString(); };
  out.owner = src["owner"].toString();
  out.expires = src["expires"].toInt64();
  out.index = src["index"].toString();
  out.seq = seqOf("seq");
  out.building = src["building"].toString();
  out.buildSeq = seqOf("buildSeq");
  return RiverOutcome::Done();
}

RiverOutcome CheckpointStore::write(const RiverState& state, const bool* cancel) {
  const std::string body = JsonText(qzVariantMapImpl{{"owner", state.owner},
                                                     {"expires", state.expires},
                                                     {"alias", m_where.alias},
                                                     {"database", m_where.database},
                                                     {"index", state.index},
                                                     {"seq", state.seq},
                                                     {"building", state.building},
                                                     {"buildSeq", state.buildSeq}});
  const auto& es = m_where.elastic;
  const qz::elasticsearch::ElasticConnectionParameters url =
      knowsVersion() ? es.toDocumentUrl(
                           m_where.stateIndex, m_where.river,
                           {{"if_seq_no", std::to_string(m_seqNo)}, {"if_primary_term", std::to_string(m_primaryTerm)}})
                     : es.toApiUrl({m_where.stateIndex, "_create", m_where.river}, {});
  const auto resp = CallElastic(m_pool, "PUT", url, &body, cancel);
  if (resp.status == 409)
    return RiverOutcome::Idle("the river state was written by another process");
  if (resp.status != 200 && resp.status != 201)
    return ElasticFailure("writing the river state", resp);
  qzVariantMapImpl doc;
  qz::json::Json2Variant::Convert(resp.body, doc);
  m_seqNo = doc["_seq_no"].toInt64();
  m_primaryTerm = doc["_primary_term"].toInt64();
  return RiverOutcome::Done();
}

} // namespace qz::river::detail
